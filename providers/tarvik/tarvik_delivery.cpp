#include "tarvik_delivery.h"

#include <string_view>

#include "vyr_logger.h"
#include "vyr_serializer.h"

namespace {

using DeviceMap = std::map<std::string, tarvik_provider_dev_info_t>;

// Where the last call stopped with the host's buffer full. Walking from
// begin() to the cursor would cost O(devices) per call, so the iterator is
// kept together with the cursor value it stands at. It is trusted only while
// the map is the one it was taken from: same provider, same size, and no
// device added or removed since (tarvik_delivery_devices_changed forgets it).
// Only the host's thread writes events, so this needs no lock.
struct ResumePoint {
    const tarvik_provider_t *provider = nullptr;
    uint64_t position = 0;
    size_t count = 0;
    DeviceMap::iterator it;
};

ResumePoint g_resume;

DeviceMap::iterator start_at(tarvik_provider_t *p, uint64_t position) {
    if (position == 0) return p->devices.begin();
    const ResumePoint &r = g_resume;
    if (r.provider == p && r.position == position && r.count == p->devices.size()) return r.it;
    auto it = p->devices.begin();
    std::advance(it, (long)position);
    return it;
}

void remember(tarvik_provider_t *p, DeviceMap::iterator it) {
    g_resume.provider = p;
    g_resume.position = p->next_device;
    g_resume.count = p->devices.size();
    g_resume.it = it;
}

}  // namespace

void tarvik_delivery_devices_changed() {
    g_resume.provider = nullptr;
}

int tarvik_provider_write_source_events(tarvik_provider_t *p, vyr_data_serializer_t *serializer) {
    const uint64_t count = p->devices.size();
    // The cursor is counted locally and stored on the way out: the callback is
    // not reentrant, and an atomic add per device costs more than the copy.
    uint64_t cursor = p->next_device.load(std::memory_order_relaxed);
    // A cursor at (or, after a reconfiguration, past) the end starts over.
    if (cursor >= count) {
        cursor = 0;
        p->next_device.store(0, std::memory_order_relaxed);
    }
    for (auto it = start_at(p, cursor); it != p->devices.end(); ++it) {
        tarvik_provider_dev_info_t &dev = it->second;
        if (dev.disabled || !dev.new_data) {
            ++cursor;
            continue;
        }
        pthread_mutex_lock(&dev.event_lock);
        VYR_DEBUG("[tarvik provider] Writing event for device %s", dev.name);
        int written = (int)vyr_data_serializer_write_events(
            serializer, p->provider.schema_index, tarvik_device_type_info(p, &dev).type_index,
            dev.event_cache, 1);
        pthread_mutex_unlock(&dev.event_lock);
        if (written <= 0) {
            // The cursor stays on this device; the next call starts here.
            p->next_device.store(cursor, std::memory_order_relaxed);
            remember(p, it);
            return written < 0 ? VYR_WRITE_ERROR : VYR_WRITE_BUFFER_FULL;
        }
        ++cursor;
    }
    p->next_device.store(cursor, std::memory_order_relaxed);
    return VYR_WRITE_DONE;
}
