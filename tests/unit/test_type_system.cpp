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
using vyrtest::unit::take;

struct TypeSystem {
    vyr_type_system_t *ts;
    explicit TypeSystem(vyr_type_system_t *t = vyr_create_type_system()) : ts(t) {}
    ~TypeSystem() { vyr_destroy_type_system(ts); }
};

// Two types, the second nesting the first and marking an index field.
vyr_schema_t *add_demo(vyr_type_system_t *ts, const char *name, uint8_t *index = nullptr) {
    vyr_schema_t *schema = vyr_type_system_add_schema(ts, name, VYR_MAKE_VERSION(1, 2, 3), index);
    vyr_type_field_info_t a[] = {{"u8", "u8", "uint8_t", VYR_VALUE_ABSOLUTE, 1},
                                 {"text", "t", "char", VYR_VALUE_ABSOLUTE, 10}};
    vyr_type_field_info_t b[] = {{"inner", "", "a", VYR_VALUE_ABSOLUTE, 3},
                                 {"sum", "s", "uint64_t", VYR_VALUE_RUNNING_SUM, 1}};
    EXPECT_EQ(vyr_schema_add_type(schema, "a", a, 2, nullptr), 0);
    EXPECT_EQ(vyr_schema_add_type(schema, "b", b, 2, nullptr), 0);
    const char *names[] = {"sum"};
    EXPECT_EQ(vyr_schema_set_field_indexes(schema, 1, names, 1), 0);
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
    for (int i = 0; i < VYR_MAX_SCHEMAS; ++i) {
        ASSERT_EQ(vyr_type_system_add_schema(t.ts, "p", 1, &index)->parent, t.ts->builtin_schema);
        ASSERT_EQ(index, i);
    }
    EXPECT_EQ(vyr_type_system_add_schema(t.ts, "p", 1, &index), nullptr);
    LogCapture full;
    EXPECT_EQ(vyr_type_system_load_schema(t.ts, "/nonexistent"), nullptr);
    EXPECT_TRUE(
        full.contains(VYR_LOG_LEVEL_ERROR, "Failed to load schema: schema limit exceeded '255'"));
    EXPECT_EQ(vyr_type_system_remove_last_schema(t.ts), 254);
    EXPECT_NE(vyr_type_system_add_schema(t.ts, "p", 1, &index), nullptr);

    // A text of 257 schemas: the first 255 are read.
    std::string text = R"({"version":"1.5.0","schemas":[)";
    for (int i = 0; i < 257; ++i) text += (i ? "," : "") + golden("two_types.compact.json");
    LogCapture log(VYR_LOG_LEVEL_ERROR);
    TypeSystem big(vyr_type_system_deserialize((text + "]}").c_str()));
    ASSERT_NE(big.ts, nullptr);
    EXPECT_EQ(big.ts->num_schemas, 255);
    EXPECT_EQ(vyrtest::unit::texts(log),
              std::vector<std::string>{
                  "[ts] Failed to deserialize: number of schemas 257 exceeds limit 255"});
}

// The identifier is the digest of the pretty JSON form (the golden digests are
// shown in test_schema_json); it is computed again only on request.
TEST(TypeSystem, IdentifierTextWaitsForTheUpdate) {
    TypeSystem t;
    vyr_schema_id_t id, want;
    vyr_schema_t *empty = vyr_type_system_add_schema(t.ts, "empty", 1, nullptr);
    EXPECT_EQ(vyr_schema_update_md5(empty), 0);
    vyr_schema_t *schema = add_demo(t.ts, "demo");
    // Computed at creation while still empty, so 32 zeros until asked again.
    EXPECT_EQ(schema->md5_string, std::string(32, '0'));
    ASSERT_EQ(vyr_schema_extract_id(schema, id), 1);
    vyr_type_system_update_md5_hashes(t.ts);
    vyrtest::unit::Json value(vyr_schema_jsonify(schema));
    ASSERT_EQ(vyr_type_system_get_json_schema_id(want, value.v), 1);
    EXPECT_EQ(vyr_compare_schema_id(id, want), 0);
    EXPECT_EQ(take(vyr_schema_id_string(want)), schema->md5_string);

    // Found by identifier text, not by name.
    uint8_t found = 77;
    EXPECT_EQ(vyr_type_system_find_schema(t.ts, "demo", &found), 0);
    LogCapture log;
    EXPECT_EQ(vyr_type_system_find_schema(t.ts, schema->md5_string, &found), 1);
    EXPECT_EQ(found, 1);
    EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_DEBUG,
                             std::string("Schema already exists ") + schema->md5_string));

    // 3 × 11 + 8 bytes; the built-in schema does not count.
    EXPECT_EQ(vyr_type_system_get_max_event_type_size(t.ts), 41u);
}

