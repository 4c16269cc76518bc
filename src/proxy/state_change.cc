// State-change records upstream (RFC 3810 section 6.1): the first copy as soon as the host
// state changes, then robustness - 1 retransmissions, each an Unsolicited Report Interval after
// the one before, carrying the records as they stand when it leaves. A filter-mode change
// replaces whatever was pending; while its record is pending, it carries every later change.
#include <cstdlib>

#include "core/clock.h"
#include "db/db.h"
#include "mld/mld.h"
#include "proxy/proxy.h"

namespace {

int32_t retransmissions(const mldrt_router* r) {
    return static_cast<int32_t>(r->robustness - 1);
}

// Adds every source of `from` that is not in `except` to the state-change list `ltype`, each
// with its own count, and returns how many there were. The difference is taken over the whole
// lists: every changed source is reported, however many changed.
uint32_t add_scr(mldrt_router* r, mldrt_mfdb_entry* e, uint32_t ltype, const mldrt_src* from,
                 const mldrt_src* except = nullptr) {
    uint32_t n = 0;
    for (; from; from = from->next) {
        if (mldrt_srclist_has(except, from->src_addr)) {
            continue;
        }
        n++;
        mldrt_src* s = mldrt_add_src_to_group(nullptr, e, ltype, from->src_addr);
        if (s) {
            s->timer = retransmissions(r);
        }
    }
    return n;
}

// Makes the sources of `from` not in `except` a pending change of kind `ltype` (ALLOW or
// BLOCK) and returns how many there were. A source newly allowed is no longer blocked, and the
// other way round: the two pending lists never name one source, so a retransmission never
// contradicts the latest change.
uint32_t add_source_change(mldrt_router* r, mldrt_mfdb_entry* e, uint32_t ltype,
                           const mldrt_src* from, const mldrt_src* except) {
    uint32_t opposite = ltype == MLDRT_L_SCR_ALLOW ? MLDRT_L_SCR_BLOCK : MLDRT_L_SCR_ALLOW;
    for (const mldrt_src* s = from; s; s = s->next) {
        if (!mldrt_srclist_has(except, s->src_addr)) {
            mldrt_del_src_from_group(nullptr, e, opposite, s->src_addr);
        }
    }
    return add_scr(r, e, ltype, from, except);
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

// Where records go: into the report being collected for a whole batch of changes when there is
// one, else into a report of their own that leaves when the sink goes out of scope.
class record_sink {
  public:
    explicit record_sink(mldrt_router* r) : rb_(r->report_batch ? r->report_batch : &own_) {
        mldrt_rb_init(&own_, r);
    }
    ~record_sink() { mldrt_rb_flush(&own_); }
    record_sink(const record_sink&) = delete;
    record_sink& operator=(const record_sink&) = delete;
    void add(const mldrt_mfdb_entry* e, uint8_t rec_type, const mldrt_src* list) {
        mldrt_rb_add(rb_, e->grp_addr, rec_type, list);
    }

  private:
    mldrt_report_builder own_{};
    mldrt_report_builder* rb_;
};

void send_one(mldrt_router* r, mldrt_mfdb_entry* e, uint8_t rec_type, const mldrt_src* list) {
    record_sink(r).add(e, rec_type, list);
}

// ALLOW then BLOCK in one report; an empty report when there is neither.
void send_allow_block(mldrt_router* r, mldrt_mfdb_entry* e, bool allow, bool block) {
    if (!allow && !block) {
        mldrt_send_upstream_report(r, 0, 0);
        return;
    }
    record_sink sink(r);
    if (allow) {
        sink.add(e, MLDRT_REC_ALLOW_NEW_SOURCES, e->scr_allow_list);
    }
    if (block) {
        sink.add(e, MLDRT_REC_BLOCK_OLD_SOURCES, e->scr_block_list);
    }
}

void include_to_include(mldrt_router* r, mldrt_mfdb_entry* e, const mldrt_src* old_list,
                        const mldrt_src* new_list) {
    uint32_t added = add_source_change(r, e, MLDRT_L_SCR_ALLOW, new_list, old_list);
    if (added > 0) {
        e->scr_allow_cnt = retransmissions(r);
    }
    uint32_t removed = add_source_change(r, e, MLDRT_L_SCR_BLOCK, old_list, new_list);
    if (removed > 0) {
        e->scr_block_cnt = retransmissions(r);
    }
    send_allow_block(r, e, added > 0, removed > 0);
}

void exclude_to_exclude(mldrt_router* r, mldrt_mfdb_entry* e, const mldrt_src* old_list,
                        const mldrt_src* new_list) {
    uint32_t allowed = add_source_change(r, e, MLDRT_L_SCR_ALLOW, old_list, new_list);
    uint32_t blocked = add_source_change(r, e, MLDRT_L_SCR_BLOCK, new_list, old_list);
    // Both counts are set even when one direction is empty, as deployed.
    e->scr_allow_cnt = retransmissions(r);
    e->scr_block_cnt = retransmissions(r);
    send_allow_block(r, e, allowed > 0, blocked > 0);
}

// A filter-mode change record with the whole new source list (RFC 3810 section 6.1). It
// replaces every record still pending: an older mode record or source-list change sent after it
// would undo part of the new state upstream (a TO_IN{} after a later TO_EX{} leaves the group).
void restate_filter_mode(mldrt_router* r, mldrt_mfdb_entry* e, uint32_t mode,
                         const mldrt_src* list) {
    mldrt_clear_pending_reports(e);
    bool exclude = mode == MLDRT_EXCLUDE;
    add_scr(r, e, exclude ? MLDRT_L_SCR_TO_EX : MLDRT_L_SCR_TO_IN, list);
    (exclude ? e->scr_to_ex_cnt : e->scr_to_in_cnt) = retransmissions(r);
    send_one(r, e, exclude ? MLDRT_REC_CHANGE_TO_EXCLUDE : MLDRT_REC_CHANGE_TO_INCLUDE,
             exclude ? e->scr_to_ex_list : e->scr_to_in_list);
}

}  // namespace

void mldrt_clear_pending_reports(mldrt_mfdb_entry* e) {
    e->scr_to_ex_cnt = e->scr_to_in_cnt = e->scr_allow_cnt = e->scr_block_cnt = 0;
    mldrt_free_srclist(&e->scr_to_ex_list);
    mldrt_free_srclist(&e->scr_to_in_list);
    mldrt_free_srclist(&e->scr_allow_list);
    mldrt_free_srclist(&e->scr_block_list);
}

void mldrt_handle_host_state_transitions(mldrt_router* r, mldrt_mfdb_entry* e, uint32_t old_mode,
                                         uint32_t new_mode) {
    if (old_mode > MLDRT_EXCLUDE || new_mode > MLDRT_EXCLUDE || !e->old_host_state ||
        !e->new_host_state) {
        return;
    }
    const mldrt_src* old_list = e->old_host_state->list;
    const mldrt_src* new_list = e->new_host_state->list;
    bool mode_record_pending = e->scr_to_ex_cnt != 0 || e->scr_to_in_cnt != 0;
    if (old_mode != new_mode || mode_record_pending) {
        restate_filter_mode(r, e, new_mode, new_list);
    } else if (old_mode == MLDRT_INCLUDE) {
        include_to_include(r, e, old_list, new_list);
    } else {
        exclude_to_exclude(r, e, old_list, new_list);
    }
    prune_all_spent(e);
    if (mldrt_pending_host_state_update(e)) {
        mldrt_queue_retransmission(e, mldrt_now_ms() + MLDRT_UNSOLICITED_REPORT_INTERVAL_MS);
    }
}

void mldrt_clean_mfdb_host_state(mldrt_router* r, mldrt_mfdb_entry* e) {
    if (e->scr_to_ex_cnt == 0 && e->scr_to_in_cnt == 0) {
        record_sink sink(r);
        if (e->scr_allow_cnt > 0) {
            sink.add(e, MLDRT_REC_ALLOW_NEW_SOURCES, e->scr_allow_list);
            e->scr_allow_cnt--;
            count_down(&e->scr_allow_list);
        }
        if (e->scr_block_cnt > 0) {
            sink.add(e, MLDRT_REC_BLOCK_OLD_SOURCES, e->scr_block_list);
            e->scr_block_cnt--;
            count_down(&e->scr_block_list);
        }
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

void mldrt_retransmit_due(mldrt_router* r, uint64_t now_ms) {
    mldrt_report_builder batch;
    mldrt_rb_init(&batch, r);
    r->report_batch = &batch;
    mldrt_mfdb_entry* e = nullptr;
    while ((e = mldrt_first_retransmission()) && e->rtx_due_ms <= now_ms) {
        mldrt_forget_entry_work(e);
        mldrt_clean_mfdb_host_state(r, e);
        if (mldrt_pending_host_state_update(e)) {
            mldrt_queue_retransmission(e, now_ms + MLDRT_UNSOLICITED_REPORT_INTERVAL_MS);
        } else {
            mldrt_mark_changed(e);  // its last copy is gone: it may be removed now
        }
    }
    r->report_batch = nullptr;
    mldrt_rb_flush(&batch);
}

uint64_t mldrt_next_retransmission_ms() {
    const mldrt_mfdb_entry* e = mldrt_first_retransmission();
    return e ? e->rtx_due_ms : MLDRT_NEVER;
}
