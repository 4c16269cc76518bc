#include "test_support.h"

#include <cstdlib>
#include <cstring>

#include "core/daemon.h"
#include "core/input_thread.h"
#include "iface/netlink.h"

void RouterTest::SetUp() {
    fake::reset();
    mldrt_sysif_reset();
    mldrt_router_zero(&router);
    uc_restart_rt_input_thread = 0;
    g_scan_ifaddr = 0;
    mld_init_scan_link = 0;
    g_stop_requested = 0;
    router.buf_size = MLDRT_BUF_SIZE;
    router.scratch_size = MLDRT_SCRATCH_SIZE;
    router.nl_buf_size = MLDRT_NL_BUF_SIZE;
    router.buf = static_cast<uint8_t*>(calloc(1, router.buf_size));
    router.scratch = static_cast<uint8_t*>(calloc(1, router.scratch_size));
    router.nl_buf = static_cast<uint8_t*>(calloc(1, router.nl_buf_size));
    router.router_sock = fake::kernel().next_fd++;
    router.netlink_sock = fake::kernel().next_fd++;
    router.robustness = 2;
    router.query_interval = 125;
    router.query_response_interval = 10000;
    std::strcpy(router.upstream_ifname, "up0");
}

void RouterTest::TearDown() {
    mldrt_cleanup_interfaces(&router);
    mldrt_uninit(&router);
    mldrt_sysif_reset();
    g_stop_requested = 0;
}
