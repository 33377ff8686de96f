// The string dictionary: table geometry, probing, rebuild rules and the
// operations around them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "log_capture.h"
#include "vyr_dict.h"

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;
using StrMap = std::map<std::string, std::string>;

uint32_t x31(const std::string &key) {
    uint32_t h = 0;
    for (unsigned char c : key) h = h * 31 + c;
    return h;
}

uint32_t bits(const vyr_dict_table_t *t, uint32_t i) {
    return (t->flags[i >> 4] >> ((i & 15) * 2)) & 3;
}
bool live(const vyr_dict_table_t *t, uint32_t i) {
    return bits(t, i) == 0;
}

struct DictPtr {
    vyr_dict_t *d = vyr_dict_create();
    ~DictPtr() { vyr_dict_delete(d); }
    vyr_dict_table_t *t() const { return d->table; }
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

// Bucket index of every live key.
std::map<std::string, uint32_t> buckets(const vyr_dict_table_t *t) {
    std::map<std::string, uint32_t> out;
    for (uint32_t i = 0; i < t->n_buckets; ++i)
        if (live(t, i)) out[t->keys[i]] = i;
    return out;
}

// Mimics a removal the way the table records one: the bucket turns deleted.
void mark_deleted(vyr_dict_table_t *t, const std::string &key) {
    for (uint32_t i = 0; i < t->n_buckets; ++i) {
        if (live(t, i) && key == t->keys[i]) {
            free(t->keys[i]);
            free(t->vals[i]);
            t->keys[i] = t->vals[i] = nullptr;
            t->flags[i >> 4] |= 1u << ((i & 15) * 2);
            --t->size;
            return;
        }
    }
    FAIL() << "no live key " << key;
}

// Every live key must be reachable from its home bucket over live buckets only.
void expect_probe_invariant(const vyr_dict_table_t *t) {
    uint32_t mask = t->n_buckets - 1;
    for (uint32_t b = 0; b < t->n_buckets; ++b) {
        if (!live(t, b)) continue;
        uint32_t i = x31(t->keys[b]) & mask, step = 0;
        while (i != b) {
            ASSERT_NE(bits(t, i) & 2, 2u) << "empty bucket before " << t->keys[b];
            i = (i + ++step) & mask;
            ASSERT_LE(step, t->n_buckets);
        }
    }
}

TEST(Dict, NullHandleIsAcceptedEverywhere) {
    EXPECT_FALSE(vyr_dict_add(nullptr, "k", "v"));
    EXPECT_EQ(vyr_dict_get(nullptr, "k"), nullptr);
    int calls = 0;
    EXPECT_TRUE(vyr_dict_enum(
        nullptr, [](const char *, const char *, void *u) { return ++*static_cast<int *>(u), true; },
        &calls));
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(vyr_dict_dup(nullptr), nullptr);
    vyrtest::LogCapture log;
    vyr_dict_dump(nullptr, "x");
    EXPECT_TRUE(log.lines().empty());
    vyr_dict_delete(nullptr);
}

TEST(Dict, FreshDictionaryHasNoBuckets) {
    DictPtr d;
    ASSERT_NE(d.d, nullptr);
    EXPECT_EQ(d.t()->n_buckets, 0u);
    EXPECT_EQ(d.t()->upper_bound, 0u);
    EXPECT_EQ(vyr_dict_get(d.d, "anything"), nullptr);
    EXPECT_TRUE(enumerate(d.d).empty());
}

TEST(Dict, GrowsFromFourToEightBuckets) {
    DictPtr d;
    ASSERT_TRUE(vyr_dict_add(d.d, "a", "1"));  // 'a' = 97, home bucket 1 of 4
    EXPECT_EQ(d.t()->n_buckets, 4u);
    EXPECT_EQ(d.t()->upper_bound, 3u);
    // One flags word, filled with 0xAA, with bucket 1's two bits cleared.
    EXPECT_EQ(d.t()->flags[0], 0xAAAAAAAAu & ~(3u << 2));

    ASSERT_TRUE(vyr_dict_add(d.d, "b", "2"));
    ASSERT_TRUE(vyr_dict_add(d.d, "c", "3"));
    EXPECT_EQ(d.t()->n_buckets, 4u);
    EXPECT_EQ(d.t()->n_occupied, 3u);

    ASSERT_TRUE(vyr_dict_add(d.d, "d", "4"));
    EXPECT_EQ(d.t()->n_buckets, 8u);
    EXPECT_EQ(d.t()->upper_bound, 6u);
    EXPECT_EQ(d.t()->size, 4u);
    EXPECT_EQ(d.t()->n_occupied, 4u);

    for (const char *k : {"e", "f"}) ASSERT_TRUE(vyr_dict_add(d.d, k, k));
    EXPECT_EQ(d.t()->n_buckets, 8u);
    ASSERT_TRUE(vyr_dict_add(d.d, "g", "g"));
    EXPECT_EQ(d.t()->n_buckets, 16u);
    EXPECT_EQ(d.t()->upper_bound, 12u);
    EXPECT_EQ(std::string(vyr_dict_get(d.d, "a")), "1");
    EXPECT_EQ(std::string(vyr_dict_get(d.d, "d")), "4");
}

TEST(Dict, QuadraticProbingAndInPlaceRehash) {
    DictPtr d;
    // 'a' 97, 'e' 101, 'i' 105 all have home bucket 1 of 4: 1, then 1+1, then 2+2 = 0.
    for (const char *k : {"a", "e", "i"}) ASSERT_TRUE(vyr_dict_add(d.d, k, k));
    EXPECT_EQ(buckets(d.t()), (std::map<std::string, uint32_t>{{"a", 1}, {"e", 2}, {"i", 0}}));

    // Growing to 8 walks the old buckets in order: "i" (home 1) kicks out "a",
    // "a" moves on to 2 and kicks out "e", which lands at its home 5. "m"
    // (109, home 5) then probes on to 6.
    ASSERT_TRUE(vyr_dict_add(d.d, "m", "m"));
    EXPECT_EQ(buckets(d.t()),
              (std::map<std::string, uint32_t>{{"i", 1}, {"a", 2}, {"e", 5}, {"m", 6}}));
    EXPECT_EQ(enumerate(d.d), (Entries{{"i", "i"}, {"a", "a"}, {"e", "e"}, {"m", "m"}}));
    for (const char *k : {"a", "e", "i", "m"}) EXPECT_STREQ(vyr_dict_get(d.d, k), k);
    EXPECT_EQ(vyr_dict_get(d.d, "q"), nullptr);  // 113, home 1: probes 1, 2, 4 (empty)
}

TEST(Dict, DeletedBucketsAreReusedAndDroppedByRebuild) {
    DictPtr d;
    for (const char *k : {"a", "b", "c", "d", "e"}) ASSERT_TRUE(vyr_dict_add(d.d, k, k));
    ASSERT_EQ(d.t()->n_buckets, 8u);  // a..e at buckets 1..5
    for (const char *k : {"a", "b", "c", "d"}) mark_deleted(d.t(), k);
    EXPECT_EQ(d.t()->size, 1u);
    EXPECT_EQ(d.t()->n_occupied, 5u);

    // "i" (home 1) passes deleted 1, 2, 4 and stops at empty 7: the first
    // deleted bucket is reused and occupancy does not change.
    ASSERT_TRUE(vyr_dict_add(d.d, "i", "i"));
    EXPECT_EQ(buckets(d.t()).at("i"), 1u);
    EXPECT_EQ(d.t()->size, 2u);
    EXPECT_EQ(d.t()->n_occupied, 5u);
    ASSERT_TRUE(vyr_dict_add(d.d, "f", "f"));  // empty bucket 6
    EXPECT_EQ(d.t()->n_occupied, 6u);

    // Occupancy at the bound with 8 > 2 x 3 live: rebuilt at the same count,
    // deleted buckets gone.
    ASSERT_TRUE(vyr_dict_add(d.d, "g", "g"));
    EXPECT_EQ(d.t()->n_buckets, 8u);
    EXPECT_EQ(d.t()->upper_bound, 6u);
    EXPECT_EQ(d.t()->size, 4u);
    EXPECT_EQ(d.t()->n_occupied, 4u);
    for (uint32_t i = 0; i < 8; ++i) EXPECT_NE(bits(d.t(), i), 1u) << i;
    EXPECT_EQ(buckets(d.t()),
              (std::map<std::string, uint32_t>{{"i", 1}, {"e", 5}, {"f", 6}, {"g", 7}}));
    EXPECT_EQ(vyr_dict_get(d.d, "a"), nullptr);
}

TEST(Dict, EnumerationFollowsBucketOrder) {
    // Keys with distinct home buckets in a table of 16 sit at their homes.
    std::vector<std::string> keys;
    std::map<uint32_t, std::string> by_bucket;
    for (int n = 0; keys.size() < 10; ++n) {
        std::string k = "key" + std::to_string(n);
        if (by_bucket.emplace(x31(k) & 15, k).second) keys.push_back(k);
    }
    DictPtr d;
    for (const auto &k : keys) ASSERT_TRUE(vyr_dict_add(d.d, k.c_str(), ("v" + k).c_str()));
    ASSERT_EQ(d.t()->n_buckets, 16u);
    Entries expected;
    for (const auto &[b, k] : by_bucket) expected.emplace_back(k, "v" + k);
    EXPECT_EQ(enumerate(d.d), expected);
}

TEST(Dict, ReplacesValueOfExistingKey) {
    DictPtr d;
    ASSERT_TRUE(vyr_dict_add(d.d, "key", "first"));
    ASSERT_TRUE(vyr_dict_add(d.d, "key", "second"));
    EXPECT_EQ(d.t()->size, 1u);
    EXPECT_EQ(d.t()->n_occupied, 1u);
    EXPECT_STREQ(vyr_dict_get(d.d, "key"), "second");
    ASSERT_TRUE(vyr_dict_add(d.d, "key", nullptr));
    EXPECT_EQ(vyr_dict_get(d.d, "key"), nullptr);
    EXPECT_EQ(d.t()->size, 1u);
}

TEST(Dict, StoresCopiesAndNullValues) {
    DictPtr d;
    char key[] = "name";
    char value[] = "value";
    ASSERT_TRUE(vyr_dict_add(d.d, key, value));
    key[0] = value[0] = 'X';
    EXPECT_STREQ(vyr_dict_get(d.d, "name"), "value");

    ASSERT_TRUE(vyr_dict_add(d.d, "empty", nullptr));
    EXPECT_EQ(d.t()->size, 2u);
    EXPECT_EQ(vyr_dict_get(d.d, "empty"), nullptr);
    EXPECT_EQ(vyr_dict_get(d.d, "absent"), nullptr);

    ASSERT_TRUE(vyr_dict_add(d.d, "", ""));  // the empty key hashes to 0
    EXPECT_STREQ(vyr_dict_get(d.d, ""), "");
    EXPECT_EQ(buckets(d.t()).at(""), 0u);
}

TEST(Dict, KeysDifferingAfterZeroByteAreOneKey) {
    DictPtr d;
    const char first[] = "ab\0x";
    const char second[] = "ab\0y";
    ASSERT_TRUE(vyr_dict_add(d.d, first, "1"));
    ASSERT_TRUE(vyr_dict_add(d.d, second, "2"));
    EXPECT_EQ(d.t()->size, 1u);
    EXPECT_STREQ(vyr_dict_get(d.d, "ab"), "2");
}

TEST(Dict, EnumStopsWhenCallbackSaysSo) {
    DictPtr d;
    for (const char *k : {"a", "b", "c"}) ASSERT_TRUE(vyr_dict_add(d.d, k, k));
    int calls = 0;
    auto stop_at_first = [](const char *, const char *, void *u) {
        ++*static_cast<int *>(u);
        return false;
    };
    EXPECT_FALSE(vyr_dict_enum(d.d, stop_at_first, &calls));
    EXPECT_EQ(calls, 1);

    DictPtr empty;
    calls = 0;
    EXPECT_TRUE(vyr_dict_enum(empty.d, stop_at_first, &calls));
    EXPECT_EQ(calls, 0);
}

TEST(Dict, DupCopiesEveryEntry) {
    DictPtr d;
    for (int i = 0; i < 50; ++i) {
        std::string k = "k" + std::to_string(i);
        ASSERT_TRUE(vyr_dict_add(d.d, k.c_str(), i % 7 ? k.c_str() : nullptr));
    }
    vyr_dict_t *copy = vyr_dict_dup(d.d);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->table->size, 50u);
    auto a = enumerate(d.d), b = enumerate(copy);
    EXPECT_EQ(StrMap(a.begin(), a.end()), StrMap(b.begin(), b.end()));
    // Independent storage: changing the original leaves the copy alone.
    ASSERT_TRUE(vyr_dict_add(d.d, "k1", "changed"));
    EXPECT_STREQ(vyr_dict_get(copy, "k1"), "k1");
    EXPECT_EQ(vyr_dict_get(copy, "k0"), nullptr);
    vyr_dict_delete(copy);

