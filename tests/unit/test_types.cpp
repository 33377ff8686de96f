// Built-in types: lookups, definitions, registration and JSON rendering of
// values and record fields.
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

void expect_builtin(const vyr_type_definition_t *def, size_t i) {
    EXPECT_EQ(def ? std::make_tuple(std::string(def->name), size_t(def->builtin_id), def->size)
                  : std::make_tuple(std::string("<null>"), size_t(0), uint64_t(0)),
              std::make_tuple(std::string(kNames[i]), i + 1, kSizes[i]));
}

TEST(BuiltinTypes, LookupsFollowTheTable) {
    for (uint32_t id = 1; id <= 22; ++id) {
        EXPECT_STREQ(vyr_builtin_type_name(id), kNames[id - 1]);
        EXPECT_EQ(vyr_builtin_type_size(id), kSizes[id - 1]);
        EXPECT_EQ(vyr_builtin_type_from_name(kNames[id - 1]), id);
    }
    for (const char *name : {"uint64", "Double", "long  long", "", "char ", (const char *)nullptr})
        EXPECT_EQ(vyr_builtin_type_from_name(name), 0u) << (name ? name : "null");
}

TEST(BuiltinTypes, DefinitionsStopAtCapacityOrTableEnd) {
    for (int capacity : {0, 1, 30}) {
        std::vector<vyr_type_definition_t *> defs(31, nullptr);
        int stored = vyr_builtin_type_get_type_defs(defs.data(), capacity);
        EXPECT_EQ(stored, capacity < 22 ? capacity : 22);
        for (int i = 0; i < stored; ++i) expect_builtin(defs[i], i);
        EXPECT_EQ(defs[stored], nullptr);
        for (auto *d : defs) vyr_destroy_type_definition(d);
    }

    // Registration into a bare built-in schema, whole and up to the schema limit.
    for (uint8_t start : {0, 240}) {
        vyr_schema_t schema{};
        vyr_type_system_t ts{};
        ts.builtin_schema = &schema;
        schema.num_types = start;  // slots below are not looked at
        EXPECT_EQ(vyr_builtin_type_register_types(&ts), start ? 0 : 1);
        ASSERT_EQ(schema.num_types, start ? VYR_MAX_TYPES : 22);
        for (int i = start; i < schema.num_types; ++i) {
            expect_builtin(schema.types[i], i - start);
            vyr_destroy_type_definition(schema.types[i]);
        }
    }
    EXPECT_EQ(vyr_builtin_type_register_types(nullptr), 0);
}

TEST(BuiltinTypes, ValueTypesAndFieldsFromInfo) {
    EXPECT_STREQ(vyr_value_type_string(VYR_VALUE_RUNNING_SUM), "RUNNING_SUM");
    EXPECT_EQ(vyr_value_type_string(static_cast<vyr_value_type_t>(2)), nullptr);
    const struct {
        const char *text;
        int mode;
    } cases[] = {{"ABSOLUTE", 0},  {"RUNNING_SUM", 1}, {"ABSOLUTE_MONOTONIC", 1},
                 {"absolute", -1}, {"ABSOLUTE ", -1},  {nullptr, -1}};
    for (const auto &c : cases)
        EXPECT_EQ(static_cast<int>(vyr_value_type_from_string(c.text)), c.mode)
            << (c.text ? c.text : "(null)");
}

TEST(Jsonify, EveryBuiltinId) {
    const struct {
        uint32_t id;
        std::string bytes;
        const char *field_name;
        const char *json;
    } cases[] = {
        {VYR_TYPE_CHAR, raw<uint8_t>({0xff}), nullptr, "255"},
        {VYR_TYPE_INT8, raw<uint8_t>({0xff}), nullptr, "-1"},
        {VYR_TYPE_INT32, raw<int32_t>({INT32_MIN}), nullptr, "-2147483648"},
        {VYR_TYPE_UINT32, raw<uint32_t>({0x80000000u}), nullptr, "2147483648"},
        {VYR_TYPE_LONG_LONG, raw<int64_t>({INT64_MIN}), nullptr, "-9.2233720368547758e+18"},
        {VYR_TYPE_FLOAT, raw<float>({0.1f}), nullptr, "0.10000000149011612"},
        {VYR_TYPE_DOUBLE, raw<double>({0.1}), nullptr, "0.10000000000000001"},
        {VYR_TYPE_UINT64, raw<uint64_t>({UINT64_MAX}), nullptr, "1.8446744073709552e+19"},
        {VYR_TYPE_UNSIGNED_LONG, raw<uint64_t>({1ull << 53}), nullptr, "9007199254740992"},
        {VYR_TYPE_TIMESTAMP, raw<uint64_t>({1700000000123456ull}), nullptr, "1700000000123456"},
        // GUID fields: only the 64-bit ids, only "guid" or "GUID" anywhere in the name.
        {VYR_TYPE_UINT64, raw<uint64_t>({0x8000000000000001ull}), "node_guid",
         "\"0x8000000000000001\""},
        {VYR_TYPE_UINT64, raw<uint64_t>({0xabc}), "misguided", "\"0x0000000000000abc\""},
        {VYR_TYPE_UINT64, raw<uint64_t>({0xabc}), "Guid", "2748"},
        {VYR_TYPE_INT64, raw<int64_t>({-1}), "guid", "\"0xffffffffffffffff\""},
        {VYR_TYPE_LONG, raw<int64_t>({-1}), "guid", "-1"},
    };
    for (const auto &c : cases) {
        Json value(
            vyr_builtin_type_jsonify_with_field_name(c.id, c.bytes.data() + 1, c.field_name));
        EXPECT_EQ(text_of(value.v), c.json)
            << kNames[c.id - 1] << " " << (c.field_name ? c.field_name : "-");
        EXPECT_TRUE(c.json[0] == '"' || json_is_real(value.v)) << c.json;
    }
    uint64_t v = 0;
    EXPECT_EQ(vyr_builtin_type_jsonify(23, &v), nullptr);
    EXPECT_EQ(vyr_builtin_type_jsonify_with_field_name(0, &v, "guid"), nullptr);
}

