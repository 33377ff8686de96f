/* JSON text exactly as the schema identifiers need it (pretty and compact),
 * template validation and equality, over jansson values. */
#ifndef VYR_JSON_H
#define VYR_JSON_H

#include <stddef.h>
#include <jansson.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Serialises a value; the text is released with free(). NULL on failure. */
char *vyr_json_serialize(const json_t *value, int pretty);
/* Parses a text or file; NULL on failure (nothing is logged here). */
json_t *vyr_json_parse_string(const char *text);
json_t *vyr_json_parse_file(const char *path);
/* 0 when `value` matches the template `schema` (types only, recursively), else -1. */
int vyr_json_validate(const json_t *schema, const json_t *value);
/* 1 when equal (numbers within 1e-6, object key order ignored), else 0. */
int vyr_json_value_equals(const json_t *a, const json_t *b);

#ifdef __cplusplus
}
#endif

#endif
