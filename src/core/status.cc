#include "core/status.h"

#include "core/addr.h"
#include "core/clock.h"
#include "db/db.h"
#include "iface/interface.h"
#include "kernel/mroute.h"
#include "mld/mld.h"

namespace {

// An address as text for one printf argument (a fresh buffer each time it is constructed).
struct addr_str {
    explicit addr_str(const uint8_t* addr) { mldrt_addr_text(addr, buf); }
    char buf[MLDRT_ADDR_TEXT];
};

// (*,G) entries show their source as "*".
struct source_str {
    explicit source_str(const uint8_t* src) : a(src) {
        if (mldrt_is_any_addr(src)) {
            a.buf[0] = '*';
            a.buf[1] = '\0';
        }
    }
    addr_str a;
};

const char* mode_name(uint32_t mode) {
    return mode == MLDRT_EXCLUDE ? "exclude" : "include";
}

uint32_t count_members(const mldrt_group* g) {
    uint32_t n = 0;
    for (const mldrt_member* m = g->member_list; m; m = m->next) {
        n++;
    }
    return n;
}

// Seconds until the link's next general query; -1 when it sends none.
long next_query_s(const mldrt_interface* ifp, uint64_t now) {
    uint64_t due = mldrt_general_query_due(ifp);
    if (due == MLDRT_NEVER) {
        return -1;
    }
    return due > now ? static_cast<long>(static_cast<uint32_t>(due - now + 999) / 1000u) : 0;
}

// The sources a group listens to, with their timers: the INCLUDE list, or in EXCLUDE mode the
// requested sources without the whole-group mark (the excluded sources are listed apart).
const mldrt_src* listened(const mldrt_group* g) {
    return g->fmode == MLDRT_EXCLUDE ? g->req_list : g->include_list;
}

const mldrt_src* excluded(const mldrt_group* g) {
    return g->fmode == MLDRT_EXCLUDE ? g->exc_list : nullptr;
}

int32_t larger(int32_t a, int32_t b) {
    return a > b ? a : b;
}

int32_t retransmissions_pending(const mldrt_mfdb_entry* e) {
    return larger(larger(e->scr_to_ex_cnt, e->scr_to_in_cnt),
                  larger(e->scr_allow_cnt, e->scr_block_cnt));
}

const mldrt_hs_state kNoState{MLDRT_INCLUDE, nullptr};

const mldrt_hs_state& reported(const mldrt_mfdb_entry* e) {
    return e->old_host_state ? *e->old_host_state : kNoState;
}

// The MIFs an entry's kernel record forwards to, as written: the (*,G) MIFs are part of every
// (S,G) entry of the group.
void written_mifs(const mldrt_mfdb_entry* e, const mldrt_fwinfo* fw, uint8_t* oifs) {
    if (mldrt_is_any_addr(fw->src_addr)) {
        for (uint32_t i = 0; i < MLDRT_MAXMIF_MARKS; i++) {
            oifs[i] = fw->mif_member[i];
        }
    } else {
        mldrt_generate_membership_info(e, fw->src_addr, oifs);
    }
}

void add_mifs(mldrt_text* t, const uint8_t* oifs, const char* none) {
    const char* sep = "";
    for (uint32_t i = 0; i < MLDRT_MAXMIF_MARKS; i++) {
        if (oifs[i]) {
            mldrt_text_add(t, "%s%u", sep, i);
            sep = ",";
        }
    }
    if (!*sep) {
        mldrt_text_add(t, "%s", none);
    }
}

// Calls `visit(entry, record, counts)` for every kernel entry the daemon wrote.
template <typename Visit>
void for_each_forwarding(mldrt_router* r, Visit visit) {
    for (const mldrt_mfdb_entry* e = r->mfdb_list; e; e = e->next) {
        for (const mldrt_fwinfo* fw = e->fwinfo_list; fw; fw = fw->next) {
            mldrt_sg_counts c{};
            mldrt_k_sg_counts(r->router_sock, e->grp_addr, fw->src_addr, &c);
            visit(e, fw, c);
        }
    }
}

// ---- the table, for a person ----

void table_links(mldrt_router* r, mldrt_text* t, uint64_t now) {
    mldrt_text_add(t, "links:\n  %-16s %7s %4s %-10s %3s %-7s %s\n", "NAME", "IFINDEX", "MIF",
                   "ROLE", "MLD", "QUERIER", "NEXT QUERY");
    for (const mldrt_interface* ifp = r->interfaces; ifp; ifp = ifp->next) {
        long next = next_query_s(ifp, now);
        mldrt_text_add(t, "  %-16s %7u %4u %-10s  v%d %-7s ", ifp->name, ifp->ifindex, ifp->mifi,
                       ifp->is_upstream ? "upstream" : "downstream", ifp->mld_version,
                       ifp->querier == 1 ? "yes" : "no");
        mldrt_text_add(t, next < 0 ? "-\n" : "%ld s\n", next);
    }
}

void table_sources(mldrt_text* t, const mldrt_group* g) {
    bool any = false;
    for (const mldrt_src* s = listened(g); s; s = s->next) {
        if (!mldrt_is_any_addr(s->src_addr)) {
            mldrt_text_add(t, " %s (%d s)", addr_str(s->src_addr).buf, s->timer);
            any = true;
        }
    }
    for (const mldrt_src* s = excluded(g); s; s = s->next) {
        mldrt_text_add(t, " not %s", addr_str(s->src_addr).buf);
        any = true;
    }
    mldrt_text_add(t, "%s\n", any ? "" : g->fmode == MLDRT_EXCLUDE ? " all" : " none");
}

void table_groups(mldrt_router* r, mldrt_text* t) {
    for (const mldrt_interface* ifp = r->interfaces; ifp; ifp = ifp->next) {
        if (ifp->is_upstream) {
            continue;
        }
        mldrt_text_add(t, "groups on %s:\n  %-39s %-7s %6s %5s SOURCES\n", ifp->name, "GROUP",
                       "MODE", "TIMER", "HOSTS");
        for (const mldrt_group* g = ifp->groups; g; g = g->next) {
            mldrt_text_add(t, "  %-39s %-7s ", addr_str(g->grp_addr).buf, mode_name(g->fmode));
            mldrt_text_add(t, g->fmode == MLDRT_EXCLUDE ? "%4d s" : "     -", g->ftimer);
            mldrt_text_add(t, " %5u", count_members(g));
            table_sources(t, g);
        }
    }
}

void table_upstream(mldrt_router* r, mldrt_text* t) {
    mldrt_text_add(t, "upstream host state (%s):\n  %-39s %-7s %7s SOURCES\n",
                   r->upstream ? r->upstream->name : "no upstream link", "GROUP", "MODE",
                   "PENDING");
    for (const mldrt_mfdb_entry* e = r->mfdb_list; e; e = e->next) {
        const mldrt_hs_state& hs = reported(e);
        mldrt_text_add(t, "  %-39s %-7s %7d", addr_str(e->grp_addr).buf, mode_name(hs.mode),
                       retransmissions_pending(e));
        for (const mldrt_src* s = hs.list; s; s = s->next) {
            mldrt_text_add(t, " %s", addr_str(s->src_addr).buf);
        }
        mldrt_text_add(t, "%s\n", hs.list ? "" : hs.mode == MLDRT_EXCLUDE ? " all" : " none");
    }
}

void table_forwarding(mldrt_router* r, mldrt_text* t) {
    mldrt_text_add(t, "forwarding (kernel):\n  %-39s %-39s %3s %-8s %10s %12s %8s\n", "GROUP",
                   "SOURCE", "IN", "OUT", "PACKETS", "BYTES", "WRONG IF");
    for_each_forwarding(
        r, [&](const mldrt_mfdb_entry* e, const mldrt_fwinfo* fw, const mldrt_sg_counts& c) {
            uint8_t oifs[MLDRT_MAXMIF_MARKS] = {};
            written_mifs(e, fw, oifs);
            mldrt_text_add(t, "  %-39s %-39s ", addr_str(e->grp_addr).buf,
                           source_str(fw->src_addr).a.buf);
            mldrt_text_add(t, r->upstream ? "%3u " : "  - ", r->upstream ? r->upstream->mifi : 0);
            uint32_t mark = t->len;
            add_mifs(t, oifs, "-");
            int pad = larger(0, 8 - static_cast<int32_t>(t->len - mark));
            mldrt_text_add(t, "%*s %10lu %12lu %8lu\n", pad, "", c.packets, c.bytes, c.wrong_if);
        });
}

void table_counters(mldrt_router* r, mldrt_text* t) {
    mldrt_text_add(t, "counters:\n  %-16s %10s %10s %11s %11s\n", "LINK", "REPORTS IN",
                   "QUERIES IN", "REPORTS OUT", "QUERIES OUT");
    for (const mldrt_interface* ifp = r->interfaces; ifp; ifp = ifp->next) {
        const mldrt_link_counters& c = ifp->counters;
        mldrt_text_add(t, "  %-16s %10u %10u %11u %11u\n", ifp->name, c.reports_in, c.queries_in,
                       c.reports_out, c.queries_out);
    }
    const mldrt_counters& c = r->counters;
    mldrt_text_add(t, "  dropped: malformed %u, own %u, not ours %u\n", c.malformed, c.own,
                   c.not_ours);
    mldrt_text_add(t, "  limit refusals: groups %u, members %u, sources %u\n",
                   mldrt_limit_refusals(MLDRT_LIMIT_GROUPS),
                   mldrt_limit_refusals(MLDRT_LIMIT_MEMBERS),
                   mldrt_limit_refusals(MLDRT_LIMIT_SOURCES));
    mldrt_text_add(t, "  netlink events: %u\n", c.netlink_events);
}

// ---- JSON, for scripts ----

void json_sources(mldrt_text* t, const mldrt_group* g) {
    const char* sep = "";
    mldrt_text_add(t, "\"sources\":[");
    for (const mldrt_src* s = listened(g); s; s = s->next) {
        if (!mldrt_is_any_addr(s->src_addr)) {
            mldrt_text_add(t, "%s{\"source\":\"%s\",\"timer\":%d}", sep, addr_str(s->src_addr).buf,
                           s->timer);
            sep = ",";
        }
    }
    mldrt_text_add(t, "],\"excluded\":[");
    sep = "";
    for (const mldrt_src* s = excluded(g); s; s = s->next) {
        mldrt_text_add(t, "%s\"%s\"", sep, addr_str(s->src_addr).buf);
        sep = ",";
    }
    mldrt_text_add(t, "]");
}

void json_link(mldrt_text* t, const mldrt_interface* ifp, uint64_t now) {
    mldrt_text_add(t,
                   "{\"name\":\"%s\",\"ifindex\":%u,\"mif\":%u,\"upstream\":%s,\"version\":%d,"
                   "\"querier\":%s,\"next_query\":%ld,\"groups\":[",
                   ifp->name, ifp->ifindex, ifp->mifi, ifp->is_upstream ? "true" : "false",
                   ifp->mld_version, ifp->querier == 1 ? "true" : "false", next_query_s(ifp, now));
    const char* sep = "";
    for (const mldrt_group* g = ifp->groups; g; g = g->next) {
        mldrt_text_add(t, "%s{\"group\":\"%s\",\"mode\":\"%s\",\"filter_timer\":%d,", sep,
                       addr_str(g->grp_addr).buf, mode_name(g->fmode),
                       g->fmode == MLDRT_EXCLUDE ? g->ftimer : 0);
        json_sources(t, g);
        mldrt_text_add(t, ",\"hosts\":%u}", count_members(g));
        sep = ",";
    }
    mldrt_text_add(t, "]}");
}

void json_upstream(mldrt_router* r, mldrt_text* t) {
    if (r->upstream) {
        mldrt_text_add(t, "\"upstream\":{\"name\":\"%s\",\"groups\":[", r->upstream->name);
    } else {
        mldrt_text_add(t, "\"upstream\":{\"name\":null,\"groups\":[");
    }
    const char* sep = "";
    for (const mldrt_mfdb_entry* e = r->mfdb_list; e; e = e->next) {
        const mldrt_hs_state& hs = reported(e);
        mldrt_text_add(t, "%s{\"group\":\"%s\",\"mode\":\"%s\",\"sources\":[", sep,
                       addr_str(e->grp_addr).buf, mode_name(hs.mode));
        const char* ssep = "";
        for (const mldrt_src* s = hs.list; s; s = s->next) {
            mldrt_text_add(t, "%s\"%s\"", ssep, addr_str(s->src_addr).buf);
            ssep = ",";
        }
        mldrt_text_add(t, "],\"pending\":%d}", retransmissions_pending(e));
        sep = ",";
    }
    mldrt_text_add(t, "]}");
}

void json_forwarding(mldrt_router* r, mldrt_text* t) {
    const char* sep = "";
    mldrt_text_add(t, "\"forwarding\":[");
    for_each_forwarding(
        r, [&](const mldrt_mfdb_entry* e, const mldrt_fwinfo* fw, const mldrt_sg_counts& c) {
            uint8_t oifs[MLDRT_MAXMIF_MARKS] = {};
            written_mifs(e, fw, oifs);
            mldrt_text_add(t, "%s{\"group\":\"%s\",\"source\":\"%s\",\"parent_mif\":", sep,
                           addr_str(e->grp_addr).buf, source_str(fw->src_addr).a.buf);
            mldrt_text_add(t, r->upstream ? "%u" : "null", r->upstream ? r->upstream->mifi : 0);
            mldrt_text_add(t, ",\"mifs\":[");
            add_mifs(t, oifs, "");
            mldrt_text_add(t, "],\"packets\":%lu,\"bytes\":%lu,\"wrong_if\":%lu}", c.packets,
                           c.bytes, c.wrong_if);
            sep = ",";
        });
    mldrt_text_add(t, "]");
}

void json_counters(mldrt_router* r, mldrt_text* t) {
    const char* sep = "";
    mldrt_text_add(t, "\"counters\":{\"links\":[");
    for (const mldrt_interface* ifp = r->interfaces; ifp; ifp = ifp->next) {
        const mldrt_link_counters& c = ifp->counters;
        mldrt_text_add(t,
                       "%s{\"name\":\"%s\",\"reports_in\":%u,\"queries_in\":%u,"
                       "\"reports_out\":%u,\"queries_out\":%u}",
                       sep, ifp->name, c.reports_in, c.queries_in, c.reports_out, c.queries_out);
        sep = ",";
    }
    const mldrt_counters& c = r->counters;
    mldrt_text_add(t,
                   "],\"dropped\":{\"malformed\":%u,\"own\":%u,\"not_ours\":%u},"
                   "\"limit_refusals\":{\"groups\":%u,\"members\":%u,\"sources\":%u},"
                   "\"netlink_events\":%u}",
                   c.malformed, c.own, c.not_ours, mldrt_limit_refusals(MLDRT_LIMIT_GROUPS),
                   mldrt_limit_refusals(MLDRT_LIMIT_MEMBERS),
                   mldrt_limit_refusals(MLDRT_LIMIT_SOURCES), c.netlink_events);
}

void render_json(mldrt_router* r, mldrt_text* t, uint64_t now) {
    mldrt_text_add(t, "{\"links\":[");
    for (const mldrt_interface* ifp = r->interfaces; ifp; ifp = ifp->next) {
        mldrt_text_add(t, ifp == r->interfaces ? "" : ",");
        json_link(t, ifp, now);
    }
    mldrt_text_add(t, "],");
    json_upstream(r, t);
    mldrt_text_add(t, ",");
    json_forwarding(r, t);
    mldrt_text_add(t, ",");
    json_counters(r, t);
    mldrt_text_add(t, "}\n");
}

}  // namespace

void mldrt_render_status(mldrt_router* r, bool json, mldrt_text* out) {
    uint64_t now = mldrt_now_ms();
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
