// mldproxyd: an MLD proxy for IPv6 multicast routers. It reads its configuration once
// (/etc/mld/mld.conf unless -f names another file), writes its diagnostics on standard output
// (or with --syslog to syslog), answers `mldproxyd status` on its control socket, prints the
// same state on SIGUSR2, and ends on a signal.
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdio>

#include "core/cli.h"
#include "core/daemon.h"
#include "core/log.h"
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

// The command lines that do not run the proxy: help, version, status, a bad one.
int run_other_command(const mldrt_options& o) {
    switch (o.command) {
        case mldrt_command::help:
            mldrt_print_usage(stdout);
            return 0;
        case mldrt_command::version:
            mldrt_print_version(stdout);
            return 0;
        case mldrt_command::status:
            return mldrt_run_status_client(o);
        default:
            fprintf(stderr, "mldproxyd: unexpected \"%s\"\n", o.bad_word);
            mldrt_print_usage(stderr);
            return MLDRT_EXIT_USAGE;
    }
}

}  // namespace

int main(int argc, char** argv) {
    // Blocked before any thread exists, so every thread inherits the mask and only main's
    // sigtimedwait ever takes these signals.
    sigset_t signals;
    mldrt_daemon_signals(&signals);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    mldrt_options o = mldrt_parse_options(argc, argv);
    setvbuf(stdout, nullptr, _IONBF, 0);
    if (o.command == mldrt_command::check) {
        return mldrt_check_config(o.config_path);
    }
    if (o.command != mldrt_command::run) {
        return run_other_command(o);
    }
    occupy_standard_descriptors();
    if (o.syslog) {
        mldrt_log_use_syslog(true);
    }

    mldrt_sysif_reset();
    if (mldv2_init(&router, o.config_path, o.socket_path) == -1 ||
        mldrt_start_threads(&router) == -1) {
        mldrt_fail_start();
    }
    mldrt_main_wait(&router, &signals);
}
