// Filter-mode-change records, CHANGE_TO_INCLUDE_MODE and CHANGE_TO_EXCLUDE_MODE (RFC 3810
// section 7.4.2), with the queries that confirm a possible leave. MLDv1 reports and dones
// arrive here too, as TO_EX{} and TO_IN{}.
#include <cstdio>

#include "db/db.h"
#include "iface/interface.h"
#include "mld/handlers.h"
#include "mld/mld.h"
#include "mld/record_ops.h"

namespace {

const char* const kSubtractFailed = "\n FATAL: mldrt_subtract_srclist_and_rcvd_record 0 failed ";

// INCLUDE (A) + TO_IN(B) -> INCLUDE(A+B), Q(G, A-B).
void toin_on_include(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g, const uint8_t* rec) {
    int nl = mldrt_subtract_srclist_and_rcvd_record(aIPv6SrcAddrList1, MLDRT_SRCLIST_CAPACITY,
                                                    g->include_list, mldrt_rec_srcs(rec),
                                                    mldrt_rec_nsrc(rec), 1);
    if (nl < 0) {
        printf("%s", kSubtractFailed);
        return;
    }
    mldrt_add_record_srcs(r, g, MLDRT_L_INCLUDE, rec, static_cast<int32_t>(mldrt_gmi(r)), ifp);
    if (nl > 0) {
        mldrt_update_fsm_and_send_query(r, ifp, g, g->grp_addr, aIPv6SrcAddrList1,
                                        static_cast<uint32_t>(nl));
    }
}

// EXCLUDE (X, Y) + TO_IN(B) -> EXCLUDE(X+B, Y-B), Q(G, X-B), Q(G).
void toin_on_exclude(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g, const uint8_t* rec) {
    const uint8_t* b = mldrt_rec_srcs(rec);
    uint32_t nb = mldrt_rec_nsrc(rec);
    int nl = mldrt_subtract_srclist_and_rcvd_record(aIPv6SrcAddrList1, MLDRT_SRCLIST_CAPACITY,
                                                    g->req_list, b, nb, 1);
    if (nl < 0) {
        printf("%s", kSubtractFailed);
        return;
    }
    mldrt_add_record_srcs(r, g, MLDRT_L_REQ, rec, static_cast<int32_t>(mldrt_gmi(r)), ifp);
    for (uint32_t i = 0; i < nb; i++) {
        if (mldrt_remove_entry_from_grp_srclist(r, g, g->mfdb, MLDRT_L_EXC, b + MLDRT_ADDR_LEN * i,
                                                ifp) != 0) {
            printf("\n Deletion Failed in exclude list");
            return;
        }
    }
    if (nl > 0) {
        mldrt_update_fsm_and_send_query(r, ifp, g, g->grp_addr, aIPv6SrcAddrList1,
                                        static_cast<uint32_t>(nl));
    }
    mldrt_update_fsm_and_send_query(r, ifp, g, g->grp_addr, nullptr, 0);
}

// INCLUDE (A) + TO_EX(B), B non-empty -> EXCLUDE(A*B, B-A), filter timer GMI.
void toex_on_include(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g, const uint8_t* rec) {
    const uint8_t* b = mldrt_rec_srcs(rec);
    uint32_t nb = mldrt_rec_nsrc(rec);
    int n1 = mldrt_intersect_srclist_with_rcvd_record(aIPv6SrcAddrList1, MLDRT_SRCLIST_CAPACITY,
                                                      g->include_list, b, nb);
    if (n1 < 0) {
        printf("\n Fatal : Coudnt intersect source lists");
        return;
    }
    int n2 = mldrt_subtract_srclist_and_rcvd_record(aIPv6SrcAddrList2, MLDRT_SRCLIST_CAPACITY,
                                                    g->include_list, b, nb, 0);
    int n3 = mldrt_subtract_srclist_and_rcvd_record(aIPv6SrcAddrList3, MLDRT_SRCLIST_CAPACITY,
                                                    g->include_list, b, nb, 1);
    if (n2 < 0 || n3 < 0) {
        printf("%s", kSubtractFailed);
        return;
    }
    if (mldrt_empty_grp_srclist(r, g, g->mfdb, MLDRT_L_INCLUDE, ifp) != 0) {
        printf("\n Couldnt empty include list");
        return;
    }
    mldrt_add_result_srcs(r, g, MLDRT_L_REQ, aIPv6SrcAddrList1, n1, ifp);
    mldrt_add_result_timer(r, g, MLDRT_L_EXC, aIPv6SrcAddrList2, n2, 0, ifp);
    mldrt_set_req_timers(g, aIPv6SrcAddrList2, n2, 0);
    mldrt_remove_from_req_and_exc(r, g, aIPv6SrcAddrList3, n3, ifp);
    // Asked while the group is still INCLUDE with an empty include list, so this finds no
    // source and sends nothing: compatible with the routers this one replaces.
    if (n1 > 0) {
        mldrt_update_fsm_and_send_query(r, ifp, g, g->grp_addr, aIPv6SrcAddrList1,
                                        static_cast<uint32_t>(n1));
    }
    mldrt_enter_exclude(r, g);
}

// EXCLUDE (X, Y) + TO_EX(B), B non-empty -> EXCLUDE(B-Y, Y*B), Q(G, B-Y), filter timer GMI.
void toex_on_exclude(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g, const uint8_t* rec) {
    const uint8_t* b = mldrt_rec_srcs(rec);
    uint32_t nb = mldrt_rec_nsrc(rec);
    int n1 = mldrt_subtract_srclist_and_rcvd_record(aIPv6SrcAddrList1, MLDRT_SRCLIST_CAPACITY,
                                                    g->exc_list, b, nb, 0);
    if (n1 < 0) {
        printf("%s", kSubtractFailed);
        return;
    }
    int n4 = mldrt_subtract_srclists(aIPv6SrcAddrList3, MLDRT_SRCLIST_CAPACITY,
                                     mldrt_result_list(aIPv6SrcAddrList1, n1), g->req_list);
    if (n4 < 0) {
        printf("\n FATAL: Cannot subtract source lists ");
        return;
    }
    int n2 = mldrt_subtract_srclist_and_rcvd_record(aIPv6SrcAddrList2, MLDRT_SRCLIST_CAPACITY,
                                                    g->req_list, b, nb, 1);
    if (n2 < 0) {
        printf("%s", kSubtractFailed);
        return;
    }
    if (mldrt_empty_grp_srclist(r, g, g->mfdb, MLDRT_L_REQ, ifp) != 0) {
        printf("\n Couldnt empty req list");
        return;
    }
    mldrt_add_result_srcs(r, g, MLDRT_L_REQ, aIPv6SrcAddrList1, n1, ifp);
    if (n1 > 0) {
        mldrt_update_fsm_and_send_query(r, ifp, g, g->grp_addr, aIPv6SrcAddrList1,
                                        static_cast<uint32_t>(n1));
    }
    int n5 = mldrt_subtract_srclist_and_rcvd_record(aIPv6SrcAddrList1, MLDRT_SRCLIST_CAPACITY,
                                                    g->exc_list, b, nb, 1);
    if (n5 < 0) {
        printf("%s", kSubtractFailed);
        return;
    }
    mldrt_intersect_grp_srclist_with_rcvd_record(r, g, MLDRT_L_EXC, b, nb, ifp);
    mldrt_remove_from_req_and_exc(r, g, aIPv6SrcAddrList1, n5, ifp);
    mldrt_remove_from_req_and_exc(r, g, aIPv6SrcAddrList2, n2, ifp);
    mldrt_set_req_timers(g, aIPv6SrcAddrList3, n4, g->ftimer);
    g->ftimer = static_cast<int32_t>(mldrt_gmi(r));
}

// Either mode + TO_EX{} -> EXCLUDE({::}, {}), filter timer GMI, no query.
void toex_all(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g) {
    if (g->fmode == MLDRT_INCLUDE) {
        if (mldrt_empty_grp_srclist(r, g, g->mfdb, MLDRT_L_INCLUDE, ifp) != 0) {
            printf("\n Couldnt empty include list");
            return;
        }
        mldrt_want_whole_group(r, g, ifp);
        mldrt_enter_exclude(r, g);
        return;
    }
    if (mldrt_empty_grp_srclist(r, g, g->mfdb, MLDRT_L_REQ, ifp) != 0) {
        printf("\n Couldnt empty include list");
        return;
    }
    if (mldrt_empty_grp_srclist(r, g, g->mfdb, MLDRT_L_EXC, ifp) != 0) {
        printf("\n Couldnt empty EXCLUDE list");
        return;
    }
    mldrt_want_whole_group(r, g, ifp);
    g->ftimer = static_cast<int32_t>(mldrt_gmi(r));
}

}  // namespace

int mldrt_handle_v2_toin_record(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                uint8_t* rec) {
    // A leave creates nothing, and only a known member may announce it.
    mldrt_group* g = mldrt_lookup_group(ifp, mldrt_rec_group(rec));
    if (!g || !mldrt_lookup_member(g, src)) {
        return 0;
    }
    if (g->fmode == MLDRT_INCLUDE) {
        toin_on_include(r, ifp, g, rec);
    } else if (g->fmode == MLDRT_EXCLUDE) {
        toin_on_exclude(r, ifp, g, rec);
    }
    return 0;
}

int mldrt_handle_v2_toex_record(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                uint8_t* rec) {
    mldrt_group* g = mldrt_join_group(r, ifp, src, mldrt_rec_group(rec), true);
    if (!g || g->fmode > MLDRT_EXCLUDE) {
        return 0;
    }
    if (mldrt_rec_nsrc(rec) == 0) {
        toex_all(r, ifp, g);
    } else if (g->fmode == MLDRT_INCLUDE) {
        toex_on_include(r, ifp, g, rec);
    } else {
        toex_on_exclude(r, ifp, g, rec);
    }
    return 0;
}
