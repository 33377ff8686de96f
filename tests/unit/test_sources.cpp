// Sources and source arrays: identifiers, range texts and input files.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>

#include "unit_helpers.h"
#include "vyr_source.h"

namespace {

using vyrtest::LogCapture;
using Ids = std::vector<std::string>;

Ids ids(const vyr_source_array_t *a) {
    Ids out;
    for (uint16_t i = 0; a && i < a->count; ++i) {
        out.push_back(a->sources[i]->id);
        EXPECT_STREQ("", a->sources[i]->tag);
    }
    return out;
}

// The host is node1 and no source identifier is set, unless a test says otherwise.
class Sources : public ::testing::Test {
  protected:
    void SetUp() override { env_.set("VYR_HOST_NAME", "node1"); }
    vyrtest::unit::ScopedEnv env_{"VYR_SOURCE_ID", "SOURCE_ID"};
};

// A text that names no file is a range text, so both readers agree.
TEST_F(Sources, RangeTexts) {
    struct Case {
        const char *text;
        Ids want;  // empty: the text is invalid
    };
    std::vector<Case> cases = {
        {"5", {"node1_1", "node1_2", "node1_3", "node1_4", "node1_5"}},
        {"2-4", {"node1_2", "node1_3", "node1_4"}},
        {"7-7", {"node1_7"}},
        {"0-1", {"node1_0", "node1_1"}},
        {"rack[3-4]", {"rack_3", "rack_4"}},
        {"rack[0x3-4]", {"rack_3", "rack_4"}},
        {"r-a[1-2]", {"r-a_1", "r-a_2"}},  // a "-" in the prefix is not the separator
        {"[1-2]", {"_1", "_2"}},
    };
    // "a[1-2" has one bracket, so it is the A-B form and "a[1" does not convert;
    // "rack[12]" has its "-" before the brackets only; 99999999999 is beyond 32 bits.
    for (const char *text :
         {"rack[4-3]", "-3", "3-", "-", "0", "-0", "abc", "", "4-2", "1-x", "5 ", "a[1-2", "x]1-2",
          "rack[a-2]", "rack[1-]", "rack[-2]", "rack]1-2[", "rack[12]", "99999999999"})
        cases.push_back({text, {}});
    for (const auto &c : cases) {
        for (auto read :
             {vyr_create_source_array_from_string, vyr_create_source_array_from_input}) {
            SCOPED_TRACE(std::string("text '") + c.text + "'");
            LogCapture log;
            vyr_source_array_t *a = read(c.text);
            EXPECT_EQ(ids(a), c.want);
            EXPECT_EQ(a == nullptr, c.want.empty());
            EXPECT_EQ(vyrtest::unit::texts(log, VYR_LOG_LEVEL_ERROR),
                      c.want.empty() ? Ids{"[source] Invalid source format: " + std::string(c.text)}
                                     : Ids{});
            vyr_destroy_source_array(a);
        }
    }
}

TEST_F(Sources, IdentifiersAreCutTo63AndTagsTo15) {
    const std::string host(61, 'h');  // "_9" fits, "_10" loses its last digit
    env_.set("VYR_HOST_NAME", host.c_str());
    vyr_source_array_t *a = vyr_create_source_array_from_string("9-10");
    EXPECT_EQ(ids(a), (Ids{host + "_9", host + "_1"}));
    vyr_destroy_source_array(a);
    a = vyr_create_source_array_from_string((std::string(70, 'p') + "[1-1]").c_str());
    EXPECT_EQ(ids(a), Ids{std::string(63, 'p')});
    vyr_destroy_source_array(a);

    env_.set("VYR_SOURCE_ID", std::string(80, 'i').c_str());
    vyr_source_t *s = vyr_create_default_source(std::string(20, 't').c_str());
    EXPECT_EQ(std::string(63, 'i'), s->id);
    EXPECT_EQ(std::string(15, 't'), s->tag);
    vyr_destroy_source(s);
}

TEST_F(Sources, DefaultIdentifier) {
    const struct {
        const char *prefixed, *plain, *host, *want;
    } cases[] = {
        {"id-a", nullptr, "node1", "id-a"},
        {nullptr, "id-b", "node1", "id-b"},  // the unprefixed spelling counts too
        {"id-a", "id-b", "node1", "id-a"},   // the prefixed one wins
        {nullptr, nullptr, "node1.example.com", "node1.example.com"},  // kept as given
        {nullptr, nullptr, "", ""},
    };
    for (const auto &c : cases) {
        env_.set("VYR_SOURCE_ID", c.prefixed);
        env_.set("SOURCE_ID", c.plain);
        env_.set("VYR_HOST_NAME", c.host);
        vyr_source_t *s = vyr_create_default_source("tg");
        EXPECT_STREQ(c.want, s->id);
        EXPECT_STREQ("tg", s->tag);
        vyr_destroy_source(s);
    }

    char small[5];
    env_.set("VYR_HOST_NAME", "abcdefghij");
    ASSERT_TRUE(vyr_get_hostname(small, sizeof small));
    EXPECT_STREQ("abcd", small);

    // Without an override: the system's name up to its first ".".
    env_.set("VYR_SOURCE_ID", nullptr);
    env_.set("SOURCE_ID", nullptr);
    env_.set("VYR_HOST_NAME", nullptr);
    char full[256] = {};
    ASSERT_EQ(0, gethostname(full, sizeof full - 1));
    const std::string short_name = std::string(full).substr(0, std::string(full).find('.'));
    vyr_source_array_t *a = vyr_create_default_source_array("tarvik");
    ASSERT_NE(nullptr, a);
    ASSERT_EQ(1, a->count);
    EXPECT_EQ(short_name, a->sources[0]->id);
    EXPECT_STREQ("tarvik", a->sources[0]->tag);
    vyr_destroy_source_array(a);
}

TEST(Source, StringsCopyAndCompare) {
    vyr_source_t *s = vyr_create_source("host", "tag");
    LogCapture log;
    char buf[16];
    memset(buf, 'x', sizeof buf);
    ASSERT_TRUE(vyr_source_full_string(s, buf, 9));  // 4 + 3 + 2
    EXPECT_STREQ("host:tag", buf);
    EXPECT_EQ('x', buf[9]);
    memset(buf, 'x', sizeof buf);
    EXPECT_FALSE(vyr_source_full_string(s, buf, 8));
    EXPECT_EQ('x', buf[0]);
    EXPECT_EQ(
        log.count(VYR_LOG_LEVEL_DEBUG, "[source] buffer too small for source host:tag (got 8)"),
        1u);
    EXPECT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(vyrtest::unit::take(vyr_source_string(s)), "host");

    vyr_source_t copy;
    memset(&copy, 0x55, sizeof copy);
    vyr_source_copy(&copy, s);
    EXPECT_EQ(0, memcmp(&copy, s, sizeof copy));
    vyr_destroy_source(s);

    const struct {
        const char *id1, *tag1, *id2, *tag2;
        int sign;
    } cases[] = {
        {"a", "z", "b", "a", -1},  // the identifier decides before the tag
        {"b", "a", "a", "z", 1},  {"a", "x", "a", "y", -1}, {"a", "y", "a", "x", 1},
        {"a", "x", "a", "x", 0},  {"a", "", "ab", "", -1},
    };
    for (const auto &c : cases) {
        vyr_source_t *a = vyr_create_source(c.id1, c.tag1), *b = vyr_create_source(c.id2, c.tag2);
        int r = vyr_source_compare(a, b);
        EXPECT_EQ(c.sign, (r > 0) - (r < 0))
            << c.id1 << ":" << c.tag1 << " vs " << c.id2 << ":" << c.tag2;
        vyr_destroy_source(a);
        vyr_destroy_source(b);
    }
}

TEST(Source, ArrayAppendFindLogAndLimit) {
    vyr_source_array_t *a = vyr_create_source_array();
    EXPECT_EQ(0, a->count);
    EXPECT_FALSE(vyr_source_array_append(a, nullptr));
    vyr_source_t *x = vyr_create_source("x", ""), *y = vyr_create_source("y", "");
    ASSERT_TRUE(vyr_source_array_append(a, x));
    ASSERT_TRUE(vyr_source_array_append(a, y));
    EXPECT_EQ(1, vyr_source_array_find_source(a, y));
    vyr_source_t twin;
    vyr_source_copy(&twin, x);
    EXPECT_EQ(VYR_SOURCE_NOT_FOUND, vyr_source_array_find_source(a, &twin))
        << "found by identity, not by content";
    LogCapture log;
    vyr_source_array_log(a, "srcs");
    EXPECT_EQ(vyrtest::unit::texts(log, VYR_LOG_LEVEL_DEBUG), (Ids{"srcs[0] = x", "srcs[1] = y"}));
    vyr_destroy_source_array(a);
    vyr_destroy_source_array(nullptr);

    // Pre-sized with empty slots, which the destroy function skips.
    a = vyr_create_source_array();
    a->sources = static_cast<vyr_source_t **>(calloc(65533, sizeof(vyr_source_t *)));
    a->count = 65533;
    vyr_source_t *last = vyr_create_source("last", ""), *extra = vyr_create_source("extra", "");
    ASSERT_TRUE(vyr_source_array_append(a, last));
    EXPECT_EQ(65533, vyr_source_array_find_source(a, last));
    EXPECT_FALSE(vyr_source_array_append(a, extra));
    EXPECT_EQ(65534, a->count);
    EXPECT_EQ(last, a->sources[65533]);
    vyr_destroy_source(extra);
    vyr_destroy_source_array(a);
}

TEST(Source, InputFiles) {
    vyrtest::unit::TempDir dir;
    LogCapture log;
    std::string path = dir.file(
        "hosts.txt", "alpha\n\nbeta\r\n\r\ngamma delta\n" + std::string(70, 'z') + "\nlast");
    vyr_source_array_t *a = vyr_create_source_array_from_input(path.c_str());
    EXPECT_EQ(ids(a), (Ids{"alpha", "beta", "gamma delta", std::string(63, 'z'), "last"}));
    vyr_destroy_source_array(a);
    a = vyr_create_source_array_from_input(dir.file("empty.txt", "").c_str());
    ASSERT_NE(nullptr, a);
    EXPECT_EQ(0, a->count);
    vyr_destroy_source_array(a);

    // One "H-" or "S-" line anywhere makes the whole file fabscan output, whose
    // sources are the texts in "(...)".
    path = dir.file("fabscan.txt",
                    "Switch 1 (sw-one)\n"
                    "no parentheses here\n"
                    "  H-0002 (node7) port 1\n"
                    "closing) before (node9)\n"
                    "broken (unterminated\n"
                    "(" +
                        std::string(70, 'n') +
                        ")\n"
                        "S-0003 \"x\" (node8) (other)\n");
    a = vyr_create_source_array_from_input(path.c_str());
    EXPECT_EQ(ids(a), (Ids{"sw-one", "node7", "node9", std::string(63, 'n'), "node8"}));
    vyr_destroy_source_array(a);
    EXPECT_TRUE(log.lines().empty()) << log.dump();

    // A bound socket exists by name but cannot be opened, even by root.
    path = dir.path + "/sock";
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr));
    EXPECT_EQ(nullptr, vyr_create_source_array_from_input(path.c_str()));
    EXPECT_EQ(vyrtest::unit::texts(log, VYR_LOG_LEVEL_ERROR),
              Ids{"[source] Failed to open file: " + path});
    close(fd);
}

}  // namespace
