// The upstream host side: the merged per-group state that the proxy reports on the upstream
// link as a single MLDv2 host (RFC 3810 section 7's merging rules applied across the
// downstream links), and the state-change reports with their retransmissions (section 6.1).
#ifndef MLDPROXYD_PROXY_PROXY_H
#define MLDPROXYD_PROXY_PROXY_H

#include <cstdint>

#include "core/router.h"

struct mldrt_mfdb_entry;

// The Unsolicited Report Interval (RFC 3810 section 9.11): the gap between a state-change
// report and its retransmission, and between retransmissions.
constexpr uint64_t MLDRT_UNSOLICITED_REPORT_INTERVAL_MS = 1000;

// Rebuilds the host state of just the groups whose listener state changed since the last call
// and sends the first copies of every resulting state-change record in as few reports as they
// fit; entries left with nothing to forward or report are removed.
void mldrt_report_changes(mldrt_router* r);
void mldrt_build_host_state(mldrt_router* r, mldrt_mfdb_entry* e);
// Non-zero when the state just built differs from the one last acted upon.
int mldrt_diff_host_state(mldrt_router* r, mldrt_mfdb_entry* e);
void mldrt_take_host_state_change_actions(mldrt_router* r, mldrt_mfdb_entry* e);
void mldrt_finish_host_state_update(mldrt_router* r, mldrt_mfdb_entry* e);

// Records the state-change records for a change from `old_mode` to `new_mode` and sends the
// first copy.
void mldrt_handle_host_state_transitions(mldrt_router* r, mldrt_mfdb_entry* e, uint32_t old_mode,
                                         uint32_t new_mode);
// A new upstream link has heard nothing from us: every group's last reported state becomes
// INCLUDE{} with nothing pending and every entry counts as changed, so the next merge reports
// the whole state afresh (RFC 3810 section 6.1).
void mldrt_restart_host_state(mldrt_router* r);
// Sends, in as few reports as they fit, the retransmissions due by `now_ms`, each carrying the
// records pending when it leaves, and queues the next ones.
void mldrt_retransmit_due(mldrt_router* r, uint64_t now_ms);
// When the next retransmission is due (MLDRT_NEVER when none is queued).
uint64_t mldrt_next_retransmission_ms();
// Forgets every record still to be sent or repeated for the entry.
void mldrt_clear_pending_reports(mldrt_mfdb_entry* e);
// One retransmission of one entry's pending records.
void mldrt_clean_mfdb_host_state(mldrt_router* r, mldrt_mfdb_entry* e);

#endif
