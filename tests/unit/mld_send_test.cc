// Sending queries and reports: the exact sendmsg calls (destination, ICMPv6 bytes, ancillary
// data, flags), splitting to the link MTU, MLDv1 conversion and the general-query schedule.
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>

#include "test_support.h"

using namespace mldproxy;

namespace {

std::vector<uint8_t> hex(const std::string& text) {
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < text.size(); i++) {
        if (text[i] != ' ') {
            out.push_back(static_cast<uint8_t>(std::stoi(text.substr(i++, 2), nullptr, 16)));
        }
    }
    return out;
}

// The ancillary data as the kernel reads it, walked with CMSG_FIRSTHDR / CMSG_NXTHDR.
std::string control(const fake::sent_message& m) {
    alignas(cmsghdr) uint8_t buf[256] = {};
    if (m.control.size() > sizeof buf) {
        return "oversized";
    }
    std::memcpy(buf, m.control.data(), m.control.size());
    msghdr msg{};
    msg.msg_control = buf;
    msg.msg_controllen = m.control.size();
    std::string out;
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
        const uint8_t* d = CMSG_DATA(c);
        if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_PKTINFO &&
            c->cmsg_len == CMSG_LEN(sizeof(in6_pktinfo))) {
            in6_pktinfo info;
            std::memcpy(&info, d, sizeof info);
            out += "pktinfo " + ip6_text(d) + " " + std::to_string(info.ipi6_ifindex) + "; ";
        } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_HOPOPTS &&
                   c->cmsg_len == CMSG_LEN(8)) {
            char h[40];
            std::snprintf(h, sizeof h, "hopopts %02x %02x %02x %02x %02x %02x %02x %02x", d[0],
                          d[1], d[2], d[3], d[4], d[5], d[6], d[7]);
            out += h;
        } else {
            out += "unexpected " + std::to_string(c->cmsg_type) + "; ";
        }
    }
    return out;
}

const char* kRouterAlert = "hopopts 00 00 05 02 00 00 01 00";

// Source i of group n: 2001:db8:<n>::<i>.
addr6 src(int grp, int i) {
    addr6 a = ip6("2001:db8::");
    a[5] = static_cast<uint8_t>(grp);
    a[14] = static_cast<uint8_t>(i >> 8);
    a[15] = static_cast<uint8_t>(i);
    return a;
}

class SendTest : public RouterTest {
  protected:
    Link* link(int mtu = 1500, int version = 2) {
        fake::kernel().mtu = mtu;
        Link* ifp = make_link("eth1", 11, 1);
        ifp->mld_version = version;
        return ifp;
    }
    // Checks what every message shares and returns the payloads with their destinations.
    // Queries, reports and dones all leave from the link's own (link-local) address.
    std::vector<std::pair<std::string, std::vector<uint8_t>>> sent(Link* ifp) {
        std::vector<std::pair<std::string, std::vector<uint8_t>>> out;
        const std::string own = ip6_text(ifp->addr);
        for (const auto& m : fake::kernel().sent_msgs) {
            EXPECT_EQ(m.fd, ifp->sock);
            EXPECT_EQ(m.flags, MSG_DONTROUTE);
            EXPECT_EQ(m.dst.sin6_family, AF_INET6);
            EXPECT_EQ(m.dst.sin6_port, 0);
            EXPECT_EQ(m.dst.sin6_flowinfo, 0u);
            EXPECT_EQ(m.dst.sin6_scope_id, 0u);
            EXPECT_EQ(control(m), "pktinfo " + own + " 11; " + kRouterAlert);
            EXPECT_LE(m.payload.size(), ifp->buf_size - 48u) << "no fragmentation";
            out.emplace_back(ip6_text(reinterpret_cast<const uint8_t*>(&m.dst.sin6_addr)),
                             m.payload);
        }
        return out;
    }
};

