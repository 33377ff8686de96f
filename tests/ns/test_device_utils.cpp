// Device enumeration against the simulated zdt, /dev/zdt entries and sysfs
// files made inside the test namespace.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "device_utils.h"
#include "log_capture.h"
#include "sim.h"
#include "test_paths.h"

using vyr::common::device_utils_get_hca_protocol;
using vyr::common::device_utils_get_zdt_hca_names;
using vyr::common::is_zdt_dir_empty;
using Names = std::vector<std::string>;
using Messages = std::vector<std::pair<int, std::string>>;
namespace sim = vyrtest::sim;

namespace {

const int kErr = VYR_LOG_LEVEL_ERROR, kWarn = VYR_LOG_LEVEL_WARNING;
const int kInfo = VYR_LOG_LEVEL_INFO, kDebug = VYR_LOG_LEVEL_DEBUG;

const std::string kNoDevices = "[device_utils]  No valid devices found";
const std::string kEmptyDir =
    "[device_utils] No ZDT devices in /dev/zdt. Please run 'zdt start' to create devices.";
const std::string kMissingDir = "[device_utils] /dev/zdt is empty or does not exist";

std::string not_found(const std::string &name) {
    return "[device_utils]  Skipping device " + name + ": /dev/zdt entry not found";
}
std::string no_sysfs_type(const std::string &ifname) {
    return "[device_utils] Could not read sysfs type for device " + ifname;
}

// The head of a report up to the column headings, as the real tool prints it.
const std::string kHead =
    "ZDT modules:\n------------\n    ZDT PCI module is not loaded\n\n"
    "PCI devices:\n------------\n"
    "DEVICE_TYPE             ZDT                           PCI       RDMA      NET       NUMA\n";

std::string device_line(const std::string &type, const std::string &name,
                        const std::string &net = "-") {
    return type + "    /dev/zdt/" + name + "    04:00.0   arx_0     " + net + "    0\n";
}
const std::string kArx0 = device_line("Arcline-X(rev:0)", "arx0", "net-eth0");
const std::string kTg1 = device_line("Tidegate(rev:a0)", "tg1", "net-eth1");

class DeviceUtils : public ::testing::Test {
  protected:
    void SetUp() override { sim::reset(); }

    // Runs the enumeration, starting from a list that must be replaced.
    bool enumerate(bool ethernet_only = false) {
        names_ = {"stale"};
        return device_utils_get_zdt_hca_names(names_, ethernet_only);
    }
    Messages problems() const {
        Messages got;
        for (const auto &l : log_.lines())
            if (l.level <= kWarn) got.emplace_back(l.level, l.text);
        return got;
    }
    // The report's devices and exactly these errors and warnings.
    void expect(const Names &names, const Messages &messages) {
        EXPECT_EQ(names_, names);
        EXPECT_EQ(problems(), messages) << log_.dump();
    }

