// State-change reports upstream (RFC 3810 section 6.1): the first copy as soon as the merged
// state changes and robustness - 1 retransmissions a second apart, each with the records as they
// stand when it leaves. One downstream link (eth1) holds group G1; each tick sends what changed
// since the last one, then what falls due in the second after it.

#include "base/addr.h"
#include "upstream_support.h"

using namespace mldproxy;

namespace {

using namespace ups;

class StateChangeTest : public UpstreamTest {
  protected:
    // Reaches `st` and lets every report about it run out.
    void settle(const group_state& st) {
        set_state(eth1, G1, st);
        for (uint32_t i = 0; i <= router.robustness; i++) {
            tick();
        }
        ASSERT_EQ(tick(), texts{});
    }
    // Nothing left to send: the entry holds no pending record, or is gone (a leave).
    void expect_spent() {
        ForwardingEntry* e = entry(G1);
        if (!e) {
            return;
        }
        EXPECT_EQ(e->pending, nullptr) << "spent records are dropped";
        EXPECT_FALSE(state_change_pending(e));
    }
};

struct TransitionRow {
    const char* name;
    group_state before, after;
    std::string first, again;  // the change's own report, then each retransmission
};

TEST_F(StateChangeTest, EachChangeIsSentRobustnessTimesASecondApart) {
    const std::vector<TransitionRow> rows = {
        {"IncludeNoneToExcludeNone", inc({}), exc({}), "TO_EX G1 {}", "TO_EX G1 {}"},
        {"IncludeToExcludeCarriesTheExcludeList", inc({}), exc({1, 2}), "TO_EX G1 {S2 S1}",
         "TO_EX G1 {S2 S1}"},
        {"ExcludeToIncludeCarriesTheIncludeList", exc({}), inc({1, 2}), "TO_IN G1 {S2 S1}",
         "TO_IN G1 {S2 S1}"},
        {"ExcludeNoneToIncludeNoneIsTheLeave", exc({}), inc({}), "TO_IN G1 {}", "TO_IN G1 {}"},
        {"IncludeSourceSwapIsAllowThenBlock", inc({1}), inc({2}), "ALLOW G1 {S2}; BLOCK G1 {S1}",
         "ALLOW G1 {S2}; BLOCK G1 {S1}"},
        {"ExcludeGrowsBlocksThenRepeatsWithEmptyAllow", exc({1}), exc({1, 2}), "BLOCK G1 {S2}",
         "ALLOW G1 {}; BLOCK G1 {S2}"},
        {"ExcludeShrinksAllowsThenRepeatsWithEmptyBlock", exc({1, 2}), exc({1}), "ALLOW G1 {S2}",
         "ALLOW G1 {S2}; BLOCK G1 {}"},
    };
    for (const auto& row : rows) {
        for (uint32_t robustness = 1; robustness <= 3; robustness++) {
            SCOPED_TRACE(std::string(row.name) + " R=" + std::to_string(robustness));
            restart();
            router.robustness = robustness;
            settle(row.before);
            set_state(eth1, G1, row.after);
            std::vector<texts> expected(robustness + 1);
            expected[0].push_back(row.first);
            for (uint32_t copy = 2; copy <= robustness; copy++) {
                expected[copy - 2].push_back(row.again);  // a second after the one before
            }
            std::vector<texts> got;
            got.push_back(tick());
            if (robustness == 1) {
                expect_spent();  // lists lose their spent entries right after the one copy
            }
            for (uint32_t t = 1; t <= robustness; t++) {
                got.push_back(tick());
            }
            EXPECT_EQ(got, expected);
            expect_spent();
        }
    }
}

struct Step {
    bool change;
    group_state st;
    texts sent;
};
Step change(const group_state& st, texts sent) {
    return {true, st, std::move(sent)};
}
Step wait(texts sent) {
    return {false, {}, std::move(sent)};
}

struct ScenarioRow {
    const char* name;
    uint32_t robustness;
    group_state start;
    std::vector<Step> steps;  // one tick each
};

// A later change replaces what is pending: every copy carries the records as they stand when it
// leaves, so no retransmission contradicts a newer state.
TEST_F(StateChangeTest, ALaterChangeReplacesAPendingOne) {
    const texts none;
    const std::vector<ScenarioRow> rows = {
        {"ExcludeChangeWhileToExPendingRestatesTheWholeNewList",
         3,
         inc({}),
         {change(exc({1}), {"TO_EX G1 {S1}", "TO_EX G1 {S1}"}),
          change(exc({1, 2}), {"TO_EX G1 {S2 S1}", "TO_EX G1 {S2 S1}"}), wait({"TO_EX G1 {S2 S1}"}),
          wait(none)}},
        {"IncludeAfterExcludeCancelsThePendingToEx",
         4,
         inc({}),
         {change(exc({1}), {"TO_EX G1 {S1}", "TO_EX G1 {S1}"}),
          change(inc({2}), {"TO_IN G1 {S2}", "TO_IN G1 {S2}"}),
          change(inc({2, 3}), {"TO_IN G1 {S3 S2}", "TO_IN G1 {S3 S2}"}), wait({"TO_IN G1 {S3 S2}"}),
          wait({"TO_IN G1 {S3 S2}"}), wait(none)}},
        {"ExcludeAfterIncludeCancelsThePendingToIn",
         3,
         exc({}),
         {change(inc({}), {"TO_IN G1 {}", "TO_IN G1 {}"}),
          change(exc({1}), {"TO_EX G1 {S1}", "TO_EX G1 {S1}"}), wait({"TO_EX G1 {S1}"}),
          wait(none)}},
        {"ASourceAllowedAgainIsNoLongerBlocked",
         3,
         inc({1}),
         {change(inc({2}), {"ALLOW G1 {S2}; BLOCK G1 {S1}", "ALLOW G1 {S2}; BLOCK G1 {S1}"}),
          change(inc({1}), {"ALLOW G1 {S1}; BLOCK G1 {S2}", "ALLOW G1 {S1}; BLOCK G1 {S2}"}),
          wait({"ALLOW G1 {S1}; BLOCK G1 {S2}"}), wait(none)}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        restart();
        router.robustness = row.robustness;
        settle(row.start);
        for (size_t i = 0; i < row.steps.size(); i++) {
            SCOPED_TRACE("tick " + std::to_string(i + 1));
            if (row.steps[i].change) {
                set_state(eth1, G1, row.steps[i].st);
            }
            EXPECT_EQ(tick(), row.steps[i].sent);
        }
        expect_spent();
    }
}

// "ALLOW G1 {S4 S5}" for a record type and sources in the given order.
std::string rec_text(const char* type, const std::vector<int>& ns) {
    std::string s = std::string(type) + " G1 {";
    for (size_t i = 0; i < ns.size(); i++) {
        s += (i ? " " : "") + src_name(src(ns[i]).data());
    }
    return s + "}";
}

std::vector<int> reversed(std::vector<int> v) {
    std::reverse(v.begin(), v.end());
    return v;
}

std::vector<int> operator+(std::vector<int> a, const std::vector<int>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

struct WholeListRow {
    const char* name;
    group_state eth1_before, eth2_before, eth1_after, eth2_after;
    std::string first, again;  // the first copy, and the retransmission in the same tick
};

// Differences are taken over whole host-state lists: twelve new sources on top of three, a
// list at the 64-entry limit of one link, and a merged list beyond it (two links).
TEST_F(StateChangeTest, EverySourceOfAChangeIsReported) {
    const std::vector<WholeListRow> rows = {
        {"TwelveAllowedOnTopOfThree", inc({1, 2, 3}), inc({}), inc(upto(1, 15)), inc({}),
         rec_text("ALLOW", reversed(upto(4, 15))), rec_text("ALLOW", reversed(upto(4, 15)))},
        {"SixtyFourBlocked", inc(upto(1, 64)), inc({}), inc({1}), inc({}),
         rec_text("BLOCK", reversed(upto(2, 64))), rec_text("BLOCK", reversed(upto(2, 64)))},
        {"EightyOfTwoLinksBlocked", inc(upto(1, 40)), inc(upto(41, 80)), inc({1}), inc({}),
         rec_text("BLOCK", reversed(upto(41, 80)) + reversed(upto(2, 40))),
         rec_text("BLOCK", reversed(upto(41, 80)) + reversed(upto(2, 40)))},
        {"TwelveExcludedSourcesAllowedAgain", exc(upto(1, 15)), inc({}), exc({1, 2, 3}), inc({}),
         rec_text("ALLOW", reversed(upto(4, 15))),
         rec_text("ALLOW", reversed(upto(4, 15))) + "; BLOCK G1 {}"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        restart();
        set_state(eth2, G1, row.eth2_before);
        settle(row.eth1_before);
        set_state(eth2, G1, row.eth2_after);
        set_state(eth1, G1, row.eth1_after);
        EXPECT_EQ(stdout_of([&] { EXPECT_EQ(tick(), (texts{row.first, row.again})); }), "");
        EXPECT_EQ(tick(), texts{});
        expect_spent();
    }
}

// :: is the forwarding database's whole-group mark. A host that names it as a source names
// nobody: it never enters a link's lists, so it never reaches the upstream as a source.
TEST_F(StateChangeTest, TheWholeGroupMarkIsNeverReportedAsASource) {
    const std::vector<std::pair<const char*, group_state>> rows = {
        {"OnTheIncludeListBesideARealSource", include({{0, 100}, {1, 100}})},
        {"OnTheRequestedList", exclude({{0, 100}}, {}, 260)},
        {"OnTheExcludedList", exclude({}, {{0, 0}}, 260)},
    };
    const texts sent[] = {{"ALLOW G1 {S1}", "ALLOW G1 {S1}"},
                          {"TO_EX G1 {}", "TO_EX G1 {}"},
                          {"TO_EX G1 {}", "TO_EX G1 {}"}};
    for (size_t i = 0; i < rows.size(); i++) {
        SCOPED_TRACE(rows[i].first);
        restart();
        settle(inc({}));
        set_state(eth1, G1, rows[i].second);
        EXPECT_EQ(tick(), sent[i]);
        EXPECT_EQ(tick(), texts{});
    }
}

TEST_F(StateChangeTest, NothingIsSentWhileNoUpstreamIsKnown) {
    router.upstream = nullptr;
    router.active = 0;
    set_state(eth1, G1, exc({1}));
    for (int t = 0; t < 3; t++) {
        tick();
        EXPECT_TRUE(fake::kernel().sent_msgs.empty());
    }
}

}  // namespace
