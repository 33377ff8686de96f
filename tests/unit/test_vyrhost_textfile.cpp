// vyrhost --textfile: the path check and the atomic replacement.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "test_paths.h"
#include "vyrhost_textfile.h"

namespace {

using namespace vyrhost;

TEST(VyrhostTextfile, PathMustEndInProm) {
    for (const char *good : {"a.prom", "dir.prom/x.prom"})
        EXPECT_EQ("", check_textfile_path(good)) << good;
    for (const char *bad : {"/d/.prom", "a.prom/", "a.prom.tmp"})
        EXPECT_EQ(std::string("--textfile '") + bad +
                      "': the file name must end in .prom (the only files node_exporter's textfile "
                      "collector reads)",
                  check_textfile_path(bad));
}

// The file is replaced whole and readable by all whatever the umask; when
// the directory is missing or the rename fails, no temporary stays behind.
TEST(VyrhostTextfile, ReplacesTheFileWholeReadableByAllAndLeavesNoTemporary) {
    char tmpl[] = "/tmp/vyrhost_textfile_XXXXXX";
    const std::string dir = mkdtemp(tmpl), path = dir + "/t.prom";
    mode_t old_mask = umask(077);
    ASSERT_EQ("", write_file_atomically(path, "first 1\n"));
    ASSERT_EQ("", write_file_atomically(path, "second 2\n"));
    umask(old_mask);
    EXPECT_EQ("second 2\n", vyrtest::read_file(path));
    EXPECT_EQ(std::filesystem::perms(0644), std::filesystem::status(path).permissions());
    EXPECT_EQ(
        "cannot create a temporary file beside " + dir + "/no/t.prom: No such file or directory",
        write_file_atomically(dir + "/no/t.prom", "x"));
    std::filesystem::create_directories(dir + "/d.prom/x");
    const std::string error = write_file_atomically(dir + "/d.prom", "x");
    EXPECT_EQ(0u, error.find("cannot rename " + dir + "/.d.prom.")) << error;
    EXPECT_EQ(2, std::distance(std::filesystem::directory_iterator(dir), {}));
    std::filesystem::remove_all(dir);
}

}  // namespace
