// Round-robin delivery of the latest event of every ready device.
#include <gtest/gtest.h>

#include <cstring>

#include "log_capture.h"
#include "tarvik_delivery.h"
#include "tarvik_provider.h"
#include "vyr_schema.h"
#include "vyr_serializer.h"
#include "vyr_type_system.h"

namespace {

constexpr size_t kEventSize = 136;

class Delivery : public ::testing::Test {
  protected:
    void SetUp() override {
        p = tarvik_provider_instance();
        p->devices.clear();
        p->type_infos.clear();
        p->next_device = 0;
        p->provider.schema_index = 0;
        ts = vyr_create_type_system();
        vyr_schema_t *schema = vyr_type_system_add_schema(ts, "tarvik", 1, nullptr);
        vyr_type_field_info_t f[] = {
            {"timestamp", "Event timestamp", "timestamp", VYR_VALUE_ABSOLUTE, 1},
            {"event_name", "Event name", "char", VYR_VALUE_ABSOLUTE, 64},
            {"device_name", "Device name", "char", VYR_VALUE_ABSOLUTE, 64},
        };
        uint8_t idx = 0xFF;
        ASSERT_EQ(vyr_schema_add_type(schema, "tarvik_event_0", f, 3, &idx), 0);
        p->type_infos["h"].type_index = idx;
        p->type_infos["h"].event_size = kEventSize;
        schemas[0] = schema;
    }
    void TearDown() override {
        for (auto &e : p->devices) {
            free(e.second.name);
            free(e.second.header_id);
            free(e.second.event_cache);
        }
        p->devices.clear();
        p->type_infos.clear();
        p->next_device = 0;
        vyr_destroy_type_system(ts);
    }
    void add(const std::string &name, bool ready, bool disabled = false) {
        auto &d = p->devices[name];
        d.name = strdup(name.c_str());
        d.header_id = strdup("h");
        d.event_cache = static_cast<uint8_t *>(calloc(1, kEventSize));
        strcpy(reinterpret_cast<char *>(d.event_cache) + 72, name.c_str());
        d.new_data = ready;
        d.disabled = disabled;
    }
    // Device names of the blocks in the buffer, in order.
    std::vector<std::string> written(const vyr_data_serializer_t &ser) {
        std::vector<std::string> names;
        for (uint64_t pos = 0; pos < ser.used;) {
            vyr_event_block_header_t h;
            memcpy(&h, ser.buffer + pos, sizeof h);
            names.emplace_back(reinterpret_cast<const char *>(ser.buffer + pos + 16 + 72));
            pos += 16 + kEventSize * h.count;
        }
        return names;
    }
    tarvik_provider_t *p = nullptr;
    vyr_type_system_t *ts = nullptr;
    vyr_schema_t *schemas[1] = {nullptr};
};

TEST_F(Delivery, BlockBytesAsTheHostReceivesThem) {
    add("dev", true);
    uint64_t ts = 0x0102030405060708ull;
    memcpy(p->devices["dev"].event_cache, &ts, 8);
    uint8_t buf[512];
    vyr_data_serializer_t ser{schemas, buf, sizeof buf, 0};
    p->write_callbacks[0] = tarvik_provider_write_source_events;  // as construct sets it
    vyrtest::LogCapture log;
    ASSERT_EQ(tarvik_provider_write_events(&p->provider, 0, &ser), 0);
    ASSERT_EQ(ser.used, 16 + kEventSize);
    // Magic, then at 12 the schema index, the 16-bit type index and the count.
    EXPECT_EQ(std::string((char *)buf, 4) + std::string((char *)buf + 12, 4),
              std::string("VYRE\0\0\0\1", 8));
    EXPECT_EQ(0, memcmp(buf + 16, p->devices["dev"].event_cache, kEventSize));
    EXPECT_TRUE(log.contains(7, "[tarvik provider] Writing event for device dev"));
}

// The cursor is a position in map order. A call that stops on a full buffer
// keeps its place for the next call; that place must follow the map as it is
// at the next call, not as it was. Devices: "-" no new data, "!" disabled;
// between calls "+b" registers b, "rebuild" is what a second construct does.
TEST_F(Delivery, RoundRobinResumesWhereTheBufferFilled) {
    struct Call {
        const char *before;
        int rc;
        std::vector<std::string> names;
        uint64_t cursor;
    };
    const struct {
        std::vector<std::string> devices;
        size_t fit;  // whole events the buffer holds
        std::vector<Call> calls;
    } cases[] = {
        {{}, 4, {{"", 0, {}, 0}}},
        {{"-a", "!b", "c"}, 4, {{"", 0, {"c"}, 3}}},
        {{"a", "b", "c"}, 2, {{"", 1, {"a", "b"}, 2}, {"", 0, {"c"}, 3}, {"", 1, {"a", "b"}, 2}}},
        {{"a", "c", "d"}, 2, {{"", 1, {"a", "c"}, 2}, {"+b", 0, {"c", "d"}, 4}}},
        {{"a", "b", "c"}, 2, {{"", 1, {"a", "b"}, 2}, {"rebuild", 0, {"z"}, 3}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.devices.size());
        TearDown();
        SetUp();
        for (const auto &d : c.devices)
            add(d.substr(d[0] == '-' || d[0] == '!'), d[0] != '-', d[0] == '!');
        std::vector<uint8_t> buf(c.fit * (16 + kEventSize) + 10);
        vyr_data_serializer_t ser{schemas, buf.data(), buf.size(), 0};
        for (const auto &call : c.calls) {
            if (call.before[0] == '+') add(call.before + 1, true);
            if (!strcmp(call.before, "rebuild")) {
                tarvik_provider_destroy(&p->provider);
                EXPECT_EQ(p->next_device, 0u);  // the cursor too starts over
                p->next_device = 2;             // a cursor left over from before
                for (const char *n : {"x", "y", "z"}) add(n, true);
            }
            ser.used = 0;
            EXPECT_EQ(tarvik_provider_write_source_events(p, &ser), call.rc);
            EXPECT_EQ(written(ser), call.names);
            EXPECT_EQ(p->next_device, call.cursor);
        }
    }
}

}  // namespace
