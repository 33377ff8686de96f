#include "tarvik_provider.h"

#include <stdlib.h>
#include <string.h>

#include <sstream>

#include "device_utils.h"
#include "tarvik_collect.h"
#include "tarvik_delivery.h"
#include "tarvik_initialize.h"
#include "tarvik_service.h"
#include "vyr_logger.h"

static_assert(offsetof(vyr_event_provider_t, version) == 0, "descriptor layout");
static_assert(offsetof(vyr_event_provider_t, name) == 8, "descriptor layout");
static_assert(offsetof(vyr_event_provider_t, description) == 16, "descriptor layout");
static_assert(offsetof(vyr_event_provider_t, initialize) == 32, "descriptor layout");
static_assert(offsetof(vyr_event_provider_t, start) == 48, "descriptor layout");
static_assert(offsetof(vyr_event_provider_t, write_events) == 56, "descriptor layout");
static_assert(offsetof(vyr_event_provider_t, stop) == 64, "descriptor layout");
static_assert(offsetof(vyr_event_provider_t, destroy) == 72, "descriptor layout");
static_assert(offsetof(vyr_event_provider_t, get_sources) == 80, "descriptor layout");
static_assert(offsetof(vyr_event_provider_t, query) == 88, "descriptor layout");
static_assert(offsetof(vyr_event_provider_t, host_word13) == 96, "descriptor layout");
static_assert(offsetof(vyr_event_provider_t, host_words) == 104, "descriptor layout");
static_assert(offsetof(vyr_event_provider_t, schema_index) == 144, "descriptor layout");
static_assert(sizeof(std::atomic<bool>) == sizeof(bool), "flags keep their plain size");
static_assert(sizeof(std::atomic<int32_t>) == sizeof(int32_t), "counters keep their size");
static_assert(sizeof(std::atomic<uint64_t>) == sizeof(uint64_t), "cursor keeps its size");

// Zero-filled at load; the maps are built by the static initialiser.
static tarvik_provider_t g_tarvik_provider;

tarvik_provider_t *tarvik_provider_instance() {
    return &g_tarvik_provider;
}

tarvik_provider_t::~tarvik_provider_t() {
    devices.clear();
    type_infos.clear();
}

int tarvik_run_tool(tarvik_provider_t *p, const char *command, int kill_after_ms) {
    vyr::common::CommandOptions options;
    options.kill_after_ms = kill_after_ms;
    options.group = &p->tools;
    return vyr::common::run_command(command, options);
}

static void free_and_clear(char *&text) {
    free(text);
    text = nullptr;
}

void tarvik_provider_add_device(const char *name, int32_t max_errors) {
    tarvik_provider_t *p = &g_tarvik_provider;
    const std::string dev_name = name;
    const std::string out_file_path = TARVIK_COLLECT_PREFIX + dev_name + ".csv";
    const std::string device_path = TARVIK_DEVICE_DIR "/" + dev_name;
    const std::string base =
        "phyprobe -d " + device_path + " --tarvik_collect " + out_file_path + " --tarvik_rewrite";
    const std::string service = base + " --service_start " +
                                std::to_string(p->update_interval_sec) + " --service_iterations " +
                                std::to_string(TARVIK_SERVICE_ITERATIONS) + " > /dev/null";
    const std::string command = base + " > /dev/null";

    // Heap copies in this order; a failed copy returns at once and the copies
    // made so far stay allocated.
    char *c_name = nullptr, *c_device_path = nullptr, *c_out_file_path = nullptr,
         *c_command = nullptr, *c_service_command = nullptr;
    const struct {
        const std::string &text;
        char *&copy;
        const char *message;
    } copies[] = {
        {dev_name, c_name, "[tarvik provider] [%s] [%s] Failed to allocate memory for device name"},
        {device_path, c_device_path,
         "[tarvik provider] [%s][%s] Failed to allocate memory for device path"},
        {out_file_path, c_out_file_path,
         "[tarvik provider] [%s][%s] Failed to allocate memory for out filepath"},
        {command, c_command, "[tarvik provider] [%s] [%s] Failed to allocate memory for command"},
        {service, c_service_command,
         "[tarvik provider] [%s] [%s] Failed to allocate memory for service command"},
    };
    for (const auto &c : copies) {
        c.copy = strdup(c.text.c_str());
        if (!c.copy) {
            VYR_ERROR(c.message, "tarvik_provider_add_device", name);
            return;
        }
    }

    // A second registration of a name overwrites the whole record; the old
    // record's resources are not released.
    tarvik_provider_dev_info_t &d = p->devices[dev_name];
    tarvik_delivery_devices_changed();
    d.name = c_name;
    d.device_path = c_device_path;
    d.disabled = false;
    d.out_file_path = c_out_file_path;
    d.out_file = nullptr;
    d.command = c_command;
    d.service_command = c_service_command;
    d.event_cache = nullptr;
    d.new_data = false;
    d.header_id = nullptr;
    d.type_info = nullptr;
    d.header_offset = 0;
    d.parser = nullptr;
    d.event_lock = PTHREAD_MUTEX_INITIALIZER;
    d.service_thread = 0;
    d.service_stop = false;
    d.parse_errors = 0;
    d.max_errors = max_errors;
    d.update_interval_sec = p->update_interval_sec;

    VYR_INFO("[tarvik provider] Device %s will be collected to file %s", d.device_path,
             d.out_file_path);
}

// Splits at every comma like a stream read up to each separator: no trimming,
// empty pieces kept, nothing after a final comma, nothing for an empty text.
static std::vector<std::string> split_device_list(const std::string &text) {
    std::vector<std::string> pieces;
    std::istringstream in(text);
    std::string piece;
    while (std::getline(in, piece, ',')) pieces.push_back(piece);
    return pieces;
}

