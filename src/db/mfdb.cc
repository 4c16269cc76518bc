#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/log.h"
#include "core/addr.h"
#include "db/db.h"
#include "iface/interface.h"
#include "kernel/mroute.h"

namespace {

uint32_t g_mfdb_count = 0;

void free_host_state(mldrt_hs_state** hs) {
    if (*hs) {
        mldrt_free_srclist(&(*hs)->list);
        free(*hs);
        *hs = nullptr;
    }
}

mldrt_fwinfo* find_fwinfo(mldrt_fwinfo* list, const uint8_t* src) {
    for (; list; list = list->next) {
        if (ipv6_addr_equal(list->src_addr, src)) {
            return list;
        }
    }
    return nullptr;
}

}  // namespace

uint32_t mldrt_mfdb_count() {
    return g_mfdb_count;
}

mldrt_mfdb_entry* mldrt_lookup_mfdb_entry(mldrt_router* r, const uint8_t* grp) {
    return mldrt_index_find(&r->mfdb_index, grp);
}

mldrt_mfdb_entry* mldrt_create_mfdb_entry(const uint8_t* grp) {
    auto* e = static_cast<mldrt_mfdb_entry*>(calloc(1, sizeof(mldrt_mfdb_entry)));
    if (!e) {
        mldrt_log_puts("MLDRT: Mfdb create failed");
        return nullptr;
    }
    std::memcpy(e->grp_addr, grp, 16);
    e->old_host_state = static_cast<mldrt_hs_state*>(calloc(1, sizeof(mldrt_hs_state)));
    if (!e->old_host_state) {
        mldrt_log("\n Allocation of host state failed during mfdb creation\n");
        free(e);
        return nullptr;
    }
    return e;
}

mldrt_mfdb_entry* mldrt_add_mfdb_entry(mldrt_router* r, const uint8_t* grp) {
    mldrt_mfdb_entry* e = mldrt_lookup_mfdb_entry(r, grp);
    if (e) {
        return e;
    }
    if (g_mfdb_count >= MLDRT_MAX_GROUPS) {
        mldrt_report_limit(MLDRT_LIMIT_GROUPS);
        return nullptr;
    }
    e = mldrt_create_mfdb_entry(grp);
    if (!e) {
        return nullptr;
    }
    if (!mldrt_index_insert(&r->mfdb_index, e)) {
        mldrt_log_puts("MLDRT: Mfdb create failed");
        mldrt_delete_mfdb_entry(r, e);
        return nullptr;
    }
    e->next = r->mfdb_list;
    if (r->mfdb_list) {
        r->mfdb_list->pprev = &e->next;
    }
    e->pprev = &r->mfdb_list;
    r->mfdb_list = e;
    g_mfdb_count++;
    return e;
}

void mldrt_delete_mfdb_entry(mldrt_router* r, mldrt_mfdb_entry* e) {
    (void)r;
    mldrt_index_remove(e);
    mldrt_forget_entry_work(e);
    free_host_state(&e->old_host_state);
    free_host_state(&e->new_host_state);
    // Whatever the lists still hold goes with the entry, so nothing is ever leaked.
    mldrt_free_srclist(&e->scr_to_ex_list);
    mldrt_free_srclist(&e->scr_to_in_list);
    mldrt_free_srclist(&e->scr_allow_list);
    mldrt_free_srclist(&e->scr_block_list);
    while (e->fwinfo_list) {
        mldrt_fwinfo* next = e->fwinfo_list->next;
        free(e->fwinfo_list);
        e->fwinfo_list = next;
    }
    if (e->pprev) {
        *e->pprev = e->next;
        if (e->next) {
            e->next->pprev = e->pprev;
        }
        g_mfdb_count--;
    }
    free(e);
}

void mldrt_free_mfdb(mldrt_router* r) {
    while (r->mfdb_list) {
        mldrt_delete_mfdb_entry(r, r->mfdb_list);
    }
}

