// What the unit tests share: a router torn down after each test (leak checkers see nothing),
// addresses, group states built through the database's own operations, messages as they
// arrive, and what the daemon sent (queries, reports, kernel entries) as comparable text.
#ifndef MLDPROXYD_TESTS_TEST_SUPPORT_H
#define MLDPROXYD_TESTS_TEST_SUPPORT_H

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <functional>
#include <numeric>
#include <string>
#include <vector>

#include "base/log.h"
#include "daemon/daemon.h"
#include "daemon/event_loop.h"
#include "db/db.h"
#include "db/router.h"
#include "fake_kernel.h"
#include "iface/interface.h"
#include "daemon/netlink.h"
#include "kernel/mroute.h"
#include "mld/handlers.h"
#include "mld/mld.h"
#include "mld/timers.h"
#include "proxy/proxy.h"

using namespace mldproxy;

using addr6 = std::array<uint8_t, 16>;
using bytes = std::vector<uint8_t>;
using texts = std::vector<std::string>;

template <typename T>
std::vector<T> operator+(std::vector<T> a, const std::vector<T>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
inline std::vector<int> upto(int first, int last) {
    std::vector<int> v(static_cast<size_t>(last - first + 1));
    std::iota(v.begin(), v.end(), first);
    return v;
}
inline std::vector<int> reversed(std::vector<int> v) {
    std::reverse(v.begin(), v.end());
    return v;
}
// Record types as they are on the wire (RFC 3810 section 5.2.12).
constexpr uint8_t IS_IN = 1, IS_EX = 2, TO_IN = 3, TO_EX = 4, ALLOW = 5, BLOCK = 6;

// An IPv6 address from its text form (the test fails on a typo), and back.
inline addr6 ip6(const char* text) {
    addr6 a{};
    EXPECT_EQ(inet_pton(AF_INET6, text, a.data()), 1) << text;
    return a;
}
inline std::string ip6_text(const uint8_t* addr) {
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(AF_INET6, addr, text, sizeof text);
    return text;
}
// 2001:db8::n as source n (source 0 is the any-source address ::); ff0e::100 + n as group n.
inline addr6 src(int n) {
    addr6 a = n ? ip6("2001:db8::") : addr6{};
    a[15] = static_cast<uint8_t>(n);
    return a;
}
inline addr6 grp(int n) {
    addr6 a = ip6("ff0e::100");
    a[15] = static_cast<uint8_t>(n);
    return a;
}
// "S3" for 2001:db8::3, "::" for the any source, "G1" for ff0e::101, the address text otherwise.
inline std::string src_name(const uint8_t* a) {
    if (std::all_of(a, a + 16, [](uint8_t b) { return b == 0; })) {
        return "::";
    }
    return std::memcmp(a, src(1).data(), 15) == 0 ? "S" + std::to_string(a[15]) : ip6_text(a);
}
inline std::string grp_name(const uint8_t* a) {
    return std::memcmp(a, grp(0).data(), 15) == 0 && a[15] > 0 ? "G" + std::to_string(a[15])
                                                               : ip6_text(a);
}

inline Link* make_link(const char* name, uint32_t ifindex, uint16_t mifi) {
    Link* ifp = fake::make_link(name, ifindex, mifi);
    EXPECT_NE(ifp, nullptr) << name;
    return ifp;
}

// What `f` prints, the once-a-second hold of repeated messages forgotten (log_test.cc tests it).
inline std::string stdout_of(const std::function<void()>& f) {
    log_reset();
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

inline bytes int_bytes(int v) {  // an int option value, host order
    bytes b(4);
    std::memcpy(b.data(), &v, 4);
    return b;
}
// The 12 bytes of a mif6ctl for MIF `mifi` on interface `pifi` (host order, the rest 0).
inline bytes mif_bytes(uint16_t mifi, uint16_t pifi) {
    bytes v(12, 0);
    std::memcpy(&v[0], &mifi, 2);
    std::memcpy(&v[4], &pifi, 2);
    return v;
}

// Every MRT6_ADD_MFC and MRT6_DEL_MFC so far, read from the 92 bytes of its mf6cctl at the
// kernel's offsets (origin address at 8, group at 36, parent MIF at 56, ifset words from 60,
// host order; every other byte 0), as "add S G parent P mifs a,b" or "del S G".
inline texts mfc_calls() {
    texts out;
    for (const auto& c : fake::kernel().sockopts) {
        const bool add = c.name == MRT6_ADD_MFC_OPT;
        if (c.level != kKLevel || (!add && c.name != MRT6_DEL_MFC_OPT)) {
            continue;
        }
        bytes v = c.value;
        if (v.size() != 92) {
            out.push_back("size " + std::to_string(v.size()));
            continue;
        }
        std::string s = (add ? "add " : "del ") + ip6_text(&v[8]) + " " + ip6_text(&v[36]);
        std::fill(v.begin() + 8, v.begin() + 24, 0);
        std::fill(v.begin() + 36, v.begin() + 52, 0);
        if (add) {
            uint16_t parent;
            std::memcpy(&parent, &v[56], 2);
            s += " parent " + std::to_string(parent) + " mifs ";
            for (uint32_t i = 0, word = 0, sep = 0; i < 256; i++) {
                std::memcpy(&word, &v[60 + 4 * (i / 32)], 4);
                s += word & (1u << (i % 32)) ? (sep++ ? "," : "") + std::to_string(i) : "";
            }
            std::fill(v.begin() + 56, v.end(), 0);
        }
        const bool stray = !std::all_of(v.begin(), v.end(), [](uint8_t b) { return !b; });
        out.push_back(s + (stray ? " with stray bytes" : ""));
    }
    return out;
}

// Forgets the kernel calls and transmissions of the set-up.
inline void forget_kernel_calls() {
    fake::kernel().sockopts.clear();
    fake::kernel().sent_msgs.clear();
    fake::kernel().log.clear();
}

// A group's listener state on one link: sources n with their timers.
struct src_timer {
    int n;
    int32_t timer;
};
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
inline group_state exclude(std::vector<src_timer> req, std::vector<src_timer> exc, int32_t ft) {
    return {true, FilterMode::Exclude, {}, std::move(req), std::move(exc), ft};
}
inline std::vector<src_timer> timed(const std::vector<int>& ns, int32_t timer) {
    std::vector<src_timer> v;
    for (int n : ns) {
        v.push_back({n, timer});
    }
    return v;
}
// INCLUDE with these sources (timer 100); EXCLUDE with these excluded and every other source
// wanted, as a TO_EX leaves it.
inline group_state inc(const std::vector<int>& srcs) {
    return include(timed(srcs, 100));
}
inline group_state exc(const std::vector<int>& srcs) {
    return exclude({}, timed(srcs, 100), 260);
}

// "EXCLUDE filter_timer 260 inc{} req{S1@260} exc{S2@0}" (lists sorted, so that only
// membership and timers count), or "no group".
inline std::string describe(const group_state& st) {
    if (!st.exists) {
        return "no group";
    }
    std::string s = st.mode == FilterMode::Include ? "INCLUDE" : "EXCLUDE";
    s += " filter_timer " + std::to_string(st.filter_timer);
    const char* const names[3] = {" inc{", " req{", " exc{"};
    const std::vector<src_timer>* lists[3] = {&st.inc, &st.req, &st.exc};
    for (int i = 0; i < 3; i++) {
        texts items;
        for (const auto& e : *lists[i]) {
            items.push_back(src_name(src(e.n).data()) + "@" + std::to_string(e.timer));
        }
        std::sort(items.begin(), items.end());
        s += names[i];
        for (size_t k = 0; k < items.size(); k++) {
            s += (k ? " " : "") + items[k];
        }
        s += "}";
    }
    return s;
}
inline std::string describe(const Group* g) {
    group_state st = no_group();
    if (g) {
        st = {true, g->filter_mode, {}, {}, {}, g->filter_timer};
        std::vector<src_timer>* lists[3] = {&st.inc, &st.req, &st.exc};
        const Source* heads[3] = {g->include_list, g->requested_list, g->excluded_list};
        for (int i = 0; i < 3; i++) {
            for (const Source* l = heads[i]; l; l = l->next) {
                lists[i]->push_back({l->address[15], l->timer});
                EXPECT_EQ(std::memcmp(l->address, src(l->address[15]).data(), 16), 0);
            }
        }
    }
    return describe(st);
}

// Builds `st` for group `g` on the link as reports from `host` would: the join, the any-source
// mark in EXCLUDE mode, every source through the forwarding-aware list operations (so the MIF
// marks and kernel entries are those of real traffic), mode and timer.
inline Group* make_group(Link* ifp, const addr6& g, const group_state& st, const addr6& host) {
    Group* rec = st.exists ? join_group(&router, ifp, host.data(), g.data(), false) : nullptr;
    if (!rec) {
        EXPECT_FALSE(st.exists);
        return nullptr;
    }
    if (st.mode == FilterMode::Exclude) {
        forward_whole_group(&router, rec, ifp);
        rec->entry->exclude_count++;
    }
    const std::vector<src_timer>* lists[3] = {&st.inc, &st.req, &st.exc};
    const ListKind kinds[3] = {ListKind::Include, ListKind::Requested, ListKind::Excluded};
    for (int i = 0; i < 3; i++) {
        for (const auto& s : *lists[i]) {
            EXPECT_TRUE(add_to_group_list(&router, rec, kinds[i], src(s.n).data(), s.timer, ifp));
        }
    }
    rec->filter_mode = st.mode;
    rec->filter_timer = st.filter_timer;
    return rec;
}

// A multicast address record as it arrives: type, Aux Data Len 0, Number of Sources (network
// order), group, sources.
inline bytes record(uint8_t type, const addr6& g, const std::vector<int>& srcs) {
    bytes r(kRecordHeaderLen + kAddrLen * srcs.size());
    r[0] = type;
    r[2] = static_cast<uint8_t>(srcs.size() >> 8);
    r[3] = static_cast<uint8_t>(srcs.size());
    std::memcpy(&r[4], g.data(), 16);
    for (size_t i = 0; i < srcs.size(); i++) {
        std::memcpy(&r[kRecordHeaderLen + kAddrLen * i], src(srcs[i]).data(), 16);
    }
    return r;
}
// An MLDv2 report of these records; a 24-byte MLDv1 message of `type` for `g`.
inline bytes v2_report(const std::vector<bytes>& records) {
    bytes m = {kTypeV2Report, 0, 0, 0, 0, 0, 0, static_cast<uint8_t>(records.size())};
    for (const bytes& r : records) {
        m = m + r;
    }
    return m;
}
inline bytes v1_message(uint8_t type, const addr6& g) {
    bytes m(kQueryV1Len, 0);
    m[0] = type;
    std::memcpy(&m[8], g.data(), 16);
    return m;
}
// An MLDv2 query for `g` (:: for a general query) listing `srcs`, with Number of Sources
// `claimed` (the real count when negative): MRC 10000, QRV 2, QQIC 125.
inline bytes v2_query(const addr6& g, const std::vector<int>& srcs, int claimed = -1) {
    bytes q = record(0, g, srcs);  // group at 4, sources from 20
    q.insert(q.begin(), 4, 0);     // now at 8 and 24
    q.insert(q.begin() + 24, {2, 125, 0, 0});
    q[0] = kTypeQuery;
    q[4] = 0x27;
    q[5] = 0x10;
    q[6] = q[7] = 0;
    const uint32_t n = claimed < 0 ? static_cast<uint32_t>(srcs.size()) : claimed;
    q[26] = static_cast<uint8_t>(n >> 8);
    q[27] = static_cast<uint8_t>(n);
    return q;
}

// The expected text of a query for group `g` with sources `srcs`, sent to the group itself.
inline std::string names(const std::vector<int>& srcs) {  // "{S1 S2}"
    std::string s = "{";
    for (size_t i = 0; i < srcs.size(); i++) {
        s += (i ? " " : "") + src_name(src(srcs[i]).data());
    }
    return s + "}";
}
inline std::string query(const addr6& g, const std::vector<int>& srcs) {
    return "Q(" + ip6_text(g.data()) + " " + names(srcs) + ") to " + ip6_text(g.data());
}

// Every query sent so far: "Q(G {S1 S2}) to D" from the group at bytes 8..23, the Number of
// Sources at 26..27 (network order) and the sources from byte 28; a 24-byte MLDv1 query as
// "v1 Q(G) to D". Reports to ff02::16 are left out; anything else is a "bad query".
inline texts queries_sent() {
    texts out;
    for (const auto& m : fake::kernel().sent_msgs) {
        const bytes& p = m.payload;
        const std::string to = ip6_text(reinterpret_cast<const uint8_t*>(&m.dst.sin6_addr));
        const uint32_t n = p.size() >= kQueryV2HeaderLen ? (p[26] << 8 | p[27]) : 0;
        if (to == "ff02::16") {
            continue;
        } else if (p.size() == kQueryV1Len && p[0] == kTypeQuery) {
            out.push_back("v1 Q(" + ip6_text(&p[8]) + ") to " + to);
        } else if (p.size() < kQueryV2HeaderLen || p[0] != kTypeQuery ||
                   p.size() != kQueryV2HeaderLen + kAddrLen * n) {
            out.push_back("bad query of " + std::to_string(p.size()) + " bytes to " + to);
        } else {
            std::string s = "Q(" + ip6_text(&p[8]) + " {";
            for (uint32_t i = 0; i < n; i++) {
                s += (i ? " " : "") + src_name(&p[kQueryV2HeaderLen + kAddrLen * i]);
            }
            out.push_back(s + "}) to " + to);
        }
    }
    return out;
}

// The records of an MLDv2 report, read byte by byte in network order, as "IS_IN G1" and their
// sources; `error` says what is wrong when the header, the counts and the length disagree.
using mrec = std::pair<std::string, std::vector<addr6>>;
inline std::vector<mrec> records_of(const bytes& p, std::string* error) {
    static const char* const kTypes[7] = {"?",     "IS_IN", "IS_EX", "TO_IN",
                                          "TO_EX", "ALLOW", "BLOCK"};
    auto be16 = [&](size_t at) { return static_cast<uint32_t>(p[at] << 8 | p[at + 1]); };
    std::vector<mrec> out;
    *error = "";
    if (p.size() < kReportHeaderLen || p[0] != kTypeV2Report || p[1] || p[2] || p[3] || p[4] ||
        p[5]) {
        *error = "bad report header of " + std::to_string(p.size()) + " bytes";
        return out;
    }
    size_t off = kReportHeaderLen;
    for (uint32_t i = 0; i < be16(6) && error->empty(); i++) {
        uint32_t n = off + kRecordHeaderLen <= p.size() ? be16(off + 2) : 0;
        if (off + kRecordHeaderLen + kAddrLen * n > p.size() || p[off] < 1 || p[off] > 6 ||
            p[off + 1] != 0) {
            *error = "bad record " + std::to_string(i);
            break;
        }
        out.push_back({std::string(kTypes[p[off]]) + " " + grp_name(&p[off + 4]), {}});
        off += kRecordHeaderLen;
        for (uint32_t k = 0; k < n; k++, off += kAddrLen) {
            out.back().second.emplace_back();
            std::memcpy(out.back().second.back().data(), &p[off], kAddrLen);
        }
    }
    if (error->empty() && off != p.size()) {
        *error = std::to_string(p.size() - off) + " bytes after the records";
    }
    return out;
}

// Every message sent so far, each on `ifp` and fitting it unfragmented: MLDv2 reports to
// ff02::16 as "TO_EX G1 {S1 S2}; BLOCK G1 {S3}" ("no records" for none), MLDv1 ones as
// "v1 report G1 to G1" or "v1 done G1 to ff02::2".
inline texts reports_sent(const Link* ifp) {
    texts out;
    for (const auto& m : fake::kernel().sent_msgs) {
        const bytes& p = m.payload;
        const uint8_t* dst = reinterpret_cast<const uint8_t*>(&m.dst.sin6_addr);
        EXPECT_EQ(m.fd, ifp->sock);
        EXPECT_LE(p.size(), ifp->buf_size - kIpOverhead);
        if (p.size() == kQueryV1Len && std::all_of(&p[1], &p[8], [](int b) { return !b; }) &&
            (p[0] == kTypeV1Report || p[0] == kTypeV1Done)) {
            out.push_back(std::string(p[0] == kTypeV1Report ? "v1 report " : "v1 done ") +
                          grp_name(&p[8]) + " to " + grp_name(dst));
            continue;
        }
        std::string error, s;
        for (const mrec& r : records_of(p, &error)) {
            s += (s.empty() ? "" : "; ") + r.first + " {";
            for (size_t i = 0; i < r.second.size(); i++) {
                s += (i ? " " : "") + src_name(r.second[i].data());
            }
            s += "}";
        }
        s = !error.empty() ? error : s.empty() ? "no records" : s;
        out.push_back(s + (ip6_text(dst) == "ff02::16" ? "" : " to " + ip6_text(dst)));
    }
    return out;
}

// `msg` received on `ifp` from `from`, as the receive path hands it on: at the start of the
// cleared receive buffer, `len` bytes of it (all when negative) counted as received.
inline void hear(Link* ifp, const bytes& msg, int len = -1, const addr6& from = ip6("fe80::1:1")) {
    std::memset(router.buf, 0, router.buf_size);
    std::memcpy(router.buf, msg.data(), msg.size());
    handle_mld_message(&router, ifp, router.buf, from.data(),
                       len < 0 ? static_cast<int>(msg.size()) : len);
}
// A report from `from` of one record of `type` (a record type, or an MLDv1 report or done).
inline void hear_record(Link* ifp, const addr6& from, uint8_t type, const addr6& g,
                        const std::vector<int>& srcs = {}) {
    hear(ifp, type > BLOCK ? v1_message(type, g) : v2_report({record(type, g, srcs)}), -1, from);
}

// A host's link-local address fe80::<n>00.
inline addr6 host_n(int n) {
    addr6 a = ip6("fe80::");
    a[14] = static_cast<uint8_t>(n);
    return a;
}

// A fresh router without links: robustness 2, query interval 125 s, response interval 10 s.
class RouterTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fake::fresh_router(2);
        router.query_interval = 125;
        router.query_response_interval = 10000;
    }
    void TearDown() override {
        router.active = 0;  // as at shutdown: no last host-state update over what is left
        delete_all_links(&router);
        shut_down(&router);
        system_link_reset(&router.system_links);
        g_stop_requested = 0;
    }
    // A fresh router for the next row of a table.
    void restart() {
        TearDown();
        SetUp();
    }
};

