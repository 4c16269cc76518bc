// The upstream host side: the merged per-group state that the proxy reports on the upstream
// link as a single MLDv2 host (RFC 3810 section 7's merging rules applied across the
// downstream links), and the state-change reports with their retransmissions (section 6.1).
#ifndef MLDPROXYD_PROXY_PROXY_H
#define MLDPROXYD_PROXY_PROXY_H

#include <cstdint>

#include "db/db.h"
#include "db/router.h"

namespace mldproxy {

struct ForwardingEntry;

// The Unsolicited Report Interval (RFC 3810 section 9.11): the gap between a state-change
// report and its retransmission, and between retransmissions.
constexpr uint64_t kUnsolicitedReportIntervalMs = 1000;

// Rebuilds the host state of just the groups whose listener state changed since the last call
// and sends the first copies of every resulting state-change record in as few reports as they
// fit; entries left with nothing to forward or report are removed.
void report_changes(Router* r);
void build_host_state(Router* r, ForwardingEntry* e);
// Non-zero when the state just built differs from the one last acted upon.
bool diff_host_state(const ForwardingEntry* e);
void act_on_state_change(Router* r, ForwardingEntry* e);
void finish_host_state_update(ForwardingEntry* e);

// Records the state-change records for a change from `old_mode` to `new_mode` and sends the
// first copy.
void handle_host_state_transitions(Router* r, ForwardingEntry* e, FilterMode old_mode,
                                   FilterMode new_mode);
// A new upstream link has heard nothing from us: every group's last reported state becomes
// INCLUDE{} with nothing pending and every entry counts as changed, so the next merge reports
// the whole state afresh (RFC 3810 section 6.1).
void restart_host_state(Router* r);
// Sends, in as few reports as they fit, the retransmissions due by `now_ms`, each carrying the
// records pending when it leaves, and queues the next ones.
void retransmit_due(Router* r, uint64_t now_ms);
// When the next retransmission is due (kNever when none is queued).
uint64_t next_retransmission_ms();
// Forgets every record still to be sent or repeated for the entry.
void clear_pending_reports(ForwardingEntry* e);
// One retransmission of one entry's pending records.
void clean_host_state(Router* r, ForwardingEntry* e);

}  // namespace mldproxy

#endif
