/* The host's registry of schemas. */
#ifndef VYR_TYPE_SYSTEM_H
#define VYR_TYPE_SYSTEM_H

#include <stdint.h>
#include <jansson.h>
#include "vyr_schema.h"
#include "vyr_counters.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VYR_MAX_SCHEMAS 255

typedef struct vyr_type_system {
    vyr_schema_t *builtin_schema;
    vyr_schema_t *schemas[VYR_MAX_SCHEMAS];
    uint8_t num_schemas;
    vyr_counters_schema_t *counters_schema;
} vyr_type_system_t;

vyr_type_system_t *vyr_create_type_system(void);
void vyr_destroy_type_system(vyr_type_system_t *ts);
vyr_schema_t *vyr_type_system_add_schema(vyr_type_system_t *ts, const char *name, uint32_t version,
                                         uint8_t *schema_index);
uint8_t vyr_type_system_remove_last_schema(vyr_type_system_t *ts);
int vyr_type_system_find_schema(const vyr_type_system_t *ts, const char *id_text,
                                uint8_t *schema_index);
void vyr_type_system_update_md5_hashes(vyr_type_system_t *ts);
uint32_t vyr_type_system_get_max_event_type_size(const vyr_type_system_t *ts);
uint32_t vyr_type_system_max_type_size(const vyr_type_system_t *ts);
int vyr_type_system_adjust_type_references(vyr_type_system_t *ts, vyr_schema_t *schema);
int vyr_type_system_add_schema_from_serialized_json(vyr_type_system_t *ts, const char *text,
                                                    uint8_t *schema_index);
int vyr_type_system_clone_schemas(vyr_type_system_t *dst, vyr_type_system_t *src,
                                  uint8_t *schema_index);
vyr_schema_t *vyr_type_system_load_schema_filtered_by_fset(vyr_type_system_t *ts, const char *path,
                                                           const vyr_field_set_t *fset, int *flag);
vyr_schema_t *vyr_type_system_load_schema(vyr_type_system_t *ts, const char *path);
/* The text is released with free(). */
char *vyr_type_system_serialize(const vyr_type_system_t *ts, int pretty);
json_t *vyr_type_system_jsonify(const vyr_type_system_t *ts);
vyr_type_system_t *vyr_type_system_deserialize(const char *text);
vyr_type_system_t *vyr_type_system_from_json(const json_t *value);

#ifdef __cplusplus
}
#endif

#endif
