// Built-in types: lookups, definitions, registration and JSON rendering of
// values and record fields.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <locale.h>
#include <string>
#include <vector>

#include "log_capture.h"
#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

#include "test_paths.h"
#include "vyr_json.h"
#include "vyr_schema.h"
#include "vyr_type_system.h"
#include "vyr_types.h"

namespace {

struct Json {
    json_t *v;
    explicit Json(json_t *value) : v(value) {}
    ~Json() { json_decref(v); }
    Json(const Json &) = delete;
    Json &operator=(const Json &) = delete;
};

std::string compact(const json_t *value) {
    if (!value) return "<null>";
    char *text = vyr_json_serialize(value, 0);
    if (!text) return "<unserializable>";
    std::string out(text);
    free(text);
    return out;
}

// Records are packed, so values are placed at an odd address on purpose.
template <typename T>
std::vector<unsigned char> at_odd_offset(T value) {
    std::vector<unsigned char> bytes(1 + sizeof value);
    memcpy(bytes.data() + 1, &value, sizeof value);
    return bytes;
}

const struct {
    uint32_t id;
    const char *name;
    uint64_t size;
} kTable[] = {
    {1, "bool", 1},
    {2, "char", 1},
    {3, "short", 2},
    {4, "int", 4},
    {5, "long", 8},
    {6, "long long", 8},
    {7, "unsigned char", 1},
    {8, "unsigned short", 2},
    {9, "unsigned int", 4},
    {10, "unsigned long", 8},
    {11, "unsigned long long", 8},
    {12, "float", 4},
    {13, "double", 8},
    {14, "int8_t", 1},
    {15, "int16_t", 2},
    {16, "int32_t", 4},
    {17, "int64_t", 8},
    {18, "uint8_t", 1},
    {19, "uint16_t", 2},
    {20, "uint32_t", 4},
    {21, "uint64_t", 8},
    {22, "timestamp", 8},
};

TEST(BuiltinTypes, LookupsFollowTheTable) {
    for (const auto &t : kTable) {
        SCOPED_TRACE(t.name);
        ASSERT_NE(vyr_builtin_type_name(t.id), nullptr);
        EXPECT_STREQ(vyr_builtin_type_name(t.id), t.name);
        EXPECT_EQ(vyr_builtin_type_size(t.id), t.size);
        EXPECT_EQ(vyr_builtin_type_from_name(t.name), t.id);
    }
    for (uint32_t unknown : {0u, 23u, 255u, 0xffffffffu}) {
        EXPECT_EQ(vyr_builtin_type_name(unknown), nullptr);
        EXPECT_EQ(vyr_builtin_type_size(unknown), 0u);
    }
    for (const char *name : {"uint64", "Double", "long  long", "", "char ", "compound"})
        EXPECT_EQ(vyr_builtin_type_from_name(name), 0u) << name;
    EXPECT_EQ(vyr_builtin_type_from_name(nullptr), 0u);
}

void expect_builtin_definition(const vyr_type_definition_t *def, size_t position) {
    ASSERT_NE(def, nullptr);
    EXPECT_STREQ(def->name, kTable[position].name);
    EXPECT_EQ(def->builtin_id, kTable[position].id);
    EXPECT_EQ(def->size, kTable[position].size);
    EXPECT_EQ(def->num_fields, 0);
    EXPECT_EQ(def->fields, nullptr);
}

TEST(BuiltinTypes, GetTypeDefsStopsAtCapacityOrTableEnd) {
    for (int capacity : {0, 1, 5, 22, 30}) {
        SCOPED_TRACE(capacity);
        std::vector<vyr_type_definition_t *> defs(31, nullptr);
        int stored = vyr_builtin_type_get_type_defs(defs.data(), capacity);
        EXPECT_EQ(stored, capacity < 22 ? capacity : 22);
        for (int i = 0; i < stored; ++i) expect_builtin_definition(defs[i], i);
        EXPECT_EQ(defs[stored], nullptr);
        for (auto *d : defs) vyr_destroy_type_definition(d);
    }
}

// A type system with only the built-in schema, made by hand so registration is
// tested on its own.
struct BareTypeSystem {
    vyr_type_system_t ts{};
    vyr_schema_t schema{};
    uint8_t first_owned = 0;
    BareTypeSystem() { ts.builtin_schema = &schema; }
    ~BareTypeSystem() {
        for (unsigned i = first_owned; i < schema.num_types; ++i)
            vyr_destroy_type_definition(schema.types[i]);
    }
};

TEST(BuiltinTypes, RegisterTypesAppendsTheWholeTable) {
    BareTypeSystem bare;
    EXPECT_EQ(vyr_builtin_type_register_types(&bare.ts), 1);
    ASSERT_EQ(bare.schema.num_types, 22);
    for (size_t i = 0; i < 22; ++i) expect_builtin_definition(bare.schema.types[i], i);
    EXPECT_EQ(vyr_builtin_type_register_types(nullptr), 0);
}

TEST(BuiltinTypes, RegisterTypesStopsAtTheSchemaLimit) {
    BareTypeSystem bare;
    bare.schema.num_types = 240;  // slots below are not looked at
    bare.first_owned = 240;
    EXPECT_EQ(vyr_builtin_type_register_types(&bare.ts), 0);
    ASSERT_EQ(bare.schema.num_types, VYR_MAX_TYPES);
    for (size_t i = 0; i < 14; ++i) expect_builtin_definition(bare.schema.types[240 + i], i);
}

TEST(BuiltinTypes, PrintInfo) {
    char *text = nullptr;
    size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    ASSERT_NE(stream, nullptr);
    vyr_builtin_type_print_info(stream);
    fclose(stream);
    std::string out(text, size);
    free(text);
    const std::string head =
        " Id Name                       Size    \n"
        "  1 bool                       1       \n"
        "  2 char                       1       \n";
    EXPECT_EQ(out.substr(0, head.size()), head);
    const std::string tail =
        " 21 uint64_t                   8       \n"
        " 22 timestamp                  8       \n";
    ASSERT_GE(out.size(), tail.size());
    EXPECT_EQ(out.substr(out.size() - tail.size()), tail);
    EXPECT_NE(out.find(" 11 unsigned long long         8       \n"), std::string::npos);
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 23);
}

