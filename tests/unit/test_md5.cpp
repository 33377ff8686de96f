// MD5 helpers: digests, their text form and file digests.
#include <gtest/gtest.h>

#include "unit_helpers.h"
#include "vyr_md5.h"

namespace {

// The length counts, not a zero byte; an empty or missing file has no digest
// and empties the text.
TEST(Md5, DigestsOfBytesAndFiles) {
    std::string text(VYR_MD5_STRING_LENGTH + 1, '#');  // one byte more than the text's room
    const std::string data("a\0b", 3);
    EXPECT_EQ(std::string(vyr_HexMD5(data.data(), 3, &text[0]), text.size()),
              std::string("70350f6027bce3713f6b76473084309b\0#", 34));
    vyrtest::unit::TempFile file("abc"), empty;
    EXPECT_EQ(vyr_compute_file_md5(file.path.c_str(), &text[0]), 1);
    EXPECT_STREQ(text.c_str(), "900150983cd24fb0d6963f7d28e17f72");
    for (const std::string &path : {empty.path, std::string("/nonexistent_vyr_dir/missing.json")}) {
        text[0] = 'x';
        EXPECT_EQ(vyr_compute_file_md5(path.c_str(), &text[0]), 0);
        EXPECT_STREQ(text.c_str(), "");
    }
}

}  // namespace
