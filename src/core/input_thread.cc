#include "core/addr.h"
#include "core/input_thread.h"

#include <sys/select.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include "core/receive.h"
#include "db/db.h"
#include "iface/interface.h"
#include "iface/netlink.h"
#include "mld/mld.h"
#include "proxy/proxy.h"

std::atomic<int> g_input_thread_done{0};

namespace {

constexpr uint32_t kSleepStepUsec = 100000;
constexpr uint32_t kOneSecondUsec = 1000000;

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

// Built once per thread life: sockets of interfaces created later are watched after the
// restart that every netlink batch causes. Without an upstream the router socket is left out:
// nothing reads it then, and a queued datagram would keep select() from ever sleeping.
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

bool is_ready(int fd, fd_set* readable) {
    return watchable(fd) && FD_ISSET(fd, readable);
}

// True when MLD input was read: the host state may have changed.
bool handle_readable(mldrt_router* r, fd_set* readable, int count) {
    bool mld_input = false;
    if (is_ready(r->netlink_sock, readable)) {
        mldrt_handle_interface(r);
        if (--count == 0) {
            return mld_input;
        }
    }
    if (is_ready(r->router_sock, readable)) {
        mldrt_handle_input(r, MLDRT_PROTO_ICMPV6);
        mld_input = true;
        if (--count == 0) {
            return mld_input;
        }
    }
    for (mldrt_interface* ifp = r->interfaces; ifp && count > 0; ifp = ifp->next) {
        if (is_ready(ifp->sock, readable)) {
            mldrt_handle_other_pkts(r, ifp);
            count--;
        }
    }
    return mld_input;
}

// ff02::1:ffXX:XXXX, the solicited-node group of the upstream address.
void solicited_node_group(const uint8_t* addr, uint8_t* group) {
    static const uint8_t prefix[13] = {0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0xff};
    std::memcpy(group, prefix, sizeof prefix);
    std::memcpy(group + 13, addr + 13, 3);
}

// CHANGE_TO_EXCLUDE{} for each of the router's own groups, robustness times, spread over
// about a second; false when a stop request cut it short.
bool announce_memberships(mldrt_router* r, mldrt_interface* ifp, const uint8_t (*groups)[16]) {
    uint32_t copies = r->robustness;
    if (copies > MLDRT_MAX_STARTUP_COPIES) {
        copies = MLDRT_MAX_STARTUP_COPIES;
    }
    for (int g = 0; g < 3; g++) {
        uint32_t len =
            mldrt_encode_report_mcast_rec(r->scratch, groups[g], MLDRT_REC_CHANGE_TO_EXCLUDE);
        for (uint32_t i = 0; i < copies; i++) {
            if (i > 0 && !mldrt_sleep_unless_stopped(kOneSecondUsec / r->robustness)) {
                return false;
            }
            mldrt_send_report(r, ifp, MLDRT_ADDR_ALL_MLDV2_ROUTERS, r->scratch, 1, len);
        }
    }
    return true;
}

uint64_t monotonic_usec() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * kOneSecondUsec +
           static_cast<uint64_t>(now.tv_nsec) / 1000;
}

timeval remaining_budget(uint64_t deadline) {
    uint64_t now = monotonic_usec();
    uint64_t left = deadline > now ? deadline - now : 0;
    return timeval{static_cast<time_t>(left / kOneSecondUsec),
                   static_cast<suseconds_t>(left % kOneSecondUsec)};
}

// A second after the last deadline, so that the tick's own work does not stretch the period;
// a thread that fell behind by more than that starts afresh instead of ticking in a burst.
uint64_t next_deadline(uint64_t deadline) {
    uint64_t now = monotonic_usec();
    deadline += kOneSecondUsec;
    return deadline > now ? deadline : now + kOneSecondUsec;
}

// Reports read since the last host-state update go upstream once the input is drained, but
// at most once every kHostStateSpacingUsec: a burst of joins is reported within a fraction of
// a second, and a steady stream of reports costs at most ten merges a second besides the
// tick's (each merge visits every group).
constexpr uint64_t kHostStateSpacingUsec = 100000;

struct early_update {
    uint64_t due;   // when the update may run; 0 while nothing waits for it
    uint64_t last;  // when the last one ran
};

void note_mld_input(early_update* u) {
    if (u->due == 0) {
        uint64_t now = monotonic_usec();
        uint64_t earliest = u->last + kHostStateSpacingUsec;
        u->due = earliest > now ? earliest : now;
    }
}

void run_early_update(mldrt_router* r, early_update* u) {
    if (r->active == 1) {
        mldrt_update_host_state(r);
    }
    u->last = monotonic_usec();
    u->due = 0;
}

}  // namespace

bool mldrt_sleep_unless_stopped(uint32_t usec) {
    while (usec > 0 && !g_stop_requested) {
        uint32_t step = usec < kSleepStepUsec ? usec : kSleepStepUsec;
        usleep(step);
        usec -= step;
    }
    return !g_stop_requested;
}

unsigned mldrt_take_startup_actions(mldrt_router* r) {
    if (!r->upstream) {
        return 1;
    }
    uint8_t groups[3][16];
    solicited_node_group(r->upstream_addr, groups[0]);
    std::memcpy(groups[1], MLDRT_ADDR_ALL_MLDV2_ROUTERS, 16);
    std::memcpy(groups[2], MLDRT_ADDR_ALL_ROUTERS, 16);
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
        if (!announce_memberships(r, ifp, groups)) {
            return result;
        }
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
    mldrt_update_group_state(r);
    for (mldrt_interface* ifp = r->interfaces; ifp; ifp = ifp->next) {
        mldrt_send_general_query(r, ifp);
        mldrt_update_memberships(r, ifp, 0);
    }
    mldrt_update_host_state(r);
    mldrt_clean_host_state(r);
}

void* mldrt_input_thread(void* arg) {
    auto* r = static_cast<mldrt_router*>(arg);
    mldrt_take_startup_actions(r);
    fd_set watched;
    int maxfd = build_watched_set(r, &watched);
    mldrt_sleep_unless_stopped(kOneSecondUsec);
    // The budget is measured on the monotonic clock rather than left to select(): Linux select
    // only counts the time spent asleep, and under a flood of reports the thread hardly ever
    // sleeps, which would hold back the queries and timers (RFC 3810 section 9.2) for as long as
    // the flood lasts.
    uint64_t deadline = monotonic_usec() + kOneSecondUsec;
    early_update early{0, 0};
    while (r->running && !g_stop_requested) {
        fd_set readable = watched;
        bool early_wake = early.due != 0 && early.due < deadline;
        timeval budget = remaining_budget(early_wake ? early.due : deadline);
        int n = select(maxfd + 1, &readable, nullptr, nullptr, &budget);
        if ((n == 0 && !early_wake) || monotonic_usec() >= deadline) {
            mldrt_tick(r);
            deadline = next_deadline(deadline);
            early.due = 0;  // the tick updated the host state
        } else if (n == 0) {
            run_early_update(r, &early);
        }
        if (n > 0 && handle_readable(r, &readable, n)) {
            note_mld_input(&early);
        }
    }
    intptr_t value = uc_restart_rt_input_thread;
    g_input_thread_done = 1;
    return reinterpret_cast<void*>(value);
}
