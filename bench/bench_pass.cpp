// One service-mode collection pass (the collector's work per device per
// interval) against the floor: a bare open/pread/close of the same file plus
// the baseline conversion. Files live on tmpfs, so this is the page-cached
// case the collector meets in production.
#include <benchmark/benchmark.h>

#include <malloc.h>

#include "bench_support.h"
#include "tarvik_collect.h"

namespace {

void per_device(benchmark::State &state, int64_t devices) {
    // Seconds per device, so curves over device counts compare directly.
    state.counters["per_device"] =
        benchmark::Counter((double)devices, benchmark::Counter::kIsIterationInvariantRate |
                                                benchmark::Counter::kInvert);
}

void BM_ServicePass(benchmark::State &state) {
    vyrbench::TempDir dir;
    const int64_t devices = state.range(1);
    vyrbench::HandMadeProvider hp(dir.path(), (size_t)devices, (size_t)state.range(0));
    tarvik_provider_t *p = hp.provider();
    tarvik_collect_pass(p);  // warm: line buffers sized, pages cached
    for (auto _ : state) tarvik_collect_pass(p);
    bool all_ready = true;
    for (auto &e : p->devices) all_ready = all_ready && e.second.new_data && !e.second.disabled;
    if (!all_ready) state.SkipWithError("a device did not convert");
    per_device(state, devices);
}

void BM_BaselinePass(benchmark::State &state) {
    vyrbench::TempDir dir;
    const int64_t devices = state.range(1);
    vyrbench::HandMadeProvider hp(dir.path(), (size_t)devices, (size_t)state.range(0));
    std::vector<char> buf(hp.value_line().size() + 4096);
    std::vector<uint8_t> event(hp.event_size());
    for (auto _ : state) {
        for (int64_t i = 0; i < devices; ++i) {
            size_t n = vyrbench::baseline_read_line(hp.file_of((size_t)i).c_str(),
                                                    hp.header_offset(), buf.data(), buf.size());
            size_t fields = vyrbench::baseline_convert({buf.data(), n}, hp.types(), event.data());
            benchmark::DoNotOptimize(fields);
        }
        benchmark::ClobberMemory();
    }
    per_device(state, devices);
}

// The read alone: what any collector pays to look at a file.
void BM_BareRead(benchmark::State &state) {
    vyrbench::TempDir dir;
    const int64_t devices = state.range(1);
    vyrbench::HandMadeProvider hp(dir.path(), (size_t)devices, (size_t)state.range(0));
    std::vector<char> buf(hp.value_line().size() + 4096);
    for (auto _ : state) {
        for (int64_t i = 0; i < devices; ++i) {
            size_t n = vyrbench::baseline_read_line(hp.file_of((size_t)i).c_str(),
                                                    hp.header_offset(), buf.data(), buf.size());
            benchmark::DoNotOptimize(n);
        }
    }
    per_device(state, devices);
}

// Memory a device holds while passes run, as heap in use (every byte of it is
// written at creation, so it is resident; the process's own resident size
// says little here, since freed memory of earlier runs is reused): its record, file
// path, event cache and, with `parsers`, what initialization leaves of the
// parser (its texts and a duplicate field list are released once typed).
void BM_MemoryPerDevice(benchmark::State &state) {
    vyrbench::TempDir dir;
    const size_t devices = (size_t)state.range(1);
    struct mallinfo2 before = mallinfo2();
    vyrbench::HandMadeProvider hp(dir.path(), devices, (size_t)state.range(0), state.range(2) != 0);
    for (auto _ : state) tarvik_collect_pass(hp.provider());
    struct mallinfo2 after = mallinfo2();
    state.counters["heap_per_device"] =
        (double)(after.uordblks + after.hblkhd - before.uordblks - before.hblkhd) / (double)devices;
}

void fields_sweep(benchmark::internal::Benchmark *b) {
    b->ArgNames({"fields", "devices"});
    for (int64_t f : {10, 100, 1000, 4000}) b->Args({f, 16});
    for (int64_t d : {1, 256, 1024}) b->Args({100, d});
}

}  // namespace

BENCHMARK(BM_ServicePass)->Apply(fields_sweep);
BENCHMARK(BM_BaselinePass)->Apply(fields_sweep);
BENCHMARK(BM_BareRead)->Apply(fields_sweep);
BENCHMARK(BM_MemoryPerDevice)
    ->ArgNames({"fields", "devices", "parsers"})
    ->Args({100, 64, 0})
    ->Args({100, 64, 1})
    ->Args({1000, 64, 0})
    ->Args({1000, 64, 1})
    ->Iterations(10)
    ->Unit(benchmark::kMillisecond);
