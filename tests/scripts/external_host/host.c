/* A host as small as they come, built outside this project against the
 * installed headers and library: bring the plug-in up, drain its events a
 * few times and print one line per event. */
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

int main(void) {
    vyr_dict_t *params = vyr_dict_create();
    vyr_dict_add(params, "tarvik_update_interval_sec", "1");
    vyr_dict_add(params, "tarvik_phyprobe_as_service", "0");
    vyr_event_provider_t *p = construct_event_provider(params);
    vyr_type_system_t *ts = vyr_create_type_system();
    static uint8_t buf[65536];
    int events = 0;
    const int started = p->initialize(p, ts) && p->start(p);
    for (int poll = 0; started && poll < 20 && events < 6; ++poll) {
        sleep(1);
        vyr_data_serializer_t ser = {ts->schemas, buf, sizeof buf, 0};
        p->write_events(p, 0, &ser);
        for (uint64_t at = 0; at < ser.used;) {
            vyr_event_block_header_t h;
            memcpy(&h, buf + at, sizeof h);
            const vyr_type_definition_t *type = ts->schemas[h.schema_index]->types[h.type_index];
            for (at += sizeof h; h.count--; at += type->size, ++events) {
                json_t *fields = vyr_type_definition_jsonify_data(type, buf + at);
                printf("event %s %s\n", type->name,
                       json_string_value(json_object_get(fields, "device_name")));
                json_decref(fields);
            }
        }
    }
    if (started) p->stop(p);
    p->destroy(p);
    vyr_destroy_type_system(ts);
    vyr_dict_delete(params);
    return events >= 6 ? 0 : 1;
}