// Fields as a schema lays them out: each the single field of a type of its own.
class FieldData : public ::testing::Test {
  protected:
    void SetUp() override {
        vyr_type_field_info_t pair[] = {{"a", "a", "uint8_t", VYR_VALUE_ABSOLUTE, 1},
                                        {"b", "b", "uint16_t", VYR_VALUE_ABSOLUTE, 1}};
        ASSERT_EQ(vyr_schema_add_type(schema_, "pair", pair, 2, nullptr), 0);
    }
    void TearDown() override { vyr_destroy_type_system(ts_); }
    vyr_type_field_definition_t *field(const char *name, const char *type, uint32_t length) {
        vyr_type_field_info_t info = {name, name, type, VYR_VALUE_ABSOLUTE, length};
        std::string type_name = "t" + std::to_string(schema_->num_types);
        uint8_t index = 0;
        EXPECT_EQ(vyr_schema_add_type(schema_, type_name.c_str(), &info, 1, &index), 0);
        return schema_->types[index]->fields[0];
    }
    vyr_type_system_t *ts_ = vyr_create_type_system();
    vyr_schema_t *schema_ = vyr_type_system_add_schema(ts_, "s", 1, nullptr);
};

TEST_F(FieldData, TextArraysScalarsArraysAndCompounds) {
    const uint64_t guids[] = {1, 0xfedcba9876543210ull};
    const struct {
        const char *name;
        const char *type;
        uint32_t length;
        std::string bytes;  // after a pad byte
        const char *json;
    } cases[] = {
        // Text arrays: the printable prefix, at most the array's length.
        {"text", "char", 8, "-" + std::string("ab\0cdefg", 8), "\"ab\""},
        {"text", "char", 3, "-\xc3\xa9z", "\"\""},
        {"text", "char", 4, "-~\x7f~~", "\"~\""},
        // A single char is a number; scalars pass their field name on.
        {"letter", "char", 1, "-A", "65"},
        {"node_guid", "uint64_t", 1, raw<uint64_t>({0x8000000000000001ull}),
         "\"0x8000000000000001\""},
        // Other arrays element by element.
        {"vals", "uint32_t", 3, raw<uint32_t>({1, 0xffffffffu, 3}), "[1,4294967295,3]"},
        {"none", "uint16_t", 0, "-", "[]"},
        {"port_guid", "uint64_t", 2, raw<uint64_t>({guids[0], guids[1]}),
         "[\"0x0000000000000001\",\"0xfedcba9876543210\"]"},
        // Compound fields are objects of their type.
        {"p", "pair", 2, raw<uint8_t>({7, 0x34, 0x12, 8, 0xff, 0xff}),
         "[{\"a\":7,\"b\":4660},{\"a\":8,\"b\":65535}]"},
    };
    for (const auto &c : cases) {
        Json value(
            vyr_type_field_jsonify_data(field(c.name, c.type, c.length), c.bytes.data() + 1));
        EXPECT_EQ(text_of(value.v), c.json);
    }
}

// A Latin-1 locale calls 0xE9 printable, but those bytes are no UTF-8 text.
TEST_F(FieldData, TextThatIsNotUtf8IsRefusedWithAnError) {
    locale_t latin1 = vyrtest::unit::built_locale(LC_CTYPE_MASK, "de_DE", "ISO-8859-1");
    if (!latin1) GTEST_SKIP() << "no Latin-1 locale available";
    vyrtest::LogCapture log;
    vyr_type_field_definition_t *f = field("FW_Version", "char", 4);
    locale_t previous = uselocale(latin1);
    Json value(vyr_type_field_jsonify_data(f, "\xe9t\xe9!"));
    uselocale(previous);
    freelocale(latin1);
    EXPECT_EQ(value.v, nullptr);
    EXPECT_EQ(log.count(VYR_LOG_LEVEL_ERROR,
                        "Failed to serialize field FW_Version of type char[4] as string"),
              1u)
        << log.dump();
}

}  // namespace