TEST(ValueTypes, NamesBothWays) {
    EXPECT_STREQ(vyr_value_type_string(VYR_VALUE_ABSOLUTE), "ABSOLUTE");
    EXPECT_STREQ(vyr_value_type_string(VYR_VALUE_RUNNING_SUM), "RUNNING_SUM");
    EXPECT_EQ(vyr_value_type_string(static_cast<vyr_value_type_t>(2)), nullptr);
    EXPECT_EQ(vyr_value_type_string(static_cast<vyr_value_type_t>(-1)), nullptr);

    const struct {
        const char *text;
        int mode;
    } cases[] = {
        {"ABSOLUTE", 0}, {"RUNNING_SUM", 1}, {"ABSOLUTE_MONOTONIC", 1}, {"absolute", -1},
        {"RUNNING", -1}, {"", -1},           {"ABSOLUTE ", -1},         {nullptr, -1},
    };
    for (const auto &c : cases)
        EXPECT_EQ(static_cast<int>(vyr_value_type_from_string(c.text)), c.mode)
            << (c.text ? c.text : "(null)");
}

TEST(Definitions, FieldFromInfoCopiesTheStrings) {
    std::string name = "port_rcv", description = "Received", type_name = "uint64_t";
    vyr_type_field_info_t info = {name.c_str(), description.c_str(), type_name.c_str(),
                                  VYR_VALUE_RUNNING_SUM, 4};
    vyr_type_field_definition_t *field = vyr_type_field_definition_from_info(&info);
    ASSERT_NE(field, nullptr);
    name = description = type_name = "overwritten";
    EXPECT_STREQ(field->field_name, "port_rcv");
    EXPECT_STREQ(field->description, "Received");
    EXPECT_STREQ(field->type_name, "uint64_t");
    EXPECT_EQ(field->counting_mode, VYR_VALUE_RUNNING_SUM);
    EXPECT_EQ(field->array_length, 4u);
    EXPECT_EQ(field->offset, 0u);
    EXPECT_EQ(field->type_size, 0u);
    EXPECT_EQ(field->type_definition, nullptr);
    EXPECT_EQ(field->index, 0);
    vyr_destroy_type_field_definition(field);

    vyr_type_field_info_t bare = {"x", nullptr, nullptr, VYR_VALUE_ABSOLUTE, 1};
    field = vyr_type_field_definition_from_info(&bare);
    ASSERT_NE(field, nullptr);
    EXPECT_STREQ(field->field_name, "x");
    EXPECT_EQ(field->description, nullptr);
    EXPECT_EQ(field->type_name, nullptr);
    vyr_destroy_type_field_definition(field);

    EXPECT_EQ(vyr_type_field_definition_from_info(nullptr), nullptr);
    vyr_destroy_type_field_definition(nullptr);
    vyr_destroy_type_definition(nullptr);
}

