// MLD encodings, byte for byte: Maximum Response Code, QQIC and QRV as a query carries them,
// multicast address records, and the small record helpers.

#include "test_support.h"

namespace {

class FormatTest : public RouterTest {
  protected:
    // Bytes 4-5, 24 and 25 of a general query sent on an MLDv2 link.
    std::vector<uint8_t> query_fields() {
        if (!ifp) {
            ifp = add_link("eth2", 20, 2);
        }
        fake::kernel().sent_msgs.clear();
        mldrt_query_params q{};
        q.dst[0] = 0xff;
        mldrt_send_query(&router, ifp, &q);
        if (fake::kernel().sent_msgs.size() != 1) {
            return {};
        }
        const auto& p = fake::kernel().sent_msgs[0].payload;
        return {p[4], p[5], p[24], p[25]};
    }
    mldrt_interface* ifp = nullptr;
};

TEST_F(FormatTest, MaximumResponseCodeUsesFloatingFormFrom32768Ms) {
    struct Row {
        const char* name;
        uint32_t ms;
        uint8_t hi, lo;
    };
    const std::vector<Row> rows = {
        {"Zero", 0, 0x00, 0x00},
        {"LargestLinear", 32767, 0x7f, 0xff},
        {"FirstFloating", 32768, 0x80, 0x00},  // exponent 0, mantissa 0
        {"Exponent1", 100000, 0x98, 0x6a},     // 100000 >> 4 = 6250 = 0x1000 + 0x86a
        {"LargestFloating", 8387584, 0xff, 0xff},
        {"TruncatedBelowNextStep", 8388607, 0xff, 0xff},
        {"BeyondKeepsLow16Bits", 8388608, 0x00, 0x00},
        {"BeyondKeepsLow16BitsToo", 8400000, 0x2c, 0x80},
        {"Largest32Bit", 0xffffffffu, 0xff, 0xff},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        router.query_response_interval = row.ms;
        const std::vector<uint8_t> f = query_fields();
        ASSERT_EQ(f.size(), 4u);
        EXPECT_EQ(f[0], row.hi);
        EXPECT_EQ(f[1], row.lo);
        EXPECT_EQ(mldrt_encode_mrc(row.ms), (row.hi << 8) | row.lo);
    }
}

TEST_F(FormatTest, QqicUsesFloatingFormFrom128) {
    struct Row {
        const char* name;
        uint32_t seconds;
        uint8_t qqic;
    };
    const std::vector<Row> rows = {
        {"Usual", 125, 125},
        {"LargestLinear", 127, 127},
        {"FirstFloating", 128, 0x80},
        {"Exponent2", 1000, 0xaf},  // 1000 >> 5 = 31 = 16 + 15
        {"LargestFloating", 31744, 0xff},
        {"TruncatedBelowNextStep", 31745, 0xff},
        {"LastTruncated", 32767, 0xff},
        {"BeyondKeepsLow8Bits", 32768, 0x00},
        {"BeyondKeepsLow8BitsToo", 40000, 0x40},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        router.query_interval = row.seconds;
        const std::vector<uint8_t> f = query_fields();
        ASSERT_EQ(f.size(), 4u);
        EXPECT_EQ(f[3], row.qqic);
        EXPECT_EQ(mldrt_encode_qqic(row.seconds), row.qqic);
    }
}

TEST_F(FormatTest, QrvCarriesRobustnessBelow8) {
    const std::vector<std::pair<uint32_t, uint8_t>> rows = {
        {1, 1}, {2, 2}, {7, 7}, {8, 0}, {10, 0}};
    for (const auto& [robustness, qrv] : rows) {
        SCOPED_TRACE(robustness);
        router.robustness = robustness;
        const std::vector<uint8_t> f = query_fields();
        ASSERT_EQ(f.size(), 4u);
        EXPECT_EQ(f[2], qrv) << "S flag clear, reserved bits zero";
    }
}

TEST(RecordFormatTest, RecordHeaderAndSourcesInNetworkOrder) {
    struct Row {
        const char* name;
        uint8_t type;
        int nsrc;
        uint32_t len;
        uint8_t n_hi, n_lo;
    };
    const std::vector<Row> rows = {
        {"NoSources", 4, 0, 20, 0, 0},
        {"ThreeSources", 5, 3, 68, 0, 3},
        {"ThreeHundredSources", 1, 300, 4820, 0x01, 0x2c},
    };
    const addr6 grp = ip6("ff0e::1:2");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::vector<mldrt_src> srcs(static_cast<size_t>(row.nsrc));
        for (int i = 0; i < row.nsrc; i++) {
            srcs[i].src_addr[0] = 0x20;
            srcs[i].src_addr[14] = static_cast<uint8_t>(i >> 8);
            srcs[i].src_addr[15] = static_cast<uint8_t>(i);
            srcs[i].next = i + 1 < row.nsrc ? &srcs[i + 1] : nullptr;
        }
        std::vector<uint8_t> buf(5000, 0xaa);
        const uint32_t len = mldrt_build_mcast_record(buf.data(), grp.data(), row.type,
                                                      srcs.empty() ? nullptr : &srcs[0]);
        EXPECT_EQ(len, row.len);
        EXPECT_EQ(buf[0], row.type);
        EXPECT_EQ(buf[1], 0) << "aux data length";
        EXPECT_EQ(buf[2], row.n_hi);
        EXPECT_EQ(buf[3], row.n_lo);
        EXPECT_EQ(std::memcmp(&buf[4], grp.data(), 16), 0);
        for (int i = 0; i < row.nsrc; i++) {
            ASSERT_EQ(std::memcmp(&buf[20 + 16 * i], srcs[i].src_addr, 16), 0) << "source " << i;
        }
        EXPECT_EQ(buf[row.len], 0xaa) << "nothing written past the record";
        EXPECT_EQ(mldrt_srclist_len(srcs.empty() ? nullptr : &srcs[0]),
                  static_cast<uint32_t>(row.nsrc));
    }
}

TEST(RecordFormatTest, RecordTypeFromFilterMode) {
    const std::vector<std::pair<uint32_t, uint8_t>> rows = {
        {0, 1}, {1, 2}, {2, 0}, {0xffffffffu, 0}};
    for (const auto& [mode, type] : rows) {
        SCOPED_TRACE(mode);
        EXPECT_EQ(mldrt_get_rectype_from_group_mode(mode), type);
    }
}

}  // namespace
