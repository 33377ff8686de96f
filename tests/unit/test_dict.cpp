// The string dictionary: table geometry, probing, rebuild rules and the
// operations around them. Single-letter keys hash to their own byte value.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "unit_helpers.h"
#include "vyr_dict.h"

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;
using Buckets = std::map<std::string, uint32_t>;
using Model = std::map<std::string, std::string>;

bool live(const vyr_dict_table_t *t, uint32_t i) {
    return ((t->flags[i >> 4] >> ((i & 15) * 2)) & 3) == 0;
}

struct Dict {
    vyr_dict_t *d = vyr_dict_create();
    ~Dict() { vyr_dict_delete(d); }
    vyr_dict_table_t *t() const { return d->table; }
    void add(std::initializer_list<const char *> keys) {
        for (const char *k : keys) ASSERT_TRUE(vyr_dict_add(d, k, k));
    }
    // Bucket index of every live key.
    Buckets buckets() const {
        Buckets out;
        for (uint32_t i = 0; i < t()->n_buckets; ++i)
            if (live(t(), i)) out[t()->keys[i]] = i;
        return out;
    }
    // A removal as the table records one: the bucket turns deleted.
    void mark_deleted(const std::string &key) {
        uint32_t i = buckets().at(key);
        free(t()->keys[i]);
        free(t()->vals[i]);
        t()->keys[i] = t()->vals[i] = nullptr;
        t()->flags[i >> 4] |= 1u << ((i & 15) * 2);
        --t()->size;
    }
};

// Bucket-order listing through the public enumeration; null values as "<null>".
Entries enumerate(const vyr_dict_t *d) {
    Entries out;
    vyr_dict_enum(
        d,
        [](const char *k, const char *v, void *u) {
            static_cast<Entries *>(u)->emplace_back(k, v ? v : "<null>");
            return true;
        },
        &out);
    return out;
}

TEST(Dict, NullHandleAndFreshTable) {
    EXPECT_FALSE(vyr_dict_add(nullptr, "k", "v"));
    EXPECT_EQ(vyr_dict_get(nullptr, "k"), nullptr);
    EXPECT_TRUE(enumerate(nullptr).empty());
    EXPECT_EQ(vyr_dict_dup(nullptr), nullptr);
    vyrtest::LogCapture log;
    vyr_dict_dump(nullptr, "x");
    EXPECT_TRUE(log.lines().empty());
    vyr_dict_delete(nullptr);

    Dict d;
    EXPECT_EQ(d.t()->n_buckets, 0u);
    EXPECT_EQ(vyr_dict_get(d.d, "anything"), nullptr);
    EXPECT_TRUE(enumerate(d.d).empty());
}

TEST(Dict, GrowsFromFourToEightBuckets) {
    Dict d;
    d.add({"a"});  // 97: home bucket 1 of 4
    EXPECT_EQ(d.t()->n_buckets, 4u);
    EXPECT_EQ(d.t()->upper_bound, 3u);
    // One flags word, filled with 0xAA, with bucket 1's two bits cleared.
    EXPECT_EQ(d.t()->flags[0], 0xAAAAAAAAu & ~(3u << 2));
    d.add({"b", "c"});
    EXPECT_EQ(d.t()->n_buckets, 4u);
    d.add({"d"});
    EXPECT_EQ(d.t()->n_buckets, 8u);
    EXPECT_EQ(d.t()->upper_bound, 6u);
    EXPECT_EQ(d.t()->size, 4u);
    EXPECT_EQ(d.t()->n_occupied, 4u);
    for (const char *k : {"a", "b", "c", "d"}) EXPECT_STREQ(vyr_dict_get(d.d, k), k);
}