    DictPtr empty;
    copy = vyr_dict_dup(empty.d);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->table->size, 0u);
    vyr_dict_delete(copy);
}

TEST(Dict, DumpLogsEveryEntryAtDebug) {
    DictPtr d;
    for (const char *k : {"a", "e", "i"}) ASSERT_TRUE(vyr_dict_add(d.d, k, "v"));
    // Grows to 8 (i 1, a 2, e 5 as above); "b" (98, home 2) probes on to 3.
    ASSERT_TRUE(vyr_dict_add(d.d, "b", "x y"));
    vyrtest::LogCapture log;
    vyr_dict_dump(d.d, "config");
    std::vector<std::string> texts;
    for (const auto &l : log.lines()) {
        EXPECT_EQ(l.level, VYR_LOG_LEVEL_DEBUG);
        texts.push_back(l.text);
    }
    EXPECT_EQ(texts, (std::vector<std::string>{"config map values: ", "key=i  val=v",
                                               "key=a  val=v", "key=b  val=x y", "key=e  val=v"}))
        << log.dump();

    // Nothing reaches the log below debug.
    vyrtest::LogCapture quiet(VYR_LOG_LEVEL_INFO);
    vyr_dict_dump(d.d, "config");
    EXPECT_TRUE(quiet.lines().empty());
}

