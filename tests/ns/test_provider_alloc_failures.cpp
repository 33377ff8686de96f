// Allocation failures through the provider's entry point and initialization,
// against the simulated zdt and phyprobe: the n-th allocation of the call is
// made to fail, for every n the call reaches (see alloc_fault.h). Every
// failure must end in a reported, consistent state, and nothing may stay
// allocated but what the provider keeps on purpose.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "alloc_fault.h"
#include "log_capture.h"
#include "sim.h"
#include "tarvik_collect.h"
#include "tarvik_provider.h"
#include "vyr_serializer.h"
#include "vyr_type_system.h"

namespace alloc = vyrtest::alloc;
namespace sim = vyrtest::sim;

namespace {

using Lines = std::vector<std::string>;

std::vector<vyrtest::LogLine> problems(const vyrtest::LogCapture &log) {
    std::vector<vyrtest::LogLine> out;
    for (const auto &l : log.lines())
        if (l.level <= VYR_LOG_LEVEL_WARNING) out.push_back(l);
    return out;
}

bool has(const std::vector<vyrtest::LogLine> &lines, int level, const std::string &text) {
    for (const auto &l : lines)
        if (l.level == level && l.text == text) return true;
    return false;
}

class ProviderAllocFailures : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!alloc::available())
            GTEST_SKIP() << "allocation failures need the allocator interposed; this sanitizer "
                            "build was linked without the --wrap options of tests/CMakeLists.txt";
        sim::reset();
        p = tarvik_provider_instance();
        params = vyr_dict_create();
        vyr_dict_add(params, "tarvik_phyprobe_as_service", "0");
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
        release();
        vyr_dict_delete(params);
        unsetenv("VYR_HOST_NAME");
        sim::reset();
    }
    // Everything the provider holds, except what destroy keeps on purpose.
    void release() {
        for (auto &e : p->devices) free(e.second.service_command);
        tarvik_provider_destroy(&p->provider);
        p->type_infos.clear();
        p->next_device = 0;
    }

    tarvik_provider_t *p = nullptr;
    vyr_dict_t *params = nullptr;
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
    const Lines all = {"a", "b", "c"};
    long calls = walk([&](long n) {
        vyrtest::LogCapture log;
        alloc::arm(n);
        construct_event_provider(params);
        alloc::disarm();
        auto lines = problems(log);
        Lines got;
        for (auto &e : p->devices) got.push_back(e.first);
        if (!alloc::fired()) {
            EXPECT_EQ(got, all);
            EXPECT_TRUE(lines.empty()) << log.dump();
        }
        // A device is missing only with a reason: discovery failed, or its
        // registration said which copy it could not make.
        bool discovery_failed = has(lines, 3, "[tarvik provider] Failed to get allowed devices");
        std::string failed_device;
        for (const auto &l : lines) {
            const std::string prefix = "[tarvik provider] [tarvik_provider_add_device]";
            if (l.text.rfind(prefix, 0) == 0) {
                EXPECT_EQ(l.level, 3);
                size_t open = l.text.find('[', prefix.size());
                failed_device = l.text.substr(open + 1, l.text.find(']', open) - open - 1);
                continue;
            }
            static const std::set<std::string> known = {
                "[tarvik provider] Failed to get allowed devices",
                "[device_utils] Failed to execute zdt status command",
                "[device_utils]  No valid devices found",
                "[device_utils] Could not read sysfs type for device eth0",
                "[device_utils] Could not read sysfs type for device eth1",
                "[device_utils] Could not read sysfs type for device eth2",
            };
            EXPECT_TRUE(known.count(l.text)) << l.text;
        }
        for (const auto &d : all) {
            if (std::find(got.begin(), got.end(), d) != got.end()) continue;
            EXPECT_TRUE(discovery_failed || failed_device == d) << d << " vanished\n" << log.dump();
        }
        release();
        // A failed registration keeps the copies it made before the failed
        // one: texts of that device only, and nothing else stays behind.
        std::vector<void *> kept = alloc::live_blocks();
        for (void *b : kept) {
            std::string text = static_cast<const char *>(b);
            const std::string &d = failed_device;
            EXPECT_FALSE(d.empty()) << "leaked: " << text;
            EXPECT_TRUE(text == d || text == "/dev/zdt/" + d ||
                        text == "/tmp/tarvik_collect_" + d + ".csv" ||
                        text == "phyprobe -d /dev/zdt/" + d +
                                    " --tarvik_collect /tmp/tarvik_collect_" + d +
                                    ".csv --tarvik_rewrite > /dev/null")
                << "leaked: " << text;
            free(b);
        }
        EXPECT_EQ(alloc::live(), 0u);
    });
    EXPECT_GE(calls, 15);  // 5 copies a device at least
    printf("%ld allocations walked\n", calls);
}

