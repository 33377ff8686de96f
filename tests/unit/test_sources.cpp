// Sources and source arrays: identifiers, range texts and input files.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "log_capture.h"
#include "test_paths.h"
#include "vyr_source.h"

namespace {

using vyrtest::LogCapture;

// Sets (or unsets, for nullptr) an environment variable for one scope.
class EnvVar {
  public:
    EnvVar(const char *name, const char *value) : name_(name) {
        const char *old = getenv(name);
        had_ = old != nullptr;
        if (had_) old_ = old;
        if (value)
            setenv(name, value, 1);
        else
            unsetenv(name);
    }
    ~EnvVar() {
        if (had_)
            setenv(name_.c_str(), old_.c_str(), 1);
        else
            unsetenv(name_.c_str());
    }

  private:
    std::string name_, old_;
    bool had_ = false;
};

// A fixed environment: host name node1, no source identifier.
struct HostEnv {
    EnvVar host{"VYR_HOST_NAME", "node1"};
    EnvVar id{"VYR_SOURCE_ID", nullptr};
    EnvVar plain_id{"SOURCE_ID", nullptr};
};

std::vector<std::string> ids(const vyr_source_array_t *a) {
    std::vector<std::string> out;
    if (!a) return out;
    for (uint16_t i = 0; i < a->count; ++i) {
        out.push_back(a->sources[i]->id);
        EXPECT_STREQ("", a->sources[i]->tag);
    }
    return out;
}

std::string long_text(size_t n, char c) {
    return std::string(n, c);
}

TEST(Sources, RangeTexts) {
    HostEnv env;
    using V = std::vector<std::string>;
    struct Case {
        const char *text;
        V want;  // empty: the text is invalid
    };
    const Case cases[] = {
        {"5", {"node1_1", "node1_2", "node1_3", "node1_4", "node1_5"}},
        {"1", {"node1_1"}},
        {"2-4", {"node1_2", "node1_3", "node1_4"}},
        {"7-7", {"node1_7"}},
        {"0-1", {"node1_0", "node1_1"}},
        {"rack[3-4]", {"rack_3", "rack_4"}},
        {"rack[0x3-4]", {"rack_3", "rack_4"}},
        {"r-a[1-2]", {"r-a_1", "r-a_2"}},  // a "-" in the prefix is not the separator
        {"[1-2]", {"_1", "_2"}},
        {"rack[4-3]", {}},
        {"-3", {}},
        {"3-", {}},
        {"-", {}},
        {"0", {}},
        {"-0", {}},
        {"abc", {}},
        {"", {}},
        {"4-2", {}},
        {"1-x", {}},
        {"5x", {}},
        {"5 ", {}},
        {"a[1-2", {}},  // one bracket: the A-B form, "a[1" does not convert
        {"x]1-2", {}},
        {"rack[a-2]", {}},
        {"rack[1-]", {}},
        {"rack[-2]", {}},
        {"rack]1-2[", {}},
        {"rack[12]", {}},  // "-" before the brackets only
        {"[5]", {}},
        {"99999999999", {}},  // beyond 32 bits
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string("text '") + c.text + "'");
        LogCapture log;
        vyr_source_array_t *a = vyr_create_source_array_from_string(c.text);
        if (c.want.empty()) {
            EXPECT_EQ(nullptr, a);
            EXPECT_EQ(1u, log.count(VYR_LOG_LEVEL_ERROR,
                                    std::string("[source] Invalid source format: ") + c.text))
                << log.dump();
        } else {
            ASSERT_NE(nullptr, a);
            EXPECT_EQ(c.want, ids(a));
            EXPECT_FALSE(log.contains_fragment("[source]")) << log.dump();
        }
        vyr_destroy_source_array(a);
    }
}

TEST(Sources, RangeNamesAreCutAt63Characters) {
    std::string host = long_text(61, 'h');  // "_9" fits, "_10" loses its last digit
    EnvVar h("VYR_HOST_NAME", host.c_str());
    EnvVar id("VYR_SOURCE_ID", nullptr);
    EnvVar pid("SOURCE_ID", nullptr);
    vyr_source_array_t *a = vyr_create_source_array_from_string("9-10");
    ASSERT_NE(nullptr, a);
    EXPECT_EQ((std::vector<std::string>{host + "_9", host + "_1"}), ids(a));
    vyr_destroy_source_array(a);

    std::string prefix = long_text(70, 'p');
    a = vyr_create_source_array_from_string((prefix + "[1-1]").c_str());
    ASSERT_NE(nullptr, a);
    EXPECT_EQ((std::vector<std::string>{long_text(63, 'p')}), ids(a));
    vyr_destroy_source_array(a);
}

