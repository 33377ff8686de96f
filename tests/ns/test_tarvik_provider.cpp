// The plug-in end to end through the system shell, against the simulated zdt
// and phyprobe: configuration, initialization, collection passes, services
// and stop. Faults of the tool and of its collection files are injected
// through the simulator: the plug-in keeps running, the healthy devices keep
// producing fresh events that reach the host, and the fault is reported with
// its exact message.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "provider_fixture.h"
#include "test_paths.h"

namespace sim = vyrtest::sim;
using vyrtest::eventually;
using vyrtest::one_shot_argv;
using vyrtest::text_at;
using Names = std::vector<std::string>;

namespace {

class TarvikProvider : public vyrtest::ProviderTest {};
const std::string kTp = "[tarvik provider] ";

const char kBadFile[] = "/tmp/tarvik_collect_bad.csv";
const std::string kHeaderLine = "seq,note,seq2\n";
const std::string kInit = kTp + "[tarvik_provider_initialize] ";
const std::string kThread = kTp + "[tarvik_thread_callback] ";
const std::string kService = kTp + "[tarvik_service_thread_callback] ";

std::string header_run_failed(const std::string &d, const std::string &status) {
    return kInit + "Could not execute command timeout 3 phyprobe -d /dev/zdt/" + d +
           " --tarvik_collect /tmp/tarvik_collect_" + d + "hdr.csv > /dev/null, system returned " +
           status;
}
size_t runs(const std::string &argv) {
    const Names log = sim::phyprobe_argv_log();
    return std::count(log.begin(), log.end(), argv);
}
// The tool, or the sleep it hangs in, still alive anywhere in the namespace.
bool tool_running() {
    return system("pgrep -f '[/]phyprobe' > /dev/null") == 0 ||
           system("pgrep -x sleep > /dev/null") == 0;
}

// Two devices of one event type, unless a fault changes a header.
class ProviderFaults : public vyrtest::ProviderTest {
  protected:
    void SetUp() override {
        fresh_log();
        ProviderTest::SetUp();
        sim::add_device("bad");
        sim::add_device("good");
        sim::set_phyprobe_knob("HEADER_LINE", "seq,note,seq2");
        sim::set_phyprobe_knob("VALUE_LINE", "{run},{dev}_{run}_x,{run}");
    }
};

// Every fault on a device of its own, set before initialization (the header
// run meets it) or after the first pass. The header is read once: a value
// line that no longer matches it disables the device, which keeps its last
// event; a disabled device's tool is not run again.
TEST_F(ProviderFaults, OneShotFaultsStayWithTheirDevice) {
    const struct {
        const char *dev;
        bool at_init;
        const char *knob, *value;
        std::string warning;
    } cases[] = {
        {"exit5", true, "FAIL_HEADER_RUN", "5", header_run_failed("exit5", "1280")},
        {"novalue", true, "NO_VALUE", "1", kInit + "Could not parse tarvik header"},
        {"crash", false, "CRASH", "half",
         kThread + "Could not execute command " + one_shot_argv("crash") +
             " > /dev/null, system returned 35072"},
        {"cut", false, "VALUE_LINE", "{run},b", ""},  // asserted below
    };
    one_shot();
    for (const auto &c : cases) {
        sim::add_device(c.dev);
        if (c.at_init) sim::set_phyprobe_knob(c.knob, c.value, c.dev);
    }
    auto &log = fresh_log();
    bring_up();
    pass({"good", "crash", "cut"});  // run 2
    for (const auto &c : cases)
        if (!c.at_init) sim::set_phyprobe_knob(c.knob, c.value, c.dev), dev(c.dev).new_data = false;
    pass();  // run 3
    pass();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.dev);
        EXPECT_TRUE(dev(c.dev).disabled && !dev(c.dev).new_data);
        EXPECT_EQ(dev(c.dev).event_cache == nullptr, c.at_init);
        EXPECT_EQ(runs(one_shot_argv(c.dev)), c.at_init ? 0u : 2u);
        EXPECT_TRUE(c.warning.empty() || log.contains(4, c.warning)) << c.warning;
    }
    EXPECT_TRUE(log.contains(7, kThread + "Failed to convert csv line to event for device cut"));
    EXPECT_TRUE(log.contains(6, kThread + "device cut will not be collected"));
    EXPECT_EQ(runs(one_shot_argv("good")), 3u);
}