TEST(Dict, QuadraticProbingInPlaceRehashAndBucketOrder) {
    Dict d;
    // 'a' 97, 'e' 101, 'i' 105 all have home bucket 1 of 4: 1, then 1+1, then 2+2 = 0.
    d.add({"a", "e", "i"});
    EXPECT_EQ(d.buckets(), (Buckets{{"a", 1}, {"e", 2}, {"i", 0}}));

    // Growing to 8 walks the old buckets in order: "i" (home 1) kicks out "a",
    // "a" moves on to 2 and kicks out "e", which lands at its home 5. "m"
    // (109, home 5) then probes on to 6.
    d.add({"m"});
    EXPECT_EQ(d.buckets(), (Buckets{{"i", 1}, {"a", 2}, {"e", 5}, {"m", 6}}));
    EXPECT_EQ(enumerate(d.d), (Entries{{"i", "i"}, {"a", "a"}, {"e", "e"}, {"m", "m"}}));
    for (const char *k : {"a", "e", "i", "m"}) EXPECT_STREQ(vyr_dict_get(d.d, k), k);
    EXPECT_EQ(vyr_dict_get(d.d, "q"), nullptr);  // 113, home 1: probes 1, 2, 4 (empty)
}

TEST(Dict, DeletedBucketsAreReusedAndDroppedByRebuild) {
    Dict d;
    d.add({"a", "b", "c", "d", "e"});  // at buckets 1 to 5 of 8
    for (const char *k : {"a", "b", "c", "d"}) d.mark_deleted(k);
    EXPECT_EQ(d.t()->n_occupied, 5u);

    // "i" (home 1) passes deleted 1, 2, 4 and stops at empty 7: the first
    // deleted bucket is reused and occupancy does not change.
    d.add({"i"});
    EXPECT_EQ(d.buckets().at("i"), 1u);
    EXPECT_EQ(d.t()->size, 2u);
    EXPECT_EQ(d.t()->n_occupied, 5u);
    d.add({"f"});  // empty bucket 6
    EXPECT_EQ(d.t()->n_occupied, 6u);

    // Occupancy at the bound with 8 > 2 x 3 live: rebuilt at the same count,
    // deleted buckets gone.
    d.add({"g"});
    EXPECT_EQ(d.t()->n_buckets, 8u);
    EXPECT_EQ(d.t()->size, 4u);
    EXPECT_EQ(d.t()->n_occupied, 4u);
    EXPECT_EQ(d.buckets(), (Buckets{{"i", 1}, {"e", 5}, {"f", 6}, {"g", 7}}));
    EXPECT_EQ(vyr_dict_get(d.d, "a"), nullptr);
}

TEST(Dict, KeysAndValues) {
    Dict d;
    char key[] = "key", value[] = "first";
    ASSERT_TRUE(vyr_dict_add(d.d, key, value));
    key[0] = value[0] = 'X';  // copies are stored
    EXPECT_STREQ(vyr_dict_get(d.d, "key"), "first");
    ASSERT_TRUE(vyr_dict_add(d.d, "key", "second"));
    EXPECT_EQ(d.t()->size, 1u);
    EXPECT_EQ(d.t()->n_occupied, 1u);
    EXPECT_STREQ(vyr_dict_get(d.d, "key"), "second");
    // A null value is stored, and reads like an absent key.
    ASSERT_TRUE(vyr_dict_add(d.d, "key", nullptr));
    EXPECT_EQ(vyr_dict_get(d.d, "key"), nullptr);
    EXPECT_EQ(d.t()->size, 1u);
    EXPECT_EQ(enumerate(d.d), (Entries{{"key", "<null>"}}));

    ASSERT_TRUE(vyr_dict_add(d.d, "", ""));  // the empty key hashes to 0
    EXPECT_STREQ(vyr_dict_get(d.d, ""), "");
    EXPECT_EQ(d.buckets().at(""), 0u);
    // Keys that differ only after a zero byte are one key.
    ASSERT_TRUE(vyr_dict_add(d.d, "ab\0x", "1"));
    ASSERT_TRUE(vyr_dict_add(d.d, "ab\0y", "2"));
    EXPECT_EQ(d.t()->size, 3u);
    EXPECT_STREQ(vyr_dict_get(d.d, "ab"), "2");

    vyr_dict_t *copy = vyr_dict_dup(d.d);  // the null value too
    Entries a = enumerate(d.d), b = enumerate(copy);
    EXPECT_EQ(Model(a.begin(), a.end()), Model(b.begin(), b.end()));
    ASSERT_TRUE(vyr_dict_add(d.d, "", "changed"));
    EXPECT_STREQ(vyr_dict_get(copy, ""), "");  // independent storage
    vyr_dict_delete(copy);
}

