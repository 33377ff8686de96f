// Value lines converted into a device's event: line 1 of the input is the
// header, line 2 the first value line that types the fields, and every line
// from 2 on is converted as a later pass would convert it.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "csv_reference.h"
#include "fuzz_support.h"
#include "tarvik_collect.h"
#include "tarvik_format_parser.h"
#include "tarvik_initialize.h"
#include "vyr_md5.h"

namespace {

const size_t kMaxLines = 64;

size_t slot_size(tarvik_field_type_t type) {
    return type == TARVIK_FIELD_STRING ? TARVIK_TEXT_SIZE : 8;
}

// The event's field slots after a successful conversion of `tokens`.
std::vector<uint8_t> expected_slots(const std::vector<vyr_event_tarvik_type_t> &fields,
                                    const std::vector<std::string> &tokens) {
    std::vector<uint8_t> out;
    for (size_t i = 0; i < fields.size(); ++i) {
        uint8_t slot[TARVIK_TEXT_SIZE] = {0};
        if (fields[i].type == TARVIK_FIELD_UINT64) {
            uint64_t v = csvref::to_u64(tokens[i]);
            memcpy(slot, &v, 8);
        } else if (fields[i].type == TARVIK_FIELD_DOUBLE) {
            double v = csvref::to_double(tokens[i]);
            memcpy(slot, &v, 8);
        } else {
            // At most 63 bytes of the token survive; the rest is zero.
            memcpy(slot, tokens[i].data(),
                   std::min<size_t>(tokens[i].size(), TARVIK_TEXT_SIZE - 1));
        }
        out.insert(out.end(), slot, slot + slot_size(fields[i].type));
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    vyrfuzz::quiet_logging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string input(reinterpret_cast<const char *>(data), size);
    std::vector<std::string> lines;
    for (size_t pos = 0; pos <= input.size() && lines.size() < kMaxLines;) {
        size_t nl = input.find('\n', pos);
        if (nl == std::string::npos) nl = input.size();
        lines.push_back(input.substr(pos, nl - pos));
        pos = nl + 1;
    }
    if (lines.size() < 2) return 0;

    // The fields as initialization derives them from the first two lines.
    std::vector<vyr_event_tarvik_type_t> fields;
    TarvikFormatParser parser("", &fields);
    parser.parseCsvLine(lines[0], &parser.headerFields);
    parser.parseCsvLine(lines[1], &parser.valueFields);
    parser.createTarvikTypesInfo();

    char header_id[VYR_MD5_STRING_LENGTH];
    vyr_HexMD5(lines[0].data(), lines[0].size(), header_id);
    size_t event_size = TARVIK_EVENT_FIXED_SIZE;
    for (const auto &f : fields) event_size += slot_size(f.type);

    tarvik_provider_t *p = tarvik_provider_instance();
    tarvik_schema_type_info_t info;
    info.event_size = event_size;
    info.fields = &fields;
    p->type_infos[header_id] = info;

    tarvik_provider_dev_info_t dev;
    dev.name = strdup("fuzz0");
    dev.header_id = strdup(header_id);
    dev.event_cache = static_cast<uint8_t *>(calloc(1, event_size));
    FUZZ_CHECK(dev.name && dev.header_id && dev.event_cache);
    std::vector<uint8_t> before(event_size);

    for (size_t i = 1; i < lines.size(); ++i) {
        std::vector<std::string> tokens = csvref::split(lines[i]);
        memcpy(before.data(), dev.event_cache, event_size);
        bool ok = tarvik_csv_to_event(p, &dev, lines[i]);
        FUZZ_CHECK(ok == (tokens.size() == fields.size()));
        if (!ok) {
            // A line of the wrong width leaves the previous event as it was.
            FUZZ_CHECK(memcmp(before.data(), dev.event_cache, event_size) == 0);
            continue;
        }
        uint64_t stamp;
        memcpy(&stamp, dev.event_cache, 8);
        FUZZ_CHECK(stamp != 0);
        // The leading fields belong to initialization; conversion leaves them alone.
        FUZZ_CHECK(memcmp(before.data() + 8, dev.event_cache + 8, TARVIK_EVENT_FIXED_SIZE - 8) ==
                   0);
        std::vector<uint8_t> want = expected_slots(fields, tokens);
        FUZZ_CHECK(want.size() == event_size - TARVIK_EVENT_FIXED_SIZE);
        FUZZ_CHECK(want.empty() || memcmp(want.data(), dev.event_cache + TARVIK_EVENT_FIXED_SIZE,
                                          want.size()) == 0);
    }

    // An unknown type code stops the walk there: earlier slots are written,
    // later ones are not.
    if (!fields.empty() && csvref::split(lines[1]).size() == fields.size()) {
        size_t bad = data[0] % fields.size();
        tarvik_field_type_t saved = fields[bad].type;
        fields[bad].type = 3;
        size_t bad_offset = TARVIK_EVENT_FIXED_SIZE;
        for (size_t i = 0; i < bad; ++i) bad_offset += slot_size(fields[i].type);
        memset(dev.event_cache + bad_offset, 0xA5, event_size - bad_offset);
        FUZZ_CHECK(!tarvik_csv_to_event(p, &dev, lines[1]));
        for (size_t i = bad_offset; i < event_size; ++i) FUZZ_CHECK(dev.event_cache[i] == 0xA5);
        fields[bad].type = saved;
    }

    p->type_infos.clear();
    free(dev.name);
    free(dev.header_id);
    free(dev.event_cache);
    return 0;
}
