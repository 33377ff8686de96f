#include "vyrhost_render.h"

#include <time.h>

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <unordered_set>

#include "vyr_json.h"
#include "vyr_schema_json.h"
#include "vyr_serializer.h"
#include "vyrhost_metrics.h"

namespace vyrhost {

namespace {

std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char *fmt, ...) {
    char buf[512];
    va_list args;
    va_start(args, fmt);
    vsnprintf(buf, sizeof buf, fmt, args);
    va_end(args);
    return buf;
}

const size_t kHeaderSize = sizeof(vyr_event_block_header_t);
static_assert(sizeof(vyr_event_block_header_t) == 16, "the block header is 16 bytes on the wire");

std::string hex_bytes(const void *data, size_t length) {
    std::string out;
    const unsigned char *bytes = static_cast<const unsigned char *>(data);
    for (size_t i = 0; i < length; ++i) out += format("%s%02x", i ? " " : "", bytes[i]);
    return out;
}

// The field whose text names the device: the type's index field if it is a
// text, else "device_name".
const vyr_type_field_definition_t *device_field(const vyr_type_definition_t *type) {
    if (!type) return nullptr;
    for (int i = 0; i < type->num_fields; ++i) {
        const vyr_type_field_definition_t *f = type->fields[i];
        if (f && f->index != 0 && field_is_text(f)) return f;
    }
    const vyr_type_field_definition_t *f = find_field(type, "device_name");
    return f && field_is_text(f) ? f : nullptr;
}

// Fields must lie inside the record; a type that says otherwise is not read.
bool field_fits(const vyr_type_definition_t *type, const vyr_type_field_definition_t *f) {
    uint64_t count = f->array_length ? f->array_length : 1;
    return f->offset <= type->size && f->type_size * count <= type->size - f->offset;
}

std::string double_text(double v) {
    if (std::isnan(v)) return "NaN";
    if (std::isinf(v)) return v > 0 ? "+Inf" : "-Inf";
    char buf[40];
    for (int precision = 15; precision <= 17; ++precision) {
        snprintf(buf, sizeof buf, "%.*g", precision, v);
        if (strtod(buf, nullptr) == v) break;
    }
    return buf;
}

// Copies valid UTF-8 through and puts U+FFFD in place of every byte that does
// not start a valid sequence, so a scrape is never refused for one bad byte.
std::string valid_utf8(const std::string &in) {
    std::string out;
    size_t i = 0, n = in.size();
    while (i < n) {
        unsigned char c = static_cast<unsigned char>(in[i]);
        size_t len = 0;
        uint32_t min = 0, cp = 0;
        if (c < 0x80) {
            out += static_cast<char>(c);
            ++i;
            continue;
        } else if ((c & 0xE0) == 0xC0) {
            len = 2, min = 0x80, cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            len = 3, min = 0x800, cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            len = 4, min = 0x10000, cp = c & 0x07;
        }
        bool ok = len != 0 && i + len <= n;
        for (size_t k = 1; ok && k < len; ++k) {
            unsigned char cc = static_cast<unsigned char>(in[i + k]);
            if ((cc & 0xC0) != 0x80) ok = false;
            cp = (cp << 6) | (cc & 0x3F);
        }
        if (ok && (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))) ok = false;
        if (ok) {
            out.append(in, i, len);
            i += len;
        } else {
            out += "\xEF\xBF\xBD";
            ++i;
        }
    }
    return out;
}

bool is_timestamp_field(const vyr_type_field_definition_t *f) {
    return field_builtin_id(f) == VYR_TYPE_TIMESTAMP && f->array_length <= 1;
}

const vyr_type_field_definition_t *first_timestamp(const vyr_type_definition_t *type) {
    for (int i = 0; i < type->num_fields; ++i)
        if (type->fields[i] && is_timestamp_field(type->fields[i])) return type->fields[i];
    return nullptr;
}

bool is_float_field(const vyr_type_field_definition_t *f) {
    uint32_t id = field_builtin_id(f);
    return id == VYR_TYPE_FLOAT || id == VYR_TYPE_DOUBLE;
}

// Table cells are plain ASCII so that byte counts are column counts.
std::string printable(const std::string &text) {
    std::string out = text;
    for (char &c : out) {
        unsigned char u = static_cast<unsigned char>(c);
        if (u < 0x20 || u >= 0x7F) c = '?';
    }
    return out;
}

