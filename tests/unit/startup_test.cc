// Starting the links: the router's own membership reports and the general queries of each new
// downstream link, at their deadlines, and how long the event loop waits for input.
#include "test_support.h"

namespace {

class StartupTest : public RouterTest {
  protected:
    // up0 at the tail, then eth1 at the head, as the netlink code would have added them.
    void two_links() {
        up = make_link("up0", 2, 0);
        router.upstream = up;
        std::memcpy(router.upstream_addr, ip6("fe80::aabb:ccdd").data(), 16);
        eth1 = make_link("eth1", 7, 1);
    }
    // "<type> <group> to <destination>" of every message sent on `ifp`; for a report, the group
    // of its only record.
    static texts sent_on(const Link* ifp) {
        texts out;
        for (const auto& m : fake::kernel().sent_msgs) {
            if (m.fd != ifp->sock) {
                continue;
            }
            if (m.payload.size() < 28) {
                out.push_back("short message");
                continue;
            }
            const uint8_t* p = m.payload.data();
            bool report = p[0] == kTypeV2Report;
            EXPECT_TRUE(!report || (p[6] == 0 && p[7] == 1 && p[8] == 4)) << "one TO_EX record";
            out.push_back(std::to_string(p[0]) + " " + ip6_text(p + (report ? 12 : 8)) + " to " +
                          ip6_text(reinterpret_cast<const uint8_t*>(&m.dst.sin6_addr)));
        }
        return out;
    }
    Link* up = nullptr;
    Link* eth1 = nullptr;
};

// The start-up reports go out in robustness rounds spread over about a second, the first round
// at once with the first general query; robustness - 1 start-up queries follow a quarter of the
// query interval apart, then one every query interval (RFC 3810 sections 9.6 and 9.7). Each
// line is "ms: message"; the upstream, no querier, sends none of it.
TEST_F(StartupTest, StartupRoundsAndQueriesLeaveAtTheirDeadlines) {
    struct Row {
        uint32_t robustness;
        uint64_t gap_ms;                // between report rounds
        std::vector<uint64_t> queries;  // ms
    };
    const std::vector<Row> rows = {
        {1, 0, {0, 4000, 8000}}, {2, 500, {0, 1000, 5000, 9000}}, {3, 333, {0, 1000, 2000, 6000}}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << "robustness " << row.robustness);
        TearDown();
        SetUp();
        router.robustness = row.robustness;
        router.query_interval = 4;
        two_links();
        router.active = 1;
        const uint64_t t0 = fake::monotonic_now_ms();
        texts got;
        auto collect = [&] {
            for (const std::string& m : sent_on(eth1)) {
                got.push_back(std::to_string(fake::monotonic_now_ms() - t0) + ": " + m);
            }
            EXPECT_EQ(sent_on(up), texts{});
            fake::kernel().sent_msgs.clear();
        };
        take_startup_actions(&router);
        collect();
        uint64_t next_tick = t0 + 100000;  // no membership tick in this window
        for (int ms = 1; ms < 10000; ms++) {
            fake::kernel().monotonic_ms++;
            input_pass(&router, &next_tick);
            collect();
        }
        texts want;
        for (uint32_t round = 0; round < row.robustness; round++) {
            for (const char* g : {"ff02::1:ffbb:ccdd", "ff02::16", "ff02::2"}) {
                want.push_back(std::to_string(round * row.gap_ms) + ": 143 " + g + " to ff02::16");
            }
        }
        for (uint64_t ms : row.queries) {
            want.push_back(std::to_string(ms) + ": 130 :: to ff02::1");
        }
        std::stable_sort(want.begin(), want.end(), [](const std::string& a, const std::string& b) {
            return std::stoul(a) < std::stoul(b);
        });
        EXPECT_EQ(got, want);
    }
}

// Without an upstream no link starts. The loop waits for input no longer than until its next
// deadline: the membership tick, a start-up round, a general query or an upstream
// retransmission.
TEST_F(StartupTest, NothingStartsWithoutUpstreamAndTheWaitEndsAtTheNextDeadline) {
    two_links();
    router.upstream = nullptr;
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
