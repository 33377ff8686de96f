// The JSON form of schemas: golden bytes and identifiers, reading back with
// its refusals, field-set filtering, and event records rendered as JSON.
#include <gtest/gtest.h>

#include "unit_helpers.h"
#include "vyr_schema_json.h"
#include "vyr_type_system.h"

namespace {

using vyrtest::LogCapture;
using vyrtest::unit::golden;
using vyrtest::unit::golden_md5;
using vyrtest::unit::Json;
using vyrtest::unit::text_of;
using Lines = std::vector<std::string>;

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
    EXPECT_EQ(vyrtest::unit::take(vyr_type_definition_serialize(ts->schemas[0]->types[0], 1)),
              golden("type_object_alone.pretty.json"));
    EXPECT_EQ(vyrtest::unit::take(
                  vyr_schema_serialize_type_definition(ts->schemas[0], "tarvik_event_0", 0)),
              golden("type_object_alone.compact.json"));
    // A schema without types has no JSON form.
    EXPECT_EQ(vyr_schema_jsonify(vyr_type_system_add_schema(ts, "tarvik", 1, nullptr)), nullptr);
    vyr_destroy_type_system(ts);
}

std::string schema_text(const char *format_version, const std::string &types) {
    return std::string(R"({"title":"Vyrhub schema","vyr_version":")") + format_version +
           R"(","provider_name":"p","provider_version":"3.2.1","types":)" + types + "}";
}

std::string type_text(const char *name, const char *field, const char *type, int offset) {
    return std::string(R"({"name":")") + name + R"(","size":12,"fields":[)" +
           R"({"field_name":"a","description":"a","type_name":"int","counting_mode":"ABSOLUTE","offset":0,"type_size":4},)" +
           R"({"field_name":")" + field + R"(","description":"","type_name":")" + type +
           R"(","counting_mode":"ABSOLUTE","offset":)" + std::to_string(offset) +
           R"(,"type_size":8}]})";
}

TEST(SchemaJsonRead, FormatVersionShapeAndFieldSets) {
    const std::string t = type_text("t", "b", "uint64_t", 4);
    const struct {
        std::string text;
        int level;  // 0: accepted
        std::string message;
    } cases[] = {
        {schema_text("1.4.0", "[" + t + "]"), 0, ""},
        {schema_text("1.6.0", "[" + t + "]"), VYR_LOG_LEVEL_ERROR,
         "Schema version 1.6.0 is incompatible with current version 1.5.0"},
        {schema_text("1.5.0", "{}"), VYR_LOG_LEVEL_INFO, "Not an event schema"},
        {schema_text("1.5.0", "[" + t + R"(,{"name":"x","size":1}])"), VYR_LOG_LEVEL_ERROR,
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

    // A field set keeps the sender's layout of what it names; nothing left drops the schema.
    Json value(vyr_json_parse_string(
        schema_text("1.5.0", "[" + t + "," + type_text("u", "c", "double", 4) + "]").c_str()));
    LogCapture log(VYR_LOG_LEVEL_DEBUG);
    for (const char *type : {"t", "other"}) {
        vyr_field_set_t *fset = vyr_create_field_set();
        vyr_field_set_add(fset, type, "b");
        int flag = 0;
        vyr_schema_t *schema = vyr_schema_from_json_filtered_by_fset(value.v, fset, &flag);
        const vyr_type_definition_t *k = schema ? schema->types[0] : nullptr;
        EXPECT_EQ(k ? std::to_string(flag) + std::to_string(schema->num_types) +
                          k->fields[0]->field_name + std::to_string(k->num_fields) +
                          std::to_string(k->fields[0]->offset) + std::to_string(k->size)
                    : "-",
                  *type == 't' ? "11b1412" : "-");
        EXPECT_EQ(flag, 1);
        vyr_destroy_schema(schema);
        vyr_destroy_field_set(fset);
    }
    // Size 0: the fields are not read and the type is dropped, flagged as handled.
    Json zero(vyr_json_parse_string(R"({"name":"z","size":0,"fields":[1]})"));
    int flag = 5;
    EXPECT_EQ(vyr_type_definition_from_json_filtered_by_fset(zero.v, nullptr, &flag), nullptr);
    EXPECT_EQ(flag, 1);
    for (const char *text :
         {"Skipping field 't.a' as it is not required by the provided field set",
          "Skipping type definition 'u' as it is not required by the provided field set",
          "No types found in the schema after filtering by field set",
          "Skipping type definition 'z' as it has no fields after filtering by field set"})
        EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_DEBUG, text)) << text;
    // A size that is a string is refused.
    Json bad(vyr_json_parse_string(R"({"name":"t","size":"12","fields":[]})"));
    EXPECT_EQ(vyr_type_definition_from_json_filtered_by_fset(bad.v, nullptr, &flag), nullptr);
    EXPECT_TRUE(log.contains_fragment("Type definition JSON does not match schema '"));
}

// GUID fields of an event record are hex text when "guid" stands as a word of
// the name (on unless the environment says otherwise).
TEST(SchemaJson, EventRecordAsJson) {
    vyrtest::unit::ScopedEnv env{"VYR_CONVERT_GUID_TO_HEX_STRING", "CONVERT_GUID_TO_HEX_STRING"};
    vyr_type_system_t *ts = vyr_create_type_system();
    vyr_schema_t *schema = vyr_type_system_add_schema(ts, "g", 1, nullptr);
    vyr_type_field_info_t fields[] = {{"Guid", "", "uint64_t", VYR_VALUE_ABSOLUTE, 1},
                                      {"myguid", "", "uint32_t", VYR_VALUE_ABSOLUTE, 1},
                                      {"node_guid_0", "", "double", VYR_VALUE_ABSOLUTE, 1},
                                      {"name", "", "char", VYR_VALUE_ABSOLUTE, 8}};
    ASSERT_EQ(vyr_schema_add_type(schema, "rec", fields, 4, nullptr), 0);
    unsigned char record[28] = {};
    const uint64_t guid = 0x8000000000000abcULL;
    const uint32_t small = 7;
    memcpy(record, &guid, 8);
    memcpy(record + 8, &small, 4);
    memcpy(record + 12, &guid, 8);
    memcpy(record + 20, "ab\0zz", 5);
    Json value(vyr_type_definition_jsonify_data(schema->types[0], record));
    EXPECT_EQ(
        text_of(value.v),
        R"({"Guid":"0x8000000000000abc","myguid":7,"node_guid_0":"0x8000000000000abc","name":"ab"})");
    vyr_destroy_type_system(ts);
}

}  // namespace
