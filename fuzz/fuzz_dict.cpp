// Dictionary operations chosen by the input, mirrored in a std::map; after
// every step the table's own bookkeeping must still hold.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "vyr_dict.h"

namespace {

using Mirror = std::map<std::string, std::optional<std::string>>;

struct Walk {
    std::vector<std::pair<std::string, std::optional<std::string>>> seen;
    size_t stop_after = SIZE_MAX;
};

bool collect(const char *key, const char *value, void *user) {
    Walk *walk = static_cast<Walk *>(user);
    walk->seen.emplace_back(key, value ? std::optional<std::string>(value) : std::nullopt);
    return walk->seen.size() < walk->stop_after;
}

// The dictionary copies C texts: a key or value ends at its first zero byte.
std::string c_text(const std::string &s) {
    return std::string(s.c_str());
}

void check_table(const vyr_dict_t *dict, const Mirror &mirror) {
    const vyr_dict_table_t *t = dict->table;
    FUZZ_CHECK(t);
    FUZZ_CHECK(t->size == mirror.size());
    if (t->n_buckets == 0) {
        FUZZ_CHECK(mirror.empty());
        return;
    }
    FUZZ_CHECK(t->n_buckets >= 4 && (t->n_buckets & (t->n_buckets - 1)) == 0);
    FUZZ_CHECK(t->upper_bound == (uint32_t)(t->n_buckets * 0.77 + 0.5));
    FUZZ_CHECK(t->size <= t->n_occupied && t->n_occupied <= t->upper_bound);
    uint32_t live = 0, used = 0;
    for (uint32_t i = 0; i < t->n_buckets; ++i) {
        uint32_t bits = (t->flags[i >> 4] >> ((i & 15U) << 1)) & 3U;
        FUZZ_CHECK(bits != 3);  // never both empty and deleted
        if (bits == 0) ++live;
        if ((bits & 2U) == 0) ++used;
    }
    FUZZ_CHECK(live == t->size && used == t->n_occupied);
}

void check_contents(const vyr_dict_t *dict, const Mirror &mirror) {
    Walk walk;
    FUZZ_CHECK(vyr_dict_enum(dict, collect, &walk));
    FUZZ_CHECK(walk.seen.size() == mirror.size());
    Mirror back(walk.seen.begin(), walk.seen.end());
    FUZZ_CHECK(back == mirror);  // also proves every key appears once
    for (const auto &entry : mirror) {
        const char *value = vyr_dict_get(dict, entry.first.c_str());
        if (entry.second)
            FUZZ_CHECK(value && *entry.second == value);
        else
            FUZZ_CHECK(!value);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    vyrfuzz::quiet_logging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzedDataProvider in(data, size);
    vyr_dict_t *dict = vyr_dict_create();
    FUZZ_CHECK(dict);
    Mirror mirror;
    int steps = 0;
    while (in.remaining_bytes() > 0 && ++steps < 4096) {
        switch (in.ConsumeIntegralInRange<int>(0, 6)) {
            case 0:
            case 1: {  // the common case: add or replace
                std::string key = c_text(in.ConsumeRandomLengthString(24));
                std::string value = c_text(in.ConsumeRandomLengthString(24));
                FUZZ_CHECK(vyr_dict_add(dict, key.c_str(), value.c_str()));
                mirror[key] = value;
                break;
            }
            case 2: {  // a null value is stored as null
                std::string key = c_text(in.ConsumeRandomLengthString(24));
                FUZZ_CHECK(vyr_dict_add(dict, key.c_str(), nullptr));
                mirror[key] = std::nullopt;
                break;
            }
            case 3: {
                std::string key = c_text(in.ConsumeRandomLengthString(24));
                const char *value = vyr_dict_get(dict, key.c_str());
                auto it = mirror.find(key);
                if (it == mirror.end() || !it->second)
                    FUZZ_CHECK(!value);
                else
                    FUZZ_CHECK(value && *it->second == value);
                break;
            }
            case 4: {  // carry on with a copy
                vyr_dict_t *copy = vyr_dict_dup(dict);
                FUZZ_CHECK(copy);
                check_contents(copy, mirror);
                vyr_dict_delete(dict);
                dict = copy;
                break;
            }
            case 5: {  // a walk that stops early reports it
                Walk walk;
                walk.stop_after = in.ConsumeIntegralInRange<size_t>(1, mirror.size() + 1);
                bool finished = vyr_dict_enum(dict, collect, &walk);
                FUZZ_CHECK(finished == (walk.stop_after > mirror.size()));
                FUZZ_CHECK(walk.seen.size() == std::min(walk.stop_after, mirror.size()));
                break;
            }
            case 6:
                vyr_dict_dump(dict, "fuzz");
                check_contents(dict, mirror);
                break;
        }
        check_table(dict, mirror);
    }
    check_contents(dict, mirror);
    vyr_dict_delete(dict);
    return 0;
}