// Prometheus names are snake_case by convention, and promtool holds to it.
std::string lower(const std::string &text) {
    std::string out = text;
    for (char &c : out)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return out;
}

std::string clean_name(const std::string &text) {
    std::string out = text;
    for (char &c : out) {
        bool ok =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
        if (!ok) c = '_';
    }
    return out;
}

}  // namespace

uint32_t field_builtin_id(const vyr_type_field_definition_t *field) {
    if (!field) return 0;
    if (field->type_definition) return field->type_definition->builtin_id;
    return field->type_name ? vyr_builtin_type_from_name(field->type_name) : 0;
}

bool field_is_text(const vyr_type_field_definition_t *field) {
    uint32_t id = field_builtin_id(field);
    return (id == VYR_TYPE_CHAR || id == VYR_TYPE_UNSIGNED_CHAR) && field->array_length > 1;
}

const vyr_type_field_definition_t *find_field(const vyr_type_definition_t *type,
                                              const std::string &name) {
    if (!type) return nullptr;
    for (int i = 0; i < type->num_fields; ++i) {
        const vyr_type_field_definition_t *f = type->fields[i];
        if (f && f->field_name && name == f->field_name) return f;
    }
    return nullptr;
}

std::string field_text(const vyr_type_field_definition_t *field, const uint8_t *record) {
    const char *start = reinterpret_cast<const char *>(record + field->offset);
    return std::string(start, strnlen(start, field->array_length));
}

bool field_number(const vyr_type_field_definition_t *field, const uint8_t *record, uint32_t element,
                  std::string *out) {
    uint32_t id = field_builtin_id(field);
    if (id == VYR_TYPE_COMPOUND || field_is_text(field)) return false;
    uint32_t count = field->array_length ? field->array_length : 1;
    if (element >= count) return false;
    const uint8_t *p = record + field->offset + static_cast<uint64_t>(element) * field->type_size;
    auto get = [p](auto value) {
        memcpy(&value, p, sizeof value);
        return value;
    };
    switch (id) {
        case VYR_TYPE_BOOL:
        case VYR_TYPE_CHAR:
        case VYR_TYPE_UNSIGNED_CHAR:
        case VYR_TYPE_UINT8:
            *out = std::to_string(get(uint8_t()));
            return true;
        case VYR_TYPE_INT8:
            *out = std::to_string(get(int8_t()));
            return true;
        case VYR_TYPE_SHORT:
        case VYR_TYPE_INT16:
            *out = std::to_string(get(int16_t()));
            return true;
        case VYR_TYPE_UNSIGNED_SHORT:
        case VYR_TYPE_UINT16:
            *out = std::to_string(get(uint16_t()));
            return true;
        case VYR_TYPE_INT:
        case VYR_TYPE_INT32:
            *out = std::to_string(get(int32_t()));
            return true;
        case VYR_TYPE_UNSIGNED_INT:
        case VYR_TYPE_UINT32:
            *out = std::to_string(get(uint32_t()));
            return true;
        case VYR_TYPE_LONG:
        case VYR_TYPE_LONG_LONG:
        case VYR_TYPE_INT64:
            *out = std::to_string(get(int64_t()));
            return true;
        case VYR_TYPE_UNSIGNED_LONG:
        case VYR_TYPE_UNSIGNED_LONG_LONG:
        case VYR_TYPE_UINT64:
        case VYR_TYPE_TIMESTAMP:
            *out = std::to_string(get(uint64_t()));
            return true;
        case VYR_TYPE_FLOAT:
            *out = double_text(get(float()));
            return true;
        case VYR_TYPE_DOUBLE:
            *out = double_text(get(double()));
            return true;
        default:
            return false;
    }
}

std::string event_device(const vyr_type_definition_t *type, const uint8_t *record) {
    const vyr_type_field_definition_t *f = device_field(type);
    if (f && field_fits(type, f)) return field_text(f, record);
    return type && type->name ? type->name : "";
}

