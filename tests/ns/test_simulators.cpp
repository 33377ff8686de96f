// The simulated zdt and phyprobe in tools/sim, run through the shell as the
// provider runs them.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "sim.h"
#include "test_paths.h"

namespace sim = vyrtest::sim;
using vyrtest::read_file;
using Lines = std::vector<std::string>;

namespace {

struct Result {
    int status;  // exit code, or 128 + signal
    std::string out;
};

Result run(const std::string &command) {
    Result r{-1, ""};
    FILE *p = popen(command.c_str(), "r");
    if (!p) return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    return r;
}

Lines split(const std::string &text, char sep) {
    Lines out;
    size_t start = 0;
    for (size_t at; (at = text.find(sep, start)) != std::string::npos; start = at + 1)
        out.push_back(text.substr(start, at - start));
    out.push_back(text.substr(start));
    return out;
}

bool exists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

// A collection file as header and value line; fails unless it is exactly two
// LF-terminated lines.
struct Csv {
    Lines header, values;
};
Csv read_csv(const std::string &path) {
    std::string text = read_file(path);
    Lines lines = split(text, '\n');
    EXPECT_EQ(lines.size(), 3u) << text;
    EXPECT_EQ(lines.back(), "") << text;
    if (lines.size() < 2) return {};
    return {split(lines[0], ','), split(lines[1], ',')};
}

std::string column(const Csv &csv, const std::string &name) {
    for (size_t i = 0; i < csv.header.size() && i < csv.values.size(); ++i)
        if (csv.header[i] == name) return csv.values[i];
    ADD_FAILURE() << "no column " << name;
    return "";
}

std::string oneshot(const std::string &device, const std::string &out) {
    return "phyprobe -d /dev/zdt/" + device + " --tarvik_collect " + out + " --tarvik_rewrite";
}

class Simulators : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::reset();
        sim::add_device("arx0", "arcline", "eth0");
        sim::add_device("tg1", "tidegate", "eth1");
        sim::add_device("tg2", "tidegate", "eth2");
    }
};

TEST_F(Simulators, ZdtVerboseReport) {
    sim::set_zdt_devices(
        "arx0,arcline,eth0; tg1,tidegate,eth1+eth2 ;oth0,other,-;"
        "cust,Fooline(rev:9),eth9,81:00.1,fx_7,3;;");
    Result r = run("zdt status -v");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out,
              "ZDT modules:\n"
              "------------\n"
              "    ZDT PCI module is not loaded\n"
              "    ZDT PCI configuration module loaded\n"
              "\n"
              "PCI devices:\n"
              "------------\n"
              "DEVICE_TYPE             ZDT                           PCI       RDMA            NET"
              "                                     NUMA\n"
              "Arcline-X(rev:0)        /dev/zdt/arx0                 04:00.0   arx_0           "
              "net-eth0                                0\n"
              "Tidegate(rev:a0)        /dev/zdt/tg1                  05:00.0   arx_1           "
              "net-eth1,net-eth2                       1\n"
              "Brinefly(rev:0)         /dev/zdt/oth0                 06:00.0   arx_2           "
              "-                                       0\n"
              "Fooline(rev:9)          /dev/zdt/cust                 81:00.1   fx_7            "
              "net-eth9                                3\n"
              "\n"
              "Cable devices:\n"
              "---------------\n"
              "arx0_cable_0\n"
              "tg1_cable_0\n"
              "oth0_cable_0\n"
              "cust_cable_0\n");
    EXPECT_EQ(sim::zdt_calls(), Lines{"zdt status -v"});
}

TEST_F(Simulators, ZdtScriptedReportExitAndUsage) {
    std::string bytes = "PCI devices:\n\x01\x02";
    bytes += '\0';
    bytes += "\xff\r\nno final line feed";
    sim::set_zdt_report(bytes);
    setenv("ZDT_SIM_EXIT", "4", 1);
    Result r = run("zdt status -v");
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.out, bytes);

    EXPECT_EQ(run("zdt status -x 2>/dev/null").status, 2);
    EXPECT_EQ(run("zdt 2>/dev/null").status, 2);
    EXPECT_EQ(sim::zdt_calls(), (Lines{"zdt status -v", "zdt status -x", "zdt"}));

    unsetenv("ZDT_SIM_REPORT_FILE");
    sim::set_zdt_devices("");
    r = run("zdt status -v");
    EXPECT_NE(r.out.find("PCI devices:\n------------\nDEVICE_TYPE"), std::string::npos);
    EXPECT_NE(r.out.find("NUMA\n\nCable devices:\n---------------\n"), std::string::npos) << r.out;
}

