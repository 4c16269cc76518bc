// Diagnostic dumps of the listener database and of the upstream host state, for a person at
// the console; printed only while VERBOSE is non-zero.
#include <arpa/inet.h>

#include <cstdint>
#include <cstdio>

#include "core/log.h"
#include "db/db.h"
#include "iface/interface.h"

namespace {

struct addr_text {
    char s[INET6_ADDRSTRLEN];
};

addr_text text_of(const uint8_t* addr) {
    addr_text t{};
    inet_ntop(AF_INET6, addr, t.s, sizeof t.s);
    return t;
}

// Record identities are printed as their low 32 bits, the same on every target.
unsigned identity(const void* p) {
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p) & 0xffffffffu);
}

void dump_forwarding(const mldrt_mfdb_entry* e) {
    mldrt_print("\n \tMFD 0x%x Fdaddr %s", identity(e), text_of(e->grp_addr).s);
    mldrt_print("\n \tFwding Info: ");
    if (!e->fwinfo_list) {
        mldrt_print(" NULL");
    }
    for (const mldrt_fwinfo* fw = e->fwinfo_list; fw; fw = fw->next) {
        mldrt_print("\n \t\tSrcAddr  %s", text_of(fw->src_addr).s);
        mldrt_print("\n \t\tMember MIF Idx");
        for (int i = 0; i < static_cast<int>(MLDRT_MAXMIF_MARKS); i++) {
            if (fw->mif_member[i] == 1) {
                mldrt_print(" %d", i);
            }
        }
    }
}

void dump_group(int n, const mldrt_group* g) {
    mldrt_print("\n\n =======Grp %d 0x%x addr %s ftimer %d fmode %d======= ", n, identity(g),
                text_of(g->grp_addr).s, g->ftimer, static_cast<int>(g->fmode));
    mldrt_print("\n Include List: ");
    mldrt_display_srclist("Include List", g->include_list);
    mldrt_display_srclist("Req List", g->req_list);
    mldrt_display_srclist("Exc List", g->exc_list);
    mldrt_print("\n\n ---MFD Information---  ");
    if (!g->mfdb) {
        mldrt_print("\n NULL");
    } else {
        dump_forwarding(g->mfdb);
    }
}

void dump_state(const char* heading, const char* label, const mldrt_hs_state* hs) {
    mldrt_print("%s", heading);
    if (!hs) {
        mldrt_print(" NULL");
        return;
    }
    mldrt_print("\n     MODE    %d", static_cast<int>(hs->mode));
    mldrt_display_srclist(label, hs->list);
}

}  // namespace

void mldrt_display_srclist(const char* label, const mldrt_src* list) {
    mldrt_print("\n %s :", label);
    if (!list) {
        mldrt_print(" NULL ");
    }
    for (; list; list = list->next) {
        mldrt_print("[ %s time %d ] ", text_of(list->src_addr).s, list->timer);
    }
}

void mldrt_dump_interface_info(mldrt_router* r, mldrt_interface* ifp, const char* title) {
    if (r->verbose == 0) {
        return;
    }
    mldrt_print("\n<===================%s======================>", title);
    mldrt_print("\n Interface %s PhyIdx %d", ifp->name, static_cast<int>(ifp->ifindex));
    mldrt_print("\n Member Groups ");
    if (!ifp->groups) {
        mldrt_print(" :NO GROUPS");
    }
    int n = 0;
    for (const mldrt_group* g = ifp->groups; g; g = g->next) {
        dump_group(n++, g);
    }
    mldrt_print("\n===================================================================\n\n");
}

void mldrt_dump_host_states(mldrt_router* r, const mldrt_mfdb_entry* e) {
    if (r->verbose == 0) {
        return;
    }
    mldrt_print("\n <---------Group Host State for Group %s------------->", text_of(e->grp_addr).s);
    dump_state("\n\n Old State :", "OldState SrcList", e->old_host_state);
    dump_state("\n\n New State :", "NewState SrcList", e->new_host_state);
    mldrt_print("\n\n SCR Info");
    mldrt_print(
        "\n scr_fmode_rtx_timer %d, scr_to_ex_cnt %d scr_to_in_cnt %d scr_allow_cnt %d "
        "scr_block_cnt %d",
        e->scr_fmode_rtx_timer, e->scr_to_ex_cnt, e->scr_to_in_cnt, e->scr_allow_cnt,
        e->scr_block_cnt);
    mldrt_display_srclist("scr_to_ex_list", e->scr_to_ex_list);
    mldrt_display_srclist("scr_to_in_list", e->scr_to_in_list);
    mldrt_display_srclist("scr_allow_list", e->scr_allow_list);
    mldrt_display_srclist("scr_block_list", e->scr_block_list);
    mldrt_print(
        "\n <------------------------------------------------------------------------->\n\n");
}
