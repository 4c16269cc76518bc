// A new upstream link has heard nothing of the groups the proxy reported on the old one: the
// whole state is reported again, as for a fresh change (RFC 3810 section 6.1).
#include "upstream_support.h"

using namespace mldproxy;

namespace {

using namespace ups;

class UpstreamReturnTest : public UpstreamTest {};

TEST_F(UpstreamReturnTest, GroupsAreReportedAgainOnANewUpstream) {
    set_state(eth1, G1, exc({1}));
    const texts first = tick();
    ASSERT_FALSE(first.empty());
    for (uint32_t i = 0; i < router.robustness; i++) {
        tick();
    }
    ASSERT_EQ(tick(), texts{});
    restart_host_state(&router);
    EXPECT_EQ(state_change_pending(entry(G1)), 0);
    EXPECT_EQ(tick(), first);
}

}  // namespace
