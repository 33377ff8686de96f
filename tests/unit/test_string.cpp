// Strict conversions, truth values, trimming and string arrays.
#include <gtest/gtest.h>

#include <cstring>

#include "unit_helpers.h"
#include "vyr_string.h"

namespace {

using Strings = std::vector<std::string>;

// The converted value as text, or "no"; a refusal must leave the out value
// alone, and a missing out pointer is always refused.
template <typename T>
std::string run(bool (*convert)(const char *, T *), const char *text) {
    T out = static_cast<T>(0x5A);
    bool ok = convert(text, &out);
    if (convert("1", nullptr)) return "accepted a missing out pointer";
    if (!ok) return out == static_cast<T>(0x5A) ? "no" : "refused but wrote";
    return std::to_string(out);
}

TEST(StringConversion, EveryFunctionOverOneTable) {
    const char *const no = "no";
    const char *const max64 = "18446744073709551615";
    struct Row {
        const char *text, *s64, *u64, *u32, *u16, *u8;
    };
    std::vector<Row> rows = {
        {" 0x1F", "31", "31", "31", "31", "31"},  // leading blanks, hexadecimal
        {"010", "8", "8", "8", "8", "8"},         // octal
        {"255", "255", "255", "255", "255", "255"},
        {"256", "256", "256", "256", "256", no},
        {"65535", "65535", "65535", "65535", "65535", no},
        {"65536", "65536", "65536", "65536", no, no},
        {"037777777777", "4294967295", "4294967295", "4294967295", no, no},
        {"4294967296", "4294967296", "4294967296", no, no, no},
        {"9223372036854775808", no, "9223372036854775808", no, no, no},
        {"-9223372036854775808", "-9223372036854775808", "9223372036854775808", no, no, no},
        {"0xFFFFFFFFFFFFFFFF", no, max64, no, no, no},
        // A minus sign wraps the unsigned ones; only an overflowing result is refused.
        {"-1", "-1", max64, no, no, no},
        {"-18446744073709551616", no, no, no, no, no},
        {nullptr, no, no, no, no, no},
    };
    for (const char *text : {"", " ", "42 ", "42x", "0x", "08", "+", "1.5", "42\n"})
        rows.push_back({text, no, no, no, no, no});
    for (const auto &r : rows) {
        SCOPED_TRACE(r.text ? '"' + std::string(r.text) + '"' : "null");
        EXPECT_EQ(run(string_to_long, r.text), r.s64);
        EXPECT_EQ(run(string_to_long_long, r.text), r.s64);
        EXPECT_EQ(run(string_to_unsigned_long, r.text), r.u64);
        EXPECT_EQ(run(string_to_unsigned_long_long, r.text), r.u64);
        EXPECT_EQ(run(string_to_sizet, r.text), r.u64);
        EXPECT_EQ(run(string_to_u64, r.text), r.u64);
        EXPECT_EQ(run(string_to_u32, r.text), r.u32);
        EXPECT_EQ(run(string_to_u16, r.text), r.u16);
        EXPECT_EQ(run(string_to_u8, r.text), r.u8);
    }
}

TEST(StringConversion, BoundedIntReadsExactlyLengthBytes) {
    const struct {
        const char *text;
        size_t length;
        const char *want;
    } cases[] = {{"123-456", 3, "123"},
                 {"123-456", 4, "no"},
                 {"0x10zz", 4, "16"},
                 {"77", 0, "no"},
                 {nullptr, 1, "no"},
                 {"2147483648", 10, "no"},
                 {"-2147483648", 11, "-2147483648"},
                 {"-2147483649", 11, "no"}};
    for (const auto &c : cases) {
        int out = -77;
        bool ok = bounded_string_to_int(c.text, c.length, &out);
        EXPECT_EQ(ok           ? std::to_string(out)
                  : out == -77 ? "no"
                               : "refused but wrote",
                  c.want)
            << (c.text ? c.text : "null") << " / " << c.length;
    }
    EXPECT_FALSE(bounded_string_to_int("1", 1, nullptr));
}

TEST(StringText, TruthValuesAndTrimming) {
    EXPECT_TRUE(vyr_string_to_boolean(nullptr));
    for (const char *t : {"1", "True", "true"}) EXPECT_TRUE(vyr_string_to_boolean(t)) << t;
    for (const char *t : {"TRUE", "0", "", "true "}) EXPECT_FALSE(vyr_string_to_boolean(t)) << t;
    EXPECT_STREQ(boolean_to_string(true), "true");
    EXPECT_STREQ(boolean_to_string(false), "false");
    const struct {
        const char *text;
        size_t offset;  // of the returned pointer
        const char *result;
    } cases[] = {{"\t\n a b \r\v\f", 3, "a b"}, {"   ", 3, ""}, {"", 0, ""}, {"x ", 0, "x"}};
    for (const auto &c : cases) {
        std::vector<char> buf(c.text, c.text + strlen(c.text) + 1);
        char *got = trim_white_space(buf.data());
        EXPECT_EQ(got, buf.data() + c.offset) << '"' << c.text << '"';
        EXPECT_STREQ(got, c.result) << '"' << c.text << '"';
    }
}

Strings contents(const vyr_string_array_t *a) {
    Strings out;
    for (uint64_t i = 0; a && i < a->count; ++i) out.emplace_back(a->strings[i]);
    return out;
}

TEST(StringArray, AppendContainsLogAndRemoveDuplicates) {
    vyr_string_array_t *a = nullptr;  // appending to a missing block makes one
    char text[] = "one";
    ASSERT_TRUE(vyr_append_string_array(&a, text));
    text[0] = 'X';  // the array owns a copy
    for (const char *t : {"two", "two", ""}) ASSERT_TRUE(vyr_append_string_array(&a, t));
    EXPECT_FALSE(vyr_append_string_array(&a, nullptr));
    EXPECT_TRUE(vyr_string_array_contains(a, ""));
    EXPECT_FALSE(vyr_string_array_contains(a, "tw"));
    EXPECT_FALSE(vyr_string_array_contains(nullptr, "two"));
    vyrtest::LogCapture log;
    vyr_log_string_array(VYR_LOG_LEVEL_INFO, a, "names");
    vyr_log_string_array(VYR_LOG_LEVEL_INFO, nullptr, "none");
    EXPECT_EQ(vyrtest::unit::texts(log, VYR_LOG_LEVEL_INFO),
              (Strings{"names[0] = one", "names[1] = two", "names[2] = two", "names[3] = "}));

    // Only neighbours collapse, and only in an array said to be sorted.
    log.clear();
    EXPECT_FALSE(vyr_string_array_remove_duplicates(&a, false));
    EXPECT_EQ(vyrtest::unit::texts(log),
              Strings{"[vyr_string_array_remove_duplicates] not implemented"});
    ASSERT_TRUE(vyr_append_string_array(&a, "one"));
    ASSERT_TRUE(vyr_append_string_array(&a, "one"));
    EXPECT_TRUE(vyr_string_array_remove_duplicates(&a, true));
    EXPECT_EQ(contents(a), (Strings{"one", "two", "", "one"}));
    vyr_free_string_array(a);
    a = vyr_init_string_array();
    EXPECT_TRUE(vyr_string_array_remove_duplicates(&a, false));  // empty: no work
    vyr_free_string_array(a);
}

TEST(StringArray, CommaSplit) {
    const std::string longest(1023, 'L');  // fits the 1,024-byte token buffer with its zero
    const struct {
        std::string text;
        size_t length;
        Strings expected;
    } cases[] = {
        {",a,,b,", 6, {"a", "b"}},
        {",,,", 3, {}},
        {"x", 1, {"x"}},
        {"a,bcd", 3, {"a", "b"}},  // exactly `length` bytes are read
        {"a," + longest + ",b", 1027, {"a", longest, "b"}},
    };
    for (const auto &c : cases) {
        vyr_string_array_t *a =
            vyr_string_array_from_comma_separated_string(c.text.data(), c.length);
        EXPECT_EQ(contents(a), c.expected) << c.text;
        vyr_free_string_array(a);
    }
    // A longer token is refused (the message is asserted with the allocation failures).
    const std::string t(1024, 'T');
    vyrtest::LogCapture log;
    EXPECT_EQ(vyr_string_array_from_comma_separated_string(t.data(), t.size()), nullptr);
}

}  // namespace
