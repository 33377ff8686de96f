// Start and stop: the collection thread, the per-device service threads and
// the service processes they keep alive.
#pragma once

#include "tarvik_provider.h"

#define TARVIK_SERVICE_MARKER "phyprobe_service_"

bool tarvik_provider_start(vyr_event_provider_t *provider);
void *tarvik_service_thread_callback(void *device);
// Ends every tool run and joins the threads before it reads the markers, so
// an exception from a marker leaves nothing running.
int tarvik_provider_stop(vyr_event_provider_t *provider);
bool tarvik_threads_running(const tarvik_provider_t *p);
