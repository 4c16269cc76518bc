#include "core/input_thread.h"

#include <sys/select.h>

#include <cstring>

#include "core/addr.h"
#include "core/clock.h"
#include "core/control.h"
#include "core/log.h"
#include "core/receive.h"
#include "core/status.h"
#include "db/db.h"
#include "iface/interface.h"
#include "iface/netlink.h"
#include "mld/mld.h"
#include "proxy/proxy.h"

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
int build_watched_set(mldrt_router* r, fd_set* set) {
    int maxfd = 0;
    FD_ZERO(set);
    watch(r->netlink_sock, set, &maxfd);
    if (r->upstream) {
        watch(r->router_sock, set, &maxfd);
    }
    for (mldrt_interface* ifp = r->interfaces; ifp; ifp = ifp->next) {
        watch(ifp->sock, set, &maxfd);
    }
    return maxfd;
}

bool is_ready(int fd, const fd_set* readable) {
    return watchable(fd) && FD_ISSET(fd, readable);
}

void handle_readable(mldrt_router* r, const fd_set* readable) {
    if (is_ready(r->netlink_sock, readable)) {
        for (int i = 0; i < kBurst && mldrt_handle_interface(r); i++) {
        }
        mldrt_take_startup_actions(r);  // links that netlink just brought
    }
    if (r->upstream && is_ready(r->router_sock, readable)) {
        for (int i = 0; i < kBurst && mldrt_handle_input(r, MLDRT_PROTO_ICMPV6); i++) {
        }
    }
    // A link deleted above is no longer on the list, so only live sockets are read. What the
    // link sockets receive is thrown away: drained like the router socket, so that a burst left
    // in their queues does not keep select() from sleeping for pass after pass.
    for (mldrt_interface* ifp = r->interfaces; ifp; ifp = ifp->next) {
        for (int i = 0;
             i < kBurst && is_ready(ifp->sock, readable) && mldrt_handle_other_pkts(r, ifp) > 0;
             i++) {
        }
    }
}

// ff02::1:ffXX:XXXX, the solicited-node group of the upstream address; then ff02::16 and ff02::2.
void own_groups(const mldrt_router* r, uint8_t (*groups)[16]) {
    static const uint8_t prefix[13] = {0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0xff};
    std::memcpy(groups[0], prefix, sizeof prefix);
    std::memcpy(groups[0] + 13, r->upstream_addr + 13, 3);
    std::memcpy(groups[1], MLDRT_ADDR_ALL_MLDV2_ROUTERS, 16);
    std::memcpy(groups[2], MLDRT_ADDR_ALL_ROUTERS, 16);
}

// One round of start-up reports: CHANGE_TO_EXCLUDE{} for each of the router's own groups.
void announce_round(mldrt_router* r, mldrt_interface* ifp) {
    uint8_t groups[3][16];
    own_groups(r, groups);
    for (const auto& group : groups) {
        uint32_t len =
            mldrt_encode_report_mcast_rec(r->scratch, group, MLDRT_REC_CHANGE_TO_EXCLUDE);
        mldrt_send_report(r, ifp, MLDRT_ADDR_ALL_MLDV2_ROUTERS, r->scratch, 1, len);
    }
}

uint64_t announce_gap_ms(const mldrt_router* r) {
    return 1000u / r->robustness;  // the copies spread over about a second
}

// Robustness rounds of start-up reports, the first at once and the others at deadlines.
void start_announcing(mldrt_router* r, mldrt_interface* ifp) {
    uint32_t copies =
        r->robustness < MLDRT_MAX_STARTUP_COPIES ? r->robustness : MLDRT_MAX_STARTUP_COPIES;
    ifp->announce_left = 0;
    if (copies == 0) {
        return;
    }
    announce_round(r, ifp);
    ifp->announce_left = copies - 1;
    ifp->announce_due_ms = mldrt_now_ms() + announce_gap_ms(r);
}

void announce_due(mldrt_router* r, mldrt_interface* ifp, uint64_t now) {
    if (ifp->announce_left == 0 || ifp->announce_due_ms > now) {
        return;
    }
    announce_round(r, ifp);
    ifp->announce_left--;
    ifp->announce_due_ms = now + announce_gap_ms(r);
}

