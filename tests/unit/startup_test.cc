// Starting the links: nothing before the upstream is there, and how long the event loop waits
// for input. (tests/lab/test_downstream_wire.sh checks the start-up reports and queries on the
// wire, their rounds and spacing, and that the upstream link gets none of them.)
#include "test_support.h"

namespace {

using StartupTest = RouterTest;

// Without an upstream no link starts. The loop waits for input no longer than until its next
// deadline: the membership tick, a start-up round, a general query or an upstream
// retransmission.
TEST_F(StartupTest, NothingStartsWithoutUpstreamAndTheWaitEndsAtTheNextDeadline) {
    Link* up = make_link("up0", 2, 0);
    Link* eth1 = make_link("eth1", 7, 1);
    EXPECT_EQ(take_startup_actions(&router), 1u);
    EXPECT_EQ(eth1->started, 0);
    EXPECT_TRUE(fake::kernel().sent_msgs.empty());
    router.upstream = up;
    router.active = 1;
    uint64_t next_tick = fake::monotonic_now_ms() + 700;
    auto wait_ms = [&] {
        fake::kernel().select_timeouts.clear();
        input_pass(&router, &next_tick);
        const timeval& t = fake::kernel().select_timeouts.at(0);
        return static_cast<uint64_t>(t.tv_sec) * 1000u + static_cast<uint64_t>(t.tv_usec) / 1000u;
    };
    EXPECT_EQ(wait_ms(), 700u);  // nothing started yet: the tick
    take_startup_actions(&router);
    EXPECT_EQ(wait_ms(), 500u);  // the second start-up round
    fake::kernel().monotonic_ms += 500;
    EXPECT_EQ(wait_ms(), 0u);    // due now: it leaves in this pass
    EXPECT_EQ(wait_ms(), 200u);  // the tick again
}

}  // namespace
