// Current-state records, MODE_IS_INCLUDE and MODE_IS_EXCLUDE (RFC 3810 section 7.4.1). They
// change lists and timers only; no query follows them.
#include <cstdio>

#include "core/log.h"
#include "db/db.h"
#include "iface/interface.h"
#include "mld/handlers.h"
#include "mld/mld.h"
#include "mld/record_ops.h"

namespace {

// INCLUDE (A) + IS_EX(B) -> EXCLUDE(A*B, B-A), filter timer GMI. The mode comes first, so
// that the excluded sources are held back from a (*,G) entry that already lists the link.
void isex_on_include(mldrt_router* r, mldrt_group* g, const uint8_t* rec, mldrt_interface* ifp) {
    const uint8_t* b = mldrt_rec_srcs(rec);
    uint32_t nb = mldrt_rec_nsrc(rec);
    mldrt_src_result both, added, gone;
    mldrt_intersect_srclist_with_rcvd_record(&both, g->include_list, b, nb);
    mldrt_subtract_srclist_and_rcvd_record(&added, g->include_list, b, nb, 0);
    mldrt_subtract_srclist_and_rcvd_record(&gone, g->include_list, b, nb, 1);
    if (mldrt_empty_grp_srclist(r, g, g->mfdb, MLDRT_L_INCLUDE, ifp) != 0) {
        mldrt_log("\n Couldnt empty include list\n");
        return;
    }
    mldrt_enter_exclude(r, g, ifp);
    mldrt_add_result_srcs(r, g, MLDRT_L_REQ, &both, ifp);
    mldrt_add_result_timer(r, g, MLDRT_L_EXC, &added, 0, ifp);
    mldrt_set_req_timers(g, &added, 0);
    mldrt_remove_from_req_and_exc(r, g, &gone, ifp);
}

// EXCLUDE (X, Y) + IS_EX(B), B non-empty -> EXCLUDE(B-Y, Y*B), B-X-Y at GMI, filter timer
// GMI; the sources of X*B keep their timers.
void isex_on_exclude(mldrt_router* r, mldrt_group* g, const uint8_t* rec, mldrt_interface* ifp) {
    const uint8_t* b = mldrt_rec_srcs(rec);
    uint32_t nb = mldrt_rec_nsrc(rec);
    int32_t gmi = static_cast<int32_t>(mldrt_gmi(r));
    mldrt_src_result wanted, fresh, dropped, unexcluded;
    mldrt_subtract_srclist_and_rcvd_record(&wanted, g->exc_list, b, nb, 0);
    mldrt_take_req_timers(g, &wanted);
    mldrt_subtract_srclists(&fresh, mldrt_result_list(&wanted), g->req_list);
    mldrt_subtract_srclist_and_rcvd_record(&dropped, g->req_list, b, nb, 1);
    if (mldrt_empty_grp_srclist(r, g, g->mfdb, MLDRT_L_REQ, ifp) != 0) {
        mldrt_log("\n Couldnt rmpty req list\n");
        return;
    }
    mldrt_add_result_srcs(r, g, MLDRT_L_REQ, &wanted, ifp);
    mldrt_subtract_srclist_and_rcvd_record(&unexcluded, g->exc_list, b, nb, 1);
    mldrt_intersect_grp_srclist_with_rcvd_record(r, g, MLDRT_L_EXC, b, nb, ifp);
    mldrt_set_req_timers(g, &fresh, gmi);
    mldrt_remove_from_req_and_exc(r, g, &dropped, ifp);
    mldrt_remove_from_req_and_exc(r, g, &unexcluded, ifp);
    g->ftimer = gmi;
}

// EXCLUDE + IS_EX{} -> EXCLUDE({}, {}), filter timer GMI: every source wanted.
void isex_all_on_exclude(mldrt_router* r, mldrt_group* g, mldrt_interface* ifp) {
    if (mldrt_empty_grp_srclist(r, g, g->mfdb, MLDRT_L_REQ, ifp) != 0) {
        mldrt_log("\n Couldnt empty req list\n");
        return;
    }
    if (mldrt_empty_grp_srclist(r, g, g->mfdb, MLDRT_L_EXC, ifp) != 0) {
        mldrt_log("\n Couldnt empty exc list\n");
        return;
    }
    g->ftimer = static_cast<int32_t>(mldrt_gmi(r));
}

}  // namespace

int mldrt_handle_v2_isin_record(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                const uint8_t* rec) {
    mldrt_group* g = mldrt_join_group(r, ifp, src, mldrt_rec_group(rec), false);
    if (!g || g->fmode > MLDRT_EXCLUDE) {
        return 0;
    }
    uint32_t nb = mldrt_rec_nsrc(rec);
    if (nb == 0) {
        mldrt_log("\n FATAL Error - IS_IN record recieved with empty source list\n");
        return 0;
    }
    mldrt_want_record_srcs(r, g, rec, ifp);
    return 0;
}

int mldrt_handle_v2_isex_record(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                const uint8_t* rec) {
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
