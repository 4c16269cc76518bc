// Filter-mode-change records, CHANGE_TO_INCLUDE_MODE and CHANGE_TO_EXCLUDE_MODE (RFC 3810
// section 7.4.2), with the queries that confirm a possible leave. MLDv1 reports and dones
// arrive here too, as TO_EX{} and TO_IN{}.
#include <cstdio>

#include "base/log.h"
#include "db/db.h"
#include "iface/interface.h"
#include "mld/handlers.h"
#include "mld/mld.h"
#include "mld/record_ops.h"

namespace mldproxy {

namespace {

// INCLUDE (A) + TO_IN(B) -> INCLUDE(A+B), Q(G, A-B).
void toin_on_include(Router* r, Link* ifp, Group* g, const uint8_t* rec) {
    SourceSet left;
    list_minus_record(&left, g->include_list, record_sources(rec), record_source_count(rec));
    add_record_sources(r, g, ListKind::Include, rec,
                       static_cast<int32_t>(group_membership_interval(r)), ifp);
    query_result(r, ifp, g, &left);
}

// EXCLUDE (X, Y) + TO_IN(B) -> EXCLUDE(X+B, Y-B), Q(G, X-B), Q(G).
void toin_on_exclude(Router* r, Link* ifp, Group* g, const uint8_t* rec) {
    const uint8_t* b = record_sources(rec);
    uint32_t nb = record_source_count(rec);
    SourceSet left;
    list_minus_record(&left, g->requested_list, b, nb);
    add_record_sources(r, g, ListKind::Requested, rec,
                       static_cast<int32_t>(group_membership_interval(r)), ifp);
    for (uint32_t i = 0; i < nb; i++) {
        if (!remove_from_group_list(r, g, g->entry, ListKind::Excluded, b + kAddrLen * i, ifp)) {
            log_message("\n Deletion Failed in exclude list\n");
            return;
        }
    }
    query_result(r, ifp, g, &left);
    lower_timers_and_query(r, ifp, g, g->address, nullptr, 0);
}

// EXCLUDE (X, Y) + TO_EX(B), B non-empty -> EXCLUDE(B-Y, Y*B), Q(G, B-Y), B-X-Y at the filter
// timer, filter timer GMI; the sources of X*B keep their timers.
void toex_on_exclude(Router* r, Link* ifp, Group* g, const uint8_t* rec) {
    const uint8_t* b = record_sources(rec);
    uint32_t nb = record_source_count(rec);
    SourceSet wanted, fresh, dropped, unexcluded;
    record_minus_list(&wanted, g->excluded_list, b, nb);
    take_requested_timers(g, &wanted);
    subtract_lists(&fresh, set_list(&wanted), g->requested_list);
    list_minus_record(&dropped, g->requested_list, b, nb);
    if (empty_group_list(r, g, g->entry, ListKind::Requested, ifp) != 0) {
        log_message("\n Couldnt empty req list\n");
        return;
    }
    add_set_sources(r, g, ListKind::Requested, &wanted, ifp);
    query_result(r, ifp, g, &wanted);
    list_minus_record(&unexcluded, g->excluded_list, b, nb);
    intersect_group_list_with_record(r, g, ListKind::Excluded, b, nb, ifp);
    remove_from_requested_and_excluded(r, g, &unexcluded, ifp);
    remove_from_requested_and_excluded(r, g, &dropped, ifp);
    set_requested_timers(g, &fresh, g->filter_timer);
    g->filter_timer = static_cast<int32_t>(group_membership_interval(r));
}

// Either mode + TO_EX{} -> EXCLUDE({}, {}), filter timer GMI, no query: every source wanted.
void toex_all(Router* r, Link* ifp, Group* g) {
    if (g->filter_mode == FilterMode::Include) {
        if (empty_group_list(r, g, g->entry, ListKind::Include, ifp) != 0) {
            log_message("\n Couldnt empty include list\n");
            return;
        }
        enter_exclude(r, g, ifp);
        return;
    }
    if (empty_group_list(r, g, g->entry, ListKind::Requested, ifp) != 0) {
        log_message("\n Couldnt empty include list\n");
        return;
    }
    if (empty_group_list(r, g, g->entry, ListKind::Excluded, ifp) != 0) {
        log_message("\n Couldnt empty EXCLUDE list\n");
        return;
    }
    g->filter_timer = static_cast<int32_t>(group_membership_interval(r));
}

}  // namespace

int handle_to_include_record(Router* r, Link* ifp, const uint8_t* src, const uint8_t* rec) {
    // A leave creates nothing, and only a host that may be listening may announce it: a
    // recorded member, or any host while the member list is full.
    Group* g = find_group(ifp, record_group(rec));
    Host* m = g ? find_host(g, src) : nullptr;
    if (!g || (!m && !hosts_full(g))) {
        return 0;
    }
    if (g->filter_mode == FilterMode::Include) {
        toin_on_include(r, ifp, g, rec);
    } else if (g->filter_mode == FilterMode::Exclude) {
        toin_on_exclude(r, ifp, g, rec);
    }
    // TO_IN{} is the host's leave: it is no longer a member, and its place can go to a host
    // that the limit kept off the list.
    if (m && record_source_count(rec) == 0) {
        delete_host(g, m);
    }
    return 0;
}

int handle_to_exclude_record(Router* r, Link* ifp, const uint8_t* src, const uint8_t* rec) {
    Group* g = join_group(r, ifp, src, record_group(rec), true);
    if (!g || g->filter_mode > FilterMode::Exclude) {
        return 0;
    }
    // With an MLDv1 host present the group's sources cannot be filtered: TO_EX{S} counts as
    // TO_EX{} (RFC 3810 section 8.3.2).
    if (record_source_count(rec) == 0 || g->v1_host_timer > 0) {
        toex_all(r, ifp, g);
    } else if (g->filter_mode == FilterMode::Include) {
        // RFC 3810 also asks Q(G, A*B) here; the routers this one replaces send none (their
        // query looked for A*B in the include list they had just emptied), nor does this one.
        exclude_from_include(r, g, rec, ifp);
    } else {
        toex_on_exclude(r, ifp, g, rec);
    }
    return 0;
}

}  // namespace mldproxy
