#include "vyr_source.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "vyr_env.h"
#include "vyr_logger.h"
#include "vyr_string.h"

namespace {

constexpr size_t kLineSize = 1024;  // 1,023 characters a line and the zero byte

// Copies at most size - 1 characters and always terminates.
void copy_text(char *dst, const char *src, size_t size) {
    size_t n = strnlen(src, size - 1);
    memcpy(dst, src, n);
    dst[n] = '\0';
}

// The identifier numbered sources and the default source are named after:
// a given prefix, else VYR_SOURCE_ID, else the short host name.
bool default_identifier(const char *prefix, char id[VYR_SOURCE_ID_SIZE]) {
    memset(id, 0, VYR_SOURCE_ID_SIZE);
    if (prefix) {
        copy_text(id, prefix, VYR_SOURCE_ID_SIZE);
        return true;
    }
    const char *env = vyr_getenv("VYR_SOURCE_ID");
    if (env) {
        copy_text(id, env, VYR_SOURCE_ID_SIZE);
        return true;
    }
    if (!vyr_get_hostname(id, VYR_SOURCE_ID_SIZE)) {
        VYR_ERROR("[source] Failed to get host name: %s", strerror(errno));
        return false;
    }
    return true;
}

bool append_new(vyr_source_array_t *array, const char *id) {
    vyr_source_t *source = vyr_create_source(id, "");
    if (!source) return false;
    if (!vyr_source_array_append(array, source)) {
        vyr_destroy_source(source);
        return false;
    }
    return true;
}

// Sources prefix_first .. prefix_last; prefix NULL means the default identifier.
vyr_source_array_t *numbered_sources(const char *prefix, int first, int last) {
    char id[VYR_SOURCE_ID_SIZE];
    if (!default_identifier(prefix, id)) return NULL;
    vyr_source_array_t *array = vyr_create_source_array();
    if (!array) return NULL;
    // 64-bit counter: a range ending at INT_MAX must still terminate.
    for (long long n = first; n <= last; ++n) {
        char name[VYR_SOURCE_ID_SIZE + 16];
        snprintf(name, sizeof name, "%s_%d", id, (int)n);
        name[VYR_SOURCE_ID_SIZE - 1] = '\0';  // names are cut to the identifier size
        if (!append_new(array, name)) {
            vyr_destroy_source_array(array);
            return NULL;
        }
    }
    return array;
}

vyr_source_array_t *invalid_format(const char *text) {
    VYR_ERROR("[source] Invalid source format: %s", text ? text : "(null)");
    return NULL;
}

// Fabscan output names each node between parentheses.
bool read_fabscan_line(vyr_source_array_t *array, const char *line) {
    const char *open = strchr(line, '(');
    if (!open) return true;
    const char *close = strchr(open + 1, ')');
    if (!close) return true;
    char id[VYR_SOURCE_ID_SIZE];
    size_t n = (size_t)(close - open - 1);
    if (n > VYR_SOURCE_ID_SIZE - 1) n = VYR_SOURCE_ID_SIZE - 1;
    memcpy(id, open + 1, n);
    id[n] = '\0';
    return append_new(array, id);
}

bool read_text_line(vyr_source_array_t *array, char *line) {
    char *save = NULL;
    char *token = strtok_r(line, "\n\r", &save);
    if (!token || !*token) return true;
    return append_new(array, token);
}

}  // namespace

