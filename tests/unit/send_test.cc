// Sending queries and reports, byte for byte: the exact sendmsg calls (destination, ICMPv6
// bytes, ancillary data, flags), the encodings of MRC, QQIC and QRV, splitting to the link MTU
// and MLDv1 conversion.
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>

#include "test_support.h"

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

// The ancillary data every message carries: IPV6_PKTINFO with the link's own address and
// index, then the hop-by-hop options header holding the Router Alert option (RFC 3810 5).
bytes control_of(const Link* ifp) {
    alignas(cmsghdr) uint8_t buf[CMSG_SPACE(sizeof(in6_pktinfo)) + CMSG_SPACE(8)] = {};
    msghdr msg{};
    msg.msg_control = buf;
    msg.msg_controllen = sizeof buf;
    cmsghdr* c = CMSG_FIRSTHDR(&msg);
    c->cmsg_len = CMSG_LEN(sizeof(in6_pktinfo));
    c->cmsg_level = IPPROTO_IPV6;
    c->cmsg_type = IPV6_PKTINFO;
    in6_pktinfo info{};
    std::memcpy(&info.ipi6_addr, ifp->addr, 16);
    info.ipi6_ifindex = ifp->ifindex;
    std::memcpy(CMSG_DATA(c), &info, sizeof info);
    c = CMSG_NXTHDR(&msg, c);
    c->cmsg_len = CMSG_LEN(8);
    c->cmsg_level = IPPROTO_IPV6;
    c->cmsg_type = IPV6_HOPOPTS;
    const uint8_t router_alert[8] = {0, 0, 5, 2, 0, 0, 1, 0};
    std::memcpy(CMSG_DATA(c), router_alert, 8);
    return bytes(buf, buf + sizeof buf);
}

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
        for (const auto& m : fake::kernel().sent_msgs) {
            EXPECT_EQ(m.fd, ifp->sock);
            EXPECT_EQ(m.flags, MSG_DONTROUTE);
            EXPECT_EQ(std::vector<uint32_t>({m.dst.sin6_family, m.dst.sin6_port,
                                             m.dst.sin6_flowinfo, m.dst.sin6_scope_id}),
                      (std::vector<uint32_t>{AF_INET6, 0, 0, 0}));
            EXPECT_EQ(m.control, control_of(ifp));
            EXPECT_LE(m.payload.size(), ifp->buf_size - 48u) << "no fragmentation";
            out.emplace_back(ip6_text(reinterpret_cast<const uint8_t*>(&m.dst.sin6_addr)),
                             m.payload);
        }
        return out;
    }
};

// Each row sets one configured value and expects bytes 4, 5, 24 and 25 of the query; the MRC
// and the QQIC also as the encoders return them.
TEST_F(SendTest, MrcFloatingFrom32768MsQqicFrom128QrvOnlyBelow8) {
    uint32_t *mrt = &router.query_response_interval, *qi = &router.query_interval;
    uint32_t* rv = &router.robustness;
    Link* ifp = link();
    const std::vector<std::tuple<uint32_t*, uint32_t, bytes>> rows = {
        {mrt, 0, {0x00, 0x00, 2, 125}},
        {mrt, 32767, {0x7f, 0xff, 2, 125}},        // largest linear
        {mrt, 32768, {0x80, 0x00, 2, 125}},        // exponent 0, mantissa 0
        {mrt, 100000, {0x98, 0x6a, 2, 125}},       // 100000 >> 4 = 6250 = 0x1000 + 0x86a
        {mrt, 8387584, {0xff, 0xff, 2, 125}},      // largest floating
        {mrt, 8388607, {0xff, 0xff, 2, 125}},      // truncated below the next step
        {mrt, 8388608, {0x00, 0x00, 2, 125}},      // beyond: the low 16 bits
        {mrt, 8400000, {0x2c, 0x80, 2, 125}},      // beyond: the low 16 bits
        {mrt, 0xffffffffu, {0xff, 0xff, 2, 125}},  // largest 32-bit
        {qi, 125, {0x27, 0x10, 2, 125}},
        {qi, 127, {0x27, 0x10, 2, 127}},     // largest linear
        {qi, 128, {0x27, 0x10, 2, 0x80}},    // first floating
        {qi, 1000, {0x27, 0x10, 2, 0xaf}},   // 1000 >> 5 = 31 = 16 + 15
        {qi, 31744, {0x27, 0x10, 2, 0xff}},  // largest floating
        {qi, 31745, {0x27, 0x10, 2, 0xff}},  // truncated below the next step
        {qi, 32767, {0x27, 0x10, 2, 0xff}},  // last truncated
        {qi, 32768, {0x27, 0x10, 2, 0x00}},  // beyond: the low 8 bits
        {qi, 40000, {0x27, 0x10, 2, 0x40}},  // beyond: the low 8 bits
        // QRV: S flag clear, reserved bits zero.
        {rv, 1, {0x27, 0x10, 1, 125}},
        {rv, 7, {0x27, 0x10, 7, 125}},
        {rv, 8, {0x27, 0x10, 0, 125}},
        {rv, 10, {0x27, 0x10, 0, 125}},
    };
    for (const auto& [field, value, fields] : rows) {
        SCOPED_TRACE(testing::Message() << (field == mrt  ? "MRT "
                                            : field == qi ? "QI "
                                                          : "R ")
                                        << value);
        router.query_response_interval = 10000;
        router.query_interval = 125;
        router.robustness = 2;
        *field = value;
        fake::kernel().sent_msgs.clear();
        QueryParams q{};
        q.dst[0] = 0xff;
        send_query(&router, ifp, &q);
        const bytes p = sent(ifp).at(0).second;
        EXPECT_EQ(bytes({p[4], p[5], p[24], p[25]}), fields);
        if (field == mrt) {
            EXPECT_EQ(encode_max_response_code(value), (fields[0] << 8) | fields[1]);
        } else if (field == qi) {
            EXPECT_EQ(encode_query_interval_code(value), fields[3]);
        }
    }
}

