// The router side of RFC 3810 (section 7) as this router applies it: the record handlers, one
// table per summary (7.4.1 current-state, 7.4.2 state-change records), the MLDv1 mapping onto
// them, the group- and source-specific queries after a possible leave with their
// retransmissions (7.6.3), and the once-a-second timer pass (7.5). Each row starts from a fresh
// router with one downstream link (MIF 1) and the upstream on MIF 0; GMI is 260 and LLQT 2.
#include "test_support.h"

namespace {

const char* const kIsInEmpty = "\n FATAL Error - IS_IN record recieved with empty source list\n";
// A record with more sources than a list holds is handled as far as the list limit goes.
const char* const kLimit = "MLDRT: Limit of 64 sources per list reached, request not handled\n";

// Kernel calls for (Sn, ff0e::101) as mfc_calls() prints them: forwarded to eth1, held back
// (an excluded source's own entry keeps it from the link that the (*,G) entry lists), deleted.
texts calls(const char* what, const std::vector<int>& ns) {
    texts v;
    for (int n : ns) {
        const std::string sg = ip6_text(src(n).data()) + " ff0e::101";
        v.push_back(what[0] == 'd' ? "del " + sg
                                   : "add " + sg + " parent 0 mifs " + (what[0] == 'a' ? "1" : ""));
    }
    return v;
}
texts add_sgs(const std::vector<int>& ns) {
    return calls("add", ns);
}
texts del_sgs(const std::vector<int>& ns) {
    return calls("del", ns);
}
texts held_back(const std::vector<int>& ns) {
    return calls("held", ns);
}
std::string add_sg(int s) {
    return add_sgs({s})[0];
}
std::string del_sg(int s) {
    return del_sgs({s})[0];
}
std::string held_back(int s) {
    return held_back(std::vector<int>{s})[0];
}
const std::string kAddStarG = "add :: ff0e::101 parent 0 mifs 0,1";

struct Row {
    const char* name;
    group_state before;
    uint8_t type;
    std::vector<int> srcs;
    group_state after;
    texts queries;  // from queries_sent()
    texts kernel;   // from mfc_calls()
    std::string output = "";
    bool from_stranger = false;
};

using record_handler = int (*)(Router*, Link*, const uint8_t*, const uint8_t*);
const record_handler kHandler[7] = {
    nullptr,
    handle_is_include_record,
    handle_is_exclude_record,
    handle_to_include_record,
    handle_to_exclude_record,
    handle_allow_record,
    handle_block_record,
};

class RecordHandlerTest : public ListenerTest {
  protected:
    void check(const Row& row) {
        SCOPED_TRACE(row.name);
        restart();
        make_group(eth1, G1, row.before, host);
        forget_kernel_calls();
        std::vector<uint8_t> rec = record(row.type, G1, row.srcs);
        const addr6& from = row.from_stranger ? stranger : host;
        capture_stdout();
        kHandler[row.type](&router, eth1, from.data(), rec.data());
        EXPECT_EQ(testing::internal::GetCapturedStdout(), row.output);
        Group* g = group(eth1, G1);
        EXPECT_EQ(describe(g), describe(row.after));
        if (g) {
            // One interface: the entry counts this group once while it is in EXCLUDE mode.
            EXPECT_EQ(g->mfdb->exclude_count, row.after.mode == FilterMode::Exclude ? 1u : 0u);
            // TO_IN{} is the member's leave; any other record keeps or makes it a member.
            const bool left = row.type == code(RecordType::ChangeToInclude) && row.srcs.empty() &&
                              !row.from_stranger;
            EXPECT_EQ(find_host(g, host.data()) == nullptr, left);
        } else {
            EXPECT_EQ(find_forwarding_entry(&router, G1.data()), nullptr);
        }
        EXPECT_EQ(queries_sent(), row.queries);
        EXPECT_EQ(mfc_calls(), row.kernel);
    }
};

constexpr uint8_t IS_IN = code(RecordType::ModeIsInclude);
constexpr uint8_t IS_EX = code(RecordType::ModeIsExclude);
constexpr uint8_t TO_IN = code(RecordType::ChangeToInclude);
constexpr uint8_t TO_EX = code(RecordType::ChangeToExclude);
constexpr uint8_t ALLOW = code(RecordType::AllowNewSources);
constexpr uint8_t BLOCK = code(RecordType::BlockOldSources);

// Rows: name; state before, record type and sources, state after; queries sent; kernel calls;
// then, where needed, the printed text and whether the record comes from a host that is not a
// member.
// clang-format off
TEST_F(RecordHandlerTest, CurrentStateRecordsFollowTheRfc3810Table) {
    const std::vector<Row> rows = {
        {"IS_IN{S1} on a new group: INCLUDE{S1} at GMI",
         no_group(), IS_IN, {1}, include({{1, 260}}), {}, {add_sg(1)}},
        {"IS_IN{S1,S2} on INCLUDE{S1}: A+B, S1 refreshed without a kernel call",
         include({{1, 5}}), IS_IN, {1, 2}, include({{1, 260}, {2, 260}}), {}, {add_sg(2)}},
        {"IS_IN{S1} on EXCLUDE({S2},{S1}): S1 leaves exc for req at GMI, filter timer kept",
         exclude({{2, 100}}, {{1, 0}}, 200), IS_IN, {1}, exclude({{1, 260}, {2, 100}}, {}, 200),
         {}, {add_sg(1)}},
        {"IS_IN{} still creates group and member, then prints its message",
         no_group(), IS_IN, {}, include({}), {}, {}, kIsInEmpty},
        {"IS_EX{} on INCLUDE{S1}: EXCLUDE({},{}), S1 withdrawn, (*,G) written",
         include({{1, 100}}), IS_EX, {}, exclude({}, {}, 260), {}, {del_sg(1), kAddStarG}},
        {"IS_EX{S1,S2} on INCLUDE{S1}: req A*B keeps its timer, exc B-A at 0",
         include({{1, 100}}), IS_EX, {1, 2}, exclude({{1, 100}}, {{2, 0}}, 260),
         {}, {del_sg(1), kAddStarG, add_sg(1), held_back(2)}},
        {"IS_EX{S2} on INCLUDE{S1}: A*B empty, every source but S2 forwarded",
         include({{1, 100}}), IS_EX, {2}, exclude({}, {{2, 0}}, 260), {},
         {del_sg(1), kAddStarG, held_back(2)}},
        {"IS_EX{S3} on EXCLUDE({S1},{S2}): req B-Y, B-X-Y at GMI, exc Y*B",
         exclude({{1, 100}}, {{2, 0}}, 200), IS_EX, {3}, exclude({{3, 260}}, {}, 260),
         {}, {del_sg(1), add_sg(3), del_sg(2)}},
        {"IS_EX{S2,S3} on EXCLUDE({S1},{S2}): exc keeps Y*B",
         exclude({{1, 100}}, {{2, 0}}, 200), IS_EX, {2, 3}, exclude({{3, 260}}, {{2, 0}}, 260),
         {}, {del_sg(1), add_sg(3)}},
        {"IS_EX{S1,S3} on EXCLUDE({S1},{}): (B-Y)*X keeps its timer, B-X-Y at GMI",
         exclude({{1, 100}}, {}, 200), IS_EX, {1, 3}, exclude({{1, 100}, {3, 260}}, {}, 260),
         {}, {del_sg(1), add_sg(1), add_sg(3)}},
        {"IS_EX{} on EXCLUDE({S1},{S2}): EXCLUDE({},{}), counted once, S2 no longer held back",
         exclude({{1, 100}}, {{2, 0}}, 200), IS_EX, {}, exclude({}, {}, 260),
         {}, {del_sg(1), del_sg(2)}},
        {"IS_EX with 12 sources on INCLUDE{}: all 12 excluded",
         include({}), IS_EX, upto(1, 12), exclude({}, timed(upto(1, 12), 0), 260), {},
         texts{kAddStarG} + held_back(upto(1, 12))},
        {"IS_EX{S1..S15} on EXCLUDE({S1..S3},{}): 12 new at GMI, 3 keep their timers",
         exclude(timed(upto(1, 3), 100), {}, 200), IS_EX, upto(1, 15),
         exclude(timed(upto(1, 3), 100) + timed(upto(4, 15), 260), {}, 260), {},
         del_sgs(reversed(upto(1, 3))) + add_sgs(upto(1, 15))},
        {"IS_EX with 64 sources on INCLUDE{}: all 64 excluded",
         include({}), IS_EX, upto(1, 64), exclude({}, timed(upto(1, 64), 0), 260), {},
         texts{kAddStarG} + held_back(upto(1, 64))},
        {"IS_EX with 65 sources on INCLUDE{}: the first 64 excluded, the limit's line",
         include({}), IS_EX, upto(1, 65), exclude({}, timed(upto(1, 64), 0), 260), {},
         texts{kAddStarG} + held_back(upto(1, 64)), kLimit},
    };
    for (const Row& row : rows) {
        check(row);
    }
}

TEST_F(RecordHandlerTest, StateChangeRecordsFollowTheRfc3810Table) {
    const std::vector<Row> rows = {
        {"TO_IN{} from a host that is not a member changes nothing",
         include({{1, 100}}), TO_IN, {}, include({{1, 100}}), {}, {}, "", true},
        {"TO_IN{S1} for an unknown group creates nothing",
         no_group(), TO_IN, {1}, no_group(), {}, {}},
        {"TO_IN{} on INCLUDE{S1}: Q(G,A-B) lowers S1 to LLQT",
         include({{1, 100}}), TO_IN, {}, include({{1, 2}}), {query(G1, {1})}, {}},
        {"TO_IN{S2} on INCLUDE{S1}: A+B at GMI, Q(G,A-B)",
         include({{1, 100}}), TO_IN, {2}, include({{1, 2}, {2, 260}}),
         {query(G1, {1})}, {add_sg(2)}},
        {"TO_IN{} on EXCLUDE({S1},{}): Q(G,X-A) then Q(G), filter timer to LLQT",
         exclude({{1, 100}}, {}, 200), TO_IN, {}, exclude({{1, 2}}, {}, 2),
         {query(G1, {1}), query(G1, {})}, {}},
        {"TO_IN{} on EXCLUDE({},{}): Q(G) only",
         exclude({}, {}, 200), TO_IN, {}, exclude({}, {}, 2), {query(G1, {})}, {}},
        {"TO_IN{S2} on EXCLUDE({},{S2}): req X+B, exc Y-B, Q(G) only",
         exclude({}, {{2, 0}}, 200), TO_IN, {2}, exclude({{2, 260}}, {}, 2),
         {query(G1, {})}, {add_sg(2)}},
        {"TO_IN{} on EXCLUDE({S1},{}): Q(G,{S1}), then Q(G)",
         exclude({{1, 260}}, {}, 200), TO_IN, {}, exclude({{1, 2}}, {}, 2),
         {query(G1, {1}), query(G1, {})}, {}},
        {"TO_EX{} on a new group: EXCLUDE({},{}) at GMI, (*,G) written, no query",
         no_group(), TO_EX, {}, exclude({}, {}, 260), {}, {kAddStarG}},
        {"TO_EX{S1} on INCLUDE{S1}: req A*B, and no Q(G,A*B)",
         include({{1, 100}}), TO_EX, {1}, exclude({{1, 100}}, {}, 260), {},
         {del_sg(1), kAddStarG, add_sg(1)}},
        {"TO_EX{S1,S2} on INCLUDE{S1,S3}: req A*B, exc B-A at 0, A-B gone",
         include({{1, 100}, {3, 50}}), TO_EX, {1, 2}, exclude({{1, 100}}, {{2, 0}}, 260),
         {}, {del_sg(3), del_sg(1), kAddStarG, add_sg(1), held_back(2)}},
        {"TO_EX{} on EXCLUDE({S1},{S2}): EXCLUDE({},{}), counted once, S2 no longer held back",
         exclude({{1, 100}}, {{2, 0}}, 200), TO_EX, {}, exclude({}, {}, 260),
         {}, {del_sg(1), del_sg(2)}},
        {"TO_EX{S2} on EXCLUDE({S1},{}): S2 at the old filter timer, Q(G,B-Y)",
         exclude({{1, 100}}, {}, 200), TO_EX, {2}, exclude({{2, 200}}, {}, 260),
         {query(G1, {2})}, {del_sg(1), add_sg(2)}},
        {"TO_EX{S1,S2} on EXCLUDE({S1},{}): S1 keeps its timer, lowered by Q(G,B-Y); S2 old filter_timer",
         exclude({{1, 100}}, {}, 200), TO_EX, {1, 2}, exclude({{1, 2}, {2, 200}}, {}, 260),
         {query(G1, {1}), query(G1, {2})}, {del_sg(1), add_sg(1), add_sg(2)}},
        {"TO_EX{S2} on EXCLUDE({S1},{S2}): nothing requested, exc Y*B, no query",
         exclude({{1, 100}}, {{2, 0}}, 200), TO_EX, {2}, exclude({}, {{2, 0}}, 260),
         {}, {del_sg(1)}},
        {"TO_EX with 12 new sources on EXCLUDE({S1},{}): all 12 requested and queried",
         exclude({{1, 100}}, {}, 200), TO_EX, upto(2, 13), exclude(timed(upto(2, 13), 200), {}, 260),
         {query(G1, reversed(upto(2, 13)))}, del_sgs({1}) + add_sgs(upto(2, 13))},
        {"TO_EX with 12 sources on INCLUDE of the same 12: all 12 requested",
         include(timed(upto(1, 12), 100)), TO_EX, upto(1, 12), exclude(timed(upto(1, 12), 100), {}, 260),
         {}, del_sgs(reversed(upto(1, 12))) + texts{kAddStarG} +
                 add_sgs(reversed(upto(1, 12)))},
        {"TO_EX with 65 new sources on EXCLUDE({},{}): the first 64 requested, the limit's line",
         exclude({}, {}, 200), TO_EX, upto(1, 65), exclude(timed(upto(1, 64), 200), {}, 260),
         {query(G1, reversed(upto(1, 64)))}, add_sgs(upto(1, 64)), kLimit},
        {"ALLOW{S1} on a new group: INCLUDE{S1} at GMI",
         no_group(), ALLOW, {1}, include({{1, 260}}), {}, {add_sg(1)}},
        {"ALLOW{S2} on INCLUDE{S1}: A+B",
         include({{1, 100}}), ALLOW, {2}, include({{1, 100}, {2, 260}}), {}, {add_sg(2)}},
        {"ALLOW{S1} on EXCLUDE({},{S1}): S1 leaves exc for req at GMI",
         exclude({}, {{1, 0}}, 200), ALLOW, {1}, exclude({{1, 260}}, {}, 200), {}, {add_sg(1)}},
        {"ALLOW{} leaves the new group empty in INCLUDE and prints its message",
         no_group(), ALLOW, {}, include({}),
         {}, {}, "\n FATAL: Allow record recievd with ZERO sources\n"},
        {"BLOCK{} prints its message and changes nothing",
         include({{1, 100}}), BLOCK, {}, include({{1, 100}}),
         {}, {}, "\n FATAL: Block record recievd with ZERO sources\n"},
        {"BLOCK{S2} on INCLUDE{S1}: A*B empty, no query",
         include({{1, 100}}), BLOCK, {2}, include({{1, 100}}), {}, {}},
        {"BLOCK{S1} on INCLUDE{S1}: Q(G,A*B) lowers S1 to LLQT",
         include({{1, 100}}), BLOCK, {1}, include({{1, 2}}), {query(G1, {1})}, {}},
        {"BLOCK{S3} on EXCLUDE({S1},{S2}): S3 requested at the filter timer, lowered by Q(G,B-Y)",
         exclude({{1, 100}}, {{2, 0}}, 200), BLOCK, {3}, exclude({{1, 100}, {3, 2}}, {{2, 0}}, 200),
         {query(G1, {3})}, {add_sg(3)}},
        {"BLOCK{S2} on EXCLUDE({S1},{S2}) does nothing",
         exclude({{1, 100}}, {{2, 0}}, 200), BLOCK, {2}, exclude({{1, 100}}, {{2, 0}}, 200),
         {}, {}},
        {"BLOCK{S1} on EXCLUDE({S1},{}): S1 keeps its timer until Q(G,B-Y) lowers it",
         exclude({{1, 100}}, {}, 200), BLOCK, {1}, exclude({{1, 2}}, {}, 200),
         {query(G1, {1})}, {}},
        {"BLOCK with 12 sources on INCLUDE of the same 12: all 12 queried",
         include(timed(upto(1, 12), 100)), BLOCK, upto(1, 12), include(timed(upto(1, 12), 2)),
         {query(G1, upto(1, 12))}, {}},
        {"BLOCK with 12 new sources on EXCLUDE({S1},{}): all 12 requested and queried",
         exclude({{1, 100}}, {}, 200), BLOCK, upto(2, 13),
         exclude(timed({1}, 100) + timed(upto(2, 13), 2), {}, 200),
         {query(G1, reversed(upto(2, 13)))}, add_sgs(upto(2, 13))},
    };
    for (const Row& row : rows) {
        check(row);
    }
}
// clang-format on

// Hosts that listened to every source leave with TO_IN{}, and each repeats it (its robustness
// copies, often before the router's first retransmission). The first leave queries the group;
// a leave heard while that query is being retransmitted, the repeat of the same host's or
// another's, neither sends another query nor touches the timer. Nothing is printed.
TEST_F(RecordHandlerTest, RepeatedAnySourceLeavesQueryTheGroupOnceQuietly) {
    const addr6 other = stranger;
    Group* g = make_group(eth1, G1, exclude({}, {}, 260), host);
    ASSERT_NE(add_host(g, other.data()), nullptr);
    forget_kernel_calls();
    std::vector<uint8_t> leave = record(TO_IN, G1, {});
    std::string out = stdout_of([&] {
        handle_to_include_record(&router, eth1, host.data(), leave.data());
        handle_to_include_record(&router, eth1, host.data(), leave.data());
        handle_to_include_record(&router, eth1, other.data(), leave.data());
        age_link_groups(&router, eth1, 0);  // the group query's retransmission
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(queries_sent(), (texts{query(G1, {}), query(G1, {})}));
    EXPECT_EQ(describe(g), describe(exclude({}, {}, 1)));
    forget_kernel_calls();
    age_link_groups(&router, eth1, 0);
    EXPECT_EQ(queries_sent(), texts{}) << "nothing else is being asked";
}

// The member limit never costs a listener its traffic: once 64 hosts are recorded, the 65th
// is served in full, only not recorded. When the recorded ones have left, its answer to the
// last-listener query keeps the group; while the list is full its own leave is heard too.
TEST_F(RecordHandlerTest, HostsBeyondTheMemberLimitAreServedButNotRecorded) {
    auto host_n = [](int n) {
        addr6 a = ip6("fe80::");
        a[14] = static_cast<uint8_t>(n);
        return a;
    };
    make_group(eth1, G1, exclude({}, {}, 260), host_n(1));
    Group* g = group(eth1, G1);
    for (int n = 2; n <= 64; n++) {
        ASSERT_NE(add_host(g, host_n(n).data()), nullptr);
    }
    const std::vector<uint8_t> is_ex = record(IS_EX, G1, {});
    const std::vector<uint8_t> leave = record(TO_IN, G1, {});
    const addr6 late = host_n(65);
    std::string out = stdout_of([&] {
        g->filter_timer = 2;  // a last-listener query is under way
        handle_is_exclude_record(&router, eth1, late.data(), is_ex.data());
    });
    EXPECT_EQ(out, "MLDRT: Limit of 64 members per group reached, host served but not recorded\n");
    EXPECT_EQ(describe(g), describe(exclude({}, {}, 260)));
    EXPECT_EQ(find_host(g, late.data()), nullptr);

    forget_kernel_calls();
    handle_to_include_record(&router, eth1, late.data(), leave.data());
    EXPECT_EQ(queries_sent(), texts{query(G1, {})});
    EXPECT_EQ(g->filter_timer, 2);
    // The recorded hosts leave; each leave frees its place, so the 65th is recorded next time.
    for (int n = 1; n <= 64; n++) {
        handle_to_include_record(&router, eth1, host_n(n).data(), leave.data());
    }
    EXPECT_EQ(g->member_list, nullptr);
    handle_is_exclude_record(&router, eth1, late.data(), is_ex.data());
    EXPECT_NE(find_host(g, late.data()), nullptr);
}

// MLDv1 messages reach the MLDv2 handlers as source-less records: a report as TO_EX{} (not
// IS_EX{} as RFC 3810 section 8.3.2 maps it), a done as TO_IN{}.
enum history { kFresh, kJoined };  // kJoined: the member sent a v1 report for ff0e::101 first
enum sender { kMember, kStranger };

struct V1Row {
    const char* name;
    history before;
    uint8_t type;
    const char* group;
    sender from;
    group_state after;  // of the message's group on the receiving link
    texts queries;
    texts kernel;
};

using Mldv1Test = RecordHandlerTest;

// A 24-byte MLDv1 message of `type` for `g` from `from`, received on `ifp`.
void receive(Link* ifp, uint8_t type, const addr6& g, const addr6& from) {
    bytes m(kQueryV1Len, 0);
    m[0] = type;
    std::memcpy(&m[8], g.data(), 16);
    hear(ifp, m, -1, from);
}

constexpr uint8_t REPORT = kTypeV1Report;
constexpr uint8_t DONE = kTypeV1Done;

TEST_F(Mldv1Test, ReportIsChangeToExcludeAndDoneIsChangeToInclude) {
    // clang-format off
    const std::vector<V1Row> rows = {
        {"report: EXCLUDE({},{}) at GMI, (*,G) with the upstream MIF, no query",
         kFresh, REPORT, "ff0e::101", kMember, exclude({}, {}, 260),
         {}, {kAddStarG}},
        {"done from the member: Q(G), in MLDv2 form (MLDv1 hosts take it as theirs)",
         kJoined, DONE, "ff0e::101", kMember, exclude({}, {}, 2),
         {query(G1, {})}, {}},
        {"done from a host that is not a member is ignored",
         kJoined, DONE, "ff0e::101", kStranger, exclude({}, {}, 260), {}, {}},
        {"report for a unicast address is ignored",
         kFresh, REPORT, "2001:db8::1", kMember, no_group(), {}, {}},
        {"done for a unicast address is ignored",
         kJoined, DONE, "2001:db8::1", kMember, no_group(), {}, {}},
    };
    // clang-format on
    for (const V1Row& row : rows) {
        SCOPED_TRACE(row.name);
        restart();
        if (row.before == kJoined) {
            receive(eth1, REPORT, G1, host);
            forget_kernel_calls();
        }
        addr6 g = ip6(row.group);
        receive(eth1, row.type, g, row.from == kStranger ? stranger : host);
        EXPECT_EQ(describe(group(eth1, g)), describe(row.after));
        EXPECT_EQ(queries_sent(), row.queries);
        EXPECT_EQ(mfc_calls(), row.kernel);
        if (row.before == kFresh && !row.after.exists) {
            EXPECT_EQ(router.mfdb_list, nullptr);
        }
    }
}

// One MLDv1 report puts only its group in MLDv1 compatibility mode, for the Older Version Host
// Present Timeout (RFC 3810 section 8.3.2): that group's source filters are void (TO_EX{S} is
// TO_EX{}, BLOCK is ignored) while other groups keep theirs, and the link's queries stay MLDv2.
TEST_F(Mldv1Test, OneMldv1HostPutsOnlyItsGroupInCompatibilityMode) {
    receive(eth1, REPORT, G1, host);
    Group* g1 = group(eth1, G1);
    ASSERT_NE(g1, nullptr);
    EXPECT_EQ(g1->v1_host_timer, 260);
    const std::vector<uint8_t> to_ex_s1 = record(code(RecordType::ChangeToExclude), G1, {1});
    const std::vector<uint8_t> block_s2 = record(code(RecordType::BlockOldSources), G1, {2});
    const std::vector<uint8_t> g2_to_ex_s1 = record(code(RecordType::ChangeToExclude), G2, {1});
    handle_to_exclude_record(&router, eth1, stranger.data(), to_ex_s1.data());
    handle_block_record(&router, eth1, stranger.data(), block_s2.data());
    handle_to_exclude_record(&router, eth1, stranger.data(), g2_to_ex_s1.data());
    EXPECT_EQ(describe(g1), describe(exclude({}, {}, 260)));
    EXPECT_EQ(describe(group(eth1, G2)), describe(exclude({}, {{1, 0}}, 260)));
    EXPECT_EQ(queries_sent(), texts{});
    EXPECT_EQ(eth1->mld_version, 2);

    g1->v1_host_timer = 1;  // the MLDv1 host has not been heard for the timeout
    age_link_groups(&router, eth1, 0);
    handle_to_exclude_record(&router, eth1, stranger.data(), to_ex_s1.data());
    EXPECT_EQ(describe(g1), describe(exclude({{1, 259}}, {}, 260)));  // filtered by the table
    EXPECT_EQ(queries_sent(), texts{query(G1, {1})});
}

// A chain of sources in the layout the list operations give their results, in this order.
struct source_chain {
    explicit source_chain(const std::vector<int>& ns) : entries(ns.size()) {
        for (size_t i = 0; i < ns.size(); i++) {
            std::memcpy(entries[i].src_addr, src(ns[i]).data(), 16);
            entries[i].next = i + 1 < ns.size() ? &entries[i + 1] : nullptr;
        }
    }
    const Source* head() const { return entries.empty() ? nullptr : entries.data(); }
    uint32_t count() const { return static_cast<uint32_t>(entries.size()); }
    std::vector<Source> entries;
};

class TimerTest : public ListenerTest {
  protected:
    // One second of the event loop for the listeners: every link's timer pass, then the merge
    // (which removes what became empty); the queries sent in it.
    texts tick() {
        fake::kernel().sent_msgs.clear();
        for (Link* ifp = router.interfaces; ifp; ifp = ifp->next) {
            age_link_groups(&router, ifp, 0);
        }
        report_changes(&router);
        return queries_sent();
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
    const std::vector<Row> rows = {
        {"group-specific: filter timer 260 to LLQT",
         exclude({}, {}, 260),
         {},
         exclude({}, {}, 2),
         {query(G1, {})}},
        {"group-specific: filter timer 1 to LLQT",
         exclude({}, {}, 1),
         {},
         exclude({}, {}, 2),
         {query(G1, {})}},
        {"INCLUDE: 260 and -1 lowered, 2 and 1 kept, S5 unknown",
         include({{1, 260}, {2, 2}, {3, 1}, {4, -1}}, 50),
         {1, 2, 3, 4, 5},
         include({{1, 2}, {2, 2}, {3, 1}, {4, 2}}, 50),
         {query(G1, {4, 1}), query(G1, {3, 2})}},
        {"EXCLUDE: the requested list only",
         exclude({{1, 260}}, {{2, 0}}, 200),
         {2, 1},
         exclude({{1, 2}}, {{2, 0}}, 200),
         {query(G1, {1})}},
        {"no queried source in the group", include({{1, 100}}), {2, 3}, include({{1, 100}}), {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        restart();
        Group* g = make_group(eth1, G1, row.before, host);
        forget_kernel_calls();
        source_chain chain(row.queried);
        EXPECT_EQ(stdout_of([&] {
                      lower_timers_and_query(&router, eth1, g, G1.data(), chain.head(),
                                             chain.count());
                  }),
                  "");
        EXPECT_EQ(describe(g), describe(row.after));
        EXPECT_EQ(queries_sent(), row.queries);
        EXPECT_EQ(tick(), row.queries);
        EXPECT_EQ(tick(), texts{});
    }
}

// A second leave while the first one's sources still await their retransmission: the new
// sources are asked with the pending ones, each query's count is its list's length.
TEST_F(TimerTest, PendingSourcesAreAskedAgainWithTheNewOnes) {
    Group* g = make_group(eth1, G1, include({{1, 260}, {2, 260}, {3, 1}}), host);
    source_chain first({1, 3}), second({2});
    lower_timers_and_query(&router, eth1, g, G1.data(), first.head(), first.count());
    EXPECT_EQ(queries_sent(), (texts{query(G1, {1}), query(G1, {3})}));
    forget_kernel_calls();
    EXPECT_EQ(stdout_of([&] {
                  lower_timers_and_query(&router, eth1, g, G1.data(), second.head(),
                                         second.count());
              }),
              "");
    EXPECT_EQ(queries_sent(), (texts{query(G1, {2, 1}), query(G1, {3})}));
    EXPECT_EQ(tick(), (texts{query(G1, {2, 1}), query(G1, {3})}));
    EXPECT_EQ(tick(), texts{});
}

// Hosts repeat their leaves (Linux sends BLOCK or TO_IN twice, the second copy often before
// the router's retransmission). Each source is asked Last Listener Query Count times in all
// (RFC 3810 section 7.6.3.2): a repeated leave neither restarts its count nor lowers its timer
// again, and every query's count is that of the sources it carries, so none is dropped.
TEST_F(TimerTest, RepeatedLeavesKeepEachSourcesRetransmissions) {
    struct Row {
        const char* name;
        uint32_t llqc;
        std::vector<std::vector<int>> steps;  // sources left; {} is one second of timers
        texts queries;
        int32_t s1_timer;  // after the last step; -1: S1 ran out and is gone
    };
    const std::vector<Row> rows = {
        {"the same leave twice, then its retransmission",
         2,
         {{1}, {1}, {}},
         {query(G1, {1}), query(G1, {1})},
         1},
        {"a second source joins the queries of the first",
         3,
         {{1}, {}, {2}, {}, {}, {}},
         {query(G1, {1}), query(G1, {1}), query(G1, {2, 1}), query(G1, {2, 1}), query(G1, {2})},
         -1},
        {"one query and no retransmission: a repeated leave is asked again",
         1,
         {{1}, {1}},
         {query(G1, {1}), query(G1, {1})},
         1},
    };
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
                    age_link_groups(&router, eth1, 0);
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

// A source that runs out while its queries are still being repeated leaves at once, but its
// group stays until the last retransmission is sent (and a tick more, for the answers).
TEST_F(TimerTest, GroupOutlivesItsLastSourceUntilItsQueriesAreSent) {
    router.last_listener_query_count = 3;
    make_group(eth1, G1, include({{1, 1}}), host);
    forget_kernel_calls();
    handle_block_record(&router, eth1, host.data(),
                        record(code(RecordType::BlockOldSources), G1, {1}).data());
    EXPECT_EQ(queries_sent(), texts{query(G1, {1})});
    EXPECT_EQ(tick(), texts{query(G1, {1})});
    EXPECT_EQ(mfc_calls(), texts{"del 2001:db8::1 ff0e::101"});
    EXPECT_EQ(describe(group(eth1, G1)), describe(include({})));
    EXPECT_EQ(tick(), texts{query(G1, {1})});
    EXPECT_NE(group(eth1, G1), nullptr);
    EXPECT_EQ(tick(), texts{});
    EXPECT_EQ(group(eth1, G1), nullptr);
    EXPECT_EQ(router.mfdb_list, nullptr);
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
    const std::vector<ExpiryRow> rows = {
        {"INCLUDE sources age, the one at 1 leaves",
         include({{1, 1}, {2, 100}}),
         no_group(),
         include({{2, 99}}),
         {"del 2001:db8::1 ff0e::101"},
         0},
        {"fresh timers only age", include({{1, 260}}), no_group(), include({{1, 259}}), {}, 0},
        {"fresh filter timer only ages",
         exclude({}, {{3, 0}}, 260),
         no_group(),
         exclude({}, {{3, 0}}, 259),
         {},
         1},
        {"a requested source that runs out is excluded",
         exclude({{1, 1}, {2, 5}}, {}, 100),
         no_group(),
         exclude({{2, 4}}, {{1, 1}}, 99),
         {"add 2001:db8::1 ff0e::101 parent 0 mifs "},
         1},
        {"filter timer expiry, last listener: (*,G) removed, (S1,G) rewritten without it",
         exclude({{1, 50}}, {{2, 0}}, 1),
         no_group(),
         include({{1, 260}}, 1),
         {"del 2001:db8::2 ff0e::101", "del :: ff0e::101",
          "add 2001:db8::1 ff0e::101 parent 0 mifs 1"},
         0},
        {"filter timer expiry, another link listens: both entries without this link's MIF",
         exclude({{1, 50}}, {{2, 0}}, 1),
         exclude({}, {}, 100),
         include({{1, 260}}, 1),
         {"del 2001:db8::2 ff0e::101", "add :: ff0e::101 parent 0 mifs 0,2",
          "add 2001:db8::1 ff0e::101 parent 0 mifs 1,2"},
         1},
        {"filter timer expiry, nothing requested: group and entry removed",
         exclude({}, {{2, 0}}, 1),
         no_group(),
         no_group(),
         {"del 2001:db8::2 ff0e::101", "del :: ff0e::101"},
         -1},
    };
    for (const ExpiryRow& row : rows) {
        SCOPED_TRACE(row.name);
        restart();
        Link* eth2 = make_link("eth2", 12, 2);
        make_group(eth2, G1, row.eth2_before, host);
        make_group(eth1, G1, row.eth1_before, host);
        forget_kernel_calls();
        final_membership_pass(&router);
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
// link's listening stays in the kernel, this link's goes, the EXCLUDE count drops once, and
// later passes never reach the freed record (ASan). The upstream hears the leave at once
// (robustness 2: the change and one retransmission); only the entry whose report is under way
// stays, until its last copy is sent.
TEST_F(UpstreamTest, ADeletedLinkReleasesItsGroupsAndTheUpstreamHearsTheLeave) {
    make_group(eth1, G1, exclude({}, {}, 260), host);
    make_group(eth1, G2, include({{1, 260}}), host);
    make_group(eth2, G1, exclude({}, {}, 260), host);
    make_group(eth3, G3, exclude({}, {}, 260), host);
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

    forget_kernel_calls();
    SystemLink link{};
    link.ifindex = 13;
    handle_link_down(&router, &link);
    EXPECT_EQ(find_link_by_name(&router, "eth3"), nullptr);
    EXPECT_EQ(mfc_calls(), texts{"del :: ff0e::103"});
    EXPECT_EQ(fake::sockopts(kKLevel, MRT6_DEL_MIF_OPT).size(), 1u);
    EXPECT_EQ(tick(), (texts{"TO_IN G3 {}", "TO_IN G3 {}"}));
    ASSERT_NE(entry(G3), nullptr);
    report_changes(&router);
    EXPECT_EQ(entry(G3), nullptr);
    EXPECT_NE(entry(G1), nullptr);
}

}  // namespace
