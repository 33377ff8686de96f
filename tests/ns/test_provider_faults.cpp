// Faults of the external tool and of its collection files, injected through
// the simulated phyprobe inside the test namespace: the plug-in keeps running,
// the healthy devices keep producing fresh events, a host draining
// write_events meanwhile never receives a torn event (provider_fixture.h), and
// the fault is reported with its exact message.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "provider_fixture.h"
#include "test_paths.h"

namespace sim = vyrtest::sim;
using vyrtest::eventually;
using vyrtest::one_shot_argv;
using Names = std::vector<std::string>;

namespace {

const char kBadFile[] = "/tmp/tarvik_collect_bad.csv";
const std::string kHeaderLine = "seq,note,seq2\n";
const std::string kTp = "[tarvik provider] ";
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
        std::string warning = "";  // "@" stands for the device
    } cases[] = {
        {"exit5", true, "FAIL_HEADER_RUN", "5", header_run_failed("@", "1280")},
        {"novalue", true, "NO_VALUE", "1", kInit + "Could not parse tarvik header"},
        {"crash", false, "CRASH", "half",
         kThread + "Could not execute command " + one_shot_argv("@") +
             " > /dev/null, system returned 35072"},
        {"extra", false, "EXTRA_VALUES", "1"},
        {"cut", false, "VALUE_LINE", "{run},b"},
    };
    one_shot();
    Names healthy{"good"};
    for (const auto &c : cases) {
        sim::add_device(c.dev);
        if (c.at_init) sim::set_phyprobe_knob(c.knob, c.value, c.dev);
        if (!c.at_init) healthy.push_back(c.dev);
    }
    auto &log = fresh_log();
    bring_up();
    pass(healthy);  // run 2 of every device
    std::map<std::string, std::vector<uint8_t>> before;
    for (const auto &c : cases) {
        if (c.at_init) continue;
        sim::set_phyprobe_knob(c.knob, c.value, c.dev);
        const uint8_t *e = dev(c.dev).event_cache;
        before[c.dev].assign(e, e + p->type_infos.at(dev(c.dev).header_id).event_size);
        dev(c.dev).new_data = false;
    }
    pass();  // run 3
    pass();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.dev);
        const std::string d = c.dev;
        EXPECT_TRUE(dev(d).disabled);
        EXPECT_EQ(runs(one_shot_argv(d)), c.at_init ? 0u : 2u);
        std::string warning = c.warning;
        for (size_t at; (at = warning.find('@')) != std::string::npos;) warning.replace(at, 1, d);
        // No warning: the value line no longer matches the header.
        EXPECT_TRUE(warning.empty()
                        ? log.contains(7, kThread +
                                              "Failed to convert csv line to "
                                              "event for device " +
                                              d) &&
                              log.contains(6, kThread + "device " + d + " will not be collected")
                        : log.contains(4, warning))
            << warning;
        EXPECT_EQ(dev(d).event_cache == nullptr, c.at_init);
        if (c.at_init) continue;
        const uint8_t *e = dev(d).event_cache;  // the last event stays as it was
        EXPECT_EQ(std::vector<uint8_t>(e, e + before[d].size()), before[d]);
        EXPECT_FALSE(dev(d).new_data);
    }
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
    const size_t seen = host->distinct_stamps("good");  // one more pass with the flag clear
    ASSERT_TRUE(eventually([&] { return host->distinct_stamps("good") > seen; }));
    EXPECT_EQ(host->distinct_stamps("bad"), 0u);
    EXPECT_EQ(stop(), 1);
}

// A header tool that ignores timeout's TERM is ended by the plug-in; a
// one-shot run that hangs is ended by stop. Nothing of either is left.
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
    EXPECT_EQ(stop(), 1);
    EXPECT_FALSE(tool_running());
}

// Links planted at the fixed paths, to a file only root may read or to a
// name root would create: the removal takes the link, never its target, and
// nothing is read or written through a link.
TEST_F(ProviderFaults, LinksAtTheFixedPathsAreNotFollowed) {
    const std::string secret = "/tmp/root_only", created = "/tmp/made_through_link";
    vyrtest::write_file(secret, kHeaderLine + "9,SECRET,9\n");
    ASSERT_EQ(symlink(created.c_str(), "/tmp/tarvik_collect_badhdr.csv"), 0);
    bring_up();  // service mode
    EXPECT_NE(access(created.c_str(), F_OK), 0);
    EXPECT_FALSE(dev("bad").disabled);
    ASSERT_EQ(symlink(secret.c_str(), kBadFile), 0);
    pass();
    EXPECT_EQ(dev("bad").parse_errors, 1);
    release();
    one_shot();
    bring_up();
    std::filesystem::remove(kBadFile);
    ASSERT_EQ(symlink(secret.c_str(), kBadFile), 0);
    pass({"good", "bad"});
    EXPECT_EQ(vyrtest::read_file(secret), kHeaderLine + "9,SECRET,9\n");
    EXPECT_EQ(vyrtest::text_at(dev("bad").event_cache + 144), "bad_3_x");
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
        SCOPED_TRACE(c.passes);
        std::filesystem::remove(kBadFile);
        if (!c.content.empty()) vyrtest::write_file(kBadFile, c.content);
        auto &log = fresh_log();
        for (int i = 0; i < c.passes; ++i) pass();
        EXPECT_EQ(log.count(c.level, c.message), size_t(c.passes)) << log.dump();
        EXPECT_EQ(log.count(4, kTp + "[get_csv_line_by_offset] Could not open file " + kBadFile +
                                   ".  Will retry later"),
                  c.content.empty() && c.level == 7 ? size_t(c.passes) : 0u);
        EXPECT_EQ(dev("bad").parse_errors, c.parse_errors);
        EXPECT_EQ(dev("bad").disabled, c.level == 4);
    }
    uint64_t seq;
    memcpy(&seq, dev("bad").event_cache + 136, 8);
    EXPECT_EQ(seq, 8u);
}

// Before its run, a one-shot pass removes a file above 50 MiB (the tool then
// writes a new one); the tool pads its file to the size asked for.
TEST_F(ProviderFaults, OversizedFilesAreRemovedInOneShotMode) {
    one_shot();
    bring_up();
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
    std::filesystem::remove(kBadFile);
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
    ASSERT_TRUE(eventually([&] { return host->distinct_stamps("good") >= 2; }));
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

}  // namespace
