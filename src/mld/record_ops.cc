#include "core/addr.h"
#include "mld/record_ops.h"

#include "mld/handlers.h"
#include "mld/mld.h"

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
            // Wanted before it is no longer excluded: its (S,G) entry is rewritten, not dropped.
            mldrt_add_entry_to_grp_srclist(r, g, MLDRT_L_REQ, s, gmi, ifp);
            mldrt_remove_entry_from_grp_srclist(r, g, g->mfdb, MLDRT_L_EXC, s, ifp);
        }
    }
}

void mldrt_add_result_srcs(mldrt_router* r, mldrt_group* g, uint32_t ltype,
                           const mldrt_src_result* res, mldrt_interface* ifp) {
    for (uint32_t i = 0; i < res->n; i++) {
        const mldrt_src& s = res->entries[i];
        mldrt_add_entry_to_grp_srclist(r, g, ltype, s.src_addr, s.timer, ifp);
    }
}

void mldrt_add_result_timer(mldrt_router* r, mldrt_group* g, uint32_t ltype,
                            const mldrt_src_result* res, int32_t timer, mldrt_interface* ifp) {
    for (uint32_t i = 0; i < res->n; i++) {
        mldrt_add_entry_to_grp_srclist(r, g, ltype, res->entries[i].src_addr, timer, ifp);
    }
}

void mldrt_set_req_timers(mldrt_group* g, const mldrt_src_result* res, int32_t timer) {
    for (uint32_t i = 0; i < res->n; i++) {
        mldrt_src* s = mldrt_lookup_src_in_grplist(g->req_list, res->entries[i].src_addr);
        if (s) {
            s->timer = timer;
        }
    }
}

void mldrt_take_req_timers(const mldrt_group* g, mldrt_src_result* res) {
    for (uint32_t i = 0; i < res->n; i++) {
        const mldrt_src* s = mldrt_lookup_src_in_grplist(g->req_list, res->entries[i].src_addr);
        if (s) {
            res->entries[i].timer = s->timer;
        }
    }
}

void mldrt_remove_from_req_and_exc(mldrt_router* r, mldrt_group* g, const mldrt_src_result* res,
                                   mldrt_interface* ifp) {
    for (uint32_t i = 0; i < res->n; i++) {
        const uint8_t* addr = res->entries[i].src_addr;
        mldrt_remove_entry_from_grp_srclist(r, g, g->mfdb, MLDRT_L_REQ, addr, ifp);
        mldrt_remove_entry_from_grp_srclist(r, g, g->mfdb, MLDRT_L_EXC, addr, ifp);
    }
}

void mldrt_query_result(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g,
                        const mldrt_src_result* res) {
    if (res->n > 0) {
        mldrt_update_fsm_and_send_query(r, ifp, g, g->grp_addr, res->entries, res->n);
    }
}

void mldrt_enter_exclude(mldrt_router* r, mldrt_group* g, mldrt_interface* ifp) {
    g->fmode = MLDRT_EXCLUDE;
    g->mfdb->exclude_count++;
    mldrt_mark_changed(g->mfdb);
    g->ftimer = static_cast<int32_t>(mldrt_gmi(r));
    mldrt_forward_whole_group(r, g, ifp);
}
