// Current-state records, MODE_IS_INCLUDE and MODE_IS_EXCLUDE (RFC 3810 section 7.4.1). They
// change lists and timers only; no query follows them.
#include <cstdio>

#include "db/db.h"
#include "iface/interface.h"
#include "mld/handlers.h"
#include "mld/mld.h"
#include "mld/record_ops.h"

namespace {

const char* const kSubtractFailed = "\n FATAL: mldrt_subtract_srclist_and_rcvd_record 0 failed ";

// INCLUDE (A) + IS_EX(B) -> EXCLUDE(A*B, B-A), filter timer GMI.
void isex_on_include(mldrt_router* r, mldrt_group* g, const uint8_t* rec, mldrt_interface* ifp) {
    const uint8_t* b = mldrt_rec_srcs(rec);
    uint32_t nb = mldrt_rec_nsrc(rec);
    int ni = mldrt_intersect_srclist_with_rcvd_record(aIPv6SrcAddrList1, MLDRT_SRCLIST_CAPACITY,
                                                      g->include_list, b, nb);
    if (ni < 0) {
        printf("\n Fatal : Coudnt intersect source lists");
        return;
    }
    int nn = mldrt_subtract_srclist_and_rcvd_record(aIPv6SrcAddrList2, MLDRT_SRCLIST_CAPACITY,
                                                    g->include_list, b, nb, 0);
    int no = mldrt_subtract_srclist_and_rcvd_record(aIPv6SrcAddrList3, MLDRT_SRCLIST_CAPACITY,
                                                    g->include_list, b, nb, 1);
    if (nn < 0 || no < 0) {
        printf("%s", kSubtractFailed);
        return;
    }
    if (mldrt_empty_grp_srclist(r, g, g->mfdb, MLDRT_L_INCLUDE, ifp) != 0) {
        printf("\n Couldnt empty include list");
        return;
    }
    if (ni > 0) {
        mldrt_add_result_srcs(r, g, MLDRT_L_REQ, aIPv6SrcAddrList1, ni, ifp);
    } else if (nb == 0) {
        mldrt_want_whole_group(r, g, ifp);
    }
    mldrt_add_result_timer(r, g, MLDRT_L_EXC, aIPv6SrcAddrList2, nn, 0, ifp);
    mldrt_set_req_timers(g, aIPv6SrcAddrList2, nn, 0);
    mldrt_remove_from_req_and_exc(r, g, aIPv6SrcAddrList3, no, ifp);
    mldrt_enter_exclude(r, g);
}

// EXCLUDE (X, Y) + IS_EX(B), B non-empty -> EXCLUDE(B-Y, Y*B), filter timer GMI.
void isex_on_exclude(mldrt_router* r, mldrt_group* g, const uint8_t* rec, mldrt_interface* ifp) {
    const uint8_t* b = mldrt_rec_srcs(rec);
    uint32_t nb = mldrt_rec_nsrc(rec);
    int32_t gmi = static_cast<int32_t>(mldrt_gmi(r));
    int n1 = mldrt_subtract_srclist_and_rcvd_record(aIPv6SrcAddrList1, MLDRT_SRCLIST_CAPACITY,
                                                    g->exc_list, b, nb, 0);
    if (n1 < 0) {
        printf("%s", kSubtractFailed);
        return;
    }
    int n2 = mldrt_subtract_srclists(aIPv6SrcAddrList2, MLDRT_SRCLIST_CAPACITY,
                                     mldrt_result_list(aIPv6SrcAddrList1, n1), g->req_list);
    if (n2 < 0) {
        printf("\n Fatal : Coudnt subtract source lists");
        return;
    }
    int n3 = mldrt_subtract_srclist_and_rcvd_record(aIPv6SrcAddrList3, MLDRT_SRCLIST_CAPACITY,
                                                    g->req_list, b, nb, 1);
    if (n3 < 0) {
        printf("\n FATAL: mldrt_subtract_srclist_and_rcvd_record  failed ");
        return;
    }
    if (mldrt_empty_grp_srclist(r, g, g->mfdb, MLDRT_L_REQ, ifp) != 0) {
        printf("\n Couldnt rmpty req list");
        return;
    }
    // The mode-0 subtraction leaves each entry's timer as an earlier operation left it; the
    // sources get that leftover value, as deployed routers have always given them.
    mldrt_add_result_srcs(r, g, MLDRT_L_REQ, aIPv6SrcAddrList1, n1, ifp);
    int n4 = mldrt_subtract_srclist_and_rcvd_record(aIPv6SrcAddrList1, MLDRT_SRCLIST_CAPACITY,
                                                    g->exc_list, b, nb, 1);
    if (n4 < 0) {
        printf("%s", kSubtractFailed);
        return;
    }
    mldrt_intersect_grp_srclist_with_rcvd_record(r, g, MLDRT_L_EXC, b, nb, ifp);
    mldrt_set_req_timers(g, aIPv6SrcAddrList2, n2, gmi);
    mldrt_remove_from_req_and_exc(r, g, aIPv6SrcAddrList3, n3, ifp);
    mldrt_remove_from_req_and_exc(r, g, aIPv6SrcAddrList1, n4, ifp);
    g->ftimer = gmi;
}

// EXCLUDE + IS_EX{} -> EXCLUDE({::}, {}), filter timer GMI.
void isex_all_on_exclude(mldrt_router* r, mldrt_group* g, mldrt_interface* ifp) {
    if (mldrt_empty_grp_srclist(r, g, g->mfdb, MLDRT_L_REQ, ifp) != 0) {
        printf("\n Couldnt empty req list");
        return;
    }
    if (mldrt_empty_grp_srclist(r, g, g->mfdb, MLDRT_L_EXC, ifp) != 0) {
        printf("\n Couldnt empty exc list");
        return;
    }
    mldrt_want_whole_group(r, g, ifp);
    g->ftimer = static_cast<int32_t>(mldrt_gmi(r));
}

}  // namespace

int mldrt_handle_v2_isin_record(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                uint8_t* rec) {
    mldrt_group* g = mldrt_join_group(r, ifp, src, mldrt_rec_group(rec), false);
    if (!g || g->fmode > MLDRT_EXCLUDE) {
        return 0;
    }
    uint32_t nb = mldrt_rec_nsrc(rec);
    if (nb == 0) {
        printf("\n FATAL Error - IS_IN record recieved with empty source list");
        return 0;
    }
    mldrt_want_record_srcs(r, g, rec, ifp);
    return 0;
}

int mldrt_handle_v2_isex_record(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                uint8_t* rec) {
    mldrt_group* g = mldrt_join_group(r, ifp, src, mldrt_rec_group(rec), false);
    if (!g || g->fmode > MLDRT_EXCLUDE) {
        return 0;
    }
    if (g->fmode == MLDRT_INCLUDE) {
        isex_on_include(r, g, rec, ifp);
    } else if (mldrt_rec_nsrc(rec) > 0) {
        isex_on_exclude(r, g, rec, ifp);
    } else {
        isex_all_on_exclude(r, g, ifp);
    }
    return 0;
}
