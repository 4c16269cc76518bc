#include "daemon/status.h"

#include "base/addr.h"
#include "base/clock.h"
#include "db/db.h"
#include "iface/interface.h"
#include "kernel/mroute.h"
#include "mld/mld.h"

namespace mldproxy {

namespace {

// An address as text for one printf argument (a fresh buffer each time it is constructed).
struct addr_str {
    explicit addr_str(const uint8_t* addr) { address_text(addr, buf); }
    char buf[kAddrText];
};

// (*,G) entries show their source as "*".
struct source_str {
    explicit source_str(const uint8_t* src) : a(src) {
        if (is_unspecified(src)) {
            a.buf[0] = '*';
            a.buf[1] = '\0';
        }
    }
    addr_str a;
};

const char* mode_name(FilterMode mode) {
    return mode == FilterMode::Exclude ? "exclude" : "include";
}

uint32_t count_hosts(const Group* g) {
    uint32_t n = 0;
    for (const Host* m = g->hosts; m; m = m->next) {
        n++;
    }
    return n;
}

// Seconds until the link's next general query; -1 when it sends none.
long next_query_s(const Link* ifp, uint64_t now) {
    uint64_t due = general_query_due(ifp);
    if (due == kNever) {
        return -1;
    }
    return due > now ? static_cast<long>(static_cast<uint32_t>(due - now + 999) / 1000u) : 0;
}

// The sources a group listens to, with their timers: the INCLUDE list, or in EXCLUDE mode the
// requested sources without the whole-group mark (the excluded sources are listed apart).
const Source* listened(const Group* g) {
    return g->filter_mode == FilterMode::Exclude ? g->requested_list : g->include_list;
}

const Source* excluded(const Group* g) {
    return g->filter_mode == FilterMode::Exclude ? g->excluded_list : nullptr;
}

int32_t larger(int32_t a, int32_t b) {
    return a > b ? a : b;
}

int32_t retransmissions_pending(const ForwardingEntry* e) {
    return larger(larger(e->to_exclude_count, e->to_include_count),
                  larger(e->allow_count, e->block_count));
}

// The MIFs an entry's kernel record forwards to, as written: the (*,G) MIFs are part of every
// (S,G) entry of the group.
void written_mifs(const ForwardingEntry* e, const ForwardingRecord* fw, uint8_t* oifs) {
    if (is_unspecified(fw->address)) {
        for (uint32_t i = 0; i < kMifMarks; i++) {
            oifs[i] = mark_at(fw, i);
        }
    } else {
        outgoing_mifs(e, fw->address, oifs);
    }
}

void add_mifs(Text* t, const uint8_t* oifs, const char* none) {
    const char* sep = "";
    for (uint32_t i = 0; i < kMifMarks; i++) {
        if (oifs[i]) {
            text_add(t, "%s%u", sep, i);
            sep = ",";
        }
    }
    if (!*sep) {
        text_add(t, "%s", none);
    }
}

// Calls `visit(entry, record, counts)` for every kernel entry the daemon wrote.
template <typename Visit>
void for_each_forwarding(Router* r, Visit visit) {
    for (const ForwardingEntry* e = r->entries; e; e = e->next) {
        for (const ForwardingRecord* fw = e->records; fw; fw = fw->next) {
            SourceGroupCounts c{};
            kernel_sg_counts(r->router_sock, e->address, fw->address, &c);
            visit(e, fw, c);
        }
    }
}

// ---- the table, for a person ----

void table_links(Router* r, Text* t, uint64_t now) {
    text_add(t, "links:\n  %-16s %7s %4s %-10s %3s %-7s %s\n", "NAME", "IFINDEX", "MIF", "ROLE",
             "MLD", "QUERIER", "NEXT QUERY");
    for (const Link* ifp = r->interfaces; ifp; ifp = ifp->next) {
        long next = next_query_s(ifp, now);
        text_add(t, "  %-16s %7u %4u %-10s  v%d %-7s ", ifp->name, ifp->ifindex, ifp->mifi,
                 ifp->is_upstream ? "upstream" : "downstream", ifp->mld_version,
                 ifp->querier ? "yes" : "no");
        text_add(t, next < 0 ? "-\n" : "%ld s\n", next);
    }
}

void table_sources(Text* t, const Group* g) {
    bool any = false;
    for (const Source* s = listened(g); s; s = s->next) {
        if (!is_unspecified(s->address)) {
            text_add(t, " %s (%d s)", addr_str(s->address).buf, s->timer);
            any = true;
        }
    }
    for (const Source* s = excluded(g); s; s = s->next) {
        text_add(t, " not %s", addr_str(s->address).buf);
        any = true;
    }
    text_add(t, "%s\n", any ? "" : g->filter_mode == FilterMode::Exclude ? " all" : " none");
}

void table_groups(Router* r, Text* t) {
    for (const Link* ifp = r->interfaces; ifp; ifp = ifp->next) {
        if (ifp->is_upstream) {
            continue;
        }
        text_add(t, "groups on %s:\n  %-39s %-7s %6s %5s SOURCES\n", ifp->name, "GROUP", "MODE",
                 "TIMER", "HOSTS");
        for (const Group* g = ifp->groups; g; g = g->next) {
            text_add(t, "  %-39s %-7s ", addr_str(g->address).buf, mode_name(g->filter_mode));
            text_add(t, g->filter_mode == FilterMode::Exclude ? "%4d s" : "     -",
                     g->filter_timer);
            text_add(t, " %5u", count_hosts(g));
            table_sources(t, g);
        }
    }
}

void table_upstream(Router* r, Text* t) {
    text_add(t, "upstream host state (%s):\n  %-39s %-7s %7s SOURCES\n",
             r->upstream ? r->upstream->name : "no upstream link", "GROUP", "MODE", "PENDING");
    for (const ForwardingEntry* e = r->entries; e; e = e->next) {
        const HostState hs = reported_state(e);
        text_add(t, "  %-39s %-7s %7d", addr_str(e->address).buf, mode_name(hs.mode),
                 retransmissions_pending(e));
        for (const Source* s = hs.list; s; s = s->next) {
            text_add(t, " %s", addr_str(s->address).buf);
        }
        text_add(t, "%s\n", hs.list ? "" : hs.mode == FilterMode::Exclude ? " all" : " none");
    }
}

void table_forwarding(Router* r, Text* t) {
    text_add(t, "forwarding (kernel):\n  %-39s %-39s %3s %-8s %10s %12s %8s\n", "GROUP", "SOURCE",
             "IN", "OUT", "PACKETS", "BYTES", "WRONG IF");
    for_each_forwarding(
        r, [&](const ForwardingEntry* e, const ForwardingRecord* fw, const SourceGroupCounts& c) {
            uint8_t oifs[kMifMarks] = {};
            written_mifs(e, fw, oifs);
            text_add(t, "  %-39s %-39s ", addr_str(e->address).buf, source_str(fw->address).a.buf);
            text_add(t, r->upstream ? "%3u " : "  - ", r->upstream ? r->upstream->mifi : 0);
            uint32_t mark = t->len;
            add_mifs(t, oifs, "-");
            int pad = larger(0, 8 - static_cast<int32_t>(t->len - mark));
            text_add(t, "%*s %10lu %12lu %8lu\n", pad, "", c.packets, c.bytes, c.wrong_if);
        });
}

void table_counters(Router* r, Text* t) {
    text_add(t, "counters:\n  %-16s %10s %10s %11s %11s\n", "LINK", "REPORTS IN", "QUERIES IN",
             "REPORTS OUT", "QUERIES OUT");
    for (const Link* ifp = r->interfaces; ifp; ifp = ifp->next) {
        const LinkCounters& c = ifp->counters;
        text_add(t, "  %-16s %10u %10u %11u %11u\n", ifp->name, c.reports_in, c.queries_in,
                 c.reports_out, c.queries_out);
    }
    const RouterCounters& c = r->counters;
    text_add(t, "  dropped: malformed %u, own %u, not ours %u\n", c.malformed, c.own, c.not_ours);
    text_add(t, "  limit refusals: groups %u, members %u, sources %u\n",
             limit_refusals(Limit::Groups), limit_refusals(Limit::Hosts),
             limit_refusals(Limit::Sources));
    text_add(t, "  netlink events: %u\n", c.netlink_events);
}

// ---- JSON, for scripts ----

void json_sources(Text* t, const Group* g) {
    const char* sep = "";
    text_add(t, "\"sources\":[");
    for (const Source* s = listened(g); s; s = s->next) {
        if (!is_unspecified(s->address)) {
            text_add(t, "%s{\"source\":\"%s\",\"timer\":%d}", sep, addr_str(s->address).buf,
                     s->timer);
            sep = ",";
        }
    }
    text_add(t, "],\"excluded\":[");
    sep = "";
    for (const Source* s = excluded(g); s; s = s->next) {
        text_add(t, "%s\"%s\"", sep, addr_str(s->address).buf);
        sep = ",";
    }
    text_add(t, "]");
}

void json_link(Text* t, const Link* ifp, uint64_t now) {
    text_add(t,
             "{\"name\":\"%s\",\"ifindex\":%u,\"mif\":%u,\"upstream\":%s,\"version\":%d,"
             "\"querier\":%s,\"next_query\":%ld,\"groups\":[",
             ifp->name, ifp->ifindex, ifp->mifi, ifp->is_upstream ? "true" : "false",
             ifp->mld_version, ifp->querier ? "true" : "false", next_query_s(ifp, now));
    const char* sep = "";
    for (const Group* g = ifp->groups; g; g = g->next) {
        text_add(t, "%s{\"group\":\"%s\",\"mode\":\"%s\",\"filter_timer\":%d,", sep,
                 addr_str(g->address).buf, mode_name(g->filter_mode),
                 g->filter_mode == FilterMode::Exclude ? g->filter_timer : 0);
        json_sources(t, g);
        text_add(t, ",\"hosts\":%u}", count_hosts(g));
        sep = ",";
    }
    text_add(t, "]}");
}

void json_upstream(Router* r, Text* t) {
    if (r->upstream) {
        text_add(t, "\"upstream\":{\"name\":\"%s\",\"groups\":[", r->upstream->name);
    } else {
        text_add(t, "\"upstream\":{\"name\":null,\"groups\":[");
    }
    const char* sep = "";
    for (const ForwardingEntry* e = r->entries; e; e = e->next) {
        const HostState hs = reported_state(e);
        text_add(t, "%s{\"group\":\"%s\",\"mode\":\"%s\",\"sources\":[", sep,
                 addr_str(e->address).buf, mode_name(hs.mode));
        const char* ssep = "";
        for (const Source* s = hs.list; s; s = s->next) {
            text_add(t, "%s\"%s\"", ssep, addr_str(s->address).buf);
            ssep = ",";
        }
        text_add(t, "],\"pending\":%d}", retransmissions_pending(e));
        sep = ",";
    }
    text_add(t, "]}");
}

void json_forwarding(Router* r, Text* t) {
    const char* sep = "";
    text_add(t, "\"forwarding\":[");
    for_each_forwarding(
        r, [&](const ForwardingEntry* e, const ForwardingRecord* fw, const SourceGroupCounts& c) {
            uint8_t oifs[kMifMarks] = {};
            written_mifs(e, fw, oifs);
            text_add(t, "%s{\"group\":\"%s\",\"source\":\"%s\",\"parent_mif\":", sep,
                     addr_str(e->address).buf, source_str(fw->address).a.buf);
            text_add(t, r->upstream ? "%u" : "null", r->upstream ? r->upstream->mifi : 0);
            text_add(t, ",\"mifs\":[");
            add_mifs(t, oifs, "");
            text_add(t, "],\"packets\":%lu,\"bytes\":%lu,\"wrong_if\":%lu}", c.packets, c.bytes,
                     c.wrong_if);
            sep = ",";
        });
    text_add(t, "]");
}

void json_counters(Router* r, Text* t) {
    const char* sep = "";
    text_add(t, "\"counters\":{\"links\":[");
    for (const Link* ifp = r->interfaces; ifp; ifp = ifp->next) {
        const LinkCounters& c = ifp->counters;
        text_add(t,
                 "%s{\"name\":\"%s\",\"reports_in\":%u,\"queries_in\":%u,"
                 "\"reports_out\":%u,\"queries_out\":%u}",
                 sep, ifp->name, c.reports_in, c.queries_in, c.reports_out, c.queries_out);
        sep = ",";
    }
    const RouterCounters& c = r->counters;
    text_add(t,
             "],\"dropped\":{\"malformed\":%u,\"own\":%u,\"not_ours\":%u},"
             "\"limit_refusals\":{\"groups\":%u,\"members\":%u,\"sources\":%u},"
             "\"netlink_events\":%u}",
             c.malformed, c.own, c.not_ours, limit_refusals(Limit::Groups),
             limit_refusals(Limit::Hosts), limit_refusals(Limit::Sources), c.netlink_events);
}

void render_json(Router* r, Text* t, uint64_t now) {
    text_add(t, "{\"links\":[");
    for (const Link* ifp = r->interfaces; ifp; ifp = ifp->next) {
        text_add(t, ifp == r->interfaces ? "" : ",");
        json_link(t, ifp, now);
    }
    text_add(t, "],");
    json_upstream(r, t);
    text_add(t, ",");
    json_forwarding(r, t);
    text_add(t, ",");
    json_counters(r, t);
    text_add(t, "}\n");
}

}  // namespace

void render_status(Router* r, bool json, Text* out) {
    uint64_t now = now_ms();
    if (json) {
        render_json(r, out, now);
        return;
    }
    table_links(r, out, now);
    table_groups(r, out);
    table_upstream(r, out);
    table_forwarding(r, out);
    table_counters(r, out);
}

}  // namespace mldproxy
