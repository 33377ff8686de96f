#include "vyr_schema_json.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "vyr_env.h"
#include "vyr_json.h"
#include "vyr_logger.h"
#include "vyr_md5.h"

// Key order of these objects is part of the format: identifiers are digests of the text.
static const char FIELD_TEMPLATE[] =
    "{\"field_name\":\"\",\"description\":\"\",\"type_size\":0,\"offset\":0,"
    "\"type_name\":\"\",\"counting_mode\":\"\",\"index\":0}";
static const char FIELD_TEMPLATE_NO_INDEX[] =
    "{\"field_name\":\"\",\"description\":\"\",\"type_size\":0,\"offset\":0,"
    "\"type_name\":\"\",\"counting_mode\":\"\"}";
static const char TYPE_TEMPLATE[] = "{\"name\":\"\",\"size\":0,\"fields\":[]}";
static const char SCHEMA_TEMPLATE[] =
    "{\"vyr_version\":\"\",\"provider_name\":\"\",\"provider_version\":\"\",\"types\":[]}";

static const char SCHEMA_TITLE[] = "Vyrhub schema";
static const char SCHEMA_FORMAT_VERSION[] = "1.5.0";

// Sets a key to a new value; the value (possibly NULL) is consumed either way.
static bool set_new(json_t *object, const char *key, json_t *value) {
    return value && json_object_set_new(object, key, value) == 0;
}

static bool set_string(json_t *object, const char *key, const char *text) {
    // A missing text cannot become a JSON string, so the record cannot be written.
    return text && set_new(object, key, json_string(text));
}

static bool set_number(json_t *object, const char *key, double number) {
    return set_new(object, key, json_real(number));
}

// JSON numbers are doubles; converting an out-of-range double to an integer
// is undefined, so clamp before narrowing.
static uint64_t number_to_u64(const json_t *value) {
    double d = json_number_value(value);
    if (!(d == d)) return 0;
    if (d < 0) {
        if (d <= -9223372036854775808.0) return (uint64_t)INT64_MIN;
        return (uint64_t)(int64_t)d;
    }
    if (d >= 18446744073709551616.0) return UINT64_MAX;
    return (uint64_t)d;
}

// A mode read from a foreign text may hold any 32-bit value; loading it as the
// enumeration would be undefined, so look at its bits.
static const char *counting_mode_name(const vyr_type_field_definition_t *field) {
    uint32_t mode;
    memcpy(&mode, &field->counting_mode, sizeof mode);
    if (mode > VYR_VALUE_RUNNING_SUM) return NULL;
    return vyr_value_type_string((vyr_value_type_t)mode);
}

json_t *vyr_type_field_definition_jsonify(const vyr_type_field_definition_t *field) {
    if (!field) return NULL;
    json_t *object = json_object();
    if (!object) return NULL;
    bool ok = set_string(object, "field_name", field->field_name) &&
              set_string(object, "description", field->description) &&
              set_string(object, "type_name", field->type_name) &&
              set_string(object, "counting_mode", counting_mode_name(field));
    if (ok && field->array_length > 1)
        ok = set_number(object, "array_length", (double)field->array_length);
    ok = ok && set_number(object, "offset", (double)field->offset) &&
         set_number(object, "type_size", (double)field->type_size) &&
         set_number(object, "index", (double)field->index);
    if (!ok) {
        json_decref(object);
        return NULL;
    }
    return object;
}

json_t *vyr_type_definition_jsonify(const vyr_type_definition_t *type) {
    if (!type) return NULL;
    json_t *object = json_object();
    json_t *fields = json_array();
    bool ok = object && fields && set_string(object, "name", type->name) &&
              set_number(object, "size", (double)type->size);
    for (int i = 0; ok && i < type->num_fields; ++i) {
        json_t *field = vyr_type_field_definition_jsonify(type->fields[i]);
        ok = field && json_array_append_new(fields, field) == 0;
    }
    if (ok) {
        ok = json_object_set_new(object, "fields", fields) == 0;
        fields = NULL;  // consumed
    }
    json_decref(fields);
    if (!ok) {
        json_decref(object);
        return NULL;
    }
    return object;
}

