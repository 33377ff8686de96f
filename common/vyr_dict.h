/* String-to-string dictionary: an open-addressing table in the khash style. */
#ifndef VYR_DICT_H
#define VYR_DICT_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vyr_dict_table {
    uint32_t n_buckets;   /* 0 or a power of two, at least 4 once allocated */
    uint32_t size;        /* live entries */
    uint32_t n_occupied;  /* live plus deleted buckets */
    uint32_t upper_bound; /* occupancy at which the table is rebuilt */
    uint32_t *flags;      /* two bits a bucket: bit 1 empty, bit 0 deleted */
    char **keys;
    char **vals;
    uint8_t *tags; /* top byte of each live key's hash: a probe reads a key only when it agrees */
} vyr_dict_table_t;

typedef struct vyr_dict {
    vyr_dict_table_t *table;
} vyr_dict_t;

typedef bool (*vyr_dict_enum_cb_t)(const char *key, const char *value, void *user_data);

vyr_dict_t *vyr_dict_create(void);
bool vyr_dict_add(vyr_dict_t *dict, const char *key, const char *value);
const char *vyr_dict_get(const vyr_dict_t *dict, const char *key);
bool vyr_dict_enum(const vyr_dict_t *dict, vyr_dict_enum_cb_t callback, void *user_data);
vyr_dict_t *vyr_dict_dup(const vyr_dict_t *dict);
void vyr_dict_dump(const vyr_dict_t *dict, const char *name);
void vyr_dict_delete(vyr_dict_t *dict);

#ifdef __cplusplus
}
#endif

#endif
