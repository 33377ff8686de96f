/* Discovery of the adapter devices that the zdt tool family makes addressable. */
#include "device_utils.h"

#include <dirent.h>
#include <string.h>
#include <sys/stat.h>

#include <exception>
#include <fstream>
#include <string>
#include <vector>

#include "vyr_command.h"
#include "vyr_logger.h"

namespace vyr {
namespace common {

namespace {

const char kZdtDir[] = "/dev/zdt";
const char kZdtPrefix[] = "/dev/zdt/";
const size_t kZdtPrefixLen = sizeof(kZdtPrefix) - 1;
const char kZdtStatusCommand[] = "zdt status -v";

bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

/* The first two blank-separated words of a line; missing words stay empty. */
void first_words(const std::string &line, std::string &first, std::string &second) {
    std::string *out[2] = {&first, &second};
    size_t pos = 0;
    for (std::string *word : out) {
        while (pos < line.size() && is_blank(line[pos])) ++pos;
        size_t start = pos;
        while (pos < line.size() && !is_blank(line[pos])) ++pos;
        word->assign(line, start, pos - start);
    }
}

/* A name holding a NUL byte cannot name a file: the C path would silently
 * stop at the NUL and test some other file. */
bool has_nul(const std::string &s) {
    return s.find('\0') != std::string::npos;
}

/* The interface named in the NET column ("net-<if>[,net-<if2>...]"), empty
 * when the line carries no "net-". */
bool interface_of(const std::string &line, std::string &ifname) {
    size_t at = line.find("net-");
    if (at == std::string::npos) return false;
    ifname = line.substr(at + 4);
    size_t cut = 0;
    while (cut < ifname.size() && !is_blank(ifname[cut])) ++cut;
    ifname.resize(cut);
    size_t comma = ifname.find(',');
    if (comma != std::string::npos) ifname.resize(comma);
    return true;
}

/* Linux link type 1 is Ethernet; an unreadable type file only makes the
 * device count as not Ethernet-capable. */
bool interface_is_ethernet(const std::string &ifname) {
    std::ifstream type_file;
    if (!has_nul(ifname)) type_file.open("/sys/class/net/" + ifname + "/type");
    if (!type_file.is_open()) {
        VYR_WARN("[device_utils] Could not read sysfs type for device %s", ifname.c_str());
        return false;
    }
    int link_type = 0;
    bool ethernet = false;
    if (type_file >> link_type) ethernet = (link_type == 1);
    type_file.close();
    return ethernet;
}

bool zdt_entry_exists(const std::string &name) {
    if (has_nul(name)) return false;
    struct stat st;
    return stat((kZdtPrefix + name).c_str(), &st) == 0;
}

/* Hands out the report's lines as getline would: the last line needs no
 * line feed, and a final line feed does not open an empty line. */
class LineReader {
  public:
    explicit LineReader(const std::string &text) : text_(text) {}
    bool next(std::string &line) {
        if (pos_ >= text_.size()) return false;
        size_t end = text_.find('\n', pos_);
        if (end == std::string::npos) end = text_.size();
        line.assign(text_, pos_, end - pos_);
        pos_ = end + 1;
        return true;
    }

