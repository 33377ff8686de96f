#include "vyrhost_metrics.h"

#include <cmath>
#include <cstdlib>

#include "vyrhost_render.h"

namespace vyrhost {

namespace {

const MetricKind S = MetricKind::kSample, I = MetricKind::kInfo, X = MetricKind::kIgnore;

const std::vector<MetricRule> kRules = {
    {"timestamp", S, "tarvik_collected_timestamp_seconds", "gauge", 1e6, "",
     "When the plug-in collected the device's latest event (Unix time)."},
    {"Timestamp", S, "tarvik_tool_timestamp_seconds", "gauge", 1, "",
     "The time the diagnostics tool wrote into its report (Unix time)."},
    {"Lane_Count", S, "tarvik_lanes", "gauge", 1, "", "Lanes of the port."},
    {"Raw_Errors_Lane_#", S, "tarvik_raw_errors_total", "counter", 1, "lane",
     "Raw bit errors of a lane before error correction."},
    {"Raw_BER_Lane_#", S, "tarvik_raw_ber", "gauge", 1, "lane",
     "Raw bit error ratio of a lane before error correction."},
    {"Effective_Physical_Errors", S, "tarvik_effective_physical_errors_total", "counter", 1, "",
     "Bit errors left after error correction."},
    {"Effective_Physical_BER", S, "tarvik_effective_physical_ber", "gauge", 1, "",
     "Bit error ratio after error correction (NaN when the tool gave no number)."},
    {"Symbol_Errors", S, "tarvik_symbol_errors_total", "counter", 1, "",
     "Symbols error correction could not repair."},
    {"Symbol_BER", S, "tarvik_symbol_ber", "gauge", 1, "", "Symbol error ratio."},
    {"hist_bin_#", S, "tarvik_fec_hist_bin_total", "counter", 1, "bin",
     "Code words with as many corrected symbols as the bin number."},
    {"Temperature", S, "tarvik_temperature_celsius", "gauge", 1, "", "Adapter temperature."},
    {"temperature", S, "tarvik_temperature_celsius", "gauge", 1, "", "Adapter temperature."},
    {"module_temperature", S, "tarvik_module_temperature_celsius", "gauge", 1, "",
     "Cable module temperature."},
    {"Tx_BiasmA", S, "tarvik_tx_bias_amperes", "gauge", 1e3, "", "Laser transmit bias current."},
    {"Supply_VoltagemV", S, "tarvik_supply_voltage_volts", "gauge", 1e3, "",
     "Cable module supply voltage."},
    {"Rx_Power_dBm", S, "tarvik_rx_power_dbm", "gauge", 1, "",
     "Receive power in dBm (NaN when the tool gave no number)."},
    {"FW_Version", I, "fw_version", "", 1, "", ""},
    {"Tool_Version", I, "tool_version", "", 1, "", ""},
    {"Link_State", I, "link_state", "", 1, "", ""},
    {"Speed", I, "speed", "", 1, "", ""},
    {"Active_FEC", I, "active_fec", "", 1, "", ""},
    {"Cable_PN", I, "cable_pn", "", 1, "", ""},
    {"Vendor", I, "vendor", "", 1, "", ""},
    {"Status", I, "status", "", 1, "", ""},
    // The device label says it already; a repeated column adds nothing.
    {"event_name", X, "", "", 1, "", ""},
    {"device_name", X, "", "", 1, "", ""},
    {"Device", X, "", "", 1, "", ""},
    {"Status_0", X, "", "", 1, "", ""},
};

bool all_digits(const std::string &text, size_t from) {
    if (from >= text.size()) return false;
    for (size_t i = from; i < text.size(); ++i)
        if (text[i] < '0' || text[i] > '9') return false;
    return true;
}

// Names vyrhost writes itself; a field whose default name lands on one is renamed.
bool taken(const std::string &name) {
    if (name == "tarvik_info" || name == "tarvik_device_up") return true;
    for (const MetricRule &r : kRules)
        if (r.kind == S && name == r.name) return true;
    return false;
}

}  // namespace

const std::vector<MetricRule> &metric_rules() {
    return kRules;
}

FieldMetric map_field(const std::string &field, bool numeric) {
    FieldMetric m;
    for (const MetricRule &r : kRules) {
        std::string p = r.pattern;
        bool numbered = !p.empty() && p.back() == '#';
        if (numbered) p.pop_back();
        if (numbered ? field.compare(0, p.size(), p) != 0 || !all_digits(field, p.size())
                     : field != p)
            continue;
        m.kind = r.kind;
        m.known = true;
        m.name = r.name;
        m.type = r.type;
        m.divisor = r.divisor;
        m.help = r.help;
        if (numbered) {
            m.label = r.label;
            m.label_value = field.substr(p.size());
            // "07" and "7" are one lane.
            m.label_value = std::to_string(strtoull(m.label_value.c_str(), nullptr, 10));
        }
        return m;
    }
    if (!numeric) return m;  // unknown text: neither a label nor a sample
    m.kind = MetricKind::kSample;
    m.name = prom_metric_name("tarvik", field);
    if (taken(m.name)) m.name += "_field";
    m.help = "Field " + field + " of the latest event of each device.";
    return m;
}

double text_number(const std::string &text) {
    const char *start = text.c_str();
    char *end = nullptr;
    double v = strtod(start, &end);
    if (end == start) return NAN;
    while (*end == ' ' || *end == '\t') ++end;
    return *end ? NAN : v;
}

}  // namespace vyrhost
