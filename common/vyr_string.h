/* Strict string conversions and counted string arrays. */
#ifndef VYR_STRING_H
#define VYR_STRING_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One heap block: the count, then that many owned texts. */
typedef struct vyr_string_array {
    uint64_t count;
    char *strings[];
} vyr_string_array_t;

bool string_to_long(const char *text, long *out);
bool string_to_long_long(const char *text, long long *out);
bool string_to_unsigned_long(const char *text, unsigned long *out);
bool string_to_unsigned_long_long(const char *text, unsigned long long *out);
bool string_to_sizet(const char *text, size_t *out);
bool string_to_u8(const char *text, uint8_t *out);
bool string_to_u16(const char *text, uint16_t *out);
bool string_to_u32(const char *text, uint32_t *out);
bool string_to_u64(const char *text, uint64_t *out);
bool bounded_string_to_int(const char *text, size_t length, int *out);

bool vyr_string_to_boolean(const char *text);
const char *boolean_to_string(bool value);
char *trim_white_space(char *text);

vyr_string_array_t *vyr_init_string_array(void);
bool vyr_append_string_array(vyr_string_array_t **array, const char *text);
void vyr_free_string_array(vyr_string_array_t *array);
bool vyr_string_array_contains(const vyr_string_array_t *array, const char *text);
vyr_string_array_t *vyr_string_array_from_comma_separated_string(const char *text, size_t length);
bool vyr_string_array_remove_duplicates(vyr_string_array_t **array, bool sorted);
void vyr_log_string_array(int level, const vyr_string_array_t *array, const char *name);

#ifdef __cplusplus
}
#endif

#endif