TEST(Definitions, CreatedZeroFilledAndDestroyedWithTheirFields) {
    vyr_type_definition_t *type = vyr_create_type_definition();
    ASSERT_NE(type, nullptr);
    EXPECT_EQ(type->name, nullptr);
    EXPECT_EQ(type->num_fields, 0);
    EXPECT_EQ(type->fields, nullptr);
    EXPECT_EQ(type->size, 0u);
    type->name = strdup("t");
    type->fields = static_cast<vyr_type_field_definition_t **>(calloc(2, sizeof(void *)));
    vyr_type_field_info_t info = {"f", "d", "uint8_t", VYR_VALUE_ABSOLUTE, 1};
    type->fields[0] = vyr_type_field_definition_from_info(&info);
    type->fields[1] = vyr_create_type_field_definition();
    type->num_fields = 2;
    vyr_destroy_type_definition(type);  // the leak checker sees anything left behind
}

// One built-in value rendered alone.
struct ValueCase {
    uint32_t id;
    std::vector<unsigned char> bytes;
    const char *field_name;
    const char *json;
};

TEST(Jsonify, EveryBuiltinId) {
    const ValueCase cases[] = {
        {VYR_TYPE_BOOL, at_odd_offset<uint8_t>(1), nullptr, "1"},
        {VYR_TYPE_CHAR, at_odd_offset<uint8_t>(0xff), nullptr, "255"},
        {VYR_TYPE_UNSIGNED_CHAR, at_odd_offset<uint8_t>(200), nullptr, "200"},
        {VYR_TYPE_UINT8, at_odd_offset<uint8_t>(0xff), nullptr, "255"},
        {VYR_TYPE_INT8, at_odd_offset<uint8_t>(0xff), nullptr, "-1"},
        {VYR_TYPE_SHORT, at_odd_offset<int16_t>(-2), nullptr, "-2"},
        {VYR_TYPE_INT16, at_odd_offset<int16_t>(INT16_MIN), nullptr, "-32768"},
        {VYR_TYPE_UNSIGNED_SHORT, at_odd_offset<uint16_t>(0xffff), nullptr, "65535"},
        {VYR_TYPE_UINT16, at_odd_offset<uint16_t>(0x8000), nullptr, "32768"},
        {VYR_TYPE_INT, at_odd_offset<int32_t>(-5), nullptr, "-5"},
        {VYR_TYPE_INT32, at_odd_offset<int32_t>(INT32_MIN), nullptr, "-2147483648"},
        {VYR_TYPE_UNSIGNED_INT, at_odd_offset<uint32_t>(0xffffffffu), nullptr, "4294967295"},
        {VYR_TYPE_UINT32, at_odd_offset<uint32_t>(0x80000000u), nullptr, "2147483648"},
        {VYR_TYPE_LONG, at_odd_offset<int64_t>(-7), nullptr, "-7"},
        {VYR_TYPE_LONG_LONG, at_odd_offset<int64_t>(INT64_MIN), nullptr, "-9.2233720368547758e+18"},
        {VYR_TYPE_FLOAT, at_odd_offset<float>(1.5f), nullptr, "1.5"},
        {VYR_TYPE_FLOAT, at_odd_offset<float>(0.1f), nullptr, "0.10000000149011612"},
        {VYR_TYPE_DOUBLE, at_odd_offset<double>(0.1), nullptr, "0.10000000000000001"},
        {VYR_TYPE_INT64, at_odd_offset<int64_t>(-1), nullptr, "-1"},
        {VYR_TYPE_UINT64, at_odd_offset<uint64_t>(UINT64_MAX), nullptr, "1.8446744073709552e+19"},
        {VYR_TYPE_UNSIGNED_LONG, at_odd_offset<uint64_t>(1ull << 53), nullptr, "9007199254740992"},
        {VYR_TYPE_UNSIGNED_LONG_LONG, at_odd_offset<uint64_t>(42), nullptr, "42"},
        {VYR_TYPE_TIMESTAMP, at_odd_offset<uint64_t>(1700000000123456ull), nullptr,
         "1700000000123456"},
        // GUID fields: only the 64-bit ids, only "guid" or "GUID" anywhere in the name.
        {VYR_TYPE_UINT64, at_odd_offset<uint64_t>(0x8000000000000001ull), "node_guid",
         "\"0x8000000000000001\""},
        {VYR_TYPE_UINT64, at_odd_offset<uint64_t>(0x8000000000000001ull), "node_id",
         "9.2233720368547758e+18"},
        {VYR_TYPE_UINT64, at_odd_offset<uint64_t>(0xabc), "PortGUID", "\"0x0000000000000abc\""},
        {VYR_TYPE_UINT64, at_odd_offset<uint64_t>(0xabc), "misguided", "\"0x0000000000000abc\""},
        {VYR_TYPE_UINT64, at_odd_offset<uint64_t>(0xabc), "Guid", "2748"},
        {VYR_TYPE_UNSIGNED_LONG, at_odd_offset<uint64_t>(0xdeadbeefcafef00dull), "guid",
         "\"0xdeadbeefcafef00d\""},
        {VYR_TYPE_UNSIGNED_LONG_LONG, at_odd_offset<uint64_t>(0xfull), "sys_guid",
         "\"0x000000000000000f\""},
        {VYR_TYPE_INT64, at_odd_offset<int64_t>(-1), "guid", "\"0xffffffffffffffff\""},
        {VYR_TYPE_LONG, at_odd_offset<int64_t>(-1), "guid", "-1"},
        {VYR_TYPE_LONG_LONG, at_odd_offset<int64_t>(3), "guid", "3"},
        {VYR_TYPE_TIMESTAMP, at_odd_offset<uint64_t>(5), "guid", "5"},
        {VYR_TYPE_UINT32, at_odd_offset<uint32_t>(5), "guid", "5"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(vyr_builtin_type_name(c.id)) + " " +
                     (c.field_name ? c.field_name : "-") + " -> " + c.json);
        Json value(
            vyr_builtin_type_jsonify_with_field_name(c.id, c.bytes.data() + 1, c.field_name));
        ASSERT_NE(value.v, nullptr);
        EXPECT_EQ(compact(value.v), c.json);
        if (c.json[0] != '"') {
            EXPECT_TRUE(json_is_real(value.v));
        }
    }
}

