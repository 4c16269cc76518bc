#include <cstdlib>
#include <cstring>

#include "iface/system_links.h"

namespace mldproxy {

void system_link_reset(SystemLinkTable* t) {
    free(t->entries);
    *t = SystemLinkTable{};
}

SystemLink* system_link_find(SystemLinkTable* t, uint32_t ifindex) {
    for (uint32_t i = 0; i < t->count; i++) {
        if (t->entries[i].ifindex == ifindex) {
            return &t->entries[i];
        }
    }
    return nullptr;
}

SystemLink* system_link_get(SystemLinkTable* table, uint32_t ifindex) {
    SystemLink* entry = system_link_find(table, ifindex);
    if (entry) {
        return entry;
    }
    SystemLinkTable& t = *table;
    if (t.count == t.capacity) {
        uint32_t capacity = t.capacity ? 2 * t.capacity : 8;
        if (capacity > kMaxSystemLinks) {
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

void system_link_remove(SystemLinkTable* t, uint32_t ifindex) {
    SystemLink* entry = system_link_find(t, ifindex);
    if (entry) {
        *entry = t->entries[--t->count];
    }
}

}  // namespace mldproxy
