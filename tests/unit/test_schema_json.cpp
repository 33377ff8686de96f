// The JSON form of schemas: golden bytes and identifiers, reading back with
// its refusals, field-set filtering, and event records rendered as JSON.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "log_capture.h"
#include "test_paths.h"
#include "vyr_json.h"
#include "vyr_schema_json.h"
#include "vyr_type_system.h"

using vyrtest::LogCapture;

namespace {

struct Json {
    json_t *v;
    explicit Json(json_t *value) : v(value) {}
    ~Json() { json_decref(v); }
    Json(const Json &) = delete;
    Json &operator=(const Json &) = delete;
};

std::string text_of(const json_t *value, int pretty) {
    char *text = vyr_json_serialize(value, pretty);
    if (!text) return "<null>";
    std::string out(text);
    free(text);
    return out;
}

std::string golden(const std::string &name) {
    return vyrtest::read_file(vyrtest::golden_dir() + "/schema_json/" + name);
}

std::string golden_md5(const std::string &name) {
    std::string text = golden(name + ".md5");
    return text.substr(0, 32);
}

vyr_type_field_info_t field(const char *name, const char *description, const char *type,
                            uint32_t length = 1, vyr_value_type_t mode = VYR_VALUE_ABSOLUTE) {
    return vyr_type_field_info_t{name, description, type, mode, length};
}

vyr_schema_t *add_tarvik_basic(vyr_type_system_t *ts) {
    vyr_schema_t *schema =
        vyr_type_system_add_schema(ts, "tarvik", VYR_MAKE_VERSION(1, 0, 0), nullptr);
    std::vector<vyr_type_field_info_t> fields = {
        field("timestamp", "Event timestamp", "timestamp"),
        field("event_name", "Event name", "char", 64),
        field("device_name", "Device name", "char", 64),
        field("FW_Version", "FW_Version", "char", 64),
        field("Raw_Errors_Lane_0", "Raw_Errors_Lane_0", "uint64_t"),
        field("Effective_Physical_BER", "Effective_Physical_BER", "double"),
        field("Rx_TxdB", "Rx_TxdB", "uint64_t"),
    };
    EXPECT_EQ(vyr_schema_add_type(schema, "tarvik_event_0", fields.data(), fields.size(), nullptr),
              0);
    const char *index[] = {"device_name"};
    EXPECT_EQ(vyr_schema_set_field_indexes(schema, 0, index, 1), 0);
    return schema;
}

vyr_schema_t *add_two_types(vyr_type_system_t *ts) {
    vyr_schema_t *schema =
        vyr_type_system_add_schema(ts, "demo", VYR_MAKE_VERSION(2, 3, 17), nullptr);
    std::vector<vyr_type_field_info_t> a = {field("u8", "u8", "uint8_t"),
                                            field("u64", "u64", "uint64_t"),
                                            field("name", "name", "char", 16)};
    std::vector<vyr_type_field_info_t> b = {
        field("vals", "vals", "uint32_t", 4, VYR_VALUE_RUNNING_SUM)};
    EXPECT_EQ(vyr_schema_add_type(schema, "a", a.data(), a.size(), nullptr), 0);
    EXPECT_EQ(vyr_schema_add_type(schema, "b", b.data(), b.size(), nullptr), 0);
    return schema;
}

vyr_schema_t *add_escapes(vyr_type_system_t *ts) {
    vyr_schema_t *schema =
        vyr_type_system_add_schema(ts, "esc/\"q\"\\", VYR_MAKE_VERSION(0, 0, 1), nullptr);
    const char *description =
        "a / b \" c \\ d\t\n\r\x01\x1f\x7f"
        "\xc3\xa9\xe2\x82\xac";
    vyr_type_field_info_t f = field("f", description, "uint64_t");
    EXPECT_EQ(vyr_schema_add_type(schema, "t", &f, 1, nullptr), 0);
    return schema;
}

class SchemaJson : public ::testing::Test {
  protected:
    void SetUp() override {
        ts = vyr_create_type_system();
        ASSERT_NE(ts, nullptr);
    }
    void TearDown() override { vyr_destroy_type_system(ts); }
    vyr_type_system_t *ts = nullptr;
};

TEST_F(SchemaJson, GoldenSchemasByteForByte) {
    struct Case {
        const char *name;
        vyr_schema_t *(*build)(vyr_type_system_t *);
    } cases[] = {
        {"tarvik_basic", add_tarvik_basic}, {"two_types", add_two_types}, {"escapes", add_escapes}};
    for (auto &c : cases) {
        SCOPED_TRACE(c.name);
        vyr_schema_t *schema = c.build(ts);
        ASSERT_NE(schema, nullptr);
        Json value(vyr_schema_jsonify(schema));
        ASSERT_NE(value.v, nullptr);
        EXPECT_EQ(text_of(value.v, 1), golden(std::string(c.name) + ".pretty.json"));
        EXPECT_EQ(text_of(value.v, 0), golden(std::string(c.name) + ".compact.json"));
    }
    // The identifier is the digest of exactly those pretty bytes.
    vyr_type_system_update_md5_hashes(ts);
    ASSERT_EQ(ts->num_schemas, 3);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(ts->schemas[i]->md5_string, golden_md5(cases[i].name)) << cases[i].name;
}

TEST_F(SchemaJson, TypeObjectAloneHasNoTypeIndex) {
    vyr_schema_t *schema = add_tarvik_basic(ts);
    char *pretty = vyr_type_definition_serialize(schema->types[0], 1);
    char *compact = vyr_schema_serialize_type_definition(schema, "tarvik_event_0", 0);
    ASSERT_NE(pretty, nullptr);
    ASSERT_NE(compact, nullptr);
    EXPECT_EQ(std::string(pretty), golden("type_object_alone.pretty.json"));
    EXPECT_EQ(std::string(compact), golden("type_object_alone.compact.json"));
    vyr_schema_id_t id;
    ASSERT_EQ(vyr_get_schema_id_from_pretty_json_string(pretty, id), 1);
    char hex[VYR_SCHEMA_ID_STRING_LENGTH];
    vyr_schema_id_to_schema_string(id, hex);
    EXPECT_EQ(hex, golden_md5("type_object_alone"));
    EXPECT_EQ(vyr_get_schema_id_from_pretty_json_string(nullptr, id), 0);
    free(pretty);
    free(compact);
}

TEST_F(SchemaJson, EmptySchemaHasNoJsonFormButReadsBack) {
    vyr_schema_t *empty = vyr_type_system_add_schema(ts, "tarvik", 1, nullptr);
    EXPECT_EQ(vyr_schema_jsonify(empty), nullptr);

    Json value(vyr_json_parse_string(golden("empty_types_array.pretty.json").c_str()));
    vyr_schema_t *read = vyr_schema_from_json(value.v);
    ASSERT_NE(read, nullptr);
    EXPECT_STREQ(read->name, "tarvik");
    EXPECT_EQ(read->version, 1u);
    EXPECT_EQ(read->num_types, 0);
    EXPECT_EQ(read->parent, nullptr);
    EXPECT_TRUE(vyr_schema_id_is_unset(read->md5_digest));
    vyr_destroy_schema(read);
}

TEST_F(SchemaJson, ReadingBackGivesTheSameSchema) {
    vyr_schema_t *schema = add_two_types(ts);
    Json value(vyr_schema_jsonify(schema));
    vyr_schema_t *read = vyr_schema_from_json(value.v);
    ASSERT_NE(read, nullptr);
    ASSERT_EQ(read->num_types, 2);
    EXPECT_EQ(read->types[0]->size, 25u);
    EXPECT_EQ(read->types[1]->fields[0]->array_length, 4u);
    EXPECT_EQ(read->types[1]->fields[0]->counting_mode, VYR_VALUE_RUNNING_SUM);
    EXPECT_EQ(read->types[0]->fields[2]->offset, 9u);
    EXPECT_EQ(read->types[0]->fields[2]->type_definition, nullptr);  // resolved later
    Json again(vyr_schema_jsonify(read));
    EXPECT_EQ(text_of(again.v, 1), text_of(value.v, 1));
    vyr_destroy_schema(read);
}

TEST(SchemaJsonRead, FieldObjects) {
    const char *with_index =
        R"({"field_name":"f","description":"d","type_name":"int","counting_mode":"RUNNING_SUM",)"
        R"("array_length":16,"offset":3,"type_size":4,"index":2})";
    Json v1(vyr_json_parse_string(with_index));
    vyr_type_field_definition_t *f = vyr_type_field_definition_from_json(v1.v);
    ASSERT_NE(f, nullptr);
    EXPECT_STREQ(f->field_name, "f");
    EXPECT_STREQ(f->description, "d");
    EXPECT_STREQ(f->type_name, "int");
    EXPECT_EQ(f->counting_mode, VYR_VALUE_RUNNING_SUM);
    EXPECT_EQ(f->array_length, 16u);
    EXPECT_EQ(f->offset, 3u);
    EXPECT_EQ(f->type_size, 4u);
    EXPECT_EQ(f->index, 2);
    Json out(vyr_type_field_definition_jsonify(f));
    EXPECT_EQ(text_of(out.v, 0),
              R"({"field_name":"f","description":"d","type_name":"int",)"
              R"("counting_mode":"RUNNING_SUM","array_length":16,"offset":3,"type_size":4,)"
              R"("index":2})");
    vyr_destroy_type_field_definition(f);

    // Without "index" and "array_length": index 0, length 1; a length of 0 also reads 1.
    const char *plain =
        R"({"field_name":"g","description":"","type_name":"char","counting_mode":"ABSOLUTE",)"
        R"("offset":0,"type_size":1,"array_length":0})";
    Json v2(vyr_json_parse_string(plain));
    f = vyr_type_field_definition_from_json(v2.v);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->index, 0);
    EXPECT_EQ(f->array_length, 1u);
    vyr_destroy_type_field_definition(f);