    vyrtest::LogCapture log_{kDebug};
    Names names_;
};

// The simulated zdt's own report, in report order, families by their names;
// ethernet_only decides only through the interface's sysfs type.
TEST_F(DeviceUtils, FamiliesAndEthernetFilter) {
    sim::add_device("oth0", "other", "eth2");
    sim::add_device("eth", "arcline", "eth0", 1);
    sim::add_device("ib", "arcline", "ib0", 32);
    sim::add_device("nonet", "arcline-y", "");
    sim::add_device("nosysfs", "tidegate", "eth7");
    sim::remove_net("eth7");
    sim::add_device("garbled", "arcline", "eth8");
    sim::set_net_type("eth8", "one\n");

    setenv("ZDT_SIM_EXIT", "3", 1);  // its exit status is not looked at
    ASSERT_TRUE(enumerate(false)) << log_.dump();
    expect({"eth", "ib", "nonet", "nosysfs", "garbled"}, {{kWarn, no_sysfs_type("eth7")}});
    EXPECT_EQ(sim::zdt_calls(), Names{"zdt status -v"});
    EXPECT_FALSE(log_.contains_fragment("not Ethernet-capable"));

    log_.clear();
    ASSERT_TRUE(enumerate(true)) << log_.dump();
    expect({"eth"}, {{kWarn, no_sysfs_type("eth7")}});
    EXPECT_TRUE(
        log_.contains(kDebug, "[device_utils]  Skipping device /dev/zdt/ib: not Ethernet-capable"));
}

TEST_F(DeviceUtils, MissingZdtDirStillRunsTheCommandButFindsNoEntry) {
    sim::add_device("arx0", "arcline", "eth0");
    sim::add_device("tg1", "tidegate", "eth1");
    sim::remove_zdt_dir();
    EXPECT_FALSE(is_zdt_dir_empty());
    EXPECT_TRUE(log_.lines().size() == 1 && log_.contains(kInfo, kMissingDir)) << log_.dump();
    log_.clear();
    EXPECT_FALSE(enumerate());
    EXPECT_EQ(sim::zdt_calls(), Names{"zdt status -v"});
    EXPECT_TRUE(log_.contains(kInfo, kMissingDir)) << log_.dump();
    expect({}, {{kWarn, not_found("arx0")}, {kWarn, not_found("tg1")}, {kErr, kNoDevices}});
}

// Only character devices and symbolic links make /dev/zdt non-empty; when it
// is empty the status command must not run and the list stays as it was.
TEST_F(DeviceUtils, EmptyZdtDirSkipsTheCommand) {
    const std::pair<const char *, bool> cases[] = {{"nothing", true}, {"file", true},
                                                   {"subdir", true},  {"char device", false},
                                                   {"link", false},   {"dangling link", false}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.first);
        sim::reset();
        sim::set_zdt_devices("arx0,arcline,eth0");
        const std::string what = c.first;
        if (what == "file") sim::add_zdt_file("phyprobe_service_12");
        if (what == "subdir") sim::add_zdt_subdir("arx0");
        if (what == "char device") sim::add_zdt_char_device("arx0");
        if (what.find("link") != std::string::npos)
            sim::add_zdt_symlink("arx0", what == "link" ? "/dev/null" : "/nowhere");
        log_.clear();
        EXPECT_EQ(is_zdt_dir_empty(), c.second);
        EXPECT_TRUE(log_.lines().empty());
        Names names{"untouched"};
        bool found = device_utils_get_zdt_hca_names(names, false);
        EXPECT_EQ(log_.contains(kErr, kEmptyDir), c.second) << log_.dump();
        EXPECT_EQ(sim::zdt_calls().size(), c.second ? 0u : 1u);
        EXPECT_TRUE(!c.second || (!found && names == Names{"untouched"}));
    }
}

