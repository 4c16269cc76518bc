// The receive path: what is read from the router socket and handed on, kernel upcalls (a whole
// 40-byte mrt6msg, im6_mif in host order), which MLD messages are accepted and counted, the
// link's MLD version, and the walk over an MLDv2 report's records inside what arrived.
#include "daemon/receive.h"
#include "test_support.h"

namespace {

// The upstream is on MIF 2, so that a MIF read in the wrong byte order never matches; eth1 on
// MIF 1 and eth3 on MIF 3.
class ReceiveTest : public ListenerTest {
  protected:
    void start() override {
        up_mif = 2;
        ListenerTest::start();
        eth3 = make_link("eth3", 13, 3);
        forget_kernel_calls();
    }

  protected:
    static std::string groups(const Link* ifp) {
        std::string out;
        for (const Group* g = ifp->groups; g; g = g->next) {
            out += " " + grp_name(g->address);
        }
        return out;
    }
    Link* eth3 = nullptr;
};

// A 24-byte MLDv1 general query from another router: handed to the MLD handling, it sets the
// arrival link's MLD version to 1 and does nothing else on a downstream link.
fake::datagram v1_query(bool with_pktinfo, uint32_t ifindex) {
    return {v1_message(kTypeQuery, addr6{}),
            {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x99},
            ifindex,
            with_pktinfo};
}

TEST_F(ReceiveTest, RouterSocketDatagramIsReadOnlyWhenItCanBeHandled) {
    struct Row {
        const char* name;
        bool upstream;
        int active, proto;
        bool pktinfo;
        uint32_t ifindex;
        size_t reads, left;
        const char* out;
        int version;  // eth1's MLD version afterwards: 1 once the query reached it
    };
    const std::vector<Row> rows = {
        {"no upstream: left queued", false, 0, 58, true, 11, 0, 1, "", 2},
        {"not ICMPv6: left queued", true, 1, 17, true, 11, 0, 1, "", 2},
        {"inactive: read and dropped", true, 0, 58, true, 11, 1, 0, "", 2},
        {"no PKTINFO", true, 1, 58, false, 11, 1, 0,
         "MLDRT: Could not get receive interface info index was 0\n", 2},
        {"unknown arrival index: dropped silently", true, 1, 58, true, 99, 1, 0, "", 2},
        {"known arrival link: handed on", true, 1, 58, true, 11, 1, 0, "", 1},
    };
    auto& k = fake::kernel();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        k.datagrams.clear();
        k.datagrams.push_back(v1_query(row.pktinfo, row.ifindex));
        k.recvmsg_flags.clear();
        router.upstream = row.upstream ? up : nullptr;
        router.active = row.active;
        eth1->mld_version = 2;
        EXPECT_EQ(stdout_of([&] { handle_input(&router, row.proto); }), row.out);
        EXPECT_EQ(k.recvmsg_flags, std::vector<int>(row.reads, MSG_DONTWAIT));
        EXPECT_EQ(k.datagrams.size(), row.left);
        EXPECT_EQ(eth1->mld_version, row.version);
        EXPECT_TRUE(k.sent_msgs.empty());
        EXPECT_TRUE(k.sockopts.empty());
    }
    // What arrives on an interface's own socket is read without waiting and dropped.
    k.recvmsg_flags.clear();
    k.datagrams.push_back(v1_query(true, 11));
    EXPECT_EQ(handle_other_message(&router, eth1), 24);
    EXPECT_EQ(handle_other_message(&router, eth1), -1);
    EXPECT_EQ(k.recvmsg_flags, (std::vector<int>{MSG_DONTWAIT, MSG_DONTWAIT}));
    EXPECT_EQ(eth1->mld_version, 1);
}

