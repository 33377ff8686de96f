// Schemas: adding types and their layout, index fields, identifiers and versions.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include "log_capture.h"
#include "test_paths.h"
#include "vyr_json.h"
#include "vyr_schema.h"
#include "vyr_schema_json.h"

using vyrtest::LogCapture;

namespace {

vyr_type_field_info_t field(const char *name, const char *type, uint32_t length = 1,
                            vyr_value_type_t mode = VYR_VALUE_ABSOLUTE) {
    return vyr_type_field_info_t{name, name, type, mode, length};
}

// A provider schema whose parent holds the built-in types, as in a type system.
class SchemaTest : public ::testing::Test {
  protected:
    void SetUp() override {
        builtin = vyr_create_schema("<built-in>", VYR_SCHEMA_FORMAT_VERSION);
        ASSERT_NE(builtin, nullptr);
        ASSERT_EQ(vyr_schema_register_builtin_types(builtin), 1);
        schema = vyr_create_schema("demo", VYR_MAKE_VERSION(2, 3, 17));
        ASSERT_NE(schema, nullptr);
        schema->parent = builtin;
    }
    void TearDown() override {
        vyr_destroy_schema(schema);
        vyr_destroy_schema(builtin);
    }
    int add(const char *name, std::vector<vyr_type_field_info_t> fields, uint8_t *index = nullptr) {
        return vyr_schema_add_type(schema, name, fields.data(), fields.size(), index);
    }
    vyr_schema_t *builtin = nullptr;
    vyr_schema_t *schema = nullptr;
};

TEST_F(SchemaTest, BuiltinSchemaHoldsTheTable) {
    EXPECT_EQ(builtin->num_types, 22);
    EXPECT_EQ(vyr_schema_sizeof_type(schema, "timestamp"), 8u);
    EXPECT_EQ(vyr_schema_sizeof_type(schema, "unsigned short"), 2u);
    EXPECT_EQ(vyr_schema_sizeof_type(schema, "uint64"), 0u);
    EXPECT_EQ(vyr_schema_find_type_definition(builtin, "a"), nullptr);
}

TEST_F(SchemaTest, FieldsArePackedWithoutPadding) {
    uint8_t index = 99;
    ASSERT_EQ(
        add("a", {field("u8", "uint8_t"), field("u64", "uint64_t"), field("name", "char", 16)},
            &index),
        VYR_SCHEMA_ADD_OK);
    EXPECT_EQ(index, 0);
    vyr_type_definition_t *type = schema->types[0];
    ASSERT_EQ(type->num_fields, 3);
    EXPECT_EQ(type->size, 25u);
    EXPECT_EQ(type->builtin_id, 0u);
    const uint64_t offsets[] = {0, 1, 9};
    const uint64_t sizes[] = {1, 8, 1};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(type->fields[i]->offset, offsets[i]) << i;
        EXPECT_EQ(type->fields[i]->type_size, sizes[i]) << i;
        ASSERT_NE(type->fields[i]->type_definition, nullptr);
        EXPECT_STREQ(type->fields[i]->type_definition->name, type->fields[i]->type_name);
    }
    EXPECT_EQ(type->fields[2]->array_length, 16u);

    // A compound type is usable as a field type of a later one.
    ASSERT_EQ(add("b", {field("inner", "a", 2), field("x", "int")}, &index), VYR_SCHEMA_ADD_OK);
    EXPECT_EQ(index, 1);
    EXPECT_EQ(schema->types[1]->size, 54u);
    EXPECT_EQ(schema->types[1]->fields[0]->type_definition, schema->types[0]);
    EXPECT_EQ(schema->types[1]->fields[1]->offset, 50u);
    EXPECT_EQ(vyr_schema_sizeof_type(schema, "b"), 54u);
}

