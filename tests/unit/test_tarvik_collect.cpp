// The collector's reading: the value line at its offset in the collection
// file, and that line into the device's event, its numbers read in place
// exactly as strtoull/strtod give them (0 for no number and for out-of-range
// results).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cfenv>
#include <cstring>

#include "sim.h"
#include "tarvik_collect.h"
#include "unit_helpers.h"

namespace {

// Lines longer than one read grow the buffer; a short line after a huge one
// still reads exactly. Only a regular file is read, and not through a link:
// anything else counts as a file that cannot be opened, and nothing blocks.
TEST(LineByOffset, ReadsOneLineFromTheOffsetOfARegularFile) {
    vyrtest::unit::TempDir dir;
    const std::string huge(3 * 1024 * 1024 + 17, 'h');
    const struct {
        std::string content;
        uint64_t offset;
        std::string line;
    } cases[] = {
        {"a,b\r\n1,2\r\nignored\n", 5, "1,2\r"},
        {"a,b\n", 100, ""},
        {"hdr\n" + huge + "\nnext\n", 4, huge},
        {"h\nno newline at end", 2, "no newline at end"},
        {"hdr\n" + std::string(65536, 'x'), 4, std::string(65536, 'x')},  // one whole read
    };
    for (const auto &c : cases) {
        std::string line = "old";
        ASSERT_TRUE(get_csv_line_by_offset(dir.file("f.csv", c.content).c_str(), c.offset, line));
        EXPECT_TRUE(line == c.line) << c.content.substr(0, 20);
    }
    const std::string link = dir.path + "/link";
    ASSERT_EQ(symlink((dir.path + "/f.csv").c_str(), link.c_str()), 0);
    for (const char *kind : {"fifo", "socket"})
        ASSERT_TRUE(vyrtest::sim::make_special(kind, dir.path + "/" + kind));
    for (const std::string &path : {dir.path, dir.path + "/fifo", dir.path + "/socket", link}) {
        std::string line = "kept";
        EXPECT_TRUE(!get_csv_line_by_offset(path.c_str(), 2, line) && line == "kept") << path;
    }
}

// The bits of the reference conversion of `s`, as an integer or a double.
uint64_t reference(const std::string &s, bool as_double) {
    char *end = nullptr;
    errno = 0;
    uint64_t u = strtoull(s.c_str(), &end, 10);
    if (as_double) {
        errno = 0;
        double d = strtod(s.c_str(), &end);
        memcpy(&u, &d, 8);
    }
    return end == s.c_str() || errno == ERANGE ? 0 : u;
}

// One token per place a fast path could part ways with the standard
// conversions: blanks, signs, a minus that wraps, UINT64_MAX and one more,
// 40 and 41 mantissa digits, exponents 260 and 261 and of five digits, under-
// and overflow, hex, inf, nan, a CR, a halfway case, and tokens of 63 and 64
// bytes around the stack copy; the last is not empty.
// clang-format off
const std::vector<std::string> kEdgeTokens = {
    "", " 42", "+5", "-1", "x42", "18446744073709551615", "18446744073709551616",
    "-18446744073709551616", ".5", "5e", "5e+3", "1e260", "1e261", "1e00005", "1e-400", "1e400",
    "0x10", "inf", "nan", "2.5\r", "1234567890123456789012345678901234567890",
    "12345678901234567890123456789012345678901",
    "1.00000000000000011102230246251565404236316680908203125",
    " " + std::string(60, '0') + "42", " " + std::string(61, '0') + "4.5", "7"};
// clang-format on

// The edge tokens as one value line, read as integers, as doubles and
// alternately; then a text field zero-filled and one cut to 63 bytes, and the
// failures, which leave the event as it was.
TEST(TarvikConversion, ValueLineIntoTheEvent) {
    tarvik_provider_t *p = tarvik_provider_instance();
    std::vector<vyr_event_tarvik_type_t> fields;
    p->type_infos["hdr"].fields = &fields;
    tarvik_provider_dev_info_t dev;
    dev.header_id = strdup("hdr");
    dev.event_cache = static_cast<uint8_t *>(calloc(1, 136 + 8 * kEdgeTokens.size() + 64));
    const uint64_t *slot = reinterpret_cast<const uint64_t *>(dev.event_cache + 136);
    std::string line;
    for (const auto &t : kEdgeTokens) line += t + ",";
    line.pop_back();
    for (int pattern : {0, 1, 2}) {
        fields.clear();
        for (size_t i = 0; i < kEdgeTokens.size(); ++i)
            fields.push_back(
                {"f", "f", (tarvik_field_type_t)(pattern > 1 ? i % 2 : pattern), true});
        ASSERT_TRUE(tarvik_csv_to_event(p, &dev, line));
        EXPECT_GT(*(uint64_t *)dev.event_cache, 1600000000ull * 1000000ull);  // now
        for (size_t i = 0; i < kEdgeTokens.size(); ++i)
            EXPECT_EQ(slot[i], reference(kEdgeTokens[i], pattern == 1 || (pattern > 1 && i % 2)))
                << pattern << " '" << kEdgeTokens[i] << "'";
    }
    // strtod rounds in the current rounding mode; the fast path must not keep
    // rounding to nearest when the host changes it.
    fields = {{"a", "a", TARVIK_FIELD_DOUBLE, true}, {"b", "b", TARVIK_FIELD_DOUBLE, true}};
    ASSERT_EQ(fesetround(FE_UPWARD), 0);
    ASSERT_TRUE(tarvik_csv_to_event(p, &dev, "0.1,-2.7"));
    EXPECT_TRUE(slot[0] == reference("0.1", true) && slot[1] == reference("-2.7", true));
    fesetround(FE_TONEAREST);
    fields = {{"s", "s", TARVIK_FIELD_STRING, true}, {"t", "t", TARVIK_FIELD_STRING, true}};
    memset(dev.event_cache, 0xFF, 264);
    ASSERT_TRUE(tarvik_csv_to_event(p, &dev, "abc," + std::string(100, 'q')));
    EXPECT_EQ(std::string((char *)dev.event_cache + 136, 128),
              "abc" + std::string(61, '\0') + std::string(63, 'q') + '\0');

    std::vector<uint8_t> before(dev.event_cache, dev.event_cache + 264);
    vyrtest::LogCapture log;
    EXPECT_FALSE(tarvik_csv_to_event(p, &dev, "1,2,x"));
    EXPECT_FALSE(tarvik_csv_to_event(p, &dev, "1"));
    EXPECT_EQ(std::vector<uint8_t>(dev.event_cache, dev.event_cache + 264), before);
    const std::string fn = "[tarvik provider] [tarvik_csv_to_event] ";
    EXPECT_TRUE(log.contains(
        4, fn + "Number of fields in csv line (3) does not match number of tarvik fields (2)"));
    EXPECT_TRUE(log.contains(7, fn + "csv line: 1,2,x"));
    fields = {{"u", "u", TARVIK_FIELD_UINT64, true}, {"d", "d", (tarvik_field_type_t)7, true}};
    EXPECT_FALSE(tarvik_csv_to_event(p, &dev, "9,2"));
    EXPECT_EQ(slot[0], 9u);  // written before the bad field
    EXPECT_TRUE(log.contains(3, fn + "Unknown tarvik field type 7"));
    p->type_infos.clear();
    free(dev.header_id);
    free(dev.event_cache);
}

}  // namespace
