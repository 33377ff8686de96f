// The JSON form of schemas: golden bytes and identifiers, reading back with
// its refusals, field-set filtering, and event records rendered as JSON.
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

TEST(SchemaJson, GoldenSchemasByteForByte) {
    vyr_type_system_t *ts = vyr_create_type_system();
    const char *const files[] = {"tarvik_basic", "two_types", "escapes"};
    for (std::string name : files) {
        uint8_t index = 0;
        ASSERT_EQ(vyr_type_system_add_schema_from_serialized_json(
                      ts, golden(name + ".compact.json").c_str(), &index),
                  0);
        Json value(vyr_schema_jsonify(ts->schemas[index]));
        EXPECT_EQ(text_of(value.v, true), golden(name + ".pretty.json")) << name;
        EXPECT_EQ(text_of(value.v), golden(name + ".compact.json")) << name;
    }
    // The identifier is the digest of exactly those pretty bytes.
    vyr_type_system_update_md5_hashes(ts);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(ts->schemas[i]->md5_string, golden_md5(files[i]));

    // A type object alone has no "type_index".
    std::string pretty =
        vyrtest::unit::take(vyr_type_definition_serialize(ts->schemas[0]->types[0], 1));
    EXPECT_EQ(pretty, golden("type_object_alone.pretty.json"));
    EXPECT_EQ(vyrtest::unit::take(
                  vyr_schema_serialize_type_definition(ts->schemas[0], "tarvik_event_0", 0)),
              golden("type_object_alone.compact.json"));
    vyr_schema_id_t id;
    char hex[VYR_SCHEMA_ID_STRING_LENGTH] = "";
    if (vyr_get_schema_id_from_pretty_json_string(pretty.c_str(), id) == 1)
        vyr_schema_id_to_schema_string(id, hex);
    EXPECT_EQ(hex, golden_md5("type_object_alone"));
    EXPECT_EQ(vyr_schema_serialize_type_definition(ts->schemas[0], "nope", 1), nullptr);
    // A schema without types has no JSON form.
    EXPECT_EQ(vyr_schema_jsonify(vyr_type_system_add_schema(ts, "tarvik", 1, nullptr)), nullptr);
    vyr_destroy_type_system(ts);
}

TEST(SchemaJsonRead, FieldObjects) {
    // The writer is pinned by the golden files, so a faithful round trip proves the reader.
    const char *full =
        R"({"field_name":"f","description":"d","type_name":"int","counting_mode":"RUNNING_SUM",)"
        R"("array_length":16,"offset":3,"type_size":4,"index":2})";
    // Without "index" and "array_length": index 0, length 1; a length of 0 also reads 1.
    const char *bare =
        R"({"field_name":"g","description":"","type_name":"char","counting_mode":"ABSOLUTE",)"
        R"("offset":0,"type_size":1,"array_length":0})";
    const char *bare_written =
        R"({"field_name":"g","description":"","type_name":"char","counting_mode":"ABSOLUTE",)"
        R"("offset":0,"type_size":1,"index":0})";
    const char *no_size =
        R"({"field_name":"g","description":"","type_name":"char","counting_mode":"ABSOLUTE","offset":0})";
    const std::pair<const char *, const char *> cases[] = {
        {full, full}, {bare, bare_written}, {no_size, "<null>"}};
    for (const auto &c : cases) {
        Json in(vyr_json_parse_string(c.first));
        LogCapture log;
        vyr_type_field_definition_t *f = vyr_type_field_definition_from_json(in.v);
        Json out(f ? vyr_type_field_definition_jsonify(f) : nullptr);
        EXPECT_EQ(text_of(out.v), c.second);
        EXPECT_EQ(log.count(VYR_LOG_LEVEL_ERROR,
                            "Field definition JSON does not match schema with or without 'index'."),
                  f ? 0u : 1u);
        vyr_destroy_type_field_definition(f);
    }
}

std::string schema_text(const char *format_version, const std::string &types) {
    return std::string(R"({"title":"Vyrhub schema","vyr_version":")") + format_version +
           R"(","provider_name":"p","provider_version":"3.2.1","types":)" + types + "}";
}

const std::string kTypeT =
    R"({"name":"t","size":12,"fields":[)"
    R"({"field_name":"a","description":"a","type_name":"int","counting_mode":"ABSOLUTE","offset":0,"type_size":4,"index":0},)"
    R"({"field_name":"b","description":"b","type_name":"uint64_t","counting_mode":"ABSOLUTE","offset":4,"type_size":8,"index":0}]})";
