// Value-line splitting and conversion, and reading the value line at its offset.
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "log_capture.h"
#include "tarvik_collect.h"
#include "tarvik_initialize.h"
#include "test_paths.h"

namespace {

// The conversions must give exactly what strtoull/strtod give, with 0 for
// no number and for out-of-range results.
uint64_t reference_u64(const std::string &s) {
    char *end = nullptr;
    errno = 0;
    unsigned long long v = strtoull(s.c_str(), &end, 10);
    if (end == s.c_str() || errno == ERANGE) return 0;
    return v;
}

double reference_double(const std::string &s) {
    char *end = nullptr;
    errno = 0;
    double v = strtod(s.c_str(), &end);
    if (end == s.c_str() || errno == ERANGE) return 0.0;
    return v;
}

const char *kEdgeTokens[] = {
    "", "0", "7", "42", "007", " 42", "\t42", "+5", "-1", "-0", "42x", "x42", "abc",
    "18446744073709551615", "18446744073709551616", "99999999999999999999", "1234567890123456789",
    "12345678901234567890", "1.5", "1.", ".5", ".", "5e", "5e3", "1e-9", "1e-400", "1e400",
    "4.9e-324", "2.2250738585072014e-308", "1e-310", "inf", "-inf", "nan", "NaN", "0x1p3",
    "0x10", "3.14159265358979323846", "0.1", "10.0", "1.50", "1.05", "2\r", " ", "-",
    "000000000000000000001", "0.000000000000000000000001", "123456789012345678901234.5",
};

TEST(TarvikConversion, MatchesStandardConversionsOnEdgeTokens) {
    for (const char *t : kEdgeTokens) {
        EXPECT_EQ(tarvik_token_to_u64(t), reference_u64(t)) << "token: '" << t << "'";
        double got = tarvik_token_to_double(t), want = reference_double(t);
        if (std::isnan(want))
            EXPECT_TRUE(std::isnan(got)) << "token: '" << t << "'";
        else
            EXPECT_EQ(0, memcmp(&got, &want, sizeof got)) << "token: '" << t << "' " << got
                                                          << " vs " << want;
    }
}

TEST(TarvikConversion, MatchesStandardConversionsOnRandomDecimals) {
    srand(12345);
    for (int i = 0; i < 20000; ++i) {
        std::string s;
        int digits = 1 + rand() % 22;
        for (int k = 0; k < digits; ++k) s += char('0' + rand() % 10);
        if (rand() % 2) s.insert(size_t(rand()) % (s.size() + 1), ".");
        ASSERT_EQ(tarvik_token_to_u64(s), reference_u64(s)) << s;
        double got = tarvik_token_to_double(s), want = reference_double(s);
        ASSERT_EQ(0, memcmp(&got, &want, sizeof got)) << s;
    }
}

class CsvToEvent : public ::testing::Test {
protected:
    void SetUp() override {
        p = tarvik_provider_instance();
        fields = new std::vector<vyr_event_tarvik_type_t>{
            {"u", "u", TARVIK_FIELD_UINT64, true},
            {"d", "d", TARVIK_FIELD_DOUBLE, true},
            {"s", "s", TARVIK_FIELD_STRING, true},
        };
        tarvik_schema_type_info_t info;
        info.type_index = 0;
        info.event_size = 136 + 8 + 8 + 64;
        info.fields = fields;
        p->type_infos["hdr"] = info;
        dev.header_id = strdup("hdr");
        dev.name = strdup("dev0");
        dev.event_cache = static_cast<uint8_t *>(calloc(1, info.event_size));
    }
    void TearDown() override {
        p->type_infos.clear();
        free(dev.header_id);
        free(dev.name);
        free(dev.event_cache);
        delete fields;
    }
    uint64_t u64_at(size_t off) {
        uint64_t v;
        memcpy(&v, dev.event_cache + off, 8);
        return v;
    }
    double double_at(size_t off) {
        double v;
        memcpy(&v, dev.event_cache + off, 8);
        return v;
    }
    tarvik_provider_t *p = nullptr;
    std::vector<vyr_event_tarvik_type_t> *fields = nullptr;
    tarvik_provider_dev_info_t dev;
};

TEST_F(CsvToEvent, ConvertsEachFieldByItsType) {
    ASSERT_TRUE(tarvik_csv_to_event(p, &dev, "1,2,x"));
    EXPECT_NE(u64_at(0), 0u);  // timestamp set
    EXPECT_EQ(u64_at(136), 1u);
    EXPECT_EQ(double_at(144), 2.0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(dev.event_cache + 152)), "x");
    for (int i = 1; i < 64; ++i) EXPECT_EQ(dev.event_cache[152 + i], 0) << i;
}

