#!/usr/bin/env bash
# Formats the tracked C++ sources with clang-format and the repository's .clang-format.
#   scripts/format.sh            rewrite the files in place
#   scripts/format.sh --check    change nothing: list the files that would change, say how
#                                many, and exit 1 when any would
# Further arguments limit the run to those files.
set -euo pipefail
cd "$(dirname "$0")/.."

check=0
if [ "${1:-}" = "--check" ]; then
  check=1
  shift
fi
case "${1:-}" in
  -*) echo "usage: $0 [--check] [FILE...]" >&2; exit 2 ;;
esac

fmt=$(command -v clang-format-14 || command -v clang-format || true)
if [ -z "$fmt" ]; then
  echo "format.sh: clang-format is not installed (scripts/setup.sh installs it)" >&2
  exit 2
fi

if [ $# -gt 0 ]; then
  files=("$@")
else
  mapfile -t files < <(git ls-files -- '*.cpp' '*.h' '*.hpp' '*.cc')
fi

if [ $check -eq 0 ]; then
  "$fmt" -i --style=file "${files[@]}"
  exit 0
fi

changed=0
for f in "${files[@]}"; do
  if ! "$fmt" --style=file "$f" | cmp -s - "$f"; then
    echo "$f"
    changed=$((changed + 1))
  fi
done
echo "format.sh: $changed of ${#files[@]} file(s) would change" >&2
[ $changed -eq 0 ]