// A device whose header run failed has no event type; a service run that
// ends well clears its disabled flag, and the collector must still leave it alone.
TEST_F(ProviderFaults, HeaderRunFailureInServiceModeStaysOutOfCollection) {
    sim::set_phyprobe_knob("FAIL_HEADER_RUN", "5", "bad");
    sim::set_phyprobe_knob("SERVICE_SLEEP", "0.05");
    set("tarvik_update_interval_sec", "1");
    bring_up();
    auto &log = fresh_log();
    start();
    ASSERT_TRUE(eventually(
        [&] { return log.contains(7, kService + "Service process for device bad finished"); }));
    ASSERT_TRUE(eventually([&] { return !dev("bad").disabled; }));
    const uint64_t seen = drain()["good"];  // one more pass with the flag clear
    ASSERT_TRUE(eventually([&] { return drain()["good"] > seen; }));
    EXPECT_EQ(drain().count("bad"), 0u);
}

// A header tool that ignores timeout's TERM is ended by the plug-in; a
// one-shot run that hangs is ended when the host destroys the running
// provider without stopping it. Nothing of either is left.
TEST_F(ProviderFaults, HangingToolsAreEnded) {
    one_shot();
    set("tarvik_update_interval_sec", "1");
    sim::set_phyprobe_knob("IGNORE_TERM", "1");
    sim::set_phyprobe_knob("HANG", "60", "bad");
    auto &log = fresh_log();
    bring_up();
    EXPECT_TRUE(log.contains(4, header_run_failed("bad", "9"))) << log.dump();
    EXPECT_FALSE(tool_running());
    sim::set_phyprobe_knob("HANG", "60", "good");
    start();
    ASSERT_TRUE(eventually([&] { return tool_running(); }));
    started = false;
    tarvik_provider_destroy(&p->provider);
    EXPECT_EQ(p->collect_thread, 0u);
    EXPECT_FALSE(tool_running());
}

// Service mode, so each pass reads whatever the file holds (empty: none). A
// file that cannot be read counts a parse error, a good line clears the
// count, and the device is disabled once the count has exceeded 10.
TEST_F(ProviderFaults, CollectionFileBrokenBetweenPasses) {
    const std::string no_line = kThread + "Failed to get second (data) line of file " + kBadFile;
    const struct {
        std::string content;
        int passes, level;
        std::string message;
        int parse_errors;
    } cases[] = {
        {kHeaderLine + "7,bad_7_x,7\n", 1, 7, kTp + "Internal thread updated tarvik device bad", 0},
        {kHeaderLine, 1, 7, kThread + "empty last line of file " + kBadFile, 1},
        {"", 1, 7, no_line, 2},
        {kHeaderLine + "8,bad_8_x,8\n", 1, 7, kTp + "Internal thread updated tarvik device bad", 0},
        {"", 11, 7, no_line, 11},
        {"", 1, 4,
         kThread + "Device bad exceeded max parsing errors number (10).  Will not collect data",
         11},
    };
    bring_up();
    for (const auto &c : cases) {
        std::filesystem::remove(kBadFile);
        if (!c.content.empty()) vyrtest::write_file(kBadFile, c.content);
        auto &log = fresh_log();
        for (int i = 0; i < c.passes; ++i) pass();
        EXPECT_EQ(log.count(c.level, c.message), size_t(c.passes)) << c.message << log.dump();
        EXPECT_EQ(dev("bad").parse_errors, c.parse_errors);
        EXPECT_EQ(dev("bad").disabled, c.level == 4);
    }
    uint64_t seq;
    memcpy(&seq, dev("bad").event_cache + 136, 8);
    EXPECT_EQ(seq, 8u);
}

