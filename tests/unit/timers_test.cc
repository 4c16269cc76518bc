// The once-a-second pass over the listener database: source and filter timers, query
// retransmissions, the removal of what has become empty, and the release of a deleted
// interface's groups. GMI 260, LLQI 1, LLQC 2; downstream links on MIFs 1 and 2, upstream 0.

#include "daemon/netlink.h"
#include "upstream_support.h"

using namespace mldproxy;

namespace {

using namespace ups;

class TimersTest : public UpstreamTest {
  protected:
    // One second of the event loop: each interface's timer pass, then the upstream work (the
    // changes merged and reported, empty entries removed, retransmissions due).
    void tick() {
        for (Link* ifp = router.interfaces; ifp; ifp = ifp->next) {
            age_link_groups(&router, ifp);
        }
        report_changes(&router);
        fake::kernel().monotonic_ms += 1000;
        retransmit_due(&router, fake::monotonic_now_ms());
    }
    void add_to(Group* g, ListKind kind, int s, uint16_t rtx) {
        add_source_to_group(g, g->mfdb, kind, src(s).data())->rtx_count = rtx;
    }
};

TEST_F(TimersTest, IncludeSourceWithTimerThreeLeavesAtTheThirdTick) {
    Group* g = make_group(eth1, G1, include({{1, 3}, {2, 100}}), host);
    forget_kernel_calls();
    tick();
    EXPECT_EQ(describe(g), describe(include({{1, 2}, {2, 99}})));
    tick();
    EXPECT_EQ(describe(g), describe(include({{1, 1}, {2, 98}})));
    EXPECT_EQ(mfc_calls(), texts{});
    tick();
    EXPECT_EQ(describe(g), describe(include({{2, 97}})));
    EXPECT_EQ(mfc_calls(), texts{"del 2001:db8::1 ff0e::101"});
}

struct ExpiryRow {
    const char* name;
    group_state eth1_before, eth2_before;
    group_state eth1_after;
    std::vector<std::string> kernel;
    bool entry_left;
    uint32_t exclude_count;
};

// RFC 3810 section 7.5: filter timer expiry returns the group to INCLUDE with its requested
// sources (restarted at GMI, the remaining timer is not carried over); the link leaves the
// (*,G) entry and the entry's EXCLUDE count drops.
TEST_F(TimersTest, FilterTimerExpiryReturnsTheGroupToInclude) {
    // clang-format off
    const std::vector<ExpiryRow> rows = {
        {"last listener of the group: (*,G) removed, (S1,G) rewritten without it",
         exclude({{1, 50}}, {{2, 0}}, 1), no_group(), include({{1, 260}}, 1),
         {"del 2001:db8::2 ff0e::101", "del :: ff0e::101",
          "add 2001:db8::1 ff0e::101 parent 0 mifs 1"},
         true, 0},
        {"another link still listens: (*,G) and (S1,G) rewritten without this link's MIF",
         exclude({{1, 50}}, {{2, 0}}, 1), exclude({}, {}, 100),
         include({{1, 260}}, 1),
         {"del 2001:db8::2 ff0e::101", "add :: ff0e::101 parent 0 mifs 0,2",
          "add 2001:db8::1 ff0e::101 parent 0 mifs 1,2"},
         true, 1},
        {"no source requested: the group and its entry are removed",
         exclude({}, {{2, 0}}, 1), no_group(), no_group(),
         {"del 2001:db8::2 ff0e::101", "del :: ff0e::101"}, false, 0},
    };
    // clang-format on
    for (const ExpiryRow& row : rows) {
        SCOPED_TRACE(row.name);
        restart();
        make_group(eth1, G1, row.eth1_before, host);
        make_group(eth2, G1, row.eth2_before, host);
        forget_kernel_calls();
        age_link_groups(&router, eth1);
        report_changes(&router);  // the loop's merge after the timers: empty entries go
        EXPECT_EQ(describe(group(eth1, G1)), describe(row.eth1_after));
        EXPECT_EQ(mfc_calls(), row.kernel);
        EXPECT_EQ(router.del_mifi, 1u);
        ASSERT_EQ(entry(G1) != nullptr, row.entry_left);
        if (row.entry_left) {
            EXPECT_EQ(entry(G1)->exclude_count, row.exclude_count);
        }
    }
}

// A requested source that runs out is excluded (RFC 3810 section 7.3): its entry holds it back
// from the link while the (*,G) entry goes on listing the link for every other source.
TEST_F(TimersTest, RequestedSourcesRunningOutMoveToTheExcludedList) {
    Group* g = make_group(eth1, G1, exclude({{1, 1}, {2, 5}}, {}, 100), host);
    forget_kernel_calls();
    age_link_groups(&router, eth1);
    EXPECT_EQ(describe(g), describe(exclude({{2, 4}}, {{1, 1}}, 99)));
    EXPECT_EQ(mfc_calls(), (texts{"add 2001:db8::1 ff0e::101 parent 0 mifs "}));
}

TEST_F(TimersTest, QueryRetransmissionsGoOutWhenTheirTimerRunsOut) {
    Group* g = make_group(eth1, G1, include({{1, 100}, {2, 100}}), host);
    group_queries(g)->group_count = 1;
    group_queries(g)->group_timer = 1;
    group_queries(g)->source_count = 2;
    group_queries(g)->source_timer = 1;
    add_to(g, ListKind::QuerySuppressed, 1, 2);
    add_to(g, ListKind::QueryNotSuppressed, 2, 1);
    forget_kernel_calls();

    tick();
    EXPECT_EQ(queries_sent(), (texts{query(G1, {}), query(G1, {1}), query(G1, {2})}));
    EXPECT_EQ(queries_of(g).group_count, 0);
    EXPECT_EQ(queries_of(g).source_count, 1);
    EXPECT_EQ(queries_of(g).source_timer, 1);
    EXPECT_EQ(rtx_text(queries_of(g).suppressed), "S1/1");
    EXPECT_EQ(rtx_text(queries_of(g).not_suppressed), "");
    forget_kernel_calls();

    tick();
    EXPECT_EQ(queries_sent(), texts{query(G1, {1})});
    EXPECT_EQ(queries_of(g).source_count, 0);
    EXPECT_EQ(queries_of(g).suppressed, nullptr);
    forget_kernel_calls();

    tick();
    EXPECT_EQ(queries_sent(), texts{});
}

TEST_F(TimersTest, GroupOutlivesItsLastSourceUntilItsRetransmissionsAreSent) {
    Group* g = make_group(eth1, G1, include({{1, 1}}), host);
    group_queries(g)->group_count = 2;
    group_queries(g)->group_timer = 1;
    forget_kernel_calls();

    tick();  // S1 leaves; one query is still due
    EXPECT_EQ(describe(group(eth1, G1)), describe(include({})));
    EXPECT_EQ(mfc_calls(), texts{"del 2001:db8::1 ff0e::101"});
    EXPECT_EQ(queries_sent(), texts{query(G1, {})});
    tick();  // the last retransmission
    ASSERT_EQ(group(eth1, G1), g);
    EXPECT_EQ(queries_of(g).group_count, 0);
    EXPECT_EQ(queries_sent(), (texts{query(G1, {}), query(G1, {})}));
    tick();  // the removal pass takes group, member and entry
    EXPECT_EQ(group(eth1, G1), nullptr);
    EXPECT_EQ(router.mfdb_list, nullptr);
    EXPECT_EQ(queries_sent().size(), 2u);
}

// Upstream state-change reports still under way keep their entry, and only theirs; the entry
// goes once its last copy has left.
TEST_F(TimersTest, PendingHostStateReportsKeepOnlyTheirEntry) {
    make_group(eth1, G2, include({}), host);
    make_group(eth1, G1, include({}), host);
    entry(G1)->to_include_count = 1;
    report_changes(&router);
    EXPECT_NE(group(eth1, G1), nullptr);
    EXPECT_EQ(group(eth1, G2), nullptr);
    EXPECT_EQ(entry(G2), nullptr);

    entry(G1)->to_include_count = 0;
    report_changes(&router);
    EXPECT_NE(entry(G1), nullptr);  // nothing marked it: it is not looked at
    mark_changed(entry(G1));
    report_changes(&router);
    EXPECT_EQ(router.mfdb_list, nullptr);
    EXPECT_EQ(eth1->groups, nullptr);
}

// One more ordinary tick, as at shutdown: nothing expires early.
TEST_F(TimersTest, CleanupOnFreshTimersRemovesNothing) {
    Group* g1 = make_group(eth1, G1, include({{1, 260}}), host);
    Group* g2 = make_group(eth1, G2, exclude({}, {{3, 0}}, 260), host);
    forget_kernel_calls();
    final_membership_pass(&router);
    EXPECT_EQ(describe(group(eth1, G1)), describe(include({{1, 259}})));
    EXPECT_EQ(describe(group(eth1, G2)), describe(exclude({}, {{3, 0}}, 259)));
    EXPECT_EQ(group(eth1, G1), g1);
    EXPECT_EQ(group(eth1, G2), g2);
    EXPECT_EQ(mfc_calls(), texts{});
    EXPECT_EQ(queries_sent(), texts{});
}

TEST_F(TimersTest, RetransmissionListsAgeAndLoseSpentEntries) {
    Group* g = make_group(eth1, G1, include({}), host);
    add_to(g, ListKind::QuerySuppressed, 2, 1);
    add_to(g, ListKind::QuerySuppressed, 1, 2);
    add_to(g, ListKind::QueryNotSuppressed, 4, 3);
    add_to(g, ListKind::QueryNotSuppressed, 3, 1);
    ASSERT_EQ(rtx_text(queries_of(g).suppressed), "S1/2 S2/1");
    age_retransmission_lists(g);
    EXPECT_EQ(rtx_text(queries_of(g).suppressed), "S1/1");
    EXPECT_EQ(rtx_text(queries_of(g).not_suppressed), "S4/2");
    age_retransmission_lists(g);
    EXPECT_EQ(rtx_text(queries_of(g).suppressed), "");
    EXPECT_EQ(rtx_text(queries_of(g).not_suppressed), "S4/1");
}

// A deleted interface's groups leave the forwarding database first: the other link's
// listening stays in the kernel, this link's goes, and the EXCLUDE count drops once.
TEST_F(TimersTest, ReleasingAnInterfaceWithdrawsOnlyItsForwarding) {
    make_group(eth1, G1, exclude({}, {}, 260), host);
    make_group(eth1, G2, include({{1, 260}}), host);
    make_group(eth2, G1, exclude({}, {}, 260), host);
    ASSERT_EQ(entry(G1)->exclude_count, 2u);
    forget_kernel_calls();

    release_link_groups(&router, eth1);
    EXPECT_EQ(eth1->groups, nullptr);
    EXPECT_EQ(mfc_calls(),
              (texts{"del 2001:db8::1 ff0e::102", "add :: ff0e::101 parent 0 mifs 0,2"}));
    EXPECT_EQ(entry(G1)->exclude_count, 1u);
    EXPECT_EQ(describe(group(eth2, G1)), describe(exclude({}, {}, 260)));

    report_changes(&router);
    EXPECT_EQ(entry(G2), nullptr);
    EXPECT_NE(entry(G1), nullptr);
}

// RTM_DELLINK of a downstream link: one timer pass, the release, the MIF removal, the record
// freed; later passes never reach the freed record through a group or an entry (ASan).
TEST_F(TimersTest, InterfaceDownReleasesItsGroupsBeforeTheRecordIsFreed) {
    make_group(eth1, G1, exclude({}, {}, 260), host);
    make_group(eth1, G2, include({{1, 260}}), host);
    forget_kernel_calls();

    SystemLink link{};
    std::strcpy(link.name, "eth1");
    link.ifindex = 11;
    handle_link_down(&router, &link);
    EXPECT_EQ(find_link_by_name(router.interfaces, "eth1"), nullptr);
    EXPECT_EQ(mfc_calls(), (texts{"del 2001:db8::1 ff0e::102", "del :: ff0e::101"}));
    EXPECT_EQ(fake::sockopts(kKLevel, MRT6_DEL_MIF_OPT).size(), 1u);
    ASSERT_NE(entry(G1), nullptr);
    EXPECT_EQ(entry(G1)->exclude_count, 0u);

    tick();
    tick();
    EXPECT_EQ(router.mfdb_list, nullptr);
}

// The released group's leave reaches the upstream at once (robustness 2: the change and one
// retransmission) and keeps the entry until the last copy is sent.
TEST_F(TimersTest, InterfaceDownTellsTheUpstreamBeforeTheEntryGoes) {
    make_group(eth1, G1, exclude({}, {}, 260), host);
    UpstreamTest::tick();  // the upstream is told EXCLUDE{} for G1, twice
    UpstreamTest::tick();
    forget_kernel_calls();
    SystemLink link{};
    std::strcpy(link.name, "eth1");
    link.ifindex = eth1->ifindex;
    handle_link_down(&router, &link);
    EXPECT_EQ(UpstreamTest::tick(), (texts{"TO_IN G1 {}", "TO_IN G1 {}"}));
    ASSERT_NE(entry(G1), nullptr);  // kept until the merge after its last copy
    report_changes(&router);
    EXPECT_EQ(router.mfdb_list, nullptr);
}

}  // namespace
