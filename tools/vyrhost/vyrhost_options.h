// vyrhost's command line, its configuration file, and the plain-words
// explanations it gives when a provider does not come up.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace vyrhost {

enum class Format { kJson, kTable, kPrometheus, kInflux };

struct Options {
    std::string library;  // empty: the library built or installed beside vyrhost
    std::string config_file;
    std::vector<std::pair<std::string, std::string>> sets;  // --set, in order
    double poll = 2.0;
    uint64_t buffer_size = 65536;
    uint64_t count = 0;   // 0: no limit
    double duration = 0;  // 0: no limit
    Format format = Format::kJson;
    bool format_given = false;
    std::vector<std::string> columns;
    bool columns_given = false;
    size_t width = 0;
    bool width_given = false;
    bool no_refresh = false;
    std::string listen;
    std::string textfile;  // --textfile: the exposition of every poll
    bool timestamps = false;
    bool print_schema = false;
    int log_level = -1;  // -1: VYR_API_LOG_LEVEL, else 0
    bool help = false;
    bool version = false;
};

// "" on success, else the complaint (the caller exits with status 2).
std::string parse_options(int argc, char **argv, Options *options);
// KEY=VALUE: the key is everything before the first '=' and must not be empty.
std::string parse_setting(const std::string &text, std::pair<std::string, std::string> *out);
// Lines of KEY=VALUE; blanks around key and value are dropped; empty lines
// and lines starting with '#' are skipped.
std::string read_config_file(const std::string &path,
                             std::vector<std::pair<std::string, std::string>> *out);

// [ADDR:]PORT, ADDR being an IPv4 address, a host name or [IPv6]; the
// address defaults to 127.0.0.1.
struct ListenAddress {
    std::string host;
    uint16_t port = 0;
    bool ipv6 = false;
};
std::string parse_listen(const std::string &text, ListenAddress *out);

std::string usage_text();

// The plug-in's settings, checked before it is constructed: `error` refuses
// the run; `notes` are worth a line each; `devices` are those it will collect
// (tarvik_devices, else every device `discovered`).
struct SettingsCheck {
    std::string error;
    std::vector<std::string> notes;
    std::vector<std::string> devices;
};
SettingsCheck check_settings(const std::vector<std::pair<std::string, std::string>> &settings,
                             const std::vector<std::string> &discovered);

// One message the framework logged while the provider was coming up.
struct LoggedMessage {
    int level;
    std::string text;
};
// Why initialize returned false, in one line, from what the provider logged.
std::string explain_initialize_failure(const std::vector<LoggedMessage> &log);
// Why a device gave no header (one entry per device and reason); empty when
// the log holds no such failure.
std::vector<std::string> header_failures(const std::vector<LoggedMessage> &log);

}  // namespace vyrhost
