#include "base/addr.h"
#include "base/log.h"
#include "mld/record_ops.h"

#include "mld/handlers.h"
#include "mld/mld.h"

namespace mldproxy {

uint32_t group_membership_interval(const Router* r) {
    return r->robustness * r->query_interval + r->query_response_interval / 1000u;
}

Group* join_group(Router* r, Link* ifp, const uint8_t* src, const uint8_t* grp, bool loud) {
    // Link-scope traffic is never forwarded, and reporting the hosts' solicited-node groups
    // upstream would tell the upstream network their addresses: such groups are not proxied.
    if (is_link_scope_group(grp)) {
        return nullptr;
    }
    Group* g = add_group(r, ifp, grp);
    if (!g) {
        if (loud) {
            log_message("\n Couldnt add new group in the group list\n");
        }
        return nullptr;
    }
    if (!add_host(g, src) && !hosts_full(g)) {
        if (loud) {
            log_message("\n Couldnt add member to new group \n");
        }
        return nullptr;
    }
    ForwardingEntry* e = add_forwarding_entry(r, grp);
    if (!e) {
        if (loud) {
            log_message("\n Couldnt add mfdb entry\n");
        }
        return nullptr;
    }
    map_group_to_entry(g, e);
    return g;
}

void add_record_sources(Router* r, Group* g, ListKind kind, const uint8_t* rec, int32_t timer,
                        Link* ifp) {
    const uint8_t* srcs = record_sources(rec);
    for (uint32_t i = 0; i < record_source_count(rec); i++) {
        add_to_group_list(r, g, kind, srcs + kAddrLen * i, timer, ifp);
    }
}

void want_record_sources(Router* r, Group* g, const uint8_t* rec, Link* ifp) {
    int32_t gmi = static_cast<int32_t>(group_membership_interval(r));
    const uint8_t* srcs = record_sources(rec);
    for (uint32_t i = 0; i < record_source_count(rec); i++) {
        const uint8_t* s = srcs + kAddrLen * i;
        if (g->filter_mode == FilterMode::Include) {
            add_to_group_list(r, g, ListKind::Include, s, gmi, ifp);
        } else {
            // Wanted before it is no longer excluded: its (S,G) entry is rewritten, not dropped.
            add_to_group_list(r, g, ListKind::Requested, s, gmi, ifp);
            remove_from_group_list(r, g, g->entry, ListKind::Excluded, s, ifp);
        }
    }
}

void add_set_sources(Router* r, Group* g, ListKind kind, const SourceSet* res, Link* ifp) {
    for (uint32_t i = 0; i < res->n; i++) {
        const Source& s = res->entries[i];
        add_to_group_list(r, g, kind, s.address, s.timer, ifp);
    }
}

void add_set_with_timer(Router* r, Group* g, ListKind kind, const SourceSet* res, int32_t timer,
                        Link* ifp) {
    for (uint32_t i = 0; i < res->n; i++) {
        add_to_group_list(r, g, kind, res->entries[i].address, timer, ifp);
    }
}

void set_requested_timers(Group* g, const SourceSet* res, int32_t timer) {
    for (uint32_t i = 0; i < res->n; i++) {
        Source* s = find_source(g->requested_list, res->entries[i].address);
        if (s) {
            s->timer = timer;
        }
    }
}

void take_requested_timers(const Group* g, SourceSet* res) {
    for (uint32_t i = 0; i < res->n; i++) {
        const Source* s = find_source(g->requested_list, res->entries[i].address);
        if (s) {
            res->entries[i].timer = s->timer;
        }
    }
}

void remove_from_requested_and_excluded(Router* r, Group* g, const SourceSet* res, Link* ifp) {
    for (uint32_t i = 0; i < res->n; i++) {
        const uint8_t* addr = res->entries[i].address;
        remove_from_group_list(r, g, g->entry, ListKind::Requested, addr, ifp);
        remove_from_group_list(r, g, g->entry, ListKind::Excluded, addr, ifp);
    }
}

void query_result(Router* r, Link* ifp, Group* g, const SourceSet* res) {
    if (res->n > 0) {
        lower_timers_and_query(r, ifp, g, g->address, res->entries, res->n);
    }
}

void enter_exclude(Router* r, Group* g, Link* ifp) {
    g->filter_mode = FilterMode::Exclude;
    g->entry->exclude_count++;
    mark_changed(g->entry);
    g->filter_timer = static_cast<int32_t>(group_membership_interval(r));
    forward_whole_group(r, g, ifp);
}

void exclude_from_include(Router* r, Group* g, const uint8_t* rec, Link* ifp) {
    const uint8_t* b = record_sources(rec);
    uint32_t nb = record_source_count(rec);
    SourceSet both, added, gone;
    intersect_with_record(&both, g->include_list, b, nb);
    record_minus_list(&added, g->include_list, b, nb);
    list_minus_record(&gone, g->include_list, b, nb);
    if (empty_group_list(r, g, g->entry, ListKind::Include, ifp) != 0) {
        log_message("\n Couldnt empty include list\n");
        return;
    }
    enter_exclude(r, g, ifp);
    add_set_sources(r, g, ListKind::Requested, &both, ifp);
    add_set_with_timer(r, g, ListKind::Excluded, &added, 0, ifp);
    set_requested_timers(g, &added, 0);
    remove_from_requested_and_excluded(r, g, &gone, ifp);
}

}  // namespace mldproxy
