// The listener database: per-interface groups with their members and source lists, the
// router-wide forwarding database, and the once-a-second timer pass over them.
#ifndef MLDPROXYD_DB_DB_H
#define MLDPROXYD_DB_DB_H

#include <cstdint>

#include "core/router.h"

struct mldrt_interface;

// One entry of any source list: group lists, query retransmission lists, host-state lists and
// the algebra's result arrays all share this layout. New entries are pushed at the head.
struct mldrt_src {
    uint8_t src_addr[16];
    uint16_t rtx_count;  // retransmissions still due (query retransmission lists only)
    int32_t timer;       // seconds
    mldrt_src* next;
};

// Removes groups, members and forwarding entries that have nothing left.
void mldrt_update_group_state(mldrt_router* r);
// One tick for every group of one interface. `flag` tells the caller apart and changes nothing.
void mldrt_update_memberships(mldrt_router* r, mldrt_interface* ifp, int flag);
// One more ordinary tick over every interface (shutdown, upstream down); forces no expiry.
void mldrt_cleanup_memberships(mldrt_router* r);

// Releases every group of an interface that is about to be deleted: its sources leave the
// forwarding database with their forwarding withdrawn, so nothing points at the freed record.
void mldrt_release_interface_groups(mldrt_router* r, mldrt_interface* ifp);
// Writes every forwarding record to the kernel again (the upstream MIF appeared or changed).
void mldrt_rewrite_kernel_forwarding(mldrt_router* r);

#endif
