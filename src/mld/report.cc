#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include "base/log.h"
#include "base/addr.h"
#include "base/bytes.h"
#include "db/db.h"
#include "iface/interface.h"
#include "mld/handlers.h"
#include "mld/mld.h"

namespace mldproxy {

namespace {

using record_handler = int (*)(Router*, Link*, const uint8_t*, const uint8_t*);

// Indexed by record type - 1 (RFC 3810 section 5.2.12).
const record_handler kRecordHandlers[6] = {
    handle_is_include_record, handle_is_exclude_record, handle_to_include_record,
    handle_to_exclude_record, handle_allow_record,      handle_block_record,
};

constexpr uint32_t kReportRecordsOffset = 8;

// A v1 message as a source-less record of `rec_type`, for the MLDv2 handlers. A report puts
// its group, and only its group, in MLDv1 compatibility mode for the Older Version Host Present
// Timeout (RFC 3810 sections 8.3.2 and 9.12; as long as the group membership interval).
int handle_v1(Router* r, Link* ifp, const uint8_t* src, const uint8_t* msg, RecordType rec_type) {
    const uint8_t* grp = msg + 8;
    if (ifp->is_upstream || grp[0] < 0xff) {
        return 0;
    }
    uint8_t rec[kRecordHeaderLen] = {};
    rec[0] = static_cast<uint8_t>(rec_type);
    std::memcpy(rec + 4, grp, kAddrLen);
    if (rec_type == RecordType::ChangeToInclude) {
        return handle_to_include_record(r, ifp, src, rec);
    }
    handle_to_exclude_record(r, ifp, src, rec);
    if (Group* g = find_group(ifp, grp)) {
        g->v1_host_timer = static_cast<int32_t>(group_membership_interval(r));
    }
    return 0;
}

}  // namespace

// The record walk against the length that arrived (RFC 3810 section 5.2): a record is handled
// only when its header, its sources and its auxiliary data lie wholly inside the message, and
// the walk ends at the first one that does not. A count that claims more records than arrived
// is believed only as far as the bytes go.
int handle_v2_report(Router* r, Link* ifp, const uint8_t* src, const uint8_t* msg, uint32_t len) {
    if (ifp->is_upstream) {
        return 0;
    }
    Cursor c{msg, len};
    const uint8_t* head = c.take(kReportRecordsOffset);
    if (!head) {
        return 0;
    }
    uint32_t nrec = get_be16(head + 6);
    for (uint32_t i = 0; i < nrec && c.has(sizeof(RecordHeader)); i++) {
        RecordHeader h;
        std::memcpy(&h, c.p, sizeof h);
        uint32_t rec_len = sizeof h + kAddrLen * get_be16(h.nsrc) + 4u * h.aux_words;
        const uint8_t* rec = c.take(rec_len);
        // A truncated record, or a non-multicast address, ends the whole report.
        if (!rec || h.group[0] != 0xff) {
            break;
        }
        inet_ntop(AF_INET6, h.group, r->group_text, sizeof r->group_text);
        if (h.type >= 1 && h.type <= 6) {
            kRecordHandlers[h.type - 1](r, ifp, src, rec);
        }
    }
    return 0;
}

int handle_v1_report(Router* r, Link* ifp, const uint8_t* src, const uint8_t* msg, uint32_t len) {
    (void)len;  // the dispatch made sure of the 24 bytes of an MLDv1 message
    // Handled as TO_EX{} (a v1 report has no IS_EX meaning here): no query follows it.
    return handle_v1(r, ifp, src, msg, RecordType::ChangeToExclude);
}

int handle_v1_done(Router* r, Link* ifp, const uint8_t* src, const uint8_t* msg, uint32_t len) {
    (void)len;
    return handle_v1(r, ifp, src, msg, RecordType::ChangeToInclude);
}

}  // namespace mldproxy
