#!/usr/bin/env bash
# Builds and runs the benchmarks, then prints one table of ratios against the
# baselines measured in the same run (medians over repetitions, CPU time).
# No timing is checked: the numbers are for reading.
#
#   bench/run.sh [build-dir]
#
# VYR_BENCH_REPETITIONS (default 5), VYR_BENCH_MIN_TIME (seconds per
# repetition, default 0.2) and VYR_BENCH_FILTER (a --benchmark_filter regex)
# tune the run. The raw JSON is kept as <build-dir>/bench.json.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${1:-$ROOT/build-bench}
REPS=${VYR_BENCH_REPETITIONS:-5}
MIN_TIME=${VYR_BENCH_MIN_TIME:-0.2}
FILTER=${VYR_BENCH_FILTER:-.}

cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DVYR_BUILD_BENCH=ON -DVYR_SANITIZE= >/dev/null
cmake --build "$BUILD" --target vyr_bench >/dev/null

JSON=$BUILD/bench.json
# Repetitions run in shuffled order, so a burst of load from a neighbour
# spreads over all benchmarks instead of landing on one side of a ratio.
"$BUILD/bench/vyr_bench" --benchmark_repetitions="$REPS" --benchmark_min_time="$MIN_TIME" \
  --benchmark_enable_random_interleaving=true --benchmark_report_aggregates_only=true \
  --benchmark_filter="$FILTER" --benchmark_out="$JSON" --benchmark_out_format=json >&2

echo "# Benchmark ratios ($(nproc) cores, $REPS repetitions, medians of CPU time)"
awk -f "$ROOT/bench/ratios.awk" "$JSON"
