#include "vyr_type_system.h"

#include <stdlib.h>
#include <string.h>

#include "vyr_json.h"
#include "vyr_logger.h"
#include "vyr_md5.h"
#include "vyr_schema_json.h"

static const char TYPE_SYSTEM_NAME[] = "Vyrhub type system";
static const char TYPE_SYSTEM_VERSION[] = "1.5.0";
// Oldest whole-type-system text the reader still understands: "1.4.0".
static const uint32_t MIN_TYPE_SYSTEM_VERSION = VYR_MAKE_VERSION(1, 4, 0);

static const char *or_null(const char *text) {
    return text ? text : "(null)";
}

vyr_type_system_t *vyr_create_type_system(void) {
    vyr_type_system_t *ts = (vyr_type_system_t *)calloc(1, sizeof(vyr_type_system_t));
    if (!ts) return NULL;
    ts->builtin_schema = vyr_create_schema("<built-in>", VYR_SCHEMA_FORMAT_VERSION);
    if (!ts->builtin_schema) {
        vyr_destroy_type_system(ts);
        return NULL;
    }
    if (!vyr_builtin_type_register_types(ts)) {
        VYR_ERROR("Failed to register built-in types");
        vyr_destroy_type_system(ts);
        return NULL;
    }
    ts->counters_schema = vyr_create_counters_schema();
    if (!ts->counters_schema) {
        VYR_ERROR("Failed to create counters schema object");
        vyr_destroy_type_system(ts);
        return NULL;
    }
    return ts;
}

void vyr_destroy_type_system(vyr_type_system_t *ts) {
    if (!ts) return;
    for (int i = 0; i < VYR_MAX_SCHEMAS; ++i) {
        if (ts->schemas[i]) vyr_destroy_schema(ts->schemas[i]);
    }
    vyr_destroy_schema(ts->builtin_schema);
    vyr_destroy_counters_schema(ts->counters_schema);
    free(ts);
}

// Appends a schema the caller already made; false when the table is full.
static bool append_schema(vyr_type_system_t *ts, vyr_schema_t *schema, uint8_t *schema_index) {
    if (ts->num_schemas >= VYR_MAX_SCHEMAS) return false;
    ts->schemas[ts->num_schemas] = schema;
    if (schema_index) *schema_index = ts->num_schemas;
    ts->num_schemas++;
    return true;
}

vyr_schema_t *vyr_type_system_add_schema(vyr_type_system_t *ts, const char *name, uint32_t version,
                                         uint8_t *schema_index) {
    if (!ts || ts->num_schemas >= VYR_MAX_SCHEMAS) return NULL;
    vyr_schema_t *schema = vyr_create_schema(name, version);
    if (!schema) return NULL;
    schema->parent = ts->builtin_schema;
    // Still empty, so the digest stays all zero and the text reads 32 zeros.
    vyr_schema_update_md5(schema);
    vyr_schema_id_to_schema_string(schema->md5_digest, schema->md5_string);
    append_schema(ts, schema, schema_index);
    return schema;
}

uint8_t vyr_type_system_remove_last_schema(vyr_type_system_t *ts) {
    if (!ts || ts->num_schemas == 0 || !ts->schemas[ts->num_schemas - 1]) return 0;
    ts->num_schemas--;
    vyr_destroy_schema(ts->schemas[ts->num_schemas]);
    ts->schemas[ts->num_schemas] = NULL;
    return ts->num_schemas;
}

int vyr_type_system_find_schema(const vyr_type_system_t *ts, const char *id_text,
                                uint8_t *schema_index) {
    if (!ts || !id_text) return 0;
    for (int i = 0; i < ts->num_schemas; ++i) {
        const vyr_schema_t *schema = ts->schemas[i];
        if (schema && strcmp(schema->md5_string, id_text) == 0) {
            VYR_DEBUG("Schema already exists %s", id_text);
            if (schema_index) *schema_index = (uint8_t)i;
            return 1;
        }
    }
    return 0;
}

