// The configuration dictionary against std::unordered_map with the same keys.
// The dictionary's hash and probing are fixed by its format; what is measured
// is whether anything costs more on top of them.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "vyr_dict.h"

namespace {

// Configuration-like keys of 20-odd characters, longer than the short-string
// buffer, so both tables keep their keys out of line.
std::vector<std::string> make_keys(size_t n) {
    std::vector<std::string> keys;
    keys.reserve(n);
    uint64_t x = 0x9E3779B97F4A7C15ull;
    char buf[48];
    for (size_t i = 0; i < n; ++i) {
        x ^= x << 7;
        x ^= x >> 9;
        snprintf(buf, sizeof buf, "provider_%08x_%zu_sec", (unsigned)x, i);
        keys.emplace_back(buf);
    }
    return keys;
}

// A fixed random order of lookups over the keys.
std::vector<size_t> lookup_order(size_t n) {
    std::vector<size_t> order(4096);
    uint64_t x = 88172645463325252ull;
    for (size_t &o : order) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        o = (size_t)(x % n);
    }
    return order;
}

// Keys and filled tables are built once per size and shared by the runs:
// building a million-entry table is itself seconds of work.
const std::vector<std::string> &keys_of(size_t n) {
    static std::map<size_t, std::vector<std::string>> cache;
    auto it = cache.find(n);
    if (it == cache.end()) it = cache.emplace(n, make_keys(n)).first;
    return it->second;
}

struct FilledTables {
    std::map<size_t, vyr_dict_t *> dicts;
    std::map<size_t, std::unordered_map<std::string, std::string>> maps;
    ~FilledTables() {
        for (auto &d : dicts) vyr_dict_delete(d.second);
    }
    const vyr_dict_t *dict(size_t n) {
        auto it = dicts.find(n);
        if (it != dicts.end()) return it->second;
        vyr_dict_t *d = vyr_dict_create();
        for (const auto &k : keys_of(n)) vyr_dict_add(d, k.c_str(), "value");
        dicts[n] = d;
        return d;
    }
    const std::unordered_map<std::string, std::string> &map(size_t n) {
        auto it = maps.find(n);
        if (it != maps.end()) return it->second;
        auto &m = maps[n];
        for (const auto &k : keys_of(n)) m[k] = "value";
        return m;
    }
};

FilledTables &tables() {
    static FilledTables t;
    return t;
}

void per_op(benchmark::State &state, double ops) {
    state.counters["per_op"] = benchmark::Counter(
        ops, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_DictAdd(benchmark::State &state) {
    const auto &keys = keys_of((size_t)state.range(0));
    for (auto _ : state) {
        vyr_dict_t *d = vyr_dict_create();
        for (const auto &k : keys) vyr_dict_add(d, k.c_str(), "value");
        state.PauseTiming();
        vyr_dict_delete(d);
        state.ResumeTiming();
    }
    per_op(state, (double)keys.size());
}

void BM_UnorderedMapInsert(benchmark::State &state) {
    const auto &keys = keys_of((size_t)state.range(0));
    for (auto _ : state) {
        auto *m = new std::unordered_map<std::string, std::string>;
        for (const auto &k : keys) (*m)[k] = "value";
        state.PauseTiming();
        delete m;
        state.ResumeTiming();
    }
    per_op(state, (double)keys.size());
}

void BM_DictGet(benchmark::State &state) {
    const auto &keys = keys_of((size_t)state.range(0));
    const vyr_dict_t *d = tables().dict(keys.size());
    auto order = lookup_order(keys.size());
    for (auto _ : state) {
        for (size_t i : order) benchmark::DoNotOptimize(vyr_dict_get(d, keys[i].c_str()));
    }
    per_op(state, (double)order.size());
}

// The table's own floor: the same lookup written inline over the same table
// (X31 hash eight bytes a step, quadratic probing, two flag bits a bucket, a
// one-byte hash tag before each key comparison). What vyr_dict_get costs
// beyond this is overhead on top of the format; what it costs beyond
// std::unordered_map is the format itself: keys and values in arrays of their
// own and every key stored out of line.
const char *bare_probe(const vyr_dict_table_t *h, const char *key) {
    const unsigned char *s = reinterpret_cast<const unsigned char *>(key);
    size_t n = strlen(key);
    uint32_t hash = 0;
    // 31^8 .. 31^1 modulo 2^32: eight independent products a step.
    const uint32_t p8 = 2487512833u, p7 = 1742810335u, p6 = 887503681u, p5 = 28629151u;
    for (; n >= 8; n -= 8, s += 8)
        hash = hash * p8 + s[0] * p7 + s[1] * p6 + s[2] * p5 + s[3] * 923521u + s[4] * 29791u +
               s[5] * 961u + s[6] * 31u + s[7];
    for (; n > 0; --n, ++s) hash = hash * 31 + *s;
    const uint8_t tag = (uint8_t)(hash >> 24);
    const uint32_t mask = h->n_buckets - 1;
    uint32_t i = hash & mask, step = 0;
    for (;;) {
        uint32_t flags = (h->flags[i >> 4] >> ((i & 0xfU) << 1)) & 3U;
        if (flags & 2U) return nullptr;
        if (flags == 0 && h->tags[i] == tag && strcmp(h->keys[i], key) == 0) return h->vals[i];
        i = (i + (++step)) & mask;
    }
}

void BM_DictBareProbe(benchmark::State &state) {
    const auto &keys = keys_of((size_t)state.range(0));
    const vyr_dict_t *d = tables().dict(keys.size());
    auto order = lookup_order(keys.size());
    for (auto _ : state) {
        for (size_t i : order) benchmark::DoNotOptimize(bare_probe(d->table, keys[i].c_str()));
    }
    per_op(state, (double)order.size());
}

void BM_UnorderedMapFind(benchmark::State &state) {
    const auto &keys = keys_of((size_t)state.range(0));
    const auto &m = tables().map(keys.size());
    auto order = lookup_order(keys.size());
    for (auto _ : state) {
        for (size_t i : order) benchmark::DoNotOptimize(m.find(keys[i]));
    }
    per_op(state, (double)order.size());
}

void sizes(benchmark::internal::Benchmark *b) {
    b->ArgName("keys");
    for (int64_t n : {1000, 100000, 1000000}) b->Arg(n);
}

}  // namespace

BENCHMARK(BM_DictAdd)->Apply(sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UnorderedMapInsert)->Apply(sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DictGet)->Apply(sizes);
BENCHMARK(BM_DictBareProbe)->Apply(sizes);
BENCHMARK(BM_UnorderedMapFind)->Apply(sizes);
