#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/log.h"
#include "base/addr.h"
#include "db/db.h"
#include "iface/interface.h"
#include "kernel/mroute.h"

namespace mldproxy {

namespace {

void free_host_state(HostState** hs) {
    if (*hs) {
        free_list(&(*hs)->list);
        free(*hs);
        *hs = nullptr;
    }
}

ForwardingRecord* find_record(ForwardingRecord* list, const uint8_t* src) {
    for (; list; list = list->next) {
        if (same_address(list->address, src)) {
            return list;
        }
    }
    return nullptr;
}

// Whatever the lists still hold goes with the record, so nothing is ever leaked.
void free_pending_report(ForwardingEntry* e) {
    PendingReport* p = e->pending;
    if (!p) {
        return;
    }
    forget_retransmission(p);
    if (p->sources) {
        free_list(&p->sources->to_exclude);
        free_list(&p->sources->to_include);
        free_list(&p->sources->allow);
        free_list(&p->sources->block);
        free(p->sources);
    }
    free(p);
    e->pending = nullptr;
}

}  // namespace

PendingReport* pending_report(ForwardingEntry* e) {
    if (!e->pending) {
        e->pending = static_cast<PendingReport*>(calloc(1, sizeof(PendingReport)));
        if (e->pending) {
            e->pending->entry = e;
        }
    }
    return e->pending;
}

void drop_spent_report(ForwardingEntry* e) {
    if (e->pending && !state_change_pending(e)) {
        free_pending_report(e);
    }
}

uint32_t forwarding_entry_count(const Router* r) {
    return r->forwarding_entries;
}

ForwardingEntry* find_forwarding_entry(Router* r, const uint8_t* grp) {
    return index_find(&r->entry_index, grp);
}

ForwardingEntry* create_forwarding_entry(const uint8_t* grp) {
    auto* e = static_cast<ForwardingEntry*>(calloc(1, sizeof(ForwardingEntry)));
    if (!e) {
        log_line("MLDRT: Mfdb create failed");
        return nullptr;
    }
    std::memcpy(e->address, grp, 16);
    return e;
}

ForwardingEntry* add_forwarding_entry(Router* r, const uint8_t* grp) {
    ForwardingEntry* e = find_forwarding_entry(r, grp);
    if (e) {
        return e;
    }
    if (r->forwarding_entries >= kMaxGroups) {
        report_limit(Limit::Groups);
        return nullptr;
    }
    e = create_forwarding_entry(grp);
    if (!e) {
        return nullptr;
    }
    if (!index_insert(&r->entry_index, e)) {
        log_line("MLDRT: Mfdb create failed");
        delete_forwarding_entry(r, e);
        return nullptr;
    }
    e->next = r->entries;
    if (r->entries) {
        r->entries->pprev = &e->next;
    }
    e->pprev = &r->entries;
    r->entries = e;
    r->forwarding_entries++;
    return e;
}

void delete_forwarding_entry(Router* r, ForwardingEntry* e) {
    index_remove(&r->entry_index, e);
    forget_changed(e);
    free_list(&e->host_list);
    free_host_state(&e->new_host_state);
    free_pending_report(e);
    while (e->records) {
        ForwardingRecord* next = e->records->next;
        free(e->records);
        e->records = next;
    }
    if (e->pprev) {
        *e->pprev = e->next;
        if (e->next) {
            e->next->pprev = e->pprev;
        }
        r->forwarding_entries--;
    }
    free(e);
}

void free_forwarding_entries(Router* r) {
    while (r->entries) {
        delete_forwarding_entry(r, r->entries);
    }
}

void map_group_to_entry(Group* g, ForwardingEntry* e) {
    if (g->entry) {
        return;
    }
    g->entry = e;
    mark_changed(e);  // a new group on a link: even an empty one must be looked at
}

ForwardingRecord* find_forwarding_record(Group* g, const uint8_t* src) {
    return g->entry ? find_record(g->entry->records, src) : nullptr;
}

bool has_forwarding_marks(Group* g, const uint8_t* src) {
    const ForwardingRecord* fw = find_forwarding_record(g, src);
    return fw && (fw->wanted != 0 || fw->excluded != 0);
}

ForwardingRecord* create_forwarding_record(const uint8_t* src) {
    auto* fw = static_cast<ForwardingRecord*>(calloc(1, sizeof(ForwardingRecord)));
    if (!fw) {
        log_line("MLDRT: Creating fwdinfo failed");
        return nullptr;
    }
    std::memcpy(fw->address, src, 16);
    return fw;
}

ForwardingRecord* add_forwarding_record(Group* g, const uint8_t* src) {
    if (!g->entry) {
        return nullptr;
    }
    ForwardingRecord* fw = find_record(g->entry->records, src);
    if (fw) {
        return fw;
    }
    fw = create_forwarding_record(src);
    if (fw) {
        fw->next = g->entry->records;
        g->entry->records = fw;
    }
    return fw;
}

void delete_forwarding_record(Group* g, const uint8_t* src) {
    if (!g->entry) {
        return;
    }
    for (ForwardingRecord** link = &g->entry->records; *link; link = &(*link)->next) {
        if (same_address((*link)->address, src)) {
            ForwardingRecord* gone = *link;
            *link = gone->next;
            free(gone);
            return;
        }
    }
}

void outgoing_mifs(const ForwardingEntry* e, const uint8_t* src, uint8_t* oifs) {
    const ForwardingRecord* own = find_record(e->records, src);
    const ForwardingRecord* any = find_record(e->records, kAddrAny);
    for (uint32_t i = 0; i < kMifMarks; i++) {
        uint8_t mark = own ? mark_at(own, i) : 0;
        bool by_any = any && mark_at(any, i) == kMarkWanted;
        oifs[i] = (mark == kMarkWanted || (by_any && mark != kMarkExcluded)) ? 1 : 0;
    }
}

bool has_listeners(const HostState* hs) {
    return hs && (hs->mode == FilterMode::Exclude || hs->list);
}

bool group_listened(Router* r, const uint8_t* grp) {
    const ForwardingEntry* e = find_forwarding_entry(r, grp);
    if (!e) {
        return false;
    }
    const HostState hs = reported_state(e);
    return has_listeners(&hs);
}

bool state_change_pending(const ForwardingEntry* e) {
    return e->to_exclude_count || e->to_include_count || e->allow_count || e->block_count;
}

}  // namespace mldproxy
