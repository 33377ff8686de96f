// write_events draining ready devices into the host's buffer, against a bare
// memcpy of the same header and record per event.
#include <benchmark/benchmark.h>

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <stdexcept>

#include "tarvik_delivery.h"
#include "tarvik_initialize.h"
#include "tarvik_provider.h"
#include "vyr_schema.h"
#include "vyr_serializer.h"
#include "vyr_type_system.h"

namespace {

constexpr size_t kHeader = sizeof(vyr_event_block_header_t);
constexpr int64_t kSmallBufferEvents = 8;

// `devices` ready devices whose events are records of `event_size` bytes of
// one registered type.
class ReadyDevices {
  public:
    ReadyDevices(size_t devices, size_t event_size) : p_(tarvik_provider_instance()) {
        p_->devices.clear();
        p_->type_infos.clear();
        p_->next_device = 0;
        ts_ = vyr_create_type_system();
        uint8_t schema_index = 0;
        vyr_schema_t *schema = vyr_type_system_add_schema(ts_, "tarvik", 1, &schema_index);
        if (!schema) throw std::runtime_error("no schema");
        vyr_type_field_info_t f[] = {
            {"timestamp", "Event timestamp", "timestamp", VYR_VALUE_ABSOLUTE, 1},
            {"event_name", "Event name", "char", VYR_VALUE_ABSOLUTE, TARVIK_TEXT_SIZE},
            {"device_name", "Device name", "char", VYR_VALUE_ABSOLUTE, TARVIK_TEXT_SIZE},
            {"payload", "payload", "char", VYR_VALUE_ABSOLUTE,
             (uint32_t)(event_size - TARVIK_EVENT_FIXED_SIZE)},
        };
        uint8_t type_index = 0;
        if (vyr_schema_add_type(schema, "tarvik_event_0", f, 4, &type_index) != 0)
            throw std::runtime_error("no type");
        if (vyr_schema_sizeof_type(schema, "tarvik_event_0") != event_size)
            throw std::runtime_error("unexpected record size");
        p_->provider.schema_index = schema_index;
        tarvik_schema_type_info_t info;
        info.type_index = type_index;
        info.event_size = event_size;
        p_->type_infos["bench_hdr"] = info;
        char name[32];
        for (size_t i = 0; i < devices; ++i) {
            snprintf(name, sizeof name, "dev%05zu", i);
            tarvik_provider_dev_info_t &d = p_->devices[name];
            d.name = strdup(name);
            d.header_id = strdup("bench_hdr");
            d.type_info = &p_->type_infos["bench_hdr"];  // as initialize records it
            d.event_cache = static_cast<uint8_t *>(malloc(event_size));
            memset(d.event_cache, (int)(i & 0x7f), event_size);
            d.new_data = true;
            caches_.push_back(d.event_cache);
        }
    }
    ~ReadyDevices() {
        for (auto &e : p_->devices) {
            free(e.second.name);
            free(e.second.header_id);
            free(e.second.event_cache);
        }
        p_->devices.clear();
        p_->type_infos.clear();
        p_->next_device = 0;
        vyr_destroy_type_system(ts_);
    }
    tarvik_provider_t *provider() const { return p_; }
    vyr_schema_t **schemas() const { return ts_->schemas; }
    const std::vector<uint8_t *> &caches() const { return caches_; }

  private:
    tarvik_provider_t *p_;
    vyr_type_system_t *ts_ = nullptr;
    std::vector<uint8_t *> caches_;
};

void report(benchmark::State &state, int64_t devices, size_t event_size) {
    state.SetBytesProcessed(state.iterations() * devices * (int64_t)(kHeader + event_size));
    state.counters["per_device"] =
        benchmark::Counter((double)devices, benchmark::Counter::kIsIterationInvariantRate |
                                                benchmark::Counter::kInvert);
}

// One iteration drains every ready device once; with the small buffer the
// host empties it after each call and the cursor resumes where it stopped.
void BM_WriteEvents(benchmark::State &state) {
    const int64_t devices = state.range(0);
    const size_t event_size = (size_t)state.range(1);
    const bool small = state.range(2) != 0;
    ReadyDevices rd((size_t)devices, event_size);
    int64_t room = small ? kSmallBufferEvents : devices;
    std::vector<uint8_t> buf((size_t)room * (kHeader + event_size) + 8);
    vyr_data_serializer_t ser{rd.schemas(), buf.data(), buf.size(), 0};
    tarvik_provider_t *p = rd.provider();
    int64_t written = 0;
    for (auto _ : state) {
        int rc;
        do {
            ser.used = 0;
            rc = tarvik_provider_write_source_events(p, &ser);
            written += (int64_t)(ser.used / (kHeader + event_size));
            benchmark::DoNotOptimize(buf.data());
        } while (rc == VYR_WRITE_BUFFER_FULL);
        if (rc != VYR_WRITE_DONE) state.SkipWithError("write_events failed");
    }
    if (written != (int64_t)state.iterations() * devices) state.SkipWithError("events lost");
    report(state, devices, event_size);
}

// The same bytes copied by hand into a destination of the same size as
// write_events gets: the whole drain, or eight events reused in turn.
void BM_MemcpyEvents(benchmark::State &state) {
    const int64_t devices = state.range(0);
    const size_t event_size = (size_t)state.range(1);
    const bool small = state.range(2) != 0;
    ReadyDevices rd((size_t)devices, event_size);
    const size_t room = (size_t)(small ? std::min<int64_t>(kSmallBufferEvents, devices) : devices);
    std::vector<uint8_t> buf(room * (kHeader + event_size) + 8);
    uint8_t header[kHeader] = {'V', 'Y', 'R', 'E'};
    for (auto _ : state) {
        uint8_t *out = buf.data();
        size_t used = 0;
        for (uint8_t *cache : rd.caches()) {
            if (used == room) {
                out = buf.data();
                used = 0;
            }
            memcpy(out, header, kHeader);
            memcpy(out + kHeader, cache, event_size);
            out += kHeader + event_size;
            ++used;
        }
        benchmark::DoNotOptimize(buf.data());
        benchmark::ClobberMemory();
    }
    report(state, devices, event_size);
}

// The serializer stamps every block with the wall clock: a floor of its own
// under each event, whatever the copy costs.
void BM_WallClockRead(benchmark::State &state) {
    for (auto _ : state) benchmark::DoNotOptimize(vyr_time_now_usec());
}

void write_args(benchmark::internal::Benchmark *b) {
    b->ArgNames({"devices", "event_bytes", "small_buffer"});
    for (int64_t size : {1024, 65536})
        for (int64_t d : {1, 16, 256, 1024})
            for (int64_t small : {0, 1}) b->Args({d, size, small});
}

}  // namespace

BENCHMARK(BM_WriteEvents)->Apply(write_args);
BENCHMARK(BM_MemcpyEvents)->Apply(write_args);
BENCHMARK(BM_WallClockRead);
