// The diagnostic dumps, byte for byte: one interface's listener database and one group's
// upstream host state, printed only while VERBOSE is non-zero. Record identities print as
// the low 32 bits of their address on every target.
#include <cstdio>

#include "listener_support.h"

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
    mldrt_src* add(mldrt_group* g, mldrt_mfdb_entry* e, uint32_t ltype, int n, int32_t timer) {
        mldrt_src* s = mldrt_add_src_to_group(g, e, ltype, src(n).data());
        s->timer = timer;
        return s;
    }
    std::string dump(const char* title) {
        return stdout_of([&] { mldrt_dump_interface_info(&router, eth1, title); });
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
    mldrt_group* g3 = mldrt_add_group(&router, eth1, grp(3).data());
    mldrt_group* g2 = mldrt_add_group(&router, eth1, grp(2).data());
    mldrt_group* g1 = mldrt_add_group(&router, eth1, G1.data());
    g1->fmode = MLDRT_EXCLUDE;
    g1->ftimer = 200;
    g2->ftimer = -3;
    mldrt_mfdb_entry* e1 = mldrt_add_mfdb_entry(&router, G1.data());
    mldrt_mfdb_entry* e2 = mldrt_add_mfdb_entry(&router, grp(2).data());
    g1->mfdb = e1;
    g2->mfdb = e2;
    add(g1, e1, MLDRT_L_INCLUDE, 3, 30);
    add(g1, e1, MLDRT_L_REQ, 1, 100);
    add(g1, e1, MLDRT_L_REQ, 5, -1);
    add(g1, e1, MLDRT_L_EXC, 2, 0);
    mldrt_fwinfo* marked = mldrt_add_fwinfo_to_fdb(g1, src(1).data());
    marked->mif_member[3] = 1;
    marked->mif_member[1] = 1;
    marked->mif_member[4] = 2;  // only a mark of exactly 1 is printed
    mldrt_add_fwinfo_to_fdb(g1, src(4).data());
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
    mldrt_mfdb_entry* e = mldrt_add_mfdb_entry(&router, G1.data());
    add(nullptr, e, MLDRT_L_OLD_HS, 1, 0);
    add(nullptr, e, MLDRT_L_OLD_HS, 2, 0);
    e->new_host_state = static_cast<mldrt_hs_state*>(calloc(1, sizeof(mldrt_hs_state)));
    e->new_host_state->mode = MLDRT_EXCLUDE;
    e->scr_fmode_rtx_timer = 7;
    e->scr_to_ex_cnt = 1;
    e->scr_allow_cnt = 3;
    e->scr_block_cnt = -1;
    add(nullptr, e, MLDRT_L_SCR_TO_EX, 6, 1);
    add(nullptr, e, MLDRT_L_SCR_ALLOW, 3, 2);
    add(nullptr, e, MLDRT_L_SCR_ALLOW, 4, 2);
    add(nullptr, e, MLDRT_L_SCR_BLOCK, 5, -1);
    const std::string tail =
        "\n\n SCR Info"
        "\n scr_fmode_rtx_timer 7, scr_to_ex_cnt 1 scr_to_in_cnt 0 scr_allow_cnt 3 "
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
    EXPECT_EQ(stdout_of([&] { mldrt_dump_host_states(&router, e); }),
              head + "\n\n New State :\n     MODE    1\n NewState SrcList : NULL " + tail);
    free(e->new_host_state);
    e->new_host_state = nullptr;
    EXPECT_EQ(stdout_of([&] { mldrt_dump_host_states(&router, e); }),
              head + "\n\n New State : NULL" + tail);
}

TEST_F(DumpTest, VerboseZeroPrintsNothing) {
    make_group(eth1, G1, exclude({}, {{2, 100}}, 260), host);
    router.verbose = 0;
    EXPECT_EQ(dump("AFTER HANDLING RCVD MSG"), "");
    EXPECT_EQ(stdout_of([] { mldrt_dump_host_states(&router, router.mfdb_list); }), "");
}

}  // namespace
