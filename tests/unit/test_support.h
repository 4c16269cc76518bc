// Shared set-up for the unit tests: a router record with buffers and fake descriptors, torn
// down again after each test so that leak checkers see nothing.
#ifndef MLDPROXYD_TESTS_TEST_SUPPORT_H
#define MLDPROXYD_TESTS_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "db/router.h"
#include "db/db.h"
#include "mld/mld.h"
#include "mld/timers.h"
#include "db/db.h"
#include "fake_kernel.h"
#include "iface/interface.h"
#include "kernel/mroute.h"
#include "mld/mld.h"
#include "mld/timers.h"

using namespace mldproxy;

// The tables below name lists and record types by their codes, as reports and dumps number them.
constexpr ListKind list_kind(uint32_t code) {
    return static_cast<ListKind>(code);
}
// A group's query retransmissions as they stand (all zero while it has none).
inline GroupQueries queries_of(const Group* g) {
    return g && g->queries ? *g->queries : GroupQueries{};
}
constexpr uint8_t code(RecordType type) {
    return static_cast<uint8_t>(type);
}

class RouterTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
};

using addr6 = std::array<uint8_t, 16>;
using bytes = std::vector<uint8_t>;
using texts = std::vector<std::string>;

// The numbers first..last.
std::vector<int> upto(int first, int last);

// An IPv6 address from its text form (the test fails on a typo).
addr6 ip6(const char* text);
std::string ip6_text(const uint8_t* addr);

// A link on the router's list, as the netlink code would add it: link-local address
// fe80::<ifindex>, fake socket, buffer sized by fake::kernel().mtu.
Link* make_link(const char* name, uint32_t ifindex, uint16_t mifi);

// Starts capturing standard output, with the once-a-second hold of repeated messages forgotten,
// so that a case sees every message it causes (tests/unit/log_test.cc tests the hold itself).
void capture_stdout();

// What `f` writes on standard output (the daemon's messages are printf and puts lines), captured
// as capture_stdout() does.
std::string stdout_of(const std::function<void()>& f);

// The 12 bytes of a MIF record (mif6ctl) for MIF `mifi` on interface `pifi`: flags, threshold
// and rate limit 0, fields in host order.
bytes mif_bytes(uint16_t mifi, uint16_t pifi);

// Every MRT6_ADD_MFC (204) and MRT6_DEL_MFC (205) made so far, decoded from its 92 bytes, as
// "add S G parent P mifs a,b" or "del S G", so that a failing comparison reads as a diff.
std::vector<std::string> mfc_calls();

#endif
