
#include "test_support.h"

using namespace mldproxy;

namespace {

class MrouteTest : public RouterTest {
  protected:
    void SetUp() override {
        RouterTest::SetUp();
        upstream.mifi = 3;
        link.mifi = 5;
        link.ifindex = 0x1234;
    }
    Link upstream{};
    Link link{};
};

// Fields written in host order (the kernel's records are native-endian) at their offsets.
void put16(std::vector<uint8_t>& v, size_t off, uint16_t x) {
    std::memcpy(&v[off], &x, 2);
}
void put32(std::vector<uint8_t>& v, size_t off, uint32_t x) {
    std::memcpy(&v[off], &x, 4);
}

// mf6cctl: origin sockaddr_in6 at 0 (address at 8), group at 28 (address at 36), parent at 56,
// ifset words at 60.
std::vector<uint8_t> mf6cctl_bytes(const addr6& s, const addr6& g, uint16_t parent, uint32_t word) {
    std::vector<uint8_t> v(92, 0);
    std::memcpy(&v[8], s.data(), 16);
    std::memcpy(&v[36], g.data(), 16);
    put16(v, 56, parent);
    put32(v, 60, word);
    return v;
}

std::vector<uint8_t> oifs_of(std::initializer_list<int> mifs) {
    std::vector<uint8_t> oifs(32, 0);  // exactly 32 bytes: reading byte 32 trips ASan
    for (int m : mifs) {
        oifs[m] = 1;
    }
    return oifs;
}

TEST_F(MrouteTest, EachOperationUsesItsOptionLengthAndFailureMessage) {
    const addr6 g = ip6("ff0e::1234"), s = ip6("2001:db8::1"), any{};
    auto oifs = oifs_of({1});
    router.upstream = &upstream;
    struct Row {
        const char* name;
        std::function<int()> call;
        int option;
        size_t length;
        const char* failure;
    };
    const std::vector<Row> rows = {
        {"init", [&] { return kernel_start_routing(router.router_sock); }, 200, 4,
         "MLDRT: Setsockopt error on MRT6_INIT: setsockopt: Permission denied\n"},
        {"done", [&] { return kernel_stop_routing(router.router_sock); }, 201, 0,
         "MLDRT: Setsockopt error on MRT_DONE: setsockopt: Permission denied\n"},
        {"add MIF", [&] { return kernel_add_mif(router.router_sock, link.mifi, link.ifindex); },
         202, 12, "MLDRT: Setsockopt error on MRT_ADD_MIF: setsockopt: Permission denied\n"},
        {"delete MIF",
         [&] { return kernel_delete_mif(router.router_sock, link.mifi, link.ifindex); }, 203, 12,
         "MLDRT: Setsockopt error on MRT_DEL_VIF: setsockopt: Permission denied\n"},
        {"add (S,G)", [&] { return write_kernel_entry(&router, g.data(), s.data(), oifs.data()); },
         204, 92, "MLDRT: Setsockopt error on MRT_ADD_MFC: setsockopt: Permission denied\n"},
        {"delete (::,G)",
         [&] { return kernel_delete_mfc(router.router_sock, g.data(), any.data()); }, 205, 92,
         "MLDRT: Setsockopt error on MRT_DEL_ADD_MFC: setsockopt: Permission denied\n"},
        {"delete (S,G) fails silently",
         [&] { return kernel_delete_mfc(router.router_sock, g.data(), s.data()); }, 205, 92, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        fake::kernel().sockopts.clear();
        fake::kernel().sockopt_result = nullptr;
        EXPECT_EQ(stdout_of([&] { EXPECT_EQ(row.call(), 0); }), "");
        ASSERT_EQ(fake::kernel().sockopts.size(), 1u);
        const auto& c = fake::kernel().sockopts[0];
        EXPECT_EQ(c.fd, router.router_sock);
        EXPECT_EQ(c.level, 41);
        EXPECT_EQ(c.name, row.option);
        EXPECT_EQ(c.value.size(), row.length);
        EXPECT_EQ(c.null_value, row.length == 0);
        if (row.option == 200) {
            int v = 0;
            std::memcpy(&v, c.value.data(), 4);
            EXPECT_EQ(v, 1);
        }
        fake::kernel().sockopt_result = [](const fake::sockopt_call&) { return -1; };
        EXPECT_EQ(stdout_of([&] { EXPECT_EQ(row.call(), -1); }), row.failure);
    }
    fake::kernel().sockopt_result = nullptr;
}

TEST_F(MrouteTest, MifRecordHoldsMifAndIndexWithZeroFlagsThresholdAndRate) {
    ASSERT_EQ(kernel_add_mif(router.router_sock, link.mifi, link.ifindex), 0);
    ASSERT_EQ(kernel_delete_mif(router.router_sock, link.mifi, link.ifindex), 0);
    ASSERT_EQ(fake::kernel().sockopts.size(), 2u);
    EXPECT_EQ(fake::kernel().sockopts[0].value, mif_bytes(5, 0x1234));
    EXPECT_EQ(fake::kernel().sockopts[1].value, mif_bytes(5, 0x1234));
}

TEST_F(MrouteTest, MifThatTheKernelCannotHoldIsRefusedWithoutSyscall) {
    struct Row {
        uint32_t ifindex;
        uint16_t mifi;
        bool accepted;
    };
    for (const Row& row : std::vector<Row>{
             {65535, 31, true}, {70000, 0, false}, {65536, 0, false}, {7, 32, false}}) {
        SCOPED_TRACE(testing::Message() << "ifindex " << row.ifindex << " mif " << row.mifi);
        fake::kernel().sockopts.clear();
        link.ifindex = row.ifindex;
        link.mifi = row.mifi;
        int rc = 0;
        std::string out =
            stdout_of([&] { rc = kernel_add_mif(router.router_sock, link.mifi, link.ifindex); });
        EXPECT_EQ(rc, row.accepted ? 0 : -1);
        EXPECT_EQ(out, row.accepted ? "" : "MLDRT: Setsockopt error on MRT_ADD_MIF\n");
        EXPECT_EQ(fake::kernel().sockopts.size(), row.accepted ? 1u : 0u);
    }
}

TEST_F(MrouteTest, OutputArrayByteSetsItsIfsetBit) {
    bytes beyond(40, 7);
    std::fill(beyond.begin(), beyond.begin() + 32, 0);
    const std::vector<std::pair<bytes, uint32_t>> rows = {
        {oifs_of({}), 0},
        {oifs_of({0}), 0x1},
        {oifs_of({5}), 0x20},
        {oifs_of({31}), 0x80000000u},
        {oifs_of({0, 5, 31}), 0x80000021u},
        {beyond, 0},  // bytes 32..39 name MIFs the kernel cannot have
    };
    for (size_t i = 0; i < rows.size(); i++) {
        EXPECT_EQ(ifset_word(rows[i].first.data()), rows[i].second) << "row " << i;
    }
}

TEST_F(MrouteTest, ForwardingEntryBytes) {
    const addr6 g = ip6("ff0e::1234"), s = ip6("2001:db8::1"), any{};
    auto oifs = oifs_of({1, 7});
    router.upstream = &upstream;
    ASSERT_EQ(write_kernel_entry(&router, g.data(), s.data(), oifs.data()), 0);
    ASSERT_EQ(write_kernel_entry(&router, g.data(), any.data(), oifs.data()), 0);
    ASSERT_EQ(kernel_delete_mfc(router.router_sock, g.data(), any.data()), 0);
    ASSERT_EQ(kernel_delete_mfc(router.router_sock, g.data(), s.data()), 0);
    const auto& calls = fake::kernel().sockopts;
    ASSERT_EQ(calls.size(), 4u);
    // (S,G): parent is the upstream MIF, which is not an output.
    EXPECT_EQ(calls[0].value, mf6cctl_bytes(s, g, 3, (1u << 1) | (1u << 7)));
    // (*,G): Linux forwards with it only what arrives on a MIF of its set, so upstream is in.
    EXPECT_EQ(calls[1].value, mf6cctl_bytes(any, g, 3, (1u << 1) | (1u << 3) | (1u << 7)));
    EXPECT_EQ(calls[2].value, mf6cctl_bytes(any, g, 0, 0));
    EXPECT_EQ(calls[3].value, mf6cctl_bytes(s, g, 0, 0));
    EXPECT_EQ(calls[2].name, 205);
}

TEST_F(MrouteTest, AddWithoutUpstreamMakesNoCallAndNoMessage) {
    const addr6 g = ip6("ff0e::1"), any{};
    auto oifs = oifs_of({1});
    int rc = 0;
    EXPECT_EQ(
        stdout_of([&] { rc = write_kernel_entry(&router, g.data(), any.data(), oifs.data()); }),
        "");
    EXPECT_EQ(rc, -1);
    EXPECT_TRUE(fake::kernel().sockopts.empty());
}

}  // namespace
