/* The descriptor a provider plug-in hands to its host. Field order and word
 * sizes are the binary interface between host and plug-in. */
#ifndef VYR_EVENT_PROVIDER_H
#define VYR_EVENT_PROVIDER_H

#include <stdbool.h>
#include <stdint.h>
#include "vyr_dict.h"
#include "vyr_serializer.h"
#include "vyr_source.h"
#include "vyr_type_system.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vyr_event_provider vyr_event_provider_t;

/* The fixed record filled by a provider's query callback. */
typedef struct vyr_provider_query_record {
    uint64_t value;
    uint32_t reserved32;
    uint16_t reserved16;
} vyr_provider_query_record_t;

typedef bool (*vyr_provider_initialize_fn)(vyr_event_provider_t *, vyr_type_system_t *);
typedef bool (*vyr_provider_start_fn)(vyr_event_provider_t *);
typedef int (*vyr_provider_write_events_fn)(vyr_event_provider_t *, uint16_t source_index,
                                            vyr_data_serializer_t *);
typedef int (*vyr_provider_stop_fn)(vyr_event_provider_t *);
typedef void (*vyr_provider_destroy_fn)(vyr_event_provider_t *);
typedef vyr_source_array_t *(*vyr_provider_get_sources_fn)(vyr_event_provider_t *);
typedef bool (*vyr_provider_query_fn)(vyr_event_provider_t *, void *argument,
                                      vyr_provider_query_record_t *record);

struct vyr_event_provider {
    uint32_t version;
    const char *name;
    const char *description;
    void *host_slot4;
    vyr_provider_initialize_fn initialize;
    void *host_slot6;
    vyr_provider_start_fn start;
    vyr_provider_write_events_fn write_events;
    vyr_provider_stop_fn stop;
    vyr_provider_destroy_fn destroy;
    vyr_provider_get_sources_fn get_sources;
    vyr_provider_query_fn query;
    uint64_t host_word13;
    void *host_words[5];
    uint8_t schema_index;
};

/* Result codes of write_events */
#define VYR_WRITE_DONE 0
#define VYR_WRITE_BUFFER_FULL 1
#define VYR_WRITE_ERROR (-1)

typedef vyr_event_provider_t *(*vyr_construct_event_provider_fn)(vyr_dict_t *params);
#define VYR_PROVIDER_ENTRY_POINT "construct_event_provider"

#ifdef __cplusplus
}
#endif

#endif