#if defined(__SANITIZE_ADDRESS__)
#define SOURCES_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SOURCES_UNDER_ASAN 1
#endif
#endif

TEST(Sources, RangeBeyondTheArrayLimitFails) {
#ifdef SOURCES_UNDER_ASAN
    // The pointer array grows by one entry per append: fine with glibc's
    // in-place realloc, minutes with the sanitizer's copying allocator.
    GTEST_SKIP() << "too slow under AddressSanitizer";
#endif
    HostEnv env;
    LogCapture log(VYR_LOG_LEVEL_ERROR);
    EXPECT_EQ(nullptr, vyr_create_source_array_from_string("65535"));
    EXPECT_TRUE(log.lines().empty()) << log.dump();
    vyr_source_array_t *a = vyr_create_source_array_from_string("65534");
    ASSERT_NE(nullptr, a);
    EXPECT_EQ(65534, a->count);
    EXPECT_STREQ("node1_65534", a->sources[65533]->id);
    vyr_destroy_source_array(a);
}

TEST(Sources, DefaultIdentifierPrecedence) {
    struct Case {
        const char *prefixed, *plain, *host, *want;
    };
    const Case cases[] = {
        {"id-a", nullptr, "node1", "id-a"},
        {nullptr, "id-b", "node1", "id-b"},  // the unprefixed spelling counts too
        {"id-a", "id-b", "node1", "id-a"},   // the prefixed one wins
        {nullptr, nullptr, "node1.example.com", "node1.example.com"},  // kept as given
        {nullptr, nullptr, "", ""},
    };
    for (const Case &c : cases) {
        EnvVar p("VYR_SOURCE_ID", c.prefixed);
        EnvVar q("SOURCE_ID", c.plain);
        EnvVar h("VYR_HOST_NAME", c.host);
        vyr_source_t *s = vyr_create_default_source("tg");
        ASSERT_NE(nullptr, s);
        EXPECT_STREQ(c.want, s->id);
        EXPECT_STREQ("tg", s->tag);
        vyr_destroy_source(s);
    }

    std::string long_id = long_text(80, 'i');
    EnvVar p("VYR_SOURCE_ID", long_id.c_str());
    vyr_source_t *s = vyr_create_default_source(long_text(20, 't').c_str());
    ASSERT_NE(nullptr, s);
    EXPECT_EQ(long_text(63, 'i'), s->id);
    EXPECT_EQ(long_text(15, 't'), s->tag);
    vyr_destroy_source(s);
}

TEST(Sources, HostName) {
    char buf[64];
    {
        EnvVar h("VYR_HOST_NAME", "abcdefghij");
        char small[5];
        ASSERT_TRUE(vyr_get_hostname(small, sizeof small));
        EXPECT_STREQ("abcd", small);
    }
    EnvVar h("VYR_HOST_NAME", nullptr);
    char full[256] = {};
    ASSERT_EQ(0, gethostname(full, sizeof full - 1));
    ASSERT_TRUE(vyr_get_hostname(buf, sizeof buf));
    // The short name: the system's name up to its first ".".
    std::string want(full);
    want = want.substr(0, want.find('.'));
    EXPECT_EQ(want, buf);
    EXPECT_EQ(nullptr, strchr(buf, '.'));

    EnvVar id("VYR_SOURCE_ID", nullptr);
    EnvVar pid("SOURCE_ID", nullptr);
    vyr_source_array_t *a = vyr_create_default_source_array("tarvik");
    ASSERT_NE(nullptr, a);
    ASSERT_EQ(1, a->count);
    EXPECT_EQ(want, a->sources[0]->id);
    EXPECT_STREQ("tarvik", a->sources[0]->tag);
    vyr_destroy_source_array(a);
}

