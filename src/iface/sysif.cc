#include <cstdlib>
#include <cstring>

#include "iface/netlink.h"

mldrt_sysif_table g_sysIfInfo;

void mldrt_sysif_reset() {
    free(g_sysIfInfo.entries);
    g_sysIfInfo = mldrt_sysif_table{};
}

mldrt_sysif* mldrt_sysif_find(uint32_t ifindex) {
    for (uint32_t i = 0; i < g_sysIfInfo.count; i++) {
        if (g_sysIfInfo.entries[i].ifindex == ifindex) {
            return &g_sysIfInfo.entries[i];
        }
    }
    return nullptr;
}

mldrt_sysif* mldrt_sysif_get(uint32_t ifindex) {
    mldrt_sysif* entry = mldrt_sysif_find(ifindex);
    if (entry) {
        return entry;
    }
    mldrt_sysif_table& t = g_sysIfInfo;
    if (t.count == t.capacity) {
        uint32_t capacity = t.capacity ? 2 * t.capacity : 8;
        if (capacity > MLDRT_MAX_SYSIF) {
            return nullptr;
        }
        void* grown = realloc(t.entries, capacity * sizeof(mldrt_sysif));
        if (!grown) {
            return nullptr;
        }
        t.entries = static_cast<mldrt_sysif*>(grown);
        t.capacity = capacity;
    }
    entry = &t.entries[t.count++];
    std::memset(entry, 0, sizeof *entry);
    entry->ifindex = ifindex;
    return entry;
}

void mldrt_sysif_remove(uint32_t ifindex) {
    mldrt_sysif* entry = mldrt_sysif_find(ifindex);
    if (entry) {
        *entry = g_sysIfInfo.entries[--g_sysIfInfo.count];
    }
}