TEST_F(SendTest, QueriesCarryHeaderFieldsAndSources) {
    struct Row {
        const char* name;
        int version;
        uint32_t llqi;
        const char* group;
        int nsrc;
        int count;  // the request's source count
        uint32_t s_flag;
        std::string payload;  // empty: nothing is sent
        const char* out;
    };
    const std::string zero16 = "00000000 00000000 00000000 00000000 ";
    const std::string g = "ff0e0000 00000000 00000000 00000001 ";
    const std::vector<Row> rows = {
        {"GeneralV2", 2, 1, "::", 0, 0, 0, "82 00 0000 2710 0000 " + zero16 + "02 7d 0000", ""},
        {"GeneralV1", 1, 1, "::", 0, 0, 0, "82 00 0000 2710 0000 " + zero16, ""},
        {"GroupLlqi1", 2, 1, "ff0e::1", 0, 0, 0, "82 00 0000 03e8 0000 " + g + "02 7d 0000", ""},
        {"GroupLlqi33IsNotFloating", 2, 33, "ff0e::1", 0, 0, 0,
         "82 00 0000 80e8 0000 " + g + "02 7d 0000", ""},
        {"GroupLlqi66Wraps", 2, 66, "ff0e::1", 0, 0, 0, "82 00 0000 01d0 0000 " + g + "02 7d 0000",
         ""},
        {"GroupV1", 1, 1, "ff0e::1", 0, 0, 0, "82 00 0000 03e8 0000 " + g, ""},
        {"SourcesWithSFlag", 2, 1, "ff0e::1", 2, 2, 1,
         "82 00 0000 03e8 0000 " + g + "0a 7d 0002 20010db8 00010000 00000000 00000000 " +
             "20010db8 00010000 00000000 00000001",
         ""},
        {"SFlagIsBitZeroOnly", 2, 1, "ff0e::1", 0, 0, 2, "82 00 0000 03e8 0000 " + g + "02 7d 0000",
         ""},
        {"ListLongerThanCount", 2, 1, "ff0e::1", 3, 2, 0, "",
         "\n Cannot send query, numSrc and list inconsistent 3 2\n"},
        {"ListShorterThanCount", 2, 1, "ff0e::1", 2, 3, 0, "",
         "\n Cannot send query, numSrc and list inconsistent 2 3\n"},
    };
    Link* ifp = link();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ifp->mld_version = row.version;
        router.last_listener_query_interval = row.llqi;
        fake::kernel().sent_msgs.clear();
        std::vector<Source> srcs(static_cast<size_t>(row.nsrc) + 1);
        for (int i = 0; i < row.nsrc; i++) {
            std::memcpy(srcs[i].src_addr, src(1, i).data(), 16);
            srcs[i].next = i + 1 < row.nsrc ? &srcs[i + 1] : nullptr;
        }
        QueryParams q{};
        std::memcpy(q.group, ip6(row.group).data(), 16);
        std::memcpy(q.dst,
                    (std::string(row.group) == "::" ? ip6("ff02::1") : ip6(row.group)).data(), 16);
        q.sources = row.nsrc ? &srcs[0] : nullptr;
        q.src_count = static_cast<uint32_t>(row.count);
        q.s_flag = row.s_flag;
        capture_stdout();
        send_query(&router, ifp, &q);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), row.out);
        auto msgs = sent(ifp);
        ASSERT_EQ(msgs.size(), row.payload.empty() ? 0u : 1u);
        if (!msgs.empty()) {
            EXPECT_EQ(msgs[0].first, std::string(row.group) == "::" ? "ff02::1" : row.group);
            EXPECT_EQ(msgs[0].second, hex(row.payload));
        }
    }
}

