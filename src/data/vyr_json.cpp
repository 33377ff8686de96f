/* JSON text over jansson values, written by hand: schema identifiers are MD5
 * digests of the pretty text, so its bytes are fixed and jansson's own dump
 * (different spacing, escaping and number format) cannot be used. */
#include "vyr_json.h"

#include <locale.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace {

/* Growable text on malloc/realloc, so an allocation failure ends in NULL
 * instead of an exception crossing the C interface. */
struct TextBuffer {
    char *data = nullptr;
    size_t length = 0;
    size_t capacity = 0;
    bool failed = false;

    ~TextBuffer() { free(data); }

    bool reserve(size_t extra) {
        if (failed) return false;
        if (length + extra + 1 <= capacity) return true;
        size_t wanted = capacity ? capacity : 256;
        while (wanted < length + extra + 1) wanted *= 2;
        char *grown = static_cast<char *>(realloc(data, wanted));
        if (!grown) {
            failed = true;
            return false;
        }
        data = grown;
        capacity = wanted;
        return true;
    }
    void append(const char *bytes, size_t count) {
        if (!reserve(count)) return;
        memcpy(data + length, bytes, count);
        length += count;
        data[length] = '\0';
    }
    void append(const char *text) { append(text, strlen(text)); }
    void append(char c) { append(&c, 1); }
    /* Hands the text over to the caller. */
    char *release() {
        if (failed) return nullptr;
        if (!reserve(0)) return nullptr;
        char *out = data;
        data = nullptr;
        return out;
    }
};

/* One C locale object for the process: "%1.17g" must always write '.' */
locale_t c_numeric_locale() {
    static locale_t loc = newlocale(LC_NUMERIC_MASK, "C", (locale_t)0);
    return loc;
}

bool format_number(double number, char *out, size_t size) {
    if (!isfinite(number)) return false;
    locale_t loc = c_numeric_locale();
    if (loc != (locale_t)0) {
        locale_t previous = uselocale(loc);
        snprintf(out, size, "%1.17g", number);
        uselocale(previous);
        return true;
    }
    /* No locale object: format in the current locale and put the '.' back. */
    snprintf(out, size, "%1.17g", number);
    const char *point = localeconv()->decimal_point;
    size_t point_length = point ? strlen(point) : 0;
    if (point_length == 0 || strcmp(point, ".") == 0) return true;
    char *found = strstr(out, point);
    if (found) {
        *found = '.';
        memmove(found + 1, found + point_length, strlen(found + point_length) + 1);
    }
    return true;
}

void append_escaped(TextBuffer &buf, const char *text, size_t length) {
    static const char hex[] = "0123456789abcdef";
    buf.append('"');
    for (size_t i = 0; i < length; ++i) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        switch (c) {
            case '"':
                buf.append("\\\"", 2);
                break;
            case '\\':
                buf.append("\\\\", 2);
                break;
            case '/':
                buf.append("\\/", 2);
                break;
            case '\b':
                buf.append("\\b", 2);
                break;
            case '\f':
                buf.append("\\f", 2);
                break;
            case '\n':
                buf.append("\\n", 2);
                break;
            case '\r':
                buf.append("\\r", 2);
                break;
            case '\t':
                buf.append("\\t", 2);
                break;
            default:
                if (c < 0x20) {
                    char esc[6] = {'\\', 'u', '0', '0', hex[c >> 4], hex[c & 0xf]};
                    buf.append(esc, sizeof esc);
                } else {
                    /* DEL and UTF-8 bytes go out as they are. */
                    buf.append(static_cast<char>(c));
                }
        }
    }
    buf.append('"');
}

void append_indent(TextBuffer &buf, int level) {
    for (int i = 0; i < level; ++i) buf.append("    ", 4);
}

bool serialize_value(TextBuffer &buf, const json_t *value, int level, bool pretty) {
    if (!value) return false;
    switch (json_typeof(value)) {
        case JSON_OBJECT: {
            size_t count = json_object_size(value);
            if (count == 0) {
                buf.append("{}", 2);
                return !buf.failed;
            }
            buf.append('{');
            if (pretty) buf.append('\n');
            size_t i = 0;
            const char *key;
            size_t key_length;
            json_t *member;
            json_object_keylen_foreach(const_cast<json_t *>(value), key, key_length, member) {
                if (pretty) append_indent(buf, level + 1);
                append_escaped(buf, key, key_length);
                buf.append(':');
                if (pretty) buf.append(' ');
                if (!serialize_value(buf, member, level + 1, pretty)) return false;
                if (++i < count) buf.append(',');
                if (pretty) buf.append('\n');
            }
            if (pretty) append_indent(buf, level);
            buf.append('}');
            return !buf.failed;
        }
        case JSON_ARRAY: {
            size_t count = json_array_size(value);
            if (count == 0) {
                buf.append("[]", 2);
                return !buf.failed;
            }
            buf.append('[');
            if (pretty) buf.append('\n');
            for (size_t i = 0; i < count; ++i) {
                if (pretty) append_indent(buf, level + 1);
                if (!serialize_value(buf, json_array_get(value, i), level + 1, pretty))
                    return false;
                if (i + 1 < count) buf.append(',');
                if (pretty) buf.append('\n');
            }
            if (pretty) append_indent(buf, level);
            buf.append(']');
            return !buf.failed;
        }
        case JSON_STRING:
            append_escaped(buf, json_string_value(value), json_string_length(value));
            return !buf.failed;
        case JSON_INTEGER:
        case JSON_REAL: {
            /* Integers have no path of their own: both print as the double. */
            char number[64];
            if (!format_number(json_number_value(value), number, sizeof number)) return false;
            buf.append(number);
            return !buf.failed;
        }
        case JSON_TRUE:
            buf.append("true", 4);
            return !buf.failed;
        case JSON_FALSE:
            buf.append("false", 5);
            return !buf.failed;
        case JSON_NULL:
            buf.append("null", 4);
            return !buf.failed;
    }
    return false;
}

