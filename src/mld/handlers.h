// Router-side handling of received MLD messages: the record handlers of RFC 3810 section 7.4
// (as this router has always applied them), the MLDv1 mapping, and the scheduling of group-
// and source-specific queries. Every handler takes the router, the receiving interface, the
// sender's address and the record (or message) it handles; results are not used by callers.
#ifndef MLDPROXYD_MLD_HANDLERS_H
#define MLDPROXYD_MLD_HANDLERS_H

#include <cstdint>
#include <cstring>

#include "core/bytes.h"
#include "core/router.h"

struct mldrt_interface;
struct mldrt_group;
struct mldrt_src;

// A multicast address record as received (RFC 3810 section 5.2.4), never rewritten: the report
// walk hands a handler a record only when its header and its sources lie wholly inside what
// arrived.
struct mldrt_record_header {
    uint8_t type;
    uint8_t aux_words;  // Aux Data Len, in 32-bit words
    uint8_t nsrc[2];    // network order
    uint8_t group[16];
};
static_assert(sizeof(mldrt_record_header) == 20, "record header is 20 bytes");

inline uint16_t mldrt_rec_nsrc(const uint8_t* rec) {
    return mldrt_get_be16(rec + 2);
}
inline const uint8_t* mldrt_rec_group(const uint8_t* rec) {
    return rec + 4;
}
inline const uint8_t* mldrt_rec_srcs(const uint8_t* rec) {
    return rec + 20;
}

// Group membership interval (RFC 3810 section 9.4), whole seconds.
uint32_t mldrt_gmi(const mldrt_router* r);

// The join sequence every report handler starts with: group, member, forwarding entry and
// their mapping. `loud` handlers print which step failed. nullptr when a step failed, and,
// silently, for a group of link scope or less, which is never proxied.
mldrt_group* mldrt_join_group(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                              const uint8_t* grp, bool loud);

// The message handlers get the message and the length that arrived (at least the fixed part of
// the message type: the dispatch drops shorter ones).
int mldrt_handle_v2_membership_report(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                      const uint8_t* msg, uint32_t len);
int mldrt_handle_v2_isin_record(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                const uint8_t* rec);
int mldrt_handle_v2_isex_record(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                const uint8_t* rec);
int mldrt_handle_v2_toin_record(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                const uint8_t* rec);
int mldrt_handle_v2_toex_record(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                const uint8_t* rec);
int mldrt_handle_v2_allow_record(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                 const uint8_t* rec);
int mldrt_handle_v2_block_record(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                 const uint8_t* rec);
int mldrt_handle_v1_membership_report(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                      const uint8_t* msg, uint32_t len);
int mldrt_handle_v1_membership_leave(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                     const uint8_t* msg, uint32_t len);
int mldrt_handle_mld_query(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                           const uint8_t* msg, uint32_t len);

// Lowers timers to the last listener query time, records the retransmissions and sends the
// first query: group-specific without sources, group-and-source-specific otherwise.
int mldrt_update_fsm_and_send_query(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g,
                                    const uint8_t* grp, const mldrt_src* srcs, uint32_t count);

#endif
