#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test: a normal build, an
# AddressSanitizer+UndefinedBehaviorSanitizer build, and the threaded tests
# under ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
JOBS=$(nproc)

bash scripts/setup.sh

build() {  # build DIR [cmake args...]
  local dir=$1; shift
  cmake -S "$ROOT" -B "$dir" -G Ninja "$@" >/dev/null
  cmake --build "$dir" -j "$JOBS"
}

echo "== normal build (with the benchmarks, configured once)"
build build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVYR_BUILD_BENCH=ON
(cd build && ctest --output-on-failure -j "$JOBS")

echo "== benchmark smoke run (every benchmark once; no timing is checked)"
build/bench/vyr_bench --benchmark_min_time=0.001 >/dev/null

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
build build-asan -DCMAKE_BUILD_TYPE=Debug -DVYR_SANITIZE=address
(cd build-asan && ASAN_OPTIONS=detect_leaks=1 \
  LSAN_OPTIONS=suppressions=$ROOT/tests/support/lsan.supp:print_suppressions=0 \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --output-on-failure -j "$JOBS" -LE once)

echo "== ThreadSanitizer build (threaded tests)"
# Only the threaded (namespace) tests run here, so only they are built.
cmake -S "$ROOT" -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DVYR_SANITIZE=thread >/dev/null
mapfile -t THREADED < <(cd tests/ns && ls test_*.cpp | sed 's/\.cpp$//')
cmake --build build-tsan -j "$JOBS" --target "${THREADED[@]}"
(cd build-tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  ctest --output-on-failure -j "$JOBS" -L threads)

# Every fuzz target for a short while from its seed corpus (CI, or on request
# with VYR_FUZZ_SECONDS=<seconds per target>); longer runs belong to fuzz/run.sh.
if [ -n "${CI:-}" ] || [ -n "${VYR_FUZZ_SECONDS:-}" ]; then
  echo "== fuzz targets (libFuzzer, ASan+UBSan)"
  VYR_FUZZ_BUILD_DIR=$ROOT/build-fuzz VYR_FUZZ_JOBS=$JOBS bash fuzz/run.sh "${VYR_FUZZ_SECONDS:-20}"
fi
