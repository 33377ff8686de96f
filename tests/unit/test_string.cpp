// Strict conversions and the comma-separated list.
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

// One row each side of every type's limit; a minus sign wraps the unsigned
// ones, and only an overflowing result is refused.
TEST(StringConversion, EveryFunctionOverOneTable) {
    const char *const no = "no", *const max64 = "18446744073709551615";
    const struct {
        const char *text, *s64, *u64, *u32, *u16, *u8;
    } rows[] = {
        {" 0x1F", "31", "31", "31", "31", "31"},      // leading blanks, hexadecimal
        {"0377", "255", "255", "255", "255", "255"},  // octal
        {"256", "256", "256", "256", "256", no},
        {"65535", "65535", "65535", "65535", "65535", no},
        {"65536", "65536", "65536", "65536", no, no},
        {"4294967295", "4294967295", "4294967295", "4294967295", no, no},
        {"4294967296", "4294967296", "4294967296", no, no, no},
        {"9223372036854775808", no, "9223372036854775808", no, no, no},
        {"-9223372036854775808", "-9223372036854775808", "9223372036854775808", no, no, no},
        {"-1", "-1", max64, no, no, no},
        {"-18446744073709551616", no, no, no, no, no},
        {nullptr, no, no, no, no, no},
        {"", no, no, no, no, no},
        {"42 ", no, no, no, no, no},
    };
    for (const auto &r : rows) {
        EXPECT_EQ(run(string_to_long, r.text) + run(string_to_long_long, r.text),
                  r.s64 + std::string(r.s64))
            << (r.text ? r.text : "null");
        EXPECT_EQ(run(string_to_unsigned_long, r.text) + run(string_to_unsigned_long_long, r.text) +
                      run(string_to_sizet, r.text) + run(string_to_u64, r.text),
                  r.u64 + std::string(r.u64) + r.u64 + r.u64);
        EXPECT_EQ(run(string_to_u32, r.text) + "|" + run(string_to_u16, r.text) + "|" +
                      run(string_to_u8, r.text),
                  r.u32 + std::string("|") + r.u16 + "|" + r.u8);
    }
    // Exactly `length` bytes are read, and the result must fit an int.
    auto bounded = [](const char *text, size_t length) {
        int out = -77;
        bool ok = bounded_string_to_int(text, length, &out);
        return (ok ? std::to_string(out) : out == -77 ? "no" : "refused but wrote") + "|";
    };
    EXPECT_EQ(bounded("123-456", 3) + bounded("123-456", 4) + bounded(nullptr, 1) +
                  bounded("2147483648", 10) + bounded("-2147483648", 11) +
                  bounded("-2147483649", 11),
              "123|no|no|no|-2147483648|no|");
    EXPECT_FALSE(bounded_string_to_int("1", 1, nullptr));
}

Strings contents(const vyr_string_array_t *a) {
    Strings out;
    for (uint64_t i = 0; a && i < a->count; ++i) out.emplace_back(a->strings[i]);
    return out;
}

// Runs of commas give no empty tokens; exactly `length` bytes are read; a
// token fills at most the 1,024-byte buffer with its zero.
TEST(StringArray, CommaSplit) {
    auto split = [](const std::string &text, size_t length) {
        vyr_string_array_t *a = vyr_string_array_from_comma_separated_string(text.data(), length);
        Strings out = a ? contents(a) : Strings{"<null>"};
        vyr_free_string_array(a);
        return out;
    };
    const std::string longest(1023, 'L');
    EXPECT_EQ(split(",a,,b,x", 6), (Strings{"a", "b"}));
    EXPECT_EQ(split("a," + longest, 1025), (Strings{"a", longest}));
    vyrtest::LogCapture log;  // the message is asserted with the allocation failures
    EXPECT_EQ(split(longest + "T", 1024), Strings{"<null>"});
}

}  // namespace
