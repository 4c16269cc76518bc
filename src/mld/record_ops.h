// Small steps shared by the record handlers: applying one list operation to every source of a
// received record or of an algebra result.
#ifndef MLDPROXYD_MLD_RECORD_OPS_H
#define MLDPROXYD_MLD_RECORD_OPS_H

#include <cstdint>

#include "db/db.h"

namespace mldproxy {

struct Link;

// Adds every source of the record to list `kind` with `timer`.
void add_record_sources(Router* r, Group* g, ListKind kind, const uint8_t* rec, int32_t timer,
                        Link* ifp);
// Every source of the record wanted at GMI (IS_IN, ALLOW): on the include list in INCLUDE
// mode; in EXCLUDE mode moved from the excluded to the requested list.
void want_record_sources(Router* r, Group* g, const uint8_t* rec, Link* ifp);
// Adds every entry of a result to list `kind`, each with the timer its entry holds.
void add_set_sources(Router* r, Group* g, ListKind kind, const SourceSet* res, Link* ifp);
// Adds every entry of a result to list `kind`, all with `timer`.
void add_set_with_timer(Router* r, Group* g, ListKind kind, const SourceSet* res, int32_t timer,
                        Link* ifp);
// Sets the timer of every result entry that is on the group's requested list.
void set_requested_timers(Group* g, const SourceSet* res, int32_t timer);
// Gives every result entry that is on the group's requested list that entry's timer: the
// sources a record names again keep their timers (RFC 3810 section 7.4, X*A).
void take_requested_timers(const Group* g, SourceSet* res);
// Removes every result entry from the requested and the excluded list.
void remove_from_requested_and_excluded(Router* r, Group* g, const SourceSet* res, Link* ifp);
// Q(G, sources of the result) through lower_timers_and_query, when it has any.
void query_result(Router* r, Link* ifp, Group* g, const SourceSet* res);
// Enters EXCLUDE mode: counted in the forwarding entry, filter timer GMI, and every source the
// link does not exclude forwarded to it (RFC 3810 section 6.3).
// INCLUDE (A) + IS_EX(B) or TO_EX(B), B non-empty -> EXCLUDE(A*B, B-A), filter timer GMI: RFC
// 3810 section 7.4 gives both records the same new state from INCLUDE mode. The mode comes
// first, so that the excluded sources are held back from a (*,G) entry that already lists the
// link.
void exclude_from_include(Router* r, Group* g, const uint8_t* rec, Link* ifp);
void enter_exclude(Router* r, Group* g, Link* ifp);

}  // namespace mldproxy

#endif
