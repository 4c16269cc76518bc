#include <cstdlib>
#include <cstring>

#include "iface/system_links.h"

namespace mldproxy {

SystemLinkTable g_sysIfInfo;

void system_link_reset() {
    free(g_sysIfInfo.entries);
    g_sysIfInfo = SystemLinkTable{};
}

SystemLink* system_link_find(uint32_t ifindex) {
    for (uint32_t i = 0; i < g_sysIfInfo.count; i++) {
        if (g_sysIfInfo.entries[i].ifindex == ifindex) {
            return &g_sysIfInfo.entries[i];
        }
    }
    return nullptr;
}

SystemLink* system_link_get(uint32_t ifindex) {
    SystemLink* entry = system_link_find(ifindex);
    if (entry) {
        return entry;
    }
    SystemLinkTable& t = g_sysIfInfo;
    if (t.count == t.capacity) {
        uint32_t capacity = t.capacity ? 2 * t.capacity : 8;
        if (capacity > kMaxSysif) {
            return nullptr;
        }
        void* grown = realloc(t.entries, capacity * sizeof(SystemLink));
        if (!grown) {
            return nullptr;
        }
        t.entries = static_cast<SystemLink*>(grown);
        t.capacity = capacity;
    }
    entry = &t.entries[t.count++];
    std::memset(entry, 0, sizeof *entry);
    entry->ifindex = ifindex;
    return entry;
}

void system_link_remove(uint32_t ifindex) {
    SystemLink* entry = system_link_find(ifindex);
    if (entry) {
        *entry = g_sysIfInfo.entries[--g_sysIfInfo.count];
    }
}

}  // namespace mldproxy
