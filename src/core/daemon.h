// The daemon's life: initialisation of the router context, the input thread's start, and the
// shutdown paths. Signals are blocked in every thread and taken by the
// main thread with sigtimedwait, so the shutdown always runs there, after the input thread has
// been joined.
#ifndef MLDPROXYD_CORE_DAEMON_H
#define MLDPROXYD_CORE_DAEMON_H

#include <signal.h>

#include "core/router.h"

// Buffers, the configuration file, the control socket, the router socket and its options,
// MRT6_INIT, the link dump request.
int mldv2_init(mldrt_router* r, const char* config_path, const char* control_path);
int mldrt_start_threads(mldrt_router* r);
// Stops the input thread and waits until it has ended.
void mldrt_stop_threads(mldrt_router* r);
// Shutdown: last timer pass, MIFs and interface records removed, MRT6_DONE, exit status 0.
[[noreturn]] void mldv2_done();
// The same clean-up after a start that failed (its message printed), with exit status 1, so
// that a service manager sees the failure.
[[noreturn]] void mldrt_fail_start();
void mldrt_cleanup_interfaces(mldrt_router* r);
// `mldproxyd -t`: reads the configuration file and says whether it is good; opens no socket.
// The exit status: 0 good, 1 bad.
int mldrt_check_config(const char* path);
void mldrt_uninit(mldrt_router* r);

// The signals the daemon takes: those that end it (SIGKILL is named too; the system ignores
// that request) and SIGUSR2, which asks for the state to be printed.
void mldrt_daemon_signals(sigset_t* set);
// Main's life after start-up: ends the daemon on a signal, passes SIGUSR2 on to the input
// thread, and otherwise sleeps.
[[noreturn]] void mldrt_main_wait(mldrt_router* r, const sigset_t* signals);

#endif
