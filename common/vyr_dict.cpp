/* String-to-string dictionary: an open-addressing table in the khash style
 * (two flag bits a bucket, X31 string hash, quadratic probing). */
#include "vyr_dict.h"

#include <stdlib.h>
#include <string.h>

#include <utility>

#include "vyr_logger.h"

namespace {

const double kHashUpper = 0.77;

/* Flag words: 16 buckets a word, bit 1 empty, bit 0 deleted. */
inline uint32_t flag_bits(const uint32_t *flags, uint32_t i) {
    return (flags[i >> 4] >> ((i & 0xfU) << 1)) & 3U;
}
inline bool is_empty(const uint32_t *flags, uint32_t i) {
    return (flag_bits(flags, i) & 2U) != 0;
}
inline bool is_deleted(const uint32_t *flags, uint32_t i) {
    return (flag_bits(flags, i) & 1U) != 0;
}
inline bool is_live(const uint32_t *flags, uint32_t i) {
    return flag_bits(flags, i) == 0;
}
inline void set_not_empty(uint32_t *flags, uint32_t i) {
    flags[i >> 4] &= ~(2U << ((i & 0xfU) << 1));
}
inline void set_live(uint32_t *flags, uint32_t i) {
    flags[i >> 4] &= ~(3U << ((i & 0xfU) << 1));
}
inline void set_deleted(uint32_t *flags, uint32_t i) {
    flags[i >> 4] |= 1U << ((i & 0xfU) << 1);
}

inline size_t flag_words(uint32_t n_buckets) {
    return n_buckets < 16 ? 1 : n_buckets >> 4;
}

/* 31^k in 32-bit arithmetic. */
constexpr uint32_t pow31(int k) {
    uint32_t p = 1;
    while (k-- > 0) p *= 31;
    return p;
}

/* X31 hash over the key's bytes taken as unsigned values: h = h * 31 + b from
 * h = 0. The byte-at-a-time form is one long chain of dependent steps; taking
 * eight bytes at a time as h * 31^8 + b0 * 31^7 + ... + b7 gives the same
 * value (all of it is arithmetic modulo 2^32) with eight independent products
 * per step. */
uint32_t x31_hash(const char *key) {
    const unsigned char *s = reinterpret_cast<const unsigned char *>(key);
    size_t n = strlen(key);
    uint32_t h = 0;
    for (; n >= 8; n -= 8, s += 8)
        h = h * pow31(8) + s[0] * pow31(7) + s[1] * pow31(6) + s[2] * pow31(5) + s[3] * pow31(4) +
            s[4] * pow31(3) + s[5] * pow31(2) + s[6] * pow31(1) + s[7];
    for (; n > 0; --n, ++s) h = h * 31 + *s;
    return h;
}

/* The bucket index comes from the low bits; the top byte tells most keys of
 * a probe sequence apart without reading them. */
inline uint8_t tag_of(uint32_t hash) {
    return (uint8_t)(hash >> 24);
}

uint32_t round_up_pow2(uint32_t x) {
    --x;
    x |= x >> 1;
    x |= x >> 2;
    x |= x >> 4;
    x |= x >> 8;
    x |= x >> 16;
    return ++x;
}

inline uint32_t upper_bound_of(uint32_t n_buckets) {
    return (uint32_t)(n_buckets * kHashUpper + 0.5);
}

/* Rebuilds the table at the next power of two >= requested. Live entries are
 * re-inserted in place: an entry landing on a not yet moved live bucket kicks
 * that one out, which then continues its own placement. */
bool rebuild(vyr_dict_table_t *h, uint32_t requested) {
    uint32_t new_n = round_up_pow2(requested);
    if (new_n < 4) new_n = 4;
    /* Too small to hold the live entries: keep the table as it is. */
    if (h->size >= upper_bound_of(new_n)) return true;

    size_t words = flag_words(new_n);
    uint32_t *new_flags = (uint32_t *)malloc(words * sizeof(uint32_t));
    if (!new_flags) return false;
    memset(new_flags, 0xaa, words * sizeof(uint32_t));
    if (h->n_buckets < new_n) {
        char **new_keys = (char **)realloc(h->keys, new_n * sizeof(char *));
        if (!new_keys) {
            free(new_flags);
            return false;
        }
        h->keys = new_keys;
        char **new_vals = (char **)realloc(h->vals, new_n * sizeof(char *));
        if (!new_vals) {
            /* The larger key array is harmless: the bucket count is unchanged. */
            free(new_flags);
            return false;
        }
        h->vals = new_vals;
        uint8_t *new_tags = (uint8_t *)realloc(h->tags, new_n);
        if (!new_tags) {
            free(new_flags);
            return false;
        }
        h->tags = new_tags;
    }

    uint32_t new_mask = new_n - 1;
    for (uint32_t j = 0; j != h->n_buckets; ++j) {
        if (!is_live(h->flags, j)) continue;
        char *key = h->keys[j];
        char *val = h->vals[j];
        uint8_t tag = h->tags[j];
        set_deleted(h->flags, j);
        for (;;) {
            uint32_t step = 0;
            uint32_t i = x31_hash(key) & new_mask;
            while (!is_empty(new_flags, i)) i = (i + (++step)) & new_mask;
            set_not_empty(new_flags, i);
            if (i < h->n_buckets && is_live(h->flags, i)) {
                std::swap(h->keys[i], key);
                std::swap(h->vals[i], val);
                std::swap(h->tags[i], tag);
                set_deleted(h->flags, i);
            } else {
                h->keys[i] = key;
                h->vals[i] = val;
                h->tags[i] = tag;
                break;
            }
        }
    }

    if (h->n_buckets > new_n) {
        /* A failed shrink keeps the larger arrays, which still serve. */
        char **k = (char **)realloc(h->keys, new_n * sizeof(char *));
        if (k) h->keys = k;
        char **v = (char **)realloc(h->vals, new_n * sizeof(char *));
        if (v) h->vals = v;
        uint8_t *t = (uint8_t *)realloc(h->tags, new_n);
        if (t) h->tags = t;
    }
    free(h->flags);
    h->flags = new_flags;
    h->n_buckets = new_n;
    h->n_occupied = h->size;
    h->upper_bound = upper_bound_of(new_n);
    return true;
}

/* Bucket of a live equal key, or n_buckets when absent. */
uint32_t find(const vyr_dict_table_t *h, const char *key) {
    uint32_t mask = h->n_buckets - 1;
    uint32_t step = 0;
    uint32_t hash = x31_hash(key);
    uint8_t tag = tag_of(hash);
    uint32_t i = hash & mask;
    uint32_t last = i;
    while (!is_empty(h->flags, i) &&
           (is_deleted(h->flags, i) || h->tags[i] != tag || strcmp(h->keys[i], key) != 0)) {
        i = (i + (++step)) & mask;
        if (i == last) return h->n_buckets;
    }
    return is_live(h->flags, i) ? i : h->n_buckets;
}

}  // namespace