const std::string kTypeU =
    R"({"name":"u","size":8,"fields":[)"
    R"({"field_name":"c","description":"c","type_name":"double","counting_mode":"ABSOLUTE","offset":0,"type_size":8,"index":0}]})";

TEST(SchemaJsonRead, FormatVersionAndShape) {
    const struct {
        std::string text;
        int level;  // 0: accepted
        std::string message;
    } cases[] = {
        {schema_text("1.5.0", "[" + kTypeT + "]"), 0, ""},
        {schema_text("1.4.0", "[" + kTypeT + "]"), 0, ""},
        {schema_text("1.6.0", "[" + kTypeT + "]"), VYR_LOG_LEVEL_ERROR,
         "Schema version 1.6.0 is incompatible with current version 1.5.0"},
        {schema_text("1.5.0", "{}"), VYR_LOG_LEVEL_INFO, "Not an event schema"},
        {schema_text("1.5.0", "[" + kTypeT + R"(,{"name":"x","size":1}])"), VYR_LOG_LEVEL_ERROR,
         "Failed to deserialize type #1 from JSON array"},
    };
    for (const auto &c : cases) {
        Json value(vyr_json_parse_string(c.text.c_str()));
        LogCapture log;
        int flag = 7;
        vyr_schema_t *schema = vyr_schema_from_json_filtered_by_fset(value.v, nullptr, &flag);
        EXPECT_EQ(std::make_tuple(schema ? schema->version : 0u, flag),
                  std::make_tuple(c.level ? 0u : VYR_MAKE_VERSION(3, 2, 1), c.level ? 0 : 1));
        EXPECT_TRUE(!c.level || log.contains(c.level, c.message)) << log.dump();
        vyr_destroy_schema(schema);
    }
}

TEST(SchemaJsonRead, TypeObjects) {
    LogCapture log;
    // A size of "12" is refused; size 0: the fields are not read and the type
    // is dropped, flagged as handled.
    for (const char *text :
         {R"({"name":"t","size":"12","fields":[]})", R"({"name":"z","size":0,"fields":[1]})"}) {
        Json value(vyr_json_parse_string(text));
        int flag = 5;
        EXPECT_EQ(vyr_type_definition_from_json_filtered_by_fset(value.v, nullptr, &flag), nullptr);
        EXPECT_EQ(flag, text[9] == 'z');
    }
    EXPECT_TRUE(log.contains_fragment("Type definition JSON does not match schema '"));
    EXPECT_TRUE(log.contains(
        VYR_LOG_LEVEL_DEBUG,
        "Skipping type definition 'z' as it has no fields after filtering by field set"));
}

TEST(SchemaJsonRead, FieldSetFilters) {
    Json value(
        vyr_json_parse_string(schema_text("1.5.0", "[" + kTypeT + "," + kTypeU + "]").c_str()));
    vyr_field_set_t *fset = vyr_create_field_set();
    ASSERT_EQ(vyr_field_set_add(fset, "t", "b"), 0);
    LogCapture log;
    int flag = 0;
    vyr_schema_t *schema = vyr_schema_from_json_filtered_by_fset(value.v, fset, &flag);
    ASSERT_EQ(schema ? schema->num_types : -1, 1);
    vyr_type_definition_t *t = schema->types[0];  // the sender's layout stays
    EXPECT_EQ(std::make_tuple(flag, t->size, std::string(t->fields[0]->field_name), t->num_fields,
                              t->fields[0]->offset),
              std::make_tuple(1, 12u, std::string("b"), 1, 4u));
    EXPECT_TRUE(
        log.contains(VYR_LOG_LEVEL_DEBUG,
                     "Skipping field 't.a' as it is not required by the provided field set"));
    EXPECT_TRUE(log.contains(
        VYR_LOG_LEVEL_DEBUG,
        "Skipping type definition 'u' as it is not required by the provided field set"));
    vyr_destroy_schema(schema);
    vyr_destroy_field_set(fset);
    // Nothing left: the schema itself is dropped.
    fset = vyr_create_field_set();
    vyr_field_set_add(fset, "other", nullptr);
    flag = 0;
    EXPECT_EQ(vyr_schema_from_json_filtered_by_fset(value.v, fset, &flag), nullptr);
    EXPECT_EQ(flag, 1);
    EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_DEBUG,
                             "No types found in the schema after filtering by field set"));
    vyr_destroy_field_set(fset);
}

}  // namespace
