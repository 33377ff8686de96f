// Faults of the external tool and of its collection files, injected through
// the simulated phyprobe inside the test namespace. Every test proves the same
// four things: the plug-in keeps running, the healthy devices keep producing
// fresh events, a host draining write_events meanwhile never receives a torn
// event, and the fault is reported with its exact message.
#include <linux/capability.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "provider_fixture.h"
#include "test_paths.h"

extern char **environ;

namespace sim = vyrtest::sim;
using vyrtest::count_lines;
using vyrtest::eventually;
using vyrtest::one_shot_argv;
using vyrtest::text_at;
using Names = std::vector<std::string>;

namespace {

const char kBadFile[] = "/tmp/tarvik_collect_bad.csv";
const std::string kHeaderLine = "seq,note,seq2\n";  // the value line starts at 14
const std::string kTp = "[tarvik provider] ";
const std::string kInit = kTp + "[tarvik_provider_initialize] ";
const std::string kThread = kTp + "[tarvik_thread_callback] ";
const std::string kEmptyLine = kThread + "empty last line of file " + kBadFile;
const std::string kNoOpen =
    kTp + "[get_csv_line_by_offset] Could not open file " + kBadFile + ".  Will retry later";
const std::string kUpdated = kTp + "Internal thread updated tarvik device bad";

std::string header_run_failed(const std::string &d, const std::string &status) {
    return kInit + "Could not execute command timeout 3 phyprobe -d /dev/zdt/" + d +
           " --tarvik_collect /tmp/tarvik_collect_" + d + "hdr.csv > /dev/null, system returned " +
           status;
}

// The tool, or the sleep it hangs in, still alive anywhere in the namespace
// ("[/]" keeps the shell that runs pgrep from matching itself).
bool tool_running() {
    return system("pgrep -f '[/]phyprobe' > /dev/null") == 0 ||
           system("pgrep -x sleep > /dev/null") == 0;
}

// Root reads anything; dropping these two from the calling thread's effective
// set makes mode 000 files unreadable to it (they stay permitted, so they can
// be raised again).
bool set_dac_override(bool on) {
    __user_cap_header_struct hdr{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2];
    if (syscall(SYS_capget, &hdr, data) != 0) return false;
    const uint32_t bits = (1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH);
    data[0].effective = on ? data[0].effective | bits : data[0].effective & ~bits;
    return syscall(SYS_capset, &hdr, data) == 0;
}

pid_t spawn_sleeper() {
    char sleep_cmd[] = "sleep", arg[] = "1000";
    char *argv[] = {sleep_cmd, arg, nullptr};
    pid_t pid = -1;
    return posix_spawnp(&pid, "sleep", nullptr, nullptr, argv, environ) == 0 ? pid : -1;
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

// ---- one-shot runs of the tool -------------------------------------------------

// Every fault on a device of its own, all at once: set before initialization
// (so the header run meets it) or after the first pass. The header is read
// once: a value line whose field count no longer matches disables the device,
// which keeps its last event; a disabled device's tool is not run again.
TEST_F(ProviderFaults, OneShotFaultsStayWithTheirDevice) {
    const std::string run = one_shot_argv("@") + " > /dev/null, system returned ";
    const struct {
        const char *dev;
        bool at_init;
        const char *knobs;         // KNOB=VALUE;...
        std::string warning = "";  // "@" stands for the device
    } cases[] = {
        {"exit5", true, "FAIL_HEADER_RUN=5", header_run_failed("@", "1280")},
        {"hang", true, "HANG=20", header_run_failed("@", "31744")},  // ended by "timeout 3"
        {"novalue", true, "NO_VALUE=1", kInit + "Could not parse tarvik header"},
        {"crash", false, "CRASH=half", kThread + "Could not execute command " + run + "35072"},
        {"extra", false, "EXTRA_VALUES=1"},
        // The same header length, more columns: the old offset finds the value line.
        {"wider", false, "HEADER_LINE=s,n,q,a,b,c,d;VALUE_LINE={run},x,{run},1,2,3,4"},
        {"cut", false, "VALUE_LINE={run},b"},
    };
    auto apply = [](const char *dev, const std::string &knobs) {
        std::stringstream in(knobs);
        for (std::string k; std::getline(in, k, ';');)
            sim::set_phyprobe_knob(k.substr(0, k.find('=')), k.substr(k.find('=') + 1), dev);
    };
    one_shot();
    Names healthy{"good"};
    for (const auto &c : cases) {
        sim::add_device(c.dev);
        if (c.at_init) apply(c.dev, c.knobs);
        if (!c.at_init) healthy.push_back(c.dev);
    }
    construct();
    auto &log = fresh_log();
    host_up();
    EXPECT_FALSE(tool_running());  // also not the hanging one
    pass(healthy);                 // run 2 of every device
    std::map<std::string, std::vector<uint8_t>> before;
    for (const auto &c : cases) {
        if (c.at_init) continue;
        apply(c.dev, c.knobs);
        const uint8_t *e = dev(c.dev).event_cache;
        before[c.dev].assign(e, e + p->type_infos.at(dev(c.dev).header_id).event_size);
        dev(c.dev).new_data = false;
    }
    pass();  // run 3
    pass();
    const Names argv = sim::phyprobe_argv_log();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.dev);
        const std::string d = c.dev;
        EXPECT_TRUE(dev(d).disabled);
        EXPECT_EQ(count_lines(argv, one_shot_argv(d)), c.at_init ? 0u : 2u);
        std::string warning = c.warning;
        for (size_t at; (at = warning.find('@')) != std::string::npos;) warning.replace(at, 1, d);
        if (warning.empty()) {  // the value line no longer matches the header
            EXPECT_TRUE(
                log.contains(7, kThread + "Failed to convert csv line to event for device " + d));
            EXPECT_TRUE(log.contains(6, kThread + "device " + d + " will not be collected"));
        }
        EXPECT_TRUE(warning.empty() || log.contains(4, warning)) << warning;
        if (c.at_init) {
            EXPECT_EQ(dev(d).event_cache, nullptr);
            EXPECT_EQ(host->distinct_stamps(d), 0u);
        } else {  // the last event stays as it was
            const uint8_t *e = dev(d).event_cache;
            EXPECT_EQ(std::vector<uint8_t>(e, e + before[d].size()), before[d]);
            EXPECT_FALSE(dev(d).new_data);
        }
    }
    EXPECT_EQ(count_lines(argv, one_shot_argv("good")), 3u);
}

