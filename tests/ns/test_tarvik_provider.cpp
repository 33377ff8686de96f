// The plug-in end to end through the system shell, against the simulated zdt
// and phyprobe, inside the test namespace.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#include "log_capture.h"
#include "sim.h"
#include "tarvik_collect.h"
#include "tarvik_initialize.h"
#include "tarvik_provider.h"
#include "tarvik_service.h"
#include "test_paths.h"
#include "vyr_serializer.h"
#include "vyr_type_system.h"

namespace sim = vyrtest::sim;

namespace {

// Waits for a condition that the simulators make true; never a timing assertion.
bool eventually(const std::function<bool()> &pred, int seconds = 30) {
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < until) {
        if (pred()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return pred();
}

size_t count_lines(const std::vector<std::string> &lines, const std::string &text) {
    size_t n = 0;
    for (const auto &l : lines) n += l == text;
    return n;
}

class TarvikProvider : public ::testing::Test {
protected:
    void SetUp() override {
        sim::reset();
        p = tarvik_provider_instance();
        params = vyr_dict_create();
        ts = vyr_create_type_system();
        ASSERT_NE(ts, nullptr);
    }
    void TearDown() override {
        if (started) tarvik_provider_stop(&p->provider);
        // destroy keeps each device's service command on purpose.
        for (auto &e : p->devices) free(e.second.service_command);
        tarvik_provider_destroy(&p->provider);
        p->type_infos.clear();
        p->next_device = 0;
        p->stop_requested = false;
        vyr_destroy_type_system(ts);
        vyr_dict_delete(params);
        sim::reset();
    }
    void set(const char *key, const char *value) { ASSERT_TRUE(vyr_dict_add(params, key, value)); }
    vyr_event_provider_t *construct() { return construct_event_provider(params); }
    bool initialize() { return p->provider.initialize(&p->provider, ts); }
    void start() {
        ASSERT_TRUE(p->provider.start(&p->provider));
        started = true;
    }
    int stop() {
        started = false;
        return p->provider.stop(&p->provider);
    }
    std::vector<std::string> device_names() {
        std::vector<std::string> names;
        for (auto &e : p->devices) names.push_back(e.first);
        return names;
    }
    tarvik_provider_dev_info_t &dev(const std::string &name) { return p->devices.at(name); }

    tarvik_provider_t *p = nullptr;
    vyr_dict_t *params = nullptr;
    vyr_type_system_t *ts = nullptr;
    bool started = false;
};

// ---- configuration -------------------------------------------------------

TEST_F(TarvikProvider, EmptyDictionaryGivesDefaultsAndEveryDiscoveredDevice) {
    sim::add_device("zeta", "arcline", "eth0");
    sim::add_device("alpha", "tidegate", "eth1");
    vyrtest::LogCapture log;
    vyr_event_provider_t *d = construct();
    EXPECT_EQ(static_cast<void *>(d), static_cast<void *>(p));
    EXPECT_EQ(d->version, 1u);
    EXPECT_STREQ(d->name, "tarvik");
    EXPECT_STREQ(d->description, "Ethernet tarvik data from phyprobe tarvik-collect");
    EXPECT_EQ(d->host_word13, 0u);
    EXPECT_EQ(p->update_interval_sec, 30u);
    EXPECT_TRUE(p->run_as_service);
    EXPECT_EQ(device_names(), (std::vector<std::string>{"alpha", "zeta"}));
    EXPECT_EQ(dev("alpha").max_errors, 10);
    EXPECT_TRUE(log.contains(6, "[tarvik provider] Update interval is set to 30 sec"));
    EXPECT_TRUE(log.contains(6, "[tarvik provider] phyprobe will run as service"));
    // Registration follows discovery order: zeta is announced first.
    auto lines = log.lines();
    size_t zeta = 0, alpha = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].text.find("/dev/zdt/zeta will be collected") != std::string::npos) zeta = i;
        if (lines[i].text.find("/dev/zdt/alpha will be collected") != std::string::npos) alpha = i;
    }
    EXPECT_LT(zeta, alpha);
}

