// MLD messages: building and sending queries and reports, and the router-side handling of
// every MLD message received on a downstream or upstream link.
#ifndef MLDPROXYD_MLD_MLD_H
#define MLDPROXYD_MLD_MLD_H

#include <cstdint>

#include "base/clock.h"
#include "base/mld_types.h"
#include "db/router.h"
#include "db/db.h"

namespace mldproxy {

struct Link;
struct Source;

// Multicast address record types (RFC 3810 section 5.2.12).
enum class RecordType : uint8_t {
    ModeIsInclude = 1,
    ModeIsExclude = 2,
    ChangeToInclude = 3,
    ChangeToExclude = 4,
    AllowNewSources = 5,
    BlockOldSources = 6,
};

constexpr uint32_t kQueryV1Len = 24;
constexpr uint32_t kQueryV2HeaderLen = 28;
constexpr uint32_t kReportHeaderLen = 8;
constexpr uint32_t kRecordHeaderLen = 20;
constexpr uint32_t kAddrLen = 16;
constexpr uint8_t kQuerySFlag = 0x08;

// The IPv6 header (40 bytes) and our hop-by-hop header (8) come on top of every message: an
// interface carries at most MTU - 48 bytes of MLD without fragmenting.
constexpr uint32_t kIpOverhead = 48;

// Maximum Response Code (RFC 3810 section 5.1.3) for `ms` milliseconds; values beyond the
// floating form's range keep their low 16 bits.
uint16_t encode_max_response_code(uint32_t ms);
// QQIC (RFC 3810 section 5.1.9) for `seconds`; beyond the range, the low 8 bits.
uint8_t encode_query_interval_code(uint32_t seconds);
// QRV: the robustness if it fits the 3-bit field, else 0.
uint8_t encode_robustness(uint32_t robustness);

// Appends one source to the record at `rec`, raising its Number of Sources; returns 16.
uint32_t append_record_source(uint8_t* rec, const uint8_t* src);
// A record header and every source of `list` in order; returns the record's length.
uint32_t build_record(uint8_t* buf, const uint8_t* group, RecordType rec_type, const Source* list);
uint32_t list_length(const Source* list);
// Filter mode 0 (INCLUDE) gives MODE_IS_INCLUDE, 1 (EXCLUDE) MODE_IS_EXCLUDE, else 0.
RecordType current_state_record_type(FilterMode mode);

// What a query asks: group (:: for a general query), destination, and the sources to list.
struct QueryParams {
    uint8_t group[16];
    uint8_t dst[16];
    const Source* sources;
    uint32_t src_count;  // how many entries `sources` must hold
    uint32_t s_flag;     // bit 0: suppress router-side processing
};

// The largest MLD message the interface carries unfragmented.
uint32_t max_message_length(const Link* ifp);

// Sends a query on the interface (as several when its sources do not fit one message).
// Returns the last byte count sent, or the diagnostic's printed length on failure.
int send_query(Router* r, Link* ifp, const QueryParams* q);
// Sends the group's group-and-source-specific queries for every source whose retransmissions
// are still due: those whose timers were lowered, then those whose timers were not.
void send_source_queries(Router* r, Link* ifp, const Group* g);
// One report or done message made of `nrec` records.
int send_mld_report(Router* r, Link* ifp, const uint8_t* dst, const uint8_t* records, uint32_t nrec,
                    uint32_t len);

// When the interface's next general query is due: kNever unless it is a started querier.
uint64_t general_query_due(const Link* ifp);
// Sends a general query when the interface's is due and sets the time of the next one.
// Returns the send's result, or 0 when nothing was sent.
int send_general_query(Router* r, Link* ifp);

// Writes one multicast address record header (no sources) at `buf`; returns its length, 20.
uint32_t encode_bare_record(uint8_t* buf, const uint8_t* group, RecordType rec_type);

// Sends `nrec` records of `len` bytes at `records` as a report to `dst` on the interface, in
// MLDv1 form on an MLDv1 link.
int send_report(Router* r, Link* ifp, const uint8_t* dst, const uint8_t* records, uint32_t nrec,
                uint32_t len);

// Collects multicast address records in the router's scratch buffer for reports to ff02::16 on
// the upstream link. A record that would not fit sends what the buffer holds first; a record
// longer than the whole buffer is split (RFC 3810 section 5.2.15), except EXCLUDE-type records,
// which keep the first sources that fit. Nothing is sent while no upstream is known.
struct ReportBuilder {
    Router* r;
    uint32_t len;
    uint32_t nrec;
};
void report_init(ReportBuilder* rb, Router* r);
void report_add(ReportBuilder* rb, const uint8_t* group, RecordType rec_type, const Source* list);
// Sends the records collected so far, if any.
void report_flush(ReportBuilder* rb);
// Sends `nrec` records of `len` bytes from the scratch buffer upstream (0 records: an empty
// report, as routers have always sent for a change with nothing to announce).
int send_upstream_report(Router* r, uint32_t nrec, uint32_t len);

// Everything received on the router socket that is not a kernel upcall: `msg` is the ICMPv6
// message, of which `len` bytes arrived (nothing beyond them is read), `src` the sender's
// address. A message shorter than the fixed part of its type is counted as malformed and dropped.
void handle_mld_message(Router* r, Link* ifp, const uint8_t* msg, const uint8_t* src, int len);

}  // namespace mldproxy

#endif
