#include "base/addr.h"
#include "proxy/upcall.h"

#include <cstring>

#include "db/db.h"
#include "iface/interface.h"
#include "kernel/mroute.h"

namespace mldproxy {

namespace {

// The interface whose database is printed on every upcall, as routers built on this daemon
// have always shown it.
const char* const kCacheLookupInterface = "eth1";

bool has_any_source_record(const ForwardingEntry* e) {
    for (const ForwardingRecord* fw = e->records; fw; fw = fw->next) {
        if (same_address(fw->address, kAddrAny)) {
            return true;
        }
    }
    return false;
}

bool any_set(const uint8_t* oifs) {
    for (uint32_t i = 0; i < kMifMarks; i++) {
        if (oifs[i]) {
            return true;
        }
    }
    return false;
}

}  // namespace

void handle_upcall(Router* r, const uint8_t* msg, int len) {
    if (len < static_cast<int>(sizeof(Mrt6Msg))) {
        return;
    }
    Mrt6Msg m;
    std::memcpy(&m, msg, sizeof m);
    Link* eth1 = find_link_by_name(r->interfaces, kCacheLookupInterface);
    if (m.im6_dst[0] != 0xff) {
        return;
    }
    if (eth1) {
        dump_link(r, eth1, "CACHE LOOKUP");
    }
    if (m.im6_msgtype != MRT6MSG_NOCACHE_TYPE) {
        return;
    }
    ForwardingEntry* e = find_forwarding_entry(r, m.im6_dst);
    if (!e || !e->records) {
        kernel_delete_mfc(r->router_sock, m.im6_dst, m.im6_src);
        return;
    }
    // The group's (*,G) entry forwards this source already and follows every change; an (S,G)
    // copied from it would not. Such an upcall only comes from a packet that arrived while a
    // report was being handled.
    if (has_any_source_record(e)) {
        return;
    }
    uint8_t oifs[kMifMarks] = {};
    outgoing_mifs(e, m.im6_src, oifs);
    if (any_set(oifs)) {
        write_kernel_entry(r, m.im6_dst, m.im6_src, oifs);
    } else {
        kernel_delete_mfc(r->router_sock, m.im6_dst, m.im6_src);
    }
}

}  // namespace mldproxy
