# Warnings as errors for the project's own targets.
function(fs_target_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
    -Wold-style-cast -Wcast-align -Wunused -Woverloaded-virtual -Wconversion -Wsign-conversion
    -Wnull-dereference -Wdouble-promotion -Wformat=2 -Werror)
endfunction()

# A library of the project: warnings on, includes from the source root.
function(fs_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  # Shared, so that the agent and the plugin it loads at run time share one copy of the host
  # (one plugin loader, one attribute-cache name map, one set of trace facilities).
  add_library(${name} SHARED ${ARG_SOURCES})
  fs_target_warnings(${name})
  target_link_libraries(${name} PUBLIC ${ARG_DEPS})
  # Installed beside the plugin, where the programs' install RPATH finds them.
  install(TARGETS ${name} LIBRARY DESTINATION ${FS_INSTALL_LIBDIR} NAMELINK_SKIP)
endfunction()

# A unit test executable registered with ctest.
function(fs_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  fs_target_warnings(${name})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()

# A Google Benchmark executable.
function(fs_bench name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  fs_target_warnings(${name})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} benchmark::benchmark)
endfunction()

# A fuzz target: with FS_BUILD_FUZZ (clang), the libFuzzer executable `name`; always,
# `name`Replay, the same target under a plain main that runs every input of
# fuzz/corpus/`name`/ once, registered with ctest as fuzz.replay.`name`.
function(fs_fuzz name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  if(FS_BUILD_FUZZ)
    add_executable(${name} ${ARG_SOURCES})
    fs_target_warnings(${name})
    target_compile_options(${name} PRIVATE -fsanitize=fuzzer)
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
    target_link_libraries(${name} PRIVATE ${ARG_DEPS})
    # `fuzzers` builds every fuzz target and only what they need.
    if(NOT TARGET fuzzers)
      add_custom_target(fuzzers)
    endif()
    add_dependencies(fuzzers ${name})
  endif()
  add_executable(${name}Replay ${ARG_SOURCES} ${PROJECT_SOURCE_DIR}/fuzz/ReplayMain.cpp)
  fs_target_warnings(${name}Replay)
  target_link_libraries(${name}Replay PRIVATE ${ARG_DEPS})
  if(FS_BUILD_TESTS)
    add_test(NAME fuzz.replay.${name} COMMAND ${name}Replay ${CMAKE_CURRENT_SOURCE_DIR}/corpus/${name})
    set_tests_properties(fuzz.replay.${name} PROPERTIES LABELS fuzz TIMEOUT 300)
  endif()
endfunction()
