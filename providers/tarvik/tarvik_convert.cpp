#include "tarvik_convert.h"

#include <errno.h>
#include <fenv.h>
#include <langinfo.h>
#include <stdlib.h>
#include <string.h>

#include <string>

// strtoull/strtod need a terminated text; tokens are views into the line.
template <typename F>
static auto with_c_string(std::string_view token, F convert) {
    char small[64];
    if (token.size() < sizeof small) {
        memcpy(small, token.data(), token.size());
        small[token.size()] = '\0';
        return convert(small);
    }
    // Rare long tokens reuse one buffer per thread, so a warm pass never allocates.
    static thread_local std::string copy;
    copy.assign(token.data(), token.size());
    return convert(copy.c_str());
}

uint64_t tarvik_slow_u64(std::string_view token) {
    return with_c_string(token, [](const char *s) -> uint64_t {
        char *end = nullptr;
        errno = 0;
        unsigned long long v = strtoull(s, &end, 10);
        if (end == s || errno == ERANGE) return 0;
        return (uint64_t)v;
    });
}

double tarvik_slow_double(std::string_view token) {
    return with_c_string(token, [](const char *s) -> double {
        char *end = nullptr;
        errno = 0;
        double v = strtod(s, &end);
        if (end == s || errno == ERANGE) return 0.0;
        return v;
    });
}

uint64_t tarvik_token_to_u64(std::string_view token) {
    // A token that starts with a digit is what strtoull reads as its leading
    // digit run, whatever follows (a CR, a unit). Blanks and signs need
    // strtoull's own rules.
    const char *p = token.data();
    const char *end = p + token.size();
    if (p == end || !tarvik_is_digit(*p)) return tarvik_slow_u64(token);
    uint64_t v;
    tarvik_digit_run_u64(p, end, &v);
    return v;
}

// strtod follows the locale's radix character and the rounding mode;
// from_chars knows only '.' and round-to-nearest. The fast path is taken only
// while both agree, which they do unless the host changes them.
bool tarvik_fast_double_allowed() {
    const char *radix = nl_langinfo(RADIXCHAR);
    return radix[0] == '.' && radix[1] == '\0' && fegetround() == FE_TONEAREST;
}

static inline double token_to_double(std::string_view token, bool fast_ok) {
    double v;
    if (fast_ok) {
        const char *end = token.data() + token.size();
        if (tarvik_fast_double_prefix(token.data(), end, &v)) return v;
    }
    return tarvik_slow_double(token);
}

double tarvik_token_to_double(std::string_view token) {
    return token_to_double(token, tarvik_fast_double_allowed());
}
