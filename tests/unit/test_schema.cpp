// Schemas: adding types and their layout, index fields, identifiers and versions.
#include <gtest/gtest.h>

#include <cstring>

#include "unit_helpers.h"
#include "vyr_schema_json.h"

using vyrtest::LogCapture;

namespace {

using Fields = std::vector<vyr_type_field_info_t>;

vyr_type_field_info_t field(const char *name, const char *type, uint32_t length = 1) {
    return vyr_type_field_info_t{name, name, type, VYR_VALUE_ABSOLUTE, length};
}

Fields ints(std::initializer_list<const char *> names) {
    Fields out;
    for (const char *n : names) out.push_back(field(n, "int"));
    return out;
}

// A provider schema whose parent holds the built-in types, as in a type system.
class SchemaTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(vyr_schema_register_builtin_types(builtin), 1);
        schema->parent = builtin;
    }
    void TearDown() override {
        vyr_destroy_schema(schema);
        vyr_destroy_schema(builtin);
    }
    int add(const char *name, Fields fields, uint8_t *index = nullptr) {
        return vyr_schema_add_type(schema, name, fields.data(), fields.size(), index);
    }
    vyr_schema_t *builtin = vyr_create_schema("<built-in>", VYR_SCHEMA_FORMAT_VERSION);
    vyr_schema_t *schema = vyr_create_schema("demo", VYR_MAKE_VERSION(2, 3, 17));
};

TEST_F(SchemaTest, FieldsArePackedWithoutPadding) {
    EXPECT_EQ(vyr_schema_sizeof_type(schema, "unsigned short"), 2u);  // through the parent
    EXPECT_EQ(vyr_schema_sizeof_type(schema, "uint64"), 0u);
    uint8_t index = 99;
    ASSERT_EQ(add("a", {field("u8", "uint8_t"), field("u64", "uint64_t"), field("s", "char", 16)},
                  &index),
              VYR_SCHEMA_ADD_OK);
    ASSERT_EQ(add("b", {field("inner", "a", 2), field("x", "int")}, &index), VYR_SCHEMA_ADD_OK);
    EXPECT_EQ(index, 1);
    const struct {
        int type, field;
        uint64_t offset, size;
        const vyr_type_definition_t *definition;
    } cases[] = {{0, 0, 0, 1, vyr_schema_find_type_definition(builtin, "uint8_t")},
                 {0, 1, 1, 8, vyr_schema_find_type_definition(builtin, "uint64_t")},
                 {0, 2, 9, 1, vyr_schema_find_type_definition(builtin, "char")},
                 {1, 0, 0, 25, schema->types[0]},
                 {1, 1, 50, 4, vyr_schema_find_type_definition(builtin, "int")}};
    for (const auto &c : cases) {
        const vyr_type_field_definition_t *f = schema->types[c.type]->fields[c.field];
        EXPECT_EQ(std::make_tuple(f->offset, f->type_size, f->type_definition),
                  std::make_tuple(c.offset, c.size, c.definition))
            << c.type << "." << c.field;
    }
    EXPECT_EQ(schema->types[0]->size, 25u);
    EXPECT_EQ(vyr_schema_sizeof_type(schema, "b"), 54u);
}

TEST_F(SchemaTest, AddTypeChecksInOrder) {
    ASSERT_EQ(add("a", {field("x", "int")}), VYR_SCHEMA_ADD_OK);
    const std::string dup = "[vyr_schema_add_type] Failed to register new type 'c': field name '";
    const struct {
        const char *type;
        Fields fields;
        int code;
        std::string message;  // empty: accepted
    } cases[] = {
        {"double", ints({"x"}), 2, "Schema 'demo' already contains type 'double'"},
        {"a", ints({"x"}), 2, "Schema 'demo' already contains type 'a'"},
        {"c",
         {field("x", "int"), field("y", "uint64")},
         3,
         "Unable to register type 'c': type 'uint64' of the field 'y' is undefined"},
        // The duplicate check is narrow: the last field is never compared,
        // and types of one or two fields not at all.
        {"c", ints({"a", "a", "b"}), 2, dup + "a' occurs more than once."},
        {"c", ints({"a", "b", "c", "b", "d"}), 2, dup + "b' occurs more than once."},
        {"t1", ints({"a", "b", "a"}), 0, ""},
    };
    for (const auto &c : cases) {
        int before = schema->num_types;
        LogCapture log;
        EXPECT_EQ(add(c.type, c.fields), c.code) << c.type;
        if (c.code) {
            EXPECT_EQ(vyrtest::unit::texts(log, VYR_LOG_LEVEL_ERROR),
                      std::vector<std::string>{c.message});
        }
        EXPECT_EQ(schema->num_types, before + (c.code ? 0 : 1));
    }
}

