#include "tarvik_initialize.h"

#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "vyr_logger.h"
#include "vyr_schema.h"

// The three leading fields every event type starts with.
static const vyr_type_field_info_t kFixedFields[3] = {
    {"timestamp", "Event timestamp", "timestamp", VYR_VALUE_ABSOLUTE, 1},
    {"event_name", "Event name", "char", VYR_VALUE_ABSOLUTE, TARVIK_TEXT_SIZE},
    {"device_name", "Device name", "char", VYR_VALUE_ABSOLUTE, TARVIK_TEXT_SIZE},
};

static void free_field_copies(vyr_type_field_info_t *fields, size_t count) {
    if (!fields) return;
    for (size_t i = 3; i < count; ++i) {
        free(const_cast<char *>(fields[i].name));
        free(const_cast<char *>(fields[i].type_name));
    }
    free(fields);
}

// Builds the event type of one distinct header and records it in type_infos.
static bool _create_tarvik_event_type(tarvik_provider_t *p, vyr_schema_t *schema,
                                      tarvik_provider_dev_info_t *dev) {
    const char *fn = "_create_tarvik_event_type";
    std::vector<vyr_event_tarvik_type_t> *fields = dev->parser->typesInfo;
    const std::string type_name = "tarvik_event_" + std::to_string((unsigned)schema->num_types);
    const size_t n = fields->size();
    VYR_INFO("[tarvik provider] [%s] Found %zu tarvik fields", fn, n);

    vyr_type_field_info_t *defs = (vyr_type_field_info_t *)calloc(n + 3, sizeof *defs);
    if (!defs) {
        VYR_ERROR("[tarvik provider] [%s] Failed to allocate memory for tarvik fields", fn);
        return false;
    }
    memcpy(defs, kFixedFields, sizeof kFixedFields);
    size_t made = 3;
    uint64_t size = TARVIK_EVENT_FIXED_SIZE;
    for (const vyr_event_tarvik_type_t &f : *fields) {
        const char *type_text;
        uint32_t length;
        uint64_t bytes;
        switch (f.type) {
            case TARVIK_FIELD_UINT64:
                type_text = "uint64_t", length = 1, bytes = 8;
                break;
            case TARVIK_FIELD_DOUBLE:
                type_text = "double", length = 1, bytes = 8;
                break;
            case TARVIK_FIELD_STRING:
                type_text = "char", length = TARVIK_TEXT_SIZE, bytes = TARVIK_TEXT_SIZE;
                break;
            default:
                VYR_ERROR("[tarvik provider] [%s] Unknown tarvik field type %d", fn, (int)f.type);
                free_field_copies(defs, made);
                return false;
        }
        char *name = strdup(f.field_name.c_str());
        if (!name) {
            VYR_ERROR("[tarvik provider] [%s] Failed to allocate memory for tarvik field name", fn);
            free_field_copies(defs, made);
            return false;
        }
        char *type_copy = strdup(type_text);
        if (!type_copy) {
            free(name);
            VYR_ERROR("[tarvik provider] [%s] Failed to allocate memory for tarvik field type", fn);
            free_field_copies(defs, made);
            return false;
        }
        // The description is the name itself.
        defs[made] = {name, name, type_copy, VYR_VALUE_ABSOLUTE, length};
        ++made;
        size += bytes;
    }

    uint8_t type_index = 0;
    const char *index_names[] = {"device_name"};
    if (vyr_schema_add_type(schema, type_name.c_str(), defs, n + 3, &type_index) != 0 ||
        vyr_schema_set_field_indexes(schema, type_index, index_names, 1) != 0) {
        free_field_copies(defs, made);
        return false;
    }
    tarvik_schema_type_info_t &info = p->type_infos[dev->header_id];
    info.type_index = type_index;
    info.event_size = size;
    info.fields = fields;
    free_field_copies(defs, made);
    return true;
}