std::string decode_blocks(const vyr_type_system_t *ts, const uint8_t *buffer, uint64_t used,
                          const std::function<void(Event &&)> &sink) {
    uint64_t offset = 0;
    while (offset < used) {
        uint64_t left = used - offset;
        if (left < kHeaderSize)
            return format("block at offset %" PRIu64 ": %" PRIu64
                          " bytes left, too few for a 16-byte block header",
                          offset, left);
        vyr_event_block_header_t header;
        memcpy(&header, buffer + offset, kHeaderSize);
        if (!vyr_magic_value_match_type(header.magic, VYR_BLOCK_TYPE_EVENTS))
            return format("block at offset %" PRIu64 ": magic is not \"VYRE\" (bytes %s)", offset,
                          hex_bytes(header.magic, sizeof header.magic).c_str());
        if (!ts || header.schema_index >= ts->num_schemas || !ts->schemas[header.schema_index])
            return format("block at offset %" PRIu64
                          ": schema index %u is not registered (the type system holds %u)",
                          offset, header.schema_index, ts ? ts->num_schemas : 0u);
        const vyr_schema_t *schema = ts->schemas[header.schema_index];
        if (header.type_index >= schema->num_types || !schema->types[header.type_index])
            return format("block at offset %" PRIu64
                          ": type index %u is not in schema \"%s\" (it has %u types)",
                          offset, header.type_index, schema->name ? schema->name : "",
                          schema->num_types);
        const vyr_type_definition_t *type = schema->types[header.type_index];
        if (type->size == 0)
            return format("block at offset %" PRIu64 ": type \"%s\" has a record size of 0", offset,
                          type->name ? type->name : "");
        uint64_t data = static_cast<uint64_t>(header.count) * type->size;
        if (data > left - kHeaderSize)
            return format("block at offset %" PRIu64 ": %u events of %" PRIu64
                          " bytes overrun the %" PRIu64 " bytes written",
                          offset, header.count, type->size, used);
        const uint8_t *record = buffer + offset + kHeaderSize;
        for (unsigned i = 0; i < header.count; ++i, record += type->size) {
            Event event;
            event.schema_index = header.schema_index;
            event.type_index = static_cast<uint8_t>(header.type_index);
            event.type = type;
            event.block_time = header.time;
            event.record.assign(record, record + type->size);
            event.device = event_device(type, record);
            sink(std::move(event));
        }
        offset += kHeaderSize + data;
    }
    return "";
}

std::string render_json_line(const Event &event, const std::string &source) {
    // JSON has no inf or nan: such values go out as null, the event with them.
    std::vector<uint8_t> record = event.record;
    std::vector<std::pair<std::string, uint32_t>> nulls;  // field, element (~0u: not an array)
    const vyr_type_definition_t *type = event.type;
    for (int i = 0; type && i < type->num_fields; ++i) {
        const vyr_type_field_definition_t *f = type->fields[i];
        if (!f || !f->field_name || !is_float_field(f) || !field_fits(type, f)) continue;
        uint32_t count = f->array_length ? f->array_length : 1;
        for (uint32_t e = 0; e < count; ++e) {
            uint8_t *p = record.data() + f->offset + static_cast<uint64_t>(e) * f->type_size;
            bool finite;
            if (field_builtin_id(f) == VYR_TYPE_FLOAT) {
                float v;
                memcpy(&v, p, sizeof v);
                finite = std::isfinite(v);
            } else {
                double v;
                memcpy(&v, p, sizeof v);
                finite = std::isfinite(v);
            }
            if (finite) continue;
            memset(p, 0, f->type_size);
            nulls.push_back({f->field_name, f->array_length > 1 ? e : ~0u});
        }
    }
    json_t *fields = vyr_type_definition_jsonify_data(type, record.data());
    if (!fields) return "";
    for (const auto &n : nulls) {
        if (n.second == ~0u)
            json_object_set_new(fields, n.first.c_str(), json_null());
        else
            json_array_set_new(json_object_get(fields, n.first.c_str()), n.second, json_null());
    }
    json_t *line = json_object();
    std::string source_key = json_object_get(fields, "source") ? "vyrhost_source" : "source";
    std::string time_key =
        json_object_get(fields, "block_time") ? "vyrhost_block_time" : "block_time";
    bool ok = line && json_object_set_new(line, source_key.c_str(),
                                          json_stringn(source.data(), source.size())) == 0;
    ok = ok && json_object_set_new(line, time_key.c_str(),
                                   json_integer(static_cast<json_int_t>(event.block_time))) == 0;
    const char *key;
    json_t *value;
    json_object_foreach(fields, key, value) {
        if (!ok) break;
        ok = json_object_set(line, key, value) == 0;
    }
    char *text = ok ? vyr_json_serialize(line, 0) : nullptr;
    std::string out = text ? text : "";
    free(text);
    json_decref(line);
    json_decref(fields);
    return out;
}

