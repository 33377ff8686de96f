// InfluxDB line protocol of vyrhost --format influx.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "vyr_type_system.h"
#include "vyrhost_influx.h"

namespace {

using namespace vyrhost;

// One line with every kind of field the protocol spells differently: text
// (quotes, backslashes, a newline), an escaped key, negative, double, NaN
// and a count beyond int64 (left out), an array, an empty text; tags escaped. A "timestamp" that is
// not of the timestamp type is an ordinary field and the block gives the time.
TEST(VyrhostInflux, LinesWithEveryFieldKind) {
    vyr_type_system_t *ts = vyr_create_type_system();
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
    const vyr_type_field_info_t other[] = {{"timestamp", "", "uint64_t", A, 1}};
    ASSERT_EQ(0, vyr_schema_add_type(schema, "tarvik_event_0", fields, 9, &ti));
    ASSERT_EQ(0, vyr_schema_add_type(schema, "t", other, 1, &ti));
    Event e;
    e.device = "arx 0";
    e.type = schema->types[0];
    e.record.assign(e.type->size, 0);
    const auto raw = [](auto v) { return std::string(reinterpret_cast<char *>(&v), sizeof v); };
    const std::pair<const char *, std::string> values[] = {
        {"timestamp", raw(uint64_t{1700000000123456})},
        {"Note", "say \"hi\"\nC:\\tmp\\"},
        {"a b,c=d", raw(uint64_t{42})},
        {"neg", raw(int32_t{-7})},
        {"ber", raw(2.5e-10)},
        {"nan", raw(std::nan(""))},
        {"lane", raw(uint64_t{3} | uint64_t{4} << 32)},
        {"big", raw(UINT64_MAX)}};
    for (const auto &[name, bytes] : values)
        memcpy(e.record.data() + find_field(e.type, name)->offset, bytes.data(), bytes.size());
    EXPECT_EQ(
        "tarvik,device=arx\\ 0,interface=eth0\\,eth1\\=\\ \\  timestamp=1700000000123456i,"
        "Note=\"say \\\"hi\\\" C:\\\\tmp\\\\\",a\\ b\\,c\\=d=42i,neg=-7i,ber=2.5e-10,lane_0=3i,"
        "lane_1=4i,empty=\"\" 1700000000123456000\n",
        render_influx_line(e, "eth0,eth1=\n\r"));
    e.device = "";
    e.type = schema->types[ti];
    e.record.assign(e.type->size, 0);
    e.block_time = 5;
    EXPECT_EQ("tarvik timestamp=0i 5000\n", render_influx_line(e, ""));
    e.type = nullptr;
    EXPECT_EQ("", render_influx_line(e, ""));
    vyr_destroy_type_system(ts);
}

TEST(VyrhostInflux, DiagnosticPrefixes) {
    for (int level = 2; level <= 7; ++level)  // error and worse, warning, info and notice, debug
        EXPECT_EQ(std::string(1, "EEWIID"[level - 2]) + "! x", influx_diagnostic(level, "x"));
}

}  // namespace
