// Environment lookup with and without the "VYR_" prefix: which value wins and
// what the lookup says about it.
#include <gtest/gtest.h>

#include "unit_helpers.h"
#include "vyr_env.h"

namespace {

using Log = std::vector<std::pair<int, std::string>>;

// The spelling without the prefix counts too; the prefixed one wins. The
// logger reads its level through this lookup, so that one name never logs.
TEST(Env, PrefixedSpellingWinsAndTheLoggersNameIsQuiet) {
    vyrtest::unit::ScopedEnv env{"VYR_ENVTEST", "ENVTEST", "VYR_API_LOG_LEVEL", "API_LOG_LEVEL"};
    const std::string use_a = "[vyr_getenv] Using 'VYR_ENVTEST'='a'",
                      use_level = "[vyr_getenv] Using 'VYR_API_LOG_LEVEL'='a'",
                      conflict =
                          "[vyr_getenv] Environment variables conflict - VYR_ENVTEST=a and "
                          "ENVTEST=b. Using VYR_ENVTEST";
    const struct {
        const char *prefix, *prefixed, *plain, *query;
        Log log;
    } cases[] = {
        {"VYR_ENVTEST", "a", "b", "ENVTEST", {{4, conflict}, {7, use_a}}},
        {"VYR_ENVTEST", "a", "a", "VYR_ENVTEST", {{7, use_a}}},
        {"VYR_API_LOG_LEVEL", nullptr, "a", "VYR_API_LOG_LEVEL", {}},
        {"VYR_API_LOG_LEVEL", "a", "a", "API_LOG_LEVEL", {{7, use_level}}},
    };
    for (const auto &c : cases) {
        env.set(c.prefix, c.prefixed);
        env.set(c.prefix + 4, c.plain);
        vyrtest::LogCapture cap(7);
        EXPECT_STREQ(vyr_getenv(c.query), "a") << c.query;
        Log got;
        for (const auto &l : cap.lines()) got.emplace_back(l.level, l.text);
        EXPECT_EQ(got, c.log) << c.query;
    }
    EXPECT_EQ(vyr_getenv(nullptr), nullptr);
    // A long name, so that the prefixed spelling needs its whole buffer.
    std::string plain(300, 'Q');
    env.set("VYR_" + plain, "long");
    EXPECT_STREQ(vyr_getenv(plain.c_str()), "long");
}

}  // namespace
