// The once-a-second pass over the listener database (RFC 3810 section 7.2 timers, as this
// router applies them): query retransmissions, source and filter timers, EXCLUDE-to-INCLUDE
// on filter-timer expiry, and the removal of what has become empty.
#include <cstring>

#include "core/addr.h"
#include "db/db.h"
#include "iface/interface.h"
#include "kernel/mroute.h"
#include "mld/mld.h"
#include "proxy/proxy.h"

namespace {

uint32_t gmi(const mldrt_router* r) {
    return r->robustness * r->query_interval + r->query_response_interval / 1000u;
}

void send_group_query(mldrt_router* r, mldrt_interface* ifp, const mldrt_group* g,
                      const mldrt_src* srcs, uint32_t count) {
    mldrt_query_params q{};
    std::memcpy(q.group, g->grp_addr, 16);
    std::memcpy(q.dst, g->grp_addr, 16);
    q.sources = srcs;
    q.src_count = count;
    mldrt_send_query(r, ifp, &q);
}

void retransmit_group_query(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g) {
    if (g->grp_rtx_count <= 0 || --g->grp_rtx_timer != 0) {
        return;
    }
    send_group_query(r, ifp, g, nullptr, 0);
    g->grp_rtx_timer = static_cast<int32_t>(r->last_listener_query_interval);
    g->grp_rtx_count--;
}

// Each retransmission asks for the sources whose counts remain (RFC 3810 section 7.6.3.2).
void retransmit_source_queries(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g) {
    if (g->src_rtx_count <= 0 || --g->src_rtx_timer != 0) {
        return;
    }
    mldrt_send_source_queries(r, ifp, g);
    if (--g->src_rtx_count != 0) {
        g->src_rtx_timer = static_cast<int32_t>(r->last_listener_query_interval);
    }
    mldrt_clean_grp_rtx_lists(g);
}

// INCLUDE mode: sources age and leave with their forwarding.
void age_include(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g) {
    mldrt_src* next = nullptr;
    for (mldrt_src* s = g->include_list; s; s = next) {
        next = s->next;
        if (s->timer >= 2) {
            s->timer--;
            continue;
        }
        uint8_t addr[16];
        std::memcpy(addr, s->src_addr, sizeof addr);
        mldrt_remove_entry_from_grp_srclist(r, g, g->mfdb, MLDRT_L_INCLUDE, addr, ifp);
    }
}

// Filter timer expiry (RFC 3810 section 7.5): back to INCLUDE with the requested sources,
// each restarted at GMI; the link no longer takes every source of the group.
void expire_filter(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g) {
    mldrt_empty_grp_srclist(r, g, g->mfdb, MLDRT_L_EXC, ifp);
    for (mldrt_src* s = g->req_list; s; s = s->next) {
        mldrt_add_entry_to_grp_srclist(r, g, MLDRT_L_INCLUDE, s->src_addr,
                                       static_cast<int32_t>(gmi(r)), ifp);
    }
    mldrt_free_srclist(&g->req_list);
    mldrt_withdraw_whole_group(r, g, ifp);
    g->fmode = MLDRT_INCLUDE;
    if (g->mfdb) {
        g->mfdb->exclude_count--;
    }
    mldrt_mark_changed(g->mfdb);
}

// EXCLUDE mode, filter timer running: requested sources that run out become excluded.
void age_exclude(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g) {
    g->ftimer--;
    mldrt_src* next = nullptr;
    for (mldrt_src* s = g->req_list; s; s = next) {
        next = s->next;
        if (s->timer >= 2) {
            s->timer--;
            continue;
        }
        uint8_t addr[16];
        std::memcpy(addr, s->src_addr, sizeof addr);
        mldrt_add_entry_to_grp_srclist(r, g, MLDRT_L_EXC, addr, s->timer, ifp);
        mldrt_remove_entry_from_grp_srclist(r, g, g->mfdb, MLDRT_L_REQ, addr, ifp);
    }
}

// One second of the group's source, filter and compatibility timers.
void age_group(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g) {
    if (g->v1_host_timer > 0) {
        g->v1_host_timer--;
    }
    if (g->fmode == MLDRT_INCLUDE) {
        age_include(r, ifp, g);
    } else if (g->fmode == MLDRT_EXCLUDE) {
        if (g->ftimer < 2) {
            expire_filter(r, ifp, g);
        } else {
            age_exclude(r, ifp, g);
        }
    }
}

bool removable(const mldrt_group* g) {
    return g->fmode == MLDRT_INCLUDE && !g->include_list && g->grp_rtx_count <= 0 &&
           g->src_rtx_count <= 0;
}

// One tick of one group: its query retransmissions, then its timers.
void tick_group(mldrt_router* r, mldrt_interface* ifp, mldrt_group* g) {
    // A group that was left empty with its last query sent a tick ago can go: its entry is
    // looked at again for that. The tick between gives hosts time to answer that query.
    if (removable(g)) {
        mldrt_mark_changed(g->mfdb);
    }
    retransmit_group_query(r, ifp, g);
    retransmit_source_queries(r, ifp, g);
    age_group(r, ifp, g);
}

void free_group(mldrt_group* g) {
    while (g->member_list) {
        mldrt_delete_member(g->member_list);
    }
    mldrt_free_srclist(&g->include_list);
    mldrt_free_srclist(&g->req_list);
    mldrt_free_srclist(&g->exc_list);
    mldrt_free_srclist(&g->srsp_list);
    mldrt_free_srclist(&g->non_srsp_list);
    g->mfdb = nullptr;
    mldrt_delete_group(g);
}

// Removes the removable groups mapped to `e`; true while any mapped group remains. A link
// has at most one group of the entry's address, found through its index.
bool release_unused_groups(mldrt_router* r, mldrt_mfdb_entry* e) {
    bool in_use = false;
    for (mldrt_interface* ifp = r->interfaces; ifp; ifp = ifp->next) {
        mldrt_group* g = mldrt_lookup_group(ifp, e->grp_addr);
        if (!g || g->mfdb != e) {
            continue;
        }
        if (removable(g)) {
            free_group(g);
        } else {
            in_use = true;
        }
    }
    return in_use;
}

void release_group(mldrt_router* r, mldrt_group* g, mldrt_interface* ifp) {
    while (g->include_list) {
        uint8_t addr[16];
        std::memcpy(addr, g->include_list->src_addr, sizeof addr);
        mldrt_remove_entry_from_grp_srclist(r, g, g->mfdb, MLDRT_L_INCLUDE, addr, ifp);
    }
    while (g->req_list) {
        uint8_t addr[16];
        std::memcpy(addr, g->req_list->src_addr, sizeof addr);
        mldrt_remove_entry_from_grp_srclist(r, g, g->mfdb, MLDRT_L_REQ, addr, ifp);
    }
    mldrt_empty_grp_srclist(r, g, g->mfdb, MLDRT_L_EXC, ifp);
    if (g->fmode == MLDRT_EXCLUDE) {
        mldrt_withdraw_whole_group(r, g, ifp);
        if (g->mfdb && g->mfdb->exclude_count > 0) {
            g->mfdb->exclude_count--;
        }
    }
    mldrt_mark_changed(g->mfdb);
    free_group(g);
}

}  // namespace

