// MLD encodings, byte for byte: Maximum Response Code, QQIC and QRV as a query carries them,
// multicast address records, and the small record helpers.
#include <algorithm>

#include "test_support.h"

using namespace mldproxy;

namespace {

class FormatTest : public RouterTest {
  protected:
    // Bytes 4-5, 24 and 25 of a general query sent on an MLDv2 link.
    bytes query_fields() {
        if (!ifp) {
            ifp = make_link("eth2", 20, 2);
        }
        fake::kernel().sent_msgs.clear();
        QueryParams q{};
        q.dst[0] = 0xff;
        send_query(&router, ifp, &q);
        if (fake::kernel().sent_msgs.size() != 1) {
            return {};
        }
        const auto& p = fake::kernel().sent_msgs[0].payload;
        return {p[4], p[5], p[24], p[25]};
    }
    Link* ifp = nullptr;
};

// Each row sets one configured value and expects bytes 4, 5, 24 and 25 of the query; the MRC
// and the QQIC also as the encoders return them.
TEST_F(FormatTest, MrcFloatingFrom32768MsQqicFrom128QrvOnlyBelow8) {
    struct Row {
        uint32_t* field;
        uint32_t value;
        bytes fields;
    };
    uint32_t *mrt = &router.query_response_interval, *qi = &router.query_interval;
    uint32_t* rv = &router.robustness;
    const std::vector<Row> rows = {
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
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << (row.field == mrt  ? "MRT "
                                            : row.field == qi ? "QI "
                                                              : "R ")
                                        << row.value);
        router.query_response_interval = 10000;
        router.query_interval = 125;
        router.robustness = 2;
        *row.field = row.value;
        EXPECT_EQ(query_fields(), row.fields);
        if (row.field == mrt) {
            EXPECT_EQ(encode_max_response_code(row.value), (row.fields[0] << 8) | row.fields[1]);
        } else if (row.field == qi) {
            EXPECT_EQ(encode_query_interval_code(row.value), row.fields[3]);
        }
    }
}

TEST(RecordFormatTest, RecordHeaderAndSourcesInNetworkOrder) {
    const addr6 grp = ip6("ff0e::1:2");
    // Type, number of sources; the record is the type, aux data length 0, the number of
    // sources in network order, the group and the sources 2000::<i>.
    for (const auto& [type, nsrc] :
         std::vector<std::pair<uint8_t, int>>{{4, 0}, {5, 3}, {1, 300}}) {
        SCOPED_TRACE(nsrc);
        std::vector<Source> srcs(static_cast<size_t>(nsrc));
        // Sized from the start: growing a 4-byte vector by the group makes gcc -O3 see a copy
        // out of bounds that is not there (-Warray-bounds).
        bytes expected(20 + 16 * static_cast<size_t>(nsrc));
        expected[0] = type;
        expected[2] = static_cast<uint8_t>(nsrc >> 8);
        expected[3] = static_cast<uint8_t>(nsrc);
        std::copy(grp.begin(), grp.end(), expected.begin() + 4);
        for (int i = 0; i < nsrc; i++) {
            srcs[i].src_addr[0] = 0x20;
            srcs[i].src_addr[14] = static_cast<uint8_t>(i >> 8);
            srcs[i].src_addr[15] = static_cast<uint8_t>(i);
            srcs[i].next = i + 1 < nsrc ? &srcs[i + 1] : nullptr;
            std::copy(srcs[i].src_addr, srcs[i].src_addr + 16, expected.begin() + 20 + 16 * i);
        }
        bytes buf(5000, 0xaa);
        const Source* first = srcs.empty() ? nullptr : &srcs[0];
        const uint32_t len =
            build_record(buf.data(), grp.data(), static_cast<RecordType>(type), first);
        EXPECT_EQ(len, 20u + 16u * nsrc);
        EXPECT_EQ(bytes(buf.begin(), buf.begin() + len), expected);
        EXPECT_EQ(buf[len], 0xaa) << "nothing written past the record";
        EXPECT_EQ(list_length(first), static_cast<uint32_t>(nsrc));
    }
}

TEST(RecordFormatTest, RecordTypeFromFilterMode) {
    EXPECT_EQ(current_state_record_type(FilterMode::Include), RecordType::ModeIsInclude);
    EXPECT_EQ(current_state_record_type(FilterMode::Exclude), RecordType::ModeIsExclude);
}

}  // namespace
