/* Built-in value types, field and type definitions. */
#ifndef VYR_TYPES_H
#define VYR_TYPES_H

#include <stdint.h>
#include <stdio.h>
#include <jansson.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum vyr_builtin_type_id {
    VYR_TYPE_COMPOUND = 0,
    VYR_TYPE_BOOL = 1,
    VYR_TYPE_CHAR,
    VYR_TYPE_SHORT,
    VYR_TYPE_INT,
    VYR_TYPE_LONG,
    VYR_TYPE_LONG_LONG,
    VYR_TYPE_UNSIGNED_CHAR,
    VYR_TYPE_UNSIGNED_SHORT,
    VYR_TYPE_UNSIGNED_INT,
    VYR_TYPE_UNSIGNED_LONG,
    VYR_TYPE_UNSIGNED_LONG_LONG,
    VYR_TYPE_FLOAT,
    VYR_TYPE_DOUBLE,
    VYR_TYPE_INT8,
    VYR_TYPE_INT16,
    VYR_TYPE_INT32,
    VYR_TYPE_INT64,
    VYR_TYPE_UINT8,
    VYR_TYPE_UINT16,
    VYR_TYPE_UINT32,
    VYR_TYPE_UINT64,
    VYR_TYPE_TIMESTAMP = 22,
} vyr_builtin_type_id_t;

#define VYR_BUILTIN_TYPE_COUNT 22

/* Counting mode of a field (32-bit). */
typedef enum vyr_value_type {
    VYR_VALUE_ABSOLUTE = 0,
    VYR_VALUE_RUNNING_SUM = 1,
} vyr_value_type_t;

/* A caller's description of one field when a type is registered. */
typedef struct vyr_type_field_info {
    const char *name;
    const char *description;
    const char *type_name;
    vyr_value_type_t counting_mode;
    uint32_t array_length;
} vyr_type_field_info_t;

typedef struct vyr_type_definition vyr_type_definition_t;

typedef struct vyr_type_field_definition {
    char *field_name;
    char *description;
    char *type_name;
    uint64_t type_size; /* size of one element */
    vyr_value_type_t counting_mode;
    uint32_t array_length;
    uint64_t offset;
    vyr_type_definition_t *type_definition; /* not owned */
    uint16_t index;                         /* 0: not an index field */
} vyr_type_field_definition_t;

struct vyr_type_definition {
    char *name;
    uint32_t builtin_id;
    int32_t num_fields;
    vyr_type_field_definition_t **fields;
    uint64_t size;
};

struct vyr_type_system;

const char *vyr_builtin_type_name(uint32_t id);
uint64_t vyr_builtin_type_size(uint32_t id);
uint32_t vyr_builtin_type_from_name(const char *name);
int vyr_builtin_type_get_type_defs(vyr_type_definition_t **defs, int capacity);
int vyr_builtin_type_register_types(struct vyr_type_system *ts);
void vyr_builtin_type_print_info(FILE *stream);

const char *vyr_value_type_string(vyr_value_type_t mode);
vyr_value_type_t vyr_value_type_from_string(const char *text);

vyr_type_field_definition_t *vyr_create_type_field_definition(void);
void vyr_destroy_type_field_definition(vyr_type_field_definition_t *field);
vyr_type_field_definition_t *vyr_type_field_definition_from_info(const vyr_type_field_info_t *info);
vyr_type_definition_t *vyr_create_type_definition(void);
void vyr_destroy_type_definition(vyr_type_definition_t *type);

json_t *vyr_builtin_type_jsonify(uint32_t id, const void *value);
json_t *vyr_builtin_type_jsonify_with_field_name(uint32_t id, const void *value,
                                                 const char *field_name);
/* Renders one field of a record (value = address of the field's first byte). */
json_t *vyr_type_field_jsonify_data(const vyr_type_field_definition_t *field, const void *value);

#ifdef __cplusplus
}
#endif

#endif
