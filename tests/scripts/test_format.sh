#!/usr/bin/env bash
# Every C and C++ source follows the project's .clang-format.
set -euo pipefail
cd "$1"
if ! command -v clang-format >/dev/null; then
  echo "clang-format is not installed (scripts/setup.sh installs it)"
  exit 1
fi
if [ -d .git ] || git rev-parse --git-dir >/dev/null 2>&1; then
  mapfile -t files < <(git ls-files '*.c' '*.cpp' '*.h')
else
  mapfile -t files < <(find common src providers tools tests bench fuzz -name '*.cpp' -o -name '*.h' -o -name '*.c')
fi
clang-format --dry-run --Werror "${files[@]}"
