// The diagnostic dumps, byte for byte: one interface's listener database and one group's
// upstream host state, printed only while VERBOSE is non-zero. Record identities print as
// the low 32 bits of their address on every target.
#include <cstdio>

#include "listener_support.h"

using namespace mldproxy;

namespace {

using namespace lsn;

std::string identity(const void* p) {
    char text[16];
    std::snprintf(text, sizeof text, "%x",
                  static_cast<unsigned>(reinterpret_cast<uintptr_t>(p) & 0xffffffffu));
    return text;
}

const char* const kClosing =
    "\n===================================================================\n\n";

class DumpTest : public ListenerTest {
  protected:
    void SetUp() override {
        ListenerTest::SetUp();
        router.verbose = 1;
    }
    void TearDown() override {
        router.active = 0;  // as at shutdown: no last host-state update, no dump
        ListenerTest::TearDown();
    }
    Source* add(Group* g, ForwardingEntry* e, ListKind kind, int n, int32_t timer) {
        Source* s = add_source_to_group(g, e, kind, src(n).data());
        s->timer = timer;
        return s;
    }
    std::string dump(const char* title) {
        return stdout_of([&] { dump_link(&router, eth1, title); });
    }
};

TEST_F(DumpTest, InterfaceWithoutGroups) {
    EXPECT_EQ(dump("BEFORE HANDLING RCVD MSG"),
              std::string("\n<===================BEFORE HANDLING RCVD MSG======================>"
                          "\n Interface eth1 PhyIdx 11"
                          "\n Member Groups  :NO GROUPS") +
                  kClosing);
}

TEST_F(DumpTest, GroupsWithListsAndForwardingRecords) {
    // Created last to first: the list, and the numbering, runs G1, G2, G3.
    Group* g3 = add_group(&router, eth1, grp(3).data());
    Group* g2 = add_group(&router, eth1, grp(2).data());
    Group* g1 = add_group(&router, eth1, G1.data());
    g1->filter_mode = FilterMode::Exclude;
    g1->filter_timer = 200;
    g2->filter_timer = -3;
    ForwardingEntry* e1 = add_forwarding_entry(&router, G1.data());
    ForwardingEntry* e2 = add_forwarding_entry(&router, grp(2).data());
    g1->mfdb = e1;
    g2->mfdb = e2;
    add(g1, e1, ListKind::Include, 3, 30);
    add(g1, e1, ListKind::Requested, 1, 100);
    add(g1, e1, ListKind::Requested, 5, -1);
    add(g1, e1, ListKind::Excluded, 2, 0);
    ForwardingRecord* marked = add_forwarding_record(g1, src(1).data());
    set_mark(marked, 3, 1);
    set_mark(marked, 1, 1);
    set_mark(marked, 4, 2);  // only a mark of exactly 1 is printed
    add_forwarding_record(g1, src(4).data());
    const std::string expected =
        "\n<===================CACHE LOOKUP======================>"
        "\n Interface eth1 PhyIdx 11"
        "\n Member Groups "
        "\n\n =======Grp 0 0x" +
        identity(g1) +
        " addr ff0e::101 ftimer 200 fmode 1======= "
        "\n Include List: "
        "\n Include List :[ 2001:db8::3 time 30 ] "
        "\n Req List :[ 2001:db8::5 time -1 ] [ 2001:db8::1 time 100 ] "
        "\n Exc List :[ 2001:db8::2 time 0 ] "
        "\n\n ---MFD Information---  "
        "\n \tMFD 0x" +
        identity(e1) +
        " Fdaddr ff0e::101"
        "\n \tFwding Info: "
        "\n \t\tSrcAddr  2001:db8::4"
        "\n \t\tMember MIF Idx"
        "\n \t\tSrcAddr  2001:db8::1"
        "\n \t\tMember MIF Idx 1 3"
        "\n\n =======Grp 1 0x" +
        identity(g2) +
        " addr ff0e::102 ftimer -3 fmode 0======= "
        "\n Include List: "
        "\n Include List : NULL "
        "\n Req List : NULL "
        "\n Exc List : NULL "
        "\n\n ---MFD Information---  "
        "\n \tMFD 0x" +
        identity(e2) +
        " Fdaddr ff0e::102"
        "\n \tFwding Info:  NULL"
        "\n\n =======Grp 2 0x" +
        identity(g3) +
        " addr ff0e::103 ftimer 0 fmode 0======= "
        "\n Include List: "
        "\n Include List : NULL "
        "\n Req List : NULL "
        "\n Exc List : NULL "
        "\n\n ---MFD Information---  "
        "\n NULL" +
        kClosing;
    EXPECT_EQ(dump("CACHE LOOKUP"), expected);
}

TEST_F(DumpTest, HostStateWithOldAndNewStatesAndStateChangeLists) {
    ForwardingEntry* e = add_forwarding_entry(&router, G1.data());
    add(nullptr, e, ListKind::OldHostState, 1, 0);
    add(nullptr, e, ListKind::OldHostState, 2, 0);
    e->new_host_state = static_cast<HostState*>(calloc(1, sizeof(HostState)));
    e->new_host_state->mode = FilterMode::Exclude;
    e->to_exclude_count = 1;
    e->allow_count = 3;
    e->block_count = -1;
    add(nullptr, e, ListKind::ChangeToExclude, 6, 1);
    add(nullptr, e, ListKind::Allow, 3, 2);
    add(nullptr, e, ListKind::Allow, 4, 2);
    add(nullptr, e, ListKind::Block, 5, -1);
    const std::string tail =
        "\n\n SCR Info"
        "\n scr_fmode_rtx_timer 0, scr_to_ex_cnt 1 scr_to_in_cnt 0 scr_allow_cnt 3 "
        "scr_block_cnt -1"
        "\n scr_to_ex_list :[ 2001:db8::6 time 1 ] "
        "\n scr_to_in_list : NULL "
        "\n scr_allow_list :[ 2001:db8::4 time 2 ] [ 2001:db8::3 time 2 ] "
        "\n scr_block_list :[ 2001:db8::5 time -1 ] "
        "\n <------------------------------------------------------------------------->\n\n";
    const std::string head =
        "\n <---------Group Host State for Group ff0e::101------------->"
        "\n\n Old State :"
        "\n     MODE    0"
        "\n OldState SrcList :[ 2001:db8::2 time 0 ] [ 2001:db8::1 time 0 ] ";
    EXPECT_EQ(stdout_of([&] { dump_host_states(&router, e); }),
              head + "\n\n New State :\n     MODE    1\n NewState SrcList : NULL " + tail);
    free(e->new_host_state);
    e->new_host_state = nullptr;
    EXPECT_EQ(stdout_of([&] { dump_host_states(&router, e); }),
              head + "\n\n New State : NULL" + tail);
}

TEST_F(DumpTest, VerboseZeroPrintsNothing) {
    make_group(eth1, G1, exclude({}, {{2, 100}}, 260), host);
    router.verbose = 0;
    EXPECT_EQ(dump("AFTER HANDLING RCVD MSG"), "");
    EXPECT_EQ(stdout_of([] { dump_host_states(&router, router.mfdb_list); }), "");
}

}  // namespace
