// The event loop's two work lists of forwarding-database entries: the entries whose listener
// state changed since the last merge, and the entries with upstream retransmissions due. With
// them the loop merges and retransmits only what needs it, whatever the number of groups held.
#include "db/db.h"
#include "base/fifo.h"

namespace mldproxy {

namespace {

// The changed list links its entries one way (an entry carries one pointer for it, not two):
// an entry is taken from the head, and leaves from elsewhere only when it is deleted while
// still on the list, which costs a walk of a list that each merge empties.
struct ChangedList {
    ForwardingEntry* head = nullptr;
    ForwardingEntry** tail = &head;
};
ChangedList g_changed;
// Every retransmission is queued the same delay after its reason, so arrival order is due order.
Fifo<PendingReport, &PendingReport::next, &PendingReport::pprev> g_rtx;

}  // namespace

void mark_changed(ForwardingEntry* e) {
    if (e && !e->on_changed_list) {
        e->on_changed_list = true;
        e->changed_next = nullptr;
        *g_changed.tail = e;
        g_changed.tail = &e->changed_next;
    }
}

ForwardingEntry* take_changed() {
    ForwardingEntry* e = g_changed.head;
    if (e) {
        forget_changed(e);
    }
    return e;
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
    if (!e->on_changed_list) {
        return;
    }
    for (ForwardingEntry** link = &g_changed.head; *link; link = &(*link)->changed_next) {
        if (*link == e) {
            *link = e->changed_next;
            if (g_changed.tail == &e->changed_next) {
                g_changed.tail = link;
            }
            break;
        }
    }
    e->on_changed_list = false;
    e->changed_next = nullptr;
}

void clear_work_lists() {
    while (take_changed()) {
    }
    g_rtx.clear();
}

}  // namespace mldproxy