TEST(Dict, EnumStopsDupCopiesAndDumpLogs) {
    Dict d;
    d.add({"a", "e", "i"});
    // Grows to 8 (i 1, a 2, e 5 as above); "b" (98, home 2) probes on to 3.
    ASSERT_TRUE(vyr_dict_add(d.d, "b", "x y"));
    int calls = 0;
    EXPECT_FALSE(vyr_dict_enum(
        d.d, [](const char *, const char *, void *u) { return ++*static_cast<int *>(u), false; },
        &calls));
    EXPECT_EQ(calls, 1);

    Dict empty;
    vyr_dict_t *copy = vyr_dict_dup(empty.d);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->table->size, 0u);
    vyr_dict_delete(copy);

    vyrtest::LogCapture quiet(VYR_LOG_LEVEL_INFO);
    vyr_dict_dump(d.d, "config");
    EXPECT_TRUE(quiet.lines().empty());
    vyrtest::LogCapture log;
    vyr_dict_dump(d.d, "config");
    EXPECT_EQ(vyrtest::unit::texts(log, VYR_LOG_LEVEL_DEBUG),
              (std::vector<std::string>{"config map values: ", "key=i  val=i", "key=a  val=a",
                                        "key=b  val=x y", "key=e  val=e"}));
    EXPECT_EQ(log.lines().size(), 5u);
}

TEST(Dict, AgreesWithStdMapOverRandomAddsAndGets) {
    std::mt19937 rng(20240501);
    std::uniform_int_distribution<int> key_dist(0, 6000), len_dist(0, 12);
    Model model;
    Dict d;
    for (int op = 0; op < 30000; ++op) {
        std::string key = "k" + std::to_string(key_dist(rng));
        if (op % 3 == 2) {
            const char *got = vyr_dict_get(d.d, key.c_str());
            auto it = model.find(key);
            ASSERT_EQ(got ? std::string(got) : "<absent>",
                      it == model.end() ? "<absent>" : it->second);
            continue;
        }
        std::string value(static_cast<size_t>(len_dist(rng)), static_cast<char>('a' + op % 26));
        ASSERT_TRUE(vyr_dict_add(d.d, key.c_str(), value.c_str()));
        model[key] = value;
    }
    EXPECT_EQ(d.t()->size, model.size());
    EXPECT_EQ(d.t()->n_occupied, d.t()->size);
    Entries all = enumerate(d.d);
    EXPECT_EQ(Model(all.begin(), all.end()), model);
}

// Long keys with bytes above 127: each one must lie on the probe path that the
// byte-at-a-time X31 hash gives it, before any empty bucket.
TEST(Dict, EveryKeyLiesOnItsX31ProbePath) {
    std::mt19937 rng(7);
    std::uniform_int_distribution<int> byte(1, 255), len(1, 40);
    Dict d;
    for (int n = 0; n < 3000; ++n) {
        std::string key(static_cast<size_t>(len(rng)), ' ');
        for (char &c : key) c = static_cast<char>(byte(rng));
        ASSERT_TRUE(vyr_dict_add(d.d, key.c_str(), "v"));
    }
    const uint32_t mask = d.t()->n_buckets - 1;
    auto empty = [&](uint32_t i) { return ((d.t()->flags[i >> 4] >> ((i & 15) * 2)) & 2) != 0; };
    for (const auto &[key, bucket] : d.buckets()) {
        uint32_t h = 0;
        for (unsigned char c : key) h = h * 31 + c;
        uint32_t i = h & mask, step = 0;
        while (i != bucket && !empty(i)) i = (i + ++step) & mask;
        ASSERT_EQ(i, bucket) << "key of length " << key.size();
        EXPECT_STREQ(vyr_dict_get(d.d, key.c_str()), "v");
    }
}

}  // namespace