TEST(Dict, AgreesWithStdMapOverRandomAdds) {
    std::mt19937 rng(20240501);
    std::uniform_int_distribution<int> key_dist(0, 6000);
    std::uniform_int_distribution<int> len_dist(0, 12);
    std::map<std::string, std::string> model;
    DictPtr d;
    for (int op = 0; op < 30000; ++op) {
        std::string key = "k" + std::to_string(key_dist(rng));
        if (op % 3 == 2) {
            const char *got = vyr_dict_get(d.d, key.c_str());
            auto it = model.find(key);
            if (it == model.end()) {
                ASSERT_EQ(got, nullptr) << key;
            } else {
                ASSERT_NE(got, nullptr) << key;
                ASSERT_EQ(it->second, got);
            }
            continue;
        }
        std::string value(static_cast<size_t>(len_dist(rng)), static_cast<char>('a' + op % 26));
        ASSERT_TRUE(vyr_dict_add(d.d, key.c_str(), value.c_str()));
        model[key] = value;
    }
    const vyr_dict_table_t *t = d.t();
    EXPECT_EQ(t->size, model.size());
    EXPECT_EQ(t->n_occupied, t->size);
    EXPECT_EQ(t->n_buckets & (t->n_buckets - 1), 0u);
    EXPECT_EQ(t->upper_bound, static_cast<uint32_t>(t->n_buckets * 0.77 + 0.5));
    EXPECT_LT(t->size, t->upper_bound);
    // Grown only when the half-size table was full.
    EXPECT_GE(t->size, static_cast<uint32_t>(t->n_buckets / 2 * 0.77 + 0.5));
    expect_probe_invariant(t);
    auto all = enumerate(d.d);
    EXPECT_EQ(StrMap(all.begin(), all.end()), model);
}

}  // namespace
