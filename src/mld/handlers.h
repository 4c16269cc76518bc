// Router-side handling of received MLD messages: the record handlers of RFC 3810 section 7.4
// (as this router has always applied them), the MLDv1 mapping, and the scheduling of group-
// and source-specific queries. Every handler takes the router, the receiving interface, the
// sender's address and the record (or message) it handles; results are not used by callers.
#ifndef MLDPROXYD_MLD_HANDLERS_H
#define MLDPROXYD_MLD_HANDLERS_H

#include <cstdint>
#include <cstring>

#include "base/bytes.h"
#include "db/router.h"

namespace mldproxy {

struct Link;
struct Group;
struct Source;

// A multicast address record as received (RFC 3810 section 5.2.4), never rewritten: the report
// walk hands a handler a record only when its header and its sources lie wholly inside what
// arrived.
struct RecordHeader {
    uint8_t type;
    uint8_t aux_words;  // Aux Data Len, in 32-bit words
    uint8_t nsrc[2];    // network order
    uint8_t group[16];
};
static_assert(sizeof(RecordHeader) == 20, "record header is 20 bytes");

inline uint16_t record_source_count(const uint8_t* rec) {
    return get_be16(rec + 2);
}
inline const uint8_t* record_group(const uint8_t* rec) {
    return rec + 4;
}
inline const uint8_t* record_sources(const uint8_t* rec) {
    return rec + 20;
}

// Group membership interval (RFC 3810 section 9.4), whole seconds.
uint32_t group_membership_interval(const Router* r);

// The join sequence every report handler starts with: group, member, forwarding entry and
// their mapping. `loud` handlers print which step failed. nullptr when a step failed, and,
// silently, for a group of link scope or less, which is never proxied.
Group* join_group(Router* r, Link* ifp, const uint8_t* src, const uint8_t* grp, bool loud);

// The message handlers get the message and the length that arrived (at least the fixed part of
// the message type: the dispatch drops shorter ones).
int handle_v2_report(Router* r, Link* ifp, const uint8_t* src, const uint8_t* msg, uint32_t len);
int handle_is_include_record(Router* r, Link* ifp, const uint8_t* src, const uint8_t* rec);
int handle_is_exclude_record(Router* r, Link* ifp, const uint8_t* src, const uint8_t* rec);
int handle_to_include_record(Router* r, Link* ifp, const uint8_t* src, const uint8_t* rec);
int handle_to_exclude_record(Router* r, Link* ifp, const uint8_t* src, const uint8_t* rec);
int handle_allow_record(Router* r, Link* ifp, const uint8_t* src, const uint8_t* rec);
int handle_block_record(Router* r, Link* ifp, const uint8_t* src, const uint8_t* rec);
int handle_v1_report(Router* r, Link* ifp, const uint8_t* src, const uint8_t* msg, uint32_t len);
int handle_v1_done(Router* r, Link* ifp, const uint8_t* src, const uint8_t* msg, uint32_t len);
int handle_query(Router* r, Link* ifp, const uint8_t* src, const uint8_t* msg, uint32_t len);

// Lowers timers to the last listener query time, records the retransmissions and sends the
// first query: group-specific without sources, group-and-source-specific otherwise.
int lower_timers_and_query(Router* r, Link* ifp, Group* g, const uint8_t* grp, const Source* srcs,
                           uint32_t count);

}  // namespace mldproxy

#endif