// Queries in both versions: general ones with the MRC of the query response interval, group-
// and source-specific ones with LLQI in milliseconds (not floating below 32768 ms, wrapping
// beyond 65535), to the group itself. A source list longer than the link carries goes out as
// several queries, each as full as fits, every source once and in order.
TEST_F(SendTest, QueriesCarryHeaderFieldsAndSources) {
    struct Row {
        const char* name;
        int version, mtu;
        uint32_t llqi;
        const char* group;
        int nsrc;
        std::vector<std::string> payloads;  // hex, or the number of sources of each query
    };
    const std::string zero16 = "00000000 00000000 00000000 00000000 ";
    const std::string g = "82 00 0000 03e8 0000 ff0e0000 00000000 00000000 00000001 ";
    const std::string g1 = "ff0e0000 00000000 00000000 00000001 02 7d 0000";
    const std::string s0s1 =
        "0002 20010db8 00010000 00000000 00000000 20010db8 00010000 "
        "00000000 00000001";
    // clang-format off
    const std::vector<Row> rows = {
        {"general v2", 2, 1500, 1, "::", 0, {"82 00 0000 2710 0000 " + zero16 + "02 7d 0000"}},
        {"general v1", 1, 1500, 1, "::", 0, {"82 00 0000 2710 0000 " + zero16}},
        {"group LLQI 1", 2, 1500, 1, "ff0e::1", 0, {g + "02 7d 0000"}},
        {"group LLQI 33 not floating", 2, 1500, 33, "ff0e::1", 0, {"82 00 0000 80e8 0000 " + g1}},
        {"group LLQI 66 wraps", 2, 1500, 66, "ff0e::1", 0, {"82 00 0000 01d0 0000 " + g1}},
        {"group v1", 1, 1500, 1, "ff0e::1", 0, {g}},
        {"sources", 2, 1500, 1, "ff0e::1", 2, {g + "02 7d " + s0s1}},
        {"100 sources on a 1280-byte link", 2, 1280, 1, "ff0e::1", 100, {"75", "25"}},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        restart();
        Link* ifp = link(row.mtu, row.version);
        router.last_listener_query_interval = row.llqi;
        std::vector<Source> srcs(static_cast<size_t>(row.nsrc) + 1);
        for (int i = 0; i < row.nsrc; i++) {
            std::memcpy(srcs[i].address, src(1, i).data(), 16);
            srcs[i].next = i + 1 < row.nsrc ? &srcs[i + 1] : nullptr;
        }
        const bool general = std::string(row.group) == "::";
        QueryParams q{};
        std::memcpy(q.group, ip6(row.group).data(), 16);
        std::memcpy(q.dst, ip6(general ? "ff02::1" : row.group).data(), 16);
        q.sources = row.nsrc ? &srcs[0] : nullptr;
        q.src_count = static_cast<uint32_t>(row.nsrc);
        EXPECT_EQ(stdout_of([&] { send_query(&router, ifp, &q); }), "");
        auto msgs = sent(ifp);
        ASSERT_EQ(msgs.size(), row.payloads.size());
        size_t next = 0;
        for (size_t m = 0; m < msgs.size(); m++) {
            const bytes& p = msgs[m].second;
            EXPECT_EQ(msgs[m].first, general ? "ff02::1" : row.group);
            if (row.payloads[m].size() > 3) {
                EXPECT_EQ(p, hex(row.payloads[m]));
                continue;
            }
            const size_t n = std::stoul(row.payloads[m]);  // the sources it carries
            ASSERT_EQ(p.size(), 28 + 16 * n);
            EXPECT_EQ(bytes(p.begin(), p.begin() + 26), hex(g + "02 7d"));
            EXPECT_EQ(p[26] << 8 | p[27], static_cast<int>(n));
            for (size_t i = 0; i < n; i++, next++) {
                EXPECT_EQ(std::memcmp(&p[28 + 16 * i], srcs[next].address, 16), 0) << next;
            }
        }
    }
}

