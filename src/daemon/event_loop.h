// The input thread: it owns all protocol state and runs one event loop. It waits on the
// netlink, router and link sockets until one is readable or the next deadline comes (the
// one-second membership tick, a link's start-up report or general query, an upstream
// retransmission), handles what arrived, runs what is due, and sends the upstream the changes
// before it waits again.
#ifndef MLDPROXYD_DAEMON_EVENT_LOOP_H
#define MLDPROXYD_DAEMON_EVENT_LOOP_H

#include <atomic>
#include <cstdint>

#include "db/router.h"

namespace mldproxy {

// Set by the input thread as its last act, so that main knows it can be joined.
extern std::atomic<int> g_input_thread_done;
// Set by main on SIGUSR2: the input thread prints the state (what `mldproxyd status` shows) in
// its next pass, within a second.
extern std::atomic<int> g_status_requested;

// The thread body; `arg` is the router. It ends when `running` is cleared or a stop requested.
void* input_thread(void* arg);

// One pass of the loop: wait, handle what is readable, run what is due, report the changes.
// `next_tick` is the deadline of the next membership tick.
void input_pass(Router* r, uint64_t* next_tick);

// Starts every new downstream interface: the first round of the router's own membership
// reports at once (the others follow at deadlines) and the first general query. 1 without an
// upstream, 4 when it met an interface already started, else the last general query's result
// or 1.
unsigned take_startup_actions(Router* r);

// At most this many rounds of start-up reports, whatever the robustness says.
constexpr uint32_t kMaxStartupCopies = 10;

// One second of membership timers, done only while the router is active.
void tick(Router* r);

}  // namespace mldproxy

#endif
