#include "sim.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "test_paths.h"

extern char **environ;

namespace vyrtest {
namespace sim {
namespace fs = std::filesystem;

namespace {

const char kZdtCallLog[] = "/tmp/zdt_sim_calls.log", kArgvLog[] = "/tmp/phyprobe_sim_argv.log";
const char kReportFile[] = "/tmp/zdt_sim_report";

void check(bool ok, const std::string &what) {
    if (ok) return;
    fprintf(stderr, "sim: %s: %s\n", what.c_str(), strerror(errno));
    abort();
}

bool is_tmpfs(const char *path) {
    struct statfs st;
    return statfs(path, &st) == 0 && st.f_type == 0x01021994;
}

std::vector<std::string> read_lines(const std::string &path) {
    std::vector<std::string> lines;
    std::ifstream in(path, std::ios::binary);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

}  // namespace

void reset() {
    const char *flag = getenv("VYR_TEST_NAMESPACE");
    check(flag && !strcmp(flag, "1") && is_tmpfs("/dev") && is_tmpfs("/tmp") &&
              is_tmpfs("/sys/class"),
          "refusing to touch /dev/zdt, /tmp or sysfs outside the test namespace; run this "
          "test through tests/support/ns_run.sh");
    std::vector<std::string> vars;
    for (char **e = environ; *e; ++e) {
        std::string name(*e, strcspn(*e, "="));
        if (!name.rfind("ZDT_SIM_", 0) || !name.rfind("PHYPROBE_SIM_", 0)) vars.push_back(name);
    }
    for (const auto &name : vars) unsetenv(name.c_str());
    for (const char *dir : {"/dev/zdt", "/sys/class/net", "/sys/class/infiniband"}) {
        fs::remove_all(dir);
        fs::create_directories(dir);
    }
    for (const auto &entry : fs::directory_iterator("/tmp"))
        if (!entry.path().filename().string().rfind("tarvik_collect_", 0))
            fs::remove_all(entry.path());
    for (const char *path : {kZdtCallLog, kArgvLog, kReportFile, "/tmp/.phyprobe_sim"})
        fs::remove_all(path);
    setenv("ZDT_SIM_CALL_LOG", kZdtCallLog, 1);
    setenv("PHYPROBE_SIM_ARGV_LOG", kArgvLog, 1);
}

void add_zdt_char_device(const std::string &name) {
    check(mknod(("/dev/zdt/" + name).c_str(), S_IFCHR | 0600, makedev(1, 3)) == 0, "mknod " + name);
}

void add_zdt_symlink(const std::string &name) {
    check(symlink("/dev/null", ("/dev/zdt/" + name).c_str()) == 0, "symlink " + name);
}

void add_zdt_file(const std::string &name) {
    write_file("/dev/zdt/" + name, "");
}

std::vector<std::string> service_markers() {
    std::vector<std::string> markers;
    for (const auto &entry : fs::directory_iterator("/dev/zdt"))
        if (!entry.path().filename().string().rfind("phyprobe_service_", 0))
            markers.push_back(entry.path().filename().string());
    return markers;
}

void set_net_type(const std::string &ifname, const std::string &content) {
    fs::create_directories("/sys/class/net/" + ifname);
    write_file("/sys/class/net/" + ifname + "/type", content);
}

void set_zdt_report(const std::string &bytes) {
    write_file(kReportFile, bytes);
    setenv("ZDT_SIM_REPORT_FILE", kReportFile, 1);
}

std::vector<std::string> zdt_calls() {
    return read_lines(kZdtCallLog);
}

void add_device(const std::string &name, const std::string &type) {
    add_zdt_char_device(name);
    const char *old = getenv("ZDT_SIM_DEVICES");
    setenv("ZDT_SIM_DEVICES",
           ((old && *old ? std::string(old) + ";" : "") + name + "," + type + ",-").c_str(), 1);
}

// The simulator's key: every byte of the device outside [A-Za-z0-9_] becomes '_'.
void set_phyprobe_knob(const std::string &knob, const std::string &value,
                       const std::string &device) {
    std::string var = "PHYPROBE_SIM_" + knob + (device.empty() ? "" : "__");
    for (char c : device) var += isalnum((unsigned char)c) || c == '_' ? c : '_';
    setenv(var.c_str(), value.c_str(), 1);
}

std::vector<std::string> phyprobe_argv_log() {
    return read_lines(kArgvLog);
}

bool make_special(const std::string &kind, const std::string &path) {
    if (kind == "fifo") return mkfifo(path.c_str(), 0666) == 0;
    if (kind == "directory") return mkdir(path.c_str(), 0755) == 0;
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    bool ok = bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
    close(fd);
    return ok;
}

}  // namespace sim
}  // namespace vyrtest
