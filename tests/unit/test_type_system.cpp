// The type system: schema table and limits, identifiers, schemas received as
// JSON text, the whole system's JSON form, cloning and loading schema files.
#include <gtest/gtest.h>

#include <cstring>

#include "unit_helpers.h"
#include "vyr_schema_json.h"
#include "vyr_type_system.h"

namespace {

using vyrtest::LogCapture;
using vyrtest::unit::golden;
using vyrtest::unit::golden_md5;
using vyrtest::unit::Json;
using vyrtest::unit::text_of;
using vyrtest::unit::texts;
using Lines = std::vector<std::string>;

struct TypeSystem {
    vyr_type_system_t *ts;
    explicit TypeSystem(vyr_type_system_t *t = vyr_create_type_system()) : ts(t) {}
    ~TypeSystem() { vyr_destroy_type_system(ts); }
};

// Two types, the second nesting the first and marking an index field.
vyr_schema_t *add_demo(vyr_type_system_t *ts, const char *name) {
    vyr_schema_t *schema = vyr_type_system_add_schema(ts, name, VYR_MAKE_VERSION(1, 2, 3), nullptr);
    vyr_type_field_info_t a[] = {{"u8", "u8", "uint8_t", VYR_VALUE_ABSOLUTE, 1},
                                 {"text", "t", "char", VYR_VALUE_ABSOLUTE, 10}};
    vyr_type_field_info_t b[] = {{"inner", "", "a", VYR_VALUE_ABSOLUTE, 3},
                                 {"sum", "s", "uint64_t", VYR_VALUE_RUNNING_SUM, 1}};
    vyr_schema_add_type(schema, "a", a, 2, nullptr);
    vyr_schema_add_type(schema, "b", b, 2, nullptr);
    return schema;
}

// A schema text with one type whose field's type is unknown.
const char kUnresolvable[] =
    R"({"vyr_version":"1.5.0","provider_name":"p","provider_version":"1.0.0","types":[)"
    R"({"name":"t","size":8,"fields":[{"field_name":"f","description":"","type_name":"nope",)"
    R"("counting_mode":"ABSOLUTE","offset":0,"type_size":8}]}]})";

TEST(TypeSystem, SchemaTableHolds255) {
    TypeSystem t;
    uint8_t index = 0;
    for (int i = 0; i < VYR_MAX_SCHEMAS; ++i) vyr_type_system_add_schema(t.ts, "p", 1, &index);
    EXPECT_EQ(index, 254);
    EXPECT_EQ(vyr_type_system_add_schema(t.ts, "p", 1, &index), nullptr);
    LogCapture log(VYR_LOG_LEVEL_ERROR);
    EXPECT_EQ(vyr_type_system_load_schema(t.ts, "/nonexistent"), nullptr);
    EXPECT_EQ(vyr_type_system_remove_last_schema(t.ts), 254);

    EXPECT_EQ(texts(log), Lines{"Failed to load schema: schema limit exceeded '255'"});
}

// A received text is identified by its own bytes, and held once.
TEST(TypeSystem, ReceivedTextsAreHeldOnce) {
    TypeSystem t;
    vyr_type_system_add_schema(t.ts, "first", 1, nullptr);
    uint8_t index = 0;
    LogCapture log;
    for (const char *name :
         {"two_types.pretty.json", "two_types.pretty.json", "empty_types_array.pretty.json"})
        ASSERT_EQ(
            vyr_type_system_add_schema_from_serialized_json(t.ts, golden(name).c_str(), &index), 0);
    EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_DEBUG, "FOUND EVENTS SCHEMA"));
    EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_DEBUG, "Schema already exists"));
    EXPECT_EQ(std::make_tuple(index, t.ts->num_schemas, std::string(t.ts->schemas[2]->md5_string)),
              std::make_tuple(uint8_t(2), 3, golden_md5("empty_types_array")));

    // The counters schema is recognised by its "counter_groups" array.
    ASSERT_EQ(vyr_type_system_add_schema_from_serialized_json(
                  t.ts, R"({"counter_groups":[{"name":"g"}],"size":996})", &index),
              0);
    EXPECT_EQ(index * 10 + t.ts->num_schemas, 2553);
    EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_DEBUG, "FOUND COUNTERS SCHEMA"));
    EXPECT_EQ(vyr_type_system_max_type_size(t.ts), 996u);
    Json counters(vyr_counters_schema_jsonify(t.ts->counters_schema));
    EXPECT_EQ(text_of(counters.v), R"({"counter_groups":[{"name":"g"}],"size":996})");
}