TEST_F(SchemaTest, AddTypeRefusalsKeepTheSchemaUnchanged) {
    ASSERT_EQ(add("a", {field("x", "int")}), VYR_SCHEMA_ADD_OK);
    struct Case {
        const char *type;
        std::vector<vyr_type_field_info_t> fields;
        int code;
        std::string message;
    } cases[] = {
        {"double", {field("x", "int")}, 2, "Schema 'demo' already contains type 'double'"},
        {"a", {field("x", "int")}, 2, "Schema 'demo' already contains type 'a'"},
        {"c",
         {field("x", "int"), field("y", "uint64")},
         3,
         "Unable to register type 'c': type 'uint64' of the field 'y' is undefined"},
        {"c",
         {field("a", "int"), field("a", "int"), field("b", "int")},
         2,
         "[vyr_schema_add_type] Failed to register new type 'c': field name 'a' occurs more than "
         "once."},
        {"c",
         {field("a", "int"), field("b", "int"), field("c", "int"), field("b", "int"),
          field("d", "int")},
         2,
         "[vyr_schema_add_type] Failed to register new type 'c': field name 'b' occurs more than "
         "once."},
    };
    for (auto &c : cases) {
        LogCapture log;
        EXPECT_EQ(add(c.type, c.fields), c.code) << c.message;
        EXPECT_EQ(log.count(VYR_LOG_LEVEL_ERROR, c.message), 1u) << log.dump();
        EXPECT_EQ(schema->num_types, 1);
    }
}

TEST_F(SchemaTest, DuplicateFieldRuleIsNarrow) {
    // The last field and types of one or two fields are never compared.
    EXPECT_EQ(add("t1", {field("a", "int"), field("b", "int"), field("a", "int")}),
              VYR_SCHEMA_ADD_OK);
    EXPECT_EQ(add("t2", {field("a", "int"), field("a", "int")}), VYR_SCHEMA_ADD_OK);
    EXPECT_EQ(add("t3", {field("a", "int"), field("a", "int"), field("b", "int")}),
              VYR_SCHEMA_ADD_DUPLICATE);
    EXPECT_EQ(schema->num_types, 2);
}

TEST_F(SchemaTest, UnnamedSchemaIsReportedAsUndefined) {
    vyr_schema_t *unnamed = vyr_create_schema(nullptr, 0);
    unnamed->parent = builtin;
    vyr_type_field_info_t f = field("x", "int");
    LogCapture log;
    EXPECT_EQ(vyr_schema_add_type(unnamed, "float", &f, 1, nullptr), VYR_SCHEMA_ADD_DUPLICATE);
    EXPECT_TRUE(
        log.contains(VYR_LOG_LEVEL_ERROR, "Schema '<undefined>' already contains type 'float'"));
    vyr_destroy_schema(unnamed);
}

TEST_F(SchemaTest, BadArgumentsAreRefusedWithoutCrash) {
    vyr_type_field_info_t f = field("x", "int");
    LogCapture log(VYR_LOG_LEVEL_ERROR);
    EXPECT_EQ(vyr_schema_add_type(nullptr, "t", &f, 1, nullptr), VYR_SCHEMA_ADD_ALLOC);
    EXPECT_EQ(vyr_schema_add_type(schema, nullptr, &f, 1, nullptr), VYR_SCHEMA_ADD_ALLOC);
    EXPECT_EQ(vyr_schema_add_type(schema, "t", nullptr, 1, nullptr), VYR_SCHEMA_ADD_ALLOC);
    EXPECT_EQ(vyr_schema_add_type(schema, "t", &f, 0, nullptr), VYR_SCHEMA_ADD_ALLOC);
    vyr_type_field_info_t no_type = field("x", nullptr);
    EXPECT_EQ(vyr_schema_add_type(schema, "t", &no_type, 1, nullptr),
              VYR_SCHEMA_ADD_UNDEFINED_TYPE);
    EXPECT_EQ(schema->num_types, 0);
    EXPECT_EQ(log.lines().size(), 5u) << log.dump();
    vyr_destroy_schema(nullptr);
    EXPECT_EQ(vyr_schema_find_type_definition(nullptr, "int"), nullptr);
    EXPECT_EQ(vyr_schema_find_type_definition(schema, nullptr), nullptr);
}

TEST_F(SchemaTest, TypeLimitIs254) {
    vyr_type_field_info_t f = field("x", "uint8_t");
    for (int i = 0; i < VYR_MAX_TYPES; ++i) {
        std::string name = "t" + std::to_string(i);
        uint8_t index = 0;
        ASSERT_EQ(vyr_schema_add_type(schema, name.c_str(), &f, 1, &index), VYR_SCHEMA_ADD_OK);
        ASSERT_EQ(index, i);
    }
    LogCapture log;
    uint8_t index = 7;
    EXPECT_EQ(vyr_schema_add_type(schema, "t254", &f, 1, &index), VYR_SCHEMA_ADD_LIMIT);
    EXPECT_EQ(index, 7);
    EXPECT_TRUE(log.contains(
        VYR_LOG_LEVEL_ERROR,
        "[vyr_schema_add_type] Unable to add new type, reached VYR_MAX_TYPES. schema->num_types "
        "= 254"));
    EXPECT_EQ(schema->num_types, 254);
}

