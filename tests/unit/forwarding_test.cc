// Forwarding-aware list operations, observed where they meet the kernel: the MRT6_ADD_MFC and
// MRT6_DEL_MFC calls on the router socket.
#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "db/db.h"
#include "iface/interface.h"
#include "test_support.h"

namespace {

const addr6 kAny{};

class ForwardingTest : public RouterTest {
  protected:
    void SetUp() override {
        RouterTest::SetUp();
        up = add_link("up0", 10, 5);
        router.upstream = up;
        links[1] = add_link("eth1", 11, 1);
        links[3] = add_link("eth3", 13, 3);
    }
    // The group on link `mif`, joined as a report handler joins it.
    mldrt_group* group(int mif, const char* grp = "ff0e::1") {
        mldrt_group* g = mldrt_add_group(&router, links[mif], ip6(grp).data());
        mldrt_create_gr_mfd_mapping(&router, g, mldrt_add_mfdb_entry(&router, ip6(grp).data()));
        return g;
    }

    struct Step {
        const char* name;
        bool add;
        int mif;
        uint32_t ltype;
        const char* src;
        std::vector<std::string> kernel;  // in any order
        int del_mifi = -1;                // checked unless -1
        std::function<void()> check = nullptr;
        const char* grp = "ff0e::1";
    };

    void run(const std::vector<Step>& steps) {
        for (const auto& st : steps) {
            SCOPED_TRACE(st.name);
            fake::kernel().sockopts.clear();
            router.del_mifi = 99;
            mldrt_group* g = group(st.mif, st.grp);
            const addr6 src = ip6(st.src);
            testing::internal::CaptureStdout();
            int rc = st.add ? mldrt_add_entry_to_grp_srclist(&router, g, st.ltype, src.data(), 260,
                                                             links[st.mif])
                            : mldrt_remove_entry_from_grp_srclist(&router, g, g->mfdb, st.ltype,
                                                                  src.data(), links[st.mif]);
            EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
            EXPECT_EQ(rc, 0);
            std::vector<std::string> got = mfc_calls();
            std::vector<std::string> want = st.kernel;
            std::sort(got.begin(), got.end());
            std::sort(want.begin(), want.end());
            EXPECT_EQ(got, want);
            if (st.del_mifi >= 0) {
                EXPECT_EQ(router.del_mifi, static_cast<uint32_t>(st.del_mifi));
            }
            if (st.check) {
                st.check();
            }
        }
    }

