// Faults of the external tool and of its collection files, injected through
// the simulated phyprobe inside the test namespace. Every test proves the same
// four things: the plug-in keeps running, the healthy device keeps producing
// fresh events, a host draining write_events meanwhile never receives a torn
// event, and the fault is reported with its exact message.
#include <gtest/gtest.h>

#include <dirent.h>
#include <linux/capability.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "sim.h"
#include "tarvik_collect.h"
#include "tarvik_initialize.h"
#include "tarvik_provider.h"
#include "tarvik_service.h"
#include "test_paths.h"
#include "vyr_serializer.h"
#include "vyr_type_system.h"

extern char **environ;

namespace sim = vyrtest::sim;

namespace {

bool eventually(const std::function<bool()> &pred, int seconds = 30) {
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < until) {
        if (pred()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return pred();
}

size_t count_lines(const std::vector<std::string> &lines, const std::string &text) {
    size_t n = 0;
    for (const auto &l : lines) n += l == text;
    return n;
}

std::string one_shot_argv(const std::string &dev) {
    return "phyprobe -d /dev/zdt/" + dev + " --tarvik_collect /tmp/tarvik_collect_" + dev +
           ".csv --tarvik_rewrite";
}

std::string text_at(const uint8_t *p, size_t n) {
    return std::string(reinterpret_cast<const char *>(p),
                       strnlen(reinterpret_cast<const char *>(p), n));
}

// A phyprobe process still alive anywhere in the namespace.
bool phyprobe_running() {
    DIR *d = opendir("/proc");
    if (!d) return false;
    bool found = false;
    while (struct dirent *e = readdir(d)) {
        if (e->d_name[0] < '0' || e->d_name[0] > '9') continue;
        std::string cmd = vyrtest::read_file(std::string("/proc/") + e->d_name + "/cmdline");
        if (cmd.find("/phyprobe") != std::string::npos) found = true;
    }
    closedir(d);
    return found;
}

// Root reads anything; dropping these two from the calling thread's effective
// set makes mode 000 files unreadable to it (they stay permitted, so they can
// be raised again).
bool set_dac_override(bool on) {
    __user_cap_header_struct hdr{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2];
    if (syscall(SYS_capget, &hdr, data) != 0) return false;
    const uint32_t bits = (1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH);
    if (on)
        data[0].effective |= bits;
    else
        data[0].effective &= ~bits;
    return syscall(SYS_capset, &hdr, data) == 0;
}

pid_t spawn_sleeper() {
    char sleep_cmd[] = "sleep", arg[] = "1000";
    char *argv[] = {sleep_cmd, arg, nullptr};
    pid_t pid = -1;
    if (posix_spawnp(&pid, "sleep", nullptr, nullptr, argv, environ) != 0) return -1;
    return pid;
}

// A host that drains write_events with room for one event at a time, as a
// collector with a small buffer does, and checks every event it receives: the
// simulator writes the run number into "seq" and "seq2" and into the text
// "note" (<device>_<run>_x), so an event copied while it was being converted
// would show two different runs.
class Host {
  public:
    Host(tarvik_provider_t *p, vyr_type_system_t *ts) : p_(p), ts_(ts) {}
    ~Host() { stop(); }
    void start() {
        running_ = true;
        thread_ = std::thread([this] { loop(); });
    }
    void stop() {
        running_ = false;
        if (thread_.joinable()) thread_.join();
    }
    bool delivered(const std::string &dev, uint64_t stamp) const {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = stamps_.find(dev);
        return it != stamps_.end() && it->second.count(stamp);
    }
    size_t distinct_stamps(const std::string &dev) const {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = stamps_.find(dev);
        return it == stamps_.end() ? 0 : it->second.size();
    }
    std::vector<std::string> problems() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return problems_;
    }

  private:
    void loop() {
        size_t room = 16 + vyr_type_system_get_max_event_type_size(ts_);
        std::vector<uint8_t> buf(room);
        vyr_data_serializer_t ser{ts_->schemas, buf.data(), room, 0};
        while (running_) {
            ser.used = 0;
            int rc = p_->provider.write_events(&p_->provider, 0, &ser);
            if (rc < 0) note("write_events returned -1");
            for (uint64_t pos = 0; pos < ser.used;) pos += check(buf.data() + pos);
            if (rc != 1) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    void note(const std::string &what) {
        std::lock_guard<std::mutex> lock(mutex_);
        problems_.push_back(what);
    }
    uint64_t check(const uint8_t *block) {
        vyr_event_block_header_t h;
        memcpy(&h, block, sizeof h);
        const vyr_type_definition_t *t = ts_->schemas[h.schema_index]->types[h.type_index];
        const uint8_t *e = block + sizeof h;
        if (!vyr_magic_value_match_type(h.magic, 'E') || h.count != 1) note("bad block header");
        uint64_t stamp;
        memcpy(&stamp, e, 8);
        std::string dev = text_at(e + 72, 64);
        if (text_at(e + 8, 64) != "tarvik_event") note(dev + ": bad event_name");
        uint64_t seq = 0, seq2 = 0;
        bool has_seq = false, has_seq2 = false;
        std::string note_text;
        for (int i = 0; i < t->num_fields; ++i) {
            const vyr_type_field_definition_t *f = t->fields[i];
            const uint8_t *at = e + f->offset;
            std::string name = f->field_name;
            bool text = strcmp(f->type_name, "char") == 0;
            if (name == "seq" && !text) {
                memcpy(&seq, at, 8);
                has_seq = true;
            } else if (name.rfind("seq2", 0) == 0) {  // CR LF files keep a CR in the name
                if (text)
                    seq2 = strtoull(text_at(at, 64).c_str(), nullptr, 10);
                else
                    memcpy(&seq2, at, 8);
                has_seq2 = true;
            } else if (name == "note" && text) {
                note_text = text_at(at, 64);
            }
        }
        if (has_seq && has_seq2 && seq != seq2)
            note(dev + ": torn event, seq " + std::to_string(seq) + " seq2 " +
                 std::to_string(seq2));
        const std::string prefix = dev + "_";
        if (has_seq && note_text.rfind(prefix, 0) == 0 &&
            note_text != prefix + std::to_string(seq) + "_x")
            note(dev + ": torn event, seq " + std::to_string(seq) + " note " + note_text);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stamps_[dev].insert(stamp);
        }
        return sizeof h + t->size;
    }

    tarvik_provider_t *p_;
    vyr_type_system_t *ts_;
    std::thread thread_;
    std::atomic<bool> running_{false};
    mutable std::mutex mutex_;
    std::map<std::string, std::set<uint64_t>> stamps_;
    std::vector<std::string> problems_;
};

class ProviderFaults : public ::testing::Test {
  protected:
    void SetUp() override {
        // Installed once, before any thread logs: the level is a plain global.
        log_.reset(new vyrtest::LogCapture);
        sim::reset();
        path_ = getenv("PATH");
        p = tarvik_provider_instance();
        params = vyr_dict_create();
        ts = vyr_create_type_system();
        ASSERT_NE(ts, nullptr);
        // One event type for every device whose header is not changed by the fault.
        sim::add_device("bad");
        sim::add_device("good");
        sim::set_phyprobe_knob("HEADER_LINE", "seq,note,seq2");
        sim::set_phyprobe_knob("VALUE_LINE", "{run},{dev}_{run}_x,{run}");
    }
    void TearDown() override {
        release();
        vyr_dict_delete(params);
        setenv("PATH", path_.c_str(), 1);
        sim::reset();
        log_.reset();
    }
    // The log from now on.
    vyrtest::LogCapture &fresh_log() {
        log_->clear();
        return *log_;
    }
    // Stops threads and the host and releases the provider and the type system.
    void release() {
        if (started) stop();
        if (host) {
            host->stop();
            EXPECT_EQ(host->problems(), std::vector<std::string>{});
            host.reset();
        }
        for (auto &e : p->devices) free(e.second.service_command);  // kept by destroy on purpose
        tarvik_provider_destroy(&p->provider);
        p->type_infos.clear();
        p->next_device = 0;
        p->stop_requested = false;
        vyr_destroy_type_system(ts);
        ts = nullptr;
    }
    void set(const char *key, const char *value) { ASSERT_TRUE(vyr_dict_add(params, key, value)); }
    void one_shot() { set("tarvik_phyprobe_as_service", "0"); }
    // construct + initialize, then a host starts draining events.
    void bring_up() {
        if (!ts) ts = vyr_create_type_system();
        construct_event_provider(params);
        ASSERT_TRUE(p->provider.initialize(&p->provider, ts));
        vyr_type_system_update_md5_hashes(ts);
        host.reset(new Host(p, ts));
        host->start();
    }
    void start() {
        ASSERT_TRUE(p->provider.start(&p->provider));
        started = true;
    }
    int stop() {
        started = false;
        return p->provider.stop(&p->provider);
    }
    tarvik_provider_dev_info_t &dev(const std::string &name) { return p->devices.at(name); }
    uint64_t stamp(const std::string &name) {
        tarvik_provider_dev_info_t &d = dev(name);
        pthread_mutex_lock(&d.event_lock);
        uint64_t t = 0;
        if (d.event_cache) memcpy(&t, d.event_cache, 8);
        pthread_mutex_unlock(&d.event_lock);
        return t;
    }
    // One iteration of what a device's service does: rewrite its collection file.
    void run_tool(const std::string &name) { ASSERT_EQ(system(dev(name).command), 0); }
    // One collection pass; the healthy device's event must be newer than
    // before and reach the host. In service mode nothing rewrites the files
    // between passes, so the healthy device's tool is run first.
    void pass(const std::vector<std::string> &healthy = {"good"}) {
        if (p->run_as_service)
            for (const auto &h : healthy) run_tool(h);
        std::map<std::string, uint64_t> before;
        for (const auto &h : healthy) before[h] = stamp(h);
        tarvik_collect_pass(p);
        for (const auto &h : healthy) {
            uint64_t now = stamp(h);
            EXPECT_GT(now, before[h]) << h << " did not get a fresh event";
            EXPECT_TRUE(eventually([&] { return host->delivered(h, now); }, 10))
                << h << "'s event never reached the host";
        }
    }

    tarvik_provider_t *p = nullptr;
    vyr_dict_t *params = nullptr;
    vyr_type_system_t *ts = nullptr;
    std::unique_ptr<Host> host;
    std::unique_ptr<vyrtest::LogCapture> log_;
    bool started = false;
    std::string path_;
};

const char kBadFile[] = "/tmp/tarvik_collect_bad.csv";
const std::string kHeaderLine = "seq,note,seq2\n";  // the value line starts at 14

// ---- the tool itself --------------------------------------------------------

TEST_F(ProviderFaults, ToolMissingFromPathAtInitializationDisablesEveryDevice) {
    construct_event_provider(params);  // discovery still finds the simulated zdt
    setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
    auto &log = fresh_log();
    ASSERT_TRUE(p->provider.initialize(&p->provider, ts));
    for (const char *name : {"bad", "good"}) {
        EXPECT_TRUE(dev(name).disabled);
        EXPECT_TRUE(log.contains(4, std::string("[tarvik provider] [tarvik_provider_initialize] "
                                                "Could not execute command timeout 3 phyprobe -d "
                                                "/dev/zdt/") +
                                        name + " --tarvik_collect /tmp/tarvik_collect_" + name +
                                        "hdr.csv > /dev/null, system returned 32512"))
            << log.dump();
    }
    // Nothing to deliver, but every callback still works.
    host.reset(new Host(p, ts));
    host->start();
    start();
    uint8_t buf[512];
    vyr_data_serializer_t ser{ts->schemas, buf, sizeof buf, 0};
    EXPECT_EQ(p->provider.write_events(&p->provider, 0, &ser), 0);
    EXPECT_EQ(ser.used, 0u);
    EXPECT_EQ(stop(), 1);
    EXPECT_EQ(host->distinct_stamps("bad") + host->distinct_stamps("good"), 0u);
}

TEST_F(ProviderFaults, ToolVanishingAfterInitializationDisablesOnFirstFailedRun) {
    one_shot();
    bring_up();
    pass({"bad", "good"});
    setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
    auto &log = fresh_log();
    tarvik_collect_pass(p);
    for (const char *name : {"bad", "good"}) {
        EXPECT_TRUE(dev(name).disabled);
        EXPECT_TRUE(log.contains(4,
                                 "[tarvik provider] [tarvik_thread_callback] Could not execute "
                                 "command " +
                                     one_shot_argv(name) + " > /dev/null, system returned 32512"))
            << log.dump();
    }
    // The last good events stay on offer; the plug-in is idle, not broken.
    uint64_t last = stamp("good");
    tarvik_collect_pass(p);
    EXPECT_EQ(stamp("good"), last);
    EXPECT_TRUE(eventually([&] { return host->delivered("good", last); }));
}

TEST_F(ProviderFaults, HeaderRunHangIsEndedByTheTimeLimit) {
    one_shot();
    sim::set_phyprobe_knob("HANG", "20", "bad");
    auto &log = fresh_log();
    bring_up();
    EXPECT_TRUE(dev("bad").disabled);
    EXPECT_EQ(dev("bad").event_cache, nullptr);
    EXPECT_TRUE(log.contains(4,
                             "[tarvik provider] [tarvik_provider_initialize] Could not execute "
                             "command timeout 3 phyprobe -d /dev/zdt/bad --tarvik_collect "
                             "/tmp/tarvik_collect_badhdr.csv > /dev/null, system returned 31744"))
        << log.dump();
    EXPECT_FALSE(phyprobe_running());  // timeout's TERM ended it
    pass();
    pass();
    EXPECT_EQ(count_lines(sim::phyprobe_argv_log(), one_shot_argv("bad")), 0u);
    EXPECT_EQ(host->distinct_stamps("bad"), 0u);
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
    const std::string finished =
        "[tarvik provider] [tarvik_service_thread_callback] Service process for device bad "
        "finished";
    ASSERT_TRUE(eventually([&] { return log.contains(7, finished); }));
    ASSERT_TRUE(eventually([&] { return !dev("bad").disabled; }));
    // One more pass with the flag clear.
    size_t seen = host->distinct_stamps("good");
    ASSERT_TRUE(eventually([&] { return host->distinct_stamps("good") > seen; }));
    EXPECT_EQ(host->distinct_stamps("bad"), 0u);
    EXPECT_FALSE(dev("bad").new_data);
    EXPECT_EQ(stop(), 1);
}

TEST_F(ProviderFaults, OneShotHangHoldsThePassAndStopWaitsForIt) {
    one_shot();
    set("tarvik_update_interval_sec", "0");
    bring_up();
    sim::set_phyprobe_knob("HANG", "1.5", "bad");
    start();
    // Every pass waits for the hanging run, then still collects the healthy device.
    ASSERT_TRUE(eventually([&] { return host->distinct_stamps("good") >= 2; }));
    // Stop while a hanging run is in progress: bad's run of this pass has
    // started and good's has not.
    ASSERT_TRUE(eventually([&] {
        auto argv = sim::phyprobe_argv_log();
        return count_lines(argv, one_shot_argv("bad")) > count_lines(argv, one_shot_argv("good"));
    }));
    EXPECT_EQ(stop(), 1);
    // The pass ran to its end before stop returned.
    auto argv = sim::phyprobe_argv_log();
    EXPECT_EQ(count_lines(argv, one_shot_argv("bad")), count_lines(argv, one_shot_argv("good")));
    EXPECT_EQ(argv.back(), one_shot_argv("good"));
    EXPECT_FALSE(phyprobe_running());
    EXPECT_FALSE(dev("bad").disabled);
}

// ---- the tool's output --------------------------------------------------------

TEST_F(ProviderFaults, CrashMidWrite) {
    // One-shot: the crashed run itself fails and disables the device.
    one_shot();
    bring_up();
    pass({"bad", "good"});
    sim::set_phyprobe_knob("CRASH", "half", "bad");
    {
        auto &log = fresh_log();
        pass();
        EXPECT_TRUE(dev("bad").disabled);
        EXPECT_TRUE(log.contains(4,
                                 "[tarvik provider] [tarvik_thread_callback] Could not execute "
                                 "command " +
                                     one_shot_argv("bad") +
                                     " > /dev/null, system returned 35072"))  // sh: 128 + 9
            << log.dump();
        // The half-written file is left behind, written in place.
        EXPECT_LT(vyrtest::read_file(kBadFile).size(), 20u);
        pass();
    }
    release();

    // Service mode: the collector meets the file a killed service left cut
    // inside the value line ("2,b" of "2,bad_2_x,2").
    vyr_dict_add(params, "tarvik_phyprobe_as_service", "1");
    sim::clear_phyprobe_knob("CRASH", "bad");
    std::filesystem::remove_all("/tmp/.phyprobe_sim");  // run numbers start again at 1
    bring_up();
    sim::set_phyprobe_knob("CRASH", std::to_string(kHeaderLine.size() + 3), "bad");
    EXPECT_NE(system(dev("bad").command), 0);
    EXPECT_EQ(vyrtest::read_file(kBadFile), kHeaderLine + "2,b");
    auto &log = fresh_log();
    pass();
    EXPECT_TRUE(dev("bad").disabled);
    EXPECT_FALSE(dev("bad").new_data);
    EXPECT_TRUE(log.contains(4,
                             "[tarvik provider] [tarvik_csv_to_event] Number of fields in csv line "
                             "(2) does not match number of tarvik fields (3)"));
    EXPECT_TRUE(log.contains(7, "[tarvik provider] [tarvik_csv_to_event] csv line: 2,b"));
    EXPECT_TRUE(log.contains(7,
                             "[tarvik provider] [tarvik_thread_callback] Failed to convert csv "
                             "line to event for device bad"));
    EXPECT_TRUE(log.contains(
        6, "[tarvik provider] [tarvik_thread_callback] device bad will not be collected"));
    pass();
}

TEST_F(ProviderFaults, FileShrinksOrLosesItsValueLineBetweenPasses) {
    bring_up();  // service mode: the passes only read what is in the file
    const std::string empty_line =
        "[tarvik provider] [tarvik_thread_callback] empty last line of file "
        "/tmp/tarvik_collect_bad.csv";
    const std::string no_open =
        "[tarvik provider] [get_csv_line_by_offset] Could not open file "
        "/tmp/tarvik_collect_bad.csv.  Will retry later";
    struct Case {
        const char *what;
        std::string content;  // empty with gone: the file is removed
        bool gone;
        int level;
        std::string message;
        int parse_errors;
    } cases[] = {
        {"whole", kHeaderLine + "7,bad_7_x,7\n", false, 7,
         "[tarvik provider] Internal thread updated tarvik device bad", 0},
        {"value line lost", kHeaderLine, false, 7, empty_line, 1},
        {"cut inside the header", "seq,no", false, 7, empty_line, 2},
        {"emptied", "", false, 7, empty_line, 3},
        {"removed", "", true, 4, no_open, 4},
        {"value line without its line feed", kHeaderLine + "8,bad_8_x,8", false, 7,
         "[tarvik provider] Internal thread updated tarvik device bad", 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        if (c.gone)
            std::filesystem::remove(kBadFile);
        else
            vyrtest::write_file(kBadFile, c.content);
        auto &log = fresh_log();
        pass();
        EXPECT_TRUE(log.contains(c.level, c.message)) << log.dump();
        EXPECT_EQ(dev("bad").parse_errors, c.parse_errors);
        EXPECT_FALSE(dev("bad").disabled);
    }
    uint64_t seq;
    memcpy(&seq, dev("bad").event_cache + 136, 8);
    EXPECT_EQ(seq, 8u);
}

TEST_F(ProviderFaults, HeaderChangedAfterInitializationIsReadAtTheOldOffset) {
    one_shot();
    struct Case {
        const char *header;
        const char *value;
        std::string line_read;  // empty: the line converts
        size_t tokens;
    } cases[] = {
        // Same length, more columns: the value line is read and has 7 fields.
        {"s,n,q,a,b,c,d", "{run},x,{run},1,2,3,4", "2,x,2,1,2,3,4", 7},
        // Longer: the old offset falls inside the new header.
        {"seq,note,seq2,extra", "{run},{dev}_{run}_x,{run},1", "extra", 1},
        // Shorter: the old offset falls inside the value line.
        {"seq,note", "{run},{dev}_{run}_x", "_2_x", 1},
        // Renamed, same shape: not noticed, the header is never read again.
        {"SEQ,NOTE,SEQ2", "{run},{dev}_{run}_x,{run}", "", 3},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.header);
        sim::reset();
        sim::add_device("bad");
        sim::add_device("good");
        sim::set_phyprobe_knob("HEADER_LINE", "seq,note,seq2");
        sim::set_phyprobe_knob("VALUE_LINE", "{run},{dev}_{run}_x,{run}");
        bring_up();
        sim::set_phyprobe_knob("HEADER_LINE", c.header, "bad");
        sim::set_phyprobe_knob("VALUE_LINE", c.value, "bad");
        auto &log = fresh_log();
        pass();
        if (c.line_read.empty()) {
            EXPECT_FALSE(dev("bad").disabled);
            EXPECT_TRUE(dev("bad").new_data);
        } else {
            EXPECT_TRUE(dev("bad").disabled);
            EXPECT_FALSE(dev("bad").new_data);
            EXPECT_TRUE(log.contains(4,
                                     "[tarvik provider] [tarvik_csv_to_event] Number of fields "
                                     "in csv line (" +
                                         std::to_string(c.tokens) +
                                         ") does not match number of tarvik fields (3)"))
                << log.dump();
            EXPECT_TRUE(log.contains(
                7, "[tarvik provider] [tarvik_csv_to_event] csv line: " + c.line_read));
            EXPECT_TRUE(log.contains(
                6, "[tarvik provider] [tarvik_thread_callback] device bad will not be collected"));
        }
        pass();
        release();
    }
}

TEST_F(ProviderFaults, CrLfFilesGetTheirOwnTypeAndKeepTheCarriageReturn) {
    one_shot();
    sim::set_phyprobe_knob("CRLF", "1", "bad");
    bring_up();
    ASSERT_FALSE(dev("bad").disabled);
    ASSERT_EQ(p->type_infos.size(), 2u);  // the CR is part of the header line
    const vyr_type_definition_t *t = ts->schemas[p->provider.schema_index]
                                         ->types[p->type_infos.at(dev("bad").header_id).type_index];
    ASSERT_EQ(t->num_fields, 6);
    EXPECT_STREQ(t->fields[5]->field_name, "seq2\r");
    EXPECT_STREQ(t->fields[5]->type_name, "char");  // "2\r" is no number
    auto &log = fresh_log();
    pass({"bad", "good"});
    pass({"bad", "good"});
    EXPECT_EQ(text_at(dev("bad").event_cache + 136 + 8 + 64, 64), "3\r");
    EXPECT_TRUE(log.contains(7, "[tarvik provider] Internal thread updated tarvik device bad"));
}

TEST_F(ProviderFaults, NulBytesAndInvalidUtf8InValuesAreCopiedAsBytes) {
    bring_up();  // service mode
    // A NUL ends the numeric token for the conversion; text slots keep the
    // bytes (a consumer reading them as C text stops at the NUL).
    const std::string note("\xff\xfe\x00tail\xc3", 8);
    vyrtest::write_file(kBadFile, kHeaderLine + std::string("5\x00junk", 6) + "," + note + ",5\n");
    auto &log = fresh_log();
    pass();
    ASSERT_FALSE(dev("bad").disabled);
    ASSERT_TRUE(dev("bad").new_data);
    const uint8_t *e = dev("bad").event_cache;
    uint64_t seq, seq2;
    memcpy(&seq, e + 136, 8);
    memcpy(&seq2, e + 136 + 8 + 64, 8);
    EXPECT_EQ(seq, 5u);
    EXPECT_EQ(seq2, 5u);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(e + 144), 9), note + std::string(1, '\0'));
    EXPECT_TRUE(log.contains(7, "[tarvik provider] Internal thread updated tarvik device bad"));
    const uint64_t t = stamp("bad");
    EXPECT_TRUE(eventually([&] { return host->delivered("bad", t); }));
    pass();
}

