// MD5 helpers: digests, their text form and file digests.
#include <gtest/gtest.h>

#include <cstring>

#include "unit_helpers.h"
#include "vyr_md5.h"

namespace {

TEST(Md5, DigestsOfBytesAndFiles) {
    const struct {
        std::string data;
        const char *hex;  // "": the file digest fails
    } cases[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {std::string("a\0b", 3), "70350f6027bce3713f6b76473084309b"},  // the length counts
    };
    for (const auto &c : cases) {
        char text[VYR_MD5_STRING_LENGTH + 1];
        memset(text, '#', sizeof text);
        EXPECT_EQ(vyr_HexMD5(c.data.data(), c.data.size(), text), text);
        EXPECT_STREQ(text, c.hex);
        EXPECT_EQ(text[VYR_MD5_STRING_LENGTH], '#') << "wrote past 33 bytes";
        // An empty file has no digest: the text is emptied.
        vyrtest::unit::TempFile file(c.data);
        EXPECT_EQ(vyr_compute_file_md5(file.path.c_str(), text), c.data.empty() ? 0 : 1);
        EXPECT_STREQ(text, c.data.empty() ? "" : c.hex);
    }
    char text[VYR_MD5_STRING_LENGTH] = "x";
    EXPECT_EQ(vyr_compute_file_md5("/nonexistent_vyr_dir/missing.json", text), 0);
    EXPECT_STREQ(text, "");
    unsigned char digest[VYR_MD5_DIGEST_LENGTH];
    EXPECT_EQ(vyr_MD5("abc", 3, digest), digest);
    EXPECT_EQ(digest[15], 0x72);
}

}  // namespace
