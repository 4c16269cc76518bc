// Forwarding-aware list operations, observed where they meet the kernel: the MRT6_ADD_MFC and
// MRT6_DEL_MFC calls on the router socket. Upstream is MIF 5; links on MIFs 1 and 3.
#include <cstdio>

#include "test_support.h"

using namespace mldproxy;

namespace {

const addr6 kAny{};

// The kernel calls with 2001:db8::n written Sn, ff0e::n written Gn and parent 5 left out, sorted.
std::vector<std::string> kernel_calls() {
    std::vector<std::string> out = mfc_calls();
    for (auto& s : out) {
        for (const auto& [from, to] : std::vector<std::pair<std::string, std::string>>{
                 {"2001:db8::", "S"}, {"ff0e::", "G"}, {" parent 5 mifs ", " mifs "}}) {
            for (size_t at; (at = s.find(from)) != std::string::npos;) {
                s.replace(at, from.size(), to);
            }
        }
    }
    std::sort(out.begin(), out.end());
    return out;
}

class ForwardingTest : public RouterTest {
  protected:
    void SetUp() override {
        RouterTest::SetUp();
        up = make_link("up0", 10, 5);
        router.upstream = up;
        links[1] = make_link("eth1", 11, 1);
        links[3] = make_link("eth3", 13, 3);
    }
    // Group Gn on the link of MIF `mif`, joined as a report handler joins it.
    Group* group(int mif, int n = 1) {
        addr6 a = ip6("ff0e::");
        a[15] = static_cast<uint8_t>(n);
        Group* g = add_group(&router, links[mif], a.data());
        map_group_to_entry(g, add_forwarding_entry(&router, a.data()));
        return g;
    }
    static addr6 source(const char* text) {
        return text[0] == 'S' ? ip6(("2001:db8::" + std::string(text + 1)).c_str()) : kAny;
    }

    struct Step {
        const char* name;
        const char* op;  // "add|del <mif> inc|req|exc <Sn> [group n]" or "add|del <mif> any"
        std::vector<std::string> kernel;
        int del_mifi = -1;  // checked unless -1
        std::function<void()> check = nullptr;
    };

    void run(const std::vector<Step>& steps) {
        for (const auto& st : steps) {
            SCOPED_TRACE(st.name);
            char verb[4], list[4], src[8];
            int mif = 0, grp = 1;
            ASSERT_GE(std::sscanf(st.op, "%3s %d %3s %7s %d", verb, &mif, list, src, &grp), 3);
            const uint32_t code = std::string("increqexc").find(list) / 3;
            const bool add = std::string(verb) == "add";
            fake::kernel().sockopts.clear();
            router.del_mifi = 99;
            Group* g = group(mif, grp);
            capture_stdout();
            if (std::string(list) == "any") {
                (add ? forward_whole_group : withdraw_whole_group)(&router, g, links[mif]);
            } else {
                const addr6 s = source(src);
                EXPECT_EQ(
                    add ? add_to_group_list(&router, g, list_kind(code), s.data(), 260, links[mif])
                        : remove_from_group_list(&router, g, g->mfdb, list_kind(code), s.data(),
                                                 links[mif]),
                    0);
            }
            EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
            EXPECT_EQ(kernel_calls(), st.kernel);
            if (st.del_mifi >= 0) {
                EXPECT_EQ(router.del_mifi, static_cast<uint32_t>(st.del_mifi));
            }
            if (st.check) {
                st.check();
            }
        }
    }

