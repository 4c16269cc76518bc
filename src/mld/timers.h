// The once-a-second membership pass (RFC 3810 sections 7.4 to 7.6): query retransmissions,
// source and filter timers, EXCLUDE-to-INCLUDE switches and the removal of what nothing needs.
#ifndef MLDPROXYD_MLD_TIMERS_H
#define MLDPROXYD_MLD_TIMERS_H

#include "db/db.h"

namespace mldproxy {

// Deletes the entry, and the empty groups mapped to it, when nothing needs it any more: no
// upstream retransmission due, no forwarding record, no group with state left on any link.
// True when the entry is gone.
bool remove_if_unused(Router* r, ForwardingEntry* e);
// One tick for every group of one link.
void age_link_groups(Router* r, Link* ifp);
// One aging step of a group's query retransmission lists.
void age_retransmission_lists(Group* g);
// One more ordinary tick over every link (shutdown, upstream down); forces no expiry.
void final_membership_pass(Router* r);
// Releases every group of a link that is about to be deleted: its sources leave the
// forwarding database with their forwarding withdrawn, so nothing points at the freed record.
void release_link_groups(Router* r, Link* ifp);

}  // namespace mldproxy

#endif
