// Sources and source arrays: identifiers, range texts and input files.
#include <dirent.h>
#include <gtest/gtest.h>

#include "unit_helpers.h"
#include "vyr_source.h"

namespace {

using vyrtest::LogCapture;
using vyrtest::unit::texts;
using Ids = std::vector<std::string>;

Ids ids(const vyr_source_array_t *a) {
    Ids out{a ? "" : "<null>"};
    for (uint16_t i = 0; a && i < a->count; ++i) out.push_back(a->sources[i]->id);
    return out;
}

int open_descriptors() {
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    while (readdir(d)) ++n;
    closedir(d);
    return n;
}

// A text that names no file is a range text, so both readers agree.
TEST(Source, RangeTextsAndIdentifiers) {
    vyrtest::unit::ScopedEnv env{"VYR_SOURCE_ID", "SOURCE_ID"};
    env.set("VYR_HOST_NAME", "node1");
    std::vector<std::pair<const char *, Ids>> cases = {
        {"3", {"", "node1_1", "node1_2", "node1_3"}},
        {"rack[0x3-4]", {"", "rack_3", "rack_4"}},
        {"r-a[1-2]", {"", "r-a_1", "r-a_2"}},  // a "-" in the prefix is not the separator
    };
    // "a[1-2" has one bracket, so it is the A-B form and "a[1" does not convert.
    for (const char *text : {"rack[4-3]", "-3", "0", "", "5 ", "a[1-2", "1-2]", "rack]1-2[",
                             "rack[12]", "99999999999"})
        cases.push_back({text, {"<null>"}});
    for (const auto &c : cases) {
        for (auto read :
             {vyr_create_source_array_from_string, vyr_create_source_array_from_input}) {
            LogCapture log;
            vyr_source_array_t *a = read(c.first);
            EXPECT_EQ(ids(a), c.second) << c.first;
            EXPECT_EQ(texts(log, VYR_LOG_LEVEL_ERROR),
                      a ? Ids{} : Ids{"[source] Invalid source format: " + std::string(c.first)});
            vyr_destroy_source_array(a);
        }
    }

    const std::string long_id(80, 'i');
    const struct {
        const char *prefixed, *plain, *host;
        std::string want;
    } ids[] = {
        {nullptr, "id-b", "node1", "id-b"},  // the unprefixed spelling counts too
        {"id-a", "id-b", "node1", "id-a"},   // the prefixed one wins
        {long_id.c_str(), nullptr, "", long_id.substr(0, 63)},  // cut to 63
        {nullptr, nullptr, nullptr, ""},  // the system's name up to its first "."
    };
    char full[256] = {};
    ASSERT_EQ(0, gethostname(full, sizeof full - 1));
    for (const auto &c : ids) {
        env.set("VYR_SOURCE_ID", c.prefixed);
        env.set("SOURCE_ID", c.plain);
        env.set("VYR_HOST_NAME", c.host);
        vyr_source_t *s = vyr_create_default_source(std::string(20, 't').c_str());
        EXPECT_EQ(s->id,
                  c.host ? c.want : std::string(full).substr(0, std::string(full).find('.')));
        EXPECT_EQ(std::string(15, 't'), s->tag);
        vyr_destroy_source(s);
    }
}

TEST(Source, StringsCompareAndArrays) {
    vyr_source_t *s = vyr_create_source("host", "tag");
    LogCapture log;
    char buf[16];
    ASSERT_TRUE(vyr_source_full_string(s, buf, 9));  // 4 + 3 + 2
    EXPECT_STREQ("host:tag", buf);
    EXPECT_FALSE(vyr_source_full_string(s, buf, 8));
    EXPECT_EQ(vyrtest::unit::take(vyr_source_string(s)), "host");
    vyr_source_array_t *a = vyr_create_source_array();
    ASSERT_TRUE(vyr_source_array_append(a, s));
    ASSERT_TRUE(vyr_source_array_append(a, vyr_create_source("y", "")));
    vyr_source_array_log(a, "srcs");
    EXPECT_EQ(texts(log), (Ids{"[source] buffer too small for source host:tag (got 8)",
                               "srcs[0] = host", "srcs[1] = y"}));
    vyr_destroy_source_array(a);
}

// Plain lists and fabscan output ("H-" or "S-" anywhere makes the whole file
// fabscan output, whose sources are the texts in "(...)"); no descriptor stays open.
TEST(Source, InputFiles) {
    vyrtest::unit::TempDir dir;
    const struct {
        std::string content;
        Ids want;
    } cases[] = {
        {"alpha\n\nbeta\r\n\r\ngamma delta\n" + std::string(70, 'z') + "\nlast",
         {"", "alpha", "beta", "gamma delta", std::string(63, 'z'), "last"}},
        {"Switch 1 (sw-one)\nno parentheses\n  H-0002 (node7) port 1\nclosing) before (node9)\n"
         "broken (unterminated\n(" +
             std::string(70, 'n') + ")\nS-0003 \"x\" (node8) (other)\n",
         {"", "sw-one", "node7", "node9", std::string(63, 'n'), "node8"}},
    };
    const int descriptors = open_descriptors();
    for (const auto &c : cases) {
        vyr_source_array_t *a =
            vyr_create_source_array_from_input(dir.file("list", c.content).c_str());
        EXPECT_EQ(ids(a), c.want);
        vyr_destroy_source_array(a);
        EXPECT_EQ(open_descriptors(), descriptors);
    }
}

}  // namespace
