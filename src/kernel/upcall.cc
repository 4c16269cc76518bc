#include "core/addr.h"
#include "kernel/upcall.h"

#include <cstring>

#include "db/db.h"
#include "iface/interface.h"
#include "kernel/mroute.h"

namespace {

// The interface whose database is printed on every upcall, as routers built on this daemon
// have always shown it.
const char* const kCacheLookupInterface = "eth1";

bool has_any_source_record(const mldrt_mfdb_entry* e) {
    for (const mldrt_fwinfo* fw = e->fwinfo_list; fw; fw = fw->next) {
        if (ipv6_addr_equal(fw->src_addr, MLDRT_ADDR_ANY)) {
            return true;
        }
    }
    return false;
}

bool any_set(const uint8_t* oifs) {
    for (uint32_t i = 0; i < MLDRT_MAXMIF_MARKS; i++) {
        if (oifs[i]) {
            return true;
        }
    }
    return false;
}

}  // namespace

void mldrt_handle_mrt6_msg(mldrt_router* r, const uint8_t* msg, int len) {
    if (len < static_cast<int>(sizeof(mldrt_mrt6msg))) {
        return;
    }
    mldrt_mrt6msg m;
    std::memcpy(&m, msg, sizeof m);
    mldrt_interface* eth1 = mldrt_lookup_interface_name(r, kCacheLookupInterface);
    if (m.im6_dst[0] != 0xff) {
        return;
    }
    if (eth1) {
        mldrt_dump_interface_info(r, eth1, "CACHE LOOKUP");
    }
    if (m.im6_msgtype != MRT6MSG_NOCACHE_TYPE) {
        return;
    }
    mldrt_mfdb_entry* e = mldrt_lookup_mfdb_entry(r, m.im6_dst);
    if (!e || !e->fwinfo_list) {
        mldrt_delete_k_mfc(r, m.im6_dst, m.im6_src);
        return;
    }
    e->upcall_mark = 0;
    // The group's (*,G) entry forwards this source already and follows every change; an (S,G)
    // copied from it would not. Such an upcall only comes from a packet that arrived while a
    // report was being handled.
    if (has_any_source_record(e)) {
        return;
    }
    uint8_t oifs[MLDRT_MAXMIF_MARKS] = {};
    mldrt_generate_membership_info(e, m.im6_src, oifs);
    if (any_set(oifs)) {
        mldrt_add_k_mfc(r, m.im6_dst, m.im6_src, oifs);
    } else {
        mldrt_delete_k_mfc(r, m.im6_dst, m.im6_src);
    }
}
