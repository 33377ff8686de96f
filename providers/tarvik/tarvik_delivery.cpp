#include "tarvik_delivery.h"

#include "vyr_logger.h"
#include "vyr_serializer.h"

int tarvik_provider_write_source_events(tarvik_provider_t *p, vyr_data_serializer_t *serializer) {
    const uint64_t count = p->devices.size();
    // A cursor at (or, after a reconfiguration, past) the end starts over.
    if (p->next_device >= count) p->next_device = 0;
    auto it = p->devices.begin();
    std::advance(it, (long)p->next_device.load());
    for (; it != p->devices.end(); ++it) {
        tarvik_provider_dev_info_t &dev = it->second;
        if (dev.disabled || !dev.new_data) {
            p->next_device++;
            continue;
        }
        pthread_mutex_lock(&dev.event_lock);
        VYR_DEBUG("[tarvik provider] Writing event for device %s", dev.name);
        auto info = p->type_infos.find(dev.header_id);
        if (info == p->type_infos.end())
            info = p->type_infos.emplace(dev.header_id, tarvik_schema_type_info_t()).first;
        int written = (int)vyr_data_serializer_write_events(
            serializer, p->provider.schema_index, info->second.type_index, dev.event_cache, 1);
        pthread_mutex_unlock(&dev.event_lock);
        if (written < 0) return VYR_WRITE_ERROR;
        if (written == 0) return VYR_WRITE_BUFFER_FULL;
        p->next_device++;
    }
    return VYR_WRITE_DONE;
}
