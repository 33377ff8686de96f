// Helpers for tests that ns_run.sh runs in a private namespace: /dev/zdt
// entries, sysfs attributes, and the settings and logs of the simulated zdt
// and phyprobe (tools/sim, documented in its README.md).
//
// reset() aborts the test program unless it runs inside that namespace
// (VYR_TEST_NAMESPACE=1, /dev, /tmp and /sys/class private tmpfs mounts), and
// every fixture calls it first, so a test started by hand can never create
// /dev/zdt or sysfs files on the host.
#pragma once

#include <string>
#include <vector>

namespace vyrtest {
namespace sim {

// Back to a clean slate: drops every ZDT_SIM_* and PHYPROBE_SIM_* setting,
// leaves an empty /dev/zdt, empty /sys/class/net and /sys/class/infiniband,
// removes /tmp/tarvik_collect_*, the simulators' logs and run counters, and
// turns the zdt call log and the phyprobe argv log on.
void reset();

// /dev/zdt and its entries.
void add_zdt_char_device(const std::string &name);  // the null device's numbers
void add_zdt_symlink(const std::string &name);      // to /dev/null
void add_zdt_file(const std::string &name);         // a regular file, which is no device
std::vector<std::string> service_markers();         // the phyprobe_service_<pid> entries

// sysfs: content is written verbatim ("1\n" is an Ethernet interface).
void set_net_type(const std::string &ifname, const std::string &content);

// The simulated zdt.
void set_zdt_report(const std::string &bytes);  // "zdt status" prints these bytes verbatim
std::vector<std::string> zdt_calls();           // one line per zdt run, e.g. "zdt status -v"

// One adapter as the system would show it: a /dev/zdt character device and
// an entry in ZDT_SIM_DEVICES (type is one of its types or aliases).
void add_device(const std::string &name, const std::string &type = "arcline");

// The simulated phyprobe: PHYPROBE_SIM_<knob>, or PHYPROBE_SIM_<knob>__<device>
// when a device is given.
void set_phyprobe_knob(const std::string &knob, const std::string &value,
                       const std::string &device = "");
std::vector<std::string> phyprobe_argv_log();  // one line per run: "phyprobe -d ..."

// What is no regular file, anywhere: kind "fifo", "directory" or "socket"
// (bound, then closed) at path. False when it could not be made.
bool make_special(const std::string &kind, const std::string &path);

}  // namespace sim
}  // namespace vyrtest
