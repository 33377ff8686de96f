// The tarvik provider: one statically allocated provider object whose leading
// part is the descriptor the host sees.
#pragma once

#include <pthread.h>
#include <stdio.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tarvik_format_parser.h"
#include "vyr_command.h"
#include "vyr_event_provider.h"

#define TARVIK_PROVIDER_NAME "tarvik"
#define TARVIK_PROVIDER_DESCRIPTION "Ethernet tarvik data from phyprobe tarvik-collect"
#define TARVIK_COLLECT_PREFIX "/tmp/tarvik_collect_"
#define TARVIK_DEVICE_DIR "/dev/zdt"
#define TARVIK_SERVICE_ITERATIONS 10
#define TARVIK_MAX_PARSE_ERRORS 10
#define TARVIK_DEFAULT_INTERVAL_SEC 30
#define TARVIK_DEFAULT_MAX_ERRORS 10

struct tarvik_schema_type_info_t;

// One selected device. Flags and counters shared between the collection,
// service and host threads are atomics of the plain member's size.
struct tarvik_provider_dev_info_t {
    char *name = nullptr;
    char *device_path = nullptr;
    std::atomic<bool> disabled{false};
    char *out_file_path = nullptr;
    FILE *out_file = nullptr;
    char *command = nullptr;
    char *service_command = nullptr;
    uint8_t *event_cache = nullptr;
    std::atomic<bool> new_data{false};
    char *header_id = nullptr;
    // The entry of type_infos for header_id, recorded by initialize once the
    // type exists, so passes and writes skip the lookup by header text.
    tarvik_schema_type_info_t *type_info = nullptr;
    uint64_t header_offset = 0;
    TarvikFormatParser *parser = nullptr;
    pthread_mutex_t event_lock = PTHREAD_MUTEX_INITIALIZER;
    pthread_t service_thread = 0;
    std::atomic<bool> service_stop{false};
    std::atomic<int32_t> parse_errors{0};
    int32_t max_errors = 0;
    uint64_t update_interval_sec = 0;
};

// One entry per distinct CSV header.
struct tarvik_schema_type_info_t {
    uint8_t type_index = 0;
    uint64_t event_size = 0;
    std::vector<vyr_event_tarvik_type_t> *fields = nullptr;  // not owned
};

struct tarvik_provider_t;
typedef int (*tarvik_write_source_fn)(tarvik_provider_t *, vyr_data_serializer_t *);

struct tarvik_provider_t {
    vyr_event_provider_t provider;  // must stay the first member
    // Transparent comparator: the write path looks entries up by const char*.
    std::map<std::string, tarvik_schema_type_info_t, std::less<>> type_infos;
    pthread_t collect_thread = 0;
    std::atomic<bool> stop_requested{false};
    tarvik_write_source_fn write_callbacks[1] = {nullptr};
    std::map<std::string, tarvik_provider_dev_info_t> devices;
    std::atomic<uint64_t> next_device{0};
    uint64_t update_interval_sec = TARVIK_DEFAULT_INTERVAL_SEC;
    bool run_as_service = true;
    // Every tool run of this provider, so that stop can end them all.
    vyr::common::CommandGroup tools;

    tarvik_provider_t() : provider() {}
    // Only the map nodes go; devices are released by the destroy callback.
    ~tarvik_provider_t();
};

// The one provider object of this library.
tarvik_provider_t *tarvik_provider_instance();

// The device's entry of type_infos. Map nodes never move and entries are never
// erased while devices exist, so the entry initialize recorded stands for the
// lookup; a device without one looks its header_id up (a missing key inserts
// an empty entry, type index 0).
inline tarvik_schema_type_info_t &tarvik_device_type_info(tarvik_provider_t *p,
                                                          tarvik_provider_dev_info_t *dev) {
    if (dev->type_info) return *dev->type_info;
    auto it = p->type_infos.find(std::string_view(dev->header_id));
    if (it == p->type_infos.end())
        it = p->type_infos.emplace(dev->header_id, tarvik_schema_type_info_t()).first;
    return it->second;
}

extern "C" vyr_event_provider_t *construct_event_provider(vyr_dict_t *params);

void tarvik_provider_add_device(const char *name, int32_t max_errors);
vyr_source_array_t *tarvik_provider_get_sources(vyr_event_provider_t *provider);
int tarvik_provider_write_events(vyr_event_provider_t *provider, uint16_t source_index,
                                 vyr_data_serializer_t *serializer);
bool tarvik_provider_query(vyr_event_provider_t *provider, void *argument,
                           vyr_provider_query_record_t *record);
void tarvik_provider_destroy(vyr_event_provider_t *provider);

// Runs a tool's command line as one of the provider's runs (stop ends it);
// kill_after_ms < 0: no time limit. Returns the wait status as system(3).
int tarvik_run_tool(tarvik_provider_t *p, const char *command, int kill_after_ms = -1);
