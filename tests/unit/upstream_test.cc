// The upstream host side, as the upstream router hears it: the merged state of a group across
// the downstream links (RFC 3810 section 4.2), the state-change reports with their
// retransmissions (section 6.1), the answers to queries (section 6.2), never more than the
// link's MTU - 48 bytes in one report (section 5.2.15).
#include <optional>

#include "test_support.h"

namespace {

class UpstreamReportTest : public UpstreamTest {
  protected:
    // Reaches `st` on eth1 and lets every report about it run out.
    void settle(const group_state& st) {
        set_state(eth1, G1, st);
        for (uint32_t i = 0; i <= router.robustness; i++) {
            tick();
        }
        ASSERT_EQ(tick(), texts{});
    }
    // Nothing left to send about G1: no retransmission pending, and none goes out.
    void expect_spent() {
        if (entry(G1)) {
            EXPECT_EQ(state_change_pending(entry(G1)), 0);
        }
        EXPECT_EQ(tick(), texts{});
    }
};

// Rows give eth3, eth2, eth1; the change from INCLUDE{} tells the merged state: INCLUDE lists
// unite, EXCLUDE lists intersect, and an included source leaves the EXCLUDE result. Another
// group on the same link stays apart.
TEST_F(UpstreamReportTest, DownstreamStatesMergeInInterfaceListOrder) {
    const std::vector<std::pair<std::vector<group_state>, std::string>> rows = {
        {{inc({1, 2}), inc({2, 3})}, "ALLOW G1 {S2 S1 S3}"},
        {{exc({1, 2}), exc({2, 3})}, "TO_EX G1 {S2}"},
        {{exc({1, 2}), exc({2, 3}), inc({2})}, "TO_EX G1 {}"},
        {{exc({1, 2, 3}), inc({2})}, "TO_EX G1 {S3 S1}"},
        {{inc({1}), exc({1, 2})}, "TO_EX G1 {S2}"},
        {{exc({1}), inc({2}), exc({})}, "TO_EX G1 {}"},
        {{exc({}), exc({1})}, "TO_EX G1 {}"},
        {{exc({1}), exc({2}), exc({3})}, "TO_EX G1 {}"},
        {{exc({1, 2}), exc({2}), exc({1})}, "TO_EX G1 {}"},
        {{inc({})}, ""},
    };
    for (const auto& [links, merged] : rows) {
        SCOPED_TRACE(merged);
        restart();
        Link* order[3] = {eth3, eth2, eth1};
        for (size_t i = 0; i < links.size(); i++) {
            set_state(order[i], G1, links[i]);
        }
        set_state(eth3, G2, inc({9}));
        const std::string both = (merged.empty() ? "" : merged + "; ") + "ALLOW G2 {S9}";
        EXPECT_EQ(tick(), texts({both, both}));
    }
}

// A host's join (MLDv2 TO_EX{}, then an MLDv1 report) of a group of interface-local or
// link-local scope (scope 0, 1 or 2, whatever the flags) creates nothing: no listener state, no
// kernel entry, nothing upstream. Link-scope traffic is never forwarded, and the hosts'
// solicited-node groups would tell the upstream network their addresses.
TEST_F(UpstreamReportTest, LinkScopeGroupsAreNeverProxied) {
    const std::vector<std::pair<const char*, bool>> rows = {
        {"ff02::1:ff00:1234", false},  {"ff02::db8:1", false}, {"ff01::db8:1", false},
        {"ff00::db8:1", false},        {"ff12::db8:1", false}, {"ff32:40:fe80::1", false},
        {"ff03::db8:1", true},         {"ff05::db8:1", true},  {"ff0e::101", true},
        {"ff3e:40:2001:db8::1", true},
    };
    for (const auto& [name, proxied] : rows) {
        for (uint8_t type : {TO_EX, kTypeV1Report}) {
            SCOPED_TRACE(std::string(name) + (type == TO_EX ? " v2" : " v1"));
            restart();
            const addr6 g = ip6(name);
            EXPECT_EQ(stdout_of([&] { hear_record(eth1, host, type, g); }), "");
            const texts sent = tick();
            EXPECT_EQ(group(eth1, g) != nullptr, proxied);
            EXPECT_EQ(entry(g) != nullptr, proxied);
            EXPECT_EQ(!mfc_calls().empty(), proxied);
            const std::string to_ex = "TO_EX " + grp_name(g.data()) + " {}";
            EXPECT_EQ(sent, proxied ? (texts{to_ex, to_ex}) : texts{});
        }
    }
}

struct TransitionRow {
    const char* name;
    group_state before, after;
    std::string first, again = "";  // the change's own report, each retransmission if other
};

TEST_F(UpstreamReportTest, EachChangeIsSentRobustnessTimesASecondApart) {
    // clang-format off
    const std::vector<TransitionRow> rows = {
        {"INCLUDE{} to EXCLUDE{}", inc({}), exc({}), "TO_EX G1 {}"},
        {"to EXCLUDE carries the exclude list", inc({}), exc({1, 2}), "TO_EX G1 {S2 S1}"},
        {"to INCLUDE carries the include list", exc({}), inc({1, 2}), "TO_IN G1 {S2 S1}"},
        {"EXCLUDE{} to INCLUDE{} is the leave", exc({}), inc({}), "TO_IN G1 {}"},
        {"INCLUDE source swap: ALLOW then BLOCK", inc({1}), inc({2}),
         "ALLOW G1 {S2}; BLOCK G1 {S1}"},
        {"EXCLUDE grows: BLOCK, repeated with an empty ALLOW", exc({1}), exc({1, 2}),
         "BLOCK G1 {S2}", "ALLOW G1 {}; BLOCK G1 {S2}"},
        {"EXCLUDE shrinks: ALLOW, repeated with an empty BLOCK", exc({1, 2}), exc({1}),
         "ALLOW G1 {S2}", "ALLOW G1 {S2}; BLOCK G1 {}"},
    };
    // clang-format on
    for (const auto& row : rows) {
        for (uint32_t robustness = 1; robustness <= 3; robustness++) {
            SCOPED_TRACE(std::string(row.name) + " R=" + std::to_string(robustness));
            restart();
            router.robustness = robustness;
            settle(row.before);
            set_state(eth1, G1, row.after);
            std::vector<texts> expected(robustness + 1);
            expected[0].push_back(row.first);
            for (uint32_t copy = 2; copy <= robustness; copy++) {  // a second apart
                expected[copy - 2].push_back(row.again.empty() ? row.first : row.again);
            }
            std::vector<texts> got;
            for (uint32_t t = 0; t <= robustness; t++) {
                got.push_back(tick());
            }
            EXPECT_EQ(got, expected);
            expect_spent();
        }
    }
}

// A later change replaces what is pending: every copy carries the records as they stand when it
// leaves, so no retransmission contradicts a newer state.
TEST_F(UpstreamReportTest, ALaterChangeReplacesAPendingOne) {
    struct Row {
        const char* name;
        uint32_t robustness;
        group_state start;
        std::vector<std::pair<std::optional<group_state>, texts>> steps;  // a change and a tick
    };
    const std::nullopt_t wait = std::nullopt;
    const std::string to_ex_1 = "TO_EX G1 {S1}", to_ex_21 = "TO_EX G1 {S2 S1}";
    const std::string to_in_2 = "TO_IN G1 {S2}", to_in_32 = "TO_IN G1 {S3 S2}";
    const std::string swap = "ALLOW G1 {S2}; BLOCK G1 {S1}", back = "ALLOW G1 {S1}; BLOCK G1 {S2}";
    // clang-format off
    const std::vector<Row> rows = {
        {"an EXCLUDE change while TO_EX is pending restates the whole new list", 3, inc({}),
         {{exc({1}), {to_ex_1, to_ex_1}}, {exc({1, 2}), {to_ex_21, to_ex_21}}, {wait, {to_ex_21}},
          {wait, {}}}},
        {"INCLUDE after EXCLUDE cancels the pending TO_EX", 4, inc({}),
         {{exc({1}), {to_ex_1, to_ex_1}}, {inc({2}), {to_in_2, to_in_2}},
          {inc({2, 3}), {to_in_32, to_in_32}}, {wait, {to_in_32}}, {wait, {to_in_32}}, {wait, {}}}},
        {"EXCLUDE after INCLUDE cancels the pending TO_IN", 3, exc({}),
         {{inc({}), {"TO_IN G1 {}", "TO_IN G1 {}"}}, {exc({1}), {to_ex_1, to_ex_1}},
          {wait, {to_ex_1}}, {wait, {}}}},
        {"a source allowed again is no longer blocked", 3, inc({1}),
         {{inc({2}), {swap, swap}}, {inc({1}), {back, back}}, {wait, {back}}, {wait, {}}}},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        restart();
        router.robustness = row.robustness;
        settle(row.start);
        for (size_t i = 0; i < row.steps.size(); i++) {
            SCOPED_TRACE("tick " + std::to_string(i + 1));
            if (row.steps[i].first) {
                set_state(eth1, G1, *row.steps[i].first);
            }
            EXPECT_EQ(tick(), row.steps[i].second);
        }
        expect_spent();
    }
}

// Differences are taken over whole host-state lists (twelve new sources on top of three, a list
// at the 64-entry limit of one link, a merged list beyond it), as sets: the same sources merged
// in another order are no change. :: is the forwarding database's whole-group mark: a host that
// names it as a source names nobody, so it never reaches the upstream as a source.
TEST_F(UpstreamReportTest, EverySourceOfAChangeIsReportedAndOnlyAChange) {
    struct Row {
        const char* name;
        group_state eth1_before, eth2_before, eth1_after, eth2_after;
        std::string first, again = "";  // the first copy, and its retransmission if other
    };
    const std::string allow = "ALLOW G1 " + names(reversed(upto(4, 15)));
    const std::string block = "BLOCK G1 " + names(reversed(upto(41, 80)) + reversed(upto(2, 40)));
    // clang-format off
    const std::vector<Row> rows = {
        {"twelve allowed on top of three", inc({1, 2, 3}), inc({}), inc(upto(1, 15)), inc({}),
         allow},
        {"64 blocked", inc(upto(1, 64)), inc({}), inc({1}), inc({}),
         "BLOCK G1 " + names(reversed(upto(2, 64)))},
        {"80 of two links blocked", inc(upto(1, 40)), inc(upto(41, 80)), inc({1}), inc({}), block},
        {"twelve excluded sources allowed again", exc(upto(1, 15)), inc({}), exc({1, 2, 3}),
         inc({}), allow, allow + "; BLOCK G1 {}"},
        {"the same sources from other links", inc({1, 2}), inc({3}), inc({3}), inc({2, 1}), ""},
        {":: on the include list", inc({}), inc({}), include({{0, 100}, {1, 100}}), inc({}),
         "ALLOW G1 {S1}"},
        {":: requested", inc({}), inc({}), exclude({{0, 100}}, {}, 260), inc({}), "TO_EX G1 {}"},
        {":: excluded", inc({}), inc({}), exclude({}, {{0, 0}}, 260), inc({}), "TO_EX G1 {}"},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        restart();
        set_state(eth2, G1, row.eth2_before);
        settle(row.eth1_before);
        set_state(eth2, G1, row.eth2_after);
        set_state(eth1, G1, row.eth1_after);
        const texts want = {row.first, row.again.empty() ? row.first : row.again};
        EXPECT_EQ(stdout_of([&] { EXPECT_EQ(tick(), row.first.empty() ? texts{} : want); }), "");
        expect_spent();
    }
}

// Every record sent as "IS_IN G3 S5" lines, one per source ("IS_IN G3" for none), and each
// report's shape ("1 records 75 sources"); the reports themselves are checked by reports_sent().
struct sent_records {
    texts lines, shapes;
};
sent_records records_sent(const Link* up) {
    reports_sent(up);
    sent_records out;
    for (const auto& m : fake::kernel().sent_msgs) {
        std::string error;
        size_t n = 0;
        std::vector<mrec> recs = records_of(m.payload, &error);
        for (const mrec& r : recs) {
            for (const addr6& a : r.second) {
                out.lines.push_back(r.first + " " + src_name(a.data()));
            }
            if (r.second.empty()) {
                out.lines.push_back(r.first);
            }
            n += r.second.size();
        }
        out.shapes.push_back(std::to_string(recs.size()) + " records " + std::to_string(n) +
                             " sources");
    }
    return out;
}

// Queries heard upstream are answered at once from the state last acted upon, as one MLDv2 host
// would answer them (RFC 3810 section 6.2); on an MLDv1 upstream (a 24-byte query) as MLDv1
// reports, leaving out a group whose state is INCLUDE{} (its leave reported: an MLDv1 report
// would join it again). eth1 holds G1 INCLUDE {S1, S2} and G2 EXCLUDE {S3}, eth2 G4 EXCLUDE {};
// eth2's G3 has just left, its leave still being repeated.
class QueryAnswerTest : public UpstreamReportTest {
  protected:
    void start() override {
        UpstreamReportTest::start();
        set_state(eth1, G1, include({{1, 100}, {2, 100}}));
        set_state(eth1, G2, exclude({}, {{3, 100}}, 260));
        set_state(eth2, G3, exc({}));
        set_state(eth2, grp(4), exc({}));
        for (int t = 0; t < 3; t++) {
            tick();
        }
        set_state(eth2, G3, inc({}));
        report_changes(&router);
        forget_kernel_calls();
    }
};

TEST_F(QueryAnswerTest, UpstreamQueriesAreAnsweredByKind) {
    struct Row {
        const char* name;
        bytes query;
        int len;  // received length; -1: the whole query
        texts sent;
    };
    const addr6 any{}, G4 = grp(4), G5 = grp(5);
    const std::string v2_general = "IS_EX G4 {}; IS_IN G3 {}; IS_EX G2 {S3}; IS_IN G1 {S1 S2}";
    // clang-format off
    const std::vector<Row> rows = {
        {"general", v2_query(any, {}), -1, {v2_general}},
        {"general query listing sources is ignored", v2_query(any, {1}), -1, {}},
        {"group-specific", v2_query(G1, {}), -1, {"IS_IN G1 {S1 S2}"}},
        {"group-specific, EXCLUDE state", v2_query(G2, {}), -1, {"IS_EX G2 {S3}"}},
        {"group without entry", v2_query(G5, {}), -1, {}},
        {"sources none of which is held", v2_query(G1, {3, 4}), -1, {}},
        {"held sources in query order", v2_query(G1, {4, 2, 1}), -1, {"IS_IN G1 {S2 S1}"}},
        {"held source of an EXCLUDE state", v2_query(G2, {1, 3}), -1, {"IS_EX G2 {S3}"}},
        {"MLDv1 group query, whatever follows", v2_query(G1, {7}), 24, {"v1 report G1 to G1"}},
        {"MLDv1 general query", v2_query(any, {}), 24,
         {"v1 report G4 to G4", "v1 report G2 to G2", "v1 report G1 to G1"}},
        {"MLDv1 query for the group without listeners", v2_query(G3, {}), 24, {}},
        {"MLDv1 query for an EXCLUDE{} group", v2_query(G4, {}), 24, {"v1 report G4 to G4"}},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        restart();
        EXPECT_EQ(stdout_of([&] { hear(up, row.query, row.len); }), "");
        EXPECT_EQ(reports_sent(up), row.sent);
        EXPECT_EQ(up->mld_version, row.len == 24 ? 1 : 2);
    }
}

// 126 held sources, all asked for (a 2048-byte query holds 126): all answered in query order. A
// count beyond what arrived walks only the sources that arrived; a query shorter than its
// 24-byte MLDv1 form is dropped as malformed before any field of it is read.
TEST_F(QueryAnswerTest, QueryOf126HeldSourcesIsAnsweredWithAllOfThem) {
    const addr6 G5 = grp(5);
    set_state(eth2, G5, inc(upto(1, 63)));
    set_state(eth3, G5, inc(upto(64, 126)));
    tick();
    const std::vector<std::array<int, 3>> rows = {
        {-1, -1, 126}, {0xffff, -1, 126}, {0xffff, 28 + 16 * 50 + 15, 50}, {-1, 23, 0}};
    for (const auto& [claimed, len, answered] : rows) {
        SCOPED_TRACE(testing::Message() << claimed << " claimed, " << len << " received");
        fake::kernel().sent_msgs.clear();
        router.counters = {};
        hear(up, v2_query(G5, upto(1, 126), claimed), len);
        texts expected;
        for (int n : upto(1, answered)) {
            expected.push_back("IS_IN G5 " + src_name(src(n).data()));
        }
        EXPECT_EQ(records_sent(up).lines, expected);
        EXPECT_EQ(router.counters.malformed, answered == 0 ? 1u : 0u);
    }
}

// An upstream MTU of 1280 leaves 1232 bytes for a report: one record holds at most 75 sources,
// one report at most 61 records without sources. Each report is as full as the link allows, and
// every source and group is answered once.
TEST_F(UpstreamReportTest, LongAnswersAreSplitToTheLinkMtu) {
    auto sorted = [](texts v) {
        std::sort(v.begin(), v.end());
        return v;
    };
    auto answer = [&](const texts& shapes, const texts& lines) {
        for (int t = 0; t < 3; t++) {
            tick();
        }
        fake::kernel().sent_msgs.clear();
        hear(up, v2_query(addr6{}, {}));
        const sent_records got = records_sent(up);
        EXPECT_EQ(got.shapes, shapes);
        EXPECT_EQ(sorted(got.lines), sorted(lines));
        restart();
    };
    ASSERT_TRUE(set_link_mtu(up, 1280));
    set_state(eth1, G1, inc(upto(101, 150)));
    set_state(eth2, G1, inc(upto(51, 100)));
    set_state(eth3, G1, inc(upto(1, 50)));
    texts lines;
    for (int n : upto(1, 150)) {
        lines.push_back("IS_IN G1 " + src_name(src(n).data()));
    }
    answer({"1 records 75 sources", "1 records 75 sources"}, lines);
    ASSERT_TRUE(set_link_mtu(up, 1280));
    lines.clear();
    for (int n = 110; n >= 1; n--) {
        set_state(eth1, grp(n), exc({}));
        lines.push_back("IS_EX G" + std::to_string(n));
    }
    answer({"61 records 0 sources", "49 records 0 sources"}, lines);
}

}  // namespace
