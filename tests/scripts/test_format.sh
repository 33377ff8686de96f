#!/usr/bin/env bash
# Every C and C++ source follows the project's .clang-format (scripts/setup.sh
# installs clang-format).
set -euo pipefail
cd "$1"
git ls-files -z '*.c' '*.cpp' '*.h' | xargs -0 clang-format --dry-run --Werror
