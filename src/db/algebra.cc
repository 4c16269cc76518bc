// Set operations between source lists and the sources of a received record. Each result is
// written whole into the caller's SourceSet, so no operation sees what an earlier one
// left behind.
#include <cstdio>
#include <cstring>

#include "base/addr.h"
#include "base/log.h"
#include "db/db.h"
#include "iface/interface.h"

namespace mldproxy {

namespace {

const uint32_t kAddrLen = 16;

bool in_record(const uint8_t* rec_srcs, uint32_t nsrc, const uint8_t* addr) {
    for (uint32_t i = 0; i < nsrc; i++) {
        if (same_address(rec_srcs + kAddrLen * i, addr)) {
            return true;
        }
    }
    return false;
}

// Appends an entry and links it behind the one before; false when the result is full, after
// the limit's line. Every field is written, so nothing of an earlier result shows through.
bool put_result(SourceSet* result, const uint8_t* addr, int32_t timer) {
    if (result->n == kMaxSources) {
        report_limit(Limit::Sources);
        return false;
    }
    Source* e = &result->entries[result->n];
    std::memset(e, 0, sizeof *e);
    std::memcpy(e->address, addr, kAddrLen);
    e->timer = timer;
    if (result->n > 0) {
        result->entries[result->n - 1].next = e;
    }
    result->n++;
    return true;
}

}  // namespace

uint32_t subtract_lists(SourceSet* result, const Source* a, const Source* b) {
    result->n = 0;
    for (; a; a = a->next) {
        if (!list_has(b, a->address) && !put_result(result, a->address, a->timer)) {
            break;
        }
    }
    return result->n;
}

uint32_t record_minus_list(SourceSet* result, const Source* list, const uint8_t* rec_srcs,
                           uint32_t nsrc) {
    result->n = 0;
    for (uint32_t i = 0; i < nsrc; i++) {
        const uint8_t* addr = rec_srcs + kAddrLen * i;
        if (!list_has(list, addr) && !put_result(result, addr, 0)) {
            break;
        }
    }
    return result->n;
}

uint32_t list_minus_record(SourceSet* result, const Source* list, const uint8_t* rec_srcs,
                           uint32_t nsrc) {
    result->n = 0;
    for (; list; list = list->next) {
        if (!in_record(rec_srcs, nsrc, list->address) &&
            !put_result(result, list->address, list->timer)) {
            break;
        }
    }
    return result->n;
}

uint32_t intersect_with_record(SourceSet* result, const Source* list, const uint8_t* rec_srcs,
                               uint32_t nsrc) {
    result->n = 0;
    for (; list; list = list->next) {
        if (in_record(rec_srcs, nsrc, list->address) &&
            !put_result(result, list->address, list->timer)) {
            break;
        }
    }
    return result->n;
}

int intersect_in_place(Source** a, const Source* b) {
    int kept = 0;
    Source* next = nullptr;
    for (Source* s = *a; s; s = next) {
        next = s->next;
        if (list_has(b, s->address)) {
            kept++;
        } else {
            remove_from_list(a, s->address);
        }
    }
    return kept;
}

bool intersect_group_list_with_record(Router* r, Group* g, ListKind kind, const uint8_t* rec_srcs,
                                      uint32_t nsrc, Link* ifp) {
    if (kind > ListKind::Excluded) {
        log_message("\n Invalid List Type\n");
        return false;
    }
    Source* next = nullptr;
    for (Source* s = *select_list(g, g->entry, kind); s; s = next) {
        next = s->next;
        if (in_record(rec_srcs, nsrc, s->address)) {
            continue;
        }
        uint8_t addr[16];
        std::memcpy(addr, s->address, sizeof addr);  // the entry is freed by the removal
        if (!remove_from_group_list(r, g, g->entry, kind, addr, ifp)) {
            log_message("\n Removal of entry failed\n");
            return false;
        }
    }
    return true;
}

int empty_group_list(Router* r, Group* g, ForwardingEntry* e, ListKind kind, Link* ifp) {
    if (kind == ListKind::QuerySuppressed || kind == ListKind::QueryNotSuppressed ||
        kind > ListKind::Block) {
        log_message("\n FATAL: Req for deleteing unknown list type in the group\n");
        return 0;
    }
    Source** list =
        kind <= ListKind::Excluded ? select_list(g, g->entry, kind) : select_list(g, e, kind);
    Source* next = nullptr;
    for (Source* s = list ? *list : nullptr; s; s = next) {
        next = s->next;
        uint8_t addr[16];
        std::memcpy(addr, s->address, sizeof addr);
        remove_from_group_list(r, g, e, kind, addr, ifp);
    }
    return 0;
}

}  // namespace mldproxy
