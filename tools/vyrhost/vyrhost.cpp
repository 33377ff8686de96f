// vyrhost: a small reference host for provider plug-ins. It does what a
// telemetry collector does with one (load, configure, initialize, start,
// drain events, stop, destroy) and shows the events as JSON lines, a table
// or Prometheus text, or serves them to Prometheus over HTTP.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "device_utils.h"
#include "vyr_event_provider.h"
#include "vyr_json.h"
#include "vyr_logger.h"
#include "vyr_schema_json.h"
#include "vyrhost_exporter.h"
#include "vyrhost_metrics.h"
#include "vyrhost_influx.h"
#include "vyrhost_options.h"
#include "vyrhost_render.h"
#include "vyrhost_textfile.h"

using namespace vyrhost;

namespace {

// ---------------------------------------------------------------- signals

int g_wake[2] = {-1, -1};
volatile sig_atomic_t g_stop_signal = 0;
std::atomic<bool> g_stopping{false};

void wake_main() {
    char c = 'x';
    ssize_t ignored = write(g_wake[1], &c, 1);
    (void)ignored;
}

// A second signal means "do not wait": not for the plug-in to stop, nor for
// the rest of its initialization (header runs of up to seconds per device).
void request_stop(int sig) {
    if (g_stopping.load() || g_stop_signal) {
        const char msg[] = "vyrhost: second signal, exiting without waiting for the plug-in\n";
        ssize_t ignored = write(STDERR_FILENO, msg, sizeof msg - 1);
        (void)ignored;
        _exit(128 + sig);
    }
    g_stop_signal = sig;
    wake_main();
}

void on_signal(int sig) {
    request_stop(sig);
}
void on_sigpipe(int) {}
volatile sig_atomic_t g_resized = 0;
void on_sigwinch(int) {
    g_resized = 1;
}

// glibc's system() sets SIGINT to "ignore" for the whole process while a
// command runs, and the plug-in's threads nearly always sit in system(). A
// SIGINT delivered then would be lost, so SIGINT stays blocked in every
// thread and this one takes it with sigwait. SIGTERM is not touched by
// system() and has a plain handler: blocking it would leave it blocked in the
// plug-in's tool processes, and `timeout` could no longer end them.
void *sigint_thread(void *) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    for (;;) {
        int sig = 0;
        if (sigwait(&set, &sig) == 0) request_stop(sig);
    }
    return nullptr;
}

bool install_signals() {
    if (pipe2(g_wake, O_CLOEXEC | O_NONBLOCK) != 0) return false;
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    if (pthread_sigmask(SIG_BLOCK, &set, nullptr) != 0) return false;
    pthread_t thread;
    if (pthread_create(&thread, nullptr, sigint_thread, nullptr) != 0) return false;
    pthread_detach(thread);
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGHUP, &sa, nullptr);
    // A handler, not SIG_IGN: an ignored SIGPIPE would be inherited by the
    // tool processes; a handler is reset by exec. Writes then fail with EPIPE.
    sa.sa_handler = on_sigpipe;
    sigaction(SIGPIPE, &sa, nullptr);
    sa.sa_handler = on_sigwinch;
    sigaction(SIGWINCH, &sa, nullptr);
    return true;
}

double monotonic_now() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

// Sleeps until `when` (monotonic seconds); true when a stop was requested.
bool wait_until(double when) {
    for (;;) {
        if (g_stop_signal) return true;
        double left = when - monotonic_now();
        if (left <= 0) return false;
        struct pollfd pfd = {g_wake[0], POLLIN, 0};
        int ms = static_cast<int>(std::ceil(std::min(left, 3600.0) * 1000));
        if (poll(&pfd, 1, ms) > 0) {
            char drain[64];
            while (read(g_wake[0], drain, sizeof drain) > 0) {
            }
        }
    }
}

// ---------------------------------------------------------------- logging

std::mutex g_log_lock;
int g_print_level = 0;
bool g_capturing = true;
std::vector<LoggedMessage> g_captured;
std::atomic<uint64_t> g_log_errors{0}, g_log_warnings{0};

