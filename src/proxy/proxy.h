// The upstream host side: the merged per-group state that the proxy reports on the upstream
// link as a single MLDv2 host (RFC 3810 section 7's merging rules applied across the
// downstream links), and the state-change reports with their retransmissions (section 6.1).
#ifndef MLDPROXYD_PROXY_PROXY_H
#define MLDPROXYD_PROXY_PROXY_H

#include <cstdint>

#include "core/router.h"

struct mldrt_mfdb_entry;

// Rebuilds every group's host state and reports what changed.
void mldrt_update_host_state(mldrt_router* r);
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
// INCLUDE{} with nothing pending, so the next update reports the whole state afresh
// (RFC 3810 section 6.1).
void mldrt_restart_host_state(mldrt_router* r);
// One retransmission pass over every group, and over one.
void mldrt_clean_host_state(mldrt_router* r);
void mldrt_clean_mfdb_host_state(mldrt_router* r, mldrt_mfdb_entry* e);

#endif