// A device whose header run failed has no event type; a service run that
// ends well clears its disabled flag, and the collector must still leave it alone.
TEST_F(ProviderFaults, HeaderRunFailureInServiceModeStaysOutOfCollection) {
    sim::set_phyprobe_knob("FAIL_HEADER_RUN", "5", "bad");
    sim::set_phyprobe_knob("SERVICE_SLEEP", "0.05");
    set("tarvik_update_interval_sec", "1");
    bring_up();
    ASSERT_TRUE(dev("bad").disabled);
    auto &log = fresh_log();
    start();
    ASSERT_TRUE(eventually([&] {
        return log.contains(7, kTp +
                                   "[tarvik_service_thread_callback] Service process for device "
                                   "bad finished");
    }));
    ASSERT_TRUE(eventually([&] { return !dev("bad").disabled; }));
    // One more pass with the flag clear.
    size_t seen = host->distinct_stamps("good");
    ASSERT_TRUE(eventually([&] { return host->distinct_stamps("good") > seen; }));
    EXPECT_EQ(host->distinct_stamps("bad"), 0u);
    EXPECT_FALSE(dev("bad").new_data);
    EXPECT_EQ(stop(), 1);
}

// A header tool that ignores timeout's TERM is ended by the plug-in; a
// one-shot run that hangs is ended by stop. Nothing of either is left.
TEST_F(ProviderFaults, HangingToolsAreEnded) {
    one_shot();
    set("tarvik_update_interval_sec", "1");
    sim::set_phyprobe_knob("IGNORE_TERM", "1");
    sim::set_phyprobe_knob("HANG", "60", "bad");
    construct();
    auto &log = fresh_log();
    EXPECT_LT(seconds([&] { host_up(); }), 10);
    EXPECT_TRUE(dev("bad").disabled);
    EXPECT_TRUE(log.contains(4, header_run_failed("bad", "9"))) << log.dump();
    EXPECT_FALSE(tool_running());
    pass();
    sim::set_phyprobe_knob("HANG", "60", "good");
    start();
    ASSERT_TRUE(eventually([&] { return tool_running(); }));
    EXPECT_LT(seconds([&] { EXPECT_EQ(stop(), 1); }), 10);
    EXPECT_FALSE(tool_running());
}

