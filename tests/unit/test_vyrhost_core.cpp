// vyrhost's own logic: decoding event blocks, the three renderings, the
// command line and the explanations of a failed start.
#include <gtest/gtest.h>
#include <jansson.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "test_paths.h"
#include "vyr_serializer.h"
#include "vyr_type_system.h"
#include "vyrhost_options.h"
#include "vyrhost_render.h"

namespace {

using namespace vyrhost;

// A type system holding one schema with the plug-in's record shape: the
// three leading fields, then an integer, a double and a text, and a second
// type whose fields clash with names vyrhost reserves.
struct Fixture {
    vyr_type_system_t *ts = vyr_create_type_system();
    vyr_schema_t *schema = nullptr;
    uint8_t schema_index = 0, type0 = 0, type1 = 0;

    Fixture() {
        schema = vyr_type_system_add_schema(ts, "tarvik", 1, &schema_index);
        const auto A = VYR_VALUE_ABSOLUTE;
        const vyr_type_field_info_t fields0[] = {
            {"timestamp", "Event timestamp", "timestamp", A, 1},
            {"event_name", "Event name", "char", A, 64},
            {"device_name", "Device name", "char", A, 64},
            {"Raw_Errors", "Raw_Errors", "uint64_t", A, 1},
            {"Temp-C", "Temp-C", "double", A, 1},
            {"Vendor", "Vendor", "char", A, 64},
        };
        const vyr_type_field_info_t fields1[] = {
            fields0[0],
            fields0[2],
            {"info", "info", "uint64_t", A, 1},
            {"source", "source", "uint64_t", A, 1},
            {"device", "device", "char", A, 64},
        };
        const char *index[] = {"device_name"};
        EXPECT_EQ(0, vyr_schema_add_type(schema, "tarvik_event_0", fields0, 6, &type0));
        EXPECT_EQ(0, vyr_schema_add_type(schema, "tarvik_event_1", fields1, 5, &type1));
        for (uint8_t t : {type0, type1})
            EXPECT_EQ(0, vyr_schema_set_field_indexes(schema, t, index, 1));
    }
    ~Fixture() { vyr_destroy_type_system(ts); }

    const vyr_type_definition_t *type(uint8_t i) const { return schema->types[i]; }

