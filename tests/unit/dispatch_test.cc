// Acceptance of received MLD messages, the link's MLD version, and the walk over an MLDv2
// report's records inside the 2048-byte receive buffer. Messages are written in wire order
// into router.buf, where the receive path puts them.

#include "listener_support.h"

namespace {

using namespace lsn;

class DispatchTest : public ListenerTest {
  protected:
    // A report header at the start of router.buf claiming `nrec` records; the first record
    // goes at the offset returned.
    uint32_t report(uint16_t nrec) {
        std::memset(router.buf, 0, router.buf_size);
        router.buf[0] = MLDRT_TYPE_V2_REPORT;
        router.buf[6] = static_cast<uint8_t>(nrec >> 8);
        router.buf[7] = static_cast<uint8_t>(nrec);
        return MLDRT_REPORT_HDR_LEN;
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
        off += MLDRT_MCAST_REC_HDR_LEN;
        for (int s : srcs) {
            EXPECT_LE(off + 16, router.buf_size);
            std::memcpy(router.buf + off, src(s).data(), 16);
            off += 16;
        }
        return off;
    }
    void receive(mldrt_interface* ifp, int len, const addr6& from) {
        mldrt_handle_mld_message(&router, ifp, router.buf, from.data(), len);
    }
    void receive(int len = 2048) { receive(eth1, len, host); }
    const addr6 G2 = grp(2), G3 = grp(3), G4 = grp(4);
};

constexpr uint8_t IS_IN = MLDRT_REC_MODE_IS_INCLUDE;
constexpr uint8_t TO_EX = MLDRT_REC_CHANGE_TO_EXCLUDE;
constexpr uint8_t ALLOW = MLDRT_REC_ALLOW_NEW_SOURCES;

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
TEST_F(DispatchTest, LinkVersionIsThatOfTheLastQueryOrReportHeard) {
    struct {
        uint8_t type;
        int len;
        int32_t version;
    } const rows[] = {
        {MLDRT_TYPE_QUERY, 24, 1},
        {MLDRT_TYPE_QUERY, 25, 2},
        {MLDRT_TYPE_QUERY, 28, 2},
        {MLDRT_TYPE_V1_REPORT, 24, 1},
        {MLDRT_TYPE_V1_DONE, 24, 1},
        {MLDRT_TYPE_V2_REPORT, 8, 2},
        {0, 24, 7},  // unknown types leave the version as it was
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
    EXPECT_EQ(describe(group(eth1, G1)), describe(exclude({{0, 260}}, {}, 260)));
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

// The walk adds 20 + 16 x sources and never the Aux Data Len, as deployed: the record after
// one with auxiliary data is read that many bytes early. Here the 4 bytes of auxiliary data
// read as the start of an ALLOW record for ff0e::102 with no sources, whose group is the 16
// bytes that follow; read where RFC 3810 puts it, the next record would be of unknown type
// 0xff and skipped.
TEST_F(DispatchTest, AuxDataLenIsNotAddedSoTheNextRecordIsReadEarly) {
    uint32_t off = put(report(2), ALLOW, G1, {1}, 1);
    const uint8_t aux[4] = {ALLOW, 0, 0, 0};
    std::memcpy(router.buf + off, aux, 4);
    std::memcpy(router.buf + off + 4, G2.data(), 16);
    testing::internal::CaptureStdout();
    receive();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "\n FATAL: Allow record recievd with ZERO sources");
    EXPECT_EQ(describe(group(eth1, G1)), describe(include({{1, 260}})));
    EXPECT_EQ(describe(group(eth1, G2)), describe(include({})));
}

TEST_F(DispatchTest, ReportWithZeroRecordsDoesNothing) {
    put(report(0), TO_EX, G1, {});
    receive();
    EXPECT_EQ(eth1->groups, nullptr);
    EXPECT_EQ(router.mfdb_list, nullptr);
}

// Each count is turned into host order before its record is looked at, so also that of the
// non-multicast record that ends the report.
TEST_F(DispatchTest, NumberOfSourcesFieldsAreInHostOrderAfterTheLoop) {
    uint32_t second = put(report(3), IS_IN, G1, {1, 2});
    uint32_t third = put(second, ALLOW, G2, {3});
    put(third, IS_IN, ip6("2001:db8::1"), {1, 2, 3});
    receive();
    uint16_t n[3];
    std::memcpy(&n[0], router.buf + MLDRT_REPORT_HDR_LEN + 2, 2);
    std::memcpy(&n[1], router.buf + second + 2, 2);
    std::memcpy(&n[2], router.buf + third + 2, 2);
    EXPECT_EQ(n[0], 2);
    EXPECT_EQ(n[1], 1);
    EXPECT_EQ(n[2], 3);
}

// Counts come from the sender and are believed only as far as the receive buffer reaches: a
// record is handled when its header and all its sources lie inside the 2048 bytes. The last
// record here starts at 2012; with one source it ends exactly at the buffer's end.
TEST_F(DispatchTest, ReportClaimingMoreThanTheBufferHoldsStopsAtItsEnd) {
    for (int claimed : {1, 2}) {
        SCOPED_TRACE("sources claimed by the last record: " + std::to_string(claimed));
        restart();
        uint32_t off = put(report(0xffff), ALLOW, G1, {1});
        off = put(off, 7, G3, std::vector<int>(118, 9));
        for (int i = 0; i < 3; i++) {
            off = put(off, 7, G3, {});
        }
        ASSERT_EQ(off, 2012u);
        ASSERT_EQ(put(off, ALLOW, G2, {2}, 0, claimed), router.buf_size);
        receive();
        EXPECT_EQ(describe(group(eth1, G1)), describe(include({{1, 260}})));
        EXPECT_EQ(describe(group(eth1, G2)),
                  describe(claimed == 1 ? include({{2, 260}}) : no_group()));
    }
}

}  // namespace
