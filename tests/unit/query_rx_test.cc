// Queries heard upstream are answered at once from the host state last acted upon, as one
// MLDv2 host would answer them (RFC 3810 section 6.2); queries heard downstream change only
// the link's MLD version. Answers never exceed the link's MTU - 48 bytes: a long record is
// split (RFC 3810 section 5.2.15), an EXCLUDE-type one keeps the first sources that fit.

#include "upstream_support.h"

using namespace mldproxy;

namespace {

using namespace ups;

const addr6 kAny{};

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
            for (const addr6& a : r.srcs) {
                out.lines.push_back(r.head + " " + src_name(a.data()));
            }
            if (r.srcs.empty()) {
                out.lines.push_back(r.head);
            }
            n += r.srcs.size();
        }
        out.shapes.push_back(std::to_string(recs.size()) + " records " + std::to_string(n) +
                             " sources");
    }
    return out;
}

// `head` and each source of `l` in list order, the first `max` at most.
texts lines(const std::string& head, const Source* l, size_t max = 1000) {
    texts v;
    for (; l && v.size() < max; l = l->next) {
        v.push_back(head + " " + src_name(l->src_addr));
    }
    return v;
}

// An entry whose host state was built elsewhere: `mode` with sources `srcs`, added in order
// (so the list reads in reverse).
ForwardingEntry* host_state(const addr6& g, FilterMode mode, const std::vector<int>& srcs) {
    ForwardingEntry* e = add_forwarding_entry(&router, g.data());
    e->host_mode = mode;
    for (int n : srcs) {
        add_source_to_group(nullptr, e, ListKind::OldHostState, src(n).data());
    }
    return e;
}

// eth1 holds G1 INCLUDE {S1, S2} and G2 EXCLUDE {S3}; the reports about them have run out.
class QueryTest : public UpstreamTest {
  protected:
    void SetUp() override {
        UpstreamTest::SetUp();
        prepare();
    }
    void prepare() {
        make_group(eth1, G1, include({{1, 100}, {2, 100}}), host);
        make_group(eth1, G2, exclude({}, {{3, 100}}, 260), host);
        for (int t = 0; t < 3; t++) {
            tick();
        }
        forget_kernel_calls();
    }
};

TEST_F(QueryTest, GeneralQueryUpstreamAnswersEveryGroupInOneReport) {
    hear(up, v2_query(kAny, {}));
    ASSERT_EQ(reports_sent(up), texts{"IS_EX G2 {S3}; IS_IN G1 {S1 S2}"});
    std::vector<uint8_t> expected = {0x8f, 0, 0, 0, 0, 0, 0, 2, 2, 0, 0, 1};
    for (const addr6& a : {G2, src(3)}) {
        expected.insert(expected.end(), a.begin(), a.end());
    }
    expected.insert(expected.end(), {1, 0, 0, 2});
    for (const addr6& a : {G1, src(1), src(2)}) {
        expected.insert(expected.end(), a.begin(), a.end());
    }
    EXPECT_EQ(fake::kernel().sent_msgs[0].payload, expected);
}

TEST_F(QueryTest, QueryDownstreamChangesNothingButTheLinkVersion) {
    add_source_to_group(group(eth1, G1), nullptr, ListKind::QuerySuppressed, src(1).data())
        ->rtx_count = 2;
    const std::string before = describe(group(eth1, G1)) + describe(group(eth1, G2));
    eth1->query_due_ms = 17;
    hear(eth1, v2_query(kAny, {}), kQueryV1Len);
    EXPECT_EQ(eth1->mld_version, 1);
    EXPECT_EQ(describe(group(eth1, G1)) + describe(group(eth1, G2)), before);
    EXPECT_EQ(eth1->query_due_ms, 17u);
    EXPECT_EQ(queries_of(group(eth1, G1)).suppressed->rtx_count, 2);
    EXPECT_EQ(fake::kernel().log, texts{});
}

