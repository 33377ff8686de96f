#!/usr/bin/env bash
# Long run of the plug-in (not part of the test suite or CI):
#
#   bash scripts/soak.sh [MINUTES] [BUILD_DIR]
#
# Builds tools/soak/tarvik_soak and the plug-in in BUILD_DIR (default: build),
# then, inside the private namespace of tests/support/ns_run.sh, registers 32
# simulated adapters and runs the plug-in on them for MINUTES (default 10) in
# service mode with a 1-second interval, under a host that drains events
# through a buffer of two events. Every 30 s it prints RSS, open descriptors,
# threads, running phyprobe processes and how many devices delivered a fresh
# event; it fails when descriptors or memory grow past the first report or a
# device goes stale. Extra tarvik_soak options can follow in SOAK_ARGS, e.g.
# SOAK_ARGS="--one-shot" or SOAK_ARGS="--report 10".
set -euo pipefail

if [ "${1:-}" = "--inside" ]; then
    shift
    soak=$1 devices=$2 minutes=$3
    shift 3
    names=()
    spec=""
    for ((i = 0; i < devices; i++)); do
        name=$(printf 'soak%02d' "$i")
        names+=("$name")
        spec+="$name,arcline,-;"
    done
    export ZDT_SIM_DEVICES=$spec
    zdt start
    # Run counters and scratch files of the simulator stay in this namespace's /tmp.
    echo "soak: $(ls /dev/zdt | wc -l) devices in /dev/zdt"
    exec "$soak" --devices "$devices" --interval 1 --minutes "$minutes" "$@"
fi

ROOT=$(cd "$(dirname "$0")/.." && pwd)
MINUTES=${1:-10}
BUILD=${2:-$ROOT/build}
DEVICES=32

if [ ! -f "$BUILD/build.ninja" ] && [ ! -f "$BUILD/Makefile" ]; then
    cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$BUILD" --target tarvik_soak tarvik_provider >/dev/null

echo "soak: $MINUTES min, $DEVICES devices, build $BUILD, started $(date -u +%FT%TZ)"
# shellcheck disable=SC2086
exec "$ROOT/tests/support/ns_run.sh" bash "$ROOT/scripts/soak.sh" --inside \
    "$BUILD/tools/soak/tarvik_soak" "$DEVICES" "$MINUTES" ${SOAK_ARGS:-}
