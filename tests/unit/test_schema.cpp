// Schemas: adding types and their layout, index fields, identifiers and versions.
#include <gtest/gtest.h>

#include "unit_helpers.h"
#include "vyr_schema_json.h"

using vyrtest::LogCapture;
using vyrtest::unit::texts;

namespace {

using Fields = std::vector<vyr_type_field_info_t>;
using Lines = std::vector<std::string>;

vyr_type_field_info_t field(const char *name, const char *type = "int", uint32_t length = 1) {
    return vyr_type_field_info_t{name, name, type, VYR_VALUE_ABSOLUTE, length};
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
    uint8_t index = 99;
    ASSERT_EQ(add("a", {field("u8", "uint8_t"), field("u64", "uint64_t"), field("s", "char", 16)}),
              0);
    ASSERT_EQ(add("b", {field("inner", "a", 2), field("x")}, &index), 0);
    const vyr_type_definition_t *b = schema->types[1];
    EXPECT_EQ(std::to_string(index) + " " + std::to_string(schema->types[0]->fields[1]->offset) +
                  " " + std::to_string(b->fields[0]->type_size) + " " +
                  std::to_string(b->fields[1]->offset) + " " + std::to_string(b->size),
              "1 1 25 50 54");
    EXPECT_EQ(b->fields[0]->type_definition, schema->types[0]);
}

TEST_F(SchemaTest, AddTypeChecksInOrder) {
    ASSERT_EQ(add("a", {field("x")}), VYR_SCHEMA_ADD_OK);
    const struct {
        const char *type;
        Fields fields;
        int code;
        std::string message;  // empty: accepted
    } cases[] = {
        {"a", {field("x")}, 2, "Schema 'demo' already contains type 'a'"},
        {"c",
         {field("x"), field("y", "uint64")},
         3,
         "Unable to register type 'c': type 'uint64' of the field 'y' is undefined"},
        // The duplicate check is narrow: the last field is never compared,
        // and types of one or two fields not at all.
        {"c",
         {field("a"), field("b"), field("c"), field("b"), field("d")},
         2,
         "[vyr_schema_add_type] Failed to register new type 'c': field name 'b' occurs more than "
         "once."},
        {"t1", {field("a"), field("b"), field("a")}, 0, ""},
    };
    for (const auto &c : cases) {
        int before = schema->num_types;
        LogCapture log;
        EXPECT_EQ(add(c.type, c.fields), c.code) << c.type;
        EXPECT_EQ(texts(log, VYR_LOG_LEVEL_ERROR), c.code ? Lines{c.message} : Lines{});
        EXPECT_EQ(schema->num_types, before + (c.code ? 0 : 1));
    }
    // At most 254 types.
    const vyr_type_field_info_t one = field("x");
    uint8_t index = 0;
    for (int i = schema->num_types; i < VYR_MAX_TYPES; ++i)
        vyr_schema_add_type(schema, ("t" + std::to_string(i)).c_str(), &one, 1, &index);
    LogCapture log;
    EXPECT_EQ(vyr_schema_add_type(schema, "t254", &one, 1, &index), VYR_SCHEMA_ADD_LIMIT);
    EXPECT_EQ(index, 253);
    EXPECT_EQ(texts(log), Lines{"[vyr_schema_add_type] Unable to add new type, reached "
                                "VYR_MAX_TYPES. schema->num_types = 254"});
}

TEST_F(SchemaTest, IndexFields) {
    ASSERT_EQ(add("t", {field("y"), field("x")}), 0);
    const char *names[] = {"x", "missing", "y"};
    LogCapture log;
    EXPECT_EQ(vyr_schema_set_field_indexes(schema, 0, names, 3), 0);
    EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_DEBUG,
                             "Mismatch in assigned indices: expected 3, but assigned 2 (t)."));
    // Numbered in the order of the names, read back in field order.
    size_t count = 99;
    const char **indexed = vyr_schema_get_indexed_fields(schema, 0, &count);
    std::string got = std::to_string(schema->types[0]->fields[0]->index) + "," +
                      std::to_string(schema->types[0]->fields[1]->index);
    for (size_t i = 0; i < count; ++i) got += std::string(" ") + indexed[i];
    EXPECT_EQ(got, "2,1 y x");
    free(indexed);

    log.clear();
    EXPECT_EQ(vyr_schema_set_field_indexes(schema, 1, names, 1), 3);
    EXPECT_EQ(vyr_schema_get_indexed_fields(schema, 3, &count), nullptr);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(texts(log, VYR_LOG_LEVEL_ERROR),
              (Lines{"[vyr_schema_set_field_indexes] Invalid type_index: 1 (out of range, max: 0)",
                     "[src/data/schema 218] type_index 3 out of bounds (max: 0)"}));
}

TEST(SchemaId, TextFormsBlobAndVersions) {
    EXPECT_STREQ(vyr_version_string(), "1.24.3");
    EXPECT_STREQ(vyr_version_to_string(VYR_SCHEMA_FORMAT_VERSION), "1.5.0");
    EXPECT_EQ(vyr_version_from_string("255.255.65535"), 0xFFFFFFFFu);
    vyr_schema_id_t id, b;
    ASSERT_EQ(vyr_schema_from_id_string("00010203040506070809Aa0b0c0d0eFf", id), 1);
    EXPECT_EQ(vyrtest::unit::take(vyr_schema_id_string(id)), "00010203040506070809aa0b0c0d0eff");
    EXPECT_EQ(vyr_schema_from_id_string("e9dec1fa2dfaf27564098809ba5ac47g", id), 0);
    vyr_schema_id_set_blob(id);
    vyr_reset_schema_id(b);
    EXPECT_EQ(std::string((const char *)id, 16) + std::to_string(vyr_schema_id_is_blob(id)) +
                  std::to_string(vyr_schema_id_is_unset(b)) +
                  std::to_string(vyr_schema_id_is_unset(id)),
              "BLOB_DATA_SCHEMA110");
    // A missing id orders before any id.
    EXPECT_EQ(
        std::make_tuple(vyr_compare_schema_id(nullptr, nullptr), vyr_compare_schema_id(id, nullptr),
                        vyr_compare_schema_id(nullptr, id)),
        std::make_tuple(0, 1, -1));
}

}  // namespace
