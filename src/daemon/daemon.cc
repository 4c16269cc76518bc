#include "daemon/daemon.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "daemon/config.h"
#include "daemon/control.h"
#include "daemon/event_loop.h"
#include "base/log.h"
#include "db/db.h"
#include "mld/timers.h"
#include "proxy/proxy.h"
#include "iface/interface.h"
#include "daemon/netlink.h"
#include "kernel/mroute.h"

namespace mldproxy {

namespace {

uint8_t* allocate(uint32_t size, const char* failure) {
    auto* p = static_cast<uint8_t*>(calloc(1, size));
    if (!p) {
        print_message("%s\n", failure);
    }
    return p;
}

bool allocate_buffers(Router* r) {
    r->buf = allocate(r->buf_size, "MLDRT: Router buffer allocation failed");
    if (!r->buf) {
        return false;
    }
    r->scratch = allocate(r->scratch_size, "MLDRT: Router Scratch Mem allocation failed");
    if (!r->scratch) {
        return false;
    }
    r->nl_buf = allocate(r->nl_buf_size, "MLDRT: Router Netlink Mem allocation failed");
    return r->nl_buf != nullptr;
}

bool set_router_option(int sock, int level, int name, int value, const char* failure) {
    int rc = setsockopt(sock, level, name, &value, sizeof value);
    if (rc < 0) {
        print_failure(failure, "setsockopt");
        return false;
    }
    return true;
}

// Every link's MLD arrives on the one router socket. A link whose hosts all answer a query at
// once, or a host joining thousands of groups, sends a burst of full-sized reports; the
// kernel's default queue (about 200 KB) holds some 80 of them and drops the rest unseen. A
// queue of 1 MiB holds about 350, and costs memory only while it is full. Best effort: with
// neither option the default queue stays.
constexpr int kRouterReceiveQueue = 1 << 20;

void enlarge_receive_queue(int sock) {
    int size = kRouterReceiveQueue;
    if (setsockopt(sock, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) < 0) {
        setsockopt(sock, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    }
}

bool open_router_socket(Router* r) {
    r->router_sock = socket(AF_INET6, SOCK_RAW, kProtoIcmpv6);
    if (r->router_sock < 0) {
        print_failure("MLDRT: Can't open router socket", "socket");
        return false;
    }
    int s = r->router_sock;
    if (!set_router_option(s, SOL_SOCKET, SO_REUSEADDR, 1,
                           "MLDRT: Can't setsockopt for SO_REUSEADDR") ||
        !set_router_option(s, IPPROTO_IPV6, IPV6_RECVPKTINFO, 1,
                           "MLDRT: Can't setsockopt for IPV6_RECVPKTINFO") ||
        !set_router_option(s, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, 1,
                           "MLDRT: Can't setsockopt for IPV6_MULTICAST_HOPS") ||
        !set_router_option(s, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, 0,
                           "MLDRT: Can't setsockopt for IPV6_MULTICAST_LOOP")) {
        return false;
    }
    if (set_mld_icmp_filter(s) < 0) {
        print_failure("MLDRT: Can't setsockopt for ICMP6_FILTER", "setsockopt");
        return false;
    }
    enlarge_receive_queue(s);
    return true;
}

int create_input_thread(Router* r) {
    g_input_thread_done = 0;
    r->input_thread = pthread_t{};
    int error = pthread_create(&r->input_thread, nullptr, input_thread, r);
    if (error != 0) {
        r->running = 0;
        print_message("MLDRT: Can't start input thread: pthread_create: %s\n", strerror(error));
        return -1;
    }
    r->input_thread_joinable = true;
    return 0;
}

void join_input_thread(Router* r) {
    pthread_join(r->input_thread, nullptr);
    r->input_thread_joinable = false;
}

}  // namespace

int init_daemon(Router* r, const char* config_path, const char* control_path) {
    reset_router(r);
    r->buf_size = kBufSize;
    r->scratch_size = kScratchSize;
    r->nl_buf_size = kNlBufSize;
    if (!allocate_buffers(r) || get_config(r, config_path) == -1 ||
        !control_open(r, control_path) || !open_router_socket(r) ||
        !kernel_start_routing(r->router_sock)) {
        return -1;
    }
    if (start_netlink(r) == -1) {
        print_message("MLDRT: Can't get interface info\n");  // the failed call is named above
        return -1;
    }
    return 0;
}

int start_threads(Router* r) {
    // Both flags are stored before the thread exists, so it never races with these writes.
    r->running = 1;
    r->active = r->upstream ? 1 : 0;
    return create_input_thread(r);
}

void stop_threads(Router* r) {
    g_stop_requested = 1;
    r->active = 0;
    r->running = 0;
    if (r->input_thread_joinable) {
        join_input_thread(r);
    }
}

void delete_all_links(Router* r) {
    Link* next = nullptr;
    for (Link* ifp = r->interfaces; ifp; ifp = next) {
        next = ifp->next;
        if (ifp->is_upstream || ifp == r->upstream) {
            r->upstream = nullptr;  // never left pointing at a freed record
        }
        release_link_groups(r, ifp);
        kernel_delete_mif(r->router_sock, ifp->mifi, ifp->ifindex);
        delete_link(ifp);
    }
}

int check_config(const char* path) {
    Router r;  // a record of its own: nothing of the running daemon's is touched
    reset_router(&r);
    r.buf_size = kBufSize;
    r.buf = allocate(r.buf_size, "MLDRT: Router buffer allocation failed");
    bool good = r.buf && get_config(&r, path) == 0;
    if (good) {
        print_message("MLDRT: Configuration file %s is good\n", path);
    }
    free(r.buf);
    return good ? 0 : 1;
}

void shut_down(Router* r) {
    control_close(r);
    if (r->router_sock > 0) {
        kernel_stop_routing(r->router_sock);
        close(r->router_sock);
    }
    if (r->netlink_sock > 0) {
        close(r->netlink_sock);
    }
    free_forwarding_entries(r);
    free(r->buf);
    free(r->scratch);
    free(r->nl_buf);
    system_link_reset(&r->system_links);
    reset_router(r);
}

namespace {

void stop_everything(Router* r) {
    stop_threads(r);
    final_membership_pass(r);
    report_changes(r);
    delete_all_links(r);
    shut_down(r);
}

}  // namespace

void exit_daemon(Router* r) {
    stop_everything(r);
    exit(0);
}

void fail_start(Router* r) {
    stop_everything(r);
    exit(1);
}

void daemon_signals(sigset_t* set) {
    sigemptyset(set);
    static const int kSignals[] = {SIGUSR1, SIGKILL, SIGABRT, SIGTERM, SIGHUP, SIGUSR2};
    for (int sig : kSignals) {
        sigaddset(set, sig);
    }
}

void main_wait(Router* r, const sigset_t* signals) {
    const timespec step{0, 200 * 1000 * 1000};
    for (;;) {
        int sig = sigtimedwait(signals, nullptr, &step);
        if (sig == SIGUSR2) {
            g_status_requested = 1;  // the input thread owns the state and prints it
        } else if (sig > 0) {
            exit_daemon(r);
        }
        // The thread ends only on a stop request; it is joined so that nothing is left behind,
        // and the daemon then waits for the signal that ends it.
        if (r->input_thread_joinable && g_input_thread_done) {
            join_input_thread(r);
        }
    }
}

}  // namespace mldproxy