void vyr_type_system_update_md5_hashes(vyr_type_system_t *ts) {
    if (!ts) return;
    for (int i = 0; i < ts->num_schemas; ++i) {
        if (ts->schemas[i]) vyr_schema_update_md5(ts->schemas[i]);
    }
}

uint32_t vyr_type_system_get_max_event_type_size(const vyr_type_system_t *ts) {
    if (!ts) return 0;
    uint32_t max = 0;
    for (int i = 0; i < ts->num_schemas; ++i) {
        const vyr_schema_t *schema = ts->schemas[i];
        if (!schema) continue;
        for (int t = 0; t < schema->num_types; ++t) {
            if (!schema->types[t]) continue;
            uint64_t size = schema->types[t]->size;
            uint32_t clamped = size > UINT32_MAX ? UINT32_MAX : (uint32_t)size;
            if (clamped > max) max = clamped;
        }
    }
    return max;
}

uint32_t vyr_type_system_max_type_size(const vyr_type_system_t *ts) {
    if (!ts) return 0;
    uint32_t events = vyr_type_system_get_max_event_type_size(ts);
    uint32_t counters = ts->counters_schema ? ts->counters_schema->size : 0;
    return events > counters ? events : counters;
}

int vyr_type_system_adjust_type_references(vyr_type_system_t *ts, vyr_schema_t *schema) {
    if (!ts || !schema) return 0;
    schema->parent = ts->builtin_schema;
    for (int i = 0; i < schema->num_types; ++i) {
        if (!vyr_schema_adjust_field_type_references(schema, schema->types[i])) return 0;
    }
    return 1;
}

int vyr_type_system_add_schema_from_serialized_json(vyr_type_system_t *ts, const char *text,
                                                    uint8_t *schema_index) {
    if (!ts || ts->num_schemas >= VYR_MAX_SCHEMAS) return -1;
    json_t *value = text ? vyr_json_parse_string(text) : NULL;
    if (!value) {
        VYR_ERROR("Failed to read schemas as JSON");
        return -1;
    }
    vyr_schema_t *schema = vyr_schema_from_json(value);
    vyr_counters_schema_t *counters = vyr_counters_schema_from_json(value);
    json_decref(value);
    if (!schema && !counters) {
        VYR_ERROR("Failed to convert schema from JSON to internal memory representation");
        return -1;
    }
    if (counters) {
        vyr_destroy_schema(schema);
        VYR_DEBUG("FOUND COUNTERS SCHEMA");
        vyr_destroy_counters_schema(ts->counters_schema);
        ts->counters_schema = counters;
        if (schema_index) *schema_index = 255;
        return 0;
    }
    // The sender's own text is what identifies the schema, not our re-serialisation.
    vyr_get_schema_id_from_pretty_json_string(text, schema->md5_digest);
    for (int i = 0; i < ts->num_schemas; ++i) {
        if (ts->schemas[i] &&
            vyr_compare_schema_id(ts->schemas[i]->md5_digest, schema->md5_digest) == 0) {
            VYR_DEBUG("Schema already exists");
            vyr_destroy_schema(schema);
            if (schema_index) *schema_index = (uint8_t)i;
            return 0;
        }
    }
    VYR_DEBUG("FOUND EVENTS SCHEMA");
    vyr_schema_id_to_schema_string(schema->md5_digest, schema->md5_string);
    schema->parent = ts->builtin_schema;
    append_schema(ts, schema, schema_index);
    // A failure here is logged by the resolver; the schema stays registered.
    vyr_type_system_adjust_type_references(ts, schema);
    return 0;
}

