#include "daemon/event_loop.h"

#include <sys/select.h>

#include <cstring>

#include "base/addr.h"
#include "base/clock.h"
#include "daemon/control.h"
#include "base/log.h"
#include "daemon/receive.h"
#include "daemon/status.h"
#include "db/db.h"
#include "mld/timers.h"
#include "iface/interface.h"
#include "daemon/netlink.h"
#include "mld/mld.h"
#include "proxy/proxy.h"

namespace mldproxy {

std::atomic<int> g_input_thread_done{0};
std::atomic<int> g_status_requested{0};

namespace {

constexpr uint64_t kTickMs = 1000;
// Datagrams taken from one socket before the loop looks at the others and at its deadlines: a
// burst is handled as one batch (one upstream report), and a flood cannot hold back timers.
constexpr int kBurst = 64;

bool watchable(int fd) {
    return fd > 0 && fd < FD_SETSIZE;
}

void watch(int fd, fd_set* set, int* maxfd) {
    if (watchable(fd)) {
        FD_SET(fd, set);
        if (fd > *maxfd) {
            *maxfd = fd;
        }
    }
}

// Built anew for every wait, so a link's socket is watched from the pass after it was created.
// Without an upstream the router socket is left out: nothing reads it then, and a queued
// datagram would keep select() from ever sleeping.
int build_watched_set(Router* r, fd_set* set) {
    int maxfd = 0;
    FD_ZERO(set);
    watch(r->netlink_sock, set, &maxfd);
    if (r->upstream) {
        watch(r->router_sock, set, &maxfd);
    }
    for (Link* ifp = r->interfaces; ifp; ifp = ifp->next) {
        watch(ifp->sock, set, &maxfd);
    }
    return maxfd;
}

bool is_ready(int fd, const fd_set* readable) {
    return watchable(fd) && FD_ISSET(fd, readable);
}

void handle_readable(Router* r, const fd_set* readable) {
    if (is_ready(r->netlink_sock, readable)) {
        for (int i = 0; i < kBurst && handle_link(r); i++) {
        }
        take_startup_actions(r);  // links that netlink just brought
    }
    if (r->upstream && is_ready(r->router_sock, readable)) {
        for (int i = 0; i < kBurst && handle_input(r, kProtoIcmpv6); i++) {
        }
    }
    // A link deleted above is no longer on the list, so only live sockets are read. What the
    // link sockets receive is thrown away: drained like the router socket, so that a burst left
    // in their queues does not keep select() from sleeping for pass after pass.
    for (Link* ifp = r->interfaces; ifp; ifp = ifp->next) {
        for (int i = 0;
             i < kBurst && is_ready(ifp->sock, readable) && handle_other_message(r, ifp) > 0; i++) {
        }
    }
}

// ff02::1:ffXX:XXXX, the solicited-node group of the upstream address; then ff02::16 and ff02::2.
void own_groups(const Router* r, uint8_t (*groups)[16]) {
    static const uint8_t prefix[13] = {0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0xff};
    std::memcpy(groups[0], prefix, sizeof prefix);
    std::memcpy(groups[0] + 13, r->upstream_addr + 13, 3);
    std::memcpy(groups[1], kAddrAllMldv2Routers, 16);
    std::memcpy(groups[2], kAddrAllRouters, 16);
}

// One round of start-up reports: CHANGE_TO_EXCLUDE{} for each of the router's own groups.
void announce_round(Router* r, Link* ifp) {
    uint8_t groups[3][16];
    own_groups(r, groups);
    for (const auto& group : groups) {
        uint32_t len = encode_bare_record(r->scratch, group, RecordType::ChangeToExclude);
        send_report(r, ifp, kAddrAllMldv2Routers, r->scratch, 1, len);
    }
}

uint64_t announce_gap_ms(const Router* r) {
    return 1000u / r->robustness;  // the copies spread over about a second
}

// Robustness rounds of start-up reports, the first at once and the others at deadlines.
void start_announcing(Router* r, Link* ifp) {
    uint32_t copies = r->robustness < kMaxStartupCopies ? r->robustness : kMaxStartupCopies;
    ifp->announce_left = 0;
    if (copies == 0) {
        return;
    }
    announce_round(r, ifp);
    ifp->announce_left = copies - 1;
    ifp->announce_due_ms = now_ms() + announce_gap_ms(r);
}

void announce_due(Router* r, Link* ifp, uint64_t now) {
    if (ifp->announce_left == 0 || ifp->announce_due_ms > now) {
        return;
    }
    announce_round(r, ifp);
    ifp->announce_left--;
    ifp->announce_due_ms = now + announce_gap_ms(r);
}

// The earliest deadline of the loop: the tick, a link's next start-up round or general query,
// an upstream retransmission.
uint64_t next_deadline(const Router* r, uint64_t next_tick) {
    uint64_t due = earlier(next_tick, control_deadline(r));
    if (r->active != 1) {
        return due;
    }
    for (const Link* ifp = r->interfaces; ifp; ifp = ifp->next) {
        if (ifp->announce_left > 0) {
            due = earlier(due, ifp->announce_due_ms);
        }
        due = earlier(due, general_query_due(ifp));
    }
    return earlier(due, next_retransmission_ms());
}

// The tick is never more than a second away, so the wait fits 32 bits (and 32-bit arithmetic).
timeval time_until(uint64_t deadline) {
    uint64_t now = now_ms();
    uint32_t left = 0;
    if (deadline > now) {
        left = deadline - now > kTickMs ? kTickMs : static_cast<uint32_t>(deadline - now);
    }
    return timeval{static_cast<time_t>(left / 1000u),
                   static_cast<suseconds_t>(left % 1000u * 1000u)};
}

// The tick keeps its one-second period whatever the passes in between cost; a thread that fell
// more than a period behind starts afresh instead of ticking in a burst.
uint64_t after_tick(uint64_t tick, uint64_t now) {
    tick += kTickMs;
    return tick > now ? tick : now + kTickMs;
}

void run_due(Router* r, uint64_t* next_tick) {
    uint64_t now = now_ms();
    if (now >= *next_tick) {
        tick(r);
        *next_tick = after_tick(*next_tick, now);
    }
    if (r->active != 1) {
        return;
    }
    for (Link* ifp = r->interfaces; ifp; ifp = ifp->next) {
        announce_due(r, ifp, now);
        send_general_query(r, ifp);
    }
    retransmit_due(r, now);
}

void print_status(Router* r) {
    Text text{};
    render_status(r, false, &text);
    if (text.len > 0) {
        print_text(text.data, text.len);
    }
    text_free(&text);
}

}  // namespace

unsigned take_startup_actions(Router* r) {
    if (!r->upstream) {
        return 1;
    }
    unsigned result = 1;
    for (Link* ifp = r->interfaces; ifp; ifp = ifp->next) {
        if (ifp->is_upstream) {
            ifp->started = true;
            continue;
        }
        // New interfaces sit at the head of the list, so the first started one ends the walk.
        if (ifp->started) {
            return 4;
        }
        start_announcing(r, ifp);
        ifp->started = true;
        if (ifp->querier) {
            result = static_cast<unsigned>(send_general_query(r, ifp));
        }
    }
    return result;
}

void tick(Router* r) {
    if (r->active != 1) {
        return;
    }
    for (Link* ifp = r->interfaces; ifp; ifp = ifp->next) {
        age_link_groups(r, ifp);
    }
}

void input_pass(Router* r, uint64_t* next_tick) {
    fd_set readable;
    fd_set writable;
    FD_ZERO(&writable);
    int maxfd = build_watched_set(r, &readable);
    maxfd = control_watch(r, &readable, &writable, maxfd);
    timeval wait = time_until(next_deadline(r, *next_tick));
    if (select(maxfd + 1, &readable, &writable, nullptr, &wait) > 0) {
        handle_readable(r, &readable);
    } else {
        FD_ZERO(&readable);  // nothing ready: only the clients' deadlines are looked at
        FD_ZERO(&writable);
    }
    control_serve(r, &readable, &writable);
    if (g_status_requested.exchange(0) != 0) {
        print_status(r);
    }
    run_due(r, next_tick);
    // What this pass heard and what ran out in it reach the upstream before the next wait.
    if (r->active == 1) {
        report_changes(r);
    }
}

void* input_thread(void* arg) {
    auto* r = static_cast<Router*>(arg);
    uint64_t next_tick = now_ms() + kTickMs;
    while (r->running && !g_stop_requested) {
        input_pass(r, &next_tick);
    }
    g_input_thread_done = 1;
    return nullptr;
}

}  // namespace mldproxy
