#include "db/db.h"
#include "iface/interface.h"
#include "mld/handlers.h"
#include "mld/mld.h"

namespace {

// The version of a message: a query of exactly 24 bytes is MLDv1 (RFC 3810 section 8.1), any
// other length MLDv2.
int version_of(uint8_t type, int len) {
    switch (type) {
        case MLDRT_TYPE_QUERY:
            return len == static_cast<int>(MLDRT_QUERY_V1_LEN) ? 1 : 2;
        case MLDRT_TYPE_V1_REPORT:
        case MLDRT_TYPE_V1_DONE:
            return 1;
        case MLDRT_TYPE_V2_REPORT:
            return 2;
        default:
            return 0;
    }
}

// The fixed part of each message type (RFC 2710 section 3, RFC 3810 sections 5.1 and 5.2): a
// shorter message is malformed and dropped before any field of it is read.
uint32_t fixed_len(uint8_t type) {
    return type == MLDRT_TYPE_V2_REPORT ? MLDRT_REPORT_HDR_LEN : MLDRT_QUERY_V1_LEN;
}

void dispatch(mldrt_router* r, mldrt_interface* ifp, const uint8_t* msg, uint32_t len,
              const uint8_t* src) {
    switch (msg[0]) {
        case MLDRT_TYPE_QUERY:
            mldrt_handle_mld_query(r, ifp, src, msg, len);
            break;
        case MLDRT_TYPE_V1_REPORT:
            mldrt_handle_v1_membership_report(r, ifp, src, msg, len);
            break;
        case MLDRT_TYPE_V1_DONE:
            mldrt_handle_v1_membership_leave(r, ifp, src, msg, len);
            break;
        case MLDRT_TYPE_V2_REPORT:
            mldrt_handle_v2_membership_report(r, ifp, src, msg, len);
            break;
        default:
            break;
    }
}

// Counts what arrived on the link for `mldproxyd status`.
void count_received(mldrt_interface* ifp, uint8_t type) {
    (type == MLDRT_TYPE_QUERY ? ifp->counters.queries_in : ifp->counters.reports_in)++;
}

}  // namespace

void mldrt_handle_mld_message(mldrt_router* r, mldrt_interface* ifp, const uint8_t* msg,
                              const uint8_t* src, int len) {
    if (ipv6_addr_equal(src, ifp->addr)) {
        r->counters.own++;
        return;  // our own transmission, looped back
    }
    mldrt_dump_interface_info(r, ifp, "BEFORE HANDLING RCVD MSG");
    int version = len > 0 ? version_of(msg[0], len) : 0;
    if (version == 0) {
        r->counters.not_ours++;
    } else if (static_cast<uint32_t>(len) < fixed_len(msg[0])) {
        r->counters.malformed++;
    } else {
        count_received(ifp, msg[0]);
        // The link's version follows the queries heard on it (RFC 3810 sections 8.2.1 and
        // 8.3.1), never the reports: an MLDv1 host puts only its own group in MLDv1 mode.
        if (msg[0] == MLDRT_TYPE_QUERY) {
            ifp->mld_version = version;
        }
        dispatch(r, ifp, msg, static_cast<uint32_t>(len), src);
    }
    mldrt_dump_interface_info(r, ifp, "AFTER HANDLING RCVD MSG");
}