TEST_F(TarvikProvider, DeviceListIsSplitAtEveryComma) {
    sim::add_device("a");
    sim::add_device("b");
    struct Case {
        const char *list;
        std::vector<std::string> devices;
        std::vector<std::string> warned;
    } cases[] = {
        {"a,,b", {"a", "b"}, {""}},
        {"a, b", {"a"}, {" b"}},
        {"b,", {"b"}, {}},
        {"", {}, {}},
        {",a", {"a"}, {""}},
        {"a,a", {"a"}, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.list);
        vyr_dict_add(params, "tarvik_devices", c.list);
        vyrtest::LogCapture log;
        construct();
        EXPECT_EQ(device_names(), c.devices);
        for (const auto &w : c.warned)
            EXPECT_TRUE(log.contains(
                4, "[tarvik provider] Device " + w + " is set to collect, but not supported"))
                << log.dump();
        size_t warnings = 0;
        for (const auto &l : log.lines()) warnings += l.level == 4;
        EXPECT_EQ(warnings, c.warned.size());
        for (auto &e : p->devices) free(e.second.service_command);
        tarvik_provider_destroy(&p->provider);
    }
}

TEST_F(TarvikProvider, ServiceFlagAndIntervalConversions) {
    sim::add_device("a");
    set("tarvik_phyprobe_as_service", "0");
    set("tarvik_update_interval_sec", "15s");
    set("tarvik_max_errors", "4");
    {
        vyrtest::LogCapture log;
        construct();
        EXPECT_FALSE(p->run_as_service);
        EXPECT_EQ(p->update_interval_sec, 15u);
        EXPECT_EQ(dev("a").max_errors, 4);
        EXPECT_TRUE(log.contains(6, "[tarvik provider] phyprobe will on each iteration"));
        EXPECT_TRUE(log.contains(6, "[tarvik provider] Update interval is set to 15 sec"));
    }
    for (auto &e : p->devices) free(e.second.service_command);
    tarvik_provider_destroy(&p->provider);
    set("tarvik_phyprobe_as_service", "2");
    construct();
    EXPECT_TRUE(p->run_as_service);
}

TEST_F(TarvikProvider, NonNumericSettingsThrowToTheHost) {
    sim::add_device("a");
    set("tarvik_update_interval_sec", "abc");
    try {
        construct();
        FAIL() << "no exception";
    } catch (const std::invalid_argument &e) {
        EXPECT_STREQ(e.what(), "stoull");
    }
    vyr_dict_add(params, "tarvik_update_interval_sec", "5");
    set("tarvik_phyprobe_as_service", "yes");
    EXPECT_THROW(construct(), std::invalid_argument);
    set("tarvik_phyprobe_as_service", "99999999999");
    EXPECT_THROW(construct(), std::out_of_range);
}

TEST_F(TarvikProvider, UndiscoveredNameNeverReachesAShell) {
    sim::add_device("a");
    set("tarvik_devices", "a;touch /tmp/owned,$(touch /tmp/owned2)");
    set("tarvik_phyprobe_as_service", "0");
    vyrtest::LogCapture log;
    construct();
    EXPECT_EQ(device_names(), (std::vector<std::string>{}));
    EXPECT_TRUE(log.contains(
        4, "[tarvik provider] Device a;touch /tmp/owned is set to collect, but not supported"));
    EXPECT_FALSE(initialize());
    EXPECT_NE(access("/tmp/owned", F_OK), 0);
    EXPECT_NE(access("/tmp/owned2", F_OK), 0);
    EXPECT_TRUE(sim::phyprobe_argv_log().empty());
}

TEST_F(TarvikProvider, DiscoveryFailureIsLogged) {
    vyrtest::LogCapture log;
    construct();
    EXPECT_TRUE(p->devices.empty());
    EXPECT_TRUE(log.contains(3, "[tarvik provider] Failed to get allowed devices"));
    EXPECT_FALSE(initialize());
    EXPECT_TRUE(log.contains(
        3, "[tarvik provider] [tarvik_provider_initialize] No devices to collect. Provider will "
           "not run"));
}

// ---- initialization --------------------------------------------------------

