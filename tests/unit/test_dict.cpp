// The string dictionary: table geometry, probing, rehashing and the
// operations around them. Single-letter keys hash to their own byte value.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "unit_helpers.h"
#include "vyr_dict.h"

namespace {

using Buckets = std::map<std::string, uint32_t>;

struct Dict {
    vyr_dict_t *d = vyr_dict_create();
    ~Dict() { vyr_dict_delete(d); }
    vyr_dict_table_t *t() const { return d->table; }
    unsigned flags(uint32_t i) const { return (t()->flags[i >> 4] >> ((i & 15) * 2)) & 3; }
    void add(std::initializer_list<const char *> keys) {
        for (const char *k : keys) ASSERT_TRUE(vyr_dict_add(d, k, k));
    }
    Buckets buckets() const {  // of every live key
        Buckets out;
        for (uint32_t i = 0; i < t()->n_buckets; ++i)
            if (flags(i) == 0) out[t()->keys[i]] = i;
        return out;
    }
};

TEST(Dict, GeometryProbingAndInPlaceRehash) {
    EXPECT_TRUE(!vyr_dict_add(nullptr, "k", "v") && !vyr_dict_get(nullptr, "k") &&
                !vyr_dict_dup(nullptr));
    Dict d;
    EXPECT_EQ(vyr_dict_get(d.d, "k"), nullptr);
    // 'a' 97, 'e' 101, 'i' 105 have home bucket 1 of 4: 1, then 1+1, then 2+2 = 0.
    d.add({"a", "e", "i"});
    EXPECT_EQ(d.t()->upper_bound, 3u);
    EXPECT_EQ(d.t()->flags[0], 0xAAAAAAAAu & ~0x3Fu);  // buckets 0 to 2 live, the rest empty
    EXPECT_EQ(d.buckets(), (Buckets{{"a", 1}, {"e", 2}, {"i", 0}}));
    // Growing to 8 walks the old buckets in order: "i" (home 1) kicks out "a",
    // "a" moves on to 2 and kicks out "e", which lands at its home 5; "m" (109,
    // home 5) probes on to 6.
    d.add({"m"});
    EXPECT_EQ(d.t()->n_buckets, 8u);
    EXPECT_EQ(d.t()->upper_bound, 6u);
    EXPECT_EQ(d.buckets(), (Buckets{{"a", 2}, {"e", 5}, {"i", 1}, {"m", 6}}));
    EXPECT_EQ(vyr_dict_get(d.d, "q"), nullptr);  // 113, home 1: probes 1, 2, 4 (empty)
}

// Long keys with bytes above 127: each lies on the probe path that the
// byte-at-a-time X31 hash gives it, before any empty bucket.
TEST(Dict, EveryKeyLiesOnItsX31ProbePath) {
    std::mt19937 rng(7);
    std::uniform_int_distribution<int> byte(1, 255), len(1, 40);
    Dict d;
    for (int n = 0; n < 3000; ++n) {
        std::string key(static_cast<size_t>(len(rng)), ' ');
        for (char &c : key) c = static_cast<char>(byte(rng));
        ASSERT_TRUE(vyr_dict_add(d.d, key.c_str(), key.c_str()));
    }
    const uint32_t mask = d.t()->n_buckets - 1;
    for (const auto &[key, bucket] : d.buckets()) {
        uint32_t h = 0, step = 0;
        for (unsigned char c : key) h = h * 31 + c;
        uint32_t i = h & mask;
        while (i != bucket && !(d.flags(i) & 2)) i = (i + ++step) & mask;
        ASSERT_EQ(i, bucket) << "key of length " << key.size();
        EXPECT_STREQ(vyr_dict_get(d.d, key.c_str()), key.c_str());
    }
}

}  // namespace
