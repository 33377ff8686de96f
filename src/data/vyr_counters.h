/* The smallest counters schema and field set the type system needs. Counter
 * schemas belong to another kind of provider; this holds only their size and
 * their JSON form (an object recognised by its "counter_groups" array). */
#ifndef VYR_COUNTERS_H
#define VYR_COUNTERS_H

#include <stdint.h>
#include <jansson.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vyr_counters_schema {
    uint32_t size;  /* bytes of one counters record */
    json_t *groups; /* the "counter_groups" array as received, or an empty one */
} vyr_counters_schema_t;

vyr_counters_schema_t *vyr_create_counters_schema(void);
void vyr_destroy_counters_schema(vyr_counters_schema_t *schema);
json_t *vyr_counters_schema_jsonify(const vyr_counters_schema_t *schema);
/* NULL unless the value is an object holding a "counter_groups" array. */
vyr_counters_schema_t *vyr_counters_schema_from_json(const json_t *value);

/* Which types and fields a consumer wants: "type" selects a whole type,
 * "type.field" one field. */
typedef struct vyr_field_set vyr_field_set_t;

vyr_field_set_t *vyr_create_field_set(void);
void vyr_destroy_field_set(vyr_field_set_t *fset);
int vyr_field_set_add(vyr_field_set_t *fset, const char *type_name, const char *field_name);
int vyr_field_set_type_is_of_interest(const vyr_field_set_t *fset, const char *type_name);
int vyr_field_set_field_is_wanted(const vyr_field_set_t *fset, const char *type_name,
                                  const char *field_name);

#ifdef __cplusplus
}
#endif

#endif
