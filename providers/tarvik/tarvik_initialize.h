// Initialization: one header run per device, one event type per distinct header.
#pragma once

#include "tarvik_provider.h"

// Fixed leading part of every event: timestamp, event_name, device_name.
#define TARVIK_EVENT_FIXED_SIZE 136
#define TARVIK_EVENT_NAME_OFFSET 8
#define TARVIK_DEVICE_NAME_OFFSET 72
#define TARVIK_TEXT_SIZE 64
#define TARVIK_EVENT_NAME "tarvik_event"
// A header run is "timeout 3 ..."; one that still runs this long after it
// started ignored timeout's TERM and is ended by the provider.
#define TARVIK_HEADER_RUN_LIMIT_MS 6000

bool tarvik_provider_initialize(vyr_event_provider_t *provider, vyr_type_system_t *ts);

// Drops what a typed device no longer reads: the parser's header and value
// texts, and the field list of a device whose header another device typed.
// Collection reads only the type entry's field list from here on.
void tarvik_release_parse_state(tarvik_provider_dev_info_t &dev);