// start/stop make the configured device entries, and refuse outside the
// test namespace so they can never write into the host's /dev.
TEST_F(Simulators, ZdtStartStop) {
    sim::clear_zdt_dir();
    sim::set_zdt_devices("a,arcline,eth0;b,tidegate,-");
    EXPECT_EQ(run("env -u VYR_TEST_NAMESPACE zdt start 2>/dev/null").status, 1);
    EXPECT_TRUE(sim::zdt_entries().empty());

    EXPECT_EQ(run("zdt start").status, 0);
    EXPECT_EQ(sim::zdt_entries(), (Lines{"a", "b"}));
    struct stat st;
    ASSERT_EQ(stat("/dev/zdt/a", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));

    EXPECT_EQ(run("zdt stop").status, 0);
    EXPECT_TRUE(sim::zdt_entries().empty());
}

TEST_F(Simulators, PhyprobeStandardFile) {
    ASSERT_EQ(run(oneshot("arx0", "/tmp/a1.csv")).status, 0);
    ASSERT_EQ(run(oneshot("arx0", "/tmp/a2.csv")).status, 0);
    ASSERT_EQ(run(oneshot("tg1", "/tmp/t1.csv")).status, 0);
    Csv a1 = read_csv("/tmp/a1.csv"), a2 = read_csv("/tmp/a2.csv"), t1 = read_csv("/tmp/t1.csv");

    ASSERT_EQ(a1.header.size(), a1.values.size());
    EXPECT_EQ(a1.header, a2.header);
    EXPECT_EQ(a1.header, t1.header);  // the same model gives the same header line
    for (const char *name :
         {"FW_Version", "Raw_Errors_Lane[0]", "Raw_Errors_Lane[3]", "Raw_BER_Lane[2]",
          "Effective_Physical_BER", "Symbol_BER", "hist_bin_0", "hist_bin_15", "Temperature",
          "module_temperature", "Lane_Count", "Tx_Bias<mA>", "Supply/Voltage<mV>", "Rx_Power[dBm]"})
        EXPECT_NE(std::find(a1.header.begin(), a1.header.end(), name), a1.header.end()) << name;
    EXPECT_EQ(std::count(a1.header.begin(), a1.header.end(), "Status"), 2);

    const std::regex uint("0|[1-9][0-9]*"), plain_decimal("[1-9][0-9]*\\.[1-9]");
    for (size_t i = 0; i < a1.header.size(); ++i) {
        const std::string &h = a1.header[i];
        if (h.rfind("Raw_Errors", 0) == 0 || h.rfind("hist_bin", 0) == 0 || h == "Lane_Count" ||
            h == "module_temperature") {
            EXPECT_TRUE(std::regex_match(a1.values[i], uint)) << h << "=" << a1.values[i];
        }
    }
    EXPECT_TRUE(std::regex_match(column(a1, "Temperature"), plain_decimal));
    EXPECT_TRUE(std::regex_match(column(a1, "Tx_Bias<mA>"), plain_decimal));
    EXPECT_EQ(column(a1, "Device"), "arx0");
    EXPECT_EQ(column(t1, "Device"), "tg1");
    // error counters grow from run to run
    EXPECT_LT(std::stoul(column(a1, "Raw_Errors_Lane[0]")),
              std::stoul(column(a2, "Raw_Errors_Lane[0]")));
}

TEST_F(Simulators, PhyprobeHeaderVariants) {
    sim::set_phyprobe_knob("HEADER", "alt", "tg1");
    sim::set_phyprobe_knob("HEADER", "min", "tg2");
    for (const char *dev : {"arx0", "tg1", "tg2"})
        ASSERT_EQ(run(oneshot(dev, std::string("/tmp/") + dev + ".csv")).status, 0);
    Csv std_csv = read_csv("/tmp/arx0.csv"), alt = read_csv("/tmp/tg1.csv"),
        min = read_csv("/tmp/tg2.csv");
    EXPECT_NE(std_csv.header, alt.header);
    EXPECT_EQ(alt.header.size(), alt.values.size());
    EXPECT_EQ(min.header, (Lines{"Device", "FW_Version", "Temperature", "Raw_Errors_Lane[0]"}));

    sim::set_phyprobe_knob("HEADER", "bogus");
    EXPECT_EQ(run(oneshot("arx0", "/tmp/x.csv") + " 2>/dev/null").status, 2);

    // custom lines, placeholders filled per run
    sim::clear_phyprobe_knob("HEADER");
    sim::set_phyprobe_knob("HEADER_LINE", "dev,run,iter,r");
    sim::set_phyprobe_knob("VALUE_LINE", "{dev},{run},{iter},{rand}");
    ASSERT_EQ(run(oneshot("tg2", "/tmp/c.csv")).status, 0);
    Csv c = read_csv("/tmp/c.csv");
    EXPECT_EQ(c.header, (Lines{"dev", "run", "iter", "r"}));
    ASSERT_EQ(c.values.size(), 4u);
    EXPECT_EQ(c.values[0], "tg2");
    EXPECT_EQ(c.values[1], "2");  // the second file written for tg2
    EXPECT_EQ(c.values[2], "1");
    sim::clear_phyprobe_knob("VALUE_LINE");
    ASSERT_EQ(run(oneshot("tg2", "/tmp/c.csv")).status, 0);
    EXPECT_EQ(read_csv("/tmp/c.csv").values.size(), 4u);  // a random number per column
}