TEST(Jsonify, WithoutFieldNameAndUnknownIds) {
    uint64_t v = 0x8000000000000000ull;
    Json plain(vyr_builtin_type_jsonify(VYR_TYPE_UINT64, &v));
    EXPECT_EQ(compact(plain.v), "9.2233720368547758e+18");
    EXPECT_EQ(vyr_builtin_type_jsonify(0, &v), nullptr);
    EXPECT_EQ(vyr_builtin_type_jsonify(23, &v), nullptr);
    EXPECT_EQ(vyr_builtin_type_jsonify_with_field_name(0, &v, "guid"), nullptr);
}

// Field definitions wired to built-in definitions, as a schema would resolve them.
class FieldData : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(vyr_builtin_type_get_type_defs(builtins_, 22), 22); }
    void TearDown() override {
        for (auto *f : fields_) vyr_destroy_type_field_definition(f);
        for (auto *t : compounds_) vyr_destroy_type_definition(t);
        for (auto *d : builtins_) vyr_destroy_type_definition(d);
    }
    vyr_type_field_definition_t *field(const char *name, uint32_t id, uint32_t length,
                                       uint64_t offset = 0) {
        vyr_type_field_info_t info = {name, name, vyr_builtin_type_name(id), VYR_VALUE_ABSOLUTE,
                                      length};
        vyr_type_field_definition_t *f = vyr_type_field_definition_from_info(&info);
        f->type_definition = builtins_[id - 1];
        f->type_size = vyr_builtin_type_size(id);
        f->offset = offset;
        fields_.push_back(f);
        return f;
    }
    // A compound type {a: uint8_t, b: uint16_t}, 3 bytes.
    vyr_type_definition_t *pair_type() {
        vyr_type_definition_t *t = vyr_create_type_definition();
        t->name = strdup("pair");
        t->fields = static_cast<vyr_type_field_definition_t **>(calloc(2, sizeof(void *)));
        vyr_type_field_info_t a = {"a", "a", "uint8_t", VYR_VALUE_ABSOLUTE, 1};
        vyr_type_field_info_t b = {"b", "b", "uint16_t", VYR_VALUE_ABSOLUTE, 1};
        t->fields[0] = vyr_type_field_definition_from_info(&a);
        t->fields[0]->type_definition = builtins_[VYR_TYPE_UINT8 - 1];
        t->fields[0]->type_size = 1;
        t->fields[1] = vyr_type_field_definition_from_info(&b);
        t->fields[1]->type_definition = builtins_[VYR_TYPE_UINT16 - 1];
        t->fields[1]->type_size = 2;
        t->fields[1]->offset = 1;
        t->num_fields = 2;
        t->size = 3;
        compounds_.push_back(t);
        return t;
    }
    std::string render(const vyr_type_field_definition_t *f, const void *data) {
        Json value(vyr_type_field_jsonify_data(f, data));
        return compact(value.v);
    }

    vyr_type_definition_t *builtins_[22] = {};
    std::vector<vyr_type_field_definition_t *> fields_;
    std::vector<vyr_type_definition_t *> compounds_;
};