TEST(Sources, FullString) {
    vyr_source_t *s = vyr_create_source("host", "tag");
    ASSERT_NE(nullptr, s);
    LogCapture log;
    char buf[16];
    std::memset(buf, 'x', sizeof buf);
    ASSERT_TRUE(vyr_source_full_string(s, buf, 9));  // 4 + 3 + 2
    EXPECT_STREQ("host:tag", buf);
    EXPECT_EQ('x', buf[9]);
    EXPECT_TRUE(log.lines().empty());

    std::memset(buf, 'x', sizeof buf);
    EXPECT_FALSE(vyr_source_full_string(s, buf, 8));
    EXPECT_EQ('x', buf[0]);
    EXPECT_EQ(
        1u, log.count(VYR_LOG_LEVEL_DEBUG, "[source] buffer too small for source host:tag (got 8)"))
        << log.dump();

    vyr_source_t *e = vyr_create_source("", "");
    ASSERT_TRUE(vyr_source_full_string(e, buf, 2));
    EXPECT_STREQ(":", buf);
    vyr_destroy_source(e);

    char *text = vyr_source_string(s);
    ASSERT_NE(nullptr, text);
    EXPECT_STREQ("host", text);
    free(text);
    vyr_destroy_source(s);
}

TEST(Sources, CreateCopyCompare) {
    std::string long_id = long_text(100, 'a');
    vyr_source_t *s = vyr_create_source(long_id.c_str(), "0123456789abcdefXYZ");
    ASSERT_NE(nullptr, s);
    EXPECT_EQ(long_text(63, 'a'), s->id);
    EXPECT_STREQ("0123456789abcde", s->tag);

    vyr_source_t copy;
    std::memset(&copy, 0x55, sizeof copy);
    vyr_source_copy(&copy, s);
    EXPECT_EQ(0, std::memcmp(&copy, s, sizeof copy));
    EXPECT_EQ(0, vyr_source_compare(&copy, s));
    vyr_destroy_source(s);

    struct Case {
        const char *id1, *tag1, *id2, *tag2;
        int sign;
    };
    const Case cases[] = {
        {"a", "z", "b", "a", -1},  // the identifier decides before the tag
        {"b", "a", "a", "z", 1},  {"a", "x", "a", "y", -1}, {"a", "y", "a", "x", 1},
        {"a", "x", "a", "x", 0},  {"a", "", "ab", "", -1},
    };
    for (const Case &c : cases) {
        vyr_source_t *a = vyr_create_source(c.id1, c.tag1);
        vyr_source_t *b = vyr_create_source(c.id2, c.tag2);
        int r = vyr_source_compare(a, b);
        EXPECT_EQ(c.sign, (r > 0) - (r < 0))
            << c.id1 << ":" << c.tag1 << " vs " << c.id2 << ":" << c.tag2;
        vyr_destroy_source(a);
        vyr_destroy_source(b);
    }
}

TEST(Sources, ArrayAppendFindAndLog) {
    vyr_source_array_t *a = vyr_create_source_array();
    ASSERT_NE(nullptr, a);
    EXPECT_EQ(0, a->count);
    EXPECT_FALSE(vyr_source_array_append(a, nullptr));
    vyr_source_t *x = vyr_create_source("x", "");
    vyr_source_t *y = vyr_create_source("y", "");
    ASSERT_TRUE(vyr_source_array_append(a, x));
    ASSERT_TRUE(vyr_source_array_append(a, y));
    EXPECT_EQ(2, a->count);

    EXPECT_EQ(0, vyr_source_array_find_source(a, x));
    EXPECT_EQ(1, vyr_source_array_find_source(a, y));
    vyr_source_t twin;
    vyr_source_copy(&twin, x);
    EXPECT_EQ(VYR_SOURCE_NOT_FOUND, vyr_source_array_find_source(a, &twin))
        << "found by identity, not by content";

    LogCapture log;
    vyr_source_array_log(a, "srcs");
    std::vector<std::string> lines;
    for (const auto &l : log.lines()) {
        EXPECT_EQ(VYR_LOG_LEVEL_DEBUG, l.level);
        lines.push_back(l.text);
    }
    EXPECT_EQ((std::vector<std::string>{"srcs[0] = x", "srcs[1] = y"}), lines);
    vyr_destroy_source_array(a);
    vyr_destroy_source_array(nullptr);
}