TEST_F(SendTest, LongSourceListGoesOutAsSeveralQueries) {
    Link* ifp = link(1280);
    std::vector<Source> srcs(100);
    for (int i = 0; i < 100; i++) {
        std::memcpy(srcs[i].src_addr, src(1, i).data(), 16);
        srcs[i].next = i + 1 < 100 ? &srcs[i + 1] : nullptr;
    }
    QueryParams q{};
    std::memcpy(q.group, ip6("ff0e::1").data(), 16);
    std::memcpy(q.dst, q.group, 16);
    q.sources = &srcs[0];
    q.src_count = 100;
    send_query(&router, ifp, &q);
    auto msgs = sent(ifp);
    ASSERT_GE(msgs.size(), 2u);
    size_t next = 0;
    for (const auto& [dst, p] : msgs) {
        EXPECT_EQ(dst, "ff0e::1");
        ASSERT_GE(p.size(), 28u);
        EXPECT_EQ(std::vector<uint8_t>(p.begin(), p.begin() + 26),
                  std::vector<uint8_t>(msgs[0].second.begin(), msgs[0].second.begin() + 26));
        const size_t n = static_cast<size_t>(p[26] << 8 | p[27]);
        EXPECT_GT(n, 0u);
        ASSERT_EQ(p.size(), 28 + 16 * n);
        for (size_t i = 0; i < n && next < 100; i++, next++) {
            EXPECT_EQ(std::memcmp(&p[28 + 16 * i], srcs[next].src_addr, 16), 0) << next;
        }
    }
    EXPECT_EQ(next, 100u) << "every source once";
}

// Record of `type` for group ff0e::<grp> with sources src(grp, first..first+n-1).
std::vector<uint8_t> rec(uint8_t type, int grp, int n, int first = 0, uint8_t aux = 0) {
    std::vector<uint8_t> r = {type, aux, static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)};
    addr6 g = ip6("ff0e::");
    g[15] = static_cast<uint8_t>(grp);
    r.insert(r.end(), g.begin(), g.end());
    for (int i = first; i < first + n; i++) {
        const addr6 s = src(grp, i);
        r.insert(r.end(), s.begin(), s.end());
    }
    return r;
}

using msgs = std::vector<std::pair<std::string, bytes>>;  // destination and payload, in order

struct ReportRow {
    const char* name;
    int version, mtu;
    std::vector<bytes> records;
    msgs sent;
    std::vector<int> listened;  // groups ff0e::<n> whose upstream state has listeners
};
ReportRow row(const char* name, int version, int mtu, std::vector<bytes> records, msgs sent,
              std::vector<int> listened = {}) {
    return {name, version, mtu, std::move(records), std::move(sent), std::move(listened)};
}

// A 24-byte MLDv1 message of `type` for ff0e::<grp>.
std::pair<std::string, bytes> v1(const char* dst, uint8_t type, int grp) {
    bytes m(24, 0);
    m[0] = type;
    m[8] = 0xff;
    m[9] = 0x0e;
    m[23] = static_cast<uint8_t>(grp);
    return {dst, m};
}

// An MLDv2 report to ff02::16: the header, then `records` as they are.
std::pair<std::string, bytes> v2(const std::vector<bytes>& records) {
    bytes m = {143, 0, 0, 0, 0, 0, 0, static_cast<uint8_t>(records.size())};
    for (const auto& r : records) {
        m.insert(m.end(), r.begin(), r.end());
    }
    return {"ff02::16", m};
}