TEST_F(FieldData, TextArraysKeepTheirPrintablePrefix) {
    const struct {
        uint32_t id;
        uint32_t length;
        std::string bytes;
        const char *json;
    } cases[] = {
        {VYR_TYPE_CHAR, 8, std::string("ab\0cdefg", 8), "\"ab\""},
        {VYR_TYPE_CHAR, 4, "abcdXYZ", "\"abcd\""},
        {VYR_TYPE_CHAR, 64, std::string("tarvik_event") + std::string(52, '\0'),
         "\"tarvik_event\""},
        {VYR_TYPE_CHAR, 6, "a/\"\\ b", "\"a\\/\\\"\\\\ b\""},
        {VYR_TYPE_UNSIGNED_CHAR, 6, "hi\x01yo!", "\"hi\""},
        {VYR_TYPE_CHAR, 5, "x\tyz!", "\"x\""},
        {VYR_TYPE_CHAR, 3, "\xc3\xa9z", "\"\""},
        {VYR_TYPE_CHAR, 4, "~\x7f~~", "\"~\""},
        {VYR_TYPE_CHAR, 0, "abc", "\"\""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.json);
        EXPECT_EQ(render(field("text", c.id, c.length), c.bytes.data()), c.json);
    }
}

TEST_F(FieldData, OtherArraysAreJsonArrays) {
    unsigned char record[1 + 3 * 4];
    const uint32_t values[3] = {1, 0xffffffffu, 3};
    memcpy(record + 1, values, sizeof values);
    EXPECT_EQ(render(field("vals", VYR_TYPE_UINT32, 3), record + 1), "[1,4294967295,3]");

    const int8_t small[2] = {-1, 5};
    EXPECT_EQ(render(field("s", VYR_TYPE_INT8, 2), small), "[-1,5]");
    EXPECT_EQ(render(field("none", VYR_TYPE_UINT16, 0), small), "[]");

    const uint64_t guids[2] = {0x1ull, 0xfedcba9876543210ull};
    EXPECT_EQ(render(field("port_guid", VYR_TYPE_UINT64, 2), guids),
              "[\"0x0000000000000001\",\"0xfedcba9876543210\"]");
    EXPECT_EQ(render(field("port_id", VYR_TYPE_UINT64, 2), guids), "[1,1.8364758544493064e+19]");
}

