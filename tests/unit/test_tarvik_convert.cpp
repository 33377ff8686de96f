// The value line's number conversions, exactly what strtoull/strtod give,
// token by token, and the whole line into the device's event.
#include <gtest/gtest.h>

#include <algorithm>
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

// Where a fast path could part ways with strtoull/strtod: blanks, signs,
// a minus that wraps, 20 digits and UINT64_MAX+1, long mantissas and
// exponents at the edges of the fast range, underflow, hex, trailing text.
// clang-format off
const char *kEdgeTokens[] = {
    "", "0", "7", "42", "007", " 42", "\t42", "\n\v\f\r 42", "+5", "-1", "-0", "42x", "x42", "abc",
    "18446744073709551615", "18446744073709551616", "99999999999999999999", "1234567890123456789",
    "12345678901234567890", "-18446744073709551615", "-18446744073709551616",
    "+18446744073709551615", "00000000000000000000000000018", "1.5", "1.", ".5", ".", "-.5", "+.5",
    "-.", "5e", "5e+", "5e-", "5E3", "5e3", "5e+3", "5e-3", "5e3x", "1.5e", "1e-9", "1e-400",
    "1e400", "4.9e-324", "2.4e-320", "2.2250738585072014e-308", "2.2250738585072011e-308",
    "1e-310", "1e308", "1.7976931348623157e308", "1.7976931348623159e308", "1e260", "1e261",
    "1e-260", "1e-261", "1e0260", "1e00260", "1e0005", "1e00005", "0e999", "0e99999", "0.0e-999",
    "-0", "-0.0", "+0", "inf", "-inf", "+inf", "INF", "infinity", "infx", "nan", "-nan", "NaN",
    "nan(123)", "nanx", "0x1p3", "0X1P3", "-0x10", "0x10", "0x", "0xg", "00x5", "0.x", "1x5",
    "1,5", "3.14159265358979323846", "0.1", "10.0", "1.50", "1.05", "2\r", "2.5\r", "2e3\r", " ",
    "-", "+", "+-1", "-+1", "--1", "000000000000000000001", "0.000000000000000000000001",
    "123456789012345678901234.5", "1234567890123456789012345678901234567890",
    "12345678901234567890123456789012345678901", "1234567890123456789012345678901234567.891",
    "0.1234567890123456789012345678901234567891e-259", "9007199254740993", "9007199254740993.0",
    "1.00000000000000011102230246251565404236316680908203125",
    "1.00000000000000011102230246251565404236316680908203124"
};
// clang-format on

bool same_bits(double a, double b) {
    return memcmp(&a, &b, sizeof a) == 0;
}

TEST(TarvikConversion, MatchesStandardConversionsOnEdgeTokens) {
    for (const char *t : kEdgeTokens) {
        EXPECT_EQ(tarvik_token_to_u64(t), reference_u64(t)) << "token: '" << t << "'";
        double got = tarvik_token_to_double(t), want = reference_double(t);
        EXPECT_TRUE(same_bits(got, want)) << "token: '" << t << "' " << got << " vs " << want;
    }
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
    if (pick(40) == 0) {
        static const char *kOdd[] = {"inf", "nan", "0x1p-3", "0x", "infinity", "1e", "-", "."};
        s = kOdd[pick(8)] + s;
    }
    return s;
}

TEST(TarvikConversion, MatchesStandardConversionsOnRandomTokens) {
    unsigned seed = 12345;
    for (int i = 0; i < 200000; ++i) {
        std::string s = random_token(seed);
        ASSERT_EQ(tarvik_token_to_u64(s), reference_u64(s)) << "token: '" << s << "'";
        double got = tarvik_token_to_double(s), want = reference_double(s);
        ASSERT_TRUE(same_bits(got, want)) << "token: '" << s << "' " << got << " vs " << want;
    }
}

// strtod rounds in the current rounding mode; the fast path must not keep
// rounding to nearest when the host changes it.
TEST(TarvikConversion, FollowsTheRoundingModeLikeStrtod) {
    const int modes[] = {FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO};
    const char *tokens[] = {"0.1", "1.3", "-2.7", "5.3E-12", "123456.789"};
    for (int mode : modes) {
        ASSERT_EQ(fesetround(mode), 0);
        for (const char *t : tokens) {
            double got = tarvik_token_to_double(t), want = reference_double(t);
            EXPECT_TRUE(same_bits(got, want)) << "mode " << mode << " token " << t;
        }
    }
    fesetround(FE_TONEAREST);
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

// Texts are cut to 63 bytes and zero-filled; no number gives 0.
TEST_F(CsvToEvent, ConvertsEachFieldByItsType) {
    const struct {
        std::string line;
        uint64_t u;
        double d;
        std::string s;
    } cases[] = {
        {"1,2,x", 1, 2.0, "x"},
        {"abc,abc,abc", 0, 0.0, "abc"},
        {"1,2," + std::string(100, 'q'), 1, 2.0, std::string(63, 'q')},
    };
    for (const auto &c : cases) {
        memset(dev.event_cache, 0xFF, 216);
        ASSERT_TRUE(tarvik_csv_to_event(p, &dev, c.line));
        EXPECT_GT(at(0), 1600000000ull * 1000000ull);  // now
        EXPECT_EQ(at(136), c.u);
        EXPECT_TRUE(same_bits(c.d, [&] {
            double d;
            memcpy(&d, dev.event_cache + 144, 8);
            return d;
        }()));
        char want[64] = {0};
        memcpy(want, c.s.data(), c.s.size());
        EXPECT_EQ(memcmp(dev.event_cache + 152, want, 64), 0) << c.line;
    }
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
