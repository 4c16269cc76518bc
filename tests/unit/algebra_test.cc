// Source-list algebra: results in the process-wide arrays, in-place intersections, and the
// forwarding-aware list operations built on them.

#include "test_support.h"

namespace {

// Source n is 2001:db8::n; n = 0 is the any-source address ::.
addr6 S(int n) {
    addr6 a = n ? ip6("2001:db8::") : addr6{};
    a[15] = static_cast<uint8_t>(n);
    return a;
}

// A list in the given order; entry n carries timer base + n.
mldrt_src* make_list(const std::vector<int>& ns, int32_t base) {
    mldrt_src* head = nullptr;
    for (auto it = ns.rbegin(); it != ns.rend(); ++it) {
        mldrt_src* s = mldrt_create_src_for_grp(S(*it).data());
        s->timer = base + *it;
        s->next = head;
        head = s;
    }
    return head;
}

std::vector<uint8_t> record(const std::vector<int>& ns) {
    std::vector<uint8_t> r;
    for (int n : ns) {
        const addr6 a = S(n);
        r.insert(r.end(), a.begin(), a.end());
    }
    return r;
}

std::string order(const mldrt_src* p) {
    std::string s;
    for (; p; p = p->next) {
        s += (s.empty() ? "" : " ") + std::to_string(p->src_addr[15]);
    }
    return s;
}

constexpr int32_t kTimer = 0x5a5a5a5a;
constexpr uint16_t kRtx = 0x7777;

enum class Op { SubtractLists, SubtractRecord, IntersectRecord, Union };

struct Row {
    const char* name;
    std::vector<int> a, b;  // list A (or L); list B or the record's sources
    int mode;               // record subtraction only
    int result;
    std::vector<int> written;  // entries 0.. of the array afterwards
    const char* out;
};

void run(Op op, const std::vector<Row>& rows) {
    const char* const kOps[] = {"SubtractLists", "SubtractRecord", "IntersectRecord", "Union"};
    SCOPED_TRACE(kOps[static_cast<int>(op)]);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        mldrt_src* arr = aIPv6SrcAddrList2;
        for (uint32_t i = 0; i < MLDRT_SRCLIST_ARRAY; i++) {
            std::memset(arr[i].src_addr, 0xee, 16);
            arr[i].rtx_count = kRtx;
            arr[i].timer = kTimer;
        }
        mldrt_src* a = make_list(row.a, 1000);
        mldrt_src* b = make_list(row.b, 2000);
        std::vector<uint8_t> rec = record(row.b);
        const uint32_t cap = MLDRT_SRCLIST_CAPACITY;
        testing::internal::CaptureStdout();
        int n = op == Op::SubtractLists ? mldrt_subtract_srclists(arr, cap, a, b)
                : op == Op::SubtractRecord
                    ? mldrt_subtract_srclist_and_rcvd_record(
                          arr, cap, a, rec.data(), static_cast<uint32_t>(row.b.size()), row.mode)
                : op == Op::IntersectRecord
                    ? mldrt_intersect_srclist_with_rcvd_record(arr, cap, a, rec.data(),
                                                               static_cast<uint32_t>(row.b.size()))
                    : mldrt_union_srclists(arr, cap, a, b);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), row.out);
        EXPECT_EQ(n, row.result);
        const bool timer_copied = !(op == Op::SubtractRecord && row.mode == 0);
        const size_t k = row.written.size();
        for (size_t i = 0; i < k; i++) {
            SCOPED_TRACE("entry " + std::to_string(i));
            const int src = row.written[i];
            const bool from_a = std::count(row.a.begin(), row.a.end(), src) > 0;
            EXPECT_EQ(ip6_text(arr[i].src_addr), ip6_text(S(src).data()));
            EXPECT_EQ(arr[i].timer, timer_copied ? (from_a ? 1000 : 2000) + src : kTimer);
            EXPECT_EQ(arr[i].rtx_count, op == Op::IntersectRecord ? 0 : kRtx);
            EXPECT_EQ(arr[i].next, i + 1 < k ? &arr[i + 1] : nullptr);
        }
        EXPECT_EQ(arr[k].src_addr[0], 0xee) << "entry " << k << " written";
        mldrt_free_srclist(&a);
        mldrt_free_srclist(&b);
    }
}