TEST_F(SendTest, ReportsFitTheLinkAndFollowItsVersion) {
    const std::vector<ReportRow> rows = {
        row("V2RecordsCopiedAfterHeader", 2, 1500, {rec(2, 1, 0), rec(5, 2, 2)},
            {v2({rec(2, 1, 0), rec(5, 2, 2)})}),
        // An MLDv1 router hears a report for a group with listeners and a done for one without,
        // whatever record told of the change: the last source blocked is a done too.
        row("V1OneMessagePerRecordByWhetherTheGroupIsListened", 1, 1500,
            {rec(3, 1, 0), rec(2, 2, 0), rec(3, 3, 2), rec(6, 4, 1), rec(5, 5, 1)},
            {v1("ff02::2", 132, 1), v1("ff0e::2", 131, 2), v1("ff0e::3", 131, 3),
             v1("ff02::2", 132, 4), v1("ff0e::5", 131, 5)},
            {2, 3, 5}),
        row("V1ToIncludeWithAuxByteIsStillDone", 1, 1500, {rec(3, 1, 0, 0, 1)},
            {v1("ff02::2", 132, 1)}),
        row("V2RecordSetSplitAtRecords", 2, 1280,
            {rec(5, 1, 15), rec(5, 2, 15), rec(5, 3, 15), rec(5, 4, 15), rec(5, 5, 15)},
            {v2({rec(5, 1, 15), rec(5, 2, 15), rec(5, 3, 15), rec(5, 4, 15)}),
             v2({rec(5, 5, 15)})}),
        row("V2AllowSplitCarriesEverySource", 2, 1280, {rec(5, 1, 100)},
            {v2({rec(5, 1, 75)}), v2({rec(5, 1, 25, 75)})}),
        row("V2BlockAfterSmallRecord", 2, 1280, {rec(1, 2, 1), rec(6, 1, 100)},
            {v2({rec(1, 2, 1)}), v2({rec(6, 1, 75)}), v2({rec(6, 1, 25, 75)})}),
        row("V2ToExcludeKeepsFirstSourcesThatFit", 2, 1280, {rec(4, 1, 100)},
            {v2({rec(4, 1, 75)})}),
        row("V2IsExcludeKeepsFirstSourcesThatFit", 2, 1280, {rec(2, 1, 100), rec(1, 2, 0)},
            {v2({rec(2, 1, 75)}), v2({rec(1, 2, 0)})}),
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Link* ifp = link(row.mtu, row.version);
        for (int n : row.listened) {
            addr6 g = ip6("ff0e::");
            g[15] = static_cast<uint8_t>(n);
            add_forwarding_entry(&router, g.data())->host_mode = FilterMode::Exclude;
        }
        fake::kernel().sent_msgs.clear();
        std::vector<uint8_t> all;
        for (const auto& r : row.records) {
            all.insert(all.end(), r.begin(), r.end());
        }
        send_report(&router, ifp, ip6("ff02::16").data(), all.data(),
                    static_cast<uint32_t>(row.records.size()), static_cast<uint32_t>(all.size()));
        EXPECT_EQ(sent(ifp), row.sent);
        delete_link(ifp);
        free_forwarding_entries(&router);
    }
}

// Robustness - 1 start-up queries a quarter of the query interval (125 s) apart, then one a
// query interval apart (RFC 3810 sections 9.6 and 9.7); only a started querier sends them.
TEST_F(SendTest, GeneralQueriesFollowTheStartupThenSteadySchedule) {
    struct Row {
        const char* name;
        uint32_t robustness;
        int querier;
        int started;
        std::vector<uint64_t> at_ms;
    };
    const std::vector<Row> rows = {
        {"Robustness1", 1, 1, 1, {0, 125000, 250000}},
        {"Robustness2", 2, 1, 1, {0, 31250, 156250, 281250}},
        {"Robustness3", 3, 1, 1, {0, 31250, 62500, 187500, 312500}},
        {"NotQuerier", 2, 0, 1, {}},
        {"NotStarted", 2, 1, 0, {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        router.robustness = row.robustness;
        Link* ifp = link();
        ifp->querier = row.querier;
        ifp->started = row.started;
        fake::kernel().sent_msgs.clear();
        std::vector<uint64_t> at_ms;
        for (uint64_t t = 0; t <= 320000; t += 250) {
            const size_t before = fake::kernel().sent_msgs.size();
            send_general_query(&router, ifp);
            if (fake::kernel().sent_msgs.size() != before) {
                at_ms.push_back(t);
            }
            fake::kernel().monotonic_ms += 250;
        }
        EXPECT_EQ(at_ms, row.at_ms);
        for (const auto& [dst, p] : sent(ifp)) {
            EXPECT_EQ(dst, "ff02::1");
            EXPECT_EQ(p.size(), 28u);
        }
        delete_link(ifp);
    }
}

}  // namespace
