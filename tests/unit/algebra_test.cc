// Source-list algebra: whole results owned by the caller, in-place intersections, and the
// forwarding-aware list operations built on them.

#include <memory>

#include "test_support.h"

using namespace mldproxy;

namespace {

// Source n is 2001:db8::n; n = 0 is the any-source address ::.
addr6 S(int n) {
    addr6 a = n ? ip6("2001:db8::") : addr6{};
    a[15] = static_cast<uint8_t>(n);
    return a;
}

// A list in the given order; entry n carries timer base + n.
Source* make_list(const std::vector<int>& ns, int32_t base) {
    Source* head = nullptr;
    for (auto it = ns.rbegin(); it != ns.rend(); ++it) {
        Source* s = create_source(S(*it).data());
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

std::string order(const Source* p) {
    std::string s;
    for (; p; p = p->next) {
        s += (s.empty() ? "" : " ") + std::to_string(p->src_addr[15]);
    }
    return s;
}

enum class Op { SubtractLists, SubtractRecord, IntersectRecord, Union };

struct Row {
    const char* name;
    std::vector<int> a, b;  // list A (or L); list B or the record's sources
    int mode;               // record subtraction only
    std::vector<int> result;
    const char* out;
};

const char* const kLimit = "MLDRT: Limit of 64 sources per list reached, request not handled\n";

// Every row writes into a result that an earlier operation filled with other sources and
// timers: the result must be whole, in order, linked, and show nothing of what was there.
void run(Op op, const std::vector<Row>& rows) {
    const char* const kOps[] = {"SubtractLists", "SubtractRecord", "IntersectRecord", "Union"};
    SCOPED_TRACE(kOps[static_cast<int>(op)]);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        fake::kernel().clock_seconds += 3600;  // the limit's line is printed once a minute
        Source* a = make_list(row.a, 1000);
        Source* b = make_list(row.b, 2000);
        std::vector<uint8_t> rec = record(row.b);
        const uint32_t nrec = static_cast<uint32_t>(row.b.size());
        auto res = std::make_unique<SourceSet>();
        res->n = kMaxSources;
        for (Source& e : res->entries) {
            std::memset(e.src_addr, 0xee, 16);
            e.rtx_count = 0x7777;
            e.timer = 0x5a5a5a5a;
            e.next = &e;
        }
        capture_stdout();
        uint32_t n =
            op == Op::SubtractLists     ? subtract_lists(res.get(), a, b)
            : op == Op::SubtractRecord  ? subtract_record(res.get(), a, rec.data(), nrec, row.mode)
            : op == Op::IntersectRecord ? intersect_with_record(res.get(), a, rec.data(), nrec)
                                        : unite_lists(res.get(), a, b);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), row.out);
        EXPECT_EQ(n, row.result.size());
        EXPECT_EQ(res->n, row.result.size());
        const bool from_record = op == Op::SubtractRecord && row.mode == 0;
        std::vector<int> got;
        for (const Source* p = set_list(res.get()); p; p = p->next) {
            got.push_back(p->src_addr[15]);
            ASSERT_EQ(std::memcmp(p->src_addr, S(p->src_addr[15]).data(), 16), 0);
            const bool in_a = std::count(row.a.begin(), row.a.end(), p->src_addr[15]) > 0;
            EXPECT_EQ(p->timer, from_record ? 0 : (in_a ? 1000 : 2000) + p->src_addr[15])
                << "source " << got.back();
            EXPECT_EQ(p->rtx_count, 0) << "source " << got.back();
        }
        EXPECT_EQ(got, row.result);
        free_srclist(&a);
        free_srclist(&b);
    }
}

