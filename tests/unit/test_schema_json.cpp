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

vyr_type_field_info_t field(const char *name, const char *description, const char *type,
                            uint32_t length = 1, vyr_value_type_t mode = VYR_VALUE_ABSOLUTE) {
    return vyr_type_field_info_t{name, description, type, mode, length};
}

struct TypeSpec {
    const char *name;
    std::vector<vyr_type_field_info_t> fields;
};

// The golden schemas, built through the schema API.
const struct GoldenSchema {
    const char *file, *provider;
    uint32_t version;
    std::vector<TypeSpec> types;
    const char *index_field;  // of type 0
} kGolden[] = {
    {"tarvik_basic",
     "tarvik",
     VYR_MAKE_VERSION(1, 0, 0),
     {{"tarvik_event_0",
       {field("timestamp", "Event timestamp", "timestamp"),
        field("event_name", "Event name", "char", 64),
        field("device_name", "Device name", "char", 64),
        field("FW_Version", "FW_Version", "char", 64),
        field("Raw_Errors_Lane_0", "Raw_Errors_Lane_0", "uint64_t"),
        field("Effective_Physical_BER", "Effective_Physical_BER", "double"),
        field("Rx_TxdB", "Rx_TxdB", "uint64_t")}}},
     "device_name"},
    {"two_types",
     "demo",
     VYR_MAKE_VERSION(2, 3, 17),
     {{"a",
       {field("u8", "u8", "uint8_t"), field("u64", "u64", "uint64_t"),
        field("name", "name", "char", 16)}},
      {"b", {field("vals", "vals", "uint32_t", 4, VYR_VALUE_RUNNING_SUM)}}},
     nullptr},
    {"escapes",
     "esc/\"q\"\\",
     VYR_MAKE_VERSION(0, 0, 1),
     {{"t", {field("f", "a / b \" c \\ d\t\n\r\x01\x1f\x7f\xc3\xa9\xe2\x82\xac", "uint64_t")}}},
     nullptr},
};

vyr_schema_t *build(vyr_type_system_t *ts, const GoldenSchema &g) {
    vyr_schema_t *schema = vyr_type_system_add_schema(ts, g.provider, g.version, nullptr);
    for (const auto &t : g.types)
        EXPECT_EQ(vyr_schema_add_type(schema, t.name, t.fields.data(), t.fields.size(), nullptr),
                  0);
    const char *index[] = {g.index_field};
    EXPECT_EQ(vyr_schema_set_field_indexes(schema, 0, index, g.index_field ? 1 : 0), 0);
    return schema;
}

class SchemaJson : public ::testing::Test {
  protected:
    void TearDown() override { vyr_destroy_type_system(ts); }
    vyr_type_system_t *ts = vyr_create_type_system();
};

TEST_F(SchemaJson, GoldenSchemasByteForByte) {
    for (const auto &g : kGolden) {
        Json value(vyr_schema_jsonify(build(ts, g)));
        EXPECT_EQ(text_of(value.v, true), golden(g.file + std::string(".pretty.json"))) << g.file;
        EXPECT_EQ(text_of(value.v), golden(g.file + std::string(".compact.json"))) << g.file;
    }
    // The identifier is the digest of exactly those pretty bytes.
    vyr_type_system_update_md5_hashes(ts);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(ts->schemas[i]->md5_string, golden_md5(kGolden[i].file));

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
        {schema_text("x", "[]"), VYR_LOG_LEVEL_ERROR,
         "Schema version x is incompatible with current version 1.5.0"},
        {schema_text("1.5.0", "{}"), VYR_LOG_LEVEL_INFO, "Not an event schema"},
        {schema_text("1.5.0", "[" + kTypeT + R"(,{"name":"x","size":1}])"), VYR_LOG_LEVEL_ERROR,
         "Failed to deserialize type #1 from JSON array"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        Json value(vyr_json_parse_string(c.text.c_str()));
        LogCapture log;
        int flag = 7;
        vyr_schema_t *schema = vyr_schema_from_json_filtered_by_fset(value.v, nullptr, &flag);
        EXPECT_EQ(schema != nullptr, c.level == 0) << log.dump();
        EXPECT_EQ(flag, c.level ? 0 : 1);
        EXPECT_TRUE(!c.level || log.contains(c.level, c.message)) << log.dump();
        EXPECT_TRUE(!schema || schema->version == VYR_MAKE_VERSION(3, 2, 1));
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

TEST_F(SchemaJson, EventRecordAsJson) {
    // Unset means on.
    vyrtest::unit::ScopedEnv env{"VYR_CONVERT_GUID_TO_HEX_STRING", "CONVERT_GUID_TO_HEX_STRING"};
    vyr_schema_t *schema = vyr_type_system_add_schema(ts, "g", 1, nullptr);
    std::vector<vyr_type_field_info_t> fields = {
        field("node_guid_0", "", "double"), field("myguid", "", "uint32_t"),
        field("count", "", "uint64_t"), field("name", "", "char", 8)};
    ASSERT_EQ(vyr_schema_add_type(schema, "rec", fields.data(), fields.size(), nullptr), 0);
    unsigned char record[28] = {};
    const uint64_t guid = 0x8000000000000abcULL, count = 216;
    const uint32_t small = 7;
    memcpy(record, &guid, 8);
    memcpy(record + 8, &small, 4);
    memcpy(record + 12, &count, 8);
    memcpy(record + 20, "ab\0zz", 5);
    Json value(vyr_type_definition_jsonify_data(schema->types[0], record));
    EXPECT_EQ(text_of(value.v),
              R"({"node_guid_0":"0x8000000000000abc","myguid":7,"count":216,"name":"ab"})");
}

}  // namespace