TEST_F(ProviderFaults, SixtyMiBFileInOneShotModeIsRemovedAndRewritten) {
    one_shot();
    bring_up();
    sim::set_phyprobe_knob("OVERSIZE", "62914560", "bad");
    pass({"bad", "good"});  // writes the first large file
    struct stat st;
    ASSERT_EQ(stat(kBadFile, &st), 0);
    EXPECT_EQ(st.st_size, 62914560);
    auto &log = fresh_log();
    pass({"bad", "good"});
    EXPECT_TRUE(log.contains(7,
                             "[tarvik provider] [remove_large_files] Size of file "
                             "/tmp/tarvik_collect_bad.csv is 62914560 bytes > 52428800"))
        << log.dump();
    EXPECT_FALSE(log.contains_fragment("Could not remove"));
    EXPECT_FALSE(dev("bad").disabled);
    std::filesystem::remove(kBadFile);
}

TEST_F(ProviderFaults, CollectionFileReplacedByADirectoryOrMadeUnreadable) {
    bring_up();  // service mode
    run_tool("bad");
    pass({"bad", "good"});
    const std::string empty_line =
        "[tarvik provider] [tarvik_thread_callback] empty last line of file "
        "/tmp/tarvik_collect_bad.csv";
    const std::string no_open =
        "[tarvik provider] [get_csv_line_by_offset] Could not open file "
        "/tmp/tarvik_collect_bad.csv.  Will retry later";
    {
        // Root opens anything; without these capabilities mode 000 is enforced.
        SCOPED_TRACE("unreadable");
        ASSERT_EQ(chmod(kBadFile, 0), 0);
        ASSERT_TRUE(set_dac_override(false));
        auto &log = fresh_log();
        tarvik_collect_pass(p);
        ASSERT_TRUE(set_dac_override(true));
        EXPECT_TRUE(log.contains(4, no_open)) << log.dump();
        EXPECT_TRUE(log.contains(7,
                                 "[tarvik provider] [tarvik_thread_callback] Failed to get second "
                                 "(data) line of file /tmp/tarvik_collect_bad.csv"));
        EXPECT_EQ(dev("bad").parse_errors, 1);
        pass();
        run_tool("bad");  // the tool replaces the file: readable again
        pass({"bad", "good"});
        EXPECT_EQ(dev("bad").parse_errors, 0);
    }
    {
        // A directory opens, but reading it fails: an empty line each pass,
        // until the error limit switches the device off.
        SCOPED_TRACE("directory");
        std::filesystem::remove(kBadFile);
        ASSERT_EQ(mkdir(kBadFile, 0755), 0);
        auto &log = fresh_log();
        for (int i = 1; i <= 11; ++i) pass();
        EXPECT_EQ(log.count(7, empty_line), 11u);
        EXPECT_EQ(dev("bad").parse_errors, 11);
        EXPECT_FALSE(dev("bad").disabled);
        pass();
        EXPECT_TRUE(dev("bad").disabled);
        EXPECT_TRUE(log.contains(4,
                                 "[tarvik provider] [tarvik_thread_callback] Device bad exceeded "
                                 "max parsing errors number (10).  Will not collect data"));
        pass();
    }
}

