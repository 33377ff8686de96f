// The value line at its offset in the collection file.
#include <gtest/gtest.h>
#include <unistd.h>

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

}  // namespace
