/* Strict whole-text number conversions, truth values, trimming and counted
 * string arrays. */
#include "vyr_string.h"

#include <ctype.h>
#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <limits>

#include "vyr_logger.h"

namespace {

/* A comma-separated token must fit this buffer with its terminating zero. */
const size_t kTokenBufferSize = 1024;

/* size_t and uint64_t take every unsigned long long without a range test. */
static_assert(sizeof(size_t) == sizeof(unsigned long long), "64-bit size_t expected");
static_assert(sizeof(uint64_t) == sizeof(unsigned long long), "64-bit long long expected");

inline size_t array_bytes(uint64_t count) {
    return sizeof(uint64_t) + (size_t)count * sizeof(char *);
}

/* Whole-text conversion with the standard function in base 0 (hex and octal
 * prefixes); refuses a range error at the saturation values, nothing consumed
 * (whatever errno says about it), and anything left after the number. A
 * leading minus is left to the unsigned conversions, which wrap it. */
template <typename T, T (*convert)(const char *, char **, int)>
bool strict_convert(const char *text, T *out) {
    if (!text || !out) return false;
    char *end = NULL;
    errno = 0;
    T value = convert(text, &end, 0);
    bool saturated = value == std::numeric_limits<T>::max() ||
                     (std::numeric_limits<T>::is_signed && value == std::numeric_limits<T>::min());
    if (errno == ERANGE && saturated) return false;
    if (end == text || *end != '\0') return false;
    *out = value;
    return true;
}

template <typename T>
bool narrow_convert(const char *text, T *out) {
    unsigned long long value;
    if (!out || !strict_convert<unsigned long long, strtoull>(text, &value) ||
        value > std::numeric_limits<T>::max())
        return false;
    *out = (T)value;
    return true;
}

}  // namespace

extern "C" {

bool string_to_long(const char *text, long *out) {
    return strict_convert<long, strtol>(text, out);
}

bool string_to_long_long(const char *text, long long *out) {
    return strict_convert<long long, strtoll>(text, out);
}

bool string_to_unsigned_long(const char *text, unsigned long *out) {
    return strict_convert<unsigned long, strtoul>(text, out);
}

bool string_to_unsigned_long_long(const char *text, unsigned long long *out) {
    return strict_convert<unsigned long long, strtoull>(text, out);
}

bool string_to_sizet(const char *text, size_t *out) {
    return narrow_convert(text, out);
}
bool string_to_u8(const char *text, uint8_t *out) {
    return narrow_convert(text, out);
}
bool string_to_u16(const char *text, uint16_t *out) {
    return narrow_convert(text, out);
}
bool string_to_u32(const char *text, uint32_t *out) {
    return narrow_convert(text, out);
}

bool string_to_u64(const char *text, uint64_t *out) {
    return narrow_convert(text, out);
}

/* Range texts hand in a slice of a longer text, so only `length` bytes count. */
bool bounded_string_to_int(const char *text, size_t length, int *out) {
    if (!text || !out) return false;
    char *scratch = (char *)malloc(length + 1);
    if (!scratch) return false;
    /* strncpy stops reading at a zero byte and pads: the same text results. */
    strncpy(scratch, text, length);
    scratch[length] = '\0';
    long value;
    bool ok = string_to_long(scratch, &value);
    free(scratch);
    if (!ok || value < INT_MIN || value > INT_MAX) return false;
    *out = (int)value;
    return true;
}

/* An absent setting counts as switched on. */
bool vyr_string_to_boolean(const char *text) {
    if (!text) return true;
    return strcmp(text, "1") == 0 || strcmp(text, "True") == 0 || strcmp(text, "true") == 0;
}

const char *boolean_to_string(bool value) {
    return value ? "true" : "false";
}

char *trim_white_space(char *text) {
    if (!text) return NULL;
    while (isspace((unsigned char)*text)) ++text;
    if (*text == '\0') return text;
    char *end = text + strlen(text) - 1;
    while (end > text && isspace((unsigned char)*end)) --end;
    end[1] = '\0';
    return text;
}

vyr_string_array_t *vyr_init_string_array(void) {
    return (vyr_string_array_t *)calloc(1, sizeof(vyr_string_array_t));
}

bool vyr_append_string_array(vyr_string_array_t **array, const char *text) {
    if (!array || !text) return false;
    uint64_t count = *array ? (*array)->count : 0;
    vyr_string_array_t *grown = (vyr_string_array_t *)realloc(*array, array_bytes(count + 1));
    if (!grown) return false;
    if (!*array) grown->count = 0;
    *array = grown;
    char *copy = strdup(text);
    /* The block stays enlarged; the count still tells the truth. */
    if (!copy) return false;
    grown->strings[count] = copy;
    grown->count = count + 1;
    return true;
}

void vyr_free_string_array(vyr_string_array_t *array) {
    if (!array) return;
    for (uint64_t i = 0; i < array->count; ++i) free(array->strings[i]);
    free(array);
}

bool vyr_string_array_contains(const vyr_string_array_t *array, const char *text) {
    if (!array || !text) return false;
    for (uint64_t i = 0; i < array->count; ++i)
        if (strcmp(array->strings[i], text) == 0) return true;
    return false;
}

vyr_string_array_t *vyr_string_array_from_comma_separated_string(const char *text, size_t length) {
    vyr_string_array_t *array = vyr_init_string_array();
    if (!array) {
        VYR_ERROR("Unable to create string array");
        return NULL;
    }
    if (length == 0 || !text) return array;

    char token[kTokenBufferSize];
    size_t used = 0;
    for (size_t i = 0; i <= length; ++i) {
        bool at_end = i == length;
        if (!at_end && text[i] != ',') {
            /* An over-long token goes the failed-append way instead of
             * overrunning the buffer or being silently cut. */
            if (used + 1 >= kTokenBufferSize) goto append_failed;
            token[used++] = text[i];
            continue;
        }
        if (used == 0) continue; /* runs of commas give no empty tokens */
        token[used] = '\0';
        used = 0;
        if (!vyr_append_string_array(&array, token)) goto append_failed;
    }
    return array;

append_failed:
    VYR_ERROR("Unable to append string");
    vyr_free_string_array(array);
    return NULL;
}

bool vyr_string_array_remove_duplicates(vyr_string_array_t **array, bool sorted) {
    if (!array) return false;
    if (!*array || (*array)->count == 0) return true;
    if (!sorted) {
        /* Only runs of equal neighbours are collapsed, which needs sorted input. */
        VYR_ERROR("[%s] not implemented", "vyr_string_array_remove_duplicates");
        return false;
    }
    vyr_string_array_t *a = *array;
    uint64_t kept = 1;
    for (uint64_t i = 1; i < a->count; ++i) {
        if (strcmp(a->strings[i], a->strings[kept - 1]) == 0) {
            free(a->strings[i]);
        } else {
            a->strings[kept++] = a->strings[i];
        }
    }
    if (kept == a->count) return true;
    vyr_string_array_t *shrunk = (vyr_string_array_t *)realloc(a, array_bytes(kept));
    if (!shrunk) return false;
    shrunk->count = kept;
    *array = shrunk;
    return true;
}

void vyr_log_string_array(int level, const vyr_string_array_t *array, const char *name) {
    if (!array) return;
    for (uint64_t i = 0; i < array->count; ++i)
        VYR_LOG(level, "%s[%zu] = %s", name ? name : "(null)", (size_t)i, array->strings[i]);
}

}  // extern "C"
