// InfluxDB line protocol for vyrhost --format influx: one line per event, for
// InfluxDB's write API and Telegraf's inputs.execd.
#pragma once

#include <string>

#include "vyrhost_render.h"

namespace vyrhost {

// Tag keys, tag values and field keys: comma, equals sign and space get a
// backslash; line breaks (which the protocol cannot carry) become spaces.
std::string influx_escape_key(const std::string &text);
// A string field value in double quotes, with '"' and '\' escaped.
std::string influx_quote_string(const std::string &text);

// "tarvik,device=D[,interface=I] FIELD=VALUE,... TIMESTAMP\n": every field by
// its own name (integers with 'i', floats bare, text quoted; array elements
// as NAME_0, NAME_1, ...), the time in nanoseconds from the event's
// timestamp field, else from its block. Values the protocol cannot hold (NaN,
// infinities, integers above 2^63-1) are left out; "" when no field is left.
std::string render_influx_line(const Event &event, const std::string &interface);

// A diagnostic line as inputs.execd reads a plug-in's standard error: "E! "
// (error, level 3 and below), "W! " (warning), "I! " (info) or "D! " (debug)
// in front of the text.
std::string influx_diagnostic(int level, const std::string &text);

}  // namespace vyrhost