TEST_F(SchemaTest, TypeLimitIs254) {
    vyr_type_field_info_t f = field("x", "uint8_t");
    uint8_t index = 0;
    for (int i = 0; i < VYR_MAX_TYPES; ++i) {
        ASSERT_EQ(vyr_schema_add_type(schema, ("t" + std::to_string(i)).c_str(), &f, 1, &index), 0);
        ASSERT_EQ(index, i);
    }
    LogCapture log;
    EXPECT_EQ(vyr_schema_add_type(schema, "t254", &f, 1, &index), VYR_SCHEMA_ADD_LIMIT);
    EXPECT_EQ(index, 253);
    EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_ERROR,
                             "[vyr_schema_add_type] Unable to add new type, reached "
                             "VYR_MAX_TYPES. schema->num_types = 254"));
}

TEST_F(SchemaTest, IndexFieldsFollowTheNameOrderAndReadBackInFieldOrder) {
    ASSERT_EQ(add("t", {field("y", "int"), field("x", "int")}), 0);
    const char *names[] = {"x", "missing", "y"};
    LogCapture log;
    EXPECT_EQ(vyr_schema_set_field_indexes(schema, 0, names, 3), 0);
    EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_DEBUG,
                             "Mismatch in assigned indices: expected 3, but assigned 2 (t)."));
    size_t count = 99;
    const char **indexed = vyr_schema_get_indexed_fields(schema, 0, &count);
    std::string got = std::to_string(schema->types[0]->fields[0]->index) + "," +
                      std::to_string(schema->types[0]->fields[1]->index);
    for (size_t i = 0; i < count; ++i) got += std::string(" ") + indexed[i];
    EXPECT_EQ(got, "2,1 y x");
    free(indexed);
}

TEST_F(SchemaTest, IndexCallsRejectBadArguments) {
    ASSERT_EQ(add("t", {field("y", "int")}), 0);
    const char *names[] = {"y"};
    LogCapture log;
    EXPECT_EQ(vyr_schema_set_field_indexes(nullptr, 0, names, 1), 3);
    EXPECT_EQ(vyr_schema_set_field_indexes(schema, 0, nullptr, 1), 3);
    EXPECT_EQ(vyr_schema_set_field_indexes(schema, 1, names, 1), 3);
    size_t count = 5;
    EXPECT_EQ(vyr_schema_get_indexed_fields(nullptr, 0, &count), nullptr);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(vyr_schema_get_indexed_fields(schema, 3, &count), nullptr);
    schema->types[1] = nullptr;
    schema->num_types = 2;  // a hole, as a broken caller could leave it
    EXPECT_EQ(vyr_schema_get_indexed_fields(schema, 1, &count), nullptr);
    schema->num_types = 1;
    EXPECT_EQ(vyr_schema_get_indexed_fields(schema, 0, nullptr), nullptr);
    EXPECT_EQ(vyrtest::unit::texts(log, VYR_LOG_LEVEL_ERROR),
              (std::vector<std::string>{
                  "[vyr_schema_set_field_indexes] Schema pointer is NULL!",
                  "[vyr_schema_set_field_indexes] Index names array is NULL!",
                  "[vyr_schema_set_field_indexes] Invalid type_index: 1 (out of range, max: 0)",
                  "[src/data/schema 213] schema is NULL",
                  "[src/data/schema 218] type_index 3 out of bounds (max: 0)",
                  "[src/data/schema 228] schema->types[1] is NULL"}));
}