    const char *bad[] = {
        R"({"field_name":"g","description":"","type_name":"char","counting_mode":"ABSOLUTE","offset":0})",
        R"({"field_name":1,"description":"","type_name":"char","counting_mode":"ABSOLUTE","offset":0,"type_size":1})",
        R"([1,2])",
    };
    for (const char *text : bad) {
        Json v(vyr_json_parse_string(text));
        LogCapture log;
        EXPECT_EQ(vyr_type_field_definition_from_json(v.v), nullptr) << text;
        EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_ERROR,
                                 "Field definition JSON does not match schema with or without "
                                 "'index'."))
            << log.dump();
    }
    LogCapture log;
    EXPECT_EQ(vyr_type_field_definition_from_json(nullptr), nullptr);
}

TEST(SchemaJsonRead, MissingStringsCannotBeWritten) {
    vyr_type_field_definition_t *f = vyr_create_type_field_definition();
    f->field_name = strdup("f");
    f->type_name = strdup("int");
    EXPECT_EQ(vyr_type_field_definition_jsonify(f), nullptr);  // no description
    f->description = strdup("d");
    const uint32_t unknown_mode = 7;  // as a foreign text can leave it
    memcpy(&f->counting_mode, &unknown_mode, sizeof unknown_mode);
    EXPECT_EQ(vyr_type_field_definition_jsonify(f), nullptr);
    f->counting_mode = VYR_VALUE_ABSOLUTE;
    Json ok(vyr_type_field_definition_jsonify(f));
    EXPECT_NE(ok.v, nullptr);

    vyr_type_definition_t *t = vyr_create_type_definition();
    t->fields = (vyr_type_field_definition_t **)calloc(1, sizeof *t->fields);
    t->fields[0] = f;
    t->num_fields = 1;
    EXPECT_EQ(vyr_type_definition_jsonify(t), nullptr);  // no name
    vyr_destroy_type_definition(t);
    EXPECT_EQ(vyr_type_definition_jsonify(nullptr), nullptr);
    EXPECT_EQ(vyr_schema_jsonify(nullptr), nullptr);
}

