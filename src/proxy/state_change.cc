// State-change records upstream (RFC 3810 section 6.1): the first copy when the host state
// changes, then robustness - 1 retransmissions, one per tick. A pending filter-mode change
// holds back ALLOW and BLOCK retransmissions, and TO_EX goes before TO_IN.
#include <cstdlib>

#include "db/db.h"
#include "mld/mld.h"
#include "proxy/proxy.h"

namespace {

int32_t retransmissions(const mldrt_router* r) {
    return static_cast<int32_t>(r->robustness - 1);
}

// An algebra result as a list; an overflowed one (-1) counts as empty.
const mldrt_src* result_list(const mldrt_src* arr, int n) {
    return n > 0 ? arr : nullptr;
}

// Adds every source of `from` to the state-change list `ltype`, each with its own count.
void add_scr(mldrt_router* r, mldrt_mfdb_entry* e, uint32_t ltype, const mldrt_src* from) {
    for (; from; from = from->next) {
        mldrt_src* s = mldrt_add_src_to_group(nullptr, e, ltype, from->src_addr);
        if (s) {
            s->timer = retransmissions(r);
        }
    }
}

// Removes the entries whose count is spent.
void prune_spent(mldrt_src** list) {
    while (*list) {
        mldrt_src* s = *list;
        if (s->timer <= 0) {
            *list = s->next;
            free(s);
        } else {
            list = &s->next;
        }
    }
}

// One copy went out: every entry counts down and leaves when it has been sent often enough.
void count_down(mldrt_src** list) {
    for (mldrt_src* s = *list; s; s = s->next) {
        s->timer--;
    }
    prune_spent(list);
}

// With robustness 1 no retransmission pass ever runs: entries whose count is already spent
// leave right after the first copy, so the lists do not grow for ever.
void prune_all_spent(mldrt_mfdb_entry* e) {
    prune_spent(&e->scr_to_ex_list);
    prune_spent(&e->scr_to_in_list);
    prune_spent(&e->scr_allow_list);
    prune_spent(&e->scr_block_list);
}

void send_one(mldrt_router* r, mldrt_mfdb_entry* e, uint8_t rec_type, const mldrt_src* list) {
    mldrt_report_builder rb;
    mldrt_rb_init(&rb, r);
    mldrt_rb_add(&rb, e->grp_addr, rec_type, list);
    mldrt_rb_flush(&rb);
}

// ALLOW then BLOCK in one report; an empty report when there is neither.
void send_allow_block(mldrt_router* r, mldrt_mfdb_entry* e, bool allow, bool block) {
    if (!allow && !block) {
        mldrt_send_upstream_report(r, 0, 0);
        return;
    }
    mldrt_report_builder rb;
    mldrt_rb_init(&rb, r);
    if (allow) {
        mldrt_rb_add(&rb, e->grp_addr, MLDRT_REC_ALLOW_NEW_SOURCES, e->scr_allow_list);
    }
    if (block) {
        mldrt_rb_add(&rb, e->grp_addr, MLDRT_REC_BLOCK_OLD_SOURCES, e->scr_block_list);
    }
    mldrt_rb_flush(&rb);
}

void include_to_include(mldrt_router* r, mldrt_mfdb_entry* e, const mldrt_src* old_list,
                        const mldrt_src* new_list) {
    int added =
        mldrt_subtract_srclists(aIPv6SrcAddrList2, MLDRT_SRCLIST_CAPACITY, new_list, old_list);
    int removed =
        mldrt_subtract_srclists(aIPv6SrcAddrList1, MLDRT_SRCLIST_CAPACITY, old_list, new_list);
    add_scr(r, e, MLDRT_L_SCR_ALLOW, result_list(aIPv6SrcAddrList2, added));
    if (added > 0) {
        e->scr_allow_cnt = retransmissions(r);
    }
    add_scr(r, e, MLDRT_L_SCR_BLOCK, result_list(aIPv6SrcAddrList1, removed));
    if (removed > 0) {
        e->scr_block_cnt = retransmissions(r);
    }
    // The CHANGE_TO_EXCLUDE counter decides here, as deployed routers have always tested it.
    if (e->scr_to_ex_cnt != 0) {
        send_one(r, e, MLDRT_REC_CHANGE_TO_INCLUDE, new_list);
        return;
    }
    send_allow_block(r, e, added > 0, removed > 0);
}

void exclude_to_exclude(mldrt_router* r, mldrt_mfdb_entry* e, const mldrt_src* old_list,
                        const mldrt_src* new_list) {
    int allowed =
        mldrt_subtract_srclists(aIPv6SrcAddrList2, MLDRT_SRCLIST_CAPACITY, old_list, new_list);
    int blocked =
        mldrt_subtract_srclists(aIPv6SrcAddrList1, MLDRT_SRCLIST_CAPACITY, new_list, old_list);
    add_scr(r, e, MLDRT_L_SCR_ALLOW, result_list(aIPv6SrcAddrList2, allowed));
    add_scr(r, e, MLDRT_L_SCR_BLOCK, result_list(aIPv6SrcAddrList1, blocked));
    // Both counts are set even when one direction is empty, as deployed.
    e->scr_allow_cnt = retransmissions(r);
    e->scr_block_cnt = retransmissions(r);
    if (e->scr_to_ex_cnt != 0 || e->scr_to_in_cnt != 0) {
        send_one(r, e, MLDRT_REC_CHANGE_TO_EXCLUDE, new_list);
        return;
    }
    send_allow_block(r, e, allowed > 0, blocked > 0);
}

}  // namespace