std::string clock_text(uint64_t usec) {
    time_t seconds = static_cast<time_t>(usec / 1000000);
    struct tm tm;
    char buf[32] = "";
    if (localtime_r(&seconds, &tm)) strftime(buf, sizeof buf, "%H:%M:%S", &tm);
    return format("%s.%03u", buf, static_cast<unsigned>(usec % 1000000 / 1000));
}

namespace {

// What people look at first: health, errors, error ratios, temperatures;
// the rest after them in schema order. Fields the metrics leave out (the
// device's name again, duplicates) are not offered.
int column_rank(const vyr_type_field_definition_t *f) {
    FieldMetric m = map_field(f->field_name, !field_is_text(f));
    if (m.kind == MetricKind::kIgnore) return m.known ? -1 : 5;
    if (m.kind == MetricKind::kInfo) return m.name == "link_state" || m.name == "status" ? 0 : 5;
    if (m.type == "counter") return 1;
    if (m.name.find("_ber") != std::string::npos) return 2;
    if (m.name.find("temperature") != std::string::npos) return 3;
    return m.name == "tarvik_tool_timestamp_seconds" ? 6 : 4;
}

}  // namespace

std::vector<std::string> default_table_columns(const vyr_schema_t *schema) {
    std::vector<std::pair<int, std::string>> columns;
    std::set<std::string> seen;
    if (!schema) return {};
    for (unsigned t = 0; t < schema->num_types; ++t) {
        const vyr_type_definition_t *type = schema->types[t];
        if (!type) continue;
        const vyr_type_field_definition_t *dev = device_field(type);
        for (int i = 0; i < type->num_fields; ++i) {
            const vyr_type_field_definition_t *f = type->fields[i];
            if (!f || !f->field_name || f == dev || is_timestamp_field(f)) continue;
            int rank = column_rank(f);
            if (rank >= 0 && seen.insert(f->field_name).second)
                columns.push_back({rank, f->field_name});
        }
    }
    std::stable_sort(columns.begin(), columns.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });
    std::vector<std::string> names;
    for (const auto &c : columns) names.push_back(c.second);
    return names;
}

std::string render_table(const Snapshot &snapshot, const TableOptions &options) {
    std::string title = format("poll %" PRIu64 " at %s: ", snapshot.poll,
                               clock_text(snapshot.time).substr(0, 8).c_str());
    if (snapshot.events.empty()) return title + "no device ready yet\n";

    struct Cell {
        std::string text;
        bool number;
    };
    std::vector<std::string> titles = {"DEVICE", "TYPE", "COLLECTED"};
    titles.insert(titles.end(), options.columns.begin(), options.columns.end());
    std::vector<std::vector<Cell>> rows;
    for (const Event &event : snapshot.events) {
        std::vector<Cell> row;
        row.push_back({printable(event.device), false});
        row.push_back({event.type && event.type->name ? event.type->name : "?", false});
        const vyr_type_field_definition_t *ts = first_timestamp(event.type);
        uint64_t collected = 0;
        if (ts) memcpy(&collected, event.record.data() + ts->offset, sizeof collected);
        row.push_back({collected ? clock_text(collected) : "-", false});
        for (const std::string &name : options.columns) {
            const vyr_type_field_definition_t *f = find_field(event.type, name);
            std::string text;
            if (!f) {
                row.push_back({"-", false});
            } else if (field_is_text(f)) {
                row.push_back({printable(field_text(f, event.record.data())), false});
            } else if (is_float_field(f) && f->array_length <= 1) {
                double v = 0;
                if (field_builtin_id(f) == VYR_TYPE_FLOAT) {
                    float fv;
                    memcpy(&fv, event.record.data() + f->offset, sizeof fv);
                    v = fv;
                } else {
                    memcpy(&v, event.record.data() + f->offset, sizeof v);
                }
                row.push_back({format("%g", v), true});
            } else if (field_number(f, event.record.data(), 0, &text)) {
                if (f->array_length > 1) text += ",...";
                row.push_back({text, true});
            } else {
                row.push_back({"{...}", false});
            }
        }
        for (size_t c = 3; c < row.size(); ++c)  // field columns only
            if (row[c].text.size() > options.max_cell && options.max_cell > 1)
                row[c].text = row[c].text.substr(0, options.max_cell - 1) + "~";
        rows.push_back(std::move(row));
    }

    std::vector<size_t> widths;
    for (size_t c = 0; c < titles.size(); ++c) {
        size_t w = titles[c].size();
        for (const auto &row : rows) w = std::max(w, row[c].text.size());
        widths.push_back(w);
    }
    size_t shown = 1, total = widths[0];
    while (shown < titles.size() &&
           (options.width == 0 || total + 2 + widths[shown] <= options.width)) {
        total += 2 + widths[shown];
        ++shown;
    }
    title += format("%zu device%s ready", rows.size(), rows.size() == 1 ? "" : "s");
    if (shown < titles.size())
        title +=
            format(", %zu more column%s beyond %zu characters (pick them with --columns)",
                   titles.size() - shown, titles.size() - shown == 1 ? "" : "s", options.width);

    // A column holding numbers is right-aligned, its title and gaps included.
    std::vector<bool> numeric(titles.size(), false);
    for (const auto &row : rows)
        for (size_t c = 0; c < row.size(); ++c) numeric[c] = numeric[c] || row[c].number;
    auto line = [&](const std::vector<Cell> &cells) {
        std::string out;
        for (size_t c = 0; c < shown; ++c) {
            std::string text = cells[c].text;
            if (text.size() > widths[c]) text = text.substr(0, widths[c] - 1) + "~";
            std::string pad(widths[c] - text.size(), ' ');
            if (c) out += "  ";
            out += numeric[c] ? pad + text : (c + 1 < shown ? text + pad : text);
        }
        return out + "\n";
    };
    std::vector<Cell> header;
    for (const std::string &t : titles) header.push_back({printable(t), false});
    std::string out = title + "\n" + line(header);
    for (const auto &row : rows) out += line(row);
    return out;
}

