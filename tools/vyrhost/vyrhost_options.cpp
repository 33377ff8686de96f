#include "vyrhost_options.h"

#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

#include "vyrhost_textfile.h"

namespace vyrhost {

namespace {

std::string trim(const std::string &s) {
    size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos) return "";
    size_t e = s.find_last_not_of(" \t\r\n");
    return s.substr(b, e - b + 1);
}

bool parse_seconds(const std::string &text, double *out) {
    if (text.empty()) return false;
    char *end = nullptr;
    errno = 0;
    double v = strtod(text.c_str(), &end);
    if (errno || *end || !std::isfinite(v) || v <= 0 || v > 31536000) return false;
    *out = v;
    return true;
}

bool parse_unsigned(const std::string &text, uint64_t min, uint64_t max, uint64_t *out) {
    if (text.empty() || text[0] < '0' || text[0] > '9') return false;
    char *end = nullptr;
    errno = 0;
    unsigned long long v = strtoull(text.c_str(), &end, 10);
    if (errno || *end || v < min || v > max) return false;
    *out = v;
    return true;
}

std::vector<std::string> split_list(const std::string &text) {
    std::vector<std::string> out;
    size_t start = 0;
    while (start <= text.size()) {
        size_t comma = text.find(',', start);
        if (comma == std::string::npos) comma = text.size();
        std::string item = trim(text.substr(start, comma - start));
        if (!item.empty()) out.push_back(item);
        start = comma + 1;
    }
    return out;
}

bool contains(const std::string &text, const char *fragment) {
    return text.find(fragment) != std::string::npos;
}

// The device named in a phyprobe command line ("-d /dev/zdt/NAME ...").
std::string command_device(const std::string &text) {
    const std::string marker = "-d /dev/zdt/";
    size_t at = text.find(marker);
    if (at == std::string::npos) return "";
    at += marker.size();
    return text.substr(at, text.find(' ', at) - at);
}

// The device of a header file path "/tmp/tarvik_collect_NAMEhdr.csv".
std::string header_file_device(const std::string &text) {
    const std::string prefix = "/tmp/tarvik_collect_", suffix = "hdr.csv";
    size_t at = text.find(prefix);
    if (at == std::string::npos) return "";
    at += prefix.size();
    size_t end = text.find(suffix, at);
    return end == std::string::npos ? "" : text.substr(at, end - at);
}

std::string describe_system_status(int raw) {
    if (raw == -1) return "could not be started";
    if (WIFEXITED(raw)) {
        int code = WEXITSTATUS(raw);
        if (code == 124) return "timed out after 3 seconds";
        if (code == 127) return "failed: phyprobe (or timeout) was not found on PATH";
        return "failed with exit status " + std::to_string(code);
    }
    if (WIFSIGNALED(raw)) return "was killed by signal " + std::to_string(WTERMSIG(raw));
    return "failed (status " + std::to_string(raw) + ")";
}

}  // namespace

std::string parse_setting(const std::string &text, std::pair<std::string, std::string> *out) {
    size_t eq = text.find('=');
    if (eq == std::string::npos || eq == 0)
        return "bad --set '" + text +
               "': expected KEY=VALUE, for example --set tarvik_update_interval_sec=5";
    *out = {text.substr(0, eq), text.substr(eq + 1)};
    return "";
}

std::string read_config_file(const std::string &path,
                             std::vector<std::pair<std::string, std::string>> *out) {
    std::ifstream in(path);
    if (!in) return "cannot read configuration file " + path + ": " + strerror(errno);
    std::string line;
    for (unsigned number = 1; std::getline(in, line); ++number) {
        std::string text = trim(line);
        if (text.empty() || text[0] == '#') continue;
        size_t eq = text.find('=');
        std::string key = eq == std::string::npos ? "" : trim(text.substr(0, eq));
        if (key.empty())
            return path + ":" + std::to_string(number) + ": expected KEY=VALUE, found '" + text +
                   "'";
        out->push_back({key, trim(text.substr(eq + 1))});
    }
    return "";
}

