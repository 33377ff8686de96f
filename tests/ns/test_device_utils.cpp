// Device enumeration against the simulated zdt, /dev/zdt entries and sysfs
// files made inside the test namespace.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "device_utils.h"
#include "log_capture.h"
#include "sim.h"
#include "test_paths.h"

using namespace vyr::common;
using Names = std::vector<std::string>;
namespace sim = vyrtest::sim;

namespace {

const int kErr = VYR_LOG_LEVEL_ERROR, kWarn = VYR_LOG_LEVEL_WARNING;
const std::string kNoDevices = "[device_utils]  No valid devices found";
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
    // Errors (E) and warnings (W) only, one a line.
    std::string problems() const {
        std::string got;
        for (const auto &l : log_.lines())
            if (l.level <= kWarn) got += (l.level == kErr ? "E " : "W ") + l.text + "\n";
        return got;
    }
    vyrtest::LogCapture log_;
};

// Reports, some of them hostile: what is listed, and which messages say why
// not. The report is bytes: a NUL byte must not confuse names.
TEST_F(DeviceUtils, Reports) {
    const std::string nul(1, '\0'), none = "\nE " + kNoDevices + "\n";
    const struct {
        std::string report, outcome;  // the names, then the errors and warnings
        bool ethernet_only = false;
    } cases[] = {
        {"ZDT modules:\n------------\n" + kArx0 + kTg1, none},  // no PCI section
        // Nothing is read after the cable title.
        {kHead + kArx0 + "Cable devices:\n---------------\n" + kTg1 + "PCI devices:\n-\n-\n" + kTg1,
         "arx0 \n"},
        // The two lines after the PCI title are discarded, whatever they hold.
        {"PCI devices:\n" + kArx0 + kTg1 + kArx0, "arx0 \n"},
        // Family words are case-sensitive substrings.
        {kHead + device_line("arcline(rev:0)", "arx0") + device_line("TIDEGATE", "tg1") +
             device_line("xTidegatex", "tg1") + device_line("Brinefly(rev:0)", "arx0"),
         "tg1 \n"},
        // A net column is looked up on any line.
        {kHead + "net-q9\n" + device_line("Brinefly(rev:0)", "x", "net-q8") + kTg1,
         "tg1 \nW " + no_sysfs_type("q9") + "\nW " + no_sysfs_type("q8") + "\n"},
        {kHead + device_line("Tidegate", "ghost") + kArx0, "arx0 \nW " + not_found("ghost") + "\n"},
        // A NUL inside a device name is not the shorter name.
        {kHead + "Arcline-X(rev:0) /dev/zdt/ar" + nul + "x 04:00.0 net-eth0 0\n" + kTg1,
         "tg1 \nW " + not_found("ar") + "\n"},
        // Ethernet only: type 1, not 32, unreadable or garbled.
        {kHead + kArx0 + device_line("Tidegate", "tg1", "net-ib0") +
             device_line("Tidegate", "x", "net-eth7") + device_line("Tidegate", "ar", "net-eth8"),
         "arx0 \nW " + no_sysfs_type("eth7") + "\n", true},
    };
    for (const char *entry : {"arx0", "tg1", "x", "ar"}) sim::add_zdt_char_device(entry);
    sim::set_net_type("eth0", "1\n");
    sim::set_net_type("eth1", "1\n");
    sim::set_net_type("ib0", "32\n");
    sim::set_net_type("eth8", "one\n");
    setenv("ZDT_SIM_EXIT", "3", 1);  // its exit status is not looked at
    for (const auto &c : cases) {
        sim::set_zdt_report(c.report);
        log_.clear();
        Names names{"stale"};
        const bool found = device_utils_get_zdt_hca_names(names, c.ethernet_only);
        std::string got;
        for (const auto &n : names) got += n + " ";
        EXPECT_EQ(found, !names.empty());
        EXPECT_EQ(got + "\n" + problems(), c.outcome) << c.report;
    }
    EXPECT_TRUE(log_.contains(
        VYR_LOG_LEVEL_DEBUG, "[device_utils]  Skipping device /dev/zdt/tg1: not Ethernet-capable"));
    EXPECT_EQ(sim::zdt_calls(), Names(std::size(cases), "zdt status -v"));
    // Each device line's NET column, without "net-".
    EXPECT_EQ(device_utils_parse_zdt_interfaces(kHead + device_line("A", "a", "net-eth1,net-eth2") +
                                                device_line("B", "b") +
                                                "C /dev/zdt/c 04:00.0 x net-eth3\r\n"),
              (std::vector<std::pair<std::string, std::string>>{
                  {"a", "eth1,eth2"}, {"b", ""}, {"c", "eth3"}}));
}

// Only character devices and symbolic links make /dev/zdt non-empty; when it
// is empty the status command does not run. A missing /dev/zdt is not empty.
TEST_F(DeviceUtils, ZdtDir) {
    for (const char *what : {"file", "char device", "link", "missing"}) {
        SCOPED_TRACE(what);
        sim::reset();
        setenv("ZDT_SIM_DEVICES", "arx0,arcline,-", 1);
        const std::string w = what;
        if (w == "file") sim::add_zdt_file("phyprobe_service_12");
        if (w == "char device") sim::add_zdt_char_device("arx0");
        if (w == "link") sim::add_zdt_symlink("arx0");
        if (w == "missing") std::filesystem::remove_all("/dev/zdt");
        log_.clear();
        Names names{"untouched"};
        const bool found = device_utils_get_zdt_hca_names(names, false), empty = w == "file";
        EXPECT_EQ(found, w == "char device" || w == "link");
        EXPECT_EQ(sim::zdt_calls().size(), empty ? 0u : 1u);
        EXPECT_EQ(problems(), empty ? "E [device_utils] No ZDT devices in /dev/zdt. Please run "
                                      "'zdt start' to create devices.\n"
                              : w == "missing"
                                  ? "W " + not_found("arx0") + "\nE " + kNoDevices + "\n"
                                  : "");
        EXPECT_EQ(log_.contains(VYR_LOG_LEVEL_INFO, kMissingDir), w == "missing");
        EXPECT_EQ(names, Names(empty || found, empty ? "untouched" : "arx0"));
    }
}

// The link layer file at a port, and what it gives: success, the flag set,
// and the warnings. Only port 1 is read.
TEST_F(DeviceUtils, HcaProtocol) {
    const std::string dir = "/sys/class/infiniband/hca0/ports/";
    const struct {
        const char *port, *content, *outcome;
    } cases[] = {
        {"1", "Ethernet\r\r\n", "1E"},
        {"1", "InfiniBand", "1I"},
        {"1", "ethernet\n", "0W [device_utils] Unknown link layer for device hca0: ethernet\n"},
        {"2", "Ethernet\n", "0W [device_utils] Could not read sysfs link_layer for device hca0\n"},
    };
    for (const auto &c : cases) {
        sim::reset();
        std::filesystem::create_directories(dir + c.port);
        vyrtest::write_file(dir + c.port + "/link_layer", c.content);
        log_.clear();
        bool ib = false, eth = false;
        const bool ok = device_utils_get_hca_protocol("hca0", ib, eth);
        EXPECT_EQ((ok ? "1" : "0") + std::string(ib ? "I" : "") + (eth ? "E" : "") + problems(),
                  c.outcome);
    }
}

}  // namespace
