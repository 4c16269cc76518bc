// Arbitrary bytes as netlink batches: the walk, the link and address handlers, interface
// creation and MIF registration must stay within the buffer and release what they create.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "daemon/daemon.h"
#include "db/router.h"
#include "fake_kernel.h"
#include "daemon/netlink.h"

using namespace mldproxy;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fake::fresh_router(1);

    // Every input starts as the daemon does, with the link dump under way (which also resets
    // the dump state). The first byte is left for the corpus; the rest is split into two batches
    // at the second byte, so state carries from one batch to the next.
    if (size < 2) {
        shut_down(&router);
        return 0;
    }
    start_netlink(&router);
    size_t cut = 2 + (size - 2) * data[1] / 256;
    fake::kernel().netlink_batches.emplace_back(data + 2, data + cut);
    fake::kernel().netlink_batches.emplace_back(data + cut, data + size);
    handle_link(&router);
    handle_link(&router);

    delete_all_links(&router);
    shut_down(&router);
    system_link_reset(&router.system_links);
    return 0;
}
