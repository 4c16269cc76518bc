// The upstream host side: the merged per-group state that the proxy reports on the upstream
// link as an MLDv2 host, and the state-change reports with their retransmissions.
#ifndef MLDPROXYD_PROXY_PROXY_H
#define MLDPROXYD_PROXY_PROXY_H

#include "core/router.h"

// Rebuilds every group's host state and reports what changed.
void mldrt_update_host_state(mldrt_router* r);
// Sends the retransmissions that are due.
void mldrt_clean_host_state(mldrt_router* r);

#endif
