// tarvik_soak: a long run of the plug-in under a minimal host. It loads the
// library as a collector does, starts it on the simulated devices, drains
// events through a small buffer, and every few seconds reports the process's
// memory, open descriptors and the freshness of every device. It fails when
// descriptors or memory grow past the first report, when a device stops
// producing fresh events, or when the plug-in reports a write error.
//
// Runs inside tests/support/ns_run.sh (scripts/soak.sh sets it up).
#include <dirent.h>
#include <dlfcn.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "vyr_dict.h"
#include "vyr_event_provider.h"
#include "vyr_serializer.h"
#include "vyr_source.h"
#include "vyr_type_system.h"

namespace {

struct Options {
    std::string plugin = TARVIK_SOAK_DEFAULT_PLUGIN;
    unsigned devices = 32;       // expected number of devices
    unsigned interval = 1;       // tarvik_update_interval_sec
    bool service = true;         // tarvik_phyprobe_as_service
    double minutes = 10;         // length of the run
    unsigned report_sec = 30;    // seconds between reports
    unsigned buffer_events = 2;  // the host's buffer holds this many of the largest events
    unsigned stale_sec = 10;     // a device whose newest event is older is stale
    long rss_slack_kib = 4096;   // allowed growth of RSS over the first report
};

void usage() {
    fprintf(stderr,
            "usage: tarvik_soak [--plugin PATH] [--devices N] [--interval SEC] [--one-shot]\n"
            "                   [--minutes M] [--report SEC] [--buffer-events K] [--stale SEC]\n"
            "                   [--rss-slack-kib KIB]\n");
    exit(2);
}

Options parse(int argc, char **argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&]() -> const char * {
            if (i + 1 >= argc) usage();
            return argv[++i];
        };
        if (a == "--plugin")
            o.plugin = value();
        else if (a == "--devices")
            o.devices = (unsigned)atoi(value());
        else if (a == "--interval")
            o.interval = (unsigned)atoi(value());
        else if (a == "--one-shot")
            o.service = false;
        else if (a == "--minutes")
            o.minutes = atof(value());
        else if (a == "--report")
            o.report_sec = (unsigned)atoi(value());
        else if (a == "--buffer-events")
            o.buffer_events = (unsigned)atoi(value());
        else if (a == "--stale")
            o.stale_sec = (unsigned)atoi(value());
        else if (a == "--rss-slack-kib")
            o.rss_slack_kib = atol(value());
        else
            usage();
    }
    if (o.report_sec == 0 || o.buffer_events == 0) usage();
    return o;
}

uint64_t now_usec() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return (uint64_t)ts.tv_sec * 1000000 + (uint64_t)ts.tv_nsec / 1000;
}

double mono_sec() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

long status_field(const char *name) {
    FILE *f = fopen("/proc/self/status", "r");
    if (!f) return -1;
    char line[256];
    long value = -1;
    size_t n = strlen(name);
    while (fgets(line, sizeof line, f))
        if (strncmp(line, name, n) == 0 && line[n] == ':') value = atol(line + n + 1);
    fclose(f);
    return value;
}

// Descriptors open now, without the one that lists them.
int open_fds() {
    DIR *d = opendir("/proc/self/fd");
    if (!d) return -1;
    int n = 0;
    while (struct dirent *e = readdir(d))
        if (e->d_name[0] != '.') ++n;
    closedir(d);
    return n - 1;
}

// The collector holds a collection file open for a moment during a pass: the
// lowest of a few samples is the steady count.
int steady_fds() {
    int low = open_fds();
    for (int i = 0; i < 4; ++i) {
        usleep(25000);
        low = std::min(low, open_fds());
    }
    return low;
}

int tool_processes() {
    DIR *d = opendir("/proc");
    if (!d) return -1;
    int n = 0;
    while (struct dirent *e = readdir(d)) {
        if (e->d_name[0] < '0' || e->d_name[0] > '9') continue;
        std::string path = std::string("/proc/") + e->d_name + "/cmdline";
        FILE *f = fopen(path.c_str(), "r");
        if (!f) continue;
        char buf[512];
        size_t got = fread(buf, 1, sizeof buf - 1, f);
        fclose(f);
        buf[got] = 0;
        for (size_t i = 0; i < got; ++i)
            if (!buf[i]) buf[i] = ' ';
        if (strstr(buf, "/phyprobe ")) ++n;
    }
    closedir(d);
    return n;
}

struct Device {
    uint64_t newest = 0;  // event timestamp (collection time), microseconds
    uint64_t at_last_report = 0;
    uint64_t events = 0;  // deliveries: the latest event is handed over on every call
    uint64_t fresh = 0;   // deliveries that carried a newer event than the one before
};

}  // namespace

