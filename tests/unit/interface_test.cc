// Interface records: the options of each link's raw ICMPv6 socket that traffic cannot show, what
// a failed creation prints and releases, role and buffer from name and MTU.
#include <netinet/icmp6.h>
#include <sys/select.h>

#include "test_support.h"

namespace {

using InterfaceTest = RouterTest;

LinkDesc desc_of(const char* name, uint32_t ifindex, const char* addr = "fe80::1") {
    LinkDesc d{};
    copy_ifname(d.name, name);
    addr6 a = ip6(addr);
    std::memcpy(d.addr, a.data(), 16);
    d.ifindex = ifindex;
    return d;
}

// Our own messages are not looped back, and the ICMPv6 filter lets only MLD through (queries,
// MLDv1 reports and dones, MLDv2 reports). The lab shows the other options at work: hop limit 1
// and Router Alert (tests/lab/test_downstream_wire.sh), the link's own address, reports and
// dones received through the memberships of ff02::16 and ff02::2, and the kernel's checksums.
TEST_F(InterfaceTest, NoLoopbackAndOnlyMldThroughTheFilter) {
    ASSERT_NE(make_link("eth1", 7, 0), nullptr);
    EXPECT_EQ(fake::sockopts(41, IPV6_MULTICAST_LOOP), std::vector<bytes>{int_bytes(0)});
    const auto filter = fake::sockopts(58, ICMP6_FILTER);
    icmp6_filter f;
    ASSERT_EQ(filter.size(), 1u);
    ASSERT_EQ(filter[0].size(), sizeof f);
    std::memcpy(&f, filter[0].data(), sizeof f);
    std::vector<int> pass;
    for (int t = 0; t < 256; t++) {
        if (ICMP6_FILTER_WILLPASS(t, &f)) {
            pass.push_back(t);
        }
    }
    EXPECT_EQ(pass, (std::vector<int>{130, 131, 132, 143}));
}

// Rows 0-8 refuse that option, row 9 the socket; in row 10 the MTU query takes FD_SETSIZE - 1
// and the interface socket FD_SETSIZE, which select() could never watch.
TEST_F(InterfaceTest, FailedCreationPrintsWhyAndReleasesEverything) {
    const char* const options[] = {
        "SO_REUSEADDR",    "IPV6_MULTICAST_HOPS",  "IPV6_MULTICAST_LOOP",
        "IP_MULTICAST_IF", "IPV6_ADD_MEMBERSHIP1", "IPV6_ADD_MEMBERSHIP2",
        "IPV6_CHECKSUM",   "IPV6_RECVPKTINFO",     "ICMP Filter"};
    auto& k = fake::kernel();
    for (int row = 0; row <= 10; row++) {
        const std::string out =
            row < 9 ? "MLDRT: SetSockOpt failed for " + std::string(options[row]) +
                          ": setsockopt: Permission denied\n"
            : row == 9 ? "MLDRT: Cant open interface socket: socket: Operation not permitted\n"
                       : "MLDRT: Cant open interface socket\n";
        SCOPED_TRACE(out);
        k.sockets.clear();
        k.closed.clear();
        k.socket_result = row == 9 ? -1 : 0;
        k.next_fd = row == 10 ? FD_SETSIZE - 1 : 600 + 10 * row;
        k.sockopt_result = [row, n = 0](const fake::sockopt_call&) mutable {
            return n++ == row ? -1 : 0;
        };
        LinkDesc d = desc_of("eth1", 7);
        Link* ifp = nullptr;
        EXPECT_EQ(stdout_of([&] { ifp = add_link(&router, &d, 0); }), out);
        EXPECT_EQ(ifp, nullptr);
        EXPECT_EQ(router.interfaces, nullptr);
        for (const auto& s : k.sockets) {
            EXPECT_EQ(std::count(k.closed.begin(), k.closed.end(), s.fd), 1) << s.fd;
        }
    }
    k.sockopt_result = nullptr;
    k.socket_result = 0;
}

// Only the configured name exactly makes the upstream (whose address is the router's own
// upstream address); every other link is a querier. The message buffer is the link's MTU, 2048
// bytes when it cannot be read.
TEST_F(InterfaceTest, RoleAndBufferFollowNameAndMtu) {
    const std::vector<std::tuple<const char*, int, bool, uint32_t>> rows = {
        {"up0", 1500, true, 1500}, {"eth1", 9000, false, 9000}, {"up00", 1500, false, 1500},
        {"up", 1500, false, 1500}, {"UP0", 1500, false, 1500},  {"eth1", -1, false, 2048}};
    for (const auto& [name, mtu, upstream, buf_size] : rows) {
        SCOPED_TRACE(testing::Message() << name << " mtu " << mtu);
        fake::kernel().mtu = mtu;
        std::memset(router.upstream_addr, 0, 16);
        LinkDesc d = desc_of(name, 7, "fe80::abcd");
        Link* ifp = add_link(&router, &d, 4);
        ASSERT_NE(ifp, nullptr);
        EXPECT_EQ(std::vector<int64_t>({ifp->is_upstream, ifp->querier, ifp->buf_size}),
                  std::vector<int64_t>({upstream, !upstream, buf_size}));
        EXPECT_EQ(ip6_text(router.upstream_addr), upstream ? "fe80::abcd" : "::");
        std::memset(ifp->buf, 0xa5, ifp->buf_size);  // ASan: the buffer really is that big
        delete_all_links(&router);
    }
}

}  // namespace