// The earliest deadline of the loop: the tick, a link's next start-up round or general query,
// an upstream retransmission.
uint64_t next_deadline(const mldrt_router* r, uint64_t next_tick) {
    uint64_t due = mldrt_earlier(next_tick, mldrt_control_deadline(r));
    if (r->active != 1) {
        return due;
    }
    for (const mldrt_interface* ifp = r->interfaces; ifp; ifp = ifp->next) {
        if (ifp->announce_left > 0) {
            due = mldrt_earlier(due, ifp->announce_due_ms);
        }
        due = mldrt_earlier(due, mldrt_general_query_due(ifp));
    }
    return mldrt_earlier(due, mldrt_next_retransmission_ms());
}

// The tick is never more than a second away, so the wait fits 32 bits (and 32-bit arithmetic).
timeval time_until(uint64_t deadline) {
    uint64_t now = mldrt_now_ms();
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

void run_due(mldrt_router* r, uint64_t* next_tick) {
    uint64_t now = mldrt_now_ms();
    if (now >= *next_tick) {
        mldrt_tick(r);
        *next_tick = after_tick(*next_tick, now);
    }
    if (r->active != 1) {
        return;
    }
    for (mldrt_interface* ifp = r->interfaces; ifp; ifp = ifp->next) {
        announce_due(r, ifp, now);
        mldrt_send_general_query(r, ifp);
    }
    mldrt_retransmit_due(r, now);
}

void print_status(mldrt_router* r) {
    mldrt_text text{};
    mldrt_render_status(r, false, &text);
    if (text.len > 0) {
        mldrt_print_text(text.data, text.len);
    }
    mldrt_text_free(&text);
}

}  // namespace

unsigned mldrt_take_startup_actions(mldrt_router* r) {
    if (!r->upstream) {
        return 1;
    }
    unsigned result = 1;
    for (mldrt_interface* ifp = r->interfaces; ifp; ifp = ifp->next) {
        if (ifp->is_upstream) {
            ifp->started = 1;
            continue;
        }
        // New interfaces sit at the head of the list, so the first started one ends the walk.
        if (ifp->started) {
            return 4;
        }
        start_announcing(r, ifp);
        ifp->started = 1;
        if (ifp->querier == 1) {
            result = static_cast<unsigned>(mldrt_send_general_query(r, ifp));
        }
    }
    return result;
}

void mldrt_tick(mldrt_router* r) {
    if (r->active != 1) {
        return;
    }
    for (mldrt_interface* ifp = r->interfaces; ifp; ifp = ifp->next) {
        mldrt_update_memberships(r, ifp, 0);
    }
}

void mldrt_input_pass(mldrt_router* r, uint64_t* next_tick) {
    fd_set readable;
    fd_set writable;
    FD_ZERO(&writable);
    int maxfd = build_watched_set(r, &readable);
    maxfd = mldrt_control_watch(r, &readable, &writable, maxfd);
    timeval wait = time_until(next_deadline(r, *next_tick));
    if (select(maxfd + 1, &readable, &writable, nullptr, &wait) > 0) {
        handle_readable(r, &readable);
    } else {
        FD_ZERO(&readable);  // nothing ready: only the clients' deadlines are looked at
        FD_ZERO(&writable);
    }
    mldrt_control_serve(r, &readable, &writable);
    if (g_status_requested.exchange(0) != 0) {
        print_status(r);
    }
    run_due(r, next_tick);
    // What this pass heard and what ran out in it reach the upstream before the next wait.
    if (r->active == 1) {
        mldrt_report_changes(r);
    }
}

void* mldrt_input_thread(void* arg) {
    auto* r = static_cast<mldrt_router*>(arg);
    uint64_t next_tick = mldrt_now_ms() + kTickMs;
    while (r->running && !g_stop_requested) {
        mldrt_input_pass(r, &next_tick);
    }
    g_input_thread_done = 1;
    return nullptr;
}