TEST_F(TarvikProvider, HeaderRunUsesTheHeaderFileAndTimeLimit) {
    sim::add_device("D");
    sim::set_phyprobe_knob("HANG", "20", "D");
    vyrtest::LogCapture log;
    construct();
    EXPECT_TRUE(initialize());
    EXPECT_TRUE(dev("D").disabled);
    EXPECT_TRUE(log.contains(4,
                             "[tarvik provider] [tarvik_provider_initialize] Could not execute "
                             "command timeout 3 phyprobe -d /dev/zdt/D --tarvik_collect "
                             "/tmp/tarvik_collect_Dhdr.csv > /dev/null, system returned 31744"))
        << log.dump();
    EXPECT_EQ(sim::phyprobe_argv_log(),
              (std::vector<std::string>{
                  "phyprobe -d /dev/zdt/D --tarvik_collect /tmp/tarvik_collect_Dhdr.csv"}));
}

TEST_F(TarvikProvider, DevicesWithTheSameHeaderShareOneType) {
    sim::add_device("a");
    sim::add_device("b");
    sim::add_device("c");
    sim::set_phyprobe_knob("HEADER", "alt", "c");
    vyrtest::LogCapture log;
    construct();
    ASSERT_TRUE(initialize());
    EXPECT_EQ(p->type_infos.size(), 2u);
    EXPECT_STREQ(dev("a").header_id, dev("b").header_id);
    EXPECT_STRNE(dev("a").header_id, dev("c").header_id);
    EXPECT_EQ(p->type_infos.at(dev("a").header_id).type_index, 0);
    EXPECT_EQ(p->type_infos.at(dev("c").header_id).type_index, 1);
    EXPECT_TRUE(log.contains(6,
                             "[tarvik provider] [tarvik_provider_initialize] Device b has the same "
                             "tarvik header as another device"));
    vyr_schema_t *schema = ts->schemas[p->provider.schema_index];
    ASSERT_NE(schema, nullptr);
    EXPECT_STREQ(schema->name, "tarvik");
    EXPECT_EQ(schema->version, 1u);
    ASSERT_EQ(schema->num_types, 2);
    EXPECT_STREQ(schema->types[0]->name, "tarvik_event_0");
    EXPECT_STREQ(schema->types[1]->name, "tarvik_event_1");
    EXPECT_EQ(schema->types[0]->size, p->type_infos.at(dev("a").header_id).event_size);
    // device_name is the index field.
    EXPECT_EQ(schema->types[0]->fields[2]->index, 1);
    EXPECT_EQ(schema->types[0]->fields[0]->index, 0);
    for (const char *n : {"a", "b", "c"}) {
        const uint8_t *e = dev(n).event_cache;
        ASSERT_NE(e, nullptr);
        EXPECT_STREQ(reinterpret_cast<const char *>(e + 8), "tarvik_event");
        EXPECT_STREQ(reinterpret_cast<const char *>(e + 72), n);
    }
}

TEST_F(TarvikProvider, FailingHeaderRunDisablesOnlyThatDevice) {
    sim::add_device("good");
    sim::add_device("bad");
    sim::set_phyprobe_knob("FAIL_HEADER_RUN", "5", "bad");
    vyrtest::LogCapture log;
    construct();
    EXPECT_TRUE(initialize());
    EXPECT_TRUE(dev("bad").disabled);
    EXPECT_EQ(dev("bad").event_cache, nullptr);
    EXPECT_FALSE(dev("good").disabled);
    EXPECT_NE(dev("good").event_cache, nullptr);
    EXPECT_TRUE(log.contains(4,
                             "[tarvik provider] [tarvik_provider_initialize] Could not execute "
                             "command timeout 3 phyprobe -d /dev/zdt/bad --tarvik_collect "
                             "/tmp/tarvik_collect_badhdr.csv > /dev/null, system returned 1280"));
}

TEST_F(TarvikProvider, HeaderWithoutValueLineDisablesTheDevice) {
    sim::add_device("d");
    sim::set_phyprobe_knob("NO_VALUE", "1");
    vyrtest::LogCapture log;
    construct();
    EXPECT_TRUE(initialize());
    EXPECT_TRUE(dev("d").disabled);
    EXPECT_TRUE(log.contains(
        4, "[tarvik provider] [tarvik_provider_initialize] Could not parse tarvik header"));
    EXPECT_TRUE(log.contains(3, "Failed to read csv value line from file /tmp/tarvik_collect_dhdr.csv"));
}

