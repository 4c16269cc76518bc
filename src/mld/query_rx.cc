// Queries heard on the upstream link are answered at once from the host state, as one MLDv2
// host would answer them (RFC 3810 section 6.2), without a random delay. A query heard on a
// downstream link changes nothing but the link's MLD version, which the dispatch has recorded.
#include <cstring>

#include "core/addr.h"
#include "core/bytes.h"
#include "db/db.h"
#include "iface/interface.h"
#include "mld/handlers.h"
#include "mld/mld.h"

namespace {

// A query in the 2048-byte receive buffer holds at most (2048 - 28) / 16 = 126 sources.
constexpr uint32_t kMaxQuerySources = (MLDRT_BUF_SIZE - MLDRT_QUERY_V2_HDR_LEN) / MLDRT_ADDR_LEN;

// The sources a query lists, as far as they arrived: a count that claims more is believed only
// as far as the bytes go.
uint32_t listed_sources(const uint8_t* msg, uint32_t len) {
    uint32_t asked = mldrt_get_be16(msg + 26);
    uint32_t arrived = (len - MLDRT_QUERY_V2_HDR_LEN) / MLDRT_ADDR_LEN;
    return asked < arrived ? asked : arrived;
}

bool holds(const mldrt_src* list, const uint8_t* addr) {
    for (; list; list = list->next) {
        if (ipv6_addr_equal(list->src_addr, addr)) {
            return true;
        }
    }
    return false;
}

// The queried sources that the host state holds, in query order, chained from matched[0].
const mldrt_src* match_sources(const uint8_t* msg, uint32_t asked, const mldrt_src* held,
                               mldrt_src* matched) {
    uint32_t n = 0;
    for (uint32_t i = 0; i < asked && n < kMaxQuerySources; i++) {
        const uint8_t* src = msg + MLDRT_QUERY_V2_HDR_LEN + MLDRT_ADDR_LEN * i;
        if (!holds(held, src)) {
            continue;
        }
        std::memset(&matched[n], 0, sizeof matched[n]);
        std::memcpy(matched[n].src_addr, src, MLDRT_ADDR_LEN);
        if (n > 0) {
            matched[n - 1].next = &matched[n];
        }
        n++;
    }
    return n > 0 ? matched : nullptr;
}

// An MLDv1 report has no source list: it asks for every source of the group. A group whose
// host state is INCLUDE{} has no listener, so on an MLDv1 upstream it is left out of the
// answer rather than joined again.
bool unheard_on_v1(const mldrt_interface* ifp, const mldrt_hs_state* hs) {
    return ifp->mld_version == 1 && !mldrt_hs_listened(hs);
}

}  // namespace

int mldrt_handle_mld_query(mldrt_router* r, mldrt_interface* ifp, const uint8_t* src,
                           const uint8_t* msg, uint32_t len) {
    (void)src;
    if (ifp->is_upstream != 1) {
        return 0;
    }
    const uint8_t* grp = msg + 8;
    // An MLDv1 query (24 bytes) lists no sources; an MLDv2 one has at least its 28-byte header.
    uint32_t nsrc = len >= MLDRT_QUERY_V2_HDR_LEN ? listed_sources(msg, len) : 0;
    if (len >= MLDRT_QUERY_V2_HDR_LEN && mldrt_get_be16(msg + 26) != 0 && nsrc == 0) {
        return 0;  // sources announced but none arrived: nothing to answer for
    }
    bool general = ipv6_addr_equal(grp, MLDRT_ADDR_ANY) != 0;
    if (general && nsrc != 0) {
        return 0;  // a general query cannot list sources
    }
    bool with_sources = !general && ifp->mld_version == 2 && nsrc != 0;
    mldrt_src matched[kMaxQuerySources];  // this query's matches only
    mldrt_report_builder rb;
    mldrt_rb_init(&rb, r);
    for (const mldrt_mfdb_entry* e = r->mfdb_list; e; e = e->next) {
        const mldrt_hs_state* hs = e->old_host_state;
        if (!hs || (!general && !ipv6_addr_equal(e->grp_addr, grp)) || unheard_on_v1(ifp, hs)) {
            continue;
        }
        uint8_t rec_type = mldrt_get_rectype_from_group_mode(hs->mode);
        if (!with_sources) {
            mldrt_rb_add(&rb, e->grp_addr, rec_type, hs->list);
            continue;
        }
        const mldrt_src* list = hs->list ? match_sources(msg, nsrc, hs->list, matched) : nullptr;
        if (list) {
            mldrt_rb_add(&rb, e->grp_addr, rec_type, list);
        }
    }
    mldrt_rb_flush(&rb);
    return 0;
}
