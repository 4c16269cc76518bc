#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "core/log.h"
#include "db/db.h"
#include "iface/interface.h"

namespace {

template <typename T>
T* allocate_record(const uint8_t* addr, const char* failure) {
    auto* rec = static_cast<T*>(calloc(1, sizeof(T)));
    if (!rec) {
        mldrt_log_puts(failure);
        return nullptr;
    }
    std::memcpy(rec, addr, 16);  // every record begins with its address
    return rec;
}

template <typename T>
void push_head(T** head, T* rec) {
    rec->next = *head;
    if (*head) {
        (*head)->pprev = &rec->next;
    }
    rec->pprev = head;
    *head = rec;
}

template <typename T>
void unlink(T* rec) {
    if (rec->pprev) {
        *rec->pprev = rec->next;
    }
    if (rec->next) {
        rec->next->pprev = rec->pprev;
    }
}

uint32_t count_srcs(const mldrt_src* list) {
    uint32_t n = 0;
    for (; list; list = list->next) {
        n++;
    }
    return n;
}

uint32_t count_members(const mldrt_member* m) {
    uint32_t n = 0;
    for (; m; m = m->next) {
        n++;
    }
    return n;
}

mldrt_src** host_state_list(mldrt_hs_state* hs) {
    return hs ? &hs->list : nullptr;
}

}  // namespace

namespace {

struct limit_report {
    const char* what;
    const char* outcome;
    uint32_t value;
    bool reported;
    time_t last;
    uint32_t refusals;
};
limit_report g_limit_reports[] = {
    {"groups", "request not handled", MLDRT_MAX_GROUPS, false, 0, 0},
    // A host beyond the member limit is still served: only its address is not kept.
    {"members per group", "host served but not recorded", MLDRT_MAX_MEMBERS, false, 0, 0},
    {"sources per list", "request not handled", MLDRT_MAX_SOURCES, false, 0, 0},
};

}  // namespace

uint32_t mldrt_limit_refusals(mldrt_limit limit) {
    return g_limit_reports[limit].refusals;
}

void mldrt_limit_reset() {
    for (limit_report& rep : g_limit_reports) {
        rep.reported = false;
        rep.refusals = 0;
    }
}

void mldrt_report_limit(mldrt_limit limit) {
    limit_report& rep = g_limit_reports[limit];
    rep.refusals++;
    time_t now = time(nullptr);
    if (rep.reported && now - rep.last < MLDRT_LIMIT_REPORT_SECONDS) {
        return;
    }
    rep.reported = true;
    rep.last = now;
    mldrt_print("MLDRT: Limit of %u %s reached, %s\n", rep.value, rep.what, rep.outcome);
}

mldrt_group* mldrt_lookup_group(mldrt_interface* ifp, const uint8_t* grp) {
    return mldrt_index_find(&ifp->group_index, grp);
}

mldrt_member* mldrt_lookup_member(mldrt_group* g, const uint8_t* host) {
    for (mldrt_member* m = g->member_list; m; m = m->next) {
        if (ipv6_addr_equal(m->member_addr, host)) {
            return m;
        }
    }
    return nullptr;
}

mldrt_src* mldrt_lookup_src_in_grplist(mldrt_src* list, const uint8_t* src) {
    for (; list; list = list->next) {
        if (ipv6_addr_equal(list->src_addr, src)) {
            return list;
        }
    }
    return nullptr;
}

bool mldrt_srclist_has(const mldrt_src* list, const uint8_t* src) {
    for (; list; list = list->next) {
        if (ipv6_addr_equal(list->src_addr, src)) {
            return true;
        }
    }
    return false;
}

mldrt_group* mldrt_create_group(const uint8_t* grp) {
    return allocate_record<mldrt_group>(grp, "MLDRT: Creating group failed");
}

mldrt_member* mldrt_create_member(const uint8_t* host) {
    return allocate_record<mldrt_member>(host, "MLDRT: Creating member failed");
}

mldrt_src* mldrt_create_src_for_grp(const uint8_t* src) {
    return allocate_record<mldrt_src>(src, "MLDRT: Src create failed");
}

mldrt_group* mldrt_add_group(mldrt_router* r, mldrt_interface* ifp, const uint8_t* grp) {
    mldrt_group* g = mldrt_lookup_group(ifp, grp);
    if (g) {
        return g;
    }
    // A group needs a forwarding entry: refuse it here when there is no room for one.
    if (mldrt_mfdb_count() >= MLDRT_MAX_GROUPS && !mldrt_lookup_mfdb_entry(r, grp)) {
        mldrt_report_limit(MLDRT_LIMIT_GROUPS);
        return nullptr;
    }
    g = mldrt_create_group(grp);
    if (g && !mldrt_index_insert(&ifp->group_index, g)) {
        free(g);
        mldrt_log_puts("MLDRT: Creating group failed");
        return nullptr;
    }
    if (g) {
        push_head(&ifp->groups, g);
    }
    return g;
}