void mldrt_clean_grp_rtx_lists(mldrt_group* g) {
    static const uint32_t kLists[2] = {MLDRT_L_SRSP, MLDRT_L_NON_SRSP};
    for (uint32_t ltype : kLists) {
        mldrt_src* next = nullptr;
        for (mldrt_src* s = *mldrt_select_srclist(g, g->mfdb, ltype); s; s = next) {
            next = s->next;
            if (--s->rtx_count == 0) {
                uint8_t addr[16];
                std::memcpy(addr, s->src_addr, sizeof addr);
                mldrt_del_src_from_group(g, g->mfdb, ltype, addr);
            }
        }
    }
}

void mldrt_update_memberships(mldrt_router* r, mldrt_interface* ifp, int flag) {
    (void)flag;
    mldrt_group* next = nullptr;
    for (mldrt_group* g = ifp->groups; g; g = next) {
        next = g->next;
        tick_group(r, ifp, g);
    }
}

void mldrt_cleanup_memberships(mldrt_router* r) {
    for (mldrt_interface* ifp = r->interfaces; ifp; ifp = ifp->next) {
        mldrt_update_memberships(r, ifp, 1);
    }
    mldrt_report_changes(r);
}

bool mldrt_remove_if_unused(mldrt_router* r, mldrt_mfdb_entry* e) {
    // Upstream reports still under way: nothing is removed until they are sent.
    if (mldrt_pending_host_state_update(e) || e->fwinfo_list || release_unused_groups(r, e)) {
        return false;
    }
    mldrt_delete_k_membership();  // the upstream leave
    mldrt_delete_mfdb_entry(r, e);
    return true;
}

// The groups' changes reach the upstream through the changed list, which the event loop merges
// after this batch of netlink messages; the entries stay until that report has gone.
void mldrt_release_interface_groups(mldrt_router* r, mldrt_interface* ifp) {
    while (ifp->groups) {
        release_group(r, ifp->groups, ifp);
    }
}