// Every message of the framework and of the plug-in (which adopts this
// logger) comes here: warnings and errors are kept while the plug-in comes
// up, so a failure can be explained, and lines up to --log-level are written
// in the framework's own line format.
// --format influx: stderr lines in the form Telegraf's inputs.execd reads.
bool g_influx = false;

void host_log(int level, const char *format, ...) {
    char small[1024];
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    int n = vsnprintf(small, sizeof small, format, args);
    va_end(args);
    std::string text;
    if (n >= static_cast<int>(sizeof small)) {
        text.resize(static_cast<size_t>(n) + 1);
        vsnprintf(&text[0], text.size(), format, again);
        text.resize(static_cast<size_t>(n));
    } else if (n >= 0) {
        text = small;
    }
    va_end(again);
    if (level <= VYR_LOG_LEVEL_ERROR)
        ++g_log_errors;
    else if (level == VYR_LOG_LEVEL_WARNING)
        ++g_log_warnings;
    std::lock_guard<std::mutex> hold(g_log_lock);
    if (g_capturing && level <= VYR_LOG_LEVEL_WARNING && g_captured.size() < 10000)
        g_captured.push_back({level, text});
    if (static_cast<unsigned>(g_print_level) >= static_cast<unsigned>(level)) {
        if (g_influx) {
            fputs(influx_diagnostic(level, text).c_str(), stderr);
        } else {
            vyr_dump_timestamp_logger(stderr);
            fputs(vyr_priority_level_string_logger(level), stderr);
            fputs(text.c_str(), stderr);
        }
        fputc('\n', stderr);
        fflush(stderr);
    }
}

std::vector<LoggedMessage> captured() {
    std::lock_guard<std::mutex> hold(g_log_lock);
    return g_captured;
}

void stop_capturing() {
    std::lock_guard<std::mutex> hold(g_log_lock);
    g_capturing = false;
    g_captured.clear();
}

void complain(const std::string &text) {
    fprintf(stderr, "%svyrhost: %s\n", g_influx ? "E! " : "", text.c_str());
}

// ---------------------------------------------------------------- library

std::string executable_dir() {
    char path[4096];
    ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) return ".";
    path[n] = '\0';
    std::string p = path;
    size_t slash = p.rfind('/');
    return slash == std::string::npos ? "." : p.substr(0, slash);
}

std::string real_path(const std::string &path) {
    char *real = realpath(path.c_str(), nullptr);
    std::string out = real ? real : "";
    free(real);
    return out;
}

// The library built beside vyrhost when it runs from its build tree, else the
// one installed in its own prefix; never a path outside the two, where
// someone else could have put a library of that name.
std::string default_library(std::string *tried) {
    std::string dir = executable_dir();
    bool in_build_tree =
        !real_path(VYRHOST_BUILD_DIR).empty() && real_path(dir) == real_path(VYRHOST_BUILD_DIR);
    std::string path = dir + "/" +
                       (in_build_tree ? VYRHOST_BUILD_LIBDIR_REL : VYRHOST_INSTALL_LIBDIR_REL) +
                       "/" VYRHOST_LIBRARY_NAME;
    if (access(path.c_str(), F_OK) == 0) {
        std::string real = real_path(path);
        return real.empty() ? path : real;
    }
    *tried = path;
    return "";
}

template <typename F>
bool guarded(const char *what, F &&call) {
    try {
        call();
        return true;
    } catch (const std::exception &e) {
        complain(std::string("the plug-in's ") + what + " threw an exception: " + e.what());
    } catch (...) {
        complain(std::string("the plug-in's ") + what + " threw an exception");
    }
    return false;
}

// ---------------------------------------------------------------- host

