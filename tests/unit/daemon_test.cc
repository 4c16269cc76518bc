
#include "daemon/daemon.h"
#include "test_support.h"

using namespace mldproxy;

namespace {

class ShutdownTest : public RouterTest {};

std::vector<uint8_t> mif6ctl_bytes(uint16_t mifi, uint16_t pifi) {
    Mif6Ctl mc{};
    mc.mif6c_mifi = mifi;
    mc.mif6c_pifi = pifi;
    std::vector<uint8_t> v(sizeof mc);
    std::memcpy(v.data(), &mc, sizeof mc);
    return v;
}

// Linux would drop the MIFs and MFCs itself when the socket closes; the order here is what
// the daemon owes: every MIF deleted, then MRT6_DONE, then the sockets closed.
TEST_F(ShutdownTest, MifsAreDeletedBeforeMrt6DoneAndTheSocketsCloseLast) {
    Link* eth1 = make_link("eth1", 7, 0);
    Link* eth2 = make_link("up0", 8, 1);
    router.upstream = eth2;
    const std::string s1 = std::to_string(eth1->sock), s2 = std::to_string(eth2->sock);
    const std::string rs = std::to_string(router.router_sock);
    const std::string ns = std::to_string(router.netlink_sock);
    fake::kernel().log.clear();
    fake::kernel().sockopts.clear();
    delete_all_links(&router);
    EXPECT_EQ(router.interfaces, nullptr);
    EXPECT_EQ(router.upstream, nullptr);
    shut_down(&router);
    const std::vector<std::string> want = {
        "setsockopt 41/203", "close " + s2, "setsockopt 41/203", "close " + s1,
        "setsockopt 41/201", "close " + rs, "close " + ns,
    };
    EXPECT_EQ(fake::kernel().log, want);
    const auto& opts = fake::kernel().sockopts;
    ASSERT_EQ(opts.size(), 3u);
    EXPECT_EQ(opts[0].value, mif6ctl_bytes(1, 8));  // the list head (newest) goes first
    EXPECT_EQ(opts[1].value, mif6ctl_bytes(0, 7));
    EXPECT_TRUE(opts[2].null_value);
    EXPECT_TRUE(opts[2].value.empty());
    for (const auto& o : opts) {
        EXPECT_EQ(o.fd, std::stoi(rs));
    }
    EXPECT_EQ(router.buf, nullptr);
    EXPECT_EQ(router.router_sock, 0);
}

TEST_F(ShutdownTest, DescriptorZeroIsNeverClosed) {
    router.router_sock = 0;
    router.netlink_sock = 0;
    shut_down(&router);
    EXPECT_TRUE(fake::kernel().closed.empty());
    EXPECT_TRUE(fake::kernel().sockopts.empty());  // no MRT6_DONE on a socket never opened
}

using ShutdownDeathTest = ShutdownTest;

// A signal's end is a clean one (status 0); a start that failed after its message exits 1, so
// that a service manager sees the failure and may try again.
TEST_F(ShutdownDeathTest, ExitStatusTellsASignalFromAFailedStart) {
    make_link("eth1", 7, 0);
    EXPECT_EXIT(mldv2_done(&router), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(fail_start(&router), testing::ExitedWithCode(1), "");
}

}  // namespace
