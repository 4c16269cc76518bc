// mldproxyd: an MLD proxy for IPv6 multicast routers. It reads its configuration once
// (/etc/mld/mld.conf unless -f names another file), writes its diagnostics on standard output
// (or with --syslog to syslog), answers `mldproxyd status` on its control socket, prints the
// same state on SIGUSR2, and ends on a signal.
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdio>

#include "daemon/cli.h"
#include "daemon/daemon.h"
#include "base/log.h"
#include "db/router.h"
#include "daemon/netlink.h"

namespace mldproxy {
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
int run_other_command(const Options& o) {
    switch (o.command) {
        case Command::help:
            print_usage(stdout);
            return 0;
        case Command::version:
            print_version(stdout);
            return 0;
        case Command::status:
            return run_status_client(o);
        default:
            fprintf(stderr, "mldproxyd: unexpected \"%s\"\n", o.bad_word);
            print_usage(stderr);
            return kExitUsage;
    }
}

}  // namespace
}  // namespace mldproxy

int main(int argc, char** argv) {
    using namespace mldproxy;
    // Blocked before any thread exists, so every thread inherits the mask and only main's
    // sigtimedwait ever takes these signals.
    sigset_t signals;
    daemon_signals(&signals);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    Options o = parse_options(argc, argv);
    setvbuf(stdout, nullptr, _IONBF, 0);
    if (o.command == Command::check) {
        return check_config(o.config_path);
    }
    if (o.command != Command::run) {
        return run_other_command(o);
    }
    occupy_standard_descriptors();
    if (o.syslog) {
        log_use_syslog(true);
    }

    // The one router of the process: every part of the daemon works on it through a pointer.
    static Router router;
    if (init_daemon(&router, o.config_path, o.socket_path) == -1 || start_threads(&router) == -1) {
        fail_start(&router);
    }
    main_wait(&router, &signals);
}