TEST(SchemaId, TextFormsCopiesAndBlob) {
    vyr_schema_id_t id, b;
    ASSERT_EQ(vyr_schema_from_id_string("00010203040506070809Aa0b0c0d0eFf", id), 1);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(id[i], i == 10 ? 0xAA : i == 15 ? 0xFF : i);
    EXPECT_EQ(vyrtest::unit::take(vyr_schema_id_string(id)), "00010203040506070809aa0b0c0d0eff");
    for (const char *bad :
         {(const char *)nullptr, "e9dec1fa2dfaf27564098809ba5ac47",
          "e9dec1fa2dfaf27564098809ba5ac4700", "e9dec1fa2dfaf27564098809ba5ac47g"})
        EXPECT_EQ(vyr_schema_from_id_string(bad, id), 0) << (bad ? bad : "null");
    vyr_schema_id_set_blob(id);
    vyr_copy_schema_id(b, id);
    const int same = vyr_compare_schema_id(id, b);
    b[15] = 'B';  // last byte A < B
    const int less = vyr_compare_schema_id(id, b) < 0;
    vyr_reset_schema_id(b);
    EXPECT_EQ(std::string((const char *)id, 16) + std::to_string(vyr_schema_id_is_blob(id)) +
                  std::to_string(same) + std::to_string(less) +
                  std::to_string(vyr_schema_id_is_unset(b)),
              "BLOB_DATA_SCHEMA1011");
}

TEST(Version, TextAndCompatibility) {
    EXPECT_EQ(vyr_version(), 202753u);
    EXPECT_STREQ(vyr_version_string(), "1.24.3");
    EXPECT_STREQ(vyr_version_to_string(VYR_SCHEMA_FORMAT_VERSION), "1.5.0");
    const struct {
        const char *text;
        uint32_t version;
    } parses[] = {{"2.3.17", 0x110302}, {"1.4", 1025},
                  {"3.1 .7", 0x070103}, {"1", 0},
                  {nullptr, 0},         {"255.255.65535", 0xFFFFFFFFu}};
    for (const auto &p : parses)
        EXPECT_EQ(vyr_version_from_string(p.text), p.version) << (p.text ? p.text : "null");

    // Comparisons are shown through the schema and type-system readers' version checks.
    EXPECT_EQ(vyr_version_strings_are_compatible("1.5.0", "2.5.0"), 0);
    EXPECT_EQ(vyr_version_strings_are_compatible("1.5.0", nullptr), 0);
}

TEST_F(SchemaTest, LoadFromFileResolvesAgainstTheParent) {
    ASSERT_EQ(add("a", {field("u8", "uint8_t"), field("name", "char", 16)}), 0);
    ASSERT_EQ(add("b", {field("inner", "a"), field("n", "int")}), 0);
    json_t *value = vyr_schema_jsonify(schema);
    vyrtest::unit::TempFile file(vyrtest::unit::text_of(value, true));
    json_decref(value);
    ASSERT_EQ(vyr_schema_update_md5(schema), 1);

    vyr_schema_t *loaded = vyr_schema_load_from_file(file.path.c_str(), builtin);
    ASSERT_EQ(loaded ? loaded->num_types : -1, 2);
    EXPECT_EQ(loaded->types[1]->fields[0]->type_definition, loaded->types[0]);
    EXPECT_STREQ(loaded->md5_string, schema->md5_string);
    vyr_destroy_schema(loaded);

    LogCapture log;
    EXPECT_EQ(vyr_schema_load_from_file(file.path.c_str(), nullptr), nullptr);
    EXPECT_EQ(vyr_schema_load_from_file("/nonexistent/schema.json", builtin), nullptr);
    EXPECT_EQ(vyrtest::unit::texts(log, VYR_LOG_LEVEL_ERROR),
              (std::vector<std::string>{
                  "Definition of type uint8_t not found within the schema demo",
                  "Failed reading schema JSON from file '/nonexistent/schema.json'"}));
}

}  // namespace
