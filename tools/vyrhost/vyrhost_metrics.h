// The metric model: how a provider's field becomes a Prometheus sample. One
// table names every field vyrhost knows; anything else gets a safe default.
#pragma once

#include <string>
#include <vector>

namespace vyrhost {

enum class MetricKind {
    kSample,  // a sample of `family`
    kInfo,    // a label of <prefix>_info (slow-changing text only)
    kIgnore,  // not exported (the device name, constants, duplicates)
};

struct MetricRule {
    // The field name after the plug-in's cleaning. A trailing '#' stands for a
    // decimal number (a lane, a bin), exported as the label `label`.
    const char *pattern;
    MetricKind kind;
    const char *name;  // the family (kSample) or the label name (kInfo)
    const char *type;  // "gauge" or "counter" (kSample)
    double divisor;    // to base units: mA -> A is 1000
    const char *label;
    const char *help;
};

const std::vector<MetricRule> &metric_rules();

// What one field of an event becomes. `numeric` says whether the field holds
// numbers (a text field is read as a number only when a rule says it is one).
struct FieldMetric {
    MetricKind kind = MetricKind::kIgnore;
    bool known = false;  // a rule of the table matched
    std::string name;
    std::string type = "gauge";
    double divisor = 1;
    std::string label, label_value;  // from a '#' pattern; empty otherwise
    std::string help;
};
FieldMetric map_field(const std::string &field, bool numeric);

// The number a text field holds ("5E-15", " -2.9"), NaN when it holds none,
// so that a reading that sometimes fails to parse never adds or drops a series.
double text_number(const std::string &text);

}  // namespace vyrhost
