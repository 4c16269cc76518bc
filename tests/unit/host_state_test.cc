// The merged host state of a group (RFC 3810 section 4.2 merging rules across the downstream
// links, in interface-list and group-list order) and the comparison with the state last acted
// upon. Links eth3, eth2, eth1 are visited in that order; A, B, C are sources S1, S2, S3.

#include "upstream_support.h"

using namespace mldproxy;

namespace {

using namespace ups;

// A host-state pair as "EXCLUDE {S1 S3}", sources in list order.
std::string hs_text(const HostState* hs) {
    if (!hs) {
        return "none";
    }
    std::string s = mode_text(hs->mode) + " {";
    for (const Source* l = hs->list; l; l = l->next) {
        s += (l == hs->list ? "" : " ") + src_name(l->src_addr);
    }
    return s + "}";
}

struct MergeRow {
    const char* name;
    std::vector<group_state> links;  // eth3, eth2, eth1
    const char* merged;
};

class HostStateTest : public UpstreamTest {
  protected:
    HostState* pair(FilterMode mode, const std::vector<int>& srcs) {
        auto* hs = static_cast<HostState*>(calloc(1, sizeof(HostState)));
        hs->mode = mode;
        // Head insertion: the list reads in the reverse order of `srcs`.
        for (int n : srcs) {
            Source* s = create_source(src(n).data());
            s->next = hs->list;
            hs->list = s;
        }
        return hs;
    }
    // Entry G1 with the given old and new states (the old pair the entry was created with is
    // replaced).
    ForwardingEntry* states(HostState* old_hs, HostState* new_hs) {
        ForwardingEntry* e = add_forwarding_entry(&router, G1.data());
        free_srclist(&e->host_list);
        e->host_mode = old_hs->mode;
        e->host_list = old_hs->list;
        free(old_hs);
        e->new_host_state = new_hs;
        return e;
    }
};

TEST_F(HostStateTest, MergesDownstreamStatesInInterfaceListOrder) {
    const std::vector<MergeRow> rows = {
        {"IncludeListsUnite", {inc({1, 2}), inc({2, 3})}, "INCLUDE {S3 S1 S2}"},
        {"ExcludeListsIntersect", {exc({1, 2}), exc({2, 3})}, "EXCLUDE {S2}"},
        {"IncludedSourceLeavesTheExcludeResult",
         {exc({1, 2}), exc({2, 3}), inc({2})},
         "EXCLUDE {}"},
        {"IncludedSourcesLeaveInListOrder", {exc({1, 2, 3}), inc({2})}, "EXCLUDE {S1 S3}"},
        {"IncludeOnEarlierLinkCountsToo", {inc({1}), exc({1, 2})}, "EXCLUDE {S2}"},
        {"ExcludeNoneLastWins", {exc({1}), inc({2}), exc({})}, "EXCLUDE {}"},
        {"ExcludeNoneFirstWins", {exc({}), exc({1})}, "EXCLUDE {}"},
        {"EmptyIntersectionStaysEmpty", {exc({1}), exc({2}), exc({3})}, "EXCLUDE {}"},
        {"IntersectionEmptiedByTheLastLink", {exc({1, 2}), exc({2}), exc({1})}, "EXCLUDE {}"},
        {"IncludeWithoutSources", {inc({})}, "INCLUDE {}"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        restart();
        Link* order[3] = {eth3, eth2, eth1};
        uint32_t excludes = 0;
        for (size_t i = 0; i < row.links.size(); i++) {
            make_group(order[i], G1, row.links[i], host);
            excludes += row.links[i].mode == FilterMode::Exclude ? 1 : 0;
        }
        make_group(eth3, G2, inc({9}), host);  // another group on the same link stays apart
        ForwardingEntry* e = entry(G1);
        ASSERT_EQ(e->exclude_count, excludes);
        EXPECT_EQ(stdout_of([&] { build_host_state(&router, e); }), "");
        EXPECT_EQ(hs_text(e->new_host_state), row.merged);
        // The entry started as INCLUDE {}: any other result is a change.
        EXPECT_EQ(diff_host_state(e), std::string(row.merged) != "INCLUDE {}");
        finish_host_state_update(e);
    }
}

struct DiffRow {
    const char* name;
    FilterMode old_mode;
    std::vector<int> old_srcs;
    FilterMode new_mode;
    std::vector<int> new_srcs;
    int differ;
};

std::vector<int> operator+(std::vector<int> a, const std::vector<int>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Whole lists are compared, however long a merged list is.
TEST_F(HostStateTest, ComparesModeAndSourceSetsNotOrder) {
    const FilterMode IN = FilterMode::Include, EX = FilterMode::Exclude;
    const std::vector<int> eleven = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
    const std::vector<DiffRow> rows = {
        {"SameSourcesInAnotherOrder", IN, {1, 2, 3}, IN, {3, 1, 2}, 0},
        {"ElevenSameSourcesReversed", IN, eleven, IN, {eleven.rbegin(), eleven.rend()}, 0},
        {"BothExcludeNone", EX, {}, EX, {}, 0},
        {"BothIncludeNone", IN, {}, IN, {}, 0},
        {"ModeChanges", IN, {1}, EX, {1}, 1},
        {"SourceReplaced", IN, {1, 2}, IN, {1, 3}, 1},
        {"SourceAdded", IN, {1}, IN, {1, 2}, 1},
        {"SourceRemoved", EX, {1, 2}, EX, {1}, 1},
        {"FirstSourceAdded", IN, {}, IN, {1}, 1},
        {"LastSourceRemoved", EX, {1}, EX, {}, 1},
        {"ElevenAgainstElevenOthers", IN, eleven, IN, upto(21, 31), 1},
        {"SixtyFourSame", IN, upto(1, 64), IN, upto(1, 64), 0},
        {"SixtyFourLastReplaced", IN, upto(1, 64), IN, upto(1, 63) + std::vector<int>{99}, 1},
        {"HundredTwentyEightOneMore", EX, upto(1, 128), EX, upto(1, 129), 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        restart();
        ForwardingEntry* e =
            states(pair(row.old_mode, row.old_srcs), pair(row.new_mode, row.new_srcs));
        EXPECT_EQ(stdout_of([&] { EXPECT_EQ(diff_host_state(e), row.differ != 0); }), "");
    }
}

struct ScopeRow {
    const char* group;
    bool proxied;
};

// A host's join (MLDv2 TO_EX{}, then an MLDv1 report) of a group of interface-local or
// link-local scope (scope 0, 1 or 2, whatever the flags) creates nothing: no listener state, no
// kernel entry, nothing upstream. Link-scope traffic is never forwarded, and the hosts'
// solicited-node groups would tell the upstream network their addresses.
TEST_F(HostStateTest, LinkScopeGroupsAreNeverProxied) {
    const std::vector<ScopeRow> rows = {
        {"ff02::1:ff00:1234", false},  {"ff02::db8:1", false}, {"ff01::db8:1", false},
        {"ff00::db8:1", false},        {"ff12::db8:1", false}, {"ff32:40:fe80::1", false},
        {"ff03::db8:1", true},         {"ff05::db8:1", true},  {"ff0e::101", true},
        {"ff3e:40:2001:db8::1", true},
    };
    for (const ScopeRow& row : rows) {
        for (uint8_t type : {kTypeV2Report, kTypeV1Report}) {
            SCOPED_TRACE(std::string(row.group) + (type == kTypeV1Report ? " v1" : " v2"));
            restart();
            const addr6 g = ip6(row.group);
            std::vector<uint8_t> msg(kQueryV1Len);
            msg[0] = type;
            std::memcpy(&msg[8], g.data(), 16);
            if (type == kTypeV2Report) {
                msg = {
                    kTypeV2Report, 0, 0, 0, 0, 0, 0, 1, code(RecordType::ChangeToExclude), 0, 0, 0};
                msg.insert(msg.end(), g.begin(), g.end());
            }
            std::memset(router.buf, 0, router.buf_size);
            std::memcpy(router.buf, msg.data(), msg.size());
            std::string out = stdout_of([&] {
                handle_mld_message(&router, eth1, router.buf, host.data(),
                                   static_cast<int>(msg.size()));
            });
            EXPECT_EQ(out, "");
            texts sent = tick();
            EXPECT_EQ(group(eth1, g) != nullptr, row.proxied);
            EXPECT_EQ(find_forwarding_entry(&router, g.data()) != nullptr, row.proxied);
            EXPECT_EQ(!mfc_calls().empty(), row.proxied);
            const std::string to_ex = "TO_EX " + grp_name(g.data()) + " {}";
            EXPECT_EQ(sent, row.proxied ? (texts{to_ex, to_ex}) : texts{});
        }
    }
}

TEST_F(HostStateTest, LeftoverNewStateIsReportedAndKept) {
    make_group(eth1, G1, inc({1}), host);
    ForwardingEntry* e = states(pair(FilterMode::Include, {}), pair(FilterMode::Exclude, {5}));
    HostState* leftover = e->new_host_state;
    EXPECT_EQ(stdout_of([&] { build_host_state(&router, e); }),
              "\n Some Problem - New State should have been NULL\n");
    EXPECT_EQ(e->new_host_state, leftover);
    EXPECT_EQ(hs_text(e->new_host_state), "EXCLUDE {S5}");
}

}  // namespace