TEST_F(ProviderAllocFailures, InitializeFailsCleanlyOrDisablesTheDevice) {
    const std::string fn = "[tarvik provider] [tarvik_provider_initialize] ";
    const std::set<std::string> type_causes = {
        "[tarvik provider] [_create_tarvik_event_type] Failed to allocate memory for tarvik fields",
        "[tarvik provider] [_create_tarvik_event_type] Failed to allocate memory for tarvik field "
        "name",
        "[tarvik provider] [_create_tarvik_event_type] Failed to allocate memory for tarvik field "
        "type",
        "[vyr_schema_add_type] cannot allocate type definition",
        "[vyr_schema_add_type] cannot allocate fields for type definition",
        "[vyr_schema_add_type] cannot get type definition from fields_info[0]",
        "[vyr_schema_add_type] cannot get type definition from fields_info[1]",
        "[vyr_schema_add_type] cannot get type definition from fields_info[2]",
        "[vyr_schema_add_type] cannot get type definition from fields_info[3]",
        "[vyr_schema_add_type] cannot get type definition from fields_info[4]",
        "[vyr_schema_add_type] cannot get type definition from fields_info[5]",
    };
    // One clean round first: process-wide state made on first use (OpenSSL's
    // digest tables, the C library's) is not a leak of any round.
    {
        construct_event_provider(params);
        vyr_type_system_t *ts = vyr_create_type_system();
        ASSERT_TRUE(p->provider.initialize(&p->provider, ts));
        tarvik_collect_pass(p);
        vyr_type_system_update_md5_hashes(ts);
        release();
        vyr_destroy_type_system(ts);
    }
    std::map<std::string, int> outcomes;  // which failure paths the walk went through
    long calls = walk([&](long n) {
        construct_event_provider(params);
        ASSERT_EQ(p->devices.size(), 3u);
        vyr_type_system_t *ts = vyr_create_type_system();
        std::vector<char *> service_commands;
        for (auto &e : p->devices) service_commands.push_back(e.second.service_command);
        vyrtest::LogCapture log;
        alloc::arm(n);
        bool ok = p->provider.initialize(&p->provider, ts);
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
            } else if (has(lines, 3, fn + "Could not create tarvik event type")) {
                outcomes["type"]++;
                EXPECT_TRUE(p->devices.empty());
                ASSERT_EQ(lines.size(), 2u) << log.dump();
                EXPECT_TRUE(type_causes.count(lines[0].text)) << lines[0].text;
            } else {
                outcomes["cache"]++;
                EXPECT_TRUE(p->devices.empty());
                EXPECT_EQ(lines.size(), 2u) << log.dump();
                EXPECT_TRUE(has(lines, 3,
                                "[tarvik provider] [_create_tarvik_event_cache] Failed to allocate "
                                "memory for device event cache"));
                EXPECT_TRUE(has(lines, 3, fn + "Could not create tarvik event cache"));
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
                const std::string run = fn +
                                        "Could not execute command timeout 3 phyprobe -d "
                                        "/dev/zdt/" +
                                        d + " --tarvik_collect /tmp/tarvik_collect_" + d +
                                        "hdr.csv > /dev/null, system returned -1";
                const std::string open =
                    "[tarvik_format] Could not open file /tmp/tarvik_collect_" + d + "hdr.csv";
                if (has(lines, 4, run)) {
                    explained.insert(run);
                    outcomes["run"]++;
                } else if (has(lines, 4, fn + "Could not parse tarvik header")) {
                    explained.insert(fn + "Could not parse tarvik header");
                    outcomes["parse"]++;
                    explained.insert(open);  // what made the parse fail
                    EXPECT_TRUE(has(lines, 4, open)) << log.dump();
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
        vyr_destroy_type_system(ts);
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
