#include <algorithm>
#include <string>

#include "daemon/event_loop.h"
#include "test_support.h"

using namespace mldproxy;

namespace {

class StartupTest : public RouterTest {
  protected:
    // up0 at the tail, then eth1 at the head, as the netlink code would have added them.
    void two_links() {
        up = make_link("up0", 2, 0);
        router.upstream = up;
        addr6 a = ip6("fe80::aabb:ccdd");
        std::memcpy(router.upstream_addr, a.data(), 16);
        eth1 = make_link("eth1", 7, 1);
    }
    // "<type> <group> to <destination>" of every message sent on `ifp`; for a report, the group
    // of its only record.
    static std::vector<std::string> sent_on(const Link* ifp) {
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
    Link* up = nullptr;
    Link* eth1 = nullptr;
};

TEST_F(StartupTest, WithoutUpstreamNothingIsStarted) {
    Link* ifp = make_link("eth1", 7, 0);
    EXPECT_EQ(take_startup_actions(&router), 1u);
    EXPECT_EQ(ifp->started, 0);
    EXPECT_TRUE(fake::kernel().sent_msgs.empty());
}

TEST_F(StartupTest, UpstreamIsOnlyMarkedAndAStartedDownstreamEndsTheWalk) {
    up = make_link("up0", 2, 0);
    router.upstream = up;
    EXPECT_EQ(take_startup_actions(&router), 1u);
    EXPECT_EQ(up->started, 1);
    EXPECT_TRUE(fake::kernel().sent_msgs.empty());
    EXPECT_TRUE(fake::kernel().sleeps.empty());

    Link* old_tail = make_link("eth3", 9, 1);
    Link* old = make_link("eth2", 8, 2);
    old->started = 1;
    Link* fresh = make_link("eth1", 7, 3);
    EXPECT_EQ(take_startup_actions(&router), 4u);
    EXPECT_EQ(fresh->started, 1);
    EXPECT_EQ(old_tail->started, 0);  // behind the started one: not visited
    EXPECT_FALSE(sent_on(fresh).empty());
    EXPECT_TRUE(sent_on(old).empty());
    EXPECT_TRUE(sent_on(old_tail).empty());
    EXPECT_TRUE(sent_on(up).empty());
}

// The start-up reports go out in robustness rounds (at most ten) spread over about a second,
// the first round at once with the first general query; the start-up queries follow a quarter
// of the query interval apart (RFC 3810 section 9.7). Each line is "ms: message".
TEST_F(StartupTest, StartupRoundsAndQueriesLeaveAtTheirDeadlines) {
    struct Row {
        uint32_t robustness, rounds;
        uint64_t gap_ms;
    };
    const std::vector<Row> rows = {{3, 3, 333}, {1, 1, 0}, {0, 0, 0}, {20, 10, 50}, {2, 2, 500}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << "robustness " << row.robustness);
        router.robustness = row.robustness;
        router.query_interval = 4;
        two_links();
        router.active = 1;
        const uint64_t t0 = fake::monotonic_now_ms();
        std::vector<std::string> got;
        auto collect = [&] {
            for (const std::string& m : sent_on(eth1)) {
                got.push_back(std::to_string(fake::monotonic_now_ms() - t0) + ": " + m);
            }
            fake::kernel().sent_msgs.clear();
        };
        take_startup_actions(&router);
        collect();
        uint64_t next_tick = t0 + 100000;  // no membership tick in this window
        for (int ms = 1; ms <= 1500; ms++) {
            fake::kernel().monotonic_ms++;
            input_pass(&router, &next_tick);
            collect();
        }
        std::vector<std::string> want;
        for (uint32_t round = 0; round < row.rounds; round++) {
            for (const char* g : {"ff02::1:ffbb:ccdd", "ff02::16", "ff02::2"}) {
                want.push_back(std::to_string(round * row.gap_ms) + ": 143 " + g + " to ff02::16");
            }
            if (round == 0) {
                want.push_back("0: 130 :: to ff02::1");
            }
        }
        if (row.rounds == 0) {
            want.push_back("0: 130 :: to ff02::1");
        }
        if (row.robustness != 1) {  // robustness - 1 start-up queries follow the first
            want.push_back("1000: 130 :: to ff02::1");  // Startup Query Interval: 4 s / 4
        }
        std::stable_sort(want.begin(), want.end(), [](const std::string& a, const std::string& b) {
            return std::stoul(a) < std::stoul(b);
        });
        EXPECT_EQ(got, want);
        EXPECT_EQ(eth1->started, 1);
        EXPECT_EQ(up->started, 1);
        delete_link(eth1);
        delete_link(up);
    }
}

// The loop waits for input no longer than until its next deadline: the membership tick, a
// start-up round, a general query or an upstream retransmission.
TEST_F(StartupTest, TheWaitEndsAtTheNextDeadline) {
    router.robustness = 2;
    router.query_interval = 125;
    two_links();
    router.active = 1;
    const uint64_t t0 = fake::monotonic_now_ms();
    uint64_t next_tick = t0 + 700;
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
