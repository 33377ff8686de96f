// The CSV collection file reader and the typing and naming of its fields.
#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>
#include <tuple>
#include <string>
#include <vector>

#include "log_capture.h"
#include "sim.h"
#include "tarvik_format_parser.h"
#include "unit_helpers.h"

namespace {

using Strings = std::vector<std::string>;
using Types = std::vector<vyr_event_tarvik_type_t>;
using vyrtest::LogCapture;
using vyrtest::unit::texts;

// The derived fields as "name:kind name:kind ...", kind 0 integer, 1 double,
// 2 text; a field whose event name differs from its name, or that is not
// enabled, shows as such.
std::string describe(const Types &types) {
    std::string out;
    for (const auto &t : types) {
        out += (out.empty() ? "" : " ") + t.name + ":" + std::to_string(t.type);
        if (t.field_name != t.name) out += "(field " + t.field_name + ")";
        if (!t.enabled) out += "(disabled)";
    }
    return out;
}

// Fields joined by '|'.
Strings split(const std::string &joined) {
    Strings out;
    std::stringstream in(joined);
    for (std::string field; std::getline(in, field, '|');) out.push_back(field);
    if (!joined.empty() && joined.back() == '|') out.push_back("");
    return out;
}

class ParserFile : public ::testing::Test {
  protected:
    vyrtest::unit::TempDir dir_;
    Types types_;
};

// The header line's MD5 identifies it: the same header gives the same
// identity whatever the values; a CR of a CR LF file stays in the last field
// and in the identity.
TEST_F(ParserFile, ReadsTheHeaderAndTheFirstValueLine) {
    const struct {
        std::string content, header, values;  // the fields joined by '|'
        const char *id;
        int64_t offset;
        std::string types;
    } cases[] = {
        {"a,b\n1,2.5\n7,8,9\n", "a|b", "1|2.5", "b345e1dc09f20fdefdea469f09167892", 4, "a:0 b:1"},
        {"x,y,\n3,abc", "x|y", "3|abc", "b3b92ef11679db9309d134c545aabdb4", 5, "x:0 y:2"},
        {"a,b\r\n1,2\r\n", "a|b\r", "1|2\r", "fd82d9d8aa9f233043932123a20a010f", 5, "a:0 b\r:2"},
        {"\"Name\",,Rx/Tx<dB>\n\"x\", y\n", "\"Name\"||Rx/Tx<dB>", "\"x\"| y",
         "5177e2bc3b1080496ba6dcba18da1ecb", 18, "Name:2 :2 Rx_TxdB:2"},
        // A value line shorter than the header: the missing values count as empty.
        {"a,b,Lane\n1\n", "a|b|Lane", "1", "290ce21d2807fe4f87ea1506b63eacf7", 9, "a:0 b:2 Lane:0"},
        {std::string("a\0b,c\n1,\0\n", 10), std::string("a\0b|c", 5), std::string("1|\0", 3),
         "767fc50dbfc580b5dd13706cf14e8ca7", 6, std::string("a\0b:0 c:2", 9)},
    };
    for (const auto &c : cases) {
        LogCapture log;
        TarvikFormatParser p(dir_.file("c.csv", c.content), &types_);
        ASSERT_TRUE(p.parse());
        EXPECT_EQ(std::make_tuple(p.headerFields, p.valueFields, p.headerId, p.valueLineOffset,
                                  describe(types_), log.dump()),
                  std::make_tuple(split(c.header), split(c.values), c.id, c.offset, c.types, ""))
            << c.content;
    }
}

TEST_F(ParserFile, UnreadableLinesFailWithExactMessage) {
    const std::string hdr = "Failed to read csv hdr line from file ";
    const std::string val = "Failed to read csv value line from file ";
    const std::string big(10 * 1024 * 1024, 'x');
    const struct {
        std::string content, message;
        int64_t offset;
    } cases[] = {
        {"", hdr, 0},      {"\na,b\n1,2\n", hdr, 0},  // an empty first line
        {"a,b\n", val, 4},                            // header only
        {"a,b", val, -1},                             // header without newline
        {big, val, -1},
    };
    for (const auto &c : cases) {
        LogCapture log;
        std::string path = dir_.file("c.csv", c.content);
        TarvikFormatParser p(path, &types_);
        EXPECT_FALSE(p.parse());
        EXPECT_EQ(texts(log, VYR_LOG_LEVEL_ERROR), Strings{c.message + path});
        EXPECT_TRUE(p.valueLineOffset == c.offset && p.headerId.empty() && types_.empty())
            << c.content.substr(0, 20);
    }
}

// A missing file, and what is not a regular file (nothing blocks), or a link
// to one, warn.
TEST_F(ParserFile, NoRegularFileWarns) {
    const std::string fifo = dir_.path + "/fifo", link = dir_.path + "/link";
    ASSERT_TRUE(vyrtest::sim::make_special("fifo", fifo));
    ASSERT_EQ(symlink(dir_.file("t.csv", "a\n1\n").c_str(), link.c_str()), 0);
    for (const std::string &path : {dir_.path + "/absent.csv", dir_.path, fifo, link}) {
        LogCapture log;
        EXPECT_FALSE(TarvikFormatParser(path, &types_).parse());
        EXPECT_EQ(texts(log), Strings{"[tarvik_format] Could not open file " + path});
    }
}

// Whole header lines and their values, fields joined by '|'. Name rules
// first, in the order they are tried, then typing by value (kind 0 integer,
// 1 double, 2 text); brackets and other marks are cleaned from names;
// duplicates are numbered in order; extra values are ignored.
TEST(TarvikTyping, NameAndValueRules) {
    const struct {
        const char *header, *values, *want;
    } cases[] = {
        {"hist_BER_x|HIST|Raw_Errors|RAW_ERRORS|Eff_BER_Lane0|LANE_Version|hist_version|"
         "Version_temperature|Temperature|temperature|\xc4LANE",
         "0.5|x|abc|abc|abc|3|x|1|45.5|45.5|x",
         "hist_BER_x:0 HIST:2 Raw_Errors:0 RAW_ERRORS:2 Eff_BER_Lane0:1 LANE_Version:2 "
         "hist_version:0 Version_temperature:2 Temperature:1 temperature:0 \xc4LANE:0"},
        {"a|b|c|d|e|f|g|h|i|j|k|l|m|n",
         "|0|99999999999999999999|007|00|0.5|1.05|5.|.5|.|1.2.3|-1|1 2|\xd9\xa3",
         "a:2 b:0 c:0 d:2 e:2 f:1 g:2 h:1 i:1 j:2 k:2 l:2 m:2 n:2"},
        {"a[1][2]|<>/[]\"|x[1]|x[1]|a|b|a|b|a|", "1|1|||1.5|x|y|||||",
         "a_1_2:0 __:0 x_1:2 x_1_0:2 a:1 b:2 a_0:2 b_0:2 a_1:2 :2"},
        {"|", "", ":2 _0:2"},
    };
    for (const auto &c : cases) {
        Types types;
        TarvikFormatParser p("unused", &types);
        p.headerFields = split(c.header);
        p.valueFields = split(c.values);
        p.createTarvikTypesInfo();
        EXPECT_EQ(describe(types), c.want) << c.header;
    }
    EXPECT_TRUE(isUnsignedDecimal("0") && !isUnsignedDecimal("01") && !isUnsignedDecimal("\xd9"));
}

}  // namespace