TEST_F(CsvToEvent, NonNumericTokensStoreZero) {
    memset(dev.event_cache + 136, 0xFF, 16);
    ASSERT_TRUE(tarvik_csv_to_event(p, &dev, "abc,abc,abc"));
    EXPECT_EQ(u64_at(136), 0u);
    EXPECT_EQ(double_at(144), 0.0);
}

TEST_F(CsvToEvent, LongTextKeepsSixtyThreeCharacters) {
    std::string text(100, 'q');
    ASSERT_TRUE(tarvik_csv_to_event(p, &dev, "1,2," + text));
    EXPECT_EQ(std::string(reinterpret_cast<char *>(dev.event_cache + 152)), std::string(63, 'q'));
}

TEST_F(CsvToEvent, FieldCountMismatchFailsAndLeavesEventUntouched) {
    ASSERT_TRUE(tarvik_csv_to_event(p, &dev, "5,6,prev"));
    std::vector<uint8_t> before(dev.event_cache, dev.event_cache + 216);
    vyrtest::LogCapture log;
    EXPECT_FALSE(tarvik_csv_to_event(p, &dev, "1,2,x,extra"));
    EXPECT_FALSE(tarvik_csv_to_event(p, &dev, "1,2"));
    EXPECT_EQ(std::vector<uint8_t>(dev.event_cache, dev.event_cache + 216), before);
    EXPECT_TRUE(log.contains(4,
                             "[tarvik provider] [tarvik_csv_to_event] Number of fields in csv line "
                             "(4) does not match number of tarvik fields (3)"))
        << log.dump();
    EXPECT_TRUE(log.contains(7, "[tarvik provider] [tarvik_csv_to_event] csv line: 1,2,x,extra"));
}

TEST_F(CsvToEvent, UnknownFieldTypeFailsAfterEarlierSlots) {
    (*fields)[1].type = 7;
    vyrtest::LogCapture log;
    EXPECT_FALSE(tarvik_csv_to_event(p, &dev, "9,2,x"));
    EXPECT_EQ(u64_at(136), 9u);  // written before the bad field
    EXPECT_TRUE(log.contains(3, "[tarvik provider] [tarvik_csv_to_event] Unknown tarvik field type 7"));
}

class LineByOffset : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/vyr_line_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
    }
    void TearDown() override { system(("rm -rf " + dir).c_str()); }
    std::string dir;
};

TEST_F(LineByOffset, ReadsOneLineFromTheOffset) {
    std::string path = dir + "/f.csv";
    vyrtest::write_file(path, "a,b\r\n1,2\r\nignored\n");
    std::string line = "old";
    ASSERT_TRUE(get_csv_line_by_offset(path.c_str(), 5, line));
    EXPECT_EQ(line, "1,2\r");
    ASSERT_TRUE(get_csv_line_by_offset(path.c_str(), 100, line));
    EXPECT_EQ(line, "");
    vyrtest::write_file(path, "h\nno newline at end");
    ASSERT_TRUE(get_csv_line_by_offset(path.c_str(), 2, line));
    EXPECT_EQ(line, "no newline at end");
    std::string big(10000, 'z');
    vyrtest::write_file(path, "h\n" + big + "\n");
    ASSERT_TRUE(get_csv_line_by_offset(path.c_str(), 2, line));
    EXPECT_EQ(line, big);
}

TEST_F(LineByOffset, MissingFileWarnsAndKeepsTheLine) {
    vyrtest::LogCapture log;
    std::string line = "kept";
    std::string path = dir + "/missing.csv";
    EXPECT_FALSE(get_csv_line_by_offset(path.c_str(), 0, line));
    EXPECT_EQ(line, "kept");
    EXPECT_TRUE(log.contains(4, "[tarvik provider] [get_csv_line_by_offset] Could not open file " +
                                    path + ".  Will retry later"));
}

TEST_F(LineByOffset, DirectoryGivesAnEmptyLine) {
    std::string line = "x";
    EXPECT_TRUE(get_csv_line_by_offset(dir.c_str(), 0, line));
    EXPECT_EQ(line, "");
}

}  // namespace
