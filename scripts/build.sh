#!/usr/bin/env bash
# Configures and builds one preset: scripts/build.sh [default|asan|fuzz]
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-default}"
cmake --preset "$preset" >/dev/null
if [ "$preset" = fuzz ]; then
  # The fuzz targets and what they link: the programs and tools are built by the others.
  cmake --build --preset fuzz --target fuzzers -- -j"$(nproc)"
else
  cmake --build --preset "$preset" -- -j"$(nproc)"
fi
