// Built-in types: lookups, registration and JSON rendering of values and
// record fields.
#include <gtest/gtest.h>

#include "unit_helpers.h"
#include "vyr_type_system.h"

namespace {

using vyrtest::unit::Json;
using vyrtest::unit::text_of;

// Ids 1 to 22.
// clang-format off
const char *const kNames[] = {
    "bool", "char", "short", "int", "long", "long long", "unsigned char", "unsigned short",
    "unsigned int", "unsigned long", "unsigned long long", "float", "double", "int8_t", "int16_t",
    "int32_t", "int64_t", "uint8_t", "uint16_t", "uint32_t", "uint64_t", "timestamp"};
// clang-format on
const uint64_t kSizes[] = {1, 1, 2, 4, 8, 8, 1, 2, 4, 8, 8, 4, 8, 1, 2, 4, 8, 1, 2, 4, 8, 8};

// Values as packed records hold them: one pad byte first, so every read is unaligned.
template <typename T>
std::string raw(std::initializer_list<T> values) {
    return std::string(1, '\0') +
           std::string(reinterpret_cast<const char *>(values.begin()), values.size() * sizeof(T));
}

TEST(BuiltinTypes, TableRegistrationAndValueTypes) {
    for (const char *name : {"Double", "char ", (const char *)nullptr})
        EXPECT_EQ(vyr_builtin_type_from_name(name), 0u) << (name ? name : "null");
    // Registration into a bare built-in schema, whole and up to the schema limit.
    for (uint8_t start : {0, 240}) {
        vyr_schema_t schema{};
        vyr_type_system_t ts{};
        ts.builtin_schema = &schema;
        schema.num_types = start;  // slots below are not looked at
        EXPECT_EQ(vyr_builtin_type_register_types(&ts), start ? 0 : 1);
        ASSERT_EQ(schema.num_types, start ? VYR_MAX_TYPES : 22);
        for (size_t i = start; i < schema.num_types; ++i) {
            const vyr_type_definition_t *d = schema.types[i];
            size_t id = i - start + 1;
            EXPECT_EQ(
                std::make_tuple(std::string(d->name), size_t(d->builtin_id), d->size,
                                vyr_builtin_type_from_name(d->name),
                                std::string(vyr_builtin_type_name(id)), vyr_builtin_type_size(id)),
                std::make_tuple(std::string(kNames[id - 1]), id, kSizes[id - 1], uint32_t(id),
                                std::string(kNames[id - 1]), kSizes[id - 1]));
            vyr_destroy_type_definition(schema.types[i]);
        }
    }

    EXPECT_STREQ(vyr_value_type_string(VYR_VALUE_RUNNING_SUM), "RUNNING_SUM");
    EXPECT_EQ(vyr_value_type_from_string("ABSOLUTE_MONOTONIC"), VYR_VALUE_RUNNING_SUM);
    EXPECT_EQ(static_cast<int>(vyr_value_type_from_string("absolute")), -1);
    uint64_t v = 0;
    EXPECT_EQ(vyr_builtin_type_jsonify(23, &v), nullptr);
    EXPECT_EQ(vyr_builtin_type_jsonify_with_field_name(0, &v, "guid"), nullptr);
}

// Fields as a schema lays them out: each the single field of a type of its own.
TEST(FieldData, ScalarsTextsArraysAndCompounds) {
    vyr_type_system_t *ts = vyr_create_type_system();
    vyr_schema_t *schema = vyr_type_system_add_schema(ts, "s", 1, nullptr);
    vyr_type_field_info_t pair[] = {{"a", "a", "uint8_t", VYR_VALUE_ABSOLUTE, 1},
                                    {"b", "b", "uint16_t", VYR_VALUE_ABSOLUTE, 1}};
    ASSERT_EQ(vyr_schema_add_type(schema, "pair", pair, 2, nullptr), 0);
    auto field = [&](const char *name, const char *type, uint32_t length) {
        vyr_type_field_info_t info = {name, name, type, VYR_VALUE_ABSOLUTE, length};
        uint8_t index = 0;
        vyr_schema_add_type(schema, ("t" + std::to_string(schema->num_types)).c_str(), &info, 1,
                            &index);
        return schema->types[index]->fields[0];
    };
    const struct {
        const char *name, *type;
        uint32_t length;
        std::string bytes;  // after a pad byte
        const char *json;
    } cases[] = {
        {"x", "char", 1, raw<uint8_t>({0xff}), "255"},  // a single char is a number
        {"x", "long long", 1, raw<int64_t>({INT64_MIN}), "-9.2233720368547758e+18"},
        {"x", "uint64_t", 1, raw<uint64_t>({UINT64_MAX}), "1.8446744073709552e+19"},
        {"x", "unsigned long", 1, raw<uint64_t>({1ull << 53}), "9007199254740992"},
        // GUID fields: only the 64-bit ids, only "guid" or "GUID" anywhere in the name.
        {"node_guid", "uint64_t", 1, raw<uint64_t>({1ull << 63}), "\"0x8000000000000000\""},
        {"misguided", "uint64_t", 1, raw<uint64_t>({0xabc}), "\"0x0000000000000abc\""},
        {"Guid", "uint64_t", 1, raw<uint64_t>({0xabc}), "2748"},
        {"guid", "int64_t", 1, raw<int64_t>({-1}), "\"0xffffffffffffffff\""},
        // Text arrays: the printable prefix, at most the array's length.
        {"text", "char", 8, "-" + std::string("ab\0cdefg", 8), "\"ab\""},
        {"text", "char", 3, "-\xc3\xa9z", "\"\""},
        {"text", "char", 3, "-abcz", "\"abc\""},  // a full slot stops at its end
        // Other arrays element by element; compound fields are objects of their type.
        {"vals", "uint32_t", 3, raw<uint32_t>({1, 0xffffffffu, 3}), "[1,4294967295,3]"},
        {"port_guid", "uint64_t", 2, raw<uint64_t>({1, 0xfedcba9876543210ull}),
         "[\"0x0000000000000001\",\"0xfedcba9876543210\"]"},
        {"p", "pair", 2, raw<uint8_t>({7, 0x34, 0x12, 8, 0xff, 0xff}),
         "[{\"a\":7,\"b\":4660},{\"a\":8,\"b\":65535}]"},
    };
    vyrtest::LogCapture log(VYR_LOG_LEVEL_ERROR);
    for (const auto &c : cases) {
        Json value(
            vyr_type_field_jsonify_data(field(c.name, c.type, c.length), c.bytes.data() + 1));
        EXPECT_EQ(text_of(value.v), c.json) << c.type;
    }
    EXPECT_TRUE(log.lines().empty());

    vyr_destroy_type_system(ts);
}

}  // namespace
