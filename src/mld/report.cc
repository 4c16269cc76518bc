#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include "core/addr.h"
#include "core/bytes.h"
#include "db/db.h"
#include "iface/interface.h"
#include "mld/handlers.h"
#include "mld/mld.h"

namespace {

using record_handler = int (*)(mldrt_router*, mldrt_interface*, const uint8_t*, uint8_t*);

// Indexed by record type - 1 (RFC 3810 section 5.2.12).
const record_handler kRecordHandlers[6] = {
    mldrt_handle_v2_isin_record, mldrt_handle_v2_isex_record,  mldrt_handle_v2_toin_record,
    mldrt_handle_v2_toex_record, mldrt_handle_v2_allow_record, mldrt_handle_v2_block_record,
};

constexpr uint32_t kReportRecordsOffset = 8;

// A v1 message as a source-less record of `rec_type`, for the MLDv2 handlers.
int handle_v1(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src, const uint8_t* msg,
              uint8_t rec_type) {
    const uint8_t* grp = msg + 8;
    if (ifp->is_upstream == 1 || grp[0] < 0xff) {
        return 0;
    }
    uint8_t rec[MLDRT_MCAST_REC_HDR_LEN] = {};
    rec[0] = rec_type;
    std::memcpy(rec + 4, grp, MLDRT_ADDR_LEN);
    if (rec_type == MLDRT_REC_CHANGE_TO_EXCLUDE) {
        return mldrt_handle_v2_toex_record(r, ifp, src, rec);
    }
    return mldrt_handle_v2_toin_record(r, ifp, src, rec);
}

}  // namespace

uint32_t mldrt_gmi(const mldrt_router* r) {
    return r->robustness * r->query_interval + r->query_response_interval / 1000u;
}

mldrt_group* mldrt_join_group(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                              const uint8_t* grp, bool loud) {
    // Link-scope traffic is never forwarded, and reporting the hosts' solicited-node groups
    // upstream would tell the upstream network their addresses: such groups are not proxied.
    if (mldrt_is_link_scope_group(grp)) {
        return nullptr;
    }
    mldrt_group* g = mldrt_add_group(r, ifp, grp);
    if (!g) {
        if (loud) {
            printf("\n Couldnt add new group in the group list");
        }
        return nullptr;
    }
    if (!mldrt_add_member(g, src)) {
        if (loud) {
            printf("\n Couldnt add member to new group ");
        }
        return nullptr;
    }
    mldrt_mfdb_entry* e = mldrt_add_mfdb_entry(r, grp);
    if (!e) {
        if (loud) {
            printf("\n Couldnt add mfdb entry");
        }
        return nullptr;
    }
    mldrt_create_gr_mfd_mapping(r, g, e);
    return g;
}

// The record walk. Counts and lengths come from the sender and are not checked against the
// received length, as routers have always done, but a record is handled only when its header
// and all its sources lie inside the receive buffer: the walk never reads past it.
int mldrt_handle_v2_membership_report(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                      uint8_t* msg) {
    if (ifp->is_upstream == 1) {
        return 0;
    }
    uint32_t nrec = mldrt_get_be16(msg + 6);
    uint32_t off = kReportRecordsOffset;
    for (uint32_t i = 0; i < nrec; i++) {
        if (off + MLDRT_MCAST_REC_HDR_LEN > r->buf_size) {
            break;
        }
        uint8_t* rec = msg + off;
        uint16_t nsrc = mldrt_get_be16(rec + 2);
        uint32_t rec_len = MLDRT_MCAST_REC_HDR_LEN + MLDRT_ADDR_LEN * nsrc;
        if (rec_len > r->buf_size - off) {
            break;
        }
        std::memcpy(rec + 2, &nsrc, sizeof nsrc);  // host order from here on
        // A non-multicast address ends the whole report, not just this record.
        if (rec[4] != 0xff) {
            break;
        }
        inet_ntop(AF_INET6, rec + 4, r->group_text, sizeof r->group_text);
        if (rec[0] >= 1 && rec[0] <= 6) {
            kRecordHandlers[rec[0] - 1](r, ifp, src, rec);
        }
        // Aux Data Len is not added, as deployed: a record with auxiliary data throws the
        // walk out of step for the rest of its report.
        off += rec_len;
    }
    return 0;
}

int mldrt_handle_v1_membership_report(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                      uint8_t* msg) {
    // Handled as TO_EX{} (a v1 report has no IS_EX meaning here): no query follows it.
    return handle_v1(r, ifp, src, msg, MLDRT_REC_CHANGE_TO_EXCLUDE);
}

int mldrt_handle_v1_membership_leave(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                     uint8_t* msg) {
    return handle_v1(r, ifp, src, msg, MLDRT_REC_CHANGE_TO_INCLUDE);
}