// ---- service processes ------------------------------------------------------

TEST_F(ProviderFaults, ServiceExitingNonZeroAtOnceIsNotRestarted) {
    sim::set_phyprobe_knob("SERVICE_EXIT", "3", "bad");
    sim::set_phyprobe_knob("SERVICE_SLEEP", "0.2");
    set("tarvik_update_interval_sec", "1");
    bring_up();
    auto &log = fresh_log();
    start();
    ASSERT_TRUE(eventually([&] { return dev("bad").disabled.load(); }));
    ASSERT_TRUE(eventually([&] { return host->distinct_stamps("good") >= 2; }));
    EXPECT_EQ(stop(), 1);
    const std::string service =
        "phyprobe -d /dev/zdt/bad --tarvik_collect /tmp/tarvik_collect_bad.csv --tarvik_rewrite "
        "--service_start 1 --service_iterations 10";
    EXPECT_EQ(count_lines(sim::phyprobe_argv_log(), service), 1u);
    EXPECT_TRUE(log.contains(4,
                             "[tarvik provider] [tarvik_service_thread_callback] Could not "
                             "execute command " +
                                 service + " > /dev/null, system returned 768"));
    EXPECT_EQ(host->distinct_stamps("bad"), 0u);
}

TEST_F(ProviderFaults, StaleMarkerMakesStopSignalOnlyTheIdInItsName) {
    one_shot();
    set("tarvik_update_interval_sec", "1");
    bring_up();
    // This test runs as a process of its own PID namespace, so the ids below
    // can only name processes of the namespace.
    pid_t victim = spawn_sleeper();
    pid_t bystander = spawn_sleeper();
    ASSERT_GT(victim, 0);
    ASSERT_GT(bystander, 0);
    const std::string marker = "phyprobe_service_" + std::to_string(victim);
    sim::add_zdt_file(marker);
    start();
    ASSERT_TRUE(eventually([&] { return host->distinct_stamps("good") >= 2; }));
    EXPECT_GE(host->distinct_stamps("bad"), 2u);  // a marker left behind harms nobody
    auto &log = fresh_log();
    EXPECT_EQ(stop(), 1);
    // Once per registered device.
    EXPECT_EQ(log.count(6, "[tarvik provider] [tarvik_provider_stop] stopping service by PID " +
                               std::to_string(victim)),
              2u)
        << log.dump();
    int status = 0;
    ASSERT_EQ(waitpid(victim, &status, 0), victim);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_EQ(waitpid(bystander, &status, WNOHANG), 0) << "the bystander was signalled";
    kill(bystander, SIGKILL);
    waitpid(bystander, &status, 0);
    // Stop does not clean up after a service: the marker stays.
    EXPECT_EQ(sim::service_markers(), std::vector<std::string>{marker});
}

}  // namespace
