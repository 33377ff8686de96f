// Allocation failures through the provider's entry point and initialization,
// against the simulated zdt and phyprobe: the n-th allocation of the call is
// made to fail, for every n the call reaches (see alloc_fault.h). Every
// failure must end in a reported, consistent state, and nothing may stay
// allocated but what the provider keeps on purpose.
#include <algorithm>
#include <cstdio>
#include <map>
#include <set>

#include "alloc_fault.h"
#include "provider_fixture.h"

namespace alloc = vyrtest::alloc;
namespace sim = vyrtest::sim;
using vyrtest::LogCapture;
using Names = std::vector<std::string>;

namespace {

// Errors and warnings only.
std::vector<vyrtest::LogLine> problems(const LogCapture &log) {
    std::vector<vyrtest::LogLine> out;
    for (const auto &l : log.lines())
        if (l.level <= VYR_LOG_LEVEL_WARNING) out.push_back(l);
    return out;
}

class ProviderAllocFailures : public vyrtest::ProviderTest {
  protected:
    void SetUp() override {
        if (!alloc::available())
            GTEST_SKIP() << "allocation failures need the allocator interposed; this sanitizer "
                            "build was linked without the --wrap options of tests/CMakeLists.txt";
        ProviderTest::SetUp();
        vyr_destroy_type_system(ts);  // each round makes its own
        ts = nullptr;
        set("tarvik_phyprobe_as_service", "0");
        // a and b share a header (one event type), c has its own.
        sim::add_device("a", "arcline", "eth0");
        sim::add_device("b", "tidegate", "eth1");
        sim::add_device("c", "arcline", "eth2");
        sim::set_phyprobe_knob("HEADER_LINE", "seq,note,ratio");
        sim::set_phyprobe_knob("VALUE_LINE", "{run},x{run},2.5");
        sim::set_phyprobe_knob("HEADER_LINE", "Raw_Errors,FW_Version", "c");
        sim::set_phyprobe_knob("VALUE_LINE", "{run},1.2.3", "c");
        setenv("VYR_HOST_NAME", "node1", 1);
    }
    void TearDown() override {
        if (!alloc::available()) return;
        ProviderTest::TearDown();
        unsetenv("VYR_HOST_NAME");
    }
};

// Runs body(n) with tracking on for n = 1, 2, ... until a run in which the
// armed allocation was not reached; returns that run's allocation count.
long walk(const std::function<void(long)> &body) {
    for (long n = 1; n < 100000; ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n) + " fails");
        alloc::track_begin();
        body(n);
        alloc::track_end();
        if (::testing::Test::HasFatalFailure()) return -1;
        if (!alloc::fired()) return alloc::calls();
    }
    ADD_FAILURE() << "the walk did not end";
    return -1;
}

TEST_F(ProviderAllocFailures, ConstructRegistersWhatItCanAndSaysWhy) {
    const std::set<std::string> known = {
        "[tarvik provider] Failed to get allowed devices",
        "[device_utils] Failed to execute zdt status command",
        "[device_utils]  No valid devices found",
        "[device_utils] Could not read sysfs type for device eth0",
        "[device_utils] Could not read sysfs type for device eth1",
        "[device_utils] Could not read sysfs type for device eth2",
    };
    const std::string add_device = "[tarvik provider] [tarvik_provider_add_device]";
    long calls = walk([&](long n) {
        LogCapture log;
        alloc::arm(n);
        construct_event_provider(params);
        alloc::disarm();
        Names got = device_names();
        if (!alloc::fired()) {
            EXPECT_EQ(got, (Names{"a", "b", "c"}));
            EXPECT_TRUE(problems(log).empty()) << log.dump();
        }
        // A device is missing only with a reason: discovery failed, or its
        // registration said which copy it could not make.
        std::string failed;
        for (const auto &l : problems(log)) {
            if (l.text.rfind(add_device, 0) == 0) {
                EXPECT_EQ(l.level, 3);
                size_t open = l.text.find('[', add_device.size());
                failed = l.text.substr(open + 1, l.text.find(']', open) - open - 1);
            } else {
                EXPECT_TRUE(known.count(l.text)) << l.text;
            }
        }
        const bool discovery_failed =
            log.contains(3, "[tarvik provider] Failed to get allowed devices");
        for (const char *d : {"a", "b", "c"}) {
            if (std::find(got.begin(), got.end(), d) != got.end()) continue;
            EXPECT_TRUE(discovery_failed || failed == d) << d << " vanished\n" << log.dump();
        }
        release();
        // A failed registration keeps the copies it made before the failed
        // one: texts of that device only, and nothing else stays behind.
        const std::set<std::string> kept_texts = {
            failed, "/dev/zdt/" + failed, "/tmp/tarvik_collect_" + failed + ".csv",
            "phyprobe -d /dev/zdt/" + failed + " --tarvik_collect /tmp/tarvik_collect_" + failed +
                ".csv --tarvik_rewrite > /dev/null"};
        for (void *b : alloc::live_blocks()) {
            std::string text = static_cast<const char *>(b);
            EXPECT_TRUE(!failed.empty() && kept_texts.count(text)) << "leaked: " << text;
            free(b);
        }
        EXPECT_EQ(alloc::live(), 0u);
    });
    EXPECT_GE(calls, 15);  // 5 copies a device at least
    printf("%ld allocations walked\n", calls);
}

