/* Schemas: a provider's named, versioned set of event types. */
#ifndef VYR_SCHEMA_H
#define VYR_SCHEMA_H

#include <stddef.h>
#include <stdint.h>
#include "vyr_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VYR_MAX_TYPES 254
#define VYR_SCHEMA_ID_LENGTH 16
#define VYR_SCHEMA_ID_STRING_LENGTH 33

#define VYR_SCHEMA_ADD_OK 0
#define VYR_SCHEMA_ADD_ALLOC 1
#define VYR_SCHEMA_ADD_DUPLICATE 2
#define VYR_SCHEMA_ADD_UNDEFINED_TYPE 3
#define VYR_SCHEMA_ADD_LIMIT 5

/* version: major bits 0-7, minor bits 8-15, patch bits 16-31 */
#define VYR_MAKE_VERSION(major, minor, patch) \
    ((uint32_t)(major) | ((uint32_t)(minor) << 8) | ((uint32_t)(patch) << 16))
#define VYR_SCHEMA_FORMAT_VERSION 1281u /* "1.5.0" */
#define VYR_LIBRARY_VERSION 202753u     /* "1.24.3" */

typedef unsigned char vyr_schema_id_t[VYR_SCHEMA_ID_LENGTH];

typedef struct vyr_schema {
    uint32_t version;
    char *name;
    vyr_type_definition_t *types[VYR_MAX_TYPES];
    uint8_t num_types;
    struct vyr_schema *parent;
    unsigned char md5_digest[VYR_SCHEMA_ID_LENGTH];
    char md5_string[VYR_SCHEMA_ID_STRING_LENGTH];
} vyr_schema_t;

vyr_schema_t *vyr_create_schema(const char *name, uint32_t version);
void vyr_destroy_schema(vyr_schema_t *schema);
vyr_type_definition_t *vyr_schema_find_type_definition(const vyr_schema_t *schema,
                                                       const char *type_name);
uint64_t vyr_schema_sizeof_type(const vyr_schema_t *schema, const char *type_name);
int vyr_schema_add_type(vyr_schema_t *schema, const char *type_name,
                        const vyr_type_field_info_t *fields, size_t num_fields,
                        uint8_t *type_index);
int vyr_schema_set_field_indexes(vyr_schema_t *schema, uint8_t type_index, const char **names,
                                 size_t num_names);
const char **vyr_schema_get_indexed_fields(const vyr_schema_t *schema, uint8_t type_index,
                                           size_t *count);
int vyr_schema_adjust_field_type_references(vyr_schema_t *schema, vyr_type_definition_t *type);
int vyr_schema_register_builtin_types(vyr_schema_t *schema);
/* The text is released with free(). */
char *vyr_schema_serialize_type_definition(const vyr_schema_t *schema, const char *type_name,
                                           int pretty);
vyr_schema_t *vyr_schema_load_from_file(const char *path, vyr_schema_t *parent);
int vyr_schema_extract_id(const vyr_schema_t *schema, vyr_schema_id_t id);
/* Recomputes md5_digest and md5_string from the schema's current JSON form. */
int vyr_schema_update_md5(vyr_schema_t *schema);

int vyr_schema_id_is_unset(const vyr_schema_id_t id);
void vyr_copy_schema_id(vyr_schema_id_t dst, const vyr_schema_id_t src);
void vyr_reset_schema_id(vyr_schema_id_t id);
int vyr_compare_schema_id(const vyr_schema_id_t a, const vyr_schema_id_t b);
int vyr_schema_id_is_blob(const vyr_schema_id_t id);
void vyr_schema_id_set_blob(vyr_schema_id_t id);
char *vyr_schema_id_string(const vyr_schema_id_t id);
void vyr_schema_id_to_schema_string(const vyr_schema_id_t id, char *text);
int vyr_schema_from_id_string(const char *text, vyr_schema_id_t id);

const char *vyr_version_to_string(uint32_t version);
uint32_t vyr_version_from_string(const char *text);
int vyr_version_compare(uint32_t a, uint32_t b);
int vyr_versions_are_compatible(uint32_t required, uint32_t offered);
int vyr_version_strings_are_compatible(const char *required, const char *offered);
uint32_t vyr_version(void);
const char *vyr_version_string(void);

#ifdef __cplusplus
}
#endif

#endif
