// Environment lookup with and without the "VYR_" prefix: which value wins and
// what the lookup says about it.
#include <gtest/gtest.h>

#include "unit_helpers.h"
#include "vyr_env.h"

namespace {

using Log = std::vector<std::pair<int, std::string>>;

std::string str(const char *value) {
    return value ? value : "<unset>";
}

TEST(Env, PrefixedSpellingWinsAndTheLoggersNameIsQuiet) {
    vyrtest::unit::ScopedEnv env{"VYR_ENVTEST", "ENVTEST", "VYR_API_LOG_LEVEL", "API_LOG_LEVEL"};
    const char *unset = nullptr;
    const std::string conflict =
        "[vyr_getenv] Environment variables conflict - VYR_ENVTEST=a and ENVTEST=b. Using "
        "VYR_ENVTEST";
    const std::string use_a = "[vyr_getenv] Using 'VYR_ENVTEST'='a'";
    const std::string use_level = "[vyr_getenv] Using 'VYR_API_LOG_LEVEL'='7'";
    const std::string none = "[vyr_getenv] No value for 'VYR_ENVTEST' or 'ENVTEST'";
    const struct {
        const char *prefix, *prefixed, *plain, *query, *result;
        Log log;
    } cases[] = {
        {"VYR_ENVTEST", "a", "b", "ENVTEST", "a", {{4, conflict}, {7, use_a}}},
        {"VYR_ENVTEST", "a", "a", "VYR_ENVTEST", "a", {{7, use_a}}},
        {"VYR_ENVTEST", unset, "b", "VYR_ENVTEST", "b", {{7, "[vyr_getenv] Using 'ENVTEST'='b'"}}},
        {"VYR_ENVTEST", unset, unset, "ENVTEST", unset, {{7, none}}},
        // The logger reads its level through this lookup, so that one name never logs.
        {"VYR_API_LOG_LEVEL", unset, "3", "VYR_API_LOG_LEVEL", "3", {}},
        {"VYR_API_LOG_LEVEL", "7", "7", "API_LOG_LEVEL", "7", {{7, use_level}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.query + (" with " + str(c.prefixed)) + "/" + str(c.plain));
        env.set(c.prefix, c.prefixed);
        env.set(c.prefix + 4, c.plain);
        vyrtest::LogCapture cap(7);
        EXPECT_EQ(str(vyr_getenv(c.query)), str(c.result));
        Log got;
        for (const auto &l : cap.lines()) got.emplace_back(l.level, l.text);
        EXPECT_EQ(got, c.log);
    }
    EXPECT_EQ(vyr_getenv(nullptr), nullptr);
    // A long name, so that the prefixed spelling needs its whole buffer.
    std::string plain(300, 'Q');
    env.set("VYR_" + plain, "long");
    EXPECT_STREQ(vyr_getenv(plain.c_str()), "long");
}

}  // namespace
