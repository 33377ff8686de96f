// What vyrhost does with the bytes a provider writes: decoding event blocks,
// keeping the latest event per device, and turning events into JSON lines,
// an aligned table and Prometheus text exposition.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "vyr_type_system.h"

namespace vyrhost {

// One event as the host keeps it: a copy of the record plus where it came from.
struct Event {
    std::string device;
    uint8_t schema_index = 0;
    uint8_t type_index = 0;
    const vyr_type_definition_t *type = nullptr;  // owned by the type system
    uint64_t block_time = 0;                      // microseconds, stamped by the serializer
    std::vector<uint8_t> record;
};

// Walks the blocks in buffer[0, used) and hands every event to `sink`.
// Returns "" when every block was sound, else why the rest of the buffer was
// dropped (the events of the blocks before the bad one were handed over).
std::string decode_blocks(const vyr_type_system_t *ts, const uint8_t *buffer, uint64_t used,
                          const std::function<void(Event &&)> &sink);

// The device an event belongs to: the text of the type's index field, else of
// a field named "device_name", else "<type name>".
std::string event_device(const vyr_type_definition_t *type, const uint8_t *record);

// The events of one full drain of the provider: the latest event of every
// ready device, sorted by device.
struct Snapshot {
    uint64_t poll = 0;  // 1 for the first poll
    uint64_t time = 0;  // host wall clock of the poll, microseconds
    std::vector<Event> events;
};

// Field access shared by the renderers.
uint32_t field_builtin_id(const vyr_type_field_definition_t *field);
bool field_is_text(const vyr_type_field_definition_t *field);
// The raw bytes of a text field up to its first zero byte.
std::string field_text(const vyr_type_field_definition_t *field, const uint8_t *record);
// Element `element` of a numeric field as exact decimal text (integers as
// integers, doubles in the shortest form that reads back the same, NaN and
// infinities the way Prometheus spells them). False for text and compound fields.
bool field_number(const vyr_type_field_definition_t *field, const uint8_t *record, uint32_t element,
                  std::string *out);
const vyr_type_field_definition_t *find_field(const vyr_type_definition_t *type,
                                              const std::string &name);

// JSON: the event's fields from vyr_type_definition_jsonify_data, preceded by
// "source" and "block_time" (renamed with a "vyrhost_" prefix if the event
// has fields of those names). "" when the event cannot be rendered.
std::string render_json_line(const Event &event, const std::string &source);

// Table: one aligned row per device.
struct TableOptions {
    std::vector<std::string> columns;  // field names after DEVICE, TYPE and COLLECTED
    size_t width = 0;                  // 0: no limit
    size_t max_cell = 24;              // longer cells are cut and end in '~'
};
// The fields of every type of the schema: health (link state, status) first,
// then error counters, error ratios, temperatures, the rest in schema order;
// without the ones the table shows anyway (the index field, timestamps) and
// the ones the metrics leave out (event_name, Device, a repeated Status).
std::vector<std::string> default_table_columns(const vyr_schema_t *schema);
// The poll's title line, then a header row and one row per event.
std::string render_table(const Snapshot &snapshot, const TableOptions &options);

// Prometheus text exposition.
// "tarvik_" (the prefix) followed by the field name in lower case with every
// byte outside [a-z0-9_] turned into '_'; "_value" is added to a name that
// would end in _count, _sum, _bucket, _total or _created.
std::string prom_metric_name(const std::string &prefix, const std::string &field);
// Backslash, double quote and line feed escaped; invalid UTF-8 becomes U+FFFD.
std::string prom_escape_label_value(const std::string &value);
// Backslash and line feed escaped; invalid UTF-8 becomes U+FFFD.
std::string prom_escape_help(const std::string &text);

struct ExpositionOptions {
    bool timestamps = false;  // the block's time (milliseconds) on every device sample
    // Every configured device has a tarvik_device_up series, delivering or not.
    std::vector<std::string> devices;
    std::vector<std::pair<std::string, std::string>> interfaces;  // device -> "eth0,eth1"
    std::string version, provider;                                // vyrhost_build_info
    uint64_t polls_total = 0;
    uint64_t poll_errors_total = 0;
    double poll_duration = 0;  // seconds, the last poll
    double last_success = 0;   // Unix time of the last good poll; 0: none yet
    uint64_t log_errors = 0, log_warnings = 0;
};
// The fields of each event as the metric table says (vyrhost_metrics.h), a
// tarvik_info series of slow-changing text, tarvik_device_up per device,
// then vyrhost's own families. One HELP and TYPE per family, families in
// first-seen order, each series once.
std::string render_exposition(const Snapshot &snapshot, const ExpositionOptions &options);

// Local time "HH:MM:SS.mmm" of a microsecond wall-clock time.
std::string clock_text(uint64_t usec);

}  // namespace vyrhost
