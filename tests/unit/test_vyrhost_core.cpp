// vyrhost's own logic: decoding event blocks, the three renderings (the metric
// model through a golden exposition), the command line and the explanations
// of a failed start.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "test_paths.h"
#include "vyr_serializer.h"
#include "vyr_type_system.h"
#include "vyrhost_options.h"
#include "vyrhost_render.h"

namespace {

using namespace vyrhost;
using Pairs = std::vector<std::pair<std::string, std::string>>;
using Strings = std::vector<std::string>;

const auto raw = [](auto v) { return std::string(reinterpret_cast<char *>(&v), sizeof v); };

// One schema with the plug-in's record shape (the three leading fields, a
// lane counter, an unknown double, a text and a reading typed as text), a
// second type whose fields clash with names vyrhost writes or each other,
// and a third whose names walk the metric table's rules.
struct Fixture {
    vyr_type_system_t *ts = vyr_create_type_system();
    vyr_schema_t *schema = nullptr;
    uint8_t schema_index = 0, type0 = 0, type1 = 0, type2 = 0;

    Fixture() {
        schema = vyr_type_system_add_schema(ts, "tarvik", 1, &schema_index);
        const auto A = VYR_VALUE_ABSOLUTE;
        const vyr_type_field_info_t f0[] = {
            {"timestamp", "", "timestamp", A, 1}, {"event_name", "", "char", A, 64},
            {"device_name", "", "char", A, 64},   {"Raw_Errors_Lane_2", "", "uint64_t", A, 1},
            {"Temp-C", "", "double", A, 1},       {"Vendor", "", "char", A, 64},
            {"Rx_Power_dBm", "", "char", A, 16}};
        const vyr_type_field_info_t f1[] = {
            {"timestamp", "", "timestamp", A, 1}, {"device_name", "", "char", A, 64},
            {"info", "", "uint64_t", A, 1},       {"source", "", "uint64_t", A, 1},
            {"device", "", "char", A, 64},        {"Temp-C", "", "double", A, 1},
            {"Temp_C", "", "double", A, 1}};
        const vyr_type_field_info_t f2[] = {{"device_name", "", "char", A, 64},
                                            {"Raw_Errors_Lane_07", "", "uint64_t", A, 1},
                                            {"hist_bin_15", "", "uint64_t", A, 1},
                                            {"Tx_BiasmA", "", "double", A, 1},
                                            {"Effective_Physical_BER", "", "char", A, 16},
                                            {"Status_0", "", "char", A, 16},
                                            {"Note", "", "char", A, 16},
                                            {"bytes_total", "", "uint64_t", A, 1},
                                            {"Loss", "", "double", A, 1}};
        const char *index[] = {"device_name"};
        EXPECT_EQ(0, vyr_schema_add_type(schema, "tarvik_event_0", f0, 7, &type0));
        EXPECT_EQ(0, vyr_schema_add_type(schema, "tarvik_event_1", f1, 7, &type1));
        EXPECT_EQ(0, vyr_schema_add_type(schema, "tarvik_event_2", f2, 9, &type2));
        for (uint8_t t : {type0, type1, type2})
            EXPECT_EQ(0, vyr_schema_set_field_indexes(schema, t, index, 1));
    }
    ~Fixture() { vyr_destroy_type_system(ts); }

