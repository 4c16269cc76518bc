// The host state of a group: what the downstream links want, merged as one host's state
// (RFC 3810 section 4.2, RFC 4605 section 4.1): INCLUDE lists unite, EXCLUDE lists intersect,
// an EXCLUDE{} anywhere wins, and INCLUDE sources are taken out of an EXCLUDE result.
#include <cstdio>
#include <cstdlib>

#include "core/log.h"
#include "core/addr.h"
#include "db/db.h"
#include "iface/interface.h"
#include "mld/mld.h"
#include "proxy/proxy.h"

namespace {

mldrt_hs_state* new_state(uint32_t mode) {
    auto* hs = static_cast<mldrt_hs_state*>(calloc(1, sizeof(mldrt_hs_state)));
    if (hs) {
        hs->mode = mode;
    }
    return hs;
}

void free_state(mldrt_hs_state* hs) {
    if (hs) {
        mldrt_free_srclist(&hs->list);
        free(hs);
    }
}

// :: marks a whole group in a link's lists; as a source it means nothing to the upstream, so
// it never enters the host state and never goes into a report.
void add_sources(mldrt_mfdb_entry* e, const mldrt_src* list) {
    for (; list; list = list->next) {
        if (!mldrt_is_any_addr(list->src_addr)) {
            mldrt_add_src_to_group(nullptr, e, MLDRT_L_NEW_HS, list->src_addr);
        }
    }
}

// True when every source of `a` is also in `b`.
bool contained(const mldrt_src* a, const mldrt_src* b) {
    for (; a; a = a->next) {
        if (!mldrt_srclist_has(b, a->src_addr)) {
            return false;
        }
    }
    return true;
}

// Calls `visit` for every group mapped to `e`, links in list order; stops when it returns
// false. A group is mapped only to the entry of its own address and a link has at most one
// group of an address, so the link's index finds it without a walk of its groups.
template <typename Visit>
void for_each_mapped_group(mldrt_router* r, const mldrt_mfdb_entry* e, Visit visit) {
    for (mldrt_interface* ifp = r->interfaces; ifp; ifp = ifp->next) {
        mldrt_group* g = mldrt_lookup_group(ifp, e->grp_addr);
        if (g && g->mfdb == e && !visit(g)) {
            return;
        }
    }
}

// Intersects the EXCLUDE lists of the links (RFC 3810 section 4.2): a source stays excluded
// upstream only while every link in EXCLUDE mode excludes it, so an intersection that empties
// stays empty.
bool merge_exclude(mldrt_router* r, mldrt_mfdb_entry* e) {
    bool ok = true;
    bool first = true;
    for_each_mapped_group(r, e, [&](mldrt_group* g) {
        if (g->fmode != MLDRT_EXCLUDE) {
            return true;
        }
        if (!e->new_host_state) {
            e->new_host_state = new_state(MLDRT_EXCLUDE);
            if (!e->new_host_state) {
                mldrt_log("\n Mem Allocation failed for hs_new_state\n");
                ok = false;
                return false;
            }
        }
        mldrt_hs_state* hs = e->new_host_state;
        if (first) {
            add_sources(e, g->exc_list);
            first = false;
        } else {
            mldrt_intersect_srclists(&hs->list, g->exc_list);
        }
        return hs->list != nullptr;  // nothing left to exclude: nothing else matters
    });
    return ok;
}

}  // namespace

void mldrt_build_host_state(mldrt_router* r, mldrt_mfdb_entry* e) {
    if (e->new_host_state) {
        mldrt_log("\n Some Problem - New State should have been NULL\n");
        return;
    }
    if (e->exclude_count == 0) {
        e->new_host_state = new_state(MLDRT_INCLUDE);
        if (!e->new_host_state) {
            mldrt_log("\n Allocation failed for new state\n");
            return;
        }
        for_each_mapped_group(r, e, [&](mldrt_group* g) {
            add_sources(e, g->include_list);
            return true;
        });
        return;
    }
    if (!merge_exclude(r, e)) {
        return;
    }
    if (!e->new_host_state) {
        mldrt_log("\n FATAL........................... hs_new_state shouldnt have been NULL\n");
        exit(-1);
    }
    if (!e->new_host_state->list) {
        return;
    }
    for_each_mapped_group(r, e, [&](mldrt_group* g) {
        if (g->fmode == MLDRT_INCLUDE) {
            for (const mldrt_src* s = g->include_list; s; s = s->next) {
                mldrt_del_src_from_group(nullptr, e, MLDRT_L_NEW_HS, s->src_addr);
            }
        }
        return true;
    });
}

int mldrt_diff_host_state(mldrt_router* r, mldrt_mfdb_entry* e) {
    (void)r;
    const mldrt_hs_state* old_hs = e->old_host_state;
    const mldrt_hs_state* new_hs = e->new_host_state;
    if (!old_hs) {
        return new_hs ? 1 : 0;
    }
    if (!new_hs || old_hs->mode != new_hs->mode) {
        return 1;
    }
    if (!old_hs->list || !new_hs->list) {
        return old_hs->list != new_hs->list ? 1 : 0;
    }
    // Host-state lists hold each source once: same length and one inside the other is equality.
    return mldrt_srclist_len(old_hs->list) != mldrt_srclist_len(new_hs->list) ||
                   !contained(new_hs->list, old_hs->list)
               ? 1
               : 0;
}

void mldrt_finish_host_state_update(mldrt_router* r, mldrt_mfdb_entry* e) {
    (void)r;
    if (!e->new_host_state) {
        return;  // nothing was built: the last state stays the one acted upon
    }
    free_state(e->old_host_state);
    e->old_host_state = e->new_host_state;
    e->new_host_state = nullptr;
}

void mldrt_take_host_state_change_actions(mldrt_router* r, mldrt_mfdb_entry* e) {
    if (e->new_host_state && mldrt_diff_host_state(r, e)) {
        mldrt_dump_host_states(r, e);
        uint32_t old_mode = e->old_host_state ? e->old_host_state->mode : MLDRT_INCLUDE;
        mldrt_handle_host_state_transitions(r, e, old_mode, e->new_host_state->mode);
    }
    mldrt_finish_host_state_update(r, e);
}

void mldrt_report_changes(mldrt_router* r) {
    mldrt_report_builder batch;
    mldrt_rb_init(&batch, r);
    r->report_batch = &batch;
    while (mldrt_mfdb_entry* e = mldrt_take_changed()) {
        mldrt_build_host_state(r, e);
        mldrt_take_host_state_change_actions(r, e);
        mldrt_remove_if_unused(r, e);  // its records are in the batch already
    }
    r->report_batch = nullptr;
    mldrt_rb_flush(&batch);
}

void mldrt_restart_host_state(mldrt_router* r) {
    for (mldrt_mfdb_entry* e = r->mfdb_list; e; e = e->next) {
        if (e->old_host_state) {
            mldrt_free_srclist(&e->old_host_state->list);
            e->old_host_state->mode = MLDRT_INCLUDE;
        }
        mldrt_clear_pending_reports(e);
        mldrt_mark_changed(e);
    }
}