TEST(Sources, ArrayHoldsAtMost65534) {
    // Pre-sized with empty slots, which the destroy function skips.
    vyr_source_array_t *a = vyr_create_source_array();
    ASSERT_NE(nullptr, a);
    a->sources = static_cast<vyr_source_t **>(calloc(65533, sizeof(vyr_source_t *)));
    ASSERT_NE(nullptr, a->sources);
    a->count = 65533;
    vyr_source_t *last = vyr_create_source("last", "");
    ASSERT_TRUE(vyr_source_array_append(a, last));
    EXPECT_EQ(65534, a->count);
    EXPECT_EQ(65533, vyr_source_array_find_source(a, last));

    vyr_source_t *extra = vyr_create_source("extra", "");
    EXPECT_FALSE(vyr_source_array_append(a, extra));
    EXPECT_EQ(65534, a->count);
    EXPECT_EQ(last, a->sources[65533]);
    vyr_destroy_source(extra);
    vyr_destroy_source_array(a);
}

class SourceFiles : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/h3_sources_XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        dir_ = tmpl;
    }
    void TearDown() override {
        for (const auto &p : files_) unlink(p.c_str());
        rmdir(dir_.c_str());
    }
    std::string file(const std::string &name, const std::string &content) {
        std::string p = dir_ + "/" + name;
        vyrtest::write_file(p, content);
        files_.push_back(p);
        return p;
    }
    std::string dir_;
    std::vector<std::string> files_;
};

TEST_F(SourceFiles, PlainTextFile) {
    std::string p =
        file("hosts.txt", "alpha\n\nbeta\r\n\r\ngamma delta\n" + long_text(70, 'z') + "\nlast");
    LogCapture log;
    vyr_source_array_t *a = vyr_create_source_array_from_input(p.c_str());
    ASSERT_NE(nullptr, a);
    EXPECT_EQ(
        (std::vector<std::string>{"alpha", "beta", "gamma delta", long_text(63, 'z'), "last"}),
        ids(a));
    EXPECT_FALSE(log.contains_fragment("[source]")) << log.dump();
    vyr_destroy_source_array(a);

    // An empty file gives an empty array.
    a = vyr_create_source_array_from_input(file("empty.txt", "").c_str());
    ASSERT_NE(nullptr, a);
    EXPECT_EQ(0, a->count);
    vyr_destroy_source_array(a);
}

TEST_F(SourceFiles, FabscanFile) {
    // One "H-" line anywhere makes the whole file fabscan output.
    std::string p = file("fabscan.txt",
                         "Switch 1 (sw-one)\n"
                         "no parentheses here\n"
                         "  H-0002 (node7) port 1\n"
                         "closing) before (node9)\n"
                         "broken (unterminated\n"
                         "(" +
                             long_text(70, 'n') +
                             ")\n"
                             "S-0003 \"x\" (node8) (other)\n");
    vyr_source_array_t *a = vyr_create_source_array_from_input(p.c_str());
    ASSERT_NE(nullptr, a);
    EXPECT_EQ((std::vector<std::string>{"sw-one", "node7", "node9", long_text(63, 'n'), "node8"}),
              ids(a))
        << "a \")\" must follow the \"(\"";
    vyr_destroy_source_array(a);
}

TEST_F(SourceFiles, MissingFileIsARangeText) {
    HostEnv env;
    LogCapture log;
    vyr_source_array_t *a = vyr_create_source_array_from_input("rack[3-4]");
    ASSERT_NE(nullptr, a);
    EXPECT_EQ((std::vector<std::string>{"rack_3", "rack_4"}), ids(a));
    vyr_destroy_source_array(a);

    std::string missing = dir_ + "/nope";
    EXPECT_EQ(nullptr, vyr_create_source_array_from_input(missing.c_str()));
    EXPECT_EQ(1u, log.count(VYR_LOG_LEVEL_ERROR, "[source] Invalid source format: " + missing))
        << log.dump();
}

TEST_F(SourceFiles, UnopenableFile) {
    // A bound socket exists by name but cannot be opened, even by root.
    std::string p = dir_ + "/sock";
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    ASSERT_LT(p.size(), sizeof addr.sun_path);
    std::memcpy(addr.sun_path, p.c_str(), p.size() + 1);
    ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr));
    files_.push_back(p);
    LogCapture log;
    EXPECT_EQ(nullptr, vyr_create_source_array_from_input(p.c_str()));
    EXPECT_EQ(1u, log.count(VYR_LOG_LEVEL_ERROR, "[source] Failed to open file: " + p))
        << log.dump();
    close(fd);
}

}  // namespace