TEST_F(SchemaTest, IndexFieldsFollowTheNameOrderAndReadBackInFieldOrder) {
    ASSERT_EQ(add("t", {field("y", "int"), field("x", "int")}), 0);
    const char *names[] = {"x", "missing", "y"};
    {
        LogCapture log;
        EXPECT_EQ(vyr_schema_set_field_indexes(schema, 0, names, 3), 0);
        EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_DEBUG,
                                 "Mismatch in assigned indices: expected 3, but assigned 2 (t)."))
            << log.dump();
    }
    EXPECT_EQ(schema->types[0]->fields[0]->index, 2);
    EXPECT_EQ(schema->types[0]->fields[1]->index, 1);

    size_t count = 99;
    const char **indexed = vyr_schema_get_indexed_fields(schema, 0, &count);
    ASSERT_NE(indexed, nullptr);
    ASSERT_EQ(count, 2u);
    EXPECT_STREQ(indexed[0], "y");
    EXPECT_STREQ(indexed[1], "x");
    free(indexed);

    // A new call starts from scratch; no names clears every index.
    EXPECT_EQ(vyr_schema_set_field_indexes(schema, 0, names, 0), 0);
    indexed = vyr_schema_get_indexed_fields(schema, 0, &count);
    ASSERT_NE(indexed, nullptr);
    EXPECT_EQ(count, 0u);
    free(indexed);
}

TEST_F(SchemaTest, IndexCallsRejectBadArguments) {
    ASSERT_EQ(add("t", {field("y", "int")}), 0);
    const char *names[] = {"y"};
    struct Case {
        vyr_schema_t *schema;
        const char **names;
        uint8_t type_index;
        std::string message;
    } cases[] = {
        {nullptr, names, 0, "[vyr_schema_set_field_indexes] Schema pointer is NULL!"},
        {schema, nullptr, 0, "[vyr_schema_set_field_indexes] Index names array is NULL!"},
        {schema, names, 1,
         "[vyr_schema_set_field_indexes] Invalid type_index: 1 (out of range, max: 0)"},
    };
    for (auto &c : cases) {
        LogCapture log;
        EXPECT_EQ(vyr_schema_set_field_indexes(c.schema, c.type_index, c.names, 1), 3);
        EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_ERROR, c.message)) << log.dump();
    }

    LogCapture log;
    size_t count = 5;
    EXPECT_EQ(vyr_schema_get_indexed_fields(nullptr, 0, &count), nullptr);
    EXPECT_EQ(count, 0u);
    EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_ERROR, "[src/data/schema 213] schema is NULL"));
    EXPECT_EQ(vyr_schema_get_indexed_fields(schema, 3, &count), nullptr);
    EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_ERROR,
                             "[src/data/schema 218] type_index 3 out of bounds (max: 0)"))
        << log.dump();
    schema->types[1] = nullptr;
    schema->num_types = 2;  // a hole, as a broken caller could leave it
    EXPECT_EQ(vyr_schema_get_indexed_fields(schema, 1, &count), nullptr);
    EXPECT_TRUE(
        log.contains(VYR_LOG_LEVEL_ERROR, "[src/data/schema 228] schema->types[1] is NULL"));
    schema->num_types = 1;
    EXPECT_EQ(vyr_schema_get_indexed_fields(schema, 0, nullptr), nullptr);
}

TEST_F(SchemaTest, AdjustReferencesFindsTypesAgainOrNames) {
    ASSERT_EQ(add("t", {field("a", "int"), field("b", "double")}), 0);
    vyr_type_definition_t *type = schema->types[0];
    type->fields[0]->type_definition = nullptr;
    EXPECT_EQ(vyr_schema_adjust_field_type_references(schema, type), 1);
    EXPECT_EQ(type->fields[0]->type_definition, vyr_schema_find_type_definition(builtin, "int"));

    schema->parent = nullptr;
    LogCapture log;
    EXPECT_EQ(vyr_schema_adjust_field_type_references(schema, type), 0);
    EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_ERROR,
                             "Definition of type int not found within the schema demo"));
    schema->parent = builtin;
}