addr6 gn(int n) {  // ff0e::<n>
    addr6 g = ip6("ff0e::");
    g[15] = static_cast<uint8_t>(n);
    return g;
}
// Record of `type` for ff0e::<grp> with sources src(grp, first..first+n-1).
bytes rec(uint8_t type, int grp, int n, int first = 0, uint8_t aux = 0) {
    bytes r = record(type, gn(grp), {});
    r[1] = aux;
    r[2] = static_cast<uint8_t>(n >> 8);
    r[3] = static_cast<uint8_t>(n);
    for (int i = first; i < first + n; i++) {
        const addr6 s = src(grp, i);
        r.insert(r.end(), s.begin(), s.end());
    }
    return r;
}
using msg = std::pair<std::string, bytes>;  // destination and payload
msg v1(const char* dst, uint8_t type, int grp) {
    return {dst, v1_message(type, gn(grp))};
}
msg v2(const std::vector<bytes>& records) {
    return {"ff02::16", v2_report(records)};
}

TEST_F(SendTest, ReportsFitTheLinkAndFollowItsVersion) {
    struct Row {
        const char* name;
        int version, mtu;
        std::vector<bytes> records;
        std::vector<msg> sent;
        std::vector<int> listened = {};  // groups ff0e::<n> whose upstream state has listeners
    };
    // clang-format off
    const std::vector<Row> rows = {
        {"V2RecordsCopiedAfterHeader", 2, 1500, {rec(2, 1, 0), rec(5, 2, 2)},
         {v2({rec(2, 1, 0), rec(5, 2, 2)})}},
        // An MLDv1 router hears a report for a group with listeners and a done for one without,
        // whatever record told of the change: the last source blocked is a done too.
        {"V1OneMessagePerRecordByWhetherTheGroupIsListened", 1, 1500,
         {rec(3, 1, 0), rec(2, 2, 0), rec(3, 3, 2), rec(6, 4, 1), rec(5, 5, 1)},
         {v1("ff02::2", 132, 1), v1("ff0e::2", 131, 2), v1("ff0e::3", 131, 3),
          v1("ff02::2", 132, 4), v1("ff0e::5", 131, 5)}, {2, 3, 5}},
        {"V1ToInWithAuxByteIsStillDone", 1, 1500, {rec(3, 1, 0, 0, 1)}, {v1("ff02::2", 132, 1)}},
        {"V2RecordSetSplitAtRecords", 2, 1280,
         {rec(5, 1, 15), rec(5, 2, 15), rec(5, 3, 15), rec(5, 4, 15), rec(5, 5, 15)},
         {v2({rec(5, 1, 15), rec(5, 2, 15), rec(5, 3, 15), rec(5, 4, 15)}), v2({rec(5, 5, 15)})}},
        {"V2AllowSplitCarriesEverySource", 2, 1280, {rec(5, 1, 100)},
         {v2({rec(5, 1, 75)}), v2({rec(5, 1, 25, 75)})}},
        {"V2BlockAfterSmallRecord", 2, 1280, {rec(1, 2, 1), rec(6, 1, 100)},
         {v2({rec(1, 2, 1)}), v2({rec(6, 1, 75)}), v2({rec(6, 1, 25, 75)})}},
        {"V2ToExcludeKeepsFirstSourcesThatFit", 2, 1280, {rec(4, 1, 100)}, {v2({rec(4, 1, 75)})}},
        {"V2IsExcludeKeepsFirstSourcesThatFit", 2, 1280, {rec(2, 1, 100), rec(1, 2, 0)},
         {v2({rec(2, 1, 75)}), v2({rec(1, 2, 0)})}},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        restart();
        Link* ifp = link(row.mtu, row.version);
        Link* dn = make_link("eth2", 12, 2);
        for (int n : row.listened) {  // a listener on eth2, merged (no upstream: nothing sent)
            make_group(dn, gn(n), exclude({}, {}, 260), ip6("fe80::100:1"));
        }
        report_changes(&router);
        fake::kernel().sent_msgs.clear();
        const bytes all = v2_report(row.records);
        send_report(&router, ifp, ip6("ff02::16").data(), &all[kReportHeaderLen],
                    static_cast<uint32_t>(row.records.size()),
                    static_cast<uint32_t>(all.size() - kReportHeaderLen));
        EXPECT_EQ(sent(ifp), row.sent);
    }
}

}  // namespace