json_t *vyr_schema_jsonify(const vyr_schema_t *schema) {
    // Without types there is no JSON form, and so no identifier.
    if (!schema || schema->num_types == 0) return NULL;
    json_t *object = json_object();
    json_t *types = json_array();
    bool ok = object && types && set_string(object, "title", SCHEMA_TITLE) &&
              set_string(object, "vyr_version", SCHEMA_FORMAT_VERSION) &&
              set_string(object, "provider_name", schema->name) &&
              set_string(object, "provider_version", vyr_version_to_string(schema->version));
    for (int i = 0; ok && i < schema->num_types; ++i) {
        json_t *type = vyr_type_definition_jsonify(schema->types[i]);
        ok = type && set_number(type, "type_index", (double)i);
        if (ok) {
            ok = json_array_append_new(types, type) == 0;
        } else {
            json_decref(type);
        }
    }
    if (ok) {
        ok = json_object_set_new(object, "types", types) == 0;
        types = NULL;
    }
    json_decref(types);
    if (!ok) {
        json_decref(object);
        return NULL;
    }
    return object;
}

char *vyr_type_definition_serialize(const vyr_type_definition_t *type, int pretty) {
    json_t *value = vyr_type_definition_jsonify(type);
    if (!value) return NULL;
    char *text = vyr_json_serialize(value, pretty);
    json_decref(value);
    return text;
}

int vyr_get_schema_id_from_pretty_json_string(const char *text, vyr_schema_id_t id) {
    if (!text || !id) return 0;
    vyr_MD5(text, strlen(text), id);
    return 1;
}

int vyr_type_system_get_json_schema_id(vyr_schema_id_t id, const json_t *schema_object) {
    if (!schema_object) return 0;
    char *text = vyr_json_serialize(schema_object, 1);
    int ok = vyr_get_schema_id_from_pretty_json_string(text, id);
    free(text);
    return ok;
}

// 0 when the value matches the template text; -1 otherwise, -2 when the
// template itself could not be parsed (already logged).
static int validate_against(const json_t *value, const char *template_text,
                            const char *parse_error_format) {
    json_t *schema = vyr_json_parse_string(template_text);
    if (!schema) {
        VYR_ERROR(parse_error_format, template_text);
        return -2;
    }
    int result = vyr_json_validate(schema, value);
    json_decref(schema);
    return result == 0 ? 0 : -1;
}

static char *copy_member_string(const json_t *object, const char *key) {
    const char *text = json_string_value(json_object_get(object, key));
    return text ? strdup(text) : NULL;
}

vyr_type_field_definition_t *vyr_type_field_definition_from_json(const json_t *value) {
    if (validate_against(value, FIELD_TEMPLATE, "Unable to parse schema to JSON value: '%s'") !=
            0 &&
        validate_against(value, FIELD_TEMPLATE_NO_INDEX,
                         "Unable to parse schema to JSON value (without index): '%s'") != 0) {
        VYR_ERROR("Field definition JSON does not match schema with or without 'index'.");
        return NULL;
    }
    vyr_type_field_definition_t *field = vyr_create_type_field_definition();
    if (!field) {
        VYR_ERROR("Failed to allocate field definition: %s", strerror(errno));
        return NULL;
    }
    json_t *array_length = json_object_get(value, "array_length");
    uint16_t length = array_length ? (uint16_t)number_to_u64(array_length) : 0;
    field->array_length = length == 0 ? 1 : length;
    field->counting_mode =
        vyr_value_type_from_string(json_string_value(json_object_get(value, "counting_mode")));
    field->field_name = copy_member_string(value, "field_name");
    field->description = copy_member_string(value, "description");
    field->type_name = copy_member_string(value, "type_name");
    if (!field->field_name || !field->description || !field->type_name) {
        VYR_ERROR("Failed to allocate field definition: %s", strerror(errno));
        vyr_destroy_type_field_definition(field);
        return NULL;
    }
    field->type_size = number_to_u64(json_object_get(value, "type_size"));
    field->offset = number_to_u64(json_object_get(value, "offset"));
    json_t *index = json_object_get(value, "index");
    if (index) field->index = (uint16_t)number_to_u64(index);
    // The field's type is resolved later, against the schema it ends up in.
    return field;
}

