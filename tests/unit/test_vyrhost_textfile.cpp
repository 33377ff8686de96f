// vyrhost --textfile: the path check and the atomic replacement.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>

#include "test_paths.h"
#include "vyrhost_textfile.h"

namespace {

using namespace vyrhost;

// The names in a directory, sorted, each followed by a blank.
std::string entries(const std::string &dir) {
    std::set<std::string> names;
    for (const auto &e : std::filesystem::directory_iterator(dir))
        names.insert(e.path().filename());
    std::string out;
    for (const std::string &n : names) out += n + " ";
    return out;
}

TEST(VyrhostTextfile, PathMustEndInProm) {
    const std::string message =
        "': the file name must end in .prom (the only files node_exporter's textfile collector "
        "reads)";
    for (const char *good : {"a.prom", "/var/lib/x/tarvik.prom", "dir.prom/x.prom"})
        EXPECT_EQ("", check_textfile_path(good)) << good;
    for (const char *bad : {".prom", "/d/.prom", "a.txt", "a.prom/", "a.prom.tmp", ""})
        EXPECT_EQ(std::string("--textfile '") + bad + message, check_textfile_path(bad)) << bad;
}

TEST(VyrhostTextfile, ReplacesTheFileWholeReadableByAllAndLeavesNoTemporary) {
    char tmpl[] = "/tmp/vyrhost_textfile_XXXXXX";
    std::string dir = mkdtemp(tmpl);
    std::string path = dir + "/t.prom";
    mode_t old_mask = umask(077);
    ASSERT_EQ("", write_file_atomically(path, "first 1\n"));
    ASSERT_EQ("", write_file_atomically(path, "second 2\n"));
    umask(old_mask);
    EXPECT_EQ("second 2\n", vyrtest::read_file(path));
    struct stat st;
    ASSERT_EQ(0, stat(path.c_str(), &st));
    EXPECT_EQ(0644u, st.st_mode & 0777);
    EXPECT_EQ("t.prom ", entries(dir));

    // A directory that does not exist: the reason, and nothing written.
    EXPECT_EQ(
        "cannot create a temporary file beside " + dir + "/no/t.prom: No such file or directory",
        write_file_atomically(dir + "/no/t.prom", "x"));
    // A directory where the file name is: the rename fails and the temporary goes.
    ASSERT_EQ(0, mkdir((dir + "/d.prom").c_str(), 0755));
    ASSERT_EQ(0, mkdir((dir + "/d.prom/x").c_str(), 0755));
    std::string error = write_file_atomically(dir + "/d.prom", "x");
    EXPECT_EQ(0u, error.find("cannot rename " + dir + "/.d.prom.")) << error;
    EXPECT_EQ("d.prom t.prom ", entries(dir));
    std::filesystem::remove_all(dir);
}

}  // namespace
