// MLD messages: building and sending queries and reports, and the router-side handling of
// every MLD message received on a downstream or upstream link.
#ifndef MLDPROXYD_MLD_MLD_H
#define MLDPROXYD_MLD_MLD_H

#include <cstdint>

#include "core/router.h"

struct mldrt_interface;

// ICMPv6 types of MLD (RFC 2710, RFC 3810 section 5).
constexpr uint8_t MLDRT_TYPE_QUERY = 130;
constexpr uint8_t MLDRT_TYPE_V1_REPORT = 131;
constexpr uint8_t MLDRT_TYPE_V1_DONE = 132;
constexpr uint8_t MLDRT_TYPE_V2_REPORT = 143;

constexpr uint8_t MLDRT_REC_CHANGE_TO_EXCLUDE = 4;
constexpr uint32_t MLDRT_MCAST_REC_HDR_LEN = 20;

// Counts the interface's general-query timer and sends a general query when it is due.
// Returns the send's result, or 0 when nothing was sent.
int mldrt_send_general_query(mldrt_router* r, mldrt_interface* ifp);

// Writes one multicast address record header (no sources) at `buf`; returns its length, 20.
uint32_t mldrt_encode_report_mcast_rec(uint8_t* buf, const uint8_t* group, uint8_t rec_type);

// Sends `nrec` records of `len` bytes at `records` as a report to `dst` on the interface, in
// MLDv1 form on an MLDv1 link.
int mldrt_send_report(mldrt_router* r, mldrt_interface* ifp, const uint8_t* dst,
                      const uint8_t* records, uint32_t nrec, uint32_t len);

// Everything received on the router socket that is not a kernel upcall: `msg` is the ICMPv6
// message (len bytes, inside the router's receive buffer), `src` the sender's address.
void mldrt_handle_mld_message(mldrt_router* r, mldrt_interface* ifp, uint8_t* msg,
                              const uint8_t* src, int len);

#endif
