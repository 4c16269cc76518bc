// Helpers for the tests of the upstream host side: reports sent upstream decoded from their
// network-order bytes into comparable text, the input thread's host-state tick, group states
// changed in place, and queries heard on a link.
#ifndef MLDPROXYD_TESTS_UPSTREAM_SUPPORT_H
#define MLDPROXYD_TESTS_UPSTREAM_SUPPORT_H

#include "listener_support.h"
#include "proxy/proxy.h"

using namespace mldproxy;

namespace ups {

using namespace lsn;
inline uint32_t be16(const uint8_t* p) {
    return (static_cast<uint32_t>(p[0]) << 8) | p[1];
}

// "G1" for ff0e::101, the address text otherwise.
inline std::string grp_name(const uint8_t* a) {
    addr6 g0 = grp(0);
    if (std::memcmp(a, g0.data(), 15) == 0 && a[15] > 0) {
        return "G" + std::to_string(a[15]);
    }
    return ip6_text(a);
}

// One multicast address record of a report: "IS_IN G1" and its sources.
struct mrec {
    std::string head;
    std::vector<addr6> srcs;
};

// The records of an MLDv2 report, read byte by byte in network order; an empty `error` unless
// the header, the counts and the length disagree.
inline std::vector<mrec> records_of(const std::vector<uint8_t>& p, std::string* error) {
    static const char* const kTypes[7] = {"?",     "IS_IN", "IS_EX", "TO_IN",
                                          "TO_EX", "ALLOW", "BLOCK"};
    std::vector<mrec> out;
    *error = "";
    if (p.size() < kReportHdrLen || p[0] != kTypeV2Report || p[1] || p[2] || p[3] || p[4] || p[5]) {
        *error = "bad report header of " + std::to_string(p.size()) + " bytes";
        return out;
    }
    size_t off = kReportHdrLen;
    for (uint32_t i = 0; i < be16(&p[6]) && error->empty(); i++) {
        uint32_t n = off + kMcastRecHdrLen <= p.size() ? be16(&p[off + 2]) : 0;
        if (off + kMcastRecHdrLen + kAddrLen * n > p.size() || p[off] < 1 || p[off] > 6 ||
            p[off + 1] != 0) {
            *error = "bad record " + std::to_string(i);
            break;
        }
        out.push_back({std::string(kTypes[p[off]]) + " " + grp_name(&p[off + 4]), {}});
        off += kMcastRecHdrLen;
        for (uint32_t k = 0; k < n; k++, off += kAddrLen) {
            out.back().srcs.emplace_back();
            std::memcpy(out.back().srcs.back().data(), &p[off], kAddrLen);
        }
    }
    if (error->empty() && off != p.size()) {
        *error = std::to_string(p.size() - off) + " bytes after the records";
    }
    return out;
}

// An MLDv2 report as "TO_EX G1 {S1 S2}; BLOCK G1 {S3}", "no records" when it has none.
inline std::string report_text(const std::vector<uint8_t>& p) {
    std::string error, out;
    for (const mrec& r : records_of(p, &error)) {
        out += (out.empty() ? "" : "; ") + r.head + " {";
        for (size_t i = 0; i < r.srcs.size(); i++) {
            out += (i ? " " : "") + src_name(r.srcs[i].data());
        }
        out += "}";
    }
    return !error.empty() ? error : out.empty() ? "no records" : out;
}

// Every message sent so far on `ifp`: MLDv2 reports to ff02::16 as report_text(), MLDv1 ones
// as "v1 report G1 to G1" or "v1 done G1 to ff02::2". Each must fit the link unfragmented.
inline texts reports_sent(const Link* ifp) {
    texts out;
    for (const auto& m : fake::kernel().sent_msgs) {
        const std::vector<uint8_t>& p = m.payload;
        std::string to = ip6_text(reinterpret_cast<const uint8_t*>(&m.dst.sin6_addr));
        EXPECT_EQ(m.fd, ifp->sock);
        EXPECT_LE(p.size(), ifp->buf_size - kIpOverhead);
        if (p.size() == kQueryV1Len && std::all_of(&p[1], &p[8], [](int b) { return !b; }) &&
            (p[0] == kTypeV1Report || p[0] == kTypeV1Done)) {
            out.push_back(std::string(p[0] == kTypeV1Report ? "v1 report " : "v1 done ") +
                          grp_name(&p[8]) + " to " +
                          grp_name(reinterpret_cast<const uint8_t*>(&m.dst.sin6_addr)));
            continue;
        }
        out.push_back(report_text(p) + (to == "ff02::16" ? "" : " to " + to));
    }
    return out;
}

inline group_state inc(const std::vector<int>& srcs) {
    std::vector<src_timer> l;
    for (int n : srcs) {
        l.push_back({n, 100});
    }
    return include(l);
}
// EXCLUDE with the given excluded sources and every other source wanted, as a TO_EX leaves it.
inline group_state exc(const std::vector<int>& srcs) {
    group_state st = inc(srcs);
    return exclude({}, st.inc, 260);
}

// Downstream links eth1 (MIF 1), eth2 (MIF 2), eth3 (MIF 3) besides the upstream; the
// interface list, and so every merge, visits them as eth3, eth2, eth1.
class UpstreamTest : public ListenerTest {
  protected:
    void SetUp() override {
        ListenerTest::SetUp();
        links();
    }
    // Teardown releases the links' groups as at shutdown: the router is no longer active,
    // so no last host-state update runs over what a test left behind.
    void TearDown() override {
        router.active = 0;
        ListenerTest::TearDown();
    }
    void restart() {
        router.active = 0;
        ListenerTest::restart();
        links();
    }
    void links() {
        eth2 = make_link("eth2", 12, 2);
        eth3 = make_link("eth3", 13, 3);
        forget_kernel_calls();
    }
    ForwardingEntry* entry(const addr6& g) { return find_forwarding_entry(&router, g.data()); }