TEST_F(TarvikProvider, EventOfTextFloatAndIntegerColumnsIs216Bytes) {
    sim::add_device("d");
    sim::set_phyprobe_knob("HEADER_LINE", "txt,flt,num");
    sim::set_phyprobe_knob("VALUE_LINE", "abc,1.5,{run}");
    vyrtest::LogCapture log;
    construct();
    ASSERT_TRUE(initialize());
    EXPECT_EQ(p->type_infos.at(dev("d").header_id).event_size, 216u);
    vyr_type_definition_t *t = ts->schemas[p->provider.schema_index]->types[0];
    ASSERT_EQ(t->num_fields, 6);
    EXPECT_EQ(t->size, 216u);
    EXPECT_STREQ(t->fields[3]->type_name, "char");
    EXPECT_EQ(t->fields[3]->array_length, 64u);
    EXPECT_STREQ(t->fields[4]->type_name, "double");
    EXPECT_STREQ(t->fields[5]->type_name, "uint64_t");
    EXPECT_STREQ(t->fields[5]->description, "num");
    EXPECT_EQ(t->fields[5]->offset, 208u);
    EXPECT_TRUE(log.contains(
        6, "[tarvik provider] [_create_tarvik_event_type] Found 3 tarvik fields"));
}

TEST_F(TarvikProvider, LongDeviceNameIsCutTo63Bytes) {
    std::string name(70, 'n');
    sim::add_device(name);
    construct();
    ASSERT_TRUE(initialize());
    const uint8_t *e = dev(name).event_cache;
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(e + 72)), std::string(63, 'n'));
    EXPECT_EQ(e[135], 0);
}

TEST_F(TarvikProvider, StaleFilesAreRemovedBeforeTheHeaderRun) {
    sim::add_device("d");
    vyrtest::write_file("/tmp/tarvik_collect_dhdr.csv", "stale,header\n1,2\n");
    vyrtest::write_file("/tmp/tarvik_collect_d.csv", "stale\n");
    sim::set_phyprobe_knob("FAIL_HEADER_RUN", "1");
    construct();
    EXPECT_TRUE(initialize());
    EXPECT_NE(access("/tmp/tarvik_collect_dhdr.csv", F_OK), 0);
    EXPECT_NE(access("/tmp/tarvik_collect_d.csv", F_OK), 0);
}

TEST_F(TarvikProvider, TypeCreationFailureReleasesEveryDevice) {
    sim::add_device("a");
    sim::add_device("b");
    // Cleaning makes two x_1 fields; a later field makes the schema compare them.
    sim::set_phyprobe_knob("HEADER_LINE", "x[1],x_1,y", "b");
    vyrtest::LogCapture log;
    construct();
    EXPECT_FALSE(initialize());
    EXPECT_TRUE(p->devices.empty());
    EXPECT_TRUE(log.contains(
        3, "[tarvik provider] [tarvik_provider_initialize] Could not create tarvik event type"))
        << log.dump();
}

// ---- collection ------------------------------------------------------------

TEST_F(TarvikProvider, OneShotPassRunsTheCommandAndConvertsTheLine) {
    sim::add_device("d");
    sim::set_phyprobe_knob("HEADER_LINE", "name,ratio,count");
    sim::set_phyprobe_knob("VALUE_LINE", "x,2.5,{run}");
    set("tarvik_phyprobe_as_service", "0");
    construct();
    ASSERT_TRUE(initialize());
    vyrtest::LogCapture log;
    tarvik_collect_pass(p);
    EXPECT_EQ(sim::phyprobe_argv_log().back(),
              "phyprobe -d /dev/zdt/d --tarvik_collect /tmp/tarvik_collect_d.csv --tarvik_rewrite");
    EXPECT_TRUE(dev("d").new_data);
    const uint8_t *e = dev("d").event_cache;
    uint64_t ts_us, count;
    double ratio;
    memcpy(&ts_us, e, 8);
    memcpy(&ratio, e + 200, 8);
    memcpy(&count, e + 208, 8);
    EXPECT_GT(ts_us, 1600000000ull * 1000000ull);
    EXPECT_STREQ(reinterpret_cast<const char *>(e + 8), "tarvik_event");
    EXPECT_STREQ(reinterpret_cast<const char *>(e + 72), "d");
    EXPECT_STREQ(reinterpret_cast<const char *>(e + 136), "x");
    EXPECT_EQ(ratio, 2.5);
    EXPECT_EQ(count, 2u);  // the header run was run 1
    EXPECT_TRUE(log.contains(7,
                             "[tarvik provider] [tarvik_thread_callback] Collecting tarvik data "
                             "for device d"));
    EXPECT_TRUE(log.contains(7, "[tarvik provider] Internal thread updated tarvik device d"));
}

