// Device enumeration against the simulated zdt, /dev/zdt entries and sysfs
// files made inside the test namespace.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "device_utils.h"
#include "log_capture.h"
#include "sim.h"
#include "test_paths.h"

using vyr::common::device_utils_get_hca_protocol;
using vyr::common::device_utils_get_zdt_hca_names;
using vyr::common::is_zdt_dir_empty;
using vyrtest::LogCapture;
using Names = std::vector<std::string>;
namespace sim = vyrtest::sim;

namespace {

const int kErr = VYR_LOG_LEVEL_ERROR;
const int kWarn = VYR_LOG_LEVEL_WARNING;
const int kInfo = VYR_LOG_LEVEL_INFO;
const int kDebug = VYR_LOG_LEVEL_DEBUG;

const std::string kNoDevices = "[device_utils]  No valid devices found";
const std::string kEmptyDir =
    "[device_utils] No ZDT devices in /dev/zdt. Please run 'zdt start' to create devices.";
const std::string kMissingDir = "[device_utils] /dev/zdt is empty or does not exist";

std::string not_found(const std::string &name) {
    return "[device_utils]  Skipping device " + name + ": /dev/zdt entry not found";
}
std::string not_ethernet(const std::string &path) {
    return "[device_utils]  Skipping device " + path + ": not Ethernet-capable";
}
std::string no_sysfs_type(const std::string &ifname) {
    return "[device_utils] Could not read sysfs type for device " + ifname;
}

// The head of a report up to the column headings, as the real tool prints it.
const std::string kHead =
    "ZDT modules:\n------------\n    ZDT PCI module is not loaded\n\n"
    "PCI devices:\n------------\n"
    "DEVICE_TYPE             ZDT                           PCI       RDMA      NET       NUMA\n";

std::string device_line(const std::string &type, const std::string &path, const std::string &net) {
    return type + "    " + path + "    04:00.0   arx_0     " + net + "    0\n";
}

class DeviceUtils : public ::testing::Test {
  protected:
    void SetUp() override { sim::reset(); }

    // Runs the enumeration, starting from a list that must be replaced.
    bool enumerate(bool ethernet_only = false) {
        names_ = {"stale"};
        return device_utils_get_zdt_hca_names(names_, ethernet_only);
    }