/* true and false are two jansson types but one JSON type to compare. */
int type_class(const json_t *value) {
    switch (json_typeof(value)) {
        case JSON_INTEGER:
        case JSON_REAL:
            return JSON_REAL;
        case JSON_TRUE:
        case JSON_FALSE:
            return JSON_TRUE;
        default:
            return json_typeof(value);
    }
}

const size_t kBomLength = 3;

bool starts_with_bom(const char *text, size_t length) {
    return length >= kBomLength && memcmp(text, "\xEF\xBB\xBF", kBomLength) == 0;
}

json_t *parse_buffer(const char *text, size_t length) {
    if (starts_with_bom(text, length)) {
        text += kBomLength;
        length -= kBomLength;
    }
    size_t i = 0;
    while (i < length && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n' || text[i] == '\r'))
        ++i;
    if (i == length) return nullptr;
    /* Numbers are always reals so that 2^64 and beyond are read as parson reads them. */
    const size_t flags = JSON_DECODE_ANY | JSON_DISABLE_EOF_CHECK | JSON_REJECT_DUPLICATES |
                         JSON_DECODE_INT_AS_REAL | JSON_ALLOW_NUL;
    json_error_t error;
    return json_loadb(text, length, flags, &error);
}

}  // namespace

extern "C" {

char *vyr_json_serialize(const json_t *value, int pretty) {
    if (!value) return nullptr;
    TextBuffer buf;
    if (!buf.reserve(0)) return nullptr;
    if (!serialize_value(buf, value, 0, pretty != 0)) return nullptr;
    return buf.release();
}

json_t *vyr_json_parse_string(const char *text) {
    if (!text) return nullptr;
    return parse_buffer(text, strlen(text));
}

json_t *vyr_json_parse_file(const char *path) {
    if (!path) return nullptr;
    FILE *file = fopen(path, "rb");
    if (!file) return nullptr;
    TextBuffer buf;
    char chunk[4096];
    size_t got;
    while ((got = fread(chunk, 1, sizeof chunk, file)) > 0) buf.append(chunk, got);
    bool read_error = ferror(file) != 0;
    fclose(file);
    if (read_error || buf.failed || buf.length == 0) return nullptr;
    return parse_buffer(buf.data, buf.length);
}

int vyr_json_validate(const json_t *schema, const json_t *value) {
    if (!schema || !value) return -1;
    /* A null template stands for any value. */
    if (json_is_null(schema)) return 0;
    if (type_class(schema) != type_class(value)) return -1;
    if (json_is_object(schema)) {
        const char *key;
        size_t key_length;
        json_t *expected;
        json_object_keylen_foreach(const_cast<json_t *>(schema), key, key_length, expected) {
            const json_t *found = json_object_getn(value, key, key_length);
            if (!found || vyr_json_validate(expected, found) != 0) return -1;
        }
        return 0;
    }
    if (json_is_array(schema)) {
        if (json_array_size(schema) == 0) return 0;
        /* Only the first template element counts. */
        const json_t *element = json_array_get(schema, 0);
        for (size_t i = 0; i < json_array_size(value); ++i)
            if (vyr_json_validate(element, json_array_get(value, i)) != 0) return -1;
        return 0;
    }
    return 0;
}

int vyr_json_value_equals(const json_t *a, const json_t *b) {
    if (!a || !b) return a == b;
    if (type_class(a) != type_class(b)) return 0;
    switch (json_typeof(a)) {
        case JSON_OBJECT: {
            if (json_object_size(a) != json_object_size(b)) return 0;
            const char *key;
            size_t key_length;
            json_t *member;
            json_object_keylen_foreach(const_cast<json_t *>(a), key, key_length, member) {
                if (!vyr_json_value_equals(member, json_object_getn(b, key, key_length))) return 0;
            }
            return 1;
        }
        case JSON_ARRAY: {
            size_t count = json_array_size(a);
            if (count != json_array_size(b)) return 0;
            for (size_t i = 0; i < count; ++i)
                if (!vyr_json_value_equals(json_array_get(a, i), json_array_get(b, i))) return 0;
            return 1;
        }
        case JSON_STRING:
            return json_string_length(a) == json_string_length(b) &&
                   memcmp(json_string_value(a), json_string_value(b), json_string_length(a)) == 0;
        case JSON_INTEGER:
        case JSON_REAL:
            return fabs(json_number_value(a) - json_number_value(b)) < 0.000001;
        case JSON_TRUE:
        case JSON_FALSE:
            return json_typeof(a) == json_typeof(b);
        case JSON_NULL:
            return 1;
    }
    return 0;
}

}  // extern "C"
