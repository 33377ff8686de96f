// One token, converted by the provider's fast paths and by strtoull/strtod:
// the results must agree bit for bit, alone and inside a value line where
// the number is read in place with more of the line behind it.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "tarvik_collect.h"
#include "tarvik_initialize.h"

namespace {

uint64_t reference_u64(const std::string &s) {
    char *end = nullptr;
    errno = 0;
    unsigned long long v = strtoull(s.c_str(), &end, 10);
    return end == s.c_str() || errno == ERANGE ? 0 : (uint64_t)v;
}

double reference_double(const std::string &s) {
    char *end = nullptr;
    errno = 0;
    double v = strtod(s.c_str(), &end);
    return end == s.c_str() || errno == ERANGE ? 0.0 : v;
}

bool same_bits(double a, double b) {
    return memcmp(&a, &b, sizeof a) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    vyrfuzz::quiet_logging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string token(reinterpret_cast<const char *>(data), size);
    const uint64_t want_u = reference_u64(token);
    const double want_d = reference_double(token);
    FUZZ_CHECK(tarvik_token_to_u64(token) == want_u);
    FUZZ_CHECK(same_bits(tarvik_token_to_double(token), want_d));

    // In a line: "token,token,7" as uint64, double, uint64 columns. A comma
    // in the token would make other tokens, and a zero byte ends the C text
    // the standard functions see, so those stay at the token level.
    if (token.find(',') != std::string::npos || token.find('\0') != std::string::npos) return 0;
    std::vector<vyr_event_tarvik_type_t> fields = {
        {"u", "u", TARVIK_FIELD_UINT64, true},
        {"d", "d", TARVIK_FIELD_DOUBLE, true},
        {"n", "n", TARVIK_FIELD_UINT64, true},
    };
    tarvik_provider_t *p = tarvik_provider_instance();
    tarvik_schema_type_info_t info;
    info.event_size = TARVIK_EVENT_FIXED_SIZE + 24;
    info.fields = &fields;
    p->type_infos["fuzz_token"] = info;
    tarvik_provider_dev_info_t dev;
    dev.name = strdup("fuzz0");
    dev.header_id = strdup("fuzz_token");
    dev.event_cache = static_cast<uint8_t *>(calloc(1, info.event_size));
    FUZZ_CHECK(dev.name && dev.header_id && dev.event_cache);
    FUZZ_CHECK(tarvik_csv_to_event(p, &dev, token + "," + token + ",7"));
    uint64_t u, n;
    double d;
    memcpy(&u, dev.event_cache + TARVIK_EVENT_FIXED_SIZE, 8);
    memcpy(&d, dev.event_cache + TARVIK_EVENT_FIXED_SIZE + 8, 8);
    memcpy(&n, dev.event_cache + TARVIK_EVENT_FIXED_SIZE + 16, 8);
    FUZZ_CHECK(u == want_u);
    FUZZ_CHECK(same_bits(d, want_d));
    FUZZ_CHECK(n == 7);
    p->type_infos.clear();
    free(dev.name);
    free(dev.header_id);
    free(dev.event_cache);
    return 0;
}
