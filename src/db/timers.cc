#include "db/db.h"
#include "iface/interface.h"

void mldrt_update_group_state(mldrt_router*) {}

void mldrt_update_memberships(mldrt_router*, mldrt_interface*, int) {}

void mldrt_cleanup_memberships(mldrt_router* r) {
    for (mldrt_interface* ifp = r->interfaces; ifp; ifp = ifp->next) {
        mldrt_update_memberships(r, ifp, 1);
    }
}

void mldrt_release_interface_groups(mldrt_router*, mldrt_interface*) {}

void mldrt_rewrite_kernel_forwarding(mldrt_router*) {}
