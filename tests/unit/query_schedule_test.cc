// Group- and group-and-source-specific queries after a possible leave (RFC 3810 section
// 7.6.3): timers lowered to LLQT (2 with LLQI 1 and LLQC 2), retransmission state, first query.

#include "listener_support.h"

using namespace mldproxy;

namespace {

using namespace lsn;

// A chain of entries in the layout the list operations give their results, in this order.
struct source_chain {
    explicit source_chain(const std::vector<int>& ns) : entries(ns.size()) {
        for (size_t i = 0; i < ns.size(); i++) {
            addr6 a = src(ns[i]);
            std::memcpy(entries[i].src_addr, a.data(), 16);
            entries[i].next = i + 1 < ns.size() ? &entries[i + 1] : nullptr;
        }
    }
    const Source* head() const { return entries.empty() ? nullptr : entries.data(); }
    uint32_t count() const { return static_cast<uint32_t>(entries.size()); }
    std::vector<Source> entries;
};

class QueryScheduleTest : public ListenerTest {};

TEST_F(QueryScheduleTest, GroupSpecificQuerySetsFilterTimerToLlqtEvenUpwards) {
    for (int32_t filter_timer : {260, 1}) {
        SCOPED_TRACE("filter timer before: " + std::to_string(filter_timer));
        restart();
        Group* g = make_group(eth1, G1, exclude({}, {}, filter_timer), host);
        forget_kernel_calls();
        lower_timers_and_query(&router, eth1, g, G1.data(), nullptr, 0);
        EXPECT_EQ(g->filter_timer, 2);
        EXPECT_EQ(queries_of(g).group_count, 1);  // LLQC - 1 still to send
        EXPECT_EQ(queries_of(g).group_timer, 1);  // LLQI
        EXPECT_EQ(queries_of(g).source_count, 0);
        EXPECT_EQ(describe(g), describe(exclude({}, {}, 2)));
        ASSERT_EQ(fake::kernel().sent_msgs.size(), 1u);
        const fake::sent_message& m = fake::kernel().sent_msgs[0];
        EXPECT_EQ(ip6_text(reinterpret_cast<const uint8_t*>(&m.dst.sin6_addr)), "ff0e::101");
        // clang-format off
        const std::vector<uint8_t> expected = {
            130, 0, 0, 0,                                          // type, code, checksum
            0x03, 0xe8, 0, 0,                                      // MRC: LLQI in ms; reserved
            0xff, 0x0e, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1,  // group
            0x02, 125, 0, 0,                                       // S 0, QRV 2; QQIC; N 0
        };
        // clang-format on
        EXPECT_EQ(m.payload, expected);
    }
}

struct SourceRow {
    const char* name;
    group_state before;
    std::vector<int> queried;
    group_state after;
    std::string srsp, non_srsp;  // rtx_text() of the two lists
    int32_t src_rtx_count, src_rtx_timer;
    std::vector<std::string> queries;
};

TEST_F(QueryScheduleTest, SourceSpecificQueryLowersTimersAboveLlqtAndKeepsTheOthers) {
    // clang-format off
    const std::vector<SourceRow> rows = {
        {"INCLUDE: 260 and -1 (compared unsigned) lowered to SRSP, 2 and 1 kept, S5 unknown",
         include({{1, 260}, {2, 2}, {3, 1}, {4, -1}}, 50), {1, 2, 3, 4, 5},
         include({{1, 2}, {2, 2}, {3, 1}, {4, 2}}, 50), "S4/1 S1/1", "S3/1 S2/1", 1, 1,
         {query(G1, {4, 1}), query(G1, {3, 2})}},
        {"EXCLUDE searches the requested list only",
         exclude({{1, 260}}, {{2, 0}}, 200), {2, 1}, exclude({{1, 2}}, {{2, 0}}, 200),
         "S1/1", "", 1, 1, {query(G1, {1})}},
        {"no queried source in the group: nothing sent, no retransmission",
         include({{1, 100}}), {2, 3}, include({{1, 100}}), "", "", 0, 0, {}},
    };
    // clang-format on
    for (const SourceRow& row : rows) {
        SCOPED_TRACE(row.name);
        restart();
        Group* g = make_group(eth1, G1, row.before, host);
        forget_kernel_calls();
        source_chain chain(row.queried);
        lower_timers_and_query(&router, eth1, g, G1.data(), chain.head(), chain.count());
        EXPECT_EQ(describe(g), describe(row.after));
        EXPECT_EQ(rtx_text(queries_of(g).suppressed), row.srsp);
        EXPECT_EQ(rtx_text(queries_of(g).not_suppressed), row.non_srsp);
        EXPECT_EQ(queries_of(g).source_count, row.src_rtx_count);
        EXPECT_EQ(queries_of(g).source_timer, row.src_rtx_timer);
        EXPECT_EQ(queries_of(g).group_count, 0);
        EXPECT_EQ(queries_sent(), row.queries);
    }
}

// A second scheduling while the first one's sources still await retransmission (a host
// leaving more sources before the router repeats its query): the new sources are asked with
// the pending ones, each query's count is its list's length, and nothing is printed.
TEST_F(QueryScheduleTest, PendingSourcesAreAskedAgainWithTheNewOnesQuietly) {
    Group* g = make_group(eth1, G1, include({{1, 260}, {2, 260}, {3, 1}}), host);
    source_chain first({1, 3});
    lower_timers_and_query(&router, eth1, g, G1.data(), first.head(), first.count());
    EXPECT_EQ(queries_sent(), (std::vector<std::string>{query(G1, {1}), query(G1, {3})}));
    forget_kernel_calls();

    source_chain second({2});
    EXPECT_EQ(stdout_of([&] {
                  lower_timers_and_query(&router, eth1, g, G1.data(), second.head(),
                                         second.count());
              }),
              "");
    EXPECT_EQ(queries_sent(), (std::vector<std::string>{query(G1, {2, 1}), query(G1, {3})}));
    EXPECT_EQ(rtx_text(queries_of(g).suppressed), "S2/1 S1/1");
    EXPECT_EQ(rtx_text(queries_of(g).not_suppressed), "S3/1");
}

// Hosts repeat their leaves (Linux sends BLOCK or TO_IN twice, the second copy often before
// the router's retransmission). Each source is asked Last Listener Query Count times in all
// (RFC 3810 section 7.6.3.2): a repeated leave neither restarts its count nor lowers its timer
// again, and every query's count is that of the sources it carries, so none is dropped.
TEST_F(QueryScheduleTest, RepeatedLeavesKeepEachSourcesRetransmissions) {
    struct Row {
        const char* name;
        uint32_t llqc;
        std::vector<std::vector<int>> steps;  // sources left; {} is one second of timers
        std::vector<std::string> queries;
        int32_t s1_timer;  // after the last step; -1: S1 ran out and is gone
    };
    // clang-format off
    const std::vector<Row> rows = {
        {"the same leave twice, then its retransmission", 2, {{1}, {1}, {}},
         {query(G1, {1}), query(G1, {1})}, 1},
        {"a second source joins the queries of the first", 3, {{1}, {}, {2}, {}, {}, {}},
         {query(G1, {1}), query(G1, {1}), query(G1, {2, 1}), query(G1, {2, 1}), query(G1, {2})},
         -1},
        {"one query and no retransmission: a repeated leave is asked again", 1, {{1}, {1}},
         {query(G1, {1}), query(G1, {1})}, 1},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        restart();
        router.last_listener_query_count = row.llqc;
        Group* g = make_group(eth1, G1, include({{1, 260}, {2, 260}}), host);
        forget_kernel_calls();
        std::string out = stdout_of([&] {
            for (const std::vector<int>& step : row.steps) {
                source_chain left(step);
                if (step.empty()) {
                    age_link_groups(&router, eth1);
                } else {
                    lower_timers_and_query(&router, eth1, g, G1.data(), left.head(), left.count());
                }
            }
        });
        EXPECT_EQ(out, "");
        EXPECT_EQ(queries_sent(), row.queries);
        ASSERT_EQ(group(eth1, G1), g);
        const Source* s1 = find_source(g->include_list, src(1).data());
        EXPECT_EQ(s1 ? s1->timer : -1, row.s1_timer);
    }
}

TEST_F(QueryScheduleTest, RefusalsLeaveCountsUnstoredAndSendNothing) {
    Group* odd = make_group(eth1, G1, include({{1, 260}}), host);
    odd->filter_mode = static_cast<FilterMode>(7);
    source_chain one({1});
    capture_stdout();
    lower_timers_and_query(&router, eth1, odd, G1.data(), one.head(), one.count());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\n FATAL:: Unknown Group Mode\n");
    EXPECT_EQ(queries_of(odd).suppressed, nullptr);

    // A full retransmission list (64 entries) refuses the next source.
    addr6 g2 = grp(2);
    Group* full = make_group(eth1, g2, include({{1, 260}}), host);
    for (int n = 100; n < 164; n++) {
        add_source_to_group(full, full->mfdb, ListKind::QuerySuppressed, src(n).data())->rtx_count =
            1;
    }
    capture_stdout();
    lower_timers_and_query(&router, eth1, full, g2.data(), one.head(), one.count());
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "MLDRT: Limit of 64 sources per list reached, request not handled\n"
              "\n FATAL: couldnt allocate entry in SRSP list\n");
    EXPECT_EQ(list_length(queries_of(full).suppressed), 64u);
    EXPECT_EQ(queries_of(full).source_count, 0);
    EXPECT_EQ(queries_sent(), std::vector<std::string>{});
}

}  // namespace
