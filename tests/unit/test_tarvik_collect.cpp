// The value line at its offset in the collection file and its conversion
// into the device's event.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "log_capture.h"
#include "tarvik_collect.h"
#include "sim.h"
#include "test_paths.h"
#include "unit_helpers.h"

namespace {

class CsvToEvent : public ::testing::Test {
  protected:
    void SetUp() override {
        p = tarvik_provider_instance();
        tarvik_schema_type_info_t info;
        info.event_size = 216;
        info.fields = &fields;
        p->type_infos["hdr"] = info;
        dev.header_id = strdup("hdr");
        dev.event_cache = static_cast<uint8_t *>(calloc(1, info.event_size));
    }
    void TearDown() override {
        p->type_infos.clear();
        free(dev.header_id);
        free(dev.event_cache);
    }
    template <typename T>
    T at(size_t off) {
        T v;
        memcpy(&v, dev.event_cache + off, 8);
        return v;
    }
    tarvik_provider_t *p = nullptr;
    std::vector<vyr_event_tarvik_type_t> fields = {{"u", "u", TARVIK_FIELD_UINT64, true},
                                                   {"d", "d", TARVIK_FIELD_DOUBLE, true},
                                                   {"s", "s", TARVIK_FIELD_STRING, true}};
    tarvik_provider_dev_info_t dev;
};

TEST_F(CsvToEvent, ConvertsEachFieldByItsType) {
    const struct {
        std::string line;
        uint64_t u;
        double d;
        std::string s;
    } cases[] = {
        {"1,2,x", 1, 2.0, "x"},
        {"abc,abc,abc", 0, 0.0, "abc"},  // no number: 0
        {"1,2," + std::string(100, 'q'), 1, 2.0, std::string(63, 'q')},
    };
    for (const auto &c : cases) {
        memset(dev.event_cache, 0xFF, 216);
        ASSERT_TRUE(tarvik_csv_to_event(p, &dev, c.line));
        EXPECT_GT(at<uint64_t>(0), 1600000000ull * 1000000ull);  // now
        EXPECT_EQ(at<uint64_t>(136), c.u);
        EXPECT_EQ(at<double>(144), c.d);
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
    EXPECT_EQ(at<uint64_t>(136), 9u);  // written before the bad field
    EXPECT_TRUE(log.contains(3, fn + "Unknown tarvik field type 7"));
}

// Lines longer than one read grow the buffer; a short line after a huge one
// still reads exactly.
TEST(LineByOffset, ReadsOneLineFromTheOffset) {
    vyrtest::unit::TempDir dir;
    std::string huge(3 * 1024 * 1024 + 17, 'h');
    const struct {
        std::string content;
        uint64_t offset;
        std::string line;
    } cases[] = {
        {"a,b\r\n1,2\r\nignored\n", 5, "1,2\r"},
        {"a,b\n", 100, ""},
        {"h\nno newline at end", 2, "no newline at end"},
        {"hdr\n" + huge + "\nnext\n", 4, huge},
        {"hdr\n1,2\n", 4, "1,2"},
        {"hdr\n" + std::string(65536, 'x'), 4, std::string(65536, 'x')},
    };
    const std::string path = dir.path + "/f.csv";
    for (const auto &c : cases) {
        vyrtest::write_file(path, c.content);
        std::string line = "old";
        ASSERT_TRUE(get_csv_line_by_offset(path.c_str(), c.offset, line));
        EXPECT_TRUE(line == c.line) << c.content.substr(0, 20);
    }
}

// Only a regular file is read, and not through a link: anything else counts
// as a file that cannot be opened, and nothing blocks.
TEST(LineByOffset, WhatIsNotARegularFileIsNotOpened) {
    vyrtest::unit::TempDir dir;
    const std::string target = dir.path + "/target.csv", link = dir.path + "/link";
    vyrtest::write_file(target, "h\n1\n");
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
    for (const char *kind : {"fifo", "socket"})
        ASSERT_TRUE(vyrtest::sim::make_special(kind, dir.path + "/" + kind));
    for (const std::string &path :
         {dir.path + "/missing.csv", dir.path, dir.path + "/fifo", dir.path + "/socket", link}) {
        vyrtest::LogCapture log;
        std::string line = "kept";
        EXPECT_FALSE(get_csv_line_by_offset(path.c_str(), 2, line)) << path;
        EXPECT_EQ(line, "kept");
        EXPECT_TRUE(log.contains(4,
                                 "[tarvik provider] [get_csv_line_by_offset] Could not open "
                                 "file " +
                                     path + ".  Will retry later"));
    }
}

}  // namespace
