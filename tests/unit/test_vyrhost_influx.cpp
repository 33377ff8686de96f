// InfluxDB line protocol of vyrhost --format influx.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "vyr_type_system.h"
#include "vyrhost_influx.h"

namespace {

using namespace vyrhost;

// One type with every kind of field the protocol spells differently.
struct Fixture {
    vyr_type_system_t *ts = vyr_create_type_system();
    const vyr_type_definition_t *type = nullptr, *plain = nullptr;
    std::vector<uint8_t> record;

    Fixture() {
        uint8_t si = 0, ti = 0;
        vyr_schema_t *schema = vyr_type_system_add_schema(ts, "tarvik", 1, &si);
        const auto A = VYR_VALUE_ABSOLUTE;
        const vyr_type_field_info_t fields[] = {
            {"timestamp", "", "timestamp", A, 1}, {"Note", "", "char", A, 32},
            {"a b,c=d", "", "uint64_t", A, 1},    {"neg", "", "int32_t", A, 1},
            {"ber", "", "double", A, 1},          {"nan", "", "double", A, 1},
            {"big", "", "uint64_t", A, 1},        {"lane", "", "uint32_t", A, 2},
            {"empty", "", "char", A, 8},
        };
        EXPECT_EQ(0, vyr_schema_add_type(schema, "tarvik_event_0", fields, 9, &ti));
        type = schema->types[ti];
        // A "timestamp" that is not of the timestamp type is an ordinary field.
        const vyr_type_field_info_t other[] = {{"timestamp", "", "uint64_t", A, 1}};
        EXPECT_EQ(0, vyr_schema_add_type(schema, "t", other, 1, &ti));
        plain = schema->types[ti];
        record.assign(type->size, 0);
        uint64_t stamp = 1700000000123456, count = 42, big = UINT64_MAX;
        int32_t neg = -7;
        double ber = 2.5e-10, nan = std::nan("");
        uint32_t lanes[2] = {3, 4};
        put("timestamp", &stamp, 8);
        put("Note", "say \"hi\" C:\\tmp\\", 16);
        put("a b,c=d", &count, 8);
        put("neg", &neg, 4);
        put("ber", &ber, 8);
        put("nan", &nan, 8);
        put("big", &big, 8);
        put("lane", lanes, 8);
    }
    ~Fixture() { vyr_destroy_type_system(ts); }
    void put(const char *name, const void *bytes, size_t n) {
        const vyr_type_field_definition_t *f = find_field(type, name);
        ASSERT_NE(nullptr, f) << name;
        memcpy(record.data() + f->offset, bytes, n);
    }
    Event event(const std::string &device) {
        Event e;
        e.device = device;
        e.type = type;
        e.record = record;
        e.block_time = 1;
        return e;
    }
};

TEST(VyrhostInflux, OneLineWithEveryFieldKind) {
    Fixture f;
    EXPECT_EQ(
        "tarvik,device=arx\\ 0,interface=eth0\\,eth1 timestamp=1700000000123456i,"
        "Note=\"say \\\"hi\\\" C:\\\\tmp\\\\\",a\\ b\\,c\\=d=42i,neg=-7i,ber=2.5e-10,lane_0=3i,"
        "lane_1=4i,empty=\"\" 1700000000123456000\n",
        render_influx_line(f.event("arx 0"), "eth0,eth1"));
}

TEST(VyrhostInflux, TagsLeftOutWhenEmptyAndTimeFromTheBlockWithoutATimestampField) {
    Fixture f;
    std::string line = render_influx_line(f.event(""), "");
    EXPECT_EQ(0u, line.find("tarvik timestamp=")) << line;
    Event e = f.event("d");
    e.type = f.plain;
    e.record.assign(e.type->size, 0);
    e.block_time = 5;
    EXPECT_EQ("tarvik,device=d timestamp=0i 5000\n", render_influx_line(e, ""));
    e.type = nullptr;
    EXPECT_EQ("", render_influx_line(e, ""));
}

TEST(VyrhostInflux, Escaping) {
    const std::array<const char *, 3> cases[] = {
        // text, as a key, as a quoted string
        {"a,b c=d", "a\\,b\\ c\\=d", "\"a,b c=d\""},
        {"q\"\\", "q\"\\", "\"q\\\"\\\\\""},
        {"l\nr\r", "l\\ r\\ ", "\"l r \""},
        {"", "", "\"\""},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c[1], influx_escape_key(c[0])) << c[0];
        EXPECT_EQ(c[2], influx_quote_string(c[0])) << c[0];
    }
}

TEST(VyrhostInflux, DiagnosticPrefixes) {
    for (int level = 2; level <= 7; ++level)  // error and worse, warning, info and notice, debug
        EXPECT_EQ(std::string(1, "EEWIID"[level - 2]) + "! x", influx_diagnostic(level, "x"));
}

}  // namespace
