#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include "core/log.h"
#include "core/addr.h"
#include "core/bytes.h"
#include "db/db.h"
#include "iface/interface.h"
#include "mld/handlers.h"
#include "mld/mld.h"

namespace {

using record_handler = int (*)(mldrt_router*, mldrt_interface*, const uint8_t*, const uint8_t*);

// Indexed by record type - 1 (RFC 3810 section 5.2.12).
const record_handler kRecordHandlers[6] = {
    mldrt_handle_v2_isin_record, mldrt_handle_v2_isex_record,  mldrt_handle_v2_toin_record,
    mldrt_handle_v2_toex_record, mldrt_handle_v2_allow_record, mldrt_handle_v2_block_record,
};

constexpr uint32_t kReportRecordsOffset = 8;

// A v1 message as a source-less record of `rec_type`, for the MLDv2 handlers. A report puts
// its group, and only its group, in MLDv1 compatibility mode for the Older Version Host Present
// Timeout (RFC 3810 sections 8.3.2 and 9.12; as long as the group membership interval).
int handle_v1(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src, const uint8_t* msg,
              uint8_t rec_type) {
    const uint8_t* grp = msg + 8;
    if (ifp->is_upstream == 1 || grp[0] < 0xff) {
        return 0;
    }
    uint8_t rec[MLDRT_MCAST_REC_HDR_LEN] = {};
    rec[0] = rec_type;
    std::memcpy(rec + 4, grp, MLDRT_ADDR_LEN);
    if (rec_type == MLDRT_REC_CHANGE_TO_INCLUDE) {
        return mldrt_handle_v2_toin_record(r, ifp, src, rec);
    }
    mldrt_handle_v2_toex_record(r, ifp, src, rec);
    if (mldrt_group* g = mldrt_lookup_group(ifp, grp)) {
        g->v1_host_timer = static_cast<int32_t>(mldrt_gmi(r));
    }
    return 0;
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
            mldrt_log("\n Couldnt add new group in the group list\n");
        }
        return nullptr;
    }
    if (!mldrt_add_member(g, src) && !mldrt_members_full(g)) {
        if (loud) {
            mldrt_log("\n Couldnt add member to new group \n");
        }
        return nullptr;
    }
    mldrt_mfdb_entry* e = mldrt_add_mfdb_entry(r, grp);
    if (!e) {
        if (loud) {
            mldrt_log("\n Couldnt add mfdb entry\n");
        }
        return nullptr;
    }
    mldrt_create_gr_mfd_mapping(r, g, e);
    return g;
}

// The record walk against the length that arrived (RFC 3810 section 5.2): a record is handled
// only when its header, its sources and its auxiliary data lie wholly inside the message, and
// the walk ends at the first one that does not. A count that claims more records than arrived
// is believed only as far as the bytes go.
int mldrt_handle_v2_membership_report(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                      const uint8_t* msg, uint32_t len) {
    if (ifp->is_upstream == 1) {
        return 0;
    }
    mldrt_cursor c{msg, len};
    const uint8_t* head = c.take(kReportRecordsOffset);
    if (!head) {
        return 0;
    }
    uint32_t nrec = mldrt_get_be16(head + 6);
    for (uint32_t i = 0; i < nrec && c.has(sizeof(mldrt_record_header)); i++) {
        mldrt_record_header h;
        std::memcpy(&h, c.p, sizeof h);
        uint32_t rec_len = sizeof h + MLDRT_ADDR_LEN * mldrt_get_be16(h.nsrc) + 4u * h.aux_words;
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

int mldrt_handle_v1_membership_report(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                      const uint8_t* msg, uint32_t len) {
    (void)len;  // the dispatch made sure of the 24 bytes of an MLDv1 message
    // Handled as TO_EX{} (a v1 report has no IS_EX meaning here): no query follows it.
    return handle_v1(r, ifp, src, msg, MLDRT_REC_CHANGE_TO_EXCLUDE);
}

int mldrt_handle_v1_membership_leave(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                                     const uint8_t* msg, uint32_t len) {
    (void)len;
    return handle_v1(r, ifp, src, msg, MLDRT_REC_CHANGE_TO_INCLUDE);
}
