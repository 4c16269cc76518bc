// Source-list-change records, ALLOW_NEW_SOURCES and BLOCK_OLD_SOURCES (RFC 3810 section
// 7.4.2): ALLOW adds sources at once; BLOCK removes nothing itself but queries the blocked
// sources, whose timers then run down to the last listener query time.
#include <cstdio>

#include "base/log.h"
#include "db/db.h"
#include "iface/interface.h"
#include "mld/handlers.h"
#include "mld/mld.h"
#include "mld/record_ops.h"

namespace mldproxy {

namespace {

// The common start of ALLOW and BLOCK; nullptr when the record is not to be handled further.
Group* join_for_source_change(Router* r, Link* ifp, const uint8_t* src, const uint8_t* rec,
                              const char* zero_sources_message) {
    Group* g = join_group(r, ifp, src, record_group(rec), true);
    if (!g) {
        return nullptr;
    }
    if (record_source_count(rec) == 0) {
        log_text(zero_sources_message);
        return nullptr;
    }
    if (g->filter_mode > FilterMode::Exclude) {
        log_message("\n Fatal: Grp in an unknown filter mode\n");
        return nullptr;
    }
    return g;
}

// INCLUDE (A) + BLOCK(B): Q(G, A*B).
void block_on_include(Router* r, Link* ifp, Group* g, const uint8_t* rec) {
    SourceSet both;
    intersect_with_record(&both, g->include_list, record_sources(rec), record_source_count(rec));
    query_result(r, ifp, g, &both);
}

// EXCLUDE (X, Y) + BLOCK(B) -> EXCLUDE(X + (B-Y), Y), B-X-Y at the filter timer, Q(G, B-Y);
// the sources of X*B keep their timers.
void block_on_exclude(Router* r, Link* ifp, Group* g, const uint8_t* rec) {
    SourceSet blocked, fresh;
    record_minus_list(&blocked, g->excluded_list, record_sources(rec), record_source_count(rec));
    take_requested_timers(g, &blocked);
    subtract_lists(&fresh, set_list(&blocked), g->requested_list);
    add_set_sources(r, g, ListKind::Requested, &blocked, ifp);
    set_requested_timers(g, &fresh, g->filter_timer);
    query_result(r, ifp, g, &blocked);
}

}  // namespace

int handle_allow_record(Router* r, Link* ifp, const uint8_t* src, const uint8_t* rec) {
    Group* g = join_for_source_change(r, ifp, src, rec,
                                      "\n FATAL: Allow record recievd with ZERO sources\n");
    if (!g) {
        return 0;
    }
    want_record_sources(r, g, rec, ifp);
    return 0;
}

int handle_block_record(Router* r, Link* ifp, const uint8_t* src, const uint8_t* rec) {
    Group* g = join_for_source_change(r, ifp, src, rec,
                                      "\n FATAL: Block record recievd with ZERO sources\n");
    if (!g) {
        return 0;
    }
    if (g->v1_host_timer > 0) {
        return 0;  // an MLDv1 host present still wants every source (RFC 3810 section 8.3.2)
    }
    if (g->filter_mode == FilterMode::Include) {
        block_on_include(r, ifp, g, rec);
    } else {
        block_on_exclude(r, ifp, g, rec);
    }
    return 0;
}

}  // namespace mldproxy
