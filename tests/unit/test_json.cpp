// JSON text: golden bytes of the schema form, number and string formats,
// parsing, template validation and equality.
#include <gtest/gtest.h>

#include "unit_helpers.h"
#include "vyr_md5.h"

namespace {

using vyrtest::unit::golden;
using vyrtest::unit::Json;
using vyrtest::unit::text_of;

std::string compact_of(const std::string &source) {
    Json parsed(vyr_json_parse_string(source.c_str()));
    return text_of(parsed.v);
}

// The schemas among these are built through the schema API in test_schema_json;
// here every golden file, read back, must be written out byte for byte.
TEST(JsonGolden, ParsedFilesAreWrittenBackByteForByte) {
    for (const char *name : {"tarvik_basic", "two_types", "escapes", "empty_types_array", "numbers",
                             "type_object_alone"}) {
        SCOPED_TRACE(name);
        const std::string pretty = golden(name + std::string(".pretty.json"));
        const std::string compact = golden(name + std::string(".compact.json"));
        Json from_pretty(vyr_json_parse_string(pretty.c_str()));
        Json from_compact(vyr_json_parse_string(compact.c_str()));
        EXPECT_EQ(text_of(from_pretty.v, true), pretty);
        EXPECT_EQ(text_of(from_pretty.v), compact);
        EXPECT_EQ(text_of(from_compact.v, true), pretty);
        char md5[VYR_MD5_STRING_LENGTH];
        const std::string ours = text_of(from_compact.v, true);
        vyr_HexMD5(ours.data(), ours.size(), md5);
        EXPECT_EQ(md5 + std::string("\n"), golden(name + std::string(".md5")));
    }
    Json file(
        vyr_json_parse_file((vyrtest::golden_dir() + "/schema_json/numbers.pretty.json").c_str()));
    EXPECT_EQ(text_of(file.v, true), golden("numbers.pretty.json"));
    EXPECT_EQ(vyr_json_parse_file("/nonexistent/vyr.json"), nullptr);
    EXPECT_EQ(vyr_json_parse_file(nullptr), nullptr);
}

// Values whose compact and pretty texts are the same.
TEST(JsonSerialize, ScalarsAndEmptyContainers) {
    const struct {
        json_t *value;
        const char *text;
    } cases[] = {
        // Numbers: 17 significant digits (and the "numbers" golden file).
        {json_real(1e16), "10000000000000000"},
        {json_real(1e17), "1e+17"},
        {json_real(1.0 / 3.0), "0.33333333333333331"},
        {json_real(1e-5), "1.0000000000000001e-05"},
        // Strings, escaped byte by byte, UTF-8 as it is (and the "escapes" golden file).
        {json_string(""), "\"\""},
        {json_string("\b\f\n\r\t"), "\"\\b\\f\\n\\r\\t\""},
        {json_string("\x01\x0b\x1f"), "\"\\u0001\\u000b\\u001f\""},
        {json_stringn("a\0b", 3), "\"a\\u0000b\""},
        {json_string("\x7f \xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"),
         "\"\x7f \xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\""},
        {json_true(), "true"},
        {json_false(), "false"},
        {json_null(), "null"},
        {json_object(), "{}"},
        {json_array(), "[]"},
    };
    for (const auto &c : cases) {
        Json value(c.value);
        EXPECT_EQ(text_of(value.v), c.text);
        EXPECT_EQ(text_of(value.v, true), c.text);
    }
    EXPECT_EQ(vyr_json_serialize(nullptr, 1), nullptr);
}

TEST(JsonSerialize, DecimalPointIgnoresTheThreadLocale) {
    locale_t comma = vyrtest::unit::built_locale(LC_NUMERIC_MASK, "de_DE", "UTF-8");
    if (!comma) GTEST_SKIP() << "no locale with a decimal comma available";
    locale_t previous = uselocale(comma);
    char probe[16];
    snprintf(probe, sizeof probe, "%.1f", 0.5);
    Json object(json_pack("{s:f,s:f}", "half", 0.5, "e", 1.0000000000000001e-05));
    std::string text = text_of(object.v);
    uselocale(previous);
    freelocale(comma);
    EXPECT_STREQ(probe, "0,5");  // the locale really is in force
    EXPECT_EQ(text, "{\"half\":0.5,\"e\":1.0000000000000001e-05}");
}

TEST(JsonSerialize, LayoutOfKeysAndNestedContainers) {
    Json keys(json_pack("{s:b}", "a/b\t\"", 1));
    EXPECT_EQ(text_of(keys.v), "{\"a\\/b\\t\\\"\":true}");
    EXPECT_EQ(text_of(keys.v, true), "{\n    \"a\\/b\\t\\\"\": true\n}");

    Json o(json_pack("{s:{},s:[f,[n],{s:b},[]]}", "o", "l", 1.0, "f", 0));
    EXPECT_EQ(text_of(o.v), "{\"o\":{},\"l\":[1,[null],{\"f\":false},[]]}");
    EXPECT_EQ(
        text_of(o.v, true),
        "{\n    \"o\": {},\n    \"l\": [\n        1,\n        [\n            null\n        ],\n"
        "        {\n            \"f\": false\n        },\n        []\n    ]\n}");

    // Replacing a key keeps its position.
    Json r(json_pack("{s:f,s:f}", "a", 1.0, "b", 2.0));
    json_object_set_new(r.v, "a", json_real(3));
    EXPECT_EQ(text_of(r.v), "{\"a\":3,\"b\":2}");
}

TEST(JsonParse, Inputs) {
    const struct {
        std::string text;
        const char *compact;  // "<null>" when the parse must fail
    } cases[] = {
        {"{\"a\":1}", "{\"a\":1}"},
        {"\xEF\xBB\xBF{\"a\":1}", "{\"a\":1}"},
        {"{\"a\":1} xyz", "{\"a\":1}"},
        {" \t\r\n\"s\"", "\"s\""},
        {"{\"big\":123456789012345678901234567890}", "{\"big\":1.2345678901234568e+29}"},
        {"1e-400", "0"},
        {"\"a\\u0000b\"", "\"a\\u0000b\""},
        {"\"\\ud83d\\ude00\"", "\"\xf0\x9f\x98\x80\""},
        {"{\"a\":1,\"a\":2}", "<null>"},
        {"", "<null>"},
        {"\xEF\xBB\xBF", "<null>"},
        {"\xEF\xBB\xBF\xEF\xBB\xBF{}", "<null>"},
        {"1e400", "<null>"},
        {"// c\n{}", "<null>"},
    };
    for (const auto &c : cases) EXPECT_EQ(compact_of(c.text), c.compact) << c.text;
    EXPECT_EQ(vyr_json_parse_string(nullptr), nullptr);

    Json v(vyr_json_parse_string("[216, -3, 18446744073709551615]"));
    for (size_t i = 0; i < json_array_size(v.v); ++i)
        EXPECT_TRUE(json_is_real(json_array_get(v.v, i))) << i;
    EXPECT_EQ(json_real_value(json_array_get(v.v, 2)), 18446744073709551616.0);
}

TEST(JsonParse, FileWithBomAndTrailingBytes) {
    vyrtest::unit::TempFile file("\xEF\xBB\xBF{\"k\":[1,2]}\ngarbage");
    Json v(vyr_json_parse_file(file.path.c_str()));
    EXPECT_EQ(text_of(v.v), "{\"k\":[1,2]}");
    vyrtest::write_file(file.path, "");
    EXPECT_EQ(vyr_json_parse_file(file.path.c_str()), nullptr);
}

TEST(JsonValidate, TemplatesMatchByTypeOnly) {
    const struct {
        const char *schema, *value;
        int result;
    } cases[] = {
        {"null", "{\"a\":[1]}", 0},
        {"{\"a\":null}", "{\"a\":\"anything\"}", 0},
        {"[]", "[1,\"two\",null]", 0},
        {"{\"a\":\"\",\"n\":0}", "{\"n\":5,\"a\":\"s\",\"extra\":true}", 0},
        {"{\"a\":\"\",\"n\":0}", "{\"a\":\"s\"}", -1},
        {"{\"n\":0}", "{\"n\":\"5\"}", -1},
        {"{\"b\":false}", "{\"b\":0}", -1},
        {"[0]", "[1,2.5,3]", 0},
        {"[0]", "[1,\"2\"]", -1},
        {"[0,\"ignored\"]", "[1,2]", 0},
        {"[{\"k\":0}]", "[{\"k\":1},{\"z\":0}]", -1},
        {"{\"o\":{\"i\":[\"\"]}}", "{\"o\":{\"i\":[\"a\",1]}}", -1},
        {"1", "null", -1},
        {"1", nullptr, -1},
        {nullptr, "1", -1},
    };
    for (const auto &c : cases) {
        Json schema(vyr_json_parse_string(c.schema)), value(vyr_json_parse_string(c.value));
        EXPECT_EQ(vyr_json_validate(schema.v, value.v), c.result)
            << (c.schema ? c.schema : "-") << " vs " << (c.value ? c.value : "-");
    }
}

TEST(JsonEquals, Table) {
    const struct {
        const char *a, *b;
        int equal;
    } cases[] = {
        {"{\"a\":1,\"b\":[1,2]}", "{\"b\":[1,2],\"a\":1}", 1},
        {"{\"a\":1}", "{\"a\":1,\"b\":2}", 0},
        {"[1,2]", "[2,1]", 0},
        {"1", "1.0000005", 1},
        {"1", "1.000002", 0},
        {"0", "-0", 1},
        {"\"a\\u0000b\"", "\"a\\u0000c\"", 0},
        {"null", "false", 0},
        {"{}", "[]", 0},
    };
    for (const auto &c : cases) {
        Json a(vyr_json_parse_string(c.a)), b(vyr_json_parse_string(c.b));
        ASSERT_TRUE(a.v && b.v) << c.a << " == " << c.b;
        EXPECT_EQ(vyr_json_value_equals(a.v, b.v), c.equal) << c.a << " == " << c.b;
        EXPECT_EQ(vyr_json_value_equals(b.v, a.v), c.equal) << c.b << " == " << c.a;
    }
    Json one(json_real(1));
    EXPECT_EQ(vyr_json_value_equals(one.v, nullptr), 0);
}

}  // namespace
