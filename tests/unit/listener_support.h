// Helpers for the tests of the router-side MLD handling and of the listener timers: addresses,
// multicast address records as the report loop hands them to a handler, group states built
// through the database's own operations, and groups and sent queries as comparable text.
#ifndef MLDPROXYD_TESTS_LISTENER_SUPPORT_H
#define MLDPROXYD_TESTS_LISTENER_SUPPORT_H

#include <utility>

#include "mld/handlers.h"
#include "test_support.h"

using namespace mldproxy;

namespace lsn {

// 2001:db8::n as source n; source 0 is the any-source address ::.
inline addr6 src(int n) {
    addr6 a{};
    if (n != 0) {
        a = ip6("2001:db8::");
        a[15] = static_cast<uint8_t>(n);
    }
    return a;
}

// ff0e::100 + n as group n (group 1 is ff0e::101).
inline addr6 grp(int n) {
    addr6 a = ip6("ff0e::100");
    a[15] = static_cast<uint8_t>(n);
    return a;
}

// "S3" for 2001:db8::3, "::" for the any source, the address text otherwise.
inline std::string src_name(const uint8_t* a) {
    addr6 s1 = src(1);
    if (std::all_of(a, a + 16, [](uint8_t b) { return b == 0; })) {
        return "::";
    }
    if (std::memcmp(a, s1.data(), 15) == 0) {
        return "S" + std::to_string(a[15]);
    }
    return ip6_text(a);
}

struct src_timer {
    int n;  // source n, 0 for ::
    int32_t timer;
};

// A group's listener state on one interface.
struct group_state {
    bool exists;
    FilterMode mode;
    std::vector<src_timer> inc, req, exc;
    int32_t filter_timer;
};

inline group_state no_group() {
    return {false, FilterMode::Include, {}, {}, {}, 0};
}
inline group_state include(std::vector<src_timer> inc, int32_t filter_timer = 0) {
    return {true, FilterMode::Include, std::move(inc), {}, {}, filter_timer};
}
inline group_state exclude(std::vector<src_timer> req, std::vector<src_timer> exc,
                           int32_t filter_timer) {
    return {true, FilterMode::Exclude, {}, std::move(req), std::move(exc), filter_timer};
}

// A list as "{S1@100 ::@260}", sorted so that only membership and timers count.
inline std::string list_text(std::vector<std::pair<std::string, int32_t>> items) {
    std::sort(items.begin(), items.end());
    std::string s = "{";
    for (size_t i = 0; i < items.size(); i++) {
        s += (i ? " " : "") + items[i].first + "@" + std::to_string(items[i].second);
    }
    return s + "}";
}
inline std::string list_text(const Source* l) {
    std::vector<std::pair<std::string, int32_t>> items;
    for (; l; l = l->next) {
        items.emplace_back(src_name(l->src_addr), l->timer);
    }
    return list_text(items);
}
inline std::string list_text(const std::vector<src_timer>& l) {
    std::vector<std::pair<std::string, int32_t>> items;
    for (const auto& s : l) {
        items.emplace_back(src_name(src(s.n).data()), s.timer);
    }
    return list_text(items);
}

inline std::string mode_text(FilterMode mode) {
    return mode == FilterMode::Include ? "INCLUDE" : "EXCLUDE";
}

// "EXCLUDE filter_timer 260 inc{} req{S1@260} exc{S2@0}", or "no group".
inline std::string describe(const group_state& st) {
    if (!st.exists) {
        return "no group";
    }
    return mode_text(st.mode) + " filter_timer " + std::to_string(st.filter_timer) + " inc" +
           list_text(st.inc) + " req" + list_text(st.req) + " exc" + list_text(st.exc);
}
inline std::string describe(const Group* g) {
    if (!g) {
        return "no group";
    }
    return mode_text(g->filter_mode) + " filter_timer " + std::to_string(g->filter_timer) + " inc" +
           list_text(g->include_list) + " req" + list_text(g->req_list) + " exc" +
           list_text(g->exc_list);
}

// Builds `st` for group `g` on the interface as reports from `host` would have: the join
// sequence, the link's any-source mark in EXCLUDE mode, then every source through the
// forwarding-aware list operations (so the MIF marks and kernel entries are those of real
// traffic), then mode and filter timer.
inline Group* make_group(Link* ifp, const addr6& g, const group_state& st, const addr6& host) {
    if (!st.exists) {
        return nullptr;
    }
    Group* grp_rec = join_group(&router, ifp, host.data(), g.data(), false);
    EXPECT_NE(grp_rec, nullptr);
    if (!grp_rec) {
        return nullptr;
    }
    if (st.mode == FilterMode::Exclude) {
        forward_whole_group(&router, grp_rec, ifp);
    }
    const std::vector<src_timer>* lists[3] = {&st.inc, &st.req, &st.exc};
    const ListKind kinds[3] = {ListKind::Include, ListKind::Requested, ListKind::Excluded};
    for (int i = 0; i < 3; i++) {
        ListKind kind = kinds[i];
        for (const auto& s : *lists[i]) {
            EXPECT_EQ(add_to_group_list(&router, grp_rec, kind, src(s.n).data(), s.timer, ifp), 0);
        }
    }
    grp_rec->filter_mode = st.mode;
    grp_rec->filter_timer = st.filter_timer;
    if (st.mode == FilterMode::Exclude) {
        grp_rec->mfdb->exclude_count++;
    }
    return grp_rec;
}

// A multicast address record as it arrives and the report walk hands it to a handler: type,
// Aux Data Len 0, Number of Sources (network order), group, sources.
inline std::vector<uint8_t> record(uint8_t type, const addr6& g, const std::vector<int>& srcs) {
    std::vector<uint8_t> r(kMcastRecHdrLen + kAddrLen * srcs.size());
    r[0] = type;
    r[2] = static_cast<uint8_t>(srcs.size() >> 8);
    r[3] = static_cast<uint8_t>(srcs.size());
    std::memcpy(&r[4], g.data(), 16);
    for (size_t i = 0; i < srcs.size(); i++) {
        std::memcpy(&r[kMcastRecHdrLen + kAddrLen * i], src(srcs[i]).data(), 16);
    }
    return r;
}

// The expected text of a query for group `g` with sources `srcs`, sent to the group itself.
inline std::string query(const addr6& g, const std::vector<int>& srcs) {
    std::string s = "Q(" + ip6_text(g.data()) + " {";
    for (size_t i = 0; i < srcs.size(); i++) {
        s += (i ? " " : "") + src_name(src(srcs[i]).data());
    }
    return s + "}) to " + ip6_text(g.data());
}
inline std::string v1_query(const addr6& g) {
    return "v1 Q(" + ip6_text(g.data()) + ") to " + ip6_text(g.data());
}

// Every message sent so far, decoded as a query: "Q(G {S1 S2}) to D" from the group at bytes
// 8..23, the Number of Sources at 26..27 (network order) and the sources from byte 28; a
// 24-byte MLDv1 query as "v1 Q(G) to D". Anything else says what is wrong with it.
inline std::vector<std::string> queries_sent() {
    std::vector<std::string> out;
    for (const auto& m : fake::kernel().sent_msgs) {
        const std::vector<uint8_t>& p = m.payload;
        std::string to = " to " + ip6_text(reinterpret_cast<const uint8_t*>(&m.dst.sin6_addr));
        if (to == " to ff02::16") {
            continue;  // upstream reports, which the timer passes now send at once
        }
        if (p.size() < kQueryV1Len || p[0] != kTypeQuery) {
            out.push_back("not a query of " + std::to_string(p.size()) + " bytes" + to);
            continue;
        }
        if (p.size() == kQueryV1Len) {
            out.push_back("v1 Q(" + ip6_text(&p[8]) + ")" + to);
            continue;
        }
        uint32_t n = (static_cast<uint32_t>(p[26]) << 8) | p[27];
        if (p.size() != kQueryV2HdrLen + kAddrLen * n) {
            out.push_back("query of " + std::to_string(p.size()) + " bytes with N " +
                          std::to_string(n));
            continue;
        }
        std::string s = "Q(" + ip6_text(&p[8]) + " {";
        for (uint32_t i = 0; i < n; i++) {
            s += (i ? " " : "") + src_name(&p[kQueryV2HdrLen + kAddrLen * i]);
        }
        out.push_back(s + "})" + to);
    }
    return out;
}

// A query retransmission list in its order as "S4/1 S1/1": source and retransmissions due.
inline std::string rtx_text(const Source* l) {
    std::string s;
    for (; l; l = l->next) {
        s += (s.empty() ? "" : " ") + src_name(l->src_addr) + "/" + std::to_string(l->rtx_count);
    }
    return s;
}

// Forgets the kernel calls and transmissions made so far (by the set-up of a test).
inline void forget_kernel_calls() {
    fake::kernel().sockopts.clear();
    fake::kernel().sent_msgs.clear();
    fake::kernel().log.clear();
}

// A router with LLQI 1 and LLQC 2 (LLQT 2) besides RouterTest's robustness 2, query interval
// 125 and response interval 10000 (GMI 260); upstream "up0" on MIF 0 and the downstream link
// "eth1" (fe80::b) on MIF 1; the set-up's own kernel calls forgotten.
class ListenerTest : public RouterTest {
  protected:
    void SetUp() override {
        RouterTest::SetUp();
        start();
    }
    // A fresh router for the next row of a table.
    void restart() {
        RouterTest::TearDown();
        RouterTest::SetUp();
        start();
    }
    void start() {
        router.last_listener_query_interval = 1;
        router.last_listener_query_count = 2;
        up = make_link("up0", 10, 0);
        router.upstream = up;
        router.active = 1;
        eth1 = make_link("eth1", 11, 1);
        forget_kernel_calls();
    }
    Group* group(Link* ifp, const addr6& g) { return find_group(ifp, g.data()); }

    Link* up = nullptr;
    Link* eth1 = nullptr;
    const addr6 host = ip6("fe80::100:1");       // the member that reports
    const addr6 stranger = ip6("fe80::100:99");  // a host that never reported
    const addr6 G1 = grp(1);
};

}  // namespace lsn

#endif
