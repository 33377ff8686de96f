#include "tarvik_service.h"

#include <glob.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tarvik_collect.h"
#include "vyr_logger.h"
#include "vyr_time.h"

bool tarvik_provider_start(vyr_event_provider_t *provider) {
    if (!provider) return false;
    tarvik_provider_t *p = reinterpret_cast<tarvik_provider_t *>(provider);
    p->tools.open();
    if (p->run_as_service && !p->devices.empty()) {
        for (auto &entry : p->devices) {
            tarvik_provider_dev_info_t &dev = entry.second;
            VYR_INFO("[tarvik provider] Starting service for device %s", dev.name);
            if (pthread_create(&dev.service_thread, nullptr, tarvik_service_thread_callback,
                               &dev) != 0) {
                dev.service_thread = 0;
                VYR_ERROR("[tarvik provider] Failed to start internal service thread for '%s'",
                          dev.name);
                return false;
            }
        }
    }
    if (pthread_create(&p->collect_thread, nullptr, tarvik_thread_callback, p) != 0) {
        p->collect_thread = 0;
        VYR_ERROR("[tarvik provider] Failed to start internal thread");
        return false;
    }
    return true;
}

void *tarvik_service_thread_callback(void *arg) {
    const char *fn = "tarvik_service_thread_callback";
    tarvik_provider_dev_info_t *dev = static_cast<tarvik_provider_dev_info_t *>(arg);
    if (dev->service_stop) return nullptr;
    for (;;) {
        // Compared with the absolute clock, so a finished service restarts at once.
        if (dev->update_interval_sec * 1000000 > vyr_time_now_usec()) {
            sleep(2);
        } else {
            VYR_DEBUG(
                "[tarvik provider] [%s] Starting service process for device %s for %d iterations",
                fn, dev->name, TARVIK_SERVICE_ITERATIONS);
            int rc = tarvik_run_tool(tarvik_provider_instance(), dev->service_command);
            // stop ended the run: nothing failed.
            if (dev->service_stop) return nullptr;
            if (rc == 0) {
                VYR_DEBUG("[tarvik provider] [%s] Service process for device %s finished", fn,
                          dev->name);
                dev->disabled = false;
            } else {
                VYR_WARN("[tarvik provider] [%s] Could not execute command %s, system returned %d",
                         fn, dev->service_command, rc);
                dev->disabled = true;
                dev->service_stop = true;
            }
        }
        if (dev->service_stop) return nullptr;
    }
}

// Names of the service markers in the device directory, in glob (sorted) order.
static std::vector<std::string> service_markers() {
    std::vector<std::string> names;
    glob_t g;
    memset(&g, 0, sizeof g);
    if (glob(TARVIK_DEVICE_DIR "/*", GLOB_TILDE, nullptr, &g) == 0) {
        for (size_t i = 0; i < g.gl_pathc; ++i) {
            const char *path = g.gl_pathv[i];
            const char *slash = strrchr(path, '/');
            std::string name = slash ? slash + 1 : path;
            if (name.find(TARVIK_SERVICE_MARKER) != std::string::npos) names.push_back(name);
        }
    }
    globfree(&g);
    return names;
}

bool tarvik_threads_running(const tarvik_provider_t *p) {
    if (p->collect_thread != 0) return true;
    for (const auto &entry : p->devices)
        if (entry.second.service_thread != 0) return true;
    return false;
}

int tarvik_provider_stop(vyr_event_provider_t *provider) {
    const char *fn = "tarvik_provider_stop";
    if (!provider) return 0;
    tarvik_provider_t *p = reinterpret_cast<tarvik_provider_t *>(provider);
    // Threads first: whatever the markers hold, nothing of ours runs on
    // after this call, thrown or not. Ending the tool runs wakes a thread
    // that waits for one.
    p->stop_requested = true;
    for (auto &entry : p->devices) entry.second.service_stop = true;
    p->tools.close();
    if (p->collect_thread != 0) {
        pthread_join(p->collect_thread, nullptr);
        p->collect_thread = 0;
    }
    for (auto &entry : p->devices) {
        tarvik_provider_dev_info_t &dev = entry.second;
        if (dev.service_thread != 0) {
            pthread_join(dev.service_thread, nullptr);
            dev.service_thread = 0;
        }
    }
    if (p->devices.empty()) return 1;
    for (size_t i = 0; i < p->devices.size(); ++i) {
        // The scan does not depend on the device: every marker is signalled
        // once per registered device.
        for (const std::string &name : service_markers()) {
            // The id is read from the fixed position after the prefix; text
            // there that is not a number throws to the caller.
            int pid = std::stoi(name.substr(strlen(TARVIK_SERVICE_MARKER)), nullptr, 10);
            VYR_INFO("[tarvik provider] [%s] stopping service by PID %d", fn, pid);
            // 0 and negative ids would name process groups (-1: every
            // process); a marker naming the host must not end it.
            if (pid > 0 && pid != getpid()) kill(pid, SIGKILL);
        }
    }
    return 1;
}
