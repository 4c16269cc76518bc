// Listener records (groups, members, sources), list codes, limits, and the forwarding database.

#include <type_traits>

#include "test_support.h"

using namespace mldproxy;

namespace {

addr6 G(int n) {
    addr6 a = ip6("ff0e::");
    a[15] = static_cast<uint8_t>(n);
    return a;
}

addr6 S(int n) {
    addr6 a = ip6("2001:db8::");
    a[15] = static_cast<uint8_t>(n);
    return a;
}

// A list as the last bytes of its addresses in walking order: "3 2 1".
template <typename T>
std::string order(const T* p) {
    std::string s;
    for (; p; p = p->next) {
        const uint8_t* a;
        if constexpr (std::is_same_v<T, Host>) {
            a = p->member_addr;
        } else if constexpr (std::is_same_v<T, Source>) {
            a = p->src_addr;
        } else {
            a = p->grp_addr;
        }
        s += (s.empty() ? "" : " ") + std::to_string(a[15]);
    }
    return s;
}

// Every element's back-reference points at the link that holds it.
template <typename T>
bool links_ok(T** head) {
    for (T** link = head; *link; link = &(*link)->next) {
        if ((*link)->pprev != link) {
            return false;
        }
    }
    return true;
}

// A source list in the given order, built from unlinked entries.
Source* make_list(const std::vector<int>& ns) {
    Source* head = nullptr;
    for (auto it = ns.rbegin(); it != ns.rend(); ++it) {
        Source* s = create_source(S(*it).data());
        s->next = head;
        head = s;
    }
    return head;
}

class RecordsTest : public RouterTest {
  protected:
    void SetUp() override {
        RouterTest::SetUp();
        link = make_link("eth1", 11, 1);
    }
    Group* group(int n) {
        Group* g = add_group(&router, link, G(n).data());
        map_group_to_entry(g, add_forwarding_entry(&router, G(n).data()));
        return g;
    }
    Link* link = nullptr;
};

TEST_F(RecordsTest, FindOrAddReturnsExistingRecordUnchangedAndPushesNewAtHead) {
    struct Row {
        const char* name;
        std::function<void*(int)> add;
        std::function<std::string()> walk;
        size_t size;
    };
    Group* g = group(100);
    const std::vector<Row> rows = {
        {"Groups", [&](int n) -> void* { return add_group(&router, link, G(n).data()); },
         [&] { return order(link->groups); }, sizeof(Group)},
        {"Members", [&](int n) -> void* { return add_host(g, S(n).data()); },
         [&] { return order(g->member_list); }, sizeof(Host)},
        {"Sources",
         [&](int n) -> void* { return add_source_to_group(g, nullptr, list_kind(2), S(n).data()); },
         [&] { return order(g->exc_list); }, sizeof(Source)},
        {"MfdbEntries", [&](int n) -> void* { return add_forwarding_entry(&router, G(n).data()); },
         [&] { return order(router.mfdb_list); }, sizeof(ForwardingEntry)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        void* first[4] = {};
        for (int n = 1; n <= 3; n++) {
            first[n] = row.add(n);
            ASSERT_NE(first[n], nullptr);
        }
        const std::string before = row.walk();
        EXPECT_EQ(before.substr(0, 5), "3 2 1");
        std::vector<uint8_t> bytes(static_cast<uint8_t*>(first[2]),
                                   static_cast<uint8_t*>(first[2]) + row.size);
        EXPECT_EQ(row.add(2), first[2]);
        EXPECT_EQ(std::memcmp(bytes.data(), first[2], row.size), 0) << "record changed";
        EXPECT_EQ(row.walk(), before);
    }
    EXPECT_TRUE(links_ok(&link->groups));
    EXPECT_TRUE(links_ok(&router.mfdb_list));
}

TEST_F(RecordsTest, ListCodesSelectTheirList) {
    struct Row {
        const char* name;
        uint32_t code;
    };
    const std::vector<Row> rows = {
        {"Include", 0},      {"Requested", 1},    {"Excluded", 2},     {"SourceResponse", 3},
        {"NonResponse", 4},  {"OldHostState", 5}, {"NewHostState", 6}, {"ScrToExclude", 7},
        {"ScrToInclude", 8}, {"ScrAllow", 9},     {"ScrBlock", 10},    {"UnknownCode", 11},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Group* g = group(static_cast<int>(row.code) + 1);
        ForwardingEntry* e = g->mfdb;
        e->new_host_state = static_cast<HostState*>(calloc(1, sizeof(HostState)));
        auto heads = [&] {
            std::vector<Source*> h = {g->include_list, g->req_list, g->exc_list,
                                      queries_of(g).suppressed};
            for (Source* l : {queries_of(g).not_suppressed, e->host_list, e->new_host_state->list,
                              pending_sources(e).to_exclude, pending_sources(e).to_include,
                              pending_sources(e).allow, pending_sources(e).block}) {
                h.push_back(l);
            }
            return h;
        };
        // Codes 5 to 10 need only the forwarding entry: the host-state code passes no group.
        Group* gp = row.code >= 5 && row.code <= 10 ? nullptr : g;
        capture_stdout();
        Source* s = add_source_to_group(gp, e, list_kind(row.code), S(7).data());
        std::vector<Source*> after_add = heads();
        int del = remove_source_from_group(gp, e, list_kind(row.code), S(7).data());
        std::string out = testing::internal::GetCapturedStdout();
        for (uint32_t code = 0; code < after_add.size(); code++) {
            EXPECT_EQ(after_add[code], code == row.code ? s : nullptr) << "list " << code;
            EXPECT_EQ(heads()[code], nullptr) << "list " << code << " after removal";
        }
        if (row.code <= 10) {
            EXPECT_NE(s, nullptr);
            EXPECT_EQ(del, 0);
            EXPECT_EQ(out, "");
        } else {
            EXPECT_EQ(s, nullptr);
            EXPECT_EQ(del, -1);
            EXPECT_EQ(
                out,
                "\n Fatal:: Unknow list type\n" /* the second within the second is held back */);
        }
    }
}

TEST_F(RecordsTest, SourceRemovalTakesFirstMatchOnly) {
    struct Row {
        const char* name;
        std::vector<int> list;
        int remove;
        const char* expected;
    };
    const std::vector<Row> rows = {
        {"FirstOfTwoEqual", {1, 2, 1, 3}, 1, "2 1 3"},
        {"Middle", {1, 2, 3}, 2, "1 3"},
        {"Tail", {1, 2, 3}, 3, "1 2"},
        {"Absent", {1, 2}, 9, "1 2"},
        {"EmptyList", {}, 1, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Source* list = make_list(row.list);
        remove_from_list(&list, S(row.remove).data());
        EXPECT_EQ(order(list), row.expected);
        free_srclist(&list);
    }
}

TEST_F(RecordsTest, DeleteUnlinksFromHeadMiddleAndTail) {
    struct Row {
        const char* name;
        bool members;
        int victim;  // address number; the lists read "3 2 1"
        const char* expected;
    };
    const std::vector<Row> rows = {
        {"GroupHead", false, 3, "2 1"},   {"GroupMiddle", false, 2, "3 1"},
        {"GroupTail", false, 1, "3 2"},   {"MemberHead", true, 3, "2 1"},
        {"MemberMiddle", true, 2, "3 1"}, {"MemberTail", true, 1, "3 2"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Link* ifp = make_link(row.name, 40, 7);
        Group* owner = add_group(&router, ifp, G(50).data());
        Group* victim = nullptr;
        Host* victim_member = nullptr;
        for (int n = 1; n <= 3; n++) {
            if (row.members) {
                Host* m = add_host(owner, S(n).data());
                victim_member = n == row.victim ? m : victim_member;
            } else {
                Group* g = add_group(&router, ifp, G(n).data());
                victim = n == row.victim ? g : victim;
            }
        }
        if (row.members) {
            delete_host(owner, victim_member);
            EXPECT_EQ(order(owner->member_list), row.expected);
            add_host(owner, S(9).data());
            EXPECT_EQ(order(owner->member_list), std::string("9 ") + row.expected);
        } else {
            delete_group(ifp, victim);
            EXPECT_EQ(order(ifp->groups), std::string(row.expected) + " 50");
            EXPECT_TRUE(links_ok(&ifp->groups));
            add_group(&router, ifp, G(9).data());
            EXPECT_EQ(order(ifp->groups), std::string("9 ") + row.expected + " 50");
            EXPECT_TRUE(links_ok(&ifp->groups));
        }
        if (row.members) {
            EXPECT_EQ(find_host(owner, S(row.victim).data()), nullptr);
        } else {
            EXPECT_EQ(find_group(ifp, G(row.victim).data()), nullptr);
        }
    }
}

TEST_F(RecordsTest, MembersAndSourcesBeyond64AreRefusedWithOneLineAMinute) {
    struct Row {
        const char* name;
        std::function<void*(Group*, int)> add;
        const char* line;
    };
    const char* kSources = "MLDRT: Limit of 64 sources per list reached, request not handled\n";
    auto source_row = [&](const char* name, uint32_t code) {
        return Row{name,
                   [code](Group* g, int n) -> void* {
                       addr6 a = S(0);
                       a[14] = static_cast<uint8_t>(n);  // 300 distinct sources
                       return add_source_to_group(g, g->mfdb, list_kind(code), a.data());
                   },
                   kSources};
    };
    const std::vector<Row> rows = {
        {"Members",
         [](Group* g, int n) -> void* {
             addr6 a = ip6("fe80::");
             a[14] = static_cast<uint8_t>(n);
             return add_host(g, a.data());
         },
         "MLDRT: Limit of 64 members per group reached, host served but not recorded\n"},
        source_row("IncludeList", 0),
        source_row("RequestedList", 1),
        source_row("ExcludedList", 2),
        source_row("SourceResponseList", 3),
        source_row("NonResponseList", 4),
    };
    int n = 60;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        fake::kernel().clock_seconds += 3600;
        Group* g = group(n++);
        capture_stdout();
        for (int i = 1; i <= 64; i++) {
            ASSERT_NE(row.add(g, i), nullptr) << i;
        }
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        const std::vector<std::pair<int64_t, const char*>> refusals = {
            {0, row.line}, {59, ""}, {1, row.line}, {30, ""}};
        for (const auto& [advance, line] : refusals) {
            fake::kernel().clock_seconds += advance;
            capture_stdout();
            EXPECT_EQ(row.add(g, 65 + static_cast<int>(advance)), nullptr);
            EXPECT_NE(row.add(g, 64), nullptr) << "an existing record is still found";
            EXPECT_EQ(testing::internal::GetCapturedStdout(), line) << "after " << advance << " s";
        }
    }
}

TEST_F(RecordsTest, The16385thGroupIsRefusedAndNothingElseChanges) {
    auto big = [](uint32_t i) {
        addr6 a = ip6("ff0e::");
        a[2] = static_cast<uint8_t>(i >> 8);  // early differing bytes keep the scans short
        a[3] = static_cast<uint8_t>(i);
        return a;
    };
    for (uint32_t i = 0; i < kMaxGroups; i++) {
        ASSERT_NE(add_forwarding_entry(&router, big(i).data()), nullptr) << i;
    }
    Group* existing = add_group(&router, link, big(5).data());
    ASSERT_NE(existing, nullptr) << "a group whose entry exists needs no new entry";
    ForwardingEntry* head = router.mfdb_list;
    capture_stdout();
    EXPECT_EQ(add_forwarding_entry(&router, G(1).data()), nullptr);
    EXPECT_EQ(add_group(&router, link, G(1).data()), nullptr);
    EXPECT_EQ(add_forwarding_entry(&router, big(77).data()),
              find_forwarding_entry(&router, big(77).data()));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "MLDRT: Limit of 16384 groups reached, request not handled\n");
    EXPECT_EQ(forwarding_entry_count(&router), kMaxGroups);
    EXPECT_EQ(router.mfdb_list, head);
    EXPECT_EQ(link->groups, existing);
    EXPECT_EQ(existing->next, nullptr);
    EXPECT_EQ(find_forwarding_entry(&router, G(1).data()), nullptr);
    delete_forwarding_entry(&router, find_forwarding_entry(&router, big(9).data()));
    EXPECT_NE(add_forwarding_entry(&router, G(1).data()), nullptr) << "room again after a delete";
}

TEST_F(RecordsTest, MfdbEntriesDeleteFromAnyPositionKeepTheCountAndMapOnce) {
    struct Row {
        const char* name;
        std::vector<int> deletions;
        std::vector<const char*> after;
    };
    const std::vector<Row> rows = {
        {"HeadFirst", {3, 2, 1}, {"2 1", "1", ""}},
        {"MiddleFirst", {2, 3, 1}, {"3 1", "1", ""}},
        {"TailFirst", {1, 3, 2}, {"3 2", "2", ""}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        for (int n = 1; n <= 3; n++) {
            add_forwarding_entry(&router, G(n).data());
        }
        ASSERT_EQ(forwarding_entry_count(&router), 3u);
        for (size_t i = 0; i < row.deletions.size(); i++) {
            delete_forwarding_entry(&router,
                                    find_forwarding_entry(&router, G(row.deletions[i]).data()));
            EXPECT_EQ(order(router.mfdb_list), row.after[i]);
            EXPECT_TRUE(links_ok(&router.mfdb_list));
            EXPECT_EQ(forwarding_entry_count(&router), 2u - i);
            EXPECT_EQ(find_forwarding_entry(&router, G(row.deletions[i]).data()), nullptr);
        }
    }
    // A group is mapped to its entry once.
    Group* g = add_group(&router, link, G(1).data());
    ForwardingEntry* first = add_forwarding_entry(&router, G(1).data());
    map_group_to_entry(g, first);
    map_group_to_entry(g, add_forwarding_entry(&router, G(2).data()));
    EXPECT_EQ(g->mfdb, first);
}

TEST_F(RecordsTest, FwinfoEmptinessUsesReversedSense) {
    struct Row {
        const char* name;
        bool mapped;
        bool record;
        int mark;  // MIF index marked, or -1
        int expected;
    };
    const std::vector<Row> rows = {
        {"GroupWithoutEntry", false, false, -1, 0},
        {"NoRecord", true, false, -1, 0},
        {"RecordWithoutMarks", true, true, -1, 0},
        {"Mif0", true, true, 0, -1},
        {"Mif31", true, true, 31, -1},
    };
    int n = 1;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Group* g = add_group(&router, link, G(n++).data());
        if (row.mapped) {
            map_group_to_entry(g, add_forwarding_entry(&router, g->grp_addr));
        }
        if (row.record) {
            ForwardingRecord* fw = add_forwarding_record(g, S(1).data());
            ASSERT_NE(fw, nullptr);
            EXPECT_EQ(add_forwarding_record(g, S(1).data()), fw);
            if (row.mark >= 0) {
                set_mark(fw, row.mark, 1);
            }
        }
        EXPECT_EQ(find_forwarding_record(g, S(1).data()) != nullptr, row.record);
        EXPECT_EQ(has_forwarding_marks(g, S(1).data()), row.expected != 0);
    }
}

TEST_F(RecordsTest, MembershipInfoIsSourceAndAnySourceMarksLessExclusions) {
    struct Row {
        const char* name;
        std::vector<int> source_mifs;  // wanted marks of (S,G); empty: none
        std::vector<int> any_mifs;     // marks of (::,G); empty: no record
        std::vector<int> excluded;     // excluded marks of (S,G)
        bool ask_any;                  // ask for :: instead of S
        std::vector<int> expected;
    };
    const std::vector<Row> rows = {
        {"SourceOnly", {1, 4}, {}, {}, false, {1, 4}},
        {"AnySourceOnly", {}, {3, 31}, {}, false, {3, 31}},
        {"Union", {1, 3}, {3, 0}, {}, false, {0, 1, 3}},
        {"ExcludedOnlyWhereTheAnySourceMarkIs", {2}, {3, 5}, {3}, false, {2, 5}},
        {"ExclusionWithoutAnySourceMark", {}, {}, {6}, false, {}},
        {"AskingForAnySource", {1}, {5}, {}, true, {5}},
        {"NoRecords", {}, {}, {}, false, {}},
    };
    int n = 1;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Group* g = group(n++);
        const addr6 any{};
        // Another source before and after, so that the walks must pick the right record.
        set_mark(add_forwarding_record(g, S(8).data()), 7, 1);
        for (int m : row.source_mifs) {
            set_mark(add_forwarding_record(g, S(1).data()), m, 1);
        }
        for (int m : row.any_mifs) {
            set_mark(add_forwarding_record(g, any.data()), m, 1);
        }
        for (int m : row.excluded) {
            set_mark(add_forwarding_record(g, S(1).data()), m, kMarkExcluded);
        }
        set_mark(add_forwarding_record(g, S(9).data()), 8, 1);
        uint8_t oifs[32];
        std::memset(oifs, 0xff, sizeof oifs);  // whatever the caller's array held goes
        outgoing_mifs(g->mfdb, row.ask_any ? any.data() : S(1).data(), oifs);
        std::vector<int> got;
        for (int i = 0; i < 32; i++) {
            if (oifs[i]) {
                got.push_back(i);
            }
        }
        EXPECT_EQ(got, row.expected);
    }
}

// The address indexes beside a link's groups and beside the forwarding database grow through
// several doublings and lose records wherever their lists do: afterwards an address is found
// exactly when its list holds it, the list keeps its order, and the last record out frees the
// buckets (LeakSanitizer would report them otherwise).
TEST_F(RecordsTest, AddressIndexesFollowTheirListsThroughGrowthAndRemoval) {
    struct Row {
        const char* name;
        std::function<void*(const addr6&)> add, find;
        std::function<void(void*)> remove;
        std::function<std::vector<void*>()> walk;  // the list's records in order
        std::function<uint32_t()> buckets;
    };
    auto walk = [](auto* p) {
        std::vector<void*> v;
        for (; p; p = p->next) {
            v.push_back(p);
        }
        return v;
    };
    const std::vector<Row> rows = {
        {"Groups", [&](const addr6& a) -> void* { return add_group(&router, link, a.data()); },
         [&](const addr6& a) -> void* { return find_group(link, a.data()); },
         [&](void* g) { delete_group(link, static_cast<Group*>(g)); },
         [&] { return walk(link->groups); }, [&] { return link->group_index.size; }},
        {"MfdbEntries",
         [&](const addr6& a) -> void* { return add_forwarding_entry(&router, a.data()); },
         [&](const addr6& a) -> void* { return find_forwarding_entry(&router, a.data()); },
         [&](void* e) { delete_forwarding_entry(&router, static_cast<ForwardingEntry*>(e)); },
         [&] { return walk(router.mfdb_list); }, [&] { return router.mfdb_index.size; }},
    };
    constexpr int kRecords = 300;  // 16 buckets at first, 512 in the end
    auto addr = [](int n) {
        addr6 a = ip6("ff0e::");
        a[14] = static_cast<uint8_t>(n >> 8);
        a[15] = static_cast<uint8_t>(n);
        return a;
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::vector<void*> recs;
        for (int n = 0; n < kRecords; n++) {
            recs.push_back(row.add(addr(n)));
            ASSERT_NE(recs.back(), nullptr);
        }
        EXPECT_EQ(row.buckets(), 256u);  // two records a bucket before the array doubles
        std::vector<void*> kept;         // head insertion: newest first
        for (int n = kRecords - 1; n >= 0; n--) {
            if (n % 3 == 0) {
                row.remove(recs[n]);
            } else {
                kept.push_back(recs[n]);
            }
        }
        for (int n = 0; n < kRecords; n++) {
            EXPECT_EQ(row.find(addr(n)), n % 3 == 0 ? nullptr : recs[n]) << n;
        }
        EXPECT_EQ(row.walk(), kept);
        void* again = row.add(addr(0));
        EXPECT_EQ(row.find(addr(0)), again);
        EXPECT_EQ(row.walk().front(), again);
        for (void* rec : row.walk()) {
            row.remove(rec);
        }
        EXPECT_EQ(row.buckets(), 0u);
        EXPECT_EQ(row.find(addr(1)), nullptr);
    }
}

TEST_F(RecordsTest, DeletingAnEntryFreesEverythingItHolds) {
    // Under LeakSanitizer a record left behind fails the run.
    ForwardingEntry* e = create_forwarding_entry(G(1).data());
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->host_mode, FilterMode::Include);
    e->new_host_state = static_cast<HostState*>(calloc(1, sizeof(HostState)));
    for (uint32_t code = 5; code <= 10; code++) {
        ASSERT_NE(add_source_to_group(nullptr, e, list_kind(code), S(1).data()), nullptr);
        ASSERT_NE(add_source_to_group(nullptr, e, list_kind(code), S(2).data()), nullptr);
    }
    Group g{};
    g.mfdb = e;
    add_forwarding_record(&g, S(1).data());
    add_forwarding_record(&g, addr6{}.data());
    const uint32_t count = forwarding_entry_count(&router);
    delete_forwarding_entry(&router, e);
    EXPECT_EQ(forwarding_entry_count(&router), count) << "an unlinked entry was never counted";

    ForwardingEntry* linked = add_forwarding_entry(&router, G(2).data());
    g.mfdb = linked;
    add_forwarding_record(&g, S(3).data());
    add_source_to_group(nullptr, linked, list_kind(9), S(3).data());
    delete_forwarding_entry(&router, linked);
    EXPECT_EQ(forwarding_entry_count(&router), count);
    EXPECT_EQ(router.mfdb_list, nullptr);
}

}  // namespace