vyr_type_definition_t *vyr_type_definition_from_json_filtered_by_fset(const json_t *value,
                                                                      const vyr_field_set_t *fset,
                                                                      int *flag) {
    if (flag) *flag = 0;
    int valid =
        validate_against(value, TYPE_TEMPLATE, "Unable to parse schema to JSON value: '%s'");
    if (valid != 0) {
        if (valid == -1)
            VYR_ERROR("Type definition JSON does not match schema '%s'", TYPE_TEMPLATE);
        return NULL;
    }
    vyr_type_definition_t *type = vyr_create_type_definition();
    if (!type) {
        VYR_ERROR("Failed to allocate type definition object: %s", strerror(errno));
        return NULL;
    }
    type->name = copy_member_string(value, "name");
    if (!type->name) {
        VYR_ERROR("Failed to allocate type definition object: %s", strerror(errno));
        vyr_destroy_type_definition(type);
        return NULL;
    }
    if (fset && !vyr_field_set_type_is_of_interest(fset, type->name)) {
        VYR_DEBUG("Skipping type definition '%s' as it is not required by the provided field set",
                  type->name);
        if (flag) *flag = 1;
        vyr_destroy_type_definition(type);
        return NULL;
    }
    // Kept as stored: filtering drops fields but the record layout stays the sender's.
    type->size = number_to_u64(json_object_get(value, "size"));
    if (type->size != 0) {
        const json_t *fields = json_object_get(value, "fields");
        size_t count = json_array_size(fields);
        if (count > 0) {
            type->fields = (vyr_type_field_definition_t **)calloc(
                count, sizeof(vyr_type_field_definition_t *));
            if (!type->fields) {
                VYR_ERROR("Failed to allocate type definition object: %s", strerror(errno));
                vyr_destroy_type_definition(type);
                return NULL;
            }
        }
        for (size_t i = 0; i < count; ++i) {
            vyr_type_field_definition_t *field =
                vyr_type_field_definition_from_json(json_array_get(fields, i));
            if (!field) {
                vyr_destroy_type_definition(type);
                return NULL;
            }
            if (fset && !vyr_field_set_field_is_wanted(fset, type->name, field->field_name)) {
                VYR_DEBUG("Skipping field '%s.%s' as it is not required by the provided field set",
                          type->name, field->field_name);
                vyr_destroy_type_field_definition(field);
                continue;
            }
            type->fields[type->num_fields++] = field;
        }
    }
    if (flag) *flag = 1;
    if (type->num_fields == 0) {
        VYR_DEBUG("Skipping type definition '%s' as it has no fields after filtering by field set",
                  type->name);
        vyr_destroy_type_definition(type);
        return NULL;
    }
    return type;
}

vyr_type_definition_t *vyr_type_definition_from_json(const json_t *value) {
    int flag = 0;
    return vyr_type_definition_from_json_filtered_by_fset(value, NULL, &flag);
}

vyr_schema_t *vyr_schema_from_json_filtered_by_fset(const json_t *value,
                                                    const vyr_field_set_t *fset, int *flag) {
    if (flag) *flag = 0;
    int valid =
        validate_against(value, SCHEMA_TEMPLATE, "Unable to parse schema to JSON value: '%s'");
    if (valid != 0) {
        // Counters schemas fail here too; the type system tells them apart this way.
        if (valid == -1) VYR_INFO("Not an event schema");
        return NULL;
    }
    const char *format_version = json_string_value(json_object_get(value, "vyr_version"));
    if (!vyr_version_strings_are_compatible(format_version, SCHEMA_FORMAT_VERSION)) {
        VYR_ERROR("Schema version %s is incompatible with current version %s", format_version,
                  SCHEMA_FORMAT_VERSION);
        return NULL;
    }
    const char *name = json_string_value(json_object_get(value, "provider_name"));
    const char *version = json_string_value(json_object_get(value, "provider_version"));
    vyr_schema_t *schema = vyr_create_schema(name, vyr_version_from_string(version));
    if (!schema) {
        VYR_ERROR("Failed to initialize '%s' schema: %s", name, strerror(errno));
        return NULL;
    }
    const json_t *types = json_object_get(value, "types");
    size_t count = json_array_size(types);
    for (size_t i = 0; i < count; ++i) {
        const json_t *element = json_array_get(types, i);
        if (!element) {
            VYR_ERROR("Failed to get type #%d from JSON array", (int)i);
            vyr_destroy_schema(schema);
            return NULL;
        }
        int dropped = 0;
        vyr_type_definition_t *type =
            vyr_type_definition_from_json_filtered_by_fset(element, fset, &dropped);
        if (!type) {
            if (dropped) continue;
            VYR_ERROR("Failed to deserialize type #%d from JSON array", (int)i);
            vyr_destroy_schema(schema);
            return NULL;
        }
        if (schema->num_types >= VYR_MAX_TYPES) {
            VYR_ERROR("Failed to deserialize type #%d from JSON array", (int)i);
            vyr_destroy_type_definition(type);
            vyr_destroy_schema(schema);
            return NULL;
        }
        schema->types[schema->num_types++] = type;
    }
    if (flag) *flag = 1;
    if (fset && schema->num_types == 0) {
        VYR_DEBUG("No types found in the schema after filtering by field set");
        vyr_destroy_schema(schema);
        return NULL;
    }
    return schema;
}

