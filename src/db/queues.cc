// The event loop's two work lists of forwarding-database entries: the entries whose listener
// state changed since the last merge, and the entries with upstream retransmissions due. With
// them the loop merges and retransmits only what needs it, whatever the number of groups held.
#include "db/db.h"
#include "base/fifo.h"

namespace mldproxy {

namespace {

Fifo<ForwardingEntry, &ForwardingEntry::changed_next, &ForwardingEntry::changed_pprev> g_changed;
// Every retransmission is queued the same delay after its reason, so arrival order is due order.
Fifo<PendingReport, &PendingReport::next, &PendingReport::pprev> g_rtx;

}  // namespace

void mark_changed(ForwardingEntry* e) {
    if (e) {
        g_changed.push(e);
    }
}

ForwardingEntry* take_changed() {
    return g_changed.pop();
}

void queue_retransmission(PendingReport* p, uint64_t due_ms) {
    if (!decltype(g_rtx)::queued(p)) {
        p->due_ms = due_ms;
        g_rtx.push(p);
    }
}

PendingReport* first_retransmission() {
    return g_rtx.front();
}

void forget_retransmission(PendingReport* p) {
    g_rtx.remove(p);
}

void forget_changed(ForwardingEntry* e) {
    g_changed.remove(e);
}

void clear_work_lists() {
    g_changed.clear();
    g_rtx.clear();
}

}  // namespace mldproxy