std::string prom_metric_name(const std::string &prefix, const std::string &field) {
    std::string name = clean_name(prefix + "_" + lower(field));
    // Gauges must not look like the series of counters, histograms or summaries.
    for (const char *suffix : {"_count", "_sum", "_bucket", "_total", "_created"}) {
        size_t n = strlen(suffix);
        if (name.size() >= n && name.compare(name.size() - n, n, suffix) == 0)
            return name + "_value";
    }
    return name;
}

std::string prom_escape_label_value(const std::string &value) {
    std::string out;
    for (char c : valid_utf8(value)) {
        if (c == '\\')
            out += "\\\\";
        else if (c == '"')
            out += "\\\"";
        else if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

std::string prom_escape_help(const std::string &text) {
    std::string out;
    for (char c : valid_utf8(text)) {
        if (c == '\\')
            out += "\\\\";
        else if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

std::string render_exposition(const Snapshot &snapshot, const ExpositionOptions &options) {
    struct Family {
        std::string name, help, type;
        std::string samples;
        std::unordered_set<std::string> series;  // label sets already written
    };
    std::vector<Family> families;
    std::map<std::string, size_t> index;
    auto family = [&](const std::string &name, const std::string &help,
                      const std::string &type) -> Family & {
        auto it = index.find(name);
        if (it != index.end()) return families[it->second];
        index[name] = families.size();
        families.push_back({name, help, type, "", {}});
        return families.back();
    };
    // A clash (two fields landing on one series) keeps the first sample.
    auto sample = [&](Family &fam, const std::string &labels, const std::string &value,
                      const std::string &stamp) {
        if (!fam.series.insert(labels).second) return;
        fam.samples +=
            fam.name + (labels.empty() ? "" : "{" + labels + "}") + " " + value + stamp + "\n";
    };
    std::map<std::string, std::string> interfaces(options.interfaces.begin(),
                                                  options.interfaces.end());
    auto device_labels = [&](const std::string &device) {
        std::string labels = "device=\"" + prom_escape_label_value(device) + "\"";
        auto it = interfaces.find(device);
        if (it != interfaces.end() && !it->second.empty())
            labels += ",interface=\"" + prom_escape_label_value(it->second) + "\"";
        return labels;
    };

    std::set<std::string> delivering;
    for (const Event &event : snapshot.events) delivering.insert(event.device);
    std::set<std::string> devices(options.devices.begin(), options.devices.end());
    devices.insert(delivering.begin(), delivering.end());
    Family &up = family("tarvik_device_up",
                        "1 while the device delivers fresh events, 0 when it is disabled or "
                        "gives none.",
                        "gauge");
    for (const std::string &device : devices)
        sample(up, device_labels(device), delivering.count(device) ? "1" : "0", "");
    if (!snapshot.events.empty())
        family("tarvik_info", "Slow-changing text of each device (versions, part numbers, state).",
               "gauge");

    std::map<const vyr_type_definition_t *, std::vector<FieldMetric>> by_type;
    std::map<const vyr_type_definition_t *, std::vector<size_t>> slots;
    for (const Event &event : snapshot.events) {
        const vyr_type_definition_t *type = event.type;
        if (!type) continue;
        const uint8_t *record = event.record.data();
        std::string stamp =
            options.timestamps ? " " + std::to_string(event.block_time / 1000) : std::string();
        std::string device = device_labels(event.device);
        const vyr_type_field_definition_t *dev = device_field(type);

        // Devices of one type share the mapping of its fields.
        std::vector<FieldMetric> &mapped = by_type[type];
        slots[type].resize(type->num_fields);
        if (mapped.empty())
            for (int i = 0; i < type->num_fields; ++i)
                mapped.push_back(
                    type->fields[i] && type->fields[i]->field_name
                        ? map_field(type->fields[i]->field_name, !field_is_text(type->fields[i]))
                        : FieldMetric());
        std::string info;
        std::set<std::string> info_used;
        for (int i = 0; i < type->num_fields; ++i) {
            const vyr_type_field_definition_t *f = type->fields[i];
            if (!f || !f->field_name || f == dev || !field_fits(type, f)) continue;
            if (field_builtin_id(f) == VYR_TYPE_COMPOUND) continue;
            bool text = field_is_text(f);
            const FieldMetric &m = mapped[i];
            if (m.kind == MetricKind::kIgnore) continue;
            if (m.kind == MetricKind::kInfo) {
                if (!text || !info_used.insert(m.name).second) continue;
                info +=
                    "," + m.name + "=\"" + prom_escape_label_value(field_text(f, record)) + "\"";
                continue;
            }
            size_t &slot = slots[type][i];  // the family's index + 1, found once per type
            if (!slot) {
                family(m.name, m.help, m.type);
                slot = index[m.name] + 1;
            }
            Family &fam = families[slot - 1];
            std::string labels = device;
            if (!m.label.empty()) labels += "," + m.label + "=\"" + m.label_value + "\"";
            if (text) {
                sample(fam, labels, double_text(text_number(field_text(f, record)) / m.divisor),
                       stamp);
                continue;
            }
            uint32_t count = f->array_length ? f->array_length : 1;
            for (uint32_t e = 0; e < count; ++e) {
                std::string value;
                if (!field_number(f, record, e, &value)) continue;
                if (m.divisor != 1) value = double_text(strtod(value.c_str(), nullptr) / m.divisor);
                sample(fam, count > 1 ? labels + ",index=\"" + std::to_string(e) + "\"" : labels,
                       value, stamp);
            }
        }
        sample(families[index["tarvik_info"]], device + info, "1", stamp);
    }

    sample(family("vyrhost_build_info", "vyrhost's version and the plug-in it runs.", "gauge"),
           "version=\"" + prom_escape_label_value(options.version) + "\",provider=\"" +
               prom_escape_label_value(options.provider) + "\"",
           "1", "");
    sample(family("vyrhost_polls_total", "Polls of the provider since vyrhost started.", "counter"),
           "", std::to_string(options.polls_total), "");
    sample(
        family("vyrhost_poll_errors_total",
               "Polls whose events could not be taken over (the last good ones stay).", "counter"),
        "", std::to_string(options.poll_errors_total), "");
    sample(family("vyrhost_poll_duration_seconds", "How long the last poll took.", "gauge"), "",
           double_text(options.poll_duration), "");
    sample(family("vyrhost_last_poll_success_timestamp_seconds",
                  "When the last good poll ended (Unix time; 0: none yet).", "gauge"),
           "", double_text(options.last_success), "");
    sample(family("vyrhost_devices_ready", "Devices that delivered fresh events at the last poll.",
                  "gauge"),
           "", std::to_string(snapshot.events.size()), "");
    Family &logs =
        family("vyrhost_log_messages_total",
               "Error and warning lines the plug-in and the framework logged.", "counter");
    sample(logs, "level=\"error\"", std::to_string(options.log_errors), "");
    sample(logs, "level=\"warning\"", std::to_string(options.log_warnings), "");

    std::string out;
    for (const Family &fam : families) {
        if (fam.samples.empty()) continue;
        out += "# HELP " + fam.name + " " + prom_escape_help(fam.help) + "\n";
        out += "# TYPE " + fam.name + " " + fam.type + "\n";
        out += fam.samples;
    }
    return out;
}

}  // namespace vyrhost