void mldrt_create_gr_mfd_mapping(mldrt_router* r, mldrt_group* g, mldrt_mfdb_entry* e) {
    (void)r;
    if (g->mfdb) {
        return;
    }
    g->mfdb = e;
    mldrt_mark_changed(e);  // a new group on a link: even an empty one must be looked at
    if (!e->fwinfo_list) {
        mldrt_add_k_membership();
    }
}

mldrt_fwinfo* mldrt_lookup_fwinfo_in_fdb(mldrt_group* g, const uint8_t* src) {
    return g->mfdb ? find_fwinfo(g->mfdb->fwinfo_list, src) : nullptr;
}

int is_fwinfo_empty_for_grp_src(mldrt_group* g, const uint8_t* src) {
    const mldrt_fwinfo* fw = mldrt_lookup_fwinfo_in_fdb(g, src);
    if (!fw) {
        return 0;
    }
    for (uint32_t i = 0; i < MLDRT_MAXMIF_MARKS; i++) {
        if (fw->mif_member[i]) {
            return -1;
        }
    }
    return 0;
}

mldrt_fwinfo* mldrt_create_fwinfo_in_fdb(const uint8_t* src) {
    auto* fw = static_cast<mldrt_fwinfo*>(calloc(1, sizeof(mldrt_fwinfo)));
    if (!fw) {
        mldrt_log_puts("MLDRT: Creating fwdinfo failed");
        return nullptr;
    }
    std::memcpy(fw->src_addr, src, 16);
    return fw;
}

mldrt_fwinfo* mldrt_add_fwinfo_to_fdb(mldrt_group* g, const uint8_t* src) {
    if (!g->mfdb) {
        return nullptr;
    }
    mldrt_fwinfo* fw = find_fwinfo(g->mfdb->fwinfo_list, src);
    if (fw) {
        return fw;
    }
    fw = mldrt_create_fwinfo_in_fdb(src);
    if (fw) {
        fw->next = g->mfdb->fwinfo_list;
        g->mfdb->fwinfo_list = fw;
    }
    return fw;
}

void mldrt_delete_fwinfo_from_fdb(mldrt_group* g, const uint8_t* src) {
    if (!g->mfdb) {
        return;
    }
    for (mldrt_fwinfo** link = &g->mfdb->fwinfo_list; *link; link = &(*link)->next) {
        if (ipv6_addr_equal((*link)->src_addr, src)) {
            mldrt_fwinfo* gone = *link;
            *link = gone->next;
            free(gone);
            return;
        }
    }
}

void mldrt_generate_membership_info(const mldrt_mfdb_entry* e, const uint8_t* src, uint8_t* oifs) {
    const mldrt_fwinfo* own = find_fwinfo(e->fwinfo_list, src);
    const mldrt_fwinfo* any = find_fwinfo(e->fwinfo_list, MLDRT_ADDR_ANY);
    for (uint32_t i = 0; i < MLDRT_MAXMIF_MARKS; i++) {
        uint8_t mark = own ? own->mif_member[i] : 0;
        bool by_any = any && any->mif_member[i] == MLDRT_MARK_WANTED;
        oifs[i] = (mark == MLDRT_MARK_WANTED || (by_any && mark != MLDRT_MARK_EXCLUDED)) ? 1 : 0;
    }
}

bool mldrt_hs_listened(const mldrt_hs_state* hs) {
    return hs && (hs->mode == MLDRT_EXCLUDE || hs->list);
}

bool mldrt_group_listened(mldrt_router* r, const uint8_t* grp) {
    const mldrt_mfdb_entry* e = mldrt_lookup_mfdb_entry(r, grp);
    return e && mldrt_hs_listened(e->old_host_state);
}

int mldrt_pending_host_state_update(const mldrt_mfdb_entry* e) {
    return (e->scr_to_ex_cnt || e->scr_to_in_cnt || e->scr_allow_cnt || e->scr_block_cnt) ? 1 : 0;
}