std::string parse_listen(const std::string &text, ListenAddress *out) {
    ListenAddress result;
    result.host = "127.0.0.1";
    std::string port = text;
    if (!text.empty() && text[0] == '[') {
        size_t close = text.find("]:");
        if (close == std::string::npos)
            return "--listen '" + text + "': expected [IPv6-ADDRESS]:PORT";
        result.host = text.substr(1, close - 1);
        result.ipv6 = true;
        port = text.substr(close + 2);
    } else if (text.find(':') != std::string::npos) {
        size_t colon = text.rfind(':');
        if (text.find(':') != colon)
            return "--listen '" + text + "': write an IPv6 address in brackets, [::1]:PORT";
        if (colon > 0) result.host = text.substr(0, colon);
        port = text.substr(colon + 1);
    }
    uint64_t number = 0;
    if (!parse_unsigned(port, 0, 65535, &number))
        return "--listen '" + text + "': expected [ADDRESS:]PORT with a port from 0 to 65535";
    result.port = static_cast<uint16_t>(number);
    *out = result;
    return "";
}

std::string parse_options(int argc, char **argv, Options *options) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        std::string name = arg, value;
        bool has_value = false;
        if (arg.compare(0, 2, "--") == 0 && arg.find('=') != std::string::npos) {
            name = arg.substr(0, arg.find('='));
            value = arg.substr(arg.find('=') + 1);
            has_value = true;
        }
        auto take = [&](std::string *v) -> std::string {
            if (has_value) {
                *v = value;
                return "";
            }
            if (i + 1 >= argc) return "option " + name + " needs a value (see vyrhost --help)";
            *v = argv[++i];
            return "";
        };
        auto flag = [&]() -> std::string {
            return has_value ? "option " + name + " takes no value" : "";
        };
        std::string v, err;
        if (name == "-h" || name == "--help") {
            err = flag();
            o.help = true;
        } else if (name == "--version") {
            err = flag();
            o.version = true;
        } else if (name == "--library") {
            err = take(&o.library);
        } else if (name == "--config") {
            err = take(&o.config_file);
        } else if (name == "--set") {
            std::pair<std::string, std::string> kv;
            err = take(&v);
            if (err.empty()) err = parse_setting(v, &kv);
            if (err.empty()) o.sets.push_back(kv);
        } else if (name == "--poll") {
            err = take(&v);
            if (err.empty() && !parse_seconds(v, &o.poll))
                err = "--poll '" + v + "': expected a number of seconds above 0, such as 2 or 0.5";
        } else if (name == "--buffer-size") {
            err = take(&v);
            if (err.empty() && !parse_unsigned(v, 17, 1u << 30, &o.buffer_size))
                err = "--buffer-size '" + v + "': expected a number of bytes from 17 to 1073741824";
        } else if (name == "--count") {
            err = take(&v);
            if (err.empty() && !parse_unsigned(v, 1, UINT64_MAX, &o.count))
                err = "--count '" + v + "': expected a number of events above 0";
        } else if (name == "--duration") {
            err = take(&v);
            if (err.empty() && !parse_seconds(v, &o.duration))
                err = "--duration '" + v + "': expected a number of seconds above 0";
        } else if (name == "--format") {
            err = take(&v);
            o.format_given = true;
            if (!err.empty()) {
            } else if (v == "json") {
                o.format = Format::kJson;
            } else if (v == "table") {
                o.format = Format::kTable;
            } else if (v == "prometheus") {
                o.format = Format::kPrometheus;
            } else if (v == "influx") {
                o.format = Format::kInflux;
            } else {
                err = "--format '" + v + "': expected json, table, prometheus or influx";
            }
        } else if (name == "--columns") {
            err = take(&v);
            o.columns = split_list(v);
            o.columns_given = true;
        } else if (name == "--width") {
            uint64_t w = 0;
            err = take(&v);
            if (err.empty() && !parse_unsigned(v, 0, 100000, &w))
                err = "--width '" + v + "': expected a number of characters (0: no limit)";
            o.width = w;
            o.width_given = true;
        } else if (name == "--no-refresh") {
            err = flag();
            o.no_refresh = true;
        } else if (name == "--listen") {
            ListenAddress unused;
            err = take(&o.listen);
            if (err.empty()) err = parse_listen(o.listen, &unused);
        } else if (name == "--textfile") {
            err = take(&o.textfile);
            if (err.empty()) err = check_textfile_path(o.textfile);
        } else if (name == "--timestamps") {
            err = flag();
            o.timestamps = true;
        } else if (name == "--print-schema") {
            err = flag();
            o.print_schema = true;
        } else if (name == "--log-level") {
            uint64_t level = 0;
            err = take(&v);
            if (err.empty() && !parse_unsigned(v, 0, 7, &level))
                err = "--log-level '" + v +
                      "': expected 0 to 7 (3 errors, 4 warnings, 6 info, 7 "
                      "debug)";
            o.log_level = static_cast<int>(level);
        } else if (arg.size() > 1 && arg[0] == '-') {
            err = "unknown option '" + name + "' (see vyrhost --help)";
        } else {
            err = "unexpected argument '" + arg + "' (see vyrhost --help)";
        }
        if (!err.empty()) return err;
    }
    *options = o;
    return "";
}

