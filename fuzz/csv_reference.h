// Plain restatements of the collection file rules, used as the expected side
// by the CSV fuzz targets: they walk bytes one at a time and share no code
// with the provider.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "tarvik_format_parser.h"

namespace csvref {

// Fields between commas; adjacent commas give an empty field; a final comma
// and an empty line give none.
inline std::vector<std::string> split(const std::string &line) {
    std::vector<std::string> fields;
    std::string current;
    bool pending = false;  // bytes (or a comma) since the last field ended
    for (char c : line) {
        if (c == ',') {
            fields.push_back(current);
            current.clear();
            pending = false;
        } else {
            current += c;
            pending = true;
        }
    }
    if (pending) fields.push_back(current);
    return fields;
}

// "", "0", or digits without a leading zero.
inline bool plain_digits(const std::string &s) {
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] < '0' || s[i] > '9') return false;
        if (i == 0 && s[i] == '0' && s.size() > 1) return false;
    }
    return true;
}

inline int value_type(const std::string &v) {
    if (v.empty()) return TARVIK_FIELD_STRING;
    if (plain_digits(v)) return TARVIK_FIELD_UINT64;
    size_t dots = 0, dot = 0;
    for (size_t i = 0; i < v.size(); ++i) {
        if (v[i] == ' ') return TARVIK_FIELD_STRING;
        if (v[i] == '.') ++dots, dot = i;
    }
    if (dots != 1 || v.size() == 1) return TARVIK_FIELD_STRING;
    return plain_digits(v.substr(0, dot)) && plain_digits(v.substr(dot + 1)) ? TARVIK_FIELD_DOUBLE
                                                                             : TARVIK_FIELD_STRING;
}

inline bool contains(const std::string &s, const char *part) {
    return s.find(part) != std::string::npos;
}

inline std::string lower_ascii(std::string s) {
    for (char &c : s)
        if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
    return s;
}

inline std::string clean(const std::string &name) {
    std::string out;
    for (char c : name) {
        if (c == '[' || c == '/')
            out += '_';
        else if (c != ']' && c != '<' && c != '>' && c != '"')
            out += c;
    }
    return out;
}

// The field list derived from a header and a first value line.
inline std::vector<vyr_event_tarvik_type_t> type_fields(const std::vector<std::string> &header,
                                                        const std::vector<std::string> &values) {
    std::vector<vyr_event_tarvik_type_t> out;
    std::map<std::string, int> repeats;
    for (size_t i = 0; i < header.size(); ++i) {
        const std::string &h = header[i];
        std::string v = i < values.size() ? values[i] : std::string();
        std::string lower = lower_ascii(h);
        std::string name = h;
        auto found = repeats.find(h);
        if (found == repeats.end())
            repeats[h] = 0;
        else
            name += "_" + std::to_string(found->second++);
        int type;
        if (contains(h, "hist") || contains(h, "Raw_Errors"))
            type = TARVIK_FIELD_UINT64;
        else if (contains(h, "_BER_"))
            type = TARVIK_FIELD_DOUBLE;
        else if (contains(lower, "version"))
            type = TARVIK_FIELD_STRING;
        else if (contains(h, "temperature") || contains(lower, "lane"))
            type = TARVIK_FIELD_UINT64;
        else
            type = value_type(v);
        out.push_back({clean(name), clean(name), type, true});
    }
    return out;
}

inline bool same_fields(const std::vector<vyr_event_tarvik_type_t> &a,
                        const std::vector<vyr_event_tarvik_type_t> &b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (a[i].name != b[i].name || a[i].field_name != b[i].field_name ||
            a[i].type != b[i].type || a[i].enabled != b[i].enabled)
            return false;
    return true;
}

// The standard conversions the collection loop must agree with: 0 for no
// number and for out-of-range results; a token ends at a zero byte.
inline uint64_t to_u64(const std::string &token) {
    const char *s = token.c_str();
    char *end = nullptr;
    errno = 0;
    unsigned long long v = strtoull(s, &end, 10);
    return end == s || errno == ERANGE ? 0 : (uint64_t)v;
}

inline double to_double(const std::string &token) {
    const char *s = token.c_str();
    char *end = nullptr;
    errno = 0;
    double v = strtod(s, &end);
    return end == s || errno == ERANGE ? 0.0 : v;
}

}  // namespace csvref