TEST(TypeSystem, ReceivedTextIsIdentifiedAsGivenAndHeldOnce) {
    TypeSystem t;
    vyr_type_system_add_schema(t.ts, "first", 1, nullptr);
    const std::string text = golden("tarvik_basic.pretty.json");
    uint8_t index = 0;
    LogCapture log;
    ASSERT_EQ(vyr_type_system_add_schema_from_serialized_json(t.ts, text.c_str(), &index), 0);
    EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_DEBUG, "FOUND EVENTS SCHEMA"));
    EXPECT_EQ(index, 1);
    vyr_schema_t *schema = t.ts->schemas[1];
    EXPECT_EQ(schema->md5_string, golden_md5("tarvik_basic"));
    EXPECT_EQ(vyr_type_system_get_max_event_type_size(t.ts), 224u);

    index = 0;
    EXPECT_EQ(vyr_type_system_add_schema_from_serialized_json(t.ts, text.c_str(), &index), 0);
    EXPECT_EQ(index, 1);
    EXPECT_EQ(t.ts->num_schemas, 2);
    EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_DEBUG, "Schema already exists"));

    // The compact text of the same schema is another text, so another identifier;
    // without types the text still gives the identifier.
    for (const char *name : {"tarvik_basic.compact.json", "empty_types_array.pretty.json"})
        EXPECT_EQ(
            vyr_type_system_add_schema_from_serialized_json(t.ts, golden(name).c_str(), &index), 0);
    EXPECT_EQ(index, 3);
    EXPECT_EQ(t.ts->schemas[3]->md5_string, golden_md5("empty_types_array"));
}

// The counters schema is recognised by its "counter_groups" array.
TEST(TypeSystem, CountersSchemaForms) {
    TypeSystem t;
    uint8_t index = 0;
    LogCapture log;
    ASSERT_EQ(vyr_type_system_add_schema_from_serialized_json(
                  t.ts, R"({"counter_groups":[{"name":"g"}],"size":96})", &index),
              0);
    EXPECT_EQ(index, 255);
    EXPECT_EQ(t.ts->num_schemas, 0);
    EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_DEBUG, "FOUND COUNTERS SCHEMA"));
    EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_INFO, "Not an event schema"));
    EXPECT_EQ(vyr_type_system_max_type_size(t.ts), 96u);

    // Only schemas: no counters schema at all.
    TypeSystem only(vyr_type_system_deserialize(R"({"version":"2.0.0","schemas":[]})"));
    ASSERT_NE(only.ts, nullptr);
    EXPECT_EQ(vyr_type_system_max_type_size(only.ts), 0u);
    EXPECT_EQ(take(vyr_type_system_serialize(only.ts, 0)),
              R"({"name":"Vyrhub type system","version":"1.5.0","schemas":[]})");
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
        {true, "[1]", failed + "schema is not a JSON object"},
        {true, R"({"version":1,"schemas":[]})", failed + "missing Vyrhub schema version"},
        {true, R"({"version":"1.3.9","schemas":[]})",
         failed + "schema version 1.3.9 is incompatible with the deserializer, "
                  "the minimal supported schema version is 1.4.0"},
        {true, R"({"version":"1.5.0","counters_schema":{"groups":[]},"schemas":[]})",
         failed + "unable to decode counters schema"},
        {true, R"({"version":"1.5.0"})",
         "[schema writer] schema was not recognized as either type system or counters schema"},
        {true, R"({"version":"1.5.0","schemas":[{"x":1}]})",
         failed + "unable to decode type schema"},
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
        EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_ERROR, c.message)) << c.text << "\n" << log.dump();
    }
    EXPECT_EQ(t.ts->num_schemas, 0);
}

TEST(TypeSystem, CloneHandsOverTheSchemaRecords) {
    TypeSystem src, dst;
    vyr_schema_t *a = add_demo(src.ts, "a");
    add_demo(src.ts, "b");
    vyr_type_system_add_schema(dst.ts, "mine", 1, nullptr);
    uint8_t index = 0;
    ASSERT_EQ(vyr_type_system_clone_schemas(dst.ts, src.ts, &index), 0);
    ASSERT_EQ(index * 10 + dst.ts->num_schemas, 23);
    EXPECT_EQ(dst.ts->schemas[1], a);
    EXPECT_EQ(a->types[0]->fields[0]->type_definition,
              vyr_schema_find_type_definition(dst.ts->builtin_schema, "uint8_t"));
    // The source must not destroy what it handed over.
    src.ts->num_schemas = 0;
    src.ts->schemas[0] = src.ts->schemas[1] = nullptr;

    // A schema whose types cannot be resolved stops the transfer.
    TypeSystem bad;
    vyr_schema_t *s = add_demo(bad.ts, "bad");
    free(s->types[0]->fields[0]->type_name);
    s->types[0]->fields[0]->type_name = strdup("nope");
    LogCapture log;
    EXPECT_EQ(vyr_type_system_clone_schemas(dst.ts, bad.ts, nullptr), -1);
    EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_ERROR, "Cannot add schema to type system"));
    EXPECT_EQ(dst.ts->num_schemas, 3);
}

TEST(TypeSystem, LoadSchemaFile) {
    TypeSystem t;
    vyrtest::unit::TempFile file(golden("two_types.pretty.json"));
    int flag = 0;
    vyr_schema_t *schema =
        vyr_type_system_load_schema_filtered_by_fset(t.ts, file.path.c_str(), nullptr, &flag);
    ASSERT_EQ(schema ? flag : -1, 1);
    EXPECT_EQ(schema->types[1]->fields[0]->type_definition,
              vyr_schema_find_type_definition(t.ts->builtin_schema, "uint32_t"));
    vyr_type_system_update_md5_hashes(t.ts);
    EXPECT_EQ(schema->md5_string, golden_md5("two_types"));
    vyrtest::write_file(file.path, kUnresolvable);
    LogCapture log(VYR_LOG_LEVEL_ERROR);
    EXPECT_EQ(vyr_type_system_load_schema(t.ts, file.path.c_str()), nullptr);
    EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_ERROR, "Failed to adjust type fields within schema p"));
    EXPECT_EQ(t.ts->num_schemas, 1);
}

}  // namespace
