#include "vyr_env.h"

#include <stdlib.h>
#include <string.h>

#include "vyr_logger.h"

static const char VYR_PREFIX[] = "VYR_";
static const size_t VYR_PREFIX_LEN = sizeof VYR_PREFIX - 1;

const char *vyr_getenv(const char *name) {
    if (!name) return NULL;
    size_t len = strlen(name);
    char *prefixed = (char *)malloc(len + 6);
    if (!prefixed) return getenv(name);
    const char *plain;
    if (strncmp(name, VYR_PREFIX, VYR_PREFIX_LEN) == 0) {
        memcpy(prefixed, name, len + 1);
        plain = name + VYR_PREFIX_LEN;
    } else {
        memcpy(prefixed, VYR_PREFIX, VYR_PREFIX_LEN);
        memcpy(prefixed + VYR_PREFIX_LEN, name, len + 1);
        plain = name;
    }
    // The logger reads its level through this lookup: logging about that one
    // name would recurse into logger initialisation. Only the exact name the
    // logger uses is quiet; a lookup of "API_LOG_LEVEL" logs like any other.
    bool quiet = strcmp(name, "VYR_API_LOG_LEVEL") == 0;
    const char *prefixed_value = getenv(prefixed);
    const char *plain_value = getenv(plain);
    const char *result = NULL;
    if (prefixed_value) {
        if (!quiet) {
            if (plain_value && strcmp(plain_value, prefixed_value) != 0)
                VYR_WARN("[%s] Environment variables conflict - %s=%s and %s=%s. Using %s",
                         "vyr_getenv", prefixed, prefixed_value, plain, plain_value, prefixed);
            VYR_DEBUG("[%s] Using '%s'='%s'", "vyr_getenv", prefixed, prefixed_value);
        }
        result = prefixed_value;
    } else if (plain_value) {
        if (!quiet) VYR_DEBUG("[%s] Using '%s'='%s'", "vyr_getenv", plain, plain_value);
        result = plain_value;
    } else if (!quiet) {
        VYR_DEBUG("[%s] No value for '%s' or '%s'", "vyr_getenv", prefixed, plain);
    }
    free(prefixed);
    return result;
}
