// Source-list-change records, ALLOW_NEW_SOURCES and BLOCK_OLD_SOURCES (RFC 3810 section
// 7.4.2): ALLOW adds sources at once; BLOCK removes nothing itself but queries the blocked
// sources, whose timers then run down to the last listener query time.
#include <cstdio>

#include "core/log.h"
#include "db/db.h"
#include "iface/interface.h"
#include "mld/handlers.h"
#include "mld/mld.h"
#include "mld/record_ops.h"

namespace {

// The common start of ALLOW and BLOCK; nullptr when the record is not to be handled further.
mldrt_group* join_for_source_change(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                    const uint8_t* rec, const char* zero_sources_message) {
    mldrt_group* g = mldrt_join_group(r, ifp, src, mldrt_rec_group(rec), true);
    if (!g) {
        return nullptr;
    }
    if (mldrt_rec_nsrc(rec) == 0) {
        mldrt_log_str(zero_sources_message);
        return nullptr;
    }
    if (g->fmode > MLDRT_EXCLUDE) {
        mldrt_log("\n Fatal: Grp in an unknown filter mode\n");
        return nullptr;
    }
    return g;
}

// INCLUDE (A) + BLOCK(B): Q(G, A*B).
void block_on_include(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g, const uint8_t* rec) {
    mldrt_src_result both;
    mldrt_intersect_srclist_with_rcvd_record(&both, g->include_list, mldrt_rec_srcs(rec),
                                             mldrt_rec_nsrc(rec));
    mldrt_query_result(r, ifp, g, &both);
}

// EXCLUDE (X, Y) + BLOCK(B) -> EXCLUDE(X + (B-Y), Y), B-X-Y at the filter timer, Q(G, B-Y);
// the sources of X*B keep their timers.
void block_on_exclude(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g, const uint8_t* rec) {
    mldrt_src_result blocked, fresh;
    mldrt_subtract_srclist_and_rcvd_record(&blocked, g->exc_list, mldrt_rec_srcs(rec),
                                           mldrt_rec_nsrc(rec), 0);
    mldrt_take_req_timers(g, &blocked);
    mldrt_subtract_srclists(&fresh, mldrt_result_list(&blocked), g->req_list);
    mldrt_add_result_srcs(r, g, MLDRT_L_REQ, &blocked, ifp);
    mldrt_set_req_timers(g, &fresh, g->ftimer);
    mldrt_query_result(r, ifp, g, &blocked);
}

}  // namespace

int mldrt_handle_v2_allow_record(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                 const uint8_t* rec) {
    mldrt_group* g = join_for_source_change(r, ifp, src, rec,
                                            "\n FATAL: Allow record recievd with ZERO sources\n");
    if (!g) {
        return 0;
    }
    mldrt_want_record_srcs(r, g, rec, ifp);
    return 0;
}

int mldrt_handle_v2_block_record(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                 const uint8_t* rec) {
    mldrt_group* g = join_for_source_change(r, ifp, src, rec,
                                            "\n FATAL: Block record recievd with ZERO sources\n");
    if (!g) {
        return 0;
    }
    if (g->v1_host_timer > 0) {
        return 0;  // an MLDv1 host present still wants every source (RFC 3810 section 8.3.2)
    }
    if (g->fmode == MLDRT_INCLUDE) {
        block_on_include(r, ifp, g, rec);
    } else {
        block_on_exclude(r, ifp, g, rec);
    }
    return 0;
}