std::string schema_text(const char *format_version, const std::string &types) {
    return std::string(R"({"title":"Vyrhub schema","vyr_version":")") + format_version +
           R"(","provider_name":"p","provider_version":"3.2.1","types":)" + types + "}";
}

const char kTypeT[] =
    R"({"name":"t","size":12,"fields":[)"
    R"({"field_name":"a","description":"a","type_name":"int","counting_mode":"ABSOLUTE","offset":0,"type_size":4,"index":0},)"
    R"({"field_name":"b","description":"b","type_name":"uint64_t","counting_mode":"ABSOLUTE","offset":4,"type_size":8,"index":0}]})";
const char kTypeU[] =
    R"({"name":"u","size":8,"fields":[)"
    R"({"field_name":"c","description":"c","type_name":"double","counting_mode":"ABSOLUTE","offset":0,"type_size":8,"index":0}]})";

TEST(SchemaJsonRead, FormatVersionAndShape) {
    struct Case {
        std::string text;
        bool accepted;
        int level;
        std::string message;
    } cases[] = {
        {schema_text("1.5.0", std::string("[") + kTypeT + "]"), true, 0, ""},
        {schema_text("1.4.0", std::string("[") + kTypeT + "]"), true, 0, ""},
        {schema_text("1.5.9", std::string("[") + kTypeT + "]"), true, 0, ""},
        {schema_text("1.6.0", std::string("[") + kTypeT + "]"), false, VYR_LOG_LEVEL_ERROR,
         "Schema version 1.6.0 is incompatible with current version 1.5.0"},
        {schema_text("2.0.0", std::string("[") + kTypeT + "]"), false, VYR_LOG_LEVEL_ERROR,
         "Schema version 2.0.0 is incompatible with current version 1.5.0"},
        {schema_text("x", "[]"), false, VYR_LOG_LEVEL_ERROR,
         "Schema version x is incompatible with current version 1.5.0"},
        {schema_text("1.5.0", "{}"), false, VYR_LOG_LEVEL_INFO, "Not an event schema"},
        {R"({"counter_groups":[]})", false, VYR_LOG_LEVEL_INFO, "Not an event schema"},
        {schema_text("1.5.0", "[1]"), false, VYR_LOG_LEVEL_ERROR,
         "Failed to deserialize type #0 from JSON array"},
        {schema_text("1.5.0", std::string("[") + kTypeT + R"(,{"name":"x","size":1}])"), false,
         VYR_LOG_LEVEL_ERROR, "Failed to deserialize type #1 from JSON array"},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.text);
        Json value(vyr_json_parse_string(c.text.c_str()));
        ASSERT_NE(value.v, nullptr);
        LogCapture log;
        int flag = 7;
        vyr_schema_t *schema = vyr_schema_from_json_filtered_by_fset(value.v, nullptr, &flag);
        EXPECT_EQ(schema != nullptr, c.accepted) << log.dump();
        EXPECT_EQ(flag, c.accepted ? 1 : 0);
        if (!c.accepted) {
            EXPECT_TRUE(log.contains(c.level, c.message)) << log.dump();
        }
        if (schema) {
            EXPECT_EQ(schema->version, VYR_MAKE_VERSION(3, 2, 1));
            ASSERT_EQ(schema->num_types, 1);
            EXPECT_EQ(schema->types[0]->size, 12u);
        }
        vyr_destroy_schema(schema);
    }
}