// Subtraction of lists and of a record, intersection with a record, and union: results hold
// every entry up to the 64-entry list limit; the 65th is refused with the limit's line.
TEST(AlgebraTest, ResultsAreWholeUpToTheListLimit) {
    run(Op::SubtractLists, {
                               {"EmptyA", {}, {1}, 0, {}, ""},
                               {"EmptyBCopiesA", {1, 2, 3}, {}, 0, {1, 2, 3}, ""},
                               {"InOrderOfA", {3, 1, 2, 4}, {4, 1}, 0, {3, 2}, ""},
                               {"DuplicatesOfAStay", {1, 2, 1}, {2}, 0, {1, 1}, ""},
                               {"TwelveOverThree", upto(1, 15), {1, 2, 3}, 0, upto(4, 15), ""},
                               {"SixtyFourFit", upto(1, 64), {}, 0, upto(1, 64), ""},
                               {"SixtyFifthRefused", upto(1, 65), {}, 0, upto(1, 64), kLimit},
                           });
    run(Op::SubtractRecord,
        {
            {"Mode0NoSources", {1}, {}, 0, {}, ""},
            {"Mode0RecordOrderTimerZero", {2}, {3, 2, 1}, 0, {3, 1}, ""},
            {"Mode0RecordDuplicateTwice", {}, {5, 5}, 0, {5, 5}, ""},
            {"Mode0SixtyFourFit", {}, upto(1, 64), 0, upto(1, 64), ""},
            {"Mode0SixtyFifthRefused", {}, upto(1, 65), 0, upto(1, 64), kLimit},
            {"Mode0SixtyFourBesideTheList", upto(1, 64), upto(1, 128), 0, upto(65, 128), ""},
            {"Mode1NoSourcesCopiesList", {1, 2}, {}, 1, {1, 2}, ""},
            {"Mode1ListOrder", {3, 1, 2}, {1}, 1, {3, 2}, ""},
            {"Mode1RecordDuplicateIgnored", {5, 6}, {6, 6}, 1, {5}, ""},
            {"Mode1SixtyFourFit", upto(1, 64), {}, 1, upto(1, 64), ""},
            {"Mode1SixtyFifthRefused", upto(1, 65), {}, 1, upto(1, 64), kLimit},
            {"Mode2IsAnEmptyResult", {1}, {2}, 2, {}, "\n FATAL: Invalid mode type passed\n"},
        });
    run(Op::IntersectRecord,
        {
            {"NoSources", {1, 2}, {}, 0, {}, ""},
            {"ListOrder", {3, 1, 2}, {2, 3}, 0, {3, 2}, ""},
            {"RecordDuplicateOnce", {4}, {4, 4}, 0, {4}, ""},
            {"SixtyFourFit", upto(1, 64), upto(1, 70), 0, upto(1, 64), ""},
            {"SixtyFifthRefused", upto(1, 65), upto(1, 65), 0, upto(1, 64), kLimit},
        });
    run(Op::Union,
        {
            {"BothEmpty", {}, {}, 0, {}, ""},
            {"AThenNewOfB", {2, 1}, {3, 1, 4}, 0, {2, 1, 3, 4}, ""},
            {"DuplicatesOfARemoved", {1, 2, 1}, {2}, 0, {1, 2}, ""},
            {"SixtyFourFit", upto(1, 32), upto(33, 64), 0, upto(1, 64), ""},
            {"SixtyFourWithCommonSources", upto(1, 40), upto(20, 64), 0, upto(1, 64), ""},
            {"SixtyFifthRefused", upto(1, 32), upto(33, 65), 0, upto(1, 64), kLimit},
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
        Source* a = make_list(row.a, 0);
        Source* b = make_list(row.b, 0);
        EXPECT_EQ(intersect_in_place(&a, b), row.kept);
        EXPECT_EQ(order(a), row.left);
        free_srclist(&a);
        free_srclist(&b);
    }
}

class GroupAlgebraTest : public RouterTest {};

TEST_F(GroupAlgebraTest, GroupListOperationsWithdrawForwardingPerEntry) {
    Link* up = make_link("up0", 10, 5);
    router.upstream = up;
    Link* link = make_link("eth1", 11, 1);
    struct GroupRow {
        const char* name;
        bool empty;  // empty_group_list, else the intersection with a record
        uint32_t code;
        std::vector<int> list, rec;  // list added in this order, so it reads backwards
        int result;
        const char* left;
        const char* kernel;  // sorted MFC calls, Sn for 2001:db8::n and Gn for ff0e::n
        const char* out;
    };
    const char* kUnknown = "\n FATAL: Req for deleteing unknown list type in the group\n";
    const std::vector<GroupRow> rows = {
        {"IntersectKeepsNamed", false, 0, {1, 2, 3}, {2, 9}, 0, "2", "del S1 G1; del S3 G1", ""},
        {"IntersectNoSourcesRemovesAll", false, 1, {3, 1}, {}, 0, "", "del S1 G2; del S3 G2", ""},
        {"IntersectExcludedDropsItsHeldBackEntry", false, 2, {1, 2}, {1}, 0, "1", "del S2 G3", ""},
        {"IntersectCode3Rejected", false, 3, {1}, {}, -1, "1", "", "\n Invalid List Type\n"},
        {"EmptyInclude", true, 0, {1, 2}, {}, 0, "", "del S1 G5; del S2 G5", ""},
        {"EmptyExcluded", true, 2, {1, 2}, {}, 0, "", "del S1 G6; del S2 G6", ""},
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
        Group* g = add_group(&router, link, ga.data());
        map_group_to_entry(g, add_forwarding_entry(&router, ga.data()));
        const uint32_t fill = row.code <= 2 ? row.code : row.code == 11 ? 0 : row.code;
        for (int n : row.list) {
            if (fill <= 2) {
                add_to_group_list(&router, g, list_kind(fill), S(n).data(), 9, link);
            } else {
                add_source_to_group(g, g->mfdb, list_kind(fill), S(n).data());
            }
        }
        Source** list = select_list(g, g->mfdb, list_kind(fill));
        fake::kernel().sockopts.clear();
        std::vector<uint8_t> rec = record(row.rec);
        capture_stdout();
        int rc = row.empty ? empty_group_list(&router, g, g->mfdb, list_kind(row.code), link)
                           : intersect_group_list_with_record(
                                 &router, g, list_kind(row.code), rec.data(),
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
