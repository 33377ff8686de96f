/* The JSON form of fields, types and schemas, and of event records. */
#ifndef VYR_SCHEMA_JSON_H
#define VYR_SCHEMA_JSON_H

#include <jansson.h>
#include "vyr_schema.h"
#include "vyr_counters.h"

#ifdef __cplusplus
extern "C" {
#endif

json_t *vyr_type_field_definition_jsonify(const vyr_type_field_definition_t *field);
json_t *vyr_type_definition_jsonify(const vyr_type_definition_t *type);
json_t *vyr_schema_jsonify(const vyr_schema_t *schema);
/* The text is released with free(). */
char *vyr_type_definition_serialize(const vyr_type_definition_t *type, int pretty);
int vyr_get_schema_id_from_pretty_json_string(const char *text, vyr_schema_id_t id);
int vyr_type_system_get_json_schema_id(vyr_schema_id_t id, const json_t *schema_object);

vyr_type_field_definition_t *vyr_type_field_definition_from_json(const json_t *value);
vyr_type_definition_t *vyr_type_definition_from_json_filtered_by_fset(const json_t *value,
                                                                      const vyr_field_set_t *fset,
                                                                      int *flag);
vyr_type_definition_t *vyr_type_definition_from_json(const json_t *value);
vyr_schema_t *vyr_schema_from_json_filtered_by_fset(const json_t *value,
                                                    const vyr_field_set_t *fset, int *flag);
vyr_schema_t *vyr_schema_from_json(const json_t *value);

json_t *vyr_type_definition_jsonify_data(const vyr_type_definition_t *type, const void *record);
int vyr_string_contains_guid(const char *name);

#ifdef __cplusplus
}
#endif

#endif