    Link* up = nullptr;
    Link* links[4] = {};
};

TEST_F(ForwardingTest, SourceSpecificEntryFollowsTheMarks) {
    auto fw = [&](const char* s) { return find_forwarding_record(group(1), source(s).data()); };
    run({
        {"AddOnMif1", "add 1 inc S1", {"add S1 G1 mifs 1"}},
        {"AddOnMif3", "add 3 inc S1", {"add S1 G1 mifs 1,3"}},
        {"AddAgainOnMif1RefreshesTimerOnly",
         "add 1 inc S1",
         {},
         -1,
         [&] {
             ASSERT_NE(group(1)->include_list, nullptr);
             EXPECT_EQ(group(1)->include_list->timer, 260);
             EXPECT_EQ(group(1)->include_list->next, nullptr) << "one entry";
         }},
        {"ExcludedSourceGetsAnEntryWithoutTheLink",
         "add 1 exc S2",
         {"add S2 G1 mifs "},
         -1,
         [&] {
             EXPECT_NE(group(1)->exc_list, nullptr);
             ASSERT_NE(fw("S2"), nullptr);
             EXPECT_EQ(mark_at(fw("S2"), 1), kMarkExcluded);
         }},
        {"RequestedSourceOnMif1", "add 1 req S2", {"add S2 G1 mifs 1"}},
        {"RemoveFromMif1", "del 1 inc S1", {"add S1 G1 mifs 3"}, 99},
        {"RemoveLastMarkDeletesEntryAndRecord",
         "del 3 inc S1",
         {"del S1 G1"},
         99,
         [&] { EXPECT_EQ(fw("S1"), nullptr); }},
        {"ExclusionGoneAfterTheSourceWasWantedTouchesNothing",
         "del 1 exc S2",
         {},
         -1,
         [&] {
             EXPECT_EQ(group(1)->exc_list, nullptr);
             EXPECT_NE(fw("S2"), nullptr) << "the requested source still forwards";
         }},
        // The mark goes even when the list no longer names the source.
        {"UnlistedSourceStillWithdrawsItsMark",
         "del 1 inc S2",
         {"del S2 G1"},
         -1,
         [&] { EXPECT_NE(group(1)->req_list, nullptr); }},
    });
}

TEST_F(ForwardingTest, AnySourceMarksRewriteStarGAndEverySourceEntryOfTheGroup) {
    run({
        {"OtherGroupSource", "add 3 inc S1 2", {"add S1 G2 mifs 3"}},
        {"SourceOnMif1", "add 1 inc S1", {"add S1 G1 mifs 1"}},
        {"AnySourceJoinsOnMif3", "add 3 any", {"add :: G1 mifs 3,5", "add S1 G1 mifs 1,3"}},
        {"SecondSourceCarriesAnySourceMifs", "add 1 inc S2", {"add S2 G1 mifs 1,3"}},
        {"AnySourceJoinsOnMif1",
         "add 1 any",
         {"add :: G1 mifs 1,3,5", "add S1 G1 mifs 1,3", "add S2 G1 mifs 1,3"}},
        {"SourceExcludedOnMif3IsHeldBackThereOnly", "add 3 exc S3", {"add S3 G1 mifs 1"}},
        {"ExclusionOverridesTheLinksOwnWantedMark", "add 3 exc S1", {"add S1 G1 mifs 1"}},
        {"ExclusionGoneTheSourceFollowsStarG", "del 3 exc S3", {"del S3 G1"}},
        {"AnySourceLeavesMif3",
         "del 3 any",
         {"add :: G1 mifs 1,5", "add S1 G1 mifs 1", "add S2 G1 mifs 1"},
         3},
        // Without its own record the source is forwarded by the (*,G) entry.
        {"SourceLosingLastMarkIsLeftToStarG", "del 1 inc S2", {"del S2 G1"}},
        {"LastAnySourceMarkRemovesStarG",
         "del 1 any",
         {"add S1 G1 mifs 1", "del :: G1"},
         1,
         [&] { EXPECT_EQ(find_forwarding_record(group(1), kAny.data()), nullptr); }},
    });
}

// Without an upstream no entry can name its parent MIF, so none is written; a (*,G) entry
// whose last mark goes is deleted all the same, so that none is left forwarding to whatever
// link takes its MIF later.
TEST_F(ForwardingTest, WithoutUpstreamMarksAreKeptAndWrittenWhenItAppears) {
    router.upstream = nullptr;
    run({
        {"Source", "add 1 inc S1", {}},
        {"AnySource", "add 3 any", {}},
        {"SecondAnySource", "add 1 any", {}},
        {"AnySourceLeaves", "del 1 any", {}},
        {"OtherGroup", "add 3 inc S1 2", {}},
        {"OtherGroupAnySource", "add 3 any 0 2", {}},
        {"OtherGroupLastAnySourceMarkGoes", "del 3 any 0 2", {"del :: G2"}},
    });
    router.upstream = up;
    fake::kernel().sockopts.clear();
    rewrite_kernel_forwarding(&router);
    EXPECT_EQ(kernel_calls(), (std::vector<std::string>{"add :: G1 mifs 3,5", "add S1 G1 mifs 1,3",
                                                        "add S1 G2 mifs 3"}));
}

TEST_F(ForwardingTest, InvalidListCodesAndFullListsAreRefused) {
    struct Row {
        const char* name;
        std::function<int(Group*, const uint8_t*)> call;
        int result;
        const char* out;
    };
    auto add = [&](uint32_t code) {
        return [&, code](Group* g, const uint8_t* s) {
            return add_to_group_list(&router, g, list_kind(code), s, 5, links[1]);
        };
    };
    auto remove = [&](uint32_t code) {
        return [&, code](Group* g, const uint8_t* s) {
            return remove_from_group_list(&router, g, g->mfdb, list_kind(code), s, links[1]);
        };
    };
    const std::vector<Row> rows = {
        {"RemoveCode11", remove(11), 0, "\n Invalid ltype\n"},
        {"RemoveNegativeCode", remove(0xffffffffu), 0, "\n Invalid ltype\n"},
        {"AddCode11", add(11), 0, "\n Invalid list type\n"},
        {"AddRetransmissionListCode3", add(3), 0, "\n Invalid list type\n"},
        {"DelSrcFromGroupCode11",
         [](Group* g, const uint8_t* s) {
             return remove_source_from_group(g, g->mfdb, list_kind(11), s);
         },
         -1, "\n Fatal:: Unknow list type\n"},
        {"RemoveFromAbsentNewHostState", remove(6), -1,
         "\n FATAL Error - Cannot del src from group exclude list\n"},
        {"SixtyFifthSourceOfAList",
         [&](Group* g, const uint8_t*) {
             for (int i = 2; i <= 64; i++) {
                 add_source_to_group(g, g->mfdb, list_kind(0),
                                     source(("S" + std::to_string(i)).c_str()).data());
             }
             return add(0)(g, source("S99").data());
         },
         -1,
         "MLDRT: Limit of 64 sources per list reached, request not handled\n"
         "MLDRT: Couldnt add src to grp include list\n"},
    };
    const addr6 s1 = source("S1");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Group* g = group(1);
        add_to_group_list(&router, g, list_kind(0), s1.data(), 5, links[1]);
        fake::kernel().sockopts.clear();
        capture_stdout();
        EXPECT_EQ(row.call(g, s1.data()), row.result);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), row.out);
        EXPECT_EQ(mfc_calls(), std::vector<std::string>{});
        EXPECT_NE(find_source(g->include_list, s1.data()), nullptr);
        EXPECT_TRUE(has_forwarding_marks(g, s1.data()));
    }
}

}  // namespace
