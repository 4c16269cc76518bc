
#include <cstring>
#include <string>

#include "daemon/receive.h"
#include "test_support.h"

using namespace mldproxy;

namespace {

class ReceiveTest : public RouterTest {};

// A 24-byte MLDv1 general query from another router: once handed to the MLD handling it sets
// the arrival link's MLD version to 1, and nothing else on a downstream link.
fake::datagram v1_query(bool with_pktinfo, uint32_t ifindex) {
    fake::datagram d{};
    d.payload.assign(24, 0);
    d.payload[0] = 130;
    addr6 src = ip6("fe80::99");
    std::memcpy(d.src, src.data(), 16);
    d.ifindex = ifindex;
    d.with_pktinfo = with_pktinfo;
    return d;
}

TEST_F(ReceiveTest, RouterSocketDatagramIsReadOnlyWhenItCanBeHandled) {
    Link* up = make_link("up0", 2, 0);
    Link* eth1 = make_link("eth1", 7, 1);
    const size_t options = fake::kernel().sockopts.size();
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
        {"no upstream: left queued", false, 0, 58, true, 7, 0, 1, "", 2},
        {"not ICMPv6: left queued", true, 1, 17, true, 7, 0, 1, "", 2},
        {"inactive: read and dropped", true, 0, 58, true, 7, 1, 0, "", 2},
        {"no PKTINFO", true, 1, 58, false, 7, 1, 0,
         "MLDRT: Could not get receive interface info index was 0\n", 2},
        {"unknown arrival index: dropped silently", true, 1, 58, true, 99, 1, 0, "", 2},
        {"known arrival link: handed on", true, 1, 58, true, 7, 1, 0, "", 1},
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
        EXPECT_EQ(k.sockopts.size(), options);
    }
}

TEST_F(ReceiveTest, InterfaceSocketDatagramIsReadWithoutWaitingAndDropped) {
    Link* eth1 = make_link("eth1", 7, 0);
    fake::kernel().datagrams.push_back(v1_query(true, 7));
    EXPECT_EQ(handle_other_message(&router, eth1), 24);
    EXPECT_EQ(handle_other_message(&router, eth1), -1);
    EXPECT_EQ(fake::kernel().recvmsg_flags, (std::vector<int>{MSG_DONTWAIT, MSG_DONTWAIT}));
    EXPECT_EQ(eth1->mld_version, 2);
}

// A kernel upcall is a whole mrt6msg: a datagram of 39 bytes that starts like one is no upcall
// (it reaches the MLD handling as an unknown type), whatever the buffer held beyond it.
TEST_F(ReceiveTest, OnlyAWholeMrt6msgIsAnUpcall) {
    Link* up = make_link("up0", 2, 0);
    router.upstream = up;
    router.active = 1;
    for (size_t len : {40u, 39u}) {
        SCOPED_TRACE(std::to_string(len) + " bytes");
        router.counters = {};
        fake::kernel().sockopts.clear();
        Mrt6Msg m{};
        m.im6_msgtype = MRT6MSG_NOCACHE_TYPE;
        m.im6_mif = up->mifi;
        addr6 g = ip6("ff0e::1:1"), s = ip6("2001:db8::1");
        std::memcpy(m.im6_dst, g.data(), 16);
        std::memcpy(m.im6_src, s.data(), 16);
        std::memcpy(router.buf, &m, sizeof m);  // what an earlier upcall left
        fake::datagram d{};
        d.payload.assign(reinterpret_cast<uint8_t*>(&m), reinterpret_cast<uint8_t*>(&m) + len);
        d.with_pktinfo = true;  // upcalls arrive with PKTINFO index 0
        fake::kernel().datagrams.push_back(d);
        EXPECT_TRUE(handle_input(&router, kProtoIcmpv6));
        // The whole upcall for a group nobody listens to removes its cache entry; the short
        // one is a message for no link of ours.
        EXPECT_EQ(fake::sockopts(kKLevel, MRT6_DEL_MFC_OPT).size(), len == 40 ? 1u : 0u);
        EXPECT_EQ(router.counters.not_ours, len == 40 ? 0u : 1u);
    }
}

}  // namespace
