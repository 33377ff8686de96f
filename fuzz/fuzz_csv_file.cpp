// A collection file as phyprobe might leave it: read by the parser at
// initialization, then its value line read again at the recorded offset as
// the collection loop does.
#include <cstring>
#include <string>
#include <vector>

#include "csv_reference.h"
#include "fuzz_support.h"
#include "tarvik_collect.h"
#include "tarvik_format_parser.h"
#include "vyr_md5.h"

namespace {

std::string g_path;

bool is_lower_hex(const std::string &s) {
    for (char c : s)
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    vyrfuzz::quiet_logging();
    g_path = vyrfuzz::scratch_dir() + "/tarvik_collect_fuzz0.csv";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    vyrfuzz::write_file(g_path, data, size);
    const std::string file(reinterpret_cast<const char *>(data), size);

    // Line 1 and line 2 as a byte walk sees them.
    size_t nl1 = file.find('\n');
    std::string header = file.substr(0, nl1);
    bool has_value_line = nl1 != std::string::npos;
    std::string value;
    if (has_value_line) {
        size_t nl2 = file.find('\n', nl1 + 1);
        value = file.substr(nl1 + 1, nl2 == std::string::npos ? std::string::npos : nl2 - nl1 - 1);
    }
    bool want_ok = !header.empty() && has_value_line && !value.empty();

    std::vector<vyr_event_tarvik_type_t> types;
    TarvikFormatParser parser(g_path, &types);
    bool ok = parser.parse();
    FUZZ_CHECK(ok == want_ok);
    if (!header.empty() && has_value_line)  // the offset is recorded before the value line is read
        FUZZ_CHECK(parser.valueLineOffset == (int64_t)nl1 + 1);
    if (!ok) return 0;

    // The header's identity covers its exact bytes, a trailing CR included.
    char id[VYR_MD5_STRING_LENGTH];
    vyr_HexMD5(header.data(), header.size(), id);
    FUZZ_CHECK(parser.headerId.size() == 32 && is_lower_hex(parser.headerId));
    FUZZ_CHECK(parser.headerId == std::string(id, 32));

    FUZZ_CHECK(parser.headerFields == csvref::split(header));
    FUZZ_CHECK(parser.valueFields == csvref::split(value));
    FUZZ_CHECK(
        csvref::same_fields(types, csvref::type_fields(parser.headerFields, parser.valueFields)));

    // The collection loop reads the same value line straight from the offset.
    std::string line = "stale";
    FUZZ_CHECK(get_csv_line_by_offset(g_path.c_str(), (uint64_t)parser.valueLineOffset, line));
    FUZZ_CHECK(line == value);
    return 0;
}
