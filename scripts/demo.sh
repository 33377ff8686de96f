#!/usr/bin/env bash
# Builds everything and runs the plug-in end to end against simulated adapters.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j "$(nproc)"

# The rest runs in a private mount+PID namespace (scripts/demo_inner.sh):
# simulated zdt and phyprobe, /dev/zdt, /tmp and sysfs of its own.
status=0
tests/support/ns_run.sh bash scripts/demo_inner.sh "$PWD/build/tools/vyrhost/vyrhost" || status=$?
if [ "$status" -eq 77 ]; then
    echo "demo: could not create the private namespace (run it as root: sudo bash scripts/demo.sh)" >&2
fi
exit "$status"
