// The host state of a group: what the downstream links want, merged as one host's state
// (RFC 3810 section 4.2, RFC 4605 section 4.1): INCLUDE lists unite, EXCLUDE lists intersect,
// an EXCLUDE{} anywhere wins, and INCLUDE sources are taken out of an EXCLUDE result.
#include <cstdio>
#include <cstdlib>

#include "base/log.h"
#include "base/addr.h"
#include "db/db.h"
#include "mld/timers.h"
#include "iface/interface.h"
#include "mld/mld.h"
#include "proxy/proxy.h"

namespace mldproxy {

namespace {

HostState* new_state(FilterMode mode) {
    auto* hs = static_cast<HostState*>(calloc(1, sizeof(HostState)));
    if (hs) {
        hs->mode = mode;
    }
    return hs;
}

// :: marks a whole group in a link's lists; as a source it means nothing to the upstream, so
// it never enters the host state and never goes into a report.
void add_sources(ForwardingEntry* e, const Source* list) {
    for (; list; list = list->next) {
        if (!is_unspecified(list->address)) {
            add_source_to_group(nullptr, e, ListKind::NewHostState, list->address);
        }
    }
}

// True when every source of `a` is also in `b`.
bool contained(const Source* a, const Source* b) {
    for (; a; a = a->next) {
        if (!list_has(b, a->address)) {
            return false;
        }
    }
    return true;
}

// Calls `visit` for every group mapped to `e`, links in list order; stops when it returns
// false. A group is mapped only to the entry of its own address and a link has at most one
// group of an address, so the link's index finds it without a walk of its groups.
template <typename Visit>
void for_each_mapped_group(Router* r, const ForwardingEntry* e, Visit visit) {
    for (Link* ifp = r->interfaces; ifp; ifp = ifp->next) {
        Group* g = find_group(ifp, e->address);
        if (g && g->entry == e && !visit(g)) {
            return;
        }
    }
}

// Intersects the EXCLUDE lists of the links (RFC 3810 section 4.2): a source stays excluded
// upstream only while every link in EXCLUDE mode excludes it, so an intersection that empties
// stays empty.
bool merge_exclude(Router* r, ForwardingEntry* e) {
    bool ok = true;
    bool first = true;
    for_each_mapped_group(r, e, [&](Group* g) {
        if (g->filter_mode != FilterMode::Exclude) {
            return true;
        }
        if (!e->new_host_state) {
            e->new_host_state = new_state(FilterMode::Exclude);
            if (!e->new_host_state) {
                log_message("\n Mem Allocation failed for hs_new_state\n");
                ok = false;
                return false;
            }
        }
        HostState* hs = e->new_host_state;
        if (first) {
            add_sources(e, g->excluded_list);
            first = false;
        } else {
            intersect_in_place(&hs->list, g->excluded_list);
        }
        return hs->list != nullptr;  // nothing left to exclude: nothing else matters
    });
    return ok;
}

}  // namespace

void build_host_state(Router* r, ForwardingEntry* e) {
    if (e->new_host_state) {
        log_message("\n Some Problem - New State should have been NULL\n");
        return;
    }
    if (e->exclude_count == 0) {
        e->new_host_state = new_state(FilterMode::Include);
        if (!e->new_host_state) {
            log_message("\n Allocation failed for new state\n");
            return;
        }
        for_each_mapped_group(r, e, [&](Group* g) {
            add_sources(e, g->include_list);
            return true;
        });
        return;
    }
    if (!merge_exclude(r, e)) {
        return;
    }
    if (!e->new_host_state) {
        log_message("\n FATAL........................... hs_new_state shouldnt have been NULL\n");
        exit(-1);
    }
    if (!e->new_host_state->list) {
        return;
    }
    for_each_mapped_group(r, e, [&](Group* g) {
        if (g->filter_mode == FilterMode::Include) {
            for (const Source* s = g->include_list; s; s = s->next) {
                remove_source_from_group(nullptr, e, ListKind::NewHostState, s->address);
            }
        }
        return true;
    });
}

bool diff_host_state(const ForwardingEntry* e) {
    const HostState* new_hs = e->new_host_state;
    if (!new_hs || e->host_mode != new_hs->mode) {
        return true;
    }
    if (!e->host_list || !new_hs->list) {
        return e->host_list != new_hs->list;
    }
    // Host-state lists hold each source once: same length and one inside the other is equality.
    return list_length(e->host_list) != list_length(new_hs->list) ||
           !contained(new_hs->list, e->host_list);
}

void finish_host_state_update(ForwardingEntry* e) {
    if (!e->new_host_state) {
        return;  // nothing was built: the last state stays the one acted upon
    }
    free_list(&e->host_list);
    e->host_list = e->new_host_state->list;
    e->host_mode = e->new_host_state->mode;
    free(e->new_host_state);
    e->new_host_state = nullptr;
}

void act_on_state_change(Router* r, ForwardingEntry* e) {
    if (e->new_host_state && diff_host_state(e)) {
        dump_host_states(r, e);
        FilterMode old_mode = e->host_mode;
        handle_host_state_transitions(r, e, old_mode, e->new_host_state->mode);
    }
    finish_host_state_update(e);
}

void report_changes(Router* r) {
    ReportBuilder batch;
    report_init(&batch, r);
    r->report_batch = &batch;
    while (ForwardingEntry* e = take_changed()) {
        build_host_state(r, e);
        act_on_state_change(r, e);
        remove_if_unused(r, e);  // its records are in the batch already
    }
    r->report_batch = nullptr;
    report_flush(&batch);
}

void restart_host_state(Router* r) {
    for (ForwardingEntry* e = r->entries; e; e = e->next) {
        free_list(&e->host_list);
        e->host_mode = FilterMode::Include;
        clear_pending_reports(e);
        mark_changed(e);
    }
}

}  // namespace mldproxy
