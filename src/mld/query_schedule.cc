// Group- and group-and-source-specific queries after a possible leave (RFC 3810 section
// 7.6.3), with the retransmission state that the timer pass works off.
#include <cstdio>
#include <cstring>

#include "base/log.h"
#include "base/addr.h"
#include "db/db.h"
#include "iface/interface.h"
#include "mld/handlers.h"
#include "mld/mld.h"

namespace mldproxy {

namespace {

uint32_t llqt(const Router* r) {
    return r->last_listener_query_count * r->last_listener_query_interval;
}

void send_specific_query(Router* r, Link* ifp, const uint8_t* grp, const Source* srcs,
                         uint32_t count) {
    QueryParams q{};
    std::memcpy(q.group, grp, 16);
    std::memcpy(q.dst, grp, 16);
    q.sources = srcs;
    q.src_count = count;
    send_query(r, ifp, &q);
}

// The filter timer is set to LLQT, not only lowered: as deployed, unlike RFC 3810. A leave
// heard while the group's query is still being retransmitted (a host repeating its leave)
// changes nothing: the timer was set and the queries are under way.
int group_specific(Router* r, Link* ifp, Group* g, const uint8_t* grp) {
    if (g->queries && g->queries->group_count > 0) {
        return 0;
    }
    g->filter_timer = static_cast<int32_t>(llqt(r));
    if (GroupQueries* q = group_queries(g)) {
        q->group_count = static_cast<int32_t>(r->last_listener_query_count - 1);
        q->group_timer = static_cast<int32_t>(r->last_listener_query_interval);
    }
    send_specific_query(r, ifp, grp, nullptr, 0);
    drop_spent_queries(g);
    return 0;
}

// Puts one queried source on the retransmission list `kind` with the retransmissions still
// due after the query about to go out; false after the message.
bool schedule_source(Router* r, Group* g, const uint8_t* addr, ListKind kind) {
    Source* e = add_source_to_group(g, g->entry, kind, addr);
    if (!e) {
        log_message(kind == ListKind::QuerySuppressed
                        ? "\n FATAL: couldnt allocate entry in SRSP list\n"
                        : "\n FATAL: couldnt allocate entry in non-SRSP list\n");
        return false;
    }
    e->rtx_count = static_cast<uint16_t>(r->last_listener_query_count - 1);
    return true;
}

bool being_queried(const Group* g, const uint8_t* addr) {
    return g->queries &&
           (list_has(g->queries->suppressed, addr) || list_has(g->queries->not_suppressed, addr));
}

}  // namespace

void send_source_queries(Router* r, Link* ifp, const Group* g) {
    const GroupQueries* q = g->queries;
    if (q && q->suppressed) {
        send_specific_query(r, ifp, g->address, q->suppressed, list_length(q->suppressed));
    }
    if (q && q->not_suppressed) {
        send_specific_query(r, ifp, g->address, q->not_suppressed, list_length(q->not_suppressed));
    }
}

int lower_timers_and_query(Router* r, Link* ifp, Group* g, const uint8_t* grp, const Source* srcs,
                           uint32_t count) {
    if (!srcs || count == 0) {
        return group_specific(r, ifp, g, grp);
    }
    Source* searched;
    if (g->filter_mode == FilterMode::Exclude) {
        searched = g->requested_list;
    } else if (g->filter_mode == FilterMode::Include) {
        searched = g->include_list;
    } else {
        log_message("\n FATAL:: Unknown Group Mode\n");
        return -1;
    }
    bool scheduled = false;
    for (const Source* s = srcs; s; s = s->next) {
        Source* found = find_source(searched, s->address);
        // A source already being asked about (a host repeats its leave before the router
        // repeats its query) keeps its timer and its retransmissions (RFC 3810 section
        // 7.6.3.2): it is neither lowered nor counted again.
        if (!found || being_queried(g, s->address)) {
            continue;
        }
        // Timers compared as unsigned values, as routers have always compared them.
        bool lowered = static_cast<uint32_t>(found->timer) > llqt(r);
        if (lowered) {
            found->timer = static_cast<int32_t>(llqt(r));
        }
        if (!schedule_source(r, g, s->address,
                             lowered ? ListKind::QuerySuppressed : ListKind::QueryNotSuppressed)) {
            return -1;
        }
        scheduled = true;
    }
    if (scheduled) {
        // Every source still to be asked about goes into the query, with the count of what the
        // lists hold when it leaves.
        send_source_queries(r, ifp, g);
        g->queries->source_count = static_cast<int32_t>(r->last_listener_query_count - 1);
        g->queries->source_timer = static_cast<int32_t>(r->last_listener_query_interval);
    }
    if (g->queries && g->queries->source_count <= 0) {
        // One query and no retransmission: nothing is left to ask about later.
        free_list(&g->queries->suppressed);
        free_list(&g->queries->not_suppressed);
        drop_spent_queries(g);
    }
    return 0;
}

}  // namespace mldproxy