int main(int argc, char **argv) {
    Options o = parse(argc, argv);
    setvbuf(stdout, nullptr, _IOLBF, 0);

    void *lib = dlopen(o.plugin.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!lib) {
        fprintf(stderr, "tarvik_soak: %s\n", dlerror());
        return 1;
    }
    auto construct = (vyr_construct_event_provider_fn)dlsym(lib, VYR_PROVIDER_ENTRY_POINT);
    if (!construct) {
        fprintf(stderr, "tarvik_soak: no %s in %s\n", VYR_PROVIDER_ENTRY_POINT, o.plugin.c_str());
        return 1;
    }

    vyr_dict_t *params = vyr_dict_create();
    vyr_dict_add(params, "tarvik_update_interval_sec", std::to_string(o.interval).c_str());
    vyr_dict_add(params, "tarvik_phyprobe_as_service", o.service ? "1" : "0");
    vyr_event_provider_t *p = construct(params);
    vyr_source_array_t *sources = p->get_sources(p);
    vyr_type_system_t *ts = vyr_create_type_system();
    if (!sources || !ts || !p->initialize(p, ts)) {
        fprintf(stderr, "tarvik_soak: the plug-in did not initialize\n");
        return 1;
    }
    vyr_type_system_update_md5_hashes(ts);
    if (!p->start(p)) {
        fprintf(stderr, "tarvik_soak: the plug-in did not start\n");
        return 1;
    }

    const size_t room = (16 + vyr_type_system_get_max_event_type_size(ts)) * o.buffer_events;
    std::vector<uint8_t> buf(room);
    vyr_data_serializer_t ser{ts->schemas, buf.data(), room, 0};
    printf(
        "soak: %u devices expected, interval %u s, %s mode, %.1f min, buffer %zu bytes (%u "
        "events)\n",
        o.devices, o.interval, o.service ? "service" : "one-shot", o.minutes, room,
        o.buffer_events);

    std::map<std::string, Device> devices;
    uint64_t events = 0, collected = 0, calls = 0, full = 0;
    long rss_first = -1, rss_max = 0, rss_last = 0;
    int fds_first = -1, fds_last = 0;
    std::vector<std::string> failures;
    const double start = mono_sec();
    const double end = start + o.minutes * 60;
    double next_report = start + o.report_sec;

    for (;;) {
        // Drain: the host calls again while the plug-in says its buffer is full.
        int rc;
        do {
            ser.used = 0;
            rc = p->write_events(p, 0, &ser);
            ++calls;
            full += rc == VYR_WRITE_BUFFER_FULL;
            for (uint64_t pos = 0; pos < ser.used;) {
                vyr_event_block_header_t h;
                memcpy(&h, buf.data() + pos, sizeof h);
                const uint8_t *e = buf.data() + pos + sizeof h;
                uint64_t stamp;
                memcpy(&stamp, e, 8);
                std::string name(reinterpret_cast<const char *>(e + 72),
                                 strnlen(reinterpret_cast<const char *>(e + 72), 64));
                Device &d = devices[name];
                if (stamp > d.newest) {
                    d.newest = stamp;
                    ++d.fresh;
                    ++collected;
                }
                ++d.events;
                ++events;
                pos += sizeof h + ts->schemas[h.schema_index]->types[h.type_index]->size;
            }
        } while (rc == VYR_WRITE_BUFFER_FULL);
        if (rc < 0) {
            failures.push_back("write_events returned an error");
            break;
        }

        double t = mono_sec();
        if (t >= next_report || t >= end) {
            long rss = status_field("VmRSS");
            int fds = steady_fds();
            if (rss_first < 0) {
                rss_first = rss;
                fds_first = fds;
            }
            rss_last = rss;
            fds_last = fds;
            rss_max = std::max(rss_max, rss);
            uint64_t now = now_usec();
            unsigned fresh = 0;
            double oldest = 0;
            std::vector<std::string> stale;
            for (auto &entry : devices) {
                Device &d = entry.second;
                double age = (double)(now - d.newest) / 1e6;
                oldest = std::max(oldest, age);
                if (d.newest > d.at_last_report && age <= o.stale_sec)
                    ++fresh;
                else
                    stale.push_back(entry.first);
                d.at_last_report = d.newest;
            }
            printf("[%5.0fs] rss %ld KiB  fds %d  threads %ld  phyprobe %d  events %" PRIu64
                   " (%" PRIu64 " new)  devices %u/%u fresh  oldest newest-event %.1f s\n",
                   t - start, rss, fds, status_field("Threads"), tool_processes(), events,
                   collected, fresh, o.devices, oldest);
            char what[256];
            if (fresh < o.devices || devices.size() != o.devices) {
                std::string names;
                for (const auto &s : stale) names += " " + s;
                snprintf(what, sizeof what, "at %.0f s: %u of %u devices fresh, stale:%s",
                         t - start, fresh, o.devices, names.c_str());
                failures.push_back(what);
            }
            if (fds > fds_first) {
                snprintf(what, sizeof what,
                         "at %.0f s: %d descriptors open, %d at the first report", t - start, fds,
                         fds_first);
                failures.push_back(what);
            }
            if (rss - rss_first > o.rss_slack_kib) {
                snprintf(what, sizeof what, "at %.0f s: RSS %ld KiB, %ld KiB at the first report",
                         t - start, rss, rss_first);
                failures.push_back(what);
            }
            next_report += o.report_sec;
            if (t >= end) break;
        }
        usleep(100000);
    }

    int stopped = p->stop(p);
    p->destroy(p);
    vyr_destroy_source_array(sources);
    vyr_destroy_type_system(ts);
    vyr_dict_delete(params);

    uint64_t low = UINT64_MAX, high = 0;
    for (const auto &entry : devices) {
        low = std::min(low, entry.second.fresh);
        high = std::max(high, entry.second.fresh);
    }
    if (devices.empty()) low = 0;
    printf("soak: %.1f min, %" PRIu64 " events delivered in %" PRIu64 " write calls (%" PRIu64
           " returned buffer-full), %" PRIu64 " of them new, new per device %" PRIu64 "-%" PRIu64
           "\n",
           (mono_sec() - start) / 60, events, calls, full, collected, low, high);
    printf("soak: rss first %ld KiB, last %ld KiB, max %ld KiB; fds first %d, last %d; stop %d\n",
           rss_first, rss_last, rss_max, fds_first, fds_last, stopped);
    for (const auto &f : failures) printf("soak: FAIL %s\n", f.c_str());
    printf("soak: %s\n", failures.empty() ? "PASS" : "FAIL");
    return failures.empty() ? 0 : 1;
}
