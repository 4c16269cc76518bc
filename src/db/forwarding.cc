// The forwarding-aware list operations. A source on a group's include or requested list marks
// the interface's MIF as wanted in the (G,S) forwarding record, a source on its excluded list
// marks it as excluded, and the kernel's entries follow the marks at once: the (::) record is
// the kernel's (*,G) entry, every other record an (S,G) entry that also carries the (*,G) MIFs
// but those that exclude it, because Linux prefers an (S,G) entry over the (*,G) one.
#include <cstdio>
#include <cstring>

#include "core/log.h"
#include "core/addr.h"
#include "db/db.h"
#include "iface/interface.h"
#include "kernel/mroute.h"

namespace {

bool has_marks(const mldrt_fwinfo* fw) {
    for (uint32_t i = 0; i < MLDRT_MAXMIF_MARKS; i++) {
        if (fw->mif_member[i]) {
            return true;
        }
    }
    return false;
}

void write_source_entry(mldrt_router* r, mldrt_mfdb_entry* e, const uint8_t* src) {
    uint8_t oifs[MLDRT_MAXMIF_MARKS] = {};
    mldrt_generate_membership_info(e, src, oifs);
    mldrt_add_k_mfc(r, e->grp_addr, src, oifs);
}

void write_any_source_entry(mldrt_router* r, mldrt_mfdb_entry* e) {
    for (const mldrt_fwinfo* fw = e->fwinfo_list; fw; fw = fw->next) {
        if (mldrt_is_any_addr(fw->src_addr)) {
            mldrt_add_k_mfc(r, e->grp_addr, MLDRT_ADDR_ANY, fw->mif_member);
            return;
        }
    }
}

// Every (S,G) entry carries the (*,G) MIFs, so a change of those rewrites them all.
void write_source_entries(mldrt_router* r, mldrt_mfdb_entry* e) {
    for (const mldrt_fwinfo* fw = e->fwinfo_list; fw; fw = fw->next) {
        if (!mldrt_is_any_addr(fw->src_addr)) {
            write_source_entry(r, e, fw->src_addr);
        }
    }
}

int add_forwarding(mldrt_router* r, mldrt_group* g, const uint8_t* src, mldrt_interface* ifp,
                   uint8_t mark) {
    mldrt_fwinfo* fw = mldrt_add_fwinfo_to_fdb(g, src);
    if (!fw) {
        mldrt_log_puts("MLDRT: Couldnt add src info to MDB");
        return -1;
    }
    if (ifp->mifi >= MLDRT_MAXMIF_MARKS || fw->mif_member[ifp->mifi] == mark) {
        return 0;  // already marked so there
    }
    fw->mif_member[ifp->mifi] = mark;
    mldrt_sync_kernel_forwarding(r, g->mfdb, src, false);
    return 0;
}

// Clears the link's mark of `src` when it is `mark`: a source moved between the wanted and the
// excluded list has taken the other mark already, whichever list it was added to first.
int remove_forwarding(mldrt_router* r, mldrt_group* g, const uint8_t* src, mldrt_interface* ifp,
                      uint8_t mark) {
    mldrt_fwinfo* fw = mldrt_lookup_fwinfo_in_fdb(g, src);
    if (!fw || (ifp->mifi < MLDRT_MAXMIF_MARKS && fw->mif_member[ifp->mifi] != mark)) {
        return 0;
    }
    if (ifp->mifi < MLDRT_MAXMIF_MARKS) {
        fw->mif_member[ifp->mifi] = 0;
    }
    bool gone = !has_marks(fw);
    if (gone) {
        mldrt_delete_fwinfo_from_fdb(g, src);
    }
    if (mldrt_is_any_addr(src)) {
        r->del_mifi = ifp->mifi;
    }
    mldrt_sync_kernel_forwarding(r, g->mfdb, src, gone);
    return 0;
}

}  // namespace

void mldrt_sync_kernel_forwarding(mldrt_router* r, mldrt_mfdb_entry* e, const uint8_t* src,
                                  bool record_gone) {
    if (!mldrt_is_any_addr(src)) {
        // Without its own record the source is forwarded by the (*,G) entry, if any.
        if (record_gone) {
            mldrt_delete_k_mfc(r, e->grp_addr, src);
        } else {
            write_source_entry(r, e, src);
        }
        return;
    }
    if (record_gone) {
        // Deleted even while no upstream is known: a kernel entry left behind would forward
        // to whatever link takes its MIF later.
        mldrt_delete_k_mfc(r, e->grp_addr, MLDRT_ADDR_ANY);
    } else {
        write_any_source_entry(r, e);
    }
    write_source_entries(r, e);
}

int mldrt_add_entry_to_grp_srclist(mldrt_router* r, mldrt_group* g, uint32_t ltype,
                                   const uint8_t* src, int32_t timer, mldrt_interface* ifp) {
    if (ltype > MLDRT_L_EXC) {
        mldrt_log("\n Invalid list type\n");
        return 0;
    }
    // :: is the forwarding database's whole-group mark: a record naming it as a source names
    // no host that could send, and must not turn into a (*,G) entry.
    if (mldrt_is_any_addr(src)) {
        return 0;
    }
    mldrt_src* s = mldrt_add_src_to_group(g, g->mfdb, ltype, src);
    if (!s) {
        mldrt_log_puts("MLDRT: Couldnt add src to grp include list");
        return -1;
    }
    s->timer = timer;  // a report refreshes the timer of a source it names again
    return add_forwarding(r, g, src, ifp,
                          ltype == MLDRT_L_EXC ? MLDRT_MARK_EXCLUDED : MLDRT_MARK_WANTED);
}

int mldrt_remove_entry_from_grp_srclist(mldrt_router* r, mldrt_group* g, mldrt_mfdb_entry* e,
                                        uint32_t ltype, const uint8_t* src, mldrt_interface* ifp) {
    if (ltype > MLDRT_L_SCR_BLOCK) {
        mldrt_log("\n Invalid ltype\n");
        return 0;
    }
    if (ltype >= MLDRT_L_EXC) {
        if (mldrt_del_src_from_group(g, e, ltype, src) != 0) {
            mldrt_log("\n FATAL Error - Cannot del src from group exclude list\n");
            return -1;
        }
        return ltype == MLDRT_L_EXC ? remove_forwarding(r, g, src, ifp, MLDRT_MARK_EXCLUDED) : 0;
    }
    if (mldrt_del_src_from_group(g, g->mfdb, ltype, src) != 0) {
        mldrt_log("\n FATAL Error - Cannot del src from group include list\n");
        return -1;
    }
    return remove_forwarding(r, g, src, ifp, MLDRT_MARK_WANTED);
}

void mldrt_forward_whole_group(mldrt_router* r, mldrt_group* g, mldrt_interface* ifp) {
    add_forwarding(r, g, MLDRT_ADDR_ANY, ifp, MLDRT_MARK_WANTED);
}

void mldrt_withdraw_whole_group(mldrt_router* r, mldrt_group* g, mldrt_interface* ifp) {
    remove_forwarding(r, g, MLDRT_ADDR_ANY, ifp, MLDRT_MARK_WANTED);
}

void mldrt_rewrite_kernel_forwarding(mldrt_router* r) {
    for (mldrt_mfdb_entry* e = r->mfdb_list; e; e = e->next) {
        write_any_source_entry(r, e);
        write_source_entries(r, e);
    }
}
