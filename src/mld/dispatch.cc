#include "db/db.h"
#include "base/addr.h"
#include "iface/interface.h"
#include "mld/handlers.h"
#include "mld/mld.h"

namespace mldproxy {

namespace {

// The version of a message: a query of exactly 24 bytes is MLDv1 (RFC 3810 section 8.1), any
// other length MLDv2.
int version_of(uint8_t type, int len) {
    switch (type) {
        case kTypeQuery:
            return len == static_cast<int>(kQueryV1Len) ? 1 : 2;
        case kTypeV1Report:
        case kTypeV1Done:
            return 1;
        case kTypeV2Report:
            return 2;
        default:
            return 0;
    }
}

// The fixed part of each message type (RFC 2710 section 3, RFC 3810 sections 5.1 and 5.2): a
// shorter message is malformed and dropped before any field of it is read.
uint32_t fixed_len(uint8_t type) {
    return type == kTypeV2Report ? kReportHeaderLen : kQueryV1Len;
}

void dispatch(Router* r, Link* ifp, const uint8_t* msg, uint32_t len, const uint8_t* src) {
    switch (msg[0]) {
        case kTypeQuery:
            handle_query(r, ifp, src, msg, len);
            break;
        case kTypeV1Report:
            handle_v1_report(r, ifp, src, msg, len);
            break;
        case kTypeV1Done:
            handle_v1_done(r, ifp, src, msg, len);
            break;
        case kTypeV2Report:
            handle_v2_report(r, ifp, src, msg, len);
            break;
        default:
            break;
    }
}

// Counts what arrived on the link for `mldproxyd status`.
void count_received(Link* ifp, uint8_t type) {
    (type == kTypeQuery ? ifp->counters.queries_in : ifp->counters.reports_in)++;
}

}  // namespace

void handle_mld_message(Router* r, Link* ifp, const uint8_t* msg, const uint8_t* src, int len) {
    if (same_address(src, ifp->addr)) {
        r->counters.own++;
        return;  // our own transmission, looped back
    }
    dump_link(r, ifp, "BEFORE HANDLING RCVD MSG");
    int version = len > 0 ? version_of(msg[0], len) : 0;
    if (version == 0) {
        r->counters.not_ours++;
    } else if (static_cast<uint32_t>(len) < fixed_len(msg[0])) {
        r->counters.malformed++;
    } else {
        count_received(ifp, msg[0]);
        // The link's version follows the queries heard on it (RFC 3810 sections 8.2.1 and
        // 8.3.1), never the reports: an MLDv1 host puts only its own group in MLDv1 mode.
        if (msg[0] == kTypeQuery) {
            ifp->mld_version = version;
        }
        dispatch(r, ifp, msg, static_cast<uint32_t>(len), src);
    }
    dump_link(r, ifp, "AFTER HANDLING RCVD MSG");
}

}  // namespace mldproxy