TEST_F(SchemaTest, IdentifierIsTheDigestOfThePrettyForm) {
    vyr_schema_id_t id;
    memset(id, 0xAB, sizeof id);
    EXPECT_EQ(vyr_schema_extract_id(schema, id), 0);
    EXPECT_EQ(vyr_schema_update_md5(schema), 0);
    EXPECT_TRUE(vyr_schema_id_is_unset(schema->md5_digest));
    char *text = vyr_schema_id_string(schema->md5_digest);
    EXPECT_STREQ(text, "00000000000000000000000000000000");
    free(text);

    ASSERT_EQ(add("t", {field("a", "int")}), 0);
    ASSERT_EQ(vyr_schema_extract_id(schema, id), 1);
    EXPECT_TRUE(vyr_schema_id_is_unset(schema->md5_digest));  // extract does not store
    ASSERT_EQ(vyr_schema_update_md5(schema), 1);
    EXPECT_EQ(vyr_compare_schema_id(id, schema->md5_digest), 0);

    json_t *value = vyr_schema_jsonify(schema);
    vyr_schema_id_t expected;
    ASSERT_EQ(vyr_type_system_get_json_schema_id(expected, value), 1);
    json_decref(value);
    EXPECT_EQ(vyr_compare_schema_id(expected, schema->md5_digest), 0);
    char hex[VYR_SCHEMA_ID_STRING_LENGTH];
    vyr_schema_id_to_schema_string(expected, hex);
    EXPECT_STREQ(schema->md5_string, hex);

    char *json = vyr_schema_serialize_type_definition(schema, "t", 0);
    ASSERT_NE(json, nullptr);
    EXPECT_STREQ(json,
                 "{\"name\":\"t\",\"size\":4,\"fields\":[{\"field_name\":\"a\",\"description\":"
                 "\"a\",\"type_name\":\"int\",\"counting_mode\":\"ABSOLUTE\",\"offset\":0,"
                 "\"type_size\":4,\"index\":0}]}");
    free(json);
    EXPECT_EQ(vyr_schema_serialize_type_definition(schema, "nope", 1), nullptr);
}

TEST(SchemaId, TextRoundTripsAndRejectsBadInput) {
    vyr_schema_id_t id;
    const char *lower = "000102030405060708090a0b0c0d0eff";
    ASSERT_EQ(vyr_schema_from_id_string(lower, id), 1);
    for (int i = 0; i < 15; ++i) EXPECT_EQ(id[i], i);
    EXPECT_EQ(id[15], 0xFF);
    char *text = vyr_schema_id_string(id);
    EXPECT_STREQ(text, lower);
    free(text);

    ASSERT_EQ(vyr_schema_from_id_string("E9DEC1FA2DFAF27564098809BA5AC470", id), 1);
    char buffer[VYR_SCHEMA_ID_STRING_LENGTH];
    vyr_schema_id_to_schema_string(id, buffer);
    EXPECT_STREQ(buffer, "e9dec1fa2dfaf27564098809ba5ac470");

    const char *bad[] = {nullptr,
                         "",
                         "e9dec1fa2dfaf27564098809ba5ac47",
                         "e9dec1fa2dfaf27564098809ba5ac4700",
                         "e9dec1fa2dfaf27564098809ba5ac47g",
                         " 9dec1fa2dfaf27564098809ba5ac470"};
    for (const char *b : bad) EXPECT_EQ(vyr_schema_from_id_string(b, id), 0) << (b ? b : "null");
}

TEST(SchemaId, ResetCopyCompareAndBlob) {
    vyr_schema_id_t a, b;
    vyr_schema_id_set_blob(a);
    EXPECT_EQ(memcmp(a, "BLOB_DATA_SCHEMA", 16), 0);
    EXPECT_EQ(vyr_schema_id_is_blob(a), 1);
    EXPECT_EQ(vyr_schema_id_is_unset(a), 0);
    vyr_copy_schema_id(b, a);
    EXPECT_EQ(vyr_compare_schema_id(a, b), 0);
    b[15] = 'B';
    EXPECT_LT(vyr_compare_schema_id(a, b), 0);  // last byte A < B
    EXPECT_EQ(vyr_schema_id_is_blob(b), 0);
    vyr_reset_schema_id(b);
    EXPECT_EQ(vyr_schema_id_is_unset(b), 1);
}

