// What a scrape of vyrhost's /metrics costs: the exposition of 256 devices of
// 100 fields, per sample, beside the floor of one snprintf per sample line.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "vyr_type_system.h"
#include "vyrhost_render.h"

namespace {

constexpr size_t kDevices = 256;

// One event type of 100 fields in phyprobe's mix: the three leading fields,
// lane counters and ratios, histogram bins, readings (some typed as text),
// slow text, and unknown counters to fill up.
struct Scrape {
    vyr_type_system_t *ts = vyr_create_type_system();
    vyrhost::Snapshot snapshot;
    vyrhost::ExpositionOptions options;
    size_t samples = 0;

    Scrape() {
        uint8_t schema_index = 0, type_index = 0;
        vyr_schema_t *schema = vyr_type_system_add_schema(ts, "tarvik", 1, &schema_index);
        std::vector<std::string> names = {"timestamp", "event_name", "device_name"};
        std::vector<std::string> kinds = {"timestamp", "char", "char"};
        auto add = [&](const std::string &name, const char *kind) {
            names.push_back(name);
            kinds.push_back(kind);
        };
        for (int l = 0; l < 4; ++l) add("Raw_Errors_Lane_" + std::to_string(l), "uint64_t");
        for (int l = 0; l < 4; ++l) add("Raw_BER_Lane_" + std::to_string(l), "double");
        for (int b = 0; b < 16; ++b) add("hist_bin_" + std::to_string(b), "uint64_t");
        for (const char *f : {"Temperature", "Tx_BiasmA", "Supply_VoltagemV"}) add(f, "double");
        for (const char *f : {"Effective_Physical_BER", "Rx_Power_dBm", "FW_Version", "Vendor"})
            add(f, "char");
        while (names.size() < 100) add("Counter_" + std::to_string(names.size()), "uint64_t");
        std::vector<vyr_type_field_info_t> info;
        for (size_t i = 0; i < names.size(); ++i)
            info.push_back({names[i].c_str(), names[i].c_str(), kinds[i].c_str(),
                            VYR_VALUE_ABSOLUTE, kinds[i] == std::string("char") ? 32u : 1u});
        vyr_schema_add_type(schema, "tarvik_event_0", info.data(), (uint32_t)info.size(),
                            &type_index);
        const char *index[] = {"device_name"};
        vyr_schema_set_field_indexes(schema, type_index, index, 1);
        const vyr_type_definition_t *type = schema->types[type_index];

        for (size_t d = 0; d < kDevices; ++d) {
            vyrhost::Event e;
            e.type = type;
            e.record.assign(type->size, 0);
            e.device = "dev" + std::to_string(d);
            for (int i = 0; i < type->num_fields; ++i) {
                const vyr_type_field_definition_t *f = type->fields[i];
                uint8_t *p = e.record.data() + f->offset;
                std::string kind = kinds[i];
                if (f->field_name == std::string("device_name")) {
                    memcpy(p, e.device.data(), e.device.size());
                } else if (kind == "char") {
                    std::string text = std::to_string(d * 7 + i) + "E-15";
                    memcpy(p, text.data(), text.size());
                } else if (kind == "double") {
                    double v = 1.0 / (d + i + 3);
                    memcpy(p, &v, sizeof v);
                } else {
                    uint64_t v = 1700000000123456ull + d * 1000 + i;
                    memcpy(p, &v, sizeof v);
                }
            }
            snapshot.events.push_back(std::move(e));
            options.devices.push_back("dev" + std::to_string(d));
            options.interfaces.push_back({"dev" + std::to_string(d), "eth" + std::to_string(d)});
        }
        options.version = "1.0.0";
        options.provider = "tarvik";
        std::string text = vyrhost::render_exposition(snapshot, options);
        for (size_t at = 0; at < text.size(); at = text.find('\n', at) + 1)
            samples += text[at] != '#';
    }
    ~Scrape() { vyr_destroy_type_system(ts); }
};

void BM_RenderExposition(benchmark::State &state) {
    Scrape scrape;
    for (auto _ : state) {
        std::string text = vyrhost::render_exposition(scrape.snapshot, scrape.options);
        benchmark::DoNotOptimize(text.data());
    }
    state.SetItemsProcessed(state.iterations() * scrape.samples);
    state.counters["samples"] = scrape.samples;
}

// The floor: as many sample lines, each one snprintf of name, two labels and
// a value into a buffer reserved once.
void BM_SnprintfSamples(benchmark::State &state) {
    Scrape scrape;
    std::string out;
    out.reserve(scrape.samples * 96);
    char line[256];
    for (auto _ : state) {
        out.clear();
        for (size_t i = 0; i < scrape.samples; ++i) {
            int n = snprintf(line, sizeof line,
                             "tarvik_raw_ber{device=\"dev%zu\",interface=\"eth%zu\"} %.17g\n",
                             i % kDevices, i % kDevices, 1.0 / (i + 3));
            out.append(line, (size_t)n);
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * scrape.samples);
}

BENCHMARK(BM_RenderExposition)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SnprintfSamples)->Unit(benchmark::kMillisecond);

}  // namespace
