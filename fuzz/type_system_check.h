// Checks shared by the schema JSON fuzz targets.
#pragma once

#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_support.h"
#include "vyr_schema_json.h"
#include "vyr_type_system.h"

namespace tscheck {

// Serialized text, or "" when there is none.
inline std::string serialize(const vyr_type_system_t *ts, int pretty) {
    char *text = vyr_type_system_serialize(ts, pretty);
    std::string out = text ? text : "";
    free(text);
    return out;
}

// True when some field's counting mode has no name, so its schema, and the
// type system with it, has no JSON form.
inline bool has_unnamed_mode(const vyr_type_system_t *ts) {
    for (uint8_t i = 0; i < ts->num_schemas; ++i) {
        const vyr_schema_t *s = ts->schemas[i];
        for (int t = 0; s && t < s->num_types; ++t)
            for (int f = 0; f < s->types[t]->num_fields; ++f) {
                uint32_t mode;  // read as bits: a foreign value is no valid enumerator
                memcpy(&mode, &s->types[t]->fields[f]->counting_mode, sizeof mode);
                if (mode > VYR_VALUE_RUNNING_SUM) return true;
            }
    }
    return false;
}

// When every schema's field types resolve, the type system's JSON form must
// read back into one whose JSON form is the same bytes, in both layouts. (A
// schema added from JSON keeps fields of unknown types; a reader refuses such
// a type system as a whole.)
inline void round_trip(vyr_type_system_t *ts) {
    for (uint8_t i = 0; i < ts->num_schemas; ++i)
        if (!vyr_type_system_adjust_type_references(ts, ts->schemas[i])) return;
    for (int pretty : {0, 1}) {
        std::string first = serialize(ts, pretty);
        if (first.empty()) {
            FUZZ_CHECK(has_unnamed_mode(ts));
            return;
        }
        vyr_type_system_t *back = vyr_type_system_deserialize(first.c_str());
        FUZZ_CHECK(back);
        FUZZ_CHECK(back->num_schemas <= ts->num_schemas);
        std::string second = serialize(back, pretty);
        if (second != first) {
            fprintf(stderr, "first:\n%s\nsecond:\n%s\n", first.c_str(), second.c_str());
            FUZZ_CHECK(second == first);
        }
        vyr_destroy_type_system(back);
    }
}

// After the identifiers are brought up to date every schema that has a JSON
// form is found by its identifier text, at its own index or at an earlier one
// with the same text.
inline void find_each(vyr_type_system_t *ts) {
    vyr_type_system_update_md5_hashes(ts);
    for (uint8_t i = 0; i < ts->num_schemas; ++i) {
        const vyr_schema_t *schema = ts->schemas[i];
        FUZZ_CHECK(schema);
        json_t *form = vyr_schema_jsonify(schema);
        if (!form) continue;
        json_decref(form);
        FUZZ_CHECK(strlen(schema->md5_string) == 32);
        uint8_t index = 0xEE;
        FUZZ_CHECK(vyr_type_system_find_schema(ts, schema->md5_string, &index) == 1);
        FUZZ_CHECK(index <= i && strcmp(ts->schemas[index]->md5_string, schema->md5_string) == 0);
    }
    vyr_type_system_get_max_event_type_size(ts);
    vyr_type_system_max_type_size(ts);
}

}  // namespace tscheck
