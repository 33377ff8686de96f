#!/usr/bin/env bash
# Builds the fuzz targets (clang, ASan+UBSan) when needed and runs each one for
# SECONDS from a scratch copy of its seed corpus, so the repository is never
# written. Fails when any target finds a crash, a sanitizer report, a leak or
# an input slower than the per-input timeout.
#
#   fuzz/run.sh SECONDS [TARGET...]
#
# VYR_FUZZ_BUILD_DIR  build directory (default: build-fuzz in the repository)
# VYR_FUZZ_JOBS       targets run side by side (default 1)
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD

if [ $# -lt 1 ] || ! [[ $1 =~ ^[0-9]+$ ]]; then
  echo "usage: fuzz/run.sh SECONDS [TARGET...]" >&2
  exit 2
fi
SECS=$1
shift
BUILD=${VYR_FUZZ_BUILD_DIR:-$ROOT/build-fuzz}
JOBS=${VYR_FUZZ_JOBS:-1}

if [ ! -f "$BUILD/CMakeCache.txt" ]; then
  CC=clang CXX=clang++ cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DVYR_BUILD_FUZZ=ON -DVYR_BUILD_TESTS=OFF >/dev/null
fi
cmake --build "$BUILD" --target fuzz_all

if [ $# -gt 0 ]; then
  TARGETS=("$@")
else
  mapfile -t TARGETS <"$BUILD/fuzz/targets.txt"
fi

# Targets over the same input share a dictionary.
dict_for() {
  case $1 in
    fuzz_csv_file | fuzz_csv_to_event | fuzz_token_conversion) echo csv ;;
    fuzz_zdt_status) echo zdt ;;
    fuzz_schema_json | fuzz_type_system_json) echo json ;;
    fuzz_sources) echo sources ;;
    fuzz_string) echo string ;;
  esac
}

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$ROOT/tests/support/lsan.supp:print_suppressions=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}

WORK=$BUILD/fuzz-run
run_one() {  # run_one TARGET: fuzzes one target, leaves its log and artifacts in $WORK/TARGET
  local t=$1 dir=$WORK/$1
  rm -rf "$dir"
  mkdir -p "$dir/corpus"
  [ -d "$ROOT/fuzz/corpus/$t" ] && cp -r "$ROOT/fuzz/corpus/$t/." "$dir/corpus/"
  local args=(-max_total_time="$SECS" -timeout=25 -rss_limit_mb=2048 -print_final_stats=1
    -artifact_prefix="$dir/")
  local d
  d=$(dict_for "$t")
  [ -n "$d" ] && args+=(-dict="$ROOT/fuzz/dict/$d.dict")
  if "$BUILD/fuzz/$t" "${args[@]}" "$dir/corpus" >"$dir/log" 2>&1; then
    local execs
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$dir/log" | tail -n1)
    printf 'fuzz: %-24s ok   %12s executions in %ss, corpus %s files\n' "$t" "${execs:-?}" "$SECS" \
      "$(find "$dir/corpus" -type f | wc -l)"
  else
    printf 'fuzz: %-24s FAILED; log %s\n' "$t" "$dir/log"
    grep -E 'ERROR|FUZZ_CHECK|runtime error|SUMMARY|Test unit written' "$dir/log" | head -n 20
    return 1
  fi
}

failed=0
running=0
for t in "${TARGETS[@]}"; do
  if [ ! -x "$BUILD/fuzz/$t" ]; then
    echo "fuzz: no target $t" >&2
    failed=1
    continue
  fi
  run_one "$t" &
  running=$((running + 1))
  if [ "$running" -ge "$JOBS" ]; then
    wait -n || failed=1
    running=$((running - 1))
  fi
done
while [ "$running" -gt 0 ]; do
  wait -n || failed=1
  running=$((running - 1))
done
exit "$failed"