TEST_F(ProviderAllocFailures, InitializeFailsCleanlyOrDisablesTheDevice) {
    const std::string fn = "[tarvik provider] [tarvik_provider_initialize] ";
    const std::string type_fn = "[tarvik provider] [_create_tarvik_event_type] ";
    std::set<std::string> type_causes = {
        type_fn + "Failed to allocate memory for tarvik fields",
        type_fn + "Failed to allocate memory for tarvik field name",
        type_fn + "Failed to allocate memory for tarvik field type",
        "[vyr_schema_add_type] cannot allocate type definition",
        "[vyr_schema_add_type] cannot allocate fields for type definition",
    };
    for (int i = 0; i < 6; ++i)
        type_causes.insert("[vyr_schema_add_type] cannot get type definition from fields_info[" +
                           std::to_string(i) + "]");
    // One clean round first: process-wide state made on first use (OpenSSL's
    // digest tables, the C library's) is not a leak of any round.
    construct();
    ASSERT_TRUE(initialize());
    tarvik_collect_pass(p);
    vyr_type_system_update_md5_hashes(ts);
    release();

    std::map<std::string, int> outcomes;  // which failure paths the walk went through
    long calls = walk([&](long n) {
        construct();
        ASSERT_EQ(p->devices.size(), 3u);
        std::vector<char *> service_commands;
        for (auto &e : p->devices) service_commands.push_back(e.second.service_command);
        LogCapture log;
        alloc::arm(n);
        bool ok = initialize();
        alloc::disarm();
        auto lines = problems(log);
        std::set<std::string> explained;
        if (!ok) {
            ASSERT_TRUE(alloc::fired());
            if (ts->num_schemas == 0) {
                outcomes["schema"]++;
                // The schema could not be registered: false without a message.
                EXPECT_TRUE(lines.empty()) << log.dump();
                EXPECT_EQ(p->devices.size(), 3u);
            } else if (log.contains(3, fn + "Could not create tarvik event type")) {
                outcomes["type"]++;
                EXPECT_TRUE(p->devices.empty());
                ASSERT_EQ(lines.size(), 2u) << log.dump();
                EXPECT_TRUE(type_causes.count(lines[0].text)) << lines[0].text;
            } else {
                outcomes["cache"]++;
                EXPECT_TRUE(p->devices.empty());
                EXPECT_EQ(lines.size(), 2u) << log.dump();
                EXPECT_TRUE(log.contains(3,
                                         "[tarvik provider] [_create_tarvik_event_cache] Failed "
                                         "to allocate memory for device event cache"));
                EXPECT_TRUE(log.contains(3, fn + "Could not create tarvik event cache"));
            }
        } else {
            // Each device is either ready to collect or disabled for a reported reason.
            for (auto &e : p->devices) {
                const std::string &d = e.first;
                tarvik_provider_dev_info_t &dev = e.second;
                if (!dev.disabled) {
                    EXPECT_NE(dev.event_cache, nullptr) << d;
                    ASSERT_NE(dev.header_id, nullptr) << d;
                    EXPECT_TRUE(p->type_infos.count(dev.header_id)) << d;
                    continue;
                }
                EXPECT_TRUE(alloc::fired()) << d;
                const std::string run = fn + "Could not execute command timeout 3 phyprobe -d " +
                                        "/dev/zdt/" + d + " --tarvik_collect /tmp/tarvik_collect_" +
                                        d + "hdr.csv > /dev/null, system returned -1";
                const std::string parse = fn + "Could not parse tarvik header";
                const std::string open =
                    "[tarvik_format] Could not open file /tmp/tarvik_collect_" + d + "hdr.csv";
                if (log.contains(4, run)) {
                    explained.insert(run);
                    outcomes["run"]++;
                } else if (log.contains(4, parse)) {
                    outcomes["parse"]++;
                    explained.insert({parse, open});
                    EXPECT_TRUE(log.contains(4, open)) << log.dump();  // what made it fail
                } else {
                    // The copy of the header identity failed: the only silent disable.
                    outcomes["header_id"]++;
                    ASSERT_NE(dev.parser, nullptr) << d;
                    EXPECT_FALSE(dev.parser->headerId.empty()) << d;
                    EXPECT_EQ(dev.header_id, nullptr) << d;
                }
            }
            for (const auto &l : lines) EXPECT_TRUE(explained.count(l.text)) << l.text;
            // What is left runs: one pass and one delivery.
            tarvik_collect_pass(p);
            vyr_type_system_update_md5_hashes(ts);
            uint8_t buf[4096];
            vyr_data_serializer_t ser{ts->schemas, buf, sizeof buf, 0};
            EXPECT_EQ(p->provider.write_events(&p->provider, 0, &ser), 0);
            size_t ready = 0;
            for (auto &e : p->devices) ready += !e.second.disabled;
            EXPECT_EQ(ser.used == 0, ready == 0);
        }
        // A failed initialization destroys the devices, which keeps their
        // service commands on purpose.
        if (p->devices.empty())
            for (char *c : service_commands) free(c);
        release();
        EXPECT_EQ(alloc::live(), 0u) << "blocks leaked";
    });
    EXPECT_GE(calls, 40);
    for (const char *kind : {"schema", "type", "cache", "header_id"})
        EXPECT_GT(outcomes[kind], 0) << kind;
#ifndef VYR_ALLOC_FAULT_WRAP
    // The C library's own allocations: the spawn's close action and fopen.
    EXPECT_GT(outcomes["run"], 0);
    EXPECT_GT(outcomes["parse"], 0);
#endif
    std::string tally;
    for (const auto &o : outcomes) tally += " " + o.first + "=" + std::to_string(o.second);
    printf("%ld allocations walked:%s\n", calls, tally.c_str());
}

}  // namespace
