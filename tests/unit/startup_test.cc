#include <numeric>

#include "core/input_thread.h"
#include "test_support.h"

namespace {

class StartupTest : public RouterTest {
  protected:
    // up0 at the tail, then eth1 at the head, as the netlink code would have added them.
    void two_links() {
        up = add_link("up0", 2, 0);
        router.upstream = up;
        addr6 a = ip6("fe80::aabb:ccdd");
        std::memcpy(router.upstream_addr, a.data(), 16);
        eth1 = add_link("eth1", 7, 1);
    }
    // "<type> <group> to <destination>" of every message sent on `ifp`; for a report, the group
    // of its only record.
    static std::vector<std::string> sent_on(const mldrt_interface* ifp) {
        std::vector<std::string> out;
        for (const auto& m : fake::kernel().sent_msgs) {
            if (m.fd != ifp->sock) {
                continue;
            }
            if (m.payload.size() < 28) {
                out.push_back("short message");
                continue;
            }
            const uint8_t* p = m.payload.data();
            bool report = p[0] == 143;
            EXPECT_TRUE(!report || (p[6] == 0 && p[7] == 1 && p[8] == 4)) << "one TO_EX record";
            out.push_back(std::to_string(p[0]) + " " + ip6_text(p + (report ? 12 : 8)) + " to " +
                          ip6_text(reinterpret_cast<const uint8_t*>(&m.dst.sin6_addr)));
        }
        return out;
    }
    mldrt_interface* up = nullptr;
    mldrt_interface* eth1 = nullptr;
};

TEST_F(StartupTest, WithoutUpstreamNothingIsStarted) {
    mldrt_interface* ifp = add_link("eth1", 7, 0);
    EXPECT_EQ(mldrt_take_startup_actions(&router), 1u);
    EXPECT_EQ(ifp->started, 0);
    EXPECT_TRUE(fake::kernel().sent_msgs.empty());
}

TEST_F(StartupTest, UpstreamIsOnlyMarkedAndAStartedDownstreamEndsTheWalk) {
    up = add_link("up0", 2, 0);
    router.upstream = up;
    EXPECT_EQ(mldrt_take_startup_actions(&router), 1u);
    EXPECT_EQ(up->started, 1);
    EXPECT_TRUE(fake::kernel().sent_msgs.empty());
    EXPECT_TRUE(fake::kernel().sleeps.empty());

    mldrt_interface* old_tail = add_link("eth3", 9, 1);
    mldrt_interface* old = add_link("eth2", 8, 2);
    old->started = 1;
    mldrt_interface* fresh = add_link("eth1", 7, 3);
    EXPECT_EQ(mldrt_take_startup_actions(&router), 4u);
    EXPECT_EQ(fresh->started, 1);
    EXPECT_EQ(old_tail->started, 0);  // behind the started one: not visited
    EXPECT_FALSE(sent_on(fresh).empty());
    EXPECT_TRUE(sent_on(old).empty());
    EXPECT_TRUE(sent_on(old_tail).empty());
    EXPECT_TRUE(sent_on(up).empty());
}

TEST_F(StartupTest, ReportsAreSentRobustnessTimesPacedOverASecondAtMostTenCopies) {
    struct Row {
        uint32_t robustness, copies;
        uint64_t slept_usec;
    };
    const std::vector<Row> rows = {
        {3, 3, 3 * 2 * 333333}, {1, 1, 0}, {0, 0, 0}, {20, 10, 3 * 9 * 50000}, {4294967295u, 10, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << "robustness " << row.robustness);
        two_links();
        router.robustness = row.robustness;
        mldrt_take_startup_actions(&router);
        std::vector<std::string> want;
        for (const char* g : {"ff02::1:ffbb:ccdd", "ff02::16", "ff02::2"}) {
            want.insert(want.end(), row.copies, "143 " + std::string(g) + " to ff02::16");
        }
        want.push_back("130 :: to ff02::1");  // the first general query right after
        EXPECT_EQ(sent_on(eth1), want);
        EXPECT_EQ(eth1->started, 1);
        EXPECT_EQ(up->started, 1);
        const auto& sleeps = fake::kernel().sleeps;
        EXPECT_EQ(std::accumulate(sleeps.begin(), sleeps.end(), uint64_t{0}), row.slept_usec);
        for (uint32_t s : sleeps) {
            EXPECT_LE(s, 100000u);
        }
        mldrt_delete_interface(eth1);
        mldrt_delete_interface(up);
        fake::kernel().sent_msgs.clear();
        fake::kernel().sleeps.clear();
    }
}

TEST_F(StartupTest, StopRequestEndsTheActionsLeavingTheInterfaceUnstarted) {
    two_links();
    router.robustness = 3;
    fake::kernel().on_usleep = [] { g_stop_requested = 1; };
    mldrt_take_startup_actions(&router);
    EXPECT_EQ(sent_on(eth1), std::vector<std::string>{"143 ff02::1:ffbb:ccdd to ff02::16"});
    EXPECT_EQ(fake::kernel().sleeps.size(), 1u);
    EXPECT_EQ(eth1->started, 0);
}

TEST_F(StartupTest, SleepsInStepsOfAtMost100msUntilAStopIsRequested) {
    struct Row {
        uint32_t usec;
        int stop_at_call;  // 0: requested before; -1: never
        std::vector<uint32_t> sleeps;
        bool completed;
    };
    const std::vector<Row> rows = {
        {0, -1, {}, true},
        {50000, -1, {50000}, true},
        {250000, -1, {100000, 100000, 50000}, true},
        {1000000, -1, std::vector<uint32_t>(10, 100000), true},
        {250000, 0, {}, false},
        {250000, 2, {100000, 100000}, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.usec << " us, stop at " << row.stop_at_call);
        fake::kernel().sleeps.clear();
        g_stop_requested = row.stop_at_call == 0 ? 1 : 0;
        int calls = 0;
        fake::kernel().on_usleep = [&] {
            if (++calls == row.stop_at_call) {
                g_stop_requested = 1;
            }
        };
        EXPECT_EQ(mldrt_sleep_unless_stopped(row.usec), row.completed);
        EXPECT_EQ(fake::kernel().sleeps, row.sleeps);
    }
    fake::kernel().on_usleep = nullptr;
}

}  // namespace
