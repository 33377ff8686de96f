// MD5 helpers: digests, their text form and file digests.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "test_paths.h"
#include "vyr_md5.h"

namespace {

struct TempFile {
    std::string path;
    explicit TempFile(const std::string &content) {
        char buf[] = "/tmp/vyr_md5_test_XXXXXX";
        int fd = mkstemp(buf);
        if (fd >= 0) close(fd);
        path = buf;
        vyrtest::write_file(path, content);
    }
    ~TempFile() { unlink(path.c_str()); }
};

std::string bytes(const char *s, size_t n) {
    return std::string(s, n);
}

const struct {
    std::string data;
    const char *hex;
} kVectors[] = {
    {"", "d41d8cd98f00b204e9800998ecf8427e"},
    {"a", "0cc175b9c0f1b6a831c399e269772661"},
    {"abc", "900150983cd24fb0d6963f7d28e17f72"},
    {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
    {"1234567890123456789012345678901234567890123456789012345678901234567890123456789"
     "0",
     "57edf4a22be3c955ac49da2e2107b67a"},
    // The length counts, not a terminating zero.
    {bytes("a\0b", 3), "70350f6027bce3713f6b76473084309b"},
    {bytes("\0\0\0", 3), "693e9af84d3dfcc71e640e005bdc5e2e"},
};

TEST(Md5, HexDigestOfKnownVectors) {
    for (const auto &v : kVectors) {
        char text[VYR_MD5_STRING_LENGTH + 1];
        memset(text, '#', sizeof text);
        EXPECT_EQ(vyr_HexMD5(v.data.data(), v.data.size(), text), text);
        EXPECT_STREQ(text, v.hex);
        EXPECT_EQ(text[VYR_MD5_STRING_LENGTH], '#') << "wrote past 33 bytes";
    }
}

TEST(Md5, RawDigest) {
    const unsigned char want[VYR_MD5_DIGEST_LENGTH] = {0x90, 0x01, 0x50, 0x98, 0x3c, 0xd2,
                                                       0x4f, 0xb0, 0xd6, 0x96, 0x3f, 0x7d,
                                                       0x28, 0xe1, 0x7f, 0x72};
    unsigned char digest[VYR_MD5_DIGEST_LENGTH + 1];
    memset(digest, 0xA5, sizeof digest);
    EXPECT_EQ(vyr_MD5("abc", 3, digest), digest);
    EXPECT_EQ(memcmp(digest, want, sizeof want), 0);
    EXPECT_EQ(digest[VYR_MD5_DIGEST_LENGTH], 0xA5);
}

TEST(Md5, FileDigest) {
    for (const auto &v : kVectors) {
        if (v.data.empty()) continue;
        TempFile file(v.data);
        char text[VYR_MD5_STRING_LENGTH];
        EXPECT_EQ(vyr_compute_file_md5(file.path.c_str(), text), 1);
        EXPECT_STREQ(text, v.hex);
    }

    // A file far larger than any stack buffer, read whole.
    std::string big;
    for (int i = 0; i < 300000; ++i) big.push_back(static_cast<char>(i * 7 + (i >> 8)));
    TempFile file(big);
    char want[VYR_MD5_STRING_LENGTH];
    vyr_HexMD5(big.data(), big.size(), want);
    char text[VYR_MD5_STRING_LENGTH];
    EXPECT_EQ(vyr_compute_file_md5(file.path.c_str(), text), 1);
    EXPECT_STREQ(text, want);
}

TEST(Md5, FileDigestFailuresLeaveEmptyText) {
    TempFile empty("");
    char text[VYR_MD5_STRING_LENGTH];
    memset(text, 'x', sizeof text);
    EXPECT_EQ(vyr_compute_file_md5(empty.path.c_str(), text), 0);
    EXPECT_STREQ(text, "");

    memset(text, 'x', sizeof text);
    EXPECT_EQ(vyr_compute_file_md5("/nonexistent_vyr_dir/missing.json", text), 0);
    EXPECT_STREQ(text, "");
}

}  // namespace