TEST_F(TarvikProvider, ExtraTokenDisablesTheDeviceAndKeepsThePreviousEvent) {
    sim::add_device("d");
    sim::set_phyprobe_knob("EXTRA_VALUES", "1");
    sim::set_phyprobe_knob("EXTRA_AFTER", "2");
    set("tarvik_phyprobe_as_service", "0");
    construct();
    ASSERT_TRUE(initialize());
    tarvik_collect_pass(p);  // run 2: clean
    ASSERT_TRUE(dev("d").new_data);
    size_t size = p->type_infos.at(dev("d").header_id).event_size;
    std::vector<uint8_t> before(dev("d").event_cache, dev("d").event_cache + size);
    vyrtest::LogCapture log;
    tarvik_collect_pass(p);  // run 3: one value too many
    EXPECT_TRUE(dev("d").disabled);
    EXPECT_EQ(std::vector<uint8_t>(dev("d").event_cache, dev("d").event_cache + size), before);
    EXPECT_TRUE(log.contains(7,
                             "[tarvik provider] [tarvik_thread_callback] Failed to convert csv "
                             "line to event for device d"));
    EXPECT_TRUE(log.contains(
        6, "[tarvik provider] [tarvik_thread_callback] device d will not be collected"));
    size_t runs = sim::phyprobe_argv_log().size();
    tarvik_collect_pass(p);  // disabled: no command
    EXPECT_EQ(sim::phyprobe_argv_log().size(), runs);
}

TEST_F(TarvikProvider, MissingFileCountsParseErrorsUntilTheLimit) {
    sim::add_device("d");
    construct();  // service mode: the pass only reads the file
    ASSERT_TRUE(initialize());
    vyrtest::LogCapture log;
    for (int i = 0; i < 11; ++i) tarvik_collect_pass(p);
    EXPECT_EQ(dev("d").parse_errors, 11);
    EXPECT_FALSE(dev("d").disabled);
    EXPECT_EQ(log.count(4,
                        "[tarvik provider] [get_csv_line_by_offset] Could not open file "
                        "/tmp/tarvik_collect_d.csv.  Will retry later"),
              11u);
    EXPECT_TRUE(log.contains(7,
                             "[tarvik provider] [tarvik_thread_callback] Failed to get second "
                             "(data) line of file /tmp/tarvik_collect_d.csv"));
    tarvik_collect_pass(p);
    EXPECT_TRUE(dev("d").disabled);
    EXPECT_TRUE(log.contains(4,
                             "[tarvik provider] [tarvik_thread_callback] Device d exceeded max "
                             "parsing errors number (10).  Will not collect data"));
}

TEST_F(TarvikProvider, TenParseErrorsStillCollect) {
    sim::add_device("d");
    construct();
    ASSERT_TRUE(initialize());
    dev("d").parse_errors = 10;
    vyrtest::write_file("/tmp/tarvik_collect_d.csv", vyrtest::read_file("/tmp/tarvik_collect_dhdr.csv"));
    tarvik_collect_pass(p);
    EXPECT_FALSE(dev("d").disabled);
    EXPECT_EQ(dev("d").parse_errors, 0);
    EXPECT_TRUE(dev("d").new_data);
}

TEST_F(TarvikProvider, LargeFilesAreRemovedInOneShotMode) {
    sim::add_device("d");
    set("tarvik_phyprobe_as_service", "0");
    construct();
    ASSERT_TRUE(initialize());
    const char *path = "/tmp/tarvik_collect_d.csv";
    const std::string msg =
        "[tarvik provider] [remove_large_files] Size of file /tmp/tarvik_collect_d.csv is "
        "52428801 bytes > 52428800";
    {
        ASSERT_EQ(truncate(path, 0), -1);  // not there yet
        int fd = open(path, O_CREAT | O_WRONLY, 0644);
        ASSERT_EQ(ftruncate(fd, 52428800), 0);
        close(fd);
        vyrtest::LogCapture log;
        tarvik_collect_pass(p);
        EXPECT_FALSE(log.contains_fragment("Size of file"));
    }
    {
        int fd = open(path, O_CREAT | O_WRONLY, 0644);
        ASSERT_EQ(ftruncate(fd, 52428801), 0);
        close(fd);
        vyrtest::LogCapture log;
        tarvik_collect_pass(p);
        EXPECT_TRUE(log.contains(7, msg)) << log.dump();
        EXPECT_TRUE(dev("d").new_data);
    }
}

