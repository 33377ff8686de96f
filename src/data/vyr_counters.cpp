#include "vyr_counters.h"

#include <stdlib.h>

#include <new>
#include <set>
#include <string>
#include <utility>

vyr_counters_schema_t *vyr_create_counters_schema(void) {
    vyr_counters_schema_t *schema =
        (vyr_counters_schema_t *)calloc(1, sizeof(vyr_counters_schema_t));
    if (!schema) return NULL;
    schema->groups = json_array();
    if (!schema->groups) {
        free(schema);
        return NULL;
    }
    return schema;
}

void vyr_destroy_counters_schema(vyr_counters_schema_t *schema) {
    if (!schema) return;
    json_decref(schema->groups);
    free(schema);
}

json_t *vyr_counters_schema_jsonify(const vyr_counters_schema_t *schema) {
    if (!schema) return NULL;
    json_t *object = json_object();
    if (!object) return NULL;
    json_t *groups = schema->groups ? json_deep_copy(schema->groups) : json_array();
    if (!groups || json_object_set_new(object, "counter_groups", groups) != 0 ||
        json_object_set_new(object, "size", json_real((double)schema->size)) != 0) {
        json_decref(object);
        return NULL;
    }
    return object;
}

vyr_counters_schema_t *vyr_counters_schema_from_json(const json_t *value) {
    const json_t *groups = json_object_get(value, "counter_groups");
    if (!json_is_array(groups)) return NULL;
    vyr_counters_schema_t *schema =
        (vyr_counters_schema_t *)calloc(1, sizeof(vyr_counters_schema_t));
    if (!schema) return NULL;
    schema->groups = json_deep_copy(groups);
    if (!schema->groups) {
        free(schema);
        return NULL;
    }
    const json_t *size = json_object_get(value, "size");
    double d = json_number_value(size);
    // Clamp: a double outside the 32-bit range cannot be converted as it is.
    if (d > 0) schema->size = d >= 4294967295.0 ? UINT32_MAX : (uint32_t)d;
    return schema;
}

struct vyr_field_set {
    std::set<std::string> types;                           // whole types
    std::set<std::pair<std::string, std::string>> fields;  // (type, field)
};

vyr_field_set_t *vyr_create_field_set(void) {
    return new (std::nothrow) vyr_field_set();
}

void vyr_destroy_field_set(vyr_field_set_t *fset) {
    delete fset;
}

int vyr_field_set_add(vyr_field_set_t *fset, const char *type_name, const char *field_name) {
    if (!fset || !type_name) return -1;
    try {
        if (field_name)
            fset->fields.emplace(type_name, field_name);
        else
            fset->types.emplace(type_name);
    } catch (...) {
        return -1;
    }
    return 0;
}

int vyr_field_set_type_is_of_interest(const vyr_field_set_t *fset, const char *type_name) {
    if (!fset) return 1;
    if (!type_name) return 0;
    try {
        std::string type(type_name);
        if (fset->types.count(type)) return 1;
        auto it = fset->fields.lower_bound(std::make_pair(type, std::string()));
        return it != fset->fields.end() && it->first == type;
    } catch (...) {
        return 0;
    }
}

int vyr_field_set_field_is_wanted(const vyr_field_set_t *fset, const char *type_name,
                                  const char *field_name) {
    if (!fset) return 1;
    if (!type_name || !field_name) return 0;
    try {
        if (fset->types.count(type_name)) return 1;
        return fset->fields.count(std::make_pair(std::string(type_name), std::string(field_name)))
                   ? 1
                   : 0;
    } catch (...) {
        return 0;
    }
}
