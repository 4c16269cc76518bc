// Queries heard on the upstream link are answered at once from the host state, as one MLDv2
// host would answer them (RFC 3810 section 6.2), without a random delay. A query heard on a
// downstream link changes nothing but the link's MLD version, which the dispatch has recorded.
#include <cstring>

#include "base/addr.h"
#include "base/bytes.h"
#include "db/db.h"
#include "iface/interface.h"
#include "mld/handlers.h"
#include "mld/mld.h"

namespace mldproxy {

namespace {

// A query in the 2048-byte receive buffer holds at most (2048 - 28) / 16 = 126 sources.
constexpr uint32_t kMaxQuerySources = (kBufSize - kQueryV2HeaderLen) / kAddrLen;

// The sources a query lists, as far as they arrived: a count that claims more is believed only
// as far as the bytes go.
uint32_t listed_sources(const uint8_t* msg, uint32_t len) {
    uint32_t asked = get_be16(msg + 26);
    uint32_t arrived = (len - kQueryV2HeaderLen) / kAddrLen;
    return asked < arrived ? asked : arrived;
}

bool holds(const Source* list, const uint8_t* addr) {
    for (; list; list = list->next) {
        if (same_address(list->address, addr)) {
            return true;
        }
    }
    return false;
}

// The queried sources that the host state holds, in query order, chained from matched[0].
const Source* match_sources(const uint8_t* msg, uint32_t asked, const Source* held,
                            Source* matched) {
    uint32_t n = 0;
    for (uint32_t i = 0; i < asked && n < kMaxQuerySources; i++) {
        const uint8_t* src = msg + kQueryV2HeaderLen + kAddrLen * i;
        if (!holds(held, src)) {
            continue;
        }
        std::memset(&matched[n], 0, sizeof matched[n]);
        std::memcpy(matched[n].address, src, kAddrLen);
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
bool unheard_on_v1(const Link* ifp, const HostState* hs) {
    return ifp->mld_version == 1 && !has_listeners(hs);
}

}  // namespace

int handle_query(Router* r, Link* ifp, const uint8_t* src, const uint8_t* msg, uint32_t len) {
    (void)src;
    if (!ifp->is_upstream) {
        return 0;
    }
    const uint8_t* grp = msg + 8;
    // An MLDv1 query (24 bytes) lists no sources; an MLDv2 one has at least its 28-byte header.
    uint32_t nsrc = len >= kQueryV2HeaderLen ? listed_sources(msg, len) : 0;
    if (len >= kQueryV2HeaderLen && get_be16(msg + 26) != 0 && nsrc == 0) {
        return 0;  // sources announced but none arrived: nothing to answer for
    }
    bool general = is_unspecified(grp);
    if (general && nsrc != 0) {
        return 0;  // a general query cannot list sources
    }
    bool with_sources = !general && ifp->mld_version == 2 && nsrc != 0;
    Source matched[kMaxQuerySources];  // this query's matches only
    ReportBuilder rb;
    report_init(&rb, r);
    for (const ForwardingEntry* e = r->entries; e; e = e->next) {
        const HostState state = reported_state(e);
        const HostState* hs = &state;
        if (!hs || (!general && !same_address(e->address, grp)) || unheard_on_v1(ifp, hs)) {
            continue;
        }
        RecordType rec_type = current_state_record_type(hs->mode);
        if (!with_sources) {
            report_add(&rb, e->address, rec_type, hs->list);
            continue;
        }
        const Source* list = hs->list ? match_sources(msg, nsrc, hs->list, matched) : nullptr;
        if (list) {
            report_add(&rb, e->address, rec_type, list);
        }
    }
    report_flush(&rb);
    return 0;
}

}  // namespace mldproxy