// Links planted at the fixed paths, to a file only root may read or to a
// name root would create: the removal takes the link, never its target.
// Before its run, a one-shot pass also removes a file above 50 MiB (the tool
// then writes a new one); the tool pads its file to the size asked for.
TEST_F(ProviderFaults, OneShotPassRemovesLinksAndOversizedFiles) {
    const std::string secret = "/tmp/root_only", created = "/tmp/made_through_link";
    vyrtest::write_file(secret, "SECRET\n");
    ASSERT_EQ(symlink(created.c_str(), "/tmp/tarvik_collect_badhdr.csv"), 0);
    one_shot();
    bring_up();
    EXPECT_NE(access(created.c_str(), F_OK), 0);
    std::filesystem::remove(kBadFile);
    ASSERT_EQ(symlink(secret.c_str(), kBadFile), 0);
    pass({"good", "bad"});
    EXPECT_EQ(vyrtest::read_file(secret), "SECRET\n");
    for (long size : {52428800L, 52428801L}) {
        sim::set_phyprobe_knob("OVERSIZE", std::to_string(size), "bad");
        pass({"bad", "good"});  // writes the large file
        auto &log = fresh_log();
        pass({"bad", "good"});
        EXPECT_EQ(log.contains(7, kTp + "[remove_large_files] Size of file " + kBadFile + " is " +
                                      std::to_string(size) + " bytes > 52428800"),
                  size > 52428800)
            << log.dump();
    }
}