size_t terminal_width(bool tty) {
    struct winsize ws;
    if (tty && ioctl(STDOUT_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0) return ws.ws_col;
    const char *columns = getenv("COLUMNS");
    if (columns && atoi(columns) > 0) return static_cast<size_t>(atoi(columns));
    return 0;
}

struct Host {
    Options options;
    vyr_event_provider_t *provider = nullptr;
    vyr_type_system_t *ts = nullptr;
    const vyr_schema_t *schema = nullptr;
    std::string source = "unknown";
    std::vector<uint8_t> buffer;
    Exporter exporter;
    bool exporting = false;
    bool print = true;
    uint64_t polls = 0, poll_errors = 0, events = 0;
    TableOptions table;
    bool tty = false;
    size_t table_lines = 0;
    bool output_broken = false;
    bool output_failed = false;
    Snapshot last_good;  // what /metrics shows while polls fail
    double poll_duration = 0, last_success = 0;
    std::vector<std::string> devices;
    std::vector<std::pair<std::string, std::string>> interfaces;
    std::string provider_name;

    // Drains write_events into one snapshot; false (with a message) when the
    // plug-in reported an error or wrote a block that does not decode.
    bool drain(Snapshot *snapshot, std::vector<Event> *in_order) {
        vyr_data_serializer_t ser = {ts->schemas, buffer.data(), buffer.size(), 0};
        std::map<std::string, size_t> by_device;
        std::string error;
        for (unsigned round = 0;; ++round) {
            ser.used = 0;
            int result = 0;
            if (!guarded("write_events",
                         [&] { result = provider->write_events(provider, 0, &ser); }))
                return false;
            error = decode_blocks(ts, ser.buffer, ser.used, [&](Event &&event) {
                auto found = by_device.find(event.device);
                if (found != by_device.end()) {
                    (*in_order)[found->second] = std::move(event);
                } else {
                    by_device[event.device] = in_order->size();
                    in_order->push_back(std::move(event));
                }
            });
            if (!error.empty()) {
                complain("poll " + std::to_string(snapshot->poll) + ": dropped a buffer: " + error);
                return false;
            }
            if (result == VYR_WRITE_DONE) break;
            if (result == VYR_WRITE_BUFFER_FULL) {
                if (ser.used == 0) {
                    complain("poll " + std::to_string(snapshot->poll) +
                             ": the plug-in says the buffer is full but wrote nothing into its " +
                             std::to_string(buffer.size()) + " bytes");
                    return false;
                }
                if (round < 100000) continue;
                complain("the plug-in keeps reporting a full buffer; giving up this poll");
                return false;
            }
            complain("poll " + std::to_string(snapshot->poll) + ": write_events returned " +
                     std::to_string(result) + " (an error)");
            return false;
        }
        snapshot->events = *in_order;
        std::sort(snapshot->events.begin(), snapshot->events.end(),
                  [](const Event &a, const Event &b) { return a.device < b.device; });
        return true;
    }

    void write_out(const std::string &text) {
        if (output_broken || text.empty()) return;
        if (fwrite(text.data(), 1, text.size(), stdout) != text.size() || fflush(stdout) != 0) {
            output_broken = true;
            output_failed = errno != EPIPE;
            if (output_failed) complain(std::string("cannot write events: ") + strerror(errno));
        }
    }

    ExpositionOptions exposition_options() const {
        ExpositionOptions o;
        o.timestamps = options.timestamps;
        o.polls_total = polls;
        o.poll_errors_total = poll_errors;
        o.devices = devices;
        o.interfaces = interfaces;
        o.version = VYRHOST_VERSION;
        o.provider = provider_name;
        o.poll_duration = poll_duration;
        o.last_success = last_success;
        o.log_errors = g_log_errors.load();
        o.log_warnings = g_log_warnings.load();
        return o;
    }

    // node_exporter refuses files with sample timestamps.
    void write_textfile(const Snapshot &snapshot) {
        if (options.textfile.empty()) return;
        ExpositionOptions o = exposition_options();
        o.timestamps = false;
        std::string error = write_file_atomically(options.textfile, render_exposition(snapshot, o));
        if (!error.empty()) complain(error);
    }

    // One poll: drain, then print and publish. False when --count is reached.
    bool poll_once() {
        Snapshot snapshot;
        snapshot.poll = ++polls;
        snapshot.time = vyr_time_now_usec();
        std::vector<Event> in_order;
        double began = monotonic_now();
        bool ok = drain(&snapshot, &in_order);
        poll_duration = monotonic_now() - began;
        if (!ok) {
            // The last good events stay; the error shows in vyrhost_poll_errors_total.
            ++poll_errors;
            if (exporting) exporter.publish(render_exposition(last_good, exposition_options()));
            write_textfile(last_good);
            return true;
        }
        last_success = vyr_time_now_usec() / 1e6;
        if (exporting || !options.textfile.empty()) last_good = snapshot;
        if (exporting) exporter.publish(render_exposition(snapshot, exposition_options()));
        write_textfile(snapshot);
        if (!print) {
            events += snapshot.events.size();
            return !(options.count && events >= options.count);
        }
        switch (options.format) {
            case Format::kJson:
                for (const Event &event : in_order) {
                    std::string line = render_json_line(event, source);
                    if (line.empty()) {
                        complain("could not render an event of " + std::string(event.type->name) +
                                 " as JSON");
                        continue;
                    }
                    write_out(line + "\n");
                    if (options.count && ++events >= options.count) return false;
                }
                return true;
            case Format::kTable: {
                if (g_resized && !options.width_given) {
                    g_resized = 0;
                    table.width = terminal_width(tty);
                }
                std::string text = render_table(snapshot, table);
                if (tty && !options.no_refresh && table_lines > 0)
                    text = "\033[" + std::to_string(table_lines) + "A\033[J" + text;
                table_lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
                if (options.no_refresh || !tty) text += "\n";
                write_out(text);
                break;
            }
            case Format::kInflux:
                for (const Event &event : snapshot.events) {
                    std::string nic;  // the interface tag, as tarvik_device_up has it
                    for (const auto &known : interfaces)
                        if (known.first == event.device) nic = known.second;
                    write_out(render_influx_line(event, nic));
                }
                break;
            case Format::kPrometheus:
                write_out("# vyrhost poll " + std::to_string(snapshot.poll) + " at " +
                          clock_text(snapshot.time) + "\n" +
                          render_exposition(snapshot, exposition_options()));
                break;
        }
        events += snapshot.events.size();
        return !(options.count && events >= options.count);
    }

    void run_polls() {
        double start = monotonic_now();
        double deadline = options.duration > 0 ? start + options.duration : HUGE_VAL;
        double next = start + options.poll;
        for (;;) {
            bool due = next <= deadline;
            if (wait_until(due ? next : deadline) || !due) return;
            if (!poll_once() || output_broken) return;
            next += options.poll;
            double now = monotonic_now();
            if (next < now) next = now + options.poll;  // a slow poll skips, never bunches
        }
    }
};

int user_log_level(const Options &options) {
    if (options.log_level >= 0) return options.log_level;
    const char *env = getenv("VYR_API_LOG_LEVEL");
    if (!env) env = getenv("API_LOG_LEVEL");
    int level = 0;
    if (env && sscanf(env, "%d", &level) == 1) return level;
    return 0;
}

int run(Host &host, void *library, const std::string &library_path) {
    const Options &options = host.options;
    auto construct =
        reinterpret_cast<vyr_construct_event_provider_fn>(dlsym(library, VYR_PROVIDER_ENTRY_POINT));
    if (!construct) {
        complain(library_path + " is not a provider plug-in: it has no " VYR_PROVIDER_ENTRY_POINT
                                " entry point");
        return 1;
    }
    // The plug-in carries its own copy of the logger; hand it this one.
    typedef int (*register_logger_fn)(vyr_logger_ctx_t *);
    auto register_logger =
        reinterpret_cast<register_logger_fn>(dlsym(library, "_vyr_register_logger"));
    if (register_logger) {
        vyr_logger_ctx_t *ctx = vyr_get_logger_ctx();
        if (ctx) register_logger(ctx);
        vyr_destroy_logger_ctx(ctx);
    }

    std::vector<std::pair<std::string, std::string>> settings;
    if (!options.config_file.empty()) {
        std::string error = read_config_file(options.config_file, &settings);
        if (!error.empty()) {
            complain(error);
            return 2;
        }
    }
    settings.insert(settings.end(), options.sets.begin(), options.sets.end());
    std::map<std::string, std::string> merged;
    for (const auto &kv : settings) merged[kv.first] = kv.second;  // the last one wins
    std::vector<std::string> discovered;
    vyr::common::device_utils_get_zdt_hca_names(discovered, false);
    SettingsCheck check = check_settings(
        std::vector<std::pair<std::string, std::string>>(merged.begin(), merged.end()), discovered);
    for (const std::string &note : check.notes) complain("note: " + note);
    if (!check.error.empty()) {
        complain(check.error);
        return 2;
    }
    host.devices = check.devices;
    // The interfaces the device tool's report names, so that the device's
    // series join with the host's network metrics.
    host.interfaces = vyr::common::device_utils_get_zdt_interfaces();
    vyr_dict_t *dict = vyr_dict_create();
    if (!dict) {
        complain("out of memory");
        return 1;
    }
    for (const auto &kv : merged) vyr_dict_add(dict, kv.first.c_str(), kv.second.c_str());

    int status = 0;
    vyr_event_provider_t *p = nullptr;
    vyr_source_array_t *sources = nullptr;
    bool started = false;
    try {
        p = construct(dict);
    } catch (const std::exception &e) {
        complain(std::string("the plug-in refused its settings: ") + e.what() +
                 " failed (a setting that must be a number is not one)");
        vyr_dict_delete(dict);
        return 1;
    } catch (...) {
        complain("the plug-in refused its settings (construct_event_provider threw)");
        vyr_dict_delete(dict);
        return 1;
    }
    if (!p || !p->initialize || !p->start || !p->write_events || !p->stop || !p->destroy) {
        complain(library_path +
                 " is not a provider plug-in: construct_event_provider gave no complete "
                 "descriptor");
        vyr_dict_delete(dict);
        return 1;
    }
    host.provider = p;
    host.provider_name = p->name ? p->name : "";
    host.ts = vyr_create_type_system();
    if (!host.ts) {
        complain("cannot create a type system");
        p->destroy(p);
        vyr_dict_delete(dict);
        return 1;
    }

    do {
        if (p->get_sources) {
            guarded("get_sources", [&] { sources = p->get_sources(p); });
            char text[VYR_SOURCE_ID_SIZE + VYR_SOURCE_TAG_SIZE + 2];
            if (sources && sources->count > 0 &&
                vyr_source_full_string(sources->sources[0], text, sizeof text))
                host.source = text;
        }
        bool ok = false;
        if (!guarded("initialize", [&] { ok = p->initialize(p, host.ts); })) {
            status = 1;
            break;
        }
        if (g_stop_signal) break;  // what failed then failed of the signal
        if (!ok) {
            complain("initialization failed: " + explain_initialize_failure(captured()));
            status = 1;
            break;
        }
        vyr_type_system_update_md5_hashes(host.ts);
        if (p->schema_index >= host.ts->num_schemas || !host.ts->schemas[p->schema_index]) {
            complain("initialization failed: the plug-in registered no schema");
            status = 1;
            break;
        }
        host.schema = host.ts->schemas[p->schema_index];
        std::vector<std::string> failures = header_failures(captured());
        if (host.schema->num_types == 0) {
            std::string why;
            for (const std::string &f : failures) why += (why.empty() ? "" : "; ") + f;
            complain("initialization failed: no device gave a usable header" +
                     (why.empty() ? std::string() : " (" + why + ")"));
            status = 1;
            break;
        }
        // After Ctrl-C the header runs die of the terminal's signal, not of a fault.
        if (!g_stop_signal)
            for (const std::string &f : failures)
                complain("note: " + f + "; that device will not be collected");

        if (options.print_schema) {
            json_t *json = vyr_schema_jsonify(host.schema);
            char *text = json ? vyr_json_serialize(json, 1) : nullptr;
            json_decref(json);
            if (!text) {
                complain("cannot render the schema as JSON");
                status = 1;
                break;
            }
            printf("%s\n", text);
            fflush(stdout);
            free(text);
            fprintf(stderr, "vyrhost: schema \"%s\" version %s, identifier %s\n", host.schema->name,
                    vyr_version_to_string(host.schema->version), host.schema->md5_string);
            break;
        }

        // One event must always fit, or write_events could never hand it over.
        uint64_t largest = vyr_type_system_get_max_event_type_size(host.ts);
        uint64_t size = options.buffer_size;
        if (size < largest + 16) {
            size = largest + 16;
            complain("note: --buffer-size " + std::to_string(options.buffer_size) +
                     " is too small for the largest event (" + std::to_string(largest) +
                     " bytes plus a 16-byte block header); using " + std::to_string(size));
        }
        host.buffer.assign(size, 0);
        stop_capturing();

        host.tty = isatty(STDOUT_FILENO) == 1;
        host.table.columns =
            options.columns_given ? options.columns : default_table_columns(host.schema);
        host.table.width = options.width_given ? options.width : terminal_width(host.tty);
        host.print = (options.listen.empty() && options.textfile.empty()) || options.format_given;

        if (!options.listen.empty()) {
            ListenAddress address;
            parse_listen(options.listen, &address);
            std::string error = host.exporter.start(
                address, render_exposition(Snapshot(), host.exposition_options()));
            if (!error.empty()) {
                complain(error);
                status = 1;
                break;
            }
            host.exporting = true;
            fprintf(stderr, "vyrhost: serving Prometheus metrics at %s\n",
                    host.exporter.url().c_str());
            fflush(stderr);
        }

        if (g_stop_signal) break;  // interrupted while the header runs went on
        VYR_INFO("[vyrhost] starting the plug-in");
        if (!guarded("start", [&] { ok = p->start(p); }) || !ok) {
            complain("the plug-in could not start its threads");
            started = true;  // stop joins whatever did start
            status = 1;
            break;
        }
        started = true;
        host.run_polls();
        if (host.output_failed) status = 1;
    } while (false);

    g_stopping = true;
    if (g_stop_signal)
        VYR_INFO("[vyrhost] signal %d received, stopping the plug-in", (int)g_stop_signal);
    if (started) {
        VYR_INFO("[vyrhost] calling stop");
        guarded("stop", [&] { p->stop(p); });
    }
    VYR_INFO("[vyrhost] calling destroy");
    guarded("destroy", [&] { p->destroy(p); });
    VYR_INFO("[vyrhost] the plug-in is stopped and destroyed");
    host.exporter.stop();
    vyr_destroy_source_array(sources);
    vyr_destroy_type_system(host.ts);
    vyr_dict_delete(dict);
    return status;
}

}  // namespace

