// The collection thread: once per interval, every device's value line becomes
// its cached event.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tarvik_convert.h"
#include "tarvik_provider.h"

#define TARVIK_MAX_FILE_SIZE 52428800

void *tarvik_thread_callback(void *provider);
// One pass over all devices (the body of one collection interval).
void tarvik_collect_pass(tarvik_provider_t *provider);
bool get_csv_line_by_offset(const char *path, uint64_t offset, std::string &line);
bool tarvik_csv_to_event(tarvik_provider_t *provider, tarvik_provider_dev_info_t *device,
                         const std::string &line);
