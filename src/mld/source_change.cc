// Source-list-change records, ALLOW_NEW_SOURCES and BLOCK_OLD_SOURCES (RFC 3810 section
// 7.4.2): ALLOW adds sources at once; BLOCK removes nothing itself but queries the blocked
// sources, whose timers then run down to the last listener query time.
#include <cstdio>

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
        printf("%s", zero_sources_message);
        return nullptr;
    }
    if (g->fmode > MLDRT_EXCLUDE) {
        printf("\n Fatal: Grp in an unknown filter mode");
        return nullptr;
    }
    return g;
}

// INCLUDE (A) + BLOCK(B): Q(G, A*B).
void block_on_include(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g, const uint8_t* rec) {
    int n = mldrt_intersect_srclist_with_rcvd_record(aIPv6SrcAddrList1, MLDRT_SRCLIST_CAPACITY,
                                                     g->include_list, mldrt_rec_srcs(rec),
                                                     mldrt_rec_nsrc(rec));
    if (n < 0) {
        printf("\n Fatal : Coudnt intersect source lists");
        return;
    }
    if (n > 0) {
        mldrt_update_fsm_and_send_query(r, ifp, g, g->grp_addr, aIPv6SrcAddrList1,
                                        static_cast<uint32_t>(n));
    }
}

// EXCLUDE (X, Y) + BLOCK(B) -> EXCLUDE(X + (B-Y), Y), B-X-Y at the filter timer, Q(G, B-Y).
void block_on_exclude(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g, const uint8_t* rec) {
    int n1 = mldrt_subtract_srclist_and_rcvd_record(aIPv6SrcAddrList1, MLDRT_SRCLIST_CAPACITY,
                                                    g->exc_list, mldrt_rec_srcs(rec),
                                                    mldrt_rec_nsrc(rec), 0);
    if (n1 < 0) {
        printf("\n FATAL: mldrt_subtract_srclist_and_rcvd_record 0 failed ");
        return;
    }
    int n2 = mldrt_subtract_srclists(aIPv6SrcAddrList2, MLDRT_SRCLIST_CAPACITY,
                                     mldrt_result_list(aIPv6SrcAddrList1, n1), g->req_list);
    if (n2 < 0) {
        printf("\n FATAL: Cannot subtract source lists ");
        return;
    }
    mldrt_add_result_srcs(r, g, MLDRT_L_REQ, aIPv6SrcAddrList1, n1, ifp);
    mldrt_set_req_timers(g, aIPv6SrcAddrList2, n2, g->ftimer);
    if (n1 > 0) {
        mldrt_update_fsm_and_send_query(r, ifp, g, g->grp_addr, aIPv6SrcAddrList1,
                                        static_cast<uint32_t>(n1));
    }
}

}  // namespace

int mldrt_handle_v2_allow_record(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                 uint8_t* rec) {
    mldrt_group* g = join_for_source_change(r, ifp, src, rec,
                                            "\n FATAL: Allow record recievd with ZERO sources");
    if (!g) {
        return 0;
    }
    mldrt_want_record_srcs(r, g, rec, ifp);
    return 0;
}

int mldrt_handle_v2_block_record(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                 uint8_t* rec) {
    mldrt_group* g = join_for_source_change(r, ifp, src, rec,
                                            "\n FATAL: Block record recievd with ZERO sources");
    if (!g) {
        return 0;
    }
    if (g->fmode == MLDRT_INCLUDE) {
        block_on_include(r, ifp, g, rec);
    } else {
        block_on_exclude(r, ifp, g, rec);
    }
    return 0;
}
