// Kernel cache-miss upcalls for traffic arriving upstream, delivered through the receive path
// as the kernel queues them on the router socket: im6_mif in host order, no arrival index.
// The upstream is on MIF 2, so a MIF read in the wrong byte order never matches.
#include <cstddef>

#include "daemon/receive.h"
#include "listener_support.h"

using namespace mldproxy;

namespace {

using namespace lsn;

constexpr uint8_t NOCACHE = 1, WRONGMIF = 2, WHOLEPKT = 3;

class UpcallTest : public RouterTest {
  protected:
    void SetUp() override {
        RouterTest::SetUp();
        router.upstream = make_link("up0", 10, 2);
        router.active = 1;
        eth1 = make_link("eth1", 11, 1);  // the name the upcall handling dumps
        eth3 = make_link("eth3", 13, 3);
        const addr6 host = ip6("fe80::100:1");
        make_group(eth1, grp(1), include({{1, 260}}), host);
        make_group(eth3, grp(1), include({{1, 260}}), host);
        make_group(eth1, grp(2), exclude({}, {}, 260), host);
        forget_kernel_calls();
    }
    void deliver(uint8_t type, const addr6& s, const addr6& g, size_t extra) {
        std::vector<uint8_t> m(sizeof(Mrt6Msg) + extra);
        m[1] = type;
        uint16_t mif = router.upstream->mifi;
        std::memcpy(&m[offsetof(Mrt6Msg, im6_mif)], &mif, sizeof mif);
        std::memcpy(&m[offsetof(Mrt6Msg, im6_src)], s.data(), 16);
        std::memcpy(&m[offsetof(Mrt6Msg, im6_dst)], g.data(), 16);
        fake::datagram d{m, {}, 0, true};
        fake::kernel().datagrams.push_back(d);
        handle_input(&router, kProtoIcmpv6);
    }
    Link* eth1 = nullptr;
    Link* eth3 = nullptr;
};

struct UpcallRow {
    const char* name;
    uint8_t type;
    int source;
    const char* group;
    std::vector<std::string> kernel;
    size_t extra = 0;  // bytes after the 40 of an mrt6msg
};

TEST_F(UpcallTest, CacheMissesInstallWhatTheDatabaseForwards) {
    // clang-format off
    const std::vector<UpcallRow> rows = {
        {"NOCACHE for a source with marks on MIFs 1 and 3: (S,G) to both, parent the upstream",
         NOCACHE, 1, "ff0e::101", {"add 2001:db8::1 ff0e::101 parent 2 mifs 1,3"}},
        {"an upcall longer than an mrt6msg is recognised alike",
         NOCACHE, 1, "ff0e::101", {"add 2001:db8::1 ff0e::101 parent 2 mifs 1,3"}, 24},
        {"NOCACHE for a source nobody asked for, in a group without (*,G): (S,G) deleted",
         NOCACHE, 9, "ff0e::101", {"del 2001:db8::9 ff0e::101"}},
        {"NOCACHE for a group with a (::) record: its (*,G) entry forwards, nothing installed",
         NOCACHE, 1, "ff0e::102", {}},
        {"NOCACHE for a group unknown to the database: (S,G) deleted",
         NOCACHE, 1, "ff0e::103", {"del 2001:db8::1 ff0e::103"}},
        {"WRONGMIF changes nothing", WRONGMIF, 1, "ff0e::101", {}},
        {"WHOLEPKT changes nothing", WHOLEPKT, 1, "ff0e::101", {}},
        {"a destination that is not multicast does nothing", NOCACHE, 1, "2001:db8::ff", {}},
    };
    // clang-format on
    for (const UpcallRow& row : rows) {
        SCOPED_TRACE(row.name);
        forget_kernel_calls();
        capture_stdout();
        deliver(row.type, src(row.source), ip6(row.group), row.extra);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        EXPECT_EQ(mfc_calls(), row.kernel);
        EXPECT_EQ(fake::kernel().sent_msgs.size(), 0u);
    }
}

// The mf6cctl handed to MRT6_ADD_MFC in the kernel's native layout: origin at bytes 8..23,
// group at 36..51, parent MIF (16 bits) at 56, first ifset word at 60.
TEST_F(UpcallTest, InstalledEntryHasTheKernelLayout) {
    deliver(NOCACHE, src(1), grp(1), 0);
    std::vector<fake::sockopt_call> adds = fake::sockopts(kKLevel, MRT6_ADD_MFC_OPT);
    ASSERT_EQ(adds.size(), 1u);
    const std::vector<uint8_t>& v = adds[0].value;
    ASSERT_EQ(v.size(), 92u);
    EXPECT_EQ(ip6_text(&v[8]), "2001:db8::1");
    EXPECT_EQ(ip6_text(&v[36]), "ff0e::101");
    uint16_t parent;
    uint32_t ifset;
    std::memcpy(&parent, &v[56], sizeof parent);
    std::memcpy(&ifset, &v[60], sizeof ifset);
    EXPECT_EQ(parent, 2);
    EXPECT_EQ(ifset, (1u << 1) | (1u << 3));
}

}  // namespace