// Besides RouterTest's: LLQI 1 and LLQC 2 (LLQT 2); upstream "up0" on MIF 0 and the downstream
// link "eth1" (fe80::b) on MIF 1; the set-up's own kernel calls forgotten.
class ListenerTest : public RouterTest {
  protected:
    void SetUp() override {
        RouterTest::SetUp();
        start();
    }
    virtual void start() {
        router.last_listener_query_interval = 1;
        router.last_listener_query_count = 2;
        up = make_link("up0", 10, up_mif);
        router.upstream = up;
        router.active = 1;
        eth1 = make_link("eth1", 11, 1);
        forget_kernel_calls();
    }
    Group* group(Link* ifp, const addr6& g) { return find_group(ifp, g.data()); }
    ForwardingEntry* entry(const addr6& g) { return find_forwarding_entry(&router, g.data()); }

    uint16_t up_mif = 0;
    Link* up = nullptr;
    Link* eth1 = nullptr;
    const addr6 host = ip6("fe80::100:1");       // the member that reports
    const addr6 stranger = ip6("fe80::100:99");  // a host that never reported
    const addr6 G1 = grp(1), G2 = grp(2), G3 = grp(3);
};

// Downstream links eth2 (MIF 2) and eth3 (MIF 3) besides eth1: the interface list, and so
// every merge, visits them as eth3, eth2, eth1.
class UpstreamTest : public ListenerTest {
  protected:
    void start() override {
        ListenerTest::start();
        eth2 = make_link("eth2", 12, 2);
        eth3 = make_link("eth3", 13, 3);
        forget_kernel_calls();
    }
    // Gives the group on `ifp` the state `st` through the list operations, EXCLUDE count kept.
    void set_state(Link* ifp, const addr6& g, const group_state& st) {
        if (Group* rec = group(ifp, g)) {
            for (ListKind kind : {ListKind::Include, ListKind::Requested, ListKind::Excluded}) {
                empty_group_list(&router, rec, rec->entry, kind, ifp);
            }
            if (rec->filter_mode == FilterMode::Exclude) {
                withdraw_whole_group(&router, rec, ifp);
                rec->entry->exclude_count--;
            }
            mark_changed(rec->entry);  // a mode change alone is a change too
        }
        make_group(ifp, g, st, host);
    }
    // One second of the event loop's upstream work: the changes made since the last call go
    // out at once, then the retransmissions that fall due in the second after; what was sent.
    texts tick() {
        fake::kernel().sent_msgs.clear();
        report_changes(&router);
        fake::kernel().monotonic_ms += 1000;
        retransmit_due(&router, fake::monotonic_now_ms());
        return reports_sent(up);
    }

    Link* eth2 = nullptr;
    Link* eth3 = nullptr;
};

#endif
