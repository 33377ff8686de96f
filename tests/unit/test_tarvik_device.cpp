// Device records and their commands, and the small callbacks.
#include <gtest/gtest.h>

#include <cstring>

#include "log_capture.h"
#include "tarvik_provider.h"

namespace {

TEST(Provider, DeviceRecordQueryAndSources) {
    tarvik_provider_t *p = tarvik_provider_instance();
    vyrtest::LogCapture log;
    p->update_interval_sec = 5;
    tarvik_provider_add_device("eth", 3);
    const auto &d = p->devices.at("eth");
    const std::string run =
        "phyprobe -d /dev/zdt/eth --tarvik_collect /tmp/tarvik_collect_eth.csv"
        " --tarvik_rewrite";
    EXPECT_EQ(std::string(d.name) + "|" + d.device_path + "|" + d.out_file_path + "|" + d.command +
                  "|" + d.service_command + "|" + std::to_string(d.max_errors) + "|" +
                  std::to_string(d.update_interval_sec) + "|" + std::to_string(d.disabled),
              "eth|/dev/zdt/eth|/tmp/tarvik_collect_eth.csv|" + run + " > /dev/null|" + run +
                  " --service_start 5 --service_iterations 10 > /dev/null|3|5|0");
    EXPECT_TRUE(log.contains(6,
                             "[tarvik provider] Device /dev/zdt/eth will be collected to file "
                             "/tmp/tarvik_collect_eth.csv"));
    free(d.service_command);  // destroy keeps it
    tarvik_provider_destroy(&p->provider);

    vyr_provider_query_record_t r;
    memset(&r, 0xFF, sizeof r);
    EXPECT_TRUE(tarvik_provider_query(&p->provider, nullptr, &r) && r.value == 7 &&
                r.reserved32 == 0 && r.reserved16 == 0);
    setenv("VYR_SOURCE_ID", "node7", 1);
    vyr_source_array_t *a = tarvik_provider_get_sources(&p->provider);
    unsetenv("VYR_SOURCE_ID");
    EXPECT_EQ(std::to_string(a->count) + std::string(a->sources[0]->id) + " " + a->sources[0]->tag,
              "1node7 tarvik");
    vyr_destroy_source_array(a);
}

}  // namespace
