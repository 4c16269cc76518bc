// The input thread: it owns all protocol state, waits on the netlink, router and interface
// sockets with a one-second tick, and takes the start-up actions on new downstream links.
#ifndef MLDPROXYD_CORE_INPUT_THREAD_H
#define MLDPROXYD_CORE_INPUT_THREAD_H

#include <atomic>
#include <cstdint>

#include "core/router.h"

// Set by the input thread as its last act, so that main knows it can be joined.
extern std::atomic<int> g_input_thread_done;

// The thread body; `arg` is the router. Its exit value is uc_restart_rt_input_thread (0 or 1).
void* mldrt_input_thread(void* arg);

// Announces the router's own memberships and sends the first general query on every new
// downstream interface. 1 without an upstream, 4 when it met an interface already started,
// else the last general query's result or 1.
unsigned mldrt_take_startup_actions(mldrt_router* r);

// At most this many copies of each start-up report, whatever the robustness says, so that a
// stop request is never held up for long.
constexpr uint32_t MLDRT_MAX_STARTUP_COPIES = 10;

// Sleeps `usec` microseconds in steps of at most 100 ms; false as soon as a stop is requested.
bool mldrt_sleep_unless_stopped(uint32_t usec);

// One second of timer work, done only while the router is active.
void mldrt_tick(mldrt_router* r);

#endif
