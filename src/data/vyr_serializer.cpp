#include "vyr_serializer.h"

#include <endian.h>
#include <ctype.h>
#include <string.h>
#include <time.h>

#include <atomic>

#include "vyr_logger.h"

namespace {

constexpr uint64_t kHeaderSize = sizeof(vyr_event_block_header_t);
static_assert(sizeof(vyr_event_block_header_t) == 16, "the block header is 16 bytes on the wire");

constexpr uint64_t kZeroSizeInterval = 9999999;  // a zero-size report at most every 10 s

// Last emission of the zero-size message, one clock per entry point. Writers
// may run concurrently, so the clocks are atomics and only the thread that
// wins the exchange reports.
std::atomic<uint64_t> g_zero_size_write_clock{0};
std::atomic<uint64_t> g_zero_size_capacity_clock{0};

// The record size of a type; false when the schema table has no such type.
inline bool record_size(const vyr_data_serializer_t *ser, uint8_t schema_index, uint8_t type_index,
                        const vyr_schema_t **schema, uint64_t *size) {
    if (!ser || !ser->schemas || type_index >= VYR_MAX_TYPES) return false;
    const vyr_schema_t *s = ser->schemas[schema_index];
    if (!s || !s->types[type_index]) return false;
    *schema = s;
    *size = s->types[type_index]->size;
    return true;
}

void report_zero_size(std::atomic<uint64_t> &clock, const vyr_schema_t *schema,
                      uint8_t type_index) {
    uint64_t now = vyr_time_now_usec();
    uint64_t last = clock.load(std::memory_order_relaxed);
    if (now - last <= kZeroSizeInterval) return;
    if (!clock.compare_exchange_strong(last, now, std::memory_order_relaxed)) return;
    VYR_ERROR("schema %s type index %u size is zero", schema->name ? schema->name : "",
              (unsigned)type_index);
}

inline uint64_t free_space(const vyr_data_serializer_t *ser) {
    return ser->used + kHeaderSize < ser->capacity ? ser->capacity - kHeaderSize - ser->used : 0;
}

// The wire form is little-endian whatever the host order; the destination
// need not be aligned. Fields are stored straight into the block: a header
// built in a scratch array and copied over stalled the copy on store
// forwarding, a cost as large as a 1 KiB record copy.
inline void write_header(uint8_t *dst, uint8_t schema_index, uint8_t type_index, uint8_t count,
                         uint64_t time) {
    vyr_magic_value_fill(reinterpret_cast<char *>(dst), VYR_BLOCK_TYPE_EVENTS);
    const uint64_t stamp = htole64(time);  // little-endian on the wire
    memcpy(dst + 4, &stamp, sizeof stamp);
    dst[12] = schema_index;
    dst[13] = type_index;  // 16-bit on the wire, written from an 8-bit value
    dst[14] = 0;
    dst[15] = count;
}

}  // namespace

extern "C" {

void *vyr_data_serializer_get_events_buffer(vyr_data_serializer_t *ser, uint8_t schema_index,
                                            uint8_t type_index, uint8_t count, size_t *out_size) {
    const vyr_schema_t *schema;
    uint64_t size;
    if (!record_size(ser, schema_index, type_index, &schema, &size)) return NULL;
    uint64_t data_size = (uint64_t)count * size;
    uint64_t space = free_space(ser);
    // A zero-size block still needs room for its header.
    if (data_size > space || ser->used + kHeaderSize > ser->capacity) {
        VYR_DEBUG(
            "[Data Serializer][%s] Cannot get data buffer. free_space = %zu < data_size = %zu",
            "vyr_data_serializer_get_events_buffer", (size_t)space, (size_t)data_size);
        return NULL;
    }
    uint8_t *block = ser->buffer + ser->used;
    write_header(block, schema_index, type_index, count, vyr_time_now_usec());
    ser->used += kHeaderSize + data_size;
    if (out_size) *out_size = (size_t)data_size;
    return block + kHeaderSize;
}

unsigned vyr_data_serializer_write_events_ts(vyr_data_serializer_t *ser, uint8_t schema_index,
                                             uint8_t type_index, const void *events, uint8_t count,
                                             uint64_t time) {
    const vyr_schema_t *schema;
    uint64_t size;
    if (!record_size(ser, schema_index, type_index, &schema, &size)) return 0;
    if (size == 0) {
        report_zero_size(g_zero_size_write_clock, schema, type_index);
        return 0;
    }
    if (ser->capacity <= ser->used + kHeaderSize || size > ser->capacity - kHeaderSize - ser->used)
        return 0;
    const uint64_t space = ser->capacity - kHeaderSize - ser->used;
    // The common call asks for what fits (one event, mostly): no division then.
    uint64_t need;
    uint8_t n = !__builtin_mul_overflow((uint64_t)count, size, &need) && need <= space
                    ? count
                    : (uint8_t)(space / size);
    uint8_t *block = ser->buffer + ser->used;
    write_header(block, schema_index, type_index, n, time);
    ser->used += kHeaderSize;
    uint64_t bytes = (uint64_t)n * size;
    if (bytes) memcpy(block + kHeaderSize, events, bytes);
    ser->used += bytes;
    return n;
}

unsigned vyr_data_serializer_write_events(vyr_data_serializer_t *ser, uint8_t schema_index,
                                          uint8_t type_index, const void *events, uint8_t count) {
    return vyr_data_serializer_write_events_ts(ser, schema_index, type_index, events, count,
                                               vyr_time_now_usec());
}

void *vyr_data_serializer_reserve_buffer(vyr_data_serializer_t *ser, uint64_t size) {
    if (!ser || ser->used > ser->capacity || ser->capacity - ser->used < size) return NULL;
    void *p = ser->buffer + ser->used;
    ser->used += size;
    return p;
}

uint64_t vyr_data_serializer_get_capacity(const vyr_data_serializer_t *ser, uint8_t schema_index,
                                          uint8_t type_index) {
    const vyr_schema_t *schema;
    uint64_t size;
    if (!record_size(ser, schema_index, type_index, &schema, &size)) return 0;
    if (size == 0) {
        report_zero_size(g_zero_size_capacity_clock, schema, type_index);
        return 0;
    }
    return free_space(ser) / size;
}

// A null magic value is left alone and matches nothing.
void vyr_magic_value_fill(vyr_magic_value_t magic, char type) {
    if (!magic) return;
    magic[0] = 'V';
    magic[1] = 'Y';
    magic[2] = 'R';
    magic[3] = type;
}

void vyr_magic_value_fill_lower(vyr_magic_value_t magic, char type) {
    if (!magic) return;
    vyr_magic_value_fill(magic, type);
    for (int i = 0; i < 4; ++i) magic[i] = (char)tolower((unsigned char)magic[i]);
}

void vyr_magic_value_copy(vyr_magic_value_t dst, const vyr_magic_value_t src) {
    if (dst && src) memcpy(dst, src, sizeof(vyr_magic_value_t));
}

bool vyr_magic_value_match_type(const vyr_magic_value_t magic, char type) {
    return magic && magic[0] == 'V' && magic[1] == 'Y' && magic[2] == 'R' && magic[3] == type;
}

bool vyr_magic_value_match(const vyr_magic_value_t a, const vyr_magic_value_t b) {
    // The letters compare as a text: a zero byte ends the comparison early.
    return a && b && strncmp(a, b, 3) == 0 && a[3] == b[3];
}

}  // extern "C"
