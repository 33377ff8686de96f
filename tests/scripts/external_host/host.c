/* A host as small as they come, built outside this project against the
 * installed headers and library: bring the plug-in up, drain its events a
 * few times, check every block and print one line per event. */
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "vyr_dict.h"
#include "vyr_event_provider.h"
#include "vyr_json.h"
#include "vyr_schema_json.h"
#include "vyr_serializer.h"
#include "vyr_type_system.h"

/* The plug-in's entry point; a collector would dlsym it, this host links it. */
vyr_event_provider_t *construct_event_provider(vyr_dict_t *params);

/* Prints each event of the buffer; -1 if a block does not decode. */
static int print_blocks(const vyr_type_system_t *ts, const uint8_t *buf, uint64_t used) {
    int events = 0;
    uint64_t at = 0;
    while (at < used) {
        vyr_event_block_header_t h;
        if (used - at < sizeof h) return -1;
        memcpy(&h, buf + at, sizeof h);
        if (!vyr_magic_value_match_type(h.magic, VYR_BLOCK_TYPE_EVENTS) ||
            h.schema_index >= ts->num_schemas ||
            h.type_index >= ts->schemas[h.schema_index]->num_types)
            return -1;
        const vyr_type_definition_t *type = ts->schemas[h.schema_index]->types[h.type_index];
        at += sizeof h;
        if (h.count * type->size > used - at) return -1;
        for (unsigned i = 0; i < h.count; ++i, at += type->size) {
            json_t *fields = vyr_type_definition_jsonify_data(type, buf + at);
            const char *device = json_string_value(json_object_get(fields, "device_name"));
            printf("event %s %s\n", type->name, device ? device : "?");
            json_decref(fields);
            ++events;
        }
    }
    return events;
}

int main(void) {
    vyr_dict_t *params = vyr_dict_create();
    vyr_dict_add(params, "tarvik_update_interval_sec", "1");
    vyr_dict_add(params, "tarvik_phyprobe_as_service", "0");
    vyr_event_provider_t *p = construct_event_provider(params);
    vyr_type_system_t *ts = vyr_create_type_system();
    vyr_source_array_t *sources = p->get_sources(p);
    int events = 0, status = 1;
    if (p->initialize(p, ts)) {
        vyr_type_system_update_md5_hashes(ts);
        printf("schema %s %s\n", ts->schemas[p->schema_index]->name,
               ts->schemas[p->schema_index]->md5_string);
        if (p->start(p)) {
            static uint8_t buffer[4096];
            for (int poll = 0; poll < 20 && events < 6; ++poll) {
                sleep(1);
                vyr_data_serializer_t ser = {ts->schemas, buffer, sizeof buffer, 0};
                int result;
                do {
                    ser.used = 0;
                    result = p->write_events(p, 0, &ser);
                    int n = print_blocks(ts, buffer, ser.used);
                    if (n < 0 || result < 0) {
                        printf("bad buffer\n");
                        poll = 20;
                        break;
                    }
                    events += n;
                } while (result == VYR_WRITE_BUFFER_FULL);
            }
            p->stop(p);
            status = events >= 6 ? 0 : 1;
        }
    }
    p->destroy(p);
    vyr_destroy_source_array(sources);
    vyr_destroy_type_system(ts);
    vyr_dict_delete(params);
    printf("%d events\n", events);
    return status;
}