TEST_F(TarvikProvider, FailingOneShotCommandDisablesTheDevice) {
    sim::add_device("d");
    set("tarvik_phyprobe_as_service", "0");
    construct();
    ASSERT_TRUE(initialize());
    sim::set_phyprobe_knob("EXIT", "2");
    vyrtest::LogCapture log;
    tarvik_collect_pass(p);
    EXPECT_TRUE(dev("d").disabled);
    EXPECT_TRUE(log.contains(4,
                             "[tarvik provider] [tarvik_thread_callback] Could not execute command "
                             "phyprobe -d /dev/zdt/d --tarvik_collect /tmp/tarvik_collect_d.csv "
                             "--tarvik_rewrite > /dev/null, system returned 512"));
}

// ---- threads, service mode and stop -----------------------------------------

TEST_F(TarvikProvider, OneShotThreadDeliversEventsOfEveryDevice) {
    sim::add_device("a");
    sim::add_device("b");
    sim::add_device("c");
    sim::set_phyprobe_knob("HEADER", "alt", "c");
    set("tarvik_phyprobe_as_service", "0");
    set("tarvik_update_interval_sec", "1");
    construct();
    ASSERT_TRUE(initialize());
    vyr_type_system_update_md5_hashes(ts);
    start();
    ASSERT_TRUE(eventually([&] { return dev("c").new_data.load(); }));
    uint8_t buf[1 << 16];
    vyr_data_serializer_t ser{ts->schemas, buf, sizeof buf, 0};
    ASSERT_EQ(p->provider.write_events(&p->provider, 0, &ser), 0);
    std::vector<std::string> names;
    for (uint64_t pos = 0; pos < ser.used;) {
        vyr_event_block_header_t h;
        memcpy(&h, buf + pos, sizeof h);
        ASSERT_TRUE(vyr_magic_value_match_type(h.magic, 'E'));
        ASSERT_EQ(h.count, 1);
        names.emplace_back(reinterpret_cast<const char *>(buf + pos + 16 + 72));
        pos += 16 + ts->schemas[h.schema_index]->types[h.type_index]->size;
        EXPECT_EQ(h.type_index, names.back() == "c" ? 1 : 0);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(stop(), 1);
}

TEST_F(TarvikProvider, ServiceModeRestartsAndStopKillsEveryMarker) {
    sim::add_device("a");
    sim::add_device("b");
    sim::set_phyprobe_knob("SERVICE_SLEEP", "0.2");
    set("tarvik_update_interval_sec", "5");
    construct();
    ASSERT_TRUE(initialize());
    vyrtest::LogCapture log;
    start();
    const std::string service_a =
        "phyprobe -d /dev/zdt/a --tarvik_collect /tmp/tarvik_collect_a.csv --tarvik_rewrite "
        "--service_start 5 --service_iterations 10";
    // A finished service run is started again.
    ASSERT_TRUE(eventually([&] { return count_lines(sim::phyprobe_argv_log(), service_a) >= 2; }));
    ASSERT_TRUE(eventually([&] { return sim::service_markers().size() == 2; }));
    EXPECT_EQ(stop(), 1);
    EXPECT_EQ(p->collect_thread, 0u);
    EXPECT_EQ(dev("a").service_thread, 0u);
    EXPECT_EQ(dev("b").service_thread, 0u);
    // Each marker is signalled once per registered device.
    for (const auto &m : sim::service_markers()) {
        std::string pid = m.substr(strlen("phyprobe_service_"));
        EXPECT_EQ(log.count(6, "[tarvik provider] [tarvik_provider_stop] stopping service by PID " + pid), 2u)
            << log.dump();
        EXPECT_NE(kill(std::stoi(pid), 0), 0) << "service " << pid << " still running";
    }
    EXPECT_TRUE(log.contains(6, "[tarvik provider] Starting service for device a"));
}

TEST_F(TarvikProvider, FailingServiceDisablesItsDevice) {
    sim::add_device("a");
    sim::add_device("b");
    sim::set_phyprobe_knob("SERVICE_EXIT", "3", "b");
    sim::set_phyprobe_knob("SERVICE_SLEEP", "0.2");
    set("tarvik_update_interval_sec", "1");
    construct();
    ASSERT_TRUE(initialize());
    vyrtest::LogCapture log;
    start();
    ASSERT_TRUE(eventually([&] { return dev("b").disabled.load(); }));
    EXPECT_TRUE(dev("b").service_stop);
    ASSERT_TRUE(eventually([&] { return dev("a").new_data.load(); }));
    EXPECT_FALSE(dev("a").disabled);
    EXPECT_EQ(stop(), 1);
    EXPECT_TRUE(log.contains(4,
                             "[tarvik provider] [tarvik_service_thread_callback] Could not execute "
                             "command phyprobe -d /dev/zdt/b --tarvik_collect "
                             "/tmp/tarvik_collect_b.csv --tarvik_rewrite --service_start 1 "
                             "--service_iterations 10 > /dev/null, system returned 768"));
}

TEST_F(TarvikProvider, StopWithoutDevicesOnlyJoins) {
    construct();
    ASSERT_TRUE(p->devices.empty());
    sim::make_zdt_dir();
    sim::add_zdt_file("phyprobe_service_999999");
    vyrtest::LogCapture log;
    start();
    EXPECT_EQ(stop(), 1);
    EXPECT_FALSE(log.contains_fragment("stopping service"));
}

TEST_F(TarvikProvider, OneShotStopStillScansForServices) {
    sim::add_device("a");
    set("tarvik_phyprobe_as_service", "0");
    construct();
    ASSERT_TRUE(initialize());
    start();
    sim::add_zdt_file("phyprobe_service_999998");
    vyrtest::LogCapture log;
    EXPECT_EQ(stop(), 1);
    EXPECT_TRUE(log.contains(
        6, "[tarvik provider] [tarvik_provider_stop] stopping service by PID 999998"));
}

TEST_F(TarvikProvider, MarkerWithoutANumberAtTheFixedPositionThrows) {
    sim::add_device("a");
    set("tarvik_phyprobe_as_service", "0");
    construct();
    ASSERT_TRUE(initialize());
    start();
    // Kept by the substring test, but the id is read at the prefix's length:
    // "ice_77" is no number.
    sim::add_zdt_file("phyprobe_service_999997");
    sim::add_zdt_file("x_phyprobe_service_77");
    vyrtest::LogCapture log;
    started = false;
    EXPECT_THROW(tarvik_provider_stop(&p->provider), std::invalid_argument);
    EXPECT_EQ(p->collect_thread, 0u);  // joined before the scan
    EXPECT_TRUE(log.contains(
        6, "[tarvik provider] [tarvik_provider_stop] stopping service by PID 999997"));
}

std::atomic<int> g_sigint{0};
void on_sigint(int) { g_sigint = 1; }

TEST_F(TarvikProvider, HostSignalsAndDescriptorsStayTheHostsOwn) {
    sim::add_device("a");
    sim::set_phyprobe_knob("SERVICE_SLEEP", "0.5");
    std::string fd_log = sim::enable_phyprobe_fd_log();
    int host_fd = open("/tmp/host_private", O_CREAT | O_WRONLY, 0600);  // no O_CLOEXEC
    ASSERT_GE(host_fd, 0);
    construct();
    ASSERT_TRUE(initialize());
    struct sigaction sa, old;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_sigint;
    sigaction(SIGINT, &sa, &old);
    start();
    ASSERT_TRUE(eventually([&] { return !sim::service_markers().empty(); }));
    g_sigint = 0;
    kill(getpid(), SIGINT);
    EXPECT_TRUE(eventually([&] { return g_sigint.load() == 1; }, 5));
    EXPECT_EQ(stop(), 1);
    sigaction(SIGINT, &old, nullptr);
    close(host_fd);
    std::string fds = vyrtest::read_file(fd_log);
    EXPECT_EQ(fds.find("/tmp/host_private"), std::string::npos) << fds;
}

}  // namespace
