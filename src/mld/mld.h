// MLD messages: building and sending queries and reports, and the router-side handling of
// every MLD message received on a downstream or upstream link.
#ifndef MLDPROXYD_MLD_MLD_H
#define MLDPROXYD_MLD_MLD_H

#include <cstdint>

#include "core/clock.h"
#include "core/router.h"

struct mldrt_interface;
struct mldrt_src;

// ICMPv6 types of MLD (RFC 2710, RFC 3810 section 5).
constexpr uint8_t MLDRT_TYPE_QUERY = 130;
constexpr uint8_t MLDRT_TYPE_V1_REPORT = 131;
constexpr uint8_t MLDRT_TYPE_V1_DONE = 132;
constexpr uint8_t MLDRT_TYPE_V2_REPORT = 143;

// Multicast address record types (RFC 3810 section 5.2.12).
constexpr uint8_t MLDRT_REC_MODE_IS_INCLUDE = 1;
constexpr uint8_t MLDRT_REC_MODE_IS_EXCLUDE = 2;
constexpr uint8_t MLDRT_REC_CHANGE_TO_INCLUDE = 3;
constexpr uint8_t MLDRT_REC_CHANGE_TO_EXCLUDE = 4;
constexpr uint8_t MLDRT_REC_ALLOW_NEW_SOURCES = 5;
constexpr uint8_t MLDRT_REC_BLOCK_OLD_SOURCES = 6;

constexpr uint32_t MLDRT_QUERY_V1_LEN = 24;
constexpr uint32_t MLDRT_QUERY_V2_HDR_LEN = 28;
constexpr uint32_t MLDRT_REPORT_HDR_LEN = 8;
constexpr uint32_t MLDRT_MCAST_REC_HDR_LEN = 20;
constexpr uint32_t MLDRT_ADDR_LEN = 16;
constexpr uint8_t MLDRT_QUERY_S_FLAG = 0x08;

// The IPv6 header (40 bytes) and our hop-by-hop header (8) come on top of every message: an
// interface carries at most MTU - 48 bytes of MLD without fragmenting.
constexpr uint32_t MLDRT_IP_OVERHEAD = 48;

// Maximum Response Code (RFC 3810 section 5.1.3) for `ms` milliseconds; values beyond the
// floating form's range keep their low 16 bits.
uint16_t mldrt_encode_mrc(uint32_t ms);
// QQIC (RFC 3810 section 5.1.9) for `seconds`; beyond the range, the low 8 bits.
uint8_t mldrt_encode_qqic(uint32_t seconds);
// QRV: the robustness if it fits the 3-bit field, else 0.
uint8_t mldrt_encode_qrv(uint32_t robustness);

// Appends one source to the record at `rec`, raising its Number of Sources; returns 16.
uint32_t mldrt_append_src_to_mcast_rec(uint8_t* rec, const uint8_t* src);
// A record header and every source of `list` in order; returns the record's length.
uint32_t mldrt_build_mcast_record(uint8_t* buf, const uint8_t* group, uint8_t rec_type,
                                  const mldrt_src* list);
uint32_t mldrt_srclist_len(const mldrt_src* list);
// Filter mode 0 (INCLUDE) gives MODE_IS_INCLUDE, 1 (EXCLUDE) MODE_IS_EXCLUDE, else 0.
uint8_t mldrt_get_rectype_from_group_mode(uint32_t mode);

// What a query asks: group (:: for a general query), destination, and the sources to list.
struct mldrt_query_params {
    uint8_t group[16];
    uint8_t dst[16];
    const mldrt_src* sources;
    uint32_t src_count;  // how many entries `sources` must hold
    uint32_t s_flag;     // bit 0: suppress router-side processing
};

// The largest MLD message the interface carries unfragmented.
uint32_t mldrt_max_mld_len(const mldrt_interface* ifp);

// Sends a query on the interface (as several when its sources do not fit one message).
// Returns the last byte count sent, or the diagnostic's printed length on failure.
int mldrt_send_query(mldrt_router* r, mldrt_interface* ifp, const mldrt_query_params* q);
// Sends the group's group-and-source-specific queries for every source whose retransmissions
// are still due: those whose timers were lowered, then those whose timers were not.
void mldrt_send_source_queries(mldrt_router* r, mldrt_interface* ifp, const mldrt_group* g);
// One report or done message made of `nrec` records.
int mldrt_send_mld_report(mldrt_router* r, mldrt_interface* ifp, const uint8_t* dst,
                          const uint8_t* records, uint32_t nrec, uint32_t len);

// When the interface's next general query is due: MLDRT_NEVER unless it is a started querier.
uint64_t mldrt_general_query_due(const mldrt_interface* ifp);
// Sends a general query when the interface's is due and sets the time of the next one.
// Returns the send's result, or 0 when nothing was sent.
int mldrt_send_general_query(mldrt_router* r, mldrt_interface* ifp);

// Writes one multicast address record header (no sources) at `buf`; returns its length, 20.
uint32_t mldrt_encode_report_mcast_rec(uint8_t* buf, const uint8_t* group, uint8_t rec_type);

// Sends `nrec` records of `len` bytes at `records` as a report to `dst` on the interface, in
// MLDv1 form on an MLDv1 link.
int mldrt_send_report(mldrt_router* r, mldrt_interface* ifp, const uint8_t* dst,
                      const uint8_t* records, uint32_t nrec, uint32_t len);

// Collects multicast address records in the router's scratch buffer for reports to ff02::16 on
// the upstream link. A record that would not fit sends what the buffer holds first; a record
// longer than the whole buffer is split (RFC 3810 section 5.2.15), except EXCLUDE-type records,
// which keep the first sources that fit. Nothing is sent while no upstream is known.
struct mldrt_report_builder {
    mldrt_router* r;
    uint32_t len;
    uint32_t nrec;
};
void mldrt_rb_init(mldrt_report_builder* rb, mldrt_router* r);
void mldrt_rb_add(mldrt_report_builder* rb, const uint8_t* group, uint8_t rec_type,
                  const mldrt_src* list);
// Sends the records collected so far, if any.
void mldrt_rb_flush(mldrt_report_builder* rb);
// Sends `nrec` records of `len` bytes from the scratch buffer upstream (0 records: an empty
// report, as routers have always sent for a change with nothing to announce).
int mldrt_send_upstream_report(mldrt_router* r, uint32_t nrec, uint32_t len);

// Everything received on the router socket that is not a kernel upcall: `msg` is the ICMPv6
// message, of which `len` bytes arrived (nothing beyond them is read), `src` the sender's
// address. A message shorter than the fixed part of its type is counted as malformed and dropped.
void mldrt_handle_mld_message(mldrt_router* r, mldrt_interface* ifp, const uint8_t* msg,
                              const uint8_t* src, int len);

#endif