// Texts refused by the reader of one schema (nullptr in `whole`) or of a whole type system.
TEST(TypeSystem, RefusedTexts) {
    const std::string failed = "[ts] Failed to deserialize: ";
    const struct {
        bool whole;
        std::string text;
        std::string message;
    } cases[] = {
        {false, "{", "Failed to read schemas as JSON"},
        {false, R"({"counter_groups":{}})",
         "Failed to convert schema from JSON to internal memory representation"},
        {true, "{", "Failed parsing schema JSON string"},
        {true, R"({"version":"1.3.9","schemas":[]})",
         failed + "schema version 1.3.9 is incompatible with the deserializer, "
                  "the minimal supported schema version is 1.4.0"},
        {true, R"({"version":"1.5.0","counters_schema":{"counter_groups":{}}})",
         failed + "unable to decode counters schema"},
        {true, R"({"version":"1.5.0"})",
         "[schema writer] schema was not recognized as either type system or counters schema"},
        {true,
         R"({"version":"1.5.0","schemas":[)" + golden("tarvik_basic.compact.json") + "," +
             kUnresolvable + "]}",
         failed + "unable to adjust type fields of schema p"},
    };
    TypeSystem t;
    for (const auto &c : cases) {
        LogCapture log;
        uint8_t index = 42;
        if (c.whole)
            EXPECT_EQ(vyr_type_system_deserialize(c.text.c_str()), nullptr) << c.text;
        else
            EXPECT_EQ(vyr_type_system_add_schema_from_serialized_json(t.ts, c.text.c_str(), &index),
                      -1);
        EXPECT_EQ(index, 42);
        EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_ERROR, c.message)) << c.text;
    }
    EXPECT_EQ(t.ts->num_schemas, 0);
}

TEST(TypeSystem, CloneAndLoad) {
    TypeSystem src, dst;
    vyr_schema_t *a = add_demo(src.ts, "a");
    add_demo(src.ts, "b");
    vyr_type_system_add_schema(dst.ts, "mine", 1, nullptr);
    uint8_t index = 0;
    ASSERT_EQ(vyr_type_system_clone_schemas(dst.ts, src.ts, &index), 0);
    ASSERT_EQ(index * 10 + dst.ts->num_schemas, 23);
    // 3 × 11 + 8 bytes; the built-in schema does not count.
    EXPECT_EQ(vyr_type_system_get_max_event_type_size(dst.ts), 41u);
    EXPECT_EQ(vyr_type_system_get_max_event_type_size(nullptr), 0u);
    EXPECT_EQ(a->types[0]->fields[0]->type_definition,
              vyr_schema_find_type_definition(dst.ts->builtin_schema, "uint8_t"));
    src.ts->num_schemas = 0;  // handed over: not the source's to destroy
    src.ts->schemas[0] = src.ts->schemas[1] = nullptr;
    LogCapture log(VYR_LOG_LEVEL_ERROR);
    vyrtest::unit::TempFile file(golden("two_types.pretty.json"));
    int flag = 0;
    ASSERT_NE(
        vyr_type_system_load_schema_filtered_by_fset(dst.ts, file.path.c_str(), nullptr, &flag),
        nullptr);
    EXPECT_EQ(flag, 1);
    vyrtest::write_file(file.path, kUnresolvable);
    EXPECT_EQ(vyr_type_system_load_schema(dst.ts, file.path.c_str()), nullptr);
    flag = 7;  // a failed load clears it
    EXPECT_EQ(vyr_type_system_load_schema_filtered_by_fset(dst.ts, "/nonexistent/schema.json",
                                                           nullptr, &flag),
              nullptr);
    EXPECT_EQ(flag, 0);
    EXPECT_EQ(texts(log),
              (Lines{"Definition of type nope not found within the schema p",
                     "Failed to adjust type fields within schema p",
                     "Failed reading schema JSON from file '/nonexistent/schema.json'"}));
}

}  // namespace
