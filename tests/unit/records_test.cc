// The listener database's resource limits: one LAN host must not exhaust the router.
#include "test_support.h"

namespace {

class RecordsTest : public ListenerTest {};

// 64 members per group and 64 sources per list: the 65th is refused (and counted for the
// status) with the limit's line at most once a minute, while an existing record is still found.
TEST_F(RecordsTest, RecordsBeyondTheLimitsAreRefusedWithOneLineAMinute) {
    struct Row {
        const char* name;
        std::function<bool(Group*, int)> add;  // accepted
        Limit limit;
        std::string line, every_time;
    };
    auto source_row = [&](const char* name, ListKind kind) {
        return Row{name,
                   [this, kind](Group* g, int n) {
                       return add_to_group_list(&router, g, kind, host_n(n).data(), 5, eth1);
                   },
                   Limit::Sources,
                   "MLDRT: Limit of 64 sources per list reached, request not handled\n",
                   "MLDRT: Couldnt add src to grp include list\n"};
    };
    const std::vector<Row> rows = {
        {"members", [&](Group* g, int n) { return add_host(g, host_n(n).data()) != nullptr; },
         Limit::Hosts,
         "MLDRT: Limit of 64 members per group reached, host served but not recorded\n", ""},
        source_row("include list", ListKind::Include),
        source_row("requested list", ListKind::Requested),
        source_row("excluded list", ListKind::Excluded),
    };
    int n = 10;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        fake::kernel().clock_seconds += 3600;
        Group* g = add_group(&router, eth1, grp(n).data());
        map_group_to_entry(g, add_forwarding_entry(&router, grp(n++).data()));
        EXPECT_EQ(stdout_of([&] {
                      for (int i = 1; i <= 64; i++) {
                          ASSERT_TRUE(row.add(g, i)) << i;
                      }
                  }),
                  "");
        const uint32_t before = limit_refusals(row.limit);
        const std::vector<std::pair<int64_t, bool>> refusals = {
            {0, true}, {59, false}, {1, true}, {30, false}};
        for (const auto& [advance, line] : refusals) {
            fake::kernel().clock_seconds += advance;
            EXPECT_EQ(stdout_of([&] {
                          EXPECT_FALSE(row.add(g, 65 + static_cast<int>(advance)));
                          EXPECT_TRUE(row.add(g, 64)) << "an existing record is still found";
                      }),
                      (line ? row.line : "") + row.every_time)
                << "after " << advance << " s";
        }
        EXPECT_EQ(limit_refusals(row.limit), before + 4);
    }

    // The 16385th group is refused and nothing else changes.
    restart();
    auto big = [](uint32_t i) {
        addr6 a = ip6("ff0e::");
        a[2] = static_cast<uint8_t>(i >> 8);  // early differing bytes keep the scans short
        a[3] = static_cast<uint8_t>(i);
        return a;
    };
    for (uint32_t i = 0; i < kMaxGroups; i++) {
        ASSERT_NE(add_forwarding_entry(&router, big(i).data()), nullptr) << i;
    }
    Group* existing = add_group(&router, eth1, big(5).data());
    ASSERT_NE(existing, nullptr) << "a group whose entry exists needs no new entry";
    EXPECT_EQ(stdout_of([&] {
                  EXPECT_EQ(add_forwarding_entry(&router, G1.data()), nullptr);
                  EXPECT_EQ(add_group(&router, eth1, G1.data()), nullptr);
                  EXPECT_EQ(add_forwarding_entry(&router, big(77).data()),
                            find_forwarding_entry(&router, big(77).data()));
              }),
              "MLDRT: Limit of 16384 groups reached, request not handled\n");
    EXPECT_EQ(limit_refusals(Limit::Groups), 2u);
    EXPECT_EQ(forwarding_entry_count(&router), kMaxGroups);
    EXPECT_EQ(eth1->groups, existing);
    EXPECT_EQ(existing->next, nullptr);
    EXPECT_EQ(find_forwarding_entry(&router, G1.data()), nullptr);
    delete_forwarding_entry(&router, find_forwarding_entry(&router, big(9).data()));
    EXPECT_NE(add_forwarding_entry(&router, G1.data()), nullptr) << "room again after a delete";
}

}  // namespace
