// The event loop's two work lists of forwarding-database entries: the entries whose listener
// state changed since the last merge, and the entries with upstream retransmissions due. With
// them the loop merges and retransmits only what needs it, whatever the number of groups held.
#include "db/db.h"
#include "db/fifo.h"

namespace {

mldrt_fifo<mldrt_mfdb_entry, &mldrt_mfdb_entry::changed_next, &mldrt_mfdb_entry::changed_pprev>
    g_changed;
// Every retransmission is queued the same delay after its reason, so arrival order is due order.
mldrt_fifo<mldrt_mfdb_entry, &mldrt_mfdb_entry::rtx_next, &mldrt_mfdb_entry::rtx_pprev> g_rtx;

}  // namespace

void mldrt_mark_changed(mldrt_mfdb_entry* e) {
    if (e) {
        g_changed.push(e);
    }
}

mldrt_mfdb_entry* mldrt_take_changed() {
    return g_changed.pop();
}

void mldrt_queue_retransmission(mldrt_mfdb_entry* e, uint64_t due_ms) {
    if (!decltype(g_rtx)::queued(e)) {
        e->rtx_due_ms = due_ms;
        g_rtx.push(e);
    }
}

mldrt_mfdb_entry* mldrt_first_retransmission() {
    return g_rtx.front();
}

void mldrt_forget_entry_work(mldrt_mfdb_entry* e) {
    g_changed.remove(e);
    g_rtx.remove(e);
}

void mldrt_clear_work_lists() {
    g_changed.clear();
    g_rtx.clear();
}
