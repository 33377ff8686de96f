// The provider as a host drives it, for namespace tests that run the whole
// plug-in against the simulated zdt and phyprobe. The provider object is the
// library's single static one, so every test hands it back as it found it.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <thread>

#include "log_capture.h"
#include "sim.h"
#include "tarvik_collect.h"
#include "tarvik_provider.h"
#include "vyr_dict.h"
#include "vyr_serializer.h"
#include "vyr_type_system.h"

namespace vyrtest {

// A guard against hangs, never a timing assertion.
inline bool eventually(const std::function<bool()> &pred, int seconds = 30) {
    for (int i = 0; !pred(); ++i) {
        if (i == seconds * 50) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

// The argv the simulated phyprobe logs for a device's one-shot run.
inline std::string one_shot_argv(const std::string &dev) {
    return "phyprobe -d /dev/zdt/" + dev + " --tarvik_collect /tmp/tarvik_collect_" + dev +
           ".csv --tarvik_rewrite";
}

inline std::string text_at(const uint8_t *p, size_t n = 64) {
    return std::string(reinterpret_cast<const char *>(p),
                       strnlen(reinterpret_cast<const char *>(p), n));
}

class ProviderTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::reset();
        p = tarvik_provider_instance();
        params = vyr_dict_create();
        ts = vyr_create_type_system();
    }
    void TearDown() override {
        release();
        vyr_dict_delete(params);
        sim::reset();
        log_.reset();
    }
    // Stops the threads and the host, and releases the provider and the type system.
    void release() {
        if (started) stop();
        for (auto &e : p->devices) free(e.second.service_command);  // destroy keeps these
        tarvik_provider_destroy(&p->provider);
        vyr_destroy_type_system(ts);
        ts = nullptr;
    }
    // The log from now on. The first call installs the capture: make it
    // before any thread logs, the logger's level is a plain global.
    LogCapture &fresh_log() {
        if (!log_) log_.reset(new LogCapture);
        log_->clear();
        return *log_;
    }
    void set(const char *key, const char *value) { ASSERT_TRUE(vyr_dict_add(params, key, value)); }
    void one_shot() { set("tarvik_phyprobe_as_service", "0"); }
    vyr_event_provider_t *construct() {
        if (!ts) ts = vyr_create_type_system();
        return construct_event_provider(params);
    }
    bool initialize() { return p->provider.initialize(&p->provider, ts); }
    void bring_up() {  // ready for a host to drain events
        construct();
        ASSERT_TRUE(initialize());
        vyr_type_system_update_md5_hashes(ts);
    }
    // What a host with room for one event at a time receives now: each
    // device's event time. (A host that copied an event while it was being
    // converted is what the thread sanitizer build reports.)
    std::map<std::string, uint64_t> drain() {
        std::map<std::string, uint64_t> got;
        std::vector<uint8_t> buf(16 + vyr_type_system_get_max_event_type_size(ts));
        for (int rc = 1; rc == 1;) {
            vyr_data_serializer_t ser{ts->schemas, buf.data(), buf.size(), 0};
            EXPECT_GE(rc = p->provider.write_events(&p->provider, 0, &ser), 0);
            const uint8_t *e = buf.data() + sizeof(vyr_event_block_header_t);
            if (!ser.used) continue;
            EXPECT_EQ(text_at(e + 8), "tarvik_event");
            memcpy(&got[text_at(e + 72)], e, 8);
        }
        return got;
    }
    void start() {
        ASSERT_TRUE(p->provider.start(&p->provider));
        started = true;
    }
    int stop() {
        started = false;
        return p->provider.stop(&p->provider);
    }
    tarvik_provider_dev_info_t &dev(const std::string &name) { return p->devices.at(name); }
    // One collection pass; the healthy devices' events must reach the host
    // newer than before. In service mode nothing rewrites the files between
    // passes, so the healthy devices' tool is run first.
    void pass(const std::vector<std::string> &healthy = {"good"}) {
        for (const auto &h : healthy)
            EXPECT_TRUE(!p->run_as_service || system(dev(h).command) == 0);
        auto before = drain();
        tarvik_collect_pass(p);
        auto now = drain();
        for (const auto &h : healthy)
            EXPECT_GT(now[h.substr(0, 63)], before[h.substr(0, 63)]) << h << " got no fresh event";
    }

    tarvik_provider_t *p = nullptr;
    vyr_dict_t *params = nullptr;
    vyr_type_system_t *ts = nullptr;
    bool started = false;

  private:
    std::unique_ptr<LogCapture> log_;
};

}  // namespace vyrtest
