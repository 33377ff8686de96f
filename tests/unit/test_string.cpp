// Strict conversions, truth values, trimming and string arrays.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "log_capture.h"
#include "vyr_string.h"

namespace {

template <typename T>
struct Case {
    const char *text;
    bool ok;
    T value;
};

// Runs a table through one conversion; a refusal must leave the out value alone.
template <typename T>
void check_table(bool (*convert)(const char *, T *), const std::vector<Case<T>> &cases,
                 const char *name) {
    const T sentinel = static_cast<T>(0x5A);
    for (const auto &c : cases) {
        T out = sentinel;
        EXPECT_EQ(convert(c.text, &out), c.ok) << name << " \"" << c.text << "\"";
        EXPECT_EQ(out, c.ok ? c.value : sentinel) << name << " \"" << c.text << "\"";
    }
    T out = sentinel;
    EXPECT_FALSE(convert(nullptr, &out)) << name;
    EXPECT_EQ(out, sentinel) << name;
    EXPECT_FALSE(convert("1", nullptr)) << name;
}

// Texts every conversion refuses.
const char *const kMalformed[] = {"",    " ",   "\t", "42 ", "42x",  "x42", "0x",  "08",
                                  "1e3", "4 2", "+",  "-",   "0x1G", "1.5", "42\n"};

template <typename T>
std::vector<Case<T>> with_malformed(std::vector<Case<T>> cases) {
    for (const char *t : kMalformed) cases.push_back({t, false, 0});
    return cases;
}

template <typename T>
std::vector<Case<T>> common_accepted() {
    return {{"42", true, 42},    {" 42", true, 42},  {"\t\n42", true, 42}, {"+7", true, 7},
            {"0", true, 0},      {"0x1F", true, 31}, {"0X1f", true, 31},   {"010", true, 8},
            {"0377", true, 255}, {"00", true, 0}};
}

template <typename T>
std::vector<Case<T>> concat(std::vector<Case<T>> a, const std::vector<Case<T>> &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

TEST(StringConversion, Signed) {
    auto cases = with_malformed(
        concat<long>(common_accepted<long>(), {{"-5", true, -5},
                                               {"-0", true, 0},
                                               {"-0x10", true, -16},
                                               {"9223372036854775807", true, LONG_MAX},
                                               {"0x7FFFFFFFFFFFFFFF", true, LONG_MAX},
                                               {"-9223372036854775808", true, LONG_MIN},
                                               {"9223372036854775808", false, 0},
                                               {"-9223372036854775809", false, 0},
                                               {"99999999999999999999", false, 0},
                                               {"--5", false, 0}}));
    check_table<long>(string_to_long, cases, "string_to_long");
    std::vector<Case<long long>> wide;
    for (const auto &c : cases) wide.push_back({c.text, c.ok, c.value});
    check_table<long long>(string_to_long_long, wide, "string_to_long_long");
}

TEST(StringConversion, Unsigned) {
    auto cases = with_malformed(concat<unsigned long long>(
        common_accepted<unsigned long long>(),
        {{"18446744073709551615", true, ULLONG_MAX},
         {"0xFFFFFFFFFFFFFFFF", true, ULLONG_MAX},
         {"18446744073709551616", false, 0},
         {"0x10000000000000000", false, 0},
         // A minus sign wraps; only the overflowing all-ones result is refused.
         {"-1", true, ULLONG_MAX},
         {"-2", true, ULLONG_MAX - 1},
         {"-0", true, 0},
         {"-18446744073709551616", false, 0}}));
    check_table<unsigned long long>(string_to_unsigned_long_long, cases,
                                    "string_to_unsigned_long_long");
    std::vector<Case<unsigned long>> ul;
    std::vector<Case<uint64_t>> u64;
    std::vector<Case<size_t>> sz;
    for (const auto &c : cases) {
        ul.push_back({c.text, c.ok, c.value});
        u64.push_back({c.text, c.ok, c.value});
        sz.push_back({c.text, c.ok, c.value});
    }
    check_table<unsigned long>(string_to_unsigned_long, ul, "string_to_unsigned_long");
    check_table<uint64_t>(string_to_u64, u64, "string_to_u64");
    check_table<size_t>(string_to_sizet, sz, "string_to_sizet");
}

TEST(StringConversion, NarrowUnsigned) {
    check_table<uint8_t>(
        string_to_u8,
        with_malformed(concat<uint8_t>(common_accepted<uint8_t>(), {{"255", true, 255},
                                                                    {"0xff", true, 255},
                                                                    {"256", false, 0},
                                                                    {"0x100", false, 0},
                                                                    {"-1", false, 0},
                                                                    {"-0", true, 0}})),
        "string_to_u8");
    check_table<uint16_t>(
        string_to_u16,
        with_malformed(concat<uint16_t>(common_accepted<uint16_t>(), {{"65535", true, 65535},
                                                                      {"0xFFFF", true, 65535},
                                                                      {"65536", false, 0},
                                                                      {"-1", false, 0}})),
        "string_to_u16");
    check_table<uint32_t>(string_to_u32,
                          with_malformed(concat<uint32_t>(common_accepted<uint32_t>(),
                                                          {{"4294967295", true, UINT32_MAX},
                                                           {"037777777777", true, UINT32_MAX},
                                                           {"4294967296", false, 0},
                                                           {"-1", false, 0}})),
                          "string_to_u32");
}

TEST(StringConversion, BoundedInt) {
    struct BCase {
        const char *text;
        size_t length;
        bool ok;
        int value;
    };
    const BCase cases[] = {
        {"123-456", 3, true, 123},
        {"123-456", 4, false, 0},  // "123-"
        {"123-456", 7, false, 0},
        {"1234", 2, true, 12},
        {"0x10zz", 4, true, 16},
        {"010]", 3, true, 8},
        {" 12", 3, true, 12},
        {"12 ", 3, false, 0},
        {"2147483647", 10, true, INT_MAX},
        {"-2147483648", 11, true, INT_MIN},
        {"2147483648", 10, false, 0},
        {"-2147483649", 11, false, 0},
        {"12345678901", 11, false, 0},
        {"abc", 3, false, 0},
        {"", 0, false, 0},
        {"77", 0, false, 0},
    };
    for (const auto &c : cases) {
        int out = -77;
        EXPECT_EQ(bounded_string_to_int(c.text, c.length, &out), c.ok)
            << c.text << " / " << c.length;
        EXPECT_EQ(out, c.ok ? c.value : -77) << c.text << " / " << c.length;
    }
    // Only `length` bytes are read: no terminator needed.
    const char digits[3] = {'4', '5', '6'};
    int out = 0;
    EXPECT_TRUE(bounded_string_to_int(digits, sizeof digits, &out));
    EXPECT_EQ(out, 456);
    EXPECT_FALSE(bounded_string_to_int(nullptr, 1, &out));
    EXPECT_FALSE(bounded_string_to_int("1", 1, nullptr));
}

TEST(StringBoolean, TruthValues) {
    EXPECT_TRUE(vyr_string_to_boolean(nullptr));
    for (const char *t : {"1", "True", "true"}) EXPECT_TRUE(vyr_string_to_boolean(t)) << t;
    for (const char *t : {"TRUE", "yes", "0", "", "false", "true ", " 1", "tRue", "2"})
        EXPECT_FALSE(vyr_string_to_boolean(t)) << t;
    EXPECT_STREQ(boolean_to_string(true), "true");
    EXPECT_STREQ(boolean_to_string(false), "false");
}

TEST(StringTrim, TrimsInPlace) {
    struct TCase {
        const char *text;
        size_t offset;  // of the returned pointer
        const char *result;
    };
    const TCase cases[] = {
        {"  abc  ", 2, "abc"}, {"abc", 0, "abc"}, {"\t\n a b \r\v\f", 3, "a b"},
        {"   ", 3, ""},        {"", 0, ""},       {"x", 0, "x"},
        {" x", 1, "x"},        {"x ", 0, "x"},
    };
    for (const auto &c : cases) {
        std::vector<char> buf(c.text, c.text + strlen(c.text) + 1);
        char *got = trim_white_space(buf.data());
        EXPECT_EQ(got, buf.data() + c.offset) << '"' << c.text << '"';
        EXPECT_STREQ(got, c.result) << '"' << c.text << '"';
    }
}

std::vector<std::string> contents(const vyr_string_array_t *a) {
    std::vector<std::string> out;
    for (uint64_t i = 0; i < a->count; ++i) out.emplace_back(a->strings[i]);
    return out;
}

vyr_string_array_t *make_array(std::initializer_list<const char *> texts) {
    vyr_string_array_t *a = vyr_init_string_array();
    for (const char *t : texts) EXPECT_TRUE(vyr_append_string_array(&a, t));
    return a;
}

using Strings = std::vector<std::string>;

TEST(StringArray, AppendAndContains) {
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
    EXPECT_TRUE(vyr_string_array_contains(a, "two"));
    EXPECT_TRUE(vyr_string_array_contains(a, ""));
    EXPECT_FALSE(vyr_string_array_contains(a, "Xne"));
    EXPECT_FALSE(vyr_string_array_contains(a, "tw"));
    EXPECT_FALSE(vyr_string_array_contains(nullptr, "two"));
    vyr_free_string_array(a);
    vyr_free_string_array(nullptr);

    // Appending to a missing block makes one.
    vyr_string_array_t *fresh = nullptr;
    ASSERT_TRUE(vyr_append_string_array(&fresh, "first"));
    EXPECT_EQ(contents(fresh), (Strings{"first"}));
    vyr_free_string_array(fresh);
}

TEST(StringArray, CommaSplit) {
    struct SCase {
        std::string text;
        Strings expected;
    };
    const SCase cases[] = {
        {",a,,b,", {"a", "b"}},
        {"", {}},
        {",,,", {}},
        {"abc", {"abc"}},
        {"a,b,c", {"a", "b", "c"}},
        {" a b , c", {" a b ", " c"}},
        {"mlx5_0,mlx5_1", {"mlx5_0", "mlx5_1"}},
    };
    vyrtest::LogCapture log;
    for (const auto &c : cases) {
        vyr_string_array_t *a =
            vyr_string_array_from_comma_separated_string(c.text.data(), c.text.size());
        ASSERT_NE(a, nullptr) << c.text;
        EXPECT_EQ(contents(a), c.expected) << c.text;
        vyr_free_string_array(a);
    }
    // Exactly `length` bytes are read, terminated or not.
    vyr_string_array_t *a = vyr_string_array_from_comma_separated_string("a,bcd", 3);
    EXPECT_EQ(contents(a), (Strings{"a", "b"}));
    vyr_free_string_array(a);
    const char raw[3] = {'x', ',', 'y'};
    a = vyr_string_array_from_comma_separated_string(raw, sizeof raw);
    EXPECT_EQ(contents(a), (Strings{"x", "y"}));
    vyr_free_string_array(a);
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(StringArray, CommaSplitBoundsTokenLength) {
    vyrtest::LogCapture log;
    std::string longest(1023, 'L');  // fits the 1,024-byte buffer with its zero
    std::string text = "a," + longest + ",b";
    vyr_string_array_t *a = vyr_string_array_from_comma_separated_string(text.data(), text.size());
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(contents(a), (Strings{"a", longest, "b"}));
    vyr_free_string_array(a);
    EXPECT_TRUE(log.lines().empty()) << log.dump();

    for (size_t len : {1024u, 1025u, 5000u}) {
        for (const std::string &t : {std::string(len, 'T'), "a," + std::string(len, 'T') + ",b"}) {
            log.clear();
            EXPECT_EQ(vyr_string_array_from_comma_separated_string(t.data(), t.size()), nullptr)
                << len;
            EXPECT_EQ(log.lines().size(), 1u) << log.dump();
            EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_ERROR, "Unable to append string")) << log.dump();
        }
    }
}

TEST(StringArray, RemoveDuplicates) {
    struct DCase {
        std::initializer_list<const char *> in;
        Strings out;
    };
    const DCase cases[] = {
        {{"a", "a", "b", "b", "b", "c"}, {"a", "b", "c"}},
        {{"a", "b", "a"}, {"a", "b", "a"}},  // only neighbours collapse
        {{"x", "x", "x"}, {"x"}},
        {{"solo"}, {"solo"}},
        {{"a", "b"}, {"a", "b"}},
        {{"", "", "a", "a"}, {"", "a"}},
    };
    vyrtest::LogCapture log;
    for (const auto &c : cases) {
        vyr_string_array_t *a = make_array(c.in);
        EXPECT_TRUE(vyr_string_array_remove_duplicates(&a, true));
        EXPECT_EQ(contents(a), c.out);
        vyr_free_string_array(a);
    }
    EXPECT_TRUE(log.lines().empty()) << log.dump();

    // An empty array needs no work, sorted or not.
    vyr_string_array_t *empty = vyr_init_string_array();
    EXPECT_TRUE(vyr_string_array_remove_duplicates(&empty, false));
    EXPECT_TRUE(log.lines().empty()) << log.dump();
    vyr_free_string_array(empty);

    vyr_string_array_t *a = make_array({"b", "a", "b"});
    EXPECT_FALSE(vyr_string_array_remove_duplicates(&a, false));
    EXPECT_EQ(contents(a), (Strings{"b", "a", "b"}));
    EXPECT_EQ(log.lines().size(), 1u);
    EXPECT_TRUE(
        log.contains(VYR_LOG_LEVEL_ERROR, "[vyr_string_array_remove_duplicates] not implemented"))
        << log.dump();
    vyr_free_string_array(a);
}

TEST(StringArray, LogsEveryEntryAtGivenLevel) {
    vyr_string_array_t *a = make_array({"eth0", "eth1"});
    vyrtest::LogCapture log;
    vyr_log_string_array(VYR_LOG_LEVEL_INFO, a, "ifaces");
    ASSERT_EQ(log.lines().size(), 2u) << log.dump();
    EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_INFO, "ifaces[0] = eth0"));
    EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_INFO, "ifaces[1] = eth1"));
    log.clear();
    vyr_log_string_array(VYR_LOG_LEVEL_INFO, nullptr, "none");
    EXPECT_TRUE(log.lines().empty());
    vyr_free_string_array(a);
}

}  // namespace