TEST_F(Simulators, PhyprobeRefusesUnknownDevicesAndBadUsage) {
    EXPECT_EQ(run(oneshot("nope", "/tmp/n.csv") + " 2>/dev/null").status, 3);
    sim::add_zdt_char_device("unlisted");  // an entry, but not a configured adapter
    EXPECT_EQ(run(oneshot("unlisted", "/tmp/n.csv") + " 2>/dev/null").status, 3);
    EXPECT_FALSE(exists("/tmp/n.csv"));

    for (const char *args : {"", "-d /dev/zdt/arx0", "--tarvik_collect /tmp/n.csv",
                             "-d /dev/zdt/arx0 --tarvik_collect /tmp/n.csv --bogus",
                             "-d /dev/zdt/arx0 --tarvik_collect /tmp/n.csv --service_start 1",
                             "-d /dev/zdt/arx0 --tarvik_collect /tmp/n.csv --service_start x "
                             "--service_iterations 1"})
        EXPECT_EQ(run(std::string("phyprobe ") + args + " 2>/dev/null").status, 2) << args;
    EXPECT_FALSE(exists("/tmp/n.csv"));
}

// The argv log shows exactly what the provider's shell commands pass.
TEST_F(Simulators, PhyprobeArgvLog) {
    ASSERT_EQ(run("timeout 3 phyprobe -d /dev/zdt/arx0 --tarvik_collect "
                  "/tmp/tarvik_collect_arx0hdr.csv > /dev/null")
                  .status,
              0);
    ASSERT_EQ(run(oneshot("arx0", "/tmp/tarvik_collect_arx0.csv") + " > /dev/null").status, 0);
    sim::set_phyprobe_knob("SERVICE_SLEEP", "0");
    ASSERT_EQ(run(oneshot("arx0", "/tmp/tarvik_collect_arx0.csv") +
                  " --service_start 30 --service_iterations 2 > /dev/null")
                  .status,
              0);
    EXPECT_EQ(sim::phyprobe_argv_log(),
              (Lines{"phyprobe -d /dev/zdt/arx0 --tarvik_collect /tmp/tarvik_collect_arx0hdr.csv",
                     "phyprobe -d /dev/zdt/arx0 --tarvik_collect /tmp/tarvik_collect_arx0.csv "
                     "--tarvik_rewrite",
                     "phyprobe -d /dev/zdt/arx0 --tarvik_collect /tmp/tarvik_collect_arx0.csv "
                     "--tarvik_rewrite --service_start 30 --service_iterations 2"}));
}

TEST_F(Simulators, PhyprobeDescriptorReport) {
    std::string log = sim::enable_phyprobe_fd_log();
    ASSERT_EQ(run("exec 7</dev/zero; " + oneshot("arx0", "/tmp/f.csv") + " </dev/null").status, 0);
    Lines lines = sim::read_lines(log);
    ASSERT_FALSE(lines.empty());
    EXPECT_TRUE(std::regex_match(lines[0], std::regex("== [0-9]+"))) << lines[0];
    Lines fds(lines.begin() + 1, lines.end());
    EXPECT_NE(std::find(fds.begin(), fds.end(), "0 /dev/null"), fds.end());
    EXPECT_NE(std::find(fds.begin(), fds.end(), "7 /dev/zero"), fds.end());
    for (const auto &fd : fds) EXPECT_NE(fd.rfind("255 ", 0), 0u) << fd;
}

