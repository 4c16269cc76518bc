// The source-list algebra behind the record handlers: results in list (or record) order, with
// the timers of the list each entry came from, whole up to the 64-entry list limit.
#include <memory>

#include "test_support.h"

namespace {

// A list in the given order; entry n carries timer base + n.
Source* make_list(const std::vector<int>& ns, int32_t base) {
    Source* head = nullptr;
    for (auto it = ns.rbegin(); it != ns.rend(); ++it) {
        Source* s = create_source(src(*it).data());
        s->timer = base + *it;
        s->next = head;
        head = s;
    }
    return head;
}

enum class Op { SubtractLists, SubtractRecord, SubtractFromRecord, IntersectRecord, Union };

struct Row {
    Op op;
    const char* name;
    std::vector<int> a, b;  // list A; list B or the record's sources
    std::vector<int> result;
    bool limit = false;  // the 65th entry is refused with the limit's line
};

// Every row writes into a result that an earlier operation filled with other sources and
// timers: the result must be whole, in order, linked, and show nothing of what was there.
TEST(AlgebraTest, ResultsAreWholeInOrderUpToTheListLimit) {
    using O = Op;
    const std::vector<Row> rows = {
        {O::SubtractLists, "in the order of A", {3, 1, 2, 4}, {4, 1}, {3, 2}},
        {O::SubtractLists, "empty B copies A", {1, 2, 3}, {}, {1, 2, 3}},
        {O::SubtractLists, "65th refused", upto(1, 65), {}, upto(1, 64), true},
        {O::SubtractFromRecord, "record order, timer 0", {2}, {3, 2, 1}, {3, 1}},
        {O::SubtractFromRecord, "64 beside the list", upto(1, 64), upto(1, 128), upto(65, 128)},
        {O::SubtractFromRecord, "65th refused", {}, upto(1, 65), upto(1, 64), true},
        {O::SubtractRecord, "list order", {3, 1, 2}, {1}, {3, 2}},
        {O::SubtractRecord, "record duplicate", {5, 6}, {6, 6}, {5}},
        {O::SubtractRecord, "65th refused", upto(1, 65), {}, upto(1, 64), true},
        {O::IntersectRecord, "list order", {3, 1, 2}, {2, 3}, {3, 2}},
        {O::IntersectRecord, "record duplicate once", {4}, {4, 4}, {4}},
        {O::IntersectRecord, "64 of 70", upto(1, 64), upto(1, 70), upto(1, 64)},
        {O::IntersectRecord, "65th refused", upto(1, 65), upto(1, 65), upto(1, 64), true},
        {O::Union, "A, then what is new of B", {2, 1}, {3, 1, 4}, {2, 1, 3, 4}},
        {O::Union, "64 with common sources", upto(1, 40), upto(20, 64), upto(1, 64)},
        {O::Union, "65th refused", upto(1, 32), upto(33, 65), upto(1, 64), true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << static_cast<int>(row.op) << " " << row.name);
        fake::kernel().clock_seconds += 3600;  // the limit's line is printed once a minute
        Source* a = make_list(row.a, 1000);
        Source* b = make_list(row.b, 2000);
        bytes rec;
        for (int n : row.b) {
            const addr6 a = src(n);
            rec.insert(rec.end(), a.begin(), a.end());
        }
        const auto nrec = static_cast<uint32_t>(row.b.size());
        auto res = std::make_unique<SourceSet>();
        res->n = kMaxSources;
        for (Source& e : res->entries) {
            std::memset(e.src_addr, 0xee, 16);
            e.timer = 0x5a5a5a5a;
            e.next = &e;
        }
        uint32_t n = 0;
        std::string out = stdout_of([&] {
            switch (row.op) {
                case O::SubtractLists:
                    n = subtract_lists(res.get(), a, b);
                    break;
                case O::SubtractFromRecord:
                    n = subtract_record(res.get(), a, rec.data(), nrec, 0);
                    break;
                case O::SubtractRecord:
                    n = subtract_record(res.get(), a, rec.data(), nrec, 1);
                    break;
                case O::IntersectRecord:
                    n = intersect_with_record(res.get(), a, rec.data(), nrec);
                    break;
                case O::Union:
                    n = unite_lists(res.get(), a, b);
                    break;
            }
        });
        EXPECT_EQ(out, row.limit ? "MLDRT: Limit of 64 sources per list reached, request not "
                                   "handled\n"
                                 : "");
        EXPECT_EQ(n, row.result.size());
        EXPECT_EQ(res->n, row.result.size());
        std::vector<int> got;
        for (const Source* p = set_list(res.get()); p && got.size() <= kMaxSources; p = p->next) {
            const int s = p->src_addr[15];
            got.push_back(s);
            ASSERT_EQ(std::memcmp(p->src_addr, src(s).data(), 16), 0);
            const bool in_a = std::count(row.a.begin(), row.a.end(), s) > 0;
            EXPECT_EQ(p->timer, row.op == O::SubtractFromRecord ? 0 : (in_a ? 1000 : 2000) + s)
                << s;
        }
        EXPECT_EQ(got, row.result);
        free_srclist(&a);
        free_srclist(&b);
    }
}

}  // namespace
