// Allocation failures through the provider's construction and initialization,
// against the simulated zdt and phyprobe: one generic walk per operation fails
// the k-th allocation for every k the operation reaches (alloc_fault.h). Each
// run must end in a reported, consistent state and leave nothing allocated
// but the device texts the provider keeps on purpose.
#include <algorithm>

#include "alloc_fault.h"
#include "provider_fixture.h"
#include "unit_helpers.h"

namespace alloc = vyrtest::alloc;
namespace sim = vyrtest::sim;
using vyrtest::LogCapture;

namespace {

const char *const kDevices[] = {"a", "b", "c"};

bool starts_with_any(const std::string &text, std::initializer_list<const char *> prefixes) {
    return std::any_of(prefixes.begin(), prefixes.end(),
                       [&](const char *p) { return text.rfind(p, 0) == 0; });
}

class ProviderAllocFailures : public vyrtest::ProviderTest {
  protected:
    void SetUp() override {
        if (!alloc::available())
            GTEST_SKIP() << "this sanitizer build was linked without the --wrap options";
        ProviderTest::SetUp();
        set("tarvik_phyprobe_as_service", "0");
        // a and b share a header (one event type), c has its own.
        sim::add_device("a", "arcline", "eth0");
        sim::add_device("b", "tidegate", "eth1");
        sim::add_device("c", "arcline", "eth2");
        sim::set_phyprobe_knob("HEADER_LINE", "seq,note,ratio");
        sim::set_phyprobe_knob("VALUE_LINE", "{run},x{run},2.5");
        sim::set_phyprobe_knob("HEADER_LINE", "Raw_Errors,FW_Version", "c");
        sim::set_phyprobe_knob("VALUE_LINE", "{run},1.2.3", "c");
        env_.set("VYR_HOST_NAME", "node1");
        // Process-wide state made on first use (the digest tables, the C
        // library's) is no leak of any run.
        construct();
        ASSERT_TRUE(initialize());
        tarvik_collect_pass(p);
        vyr_type_system_update_md5_hashes(ts);
        release();
    }
    void TearDown() override {
        if (alloc::available()) ProviderTest::TearDown();
    }
    // Releases the provider; the blocks still live must be texts of a device
    // (what a failed registration copied, what a destroyed device kept).
    void release_and_check_kept() {
        release();
        for (void *b : alloc::live_blocks()) {
            const std::string text = static_cast<const char *>(b);
            const bool of_a_device =
                std::any_of(std::begin(kDevices), std::end(kDevices), [&](std::string d) {
                    return text == d || text.find("/dev/zdt/" + d) != std::string::npos ||
                           text.find("tarvik_collect_" + d) != std::string::npos;
                });
            EXPECT_TRUE(of_a_device) << "leaked: " << text;
            free(b);
        }
    }
    vyrtest::unit::ScopedEnv env_;
};

TEST_F(ProviderAllocFailures, ConstructRegistersWhatItCanAndSaysWhy) {
    long calls = alloc::walk([&](long k) {
        LogCapture log;
        ts = vyr_create_type_system();
        alloc::failing(k, [&] { return construct_event_provider(params); });
        std::vector<std::string> got = device_names(), problems;
        for (const auto &l : log.lines())
            if (l.level <= VYR_LOG_LEVEL_WARNING) problems.push_back(l.text);
        if (!alloc::fired()) {
            EXPECT_EQ(got, (std::vector<std::string>{"a", "b", "c"}));
        }
        // A device is missing only with a reason: discovery failed, or its
        // registration said which copy it could not make.
        for (const std::string &l : problems)
            EXPECT_TRUE(starts_with_any(l, {"[tarvik provider] ", "[device_utils] "})) << l;
        EXPECT_TRUE(got.size() == 3 || !problems.empty()) << "a device vanished silently";
        release_and_check_kept();
    });
    EXPECT_GE(calls, 15);  // five copies a device at least
}

TEST_F(ProviderAllocFailures, InitializeFailsCleanlyOrDisablesTheDevice) {
    long calls = alloc::walk([&](long k) {
        construct();
        ASSERT_EQ(p->devices.size(), 3u);
        LogCapture log;
        bool ok = alloc::failing(k, [&] { return initialize(); });
        EXPECT_TRUE(ok || alloc::fired());
        for (const auto &l : log.lines()) {
            if (l.level > VYR_LOG_LEVEL_WARNING) continue;
            EXPECT_TRUE(starts_with_any(
                l.text, {"[tarvik provider] ", "[vyr_schema_add_type] ", "[tarvik_format] "}))
                << l.text;
        }
        if (ok) {
            // Each device is ready to collect or disabled; what is left runs.
            size_t ready = 0;
            for (auto &e : p->devices) {
                if (e.second.disabled) continue;
                ++ready;
                EXPECT_NE(e.second.event_cache, nullptr) << e.first;
                EXPECT_TRUE(e.second.header_id && p->type_infos.count(e.second.header_id))
                    << e.first;
            }
            tarvik_collect_pass(p);
            vyr_type_system_update_md5_hashes(ts);
            uint8_t buf[4096];
            vyr_data_serializer_t ser{ts->schemas, buf, sizeof buf, 0};
            EXPECT_EQ(p->provider.write_events(&p->provider, 0, &ser), 0);
            EXPECT_EQ(ser.used == 0, ready == 0);
        }
        release_and_check_kept();
    });
    EXPECT_GE(calls, 40);
}

}  // namespace