// A service that fails at once disables its device for good; the other
// device's service is restarted after each good run. Stop signals the id in
// every marker's name, once per device: a marker left behind by an earlier
// service harms nobody but its own process. The test is a process of its own
// PID namespace, so the ids can only name processes of the namespace.
TEST_F(ProviderFaults, ServicesAndTheirMarkers) {
    sim::set_phyprobe_knob("SERVICE_EXIT", "3", "bad");
    sim::set_phyprobe_knob("SERVICE_SLEEP", "0.2");
    set("tarvik_update_interval_sec", "1");
    const pid_t stale = fork();
    if (stale == 0) execlp("sleep", "sleep", "1000", nullptr), _exit(127);
    const std::string stale_marker = "phyprobe_service_" + std::to_string(stale);
    bring_up();
    sim::add_zdt_file(stale_marker);
    auto &log = fresh_log();
    start();
    auto service = [](const std::string &d) {
        return one_shot_argv(d) + " --service_start 1 --service_iterations 10";
    };
    ASSERT_TRUE(eventually([&] { return runs(service("good")) >= 2; }));
    ASSERT_TRUE(eventually([&] { return sim::service_markers().size() == 2; }));
    const uint64_t first = drain()["good"];
    ASSERT_TRUE(eventually([&] { return drain()["good"] > first; }));
    EXPECT_TRUE(dev("bad").disabled && dev("bad").service_stop && !dev("good").disabled);
    EXPECT_TRUE(log.contains(6, kTp + "Starting service for device good"));
    EXPECT_EQ(stop(), 1);
    EXPECT_EQ(p->collect_thread + dev("bad").service_thread + dev("good").service_thread, 0u);
    EXPECT_EQ(runs(service("bad")), 1u);  // not restarted
    EXPECT_TRUE(log.contains(4, kService + "Could not execute command " + service("bad") +
                                    " > /dev/null, system returned 768"));
    for (const auto &m : sim::service_markers()) {
        const std::string pid = m.substr(strlen("phyprobe_service_"));
        EXPECT_EQ(log.count(6, kTp + "[tarvik_provider_stop] stopping service by PID " + pid), 2u)
            << log.dump();
        EXPECT_TRUE(m == stale_marker || kill(std::stoi(pid), 0) != 0) << pid << " still runs";
    }
    int status = 0;
    ASSERT_TRUE(eventually([&] { return waitpid(stale, &status, WNOHANG) == stale; }, 10));
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

// The descriptor; no setting: every device. Each setting alone: the settings in effect, or the
// conversion's exception, which reaches the host uncaught. The list of devices is split at every
// comma.
TEST_F(TarvikProvider, SettingsAndTheirConversions) {
    sim::add_device("a");
    sim::add_device("b", "tidegate");
    auto &log = fresh_log();
    vyr_event_provider_t *d = construct();
    EXPECT_TRUE(static_cast<void *>(d) == p && d->version == 1u);
    EXPECT_STREQ(d->name, "tarvik");
    EXPECT_STREQ(d->description, "Ethernet tarvik data from phyprobe tarvik-collect");
    release();
    const struct {
        const char *key, *value, *outcome;
        const char *warned = nullptr;  // the name warned about
    } cases[] = {
        {"", "", "service 1, interval 30, max_errors 10, a b"},
        {"tarvik_phyprobe_as_service", "0", "service 0, interval 30, max_errors 10, a b"},
        {"tarvik_update_interval_sec", "15s", "service 1, interval 15, max_errors 10, a b"},
        {"tarvik_max_errors", "4", "service 1, interval 30, max_errors 4, a b"},
        {"tarvik_update_interval_sec", "abc", "invalid_argument stoull"},
        {"tarvik_devices", "a,,b", "service 1, interval 30, max_errors 10, a b", ""},
        {"tarvik_devices", ",a,a", "service 1, interval 30, max_errors 10, a", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.value);
        vyr_dict_delete(params);
        params = vyr_dict_create();
        if (*c.key) set(c.key, c.value);
        log.clear();
        std::string outcome;
        try {
            construct();
            outcome = "service " + std::to_string(p->run_as_service) + ", interval " +
                      std::to_string(p->update_interval_sec) + ", max_errors " +
                      std::to_string(p->devices.begin()->second.max_errors) + ",";
            for (const auto &e : p->devices) outcome += " " + e.first;
            EXPECT_TRUE(log.contains(6, kTp + "Update interval is set to " +
                                            std::to_string(p->update_interval_sec) + " sec"));
            EXPECT_TRUE(
                log.contains(6, kTp + (p->run_as_service ? "phyprobe will run as service"
                                                         : "phyprobe will on each iteration")));
        } catch (const std::invalid_argument &e) {
            outcome = std::string("invalid_argument ") + e.what();
        }
        EXPECT_EQ(outcome, c.outcome);
        EXPECT_EQ(log.count(4, kTp + "Device " + (c.warned ? c.warned : "") +
                                   " is set to collect, but not supported"),
                  c.warned ? 1u : 0u);
        release();
    }
}

// Nothing discovered: initialization refuses, and stop only joins.
TEST_F(TarvikProvider, NoDeviceToCollect) {
    auto &log = fresh_log();
    construct();
    EXPECT_TRUE(log.contains(3, kTp + "Failed to get allowed devices"));
    EXPECT_FALSE(initialize());
    EXPECT_TRUE(log.contains(3, kTp + "[tarvik_provider_initialize] No devices to "
                                      "collect. Provider will not run"));
    sim::add_zdt_file("phyprobe_service_999999");
    start();
    EXPECT_EQ(stop(), 1);
    EXPECT_FALSE(log.contains_fragment("stopping service"));
}

TEST_F(TarvikProvider, DevicesWithTheSameHeaderShareOneType) {
    for (const char *n : {"a", "b", "c"}) sim::add_device(n);
    sim::set_phyprobe_knob("HEADER", "alt", "c");
    auto &log = fresh_log();
    construct();
    ASSERT_TRUE(initialize());
    EXPECT_EQ(p->type_infos.size(), 2u);
    EXPECT_STREQ(dev("a").header_id, dev("b").header_id);
    EXPECT_EQ(p->type_infos.at(dev("c").header_id).type_index, 1);
    EXPECT_TRUE(log.contains(6, kTp + "[tarvik_provider_initialize] Device b has the same "
                                      "tarvik header as another device"));
    const vyr_type_definition_t *t = ts->schemas[p->provider.schema_index]->types[0];
    EXPECT_EQ(t->fields[2]->index, 1);  // device_name is the index field
    // Each device points at its type entry, and no parser keeps its texts.
    for (const char *n : {"a", "b", "c"}) {
        EXPECT_EQ(text_at(dev(n).event_cache + 72), n);
        EXPECT_EQ(dev(n).type_info, &p->type_infos.at(dev(n).header_id));
        EXPECT_TRUE(dev(n).parser->headerFields.empty() && dev(n).parser->valueFields.empty());
    }
}

// A text, a float and an integer column make a 216-byte event; one one-shot
// pass runs the tool and fills it, and the host receives it. A second life in the same process
// (construct after destroy, a new type system) goes exactly like the first.
TEST_F(TarvikProvider, OneShotPassFillsTheEventByFieldType) {
    const std::string name(70, 'n');  // cut to 63 bytes in the event
    sim::add_device(name);
    sim::set_phyprobe_knob("HEADER_LINE", "txt,flt,num");
    sim::set_phyprobe_knob("VALUE_LINE", "x,2.5,{run}");
    one_shot();
    for (uint64_t life : {1, 2}) {
        SCOPED_TRACE(life);
        auto &log = fresh_log();
        bring_up();
        EXPECT_TRUE(log.contains(6, kTp + "[_create_tarvik_event_type] Found 3 tarvik fields"));
        const vyr_type_definition_t *t = ts->schemas[p->provider.schema_index]->types[0];
        EXPECT_EQ(t->size, 216u);
        std::string layout;  // the columns' fields after the fixed 136 bytes
        for (int i = 3; i < t->num_fields; ++i) {
            const vyr_type_field_definition_t *f = t->fields[i];
            layout += std::string(f->field_name) + "/" + f->description + ":" + f->type_name + "[" +
                      std::to_string(f->array_length) + "]@" + std::to_string(f->offset) + " ";
        }
        EXPECT_EQ(layout, "txt/txt:char[64]@136 flt/flt:double[1]@200 num/num:uint64_t[1]@208 ");

        log.clear();
        pass({name});
        const uint8_t *e = dev(name).event_cache;
        EXPECT_GT(drain()[std::string(63, 'n')], 1600000000ull * 1000000ull);
        EXPECT_EQ(text_at(e + 72), std::string(63, 'n'));
        EXPECT_EQ(e[208], 2 * life);  // the header run was run 1 (3 in the second life)
        EXPECT_TRUE(log.contains(
            7, kTp + "[tarvik_thread_callback] Collecting tarvik data for device " + name));
        release();
    }
}

TEST_F(TarvikProvider, TypeCreationFailureReleasesEveryDevice) {
    sim::add_device("a");
    sim::add_device("b");
    // Cleaning makes two x_1 fields; a later field makes the schema compare them.
    sim::set_phyprobe_knob("HEADER_LINE", "x[1],x_1,y", "b");
    sim::set_phyprobe_knob("FAIL_HEADER_RUN", "1", "a");  // stale files are removed before it
    vyrtest::write_file("/tmp/tarvik_collect_ahdr.csv", "stale,header\n1,2\n");
    vyrtest::write_file("/tmp/tarvik_collect_a.csv", "stale\n");
    auto &log = fresh_log();
    construct();
    EXPECT_FALSE(initialize());
    EXPECT_TRUE(p->devices.empty());
    EXPECT_TRUE(access("/tmp/tarvik_collect_ahdr.csv", F_OK) &&
                access("/tmp/tarvik_collect_a.csv", F_OK));
    EXPECT_TRUE(
        log.contains(3, kTp + "[tarvik_provider_initialize] Could not create tarvik event type"))
        << log.dump();
}

// One-shot mode scans for markers too. A name holding the marker text
// elsewhere passes the substring test, but its id is read at the prefix's
// length: "ice_77" is no number, and the conversion throws to the host. The
// threads are gone by then: stop again and destroy are safe. A marker naming
// the host is logged, never signalled.
TEST_F(TarvikProvider, MarkersNeverEndTheHostAndAThrowLeavesNothingRunning) {
    sim::add_device("a");
    set("tarvik_phyprobe_as_service", "0");
    construct();
    ASSERT_TRUE(initialize());
    auto &log = fresh_log();
    start();
    const std::string host = std::to_string(getpid());
    sim::add_zdt_file("phyprobe_service_" + host);
    sim::add_zdt_file("phyprobe_service_999997");
    sim::add_zdt_file("x_phyprobe_service_77");
    started = false;
    EXPECT_THROW(p->provider.stop(&p->provider), std::invalid_argument);
    EXPECT_EQ(p->collect_thread, 0u);  // joined before the scan
    for (const std::string &id : {host, std::string("999997")})
        EXPECT_TRUE(log.contains(6, kTp + "[tarvik_provider_stop] stopping service by PID " + id));
    EXPECT_THROW(p->provider.stop(&p->provider), std::invalid_argument);
    tarvik_provider_destroy(&p->provider);
}

}  // namespace