    std::vector<uint8_t> record0(const std::string &device, uint64_t errors, double temp,
                                 const std::string &vendor, uint64_t stamp = 1700000000123456) {
        const vyr_type_definition_t *t = type(type0);
        std::vector<uint8_t> r(t->size, 0);
        put(t, &r, "timestamp", &stamp, 8);
        put(t, &r, "event_name", "tarvik_event", 12);
        put(t, &r, "device_name", device.data(), device.size());
        put(t, &r, "Raw_Errors", &errors, 8);
        put(t, &r, "Temp-C", &temp, 8);
        put(t, &r, "Vendor", vendor.data(), vendor.size());
        return r;
    }
    static void put(const vyr_type_definition_t *t, std::vector<uint8_t> *r, const char *name,
                    const void *bytes, size_t n) {
        const vyr_type_field_definition_t *f = find_field(t, name);
        ASSERT_NE(nullptr, f) << name;
        memcpy(r->data() + f->offset, bytes, n);
    }
    Event event(uint8_t type_index, std::vector<uint8_t> record, uint64_t block_time = 0) {
        Event e;
        e.type_index = type_index;
        e.type = type(type_index);
        e.block_time = block_time;
        e.record = std::move(record);
        e.device = event_device(e.type, e.record.data());
        return e;
    }
};

// ---------------------------------------------------------------- decoding

struct Written {
    std::vector<uint8_t> bytes = std::vector<uint8_t>(4096);
    vyr_data_serializer_t ser;
    explicit Written(Fixture &f) : ser{f.ts->schemas, bytes.data(), 4096, 0} {}
};

TEST(VyrhostDecode, EveryEventOfEveryBlockWithItsDeviceAndTime) {
    Fixture f;
    Written w(f);
    auto a = f.record0("arx0", 1, 1.5, "x"), b = f.record0("arx1", 2, 2.5, "y");
    std::vector<uint8_t> two(a);
    two.insert(two.end(), b.begin(), b.end());
    ASSERT_EQ(2u, vyr_data_serializer_write_events_ts(&w.ser, f.schema_index, f.type0, two.data(),
                                                      2, 111));
    ASSERT_EQ(
        1u, vyr_data_serializer_write_events_ts(&w.ser, f.schema_index, f.type0, a.data(), 1, 222));
    std::vector<Event> got;
    EXPECT_EQ("", decode_blocks(f.ts, w.bytes.data(), w.ser.used,
                                [&](Event &&e) { got.push_back(std::move(e)); }));
    ASSERT_EQ(3u, got.size());
    EXPECT_EQ("arx0", got[0].device);
    EXPECT_EQ("arx1", got[1].device);
    EXPECT_EQ(111u, got[1].block_time);
    EXPECT_EQ(222u, got[2].block_time);
    EXPECT_EQ(b, got[1].record);
    EXPECT_EQ(f.type(f.type0), got[2].type);
}

// Each corruption is applied to the second of two blocks: one byte of its
// header changed, or the buffer cut inside it. The first block's event still
// comes through and the message names the bad block.
TEST(VyrhostDecode, ABadBlockIsRejectedWithItsReason) {
    const struct {
        size_t at;  // the byte changed, or where the buffer ends
        int byte;   // -1: the buffer ends there
        const char *message;
    } cases[] = {
        {3, 'e', ": magic is not \"VYRE\" (bytes 56 59 52 65)"},
        {12, 9, ": schema index 9 is not registered (the type system holds 1)"},
        {13, 2, ": type index 2 is not in schema \"tarvik\" (it has 2 types)"},
        {15, 2, ": 2 events of "},
        {15, -1, ": 15 bytes left, too few for a 16-byte block header"},
    };
    for (const auto &c : cases) {
        Fixture f;
        Written w(f);
        auto a = f.record0("arx0", 1, 1.5, "x");
        vyr_data_serializer_write_events_ts(&w.ser, f.schema_index, f.type0, a.data(), 1, 1);
        const size_t second = w.ser.used;
        vyr_data_serializer_write_events_ts(&w.ser, f.schema_index, f.type0, a.data(), 1, 2);
        uint64_t used = c.byte < 0 ? second + c.at : w.ser.used;
        if (c.byte >= 0) w.bytes[second + c.at] = static_cast<uint8_t>(c.byte);
        size_t events = 0;
        std::string error = decode_blocks(f.ts, w.bytes.data(), used, [&](Event &&) { ++events; });
        EXPECT_EQ(1u, events) << c.message;
        EXPECT_EQ(0u, error.find("block at offset " + std::to_string(second))) << error;
        EXPECT_NE(std::string::npos, error.find(c.message)) << error;
    }
}

// ---------------------------------------------------------------- Prometheus

TEST(VyrhostPrometheus, NamesFollowTheMetricAndLabelRules) {
    struct {
        const char *field, *metric, *label;
    } cases[] = {
        {"Raw_Errors_Lane_0", "tarvik_raw_errors_lane_0", "raw_errors_lane_0"},
        {"Temp-C", "tarvik_temp_c", "temp_c"},
        {"Tx_BiasmA", "tarvik_tx_biasma", "tx_biasma"},
        {"a.b c:d", "tarvik_a_b_c_d", "a_b_c_d"},
        {"1st", "tarvik_1st", "field_1st"},
        {"__name__", "tarvik___name__", "field___name__"},
        {"", "tarvik_", "field_"},
        {"\xc3\xa9t\xc3\xa9", "tarvik___t__", "field___t__"},
        {"Lane_Count", "tarvik_lane_count_value", "lane_count"},
        {"bytes_total", "tarvik_bytes_total_value", "bytes_total"},
        {"x_Sum", "tarvik_x_sum_value", "x_sum"},
        {"counted", "tarvik_counted", "counted"},
        {"LE", "tarvik_le", "le_"},
        {"quantile", "tarvik_quantile", "quantile_"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.metric, prom_metric_name("tarvik", c.field)) << c.field;
        EXPECT_EQ(c.label, prom_label_name(c.field)) << c.field;
    }
}

TEST(VyrhostPrometheus, LabelValuesAndHelpAreEscaped) {
    struct {
        std::string in, label, help;
    } cases[] = {
        {"plain", "plain", "plain"},
        {"say \"hi\"", "say \\\"hi\\\"", "say \"hi\""},
        {"C:\\path", "C:\\\\path", "C:\\\\path"},
        {"two\nlines", "two\\nlines", "two\\nlines"},
        {"bad \xff byte", "bad \xef\xbf\xbd byte", "bad \xef\xbf\xbd byte"},
        {"caf\xc3\xa9", "caf\xc3\xa9", "caf\xc3\xa9"},
        {"cut \xc3", "cut \xef\xbf\xbd", "cut \xef\xbf\xbd"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.label, prom_escape_label_value(c.in)) << c.in;
        EXPECT_EQ(c.help, prom_escape_help(c.in)) << c.in;
    }
}

TEST(VyrhostPrometheus, ExpositionOfTwoDevices) {
    Fixture f;
    Snapshot s;
    s.events.push_back(f.event(f.type0,
                               f.record0("arx0", 18446744073709551615ull, 45.5, "Say \"hi\" \\ o"),
                               1700000000999999));
    s.events.push_back(f.event(f.type0, f.record0("arx1", 7, 1e-15, "V")));
    ExpositionOptions o;
    o.polls_total = 3;
    o.poll_errors_total = 1;
    EXPECT_EQ(
        "# HELP tarvik_info Text fields of the latest event of each device, as labels.\n"
        "# TYPE tarvik_info gauge\n"
        "tarvik_info{device=\"arx0\",event_name=\"tarvik_event\",vendor=\"Say \\\"hi\\\" \\\\ "
        "o\"} 1\n"
        "tarvik_info{device=\"arx1\",event_name=\"tarvik_event\",vendor=\"V\"} 1\n"
        "# HELP tarvik_timestamp Event timestamp\n"
        "# TYPE tarvik_timestamp gauge\n"
        "tarvik_timestamp{device=\"arx0\"} 1700000000123456\n"
        "tarvik_timestamp{device=\"arx1\"} 1700000000123456\n"
        "# HELP tarvik_raw_errors Field Raw_Errors of the latest event of each device.\n"
        "# TYPE tarvik_raw_errors gauge\n"
        "tarvik_raw_errors{device=\"arx0\"} 18446744073709551615\n"
        "tarvik_raw_errors{device=\"arx1\"} 7\n"
        "# HELP tarvik_temp_c Field Temp-C of the latest event of each device.\n"
        "# TYPE tarvik_temp_c gauge\n"
        "tarvik_temp_c{device=\"arx0\"} 45.5\n"
        "tarvik_temp_c{device=\"arx1\"} 1e-15\n"
        "# HELP vyrhost_devices_ready Devices whose latest event the provider handed over at the "
        "last poll.\n"
        "# TYPE vyrhost_devices_ready gauge\n"
        "vyrhost_devices_ready 2\n"
        "# HELP vyrhost_polls_total Polls of the provider since vyrhost started.\n"
        "# TYPE vyrhost_polls_total counter\n"
        "vyrhost_polls_total 3\n"
        "# HELP vyrhost_poll_errors_total Polls whose events could not be taken over "
        "(write_events failed or a block was bad).\n"
        "# TYPE vyrhost_poll_errors_total counter\n"
        "vyrhost_poll_errors_total 1\n",
        render_exposition(s, o));
}

// Names that clean to one already taken get a number instead of making a
// second family sample or a duplicate label.
TEST(VyrhostPrometheus, ClashingNamesAreNumbered) {
    Fixture f;
    const vyr_type_definition_t *t = f.type(f.type1);
    std::vector<uint8_t> r(t->size, 0);
    Fixture::put(t, &r, "device_name", "d0", 2);
    Fixture::put(t, &r, "device", "text", 4);
    uint64_t v = 5;
    Fixture::put(t, &r, "info", &v, 8);
    Snapshot s;
    s.events.push_back(f.event(f.type1, r));
    std::string text = render_exposition(s, ExpositionOptions());
    EXPECT_NE(std::string::npos, text.find("tarvik_info{device=\"d0\",device_2=\"text\"} 1\n"));
    EXPECT_NE(std::string::npos,
              text.find("# TYPE tarvik_info_2 gauge\ntarvik_info_2{device=\"d0\"} 5\n"));
}

TEST(VyrhostPrometheus, NumbersKeepFullPrecisionAndSpecialValues) {
    Fixture f;
    const vyr_type_field_definition_t *temp = find_field(f.type(f.type0), "Temp-C");
    struct {
        double in;
        const char *out;
    } cases[] = {
        {0.1, "0.1"},
        {1.0 / 3, "0.3333333333333333"},
        {0.1 + 0.2, "0.30000000000000004"},
        {-2, "-2"},
        {NAN, "NaN"},
        {INFINITY, "+Inf"},
        {-INFINITY, "-Inf"},
    };
    for (const auto &c : cases) {
        std::vector<uint8_t> r = f.record0("d", 0, c.in, "");
        std::string out;
        ASSERT_TRUE(field_number(temp, r.data(), 0, &out));
        EXPECT_EQ(c.out, out);
    }
    std::string out;
    EXPECT_FALSE(field_number(find_field(f.type(f.type0), "Vendor"), nullptr, 0, &out));
}

// ---------------------------------------------------------------- JSON and table

TEST(VyrhostJson, SourceAndBlockTimeLeadTheEventFields) {
    Fixture f;
    std::string line = render_json_line(
        f.event(f.type0, f.record0("arx0", 42, 0.5, "V"), 1700000000000001), "host:tarvik");
    EXPECT_EQ(
        "{\"source\":\"host:tarvik\",\"block_time\":1700000000000001,\"timestamp\":"
        "1700000000123456,\"event_name\":\"tarvik_event\",\"device_name\":\"arx0\","
        "\"Raw_Errors\":42,\"Temp-C\":0.5,\"Vendor\":\"V\"}",
        line);

    // A field called "source" keeps its name; vyrhost's key steps aside.
    const vyr_type_definition_t *t = f.type(f.type1);
    std::vector<uint8_t> r(t->size, 0);
    json_error_t error;
    json_t *parsed = json_loads(render_json_line(f.event(f.type1, r, 9), "h:t").c_str(), 0, &error);
    ASSERT_NE(nullptr, parsed) << error.text;
    EXPECT_STREQ("h:t", json_string_value(json_object_get(parsed, "vyrhost_source")));
    EXPECT_EQ(0, json_number_value(json_object_get(parsed, "source")));
    EXPECT_EQ(9, json_number_value(json_object_get(parsed, "block_time")));
    json_decref(parsed);
}

TEST(VyrhostTable, OneAlignedRowPerDeviceCutToTheWidth) {
    Fixture f;
    Snapshot s;
    s.poll = 4;
    s.events.push_back(f.event(f.type0, f.record0("arx0", 12345, 45.5, "Holloway Optics")));
    s.events.push_back(f.event(f.type1, std::vector<uint8_t>(f.type(f.type1)->size, 0)));
    s.events.back().device = "tdg0";

    EXPECT_EQ(
        (std::vector<std::string>{"Raw_Errors", "Temp-C", "Vendor", "info", "source", "device"}),
        default_table_columns(f.schema));

    TableOptions o;
    o.columns = {"Raw_Errors", "Temp-C", "Vendor"};
    o.max_cell = 10;
    std::string table = render_table(s, o);
    std::string rows = table.substr(table.find('\n') + 1);
    EXPECT_EQ(0u, table.find("poll 4 at ")) << table;
    EXPECT_NE(std::string::npos, table.find(": 2 devices ready\n")) << table;
    EXPECT_EQ(
        "DEVICE  TYPE            COLLECTED     Raw_Errors  Temp-C  Vendor\n"
        "arx0    tarvik_event_0  " +
            clock_text(1700000000123456) +
            "       12345    45.5  Holloway ~\n"
            "tdg0    tarvik_event_1  -                      -       -  -\n",
        rows);

    Snapshot empty;
    empty.poll = 1;
    EXPECT_NE(std::string::npos, render_table(empty, o).find(": no device ready yet\n"));
}

// ---------------------------------------------------------------- command line

std::string parse(std::vector<std::string> args, Options *o) {
    args.insert(args.begin(), "vyrhost");
    std::vector<char *> argv;
    for (std::string &a : args) argv.push_back(&a[0]);
    return parse_options(static_cast<int>(argv.size()), argv.data(), o);
}

TEST(VyrhostOptions, BadCommandLinesAreRefusedInPlainWords) {
    struct {
        std::vector<std::string> args;
        const char *error;
    } cases[] = {
        {{"--set", "=5"},
         "bad --set '=5': expected KEY=VALUE, for example --set tarvik_update_interval_sec=5"},
        {{"--set"}, "option --set needs a value (see vyrhost --help)"},
        {{"--poll", "0"}, "--poll '0': expected a number of seconds above 0, such as 2 or 0.5"},
        {{"--poll=2s"}, "--poll '2s': expected a number of seconds above 0, such as 2 or 0.5"},
        {{"--format", "xml"}, "--format 'xml': expected json, table, prometheus or influx"},
        {{"--count", "-1"}, "--count '-1': expected a number of events above 0"},
        {{"--buffer-size", "16"},
         "--buffer-size '16': expected a number of bytes from 17 to 1073741824"},
        {{"--log-level", "9"},
         "--log-level '9': expected 0 to 7 (3 errors, 4 warnings, 6 info, 7 debug)"},
        {{"--listen", "::1:80"},
         "--listen '::1:80': write an IPv6 address in brackets, [::1]:PORT"},
        {{"--listen", "host:99999"},
         "--listen 'host:99999': expected [ADDRESS:]PORT with a port from 0 to 65535"},
        {{"--timestamps=yes"}, "option --timestamps takes no value"},
        {{"extra"}, "unexpected argument 'extra' (see vyrhost --help)"},
    };
    for (const auto &c : cases) {
        Options o;
        EXPECT_EQ(c.error, parse(c.args, &o)) << c.args[0];
    }
}

TEST(VyrhostOptions, GoodCommandLine) {
    Options o;
    ASSERT_EQ("", parse({"--set", "a=1", "--set=b=x=y", "--set", "c=", "--poll", "0.5",
                         "--format=table", "--columns", "A, B,,C", "--count", "7", "--listen",
                         "9464", "--log-level", "4", "--print-schema"},
                        &o));
    EXPECT_EQ(
        (std::vector<std::pair<std::string, std::string>>{{"a", "1"}, {"b", "x=y"}, {"c", ""}}),
        o.sets);
    EXPECT_EQ(0.5, o.poll);
    EXPECT_EQ(Format::kTable, o.format);
    EXPECT_EQ((std::vector<std::string>{"A", "B", "C"}), o.columns);
    EXPECT_EQ(7u, o.count);
    EXPECT_EQ(4, o.log_level);
    EXPECT_TRUE(o.print_schema);

    struct {
        const char *text, *host;
        uint16_t port;
        bool ipv6;
    } listens[] = {{"9464", "127.0.0.1", 9464, false},
                   {":0", "127.0.0.1", 0, false},
                   {"0.0.0.0:80", "0.0.0.0", 80, false},
                   {"[::1]:9100", "::1", 9100, true}};
    for (const auto &l : listens) {
        ListenAddress a;
        ASSERT_EQ("", parse_listen(l.text, &a)) << l.text;
        EXPECT_EQ(l.host, a.host);
        EXPECT_EQ(l.port, a.port);
        EXPECT_EQ(l.ipv6, a.ipv6);
    }
}

TEST(VyrhostOptions, ConfigurationFile) {
    std::string path = vyrtest::binary_dir() + "/test_vyrhost_core.conf";
    vyrtest::write_file(path,
                        "# comment\n\n  tarvik_devices = a,b \ntarvik_update_interval_sec=5\n");
    std::vector<std::pair<std::string, std::string>> kv;
    EXPECT_EQ("", read_config_file(path, &kv));
    EXPECT_EQ((std::vector<std::pair<std::string, std::string>>{
                  {"tarvik_devices", "a,b"}, {"tarvik_update_interval_sec", "5"}}),
              kv);
    remove(path.c_str());
    EXPECT_EQ("cannot read configuration file " + path + ": No such file or directory",
              read_config_file(path, &kv));
}

// ---------------------------------------------------------------- explanations

TEST(VyrhostExplain, WhyInitializeFailed) {
    const std::string none =
        "[tarvik provider] [tarvik_provider_initialize] No devices to "
        "collect. Provider will not run";
    struct {
        std::vector<LoggedMessage> log;
        const char *why;
    } cases[] = {
        {{{4, "[tarvik provider] Device foo is set to collect, but not supported"},
          {4, "[tarvik provider] Device  is set to collect, but not supported"},
          {3, none}},
         "no devices to collect (tarvik_devices names 'foo', '', which zdt does not report)"},
        {{{3, "[device_utils]  No valid devices found"}, {3, none}},
         "no devices to collect ('zdt status -v' lists no Arcline or Tidegate adapter with a "
         "/dev/zdt entry)"},
        {{{3, none}}, "no devices to collect"},
        {{{3, "[tarvik provider] [_create_tarvik_event_type] Unknown tarvik field type 7"},
          {3,
           "[tarvik provider] [tarvik_provider_initialize] Could not create tarvik event "
           "type"}},
         "the plug-in could not build an event type from a device's header (run with "
         "--log-level 4 for its messages)"},
        {{{4, "a warning"}, {3, "something broke"}},
         "the plug-in's initialize failed (last error: something broke)"},
        {{}, "the plug-in's initialize failed without saying why"},
    };
    for (const auto &c : cases) EXPECT_EQ(c.why, explain_initialize_failure(c.log));
}

TEST(VyrhostExplain, WhichHeaderRunsFailed) {
    const std::string run =
        "[tarvik provider] [tarvik_provider_initialize] Could not execute "
        "command timeout 3 phyprobe -d /dev/zdt/";
    std::vector<LoggedMessage> log = {
        {4, run + "arx0 --tarvik_collect /tmp/tarvik_collect_arx0hdr.csv > /dev/null, system "
                  "returned 768"},
        {4, run + "arx1 --tarvik_collect /tmp/tarvik_collect_arx1hdr.csv > /dev/null, system "
                  "returned 31744"},
        {4, run + "tdg0 --tarvik_collect /tmp/tarvik_collect_tdg0hdr.csv > /dev/null, system "
                  "returned 9"},
        {3, "Failed to read csv value line from file /tmp/tarvik_collect_tdg1hdr.csv"},
        {4, "[tarvik provider] [tarvik_provider_initialize] Could not parse tarvik header"},
        {4, "[tarvik provider] [tarvik_provider_initialize] Could not parse tarvik header"},
    };
    EXPECT_EQ((std::vector<std::string>{"header run for arx0 failed with exit status 3",
                                        "header run for arx1 timed out after 3 seconds",
                                        "header run for tdg0 was killed by signal 9",
                                        "header file of tdg1 has no value line",
                                        "a header file could not be parsed"}),
              header_failures(log));
}

}  // namespace
