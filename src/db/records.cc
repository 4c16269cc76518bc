#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "base/addr.h"
#include "base/log.h"
#include "db/db.h"
#include "iface/interface.h"

namespace mldproxy {

namespace {

template <typename T>
T* allocate_record(const uint8_t* addr, const char* failure) {
    auto* rec = static_cast<T*>(calloc(1, sizeof(T)));
    if (!rec) {
        log_line(failure);
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

uint32_t count_srcs(const Source* list) {
    uint32_t n = 0;
    for (; list; list = list->next) {
        n++;
    }
    return n;
}

uint32_t count_hosts(const Host* m) {
    uint32_t n = 0;
    for (; m; m = m->next) {
        n++;
    }
    return n;
}

Source** query_list(Group* g, Source* GroupQueries::*list) {
    GroupQueries* q = group_queries(g);
    return q ? &(q->*list) : nullptr;
}

void free_queries(Group* g) {
    if (g->queries) {
        free_list(&g->queries->suppressed);
        free_list(&g->queries->not_suppressed);
        free(g->queries);
        g->queries = nullptr;
    }
}

Source** pending_list(ForwardingEntry* e, Source* PendingSources::*list) {
    PendingReport* p = pending_report(e);
    if (p && !p->sources) {
        p->sources = static_cast<PendingSources*>(calloc(1, sizeof(PendingSources)));
    }
    return p && p->sources ? &(p->sources->*list) : nullptr;
}

Source** host_state_list(HostState* hs) {
    return hs ? &hs->list : nullptr;
}

}  // namespace

Group* find_group(Link* ifp, const uint8_t* grp) {
    return index_find(&ifp->group_index, grp);
}

Host* find_host(Group* g, const uint8_t* host) {
    for (Host* m = g->hosts; m; m = m->next) {
        if (same_address(m->address, host)) {
            return m;
        }
    }
    return nullptr;
}

Group* create_group(const uint8_t* grp) {
    return allocate_record<Group>(grp, "MLDRT: Creating group failed");
}

Host* create_host(const uint8_t* host) {
    return allocate_record<Host>(host, "MLDRT: Creating member failed");
}

Source* create_source(const uint8_t* src) {
    return allocate_record<Source>(src, "MLDRT: Src create failed");
}

Group* add_group(Router* r, Link* ifp, const uint8_t* grp) {
    Group* g = find_group(ifp, grp);
    if (g) {
        return g;
    }
    // A group needs a forwarding entry: refuse it here when there is no room for one.
    if (forwarding_entry_count(r) >= kMaxGroups && !find_forwarding_entry(r, grp)) {
        report_limit(Limit::Groups);
        return nullptr;
    }
    g = create_group(grp);
    if (g && !index_insert(&ifp->group_index, g)) {
        free(g);
        log_line("MLDRT: Creating group failed");
        return nullptr;
    }
    if (g) {
        push_head(&ifp->groups, g);
    }
    return g;
}

bool hosts_full(const Group* g) {
    return count_hosts(g->hosts) >= kMaxHosts;
}

Host* add_host(Group* g, const uint8_t* host) {
    Host* m = find_host(g, host);
    if (m) {
        return m;
    }
    if (hosts_full(g)) {
        report_limit(Limit::Hosts);
        return nullptr;
    }
    m = create_host(host);
    if (m) {
        m->next = g->hosts;
        g->hosts = m;
    }
    return m;
}

Source** select_list(Group* g, ForwardingEntry* e, ListKind kind) {
    if ((kind <= ListKind::QueryNotSuppressed && !g) ||
        (kind >= ListKind::OldHostState && kind <= ListKind::Block && !e)) {
        return nullptr;
    }
    switch (kind) {
        case ListKind::Include:
            return &g->include_list;
        case ListKind::Requested:
            return &g->requested_list;
        case ListKind::Excluded:
            return &g->excluded_list;
        case ListKind::QuerySuppressed:
            return query_list(g, &GroupQueries::suppressed);
        case ListKind::QueryNotSuppressed:
            return query_list(g, &GroupQueries::not_suppressed);
        case ListKind::OldHostState:
            return &e->host_list;
        case ListKind::NewHostState:
            return host_state_list(e->new_host_state);
        case ListKind::ChangeToExclude:
            return pending_list(e, &PendingSources::to_exclude);
        case ListKind::ChangeToInclude:
            return pending_list(e, &PendingSources::to_include);
        case ListKind::Allow:
            return pending_list(e, &PendingSources::allow);
        case ListKind::Block:
            return pending_list(e, &PendingSources::block);
        default:
            log_message("\n Fatal:: Unknow list type\n");
            return nullptr;
    }
}

namespace {

// The INCLUDE, requested and excluded lists make a link's listener state, which the upstream
// host state is merged from; the query retransmission lists do not.
void note_listener_change(const Group* g, ListKind kind) {
    if (g && kind <= ListKind::Excluded) {
        mark_changed(g->entry);
    }
}

}  // namespace

Source* add_source_to_group(Group* g, ForwardingEntry* e, ListKind kind, const uint8_t* src) {
    Source** list = select_list(g, e, kind);
    if (!list) {
        return nullptr;
    }
    Source* s = find_source(*list, src);
    if (s) {
        return s;
    }
    // Group lists come from hosts' reports and are bounded; host-state lists are merged from
    // them and therefore bounded already.
    if (kind <= ListKind::QueryNotSuppressed && count_srcs(*list) >= kMaxSources) {
        report_limit(Limit::Sources);
        return nullptr;
    }
    s = create_source(src);
    if (s) {
        s->next = *list;
        *list = s;
        note_listener_change(g, kind);
    }
    return s;
}

bool remove_source_from_group(Group* g, ForwardingEntry* e, ListKind kind, const uint8_t* src) {
    Source** list = select_list(g, e, kind);
    if (!list) {
        return false;
    }
    remove_from_list(list, src);
    note_listener_change(g, kind);
    return true;
}

GroupQueries* group_queries(Group* g) {
    if (!g->queries) {
        g->queries = static_cast<GroupQueries*>(calloc(1, sizeof(GroupQueries)));
    }
    return g->queries;
}

void drop_spent_queries(Group* g) {
    const GroupQueries* q = g->queries;
    if (q && q->group_count <= 0 && q->source_count <= 0 && !q->suppressed && !q->not_suppressed) {
        free_queries(g);
    }
}

void delete_group(Link* ifp, Group* g) {
    free_queries(g);
    index_remove(&ifp->group_index, g);
    unlink(g);
    free(g);
}

void delete_host(Group* g, Host* m) {
    for (Host** link = &g->hosts; *link; link = &(*link)->next) {
        if (*link == m) {
            *link = m->next;
            free(m);
            return;
        }
    }
}

}  // namespace mldproxy