// Without --tarvik_rewrite a value line is added to an existing file.
TEST_F(Simulators, PhyprobeAppendsWithoutRewrite) {
    sim::set_phyprobe_knob("HEADER_LINE", "a,b");
    sim::set_phyprobe_knob("VALUE_LINE", "{run},{iter}");
    std::string cmd = "phyprobe -d /dev/zdt/arx0 --tarvik_collect /tmp/p.csv";
    ASSERT_EQ(run(cmd).status, 0);
    ASSERT_EQ(run(cmd).status, 0);
    EXPECT_EQ(read_file("/tmp/p.csv"), "a,b\n1,1\n2,1\n");
    ASSERT_EQ(run(cmd + " --tarvik_rewrite").status, 0);
    EXPECT_EQ(read_file("/tmp/p.csv"), "a,b\n3,1\n");
}

TEST_F(Simulators, PhyprobeFaultKnobs) {
    struct Case {
        const char *what;
        std::vector<std::pair<const char *, const char *>> knobs;
        std::string out;  // file to write
        int status;
        std::string content;  // expected file bytes; "-" for no file
        const char *prefix = "";
    } cases[] = {
        {"plain", {}, "/tmp/k.csv", 0, "h1,h2\n1,1\n"},
        {"exit code", {{"EXIT", "4"}}, "/tmp/k.csv", 4, "-"},
        {"crash mid-write", {{"CRASH", "8"}}, "/tmp/k.csv", 137, "h1,h2\n1,"},
        {"crash half way", {{"CRASH", "half"}}, "/tmp/k.csv", 137, "h1,h2"},
        {"CR LF", {{"CRLF", "1"}}, "/tmp/k.csv", 0, "h1,h2\r\n1,1\r\n"},
        {"no value line", {{"NO_VALUE", "1"}}, "/tmp/k.csv", 0, "h1,h2\n"},
        {"header run fails", {{"FAIL_HEADER_RUN", "5"}}, "/tmp/khdr.csv", 5, "-"},
        {"only the header run fails", {{"FAIL_HEADER_RUN", "5"}}, "/tmp/k.csv", 0, "h1,h2\n1,1\n"},
        {"service failure spares one-shot runs",
         {{"SERVICE_EXIT", "6"}},
         "/tmp/k.csv",
         0,
         "h1,h2\n1,1\n"},
        {"extra value", {{"EXTRA_VALUES", "2"}}, "/tmp/k.csv", 0, "h1,h2\n1,1,1,2\n"},
        {"missing value", {{"EXTRA_VALUES", "-1"}}, "/tmp/k.csv", 0, "h1,h2\n1\n"},
        {"extra values only later",
         {{"EXTRA_VALUES", "1"}, {"EXTRA_AFTER", "1"}},
         "/tmp/k.csv",
         0,
         "h1,h2\n1,1\n"},
        {"hang is cut by timeout", {{"HANG", "600"}}, "/tmp/k.csv", 124, "-", "timeout 1 "},
        {"per-device setting wins",
         {{"EXIT", "4"}, {"EXIT__arx0", "0"}},
         "/tmp/k.csv",
         0,
         "h1,h2\n1,1\n"},
        {"other device's setting ignored", {{"EXIT__tg1", "4"}}, "/tmp/k.csv", 0, "h1,h2\n1,1\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        sim::reset();
        unlink(c.out.c_str());
        sim::add_device("arx0", "arcline", "eth0");
        sim::set_phyprobe_knob("HEADER_LINE", "h1,h2");
        sim::set_phyprobe_knob("VALUE_LINE", "{run},{iter}");
        for (const auto &k : c.knobs)
            setenv((std::string("PHYPROBE_SIM_") + k.first).c_str(), k.second, 1);
        Result r = run(c.prefix + oneshot("arx0", c.out) + " 2>/dev/null");
        EXPECT_EQ(r.status, c.status);
        if (c.content == "-") {
            EXPECT_FALSE(exists(c.out));
        } else {
            ASSERT_TRUE(exists(c.out));
            EXPECT_EQ(read_file(c.out), c.content);
        }
        EXPECT_EQ(sim::phyprobe_argv_log().size(), 1u);
    }
}

TEST_F(Simulators, PhyprobeBulkKnobs) {
    sim::set_phyprobe_knob("HEADER_LINE", "h1,h2");
    sim::set_phyprobe_knob("GARBAGE", "300");
    ASSERT_EQ(run(oneshot("arx0", "/tmp/g.csv")).status, 0);
    std::string g = read_file("/tmp/g.csv");
    ASSERT_EQ(g.size(), 6u + 300u + 1u);
    EXPECT_EQ(g.substr(0, 6), "h1,h2\n");
    EXPECT_EQ(g.back(), '\n');

    sim::clear_phyprobe_knob("GARBAGE");
    sim::set_phyprobe_knob("OVERSIZE", "52428801");
    ASSERT_EQ(run(oneshot("arx0", "/tmp/o.csv")).status, 0);
    struct stat st;
    ASSERT_EQ(stat("/tmp/o.csv", &st), 0);
    EXPECT_EQ(st.st_size, 52428801);
    std::ifstream o("/tmp/o.csv");
    std::string line;
    ASSERT_TRUE(std::getline(o, line));
    EXPECT_EQ(line, "h1,h2");
    unlink("/tmp/o.csv");

    // the later-runs knob: from the fourth file written on, one more value
    sim::clear_phyprobe_knob("OVERSIZE");
    sim::set_phyprobe_knob("EXTRA_VALUES", "1");
    sim::set_phyprobe_knob("EXTRA_AFTER", "3");
    ASSERT_EQ(run(oneshot("arx0", "/tmp/e.csv")).status, 0);
    EXPECT_EQ(read_csv("/tmp/e.csv").values.size(), 2u);
    ASSERT_EQ(run(oneshot("arx0", "/tmp/e.csv")).status, 0);
    EXPECT_EQ(read_csv("/tmp/e.csv").values.size(), 3u);
}

TEST_F(Simulators, ServiceRunsItsIterationsAndRemovesItsMarker) {
    sim::set_phyprobe_knob("HEADER_LINE", "iter,run");
    sim::set_phyprobe_knob("VALUE_LINE", "{iter},{run}");
    sim::set_phyprobe_knob("SERVICE_SLEEP", "0.05");
    Result r = run(oneshot("arx0", "/tmp/s.csv") + " --service_start 30 --service_iterations 3");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(read_file("/tmp/s.csv"), "iter,run\n3,3\n");
    EXPECT_TRUE(sim::service_markers().empty());

    sim::set_phyprobe_knob("SERVICE_EXIT", "6");
    r = run(oneshot("arx0", "/tmp/s2.csv") +
            " --service_start 1 --service_iterations 3 2>/dev/null");
    EXPECT_EQ(r.status, 6);
    EXPECT_FALSE(exists("/tmp/s2.csv"));
    EXPECT_TRUE(sim::service_markers().empty());
}

// The marker names the process that the provider's shell started, so signal 9
// to that id ends the provider's command.
TEST_F(Simulators, ServiceMarkerNamesTheKillableProcess) {
    std::string cmd = oneshot("arx0", "/tmp/tarvik_collect_arx0.csv") +
                      " --service_start 600 --service_iterations 10 > /dev/null";
    pid_t shell = fork();
    ASSERT_GE(shell, 0);
    if (shell == 0) {
        execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    // generous hang guards only; nothing here measures time
    Lines markers;
    for (int i = 0; i < 3000 && (markers.empty() || !exists("/tmp/tarvik_collect_arx0.csv")); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        markers = sim::service_markers();
    }
    ASSERT_EQ(markers.size(), 1u);
    pid_t pid = std::stoi(markers[0].substr(std::string("phyprobe_service_").size()));
    ASSERT_GT(pid, 0);
    kill(pid, SIGKILL);

    int status = 0;
    pid_t done = 0;
    for (int i = 0; i < 3000 && done == 0; ++i) {
        done = waitpid(shell, &status, WNOHANG);
        if (done == 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (done == 0) {
        kill(shell, SIGKILL);
        waitpid(shell, &status, 0);
        FAIL() << "killing pid " << pid << " did not end the service command";
    }
    EXPECT_TRUE((WIFEXITED(status) && WEXITSTATUS(status) == 137) ||
                (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL));
    // a killed service cannot clean up: its marker stays
    EXPECT_EQ(sim::service_markers(), markers);
}

// Rewrites go through a rename: a reader never sees a half-written file.
TEST_F(Simulators, ServiceRewritesAtomically) {
    sim::set_phyprobe_knob("SERVICE_SLEEP", "0");
    pid_t service = fork();
    ASSERT_GE(service, 0);
    if (service == 0) {
        std::string cmd = oneshot("arx0", "/tmp/r.csv") +
                          " --service_start 1 --service_iterations 60 > /dev/null";
        execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    int reads = 0, status = 0;
    while (waitpid(service, &status, WNOHANG) == 0) {
        std::ifstream in("/tmp/r.csv", std::ios::binary);
        if (!in) continue;
        std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        Lines lines = split(text, '\n');
        ASSERT_EQ(lines.size(), 3u) << text;
        ASSERT_EQ(split(lines[0], ',').size(), split(lines[1], ',').size()) << text;
        ++reads;
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_GT(reads, 0);
    EXPECT_TRUE(sim::service_markers().empty());
}

}  // namespace