vyr_schema_t *vyr_schema_from_json(const json_t *value) {
    int flag = 0;
    return vyr_schema_from_json_filtered_by_fset(value, NULL, &flag);
}

int vyr_string_contains_guid(const char *name) {
    if (!name) return 0;
    size_t length = strlen(name);
    if (length < 4) return 0;
    for (size_t i = 0; i + 4 <= length; ++i) {
        if (tolower((unsigned char)name[i]) != 'g' || tolower((unsigned char)name[i + 1]) != 'u' ||
            tolower((unsigned char)name[i + 2]) != 'i' ||
            tolower((unsigned char)name[i + 3]) != 'd')
            continue;
        bool letter_before = i > 0 && isalpha((unsigned char)name[i - 1]);
        bool letter_after = i + 4 < length && isalpha((unsigned char)name[i + 4]);
        if (!letter_before && !letter_after) return 1;
    }
    return 0;
}

// Read once for the life of the process; unset or empty means on.
static bool guid_conversion_enabled() {
    static const bool enabled = [] {
        const char *value = vyr_getenv("VYR_CONVERT_GUID_TO_HEX_STRING");
        if (!value || value[0] == '\0') return true;
        int c = tolower((unsigned char)value[0]);
        return c == '1' || c == 't' || c == 'y';
    }();
    return enabled;
}

// GUIDs above 2^53 would lose bits as JSON numbers, so they go out as hex text.
static json_t *guid_to_hex(const vyr_type_field_definition_t *field, const unsigned char *address) {
    uint64_t guid;
    memcpy(&guid, address, sizeof guid);
    char *text = (char *)malloc(19);
    if (!text) {
        VYR_ERROR("Failed to allocate memory for hex string");
        return NULL;
    }
    int written = snprintf(text, 19, "0x%016lx", (unsigned long)guid);
    if (written != 18) {
        VYR_ERROR("Failed to convert field %s to a hex string", field->field_name);
        free(text);
        return NULL;
    }
    json_t *value = json_string(text);
    free(text);
    if (!value) VYR_ERROR("Failed to serialize field %s to a hex string", field->field_name);
    return value;
}

json_t *vyr_type_definition_jsonify_data(const vyr_type_definition_t *type, const void *record) {
    if (!type || !record) return NULL;
    json_t *object = json_object();
    if (!object) return NULL;
    const unsigned char *base = (const unsigned char *)record;
    bool convert = guid_conversion_enabled();
    for (int i = 0; i < type->num_fields; ++i) {
        const vyr_type_field_definition_t *field = type->fields[i];
        const unsigned char *address = base + field->offset;
        json_t *value = NULL;
        if (convert && vyr_string_contains_guid(field->field_name))
            value = guid_to_hex(field, address);
        if (!value) value = vyr_type_field_jsonify_data(field, address);
        if (!field->field_name || !set_new(object, field->field_name, value)) {
            if (!field->field_name) json_decref(value);
            json_decref(object);
            return NULL;
        }
    }
    return object;
}
