// A "zdt status -v" report through the parsing the command's output goes
// through. Outside a test namespace there is no /dev/zdt, so every device the
// report offers ends at the entry-existence test, and its skip message tells
// which names the parser took from the report.
#include <unistd.h>

#include <string>
#include <vector>

#include "device_utils.h"
#include "fuzz_support.h"

namespace {

bool g_no_zdt_dir = false;

bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

struct Candidate {
    std::string path;
    std::string name;
};

// Device lines of supported families with a usable path, in report order.
std::vector<Candidate> candidates(const std::string &report) {
    std::vector<std::string> lines;
    for (size_t pos = 0; pos < report.size();) {
        size_t nl = report.find('\n', pos);
        if (nl == std::string::npos) nl = report.size();
        lines.push_back(report.substr(pos, nl - pos));
        pos = nl + 1;
    }
    std::vector<Candidate> out;
    bool in_section = false;
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string &line = lines[i];
        if (line.find("PCI devices:") != std::string::npos) {
            in_section = true;
            i += 2;  // the rule line and the column headings
            continue;
        }
        if (!in_section) continue;
        if (line.find("Cable devices:") != std::string::npos) break;
        std::string words[2];
        size_t p = 0;
        for (std::string &w : words) {
            while (p < line.size() && is_blank(line[p])) ++p;
            while (p < line.size() && !is_blank(line[p])) w += line[p++];
        }
        bool family = words[0].find("Arcline") != std::string::npos ||
                      words[0].find("Tidegate") != std::string::npos;
        if (family && words[1].find("/dev/zdt/") != std::string::npos)
            out.push_back({words[1], words[1].substr(9)});
    }
    return out;
}

std::string c_text(const std::string &s) {
    return std::string(s.c_str());
}

// The per-device skip messages, in order.
std::vector<std::string> skips(const std::vector<std::string> &log) {
    static const std::string prefix = "[device_utils]  Skipping device ";
    std::vector<std::string> out;
    for (const std::string &line : log)
        if (line.compare(0, prefix.size(), prefix) == 0) out.push_back(line);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    vyrfuzz::quiet_logging();
    g_no_zdt_dir = access("/dev/zdt", F_OK) != 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string report(reinterpret_cast<const char *>(data), size);
    std::vector<Candidate> want = candidates(report);

    for (bool ethernet_only : {false, true}) {
        std::vector<std::string> log;
        std::vector<std::string> names = {"left over"};
        vyrfuzz::capture_log(&log);
        bool ok = vyr::common::device_utils_parse_zdt_status(report, names, ethernet_only);
        vyrfuzz::capture_log(nullptr);
        FUZZ_CHECK(ok == !names.empty());
        FUZZ_CHECK(ok || (!log.empty() && log.back() == "[device_utils]  No valid devices found"));
        if (!g_no_zdt_dir) {
            FUZZ_CHECK(names.size() <= want.size());
            continue;
        }
        FUZZ_CHECK(names.empty());
        std::vector<std::string> got = skips(log);
        FUZZ_CHECK(got.size() == want.size());
        for (size_t i = 0; i < want.size(); ++i) {
            std::string missing = "[device_utils]  Skipping device " + c_text(want[i].name) +
                                  ": /dev/zdt entry not found";
            std::string not_ethernet = "[device_utils]  Skipping device " + c_text(want[i].path) +
                                       ": not Ethernet-capable";
            FUZZ_CHECK(got[i] == missing || (ethernet_only && got[i] == not_ethernet));
        }
    }
    return 0;
}