// eth1 and eth3 take (S1, G1), eth1 the whole of G2. An upcall installs what the database
// forwards, and only a whole mrt6msg is one: a datagram of 39 bytes that starts like one reaches
// the MLD handling (as a message for no link of ours), whatever the buffer held beyond it.
TEST_F(ReceiveTest, CacheMissUpcallsInstallWhatTheDatabaseForwards) {
    struct Row {
        const char* name;
        uint8_t type;  // 1 NOCACHE, 2 WRONGMIF, 3 WHOLEPKT
        int source;
        const char* group;
        texts kernel;
        size_t len = 40;
    };
    const std::string add = "add 2001:db8::1 ff0e::101 parent 2 mifs 1,3";
    // clang-format off
    const std::vector<Row> rows = {
        {"NOCACHE for a source wanted on MIFs 1 and 3: (S,G) to both", 1, 1, "ff0e::101", {add}},
        {"longer than an mrt6msg: an upcall alike", 1, 1, "ff0e::101", {add}, 64},
        {"39 bytes: no upcall", 1, 1, "ff0e::101", {}, 39},
        {"NOCACHE for a source nobody asked for, in a group without (*,G): (S,G) deleted", 1, 9,
         "ff0e::101", {"del 2001:db8::9 ff0e::101"}},
        {"NOCACHE in a group whose (*,G) entry forwards: nothing installed", 1, 1, "ff0e::102", {}},
        {"NOCACHE for a group unknown to the database: (S,G) deleted", 1, 1, "ff0e::103",
         {"del 2001:db8::1 ff0e::103"}},
        {"WRONGMIF changes nothing", 2, 1, "ff0e::101", {}},
        {"WHOLEPKT changes nothing", 3, 1, "ff0e::101", {}},
        {"a destination that is not multicast does nothing", 1, 1, "2001:db8::ff", {}},
    };
    // clang-format on
    make_group(eth1, G1, include({{1, 260}}), host);
    make_group(eth3, G1, include({{1, 260}}), host);
    make_group(eth1, G2, exclude({}, {}, 260), host);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        forget_kernel_calls();
        router.counters = {};
        bytes m(std::max<size_t>(row.len, 40), 0);
        m[1] = row.type;
        const uint16_t mif = 2;
        std::memcpy(&m[2], &mif, 2);
        std::memcpy(&m[8], src(row.source).data(), 16);
        std::memcpy(&m[24], ip6(row.group).data(), 16);
        std::memcpy(router.buf, m.data(), m.size());  // what an earlier upcall left
        m.resize(row.len);
        fake::kernel().datagrams.push_back({m, {}, 0, true});  // upcalls come with index 0
        EXPECT_EQ(stdout_of([&] { EXPECT_TRUE(handle_input(&router, kProtoIcmpv6)); }), "");
        EXPECT_EQ(mfc_calls(), row.kernel);
        EXPECT_EQ(router.counters.not_ours, row.len < 40 ? 1u : 0u);
        EXPECT_TRUE(fake::kernel().sent_msgs.empty());
    }
}

