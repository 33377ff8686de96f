// The value line's number conversions, exactly what strtoull/strtod give,
// token by token, and the whole line into the device's event.
#include <gtest/gtest.h>

#include <cerrno>
#include <cfenv>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "log_capture.h"
#include "tarvik_collect.h"
#include "tarvik_convert.h"

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

// One token per place a fast path could part ways with strtoull/strtod:
// blanks, signs, a minus that wraps, UINT64_MAX and one more, 40 and 41
// mantissa digits, exponents 260 and 261 and of five digits, under- and
// overflow, hex, inf, nan, a CR, a halfway case, and tokens of 63 and 64
// bytes around the stack copy.
// clang-format off
const std::vector<std::string> kEdgeTokens = {
    "", " 42", "+5", "-1", "x42", "18446744073709551615", "18446744073709551616",
    "-18446744073709551616", ".5", "5e", "5e+3", "1e260", "1e261", "1e00005", "1e-400", "1e400",
    "0x10", "inf", "nan", "2.5\r", "1234567890123456789012345678901234567890",
    "12345678901234567890123456789012345678901",
    "1.00000000000000011102230246251565404236316680908203125",
    " " + std::string(60, '0') + "42", " " + std::string(61, '0') + "4.5"};
// clang-format on

bool same_bits(double a, double b) {
    return memcmp(&a, &b, sizeof a) == 0;
}

// strtod rounds in the current rounding mode; the fast path must not keep
// rounding to nearest when the host changes it.
TEST(TarvikConversion, MatchesStandardConversions) {
    for (const std::string &t : kEdgeTokens) {
        EXPECT_EQ(tarvik_token_to_u64(t), reference_u64(t)) << "token: '" << t << "'";
        double got = tarvik_token_to_double(t), want = reference_double(t);
        EXPECT_TRUE(same_bits(got, want)) << "token: '" << t << "' " << got << " vs " << want;
    }
    ASSERT_EQ(fesetround(FE_UPWARD), 0);
    for (const char *t : {"0.1", "-2.7"})
        EXPECT_TRUE(same_bits(tarvik_token_to_double(t), reference_double(t))) << t;
    fesetround(FE_TONEAREST);
}

// Random texts built from the pieces numbers are made of, in shapes the
// grammar allows and shapes it does not.
std::string random_token(unsigned &seed) {
    auto pick = [&seed](int n) { return (int)(rand_r(&seed) % (unsigned)n); };
    auto digits = [&](int max) {
        std::string d;
        for (int k = pick(max + 1); k > 0; --k) d += char('0' + pick(10));
        return d;
    };
    std::string s;
    if (pick(8) == 0) s += " \t"[pick(2)];
    if (pick(3) == 0) s += "+-"[pick(2)];
    s += digits(pick(4) == 0 ? 45 : 20);
    if (pick(2)) s += "." + digits(pick(4) == 0 ? 30 : 8);
    if (pick(3) == 0) {
        s += "eE"[pick(2)];
        if (pick(2)) s += "+-"[pick(2)];
        s += digits(pick(5) == 0 ? 6 : 3);
    }
    static const char *kTails[] = {"", "", "", "\r", "x", " 1", ".5", "e", "e5", "0x1", "inf"};
    s += kTails[pick(11)];
    return s;
}

// The value line into the device's event: a text, a double and an integer
// field by default; each test may change the list.
class CsvToEvent : public ::testing::Test {
  protected:
    void SetUp() override {
        tarvik_schema_type_info_t info;
        info.fields = &fields;
        p->type_infos["hdr"] = info;
        dev.header_id = strdup("hdr");
        dev.event_cache = static_cast<uint8_t *>(calloc(1, 136 + 12 * 64));
    }
    void TearDown() override {
        p->type_infos.clear();
        free(dev.header_id);
        free(dev.event_cache);
    }
    uint64_t at(size_t off) {
        uint64_t v;
        memcpy(&v, dev.event_cache + off, 8);
        return v;
    }
    tarvik_provider_t *p = tarvik_provider_instance();
    std::vector<vyr_event_tarvik_type_t> fields = {{"u", "u", TARVIK_FIELD_UINT64, true},
                                                   {"d", "d", TARVIK_FIELD_DOUBLE, true},
                                                   {"s", "s", TARVIK_FIELD_STRING, true}};
    tarvik_provider_dev_info_t dev;
};

// Texts are zero-filled or cut to 63 bytes; no number gives 0.
TEST_F(CsvToEvent, ConvertsEachFieldByItsType) {
    fields.push_back({"t", "t", TARVIK_FIELD_STRING, true});
    memset(dev.event_cache, 0xFF, 280);
    ASSERT_TRUE(tarvik_csv_to_event(p, &dev, "abc,abc,abc," + std::string(100, 'q')));
    EXPECT_GT(at(0), 1600000000ull * 1000000ull);  // now
    EXPECT_EQ(at(136) | at(144), 0u);
    EXPECT_EQ(std::string((char *)dev.event_cache + 152, 128),
              "abc" + std::string(61, '\0') + std::string(63, 'q') + '\0');
}

TEST_F(CsvToEvent, FieldCountMismatchOrUnknownTypeFails) {
    ASSERT_TRUE(tarvik_csv_to_event(p, &dev, "5,6,prev"));
    std::vector<uint8_t> before(dev.event_cache, dev.event_cache + 216);
    vyrtest::LogCapture log;
    EXPECT_FALSE(tarvik_csv_to_event(p, &dev, "1,2,x,extra"));
    EXPECT_FALSE(tarvik_csv_to_event(p, &dev, "1,2"));
    EXPECT_EQ(std::vector<uint8_t>(dev.event_cache, dev.event_cache + 216), before);
    const std::string fn = "[tarvik provider] [tarvik_csv_to_event] ";
    EXPECT_TRUE(log.contains(
        4, fn + "Number of fields in csv line (4) does not match number of tarvik fields (3)"));
    EXPECT_TRUE(log.contains(7, fn + "csv line: 1,2,x,extra"));
    fields[1].type = 7;
    EXPECT_FALSE(tarvik_csv_to_event(p, &dev, "9,2,x"));
    EXPECT_EQ(at(136), 9u);  // written before the bad field
    EXPECT_TRUE(log.contains(3, fn + "Unknown tarvik field type 7"));
}

// Numbers are read in place, across what follows them in the line; every
// slot must still equal the conversion of its own token.
TEST_F(CsvToEvent, LineReadsEachNumberInPlace) {
    unsigned seed = 777;
    for (int n = 0; n < 3000; ++n) {
        fields.clear();
        std::vector<std::string> tokens;
        std::string line;
        for (size_t i = 0, count = 1 + rand_r(&seed) % 12; i < count; ++i) {
            tokens.push_back(random_token(seed));
            fields.push_back({"f", "f", (tarvik_field_type_t)(rand_r(&seed) % 2), true});
            line += (i ? "," : "") + tokens[i];
        }
        if (tokens.back().empty()) line += tokens.back() = "1";  // no empty last token
        ASSERT_TRUE(tarvik_csv_to_event(p, &dev, line)) << line;
        for (size_t i = 0; i < tokens.size(); ++i) {
            uint64_t want = reference_u64(tokens[i]);
            double d = reference_double(tokens[i]);
            if (fields[i].type == TARVIK_FIELD_DOUBLE) memcpy(&want, &d, 8);
            ASSERT_EQ(at(136 + 8 * i), want) << "token '" << tokens[i] << "' in " << line;
        }
    }
}

}  // namespace