TEST_F(FieldData, ScalarFieldsUseTheBuiltinRule) {
    const uint64_t v = 0x8000000000000001ull;
    EXPECT_EQ(render(field("Raw_Errors_Lane_0", VYR_TYPE_UINT64, 1), &v), "9.2233720368547758e+18");
    EXPECT_EQ(render(field("node_guid", VYR_TYPE_UINT64, 1), &v), "\"0x8000000000000001\"");
    const char c = 'A';
    EXPECT_EQ(render(field("letter", VYR_TYPE_CHAR, 1), &c), "65");
    const double d = 2.5e-3;
    EXPECT_EQ(render(field("ber", VYR_TYPE_DOUBLE, 1), &d), "0.0025000000000000001");
}

TEST_F(FieldData, CompoundFieldsBecomeObjects) {
    vyr_type_definition_t *pair = pair_type();
    const unsigned char data[6] = {7, 0x34, 0x12, 8, 0xff, 0xff};

    vyr_type_field_info_t info = {"p", "p", "pair", VYR_VALUE_ABSOLUTE, 1};
    vyr_type_field_definition_t *one = vyr_type_field_definition_from_info(&info);
    fields_.push_back(one);
    one->type_definition = pair;
    one->type_size = 3;
    EXPECT_EQ(render(one, data), "{\"a\":7,\"b\":4660}");

    info.array_length = 2;
    vyr_type_field_definition_t *two = vyr_type_field_definition_from_info(&info);
    fields_.push_back(two);
    two->type_definition = pair;
    two->type_size = 3;
    EXPECT_EQ(render(two, data), "[{\"a\":7,\"b\":4660},{\"a\":8,\"b\":65535}]");
}

TEST_F(FieldData, UnresolvedOrMissingGivesNothing) {
    vyr_type_field_info_t info = {"x", "x", "uint8_t", VYR_VALUE_ABSOLUTE, 1};
    vyr_type_field_definition_t *f = vyr_type_field_definition_from_info(&info);
    fields_.push_back(f);
    const unsigned char byte = 1;
    EXPECT_EQ(vyr_type_field_jsonify_data(f, &byte), nullptr);
    f->array_length = 3;
    EXPECT_EQ(vyr_type_field_jsonify_data(f, &byte), nullptr);
    EXPECT_EQ(vyr_type_field_jsonify_data(nullptr, &byte), nullptr);
    EXPECT_EQ(vyr_type_field_jsonify_data(field("y", VYR_TYPE_UINT8, 1), nullptr), nullptr);
}

// A Latin-1 locale calls 0xE9 printable, but those bytes are no UTF-8 text.
locale_t latin1_locale() {
    const std::string dir = vyrtest::binary_dir() + "/test_locales";
    const std::string build = "mkdir -p '" + dir + "' && { test -e '" + dir +
                              "/de_DE.ISO-8859-1/LC_CTYPE' || localedef -i de_DE -f ISO-8859-1 '" +
                              dir + "/de_DE.ISO-8859-1' >/dev/null 2>&1; }";
    if (system(build.c_str()) != 0) return (locale_t)0;
    const char *old = getenv("LOCPATH");
    std::string saved = old ? old : "";
    setenv("LOCPATH", dir.c_str(), 1);
#ifdef __SANITIZE_ADDRESS__
    __lsan::ScopedDisabler glibc_keeps_the_locale_path;  // not ours to free
#endif
    locale_t loc = newlocale(LC_CTYPE_MASK, "de_DE.ISO-8859-1", (locale_t)0);
    if (old)
        setenv("LOCPATH", saved.c_str(), 1);
    else
        unsetenv("LOCPATH");
    return loc;
}

TEST_F(FieldData, TextThatIsNotUtf8IsRefusedWithAnError) {
    locale_t latin1 = latin1_locale();
    if (!latin1) GTEST_SKIP() << "no Latin-1 locale available";
    vyrtest::LogCapture log;
    vyr_type_field_definition_t *f = field("FW_Version", VYR_TYPE_CHAR, 4);
    locale_t previous = uselocale(latin1);
    json_t *value = vyr_type_field_jsonify_data(f, "\xe9t\xe9!");
    uselocale(previous);
    freelocale(latin1);
    EXPECT_EQ(value, nullptr);
    json_decref(value);
    EXPECT_EQ(log.count(VYR_LOG_LEVEL_ERROR,
                        "Failed to serialize field FW_Version of type char[4] as string"),
              1u)
        << log.dump();
}

}  // namespace