    mldrt_interface* up = nullptr;
    mldrt_interface* links[4] = {};
};

TEST_F(ForwardingTest, SourceSpecificEntryFollowsTheMarks) {
    const char* s1 = "2001:db8::1";
    const char* s2 = "2001:db8::2";
    auto fw = [&](const char* src) {
        return mldrt_lookup_fwinfo_in_fdb(group(1), ip6(src).data());
    };
    run({
        {"AddOnMif1", true, 1, 0, s1, {"add 2001:db8::1 ff0e::1 parent 5 mifs 1"}},
        {"AddOnMif3", true, 3, 0, s1, {"add 2001:db8::1 ff0e::1 parent 5 mifs 1,3"}},
        {"AddAgainOnMif1RefreshesTimerOnly",
         true,
         1,
         0,
         s1,
         {},
         -1,
         [&] {
             mldrt_src* s = mldrt_lookup_src_in_grplist(group(1)->include_list, ip6(s1).data());
             ASSERT_NE(s, nullptr);
             EXPECT_EQ(s->timer, 260);
             EXPECT_EQ(s->next, nullptr) << "one entry";
         }},
        {"ExcludedSourceIsNeverForwarded",
         true,
         1,
         2,
         s2,
         {},
         -1,
         [&] {
             EXPECT_NE(group(1)->exc_list, nullptr);
             EXPECT_EQ(fw(s2), nullptr);
         }},
        {"RequestedSourceOnMif1", true, 1, 1, s2, {"add 2001:db8::2 ff0e::1 parent 5 mifs 1"}},
        {"RemoveFromMif1", false, 1, 0, s1, {"add 2001:db8::1 ff0e::1 parent 5 mifs 3"}, 99},
        {"RemoveLastMarkDeletesEntryAndRecord",
         false,
         3,
         0,
         s1,
         {"del 2001:db8::1 ff0e::1"},
         99,
         [&] {
             EXPECT_EQ(fw(s1), nullptr);
             EXPECT_EQ(group(3)->include_list, nullptr);
         }},
        {"ExcludedSourceRemovalTouchesNothing",
         false,
         1,
         2,
         s2,
         {},
         -1,
         [&] {
             EXPECT_EQ(group(1)->exc_list, nullptr);
             EXPECT_NE(fw(s2), nullptr) << "the requested source still forwards";
         }},
        // The mark goes even when the list no longer names the source.
        {"UnlistedSourceStillWithdrawsItsMark",
         false,
         1,
         0,
         s2,
         {"del 2001:db8::2 ff0e::1"},
         -1,
         [&] { EXPECT_NE(group(1)->req_list, nullptr); }},
    });
}

TEST_F(ForwardingTest, AnySourceMarksRewriteStarGAndEverySourceEntryOfTheGroup) {
    const char* s1 = "2001:db8::1";
    const char* s2 = "2001:db8::2";
    run({
        {"OtherGroupSource",
         true,
         3,
         0,
         s1,
         {"add 2001:db8::1 ff0e::2 parent 5 mifs 3"},
         -1,
         nullptr,
         "ff0e::2"},
        {"SourceOnMif1", true, 1, 0, s1, {"add 2001:db8::1 ff0e::1 parent 5 mifs 1"}},
        {"AnySourceJoinsOnMif3",
         true,
         3,
         1,
         "::",
         {"add :: ff0e::1 parent 5 mifs 3,5", "add 2001:db8::1 ff0e::1 parent 5 mifs 1,3"}},
        {"SecondSourceCarriesTheAnySourceMifs",
         true,
         1,
         0,
         s2,
         {"add 2001:db8::2 ff0e::1 parent 5 mifs 1,3"}},
        {"AnySourceJoinsOnMif1",
         true,
         1,
         1,
         "::",
         {"add :: ff0e::1 parent 5 mifs 1,3,5", "add 2001:db8::1 ff0e::1 parent 5 mifs 1,3",
          "add 2001:db8::2 ff0e::1 parent 5 mifs 1,3"}},
        {"AnySourceLeavesMif3",
         false,
         3,
         1,
         "::",
         {"add :: ff0e::1 parent 5 mifs 1,5", "add 2001:db8::1 ff0e::1 parent 5 mifs 1",
          "add 2001:db8::2 ff0e::1 parent 5 mifs 1"},
         3},
        // Without its own record the source is forwarded by the (*,G) entry.
        {"SourceLosingLastMarkIsLeftToStarG", false, 1, 0, s2, {"del 2001:db8::2 ff0e::1"}},
        {"LastAnySourceMarkRemovesStarG",
         false,
         1,
         1,
         "::",
         {"del :: ff0e::1", "add 2001:db8::1 ff0e::1 parent 5 mifs 1"},
         1,
         [&] { EXPECT_EQ(mldrt_lookup_fwinfo_in_fdb(group(1), kAny.data()), nullptr); }},
    });
}

TEST_F(ForwardingTest, WithoutUpstreamMarksAreKeptAndWrittenWhenItAppears) {
    router.upstream = nullptr;
    const addr6 s1 = ip6("2001:db8::1");
    testing::internal::CaptureStdout();
    EXPECT_EQ(mldrt_add_entry_to_grp_srclist(&router, group(1), 0, s1.data(), 9, links[1]), 0);
    EXPECT_EQ(mldrt_add_entry_to_grp_srclist(&router, group(3), 1, kAny.data(), 9, links[3]), 0);
    EXPECT_EQ(mldrt_add_entry_to_grp_srclist(&router, group(1), 1, kAny.data(), 9, links[1]), 0);
    EXPECT_EQ(mldrt_remove_entry_from_grp_srclist(&router, group(1), group(1)->mfdb, 1, kAny.data(),
                                                  links[1]),
              0);
    mldrt_group* g2 = group(3, "ff0e::2");
    EXPECT_EQ(mldrt_add_entry_to_grp_srclist(&router, g2, 0, s1.data(), 9, links[3]), 0);
    EXPECT_EQ(mldrt_add_entry_to_grp_srclist(&router, g2, 1, kAny.data(), 9, links[3]), 0);
    EXPECT_EQ(mldrt_remove_entry_from_grp_srclist(&router, g2, g2->mfdb, 1, kAny.data(), links[3]),
              0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(mfc_calls(), std::vector<std::string>{});

    router.upstream = up;
    mldrt_rewrite_kernel_forwarding(&router);
    std::vector<std::string> got = mfc_calls();
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (std::vector<std::string>{"add 2001:db8::1 ff0e::1 parent 5 mifs 1,3",
                                             "add 2001:db8::1 ff0e::2 parent 5 mifs 3",
                                             "add :: ff0e::1 parent 5 mifs 3,5"}));
}

TEST_F(ForwardingTest, InvalidListCodesAndFullListsAreRefused) {
    struct Row {
        const char* name;
        std::function<int(mldrt_group*, const uint8_t*)> call;
        int result;
        const char* out;
    };
    auto add = [&](uint32_t code) {
        return [&, code](mldrt_group* g, const uint8_t* s) {
            return mldrt_add_entry_to_grp_srclist(&router, g, code, s, 5, links[1]);
        };
    };
    auto remove = [&](uint32_t code) {
        return [&, code](mldrt_group* g, const uint8_t* s) {
            return mldrt_remove_entry_from_grp_srclist(&router, g, g->mfdb, code, s, links[1]);
        };
    };
    const std::vector<Row> rows = {
        {"RemoveCode11", remove(11), 0, "\n Invalid ltype"},
        {"RemoveNegativeCode", remove(0xffffffffu), 0, "\n Invalid ltype"},
        {"AddCode11", add(11), 0, "\n Invalid list type"},
        {"AddRetransmissionListCode3", add(3), 0, "\n Invalid list type"},
        {"DelSrcFromGroupCode11",
         [](mldrt_group* g, const uint8_t* s) {
             return mldrt_del_src_from_group(g, g->mfdb, 11, s);
         },
         -1, "\n Fatal:: Unknow list type"},
        {"RemoveFromAbsentNewHostState", remove(6), -1,
         "\n FATAL Error - Cannot del src from group exclude list"},
        {"SixtyFifthSourceOfAList",
         [&](mldrt_group* g, const uint8_t*) {
             for (int i = 0; i < 63; i++) {
                 addr6 a = ip6("2001:db8:1::");
                 a[15] = static_cast<uint8_t>(i);
                 mldrt_add_src_to_group(g, g->mfdb, 0, a.data());
             }
             fake::kernel().sockopts.clear();
             return mldrt_add_entry_to_grp_srclist(&router, g, 0, ip6("2001:db8::99").data(), 5,
                                                   links[1]);
         },
         -1,
         "MLDRT: Limit of 64 sources per list reached, request not handled\n"
         "MLDRT: Couldnt add src to grp include list\n"},
    };
    const addr6 s1 = ip6("2001:db8::1");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        mldrt_group* g = group(1);
        mldrt_add_entry_to_grp_srclist(&router, g, 0, s1.data(), 5, links[1]);
        fake::kernel().sockopts.clear();
        fake::kernel().clock_seconds += 3600;
        testing::internal::CaptureStdout();
        EXPECT_EQ(row.call(g, s1.data()), row.result);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), row.out);
        EXPECT_EQ(mfc_calls(), std::vector<std::string>{});
        EXPECT_NE(mldrt_lookup_src_in_grplist(g->include_list, s1.data()), nullptr);
        EXPECT_EQ(is_fwinfo_empty_for_grp_src(g, s1.data()), -1);
    }
}

}  // namespace
