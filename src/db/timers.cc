#include <cstring>

#include "db/db.h"
#include "iface/interface.h"
#include "proxy/proxy.h"

namespace {

// Withdraws a list's forwarding entry by entry (the removal frees each entry).
void withdraw_list(mldrt_router* r, mldrt_group* g, uint32_t ltype, mldrt_interface* ifp) {
    mldrt_src** list = mldrt_select_srclist(g, g->mfdb, ltype);
    while (*list) {
        uint8_t addr[16];
        std::memcpy(addr, (*list)->src_addr, sizeof addr);
        mldrt_remove_entry_from_grp_srclist(r, g, g->mfdb, ltype, addr, ifp);
    }
}

void release_group(mldrt_router* r, mldrt_group* g, mldrt_interface* ifp) {
    withdraw_list(r, g, MLDRT_L_INCLUDE, ifp);
    withdraw_list(r, g, MLDRT_L_REQ, ifp);
    mldrt_free_srclist(&g->exc_list);
    mldrt_free_srclist(&g->srsp_list);
    mldrt_free_srclist(&g->non_srsp_list);
    if (g->fmode == MLDRT_EXCLUDE && g->mfdb && g->mfdb->exclude_count > 0) {
        g->mfdb->exclude_count--;
    }
    while (g->member_list) {
        mldrt_delete_member(g->member_list);
    }
    mldrt_delete_group(g);
}

}  // namespace

void mldrt_update_group_state(mldrt_router*) {}

void mldrt_update_memberships(mldrt_router*, mldrt_interface*, int) {}

void mldrt_cleanup_memberships(mldrt_router* r) {
    for (mldrt_interface* ifp = r->interfaces; ifp; ifp = ifp->next) {
        mldrt_update_memberships(r, ifp, 1);
    }
}

void mldrt_release_interface_groups(mldrt_router* r, mldrt_interface* ifp) {
    if (!ifp->groups) {
        return;
    }
    while (ifp->groups) {
        release_group(r, ifp->groups, ifp);
    }
    // The upstream hears of the change before the forwarding entries can go. Not at shutdown:
    // the router is no longer active then.
    if (r->upstream && r->active) {
        mldrt_update_host_state(r);
    }
}
