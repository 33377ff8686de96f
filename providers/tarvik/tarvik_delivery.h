// Event delivery: the latest event of every ready device, round robin.
#pragma once

#include "tarvik_provider.h"

int tarvik_provider_write_source_events(tarvik_provider_t *provider,
                                        vyr_data_serializer_t *serializer);