  private:
    const std::string &text_;
    size_t pos_ = 0;
};

/* Calls `visit` with every line of the report's PCI section: after its title,
 * a rule line and the column headings, up to the cable section. */
template <typename Visit>
void for_each_pci_line(const std::string &report, Visit visit) {
    LineReader reader(report);
    std::string line;
    bool in_pci_section = false;
    while (reader.next(line)) {
        if (line.find("PCI devices:") != std::string::npos) {
            std::string skipped;
            reader.next(skipped);
            reader.next(skipped);
            in_pci_section = true;
            continue;
        }
        if (!in_pci_section) continue;
        if (line.find("Cable devices:") != std::string::npos) break;
        if (!line.empty()) visit(line);
    }
}

}  // namespace

bool is_zdt_dir_empty() {
    DIR *dir = opendir(kZdtDir);
    if (!dir) {
        /* Deliberately not "empty": enumeration still runs the status command. */
        VYR_INFO("[device_utils] /dev/zdt is empty or does not exist");
        return false;
    }
    struct dirent *entry;
    while ((entry = readdir(dir)) != nullptr) {
        if (entry->d_type != DT_CHR && entry->d_type != DT_LNK) continue;
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
        closedir(dir);
        return false;
    }
    closedir(dir);
    return true;
}

bool device_utils_parse_zdt_status(const std::string &report, std::vector<std::string> &names,
                                   bool ethernet_only) {
    names.clear();
    for_each_pci_line(report, [&](const std::string &line) {
        std::string device_type, device_path;
        first_words(line, device_type, device_path);
        bool supported = device_type.find("Arcline") != std::string::npos ||
                         device_type.find("Tidegate") != std::string::npos;
        bool usable_path = device_path.find(kZdtPrefix) != std::string::npos;

        /* The sysfs lookup runs for every device line, supported or not. */
        bool ethernet = false;
        std::string ifname;
        if (interface_of(line, ifname)) ethernet = interface_is_ethernet(ifname);

        if (!supported || !usable_path) return;
        if (ethernet_only && !ethernet) {
            VYR_DEBUG("[device_utils]  Skipping device %s: not Ethernet-capable",
                      device_path.c_str());
            return;
        }
        /* The prefix may sit anywhere in the path; the name is still what
         * follows its first nine characters. */
        std::string name = device_path.substr(kZdtPrefixLen);
        if (!zdt_entry_exists(name)) {
            VYR_WARN("[device_utils]  Skipping device %s: /dev/zdt entry not found", name.c_str());
            return;
        }
        names.push_back(name);
    });
    if (names.empty()) {
        VYR_ERROR("[device_utils]  No valid devices found");
        return false;
    }
    return true;
}

bool device_utils_get_zdt_hca_names(std::vector<std::string> &names, bool ethernet_only) {
    if (is_zdt_dir_empty()) {
        VYR_ERROR(
            "[device_utils] No ZDT devices in /dev/zdt. Please run 'zdt start' to create "
            "devices.");
        return false;
    }
    names.clear();
    /* The report keeps NUL bytes and arbitrarily long lines intact; the
     * tool's exit status tells nothing the report does not. */
    std::string report;
    CommandOptions options;
    options.output = &report;
    if (run_command(kZdtStatusCommand, options) == -1) {
        VYR_ERROR("[device_utils] Failed to execute zdt status command");
        return false;
    }
    return device_utils_parse_zdt_status(report, names, ethernet_only);
}

std::vector<std::pair<std::string, std::string>> device_utils_parse_zdt_interfaces(
    const std::string &report) {
    std::vector<std::pair<std::string, std::string>> out;
    for_each_pci_line(report, [&](const std::string &line) {
        std::string device_type, device_path;
        first_words(line, device_type, device_path);
        if (device_path.find(kZdtPrefix) == std::string::npos) return;
        std::string joined;
        size_t at = line.find("net-");
        if (at != std::string::npos) {
            size_t end = at;
            while (end < line.size() && !is_blank(line[end])) ++end;
            std::string list = line.substr(at, end - at);
            if (!list.empty() && list.back() == '\r') list.pop_back();
            for (size_t pos = 0; pos <= list.size();) {
                size_t comma = list.find(',', pos);
                if (comma == std::string::npos) comma = list.size();
                std::string piece = list.substr(pos, comma - pos);
                if (piece.compare(0, 4, "net-") == 0) piece.erase(0, 4);
                if (!piece.empty()) joined += (joined.empty() ? "" : ",") + piece;
                pos = comma + 1;
            }
        }
        out.emplace_back(device_path.substr(kZdtPrefixLen), joined);
    });
    return out;
}

std::vector<std::pair<std::string, std::string>> device_utils_get_zdt_interfaces() {
    std::string report;
    CommandOptions options;
    options.output = &report;
    if (run_command(kZdtStatusCommand, options) == -1) return {};
    return device_utils_parse_zdt_interfaces(report);
}

bool device_utils_get_hca_protocol(const std::string &name, bool &is_infiniband,
                                   bool &is_ethernet) {
    try {
        std::ifstream file;
        if (!has_nul(name)) file.open("/sys/class/infiniband/" + name + "/ports/1/link_layer");
        std::string layer;
        if (!file.is_open() || !std::getline(file, layer)) {
            VYR_WARN("[device_utils] Could not read sysfs link_layer for device %s", name.c_str());
            return false;
        }
        while (!layer.empty() && (layer.back() == '\r' || layer.back() == '\n')) layer.pop_back();
        if (layer == "InfiniBand") {
            is_infiniband = true;
            return true;
        }
        if (layer == "Ethernet") {
            is_ethernet = true;
            return true;
        }
        VYR_WARN("[device_utils] Unknown link layer for device %s: %s", name.c_str(),
                 layer.c_str());
        return false;
    } catch (const std::exception &e) {
        VYR_WARN("[device_utils] Could not read sysfs link_layer for device %s: %s", name.c_str(),
                 e.what());
        return false;
    }
}

}  // namespace common
}  // namespace vyr