std::string usage_text() {
    return R"(Usage: vyrhost [OPTIONS]

vyrhost loads a provider plug-in the way a telemetry collector does, asks it
for events every few seconds and prints them: as JSON lines, as a table, or in
the Prometheus text format (also served over HTTP with --listen).

It hands the plug-in its settings, calls get_sources, initialize and start,
then every --poll seconds drains write_events into a buffer, decodes the event
blocks and prints each event. Ctrl-C (SIGINT), SIGTERM or SIGHUP, --count or
--duration end it: the plug-in is stopped and destroyed, and vyrhost exits 0;
a second signal ends it at once (status 128 + signal).

Plug-in and its settings:
  --library PATH         provider library to load, as given (default: the
                         libtarvik_provider of vyrhost's build tree or of
                         its install prefix, never one elsewhere)
  --set KEY=VALUE        a setting for the plug-in; repeat for more. The tarvik
                         plug-in reads tarvik_update_interval_sec (default 30),
                         tarvik_phyprobe_as_service (1 = service, 0 = one run
                         per interval), tarvik_max_errors, tarvik_devices
                         (comma-separated; default: every device zdt reports)
  --config FILE          settings as KEY=VALUE lines ('#' starts a comment);
                         --set wins over the file

Polling:
  --poll SECONDS         how often to ask for events (default 2; 0.5 works)
  --buffer-size BYTES    size of the event buffer (default 65536, grown to the
                         largest event if smaller); a full buffer is drained
                         and the plug-in asked again
  --count N              stop after N events
  --duration SECONDS     stop after this long

Output:
  --format FORMAT        json (default): one object per event and line;
                         table: one row per device, redrawn every poll;
                         prometheus: text exposition, one per poll;
                         influx: InfluxDB line protocol, one line per event
                         (diagnostics then start with E!, W!, I! or D!)
  --columns A,B,...      table: the fields to show (default: health, errors,
                         error ratios, temperatures first, as many as fit)
  --width N              table: cut rows to N characters (default: the
                         terminal's width; 0 = no limit)
  --no-refresh           table: print every poll's table below the last one
  --listen [ADDR:]PORT   serve GET /metrics in the Prometheus text format;
                         ADDR defaults to 127.0.0.1 (loopback only); with
                         --listen nothing is printed unless --format is given
  --textfile PATH        write each poll's exposition to PATH (ending in
                         .prom), replaced whole, for node_exporter's
                         --collector.textfile.directory; with --textfile
                         nothing is printed unless --format is given
  --timestamps           prometheus: stamp samples with the block's time
  --print-schema         print the plug-in's schema as pretty JSON (its
                         identifier goes to standard error) and exit
  --log-level N          show the framework's messages up to level N on
                         standard error: 3 errors, 4 warnings, 6 info,
                         7 debug (default: VYR_API_LOG_LEVEL, else 0)
  -h, --help             this text
  --version              vyrhost's version

Example: collect every 2 seconds from every device, one run of phyprobe per
interval, and show a table for ten seconds:

  vyrhost --set tarvik_update_interval_sec=2 --set tarvik_phyprobe_as_service=0 \
          --format table --duration 10

Serve Prometheus metrics on port 9464 until Ctrl-C:

  vyrhost --set tarvik_update_interval_sec=10 --listen 9464

Exit status: 0 done, 1 the plug-in could not be loaded or brought up (the
reason is printed), 2 bad command line, configuration file or setting.
)";
}

