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
        EXPECT_EQ(d.name, n);
        EXPECT_EQ(d.device_path, path);
        EXPECT_EQ(d.out_file_path, out);
        EXPECT_EQ(d.command, run + " > /dev/null");
        EXPECT_EQ(d.service_command, run + " --service_start " + std::to_string(c.interval) +
                                         " --service_iterations 10 > /dev/null");
        EXPECT_EQ(d.max_errors, c.max_errors);
        EXPECT_EQ(d.update_interval_sec, c.interval);
        EXPECT_FALSE(d.disabled);
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
    EXPECT_EQ(p->devices.size(), 1u);
    EXPECT_EQ(p->devices["x"].max_errors, 2);
    for (char *s : first) free(s);
}

TEST_F(Provider, QueryAndSources) {
    vyr_provider_query_record_t r;
    memset(&r, 0xFF, sizeof r);
    EXPECT_TRUE(tarvik_provider_query(&p->provider, nullptr, &r));
    EXPECT_EQ(r.value, 7u);
    EXPECT_EQ(r.reserved32, 0u);
    EXPECT_EQ(r.reserved16, 0u);

    setenv("VYR_SOURCE_ID", "node7", 1);
    vyr_source_array_t *a = tarvik_provider_get_sources(&p->provider);
    unsetenv("VYR_SOURCE_ID");
    ASSERT_NE(a, nullptr);
    ASSERT_EQ(a->count, 1);
    EXPECT_STREQ(a->sources[0]->id, "node7");
    EXPECT_STREQ(a->sources[0]->tag, "tarvik");
    vyr_destroy_source_array(a);
}

}  // namespace
