// Allocation failures through the provider's construction and initialization,
// against the simulated zdt and phyprobe: each walk fails the k-th allocation
// for every k the operation reaches (alloc_fault.h). Each run must end in a
// reported, consistent state and leave nothing allocated but the device texts
// the provider keeps on purpose.
#include "alloc_fault.h"
#include "provider_fixture.h"
#include "unit_helpers.h"

namespace alloc = vyrtest::alloc;
namespace sim = vyrtest::sim;

namespace {

class ProviderAllocFailures : public vyrtest::ProviderTest {
  protected:
    void SetUp() override {
        if (!alloc::available())
            GTEST_SKIP() << "this sanitizer build was linked without the --wrap options";
        ProviderTest::SetUp();
        one_shot();
        // a and b share a header (one event type), c has its own.
        for (const char *d : {"a", "b", "c"}) sim::add_device(d);
        sim::set_phyprobe_knob("HEADER_LINE", "seq,note,ratio");
        sim::set_phyprobe_knob("VALUE_LINE", "{run},x{run},2.5");
        sim::set_phyprobe_knob("HEADER_LINE", "Raw_Errors,FW_Version", "c");
        env_.set("VYR_HOST_NAME", "node1");
        // Process-wide state made on first use (the digest tables, the C
        // library's) is no leak of any run.
        construct();
        ASSERT_TRUE(initialize());
        tarvik_collect_pass(p);
        vyr_type_system_update_md5_hashes(ts);
        drain();
        release();
    }
    void TearDown() override {
        if (alloc::available()) ProviderTest::TearDown();
    }
    // Releases the provider; the blocks still live must be texts of a device
    // (what a failed registration copied, what a destroyed device kept), and
    // every error or warning must come from the library's own units.
    void release_and_check(const vyrtest::LogCapture &log) {
        release();
        for (void *b : alloc::live_blocks()) {
            const std::string text = static_cast<const char *>(b);
            EXPECT_TRUE(text.size() == 1 || text.find("/dev/zdt/") != std::string::npos ||
                        text.find("tarvik_collect_") != std::string::npos)
                << "leaked: " << text;
            free(b);
        }
        for (const auto &l : log.lines())
            EXPECT_TRUE(l.level > VYR_LOG_LEVEL_WARNING || l.text.find("] ") != std::string::npos)
                << l.text;
    }
    vyrtest::unit::ScopedEnv env_;
};

TEST_F(ProviderAllocFailures, ConstructRegistersWhatItCanAndSaysWhy) {
    EXPECT_GE(alloc::walk([&](long k) {
                  vyrtest::LogCapture log;
                  ts = vyr_create_type_system();
                  alloc::failing(k, [&] { return construct_event_provider(params); });
                  // A device is missing only with a reason.
                  EXPECT_TRUE(p->devices.size() == 3 || (alloc::fired() && !log.lines().empty()));
                  release_and_check(log);
              }),
              15);  // five copies a device at least
}

TEST_F(ProviderAllocFailures, InitializeFailsCleanlyOrDisablesTheDevice) {
    EXPECT_GE(alloc::walk([&](long k) {
                  construct();
                  ASSERT_EQ(p->devices.size(), 3u);
                  vyrtest::LogCapture log;
                  const bool ok = alloc::failing(k, [&] { return initialize(); });
                  EXPECT_TRUE(ok || alloc::fired());
                  // What is left runs: after a pass every ready device's event
                  // reaches the host.
                  if (ok) vyr_type_system_update_md5_hashes(ts), tarvik_collect_pass(p);
                  size_t ready = 0;
                  for (auto &e : p->devices) ready += ok && !e.second.disabled;
                  EXPECT_EQ(ok ? drain().size() : 0u, ready);
                  release_and_check(log);
              }),
              40);
}

}  // namespace