std::string explain_initialize_failure(const std::vector<LoggedMessage> &log) {
    auto has = [&](const char *fragment) {
        for (const LoggedMessage &m : log)
            if (contains(m.text, fragment)) return true;
        return false;
    };
    if (has("No devices to collect")) {
        const std::string head = "[tarvik provider] Device ",
                          tail = " is set to collect, but not supported";
        std::string unsupported;
        size_t n = 0;
        for (const LoggedMessage &m : log) {
            if (m.text.compare(0, head.size(), head) != 0 ||
                m.text.size() < head.size() + tail.size() ||
                m.text.compare(m.text.size() - tail.size(), tail.size(), tail) != 0)
                continue;
            unsupported += (n++ ? ", '" : "'") +
                           m.text.substr(head.size(), m.text.size() - head.size() - tail.size()) +
                           "'";
        }
        std::string cause;
        if (n)
            cause = "tarvik_devices names " + unsupported + ", which zdt does not report";
        else if (has("No ZDT devices in /dev/zdt"))
            cause = "/dev/zdt holds no devices; 'zdt start' creates them";
        else if (has("Failed to execute zdt status command"))
            cause = "'zdt status -v' could not be run";
        else if (has("No valid devices found"))
            cause = "'zdt status -v' lists no Arcline or Tidegate adapter with a /dev/zdt entry";
        return "no devices to collect" + (cause.empty() ? "" : " (" + cause + ")");
    }
    if (has("Could not create tarvik event type"))
        return "the plug-in could not build an event type from a device's header (run with "
               "--log-level 4 for its messages)";
    if (has("Could not create tarvik event cache"))
        return "the plug-in could not allocate an event buffer";
    for (auto it = log.rbegin(); it != log.rend(); ++it)
        if (it->level <= 3) return "the plug-in's initialize failed (last error: " + it->text + ")";
    return "the plug-in's initialize failed without saying why";
}

std::vector<std::string> header_failures(const std::vector<LoggedMessage> &log) {
    std::vector<std::string> out;
    std::string pending;  // what the CSV reader said about the last header file
    for (const LoggedMessage &m : log) {
        const std::string &t = m.text;
        if (contains(t, "[tarvik_provider_initialize] Could not execute command ")) {
            std::string device = command_device(t);
            size_t at = t.rfind("system returned ");
            int raw = at == std::string::npos ? -1 : atoi(t.c_str() + at + 16);
            out.push_back("header run for " + (device.empty() ? "a device" : device) + " " +
                          describe_system_status(raw));
        } else if (contains(t, "hdr.csv") && (contains(t, "[tarvik_format] Could not open file") ||
                                              contains(t, "Failed to read csv"))) {
            std::string device = header_file_device(t);
            if (contains(t, "Could not open file"))
                pending = "header file of " + device + " could not be opened";
            else if (contains(t, "hdr line"))
                pending = "header file of " + device + " has no header line";
            else
                pending = "header file of " + device + " has no value line";
        } else if (contains(t, "[tarvik_provider_initialize] Could not parse tarvik header")) {
            out.push_back(pending.empty() ? "a header file could not be parsed" : pending);
            pending.clear();
        } else if (contains(t, "[tarvik_provider_initialize] Could not get header offset")) {
            out.push_back("a header file gave no value-line offset");
        }
    }
    return out;
}

SettingsCheck check_settings(const std::vector<std::pair<std::string, std::string>> &settings,
                             const std::vector<std::string> &discovered) {
    SettingsCheck out;
    const char *known[] = {"tarvik_devices", "tarvik_max_errors", "tarvik_phyprobe_as_service",
                           "tarvik_update_interval_sec"};
    const char *wanted = nullptr;
    for (const auto &kv : settings) {
        const std::string &key = kv.first, &value = kv.second;
        if (std::find(std::begin(known), std::end(known), key) == std::end(known)) {
            out.notes.push_back("unknown setting '" + key +
                                "' is ignored (the plug-in reads tarvik_devices, "
                                "tarvik_max_errors, tarvik_phyprobe_as_service and "
                                "tarvik_update_interval_sec)");
        } else if (key == "tarvik_update_interval_sec") {
            // The plug-in reads it unsigned: "-5" would be a wait of 584 billion years.
            bool digits = !value.empty() && value.size() <= 6 &&
                          value.find_first_not_of("0123456789") == std::string::npos;
            unsigned long seconds = digits ? strtoul(value.c_str(), nullptr, 10) : 0;
            if (seconds < 1 || seconds > 86400)
                out.error =
                    "tarvik_update_interval_sec must be a whole number of seconds from 1 "
                    "to 86400, not '" +
                    value + "'";
        } else if (key == "tarvik_devices") {
            wanted = value.c_str();
        }
    }
    if (!wanted) {
        out.devices = discovered;
        return out;
    }
    std::string text = wanted, piece;
    std::istringstream in(text);
    while (std::getline(in, piece, ',')) {
        bool found = std::find(discovered.begin(), discovered.end(), piece) != discovered.end();
        if (found) {
            out.devices.push_back(piece);
        } else if (piece.find_first_of(" \t") != std::string::npos) {
            out.notes.push_back("tarvik_devices: '" + piece +
                                "' has blanks in it; names are matched exactly, so it will not "
                                "be collected");
        } else {
            out.notes.push_back("tarvik_devices: '" + piece +
                                "' is not a device zdt lists; it will not be collected");
        }
    }
    return out;
}

}  // namespace vyrhost