TEST(SchemaJsonRead, TypeObjects) {
    LogCapture log;
    Json bad(vyr_json_parse_string(R"({"name":"t","size":"12","fields":[]})"));
    int flag = 5;
    EXPECT_EQ(vyr_type_definition_from_json_filtered_by_fset(bad.v, nullptr, &flag), nullptr);
    EXPECT_EQ(flag, 0);
    EXPECT_TRUE(log.contains_fragment("Type definition JSON does not match schema '"));

    // A stored size is kept as it is, even when it disagrees with the fields.
    Json odd(vyr_json_parse_string(
        R"({"name":"t","size":100,"fields":[{"field_name":"a","description":"a","type_name":"int","counting_mode":"ABSOLUTE","offset":0,"type_size":4}]})"));
    vyr_type_definition_t *t = vyr_type_definition_from_json(odd.v);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->size, 100u);
    EXPECT_EQ(t->num_fields, 1);
    vyr_destroy_type_definition(t);

    // Size 0: the fields are not read and the type is dropped, flagged as handled.
    log.clear();
    Json zero(vyr_json_parse_string(R"({"name":"z","size":0,"fields":[1]})"));
    EXPECT_EQ(vyr_type_definition_from_json_filtered_by_fset(zero.v, nullptr, &flag), nullptr);
    EXPECT_EQ(flag, 1);
    EXPECT_TRUE(log.contains(
        VYR_LOG_LEVEL_DEBUG,
        "Skipping type definition 'z' as it has no fields after filtering by field set"));
}

