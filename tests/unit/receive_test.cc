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
        router.last_listener_query_interval = 1;
        router.last_listener_query_count = 2;
        up = make_link("up0", 10, 2);
        router.upstream = up;
        router.active = 1;
        eth1 = make_link("eth1", 11, 1);
        eth3 = make_link("eth3", 13, 3);
        forget_kernel_calls();
    }

  public:  // the table rows write messages through these
    // A report header at the start of router.buf claiming `nrec` records (the rest of the
    // buffer left as it is); the first record goes at the offset returned.
    uint32_t report(uint16_t nrec) {
        std::memset(router.buf, 0, kReportHeaderLen);
        router.buf[0] = kTypeV2Report;
        router.buf[7] = static_cast<uint8_t>(nrec);
        return kReportHeaderLen;
    }
    // A record at `off` with Aux Data Len `aux`; returns the offset after its sources.
    uint32_t put(uint32_t off, uint8_t type, const addr6& g, const std::vector<int>& srcs,
                 uint8_t aux = 0) {
        bytes r = record(type, g, srcs);
        r[1] = aux;
        EXPECT_LE(off + r.size(), router.buf_size);
        std::memcpy(router.buf + off, r.data(), r.size());
        return off + static_cast<uint32_t>(r.size());
    }
    texts groups(const Link* ifp) {
        texts out;
        for (const Group* g = ifp->groups; g; g = g->next) {
            out.push_back(grp_name(g->address));
        }
        return out;
    }
    Link* eth3 = nullptr;
};

// A 24-byte MLDv1 general query from another router: handed to the MLD handling, it sets the
// arrival link's MLD version to 1 and does nothing else on a downstream link.
fake::datagram v1_query(bool with_pktinfo, uint32_t ifindex) {
    fake::datagram d{bytes(24, 0),
                     {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x99},
                     ifindex,
                     with_pktinfo};
    d.payload[0] = kTypeQuery;
    return d;
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
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        auto& k = fake::kernel();
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
    fake::kernel().recvmsg_flags.clear();
    fake::kernel().datagrams.push_back(v1_query(true, 11));
    EXPECT_EQ(handle_other_message(&router, eth1), 24);
    EXPECT_EQ(handle_other_message(&router, eth1), -1);
    EXPECT_EQ(fake::kernel().recvmsg_flags, (std::vector<int>{MSG_DONTWAIT, MSG_DONTWAIT}));
    EXPECT_EQ(eth1->mld_version, 1);
}

constexpr uint8_t NOCACHE = 1, WRONGMIF = 2, WHOLEPKT = 3;

