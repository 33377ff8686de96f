// Number conversions of the value line: strtoull/strtod results, with fast
// paths for the plain decimals the tool writes.
#pragma once

#include <stdint.h>

#include <charconv>
#include <string_view>

// 0 on no number or out of range, as strtoull/strtod leave it.
uint64_t tarvik_token_to_u64(std::string_view token);
double tarvik_token_to_double(std::string_view token);
uint64_t tarvik_slow_u64(std::string_view token);
double tarvik_slow_double(std::string_view token);
// strtod follows the locale's radix character and the rounding mode;
// from_chars knows only '.' and round-to-nearest.
bool tarvik_fast_double_allowed();

inline bool tarvik_is_digit(char c) {
    return (unsigned char)(c - '0') < 10;
}

// The leading digit run at p (p < end, *p a digit) as strtoull reads it; a
// run past UINT64_MAX is ERANGE to strtoull, which stores 0. Returns the
// end of the run.
inline const char *tarvik_digit_run_u64(const char *p, const char *end, uint64_t *out) {
    uint64_t v = 0;
    // Nineteen digits cannot overflow; only longer runs are checked.
    const char *safe = end - p > 19 ? p + 19 : end;
    while (p < safe && tarvik_is_digit(*p)) v = v * 10 + (uint64_t)(*p++ - '0');
    bool overflow = false;
    while (p < end && tarvik_is_digit(*p)) {
        overflow = overflow || __builtin_mul_overflow(v, 10u, &v) ||
                   __builtin_add_overflow(v, (uint64_t)(*p - '0'), &v);
        ++p;
    }
    *out = overflow ? 0 : v;
    return p;
}

// The longest prefix at p that strtod reads as a decimal number: an optional
// sign, digits with an optional fraction, an exponent only when digits follow
// its letter. A comma is never part of it, so p may scan a whole line.
// Returns the end of the prefix with its value, or null when strtod itself
// must judge the text (hex, inf, nan, blanks, no digits) or when the value
// could leave the normal range: at most 40 mantissa digits and an exponent
// of at most 260 keep every result between 1e-300 and 1e300, where strtod
// never reports ERANGE and from_chars rounds identically.
inline const char *tarvik_fast_double_prefix(const char *p, const char *end, double *out) {
    if (p == end) return nullptr;
    const char *num = p;  // from_chars takes a minus but not a plus
    if (*p == '-') {
        ++p;
    } else if (*p == '+') {
        num = ++p;
    }
    const char *mant = p;
    while (p < end && tarvik_is_digit(*p)) ++p;
    size_t int_digits = (size_t)(p - mant);
    size_t frac_digits = 0;
    if (p < end && *p == '.') {
        const char *frac = ++p;
        while (p < end && tarvik_is_digit(*p)) ++p;
        frac_digits = (size_t)(p - frac);
    }
    size_t digits = int_digits + frac_digits;
    if (digits == 0 || digits > 40) return nullptr;
    // "0x..." is a hexadecimal number to strtod.
    if (int_digits == 1 && *mant == '0' && p == mant + 1 && p < end && (*p == 'x' || *p == 'X'))
        return nullptr;
    if (p < end && (*p == 'e' || *p == 'E')) {
        const char *q = p + 1;
        if (q < end && (*q == '+' || *q == '-')) ++q;
        const char *exp_digits = q;
        int exp = 0;
        while (q < end && tarvik_is_digit(*q) && q - exp_digits < 4) exp = exp * 10 + (*q++ - '0');
        if (q < end && tarvik_is_digit(*q)) return nullptr;  // a long exponent: strtod judges it
        if (q > exp_digits) {
            if (exp > 260) return nullptr;
            p = q;
        }
    }
    auto r = std::from_chars(num, p, *out, std::chars_format::general);
    return r.ec == std::errc() && r.ptr == p ? p : nullptr;
}
