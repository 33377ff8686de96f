// Environment lookup with and without the "VYR_" prefix: which value wins and
// what the lookup says about it.
#include <gtest/gtest.h>

#include "unit_helpers.h"
#include "vyr_env.h"

namespace {

using vyrtest::LogCapture;
using Log = std::vector<std::pair<int, std::string>>;

Log entries(const LogCapture &cap) {
    Log out;
    for (const auto &l : cap.lines()) out.emplace_back(l.level, l.text);
    return out;
}

std::string str(const char *value) {
    return value ? value : "<unset>";
}

class EnvTest : public ::testing::Test {
  protected:
    void TearDown() override {
        vyr_set_log_func(nullptr, 0);
        vyr_init_stderr_logger(0);
    }
    vyrtest::unit::ScopedEnv env_{"VYR_ENVTEST_SETTING", "ENVTEST_SETTING", "VYR_API_LOG_LEVEL",
                                  "API_LOG_LEVEL"};
};

TEST_F(EnvTest, PrefixedSpellingWins) {
    const char *unset = nullptr;
    auto conflict = [](const std::string &prefixed) {
        return "[vyr_getenv] Environment variables conflict - VYR_ENVTEST_SETTING=" + prefixed +
               " and ENVTEST_SETTING=b. Using VYR_ENVTEST_SETTING";
    };
    const std::string use_a = "[vyr_getenv] Using 'VYR_ENVTEST_SETTING'='a'";
    const std::string use_b = "[vyr_getenv] Using 'ENVTEST_SETTING'='b'";
    const std::string none = "[vyr_getenv] No value for 'VYR_ENVTEST_SETTING' or 'ENVTEST_SETTING'";
    const struct {
        const char *prefixed, *plain, *query, *result;
        Log log;
    } cases[] = {
        {"a", "b", "ENVTEST_SETTING", "a", {{4, conflict("a")}, {7, use_a}}},
        {"a", "b", "VYR_ENVTEST_SETTING", "a", {{4, conflict("a")}, {7, use_a}}},
        {"a", "a", "ENVTEST_SETTING", "a", {{7, use_a}}},
        {unset, "b", "VYR_ENVTEST_SETTING", "b", {{7, use_b}}},
        {unset, unset, "ENVTEST_SETTING", unset, {{7, none}}},
        {unset, unset, "VYR_ENVTEST_SETTING", unset, {{7, none}}},
        // Set but empty still counts as set.
        {"",
         "b",
         "ENVTEST_SETTING",
         "",
         {{4, conflict("")}, {7, "[vyr_getenv] Using 'VYR_ENVTEST_SETTING'=''"}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.query) + " with " + str(c.prefixed) + "/" + str(c.plain));
        env_.set("VYR_ENVTEST_SETTING", c.prefixed);
        env_.set("ENVTEST_SETTING", c.plain);
        LogCapture cap(7);
        EXPECT_EQ(str(vyr_getenv(c.query)), str(c.result));
        EXPECT_EQ(entries(cap), c.log);
    }
}

// The logger reads its level through this lookup, so that one name never logs.
TEST_F(EnvTest, LogLevelLookupIsSilent) {
    const char *unset = nullptr;
    const struct {
        const char *prefixed, *plain, *result;
    } cases[] = {{"7", "3", "7"}, {unset, "3", "3"}, {unset, unset, unset}};
    for (const auto &c : cases) {
        env_.set("VYR_API_LOG_LEVEL", c.prefixed);
        env_.set("API_LOG_LEVEL", c.plain);
        LogCapture cap(7);
        EXPECT_EQ(str(vyr_getenv("VYR_API_LOG_LEVEL")), str(c.result));
        EXPECT_TRUE(cap.lines().empty()) << cap.dump();
    }

    // Only the exact name is exempt; the plain spelling logs like any other.
    env_.set("VYR_API_LOG_LEVEL", "7");
    env_.set("API_LOG_LEVEL", "3");
    LogCapture cap(7);
    EXPECT_STREQ(vyr_getenv("API_LOG_LEVEL"), "7");
    EXPECT_EQ(cap.lines().size(), 2u) << cap.dump();  // the conflict and the value
}

// A lookup made before any logger exists initialises it (without recursing)
// and is then gated by the level the environment gives.
TEST_F(EnvTest, FirstLookupInitialisesTheLogger) {
    env_.set("ENVTEST_SETTING", "b");
    vyr_set_log_func(nullptr, 0);
    vyr_log_level = -1;
    EXPECT_STREQ(vyr_getenv("ENVTEST_SETTING"), "b");
    EXPECT_EQ(vyr_log_level, 0);
}

TEST_F(EnvTest, OddNames) {
    LogCapture cap(7);
    EXPECT_EQ(vyr_getenv(nullptr), nullptr);
    EXPECT_TRUE(cap.lines().empty());

    // The bare prefix: its plain spelling is the empty name.
    EXPECT_EQ(vyr_getenv("VYR_"), nullptr);
    EXPECT_TRUE(cap.contains(7, "[vyr_getenv] No value for 'VYR_' or ''")) << cap.dump();

    // A long name, so that the prefixed spelling needs its whole buffer.
    std::string plain(300, 'Q');
    env_.set("VYR_" + plain, "long");
    EXPECT_STREQ(vyr_getenv(plain.c_str()), "long");
}

}  // namespace