extern "C" {

bool vyr_get_hostname(char *buffer, size_t size) {
    if (!buffer || size == 0) return false;
    memset(buffer, 0, size);
    const char *env = getenv("VYR_HOST_NAME");
    if (env) {
        copy_text(buffer, env, size);
        return true;
    }
    if (gethostname(buffer, size - 1) != 0) {
        buffer[0] = '\0';
        return false;
    }
    buffer[size - 1] = '\0';
    char *dot = strchr(buffer, '.');
    if (dot) *dot = '\0';
    return true;
}

vyr_source_t *vyr_create_source(const char *id, const char *tag) {
    vyr_source_t *source = (vyr_source_t *)calloc(1, sizeof(vyr_source_t));
    if (!source) return NULL;
    if (id) copy_text(source->id, id, sizeof source->id);
    if (tag) copy_text(source->tag, tag, sizeof source->tag);
    return source;
}

vyr_source_t *vyr_create_default_source(const char *tag) {
    vyr_source_t *source = (vyr_source_t *)calloc(1, sizeof(vyr_source_t));
    if (!source) return NULL;
    if (!default_identifier(NULL, source->id)) {
        free(source);
        return NULL;
    }
    if (tag) copy_text(source->tag, tag, sizeof source->tag);
    return source;
}

void vyr_destroy_source(vyr_source_t *source) {
    free(source);
}

void vyr_source_copy(vyr_source_t *dst, const vyr_source_t *src) {
    if (dst && src) memcpy(dst, src, sizeof(vyr_source_t));
}

int vyr_source_compare(const vyr_source_t *a, const vyr_source_t *b) {
    if (!a || !b) return a == b ? 0 : a ? 1 : -1;  // null before any source
    int r = strncmp(a->id, b->id, sizeof a->id);
    if (r != 0) return r;
    return strncmp(a->tag, b->tag, sizeof a->tag);
}

char *vyr_source_string(const vyr_source_t *source) {
    if (!source) return NULL;
    char *text = (char *)calloc(1, VYR_SOURCE_ID_SIZE + 1);
    if (!text) return NULL;
    copy_text(text, source->id, VYR_SOURCE_ID_SIZE);
    return text;
}

bool vyr_source_full_string(const vyr_source_t *source, char *buffer, size_t size) {
    if (!source || !buffer) return false;
    size_t id_len = strnlen(source->id, sizeof source->id - 1);
    size_t tag_len = strnlen(source->tag, sizeof source->tag - 1);
    if (id_len + tag_len + 2 > size) {
        VYR_DEBUG("[source] buffer too small for source %.*s:%.*s (got %zu)", (int)id_len,
                  source->id, (int)tag_len, source->tag, size);
        return false;
    }
    memcpy(buffer, source->id, id_len);
    buffer[id_len] = ':';
    memcpy(buffer + id_len + 1, source->tag, tag_len);
    buffer[id_len + 1 + tag_len] = '\0';
    return true;
}

vyr_source_array_t *vyr_create_source_array(void) {
    return (vyr_source_array_t *)calloc(1, sizeof(vyr_source_array_t));
}

bool vyr_source_array_append(vyr_source_array_t *array, vyr_source_t *source) {
    if (!array || !source || array->count >= VYR_MAX_SOURCES) return false;
    vyr_source_t **grown = (vyr_source_t **)realloc(
        array->sources, ((size_t)array->count + 1) * sizeof(vyr_source_t *));
    if (!grown) return false;
    array->sources = grown;
    array->sources[array->count++] = source;
    return true;
}

uint16_t vyr_source_array_find_source(const vyr_source_array_t *array, const vyr_source_t *source) {
    if (!array) return VYR_SOURCE_NOT_FOUND;
    for (uint16_t i = 0; i < array->count; ++i)
        if (array->sources[i] == source) return i;
    return VYR_SOURCE_NOT_FOUND;
}

void vyr_destroy_source_array(vyr_source_array_t *array) {
    if (!array) return;
    if (array->sources)
        for (uint16_t i = 0; i < array->count; ++i) free(array->sources[i]);
    free(array->sources);
    free(array);
}

vyr_source_array_t *vyr_create_default_source_array(const char *tag) {
    vyr_source_array_t *array = vyr_create_source_array();
    if (!array) return NULL;
    vyr_source_t *source = vyr_create_default_source(tag);
    if (!source || !vyr_source_array_append(array, source)) {
        vyr_destroy_source(source);
        vyr_destroy_source_array(array);
        return NULL;
    }
    return array;
}

vyr_source_array_t *vyr_create_source_array_from_string(const char *text) {
    if (!text) return invalid_format(text);
    const char *dash = strchr(text, '-');
    const char *open = strchr(text, '[');
    const char *close = strchr(text, ']');
    int first, last;
    if (!dash) {
        // N: the default identifier numbered 1 to N.
        if (!bounded_string_to_int(text, strlen(text), &last) || last < 1)
            return invalid_format(text);
        return numbered_sources(NULL, 1, last);
    }
    if (!open || !close) {
        // A-B with the default identifier.
        size_t len = strlen(text);
        if (dash == text || dash == text + len - 1) return invalid_format(text);
        if (!bounded_string_to_int(text, (size_t)(dash - text), &first) ||
            !bounded_string_to_int(dash + 1, len - (size_t)(dash - text) - 1, &last) ||
            first > last)
            return invalid_format(text);
        return numbered_sources(NULL, first, last);
    }
    // P[A-B]: the range sits inside the brackets, so a "-" in P is not its separator.
    const char *sep = strchr(open + 1, '-');
    if (!sep || sep > close || !bounded_string_to_int(open + 1, (size_t)(sep - open - 1), &first) ||
        !bounded_string_to_int(sep + 1, (size_t)(close - sep - 1), &last) || first > last)
        return invalid_format(text);
    size_t prefix_len = (size_t)(open - text);
    char *prefix = (char *)malloc(prefix_len + 1);
    if (!prefix) {
        VYR_ERROR("[source] Failed to allocate memory");
        return NULL;
    }
    memcpy(prefix, text, prefix_len);
    prefix[prefix_len] = '\0';
    vyr_source_array_t *array = numbered_sources(prefix, first, last);
    free(prefix);
    return array;
}

vyr_source_array_t *vyr_create_source_array_from_input(const char *text) {
    struct stat st;
    if (!text || stat(text, &st) != 0) return vyr_create_source_array_from_string(text);

    FILE *file = fopen(text, "r");
    if (!file) {
        VYR_ERROR("[source] Failed to open file: %s", text);
        return NULL;
    }
    char line[kLineSize];
    bool fabscan = false;
    while (!fabscan && fgets(line, sizeof line, file))
        fabscan = strstr(line, "H-") || strstr(line, "S-");
    fclose(file);

    file = fopen(text, "r");
    if (!file) {
        if (fabscan)
            VYR_ERROR("[source] Failed to open fabscan file: %s", text);
        else
            VYR_ERROR("[source] Failed to open text file: %s", text);
        return NULL;
    }
    vyr_source_array_t *array = vyr_create_source_array();
    if (!array) {
        fclose(file);
        return NULL;
    }
    while (fgets(line, sizeof line, file)) {
        bool ok = fabscan ? read_fabscan_line(array, line) : read_text_line(array, line);
        if (!ok) {
            vyr_destroy_source_array(array);
            array = NULL;
            break;
        }
    }
    fclose(file);
    return array;
}

void vyr_source_array_log(const vyr_source_array_t *array, const char *name) {
    if (!array) return;
    for (size_t i = 0; i < array->count; ++i)
        if (array->sources[i])
            VYR_DEBUG("%s[%zu] = %s", name ? name : "", i, array->sources[i]->id);
}

}  // extern "C"