// Which messages are taken, by type and length (a query of exactly 24 bytes is MLDv1, RFC 3810
// section 8.1; one shorter than its type's fixed part is malformed and never read), how they
// are counted for the status, and the link's MLD version, which only queries set. A query heard
// downstream changes nothing else; reports heard upstream are no listener state.
TEST_F(ReceiveTest, MessagesAreTakenCountedAndSetTheVersionByTypeAndLength) {
    struct Row {
        const char* name;
        bool upstream, own;
        uint8_t type;
        int len;
        std::string after;  // version, link and router counters, groups on the link
    };
    const std::vector<Row> rows = {
        {"MLDv2 query", false, false, kTypeQuery, 28, "v2 r0 q1 own0 other0 bad0 G2"},
        {"MLDv1 query", false, false, kTypeQuery, 24, "v1 r0 q1 own0 other0 bad0 G2"},
        {"25-byte query is MLDv2", false, false, kTypeQuery, 25, "v2 r0 q1 own0 other0 bad0 G2"},
        {"23-byte query", false, false, kTypeQuery, 23, "v7 r0 q0 own0 other0 bad1 G2"},
        {"MLDv2 report", false, false, kTypeV2Report, 28, "v7 r1 q0 own0 other0 bad0 G1 G2"},
        {"7-byte MLDv2 report", false, false, kTypeV2Report, 7, "v7 r0 q0 own0 other0 bad1 G2"},
        {"MLDv1 report", false, false, kTypeV1Report, 24, "v7 r1 q0 own0 other0 bad0 G1 G2"},
        {"23-byte MLDv1 report", false, false, kTypeV1Report, 23, "v7 r0 q0 own0 other0 bad1 G2"},
        {"MLDv1 done", false, false, kTypeV1Done, 24, "v7 r1 q0 own0 other0 bad0 G2"},
        {"our own report looped back", false, true, kTypeV2Report, 28,
         "v7 r0 q0 own1 other0 bad0 G2"},
        {"echo request", false, false, 128, 28, "v7 r0 q0 own0 other1 bad0 G2"},
        {"nothing", false, false, kTypeQuery, 0, "v7 r0 q0 own0 other1 bad0 G2"},
        {"MLDv2 report upstream", true, false, kTypeV2Report, 28, "v7 r1 q0 own0 other0 bad0"},
        {"MLDv1 report upstream", true, false, kTypeV1Report, 24, "v7 r1 q0 own0 other0 bad0"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        restart();
        Link* ifp = row.upstream ? up : eth1;
        make_group(eth1, G2, include({{1, 100}}), host);
        const std::string g2 = describe(group(eth1, G2));
        forget_kernel_calls();
        ifp->mld_version = 7;
        const uint64_t due = ifp->query_due_ms = 17;
        bytes msg = row.type == kTypeV2Report ? v2_report({record(TO_EX, G1, {})})  // 28 bytes
                                              : v1_message(row.type, G1);
        msg.resize(28);
        hear(ifp, msg, row.len, row.own ? ip6("fe80::b") : host);
        const LinkCounters& c = ifp->counters;
        const RouterCounters& rc = router.counters;
        EXPECT_EQ("v" + std::to_string(ifp->mld_version) + " r" + std::to_string(c.reports_in) +
                      " q" + std::to_string(c.queries_in) + " own" + std::to_string(rc.own) +
                      " other" + std::to_string(rc.not_ours) + " bad" +
                      std::to_string(rc.malformed) + groups(ifp),
                  row.after);
        EXPECT_EQ(describe(group(eth1, G2)), g2);
        EXPECT_EQ(ifp->query_due_ms, due);
        EXPECT_TRUE(fake::kernel().sent_msgs.empty());
        if (row.upstream) {
            EXPECT_EQ(router.entries, group(eth1, G2)->entry);
            EXPECT_EQ(router.entries->next, nullptr);
            EXPECT_EQ(mfc_calls(), texts{});
        }
    }
}

// RFC 3810 section 5.2: a record is handled only when its header, sources and auxiliary data
// lie wholly inside what arrived; the walk ends at the first one that does not, or at a record
// for an address that is not multicast, whatever the counts claim; unknown types are stepped
// over. The buffer beyond what arrived holds the twelve ALLOW records of an earlier report,
// and nothing of the buffer is ever rewritten.
struct Rec {
    uint8_t type;
    addr6 group;
    std::vector<int> srcs;
    uint8_t aux = 0;  // Aux Data Len, in 32-bit words (written as zeros)
};
// A report claiming `nrec` records written at the start of router.buf, the rest left as it
// is; its length.
uint32_t write_report(uint16_t nrec, const std::vector<Rec>& recs) {
    bytes m = v2_report({});
    m[7] = static_cast<uint8_t>(nrec);
    for (const Rec& r : recs) {
        bytes b = record(r.type, r.group, r.srcs);
        b[1] = r.aux;
        m = m + b + bytes(4u * r.aux, 0);
    }
    EXPECT_LE(m.size(), router.buf_size);
    std::memcpy(router.buf, m.data(), m.size());
    return static_cast<uint32_t>(m.size());
}

TEST_F(ReceiveTest, RecordsAreHandledOnlyWhollyInsideWhatArrived) {
    struct Row {
        const char* name;
        uint16_t nrec;
        std::vector<Rec> recs;
        uint32_t cut;        // bytes of the report that did not arrive
        std::string groups;  // on eth1 afterwards, newest first
    };
    const addr6 G4 = grp(4), unicast = ip6("2001:db8::1");
    // clang-format off
    const std::vector<Row> rows = {
        {"a count of 12 with one record received", 12, {{TO_EX, G2, {}}}, 0, " G2"},
        {"sources running past the end", 2, {{ALLOW, G2, {2}}, {ALLOW, G3, {3, 4}}}, 8, " G2"},
        {"aux data running past the end", 2, {{ALLOW, G2, {2}}, {ALLOW, G3, {3}, 2}}, 4, " G2"},
        {"aux data inside is skipped", 2, {{ALLOW, G2, {2}, 1}, {ALLOW, G3, {3}}}, 0, " G3 G2"},
        {"a record ending exactly at the end", 1, {{ALLOW, G2, {2, 3}}}, 0, " G2"},
        {"a header cut short", 1, {{TO_EX, G2, {}}}, 1, ""},
        {"no records", 0, {{TO_EX, G2, {}}}, 0, ""},
        {"a record for a unicast address ends the report", 3,
         {{TO_EX, G1, {}}, {IS_IN, unicast, {1}}, {TO_EX, G2, {}}}, 0, " G1"},
        {"unknown record types 7 and 0 are stepped over", 4,
         {{ALLOW, G1, {1}}, {7, G2, {2}}, {0, G3, {}}, {ALLOW, G4, {4}}}, 0, " G4 G1"},
    };
    // clang-format on
    std::vector<Rec> earlier;
    for (int i = 1; i <= 12; i++) {
        earlier.push_back({ALLOW, ip6(("ff0e::a:" + std::to_string(i)).c_str()), {i}});
    }
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        restart();
        write_report(12, earlier);
        const auto len = static_cast<int>(write_report(row.nrec, row.recs) - row.cut);
        const bytes before(router.buf, router.buf + router.buf_size);
        handle_mld_message(&router, eth1, router.buf, host.data(), len);
        EXPECT_EQ(groups(eth1), row.groups);
        EXPECT_TRUE(std::equal(before.begin(), before.end(), router.buf));
    }
}

}  // namespace
