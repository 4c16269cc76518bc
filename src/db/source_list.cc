// Plain source lists: lookup, removal and freeing of entries.
#include <cstdlib>

#include "base/addr.h"
#include "db/db.h"

namespace mldproxy {

Source* find_source(Source* list, const uint8_t* src) {
    for (; list; list = list->next) {
        if (same_address(list->address, src)) {
            return list;
        }
    }
    return nullptr;
}

bool list_has(const Source* list, const uint8_t* src) {
    for (; list; list = list->next) {
        if (same_address(list->address, src)) {
            return true;
        }
    }
    return false;
}

void remove_from_list(Source** list, const uint8_t* src) {
    for (Source** link = list; *link; link = &(*link)->next) {
        if (same_address((*link)->address, src)) {
            Source* gone = *link;
            *link = gone->next;
            free(gone);
            return;
        }
    }
}

void free_list(Source** list) {
    while (*list) {
        Source* next = (*list)->next;
        free(*list);
        *list = next;
    }
}

}  // namespace mldproxy
