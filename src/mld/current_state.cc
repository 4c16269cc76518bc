// Current-state records, MODE_IS_INCLUDE and MODE_IS_EXCLUDE (RFC 3810 section 7.4.1). They
// change lists and timers only; no query follows them.
#include <cstdio>

#include "base/log.h"
#include "db/db.h"
#include "iface/interface.h"
#include "mld/handlers.h"
#include "mld/mld.h"
#include "mld/record_ops.h"

namespace mldproxy {

namespace {

// EXCLUDE (X, Y) + IS_EX(B), B non-empty -> EXCLUDE(B-Y, Y*B), B-X-Y at GMI, filter timer
// GMI; the sources of X*B keep their timers.
void isex_on_exclude(Router* r, Group* g, const uint8_t* rec, Link* ifp) {
    const uint8_t* b = record_sources(rec);
    uint32_t nb = record_source_count(rec);
    int32_t gmi = static_cast<int32_t>(group_membership_interval(r));
    SourceSet wanted, fresh, dropped, unexcluded;
    record_minus_list(&wanted, g->excluded_list, b, nb);
    take_requested_timers(g, &wanted);
    subtract_lists(&fresh, set_list(&wanted), g->requested_list);
    list_minus_record(&dropped, g->requested_list, b, nb);
    if (empty_group_list(r, g, g->entry, ListKind::Requested, ifp) != 0) {
        log_message("\n Couldnt rmpty req list\n");
        return;
    }
    add_set_sources(r, g, ListKind::Requested, &wanted, ifp);
    list_minus_record(&unexcluded, g->excluded_list, b, nb);
    intersect_group_list_with_record(r, g, ListKind::Excluded, b, nb, ifp);
    set_requested_timers(g, &fresh, gmi);
    remove_from_requested_and_excluded(r, g, &dropped, ifp);
    remove_from_requested_and_excluded(r, g, &unexcluded, ifp);
    g->filter_timer = gmi;
}

// EXCLUDE + IS_EX{} -> EXCLUDE({}, {}), filter timer GMI: every source wanted.
void isex_all_on_exclude(Router* r, Group* g, Link* ifp) {
    if (empty_group_list(r, g, g->entry, ListKind::Requested, ifp) != 0) {
        log_message("\n Couldnt empty req list\n");
        return;
    }
    if (empty_group_list(r, g, g->entry, ListKind::Excluded, ifp) != 0) {
        log_message("\n Couldnt empty exc list\n");
        return;
    }
    g->filter_timer = static_cast<int32_t>(group_membership_interval(r));
}

}  // namespace

int handle_is_include_record(Router* r, Link* ifp, const uint8_t* src, const uint8_t* rec) {
    Group* g = join_group(r, ifp, src, record_group(rec), false);
    if (!g || g->filter_mode > FilterMode::Exclude) {
        return 0;
    }
    uint32_t nb = record_source_count(rec);
    if (nb == 0) {
        log_message("\n FATAL Error - IS_IN record recieved with empty source list\n");
        return 0;
    }
    want_record_sources(r, g, rec, ifp);
    return 0;
}

int handle_is_exclude_record(Router* r, Link* ifp, const uint8_t* src, const uint8_t* rec) {
    Group* g = join_group(r, ifp, src, record_group(rec), false);
    if (!g || g->filter_mode > FilterMode::Exclude) {
        return 0;
    }
    if (g->filter_mode == FilterMode::Include) {
        exclude_from_include(r, g, rec, ifp);
    } else if (record_source_count(rec) > 0) {
        isex_on_exclude(r, g, rec, ifp);
    } else {
        isex_all_on_exclude(r, g, ifp);
    }
    return 0;
}

}  // namespace mldproxy
