// The strict number conversions, the truth value, trimming and the comma split
// against references written out plainly here, digit by digit, without the C
// library's conversions.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "vyr_string.h"

namespace {

bool is_space(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

int digit_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'z') return c - 'a' + 10;
    if (c >= 'A' && c <= 'Z') return c - 'A' + 10;
    return 99;
}

// What a base-0 standard conversion sees: blanks, a sign, a 0x or 0 prefix,
// then digits; `overflow` when the magnitude does not fit 64 bits.
struct Number {
    bool any = false;
    bool negative = false;
    bool overflow = false;
    unsigned long long magnitude = 0;
    bool trailing = false;  // characters left after the number
};

Number read_number(const char *s) {
    Number n;
    const char *p = s;
    while (is_space(*p)) ++p;
    if (*p == '+' || *p == '-') n.negative = *p++ == '-';
    int base = 10;
    if (*p == '0') {
        // "0x" counts as a prefix only when a hexadecimal digit follows it.
        if ((p[1] == 'x' || p[1] == 'X') && digit_value(p[2]) < 16) {
            base = 16;
            p += 2;
        } else {
            base = 8;
        }
    }
    const char *digits = p;
    for (; digit_value(*p) < base; ++p) {
        unsigned d = (unsigned)digit_value(*p);
        if (n.magnitude > (ULLONG_MAX - d) / (unsigned)base)
            n.overflow = true;
        else
            n.magnitude = n.magnitude * (unsigned)base + d;
    }
    n.any = p != digits;
    n.trailing = *p != '\0';
    return n;
}

bool ref_signed(const char *s, long long *out) {
    Number n = read_number(s);
    if (!n.any || n.trailing || n.overflow) return false;
    unsigned long long limit = n.negative ? 1ULL << 63 : (unsigned long long)LLONG_MAX;
    if (n.magnitude > limit) return false;
    *out = n.negative ? (long long)(0 - n.magnitude) : (long long)n.magnitude;
    return true;
}

bool ref_unsigned(const char *s, unsigned long long *out) {
    Number n = read_number(s);
    if (!n.any || n.trailing || n.overflow) return false;
    // A minus sign wraps, as the standard unsigned conversion does.
    *out = n.negative ? 0 - n.magnitude : n.magnitude;
    return true;
}

template <typename T, typename F>
void check_narrow(const char *text, F convert, unsigned long long max) {
    unsigned long long want = 0;
    bool ok = ref_unsigned(text, &want) && want <= max;
    T got = (T)0x5A;
    bool got_ok = convert(text, &got);
    FUZZ_CHECK(got_ok == ok);
    if (ok)
        FUZZ_CHECK((unsigned long long)got == want);
    else
        FUZZ_CHECK(got == (T)0x5A);  // untouched on failure
}

void check_conversions(const char *text) {
    long long want_s = 0;
    bool ok_s = ref_signed(text, &want_s);
    long got_l = 7;
    FUZZ_CHECK(string_to_long(text, &got_l) == ok_s);
    FUZZ_CHECK(ok_s ? got_l == want_s : got_l == 7);
    long long got_ll = 7;
    FUZZ_CHECK(string_to_long_long(text, &got_ll) == ok_s);
    FUZZ_CHECK(ok_s ? got_ll == want_s : got_ll == 7);

    unsigned long long want_u = 0;
    bool ok_u = ref_unsigned(text, &want_u);
    unsigned long got_ul = 7;
    FUZZ_CHECK(string_to_unsigned_long(text, &got_ul) == ok_u);
    FUZZ_CHECK(ok_u ? got_ul == want_u : got_ul == 7);
    unsigned long long got_ull = 7;
    FUZZ_CHECK(string_to_unsigned_long_long(text, &got_ull) == ok_u);
    FUZZ_CHECK(ok_u ? got_ull == want_u : got_ull == 7);

    check_narrow<uint8_t>(text, string_to_u8, UINT8_MAX);
    check_narrow<uint16_t>(text, string_to_u16, UINT16_MAX);
    check_narrow<uint32_t>(text, string_to_u32, UINT32_MAX);
    check_narrow<uint64_t>(text, string_to_u64, UINT64_MAX);
    check_narrow<size_t>(text, string_to_sizet, SIZE_MAX);
}

