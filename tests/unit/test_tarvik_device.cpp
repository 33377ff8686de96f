// Descriptor layout, device records and their commands, and the small callbacks.
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
        p->update_interval_sec = 30;
    }
    void TearDown() override {
        for (auto &e : p->devices) free(e.second.service_command);
        tarvik_provider_destroy(&p->provider);
    }
    tarvik_provider_t *p = nullptr;
};

TEST_F(Provider, DescriptorIsTheProviderObject) {
    EXPECT_EQ(static_cast<void *>(&p->provider), static_cast<void *>(p));
}

TEST_F(Provider, DeviceRecordCarriesExactPathsAndCommands) {
    vyrtest::LogCapture log;
    tarvik_provider_add_device("D", 10);
    ASSERT_EQ(p->devices.count("D"), 1u);
    const auto &d = p->devices["D"];
    EXPECT_STREQ(d.name, "D");
    EXPECT_STREQ(d.device_path, "/dev/zdt/D");
    EXPECT_STREQ(d.out_file_path, "/tmp/tarvik_collect_D.csv");
    EXPECT_STREQ(d.command,
                 "phyprobe -d /dev/zdt/D --tarvik_collect /tmp/tarvik_collect_D.csv "
                 "--tarvik_rewrite > /dev/null");
    EXPECT_STREQ(d.service_command,
                 "phyprobe -d /dev/zdt/D --tarvik_collect /tmp/tarvik_collect_D.csv "
                 "--tarvik_rewrite --service_start 30 --service_iterations 10 > /dev/null");
    EXPECT_EQ(d.max_errors, 10);
    EXPECT_EQ(d.update_interval_sec, 30u);
    EXPECT_FALSE(d.disabled);
    EXPECT_TRUE(log.contains(
        6, "[tarvik provider] Device /dev/zdt/D will be collected to file /tmp/tarvik_collect_D.csv"));
}

TEST_F(Provider, ServiceCommandCarriesTheInterval) {
    p->update_interval_sec = 5;
    tarvik_provider_add_device("eth", 3);
    EXPECT_STREQ(p->devices["eth"].service_command,
                 "phyprobe -d /dev/zdt/eth --tarvik_collect /tmp/tarvik_collect_eth.csv "
                 "--tarvik_rewrite --service_start 5 --service_iterations 10 > /dev/null");
    EXPECT_EQ(p->devices["eth"].update_interval_sec, 5u);
    EXPECT_EQ(p->devices["eth"].max_errors, 3);
}

TEST_F(Provider, EmptyNameIsNotChecked) {
    tarvik_provider_add_device("", 10);
    EXPECT_STREQ(p->devices[""].device_path, "/dev/zdt/");
    EXPECT_STREQ(p->devices[""].out_file_path, "/tmp/tarvik_collect_.csv");
}

TEST_F(Provider, SecondRegistrationReplacesTheRecord) {
    tarvik_provider_add_device("x", 1);
    char *first_service = p->devices["x"].service_command;
    // The first record's texts are not released by the replacement.
    char *leaked[] = {p->devices["x"].name, p->devices["x"].device_path,
                      p->devices["x"].out_file_path, p->devices["x"].command};
    tarvik_provider_add_device("x", 2);
    EXPECT_EQ(p->devices.size(), 1u);
    EXPECT_EQ(p->devices["x"].max_errors, 2);
    free(first_service);
    for (char *s : leaked) free(s);
}

TEST_F(Provider, DevicesIterateInByteOrder) {
    for (const char *n : {"b", "B", "a10", "a2", "a"}) tarvik_provider_add_device(n, 10);
    std::vector<std::string> order;
    for (auto &e : p->devices) order.push_back(e.first);
    EXPECT_EQ(order, (std::vector<std::string>{"B", "a", "a10", "a2", "b"}));
}

TEST_F(Provider, QueryFillsTheFixedRecord) {
    vyr_provider_query_record_t r;
    memset(&r, 0xFF, sizeof r);
    EXPECT_TRUE(tarvik_provider_query(&p->provider, nullptr, &r));
    EXPECT_EQ(r.value, 7u);
    EXPECT_EQ(r.reserved32, 0u);
    EXPECT_EQ(r.reserved16, 0u);
}

TEST_F(Provider, SourcesHoldOneDefaultSourceTaggedTarvik) {
    setenv("VYR_SOURCE_ID", "node7", 1);
    vyr_source_array_t *a = tarvik_provider_get_sources(&p->provider);
    unsetenv("VYR_SOURCE_ID");
    ASSERT_NE(a, nullptr);
    ASSERT_EQ(a->count, 1);
    EXPECT_STREQ(a->sources[0]->id, "node7");
    EXPECT_STREQ(a->sources[0]->tag, "tarvik");
    vyr_destroy_source_array(a);
}

TEST_F(Provider, DestroyReleasesDevices) {
    tarvik_provider_add_device("a", 10);
    tarvik_provider_add_device("b", 10);
    std::vector<char *> services;
    for (auto &e : p->devices) services.push_back(e.second.service_command);
    tarvik_provider_destroy(&p->provider);
    EXPECT_TRUE(p->devices.empty());
    for (char *s : services) free(s);  // destroy keeps these on purpose
}

}  // namespace
