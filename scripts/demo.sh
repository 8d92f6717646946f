#!/usr/bin/env bash
# Installs what is needed, builds, and runs the main job on its embedded default.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh default
exec build/default/tools/flowspec-demo "$@"
