/* Data sources: an identifier with a short tag, and growable lists of them. */
#ifndef VYR_SOURCE_H
#define VYR_SOURCE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VYR_SOURCE_ID_SIZE 64
#define VYR_SOURCE_TAG_SIZE 16
#define VYR_MAX_SOURCES 65534
#define VYR_SOURCE_NOT_FOUND 0xFFFF

typedef struct vyr_source {
    char id[VYR_SOURCE_ID_SIZE];
    char tag[VYR_SOURCE_TAG_SIZE];
} vyr_source_t;

typedef struct vyr_source_array {
    uint16_t count;
    vyr_source_t **sources;
} vyr_source_array_t;

bool vyr_get_hostname(char *buffer, size_t size);
vyr_source_t *vyr_create_source(const char *id, const char *tag);
vyr_source_t *vyr_create_default_source(const char *tag);
void vyr_destroy_source(vyr_source_t *source);
void vyr_source_copy(vyr_source_t *dst, const vyr_source_t *src);
int vyr_source_compare(const vyr_source_t *a, const vyr_source_t *b);
char *vyr_source_string(const vyr_source_t *source);
bool vyr_source_full_string(const vyr_source_t *source, char *buffer, size_t size);
vyr_source_array_t *vyr_create_source_array(void);
bool vyr_source_array_append(vyr_source_array_t *array, vyr_source_t *source);
uint16_t vyr_source_array_find_source(const vyr_source_array_t *array, const vyr_source_t *source);
void vyr_destroy_source_array(vyr_source_array_t *array);
vyr_source_array_t *vyr_create_default_source_array(const char *tag);
vyr_source_array_t *vyr_create_source_array_from_string(const char *text);
vyr_source_array_t *vyr_create_source_array_from_input(const char *text);
void vyr_source_array_log(const vyr_source_array_t *array, const char *name);

#ifdef __cplusplus
}
#endif

#endif