struct QueryRow {
    const char* name;
    std::vector<uint8_t> query;
    int len;  // received length; -1: the whole query
    texts sent;
    int version;  // the upstream link's MLD version afterwards
};

TEST_F(QueryTest, UpstreamQueriesAnsweredByKind) {
    const addr6 G3 = grp(3);
    const std::vector<QueryRow> rows = {
        {"GeneralQueryListingSourcesIsIgnored", v2_query(kAny, {1}), -1, {}, 2},
        {"GroupSpecificAnswersThatGroupOnly", v2_query(G1, {}), -1, {"IS_IN G1 {S1 S2}"}, 2},
        {"GroupSpecificInExcludeMode", v2_query(G2, {}), -1, {"IS_EX G2 {S3}"}, 2},
        {"GroupWithoutEntryGetsNothing", v2_query(G3, {}), -1, {}, 2},
        {"SourcesNoneOfWhichIsHeldGetNothing", v2_query(G1, {3, 4}), -1, {}, 2},
        {"HeldSourcesInQueryOrder", v2_query(G1, {4, 2, 1}), -1, {"IS_IN G1 {S2 S1}"}, 2},
        {"HeldSourceOfExcludeState", v2_query(G2, {1, 3}), -1, {"IS_EX G2 {S3}"}, 2},
        // 24 bytes: MLDv1, so group-specific whatever follows in the buffer, answered in v1.
        {"MLDv1GroupQueryIsGroupSpecific", v2_query(G1, {7}), 24, {"v1 report G1 to G1"}, 1},
        {"MLDv1GeneralQuery",
         v2_query(kAny, {}),
         24,
         {"v1 report G2 to G2", "v1 report G1 to G1"},
         1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        restart();
        prepare();
        EXPECT_EQ(stdout_of([&] { hear(up, row.query, row.len); }), "");
        EXPECT_EQ(reports_sent(up), row.sent);
        EXPECT_EQ(up->mld_version, row.version);
    }
}

// An MLDv1 report asks for every source of its group, so on an MLDv1 upstream a group whose
// host state is INCLUDE{} (nobody listens; its leave has been reported) is left out of every
// answer instead of being joined again. MLDv2 answers are as before.
TEST_F(QueryTest, MLDv1UpstreamAnswersOnlyGroupsWithListeners) {
    const addr6 G3 = grp(3), G4 = grp(4);
    const std::vector<QueryRow> rows = {
        {"MLDv1GeneralQuery",
         v2_query(kAny, {}),
         24,
         {"v1 report G4 to G4", "v1 report G2 to G2", "v1 report G1 to G1"},
         1},
        {"MLDv1QueryForTheGroupWithoutListeners", v2_query(G3, {}), 24, {}, 1},
        {"MLDv1QueryForAnExcludeNoneGroup", v2_query(G4, {}), 24, {"v1 report G4 to G4"}, 1},
        {"MLDv2GeneralQuery",
         v2_query(kAny, {}),
         -1,
         {"IS_EX G4 {}; IS_IN G3 {}; IS_EX G2 {S3}; IS_IN G1 {S1 S2}"},
         2},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        restart();
        prepare();
        host_state(G3, FilterMode::Include, {});
        host_state(G4, FilterMode::Exclude, {});
        EXPECT_EQ(stdout_of([&] { hear(up, row.query, row.len); }), "");
        EXPECT_EQ(reports_sent(up), row.sent);
        EXPECT_EQ(up->mld_version, row.version);
    }
}

// A 2048-byte query holds 126 sources; all held, all are reported, in query order. A count
// beyond what arrived walks only the sources that arrived; a query shorter than its 24-byte
// MLDv1 form is dropped as malformed before any field of it is read.
TEST_F(QueryTest, QueryOf126HeldSourcesIsAnsweredWithAllOfThem) {
    const addr6 G3 = grp(3);
    host_state(G3, FilterMode::Include, upto(1, 126));
    struct {
        const char* name;
        int claimed;
        int len;  // received; -1: all of it
        int answered;
    } cases[] = {{"TrueCount", -1, -1, 126},
                 {"CountBeyondTheBuffer", 0xffff, -1, 126},
                 {"CountBeyondWhatArrived", 0xffff, 28 + 16 * 50 + 15, 50},
                 {"Truncated", -1, 23, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        fake::kernel().sent_msgs.clear();
        router.counters = {};
        hear(up, v2_query(G3, upto(1, 126), c.claimed), c.len);
        texts expected;
        for (int n : upto(1, c.answered)) {
            expected.push_back("IS_IN G3 " + src_name(src(n).data()));
        }
        EXPECT_EQ(records_sent(up).lines, expected);
        EXPECT_EQ(router.counters.malformed, c.answered == 0 ? 1u : 0u);
    }
}

// The upstream link has an MTU of 1280: a report carries at most 1232 bytes, so one record
// holds at most 75 sources and a report at most 61 records without sources.
struct SplitRow {
    const char* name;
    std::vector<std::pair<FilterMode, int>> entries;  // G1, G2, ...: mode and source count
    texts shapes;                                     // each report as full as fits
};
const std::vector<SplitRow> kSplitRows = {
    {"IncludeState200Sources",
     {{FilterMode::Include, 200}},
     {"1 records 75 sources", "1 records 75 sources", "1 records 50 sources"}},
    {"ExcludeState200Sources", {{FilterMode::Exclude, 200}}, {"1 records 75 sources"}},
    {"RecordsOf110Groups",
     std::vector<std::pair<FilterMode, int>>(110, {FilterMode::Include, 0}),
     {"61 records 0 sources", "49 records 0 sources"}},
};

class SplitTest : public RouterTest {
  protected:
    // A general query heard on the upstream link with the row's host states.
    void answer(const SplitRow& row) {
        TearDown();
        SetUp();
        fake::kernel().mtu = 1280;
        up = make_link("up0", 10, 0);
        router.upstream = up;
        router.active = 1;
        for (size_t i = row.entries.size(); i-- > 0;) {  // head insertion: G1 ends up first
            host_state(grp(static_cast<int>(i) + 1), row.entries[i].first,
                       upto(1, row.entries[i].second));
        }
        forget_kernel_calls();
        hear(up, v2_query(kAny, {}));
    }
    Link* up = nullptr;
};

// Every INCLUDE record's sources go out once each; an EXCLUDE record keeps the first sources
// that fit one report, because a split would exclude too little in every piece.
TEST_F(SplitTest, LongAnswersAreSplitToTheLinkMtu) {
    for (const auto& row : kSplitRows) {
        SCOPED_TRACE(row.name);
        answer(row);
        texts expected;
        for (const ForwardingEntry* e = router.mfdb_list; e; e = e->next) {
            const HostState state = reported_state(e);
            const HostState* hs = &state;
            std::string head =
                (hs->mode == FilterMode::Exclude ? "IS_EX " : "IS_IN ") + grp_name(e->grp_addr);
            texts l = lines(head, hs->list, hs->mode == FilterMode::Exclude ? 75 : 1000);
            expected.insert(expected.end(), l.begin(), l.end());
            if (!hs->list) {
                expected.push_back(head);
            }
        }
        EXPECT_EQ(records_sent(up).lines, expected);
    }
}

// RFC 3810 section 5.2.15: as many reports as needed, each as full as the link allows.
TEST_F(SplitTest, UpstreamReportsAreEachAsFullAsTheLinkAllows) {
    std::vector<SplitRow> rows = kSplitRows;
    rows.push_back({"ExcludeRecordAfterAnotherGroup",
                    {{FilterMode::Include, 60}, {FilterMode::Exclude, 130}},
                    {"1 records 60 sources", "1 records 75 sources"}});
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        answer(row);
        EXPECT_EQ(records_sent(up).shapes, row.shapes);
    }
}

}  // namespace
