// The router side of RFC 3810 section 7: the record handlers, one table per summary (7.4.1,
// 7.4.2), the MLDv1 mapping onto them, the queries after a possible leave (7.6.3) and the timer
// pass (7.5). Each row starts from a fresh router with eth1 on MIF 1 and the upstream on MIF 0;
// GMI is 260 and LLQT 2.
#include <sstream>

#include "test_support.h"

namespace {

const char* const kIsInEmpty = "\n FATAL Error - IS_IN record recieved with empty source list\n";
// A record with more sources than a list holds is handled as far as the list limit goes.
const char* const kLimit = "MLDRT: Limit of 64 sources per list reached, request not handled\n";

// Kernel calls for ff0e::101 as mfc_calls() prints them, written "+*" and "-*" for the (*,G)
// entry, "+n" for (Sn,G) forwarded to eth1, "=n" for (Sn,G) held back from it (an excluded
// source's own entry), "-n" for its deletion; "+1..12" is the range in that order.
texts k(const std::string& notation) {
    texts v;
    std::istringstream in(notation);
    for (std::string t; in >> t;) {
        if (t[1] == '*') {
            v.push_back(t[0] == '+' ? "add :: ff0e::101 parent 0 mifs 0,1" : "del :: ff0e::101");
            continue;
        }
        const size_t dots = t.find("..");
        const int first = std::stoi(t.substr(1)),
                  last = dots != std::string::npos ? std::stoi(t.substr(dots + 2)) : first;
        for (int n = first, step = first <= last ? 1 : -1; n != last + step; n += step) {
            const std::string sg = ip6_text(src(n).data()) + " ff0e::101";
            v.push_back(t[0] == '-' ? "del " + sg
                                    : "add " + sg + " parent 0 mifs " + (t[0] == '+' ? "1" : ""));
        }
    }
    return v;
}

constexpr uint8_t REPORT = kTypeV1Report, DONE = kTypeV1Done;  // a whole MLDv1 message

struct Row {
    const char* name;
    group_state before;
    uint8_t type;
    std::vector<int> srcs;
    group_state after;
    texts queries;       // from queries_sent()
    std::string kernel;  // k()
    std::string output = "";
    bool from_stranger = false;
    const char* group = "ff0e::101";
};

class RecordHandlerTest : public ListenerTest {
  protected:
    void check(const Row& row) {
        SCOPED_TRACE(row.name);
        restart();
        make_group(eth1, G1, row.before, host);
        forget_kernel_calls();
        const addr6 g = ip6(row.group);
        const addr6& from = row.from_stranger ? stranger : host;
        EXPECT_EQ(stdout_of([&] { hear_record(eth1, from, row.type, g, row.srcs); }), row.output);
        EXPECT_EQ(describe(group(eth1, G1)), describe(row.after));
        EXPECT_EQ(group(eth1, g) == nullptr, !row.after.exists || g != G1);
        if (Group* rec = group(eth1, G1)) {
            // One interface: the entry counts this group once while it is in EXCLUDE mode.
            EXPECT_EQ(rec->entry->exclude_count, row.after.mode == FilterMode::Exclude ? 1u : 0u);
            // TO_IN{} is the member's leave; any other record keeps or makes it a member.
            const bool left = (row.type == DONE || (row.type == TO_IN && row.srcs.empty())) &&
                              !row.from_stranger && g == G1;
            EXPECT_EQ(find_host(rec, host.data()) == nullptr, left);
        } else {
            EXPECT_EQ(router.entries, nullptr);
        }
        EXPECT_EQ(queries_sent(), row.queries);
        EXPECT_EQ(mfc_calls(), k(row.kernel));
    }
};

// Rows: name; state before, record and sources, state after; queries; kernel calls; then, where
// needed, the text printed and whether a host that is not a member sent the record.
// clang-format off
TEST_F(RecordHandlerTest, CurrentStateRecordsFollowTheRfc3810Table) {
    const std::vector<Row> rows = {
        {"IS_IN{S1} on a new group: INCLUDE{S1} at GMI", no_group(), IS_IN, {1},
         include({{1, 260}}), {}, "+1"},
        {"IS_IN{S1,S2} on INCLUDE{S1}: A+B, S1 refreshed without a kernel call", include({{1, 5}}),
         IS_IN, {1, 2}, include({{1, 260}, {2, 260}}), {}, "+2"},
        {"IS_IN{S1} on EXCLUDE({S2},{S1}): S1 leaves exc for req at GMI, filter timer kept",
         exclude({{2, 100}}, {{1, 0}}, 200), IS_IN, {1}, exclude({{1, 260}, {2, 100}}, {}, 200), {},
         "+1"},
        {"IS_IN{} still creates group and member, then prints its message", no_group(), IS_IN, {},
         include({}), {}, "", kIsInEmpty},
        {"IS_EX{} on INCLUDE{S1}: EXCLUDE({},{}), S1 withdrawn, (*,G) written", include({{1, 100}}),
         IS_EX, {}, exclude({}, {}, 260), {}, "-1 +*"},
        {"IS_EX{S1,S2} on INCLUDE{S1}: req A*B keeps its timer, exc B-A at 0", include({{1, 100}}),
         IS_EX, {1, 2}, exclude({{1, 100}}, {{2, 0}}, 260), {}, "-1 +* +1 =2"},
        {"IS_EX{S2} on INCLUDE{S1}: A*B empty, every source but S2 forwarded", include({{1, 100}}),
         IS_EX, {2}, exclude({}, {{2, 0}}, 260), {}, "-1 +* =2"},
        {"IS_EX{S3} on EXCLUDE({S1},{S2}): req B-Y, B-X-Y at GMI, exc Y*B",
         exclude({{1, 100}}, {{2, 0}}, 200), IS_EX, {3}, exclude({{3, 260}}, {}, 260), {},
         "-1 +3 -2"},
        {"IS_EX{S2,S3} on EXCLUDE({S1},{S2}): exc keeps Y*B", exclude({{1, 100}}, {{2, 0}}, 200),
         IS_EX, {2, 3}, exclude({{3, 260}}, {{2, 0}}, 260), {}, "-1 +3"},
        {"IS_EX{S1,S3} on EXCLUDE({S1},{}): (B-Y)*X keeps its timer, B-X-Y at GMI",
         exclude({{1, 100}}, {}, 200), IS_EX, {1, 3}, exclude({{1, 100}, {3, 260}}, {}, 260), {},
         "-1 +1 +3"},
        {"IS_EX{} on EXCLUDE({S1},{S2}): EXCLUDE({},{}), counted once, S2 no longer held back",
         exclude({{1, 100}}, {{2, 0}}, 200), IS_EX, {}, exclude({}, {}, 260), {}, "-1 -2"},
        {"IS_EX with 12 sources on INCLUDE{}: all 12 excluded", include({}), IS_EX, upto(1, 12),
         exclude({}, timed(upto(1, 12), 0), 260), {}, "+* =1..12"},
        {"IS_EX{S1..S15} on EXCLUDE({S1..S3},{}): 12 new at GMI, 3 keep their timers",
         exclude(timed(upto(1, 3), 100), {}, 200), IS_EX, upto(1, 15),
         exclude(timed(upto(1, 3), 100) + timed(upto(4, 15), 260), {}, 260), {}, "-3..1 +1..15"},
        {"IS_EX with 64 sources on INCLUDE{}: all 64 excluded", include({}), IS_EX, upto(1, 64),
         exclude({}, timed(upto(1, 64), 0), 260), {}, "+* =1..64"},
        {"IS_EX with 65 sources on INCLUDE{}: the first 64 excluded, the limit's line", include({}),
         IS_EX, upto(1, 65), exclude({}, timed(upto(1, 64), 0), 260), {}, "+* =1..64", kLimit},
    };
    for (const Row& row : rows) {
        check(row);
    }
}

// MLDv1 messages reach the same handlers as source-less records: a report as TO_EX{} (not
// IS_EX{} as RFC 3810 section 8.3.2 maps it), a done as TO_IN{}, its query in MLDv2 form.
TEST_F(RecordHandlerTest, StateChangeRecordsFollowTheRfc3810Table) {
    const std::vector<Row> rows = {
        {"TO_IN{} from a host that is not a member changes nothing", include({{1, 100}}), TO_IN, {},
         include({{1, 100}}), {}, "", "", true},
        {"TO_IN{S1} for an unknown group creates nothing", no_group(), TO_IN, {1}, no_group(), {},
         ""},
        {"TO_IN{} on INCLUDE{S1}: Q(G,A-B) lowers S1 to LLQT", include({{1, 100}}), TO_IN, {},
         include({{1, 2}}), {query(G1, {1})}, ""},
        {"TO_IN{S2} on INCLUDE{S1}: A+B at GMI, Q(G,A-B)", include({{1, 100}}), TO_IN, {2},
         include({{1, 2}, {2, 260}}), {query(G1, {1})}, "+2"},
        {"TO_IN{} on EXCLUDE({S1},{}): Q(G,X-A) then Q(G), filter timer to LLQT",
         exclude({{1, 100}}, {}, 200), TO_IN, {}, exclude({{1, 2}}, {}, 2),
         {query(G1, {1}), query(G1, {})}, ""},
        {"TO_IN{} on EXCLUDE({},{}): Q(G) only", exclude({}, {}, 200), TO_IN, {},
         exclude({}, {}, 2), {query(G1, {})}, ""},
        {"TO_IN{S2} on EXCLUDE({},{S2}): req X+B, exc Y-B, Q(G) only", exclude({}, {{2, 0}}, 200),
         TO_IN, {2}, exclude({{2, 260}}, {}, 2), {query(G1, {})}, "+2"},
        {"TO_IN{} on EXCLUDE({S1},{}): Q(G,{S1}), then Q(G)", exclude({{1, 260}}, {}, 200), TO_IN,
         {}, exclude({{1, 2}}, {}, 2), {query(G1, {1}), query(G1, {})}, ""},
        {"TO_EX{} on a new group: EXCLUDE({},{}) at GMI, (*,G) written, no query", no_group(),
         TO_EX, {}, exclude({}, {}, 260), {}, "+*"},
        {"TO_EX{S1} on INCLUDE{S1}: req A*B, and no Q(G,A*B)", include({{1, 100}}), TO_EX, {1},
         exclude({{1, 100}}, {}, 260), {}, "-1 +* +1"},
        {"TO_EX{S1,S2} on INCLUDE{S1,S3}: req A*B, exc B-A at 0, A-B gone",
         include({{1, 100}, {3, 50}}), TO_EX, {1, 2}, exclude({{1, 100}}, {{2, 0}}, 260), {},
         "-3 -1 +* +1 =2"},
        {"TO_EX{} on EXCLUDE({S1},{S2}): EXCLUDE({},{}), counted once, S2 no longer held back",
         exclude({{1, 100}}, {{2, 0}}, 200), TO_EX, {}, exclude({}, {}, 260), {}, "-1 -2"},
        {"TO_EX{S2} on EXCLUDE({S1},{}): S2 at the old filter timer, Q(G,B-Y)",
         exclude({{1, 100}}, {}, 200), TO_EX, {2}, exclude({{2, 200}}, {}, 260), {query(G1, {2})},
         "-1 +2"},
        {"TO_EX{S1,S2} on EXCLUDE({S1},{}): S1 lowered by Q(G,B-Y), S2 at the old filter timer",
         exclude({{1, 100}}, {}, 200), TO_EX, {1, 2}, exclude({{1, 2}, {2, 200}}, {}, 260),
         {query(G1, {1}), query(G1, {2})}, "-1 +1 +2"},
        {"TO_EX{S2} on EXCLUDE({S1},{S2}): nothing requested, exc Y*B, no query",
         exclude({{1, 100}}, {{2, 0}}, 200), TO_EX, {2}, exclude({}, {{2, 0}}, 260), {}, "-1"},
        {"TO_EX with 12 new sources on EXCLUDE({S1},{}): all 12 requested and queried",
         exclude({{1, 100}}, {}, 200), TO_EX, upto(2, 13),
         exclude(timed(upto(2, 13), 200), {}, 260), {query(G1, reversed(upto(2, 13)))},
         "-1 +2..13"},
        {"TO_EX with 12 sources on INCLUDE of the same 12: all 12 requested",
         include(timed(upto(1, 12), 100)), TO_EX, upto(1, 12),
         exclude(timed(upto(1, 12), 100), {}, 260), {}, "-12..1 +* +12..1"},
        {"TO_EX with 65 new sources on EXCLUDE({},{}): the first 64 requested, the limit's line",
         exclude({}, {}, 200), TO_EX, upto(1, 65), exclude(timed(upto(1, 64), 200), {}, 260),
         {query(G1, reversed(upto(1, 64)))}, "+1..64", kLimit},
        {"ALLOW{S1} on a new group: INCLUDE{S1} at GMI", no_group(), ALLOW, {1},
         include({{1, 260}}), {}, "+1"},
        {"ALLOW{S2} on INCLUDE{S1}: A+B", include({{1, 100}}), ALLOW, {2},
         include({{1, 100}, {2, 260}}), {}, "+2"},
        {"ALLOW{S1} on EXCLUDE({},{S1}): S1 leaves exc for req at GMI", exclude({}, {{1, 0}}, 200),
         ALLOW, {1}, exclude({{1, 260}}, {}, 200), {}, "+1"},
        {"ALLOW{} leaves the new group empty in INCLUDE and prints its message", no_group(), ALLOW,
         {}, include({}), {}, "", "\n FATAL: Allow record recievd with ZERO sources\n"},
        {"BLOCK{} prints its message and changes nothing", include({{1, 100}}), BLOCK, {},
         include({{1, 100}}), {}, "", "\n FATAL: Block record recievd with ZERO sources\n"},
        {"BLOCK{S2} on INCLUDE{S1}: A*B empty, no query", include({{1, 100}}), BLOCK, {2},
         include({{1, 100}}), {}, ""},
        {"BLOCK{S1} on INCLUDE{S1}: Q(G,A*B) lowers S1 to LLQT", include({{1, 100}}), BLOCK, {1},
         include({{1, 2}}), {query(G1, {1})}, ""},
        {"BLOCK{S3} on EXCLUDE({S1},{S2}): S3 requested at the filter timer, lowered by Q(G,B-Y)",
         exclude({{1, 100}}, {{2, 0}}, 200), BLOCK, {3}, exclude({{1, 100}, {3, 2}}, {{2, 0}}, 200),
         {query(G1, {3})}, "+3"},
        {"BLOCK{S2} on EXCLUDE({S1},{S2}) does nothing", exclude({{1, 100}}, {{2, 0}}, 200), BLOCK,
         {2}, exclude({{1, 100}}, {{2, 0}}, 200), {}, ""},
        {"BLOCK{S1} on EXCLUDE({S1},{}): S1 keeps its timer until Q(G,B-Y) lowers it",
         exclude({{1, 100}}, {}, 200), BLOCK, {1}, exclude({{1, 2}}, {}, 200), {query(G1, {1})},
         ""},
        {"BLOCK with 12 sources on INCLUDE of the same 12: all 12 queried",
         include(timed(upto(1, 12), 100)), BLOCK, upto(1, 12), include(timed(upto(1, 12), 2)),
         {query(G1, upto(1, 12))}, ""},
        {"BLOCK with 12 new sources on EXCLUDE({S1},{}): all 12 requested and queried",
         exclude({{1, 100}}, {}, 200), BLOCK, upto(2, 13),
         exclude(timed({1}, 100) + timed(upto(2, 13), 2), {}, 200),
         {query(G1, reversed(upto(2, 13)))}, "+2..13"},
        {"MLDv1 report: EXCLUDE({},{}) at GMI, (*,G) with the upstream MIF, no query", no_group(),
         REPORT, {}, exclude({}, {}, 260), {}, "+*"},
        {"MLDv1 done from the member: Q(G)", exclude({}, {}, 260), DONE, {}, exclude({}, {}, 2),
         {query(G1, {})}, ""},
        {"MLDv1 done from a host that is not a member is ignored", exclude({}, {}, 260), DONE, {},
         exclude({}, {}, 260), {}, "", "", true},
        {"MLDv1 report for a unicast address is ignored", no_group(), REPORT, {}, no_group(), {},
         "", "", false, "2001:db8::1"},
        {"MLDv1 done for a unicast address is ignored", exclude({}, {}, 260), DONE, {},
         exclude({}, {}, 260), {}, "", "", false, "2001:db8::1"},
    };
    for (const Row& row : rows) {
        check(row);
    }
}
// clang-format on

// Hosts leave with TO_IN{} and repeat it, often before the router's first retransmission. The
// first leave queries the group; a leave heard while that query is being retransmitted, the
// same host's or another's, neither sends another query nor touches the timer, quietly.
TEST_F(RecordHandlerTest, RepeatedAnySourceLeavesQueryTheGroupOnceQuietly) {
    Group* g = make_group(eth1, G1, exclude({}, {}, 260), host);
    ASSERT_NE(add_host(g, stranger.data()), nullptr);
    forget_kernel_calls();
    EXPECT_EQ(stdout_of([&] {
                  for (const addr6* from : {&host, &host, &stranger}) {
                      hear_record(eth1, *from, TO_IN, G1);
                  }
                  age_link_groups(&router, eth1);  // the group query's retransmission
                  age_link_groups(&router, eth1);
              }),
              "");
    EXPECT_EQ(queries_sent(), (texts{query(G1, {}), query(G1, {})}));
}

// The member limit never costs a listener its traffic: once 64 hosts are recorded, the 65th
// is served, only not recorded, and while the list is full its own leave is heard too.
// (tests/lab/test_filters.sh's member_limit shows 70 hosts served and the late ones recorded
// once the first 64 have left.)
TEST_F(RecordHandlerTest, HostsBeyondTheMemberLimitAreServedButNotRecorded) {
    Group* g = make_group(eth1, G1, exclude({}, {}, 260), host_n(1));
    for (int n = 2; n <= 64; n++) {
        ASSERT_NE(add_host(g, host_n(n).data()), nullptr);
    }
    const addr6 late = host_n(65);
    g->filter_timer = 2;  // a last-listener query is under way
    EXPECT_EQ(stdout_of([&] { hear_record(eth1, late, IS_EX, G1); }),
              "MLDRT: Limit of 64 members per group reached, host served but not recorded\n");
    EXPECT_EQ(describe(g), describe(exclude({}, {}, 260)));
    EXPECT_EQ(find_host(g, late.data()), nullptr);
    forget_kernel_calls();
    hear_record(eth1, late, TO_IN, G1);
    EXPECT_EQ(queries_sent(), texts{query(G1, {})});
    EXPECT_EQ(g->filter_timer, 2);
}

// One MLDv1 report puts only its group in MLDv1 compatibility mode, for the Older Version Host
// Present Timeout (RFC 3810 section 8.3.2): that group's source filters are void (TO_EX{S} is
// TO_EX{}, BLOCK is ignored) while other groups keep theirs, and the link's queries stay MLDv2.
TEST_F(RecordHandlerTest, OneMldv1HostPutsOnlyItsGroupInCompatibilityMode) {
    hear_record(eth1, host, REPORT, G1);
    Group* g1 = group(eth1, G1);
    ASSERT_NE(g1, nullptr);
    EXPECT_EQ(g1->v1_host_timer, 260);
    hear_record(eth1, stranger, TO_EX, G1, {1});
    hear_record(eth1, stranger, BLOCK, G1, {2});
    hear_record(eth1, stranger, TO_EX, G2, {1});
    EXPECT_EQ(describe(g1), describe(exclude({}, {}, 260)));
    EXPECT_EQ(describe(group(eth1, G2)), describe(exclude({}, {{1, 0}}, 260)));
    EXPECT_EQ(queries_sent(), texts{});
    EXPECT_EQ(eth1->mld_version, 2);
    g1->v1_host_timer = 1;  // the MLDv1 host has not been heard for the timeout
    age_link_groups(&router, eth1);
    hear_record(eth1, stranger, TO_EX, G1, {1});
    EXPECT_EQ(describe(g1), describe(exclude({{1, 259}}, {}, 260)));  // filtered by the table
    EXPECT_EQ(queries_sent(), texts{query(G1, {1})});
}

class TimerTest : public ListenerTest {
  protected:
    // One second of the event loop for the listeners: every link's timer pass, then the merge
    // (which removes what became empty); the queries sent in it.
    texts tick() {
        fake::kernel().sent_msgs.clear();
        for (Link* ifp = router.interfaces; ifp; ifp = ifp->next) {
            age_link_groups(&router, ifp);
        }
        report_changes(&router);
        return queries_sent();
    }
    // The queries after a possible leave of sources `ns` of G1 (none: of the group), the
    // sources chained as the algebra's results are; what it printed.
    std::string leave(Group* g, const std::vector<int>& ns) {
        std::vector<Source> chain(ns.size() + 1);
        for (size_t i = 0; i < ns.size(); i++) {
            std::memcpy(chain[i].address, src(ns[i]).data(), 16);
            chain[i].next = i + 1 < ns.size() ? &chain[i + 1] : nullptr;
        }
        return stdout_of([&] {
            lower_timers_and_query(&router, eth1, g, G1.data(), ns.empty() ? nullptr : &chain[0],
                                   static_cast<uint32_t>(ns.size()));
        });
    }
};

// After a possible leave (RFC 3810 section 7.6.3): a group-specific query sets the filter timer
// to LLQT (even upwards, as deployed) and goes out LLQC times, LLQI apart. A source-specific one
// lowers to LLQT the timers above it (compared unsigned) of the sources the group holds (in
// EXCLUDE mode: requests), asks for them, lowered ones first and in a query of their own, and
// asks again LLQI later; sources the group lacks are not asked for.
TEST_F(TimerTest, QueriesAfterAPossibleLeaveLowerTimersAndAreRepeated) {
    struct Row {
        const char* name;
        group_state before;
        std::vector<int> queried;  // none: group-specific
        group_state after;
        texts queries;  // at once, and again a second later
    };
    // clang-format off
    const std::vector<Row> rows = {
        {"group-specific: filter timer 260 to LLQT", exclude({}, {}, 260), {}, exclude({}, {}, 2),
         {query(G1, {})}},
        {"group-specific: filter timer 1 to LLQT", exclude({}, {}, 1), {}, exclude({}, {}, 2),
         {query(G1, {})}},
        {"INCLUDE: 260 and -1 lowered, 2 and 1 kept, S5 unknown",
         include({{1, 260}, {2, 2}, {3, 1}, {4, -1}}, 50), {1, 2, 3, 4, 5},
         include({{1, 2}, {2, 2}, {3, 1}, {4, 2}}, 50), {query(G1, {4, 1}), query(G1, {3, 2})}},
        {"EXCLUDE: the requested list only", exclude({{1, 260}}, {{2, 0}}, 200), {2, 1},
         exclude({{1, 2}}, {{2, 0}}, 200), {query(G1, {1})}},
        {"no queried source in the group", include({{1, 100}}), {2, 3}, include({{1, 100}}), {}},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        restart();
        Group* g = make_group(eth1, G1, row.before, host);
        forget_kernel_calls();
        EXPECT_EQ(leave(g, row.queried), "");
        EXPECT_EQ(describe(g), describe(row.after));
        EXPECT_EQ(queries_sent(), row.queries);
        EXPECT_EQ(tick(), row.queries);
        EXPECT_EQ(tick(), texts{});
    }
}

// Hosts repeat their leaves (Linux sends BLOCK or TO_IN twice, the second copy often before
// the router's retransmission). Each source is asked Last Listener Query Count times in all
// (RFC 3810 section 7.6.3.2): a repeated leave neither restarts its count nor lowers its timer
// again; a new source is asked with the pending ones, each query's count that of the sources it
// carries, so none is dropped.
TEST_F(TimerTest, RepeatedLeavesKeepEachSourcesRetransmissions) {
    struct Row {
        const char* name;
        uint32_t llqc;
        std::vector<std::vector<int>> steps;  // sources left; {} is one second of timers
        texts queries;
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
        for (const std::vector<int>& step : row.steps) {
            if (step.empty()) {
                age_link_groups(&router, eth1);
            } else {
                EXPECT_EQ(leave(g, step), "");
            }
        }
        EXPECT_EQ(queries_sent(), row.queries);
        ASSERT_EQ(group(eth1, G1), g);
        const Source* s1 = find_source(g->include_list, src(1).data());
        EXPECT_EQ(s1 ? s1->timer : -1, row.s1_timer);
    }
}

// A source that runs out while its queries are still being repeated leaves at once, but its
// group stays until the last retransmission is sent (and a tick more, for the answers).
TEST_F(TimerTest, GroupOutlivesItsLastSourceUntilItsQueriesAreSent) {
    router.last_listener_query_count = 3;
    make_group(eth1, G1, include({{1, 1}}), host);
    forget_kernel_calls();
    hear_record(eth1, host, BLOCK, G1, {1});
    EXPECT_EQ(queries_sent(), texts{query(G1, {1})});
    EXPECT_EQ(tick(), texts{query(G1, {1})});
    EXPECT_EQ(mfc_calls(), texts{"del 2001:db8::1 ff0e::101"});
    EXPECT_EQ(describe(group(eth1, G1)), describe(include({})));
    EXPECT_EQ(tick(), texts{query(G1, {1})});
    EXPECT_NE(group(eth1, G1), nullptr);
    EXPECT_EQ(tick(), texts{});
    EXPECT_EQ(group(eth1, G1), nullptr);
    EXPECT_EQ(router.entries, nullptr);
}

struct ExpiryRow {
    const char* name;
    group_state eth1_before, eth2_before, eth1_after;
    texts kernel;
    int exclude_count;  // of the entry afterwards; -1: the entry is gone
};

// One second of every link's timers (RFC 3810 section 7.5), as the last pass at shutdown runs
// it: INCLUDE sources age and leave with their forwarding; requested sources that run out are
// excluded; filter timer expiry returns the group to INCLUDE with its requested sources
// (restarted at GMI), the link leaves the (*,G) entry and the entry's EXCLUDE count drops; an
// empty group goes with its entry. Nothing expires early.
TEST_F(TimerTest, OneSecondOfTimersFollowsTheRfc3810Table) {
    const std::string s1 = "2001:db8::1 ff0e::101", s2 = "2001:db8::2 ff0e::101";
    // clang-format off
    const std::vector<ExpiryRow> rows = {
        {"INCLUDE sources age, the one at 1 leaves", include({{1, 1}, {2, 100}}), no_group(),
         include({{2, 99}}), {"del " + s1}, 0},
        {"fresh timers only age", include({{1, 260}}), no_group(), include({{1, 259}}), {}, 0},
        {"fresh filter timer only ages", exclude({}, {{3, 0}}, 260), no_group(),
         exclude({}, {{3, 0}}, 259), {}, 1},
        {"a requested source that runs out is excluded", exclude({{1, 1}, {2, 5}}, {}, 100),
         no_group(), exclude({{2, 4}}, {{1, 1}}, 99), {"add " + s1 + " parent 0 mifs "}, 1},
        {"filter timer expiry, last listener: (*,G) removed, (S1,G) rewritten without it",
         exclude({{1, 50}}, {{2, 0}}, 1), no_group(), include({{1, 260}}, 1),
         {"del " + s2, "del :: ff0e::101", "add " + s1 + " parent 0 mifs 1"}, 0},
        {"filter timer expiry, another link listens: both entries without this link's MIF",
         exclude({{1, 50}}, {{2, 0}}, 1), exclude({}, {}, 100), include({{1, 260}}, 1),
         {"del " + s2, "add :: ff0e::101 parent 0 mifs 0,2", "add " + s1 + " parent 0 mifs 1,2"},
         1},
        {"filter timer expiry, nothing requested: group and entry removed",
         exclude({}, {{2, 0}}, 1), no_group(), no_group(), {"del " + s2, "del :: ff0e::101"}, -1},
    };
    // clang-format on
    for (const ExpiryRow& row : rows) {
        SCOPED_TRACE(row.name);
        restart();
        Link* eth2 = make_link("eth2", 12, 2);
        make_group(eth2, G1, row.eth2_before, host);
        make_group(eth1, G1, row.eth1_before, host);
        forget_kernel_calls();
        final_membership_pass(&router);
        report_changes(&router);  // as the loop does after every pass
        EXPECT_EQ(describe(group(eth1, G1)), describe(row.eth1_after));
        EXPECT_EQ(mfc_calls(), row.kernel);
        EXPECT_EQ(queries_sent(), texts{});
        ASSERT_EQ(entry(G1) != nullptr, row.exclude_count >= 0);
        if (entry(G1)) {
            EXPECT_EQ(entry(G1)->exclude_count, static_cast<uint32_t>(row.exclude_count));
        }
    }
}

// A deleted link's groups leave the forwarding database before its record is freed: the other
// link's listening stays in the kernel, this link's goes, the EXCLUDE count drops once (ASan:
// later passes never reach the freed record). The upstream hears the leave at once, twice; the
// entry whose report is under way stays until its last copy is sent. (tests/lab/
// test_forwarding.sh deletes a link under a listener and follows the kernel's entries.)
TEST_F(UpstreamTest, ADeletedLinkReleasesItsGroupsAndTheUpstreamHearsTheLeave) {
    make_group(eth1, G1, exclude({}, {}, 260), host);
    make_group(eth1, G2, include({{1, 260}}), host);
    make_group(eth2, G1, exclude({}, {}, 260), host);
    tick();
    tick();
    forget_kernel_calls();
    release_link_groups(&router, eth1);
    EXPECT_EQ(eth1->groups, nullptr);
    EXPECT_EQ(mfc_calls(),
              (texts{"del 2001:db8::1 ff0e::102", "add :: ff0e::101 parent 0 mifs 0,2"}));
    EXPECT_EQ(entry(G1)->exclude_count, 1u);
    EXPECT_EQ(describe(group(eth2, G1)), describe(exclude({}, {}, 260)));
    EXPECT_EQ(tick(), (texts{"BLOCK G2 {S1}", "BLOCK G2 {S1}"}));
    ASSERT_NE(entry(G2), nullptr);  // kept until the merge after its last copy
    report_changes(&router);
    EXPECT_EQ(entry(G2), nullptr);
    EXPECT_NE(entry(G1), nullptr);
}

}  // namespace
