// Event delivery: the latest event of every ready device, round robin.
#pragma once

#include "tarvik_provider.h"

int tarvik_provider_write_source_events(tarvik_provider_t *provider,
                                        vyr_data_serializer_t *serializer);

// To be called whenever devices are added to or removed from a provider's map:
// write_events keeps an iterator at its cursor between calls, and this drops it.
void tarvik_delivery_devices_changed();
