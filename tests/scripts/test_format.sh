#!/usr/bin/env bash
# Every C and C++ source follows the project's .clang-format.
set -euo pipefail
cd "$1"
if ! command -v clang-format >/dev/null; then
  echo "clang-format is not installed (scripts/setup.sh installs it)"
  exit 1
fi
mapfile -t files < <(git ls-files '*.c' '*.cpp' '*.h')
clang-format --dry-run --Werror "${files[@]}"