TEST(Version, TextAndCompatibility) {
    EXPECT_EQ(vyr_version(), 202753u);
    EXPECT_STREQ(vyr_version_string(), "1.24.3");
    EXPECT_STREQ(vyr_version_to_string(202753u), "1.24.3");
    EXPECT_STREQ(vyr_version_to_string(VYR_SCHEMA_FORMAT_VERSION), "1.5.0");
    EXPECT_STREQ(vyr_version_to_string(0xFFFFFFFFu), "255.255.65535");

    struct Parse {
        const char *text;
        uint32_t version;
    } parses[] = {{"1.5.0", 1281},
                  {"1.24.3", 202753},
                  {"2.3.17", 0x110302},
                  {"1.4", 1025},
                  {"3.1 .7", 0x070103},
                  {"1", 0},
                  {"", 0},
                  {"x.1.2", 0},
                  {nullptr, 0},
                  {"255.255.65535", 0xFFFFFFFFu}};
    for (auto &p : parses)
        EXPECT_EQ(vyr_version_from_string(p.text), p.version) << (p.text ? p.text : "null");

    EXPECT_EQ(vyr_version_compare(VYR_MAKE_VERSION(2, 0, 0), VYR_MAKE_VERSION(1, 9, 0)), 1);
    EXPECT_EQ(vyr_version_compare(VYR_MAKE_VERSION(1, 3, 0), VYR_MAKE_VERSION(1, 5, 0)), -2);
    EXPECT_EQ(vyr_version_compare(VYR_MAKE_VERSION(1, 5, 9), VYR_MAKE_VERSION(1, 5, 0)), 0);

    struct Compat {
        const char *required;
        const char *offered;
        int result;
    } compat[] = {{"1.4.0", "1.5.0", 1}, {"1.5.7", "1.5.0", 1}, {"1.6.0", "1.5.0", 0},
                  {"2.0.0", "1.5.0", 0}, {"1.5.0", "2.5.0", 0}, {"bad", "1.5.0", 0},
                  {"1.5.0", nullptr, 0}};
    for (auto &c : compat)
        EXPECT_EQ(vyr_version_strings_are_compatible(c.required, c.offered), c.result)
            << c.required;
}

TEST_F(SchemaTest, LoadFromFileResolvesAgainstTheParent) {
    ASSERT_EQ(add("a", {field("u8", "uint8_t"), field("name", "char", 16)}), 0);
    ASSERT_EQ(add("b", {field("inner", "a"), field("n", "int")}), 0);
    json_t *value = vyr_schema_jsonify(schema);
    char *text = vyr_json_serialize(value, 1);
    json_decref(value);
    std::string path = "/tmp/h2b_schema_" + std::to_string(getpid()) + ".json";
    vyrtest::write_file(path, text);
    free(text);
    ASSERT_EQ(vyr_schema_update_md5(schema), 1);

    vyr_schema_t *loaded = vyr_schema_load_from_file(path.c_str(), builtin);
    ASSERT_NE(loaded, nullptr);
    EXPECT_STREQ(loaded->name, "demo");
    EXPECT_EQ(loaded->version, schema->version);
    EXPECT_EQ(loaded->parent, builtin);
    ASSERT_EQ(loaded->num_types, 2);
    EXPECT_EQ(loaded->types[1]->fields[0]->type_definition, loaded->types[0]);
    EXPECT_EQ(loaded->types[0]->fields[1]->type_definition,
              vyr_schema_find_type_definition(builtin, "char"));
    EXPECT_STREQ(loaded->md5_string, schema->md5_string);
    vyr_destroy_schema(loaded);

    {
        LogCapture log;
        EXPECT_EQ(vyr_schema_load_from_file(path.c_str(), nullptr), nullptr);
        EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_ERROR,
                                 "Definition of type uint8_t not found within the schema demo"));
    }
    unlink(path.c_str());
    LogCapture log;
    EXPECT_EQ(vyr_schema_load_from_file(path.c_str(), builtin), nullptr);
    EXPECT_TRUE(
        log.contains(VYR_LOG_LEVEL_ERROR, "Failed reading schema JSON from file '" + path + "'"));
}

}  // namespace
