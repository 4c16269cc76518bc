// Acceptance of received MLD messages, the link's MLD version, and the walk over an MLDv2
// report's records inside what arrived. Messages are written in wire order
// into router.buf, where the receive path puts them.

#include <algorithm>
#include <functional>

#include "listener_support.h"

using namespace mldproxy;

namespace {

using namespace lsn;

class DispatchTest : public ListenerTest {
  public:  // the table rows below write messages through these
    // A report header at the start of router.buf claiming `nrec` records; the first record
    // goes at the offset returned.
    uint32_t report(uint16_t nrec) {
        std::memset(router.buf, 0, router.buf_size);
        router.buf[0] = kTypeV2Report;
        router.buf[6] = static_cast<uint8_t>(nrec >> 8);
        router.buf[7] = static_cast<uint8_t>(nrec);
        return kReportHdrLen;
    }
    // A record at `off`: type, Aux Data Len, Number of Sources (`claimed`, network order),
    // group, and the sources given. Returns the offset after its sources.
    uint32_t put(uint32_t off, uint8_t type, const addr6& g, const std::vector<int>& srcs,
                 uint8_t aux = 0, int claimed = -1) {
        uint16_t n = static_cast<uint16_t>(claimed < 0 ? srcs.size() : claimed);
        uint8_t* r = router.buf + off;
        r[0] = type;
        r[1] = aux;
        r[2] = static_cast<uint8_t>(n >> 8);
        r[3] = static_cast<uint8_t>(n);
        std::memcpy(r + 4, g.data(), 16);
        off += kMcastRecHdrLen;
        for (int s : srcs) {
            EXPECT_LE(off + 16, router.buf_size);
            std::memcpy(router.buf + off, src(s).data(), 16);
            off += 16;
        }
        return off;
    }
    void receive(Link* ifp, int len, const addr6& from) {
        handle_mld_message(&router, ifp, router.buf, from.data(), len);
    }
    void receive(int len = 2048) { receive(eth1, len, host); }
    const addr6 G2 = grp(2), G3 = grp(3), G4 = grp(4);
};

constexpr uint8_t IS_IN = code(RecordType::ModeIsInclude);
constexpr uint8_t TO_EX = code(RecordType::ChangeToExclude);
constexpr uint8_t ALLOW = code(RecordType::AllowNewSources);

TEST_F(DispatchTest, OwnTransmissionLoopedBackIsIgnored) {
    put(report(1), TO_EX, G1, {});
    eth1->mld_version = 1;
    addr6 own;
    std::memcpy(own.data(), eth1->addr, 16);
    receive(eth1, 28, own);
    EXPECT_EQ(eth1->groups, nullptr);
    EXPECT_EQ(eth1->mld_version, 1);
    EXPECT_EQ(fake::kernel().sockopts.size(), 0u);
}

// RFC 3810 section 8.1 tells an MLDv1 query by its length of 24 bytes; every other length,
// the 25 to 27 bytes that the RFC ignores included, counts as MLDv2 here.
TEST_F(DispatchTest, LinkVersionIsThatOfTheLastQueryHeard) {
    struct {
        uint8_t type;
        int len;
        int32_t version;
    } const rows[] = {
        {kTypeQuery, 24, 1},
        {kTypeQuery, 25, 2},
        {kTypeQuery, 28, 2},
        // Reports and unknown types leave the version as it was: only queries set it.
        {kTypeV1Report, 24, 7},
        {kTypeV1Done, 24, 7},
        {kTypeV2Report, 8, 7},
        {0, 24, 7},
        {200, 28, 7},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE("type " + std::to_string(row.type) + ", " + std::to_string(row.len) +
                     " bytes");
        std::memset(router.buf, 0, 28);
        router.buf[0] = row.type;
        std::memcpy(router.buf + 8, G1.data(), 16);
        eth1->mld_version = 7;
        receive(row.len);
        EXPECT_EQ(eth1->mld_version, row.version);
    }
}

// The upstream side is the host side: reports heard there are not listener state.
TEST_F(DispatchTest, ReportOnTheUpstreamChangesNothing) {
    put(report(1), TO_EX, G1, {});
    receive(up, 28, host);
    EXPECT_EQ(up->groups, nullptr);
    EXPECT_EQ(router.mfdb_list, nullptr);
    EXPECT_EQ(mfc_calls(), std::vector<std::string>{});
}

TEST_F(DispatchTest, NonMulticastRecordEndsTheWholeReport) {
    uint32_t off = put(report(3), TO_EX, G1, {});
    off = put(off, IS_IN, ip6("2001:db8::1"), {1});
    put(off, TO_EX, G2, {});
    receive();
    EXPECT_EQ(describe(group(eth1, G1)), describe(exclude({}, {}, 260)));
    EXPECT_EQ(eth1->groups->next, nullptr);
    EXPECT_STREQ(router.group_text, "ff0e::101");  // the last record handled
}

TEST_F(DispatchTest, UnknownRecordTypesAreSkipped) {
    uint32_t off = put(report(4), ALLOW, G1, {1});
    off = put(off, 7, G2, {2});
    off = put(off, 0, G3, {});
    put(off, ALLOW, G4, {4});
    receive();
    EXPECT_EQ(describe(group(eth1, G1)), describe(include({{1, 260}})));
    EXPECT_EQ(group(eth1, G2), nullptr);
    EXPECT_EQ(group(eth1, G3), nullptr);
    EXPECT_EQ(describe(group(eth1, G4)), describe(include({{4, 260}})));
}

TEST_F(DispatchTest, ReportWithZeroRecordsDoesNothing) {
    put(report(0), TO_EX, G1, {});
    receive();
    EXPECT_EQ(eth1->groups, nullptr);
    EXPECT_EQ(router.mfdb_list, nullptr);
}

// RFC 3810 section 5.2: a record is handled only when its header, its sources and its
// auxiliary data lie wholly inside what arrived; the walk ends at the first one that does not,
// whatever the counts claim and whatever an earlier message left in the buffer. `len` is the
// length received; the buffer beyond it holds the twelve ALLOW records of an earlier report.
TEST_F(DispatchTest, RecordsAreHandledOnlyWhollyInsideWhatArrived) {
    struct Row {
        const char* name;
        std::function<uint32_t(DispatchTest*)> write;  // returns the length received
        std::vector<std::string> groups;               // groups on eth1 afterwards
    };
    const std::vector<Row> rows = {
        {"a count of 12 with one record received",
         [](DispatchTest* t) { return t->put(t->report(12), TO_EX, t->G2, {}); },
         {"ff0e::102"}},
        {"sources running past the end",
         [](DispatchTest* t) {
             uint32_t off = t->put(t->report(2), ALLOW, t->G2, {2});
             return t->put(off, ALLOW, t->G3, {3, 4}) - 8;
         },
         {"ff0e::102"}},
        {"auxiliary data running past the end",
         [](DispatchTest* t) {
             uint32_t off = t->put(t->report(2), ALLOW, t->G2, {2});
             return t->put(off, ALLOW, t->G3, {3}, 2) + 4;  // 8 bytes of aux data, 4 arrived
         },
         {"ff0e::102"}},
        {"auxiliary data inside is stepped over",
         [](DispatchTest* t) {
             uint32_t off = t->put(t->report(2), ALLOW, t->G2, {2}, 1) + 4;
             return t->put(off, ALLOW, t->G3, {3});
         },
         {"ff0e::103", "ff0e::102"}},
        {"a record ending exactly at the end",
         [](DispatchTest* t) {
             return t->put(t->report(1), ALLOW, t->G2, {2, 3});
         },
         {"ff0e::102"}},
        {"a header cut short",
         [](DispatchTest* t) { return t->put(t->report(1), TO_EX, t->G2, {}) - 1; },
         {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        restart();
        // What the earlier report left: twelve ALLOW records for ff0e::a:1 ... ff0e::a:c.
        uint32_t off = report(12);
        for (int i = 1; i <= 12; i++) {
            off = put(off, ALLOW, ip6(("ff0e::a:" + std::to_string(i)).c_str()), {i});
        }
        uint32_t len = row.write(this);
        const std::vector<uint8_t> before(router.buf, router.buf + router.buf_size);
        receive(static_cast<int>(len));
        std::vector<std::string> groups;
        for (const Group* g = eth1->groups; g; g = g->next) {
            groups.push_back(ip6_text(g->grp_addr));
        }
        EXPECT_EQ(groups, row.groups);
        EXPECT_TRUE(std::equal(before.begin(), before.end(), router.buf));  // never rewritten
    }
}

}  // namespace
