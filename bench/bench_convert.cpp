// Value-line conversion against the memchr + from_chars floor, and the naive
// string-stream form for scale.
#include <benchmark/benchmark.h>

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <sstream>

#include "bench_support.h"
#include "tarvik_collect.h"
#include "tarvik_initialize.h"

namespace {

const std::vector<int64_t> kFields = {10, 100, 1000, 4000};
// Lines cycled through, so no run measures a line the predictors memorised.
constexpr size_t kLines = 16;

void BM_ConvertLine(benchmark::State &state) {
    vyrbench::TempDir dir;
    vyrbench::HandMadeProvider hp(dir.path(), 1, (size_t)state.range(0));
    tarvik_provider_t *p = hp.provider();
    tarvik_provider_dev_info_t *dev = &p->devices.begin()->second;
    auto lines = vyrbench::make_value_lines((size_t)state.range(0), kLines, nullptr);
    size_t i = 0;
    for (auto _ : state) {
        bool ok = tarvik_csv_to_event(p, dev, lines[i++ % kLines]);
        benchmark::DoNotOptimize(ok);
        benchmark::ClobberMemory();
    }
    if (!tarvik_csv_to_event(p, dev, lines[0])) state.SkipWithError("conversion failed");
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_BaselineConvert(benchmark::State &state) {
    std::vector<vyr_event_tarvik_type_t> types;
    auto lines = vyrbench::make_value_lines((size_t)state.range(0), kLines, &types);
    std::vector<uint8_t> event(vyrbench::event_size(types));
    size_t i = 0;
    for (auto _ : state) {
        size_t n = vyrbench::baseline_convert(lines[i++ % kLines], types, event.data());
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// The straightforward form: comma-terminated pieces from a string stream,
// converted with strtoull/strtod.
void BM_NaiveConvert(benchmark::State &state) {
    std::vector<vyr_event_tarvik_type_t> types;
    auto lines = vyrbench::make_value_lines((size_t)state.range(0), kLines, &types);
    std::vector<uint8_t> event(vyrbench::event_size(types));
    size_t k = 0;
    for (auto _ : state) {
        std::istringstream in(lines[k++ % kLines]);
        std::vector<std::string> tokens;
        std::string tok;
        while (std::getline(in, tok, ',')) tokens.push_back(tok);
        size_t offset = TARVIK_EVENT_FIXED_SIZE;
        for (size_t i = 0; i < tokens.size() && i < types.size(); ++i) {
            const char *s = tokens[i].c_str();
            char *end;
            if (types[i].type == TARVIK_FIELD_UINT64) {
                errno = 0;
                uint64_t v = strtoull(s, &end, 10);
                if (end == s || errno == ERANGE) v = 0;
                memcpy(&event[offset], &v, 8);
                offset += 8;
            } else if (types[i].type == TARVIK_FIELD_DOUBLE) {
                errno = 0;
                double v = strtod(s, &end);
                if (end == s || errno == ERANGE) v = 0;
                memcpy(&event[offset], &v, 8);
                offset += 8;
            } else {
                strncpy(reinterpret_cast<char *>(&event[offset]), s, TARVIK_TEXT_SIZE);
                event[offset + TARVIK_TEXT_SIZE - 1] = 0;
                offset += TARVIK_TEXT_SIZE;
            }
        }
        benchmark::DoNotOptimize(event.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void fields_args(benchmark::internal::Benchmark *b) {
    for (int64_t f : kFields) b->Arg(f);
    b->ArgName("fields");
}

}  // namespace

BENCHMARK(BM_ConvertLine)->Apply(fields_args);
BENCHMARK(BM_BaselineConvert)->Apply(fields_args);
BENCHMARK(BM_NaiveConvert)->Apply(fields_args);
