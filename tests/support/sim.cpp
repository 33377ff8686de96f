#include "sim.h"

#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "test_paths.h"

extern char **environ;

namespace vyrtest {
namespace sim {
namespace fs = std::filesystem;

namespace {

const char kZdtDir[] = "/dev/zdt";
const char kZdtCallLog[] = "/tmp/zdt_sim_calls.log";
const char kArgvLog[] = "/tmp/phyprobe_sim_argv.log";
const char kFdLog[] = "/tmp/phyprobe_sim_fds.log";
const char kReportFile[] = "/tmp/zdt_sim_report";
const char kStateDir[] = "/tmp/.phyprobe_sim";
const long kTmpfsMagic = 0x01021994;

bool is_tmpfs(const char *path) {
    struct statfs st;
    return statfs(path, &st) == 0 && st.f_type == kTmpfsMagic;
}

[[noreturn]] void die(const std::string &what) {
    fprintf(stderr, "sim: %s: %s\n", what.c_str(), strerror(errno));
    abort();
}

void check(bool ok, const std::string &what) {
    if (!ok) die(what);
}

void set_env(const std::string &name, const std::string &value) {
    check(setenv(name.c_str(), value.c_str(), 1) == 0, "setenv " + name);
}

// Same key as the simulator: every byte outside [A-Za-z0-9_] becomes '_'.
std::string knob_var(const std::string &knob, const std::string &device) {
    std::string var = "PHYPROBE_SIM_" + knob;
    if (device.empty()) return var;
    var += "__";
    for (char c : device) {
        bool plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
        var += (plain || c == '_') ? c : '_';
    }
    return var;
}

std::string zdt_path(const std::string &name) {
    check(!name.empty() && name.find('/') == std::string::npos, "bad /dev/zdt entry name");
    return std::string(kZdtDir) + "/" + name;
}

void write_text(const std::string &path, const std::string &content) {
    fs::create_directories(fs::path(path).parent_path());
    write_file(path, content);
}

}  // namespace

bool in_namespace() {
    const char *flag = getenv("VYR_TEST_NAMESPACE");
    return flag && strcmp(flag, "1") == 0 && is_tmpfs("/dev") && is_tmpfs("/tmp") &&
           is_tmpfs("/sys/class");
}

void require_namespace() {
    if (in_namespace()) return;
    fprintf(stderr,
            "sim: refusing to touch /dev/zdt, /tmp or sysfs outside the test namespace; "
            "run this test through tests/support/ns_run.sh\n");
    abort();
}

void reset() {
    require_namespace();
    std::vector<std::string> vars;
    for (char **e = environ; *e; ++e) {
        std::string entry(*e);
        std::string name = entry.substr(0, entry.find('='));
        if (name.rfind("ZDT_SIM_", 0) == 0 || name.rfind("PHYPROBE_SIM_", 0) == 0)
            vars.push_back(name);
    }
    for (const auto &name : vars) unsetenv(name.c_str());

    remove_zdt_dir();
    make_zdt_dir();
    fs::remove_all("/sys/class/net");
    fs::remove_all("/sys/class/infiniband");
    fs::create_directories("/sys/class/net");
    fs::create_directories("/sys/class/infiniband");
    for (const auto &entry : fs::directory_iterator("/tmp")) {
        if (entry.path().filename().string().rfind("tarvik_collect_", 0) == 0)
            fs::remove_all(entry.path());
    }
    for (const char *path : {kZdtCallLog, kArgvLog, kFdLog, kReportFile, kStateDir})
        fs::remove_all(path);
    set_env("ZDT_SIM_CALL_LOG", kZdtCallLog);
    set_env("PHYPROBE_SIM_ARGV_LOG", kArgvLog);
}

void make_zdt_dir() {
    require_namespace();
    fs::create_directories(kZdtDir);
}

void remove_zdt_dir() {
    require_namespace();
    fs::remove_all(kZdtDir);
}

void add_zdt_char_device(const std::string &name) {
    require_namespace();
    check(mknod(zdt_path(name).c_str(), S_IFCHR | 0600, makedev(1, 3)) == 0, "mknod " + name);
}

void add_zdt_symlink(const std::string &name, const std::string &target) {
    require_namespace();
    check(symlink(target.c_str(), zdt_path(name).c_str()) == 0, "symlink " + name);
}

void add_zdt_file(const std::string &name) {
    require_namespace();
    write_file(zdt_path(name), "");
}

void add_zdt_subdir(const std::string &name) {
    require_namespace();
    check(mkdir(zdt_path(name).c_str(), 0755) == 0, "mkdir " + name);
}

std::vector<std::string> zdt_entries() {
    require_namespace();
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto &entry : fs::directory_iterator(kZdtDir, ec))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> service_markers() {
    std::vector<std::string> markers;
    for (const auto &name : zdt_entries())
        if (name.rfind("phyprobe_service_", 0) == 0) markers.push_back(name);
    return markers;
}

void set_net_type(const std::string &ifname, const std::string &content) {
    require_namespace();
    write_text("/sys/class/net/" + ifname + "/type", content);
}

void remove_net(const std::string &ifname) {
    require_namespace();
    fs::remove_all("/sys/class/net/" + ifname);
}

void set_link_layer(const std::string &hca, const std::string &content) {
    require_namespace();
    write_text("/sys/class/infiniband/" + hca + "/ports/1/link_layer", content);
}

void set_zdt_devices(const std::string &spec) {
    require_namespace();
    set_env("ZDT_SIM_DEVICES", spec);
}

void set_zdt_report(const std::string &bytes) {
    require_namespace();
    write_file(kReportFile, bytes);
    set_env("ZDT_SIM_REPORT_FILE", kReportFile);
}

std::vector<std::string> zdt_calls() {
    require_namespace();
    return read_lines(kZdtCallLog);
}

void add_device(const std::string &name, const std::string &type, const std::string &ifname,
                int link_type) {
    require_namespace();
    make_zdt_dir();
    add_zdt_char_device(name);
    if (!ifname.empty()) set_net_type(ifname, std::to_string(link_type) + "\n");
    const char *old = getenv("ZDT_SIM_DEVICES");
    std::string spec = old && *old ? std::string(old) + ";" : std::string();
    spec += name + "," + type + "," + (ifname.empty() ? "-" : ifname);
    set_env("ZDT_SIM_DEVICES", spec);
}

void set_phyprobe_knob(const std::string &knob, const std::string &value,
                       const std::string &device) {
    require_namespace();
    set_env(knob_var(knob, device), value);
}

void clear_phyprobe_knob(const std::string &knob, const std::string &device) {
    require_namespace();
    unsetenv(knob_var(knob, device).c_str());
}

std::vector<std::string> phyprobe_argv_log() {
    require_namespace();
    return read_lines(kArgvLog);
}

std::string enable_phyprobe_fd_log() {
    require_namespace();
    set_env("PHYPROBE_SIM_FD_LOG", kFdLog);
    return kFdLog;
}

std::vector<std::string> read_lines(const std::string &path) {
    std::vector<std::string> lines;
    std::ifstream in(path, std::ios::binary);
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
}

}  // namespace sim
}  // namespace vyrtest