// Anyone may create files in /tmp. What is not a regular file at a collection
// path is not opened (service mode: a parse error a pass) and blocks nothing.
TEST_F(ProviderFaults, NonRegularCollectionFilesBlockNothing) {
    for (bool service : {true, false})
        for (const char *kind : {"fifo", "directory", "socket"}) {
            SCOPED_TRACE(std::string(kind) + (service ? " service" : " one-shot"));
            if (!service) one_shot();
            // One-shot passes may follow back to back; in service mode the
            // missing first file would count up to the error limit at once.
            set("tarvik_update_interval_sec", service ? "1" : "0");
            sim::set_phyprobe_knob("SERVICE_SLEEP", "100", "bad");
            sim::set_phyprobe_knob("SERVICE_SLEEP", "0.1", "good");
            bring_up();
            start();
            ASSERT_TRUE(eventually([&] { return host->distinct_stamps("bad") > 0; }));
            std::filesystem::remove(kBadFile);
            ASSERT_TRUE(sim::make_special(kind, kBadFile));
            const size_t seen = host->distinct_stamps("good");
            ASSERT_TRUE(eventually([&] { return host->distinct_stamps("good") > seen + 1; }));
            EXPECT_TRUE(!service || dev("bad").parse_errors > 0);
            EXPECT_LT(seconds([&] { EXPECT_EQ(stop(), 1); }), 5);
            release();
            std::filesystem::remove_all(kBadFile);
            vyr_dict_delete(params);
            params = vyr_dict_create();
        }
}

// Links planted at the fixed paths, to a file only root may read or to a
// name root would create: the removal takes the link, never its target, and
// nothing is read or written through a link.
TEST_F(ProviderFaults, LinksAtTheFixedPathsAreNotFollowed) {
    const std::string secret = "/tmp/root_only", created = "/tmp/made_through_link";
    vyrtest::write_file(secret, kHeaderLine + "9,SECRET,9\n");
    ASSERT_EQ(chmod(secret.c_str(), 0600), 0);
    ASSERT_EQ(symlink(created.c_str(), "/tmp/tarvik_collect_badhdr.csv"), 0);
    bring_up();  // service mode
    EXPECT_NE(access(created.c_str(), F_OK), 0);
    EXPECT_FALSE(dev("bad").disabled);
    ASSERT_EQ(symlink(secret.c_str(), kBadFile), 0);
    auto &log = fresh_log();
    pass();
    EXPECT_TRUE(log.contains(4, kNoOpen));
    EXPECT_EQ(host->distinct_stamps("bad"), 0u);
    release();
    one_shot();
    bring_up();
    std::filesystem::remove(kBadFile);
    ASSERT_EQ(symlink(secret.c_str(), kBadFile), 0);
    pass({"good", "bad"});
    EXPECT_EQ(vyrtest::read_file(secret), kHeaderLine + "9,SECRET,9\n");
    EXPECT_EQ(text_at(dev("bad").event_cache + 144), "bad_3_x");
}

// ---- the collection file ------------------------------------------------------

// Service mode, so each pass reads whatever the file holds. A file that cannot
// be read counts a parse error, a good line clears the count, and the device
// is disabled once the count has exceeded 10.
TEST_F(ProviderFaults, CollectionFileBrokenBetweenPasses) {
    enum How { kWrite, kRemove, kUnreadable, kDirectory };
    const struct {
        const char *what;
        How how;
        std::string content;
        int passes, level;
        std::string message;
        int parse_errors;
    } cases[] = {
        {"whole", kWrite, kHeaderLine + "7,bad_7_x,7\n", 1, 7, kUpdated, 0},
        {"value line lost", kWrite, kHeaderLine, 1, 7, kEmptyLine, 1},
        {"removed", kRemove, "", 1, 4, kNoOpen, 2},
        {"mode 000", kUnreadable, "", 1, 7,
         kThread + "Failed to get second (data) line of file " + kBadFile, 3},
        {"whole again", kWrite, kHeaderLine + "8,bad_8_x,8\n", 1, 7, kUpdated, 0},
        {"a directory: not opened", kDirectory, "", 11, 7,
         kThread + "Failed to get second (data) line of file " + kBadFile, 11},
        {"still a directory", kDirectory, "", 1, 4,
         kThread + "Device bad exceeded max parsing errors number (10).  Will not collect data",
         11},
    };
    bring_up();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        if (c.how != kWrite) std::filesystem::remove(kBadFile);
        if (c.how == kWrite || c.how == kUnreadable) vyrtest::write_file(kBadFile, c.content);
        if (c.how == kUnreadable) {
            ASSERT_EQ(chmod(kBadFile, 0), 0);
        }
        if (c.how == kDirectory) std::filesystem::create_directory(kBadFile);
        auto &log = fresh_log();
        ASSERT_TRUE(set_dac_override(c.how != kUnreadable));
        for (int i = 0; i < c.passes; ++i) pass();
        ASSERT_TRUE(set_dac_override(true));
        EXPECT_EQ(log.count(c.level, c.message), size_t(c.passes)) << log.dump();
        EXPECT_EQ(log.contains(4, kNoOpen), c.how != kWrite && !dev("bad").disabled);
        EXPECT_EQ(dev("bad").parse_errors, c.parse_errors);
        EXPECT_EQ(dev("bad").disabled, c.message.find("exceeded") != std::string::npos);
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
        SCOPED_TRACE(size);
        sim::set_phyprobe_knob("OVERSIZE", std::to_string(size), "bad");
        pass({"bad", "good"});  // writes the large file
        struct stat st;
        ASSERT_EQ(stat(kBadFile, &st), 0);
        EXPECT_EQ(st.st_size, size);
        auto &log = fresh_log();
        pass({"bad", "good"});
        EXPECT_EQ(log.contains(7, kTp + "[remove_large_files] Size of file " + kBadFile + " is " +
                                      std::to_string(size) + " bytes > 52428800"),
                  size > 52428800)
            << log.dump();
        EXPECT_FALSE(log.contains_fragment("Could not remove"));
    }
    std::filesystem::remove(kBadFile);
}

