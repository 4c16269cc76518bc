// Filter-mode-change records, CHANGE_TO_INCLUDE_MODE and CHANGE_TO_EXCLUDE_MODE (RFC 3810
// section 7.4.2), with the queries that confirm a possible leave. MLDv1 reports and dones
// arrive here too, as TO_EX{} and TO_IN{}.
#include <cstdio>

#include "core/log.h"
#include "db/db.h"
#include "iface/interface.h"
#include "mld/handlers.h"
#include "mld/mld.h"
#include "mld/record_ops.h"

namespace {

// INCLUDE (A) + TO_IN(B) -> INCLUDE(A+B), Q(G, A-B).
void toin_on_include(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g, const uint8_t* rec) {
    mldrt_src_result left;
    mldrt_subtract_srclist_and_rcvd_record(&left, g->include_list, mldrt_rec_srcs(rec),
                                           mldrt_rec_nsrc(rec), 1);
    mldrt_add_record_srcs(r, g, MLDRT_L_INCLUDE, rec, static_cast<int32_t>(mldrt_gmi(r)), ifp);
    mldrt_query_result(r, ifp, g, &left);
}

// EXCLUDE (X, Y) + TO_IN(B) -> EXCLUDE(X+B, Y-B), Q(G, X-B), Q(G).
void toin_on_exclude(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g, const uint8_t* rec) {
    const uint8_t* b = mldrt_rec_srcs(rec);
    uint32_t nb = mldrt_rec_nsrc(rec);
    mldrt_src_result left;
    mldrt_subtract_srclist_and_rcvd_record(&left, g->req_list, b, nb, 1);
    mldrt_add_record_srcs(r, g, MLDRT_L_REQ, rec, static_cast<int32_t>(mldrt_gmi(r)), ifp);
    for (uint32_t i = 0; i < nb; i++) {
        if (mldrt_remove_entry_from_grp_srclist(r, g, g->mfdb, MLDRT_L_EXC, b + MLDRT_ADDR_LEN * i,
                                                ifp) != 0) {
            mldrt_log("\n Deletion Failed in exclude list\n");
            return;
        }
    }
    mldrt_query_result(r, ifp, g, &left);
    mldrt_update_fsm_and_send_query(r, ifp, g, g->grp_addr, nullptr, 0);
}

// INCLUDE (A) + TO_EX(B), B non-empty -> EXCLUDE(A*B, B-A), filter timer GMI. RFC 3810 also
// asks Q(G, A*B) here; the routers this one replaces send none (their query looked for A*B in
// the include list they had just emptied), and neither does this one.
void toex_on_include(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g, const uint8_t* rec) {
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

// EXCLUDE (X, Y) + TO_EX(B), B non-empty -> EXCLUDE(B-Y, Y*B), Q(G, B-Y), B-X-Y at the filter
// timer, filter timer GMI; the sources of X*B keep their timers.
void toex_on_exclude(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g, const uint8_t* rec) {
    const uint8_t* b = mldrt_rec_srcs(rec);
    uint32_t nb = mldrt_rec_nsrc(rec);
    mldrt_src_result wanted, fresh, dropped, unexcluded;
    mldrt_subtract_srclist_and_rcvd_record(&wanted, g->exc_list, b, nb, 0);
    mldrt_take_req_timers(g, &wanted);
    mldrt_subtract_srclists(&fresh, mldrt_result_list(&wanted), g->req_list);
    mldrt_subtract_srclist_and_rcvd_record(&dropped, g->req_list, b, nb, 1);
    if (mldrt_empty_grp_srclist(r, g, g->mfdb, MLDRT_L_REQ, ifp) != 0) {
        mldrt_log("\n Couldnt empty req list\n");
        return;
    }
    mldrt_add_result_srcs(r, g, MLDRT_L_REQ, &wanted, ifp);
    mldrt_query_result(r, ifp, g, &wanted);
    mldrt_subtract_srclist_and_rcvd_record(&unexcluded, g->exc_list, b, nb, 1);
    mldrt_intersect_grp_srclist_with_rcvd_record(r, g, MLDRT_L_EXC, b, nb, ifp);
    mldrt_remove_from_req_and_exc(r, g, &unexcluded, ifp);
    mldrt_remove_from_req_and_exc(r, g, &dropped, ifp);
    mldrt_set_req_timers(g, &fresh, g->ftimer);
    g->ftimer = static_cast<int32_t>(mldrt_gmi(r));
}

// Either mode + TO_EX{} -> EXCLUDE({}, {}), filter timer GMI, no query: every source wanted.
void toex_all(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g) {
    if (g->fmode == MLDRT_INCLUDE) {
        if (mldrt_empty_grp_srclist(r, g, g->mfdb, MLDRT_L_INCLUDE, ifp) != 0) {
            mldrt_log("\n Couldnt empty include list\n");
            return;
        }
        mldrt_enter_exclude(r, g, ifp);
        return;
    }
    if (mldrt_empty_grp_srclist(r, g, g->mfdb, MLDRT_L_REQ, ifp) != 0) {
        mldrt_log("\n Couldnt empty include list\n");
        return;
    }
    if (mldrt_empty_grp_srclist(r, g, g->mfdb, MLDRT_L_EXC, ifp) != 0) {
        mldrt_log("\n Couldnt empty EXCLUDE list\n");
        return;
    }
    g->ftimer = static_cast<int32_t>(mldrt_gmi(r));
}

}  // namespace

int mldrt_handle_v2_toin_record(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                const uint8_t* rec) {
    // A leave creates nothing, and only a host that may be listening may announce it: a
    // recorded member, or any host while the member list is full.
    mldrt_group* g = mldrt_lookup_group(ifp, mldrt_rec_group(rec));
    mldrt_member* m = g ? mldrt_lookup_member(g, src) : nullptr;
    if (!g || (!m && !mldrt_members_full(g))) {
        return 0;
    }
    if (g->fmode == MLDRT_INCLUDE) {
        toin_on_include(r, ifp, g, rec);
    } else if (g->fmode == MLDRT_EXCLUDE) {
        toin_on_exclude(r, ifp, g, rec);
    }
    // TO_IN{} is the host's leave: it is no longer a member, and its place can go to a host
    // that the limit kept off the list.
    if (m && mldrt_rec_nsrc(rec) == 0) {
        mldrt_delete_member(m);
    }
    return 0;
}

int mldrt_handle_v2_toex_record(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                const uint8_t* rec) {
    mldrt_group* g = mldrt_join_group(r, ifp, src, mldrt_rec_group(rec), true);
    if (!g || g->fmode > MLDRT_EXCLUDE) {
        return 0;
    }
    // With an MLDv1 host present the group's sources cannot be filtered: TO_EX{S} counts as
    // TO_EX{} (RFC 3810 section 8.3.2).
    if (mldrt_rec_nsrc(rec) == 0 || g->v1_host_timer > 0) {
        toex_all(r, ifp, g);
    } else if (g->fmode == MLDRT_INCLUDE) {
        toex_on_include(r, ifp, g, rec);
    } else {
        toex_on_exclude(r, ifp, g, rec);
    }
    return 0;
}
