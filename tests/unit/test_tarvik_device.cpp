// Device records and their commands, and the small callbacks.
#include <gtest/gtest.h>

#include <cstring>

#include "log_capture.h"
#include "tarvik_provider.h"

namespace {

class Provider : public ::testing::Test {
  protected:
    void SetUp() override {
        p = tarvik_provider_instance();
        p->devices.clear();
    }
    void TearDown() override {
        for (auto &e : p->devices) free(e.second.service_command);  // destroy keeps these
        tarvik_provider_destroy(&p->provider);
    }
    tarvik_provider_t *p = nullptr;
};

TEST_F(Provider, DeviceRecordCarriesExactPathsAndCommands) {
    const struct {
        const char *name;
        uint64_t interval;
        int32_t max_errors;
    } cases[] = {{"D", 30, 10}, {"eth", 5, 3}, {"", 30, 10}};  // the name is not checked
    for (const auto &c : cases) {
        vyrtest::LogCapture log;
        p->update_interval_sec = c.interval;
        tarvik_provider_add_device(c.name, c.max_errors);
        const std::string n = c.name, path = "/dev/zdt/" + n,
                          out = "/tmp/tarvik_collect_" + n + ".csv",
                          run = "phyprobe -d " + path + " --tarvik_collect " + out +
                                " --tarvik_rewrite";
        const auto &d = p->devices.at(n);
        EXPECT_EQ(
            std::string(d.name) + "|" + d.device_path + "|" + d.out_file_path + "|" + d.command +
                "|" + d.service_command + "|" + std::to_string(d.max_errors) + "|" +
                std::to_string(d.update_interval_sec) + "|" + std::to_string(d.disabled),
            n + "|" + path + "|" + out + "|" + run + " > /dev/null|" + run + " --service_start " +
                std::to_string(c.interval) + " --service_iterations 10 > /dev/null|" +
                std::to_string(c.max_errors) + "|" + std::to_string(c.interval) + "|0");
        EXPECT_TRUE(log.contains(
            6, "[tarvik provider] Device " + path + " will be collected to file " + out));
    }
}

// The replacement does not release the first record's texts.
TEST_F(Provider, SecondRegistrationReplacesTheRecord) {
    tarvik_provider_add_device("x", 1);
    const auto &d = p->devices["x"];
    char *first[] = {d.name, d.device_path, d.out_file_path, d.command, d.service_command};
    tarvik_provider_add_device("x", 2);
    EXPECT_TRUE(p->devices.size() == 1 && p->devices["x"].max_errors == 2);
    for (char *s : first) free(s);
}

TEST_F(Provider, QueryAndSources) {
    vyr_provider_query_record_t r;
    memset(&r, 0xFF, sizeof r);
    EXPECT_TRUE(tarvik_provider_query(&p->provider, nullptr, &r));
    EXPECT_EQ(std::to_string(r.value) + " " + std::to_string(r.reserved32) + " " +
                  std::to_string(r.reserved16),
              "7 0 0");

    setenv("VYR_SOURCE_ID", "node7", 1);
    vyr_source_array_t *a = tarvik_provider_get_sources(&p->provider);
    unsetenv("VYR_SOURCE_ID");
    ASSERT_EQ(a->count, 1);
    EXPECT_EQ(std::string(a->sources[0]->id) + " " + a->sources[0]->tag, "node7 tarvik");
    vyr_destroy_source_array(a);
}

}  // namespace
