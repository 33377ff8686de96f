#include "vyrhost_influx.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace vyrhost {

namespace {

std::string escape(const std::string &text, const char *special) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (c == '\n' || c == '\r') c = ' ';
        if (strchr(special, c)) out += '\\';
        out += c;
    }
    return out;
}

bool is_float(const vyr_type_field_definition_t *f) {
    uint32_t id = field_builtin_id(f);
    return id == VYR_TYPE_FLOAT || id == VYR_TYPE_DOUBLE;
}

// One numeric value as the protocol writes it, or "" when it cannot.
std::string influx_number(const vyr_type_field_definition_t *f, const std::string &decimal) {
    if (is_float(f)) {
        // NaN, +Inf and -Inf have no spelling in line protocol.
        return decimal.find_first_of("NI") == std::string::npos ? decimal : "";
    }
    if (decimal[0] != '-' && strtoull(decimal.c_str(), nullptr, 10) > INT64_MAX) return "";
    return decimal + "i";
}

}  // namespace

std::string influx_escape_key(const std::string &text) {
    return escape(text, ", =");
}

std::string influx_quote_string(const std::string &text) {
    return "\"" + escape(text, "\"\\") + "\"";
}

std::string render_influx_line(const Event &event, const std::string &interface) {
    const vyr_type_definition_t *type = event.type;
    if (!type) return "";
    const uint8_t *record = event.record.data();
    std::string fields;
    uint64_t nanoseconds = event.block_time * 1000;
    for (int i = 0; i < type->num_fields; ++i) {
        const vyr_type_field_definition_t *f = type->fields[i];
        if (!f || !f->field_name || !*f->field_name) continue;
        std::string key = influx_escape_key(f->field_name);
        if (field_is_text(f)) {
            fields += (fields.empty() ? "" : ",") + key + "=" +
                      influx_quote_string(field_text(f, record));
            continue;
        }
        uint32_t count = f->array_length ? f->array_length : 1;
        for (uint32_t e = 0; e < count; ++e) {
            std::string decimal, value;
            if (!field_number(f, record, e, &decimal)) continue;
            if (count == 1 && strcmp(f->field_name, "timestamp") == 0 &&
                field_builtin_id(f) == VYR_TYPE_TIMESTAMP)
                nanoseconds = strtoull(decimal.c_str(), nullptr, 10) * 1000;
            value = influx_number(f, decimal);
            if (value.empty()) continue;
            fields += (fields.empty() ? "" : ",") + key +
                      (count > 1 ? "_" + std::to_string(e) : std::string()) + "=" + value;
        }
    }
    if (fields.empty()) return "";
    std::string tags;
    if (!event.device.empty()) tags += ",device=" + influx_escape_key(event.device);
    if (!interface.empty()) tags += ",interface=" + influx_escape_key(interface);
    return "tarvik" + tags + " " + fields + " " + std::to_string(nanoseconds) + "\n";
}

std::string influx_diagnostic(int level, const std::string &text) {
    const char *prefix = level <= 3 ? "E! " : level == 4 ? "W! " : level <= 6 ? "I! " : "D! ";
    return prefix + text;
}

}  // namespace vyrhost
