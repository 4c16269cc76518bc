// The once-a-second pass over the listener database (RFC 3810 section 7.2 timers, as this
// router applies them): query retransmissions, source and filter timers, EXCLUDE-to-INCLUDE
// on filter-timer expiry, and the removal of what has become empty.
#include <cstring>

#include "base/addr.h"
#include "db/db.h"
#include "mld/timers.h"
#include "iface/interface.h"
#include "kernel/mroute.h"
#include "mld/mld.h"

namespace mldproxy {

namespace {

uint32_t gmi(const Router* r) {
    return r->robustness * r->query_interval + r->query_response_interval / 1000u;
}

void send_group_query(Router* r, Link* ifp, const Group* g, const Source* srcs, uint32_t count) {
    QueryParams q{};
    std::memcpy(q.group, g->address, 16);
    std::memcpy(q.dst, g->address, 16);
    q.sources = srcs;
    q.src_count = count;
    send_query(r, ifp, &q);
}

void retransmit_group_query(Router* r, Link* ifp, Group* g) {
    GroupQueries* q = g->queries;
    if (!q || q->group_count <= 0 || --q->group_timer != 0) {
        return;
    }
    send_group_query(r, ifp, g, nullptr, 0);
    q->group_timer = static_cast<int32_t>(r->last_listener_query_interval);
    q->group_count--;
}

// Each retransmission asks for the sources whose counts remain (RFC 3810 section 7.6.3.2).
void retransmit_source_queries(Router* r, Link* ifp, Group* g) {
    GroupQueries* q = g->queries;
    if (!q || q->source_count <= 0 || --q->source_timer != 0) {
        return;
    }
    send_source_queries(r, ifp, g);
    if (--q->source_count != 0) {
        q->source_timer = static_cast<int32_t>(r->last_listener_query_interval);
    }
    age_retransmission_lists(g);
}

// INCLUDE mode: sources age and leave with their forwarding.
void age_include(Router* r, Link* ifp, Group* g) {
    Source* next = nullptr;
    for (Source* s = g->include_list; s; s = next) {
        next = s->next;
        if (s->timer >= 2) {
            s->timer--;
            continue;
        }
        uint8_t addr[16];
        std::memcpy(addr, s->address, sizeof addr);
        remove_from_group_list(r, g, g->entry, ListKind::Include, addr, ifp);
    }
}

// Filter timer expiry (RFC 3810 section 7.5): back to INCLUDE with the requested sources,
// each restarted at GMI; the link no longer takes every source of the group.
void expire_filter(Router* r, Link* ifp, Group* g) {
    empty_group_list(r, g, g->entry, ListKind::Excluded, ifp);
    for (Source* s = g->requested_list; s; s = s->next) {
        add_to_group_list(r, g, ListKind::Include, s->address, static_cast<int32_t>(gmi(r)), ifp);
    }
    free_list(&g->requested_list);
    withdraw_whole_group(r, g, ifp);
    g->filter_mode = FilterMode::Include;
    if (g->entry) {
        g->entry->exclude_count--;
    }
    mark_changed(g->entry);
}

// EXCLUDE mode, filter timer running: requested sources that run out become excluded.
void age_exclude(Router* r, Link* ifp, Group* g) {
    g->filter_timer--;
    Source* next = nullptr;
    for (Source* s = g->requested_list; s; s = next) {
        next = s->next;
        if (s->timer >= 2) {
            s->timer--;
            continue;
        }
        uint8_t addr[16];
        std::memcpy(addr, s->address, sizeof addr);
        add_to_group_list(r, g, ListKind::Excluded, addr, s->timer, ifp);
        remove_from_group_list(r, g, g->entry, ListKind::Requested, addr, ifp);
    }
}

// One second of the group's source, filter and compatibility timers.
void age_group(Router* r, Link* ifp, Group* g) {
    if (g->v1_host_timer > 0) {
        g->v1_host_timer--;
    }
    if (g->filter_mode == FilterMode::Include) {
        age_include(r, ifp, g);
    } else if (g->filter_mode == FilterMode::Exclude) {
        if (g->filter_timer < 2) {
            expire_filter(r, ifp, g);
        } else {
            age_exclude(r, ifp, g);
        }
    }
}

bool removable(const Group* g) {
    const GroupQueries* q = g->queries;
    return g->filter_mode == FilterMode::Include && !g->include_list &&
           (!q || (q->group_count <= 0 && q->source_count <= 0));
}

// One tick of one group: its query retransmissions, then its timers.
void tick_group(Router* r, Link* ifp, Group* g) {
    // A group that was left empty with its last query sent a tick ago can go: its entry is
    // looked at again for that. The tick between gives hosts time to answer that query.
    if (removable(g)) {
        mark_changed(g->entry);
    }
    retransmit_group_query(r, ifp, g);
    retransmit_source_queries(r, ifp, g);
    drop_spent_queries(g);
    age_group(r, ifp, g);
}

void free_group(Link* ifp, Group* g) {
    while (g->hosts) {
        delete_host(g, g->hosts);
    }
    free_list(&g->include_list);
    free_list(&g->requested_list);
    free_list(&g->excluded_list);
    g->entry = nullptr;
    delete_group(ifp, g);
}

// Removes the removable groups mapped to `e`; true while any mapped group remains. A link
// has at most one group of the entry's address, found through its index.
bool release_unused_groups(Router* r, ForwardingEntry* e) {
    bool in_use = false;
    for (Link* ifp = r->interfaces; ifp; ifp = ifp->next) {
        Group* g = find_group(ifp, e->address);
        if (!g || g->entry != e) {
            continue;
        }
        if (removable(g)) {
            free_group(ifp, g);
        } else {
            in_use = true;
        }
    }
    return in_use;
}

void release_group(Router* r, Group* g, Link* ifp) {
    while (g->include_list) {
        uint8_t addr[16];
        std::memcpy(addr, g->include_list->address, sizeof addr);
        remove_from_group_list(r, g, g->entry, ListKind::Include, addr, ifp);
    }
    while (g->requested_list) {
        uint8_t addr[16];
        std::memcpy(addr, g->requested_list->address, sizeof addr);
        remove_from_group_list(r, g, g->entry, ListKind::Requested, addr, ifp);
    }
    empty_group_list(r, g, g->entry, ListKind::Excluded, ifp);
    if (g->filter_mode == FilterMode::Exclude) {
        withdraw_whole_group(r, g, ifp);
        if (g->entry && g->entry->exclude_count > 0) {
            g->entry->exclude_count--;
        }
    }
    mark_changed(g->entry);
    free_group(ifp, g);
}

}  // namespace

void age_retransmission_lists(Group* g) {
    static const ListKind kLists[2] = {ListKind::QuerySuppressed, ListKind::QueryNotSuppressed};
    for (ListKind kind : kLists) {
        Source** list = select_list(g, g->entry, kind);
        Source* next = nullptr;
        for (Source* s = list ? *list : nullptr; s; s = next) {
            next = s->next;
            if (--s->rtx_count == 0) {
                uint8_t addr[16];
                std::memcpy(addr, s->address, sizeof addr);
                remove_source_from_group(g, g->entry, kind, addr);
            }
        }
    }
}

void age_link_groups(Router* r, Link* ifp) {
    Group* next = nullptr;
    for (Group* g = ifp->groups; g; g = next) {
        next = g->next;
        tick_group(r, ifp, g);
    }
}

void final_membership_pass(Router* r) {
    for (Link* ifp = r->interfaces; ifp; ifp = ifp->next) {
        age_link_groups(r, ifp);
    }
}

bool remove_if_unused(Router* r, ForwardingEntry* e) {
    // Upstream reports still under way: nothing is removed until they are sent.
    if (state_change_pending(e) || e->records || release_unused_groups(r, e)) {
        return false;
    }
    delete_forwarding_entry(r, e);
    return true;
}

// The groups' changes reach the upstream through the changed list, which the event loop merges
// after this batch of netlink messages; the entries stay until that report has gone.
void release_link_groups(Router* r, Link* ifp) {
    while (ifp->groups) {
        release_group(r, ifp->groups, ifp);
    }
}

}  // namespace mldproxy
