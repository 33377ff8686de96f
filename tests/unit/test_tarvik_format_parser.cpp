// The CSV collection file reader and the typing and naming of its fields.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "log_capture.h"
#include "tarvik_format_parser.h"
#include "test_paths.h"

namespace {

using Strings = std::vector<std::string>;
using vyrtest::LogCapture;

class ParserFile : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/tarvik_parser_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    std::string write(const std::string &name, const std::string &content) {
        std::string path = dir_ + "/" + name;
        vyrtest::write_file(path, content);
        return path;
    }

    std::string dir_;
    std::vector<vyr_event_tarvik_type_t> types_;
};

TEST_F(ParserFile, ReadsHeaderAndFirstValueLineOnly) {
    LogCapture log;
    TarvikFormatParser p(write("c.csv", "a,b\n1,2.5\n7,8,9\n"), &types_);
    ASSERT_TRUE(p.parse());
    EXPECT_EQ(p.headerFields, (Strings{"a", "b"}));
    EXPECT_EQ(p.valueFields, (Strings{"1", "2.5"}));
    EXPECT_EQ(p.headerId, "b345e1dc09f20fdefdea469f09167892");  // MD5 of the bytes "a,b"
    EXPECT_EQ(p.valueLineOffset, 4);
    ASSERT_EQ(p.typesInfo, &types_);
    ASSERT_EQ(types_.size(), 2u);
    EXPECT_EQ(types_[0].name, "a");
    EXPECT_EQ(types_[0].field_name, "a");
    EXPECT_EQ(types_[0].type, TARVIK_FIELD_UINT64);
    EXPECT_TRUE(types_[0].enabled);
    EXPECT_EQ(types_[1].type, TARVIK_FIELD_DOUBLE);
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_F(ParserFile, ValueLineWithoutFinalNewline) {
    TarvikFormatParser p(write("c.csv", "x,y,\n3,abc"), &types_);
    ASSERT_TRUE(p.parse());
    EXPECT_EQ(p.headerFields, (Strings{"x", "y"}));  // trailing comma: no empty third field
    EXPECT_EQ(p.valueFields, (Strings{"3", "abc"}));
    EXPECT_EQ(p.valueLineOffset, 5);
}

TEST_F(ParserFile, CrLfKeepsCarriageReturnInLastFieldAndIdentity) {
    TarvikFormatParser p(write("c.csv", "a,b\r\n1,2\r\n"), &types_);
    ASSERT_TRUE(p.parse());
    EXPECT_EQ(p.headerFields, (Strings{"a", "b\r"}));
    EXPECT_EQ(p.valueFields, (Strings{"1", "2\r"}));
    EXPECT_EQ(p.headerId, "fd82d9d8aa9f233043932123a20a010f");  // MD5 of "a,b\r"
    EXPECT_EQ(p.valueLineOffset, 5);
    ASSERT_EQ(types_.size(), 2u);
    EXPECT_EQ(types_[1].name, "b\r");
    EXPECT_EQ(types_[1].type, TARVIK_FIELD_STRING);  // "2\r" is not a number
}

TEST_F(ParserFile, QuotesBlanksAndAdjacentCommasKept) {
    TarvikFormatParser p(write("c.csv", "\"Name\",,Rx/Tx<dB>\n\"x\", y\n"), &types_);
    ASSERT_TRUE(p.parse());
    EXPECT_EQ(p.headerFields, (Strings{"\"Name\"", "", "Rx/Tx<dB>"}));
    EXPECT_EQ(p.valueFields, (Strings{"\"x\"", " y"}));
    // The value line is one field short: the third column's value counts as empty.
    ASSERT_EQ(types_.size(), 3u);
    EXPECT_EQ(types_[0].name, "Name");
    EXPECT_EQ(types_[1].name, "");
    EXPECT_EQ(types_[2].name, "Rx_TxdB");
    for (const auto &t : types_) EXPECT_EQ(t.type, TARVIK_FIELD_STRING) << t.name;
}

TEST_F(ParserFile, IdentityDependsOnHeaderBytesOnly) {
    TarvikFormatParser p1(write("1.csv", "Device,Temperature,FW_Version\n1,2,3\n"), &types_);
    std::vector<vyr_event_tarvik_type_t> other;
    TarvikFormatParser p2(write("2.csv", "Device,Temperature,FW_Version\nx,4.5,y\nz\n"), &other);
    std::vector<vyr_event_tarvik_type_t> third;
    TarvikFormatParser p3(write("3.csv", "Device,Temperature,FW_Version \n1,2,3\n"), &third);
    ASSERT_TRUE(p1.parse() && p2.parse() && p3.parse());
    EXPECT_EQ(p1.headerId, "f479e31a0dc524eb1cff0033f71b5486");
    EXPECT_EQ(p2.headerId, p1.headerId);
    EXPECT_NE(p3.headerId, p1.headerId);
}

TEST_F(ParserFile, ShortValueLineCountsMissingValuesAsEmpty) {
    TarvikFormatParser p(write("c.csv", "a,b,Lane\n1\n"), &types_);
    ASSERT_TRUE(p.parse());
    EXPECT_EQ(p.valueFields, (Strings{"1"}));
    ASSERT_EQ(types_.size(), 3u);
    EXPECT_EQ(types_[0].type, TARVIK_FIELD_UINT64);
    EXPECT_EQ(types_[1].type, TARVIK_FIELD_STRING);
    EXPECT_EQ(types_[2].type, TARVIK_FIELD_UINT64);  // the name decides
}

TEST_F(ParserFile, UnreadableLinesFailWithExactMessage) {
    const std::string hdr = "Failed to read csv hdr line from file ";
    const std::string val = "Failed to read csv value line from file ";
    struct Case {
        const char *name;
        std::string content;
        std::string message;
        int64_t offset;
    } cases[] = {
        {"empty", "", hdr, 0},
        {"empty_first_line", "\na,b\n1,2\n", hdr, 0},
        {"header_only", "a,b\n", val, 4},
        {"empty_second_line", "a,b\n\n1,2\n", val, 4},
        {"header_no_newline", "a,b", val, -1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        LogCapture log;
        std::string path = write(c.name, c.content);
        types_.clear();
        TarvikFormatParser p(path, &types_);
        EXPECT_FALSE(p.parse());
        ASSERT_EQ(log.lines().size(), 1u) << log.dump();
        EXPECT_TRUE(log.contains(VYR_LOG_LEVEL_ERROR, c.message + path)) << log.dump();
        EXPECT_EQ(p.valueLineOffset, c.offset);
        EXPECT_TRUE(p.headerId.empty());
        EXPECT_TRUE(p.headerFields.empty());
        EXPECT_TRUE(types_.empty());
    }
}

TEST_F(ParserFile, MissingFileWarnsOnlyFromLevelFour) {
    const std::string path = dir_ + "/absent.csv";
    {
        LogCapture log(VYR_LOG_LEVEL_WARNING);
        TarvikFormatParser p(path, &types_);
        EXPECT_FALSE(p.parse());
        ASSERT_EQ(log.lines().size(), 1u) << log.dump();
        EXPECT_TRUE(
            log.contains(VYR_LOG_LEVEL_WARNING, "[tarvik_format] Could not open file " + path));
    }
    {
        LogCapture log(VYR_LOG_LEVEL_ERROR);
        TarvikFormatParser p(path, &types_);
        EXPECT_FALSE(p.parse());
        EXPECT_TRUE(log.lines().empty()) << log.dump();
    }
}

TEST_F(ParserFile, DirectoryIsALoggedFailure) {
    LogCapture log;
    TarvikFormatParser p(dir_, &types_);
    EXPECT_FALSE(p.parse());
    EXPECT_EQ(log.lines().size(), 1u) << log.dump();
    EXPECT_TRUE(log.contains_fragment("from file " + dir_)) << log.dump();
}

TEST_F(ParserFile, NulBytesAreOrdinaryBytes) {
    TarvikFormatParser p(write("c.csv", std::string("a\0b,c\n1,\0\n", 10)), &types_);
    ASSERT_TRUE(p.parse());
    EXPECT_EQ(p.headerFields, (Strings{std::string("a\0b", 3), "c"}));
    EXPECT_EQ(p.valueFields, (Strings{"1", std::string(1, '\0')}));
    EXPECT_EQ(p.headerId, "767fc50dbfc580b5dd13706cf14e8ca7");  // MD5 of all 5 header bytes
    EXPECT_EQ(p.valueLineOffset, 6);
    EXPECT_EQ(types_[1].type, TARVIK_FIELD_STRING);
}

TEST_F(ParserFile, TenMegabyteLines) {
    const std::string big(10 * 1024 * 1024, 'x');
    {
        LogCapture log;
        std::string path = write("nonl.csv", big);
        TarvikFormatParser p(path, &types_);
        EXPECT_FALSE(p.parse());
        EXPECT_TRUE(
            log.contains(VYR_LOG_LEVEL_ERROR, "Failed to read csv value line from file " + path));
    }
    TarvikFormatParser p(write("big.csv", big + "\n" + big), &types_);
    ASSERT_TRUE(p.parse());
    EXPECT_EQ(p.valueLineOffset, static_cast<int64_t>(big.size()) + 1);
    ASSERT_EQ(types_.size(), 1u);
    EXPECT_EQ(types_[0].type, TARVIK_FIELD_STRING);
}

TEST_F(ParserFile, BinaryGarbageNeverBreaksTheParser) {
    std::mt19937 rng(12345);
    for (int round = 0; round < 50; ++round) {
        std::string junk(1 + rng() % 4096, '\0');
        for (char &c : junk) c = static_cast<char>(rng() & 0xff);
        LogCapture log;
        types_.clear();
        TarvikFormatParser p(write("junk.csv", junk), &types_);
        if (p.parse()) {
            EXPECT_EQ(types_.size(), p.headerFields.size());
            EXPECT_EQ(p.headerId.size(), 32u);
        } else {
            EXPECT_EQ(log.lines().size(), 1u);
        }
    }
}

TEST(TarvikSplit, Table) {
    const struct {
        std::string line;
        Strings fields;
    } cases[] = {
        {"", {}},
        {"a", {"a"}},
        {"a,b,", {"a", "b"}},
        {"a,,b", {"a", "", "b"}},
        {",", {""}},
        {",,", {"", ""}},
        {",a", {"", "a"}},
        {"\"x\", y", {"\"x\"", " y"}},
        {"\"a,b\"", {"\"a", "b\""}},  // no quoting: the comma separates
        {" a \r", {" a \r"}},
    };
    TarvikFormatParser p("unused", nullptr);
    for (const auto &c : cases) {
        Strings viaMember{"kept"};
        Strings viaFree{"kept"};
        p.parseCsvLine(c.line, &viaMember);
        tarvikSplitCsvLine(c.line, &viaFree);
        Strings want{"kept"};  // appends, never empties the list first
        want.insert(want.end(), c.fields.begin(), c.fields.end());
        EXPECT_EQ(viaMember, want) << "line: " << c.line;
        EXPECT_EQ(viaFree, want) << "line: " << c.line;
    }
}

TEST(TarvikGetCsvLine, LinesUntilEmptyOrEnd) {
    TarvikFormatParser p("unused", nullptr);
    std::istringstream in("abc\r\nlast");
    std::string line = "stale";
    EXPECT_TRUE(p.getCsvLine(in, &line));
    EXPECT_EQ(line, "abc\r");
    EXPECT_TRUE(p.getCsvLine(in, &line));
    EXPECT_EQ(line, "last");
    EXPECT_FALSE(p.getCsvLine(in, &line));
    EXPECT_EQ(line, "");

    std::istringstream blank("\nnext\n");
    line = "stale";
    EXPECT_FALSE(p.getCsvLine(blank, &line));
    EXPECT_EQ(line, "");
}

TEST(TarvikTyping, ValueRules) {
    const struct {
        const char *value;
        bool unsignedDecimal;
        tarvik_field_type_t type;
    } cases[] = {
        {"", true, TARVIK_FIELD_STRING},      {"0", true, TARVIK_FIELD_UINT64},
        {"42", true, TARVIK_FIELD_UINT64},    {"99999999999999999999", true, TARVIK_FIELD_UINT64},
        {"007", false, TARVIK_FIELD_STRING},  {"00", false, TARVIK_FIELD_STRING},
        {"0.5", false, TARVIK_FIELD_DOUBLE},  {"3.14", false, TARVIK_FIELD_DOUBLE},
        {"10.0", false, TARVIK_FIELD_DOUBLE}, {"1.50", false, TARVIK_FIELD_DOUBLE},
        {"1.05", false, TARVIK_FIELD_STRING}, {"0.05", false, TARVIK_FIELD_STRING},
        {"1.00", false, TARVIK_FIELD_STRING}, {"01.5", false, TARVIK_FIELD_STRING},
        {"5.", false, TARVIK_FIELD_DOUBLE},   {".5", false, TARVIK_FIELD_DOUBLE},
        {".", false, TARVIK_FIELD_STRING},    {"1.2.3", false, TARVIK_FIELD_STRING},
        {"-1", false, TARVIK_FIELD_STRING},   {"+1", false, TARVIK_FIELD_STRING},
        {"1e-9", false, TARVIK_FIELD_STRING}, {"1 2", false, TARVIK_FIELD_STRING},
        {"1. 5", false, TARVIK_FIELD_STRING}, {" 1", false, TARVIK_FIELD_STRING},
        {"2\r", false, TARVIK_FIELD_STRING},  {"1.5\r", false, TARVIK_FIELD_STRING},
        {"abc", false, TARVIK_FIELD_STRING},  {"\xd9\xa3", false, TARVIK_FIELD_STRING},
    };
    TarvikFormatParser p("unused", nullptr);
    for (const auto &c : cases) {
        EXPECT_EQ(isUnsignedDecimal(c.value), c.unsignedDecimal) << "value: " << c.value;
        EXPECT_EQ(p.getTypeByValue(c.value), c.type) << "value: " << c.value;
    }
}

TEST(TarvikTyping, NameRulesAndCleaning) {
    const struct {
        const char *header;
        const char *value;
        const char *name;
        tarvik_field_type_t type;
    } cases[] = {
        {"Raw_Errors_Lane[0]", "12", "Raw_Errors_Lane_0", TARVIK_FIELD_UINT64},
        {"Raw_Errors", "abc", "Raw_Errors", TARVIK_FIELD_UINT64},
        {"RAW_ERRORS", "abc", "RAW_ERRORS", TARVIK_FIELD_STRING},
        {"Rx/Tx<dB>", "-3.5", "Rx_TxdB", TARVIK_FIELD_STRING},
        {"FW_Version", "14", "FW_Version", TARVIK_FIELD_STRING},
        {"Temperature", "45.5", "Temperature", TARVIK_FIELD_DOUBLE},
        {"temperature", "45.5", "temperature", TARVIK_FIELD_UINT64},
        {"chip_temperature", "hot", "chip_temperature", TARVIK_FIELD_UINT64},
        {"hist_BER_x", "0.5", "hist_BER_x", TARVIK_FIELD_UINT64},
        {"HIST", "x", "HIST", TARVIK_FIELD_STRING},
        {"Eff_BER_Lane0", "abc", "Eff_BER_Lane0", TARVIK_FIELD_DOUBLE},
        {"eff_ber_x", "abc", "eff_ber_x", TARVIK_FIELD_STRING},
        {"LANE_version", "3", "LANE_version", TARVIK_FIELD_STRING},
        {"Lane_count", "abc", "Lane_count", TARVIK_FIELD_UINT64},
        {"hist_version", "x", "hist_version", TARVIK_FIELD_UINT64},
        {"Version_temperature", "1", "Version_temperature", TARVIK_FIELD_STRING},
        {"Speed", "100", "Speed", TARVIK_FIELD_UINT64},
        {"Ratio", "1.05", "Ratio", TARVIK_FIELD_STRING},
        {"Ratio", "1.50", "Ratio", TARVIK_FIELD_DOUBLE},
        {"\"Name\"", "x", "Name", TARVIK_FIELD_STRING},
        {"a[1][2]", "1", "a_1_2", TARVIK_FIELD_UINT64},
        {"<>/[]\"", "1", "__", TARVIK_FIELD_UINT64},
        {"A b-c.d", "1", "A b-c.d", TARVIK_FIELD_UINT64},
        {"\xc4LANE", "x", "\xc4LANE", TARVIK_FIELD_UINT64},
    };
    for (const auto &c : cases) {
        std::vector<vyr_event_tarvik_type_t> types;
        TarvikFormatParser p("unused", &types);
        p.headerFields = {c.header};
        p.valueFields = {c.value};
        p.createTarvikTypesInfo();
        ASSERT_EQ(types.size(), 1u);
        EXPECT_EQ(types[0].name, c.name) << "header: " << c.header;
        EXPECT_EQ(types[0].field_name, c.name) << "header: " << c.header;
        EXPECT_EQ(types[0].type, c.type) << "header: " << c.header << " value: " << c.value;
    }
}

TEST(TarvikTyping, DuplicateNames) {
    const struct {
        Strings headers;
        Strings names;
    } cases[] = {
        {{"a", "a", "a"}, {"a", "a_0", "a_1"}},
        {{"x[1]", "x_1"}, {"x_1", "x_1"}},  // cleaning may create equal names; kept
        {{"x[1]", "x[1]"}, {"x_1", "x_1_0"}},
        {{"a", "b", "a", "b", "a"}, {"a", "b", "a_0", "b_0", "a_1"}},
        {{"A", "a"}, {"A", "a"}},
        {{"", ""}, {"", "_0"}},
    };
    for (const auto &c : cases) {
        std::vector<vyr_event_tarvik_type_t> types;
        TarvikFormatParser p("unused", &types);
        p.headerFields = c.headers;
        p.createTarvikTypesInfo();
        Strings names;
        for (const auto &t : types) names.push_back(t.field_name);
        EXPECT_EQ(names, c.names);
    }
}

TEST(TarvikTyping, RebuildsTheListAndIgnoresExtraValues) {
    std::vector<vyr_event_tarvik_type_t> types{{"old", "old", TARVIK_FIELD_DOUBLE, false}};
    TarvikFormatParser p("unused", &types);
    p.createTarvikTypesInfo();
    EXPECT_TRUE(types.empty());

    p.headerFields = {"a"};
    p.valueFields = {"1.5", "x", "y"};
    p.createTarvikTypesInfo();
    p.createTarvikTypesInfo();  // the duplicate table starts afresh on every call
    ASSERT_EQ(types.size(), 1u);
    EXPECT_EQ(types[0].name, "a");
    EXPECT_EQ(types[0].type, TARVIK_FIELD_DOUBLE);
}

}  // namespace