const char* kFull = "\n Fatal: SrcList cannot be accomodated";

// Subtraction of lists and of a record, intersection with a record, and union, into the array.
TEST(AlgebraTest, ArrayResultsByOperation) {
    run(Op::SubtractLists,
        {
            {"EmptyA", {}, {1}, 0, 0, {}, ""},
            {"EmptyBCopiesA", {1, 2, 3}, {}, 0, 3, {1, 2, 3}, ""},
            {"InOrderOfA", {3, 1, 2, 4}, {4, 1}, 0, 2, {3, 2}, ""},
            {"DuplicatesOfAStay", {1, 2, 1}, {2}, 0, 2, {1, 1}, ""},
            {"TenFit", upto(1, 10), {}, 0, 10, upto(1, 10), ""},
            {"EleventhFailsBeforeWriting", upto(1, 11), {}, 0, -1, upto(1, 10), kFull},
        });
    run(Op::SubtractRecord,
        {
            {"Mode0NoSources", {1}, {}, 0, 0, {}, ""},
            {"Mode0RecordOrderTimerUntouched", {2}, {3, 2, 1}, 0, 2, {3, 1}, ""},
            {"Mode0RecordDuplicateTwice", {}, {5, 5}, 0, 2, {5, 5}, ""},
            {"Mode0TenFit", {}, upto(1, 10), 0, 10, upto(1, 10), ""},
            {"Mode0EleventhFails", {}, upto(1, 11), 0, -1, upto(1, 10), kFull},
            {"Mode1NoSourcesCopiesList", {1, 2}, {}, 1, 2, {1, 2}, ""},
            {"Mode1ListOrder", {3, 1, 2}, {1}, 1, 2, {3, 2}, ""},
            {"Mode1RecordDuplicateIgnored", {5, 6}, {6, 6}, 1, 1, {5}, ""},
            {"Mode1EleventhFails", upto(1, 11), {}, 1, -1, upto(1, 10), kFull},
            {"Mode2IsAnEmptyResult", {1}, {2}, 2, 0, {}, "\n FATAL: Invalid mode type passed"},
        });
    run(Op::IntersectRecord,
        {
            {"NoSources", {1, 2}, {}, 0, 0, {}, ""},
            {"ListOrder", {3, 1, 2}, {2, 3}, 0, 2, {3, 2}, ""},
            {"RecordDuplicateOnce", {4}, {4, 4}, 0, 1, {4}, ""},
            {"TenFit", upto(1, 10), upto(1, 12), 0, 10, upto(1, 10), ""},
            {"EleventhFails", upto(1, 11), upto(1, 11), 0, -1, upto(1, 10), kFull},
        });
    run(Op::Union, {
                       {"BothEmpty", {}, {}, 0, 0, {}, ""},
                       {"AThenNewOfB", {2, 1}, {3, 1, 4}, 0, 4, {2, 1, 3, 4}, ""},
                       {"DuplicatesOfARemoved", {1, 2, 1}, {2}, 0, 2, {1, 2}, ""},
                       {"TenFit", upto(1, 5), upto(6, 10), 0, 10, upto(1, 10), ""},
                       {"EleventhWrittenThenFails", upto(1, 6), upto(7, 11), 0, -1, upto(1, 11),
                        "\n Cannot add source lists"},
                   });
}