extern "C" vyr_event_provider_t *construct_event_provider(vyr_dict_t *params) {
    tarvik_provider_t *p = &g_tarvik_provider;
    vyr_event_provider_t *d = &p->provider;
    d->version = 1;
    d->name = TARVIK_PROVIDER_NAME;
    d->description = TARVIK_PROVIDER_DESCRIPTION;
    d->initialize = tarvik_provider_initialize;
    d->start = tarvik_provider_start;
    d->write_events = tarvik_provider_write_events;
    d->stop = tarvik_provider_stop;
    d->destroy = tarvik_provider_destroy;
    d->get_sources = tarvik_provider_get_sources;
    d->query = tarvik_provider_query;
    d->host_word13 = 0;
    p->collect_thread = 0;
    p->stop_requested = false;
    p->tools.open();
    p->write_callbacks[0] = tarvik_provider_write_source_events;
    p->update_interval_sec = TARVIK_DEFAULT_INTERVAL_SEC;

    // Conversion errors (std::invalid_argument / std::out_of_range carrying
    // "stoull" or "stoi") are not caught: the host sees them.
    const char *interval = vyr_dict_get(params, "tarvik_update_interval_sec");
    if (interval) p->update_interval_sec = std::stoull(interval, nullptr, 10);
    VYR_INFO("[tarvik provider] Update interval is set to %lu sec",
             (unsigned long)p->update_interval_sec);

    p->run_as_service = true;
    const char *as_service = vyr_dict_get(params, "tarvik_phyprobe_as_service");
    if (as_service) p->run_as_service = std::stoi(as_service, nullptr, 10) != 0;
    if (p->run_as_service)
        VYR_INFO("[tarvik provider] phyprobe will run as service");
    else
        VYR_INFO("[tarvik provider] phyprobe will on each iteration");

    int32_t max_errors = TARVIK_DEFAULT_MAX_ERRORS;
    const char *max_errors_text = vyr_dict_get(params, "tarvik_max_errors");
    if (max_errors_text) max_errors = std::stoi(max_errors_text, nullptr, 10);

    const char *wanted = vyr_dict_get(params, "tarvik_devices");

    p->devices.clear();

    std::vector<std::string> discovered;
    if (!vyr::common::device_utils_get_zdt_hca_names(discovered, false))
        VYR_ERROR("[tarvik provider] Failed to get allowed devices");

    if (!wanted) {
        for (const std::string &name : discovered)
            tarvik_provider_add_device(name.c_str(), max_errors);
    } else {
        for (const std::string &piece : split_device_list(wanted)) {
            bool found = false;
            for (const std::string &name : discovered)
                if (name == piece) {
                    found = true;
                    break;
                }
            if (found)
                tarvik_provider_add_device(piece.c_str(), max_errors);
            else
                VYR_WARN("[tarvik provider] Device %s is set to collect, but not supported",
                         piece.c_str());
        }
    }
    return d;
}

vyr_source_array_t *tarvik_provider_get_sources(vyr_event_provider_t *) {
    vyr_source_array_t *array = vyr_create_source_array();
    if (!array) return nullptr;
    vyr_source_t *source = vyr_create_default_source(TARVIK_PROVIDER_NAME);
    if (!source) {
        vyr_destroy_source_array(array);
        return nullptr;
    }
    if (!vyr_source_array_append(array, source)) {
        vyr_destroy_source_array(array);
        vyr_destroy_source(source);
        return nullptr;
    }
    return array;
}

int tarvik_provider_write_events(vyr_event_provider_t *provider, uint16_t source_index,
                                 vyr_data_serializer_t *serializer) {
    // The host passes only indexes of sources that get_sources returned.
    if (!provider || !serializer) return VYR_WRITE_ERROR;
    tarvik_provider_t *p = reinterpret_cast<tarvik_provider_t *>(provider);
    return p->write_callbacks[source_index](p, serializer);
}

bool tarvik_provider_query(vyr_event_provider_t *, void *, vyr_provider_query_record_t *record) {
    if (!record) return false;
    record->value = 7;
    record->reserved32 = 0;
    record->reserved16 = 0;
    return true;
}

void tarvik_provider_destroy(vyr_event_provider_t *provider) {
    if (!provider) return;
    tarvik_provider_t *p = reinterpret_cast<tarvik_provider_t *>(provider);
    // Threads still running read the records released below.
    if (tarvik_threads_running(p)) {
        try {
            tarvik_provider_stop(provider);
        } catch (...) {
            // A marker stop cannot read: the threads are gone all the same.
        }
    }
    for (auto &entry : p->devices) {
        tarvik_provider_dev_info_t &d = entry.second;
        free_and_clear(d.name);
        free_and_clear(d.device_path);
        free_and_clear(d.out_file_path);
        free_and_clear(d.command);
        free(d.event_cache);
        d.event_cache = nullptr;
        if (d.out_file) {
            fclose(d.out_file);
            d.out_file = nullptr;
        }
        if (d.parser) {
            delete d.parser->typesInfo;
            delete d.parser;
            d.parser = nullptr;
        }
        free_and_clear(d.header_id);
        d.type_info = nullptr;
        // service_command is deliberately not freed.
    }
    p->devices.clear();
    // Nothing of this life may reach the next construct: the type entries
    // point at the field lists freed above.
    p->type_infos.clear();
    p->next_device = 0;
    p->stop_requested = false;
    tarvik_delivery_devices_changed();
}
