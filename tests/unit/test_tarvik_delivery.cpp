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

constexpr size_t kEventSize = 136, kBlock = 16 + kEventSize;

tarvik_provider_t *p = tarvik_provider_instance();

void clear_devices() {
    for (auto &e : p->devices) {
        free(e.second.name);
        free(e.second.header_id);
        free(e.second.event_cache);
    }
    p->devices.clear();
}

// Devices named "-x" have no new data, "!x" are disabled.
void add(const std::string &spec) {
    const std::string name = spec.substr(spec[0] == '-' || spec[0] == '!');
    auto &d = p->devices[name];
    d.name = strdup(name.c_str());
    d.header_id = strdup("h");
    d.event_cache = static_cast<uint8_t *>(calloc(1, kEventSize));
    strcpy(reinterpret_cast<char *>(d.event_cache) + 72, name.c_str());
    d.new_data = spec[0] != '-';
    d.disabled = spec[0] == '!';
}

// The cursor is a position in map order. A call that stops on a full buffer
// keeps its place for the next call; that place must follow the map as it is
// at the next call, not as it was: between calls "+b" registers b, "rebuild"
// is what a second construct does.
TEST(Delivery, RoundRobinResumesWhereTheBufferFilled) {
    vyr_type_system_t *ts = vyr_create_type_system();
    vyr_schema_t *schema = vyr_type_system_add_schema(ts, "tarvik", 1, nullptr);
    vyr_type_field_info_t f[] = {{"timestamp", "t", "timestamp", VYR_VALUE_ABSOLUTE, 1},
                                 {"rest", "r", "char", VYR_VALUE_ABSOLUTE, kEventSize - 8}};
    uint8_t type_index = 0xFF;
    ASSERT_EQ(vyr_schema_add_type(schema, "tarvik_event_0", f, 2, &type_index), 0);
    // Each call: what happens before it, then "names of the blocks written/
    // return code/cursor after".
    const struct {
        std::vector<std::string> devices;
        size_t fit;  // whole events the buffer holds
        std::vector<std::pair<std::string, std::string>> calls;
    } cases[] = {
        {{}, 4, {{"", "/0/0"}}},
        {{"-a", "!b", "c"}, 4, {{"", "c /0/3"}}},
        {{"a", "b", "c"}, 2, {{"", "a b /1/2"}, {"", "c /0/3"}, {"", "a b /1/2"}}},
        {{"a", "c", "d"}, 2, {{"", "a c /1/2"}, {"+b", "c d /0/4"}}},
        {{"a", "b", "c"}, 2, {{"", "a b /1/2"}, {"rebuild", "z /0/3"}}},
    };
    vyrtest::LogCapture log;
    for (const auto &c : cases) {
        clear_devices();
        p->next_device = 0;
        p->provider.schema_index = 0;
        p->type_infos["h"].type_index = type_index;
        p->type_infos["h"].event_size = kEventSize;
        for (const auto &d : c.devices) add(d);
        std::vector<uint8_t> buf(c.fit * kBlock + 10);
        vyr_data_serializer_t ser{ts->schemas, buf.data(), buf.size(), 0};
        for (const auto &[before, want] : c.calls) {
            if (before[0] == '+') add(before.substr(1));
            if (before == "rebuild") {
                tarvik_provider_destroy(&p->provider);
                EXPECT_EQ(p->next_device, 0u);  // the cursor too starts over
                p->next_device = 2;             // a cursor left over from before
                for (const char *n : {"x", "y", "z"}) add(n);
            }
            ser.used = 0;
            const int rc = tarvik_provider_write_source_events(p, &ser);
            std::string names;
            for (uint64_t pos = 0; pos < ser.used; pos += kBlock) {
                // One event a block, under the schema's and the event type's indexes.
                EXPECT_EQ(std::vector<uint8_t>(&buf[pos + 12], &buf[pos + 16]),
                          (std::vector<uint8_t>{0, type_index, 0, 1}));
                names += reinterpret_cast<const char *>(&buf[pos + 16 + 72]) + std::string(" ");
            }
            EXPECT_EQ(names + "/" + std::to_string(rc) + "/" + std::to_string(p->next_device), want)
                << c.devices.size();
        }
    }
    EXPECT_TRUE(log.contains(7, "[tarvik provider] Writing event for device z"));
    clear_devices();
    p->type_infos.clear();
    vyr_destroy_type_system(ts);
}

}  // namespace
