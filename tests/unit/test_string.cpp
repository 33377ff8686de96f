// Strict conversions, truth values, trimming and string arrays.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>

#include "unit_helpers.h"
#include "vyr_string.h"

namespace {

using Strings = std::vector<std::string>;

// The converted value as text, or "no"; a refusal must leave the out value
// alone, and a missing out pointer is always refused.
template <typename T>
std::string run(bool (*convert)(const char *, T *), const char *text) {
    const T sentinel = static_cast<T>(0x5A);
    T out = sentinel;
    bool ok = convert(text, &out);
    if (convert("1", nullptr)) return "accepted a missing out pointer";
    if (!ok) return out == sentinel ? "no" : "refused but wrote";
    return std::to_string(out);
}

TEST(StringConversion, EveryFunctionOverOneTable) {
    const char *const no = "no";
    const char *const max64 = "18446744073709551615";
    struct Row {
        const char *text, *s64, *u64, *u32, *u16, *u8;
    };
    std::vector<Row> rows = {
        {"42", "42", "42", "42", "42", "42"},
        {" 42", "42", "42", "42", "42", "42"},  // leading blanks are accepted
        {"0", "0", "0", "0", "0", "0"},
        {"0x1F", "31", "31", "31", "31", "31"},
        {"010", "8", "8", "8", "8", "8"},  // octal
        {"0xff", "255", "255", "255", "255", "255"},
        {"256", "256", "256", "256", "256", no},
        {"65535", "65535", "65535", "65535", "65535", no},
        {"65536", "65536", "65536", "65536", no, no},
        {"037777777777", "4294967295", "4294967295", "4294967295", no, no},
        {"4294967296", "4294967296", "4294967296", no, no, no},
        {"0x7FFFFFFFFFFFFFFF", "9223372036854775807", "9223372036854775807", no, no, no},
        {"9223372036854775808", no, "9223372036854775808", no, no, no},
        {"-9223372036854775808", "-9223372036854775808", "9223372036854775808", no, no, no},
        {"-9223372036854775809", no, "9223372036854775807", no, no, no},
        {"0xFFFFFFFFFFFFFFFF", no, max64, no, no, no},
        {"18446744073709551616", no, no, no, no, no},
        // A minus sign wraps the unsigned ones; only an overflowing all-ones result is refused.
        {"-1", "-1", max64, no, no, no},
        {"-18446744073709551616", no, no, no, no, no},
        {"--5", no, no, no, no, no},
        {nullptr, no, no, no, no, no},
    };
    for (const char *text : {"", " ", "\t", "42 ", "42x", "x42", "0x", "08", "1e3", "4 2", "+", "-",
                             "0x1G", "1.5", "42\n"})
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

TEST(StringConversion, BoundedInt) {
    const struct {
        const char *text;
        size_t length;
        const char *want;
        // clang-format off
    } cases[] = {{"123-456", 3, "123"}, {"123-456", 4, "no"}, {"1234", 2, "12"}, {"0x10zz", 4, "16"},
                 {"010]", 3, "8"}, {" 12", 3, "12"}, {"12 ", 3, "no"}, {"abc", 3, "no"}, {"77", 0, "no"},
                 {"2147483647", 10, "2147483647"}, {"-2147483648", 11, "-2147483648"},
                 {"2147483648", 10, "no"}, {"-2147483649", 11, "no"}};
    // clang-format on
    for (const auto &c : cases) {
        int out = -77;
        bool ok = bounded_string_to_int(c.text, c.length, &out);
        EXPECT_EQ(ok           ? std::to_string(out)
                  : out == -77 ? "no"
                               : "refused but wrote",
                  c.want)
            << c.text << " / " << c.length;
    }
    // Only `length` bytes are read: no terminator needed.
    const char digits[3] = {'4', '5', '6'};
    int out = 0;
    EXPECT_TRUE(bounded_string_to_int(digits, sizeof digits, &out));
    EXPECT_EQ(out, 456);
    EXPECT_FALSE(bounded_string_to_int(nullptr, 1, &out));
    EXPECT_FALSE(bounded_string_to_int("1", 1, nullptr));
}

TEST(StringText, TruthValuesAndTrimming) {
    EXPECT_TRUE(vyr_string_to_boolean(nullptr));
    for (const char *t : {"1", "True", "true"}) EXPECT_TRUE(vyr_string_to_boolean(t)) << t;
    for (const char *t : {"TRUE", "yes", "0", "", "true ", " 1", "tRue"})
        EXPECT_FALSE(vyr_string_to_boolean(t)) << t;
    EXPECT_STREQ(boolean_to_string(true), "true");
    EXPECT_STREQ(boolean_to_string(false), "false");

    const struct {
        const char *text;
        size_t offset;  // of the returned pointer
        const char *result;
    } cases[] = {{"  abc  ", 2, "abc"}, {"\t\n a b \r\v\f", 3, "a b"},
                 {"   ", 3, ""},        {"", 0, ""},
                 {"x", 0, "x"},         {"x ", 0, "x"}};
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

vyr_string_array_t *make_array(const Strings &texts) {
    vyr_string_array_t *a = vyr_init_string_array();
    for (const auto &t : texts) EXPECT_TRUE(vyr_append_string_array(&a, t.c_str()));
    return a;
}

TEST(StringArray, AppendContainsAndLog) {
    vyr_string_array_t *a = vyr_init_string_array();
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->count, 0u);
    EXPECT_FALSE(vyr_string_array_contains(a, "x"));
    char text[] = "one";
    ASSERT_TRUE(vyr_append_string_array(&a, text));
    text[0] = 'X';  // the array owns a copy
    ASSERT_TRUE(vyr_append_string_array(&a, "two"));
    ASSERT_TRUE(vyr_append_string_array(&a, ""));
    EXPECT_FALSE(vyr_append_string_array(&a, nullptr));
    EXPECT_EQ(contents(a), (Strings{"one", "two", ""}));
    EXPECT_TRUE(vyr_string_array_contains(a, ""));
    EXPECT_FALSE(vyr_string_array_contains(a, "Xne"));
    EXPECT_FALSE(vyr_string_array_contains(a, "tw"));
    EXPECT_FALSE(vyr_string_array_contains(nullptr, "two"));

    vyrtest::LogCapture log;
    vyr_log_string_array(VYR_LOG_LEVEL_INFO, a, "names");
    vyr_log_string_array(VYR_LOG_LEVEL_INFO, nullptr, "none");
    EXPECT_EQ(vyrtest::unit::texts(log, VYR_LOG_LEVEL_INFO),
              (Strings{"names[0] = one", "names[1] = two", "names[2] = "}));
    EXPECT_EQ(log.lines().size(), 3u);
    vyr_free_string_array(a);
    vyr_free_string_array(nullptr);

    // Appending to a missing block makes one.
    vyr_string_array_t *fresh = nullptr;
    ASSERT_TRUE(vyr_append_string_array(&fresh, "first"));
    EXPECT_EQ(contents(fresh), (Strings{"first"}));
    vyr_free_string_array(fresh);
}

TEST(StringArray, CommaSplit) {
    const std::string longest(1023, 'L');  // fits the 1,024-byte token buffer with its zero
    const struct {
        std::string text;
        size_t length;
        Strings expected;
    } cases[] = {
        {",a,,b,", 6, {"a", "b"}},
        {"", 0, {}},
        {",,,", 3, {}},
        {" a b , c", 8, {" a b ", " c"}},
        {"a,bcd", 3, {"a", "b"}},  // exactly `length` bytes are read
        {"a," + longest + ",b", 1027, {"a", longest, "b"}},
    };
    vyrtest::LogCapture log;
    for (const auto &c : cases) {
        vyr_string_array_t *a =
            vyr_string_array_from_comma_separated_string(c.text.data(), c.length);
        ASSERT_NE(a, nullptr) << c.text;
        EXPECT_EQ(contents(a), c.expected) << c.text;
        vyr_free_string_array(a);
    }
    EXPECT_TRUE(log.lines().empty()) << log.dump();

    // A longer token is refused.
    for (const std::string &t : {std::string(1024, 'T'), "a," + std::string(5000, 'T') + ",b"}) {
        log.clear();
        EXPECT_EQ(vyr_string_array_from_comma_separated_string(t.data(), t.size()), nullptr);
        EXPECT_EQ(vyrtest::unit::texts(log, VYR_LOG_LEVEL_ERROR),
                  Strings{"Unable to append string"});
        EXPECT_EQ(log.lines().size(), 1u);
    }
}

TEST(StringArray, RemoveDuplicates) {
    const struct {
        Strings in, out;
    } cases[] = {
        {{"a", "a", "b", "b", "b", "c"}, {"a", "b", "c"}},
        {{"a", "b", "a"}, {"a", "b", "a"}},  // only neighbours collapse
        {{"x", "x", "x"}, {"x"}},
        {{"solo"}, {"solo"}},
        {{"", "", "a", "a"}, {"", "a"}},
    };
    vyrtest::LogCapture log;
    for (const auto &c : cases) {
        vyr_string_array_t *a = make_array(c.in);
        EXPECT_TRUE(vyr_string_array_remove_duplicates(&a, true));
        EXPECT_EQ(contents(a), c.out);
        vyr_free_string_array(a);
    }
    // An empty array needs no work, sorted or not.
    vyr_string_array_t *empty = vyr_init_string_array();
    EXPECT_TRUE(vyr_string_array_remove_duplicates(&empty, false));
    vyr_free_string_array(empty);
    EXPECT_TRUE(log.lines().empty()) << log.dump();

    vyr_string_array_t *a = make_array({"b", "a", "b"});
    EXPECT_FALSE(vyr_string_array_remove_duplicates(&a, false));
    EXPECT_EQ(contents(a), (Strings{"b", "a", "b"}));
    EXPECT_EQ(vyrtest::unit::texts(log, VYR_LOG_LEVEL_ERROR),
              Strings{"[vyr_string_array_remove_duplicates] not implemented"});
    EXPECT_EQ(log.lines().size(), 1u);
    vyr_free_string_array(a);
}

}  // namespace