TEST(AlgebraTest, InPlaceIntersectionKeepsOrder) {
    struct InPlaceRow {
        const char* name;
        std::vector<int> a, b;
        int kept;
        const char* left;
    };
    const std::vector<InPlaceRow> rows = {
        {"KeepsCommonInOrder", {4, 1, 3, 2}, {2, 4, 9}, 2, "4 2"},
        {"EmptyBEmptiesA", {1, 2}, {}, 0, ""},
        {"EmptyA", {}, {1}, 0, ""},
        {"DuplicatesOfA", {1, 2, 1, 3}, {1, 3}, 3, "1 1 3"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        mldrt_src* a = make_list(row.a, 0);
        mldrt_src* b = make_list(row.b, 0);
        EXPECT_EQ(mldrt_intersect_srclists(&a, b), row.kept);
        EXPECT_EQ(order(a), row.left);
        mldrt_free_srclist(&a);
        mldrt_free_srclist(&b);
    }
}

class GroupAlgebraTest : public RouterTest {};

TEST_F(GroupAlgebraTest, GroupListOperationsWithdrawForwardingPerEntry) {
    mldrt_interface* up = add_link("up0", 10, 5);
    router.upstream = up;
    mldrt_interface* link = add_link("eth1", 11, 1);
    struct GroupRow {
        const char* name;
        bool empty;  // mldrt_empty_grp_srclist, else the intersection with a record
        uint32_t code;
        std::vector<int> list, rec;  // list added in this order, so it reads backwards
        int result;
        const char* left;
        const char* kernel;  // sorted MFC calls, Sn for 2001:db8::n and Gn for ff0e::n
        const char* out;
    };
    const char* kUnknown = "\n FATAL: Req for deleteing unknown list type in the group";
    const std::vector<GroupRow> rows = {
        {"IntersectKeepsNamed", false, 0, {1, 2, 3}, {2, 9}, 0, "2", "del S1 G1; del S3 G1", ""},
        {"IntersectNoSourcesRemovesAll", false, 1, {0, 1}, {}, 0, "", "del S1 G2; del :: G2", ""},
        {"IntersectExcludedNoKernel", false, 2, {1, 2}, {1}, 0, "1", "", ""},
        {"IntersectCode3Rejected", false, 3, {1}, {}, -1, "1", "", "\n Invalid List Type"},
        {"EmptyInclude", true, 0, {1, 2}, {}, 0, "", "del S1 G5; del S2 G5", ""},
        {"EmptyExcluded", true, 2, {1, 2}, {}, 0, "", "", ""},
        {"EmptyCode3Refused", true, 3, {1, 2}, {}, 0, "2 1", "", kUnknown},
        {"EmptyCode4Refused", true, 4, {1, 2}, {}, 0, "2 1", "", kUnknown},
        {"EmptyCode11Refused", true, 11, {1}, {}, 0, "1", "", kUnknown},
        {"EmptyScrAllow", true, 9, {1, 2}, {}, 0, "", "", ""},
    };
    int grp = 1;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        addr6 ga = ip6("ff0e::");
        ga[15] = static_cast<uint8_t>(grp++);
        mldrt_group* g = mldrt_add_group(&router, link, ga.data());
        mldrt_create_gr_mfd_mapping(&router, g, mldrt_add_mfdb_entry(&router, ga.data()));
        const uint32_t fill = row.code <= 2 ? row.code : row.code == 11 ? 0 : row.code;
        for (int n : row.list) {
            if (fill <= 2) {
                mldrt_add_entry_to_grp_srclist(&router, g, fill, S(n).data(), 9, link);
            } else {
                mldrt_add_src_to_group(g, g->mfdb, fill, S(n).data());
            }
        }
        mldrt_src** list = mldrt_select_srclist(g, g->mfdb, fill);
        fake::kernel().sockopts.clear();
        std::vector<uint8_t> rec = record(row.rec);
        testing::internal::CaptureStdout();
        int rc = row.empty ? mldrt_empty_grp_srclist(&router, g, g->mfdb, row.code, link)
                           : mldrt_intersect_grp_srclist_with_rcvd_record(
                                 &router, g, row.code, rec.data(),
                                 static_cast<uint32_t>(row.rec.size()), link);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), row.out);
        EXPECT_EQ(rc, row.result);
        EXPECT_EQ(order(*list), row.left);
        std::vector<std::string> got = mfc_calls();
        std::sort(got.begin(), got.end());
        std::string calls;
        for (std::string c : got) {
            for (const char* from : {"2001:db8::", "ff0e::"}) {
                const size_t at = c.find(from);
                if (at != std::string::npos) {
                    c.replace(at, std::strlen(from), from[0] == '2' ? "S" : "G");
                }
            }
            calls += (calls.empty() ? "" : "; ") + c;
        }
        EXPECT_EQ(calls, row.kernel);
    }
}

}  // namespace