extern "C" {

vyr_dict_t *vyr_dict_create(void) {
    vyr_dict_t *dict = (vyr_dict_t *)calloc(1, sizeof(vyr_dict_t));
    if (!dict) return NULL;
    dict->table = (vyr_dict_table_t *)calloc(1, sizeof(vyr_dict_table_t));
    if (!dict->table) {
        free(dict);
        return NULL;
    }
    return dict;
}

bool vyr_dict_add(vyr_dict_t *dict, const char *key, const char *value) {
    if (!dict || !dict->table || !key) return false;
    vyr_dict_table_t *h = dict->table;

    char *key_copy = strdup(key);
    if (!key_copy) return false;
    char *val_copy = NULL;
    if (value) {
        val_copy = strdup(value);
        if (!val_copy) {
            free(key_copy);
            return false;
        }
    }

    if (h->n_occupied >= h->upper_bound) {
        /* Many deleted buckets: rebuild at the same count to drop them;
         * otherwise grow to the next power of two. */
        uint32_t requested = h->n_buckets > (h->size << 1) ? h->n_buckets - 1 : h->n_buckets + 1;
        if (!rebuild(h, requested)) {
            free(key_copy);
            free(val_copy);
            return false;
        }
    }

    uint32_t mask = h->n_buckets - 1;
    uint32_t step = 0;
    uint32_t hash = x31_hash(key);
    uint8_t tag = tag_of(hash);
    uint32_t i = hash & mask;
    uint32_t last = i;
    uint32_t site = h->n_buckets; /* first deleted bucket passed */
    uint32_t x = h->n_buckets;
    for (;;) {
        if (is_empty(h->flags, i)) {
            x = site != h->n_buckets ? site : i;
            break;
        }
        if (is_deleted(h->flags, i)) {
            if (site == h->n_buckets) site = i;
        } else if (h->tags[i] == tag && strcmp(h->keys[i], key_copy) == 0) {
            x = i;
            break;
        }
        i = (i + (++step)) & mask;
        if (i == last) {
            x = site;
            break;
        }
    }
    if (x == h->n_buckets) {
        /* Unreachable while the upper bound keeps empty buckets around. */
        free(key_copy);
        free(val_copy);
        return false;
    }

    if (is_live(h->flags, x)) {
        free(key_copy);
        free(h->vals[x]);
        h->vals[x] = val_copy;
        return true;
    }
    bool was_empty = is_empty(h->flags, x);
    h->keys[x] = key_copy;
    h->vals[x] = val_copy;
    h->tags[x] = tag;
    set_live(h->flags, x);
    ++h->size;
    if (was_empty) ++h->n_occupied;
    return true;
}

const char *vyr_dict_get(const vyr_dict_t *dict, const char *key) {
    if (!dict || !dict->table || !key) return NULL;
    const vyr_dict_table_t *h = dict->table;
    if (h->n_buckets == 0) return NULL;
    uint32_t i = find(h, key);
    return i == h->n_buckets ? NULL : h->vals[i];
}

bool vyr_dict_enum(const vyr_dict_t *dict, vyr_dict_enum_cb_t callback, void *user_data) {
    if (!dict || !dict->table || dict->table->size == 0) return true;
    /* Entries exist but nobody to hand them to. */
    if (!callback) return false;
    const vyr_dict_table_t *h = dict->table;
    for (uint32_t i = 0; i < h->n_buckets; ++i) {
        if (!is_live(h->flags, i)) continue;
        if (!callback(h->keys[i], h->vals[i], user_data)) return false;
    }
    return true;
}

vyr_dict_t *vyr_dict_dup(const vyr_dict_t *dict) {
    if (!dict || !dict->table) return NULL;
    vyr_dict_t *copy = vyr_dict_create();
    if (!copy) return NULL;
    const vyr_dict_table_t *h = dict->table;
    for (uint32_t i = 0; i < h->n_buckets; ++i) {
        if (!is_live(h->flags, i)) continue;
        if (!vyr_dict_add(copy, h->keys[i], h->vals[i])) {
            vyr_dict_delete(copy);
            return NULL;
        }
    }
    return copy;
}

void vyr_dict_dump(const vyr_dict_t *dict, const char *name) {
    if (!dict) return;
    VYR_DEBUG("%s map values: ", name ? name : "(null)");
    const vyr_dict_table_t *h = dict->table;
    if (!h) return;
    for (uint32_t i = 0; i < h->n_buckets; ++i) {
        if (!is_live(h->flags, i)) continue;
        VYR_DEBUG("key=%s  val=%s", h->keys[i], h->vals[i] ? h->vals[i] : "(null)");
    }
}

void vyr_dict_delete(vyr_dict_t *dict) {
    if (!dict) return;
    vyr_dict_table_t *h = dict->table;
    if (h) {
        for (uint32_t i = 0; i < h->n_buckets; ++i) {
            if (!is_live(h->flags, i)) continue;
            free(h->keys[i]);
            free(h->vals[i]);
        }
        free(h->flags);
        free(h->keys);
        free(h->vals);
        free(h->tags);
        free(h);
    }
    free(dict);
}

}  // extern "C"
