# Run at build time (cmake -P): writes OUT with the project's version and the git revision of
# the sources, touching the file only when the text changes, so that only the programs that
# print it are rebuilt, and only after a commit.
set(revision "unknown")
find_package(Git QUIET)
if(GIT_FOUND)
  execute_process(COMMAND ${GIT_EXECUTABLE} describe --always --dirty --abbrev=12
                  WORKING_DIRECTORY ${SOURCE_DIR} OUTPUT_VARIABLE out OUTPUT_STRIP_TRAILING_WHITESPACE
                  ERROR_QUIET RESULT_VARIABLE rc)
  if(rc EQUAL 0 AND out)
    set(revision ${out})
  endif()
endif()
configure_file(${SOURCE_DIR}/cmake/Version.h.in ${OUT} @ONLY)
