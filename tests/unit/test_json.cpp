// JSON text: golden bytes of the schema form, number and string formats,
// parsing, template validation and equality.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <locale.h>
#include <string>
#include <unistd.h>
#include <vector>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

#include "test_paths.h"
#include "vyr_json.h"
#include "vyr_md5.h"

namespace {

// Owns a json_t for the length of a test.
struct Json {
    json_t *v;
    explicit Json(json_t *value) : v(value) {}
    ~Json() { json_decref(v); }
    Json(const Json &) = delete;
    Json &operator=(const Json &) = delete;
};

std::string serialize(const json_t *value, bool pretty) {
    char *text = vyr_json_serialize(value, pretty ? 1 : 0);
    if (!text) return "<null>";
    std::string out(text);
    free(text);
    return out;
}

std::string compact_of(const std::string &source) {
    Json parsed(vyr_json_parse_string(source.c_str()));
    return parsed.v ? serialize(parsed.v, false) : "<null>";
}

// One field object, keys in the order the schema form fixes.
struct FieldSpec {
    const char *name;
    const char *description;
    const char *type_name;
    const char *counting_mode;
    double array_length;
    double offset;
    double type_size;
    double index;
};

json_t *field_object(const FieldSpec &f) {
    json_t *o = json_object();
    json_object_set_new(o, "field_name", json_string(f.name));
    json_object_set_new(o, "description", json_string(f.description));
    json_object_set_new(o, "type_name", json_string(f.type_name));
    json_object_set_new(o, "counting_mode", json_string(f.counting_mode));
    if (f.array_length > 1) json_object_set_new(o, "array_length", json_real(f.array_length));
    json_object_set_new(o, "offset", json_real(f.offset));
    json_object_set_new(o, "type_size", json_real(f.type_size));
    json_object_set_new(o, "index", json_real(f.index));
    return o;
}

json_t *type_object(const char *name, double size, const std::vector<FieldSpec> &fields,
                    int type_index) {
    json_t *o = json_object();
    json_object_set_new(o, "name", json_string(name));
    json_object_set_new(o, "size", json_real(size));
    json_t *array = json_array();
    for (const auto &f : fields) json_array_append_new(array, field_object(f));
    json_object_set_new(o, "fields", array);
    if (type_index >= 0) json_object_set_new(o, "type_index", json_real(type_index));
    return o;
}

json_t *schema_object(const char *provider, const char *version, json_t *types) {
    json_t *o = json_object();
    json_object_set_new(o, "title", json_string("Vyrhub schema"));
    json_object_set_new(o, "vyr_version", json_string("1.5.0"));
    json_object_set_new(o, "provider_name", json_string(provider));
    json_object_set_new(o, "provider_version", json_string(version));
    json_object_set_new(o, "types", types);
    return o;
}

const std::vector<FieldSpec> kTarvikFields = {
    {"timestamp", "Event timestamp", "timestamp", "ABSOLUTE", 1, 0, 8, 0},
    {"event_name", "Event name", "char", "ABSOLUTE", 64, 8, 1, 0},
    {"device_name", "Device name", "char", "ABSOLUTE", 64, 72, 1, 1},
    {"FW_Version", "FW_Version", "char", "ABSOLUTE", 64, 136, 1, 0},
    {"Raw_Errors_Lane_0", "Raw_Errors_Lane_0", "uint64_t", "ABSOLUTE", 1, 200, 8, 0},
    {"Effective_Physical_BER", "Effective_Physical_BER", "double", "ABSOLUTE", 1, 208, 8, 0},
    {"Rx_TxdB", "Rx_TxdB", "uint64_t", "ABSOLUTE", 1, 216, 8, 0},
};

json_t *build_tarvik_basic() {
    json_t *types = json_array();
    json_array_append_new(types, type_object("tarvik_event_0", 224, kTarvikFields, 0));
    return schema_object("tarvik", "1.0.0", types);
}

json_t *build_two_types() {
    json_t *types = json_array();
    json_array_append_new(types, type_object("a", 25,
                                             {{"u8", "u8", "uint8_t", "ABSOLUTE", 1, 0, 1, 0},
                                              {"u64", "u64", "uint64_t", "ABSOLUTE", 1, 1, 8, 0},
                                              {"name", "name", "char", "ABSOLUTE", 16, 9, 1, 0}},
                                             0));
    json_array_append_new(
        types, type_object("b", 16, {{"vals", "vals", "uint32_t", "RUNNING_SUM", 4, 0, 4, 0}}, 1));
    return schema_object("demo", "2.3.17", types);
}

json_t *build_escapes() {
    const char *description =
        "a / b \" c \\ d\t\n\r\x01\x1f\x7f"
        "\xc3\xa9\xe2\x82\xac";
    json_t *types = json_array();
    json_array_append_new(
        types, type_object("t", 8, {{"f", description, "uint64_t", "ABSOLUTE", 1, 0, 8, 0}}, 0));
    return schema_object("esc/\"q\"\\", "0.0.1", types);
}

json_t *build_empty_types_array() {
    return schema_object("tarvik", "1.0.0", json_array());
}

json_t *build_numbers() {
    json_t *o = json_object();
    json_object_set_new(o, "int", json_real(216));
    json_object_set_new(o, "big", json_real(18446744073709551615.0));
    json_object_set_new(o, "neg", json_real(-1));
    json_object_set_new(o, "frac", json_real(0.1));
    json_object_set_new(o, "half", json_real(0.5));
    json_object_set_new(o, "zero", json_real(0));
    json_object_set_new(o, "negzero", json_real(-0.0));
    json_object_set_new(o, "e", json_real(1e21));
    return o;
}

json_t *build_type_object_alone() {
    return type_object("tarvik_event_0", 224, kTarvikFields, -1);
}

struct GoldenCase {
    const char *name;
    std::function<json_t *()> build;
};

const GoldenCase kGolden[] = {
    {"tarvik_basic", build_tarvik_basic}, {"two_types", build_two_types},
    {"escapes", build_escapes},           {"empty_types_array", build_empty_types_array},
    {"numbers", build_numbers},           {"type_object_alone", build_type_object_alone},
};

std::string golden(const std::string &file) {
    return vyrtest::read_file(vyrtest::golden_dir() + "/schema_json/" + file);
}

TEST(JsonGolden, BuiltValuesSerializeToGoldenBytes) {
    for (const auto &c : kGolden) {
        SCOPED_TRACE(c.name);
        Json value(c.build());
        ASSERT_NE(value.v, nullptr);
        const std::string pretty = golden(std::string(c.name) + ".pretty.json");
        const std::string compact = golden(std::string(c.name) + ".compact.json");
        EXPECT_EQ(serialize(value.v, true), pretty);
        EXPECT_EQ(serialize(value.v, false), compact);

        char md5[VYR_MD5_STRING_LENGTH];
        const std::string ours = serialize(value.v, true);
        ASSERT_NE(vyr_HexMD5(ours.data(), ours.size(), md5), nullptr);
        EXPECT_EQ(std::string(md5) + "\n", golden(std::string(c.name) + ".md5"));
    }
}

TEST(JsonGolden, ParsedFilesRoundTripAndEqualTheBuiltValues) {
    for (const auto &c : kGolden) {
        SCOPED_TRACE(c.name);
        const std::string pretty = golden(std::string(c.name) + ".pretty.json");
        const std::string compact = golden(std::string(c.name) + ".compact.json");
        Json from_pretty(vyr_json_parse_string(pretty.c_str()));
        Json from_compact(vyr_json_parse_string(compact.c_str()));
        ASSERT_NE(from_pretty.v, nullptr);
        ASSERT_NE(from_compact.v, nullptr);
        EXPECT_EQ(serialize(from_pretty.v, true), pretty);
        EXPECT_EQ(serialize(from_compact.v, true), pretty);
        EXPECT_EQ(serialize(from_pretty.v, false), compact);

        Json built(c.build());
        EXPECT_EQ(vyr_json_value_equals(built.v, from_pretty.v), 1);
    }
}

TEST(JsonGolden, ParseFileGivesTheSameValue) {
    const std::string path = vyrtest::golden_dir() + "/schema_json/two_types.pretty.json";
    Json value(vyr_json_parse_file(path.c_str()));
    ASSERT_NE(value.v, nullptr);
    EXPECT_EQ(serialize(value.v, true), golden("two_types.pretty.json"));
    EXPECT_EQ(vyr_json_parse_file("/nonexistent/h2a.json"), nullptr);
    EXPECT_EQ(vyr_json_parse_file(nullptr), nullptr);
}

TEST(JsonSerialize, NumbersUseSeventeenSignificantDigits) {
    const struct {
        double value;
        const char *text;
    } cases[] = {
        {0, "0"},
        {-0.0, "-0"},
        {216, "216"},
        {-1, "-1"},
        {4294967295.0, "4294967295"},
        {1e15, "1000000000000000"},
        {1e16, "10000000000000000"},
        {1e17, "1e+17"},
        {9007199254740992.0, "9007199254740992"},
        {18446744073709551616.0, "1.8446744073709552e+19"},
        {123456789012345678.0, "1.2345678901234568e+17"},
        {0.5, "0.5"},
        {0.1, "0.10000000000000001"},
        {3.14, "3.1400000000000001"},
        {1.0 / 3.0, "0.33333333333333331"},
        {0.0001, "0.0001"},
        {1e-5, "1.0000000000000001e-05"},
        {1e21, "1e+21"},
        {-2.5e-300, "-2.5e-300"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        Json real(json_real(c.value));
        EXPECT_EQ(serialize(real.v, false), c.text);
        EXPECT_EQ(serialize(real.v, true), c.text);
    }
}

TEST(JsonSerialize, IntegersPrintAsTheirDouble) {
    const struct {
        json_int_t value;
        const char *text;
    } cases[] = {
        {0, "0"},
        {216, "216"},
        {-1, "-1"},
        {123456789012345678LL, "1.2345678901234568e+17"},
        {100000000000000000LL, "1e+17"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        Json integer(json_integer(c.value));
        EXPECT_EQ(serialize(integer.v, false), c.text);
    }
}

// A locale whose decimal point is a comma: an installed one, or one compiled
// into the build tree when the system has the locale sources.
locale_t comma_locale() {
    for (const char *name : {"de_DE.UTF-8", "de_DE.utf8", "fr_FR.UTF-8"}) {
        locale_t loc = newlocale(LC_NUMERIC_MASK, name, (locale_t)0);
        if (loc) return loc;
    }
    const std::string dir = vyrtest::binary_dir() + "/test_locales";
    const std::string build = "mkdir -p '" + dir + "' && { test -e '" + dir +
                              "/de_DE.UTF-8/LC_NUMERIC' || localedef -i de_DE -f UTF-8 '" + dir +
                              "/de_DE.UTF-8' >/dev/null 2>&1; }";
    if (system(build.c_str()) != 0) return (locale_t)0;
    const char *old = getenv("LOCPATH");
    std::string saved = old ? old : "";
    setenv("LOCPATH", dir.c_str(), 1);
#ifdef __SANITIZE_ADDRESS__
    __lsan::ScopedDisabler glibc_keeps_the_locale_path;  // not ours to free
#endif
    locale_t loc = newlocale(LC_NUMERIC_MASK, "de_DE.UTF-8", (locale_t)0);
    if (old)
        setenv("LOCPATH", saved.c_str(), 1);
    else
        unsetenv("LOCPATH");
    return loc;
}

TEST(JsonSerialize, DecimalPointIgnoresTheThreadLocale) {
    locale_t comma = comma_locale();
    if (!comma) GTEST_SKIP() << "no locale with a decimal comma available";
    locale_t previous = uselocale(comma);
    char probe[16];
    snprintf(probe, sizeof probe, "%.1f", 0.5);
    Json object(json_object());
    json_object_set_new(object.v, "half", json_real(0.5));
    json_object_set_new(object.v, "e", json_real(1.0000000000000001e-05));
    std::string text = serialize(object.v, false);
    uselocale(previous);
    freelocale(comma);
    EXPECT_STREQ(probe, "0,5");  // the locale really is in force
    EXPECT_EQ(text, "{\"half\":0.5,\"e\":1.0000000000000001e-05}");
}

TEST(JsonSerialize, StringsAreEscapedByteByByte) {
    const struct {
        std::string raw;
        const char *text;
    } cases[] = {
        {"", "\"\""},
        {"plain", "\"plain\""},
        {"/", "\"\\/\""},
        {"\"\\", "\"\\\"\\\\\""},
        {"\b\f\n\r\t", "\"\\b\\f\\n\\r\\t\""},
        {"\x01\x0b\x1f", "\"\\u0001\\u000b\\u001f\""},
        {std::string("a\0b", 3), "\"a\\u0000b\""},
        {"\x7f", "\"\x7f\""},
        {"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", "\"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\""},
        {" ~", "\" ~\""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        Json s(json_stringn(c.raw.data(), c.raw.size()));
        ASSERT_NE(s.v, nullptr);
        EXPECT_EQ(serialize(s.v, false), c.text);
        EXPECT_EQ(serialize(s.v, true), c.text);
    }
}

TEST(JsonSerialize, KeysAreEscapedLikeValues) {
    Json o(json_object());
    json_object_set_new(o.v, "a/b\t\"", json_true());
    EXPECT_EQ(serialize(o.v, false), "{\"a\\/b\\t\\\"\":true}");
    EXPECT_EQ(serialize(o.v, true), "{\n    \"a\\/b\\t\\\"\": true\n}");
}

TEST(JsonSerialize, LayoutOfNestedAndEmptyContainers) {
    Json o(json_object());
    json_object_set_new(o.v, "o", json_object());
    json_object_set_new(o.v, "a", json_array());
    json_t *list = json_array();
    json_array_append_new(list, json_real(1));
    json_t *inner = json_array();
    json_array_append_new(inner, json_null());
    json_array_append_new(list, inner);
    json_t *member = json_object();
    json_object_set_new(member, "f", json_false());
    json_array_append_new(list, member);
    json_array_append_new(list, json_object());
    json_object_set_new(o.v, "list", list);
    json_object_set_new(o.v, "s", json_string("x"));

    EXPECT_EQ(serialize(o.v, false),
              "{\"o\":{},\"a\":[],\"list\":[1,[null],{\"f\":false},{}],\"s\":\"x\"}");
    EXPECT_EQ(serialize(o.v, true),
              "{\n"
              "    \"o\": {},\n"
              "    \"a\": [],\n"
              "    \"list\": [\n"
              "        1,\n"
              "        [\n"
              "            null\n"
              "        ],\n"
              "        {\n"
              "            \"f\": false\n"
              "        },\n"
              "        {}\n"
              "    ],\n"
              "    \"s\": \"x\"\n"
              "}");
}

TEST(JsonSerialize, TopLevelScalarsAndNothing) {
    Json t(json_true()), f(json_false()), n(json_null()), eo(json_object()), ea(json_array());
    EXPECT_EQ(serialize(t.v, true), "true");
    EXPECT_EQ(serialize(f.v, false), "false");
    EXPECT_EQ(serialize(n.v, true), "null");
    EXPECT_EQ(serialize(eo.v, true), "{}");
    EXPECT_EQ(serialize(ea.v, true), "[]");
    EXPECT_EQ(vyr_json_serialize(nullptr, 1), nullptr);
}

TEST(JsonSerialize, ReplacingAKeyKeepsItsPosition) {
    Json o(json_object());
    json_object_set_new(o.v, "a", json_real(1));
    json_object_set_new(o.v, "b", json_real(2));
    json_object_set_new(o.v, "a", json_real(3));
    EXPECT_EQ(serialize(o.v, false), "{\"a\":3,\"b\":2}");
}

TEST(JsonParse, Inputs) {
    const struct {
        std::string text;
        const char *compact;  // "<null>" when the parse must fail
    } cases[] = {
        {"{\"a\":1}", "{\"a\":1}"},
        {"\xEF\xBB\xBF{\"a\":1}", "{\"a\":1}"},
        {"\xEF\xBB\xBF  [true]", "[true]"},
        {"{\"a\":1} xyz", "{\"a\":1}"},
        {"[1] [2]", "[1]"},
        {"1 2", "1"},
        {" \t\r\n\"s\"", "\"s\""},
        {"null", "null"},
        {"18446744073709551616", "1.8446744073709552e+19"},
        {"-18446744073709551616", "-1.8446744073709552e+19"},
        {"{\"big\":123456789012345678901234567890}", "{\"big\":1.2345678901234568e+29}"},
        {"0.1", "0.10000000000000001"},
        {"1e-400", "0"},
        {"\"a\\u0000b\"", "\"a\\u0000b\""},
        {"\"\\ud83d\\ude00\"", "\"\xf0\x9f\x98\x80\""},
        {"\"\\/\"", "\"\\/\""},
        {"{\"a\":1,\"a\":2}", "<null>"},
        {"{\"o\":{\"k\":1,\"k\":1}}", "<null>"},
        {"[{\"x\":1},{\"x\":2}]", "[{\"x\":1},{\"x\":2}]"},
        {"", "<null>"},
        {"   \n\t", "<null>"},
        {"\xEF\xBB\xBF", "<null>"},
        {"\xEF\xBB\xBF\xEF\xBB\xBF{}", "<null>"},
        {"1e400", "<null>"},
        {"{\"a\":}", "<null>"},
        {"[1,,2]", "<null>"},
        {"\"unterminated", "<null>"},
        {"// c\n{}", "<null>"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(compact_of(c.text), c.compact);
    }
    EXPECT_EQ(vyr_json_parse_string(nullptr), nullptr);
}

TEST(JsonParse, NumbersAreAlwaysReal) {
    Json v(vyr_json_parse_string("[216, -3, 18446744073709551615]"));
    ASSERT_NE(v.v, nullptr);
    for (size_t i = 0; i < json_array_size(v.v); ++i)
        EXPECT_TRUE(json_is_real(json_array_get(v.v, i)));
    EXPECT_EQ(json_real_value(json_array_get(v.v, 2)), 18446744073709551616.0);
}

TEST(JsonParse, FileWithBomAndTrailingBytes) {
    char path[] = "/tmp/h2a_json_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    vyrtest::write_file(path, "\xEF\xBB\xBF{\"k\":[1,2]}\ngarbage");
    Json v(vyr_json_parse_file(path));
    EXPECT_EQ(v.v ? serialize(v.v, false) : "<null>", "{\"k\":[1,2]}");
    vyrtest::write_file(path, "");
    EXPECT_EQ(vyr_json_parse_file(path), nullptr);
    unlink(path);
}

TEST(JsonValidate, TemplatesMatchByTypeOnly) {
    const struct {
        const char *schema;
        const char *value;
        int result;
    } cases[] = {
        {"null", "{\"a\":[1]}", 0},
        {"null", "3", 0},
        {"{\"a\":null}", "{\"a\":\"anything\"}", 0},
        {"{\"a\":null}", "{\"b\":1}", -1},
        {"{}", "{\"x\":1}", 0},
        {"{}", "[]", -1},
        {"[]", "[1,\"two\",null]", 0},
        {"[]", "{}", -1},
        {"{\"a\":\"\",\"n\":0}", "{\"n\":5,\"a\":\"s\",\"extra\":true}", 0},
        {"{\"a\":\"\",\"n\":0}", "{\"a\":\"s\"}", -1},
        {"{\"n\":0}", "{\"n\":\"5\"}", -1},
        {"{\"b\":true}", "{\"b\":false}", 0},
        {"{\"b\":false}", "{\"b\":0}", -1},
        {"[0]", "[1,2.5,3]", 0},
        {"[0]", "[1,\"2\"]", -1},
        {"[0,\"ignored\"]", "[1,2]", 0},
        {"[0]", "[]", 0},
        {"[{\"k\":0}]", "[{\"k\":1},{\"k\":2,\"z\":0}]", 0},
        {"[{\"k\":0}]", "[{\"k\":1},{\"z\":0}]", -1},
        {"{\"o\":{\"i\":[\"\"]}}", "{\"o\":{\"i\":[\"a\",\"b\"]}}", 0},
        {"{\"o\":{\"i\":[\"\"]}}", "{\"o\":{\"i\":[\"a\",1]}}", -1},
        {"\"\"", "\"x\"", 0},
        {"\"\"", "null", -1},
        {"1", "null", -1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.schema) + " vs " + c.value);
        Json schema(vyr_json_parse_string(c.schema));
        Json value(vyr_json_parse_string(c.value));
        ASSERT_NE(schema.v, nullptr);
        ASSERT_NE(value.v, nullptr);
        EXPECT_EQ(vyr_json_validate(schema.v, value.v), c.result);
    }
}

TEST(JsonValidate, IntegerAndRealAreOneNumberType) {
    Json schema(json_object());
    json_object_set_new(schema.v, "n", json_integer(0));
    Json value(json_object());
    json_object_set_new(value.v, "n", json_real(2.5));
    EXPECT_EQ(vyr_json_validate(schema.v, value.v), 0);
    EXPECT_EQ(vyr_json_validate(value.v, schema.v), 0);
}

TEST(JsonValidate, MissingArgumentsFail) {
    Json n(json_null());
    EXPECT_EQ(vyr_json_validate(nullptr, n.v), -1);
    EXPECT_EQ(vyr_json_validate(n.v, nullptr), -1);
}

TEST(JsonEquals, Table) {
    const struct {
        const char *a;
        const char *b;
        int equal;
    } cases[] = {
        {"{\"a\":1,\"b\":[1,2]}", "{\"b\":[1,2],\"a\":1}", 1},
        {"{\"a\":1}", "{\"a\":1,\"b\":2}", 0},
        {"{\"a\":1,\"b\":2}", "{\"a\":1,\"c\":2}", 0},
        {"[1,2]", "[2,1]", 0},
        {"[1,2]", "[1,2,3]", 0},
        {"1", "1.0000005", 1},
        {"1", "1.000002", 0},
        {"0", "-0", 1},
        {"\"ab\"", "\"ab\"", 1},
        {"\"ab\"", "\"abc\"", 0},
        {"\"a\\u0000b\"", "\"a\\u0000c\"", 0},
        {"\"a\\u0000b\"", "\"a\\u0000b\"", 1},
        {"true", "true", 1},
        {"true", "false", 0},
        {"null", "null", 1},
        {"null", "false", 0},
        {"{}", "[]", 0},
        {"{}", "{}", 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.a) + " == " + c.b);
        Json a(vyr_json_parse_string(c.a));
        Json b(vyr_json_parse_string(c.b));
        ASSERT_NE(a.v, nullptr);
        ASSERT_NE(b.v, nullptr);
        EXPECT_EQ(vyr_json_value_equals(a.v, b.v), c.equal);
        EXPECT_EQ(vyr_json_value_equals(b.v, a.v), c.equal);
    }
}

TEST(JsonEquals, IntegerEqualsReal) {
    Json i(json_integer(7)), r(json_real(7.0)), n(json_null());
    EXPECT_EQ(vyr_json_value_equals(i.v, r.v), 1);
    EXPECT_EQ(vyr_json_value_equals(n.v, nullptr), 0);
}

}  // namespace
