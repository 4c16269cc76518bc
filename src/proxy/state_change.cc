// State-change records upstream (RFC 3810 section 6.1): the first copy as soon as the host
// state changes, then robustness - 1 retransmissions, each an Unsolicited Report Interval after
// the one before, carrying the records as they stand when it leaves. A filter-mode change
// replaces whatever was pending; while its record is pending, it carries every later change.
#include <cstdlib>

#include "base/clock.h"
#include "db/db.h"
#include "mld/mld.h"
#include "proxy/proxy.h"

namespace mldproxy {

namespace {

int32_t retransmissions(const Router* r) {
    return static_cast<int32_t>(r->robustness - 1);
}

// Adds every source of `from` that is not in `except` to the state-change list `kind`, each
// with its own count, and returns how many there were. The difference is taken over the whole
// lists: every changed source is reported, however many changed.
uint32_t add_pending_sources(Router* r, ForwardingEntry* e, ListKind kind, const Source* from,
                             const Source* except = nullptr) {
    uint32_t n = 0;
    for (; from; from = from->next) {
        if (list_has(except, from->address)) {
            continue;
        }
        n++;
        Source* s = add_source_to_group(nullptr, e, kind, from->address);
        if (s) {
            s->timer = retransmissions(r);
        }
    }
    return n;
}

// Makes the sources of `from` not in `except` a pending change of kind `kind` (ALLOW or
// BLOCK) and returns how many there were. A source newly allowed is no longer blocked, and the
// other way round: the two pending lists never name one source, so a retransmission never
// contradicts the latest change.
uint32_t add_source_change(Router* r, ForwardingEntry* e, ListKind kind, const Source* from,
                           const Source* except) {
    ListKind opposite = kind == ListKind::Allow ? ListKind::Block : ListKind::Allow;
    for (const Source* s = from; s; s = s->next) {
        if (!list_has(except, s->address)) {
            remove_source_from_group(nullptr, e, opposite, s->address);
        }
    }
    return add_pending_sources(r, e, kind, from, except);
}

// Removes the entries whose count is spent.
void prune_spent(Source** list) {
    while (*list) {
        Source* s = *list;
        if (s->timer <= 0) {
            *list = s->next;
            free(s);
        } else {
            list = &s->next;
        }
    }
}

// One copy went out: every entry counts down and leaves when it has been sent often enough.
void count_down(Source** list) {
    if (!list) {
        return;
    }
    for (Source* s = *list; s; s = s->next) {
        s->timer--;
    }
    prune_spent(list);
}

// With robustness 1 no retransmission pass ever runs: entries whose count is already spent
// leave right after the first copy, so the lists do not grow for ever.
void prune_all_spent(ForwardingEntry* e) {
    if (PendingSources* p = e->pending ? e->pending->sources : nullptr) {
        prune_spent(&p->to_exclude);
        prune_spent(&p->to_include);
        prune_spent(&p->allow);
        prune_spent(&p->block);
    }
}

// The sources of one kind of pending record, to count down; nullptr when there are none.
Source** pending_list_of(ForwardingEntry* e, Source* PendingSources::*list) {
    PendingSources* p = e->pending ? e->pending->sources : nullptr;
    return p ? &(p->*list) : nullptr;
}

// Where records go: into the report being collected for a whole batch of changes when there is
// one, else into a report of their own that leaves when the sink goes out of scope.
class record_sink {
  public:
    explicit record_sink(Router* r) : rb_(r->report_batch ? r->report_batch : &own_) {
        report_init(&own_, r);
    }
    ~record_sink() { report_flush(&own_); }
    record_sink(const record_sink&) = delete;
    record_sink& operator=(const record_sink&) = delete;
    void add(const ForwardingEntry* e, RecordType rec_type, const Source* list) {
        report_add(rb_, e->address, rec_type, list);
    }

