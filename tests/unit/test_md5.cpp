// MD5 helpers: digests, their text form and file digests.
#include <gtest/gtest.h>

#include "unit_helpers.h"
#include "vyr_md5.h"

namespace {

TEST(Md5, DigestsOfBytesAndFiles) {
    const std::pair<std::string, std::string> cases[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {std::string("a\0b", 3), "70350f6027bce3713f6b76473084309b"},  // the length counts
    };
    for (const auto &c : cases) {
        std::string text(VYR_MD5_STRING_LENGTH + 1, '#');  // one byte more than the text's room
        const char *got = vyr_HexMD5(c.first.data(), c.first.size(), &text[0]);
        EXPECT_EQ(std::string(got, text.size()), c.second + std::string("\0#", 2));
        // An empty file has no digest: the text is emptied.
        vyrtest::unit::TempFile file(c.first);
        EXPECT_EQ(vyr_compute_file_md5(file.path.c_str(), &text[0]), c.first.empty() ? 0 : 1);
        EXPECT_STREQ(text.c_str(), c.first.empty() ? "" : c.second.c_str());
    }
    char text[VYR_MD5_STRING_LENGTH] = "x";
    EXPECT_EQ(vyr_compute_file_md5("/nonexistent_vyr_dir/missing.json", text), 0);
    EXPECT_STREQ(text, "");
}

}  // namespace