// ---- service processes ------------------------------------------------------

// A service that fails at once disables its device for good; the other
// device's service is restarted after each good run. Stop signals the id in
// every marker's name, once per device, and nothing else: a marker left behind
// by an earlier service harms nobody. The test is a process of its own PID
// namespace, so the ids can only name processes of the namespace.
TEST_F(ProviderFaults, ServicesAndTheirMarkers) {
    sim::set_phyprobe_knob("SERVICE_EXIT", "3", "bad");
    sim::set_phyprobe_knob("SERVICE_SLEEP", "0.2");
    set("tarvik_update_interval_sec", "1");
    pid_t stale = spawn_sleeper(), bystander = spawn_sleeper();
    ASSERT_GT(stale, 0);
    ASSERT_GT(bystander, 0);
    const std::string stale_marker = "phyprobe_service_" + std::to_string(stale);
    bring_up();
    sim::add_zdt_file(stale_marker);
    auto &log = fresh_log();
    start();
    auto service = [](const std::string &d) {
        return "phyprobe -d /dev/zdt/" + d + " --tarvik_collect /tmp/tarvik_collect_" + d +
               ".csv --tarvik_rewrite --service_start 1 --service_iterations 10";
    };
    ASSERT_TRUE(
        eventually([&] { return count_lines(sim::phyprobe_argv_log(), service("good")) >= 2; }));
    ASSERT_TRUE(eventually([&] { return sim::service_markers().size() == 2; }));
    ASSERT_TRUE(eventually([&] { return host->distinct_stamps("good") >= 2; }));
    EXPECT_TRUE(dev("bad").disabled);
    EXPECT_TRUE(dev("bad").service_stop);
    EXPECT_FALSE(dev("good").disabled);
    EXPECT_TRUE(log.contains(6, kTp + "Starting service for device good"));
    EXPECT_EQ(stop(), 1);
    EXPECT_EQ(p->collect_thread, 0u);
    EXPECT_EQ(dev("bad").service_thread, 0u);
    EXPECT_EQ(dev("good").service_thread, 0u);
    EXPECT_EQ(count_lines(sim::phyprobe_argv_log(), service("bad")), 1u);  // not restarted
    EXPECT_TRUE(log.contains(4, kTp +
                                    "[tarvik_service_thread_callback] Could not execute command " +
                                    service("bad") + " > /dev/null, system returned 768"));
    EXPECT_EQ(host->distinct_stamps("bad"), 0u);
    for (const auto &m : sim::service_markers()) {
        std::string pid = m.substr(strlen("phyprobe_service_"));
        EXPECT_EQ(log.count(6, kTp + "[tarvik_provider_stop] stopping service by PID " + pid), 2u)
            << log.dump();
        if (m != stale_marker) {
            EXPECT_NE(kill(std::stoi(pid), 0), 0) << "service " << pid << " still runs";
        }
    }
    int status = 0;
    ASSERT_TRUE(eventually([&] { return waitpid(stale, &status, WNOHANG) == stale; }, 10));
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_EQ(waitpid(bystander, &status, WNOHANG), 0) << "the bystander was signalled";
    kill(bystander, SIGKILL);
    waitpid(bystander, &status, 0);
    // Stop does not clean up after a service: the stale marker stays.
    Names left = sim::service_markers();
    EXPECT_NE(std::find(left.begin(), left.end(), stale_marker), left.end());
}

}  // namespace