  private:
    ReportBuilder own_{};
    ReportBuilder* rb_;
};

void send_one(Router* r, ForwardingEntry* e, RecordType rec_type, const Source* list) {
    record_sink(r).add(e, rec_type, list);
}

// ALLOW then BLOCK in one report; an empty report when there is neither.
void send_allow_block(Router* r, ForwardingEntry* e, bool allow, bool block) {
    if (!allow && !block) {
        send_upstream_report(r, 0, 0);
        return;
    }
    record_sink sink(r);
    if (allow) {
        sink.add(e, RecordType::AllowNewSources, pending_sources(e).allow);
    }
    if (block) {
        sink.add(e, RecordType::BlockOldSources, pending_sources(e).block);
    }
}

void include_to_include(Router* r, ForwardingEntry* e, const Source* old_list,
                        const Source* new_list) {
    uint32_t added = add_source_change(r, e, ListKind::Allow, new_list, old_list);
    if (added > 0) {
        e->allow_count = retransmissions(r);
    }
    uint32_t removed = add_source_change(r, e, ListKind::Block, old_list, new_list);
    if (removed > 0) {
        e->block_count = retransmissions(r);
    }
    send_allow_block(r, e, added > 0, removed > 0);
}

void exclude_to_exclude(Router* r, ForwardingEntry* e, const Source* old_list,
                        const Source* new_list) {
    uint32_t allowed = add_source_change(r, e, ListKind::Allow, old_list, new_list);
    uint32_t blocked = add_source_change(r, e, ListKind::Block, new_list, old_list);
    // Both counts are set even when one direction is empty, as deployed.
    e->allow_count = retransmissions(r);
    e->block_count = retransmissions(r);
    send_allow_block(r, e, allowed > 0, blocked > 0);
}

// A filter-mode change record with the whole new source list (RFC 3810 section 6.1). It
// replaces every record still pending: an older mode record or source-list change sent after it
// would undo part of the new state upstream (a TO_IN{} after a later TO_EX{} leaves the group).
void restate_filter_mode(Router* r, ForwardingEntry* e, FilterMode mode, const Source* list) {
    clear_pending_reports(e);
    bool exclude = mode == FilterMode::Exclude;
    add_pending_sources(r, e, exclude ? ListKind::ChangeToExclude : ListKind::ChangeToInclude,
                        list);
    (exclude ? e->to_exclude_count : e->to_include_count) = retransmissions(r);
    const PendingSources p = pending_sources(e);
    send_one(r, e, exclude ? RecordType::ChangeToExclude : RecordType::ChangeToInclude,
             exclude ? p.to_exclude : p.to_include);
}

}  // namespace

void clear_pending_reports(ForwardingEntry* e) {
    e->to_exclude_count = e->to_include_count = e->allow_count = e->block_count = 0;
    if (PendingSources* p = e->pending ? e->pending->sources : nullptr) {
        free_list(&p->to_exclude);
        free_list(&p->to_include);
        free_list(&p->allow);
        free_list(&p->block);
    }
}

void handle_host_state_transitions(Router* r, ForwardingEntry* e, FilterMode old_mode,
                                   FilterMode new_mode) {
    if (!e->new_host_state) {
        return;
    }
    const Source* old_list = e->host_list;
    const Source* new_list = e->new_host_state->list;
    bool mode_record_pending = e->to_exclude_count != 0 || e->to_include_count != 0;
    if (old_mode != new_mode || mode_record_pending) {
        restate_filter_mode(r, e, new_mode, new_list);
    } else if (old_mode == FilterMode::Include) {
        include_to_include(r, e, old_list, new_list);
    } else {
        exclude_to_exclude(r, e, old_list, new_list);
    }
    prune_all_spent(e);
    PendingReport* p = state_change_pending(e) ? pending_report(e) : nullptr;
    if (p) {
        queue_retransmission(p, now_ms() + kUnsolicitedReportIntervalMs);
    } else {
        clear_pending_reports(e);  // nothing due, or no memory to queue the copies: none follow
        drop_spent_report(e);
    }
}

void clean_host_state(Router* r, ForwardingEntry* e) {
    const PendingSources p = pending_sources(e);
    if (e->to_exclude_count == 0 && e->to_include_count == 0) {
        record_sink sink(r);
        if (e->allow_count > 0) {
            sink.add(e, RecordType::AllowNewSources, p.allow);
            e->allow_count--;
            count_down(pending_list_of(e, &PendingSources::allow));
        }
        if (e->block_count > 0) {
            sink.add(e, RecordType::BlockOldSources, p.block);
            e->block_count--;
            count_down(pending_list_of(e, &PendingSources::block));
        }
    } else if (e->to_exclude_count < 1) {
        send_one(r, e, RecordType::ChangeToInclude, p.to_include);
        e->to_include_count--;
        count_down(pending_list_of(e, &PendingSources::to_include));
    } else {
        send_one(r, e, RecordType::ChangeToExclude, p.to_exclude);
        e->to_exclude_count--;
        count_down(pending_list_of(e, &PendingSources::to_exclude));
    }
}

void retransmit_due(Router* r, uint64_t now_ms) {
    ReportBuilder batch;
    report_init(&batch, r);
    r->report_batch = &batch;
    PendingReport* p = nullptr;
    while ((p = first_retransmission()) && p->due_ms <= now_ms) {
        ForwardingEntry* e = p->entry;
        forget_retransmission(p);
        clean_host_state(r, e);
        if (state_change_pending(e)) {
            queue_retransmission(p, now_ms + kUnsolicitedReportIntervalMs);
        } else {
            drop_spent_report(e);
            mark_changed(e);  // its last copy is gone: it may be removed now
        }
    }
    r->report_batch = nullptr;
    report_flush(&batch);
}

uint64_t next_retransmission_ms() {
    const PendingReport* p = first_retransmission();
    return p ? p->due_ms : kNever;
}

}  // namespace mldproxy