    const vyr_type_definition_t *type(uint8_t i) const { return schema->types[i]; }
    std::vector<uint8_t> record(uint8_t ti, const Pairs &fields) const {
        std::vector<uint8_t> r(type(ti)->size, 0);
        for (const auto &[name, bytes] : fields)
            memcpy(r.data() + find_field(type(ti), name.c_str())->offset, bytes.data(),
                   bytes.size());
        return r;
    }
    std::vector<uint8_t> record0(const std::string &device, uint64_t errors, double temp,
                                 const std::string &vendor,
                                 const std::string &power = "-2.9") const {
        return record(type0, {{"timestamp", raw(uint64_t{1700000000123456})},
                              {"event_name", "tarvik_event"},
                              {"device_name", device},
                              {"Raw_Errors_Lane_2", raw(errors)},
                              {"Temp-C", raw(temp)},
                              {"Vendor", vendor},
                              {"Rx_Power_dBm", power}});
    }
    Event event(uint8_t ti, std::vector<uint8_t> r, uint64_t block_time = 0) const {
        return Event{event_device(type(ti), r.data()), 0, ti, type(ti), block_time, r};
    }
};

// Two blocks, the first of two events: intact, all three come through. Each
// corruption is applied to the second (one header byte changed, or the
// buffer cut inside it): the first block's events still come through and
// the message names the bad block.
TEST(VyrhostDecode, EveryEventOfEveryGoodBlockAndABadBlockWithItsReason) {
    const struct {
        size_t at;  // the byte changed, or where the buffer ends
        int byte;   // -1: the buffer ends there; -2: intact
        const char *message;
    } cases[] = {
        {0, -2, ""},
        {3, 'e', ": magic is not \"VYRE\" (bytes 56 59 52 65)"},
        {12, 9, ": schema index 9 is not registered (the type system holds 1)"},
        {13, 3, ": type index 3 is not in schema \"tarvik\" (it has 3 types)"},
        {15, 2, ": 2 events of "},
        {15, -1, ": 15 bytes left, too few for a 16-byte block header"},
    };
    for (const auto &c : cases) {
        Fixture f;
        std::vector<uint8_t> bytes(4096);
        vyr_data_serializer_t ser{f.ts->schemas, bytes.data(), 4096, 0};
        auto a = f.record0("arx0", 1, 1.5, "x"), b = f.record0("arx1", 2, 2.5, "y"), two = a;
        two.insert(two.end(), b.begin(), b.end());
        vyr_data_serializer_write_events_ts(&ser, f.schema_index, f.type0, two.data(), 2, 111);
        const size_t second = ser.used;
        vyr_data_serializer_write_events_ts(&ser, f.schema_index, f.type0, a.data(), 1, 222);
        if (c.byte >= 0) bytes[second + c.at] = static_cast<uint8_t>(c.byte);
        std::vector<Event> got;
        std::string error =
            decode_blocks(f.ts, bytes.data(), c.byte == -1 ? second + c.at : ser.used,
                          [&](Event &&e) { got.push_back(std::move(e)); });
        ASSERT_EQ(c.byte == -2 ? 3u : 2u, got.size()) << c.message;
        EXPECT_TRUE(got[1].device == "arx1" && got[1].block_time == 111 && got[1].record == b &&
                    got[1].type == f.type(f.type0));
        EXPECT_EQ(c.byte == -2, error.empty()) << error;
        EXPECT_EQ(0u, error.find(error.empty() ? "" : "block at offset " + std::to_string(second)));
        EXPECT_NE(std::string::npos, error.find(c.message)) << error;
    }
}

TEST(VyrhostPrometheus, HelpIsEscaped) {
    EXPECT_EQ("a\\\\b\\nc \"q\" \xef\xbf\xbd", prom_escape_help("a\\b\nc \"q\" \xff"));
}

// Configured arx9 gives nothing, so it is down; tdg0's clashing fields land
// on names of their own or are dropped, never on a series twice; arx0's
// power, not quite a number, is NaN, its vendor label escaped and made valid UTF-8;
// arx1's fields walk the naming rules. The expected bytes are in tests/data.
TEST(VyrhostPrometheus, ExpositionOfTheMetricModel) {
    Fixture f;
    Snapshot s;
    s.events = {f.event(f.type0,
                        f.record0("arx0", UINT64_MAX, 45.5,
                                  "Say \"hi\" \\ o\n\xff \xf0\x9f\x98\x80 \xc3", "1.5x"),
                        1700000000999999),
                f.event(f.type1, f.record(f.type1, {{"device_name", "tdg0"},
                                                    {"device", "text"},
                                                    {"info", raw(uint64_t{5})},
                                                    {"Temp-C", raw(HUGE_VAL)},
                                                    {"Temp_C", raw(2.0)}})),
                f.event(f.type2, f.record(f.type2, {{"device_name", "arx1"},
                                                    {"Tx_BiasmA", raw(12.5)},
                                                    {"Effective_Physical_BER", " 5E-15 "},
                                                    {"Loss", raw(-HUGE_VAL)}}))};
    const ExpositionOptions o{true,
                              {"arx9", "arx0"},
                              {{"arx0", "eth0,eth1"}, {"tdg0", ""}},
                              "1.2.3",
                              "tarvik",
                              3,
                              1,
                              0.25,
                              1700000000.5,
                              2,
                              4};
    EXPECT_EQ(vyrtest::read_file(vyrtest::source_dir() + "/tests/data/vyrhost_exposition.prom"),
              render_exposition(s, o));
}

// source and block_time lead; JSON has no NaN, so the value goes out as
// null; a field called "source" keeps its name and vyrhost's key steps aside.
TEST(VyrhostJson, SourceAndBlockTimeLeadTheEventFields) {
    Fixture f;
    EXPECT_EQ(
        "{\"source\":\"host:tarvik\",\"block_time\":1700000000000001,\"timestamp\":"
        "1700000000123456,\"event_name\":\"tarvik_event\",\"device_name\":\"arx0\","
        "\"Raw_Errors_Lane_2\":42,\"Temp-C\":null,\"Vendor\":\"V\",\"Rx_Power_dBm\":\"-2.9\"}",
        render_json_line(f.event(f.type0, f.record0("arx0", 42, NAN, "V"), 1700000000000001),
                         "host:tarvik"));
    EXPECT_EQ(
        "{\"vyrhost_source\":\"h:t\",\"block_time\":9,\"timestamp\":0,\"device_name\":\"\","
        "\"info\":0,\"source\":0,\"device\":\"\",\"Temp-C\":0,\"Temp_C\":0}",
        render_json_line(f.event(f.type1, f.record(f.type1, {}), 9), "h:t"));
}

TEST(VyrhostTable, OneAlignedRowPerDeviceCutToTheWidth) {
    Fixture f;
    Snapshot s;
    s.poll = 4;
    s.events = {f.event(f.type0, f.record0("arx0", 12345, 45.5, "Holloway Optics")),
                f.event(f.type1, f.record(f.type1, {{"device_name", "tdg0"}}))};
    const TableOptions o{{"Raw_Errors_Lane_2", "Temp-C", "Vendor"}, 0, 10};
    const std::string table = render_table(s, o);
    EXPECT_EQ(0u, table.find("poll 4 at ")) << table;
    EXPECT_EQ(
        ": 2 devices ready\n"
        "DEVICE  TYPE            COLLECTED     Raw_Errors_Lane_2  Temp-C  Vendor\n"
        "arx0    tarvik_event_0  " +
            clock_text(1700000000123456) +
            "              12345    45.5  Holloway ~\n"
            "tdg0    tarvik_event_1  -                             -       0  -\n",
        table.substr(table.find(": ")));
    EXPECT_NE(std::string::npos, render_table(Snapshot{}, o).find(": no device ready yet\n"));
}

std::string parse(Strings args) {
    args.insert(args.begin(), "vyrhost");
    std::vector<char *> argv;
    for (std::string &a : args) argv.push_back(&a[0]);
    Options o;
    return parse_options(static_cast<int>(argv.size()), argv.data(), &o);
}

// Mistakes on the command line, in --set values and in the configuration file.
TEST(VyrhostOptions, MistakesAreRefusedInPlainWords) {
    const std::string conf = vyrtest::binary_dir() + "/test_vyrhost_core.conf";
    vyrtest::write_file(conf, "a=1\nnot a setting\n");
    Pairs kv;
    const std::string interval = "tarvik_update_interval_sec";
    const std::pair<std::string, std::string> cases[] = {
        {parse({"--set", "=5"}),
         "bad --set '=5': expected KEY=VALUE, for example --set tarvik_update_interval_sec=5"},
        {parse({"--poll", "0"}),
         "--poll '0': expected a number of seconds above 0, such as 2 or 0.5"},
        {parse({"--format", "xml"}), "--format 'xml': expected json, table, prometheus or influx"},
        {parse({"--listen", "::1:80"}),
         "--listen '::1:80': write an IPv6 address in brackets, [::1]:PORT"},
        {parse({"extra"}), "unexpected argument 'extra' (see vyrhost --help)"},
        {parse({"--frobnicate"}), "unknown option '--frobnicate' (see vyrhost --help)"},
        {check_settings({{interval, "86401"}}, {}).error,
         interval + " must be a whole number of seconds from 1 to 86400, not '86401'"},
        {check_settings({{interval, "0"}}, {}).error,
         interval + " must be a whole number of seconds from 1 to 86400, not '0'"},
        {read_config_file(conf, &kv), conf + ":2: expected KEY=VALUE, found 'not a setting'"},
        {read_config_file(conf + "-", &kv),
         "cannot read configuration file " + conf + "-: No such file or directory"},
    };
    for (const auto &[got, want] : cases) EXPECT_EQ(want, got);
}

TEST(VyrhostOptions, GoodSettingsAndNotes) {
    const std::string conf = vyrtest::binary_dir() + "/test_vyrhost_core.conf";
    vyrtest::write_file(conf,
                        "# comment\n\n  tarvik_devices = a,b \ntarvik_update_interval_sec=5\n");
    Pairs kv;
    EXPECT_EQ("", read_config_file(conf, &kv));
    EXPECT_EQ((Pairs{{"tarvik_devices", "a,b"}, {"tarvik_update_interval_sec", "5"}}), kv);
    remove(conf.c_str());
    const Strings found = {"a0", "b1"};
    SettingsCheck ok = check_settings({{"tarvik_update_interval_sec", "86400"}}, found);
    EXPECT_TRUE(ok.error.empty() && ok.notes.empty() && ok.devices == found);
    SettingsCheck noted =
        check_settings({{"tarvik_devcies", "a0"}, {"tarvik_devices", "b1, a0,zz,"}}, found);
    EXPECT_EQ(
        (Strings{"unknown setting 'tarvik_devcies' is ignored (the plug-in reads tarvik_devices, "
                 "tarvik_max_errors, tarvik_phyprobe_as_service and tarvik_update_interval_sec)",
                 "tarvik_devices: ' a0' has blanks in it; names are matched exactly, so it will "
                 "not be collected",
                 "tarvik_devices: 'zz' is not a device zdt lists; it will not be collected"}),
        noted.notes);
    EXPECT_EQ(Strings{"b1"}, noted.devices);
}

TEST(VyrhostExplain, WhyInitializeFailed) {
    const std::string none =
        "[tarvik provider] [tarvik_provider_initialize] No devices to collect. Provider will not "
        "run";
    const std::pair<std::vector<LoggedMessage>, const char *> cases[] = {
        {{{4, "[tarvik provider] Device foo is set to collect, but not supported"},
          {4, "[tarvik provider] Device  is set to collect, but not supported"},
          {3, none}},
         "no devices to collect (tarvik_devices names 'foo', '', which zdt does not report)"},
        {{{3, "[device_utils]  No valid devices found"}, {3, none}},
         "no devices to collect ('zdt status -v' lists no Arcline or Tidegate adapter with a "
         "/dev/zdt entry)"},
        {{{3, "[tarvik provider] [_create_tarvik_event_type] Unknown tarvik field type 7"},
          {3, "[tarvik provider] [tarvik_provider_initialize] Could not create tarvik event type"}},
         "the plug-in could not build an event type from a device's header (run with "
         "--log-level 4 for its messages)"},
        {{{4, "a warning"}, {3, "something broke"}},
         "the plug-in's initialize failed (last error: something broke)"},
        {{}, "the plug-in's initialize failed without saying why"},
    };
    for (const auto &[log, want] : cases) EXPECT_EQ(want, explain_initialize_failure(log));

    const std::string init = "[tarvik provider] [tarvik_provider_initialize] Could not ";
    std::vector<LoggedMessage> log;
    for (const auto &[dev, status] : {std::pair{"arx0", 768}, {"arx1", 31744}, {"tdg0", 9}})
        log.push_back({4, init + "execute command timeout 3 phyprobe -d /dev/zdt/" + dev +
                              " --tarvik_collect /tmp/tarvik_collect_" + dev +
                              "hdr.csv > /dev/null, system returned " + std::to_string(status)});
    log.push_back({3, "Failed to read csv value line from file /tmp/tarvik_collect_tdg1hdr.csv"});
    log.insert(log.end(), 2, {4, init + "parse tarvik header"});
    EXPECT_EQ(
        (Strings{"header run for arx0 failed with exit status 3",
                 "header run for arx1 timed out after 3 seconds",
                 "header run for tdg0 was killed by signal 9",
                 "header file of tdg1 has no value line", "a header file could not be parsed"}),
        header_failures(log));
}

}  // namespace
