// Environment lookup with and without the "VYR_" prefix: which value wins and
// what the lookup says about it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "log_capture.h"
#include "vyr_env.h"
#include "vyr_logger.h"

namespace {

using vyrtest::LogCapture;

const char *const kNames[] = {"VYR_ENVTEST_SETTING", "ENVTEST_SETTING", "VYR_API_LOG_LEVEL",
                              "API_LOG_LEVEL", "VYR_"};

class EnvTest : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char *name : kNames) {
            const char *v = getenv(name);
            saved_.push_back({name, v != nullptr, v ? v : ""});
            unsetenv(name);
        }
    }
    void TearDown() override {
        for (const auto &s : saved_) {
            if (s.set)
                setenv(s.name, s.value.c_str(), 1);
            else
                unsetenv(s.name);
        }
        vyr_set_log_func(nullptr, 0);
        vyr_init_stderr_logger(0);
    }

    static void set(const char *name, const char *value) {
        if (value)
            setenv(name, value, 1);
        else
            unsetenv(name);
    }

  private:
    struct Saved {
        const char *name;
        bool set;
        std::string value;
    };
    std::vector<Saved> saved_;
};

TEST_F(EnvTest, PrefixedSpellingWins) {
    const char *unset = nullptr;
    const std::string conflict =
        "[vyr_getenv] Environment variables conflict - VYR_ENVTEST_SETTING=a and "
        "ENVTEST_SETTING=b. Using VYR_ENVTEST_SETTING";
    const std::string use_prefixed_a = "[vyr_getenv] Using 'VYR_ENVTEST_SETTING'='a'";
    const struct {
        const char *prefixed;
        const char *plain;
        const char *query;
        const char *result;
        std::vector<std::pair<int, std::string>> log;
    } cases[] = {
        {"a", "b", "ENVTEST_SETTING", "a", {{4, conflict}, {7, use_prefixed_a}}},
        {"a", "b", "VYR_ENVTEST_SETTING", "a", {{4, conflict}, {7, use_prefixed_a}}},
        {"a", "a", "ENVTEST_SETTING", "a", {{7, use_prefixed_a}}},
        {"a", unset, "ENVTEST_SETTING", "a", {{7, use_prefixed_a}}},
        {unset, "b", "ENVTEST_SETTING", "b", {{7, "[vyr_getenv] Using 'ENVTEST_SETTING'='b'"}}},
        {unset, "b", "VYR_ENVTEST_SETTING", "b", {{7, "[vyr_getenv] Using 'ENVTEST_SETTING'='b'"}}},
        // Set but empty still counts as set.
        {"",
         "b",
         "ENVTEST_SETTING",
         "",
         {{4,
           "[vyr_getenv] Environment variables conflict - VYR_ENVTEST_SETTING= and "
           "ENVTEST_SETTING=b. Using VYR_ENVTEST_SETTING"},
          {7, "[vyr_getenv] Using 'VYR_ENVTEST_SETTING'=''"}}},
        {unset,
         unset,
         "ENVTEST_SETTING",
         unset,
         {{7, "[vyr_getenv] No value for 'VYR_ENVTEST_SETTING' or 'ENVTEST_SETTING'"}}},
        {unset,
         unset,
         "VYR_ENVTEST_SETTING",
         unset,
         {{7, "[vyr_getenv] No value for 'VYR_ENVTEST_SETTING' or 'ENVTEST_SETTING'"}}},
    };
    for (const auto &c : cases) {
        std::string label = std::string(c.query) + " with " +
                            (c.prefixed ? c.prefixed : "<unset>") + "/" +
                            (c.plain ? c.plain : "<unset>");
        set("VYR_ENVTEST_SETTING", c.prefixed);
        set("ENVTEST_SETTING", c.plain);
        LogCapture cap(7);
        const char *got = vyr_getenv(c.query);
        if (c.result) {
            ASSERT_NE(got, nullptr) << label;
            EXPECT_STREQ(got, c.result) << label;
        } else {
            EXPECT_EQ(got, nullptr) << label;
        }
        std::vector<std::pair<int, std::string>> log;
        for (const auto &l : cap.lines()) log.emplace_back(l.level, l.text);
        EXPECT_EQ(log, c.log) << label << "\n" << cap.dump();
    }
}

TEST_F(EnvTest, ConflictWarningPassesTheWarningGate) {
    set("VYR_ENVTEST_SETTING", "a");
    set("ENVTEST_SETTING", "b");
    LogCapture cap(4);
    EXPECT_STREQ(vyr_getenv("ENVTEST_SETTING"), "a");
    ASSERT_EQ(cap.lines().size(), 1u) << cap.dump();
    EXPECT_EQ(cap.lines()[0].level, 4);
}

// The logger reads its level through this lookup, so that one name never logs.
TEST_F(EnvTest, LogLevelLookupIsSilent) {
    const char *unset = nullptr;
    const struct {
        const char *prefixed;
        const char *plain;
        const char *result;
    } cases[] = {
        {"7", "3", "7"},
        {unset, "3", "3"},
        {"6", unset, "6"},
        {unset, unset, unset},
    };
    for (const auto &c : cases) {
        set("VYR_API_LOG_LEVEL", c.prefixed);
        set("API_LOG_LEVEL", c.plain);
        LogCapture cap(7);
        const char *got = vyr_getenv("VYR_API_LOG_LEVEL");
        if (c.result)
            EXPECT_STREQ(got, c.result);
        else
            EXPECT_EQ(got, nullptr);
        EXPECT_TRUE(cap.lines().empty()) << cap.dump();
    }

    // Only the exact name is exempt; the plain spelling logs like any other.
    set("VYR_API_LOG_LEVEL", "7");
    set("API_LOG_LEVEL", "3");
    LogCapture cap(7);
    EXPECT_STREQ(vyr_getenv("API_LOG_LEVEL"), "7");
    EXPECT_TRUE(cap.contains(4,
                             "[vyr_getenv] Environment variables conflict - VYR_API_LOG_LEVEL=7 "
                             "and API_LOG_LEVEL=3. Using VYR_API_LOG_LEVEL"))
        << cap.dump();
    EXPECT_TRUE(cap.contains(7, "[vyr_getenv] Using 'VYR_API_LOG_LEVEL'='7'")) << cap.dump();
}

// A lookup made before any logger exists initialises it and is then gated
// by the level that the environment gives.
TEST_F(EnvTest, FirstLookupInitialisesTheLogger) {
    set("ENVTEST_SETTING", "b");
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
    std::string prefixed = "VYR_" + plain;
    setenv(prefixed.c_str(), "long", 1);
    EXPECT_STREQ(vyr_getenv(plain.c_str()), "long");
    unsetenv(prefixed.c_str());
}

}  // namespace