int main(int argc, char **argv) {
    Host host;
    std::string error = parse_options(argc, argv, &host.options);
    g_influx = host.options.format == Format::kInflux;
    if (!error.empty()) {
        complain(error);
        return 2;
    }
    if (host.options.help) {
        fputs(usage_text().c_str(), stdout);
        return 0;
    }
    if (host.options.version) {
        printf("vyrhost %s\n", VYRHOST_VERSION);
        return 0;
    }
    if (!install_signals()) {
        complain(std::string("cannot set up signal handling: ") + strerror(errno));
        return 1;
    }
    g_print_level = user_log_level(host.options);
    vyr_set_log_func(host_log, std::max(g_print_level, VYR_LOG_LEVEL_WARNING));

    std::string path = host.options.library;
    if (path.empty()) {
        std::string tried;
        path = default_library(&tried);
        if (path.empty()) {
            complain("no provider library beside vyrhost (looked for " + tried +
                     "); build the tarvik_provider target or name one with --library PATH");
            return 1;
        }
    } else if (path.find('/') != std::string::npos && access(path.c_str(), F_OK) != 0) {
        complain("provider library " + path + " does not exist");
        return 1;
    }
    void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        const char *why = dlerror();
        complain(path + " is not a loadable provider library: " + (why ? why : "unknown error"));
        return 1;
    }
    VYR_INFO("[vyrhost] loaded %s", path.c_str());
    // The library stays loaded until exit: the plug-in's threads are gone by
    // then, and sanitizer reports keep its symbols.
    return run(host, library, path);
}
