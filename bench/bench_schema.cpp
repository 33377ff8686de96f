// Work done once per initialization or per schema exchange: the schema
// identifier, the header parse with field typing, and the type system's JSON
// round trip. Not on the collection path, measured so it stays in proportion.
#include <benchmark/benchmark.h>

#include <stdlib.h>

#include <string>
#include <vector>

#include "bench_support.h"
#include "tarvik_format_parser.h"
#include "vyr_schema.h"
#include "vyr_type_system.h"

namespace {

// A type system holding one schema of `types` types of `fields` fields in the
// provider's shape (three fixed fields, then uint64/double/text columns).
vyr_type_system_t *make_type_system(size_t types, size_t fields) {
    vyr_type_system_t *ts = vyr_create_type_system();
    vyr_schema_t *schema = vyr_type_system_add_schema(ts, "tarvik", 1, nullptr);
    std::vector<std::string> names;
    for (size_t f = 0; f < fields; ++f) names.push_back("Raw_Errors_Lane_" + std::to_string(f));
    static const char *kTypeNames[] = {"uint64_t", "double", "char"};
    std::vector<vyr_type_field_info_t> info = {
        {"timestamp", "Event timestamp", "timestamp", VYR_VALUE_ABSOLUTE, 1},
        {"event_name", "Event name", "char", VYR_VALUE_ABSOLUTE, 64},
        {"device_name", "Device name", "char", VYR_VALUE_ABSOLUTE, 64},
    };
    for (size_t f = 0; f < fields; ++f)
        info.push_back({names[f].c_str(), names[f].c_str(), kTypeNames[f % 3], VYR_VALUE_ABSOLUTE,
                        f % 3 == 2 ? 64u : 1u});
    for (size_t t = 0; t < types; ++t) {
        std::string name = "tarvik_event_" + std::to_string(t);
        vyr_schema_add_type(schema, name.c_str(), info.data(), (uint32_t)info.size(), nullptr);
    }
    return ts;
}

void BM_SchemaId(benchmark::State &state) {
    vyr_type_system_t *ts = make_type_system((size_t)state.range(0), 100);
    vyr_schema_t *schema = ts->schemas[0];
    for (auto _ : state) benchmark::DoNotOptimize(vyr_schema_update_md5(schema));
    state.counters["per_type"] =
        benchmark::Counter((double)state.range(0), benchmark::Counter::kIsIterationInvariantRate |
                                                       benchmark::Counter::kInvert);
    vyr_destroy_type_system(ts);
}

void BM_ParserParse(benchmark::State &state) {
    vyrbench::TempDir dir;
    const size_t fields = (size_t)state.range(0);
    std::string path = dir.path() + "/hdr.csv";
    FILE *f = fopen(path.c_str(), "wb");
    std::string content = vyrbench::make_header_line(fields) + "\n" +
                          vyrbench::make_value_line(fields, nullptr) + "\n";
    fwrite(content.data(), 1, content.size(), f);
    fclose(f);
    for (auto _ : state) {
        std::vector<vyr_event_tarvik_type_t> types;
        TarvikFormatParser parser(path, &types);
        bool ok = parser.parse();
        benchmark::DoNotOptimize(ok);
        if (!ok || types.size() != fields) state.SkipWithError("parse failed");
    }
    state.counters["per_field"] =
        benchmark::Counter((double)fields, benchmark::Counter::kIsIterationInvariantRate |
                                               benchmark::Counter::kInvert);
}

void BM_TypeSystemRoundTrip(benchmark::State &state) {
    vyr_type_system_t *ts = make_type_system((size_t)state.range(0), 100);
    for (auto _ : state) {
        char *text = vyr_type_system_serialize(ts, 0);
        vyr_type_system_t *back = vyr_type_system_deserialize(text);
        if (!back) state.SkipWithError("deserialize failed");
        vyr_destroy_type_system(back);
        free(text);
    }
    vyr_destroy_type_system(ts);
}

}  // namespace

BENCHMARK(BM_SchemaId)->ArgName("types")->Arg(1)->Arg(16)->Arg(254)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ParserParse)->ArgName("fields")->Arg(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TypeSystemRoundTrip)->ArgName("types")->Arg(1)->Arg(16)->Unit(benchmark::kMillisecond);
