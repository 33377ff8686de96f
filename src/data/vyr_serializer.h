/* Packs events into the host's buffer as blocks with a 16-byte header. */
#ifndef VYR_SERIALIZER_H
#define VYR_SERIALIZER_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include "vyr_schema.h"
#include "vyr_time.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef char vyr_magic_value_t[4];

#define VYR_BLOCK_TYPE_EVENTS 'E'

/* Wire header of an event block: packed, little-endian. */
typedef struct __attribute__((packed)) vyr_event_block_header {
    vyr_magic_value_t magic; /* "VYR" + block-type letter */
    uint64_t time;           /* microseconds since the epoch */
    uint8_t schema_index;
    uint16_t type_index;
    uint8_t count;
} vyr_event_block_header_t;

/* Owned by the caller; the serializer functions never allocate. */
typedef struct vyr_data_serializer {
    vyr_schema_t **schemas; /* indexed by schema index, e.g. a type system's schemas */
    uint8_t *buffer;
    uint64_t capacity;
    uint64_t used;
} vyr_data_serializer_t;

void *vyr_data_serializer_get_events_buffer(vyr_data_serializer_t *ser, uint8_t schema_index,
                                            uint8_t type_index, uint8_t count, size_t *out_size);
unsigned vyr_data_serializer_write_events_ts(vyr_data_serializer_t *ser, uint8_t schema_index,
                                             uint8_t type_index, const void *events, uint8_t count,
                                             uint64_t time);
unsigned vyr_data_serializer_write_events(vyr_data_serializer_t *ser, uint8_t schema_index,
                                          uint8_t type_index, const void *events, uint8_t count);
void *vyr_data_serializer_reserve_buffer(vyr_data_serializer_t *ser, uint64_t size);
uint64_t vyr_data_serializer_get_capacity(const vyr_data_serializer_t *ser, uint8_t schema_index,
                                          uint8_t type_index);

void vyr_magic_value_fill(vyr_magic_value_t magic, char type);
void vyr_magic_value_fill_lower(vyr_magic_value_t magic, char type);
void vyr_magic_value_copy(vyr_magic_value_t dst, const vyr_magic_value_t src);
bool vyr_magic_value_match_type(const vyr_magic_value_t magic, char type);
bool vyr_magic_value_match(const vyr_magic_value_t a, const vyr_magic_value_t b);

#ifdef __cplusplus
}
#endif

#endif