// eth1 and eth3 take (S1, G1), eth1 the whole of G2. An upcall installs what the database
// forwards, and only a whole mrt6msg is one: a datagram of 39 bytes that starts like one reaches
// the MLD handling (as a message for no link of ours), whatever the buffer held beyond it.
TEST_F(ReceiveTest, CacheMissUpcallsInstallWhatTheDatabaseForwards) {
    struct Row {
        const char* name;
        uint8_t type;
        int source;
        const char* group;
        texts kernel;
        size_t len = 40;
    };
    const std::string G1_S1 = "2001:db8::1 ff0e::101";
    const std::vector<Row> rows = {
        {"NOCACHE for a source with marks on MIFs 1 and 3: (S,G) to both, parent the upstream",
         NOCACHE,
         1,
         "ff0e::101",
         {"add " + G1_S1 + " parent 2 mifs 1,3"}},
        {"longer than an mrt6msg: an upcall alike",
         NOCACHE,
         1,
         "ff0e::101",
         {"add " + G1_S1 + " parent 2 mifs 1,3"},
         64},
        {"39 bytes: no upcall", NOCACHE, 1, "ff0e::101", {}, 39},
        {"NOCACHE for a source nobody asked for, in a group without (*,G): (S,G) deleted",
         NOCACHE,
         9,
         "ff0e::101",
         {"del 2001:db8::9 ff0e::101"}},
        {"NOCACHE for a group with a (::) record: its (*,G) entry forwards, nothing installed",
         NOCACHE,
         1,
         "ff0e::102",
         {}},
        {"NOCACHE for a group unknown to the database: (S,G) deleted",
         NOCACHE,
         1,
         "ff0e::103",
         {"del 2001:db8::1 ff0e::103"}},
        {"WRONGMIF changes nothing", WRONGMIF, 1, "ff0e::101", {}},
        {"WHOLEPKT changes nothing", WHOLEPKT, 1, "ff0e::101", {}},
        {"a destination that is not multicast does nothing", NOCACHE, 1, "2001:db8::ff", {}},
    };
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
        bytes msg(28, 0);
        msg[0] = row.type;
        if (row.type == kTypeV2Report) {  // one TO_EX{} record for G1
            msg = bytes{kTypeV2Report, 0, 0, 0, 0, 0, 0, 1} +
                  record(code(RecordType::ChangeToExclude), G1, {});
        } else {
            std::memcpy(&msg[8], G1.data(), 16);
        }
        hear(ifp, msg, row.len,
             row.own ? addr6{0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 11} : host);
        const LinkCounters& c = ifp->counters;
        const RouterCounters& rc = router.counters;
        std::string after = "v" + std::to_string(ifp->mld_version) + " r" +
                            std::to_string(c.reports_in) + " q" + std::to_string(c.queries_in) +
                            " own" + std::to_string(rc.own) + " other" +
                            std::to_string(rc.not_ours) + " bad" + std::to_string(rc.malformed);
        for (const Group* g = ifp->groups; g; g = g->next) {
            after += " " + grp_name(g->address);
        }
        EXPECT_EQ(after, row.after);
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

constexpr uint8_t IS_IN = code(RecordType::ModeIsInclude);
constexpr uint8_t TO_EX = code(RecordType::ChangeToExclude);
constexpr uint8_t ALLOW = code(RecordType::AllowNewSources);

// RFC 3810 section 5.2: a record is handled only when its header, its sources and its
// auxiliary data lie wholly inside what arrived; the walk ends at the first one that does not,
// or at a record for an address that is not multicast, whatever the counts claim. Unknown
// record types are stepped over. `len` is the length received; the buffer beyond it holds the
// twelve ALLOW records of an earlier report, and nothing of the buffer is ever rewritten.
TEST_F(ReceiveTest, RecordsAreHandledOnlyWhollyInsideWhatArrived) {
    struct Row {
        const char* name;
        std::function<uint32_t(ReceiveTest*)> write;  // returns the length received
        texts groups;                                 // groups on eth1 afterwards, newest first
    };
    using T = ReceiveTest;
    const std::vector<Row> rows = {
        {"a count of 12 with one record received",
         [](T* t) { return t->put(t->report(12), TO_EX, grp(2), {}); },
         {"G2"}},
        {"sources running past the end",
         [](T* t) {
             return t->put(t->put(t->report(2), ALLOW, grp(2), {2}), ALLOW, grp(3), {3, 4}) - 8;
         },
         {"G2"}},
        {"auxiliary data running past the end",
         [](T* t) {  // 8 bytes of aux data, 4 arrived
             return t->put(t->put(t->report(2), ALLOW, grp(2), {2}), ALLOW, grp(3), {3}, 2) + 4;
         },
         {"G2"}},
        {"auxiliary data inside is stepped over",
         [](T* t) {
             return t->put(t->put(t->report(2), ALLOW, grp(2), {2}, 1) + 4, ALLOW, grp(3), {3});
         },
         {"G3", "G2"}},
        {"a record ending exactly at the end",
         [](T* t) {
             return t->put(t->report(1), ALLOW, grp(2), {2, 3});
         },
         {"G2"}},
        {"a header cut short",
         [](T* t) { return t->put(t->report(1), TO_EX, grp(2), {}) - 1; },
         {}},
        {"no records", [](T* t) { return t->put(t->report(0), TO_EX, grp(2), {}); }, {}},
        {"a record for a unicast address ends the report",
         [](T* t) {
             uint32_t off = t->put(t->report(3), TO_EX, grp(1), {});
             return t->put(t->put(off, IS_IN, ip6("2001:db8::1"), {1}), TO_EX, grp(2), {});
         },
         {"G1"}},
        {"unknown record types 7 and 0 are stepped over",
         [](T* t) {
             uint32_t off = t->put(t->put(t->report(4), ALLOW, grp(1), {1}), 7, grp(2), {2});
             return t->put(t->put(off, 0, grp(3), {}), ALLOW, grp(4), {4});
         },
         {"G4", "G1"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        restart();
        uint32_t off = report(12);
        for (int i = 1; i <= 12; i++) {
            off = put(off, ALLOW, ip6(("ff0e::a:" + std::to_string(i)).c_str()), {i});
        }
        const auto len = static_cast<int>(row.write(this));
        const bytes before(router.buf, router.buf + router.buf_size);
        handle_mld_message(&router, eth1, router.buf, host.data(), len);
        EXPECT_EQ(groups(eth1), row.groups);
        EXPECT_TRUE(std::equal(before.begin(), before.end(), router.buf));
    }
}

}  // namespace
