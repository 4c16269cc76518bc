#include <cstring>

#include "iface/interface.h"
#include "kernel/mroute.h"
#include "test_support.h"

namespace {

class MrouteTest : public RouterTest {};

TEST_F(MrouteTest, InitPassesIntegerOneAtLevel41) {
    ASSERT_EQ(mldrt_k_init(router.router_sock), 0);
    auto calls = fake::sockopts(41, 200);
    ASSERT_EQ(calls.size(), 1u);
    ASSERT_EQ(calls[0].value.size(), 4u);
    int v;
    std::memcpy(&v, calls[0].value.data(), 4);
    EXPECT_EQ(v, 1);
}

}  // namespace