int vyr_type_system_clone_schemas(vyr_type_system_t *dst, vyr_type_system_t *src,
                                  uint8_t *schema_index) {
    if (!dst || !src) return -1;
    for (int i = 0; i < src->num_schemas; ++i) {
        vyr_schema_t *schema = src->schemas[i];
        if (!schema) continue;
        // The record itself moves over; the table bound still has to hold.
        if (!vyr_type_system_adjust_type_references(dst, schema) ||
            dst->num_schemas >= VYR_MAX_SCHEMAS) {
            VYR_ERROR("Cannot add schema to type system");
            return -1;
        }
        append_schema(dst, schema, schema_index);
    }
    return 0;
}

vyr_schema_t *vyr_type_system_load_schema_filtered_by_fset(vyr_type_system_t *ts, const char *path,
                                                           const vyr_field_set_t *fset, int *flag) {
    if (flag) *flag = 0;
    if (!ts) return NULL;
    if (ts->num_schemas >= VYR_MAX_SCHEMAS) {
        VYR_ERROR("Failed to load schema: schema limit exceeded '%u'", (unsigned)ts->num_schemas);
        return NULL;
    }
    json_t *value = path ? vyr_json_parse_file(path) : NULL;
    if (!value) {
        VYR_ERROR("Failed reading schema JSON from file '%s'", or_null(path));
        return NULL;
    }
    int read_flag = 0;
    vyr_schema_t *schema = vyr_schema_from_json_filtered_by_fset(value, fset, &read_flag);
    json_decref(value);
    if (!schema) return NULL;
    if (!vyr_type_system_adjust_type_references(ts, schema)) {
        VYR_ERROR("Failed to adjust type fields within schema %s", or_null(schema->name));
        vyr_destroy_schema(schema);
        return NULL;
    }
    append_schema(ts, schema, NULL);
    if (flag) *flag = 1;
    return schema;
}

vyr_schema_t *vyr_type_system_load_schema(vyr_type_system_t *ts, const char *path) {
    return vyr_type_system_load_schema_filtered_by_fset(ts, path, NULL, NULL);
}

json_t *vyr_type_system_jsonify(const vyr_type_system_t *ts) {
    if (!ts) return NULL;
    json_t *object = json_object();
    if (!object) return NULL;
    if (json_object_set_new(object, "name", json_string(TYPE_SYSTEM_NAME)) != 0 ||
        json_object_set_new(object, "version", json_string(TYPE_SYSTEM_VERSION)) != 0) {
        json_decref(object);
        return NULL;
    }
    if (ts->counters_schema) {
        json_t *counters = vyr_counters_schema_jsonify(ts->counters_schema);
        if (!counters || json_object_set_new(object, "counters_schema", counters) != 0) {
            VYR_ERROR("[ts] failed to serialize counters schema");
            json_decref(object);
            return NULL;
        }
    }
    json_t *schemas = json_array();
    if (!schemas || json_object_set_new(object, "schemas", schemas) != 0) {
        json_decref(object);
        return NULL;
    }
    for (int i = 0; i < ts->num_schemas; ++i) {
        // An empty schema has no JSON form and is left out; any other failure
        // fails the whole text rather than drop a schema unseen.
        json_t *schema = vyr_schema_jsonify(ts->schemas[i]);
        if (!schema && (!ts->schemas[i] || ts->schemas[i]->num_types == 0)) continue;
        if (!schema || json_array_append_new(schemas, schema) != 0) {
            json_decref(object);
            return NULL;
        }
    }
    return object;
}

char *vyr_type_system_serialize(const vyr_type_system_t *ts, int pretty) {
    json_t *value = vyr_type_system_jsonify(ts);
    if (!value) return NULL;
    char *text = vyr_json_serialize(value, pretty);
    json_decref(value);
    return text;
}

vyr_type_system_t *vyr_type_system_deserialize(const char *text) {
    json_t *value = text ? vyr_json_parse_string(text) : NULL;
    if (!value) {
        VYR_ERROR("Failed parsing schema JSON string");
        return NULL;
    }
    vyr_type_system_t *ts = vyr_type_system_from_json(value);
    json_decref(value);
    return ts;
}