TEST(SchemaJsonRead, FieldSetFilters) {
    std::string text = schema_text("1.5.0", std::string("[") + kTypeT + "," + kTypeU + "]");
    Json value(vyr_json_parse_string(text.c_str()));
    vyr_field_set_t *fset = vyr_create_field_set();
    ASSERT_EQ(vyr_field_set_add(fset, "t", "b"), 0);
    EXPECT_EQ(vyr_field_set_type_is_of_interest(fset, "t"), 1);
    EXPECT_EQ(vyr_field_set_type_is_of_interest(fset, "u"), 0);
    EXPECT_EQ(vyr_field_set_field_is_wanted(fset, "t", "b"), 1);
    EXPECT_EQ(vyr_field_set_field_is_wanted(fset, "t", "a"), 0);
    {
        LogCapture log;
        int flag = 0;
        vyr_schema_t *schema = vyr_schema_from_json_filtered_by_fset(value.v, fset, &flag);
        ASSERT_NE(schema, nullptr);
        EXPECT_EQ(flag, 1);
        ASSERT_EQ(schema->num_types, 1);
        vyr_type_definition_t *t = schema->types[0];
        EXPECT_STREQ(t->name, "t");
        EXPECT_EQ(t->size, 12u);  // the sender's layout stays
        ASSERT_EQ(t->num_fields, 1);
        EXPECT_STREQ(t->fields[0]->field_name, "b");
        EXPECT_EQ(t->fields[0]->offset, 4u);
        EXPECT_TRUE(
            log.contains(VYR_LOG_LEVEL_DEBUG,
                         "Skipping field 't.a' as it is not required by the provided field set"));
        EXPECT_TRUE(log.contains(
            VYR_LOG_LEVEL_DEBUG,
            "Skipping type definition 'u' as it is not required by the provided field set"));
        vyr_destroy_schema(schema);
    }
    // A whole type selects all its fields.
    ASSERT_EQ(vyr_field_set_add(fset, "u", nullptr), 0);
    EXPECT_EQ(vyr_field_set_field_is_wanted(fset, "u", "anything"), 1);
    vyr_schema_t *schema = vyr_schema_from_json_filtered_by_fset(value.v, fset, nullptr);
    ASSERT_NE(schema, nullptr);
    EXPECT_EQ(schema->num_types, 2);
    vyr_destroy_schema(schema);
    vyr_destroy_field_set(fset);

    // Nothing left: the schema itself is dropped.
    fset = vyr_create_field_set();
    ASSERT_EQ(vyr_field_set_add(fset, "other", nullptr), 0);
    LogCapture log;
    int flag = 0;
    EXPECT_EQ(vyr_schema_from_json_filtered_by_fset(value.v, fset, &flag), nullptr);
    EXPECT_EQ(flag, 1);
    EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_DEBUG,
                             "No types found in the schema after filtering by field set"));
    vyr_destroy_field_set(fset);
}

TEST(SchemaJsonGuid, WordRule) {
    struct Case {
        const char *name;
        int result;
    } cases[] = {{"port_guid", 1}, {"GUID", 1},     {"node_guid_0", 1}, {"Guid2", 1},
                 {"x-gUiD", 1},    {"guidance", 0}, {"myguid", 0},      {"gui", 0},
                 {"", 0},          {nullptr, 0},    {"a_guidx_guid", 1}};
    for (auto &c : cases)
        EXPECT_EQ(vyr_string_contains_guid(c.name), c.result) << (c.name ? c.name : "null");
}

TEST_F(SchemaJson, EventRecordAsJson) {
    // Unset means on; the setting is read once, at the first rendering.
    unsetenv("VYR_CONVERT_GUID_TO_HEX_STRING");
    unsetenv("CONVERT_GUID_TO_HEX_STRING");
    vyr_schema_t *schema = vyr_type_system_add_schema(ts, "g", 1, nullptr);
    std::vector<vyr_type_field_info_t> fields = {
        field("node_guid_0", "", "double"), field("myguid", "", "uint32_t"),
        field("count", "", "uint64_t"), field("name", "", "char", 8)};
    ASSERT_EQ(vyr_schema_add_type(schema, "rec", fields.data(), fields.size(), nullptr), 0);
    unsigned char record[28] = {};
    uint64_t guid = 0x8000000000000abcULL;
    uint32_t small = 7;
    uint64_t count = 216;
    memcpy(record, &guid, 8);
    memcpy(record + 8, &small, 4);
    memcpy(record + 12, &count, 8);
    memcpy(record + 20, "ab\0zz", 5);
    Json value(vyr_type_definition_jsonify_data(schema->types[0], record));
    ASSERT_NE(value.v, nullptr);
    EXPECT_EQ(text_of(value.v, 0),
              R"({"node_guid_0":"0x8000000000000abc","myguid":7,"count":216,"name":"ab"})");

    // The answer was kept: changing the variable later has no effect.
    setenv("VYR_CONVERT_GUID_TO_HEX_STRING", "no", 1);
    Json again(vyr_type_definition_jsonify_data(schema->types[0], record));
    EXPECT_EQ(text_of(again.v, 0), text_of(value.v, 0));
    unsetenv("VYR_CONVERT_GUID_TO_HEX_STRING");
    EXPECT_EQ(vyr_type_definition_jsonify_data(nullptr, record), nullptr);
}

}  // namespace