void mldrt_handle_host_state_transitions(mldrt_router* r, mldrt_mfdb_entry* e, uint32_t old_mode,
                                         uint32_t new_mode) {
    if (old_mode > MLDRT_EXCLUDE || new_mode > MLDRT_EXCLUDE || !e->old_host_state ||
        !e->new_host_state) {
        return;
    }
    const mldrt_src* old_list = e->old_host_state->list;
    const mldrt_src* new_list = e->new_host_state->list;
    if (old_mode == MLDRT_INCLUDE && new_mode == MLDRT_EXCLUDE) {
        add_scr(r, e, MLDRT_L_SCR_TO_EX, new_list);
        e->scr_to_ex_cnt = retransmissions(r);
        send_one(r, e, MLDRT_REC_CHANGE_TO_EXCLUDE, e->scr_to_ex_list);
    } else if (old_mode == MLDRT_EXCLUDE && new_mode == MLDRT_INCLUDE) {
        add_scr(r, e, MLDRT_L_SCR_TO_IN, new_list);
        e->scr_to_in_cnt = retransmissions(r);
        send_one(r, e, MLDRT_REC_CHANGE_TO_INCLUDE, e->scr_to_in_list);
    } else if (old_mode == MLDRT_INCLUDE) {
        include_to_include(r, e, old_list, new_list);
    } else {
        exclude_to_exclude(r, e, old_list, new_list);
    }
    prune_all_spent(e);
}

void mldrt_clean_mfdb_host_state(mldrt_router* r, mldrt_mfdb_entry* e) {
    if (e->scr_to_ex_cnt == 0 && e->scr_to_in_cnt == 0) {
        mldrt_report_builder rb;
        mldrt_rb_init(&rb, r);
        if (e->scr_allow_cnt > 0) {
            mldrt_rb_add(&rb, e->grp_addr, MLDRT_REC_ALLOW_NEW_SOURCES, e->scr_allow_list);
            e->scr_allow_cnt--;
            count_down(&e->scr_allow_list);
        }
        if (e->scr_block_cnt > 0) {
            mldrt_rb_add(&rb, e->grp_addr, MLDRT_REC_BLOCK_OLD_SOURCES, e->scr_block_list);
            e->scr_block_cnt--;
            count_down(&e->scr_block_list);
        }
        mldrt_rb_flush(&rb);
    } else if (e->scr_to_ex_cnt < 1) {
        send_one(r, e, MLDRT_REC_CHANGE_TO_INCLUDE, e->scr_to_in_list);
        e->scr_to_in_cnt--;
        count_down(&e->scr_to_in_list);
    } else {
        send_one(r, e, MLDRT_REC_CHANGE_TO_EXCLUDE, e->scr_to_ex_list);
        e->scr_to_ex_cnt--;
        count_down(&e->scr_to_ex_list);
    }
}

void mldrt_clean_host_state(mldrt_router* r) {
    for (mldrt_mfdb_entry* e = r->mfdb_list; e; e = e->next) {
        mldrt_clean_mfdb_host_state(r, e);
    }
}