    LogCapture log_{VYR_LOG_LEVEL_DEBUG};
    Names names_;
};

TEST_F(DeviceUtils, ListsSupportedFamiliesInReportOrder) {
    sim::add_device("tg1_pciconf0", "tidegate", "eth1");
    sim::add_device("arx0_pciconf0", "arcline", "eth0");
    sim::add_device("oth0", "other", "eth2");
    sim::add_device("ary3", "arcline-y", "");

    ASSERT_TRUE(enumerate()) << log_.dump();
    EXPECT_EQ(names_, (Names{"tg1_pciconf0", "arx0_pciconf0", "ary3"}));
    EXPECT_EQ(sim::zdt_calls(), Names{"zdt status -v"});
    for (const auto &line : log_.lines()) EXPECT_GT(line.level, kWarn) << log_.dump();
}

// ethernet_only decides only through the interface's sysfs type.
TEST_F(DeviceUtils, EthernetFilter) {
    sim::add_device("eth", "arcline", "eth0", 1);
    sim::add_device("ib", "arcline", "ib0", 32);
    sim::add_device("nonet", "tidegate", "");
    sim::add_device("nosysfs", "tidegate", "eth7");
    sim::remove_net("eth7");
    sim::add_device("garbled", "arcline", "eth8");
    sim::set_net_type("eth8", "one\n");

    ASSERT_TRUE(enumerate(false)) << log_.dump();
    EXPECT_EQ(names_, (Names{"eth", "ib", "nonet", "nosysfs", "garbled"}));
    EXPECT_EQ(log_.count(kWarn, no_sysfs_type("eth7")), 1u) << log_.dump();
    EXPECT_FALSE(log_.contains_fragment("not Ethernet-capable"));

    log_.clear();
    ASSERT_TRUE(enumerate(true)) << log_.dump();
    EXPECT_EQ(names_, Names{"eth"});
    EXPECT_EQ(log_.count(kWarn, no_sysfs_type("eth7")), 1u) << log_.dump();
    for (const char *path :
         {"/dev/zdt/ib", "/dev/zdt/nonet", "/dev/zdt/nosysfs", "/dev/zdt/garbled"})
        EXPECT_TRUE(log_.contains(kDebug, not_ethernet(path))) << path << "\n" << log_.dump();

    log_.clear();
    sim::set_net_type("eth0", "32\n");
    EXPECT_FALSE(enumerate(true));
    EXPECT_TRUE(names_.empty());
    EXPECT_TRUE(log_.contains(kErr, kNoDevices)) << log_.dump();
}

TEST_F(DeviceUtils, MissingZdtDirStillRunsTheCommandButFindsNoEntry) {
    sim::add_device("arx0", "arcline", "eth0");
    sim::add_device("tg1", "tidegate", "eth1");
    sim::remove_zdt_dir();

    EXPECT_FALSE(enumerate());
    EXPECT_TRUE(names_.empty());
    EXPECT_EQ(sim::zdt_calls(), Names{"zdt status -v"});
    EXPECT_TRUE(log_.contains(kInfo, kMissingDir)) << log_.dump();
    EXPECT_TRUE(log_.contains(kWarn, not_found("arx0"))) << log_.dump();
    EXPECT_TRUE(log_.contains(kWarn, not_found("tg1"))) << log_.dump();
    EXPECT_TRUE(log_.contains(kErr, kNoDevices)) << log_.dump();
}

// Only character devices and symbolic links make /dev/zdt non-empty; when it
// is empty the status command must not run and the list stays as it was.
TEST_F(DeviceUtils, EmptyZdtDirSkipsTheCommand) {
    struct Case {
        const char *what;
        void (*fill)();
        bool empty;
    } cases[] = {
        {"nothing", [] {}, true},
        {"regular files",
         [] {
             sim::add_zdt_file("arx0");
             sim::add_zdt_file("phyprobe_service_12");
         },
         true},
        {"subdirectory", [] { sim::add_zdt_subdir("arx0"); }, true},
        {"character device", [] { sim::add_zdt_char_device("arx0"); }, false},
        {"symbolic link", [] { sim::add_zdt_symlink("arx0"); }, false},
        {"dangling link", [] { sim::add_zdt_symlink("arx0", "/nowhere"); }, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        sim::reset();
        sim::set_zdt_devices("arx0,arcline,eth0");
        c.fill();
        log_.clear();
        EXPECT_EQ(is_zdt_dir_empty(), c.empty);
        EXPECT_FALSE(log_.contains_fragment("/dev/zdt is empty"));

        Names names{"untouched"};
        bool found = device_utils_get_zdt_hca_names(names, false);
        if (c.empty) {
            EXPECT_FALSE(found);
            EXPECT_EQ(names, Names{"untouched"});
            EXPECT_TRUE(log_.contains(kErr, kEmptyDir)) << log_.dump();
            EXPECT_TRUE(sim::zdt_calls().empty());
        } else {
            EXPECT_EQ(sim::zdt_calls(), Names{"zdt status -v"});
            EXPECT_FALSE(log_.contains(kErr, kEmptyDir));
        }
    }
}

TEST_F(DeviceUtils, IsZdtDirEmptyOnMissingDir) {
    sim::remove_zdt_dir();
    EXPECT_FALSE(is_zdt_dir_empty());
    EXPECT_EQ(log_.lines().size(), 1u);
    EXPECT_TRUE(log_.contains(kInfo, kMissingDir)) << log_.dump();
}

TEST_F(DeviceUtils, MissingEntryIsSkippedOthersKept) {
    sim::add_device("arx0", "arcline", "eth0");
    sim::add_device("gone", "arcline", "eth1");
    sim::add_device("tg1", "tidegate", "eth2");
    sim::remove_zdt_entry("gone");
    sim::add_zdt_symlink("linked");
    sim::set_zdt_devices("arx0,arcline,eth0;gone,arcline,eth1;linked,tidegate,-;tg1,tidegate,eth2");

    ASSERT_TRUE(enumerate()) << log_.dump();
    EXPECT_EQ(names_, (Names{"arx0", "linked", "tg1"}));
    EXPECT_EQ(log_.count(kWarn, not_found("gone")), 1u) << log_.dump();
}

TEST_F(DeviceUtils, DuplicatesKeptInReportOrder) {
    sim::add_zdt_char_device("a");
    sim::add_zdt_char_device("b");
    sim::set_zdt_devices("b,tidegate,-;a,arcline,-;b,tidegate,-");
    ASSERT_TRUE(enumerate());
    EXPECT_EQ(names_, (Names{"b", "a", "b"}));
}

// The exit status of "zdt status -v" is not looked at; its output is.
TEST_F(DeviceUtils, FailingZdtExitStatusIgnored) {
    sim::add_device("arx0", "arcline", "eth0");
    setenv("ZDT_SIM_EXIT", "3", 1);
    ASSERT_TRUE(enumerate());
    EXPECT_EQ(names_, Names{"arx0"});
}

TEST_F(DeviceUtils, NoZdtOnPathFindsNothing) {
    sim::add_zdt_char_device("arx0");
    std::string path = getenv("PATH");
    setenv("PATH", "/usr/bin:/bin", 1);
    bool found = enumerate();
    setenv("PATH", path.c_str(), 1);
    EXPECT_FALSE(found);
    EXPECT_TRUE(names_.empty());
    EXPECT_TRUE(log_.contains(kErr, kNoDevices)) << log_.dump();
}

// Scripted reports: what is listed, and which messages say why not.
TEST_F(DeviceUtils, ScriptedReports) {
    struct Case {
        const char *what;
        std::string report;
        Names expected;
        std::vector<std::pair<int, std::string>> messages;
    };
    const std::string arx0 = device_line("Arcline-X(rev:0)", "/dev/zdt/arx0", "net-eth0");
    const std::string tg1 = device_line("Tidegate(rev:a0)", "/dev/zdt/tg1", "net-eth1");
    const std::string ghost = device_line("Arcline-X(rev:0)", "/dev/zdt/ghost", "net-eth0");
    const Case cases[] = {
        {"no PCI section", "ZDT modules:\n------------\n" + arx0 + tg1, {}, {{kErr, kNoDevices}}},
        {"empty report", "", {}, {{kErr, kNoDevices}}},
        {"PCI title is the last line", "PCI devices:", {}, {{kErr, kNoDevices}}},
        {"plain",
         kHead + arx0 + tg1 + "\nCable devices:\n---------------\narx0_cable_0\n",
         {"arx0", "tg1"},
         {}},
        {"nothing read after the cable title",
         kHead + arx0 + "Cable devices:\n---------------\n" + tg1 + "PCI devices:\n-\n-\n" + tg1,
         {"arx0"},
         {}},
        {"two lines after the PCI title are discarded whatever they hold",
         "PCI devices:\n" + arx0 + tg1 + arx0,
         {"arx0"},
         {}},
        {"blank and empty lines", kHead + "\n\n" + arx0 + "\n" + tg1, {"arx0", "tg1"}, {}},
        {"family words are case-sensitive substrings",
         kHead + device_line("arcline(rev:0)", "/dev/zdt/arx0", "-") +
             device_line("TIDEGATE", "/dev/zdt/tg1", "-") +
             device_line("xTidegatex", "/dev/zdt/tg1", "-") +
             device_line("Brinefly(rev:0)", "/dev/zdt/arx0", "-"),
         {"tg1"},
         {}},
        {"path without the /dev/zdt/ prefix",
         kHead + device_line("Arcline-X(rev:0)", "/dev/zdtx/arx0", "-") +
             device_line("Arcline-X(rev:0)", "arx0", "-") + tg1,
         {"tg1"},
         {}},
        {"one-word lines", kHead + "Arcline-X(rev:0)\n/dev/zdt/arx0\n" + tg1, {"tg1"}, {}},
        {"a net column is looked up on any line",
         kHead + "net-q9\n" + device_line("Brinefly(rev:0)", "/dev/zdt/x", "net-q8") + tg1,
         {"tg1"},
         {{kWarn, no_sysfs_type("q9")}, {kWarn, no_sysfs_type("q8")}}},
        {"entry missing", kHead + ghost + arx0, {"arx0"}, {{kWarn, not_found("ghost")}}},
        {"CR LF line ends",
         "PCI devices:\r\n---\r\nDEVICE_TYPE ZDT\r\n" +
             std::string("Arcline-X(rev:0) /dev/zdt/arx0 04:00.0 arx_0 net-eth0 0\r\n") +
             "Tidegate(rev:a0) /dev/zdt/tg1 05:00.0 arx_1 net-eth1 1\r\nCable devices:\r\n" + arx0,
         {"arx0", "tg1"},
         {}},
        {"tabs separate words",
         kHead + "Arcline-X(rev:0)\t/dev/zdt/arx0\t04:00.0\tnet-eth0\t0\n",
         {"arx0"},
         {}},
        {"unreadable sysfs type names the interface",
         kHead + device_line("Arcline-X(rev:0)", "/dev/zdt/arx0", "net-eth5,net-eth6"),
         {"arx0"},
         {{kWarn, no_sysfs_type("eth5")}}},
    };
    sim::add_zdt_char_device("arx0");
    sim::add_zdt_char_device("tg1");
    sim::add_zdt_char_device("x");
    sim::set_net_type("eth0", "1\n");
    sim::set_net_type("eth1", "1\n");
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        sim::set_zdt_report(c.report);
        log_.clear();
        EXPECT_EQ(enumerate(), !c.expected.empty());
        EXPECT_EQ(names_, c.expected);
        for (const auto &m : c.messages)
            EXPECT_TRUE(log_.contains(m.first, m.second)) << log_.dump();
        size_t warnings = 0;
        for (const auto &line : log_.lines()) warnings += line.level <= kWarn;
        EXPECT_EQ(warnings, c.messages.size()) << log_.dump();
    }
}

// The report is bytes, not C strings: NUL bytes, binary noise and lines far
// longer than one read must neither end the walk early nor confuse names.
TEST_F(DeviceUtils, HostileReports) {
    sim::add_zdt_char_device("arx0");
    sim::add_zdt_char_device("tg1");
    sim::add_zdt_char_device("ar");
    sim::set_net_type("eth0", "1\n");
    sim::set_net_type("eth1", "1\n");
    const std::string arx0 = device_line("Arcline-X(rev:0)", "/dev/zdt/arx0", "net-eth0");
    const std::string tg1 = device_line("Tidegate(rev:a0)", "/dev/zdt/tg1", "net-eth1");

    std::mt19937 rng(20240601);
    std::string noise;
    for (int i = 0; i < 256 * 1024; ++i) noise += static_cast<char>(rng() & 0xff);
    std::string noise_line;  // the same noise without line feeds
    for (char c : noise) noise_line += (c == '\n') ? ' ' : c;

    struct Case {
        const char *what;
        std::string report;
        Names expected;
        std::string warning;
    } cases[] = {
        {"NUL bytes around the section",
         std::string("ZDT") + '\0' + "modules" + '\0' + "\n" + kHead + arx0 + std::string(3, '\0') +
             "\n" + tg1,
         {"arx0", "tg1"},
         ""},
        {"NUL inside a device name is not the shorter name",
         kHead + "Arcline-X(rev:0) /dev/zdt/ar" + '\0' + "x 04:00.0 net-eth0 0\n" + tg1,
         {"tg1"},
         not_found("ar")},
        {"binary noise before the section", noise + "\n" + kHead + arx0 + tg1, {"arx0", "tg1"}, ""},
        {"binary noise only", noise, {}, ""},
        {"a noise line inside the section",
         kHead + arx0 + noise_line + "\n" + tg1,
         {"arx0", "tg1"},
         ""},
        {"a megabyte-long line before the section",
         std::string(1 << 20, 'm') + "\n" + kHead + arx0 + tg1,
         {"arx0", "tg1"},
         ""},
        {"device line longer than a read piece",
         kHead + "Arcline-X(rev:0)" + std::string(3000, ' ') + "/dev/zdt/arx0" +
             std::string(3000, ' ') + "net-eth0 0\n" + tg1,
         {"arx0", "tg1"},
         ""},
        {"device name longer than a path",
         kHead + device_line("Arcline-X(rev:0)", "/dev/zdt/" + std::string(5000, 'n'), "-") + tg1,
         {"tg1"},
         not_found(std::string(5000, 'n'))},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        sim::set_zdt_report(c.report);
        log_.clear();
        EXPECT_EQ(enumerate(), !c.expected.empty());
        EXPECT_EQ(names_, c.expected);
        if (!c.warning.empty()) {
            EXPECT_TRUE(log_.contains(kWarn, c.warning)) << log_.dump();
        }
        if (c.expected.empty()) {
            EXPECT_TRUE(log_.contains(kErr, kNoDevices));
        }
    }
}

TEST_F(DeviceUtils, HcaProtocol) {
    struct Case {
        const char *what;
        const char *content;  // nullptr: no link_layer file
        bool ok, infiniband, ethernet;
        std::string warning;
    } cases[] = {
        {"Ethernet CR LF", "Ethernet\r\n", true, false, true, ""},
        {"Ethernet", "Ethernet", true, false, true, ""},
        {"InfiniBand", "InfiniBand", true, true, false, ""},
        {"InfiniBand LF", "InfiniBand\n\n", true, true, false, ""},
        {"several CRs", "Ethernet\r\r\r\n", true, false, true, ""},
        {"lower case", "ethernet\n", false, false, false,
         "[device_utils] Unknown link layer for device hca0: ethernet"},
        {"trailing blank", "Ethernet \n", false, false, false,
         "[device_utils] Unknown link layer for device hca0: Ethernet "},
        {"empty line", "\n", false, false, false,
         "[device_utils] Unknown link layer for device hca0: "},
        {"empty file", "", false, false, false,
         "[device_utils] Could not read sysfs link_layer for device hca0"},
        {"missing", nullptr, false, false, false,
         "[device_utils] Could not read sysfs link_layer for device hca0"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        sim::reset();
        if (c.content) sim::set_link_layer("hca0", c.content);
        log_.clear();
        bool ib = false, eth = false;
        EXPECT_EQ(device_utils_get_hca_protocol("hca0", ib, eth), c.ok);
        EXPECT_EQ(ib, c.infiniband);
        EXPECT_EQ(eth, c.ethernet);
        if (c.warning.empty()) {
            EXPECT_TRUE(log_.lines().empty()) << log_.dump();
        } else {
            EXPECT_EQ(log_.lines().size(), 1u) << log_.dump();
            EXPECT_TRUE(log_.contains(kWarn, c.warning)) << log_.dump();
        }
    }
}

// Only port 1 is read, and a flag already set by the caller stays set.
TEST_F(DeviceUtils, HcaProtocolPortOneOnlyAndFlagsNotCleared) {
    sim::set_link_layer("hca1", "Ethernet\n");
    std::filesystem::create_directories("/sys/class/infiniband/hca2/ports/2");
    vyrtest::write_file("/sys/class/infiniband/hca2/ports/2/link_layer", "Ethernet\n");

    bool ib = true, eth = true;
    EXPECT_FALSE(device_utils_get_hca_protocol("hca2", ib, eth));
    EXPECT_TRUE(ib);
    EXPECT_TRUE(eth);

    ib = true;
    eth = false;
    EXPECT_TRUE(device_utils_get_hca_protocol("hca1", ib, eth));
    EXPECT_TRUE(ib);
    EXPECT_TRUE(eth);
}

}  // namespace
