/* Built-in value types, field and type definitions, and how a value held in
 * an event record is rendered as JSON. */
#include "vyr_types.h"

#include <ctype.h>
#include <stdlib.h>
#include <string.h>

#include "vyr_logger.h"
#include "vyr_schema.h"
#include "vyr_schema_json.h"
#include "vyr_type_system.h"

namespace {

struct BuiltinType {
    uint32_t id;
    const char *name;
    uint64_t size;
};

/* Ordered by id; the all-zero entry (id 0, the compound kind) ends the table. */
const BuiltinType kBuiltinTypes[] = {
    {VYR_TYPE_BOOL, "bool", 1},
    {VYR_TYPE_CHAR, "char", 1},
    {VYR_TYPE_SHORT, "short", 2},
    {VYR_TYPE_INT, "int", 4},
    {VYR_TYPE_LONG, "long", 8},
    {VYR_TYPE_LONG_LONG, "long long", 8},
    {VYR_TYPE_UNSIGNED_CHAR, "unsigned char", 1},
    {VYR_TYPE_UNSIGNED_SHORT, "unsigned short", 2},
    {VYR_TYPE_UNSIGNED_INT, "unsigned int", 4},
    {VYR_TYPE_UNSIGNED_LONG, "unsigned long", 8},
    {VYR_TYPE_UNSIGNED_LONG_LONG, "unsigned long long", 8},
    {VYR_TYPE_FLOAT, "float", 4},
    {VYR_TYPE_DOUBLE, "double", 8},
    {VYR_TYPE_INT8, "int8_t", 1},
    {VYR_TYPE_INT16, "int16_t", 2},
    {VYR_TYPE_INT32, "int32_t", 4},
    {VYR_TYPE_INT64, "int64_t", 8},
    {VYR_TYPE_UINT8, "uint8_t", 1},
    {VYR_TYPE_UINT16, "uint16_t", 2},
    {VYR_TYPE_UINT32, "uint32_t", 4},
    {VYR_TYPE_UINT64, "uint64_t", 8},
    {VYR_TYPE_TIMESTAMP, "timestamp", 8},
    {},
};

const char *const kValueTypeNames[] = {"ABSOLUTE", "RUNNING_SUM"};

const BuiltinType *find_by_id(uint32_t id) {
    for (const BuiltinType *t = kBuiltinTypes; t->id != 0; ++t)
        if (t->id == id) return t;
    return nullptr;
}

vyr_type_definition_t *make_builtin_definition(const BuiltinType &entry) {
    vyr_type_definition_t *def = vyr_create_type_definition();
    if (!def) return nullptr;
    def->name = strdup(entry.name);
    if (!def->name) {
        vyr_destroy_type_definition(def);
        return nullptr;
    }
    def->builtin_id = entry.id;
    def->size = entry.size;
    return def;
}

/* Record fields are packed without alignment, so every read goes through memcpy. */
template <typename T>
T load(const void *value) {
    T out;
    memcpy(&out, value, sizeof out);
    return out;
}

json_t *hex_string(uint64_t bits, bool long_long) {
    char text[32];
    if (long_long)
        snprintf(text, sizeof text, "0x%016llx", static_cast<unsigned long long>(bits));
    else
        snprintf(text, sizeof text, "0x%016lx", static_cast<unsigned long>(bits));
    return json_string(text);
}

bool is_guid_name(const char *field_name) {
    return field_name && (strstr(field_name, "guid") || strstr(field_name, "GUID"));
}

/* One element of a field: built-in types by their id, compound ones as an object. */
json_t *jsonify_element(const vyr_type_field_definition_t *field, const void *value) {
    const vyr_type_definition_t *type = field->type_definition;
    if (!type) return nullptr;
    if (type->builtin_id != 0)
        return vyr_builtin_type_jsonify_with_field_name(type->builtin_id, value, field->field_name);
    return vyr_type_definition_jsonify_data(type, value);
}

}  // namespace