void check_bounded(const char *text, size_t length) {
    std::string slice(text, strnlen(text, length));  // the copy stops at a zero byte
    long long want = 0;
    bool ok = ref_signed(slice.c_str(), &want) && want >= INT_MIN && want <= INT_MAX;
    int got = 7;
    FUZZ_CHECK(bounded_string_to_int(text, length, &got) == ok);
    FUZZ_CHECK(ok ? got == want : got == 7);
}

void check_boolean_and_trim(const std::string &text) {
    bool want = text == "1" || text == "True" || text == "true";
    FUZZ_CHECK(vyr_string_to_boolean(text.c_str()) == want);

    std::string copy = text;
    size_t first = 0, last = copy.size();
    while (first < last && is_space(copy[first])) ++first;
    while (last > first && is_space(copy[last - 1])) --last;
    char *trimmed = trim_white_space(&copy[0]);
    FUZZ_CHECK(std::string(trimmed) == text.substr(first, last - first));
    FUZZ_CHECK(trimmed == copy.c_str() + (first == last ? text.size() : first));
}

// Runs of bytes between commas; none for empty runs; a run of 1,024 bytes or
// more fails the whole split. Each entry is a C copy, so it ends at a zero byte.
bool ref_split(const uint8_t *data, size_t size, std::vector<std::string> *out) {
    size_t start = 0;
    for (size_t i = 0; i <= size; ++i) {
        if (i < size && data[i] != ',') continue;
        size_t run = i - start;
        if (run >= 1024) return false;
        if (run > 0) {
            const char *p = reinterpret_cast<const char *>(data) + start;
            out->emplace_back(p, strnlen(p, run));
        }
        start = i + 1;
    }
    return true;
}

std::vector<std::string> entries(const vyr_string_array_t *array) {
    std::vector<std::string> v;
    for (uint64_t i = 0; i < array->count; ++i) v.emplace_back(array->strings[i]);
    return v;
}

void check_split_and_arrays(const uint8_t *data, size_t size) {
    std::vector<std::string> want;
    bool ok = ref_split(data, size, &want);
    vyr_string_array_t *got =
        vyr_string_array_from_comma_separated_string(reinterpret_cast<const char *>(data), size);
    FUZZ_CHECK((got != nullptr) == ok);
    if (!got) return;
    FUZZ_CHECK(entries(got) == want);
    for (const std::string &s : want) FUZZ_CHECK(vyr_string_array_contains(got, s.c_str()));
    FUZZ_CHECK(!vyr_string_array_contains(got, "\x01not,a token") ||
               std::find(want.begin(), want.end(), "\x01not,a token") != want.end());

    // Only neighbours collapse: the unsorted list keeps its repeats apart.
    vyr_string_array_t *copy = vyr_init_string_array();
    FUZZ_CHECK(copy);
    for (const std::string &s : want) FUZZ_CHECK(vyr_append_string_array(&copy, s.c_str()));
    FUZZ_CHECK(vyr_string_array_remove_duplicates(&copy, true));
    std::vector<std::string> collapsed = want;
    collapsed.erase(std::unique(collapsed.begin(), collapsed.end()), collapsed.end());
    FUZZ_CHECK(entries(copy) == collapsed);
    FUZZ_CHECK(vyr_string_array_remove_duplicates(&copy, false) == collapsed.empty());
    vyr_free_string_array(copy);

    std::vector<std::string> sorted = want;
    std::sort(sorted.begin(), sorted.end());
    vyr_string_array_t *ordered = nullptr;  // appending to none makes the block
    for (const std::string &s : sorted) FUZZ_CHECK(vyr_append_string_array(&ordered, s.c_str()));
    if (ordered) {
        FUZZ_CHECK(vyr_string_array_remove_duplicates(&ordered, true));
        sorted.erase(std::unique(sorted.begin(), sorted.end()), sorted.end());
        FUZZ_CHECK(entries(ordered) == sorted);
        vyr_log_string_array(7, ordered, "fuzz");
    }
    vyr_free_string_array(ordered);
    vyr_free_string_array(got);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    vyrfuzz::quiet_logging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string text(reinterpret_cast<const char *>(data), size);  // may hold zero bytes
    const char *c_text = text.c_str();
    check_conversions(c_text);
    check_boolean_and_trim(std::string(c_text));
    check_bounded(c_text, size);
    if (size > 0) check_bounded(c_text, data[0] % size);
    check_split_and_arrays(data, size);
    return 0;
}