bool mldrt_members_full(const mldrt_group* g) {
    return count_members(g->member_list) >= MLDRT_MAX_MEMBERS;
}

mldrt_member* mldrt_add_member(mldrt_group* g, const uint8_t* host) {
    mldrt_member* m = mldrt_lookup_member(g, host);
    if (m) {
        return m;
    }
    if (mldrt_members_full(g)) {
        mldrt_report_limit(MLDRT_LIMIT_MEMBERS);
        return nullptr;
    }
    m = mldrt_create_member(host);
    if (m) {
        push_head(&g->member_list, m);
    }
    return m;
}

mldrt_src** mldrt_select_srclist(mldrt_group* g, mldrt_mfdb_entry* e, uint32_t ltype) {
    if ((ltype <= MLDRT_L_NON_SRSP && !g) ||
        (ltype >= MLDRT_L_OLD_HS && ltype <= MLDRT_L_SCR_BLOCK && !e)) {
        return nullptr;
    }
    switch (ltype) {
        case MLDRT_L_INCLUDE:
            return &g->include_list;
        case MLDRT_L_REQ:
            return &g->req_list;
        case MLDRT_L_EXC:
            return &g->exc_list;
        case MLDRT_L_SRSP:
            return &g->srsp_list;
        case MLDRT_L_NON_SRSP:
            return &g->non_srsp_list;
        case MLDRT_L_OLD_HS:
            return host_state_list(e->old_host_state);
        case MLDRT_L_NEW_HS:
            return host_state_list(e->new_host_state);
        case MLDRT_L_SCR_TO_EX:
            return &e->scr_to_ex_list;
        case MLDRT_L_SCR_TO_IN:
            return &e->scr_to_in_list;
        case MLDRT_L_SCR_ALLOW:
            return &e->scr_allow_list;
        case MLDRT_L_SCR_BLOCK:
            return &e->scr_block_list;
        default:
            mldrt_log("\n Fatal:: Unknow list type\n");
            return nullptr;
    }
}

namespace {

// The INCLUDE, requested and excluded lists make a link's listener state, which the upstream
// host state is merged from; the query retransmission lists do not.
void note_listener_change(const mldrt_group* g, uint32_t ltype) {
    if (g && ltype <= MLDRT_L_EXC) {
        mldrt_mark_changed(g->mfdb);
    }
}

}  // namespace

mldrt_src* mldrt_add_src_to_group(mldrt_group* g, mldrt_mfdb_entry* e, uint32_t ltype,
                                  const uint8_t* src) {
    mldrt_src** list = mldrt_select_srclist(g, e, ltype);
    if (!list) {
        return nullptr;
    }
    mldrt_src* s = mldrt_lookup_src_in_grplist(*list, src);
    if (s) {
        return s;
    }
    // Group lists come from hosts' reports and are bounded; host-state lists are merged from
    // them and therefore bounded already.
    if (ltype <= MLDRT_L_NON_SRSP && count_srcs(*list) >= MLDRT_MAX_SOURCES) {
        mldrt_report_limit(MLDRT_LIMIT_SOURCES);
        return nullptr;
    }
    s = mldrt_create_src_for_grp(src);
    if (s) {
        s->next = *list;
        *list = s;
        note_listener_change(g, ltype);
    }
    return s;
}

void mldrt_remove_entry_from_srclist(mldrt_src** list, const uint8_t* src) {
    for (mldrt_src** link = list; *link; link = &(*link)->next) {
        if (ipv6_addr_equal((*link)->src_addr, src)) {
            mldrt_src* gone = *link;
            *link = gone->next;
            free(gone);
            return;
        }
    }
}

int mldrt_del_src_from_group(mldrt_group* g, mldrt_mfdb_entry* e, uint32_t ltype,
                             const uint8_t* src) {
    mldrt_src** list = mldrt_select_srclist(g, e, ltype);
    if (!list) {
        return -1;
    }
    mldrt_remove_entry_from_srclist(list, src);
    note_listener_change(g, ltype);
    return 0;
}

void mldrt_delete_group(mldrt_group* g) {
    mldrt_index_remove(g);
    unlink(g);
    free(g);
}

void mldrt_delete_member(mldrt_member* m) {
    unlink(m);
    free(m);
}

void mldrt_free_srclist(mldrt_src** list) {
    while (*list) {
        mldrt_src* next = (*list)->next;
        free(*list);
        *list = next;
    }
}
