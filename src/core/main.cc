// mldproxyd: an MLD proxy for IPv6 multicast routers. No arguments; the configuration is
// /etc/mld/mld.conf; diagnostics go to standard output; a signal ends it.
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdio>

#include "core/daemon.h"
#include "core/router.h"
#include "iface/netlink.h"

namespace {

// Descriptors 0 to 2 must be taken before any socket is opened: a socket given descriptor 0
// would count as not open.
void occupy_standard_descriptors() {
    int fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= 2) {
        fd = open("/dev/null", O_RDWR);
    }
    if (fd > 2) {
        close(fd);
    }
}

}  // namespace

int main() {
    // Blocked before any thread exists, so every thread inherits the mask and only main's
    // sigtimedwait ever takes these signals.
    sigset_t signals;
    mldrt_shutdown_signals(&signals);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    occupy_standard_descriptors();
    setvbuf(stdout, nullptr, _IONBF, 0);

    mldrt_sysif_reset();
    if (mldv2_init(&router) == -1 || mldrt_start_threads(&router) == -1) {
        mldrt_fail_start();
    }
    mldrt_main_wait(&router, &signals);
}
