/* Discovery of the adapter devices that the zdt tool family makes addressable. */
#ifndef VYR_DEVICE_UTILS_H
#define VYR_DEVICE_UTILS_H

#include <string>
#include <utility>
#include <vector>

namespace vyr {
namespace common {

/* True when /dev/zdt opens and holds no character device or symbolic link. */
bool is_zdt_dir_empty();

/* Fills `names` with the devices of "zdt status -v" whose /dev/zdt entry exists. */
bool device_utils_get_zdt_hca_names(std::vector<std::string> &names, bool ethernet_only);

/* Parses the text of a "zdt status -v" report (the part of the enumeration after
 * the command ran); exposed so the report parsing can be exercised directly. */
bool device_utils_parse_zdt_status(const std::string &report, std::vector<std::string> &names,
                                   bool ethernet_only);

/* Every device line of a "zdt status -v" report's PCI section, in report order:
 * the device name and the interfaces its NET column names, comma-joined without
 * their "net-" prefixes ("" when it names none). */
std::vector<std::pair<std::string, std::string>> device_utils_parse_zdt_interfaces(
    const std::string &report);

/* The same for the report the device tool gives now; empty when it cannot run. */
std::vector<std::pair<std::string, std::string>> device_utils_get_zdt_interfaces();

bool device_utils_get_hca_protocol(const std::string &name, bool &is_infiniband, bool &is_ethernet);

}  // namespace common
}  // namespace vyr

#endif