// Reads the "schemas" array into a fresh type system; false after logging.
static bool read_schemas(vyr_type_system_t *ts, const json_t *schemas) {
    size_t count = json_array_size(schemas);
    if (count > VYR_MAX_SCHEMAS) {
        VYR_ERROR("[ts] Failed to deserialize: number of schemas %zu exceeds limit %d", count,
                  VYR_MAX_SCHEMAS);
        // The table has room for no more; the rest is left unread.
        count = VYR_MAX_SCHEMAS;
    }
    for (size_t i = 0; i < count; ++i) {
        const json_t *element = json_array_get(schemas, i);
        if (!element) {
            VYR_ERROR("[ts] Failed to deserialize: unable to get schema #%d from the array",
                      (int)i);
            return false;
        }
        vyr_schema_t *schema = vyr_schema_from_json(element);
        if (!schema) {
            VYR_ERROR("[ts] Failed to deserialize: unable to decode type schema");
            return false;
        }
        // The text form stays unset until the hashes are updated.
        if (!vyr_type_system_get_json_schema_id(schema->md5_digest, element))
            VYR_ERROR("[ts] Failed to fill schema '%s' md5 digest", or_null(schema->name));
        append_schema(ts, schema, NULL);
        if (!vyr_type_system_adjust_type_references(ts, schema)) {
            VYR_ERROR("[ts] Failed to deserialize: unable to adjust type fields of schema %s",
                      or_null(schema->name));
            return false;
        }
    }
    return true;
}

vyr_type_system_t *vyr_type_system_from_json(const json_t *value) {
    if (!json_is_object(value)) {
        VYR_ERROR("[ts] Failed to deserialize: schema is not a JSON object");
        return NULL;
    }
    const char *version = json_string_value(json_object_get(value, "version"));
    if (!version) {
        VYR_ERROR("[ts] Failed to deserialize: missing Vyrhub schema version");
        return NULL;
    }
    if (vyr_version_compare(vyr_version_from_string(version), MIN_TYPE_SYSTEM_VERSION) < 0) {
        VYR_ERROR(
            "[ts] Failed to deserialize: schema version %s is incompatible with the "
            "deserializer, the minimal supported schema version is %s",
            version, vyr_version_to_string(MIN_TYPE_SYSTEM_VERSION));
        return NULL;
    }
    vyr_type_system_t *ts = vyr_create_type_system();
    if (!ts) {
        VYR_ERROR("[ts] Failed to deserialize: unable to create type system object");
        return NULL;
    }
    vyr_destroy_counters_schema(ts->counters_schema);
    ts->counters_schema = NULL;

    const json_t *counters = json_object_get(value, "counters_schema");
    const json_t *schemas = json_object_get(value, "schemas");
    if (!json_is_array(schemas)) schemas = NULL;
    if (counters) {
        ts->counters_schema = vyr_counters_schema_from_json(counters);
        if (!ts->counters_schema) {
            VYR_ERROR("[ts] Failed to deserialize: unable to decode counters schema");
            vyr_destroy_type_system(ts);
            return NULL;
        }
        if (!schemas) return ts;
    } else if (!schemas) {
        // A bare counters schema is accepted in place of a whole type system.
        if (json_is_array(json_object_get(value, "counter_groups"))) {
            ts->counters_schema = vyr_counters_schema_from_json(value);
            if (!ts->counters_schema) {
                VYR_ERROR("[ts] Failed to deserialize: unable to decode JSON as counters schema");
                vyr_destroy_type_system(ts);
                return NULL;
            }
            return ts;
        }
        VYR_ERROR(
            "[schema writer] schema was not recognized as either type system or counters "
            "schema");
        vyr_destroy_type_system(ts);
        return NULL;
    }
    if (!read_schemas(ts, schemas)) {
        vyr_destroy_type_system(ts);
        return NULL;
    }
    return ts;
}
