// The simulated zdt and phyprobe in tools/sim, run through the shell as the
// provider runs them.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
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
    for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
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
    std::string operator[](const std::string &name) const {
        for (size_t i = 0; i < header.size() && i < values.size(); ++i)
            if (header[i] == name) return values[i];
        ADD_FAILURE() << "no column " << name;
        return "";
    }
};
Csv read_csv(const std::string &path) {
    std::string text = read_file(path);
    Lines lines = split(text, '\n');
    EXPECT_EQ(lines.size(), 3u) << text;
    EXPECT_EQ(lines.back(), "") << text;
    if (lines.size() < 2) return {};
    return {split(lines[0], ','), split(lines[1], ',')};
}

// Digits without a leading zero, or "0".
bool is_uint(const std::string &s) {
    return !s.empty() && s.find_first_not_of("0123456789") == std::string::npos &&
           (s == "0" || s[0] != '0');
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
    const char raw[] = "PCI devices:\n\x01\x02\0\xff\r\nno final line feed";
    const std::string bytes(raw, sizeof raw - 1);
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

// The standard file of a 4-lane port: the same header line for every device
// and run, values that change from run to run but never change their kind,
// so a device's event type holds. Other header variants for other models.
TEST_F(Simulators, PhyprobeHeaderVariants) {
    sim::set_phyprobe_knob("HEADER", "alt", "tg1");
    sim::set_phyprobe_knob("HEADER", "min", "tg2");
    for (const char *f : {"arx0 a1", "arx0 a2", "tg1 t1", "tg2 t2"}) {
        Lines w = split(f, ' ');
        ASSERT_EQ(run(oneshot(w[0], "/tmp/" + w[1] + ".csv")).status, 0);
    }
    Csv a1 = read_csv("/tmp/a1.csv"), a2 = read_csv("/tmp/a2.csv"), alt = read_csv("/tmp/t1.csv");
    ASSERT_EQ(a1.header.size(), a1.values.size());
    EXPECT_EQ(a1.header, a2.header);
    for (const char *name :
         {"FW_Version", "Raw_Errors_Lane[0]", "Raw_Errors_Lane[3]", "Raw_BER_Lane[2]",
          "Effective_Physical_BER", "Symbol_BER", "hist_bin_0", "hist_bin_15", "Temperature",
          "module_temperature", "Lane_Count", "Tx_Bias<mA>", "Supply/Voltage<mV>", "Rx_Power[dBm]"})
        EXPECT_NE(std::find(a1.header.begin(), a1.header.end(), name), a1.header.end()) << name;
    EXPECT_EQ(std::count(a1.header.begin(), a1.header.end(), "Status"), 2);
    // A plain decimal: no leading zero, one fraction digit 1-9.
    auto plain_decimal = [](const std::string &v) {
        return v.size() > 2 && v[0] != '0' && is_uint(v.substr(0, v.size() - 2)) &&
               v[v.size() - 2] == '.' && v.back() >= '1' && v.back() <= '9';
    };
    for (size_t i = 0; i < a1.header.size(); ++i) {
        const std::string &h = a1.header[i];
        if (h.rfind("Raw_Errors", 0) == 0 || h.rfind("hist_bin", 0) == 0 || h == "Lane_Count" ||
            h == "module_temperature") {
            EXPECT_TRUE(is_uint(a1.values[i])) << h << "=" << a1.values[i];
        }
    }
    EXPECT_TRUE(plain_decimal(a1["Temperature"])) << a1["Temperature"];
    EXPECT_TRUE(plain_decimal(a1["Tx_Bias<mA>"])) << a1["Tx_Bias<mA>"];
    EXPECT_EQ(a1["Device"], "arx0");
    EXPECT_LT(std::stoul(a1["Raw_Errors_Lane[0]"]), std::stoul(a2["Raw_Errors_Lane[0]"]));
    EXPECT_NE(a1.header, alt.header);
    EXPECT_EQ(alt.header.size(), alt.values.size());
    EXPECT_EQ(alt["Device"], "tg1");
    EXPECT_EQ(read_csv("/tmp/t2.csv").header,
              (Lines{"Device", "FW_Version", "Temperature", "Raw_Errors_Lane[0]"}));
    sim::set_phyprobe_knob("HEADER", "bogus");
    EXPECT_EQ(run(oneshot("arx0", "/tmp/x.csv") + " 2>/dev/null").status, 2);
}

TEST_F(Simulators, PhyprobeRefusesUnknownDevicesAndBadUsage) {
    EXPECT_EQ(run(oneshot("nope", "/tmp/n.csv") + " 2>/dev/null").status, 3);
    sim::add_zdt_char_device("unlisted");  // an entry, but not a configured adapter
    EXPECT_EQ(run(oneshot("unlisted", "/tmp/n.csv") + " 2>/dev/null").status, 3);
    for (const char *args : {"", "-d /dev/zdt/arx0", "--tarvik_collect /tmp/n.csv",
                             "-d /dev/zdt/arx0 --tarvik_collect /tmp/n.csv --bogus",
                             "-d /dev/zdt/arx0 --tarvik_collect /tmp/n.csv --service_start 1",
                             "-d /dev/zdt/arx0 --tarvik_collect /tmp/n.csv --service_start x "
                             "--service_iterations 1"})
        EXPECT_EQ(run(std::string("phyprobe ") + args + " 2>/dev/null").status, 2) << args;
    EXPECT_FALSE(exists("/tmp/n.csv"));
}

TEST_F(Simulators, PhyprobeDescriptorReport) {
    std::string log = sim::enable_phyprobe_fd_log();
    ASSERT_EQ(run("exec 7</dev/zero; " + oneshot("arx0", "/tmp/f.csv") + " </dev/null").status, 0);
    Lines lines = sim::read_lines(log);
    ASSERT_FALSE(lines.empty());
    EXPECT_TRUE(lines[0].rfind("== ", 0) == 0 && is_uint(lines[0].substr(3))) << lines[0];
    EXPECT_NE(std::find(lines.begin(), lines.end(), "0 /dev/null"), lines.end());
    EXPECT_NE(std::find(lines.begin(), lines.end(), "7 /dev/zero"), lines.end());
    for (const auto &fd : lines) EXPECT_NE(fd.rfind("255 ", 0), 0u) << fd;
}

TEST_F(Simulators, PhyprobeKnobs) {
    const std::string plain = "h1,h2\narx0:1,1\n";
    struct Case {
        const char *what;
        std::vector<std::pair<const char *, const char *>> knobs;
        std::string tail;  // the collection file and the options after it
        int status;
        std::string content;  // the file's bytes ("-": no file), or its head when size is set
        int runs = 1;
        long size = -1;
        const char *prefix = "";
    } cases[] = {
        {"plain", {}, "/tmp/k.csv --tarvik_rewrite", 0, plain},
        {"appends without --tarvik_rewrite", {}, "/tmp/k.csv", 0, plain + "arx0:2,1\n", 2},
        {"exit code", {{"EXIT", "4"}}, "/tmp/k.csv --tarvik_rewrite", 4, "-"},
        {"crash mid-write", {{"CRASH", "8"}}, "/tmp/k.csv --tarvik_rewrite", 137, "h1,h2\nar"},
        {"CR LF", {{"CRLF", "1"}}, "/tmp/k.csv --tarvik_rewrite", 0, "h1,h2\r\narx0:1,1\r\n"},
        {"no value line", {{"NO_VALUE", "1"}}, "/tmp/k.csv --tarvik_rewrite", 0, "h1,h2\n"},
        {"header run fails", {{"FAIL_HEADER_RUN", "5"}}, "/tmp/khdr.csv", 5, "-"},
        {"only the header run fails", {{"FAIL_HEADER_RUN", "5"}}, "/tmp/k.csv", 0, plain},
        {"service failure spares one-shot runs", {{"SERVICE_EXIT", "6"}}, "/tmp/k.csv", 0, plain},
        {"extra values", {{"EXTRA_VALUES", "2"}}, "/tmp/k.csv", 0, "h1,h2\narx0:1,1,1,2\n"},
        {"missing value", {{"EXTRA_VALUES", "-1"}}, "/tmp/k.csv", 0, "h1,h2\narx0:1\n"},
        {"extra value from the second run on",
         {{"EXTRA_VALUES", "1"}, {"EXTRA_AFTER", "1"}},
         "/tmp/k.csv",
         0,
         plain + "arx0:2,1,2\n",
         2},
        {"hang cut by timeout", {{"HANG", "600"}}, "/tmp/k.csv", 124, "-", 1, -1, "timeout 1 "},
        {"per-device setting wins", {{"EXIT", "4"}, {"EXIT__arx0", "0"}}, "/tmp/k.csv", 0, plain},
        {"other device's setting ignored", {{"EXIT__tg1", "4"}}, "/tmp/k.csv", 0, plain},
        {"garbage value line", {{"GARBAGE", "300"}}, "/tmp/k.csv", 0, "h1,h2\n", 1, 6 + 300 + 1},
        {"oversize", {{"OVERSIZE", "52428801"}}, "/tmp/k.csv", 0, plain, 1, 52428801},
        {"service",
         {{"SERVICE_SLEEP", "0.05"}},
         "/tmp/k.csv --tarvik_rewrite --service_start 30 --service_iterations 3",
         0,
         "h1,h2\narx0:3,3\n"},
        {"service exits at once",
         {{"SERVICE_EXIT", "6"}},
         "/tmp/k.csv --service_start 1 --service_iterations 3",
         6,
         "-"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        sim::reset();
        sim::add_device("arx0", "arcline", "eth0");
        sim::set_phyprobe_knob("HEADER_LINE", "h1,h2");
        sim::set_phyprobe_knob("VALUE_LINE", "{dev}:{run},{iter}");
        for (const auto &k : c.knobs)
            setenv((std::string("PHYPROBE_SIM_") + k.first).c_str(), k.second, 1);
        const std::string out = c.tail.substr(0, c.tail.find(' '));
        unlink(out.c_str());
        for (int i = 0; i < c.runs; ++i) {
            Result r = run(c.prefix + ("phyprobe -d /dev/zdt/arx0 --tarvik_collect " + c.tail) +
                           " 2>/dev/null");
            EXPECT_EQ(r.status, c.status);
        }
        EXPECT_EQ(sim::phyprobe_argv_log().size(), size_t(c.runs));
        EXPECT_TRUE(sim::service_markers().empty());
        if (c.content == "-") {
            EXPECT_FALSE(exists(out));
        } else if (c.size < 0) {
            EXPECT_EQ(read_file(out), c.content);
        } else {
            std::string got = read_file(out);
            EXPECT_EQ(got.size(), size_t(c.size));
            EXPECT_EQ(got.substr(0, c.content.size()), c.content);
        }
        unlink(out.c_str());
    }
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
