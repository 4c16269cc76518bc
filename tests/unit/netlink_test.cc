// Routing netlink: the dump requests, the batches read (every length checked against what
// arrived), the links and link-local addresses that make interface records and MIFs, and how
// records follow renames, MTU changes and deletions.
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <optional>

#include "test_support.h"

namespace {

// Netlink messages are in host byte order; addresses inside them in network order.
template <typename T>
bytes raw(const T& v) {
    const auto* p = reinterpret_cast<const uint8_t*>(&v);
    return bytes(p, p + sizeof v);
}

// `b` with the field at `off` set to `v` (host order, like every netlink field).
template <typename T>
bytes patched(bytes b, size_t off, T v) {
    std::memcpy(&b[off], &v, sizeof v);
    return b;
}

bytes nl(uint16_t type, const bytes& body) {
    nlmsghdr h{};
    h.nlmsg_len = static_cast<uint32_t>(sizeof h + body.size());
    h.nlmsg_type = type;
    bytes m = raw(h) + body;
    m.resize((m.size() + 3) & ~size_t{3});
    return m;
}

bytes rta(uint16_t type, const void* data, size_t len) {
    rtattr a{static_cast<unsigned short>(4 + len), type};
    // Sized from the start (padded to 4 bytes): growing the 4-byte header makes gcc -O3 see a
    // copy out of bounds that is not there (-Warray-bounds).
    bytes b((sizeof a + len + 3) & ~size_t{3}, 0);
    std::memcpy(b.data(), &a, sizeof a);
    if (len > 0) {
        std::memcpy(b.data() + sizeof a, data, len);
    }
    return b;
}

bytes a6(uint16_t type, const char* text) {
    addr6 a = ip6(text);
    return rta(type, a.data(), 16);
}

constexpr unsigned kUpMc = IFF_UP | IFF_MULTICAST;
const uint32_t kMtu = 1500;

// IFLA_IFNAME (with its terminator) at offset 32, then IFLA_MTU.
bytes link(uint16_t type, int index, unsigned flags, const std::string& name, bool mtu = true,
           uint32_t mtu_value = kMtu) {
    ifinfomsg ifi{};
    ifi.ifi_index = index;
    ifi.ifi_flags = flags;
    return nl(type, raw(ifi) + rta(IFLA_IFNAME, name.c_str(), name.size() + 1) +
                        (mtu ? rta(IFLA_MTU, &mtu_value, 4) : bytes{}));
}

bytes addr(uint32_t index, const bytes& attrs, uint8_t family = AF_INET6, uint16_t type = 20) {
    ifaddrmsg ifa{};
    ifa.ifa_family = family;
    ifa.ifa_prefixlen = 64;
    ifa.ifa_index = index;
    return nl(type, raw(ifa) + attrs);
}

bytes ll_addr(uint32_t index, const char* text = "fe80::1") {
    return addr(index, a6(IFA_ADDRESS, text));
}

class NetlinkTest : public RouterTest {
  protected:
    // The batch fills a receive buffer of exactly its size: ASan reports any read past it.
    void feed(const bytes& batch) {
        free(router.nl_buf);
        router.nl_buf = static_cast<uint8_t*>(calloc(1, std::max<size_t>(batch.size(), 1)));
        router.nl_buf_size = static_cast<uint32_t>(batch.size());
        fake::kernel().netlink_batches.push_back(batch);
        EXPECT_TRUE(handle_link(&router));
    }
    // The type of every dump request sent so far (18 links, 22 addresses).
    static std::vector<int> requests() {
        std::vector<int> types;
        for (const auto& m : fake::kernel().sent) {
            nlmsghdr h{};
            std::memcpy(&h, m.data(), std::min(m.size(), sizeof h));
            types.push_back(h.nlmsg_type);
        }
        return types;
    }
};

// A socket or bind failure is named and sends nothing; then both dump requests share one
// socket. (tests/lab/test_interfaces.sh needs both dumps and the bound groups' notifications.)
TEST_F(NetlinkTest, DumpSocketFailuresAreNamedAndBothDumpsShareOneSocket) {
    int32_t sock = 0;
    auto& k = fake::kernel();
    k.socket_result = -1;
    EXPECT_EQ(stdout_of([&] { EXPECT_EQ(request_netlink_dump(&sock, RTM_GETLINK, 0), -1); }),
              "MLDRT: Can't open bcast socket: socket: Operation not permitted\n");
    k.socket_result = 0;
    k.bind_result = -1;
    EXPECT_EQ(stdout_of([&] { EXPECT_EQ(request_netlink_dump(&sock, RTM_GETLINK, 0), -1); }),
              "MLDRT: Can't bind bcast socket: bind: Address already in use\n");
    EXPECT_EQ(k.closed, std::vector<int>{k.sockets.at(0).fd});
    EXPECT_TRUE(k.sent.empty());
    EXPECT_EQ(sock, 0);
    k.bind_result = 0;
    k.sockets.clear();
    ASSERT_EQ(request_netlink_dump(&sock, RTM_GETLINK, 0), 0);
    ASSERT_EQ(request_netlink_dump(&sock, RTM_GETADDR, 1), 0);
    EXPECT_EQ(k.sockets.size(), 1u);
    EXPECT_EQ(requests(), (std::vector<int>{RTM_GETLINK, RTM_GETADDR}));
}

// A link-local address of a multicast link makes its record and MIF; links are applied where
// they are read; the start-up dumps follow one another (the kernel runs one dump per socket at a
// time), and lost notifications ask for both dumps again.
TEST_F(NetlinkTest, LinkLocalAddressOfAMulticastLinkCreatesTheInterface) {
    const bytes eth1 = link(RTM_NEWLINK, 7, kUpMc, "eth1"), ll = ll_addr(7);
    const bytes bad_mtu_len = patched<uint16_t>(eth1, 44, 200),
                tiny_attr = patched<uint16_t>(eth1, 32, 2);
    const bytes long_msg = patched<uint32_t>(eth1, 0, eth1.size() + 4);
    const bytes short_addr = patched<uint16_t>(ll, 24, 40);
    const bytes below_16 = patched<uint32_t>(nl(99, {}), 0, 12);
    ifinfomsg ifi{};
    ifi.ifi_index = 7;
    ifi.ifi_flags = kUpMc;
    const bytes ifi_bytes = raw(ifi), done = nl(NLMSG_DONE, bytes(4, 0));
    const bytes header_only = nl(RTM_NEWLINK, bytes(ifi_bytes.begin(), ifi_bytes.begin() + 8));
    bytes twenty(20, 0);
    twenty[0] = 0xfe;
    twenty[1] = 0x80;
    auto new_link = [](int index, unsigned flags, const char* name, bool mtu = true) {
        return link(RTM_NEWLINK, index, flags, name, mtu);
    };
    auto not_named = [](const std::string& link) {
        return "MLDRT: Link " + link + " is not a DOWNSTREAM_IFNAME, left alone\n";
    };
    struct Row {
        const char* name;
        std::vector<std::optional<bytes>> batches;  // none: the read fails with ENOBUFS
        std::string want;  // "<name> <ifindex>" of the one record made, or "" for none
        std::vector<int> requests = {RTM_GETLINK};
        std::string out = "";
        const char* downstream = nullptr;  // the one DOWNSTREAM_IFNAME, if any
    };
    // clang-format off
    const std::vector<Row> rows = {
        {"link then link-local address", {eth1 + ll}, "eth1 7"},
        {"in separate batches, as IFA_LOCAL", {eth1, addr(7, a6(IFA_LOCAL, "fe80::1"))}, "eth1 7"},
        {"IFA_LOCAL wins over IFA_ADDRESS",
         {eth1, addr(7, a6(IFA_ADDRESS, "fe80::1") + a6(IFA_LOCAL, "2001:db8::1"))}, ""},
        {"febf:: is still link-local", {eth1, addr(7, a6(IFA_ADDRESS, "febf::1"))}, "eth1 7"},
        {"global address", {eth1, addr(7, a6(IFA_ADDRESS, "2001:db8::7"))}, ""},
        {"fec0:: is not link-local", {eth1, addr(7, a6(IFA_ADDRESS, "fec0::1"))}, ""},
        {"deleted address is handled alike",
         {eth1, addr(7, a6(IFA_ADDRESS, "fe80::1"), AF_INET6, RTM_DELADDR)}, "eth1 7"},
        {"IPv4 address", {eth1, addr(7, a6(IFA_ADDRESS, "fe80::1"), AF_INET)}, ""},
        {"link down still comes up with its address", {new_link(7, IFF_MULTICAST, "eth1"), ll},
         "eth1 7"},
        {"loopback", {new_link(1, kUpMc | IFF_LOOPBACK, "lo"), ll_addr(1)}, ""},
        {"no multicast", {new_link(7, IFF_UP, "eth1"), ll}, ""},
        {"no MTU attribute", {new_link(7, kUpMc, "eth1", false), ll}, ""},
        {"address for an unknown index", {eth1, ll_addr(8)}, ""},
        {"kernel index 40", {new_link(40, kUpMc, "eth9"), ll_addr(40)}, "eth9 40"},
        {"long name cut and terminated", {new_link(7, kUpMc, "abcdefghijklmnopqrst"), ll},
         "abcdefghijklmnop 7"},
        {"name without terminator",
         {nl(RTM_NEWLINK, ifi_bytes + rta(IFLA_IFNAME, "eth5", 4) + rta(IFLA_MTU, &kMtu, 4)), ll},
         "eth5 7"},
        {"message length below 16 stops the walk", {below_16 + eth1 + ll}, ""},
        {"message longer than the batch", {long_msg, ll}, ""},
        {"batch shorter than a header", {bytes(eth1.begin(), eth1.begin() + 10), ll}, ""},
        {"link message shorter than its header", {header_only, ll}, ""},
        {"attribute length below 4", {tiny_attr, ll}, ""},
        {"attribute beyond the message", {bad_mtu_len, ll}, ""},
        {"address attribute beyond the message", {eth1, short_addr}, ""},
        {"address attribute of 4 bytes", {eth1, addr(7, rta(IFA_ADDRESS, nullptr, 0))}, ""},
        {"address attribute of 20 bytes", {eth1, addr(7, rta(IFA_ADDRESS, twenty.data(), 20))}, ""},
        {"address message shorter than its header", {eth1, nl(RTM_NEWADDR, bytes(4, 0))}, ""},
        {"link named by DOWNSTREAM_IFNAME", {eth1, ll}, "eth1 7", {18}, "", "eth1"},
        {"link not named by DOWNSTREAM_IFNAME: no record, named once",
         {eth1, ll, new_link(7, IFF_MULTICAST, "eth1"), eth1, ll}, "", {18}, not_named("eth1"),
         "eth2"},
        {"a name that only begins with a DOWNSTREAM_IFNAME", {new_link(7, kUpMc, "eth10"), ll}, "",
         {18}, not_named("eth10"), "eth1"},
        {"a DOWNSTREAM_IFNAME that only begins with the name", {eth1, ll}, "", {18},
         not_named("eth1"), "eth10"},
        {"the upstream is not named", {new_link(2, kUpMc, "up0"), ll_addr(2)}, "up0 2", {18}, "",
         "eth1"},
        {"the link dump's end asks for the addresses", {eth1 + done}, "", {18, 22}},
        {"the address dump's end asks for nothing", {eth1 + done, done}, "", {18, 22}},
        {"a refused request ends its dump", {nl(NLMSG_ERROR, bytes(20, 0))}, "", {18, 22}},
        {"what follows an end is still read", {done + eth1 + ll}, "eth1 7", {18, 22}},
        {"a deleted link forgets its address: it comes back with its next one",
         {eth1 + ll, link(RTM_DELLINK, 7, kUpMc, "eth1"), ll, eth1}, ""},
        {"lost notifications during a dump: both again after it", {std::nullopt, done, done}, "",
         {18, 22, 18}},
        {"lost notifications afterwards: both again at once", {done, done, std::nullopt, done}, "",
         {18, 22, 18, 22}},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        delete_all_links(&router);
        system_link_reset(&router.system_links);
        auto& k = fake::kernel();
        k.sockopts.clear();
        k.sockets.clear();
        k.closed.clear();
        k.sent.clear();
        router.downstream_count = row.downstream ? 1 : 0;
        copy_ifname(router.downstream_ifnames[0], row.downstream ? row.downstream : "");
        ASSERT_EQ(start_netlink(&router), 0);  // also forgets the last row's dump
        EXPECT_EQ(stdout_of([&] {
                      for (const auto& batch : row.batches) {
                          if (batch) {
                              feed(*batch);
                          } else {
                              k.recv_errno = ENOBUFS;
                              EXPECT_TRUE(handle_link(&router));  // more may wait behind the loss
                          }
                      }
                  }),
                  row.out);
        EXPECT_FALSE(handle_link(&router));  // nothing left: the loop may wait
        EXPECT_EQ(k.recv_flags.back(), MSG_DONTWAIT | MSG_NOSIGNAL);
        EXPECT_EQ(requests(), row.requests);
        const Link* ifp = router.interfaces;
        EXPECT_EQ(ifp ? std::string(ifp->name, strnlen(ifp->name, sizeof ifp->name)) + " " +
                            std::to_string(ifp->ifindex)
                      : "",
                  row.want);
        if (ifp) {
            EXPECT_EQ(ifp->next, nullptr);
            EXPECT_EQ(fake::sockopts(41, 202), (std::vector<bytes>{mif_bytes(0, ifp->ifindex)}));
            continue;
        }
        EXPECT_EQ(fake::sockopts(41, 202).size(), fake::sockopts(41, 203).size());
        for (const auto& s : k.sockets) {  // a failed creation or a deletion closed its socket
            EXPECT_EQ(std::count(k.closed.begin(), k.closed.end(), s.fd), 1);
        }
    }
}

TEST_F(NetlinkTest, UpstreamActivatesTheRouterAndDeletedLinksLoseTheirMif) {
    feed(link(RTM_NEWLINK, 7, kUpMc, "eth1") + ll_addr(7));
    Link* eth1 = find_link_by_name(router.interfaces, "eth1");
    ASSERT_NE(eth1, nullptr);
    EXPECT_EQ(router.upstream, nullptr);
    EXPECT_EQ(router.active, 0);
    eth1->started = true;
    eth1->query_due_ms = fake::monotonic_now_ms() + 60000;
    feed(link(RTM_NEWLINK, 2, kUpMc, "up0") + ll_addr(2, "fe80::2"));
    Link* up = find_link_by_name(router.interfaces, "up0");
    ASSERT_NE(up, nullptr);
    EXPECT_EQ(router.upstream, up);
    EXPECT_EQ(router.active, 1);
    EXPECT_EQ(up->mifi, 1);
    EXPECT_EQ(eth1->query_due_ms, fake::monotonic_now_ms());  // every querier's query is due now
    EXPECT_EQ(ip6_text(router.upstream_addr), "fe80::2");
    // A link going administratively down is a new-link message: the record stays.
    feed(link(RTM_NEWLINK, 7, IFF_MULTICAST, "eth1"));
    EXPECT_EQ(find_link_by_name(router.interfaces, "eth1"), eth1);

    fake::kernel().sockopts.clear();
    feed(link(RTM_DELLINK, 7, kUpMc, "eth1"));
    EXPECT_EQ(find_link_by_name(router.interfaces, "eth1"), nullptr);
    EXPECT_EQ(router.upstream, up);
    feed(link(RTM_DELLINK, 2, kUpMc, "up0"));
    EXPECT_EQ(router.upstream, nullptr);
    EXPECT_EQ(router.active, 0);
    EXPECT_EQ(router.interfaces, nullptr);
    EXPECT_EQ(fake::sockopts(41, 203), (std::vector<bytes>{mif_bytes(0, 7), mif_bytes(1, 2)}));
}

// Links are known by their index: a renamed link keeps its record, MIF and groups, and a new
// MTU resizes the buffer its messages are built in (bounded by what a packet can hold).
TEST_F(NetlinkTest, RenamedLinkKeepsItsRecordAndFollowsItsMtu) {
    feed(link(RTM_NEWLINK, 7, kUpMc, "eth1") + ll_addr(7));
    Link* eth1 = find_link_by_name(router.interfaces, "eth1");
    ASSERT_NE(eth1, nullptr);
    const uint16_t mif = eth1->mifi;
    const struct {
        const char* name;
        uint32_t mtu, buf_size;
    } steps[] = {{"lan1", 9000, 9000}, {"lan1", 1000, 1280}, {"lan2", 4000000000u, 65535}};
    for (const auto& step : steps) {
        SCOPED_TRACE(std::string(step.name) + " " + std::to_string(step.mtu));
        feed(link(RTM_NEWLINK, 7, kUpMc, step.name, true, step.mtu));
        EXPECT_EQ(find_link_by_index(router.interfaces, 7), eth1);
        EXPECT_STREQ(eth1->name, step.name);
        EXPECT_EQ(eth1->mifi, mif);
        EXPECT_EQ(eth1->buf_size, step.buf_size);
    }
    EXPECT_EQ(find_link_by_name(router.interfaces, "eth1"), nullptr);
    EXPECT_EQ(router.interfaces->next, nullptr) << "one record";
    // With the downstream links chosen by name, a rename out of the choice lets the link go.
    router.downstream_count = 1;
    copy_ifname(router.downstream_ifnames[0], "lan2");
    testing::internal::CaptureStdout();
    feed(link(RTM_NEWLINK, 7, kUpMc, "guest0"));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "MLDRT: Link guest0 is not a DOWNSTREAM_IFNAME, left alone\n");
    EXPECT_EQ(router.interfaces, nullptr);
}

}  // namespace