    // Gives the group on `ifp` the state `st` through the list operations (creating it if
    // needed), keeping the entry's EXCLUDE count right.
    void set_state(Link* ifp, const addr6& g, const group_state& st) {
        if (Group* rec = group(ifp, g)) {
            for (ListKind kind : {ListKind::Include, ListKind::Requested, ListKind::Excluded}) {
                empty_group_list(&router, rec, rec->mfdb, kind, ifp);
            }
            if (rec->filter_mode == FilterMode::Exclude) {
                withdraw_whole_group(&router, rec, ifp);
                rec->mfdb->exclude_count--;
            }
            mark_changed(rec->mfdb);  // a mode change alone is a change too
        }
        make_group(ifp, g, st, host);  // finds the group again and sets the lists
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
    const addr6 G2 = grp(2);
};

// `bytes` received on `ifp` from a querier, as the receive path hands them on: at the start
// of the cleared receive buffer, `len` of them (all when negative) counted as received.
inline void hear(Link* ifp, const std::vector<uint8_t>& bytes, int len = -1) {
    const addr6 querier = ip6("fe80::1:1");
    std::memset(router.buf, 0, router.buf_size);
    std::memcpy(router.buf, bytes.data(), bytes.size());
    handle_mld_message(&router, ifp, router.buf, querier.data(),
                       len < 0 ? static_cast<int>(bytes.size()) : len);
}

// An MLDv2 query for `g` (:: for a general query) listing `srcs`, with Number of Sources
// `claimed` (the real count when negative).
inline std::vector<uint8_t> v2_query(const addr6& g, const std::vector<int>& srcs,
                                     int claimed = -1) {
    std::vector<uint8_t> q(kQueryV2HdrLen + kAddrLen * srcs.size());
    q[0] = kTypeQuery;
    q[4] = 0x27;  // Maximum Response Code 10000
    q[5] = 0x10;
    std::memcpy(&q[8], g.data(), 16);
    q[24] = 2;    // QRV
    q[25] = 125;  // QQIC
    uint32_t n = claimed < 0 ? static_cast<uint32_t>(srcs.size()) : static_cast<uint32_t>(claimed);
    q[26] = static_cast<uint8_t>(n >> 8);
    q[27] = static_cast<uint8_t>(n);
    for (size_t i = 0; i < srcs.size(); i++) {
        std::memcpy(&q[kQueryV2HdrLen + kAddrLen * i], src(srcs[i]).data(), 16);
    }
    return q;
}

}  // namespace ups

#endif
