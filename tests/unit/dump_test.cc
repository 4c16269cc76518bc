// The diagnostic dumps, byte for byte, as the daemon prints them while VERBOSE is non-zero: a
// link's listener database around every message received and at every upcall, and a group's
// upstream host state at every change. Record identities print as the low 32 bits of their
// address on every target.
#include <cstdio>

#include "proxy/upcall.h"
#include "test_support.h"

namespace {

std::string identity(const void* p) {
    char text[16];
    std::snprintf(text, sizeof text, "%x",
                  static_cast<unsigned>(reinterpret_cast<uintptr_t>(p) & 0xffffffffu));
    return text;
}

const char* const kClosing =
    "\n===================================================================\n\n";

class DumpTest : public UpstreamTest {
  protected:
    void SetUp() override {
        UpstreamTest::SetUp();
        router.verbose = 1;
    }
};

// Every upcall prints eth1's database as "CACHE LOOKUP": groups in list order with their lists
// and their entry's forwarding records, a MIF listed where its mark is exactly "wanted". A
// change prints the host state last acted upon, the new one, and the records still pending from
// the change before (one retransmission of ALLOW {S1 S2} is due when the group changes again).
TEST_F(DumpTest, DatabaseAtAnUpcallAndHostStateAtEveryChange) {
    make_group(eth1, G2, include({{3, 30}}), host);
    make_group(eth1, G3, include({}), host);
    make_group(eth1, G1, exclude({{1, 100}, {5, 7}}, {{2, 0}}, 200), host);
    make_group(eth2, G1, include({{1, 50}}), host);
    bytes upcall(40, 0);
    upcall[1] = 2;  // WRONGMIF: dumped, nothing else
    std::memcpy(&upcall[24], G1.data(), 16);
    const std::string out = stdout_of([&] { handle_upcall(&router, upcall.data(), 40); });
    const std::string fmt = "\n\n =======Grp %d 0x%s addr %s ftimer %d fmode %d======= ";
    auto head = [&](int n, const addr6& g, int ftimer, int fmode) {
        char text[128];
        std::snprintf(text, sizeof text, fmt.c_str(), n, identity(group(eth1, g)).c_str(),
                      ip6_text(g.data()).c_str(), ftimer, fmode);
        return text + std::string("\n Include List: ");
    };
    auto mfd = [&](const addr6& g) {
        return "\n\n ---MFD Information---  \n \tMFD 0x" + identity(entry(g)) + " Fdaddr " +
               ip6_text(g.data()) + "\n \tFwding Info: ";
    };
    EXPECT_EQ(out,
              "\n<===================CACHE LOOKUP======================>"
              "\n Interface eth1 PhyIdx 11\n Member Groups " +
                  head(0, G1, 200, 1) +
                  "\n Include List : NULL "
                  "\n Req List :[ 2001:db8::5 time 7 ] [ 2001:db8::1 time 100 ] "
                  "\n Exc List :[ 2001:db8::2 time 0 ] " +
                  mfd(G1) +
                  "\n \t\tSrcAddr  2001:db8::2\n \t\tMember MIF Idx"
                  "\n \t\tSrcAddr  2001:db8::5\n \t\tMember MIF Idx 1"
                  "\n \t\tSrcAddr  2001:db8::1\n \t\tMember MIF Idx 1 2"
                  "\n \t\tSrcAddr  ::\n \t\tMember MIF Idx 1" +
                  head(1, G3, 0, 0) +
                  "\n Include List : NULL \n Req List : NULL \n Exc List : NULL " + mfd(G3) +
                  " NULL" + head(2, G2, 0, 0) +
                  "\n Include List :[ 2001:db8::3 time 30 ] "
                  "\n Req List : NULL \n Exc List : NULL " +
                  mfd(G2) + "\n \t\tSrcAddr  2001:db8::3\n \t\tMember MIF Idx 1" + kClosing);

    restart();
    set_state(eth1, G1, inc({1, 2}));
    stdout_of([] { report_changes(&router); });
    set_state(eth1, G1, exc({3}));
    EXPECT_EQ(stdout_of([&] { report_changes(&router); }),
              "\n <---------Group Host State for Group ff0e::101------------->"
              "\n\n Old State :\n     MODE    0"
              "\n OldState SrcList :[ 2001:db8::1 time 0 ] [ 2001:db8::2 time 0 ] "
              "\n\n New State :\n     MODE    1\n NewState SrcList :[ 2001:db8::3 time 0 ] "
              "\n\n SCR Info\n scr_fmode_rtx_timer 0, scr_to_ex_cnt 0 scr_to_in_cnt 0 "
              "scr_allow_cnt 1 scr_block_cnt 0"
              "\n scr_to_ex_list : NULL \n scr_to_in_list : NULL "
              "\n scr_allow_list :[ 2001:db8::2 time 1 ] [ 2001:db8::1 time 1 ] "
              "\n scr_block_list : NULL "
              "\n <------------------------------------------------------------------------->\n\n");
}

}  // namespace