static bool _create_tarvik_event_cache(tarvik_provider_dev_info_t *dev) {
    const tarvik_schema_type_info_t &info = *dev->type_info;
    uint8_t *cache = (uint8_t *)calloc(1, info.event_size);
    if (!cache) {
        VYR_ERROR("[tarvik provider] [%s] Failed to allocate memory for device event cache",
                  "_create_tarvik_event_cache");
        return false;
    }
    strncpy((char *)cache + TARVIK_EVENT_NAME_OFFSET, TARVIK_EVENT_NAME, TARVIK_TEXT_SIZE);
    cache[TARVIK_EVENT_NAME_OFFSET + TARVIK_TEXT_SIZE - 1] = 0;
    strncpy((char *)cache + TARVIK_DEVICE_NAME_OFFSET, dev->name, TARVIK_TEXT_SIZE);
    cache[TARVIK_DEVICE_NAME_OFFSET + TARVIK_TEXT_SIZE - 1] = 0;
    dev->event_cache = cache;
    return true;
}

// lstat, not access: a link (dangling or not) is removed itself, so the
// tool never writes through one.
static void remove_stale(const char *path) {
    struct stat st;
    if (lstat(path, &st) == 0 && remove(path) != 0)
        VYR_WARN("[tarvik provider] [%s] Could not remove file %s", "tarvik_provider_initialize",
                 path);
}

void tarvik_release_parse_state(tarvik_provider_dev_info_t &dev) {
    if (!dev.parser) return;
    std::vector<std::string>().swap(dev.parser->headerFields);
    std::vector<std::string>().swap(dev.parser->valueFields);
    if (dev.type_info && dev.type_info->fields != dev.parser->typesInfo) {
        delete dev.parser->typesInfo;
        dev.parser->typesInfo = nullptr;
    }
}

bool tarvik_provider_initialize(vyr_event_provider_t *provider, vyr_type_system_t *ts) {
    const char *fn = "tarvik_provider_initialize";
    if (!provider || !ts) return false;
    tarvik_provider_t *p = reinterpret_cast<tarvik_provider_t *>(provider);
    if (p->devices.empty()) {
        VYR_ERROR("[tarvik provider] [%s] No devices to collect. Provider will not run", fn);
        return false;
    }
    vyr_schema_t *schema = vyr_type_system_add_schema(ts, TARVIK_PROVIDER_NAME, provider->version,
                                                      &provider->schema_index);
    if (!schema) return false;

    for (auto &entry : p->devices) {
        tarvik_provider_dev_info_t &dev = entry.second;
        // No separator between the name and "hdr.csv".
        const std::string header_path = TARVIK_COLLECT_PREFIX + entry.first + "hdr.csv";
        const std::string command = std::string("timeout 3") + " phyprobe -d " + dev.device_path +
                                    " --tarvik_collect " + header_path + " > /dev/null";
        remove_stale(header_path.c_str());
        remove_stale(dev.out_file_path);

        int rc = tarvik_run_tool(p, command.c_str(), TARVIK_HEADER_RUN_LIMIT_MS);
        if (rc != 0) {
            VYR_WARN("[tarvik provider] [%s] Could not execute command %s, system returned %d", fn,
                     command.c_str(), rc);
            dev.disabled = true;
            continue;
        }
        dev.parser =
            new TarvikFormatParser(header_path, new std::vector<vyr_event_tarvik_type_t>());
        if (!dev.parser->parse()) {
            VYR_WARN("[tarvik provider] [%s] Could not parse tarvik header", fn);
            dev.disabled = true;
            continue;
        }
        dev.header_offset = (uint64_t)dev.parser->valueLineOffset;
        if (dev.header_offset == 0) {
            VYR_WARN("[tarvik provider] [%s] Could not get header offset", fn);
            dev.disabled = true;
            continue;
        }
        dev.header_id = strdup(dev.parser->headerId.c_str());
        if (!dev.header_id) {
            // Treated like a failed header: this device cannot be typed.
            dev.disabled = true;
            continue;
        }
        if (p->type_infos.count(dev.header_id)) {
            VYR_INFO(
                "[tarvik provider] [%s] Device %s has the same tarvik header as another device", fn,
                dev.name);
        } else if (!_create_tarvik_event_type(p, schema, &dev)) {
            VYR_ERROR("[tarvik provider] [%s] Could not create tarvik event type", fn);
            tarvik_provider_destroy(provider);
            return false;
        }
        dev.type_info = &p->type_infos[dev.header_id];
        if (!_create_tarvik_event_cache(&dev)) {
            VYR_ERROR("[tarvik provider] [%s] Could not create tarvik event cache", fn);
            tarvik_provider_destroy(provider);
            return false;
        }
        tarvik_release_parse_state(dev);
    }
    return true;
}
