// JSON text: golden bytes, number and string formats, parsing, template
// validation and equality.
#include <gtest/gtest.h>

#include "unit_helpers.h"
#include "vyr_json.h"

namespace {

using vyrtest::unit::golden;
using vyrtest::unit::Json;
using vyrtest::unit::text_of;

// Every golden file, read back, must be written out byte for byte.
TEST(JsonGolden, ParsedFilesAreWrittenBackByteForByte) {
    for (std::string name : {"tarvik_basic", "two_types", "escapes", "empty_types_array", "numbers",
                             "type_object_alone"}) {
        const std::string pretty = golden(name + ".pretty.json");
        Json from_pretty(vyr_json_parse_string(pretty.c_str()));
        Json from_file(vyr_json_parse_file(
            (vyrtest::golden_dir() + "/schema_json/" + name + ".compact.json").c_str()));
        EXPECT_EQ(text_of(from_pretty.v), golden(name + ".compact.json"));
        EXPECT_EQ(text_of(from_file.v, true), pretty) << name;
    }
    EXPECT_EQ(vyr_json_parse_file("/nonexistent/vyr.json"), nullptr);
}

// Values whose compact and pretty texts are the same.
TEST(JsonSerialize, ScalarsAndEmptyContainers) {
    const struct {
        json_t *value;
        const char *text;
    } cases[] = {
        {json_stringn("\b\f\0", 3), "\"\\b\\f\\u0000\""},
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

// A host running under a decimal-comma locale still gets JSON numbers.
TEST(JsonSerialize, DecimalPointIgnoresTheThreadLocale) {
    locale_t comma = vyrtest::unit::built_locale(LC_NUMERIC_MASK, "de_DE", "UTF-8");
    if (!comma) GTEST_SKIP() << "no locale with a decimal comma available";
    locale_t previous = uselocale(comma);
    Json value(json_real(0.5));
    std::string text = text_of(value.v);
    uselocale(previous);
    freelocale(comma);
    EXPECT_EQ(text, "0.5");
}

TEST(JsonParse, Inputs) {
    const struct {
        std::string text;
        const char *compact;  // "<null>" when the parse must fail
    } cases[] = {
        {"\xEF\xBB\xBF{\"a\":1} xyz", "{\"a\":1}"},  // a byte-order mark, trailing bytes
        {"{\"big\":123456789012345678901234567890}", "{\"big\":1.2345678901234568e+29}"},
        {"{\"a\":1,\"a\":2}", "<null>"},
        {"1e400", "<null>"},
    };
    for (const auto &c : cases) {
        Json parsed(vyr_json_parse_string(c.text.c_str()));
        EXPECT_EQ(text_of(parsed.v), c.compact) << c.text;
    }
    EXPECT_EQ(vyr_json_parse_string(nullptr), nullptr);
    for (const char *content : {"", "7"}) {  // an empty file holds no value
        vyrtest::unit::TempFile file(content);
        Json parsed(vyr_json_parse_file(file.path.c_str()));
        EXPECT_EQ(text_of(parsed.v), *content ? content : "<null>");
    }
}

// Templates match by type only; equality ignores key order and tolerates 1e-6.
TEST(JsonCompare, ValidateAndEquals) {
    const struct {
        bool validate;
        const char *a, *b;
        int result;
    } cases[] = {
        {true, "null", "{\"a\":[1]}", 0},
        {true, "{\"a\":\"\",\"n\":0}", "{\"a\":\"s\"}", -1},
        {false, "{\"a\":1,\"b\":[1,2]}", "{\"b\":[1,2],\"a\":1}", 1},
        {false, "{\"a\":1}", "{\"a\":1,\"b\":2}", 0},
        {false, "[1,2]", "[2,1]", 0},
        {false, "1", "1.0000005", 1},
        {false, "\"a\\u0000b\"", "\"a\\u0000c\"", 0},
        {false, "null", nullptr, 0},
    };
    for (const auto &c : cases) {
        Json a(vyr_json_parse_string(c.a)), b(vyr_json_parse_string(c.b));
        SCOPED_TRACE(std::string(c.a ? c.a : "-") + " vs " + (c.b ? c.b : "-"));
        if (c.validate)
            EXPECT_EQ(vyr_json_validate(a.v, b.v), c.result);
        else
            EXPECT_EQ(vyr_json_value_equals(a.v, b.v) * 10 + vyr_json_value_equals(b.v, a.v),
                      c.result * 11);
    }
}

}  // namespace
