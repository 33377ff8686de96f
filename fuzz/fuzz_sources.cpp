// Source texts (a count, a range, a prefixed range) and source files (plain
// lists and fabscan output), each against a plain reading of the same rules.
#include <sys/stat.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "vyr_source.h"

namespace {

const char kHost[] = "fuzzhost";
// Ranges are capped here, not in the library: growing a list by one entry per
// source is quadratic under the sanitizers, and the 65,534 limit has unit tests.
const long long kMaxRange = 300;
std::string g_file;

bool is_space(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

int digit_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return 99;
}

// A whole-text signed 32-bit number in the C conventions (blanks, sign, 0x, 0).
bool to_int(const std::string &s, long long *out) {
    auto at = [&s](size_t i) { return i < s.size() ? s[i] : '\0'; };
    size_t p = 0;
    while (is_space(at(p))) ++p;
    bool negative = false;
    if (at(p) == '+' || at(p) == '-') negative = s[p++] == '-';
    int base = 10;
    if (at(p) == '0') {
        if ((at(p + 1) == 'x' || at(p + 1) == 'X') && digit_value(at(p + 2)) < 16) {
            base = 16;
            p += 2;
        } else {
            base = 8;
        }
    }
    size_t start = p;
    long long v = 0;
    for (; digit_value(at(p)) < base; ++p) {
        v = v * base + digit_value(s[p]);
        if (v > (long long)INT_MAX + 1) return false;
    }
    if (p == start || p != s.size()) return false;
    v = negative ? -v : v;
    if (v > INT_MAX) return false;
    *out = v;
    return true;
}

// The identifiers a source text stands for; false when the text is invalid.
bool ref_from_string(const std::string &text, std::string *prefix, long long *first,
                     long long *last) {
    size_t dash = text.find('-'), open = text.find('['), close = text.find(']');
    *prefix = kHost;
    if (dash == std::string::npos) {
        *first = 1;
        return to_int(text, last) && *last >= 1;
    }
    if (open == std::string::npos || close == std::string::npos) {
        if (dash == 0 || dash == text.size() - 1) return false;
        return to_int(text.substr(0, dash), first) && to_int(text.substr(dash + 1), last) &&
               *first <= *last;
    }
    size_t sep = text.find('-', open + 1);
    if (sep == std::string::npos || sep > close) return false;
    *prefix = text.substr(0, open);
    return to_int(text.substr(open + 1, sep - open - 1), first) &&
           to_int(text.substr(sep + 1, close - sep - 1), last) && *first <= *last;
}

std::vector<std::string> ids(const vyr_source_array_t *array) {
    std::vector<std::string> out;
    for (uint16_t i = 0; i < array->count; ++i) {
        const vyr_source_t *s = array->sources[i];
        FUZZ_CHECK(s && memchr(s->id, 0, sizeof s->id) && s->tag[0] == '\0');
        out.emplace_back(s->id);
    }
    return out;
}

// `as_input`: through the input reader, with a text that names no file.
void check_string(const std::string &text, bool as_input) {
    std::string prefix;
    long long first = 0, last = 0;
    bool valid = ref_from_string(text, &prefix, &first, &last);
    if (valid && last - first >= kMaxRange) return;
    vyr_source_array_t *array = as_input ? vyr_create_source_array_from_input(text.c_str())
                                         : vyr_create_source_array_from_string(text.c_str());
    FUZZ_CHECK((array != nullptr) == valid);
    if (!array) return;
    std::vector<std::string> want;
    for (long long n = first; n <= last; ++n) {
        std::string id = prefix.substr(0, 63) + "_" + std::to_string(n);
        want.push_back(id.substr(0, 63));
    }
    FUZZ_CHECK(ids(array) == want);
    vyr_source_array_log(array, "fuzz");
    vyr_destroy_source_array(array);
}

// Lines as fgets hands them out from a 1,024-byte buffer, each seen as a C text.
std::vector<std::string> chunks(const std::string &content) {
    std::vector<std::string> out;
    for (size_t pos = 0; pos < content.size();) {
        size_t n = 0;
        while (pos + n < content.size() && n < 1023) {
            if (content[pos + n++] == '\n') break;
        }
        out.emplace_back(content.substr(pos, n).c_str());
        pos += n;
    }
    return out;
}

std::vector<std::string> ref_from_file(const std::string &content) {
    std::vector<std::string> lines = chunks(content);
    bool fabscan = false;
    for (const std::string &l : lines)
        if (l.find("H-") != std::string::npos || l.find("S-") != std::string::npos) fabscan = true;
    std::vector<std::string> out;
    for (const std::string &l : lines) {
        if (fabscan) {
            size_t open = l.find('('), close = std::string::npos;
            if (open != std::string::npos) close = l.find(')', open + 1);
            if (close != std::string::npos)
                out.push_back(l.substr(open + 1, std::min<size_t>(close - open - 1, 63)));
        } else {
            size_t start = l.find_first_not_of("\n\r");
            if (start == std::string::npos) continue;
            size_t end = l.find_first_of("\n\r", start);
            out.push_back(
                l.substr(start, end == std::string::npos ? end : end - start).substr(0, 63));
        }
    }
    return out;
}

void check_file(const uint8_t *data, size_t size) {
    vyrfuzz::write_file(g_file, data, size);
    vyr_source_array_t *array = vyr_create_source_array_from_input(g_file.c_str());
    FUZZ_CHECK(array);
    std::vector<std::string> want =
        ref_from_file(std::string(reinterpret_cast<const char *>(data), size));
    FUZZ_CHECK(ids(array) == want);
    vyr_destroy_source_array(array);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    vyrfuzz::quiet_logging();
    setenv("VYR_HOST_NAME", kHost, 1);
    unsetenv("VYR_SOURCE_ID");
    unsetenv("SOURCE_ID");
    g_file = vyrfuzz::scratch_dir() + "/sources.txt";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    const std::string c_text(text.c_str());
    check_string(c_text, false);
    check_file(data, size);
    // A text that names no file is a source text. Texts that name a file are
    // not tried: they could name anything on this machine.
    struct stat st;
    if (stat(c_text.c_str(), &st) != 0) check_string(c_text, true);
    return 0;
}
