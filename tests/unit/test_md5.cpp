// MD5 helpers: digests, their text form and file digests.
#include <gtest/gtest.h>

#include <cstring>

#include "unit_helpers.h"
#include "vyr_md5.h"

namespace {

using vyrtest::unit::TempFile;

TEST(Md5, DigestsOfBytesAndFiles) {
    const struct {
        std::string data;
        const char *hex;
    } cases[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        // The length counts, not a terminating zero.
        {std::string("a\0b", 3), "70350f6027bce3713f6b76473084309b"},
    };
    for (const auto &c : cases) {
        char text[VYR_MD5_STRING_LENGTH + 1];
        memset(text, '#', sizeof text);
        EXPECT_EQ(vyr_HexMD5(c.data.data(), c.data.size(), text), text);
        EXPECT_STREQ(text, c.hex);
        EXPECT_EQ(text[VYR_MD5_STRING_LENGTH], '#') << "wrote past 33 bytes";
        if (c.data.empty()) continue;
        TempFile file(c.data);
        EXPECT_EQ(vyr_compute_file_md5(file.path.c_str(), text), 1);
        EXPECT_STREQ(text, c.hex);
    }

    const unsigned char abc[VYR_MD5_DIGEST_LENGTH] = {0x90, 0x01, 0x50, 0x98, 0x3c, 0xd2,
                                                      0x4f, 0xb0, 0xd6, 0x96, 0x3f, 0x7d,
                                                      0x28, 0xe1, 0x7f, 0x72};
    unsigned char digest[VYR_MD5_DIGEST_LENGTH + 1];
    memset(digest, 0xA5, sizeof digest);
    EXPECT_EQ(vyr_MD5("abc", 3, digest), digest);
    EXPECT_EQ(memcmp(digest, abc, sizeof abc), 0);
    EXPECT_EQ(digest[VYR_MD5_DIGEST_LENGTH], 0xA5);
}

TEST(Md5, FileDigestReadsWholeFilesAndFailsToEmptyText) {
    // Far larger than any stack buffer, and not text.
    std::string big;
    for (int i = 0; i < 300000; ++i) big.push_back(static_cast<char>(i * 7 + (i >> 8)));
    TempFile file(big);
    char want[VYR_MD5_STRING_LENGTH], text[VYR_MD5_STRING_LENGTH];
    vyr_HexMD5(big.data(), big.size(), want);
    EXPECT_EQ(vyr_compute_file_md5(file.path.c_str(), text), 1);
    EXPECT_STREQ(text, want);

    TempFile empty;
    for (const char *path : {empty.path.c_str(), "/nonexistent_vyr_dir/missing.json"}) {
        memset(text, 'x', sizeof text);
        EXPECT_EQ(vyr_compute_file_md5(path, text), 0) << path;
        EXPECT_STREQ(text, "") << path;
    }
}

}  // namespace
