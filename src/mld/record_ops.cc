#include "core/addr.h"
#include "mld/record_ops.h"

#include "mld/handlers.h"
#include "mld/mld.h"

namespace {}  // namespace

void mldrt_add_record_srcs(mldrt_router* r, mldrt_group* g, uint32_t ltype, const uint8_t* rec,
                           int32_t timer, mldrt_interface* ifp) {
    const uint8_t* srcs = mldrt_rec_srcs(rec);
    for (uint32_t i = 0; i < mldrt_rec_nsrc(rec); i++) {
        mldrt_add_entry_to_grp_srclist(r, g, ltype, srcs + MLDRT_ADDR_LEN * i, timer, ifp);
    }
}

void mldrt_want_record_srcs(mldrt_router* r, mldrt_group* g, const uint8_t* rec,
                            mldrt_interface* ifp) {
    int32_t gmi = static_cast<int32_t>(mldrt_gmi(r));
    const uint8_t* srcs = mldrt_rec_srcs(rec);
    for (uint32_t i = 0; i < mldrt_rec_nsrc(rec); i++) {
        const uint8_t* s = srcs + MLDRT_ADDR_LEN * i;
        if (g->fmode == MLDRT_INCLUDE) {
            mldrt_add_entry_to_grp_srclist(r, g, MLDRT_L_INCLUDE, s, gmi, ifp);
        } else {
            mldrt_remove_entry_from_grp_srclist(r, g, g->mfdb, MLDRT_L_EXC, s, ifp);
            mldrt_add_entry_to_grp_srclist(r, g, MLDRT_L_REQ, s, gmi, ifp);
        }
    }
}

void mldrt_add_result_srcs(mldrt_router* r, mldrt_group* g, uint32_t ltype, const mldrt_src* arr,
                           int n, mldrt_interface* ifp) {
    for (int i = 0; i < n; i++) {
        mldrt_add_entry_to_grp_srclist(r, g, ltype, arr[i].src_addr, arr[i].timer, ifp);
    }
}

void mldrt_add_result_timer(mldrt_router* r, mldrt_group* g, uint32_t ltype, const mldrt_src* arr,
                            int n, int32_t timer, mldrt_interface* ifp) {
    for (int i = 0; i < n; i++) {
        mldrt_add_entry_to_grp_srclist(r, g, ltype, arr[i].src_addr, timer, ifp);
    }
}

void mldrt_set_req_timers(mldrt_group* g, const mldrt_src* arr, int n, int32_t timer) {
    for (int i = 0; i < n; i++) {
        mldrt_src* s = mldrt_lookup_src_in_grplist(g->req_list, arr[i].src_addr);
        if (s) {
            s->timer = timer;
        }
    }
}

void mldrt_remove_from_req_and_exc(mldrt_router* r, mldrt_group* g, const mldrt_src* arr, int n,
                                   mldrt_interface* ifp) {
    for (int i = 0; i < n; i++) {
        mldrt_remove_entry_from_grp_srclist(r, g, g->mfdb, MLDRT_L_REQ, arr[i].src_addr, ifp);
        mldrt_remove_entry_from_grp_srclist(r, g, g->mfdb, MLDRT_L_EXC, arr[i].src_addr, ifp);
    }
}

void mldrt_enter_exclude(mldrt_router* r, mldrt_group* g) {
    g->fmode = MLDRT_EXCLUDE;
    g->mfdb->exclude_count++;
    mldrt_mark_changed(g->mfdb);
    g->ftimer = static_cast<int32_t>(mldrt_gmi(r));
}

void mldrt_want_whole_group(mldrt_router* r, mldrt_group* g, mldrt_interface* ifp) {
    mldrt_add_entry_to_grp_srclist(r, g, MLDRT_L_REQ, MLDRT_ADDR_ANY,
                                   static_cast<int32_t>(mldrt_gmi(r)), ifp);
}
