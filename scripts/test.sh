#!/usr/bin/env bash
# Installs what is needed, then builds and runs every test: the unit tests in the default
# build and again under AddressSanitizer + UndefinedBehaviorSanitizer, then the fuzz targets
# for a bounded time. Exits non-zero on any failure.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"

echo "== fuzz targets (clang, ASan + UBSan, bounded)"
# The NLRI parser is where a peer's bytes enter: it gets longer than the others.
export FUZZ_SECONDS_FlowspecParseNlriFuzz="${FUZZ_SECONDS_FlowspecParseNlriFuzz:-60}"
scripts/build.sh fuzz
scripts/fuzz.sh

echo "== sanitizer build (ASan + UBSan)"
scripts/build.sh asan
ctest --preset asan -j"$(nproc)"

echo "== default build"
scripts/build.sh default
ctest --preset default -j"$(nproc)"