// Scripted reports, some of them hostile: what is listed, and which messages
// say why not. The report is bytes, not C strings: NUL bytes and lines far longer than one read
// must neither end the walk early nor confuse names.
TEST_F(DeviceUtils, ScriptedReports) {
    const std::string nul(1, '\0'), ghost = device_line("Arcline-X(rev:0)", "ghost", "net-eth0");
    // Nothing found is always also the error kNoDevices.
    const struct {
        const char *what, *expected;        // the names, joined by commas
        std::string report, warnings = "";  // warnings joined by line feeds
    } cases[] = {
        {"no PCI section", "", "ZDT modules:\n------------\n" + kArx0 + kTg1},
        {"plain", "arx0,tg1",
         kHead + kArx0 + kTg1 + "\nCable devices:\n---------------\narx0_cable_0\n"},
        {"nothing read after the cable title", "arx0",
         kHead + kArx0 + "Cable devices:\n---------------\n" + kTg1 + "PCI devices:\n-\n-\n" +
             kTg1},
        {"two lines after the PCI title are discarded whatever they hold", "arx0",
         "PCI devices:\n" + kArx0 + kTg1 + kArx0},
        {"family words are case-sensitive substrings", "tg1",
         kHead + device_line("arcline(rev:0)", "arx0") + device_line("TIDEGATE", "tg1") +
             device_line("xTidegatex", "tg1") + device_line("Brinefly(rev:0)", "arx0")},
        {"a net column is looked up on any line", "tg1",
         kHead + "net-q9\n" + device_line("Brinefly(rev:0)", "x", "net-q8") + kTg1,
         no_sysfs_type("q9") + "\n" + no_sysfs_type("q8")},
        {"entry missing", "arx0", kHead + ghost + kArx0, not_found("ghost")},
        {"a symbolic link is an entry", "linked",
         kHead + device_line("Tidegate(rev:a0)", "linked")},
        {"CR LF line ends", "arx0,tg1",
         "PCI devices:\r\n---\r\nDEVICE_TYPE ZDT\r\n"
         "Arcline-X(rev:0) /dev/zdt/arx0 04:00.0 arx_0 net-eth0 0\r\n"
         "Tidegate(rev:a0) /dev/zdt/tg1 05:00.0 arx_1 net-eth1 1\r\nCable devices:\r\n" +
             kArx0},
        {"NUL inside a device name is not the shorter name", "tg1",
         kHead + "Arcline-X(rev:0) /dev/zdt/ar" + nul + "x 04:00.0 net-eth0 0\n" + kTg1,
         not_found("ar")},
        {"device line longer than a read piece", "arx0,tg1",
         kHead + "Arcline-X(rev:0)" + std::string(3000, ' ') + "/dev/zdt/arx0" +
             std::string(3000, ' ') + "net-eth0 0\n" + kTg1},
    };
    for (const char *entry : {"arx0", "tg1", "x", "ar"}) sim::add_zdt_char_device(entry);
    sim::add_zdt_symlink("linked");
    sim::set_net_type("eth0", "1\n");
    sim::set_net_type("eth1", "1\n");
    std::string name;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        sim::set_zdt_report(c.report);
        log_.clear();
        Names expected;
        for (std::stringstream in(c.expected); std::getline(in, name, ',');)
            expected.push_back(name);
        Messages messages;
        for (std::stringstream in(c.warnings); std::getline(in, name);)
            messages.emplace_back(kWarn, name);
        if (expected.empty()) messages.emplace_back(kErr, kNoDevices);
        EXPECT_EQ(enumerate(), !expected.empty());
        expect(expected, messages);
    }
    // Each device line's NET column, without "net-".
    EXPECT_EQ(vyr::common::device_utils_parse_zdt_interfaces(
                  kHead + device_line("A", "a", "net-eth1,net-eth2") + device_line("B", "b") +
                  "C /dev/zdt/c 04:00.0 x net-eth3\r\n"),
              (std::vector<std::pair<std::string, std::string>>{
                  {"a", "eth1,eth2"}, {"b", ""}, {"c", "eth3"}}));
}

TEST_F(DeviceUtils, HcaProtocol) {
    const std::string unknown = "[device_utils] Unknown link layer for device hca0: ";
    const std::string unread = "[device_utils] Could not read sysfs link_layer for device hca0";
    // Link layer file (nullptr: none) and what it gives: E Ethernet, I
    // InfiniBand, U unknown (the warning names the text), R unreadable.
    const std::pair<const char *, char> cases[] = {
        {"Ethernet\r\n", 'E'}, {"InfiniBand", 'I'}, {"Ethernet\r\r\r\n", 'E'},
        {"ethernet\n", 'U'},   {nullptr, 'R'},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.first ? c.first : "no file");
        sim::reset();
        if (c.first) sim::set_link_layer("hca0", c.first);
        log_.clear();
        bool ib = false, eth = false;
        const bool ok = device_utils_get_hca_protocol("hca0", ib, eth);
        EXPECT_EQ(std::string(ok ? "1" : "0") + (ib ? "I" : "") + (eth ? "E" : ""),
                  c.second == 'I'   ? "1I"
                  : c.second == 'E' ? "1E"
                                    : "0");
        std::string text = c.first ? c.first : "";
        text = c.second == 'U' ? unknown + text.substr(0, text.find('\n')) : unread;
        EXPECT_EQ(log_.lines().size() == 1 ? log_.lines()[0].text : "",
                  strchr("UR", c.second) ? text : "");
    }
    // Only port 1 is read, and a flag already set by the caller stays set.
    std::filesystem::create_directories("/sys/class/infiniband/hca2/ports/2");
    vyrtest::write_file("/sys/class/infiniband/hca2/ports/2/link_layer", "Ethernet\n");
    bool ib = true, eth = true;
    EXPECT_FALSE(device_utils_get_hca_protocol("hca2", ib, eth));
    EXPECT_TRUE(ib && eth);
}

}  // namespace