extern "C" {

const char *vyr_builtin_type_name(uint32_t id) {
    const BuiltinType *t = find_by_id(id);
    return t ? t->name : nullptr;
}

uint64_t vyr_builtin_type_size(uint32_t id) {
    const BuiltinType *t = find_by_id(id);
    return t ? t->size : 0;
}

uint32_t vyr_builtin_type_from_name(const char *name) {
    if (!name) return 0;
    for (const BuiltinType *t = kBuiltinTypes; t->id != 0; ++t)
        if (strcmp(t->name, name) == 0) return t->id;
    return 0;
}

int vyr_builtin_type_get_type_defs(vyr_type_definition_t **defs, int capacity) {
    if (!defs || capacity <= 0) return 0;
    int stored = 0;
    for (const BuiltinType *t = kBuiltinTypes; t->id != 0 && stored < capacity; ++t) {
        vyr_type_definition_t *def = make_builtin_definition(*t);
        if (!def) return -1;
        defs[stored++] = def;
    }
    return stored;
}

int vyr_builtin_type_register_types(struct vyr_type_system *ts) {
    if (!ts || !ts->builtin_schema) return 0;
    vyr_schema_t *schema = ts->builtin_schema;
    for (const BuiltinType *t = kBuiltinTypes; t->id != 0; ++t) {
        if (schema->num_types >= VYR_MAX_TYPES) return 0;
        vyr_type_definition_t *def = make_builtin_definition(*t);
        if (!def) return 0;
        schema->types[schema->num_types++] = def;
    }
    return 1;
}

void vyr_builtin_type_print_info(FILE *stream) {
    if (!stream) return;
    fprintf(stream, " %2s %-25s  %-8s\n", "Id", "Name", "Size");
    for (const BuiltinType *t = kBuiltinTypes; t->id != 0; ++t)
        fprintf(stream, " %2d %-25s  %-8zu\n", static_cast<int>(t->id), t->name,
                static_cast<size_t>(t->size));
}

const char *vyr_value_type_string(vyr_value_type_t mode) {
    unsigned index = static_cast<unsigned>(mode);
    return index < sizeof kValueTypeNames / sizeof kValueTypeNames[0] ? kValueTypeNames[index]
                                                                      : nullptr;
}

vyr_value_type_t vyr_value_type_from_string(const char *text) {
    if (text) {
        if (strcmp(text, "ABSOLUTE") == 0) return VYR_VALUE_ABSOLUTE;
        if (strcmp(text, "RUNNING_SUM") == 0) return VYR_VALUE_RUNNING_SUM;
        /* Older schemas call running sums monotonic. */
        if (strcmp(text, "ABSOLUTE_MONOTONIC") == 0) return VYR_VALUE_RUNNING_SUM;
    }
    return static_cast<vyr_value_type_t>(-1);
}

vyr_type_field_definition_t *vyr_create_type_field_definition(void) {
    return static_cast<vyr_type_field_definition_t *>(
        calloc(1, sizeof(vyr_type_field_definition_t)));
}

void vyr_destroy_type_field_definition(vyr_type_field_definition_t *field) {
    if (!field) return;
    free(field->field_name);
    free(field->description);
    free(field->type_name);
    free(field);
}

vyr_type_field_definition_t *vyr_type_field_definition_from_info(
    const vyr_type_field_info_t *info) {
    if (!info) return nullptr;
    vyr_type_field_definition_t *field = vyr_create_type_field_definition();
    if (!field) return nullptr;
    bool ok = true;
    if (info->name && !(field->field_name = strdup(info->name))) ok = false;
    if (ok && info->description && !(field->description = strdup(info->description))) ok = false;
    if (ok && info->type_name && !(field->type_name = strdup(info->type_name))) ok = false;
    if (!ok) {
        vyr_destroy_type_field_definition(field);
        return nullptr;
    }
    field->counting_mode = info->counting_mode;
    field->array_length = info->array_length;
    return field;
}

vyr_type_definition_t *vyr_create_type_definition(void) {
    return static_cast<vyr_type_definition_t *>(calloc(1, sizeof(vyr_type_definition_t)));
}

void vyr_destroy_type_definition(vyr_type_definition_t *type) {
    if (!type) return;
    if (type->fields)
        for (int32_t i = 0; i < type->num_fields; ++i)
            vyr_destroy_type_field_definition(type->fields[i]);
    free(type->name);
    free(type->fields);
    free(type);
}

json_t *vyr_builtin_type_jsonify(uint32_t id, const void *value) {
    return vyr_builtin_type_jsonify_with_field_name(id, value, nullptr);
}

json_t *vyr_builtin_type_jsonify_with_field_name(uint32_t id, const void *value,
                                                 const char *field_name) {
    if (id < VYR_TYPE_BOOL || id > VYR_TYPE_TIMESTAMP || !value) return nullptr;
    /* 64-bit identifiers lose bits as doubles, so GUID fields go out as hex text. */
    bool guid = is_guid_name(field_name);
    switch (id) {
        case VYR_TYPE_BOOL:
        case VYR_TYPE_CHAR:
        case VYR_TYPE_UNSIGNED_CHAR:
        case VYR_TYPE_UINT8:
            return json_real(load<uint8_t>(value));
        case VYR_TYPE_INT8:
            return json_real(load<int8_t>(value));
        case VYR_TYPE_SHORT:
        case VYR_TYPE_INT16:
            return json_real(load<int16_t>(value));
        case VYR_TYPE_UNSIGNED_SHORT:
        case VYR_TYPE_UINT16:
            return json_real(load<uint16_t>(value));
        case VYR_TYPE_INT:
        case VYR_TYPE_INT32:
            return json_real(load<int32_t>(value));
        case VYR_TYPE_UNSIGNED_INT:
        case VYR_TYPE_UINT32:
            return json_real(load<uint32_t>(value));
        case VYR_TYPE_LONG:
        case VYR_TYPE_LONG_LONG:
            return json_real(static_cast<double>(load<int64_t>(value)));
        case VYR_TYPE_FLOAT:
            return json_real(load<float>(value));
        case VYR_TYPE_DOUBLE:
            return json_real(load<double>(value));
        case VYR_TYPE_TIMESTAMP:
            return json_real(static_cast<double>(load<uint64_t>(value)));
        case VYR_TYPE_INT64:
            if (guid) return hex_string(load<uint64_t>(value), false);
            return json_real(static_cast<double>(load<int64_t>(value)));
        case VYR_TYPE_UNSIGNED_LONG:
        case VYR_TYPE_UINT64:
            if (guid) return hex_string(load<uint64_t>(value), false);
            return json_real(static_cast<double>(load<uint64_t>(value)));
        case VYR_TYPE_UNSIGNED_LONG_LONG:
            if (guid) return hex_string(load<uint64_t>(value), true);
            return json_real(static_cast<double>(load<uint64_t>(value)));
    }
    return nullptr;
}

json_t *vyr_type_field_jsonify_data(const vyr_type_field_definition_t *field, const void *value) {
    if (!field || !value) return nullptr;
    if (field->array_length == 1) return jsonify_element(field, value);

    const uint32_t element_id = field->type_definition ? field->type_definition->builtin_id : 0;
    const unsigned char *bytes = static_cast<const unsigned char *>(value);
    if (element_id == VYR_TYPE_CHAR || element_id == VYR_TYPE_UNSIGNED_CHAR) {
        /* Text slots are zero-padded: keep the printable prefix only. */
        size_t length = 0;
        while (length < field->array_length && isprint(bytes[length])) ++length;
        json_t *text = json_stringn(reinterpret_cast<const char *>(bytes), length);
        if (!text)
            VYR_ERROR("Failed to serialize field %s of type %s[%u] as string", field->field_name,
                      field->type_name, field->array_length);
        return text;
    }

    json_t *array = json_array();
    if (!array) return nullptr;
    for (uint32_t i = 0; i < field->array_length; ++i) {
        json_t *element = jsonify_element(field, bytes + i * field->type_size);
        if (!element || json_array_append_new(array, element) != 0) {
            json_decref(array);
            return nullptr;
        }
    }
    return array;
}

}  // extern "C"
