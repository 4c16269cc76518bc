// The daemon's life: initialisation of the router context, the input thread's start, and the
// shutdown paths. Signals are blocked in every thread and taken by the
// main thread with sigtimedwait, so the shutdown always runs there, after the input thread has
// been joined.
#ifndef MLDPROXYD_DAEMON_DAEMON_H
#define MLDPROXYD_DAEMON_DAEMON_H

#include <signal.h>

#include "db/router.h"

namespace mldproxy {

// Buffers, the configuration file, the control socket, the router socket and its options,
// MRT6_INIT, the link dump request.
int init_daemon(Router* r, const char* config_path, const char* control_path);
int start_threads(Router* r);
// Stops the input thread and waits until it has ended.
void stop_threads(Router* r);
// Shutdown: last timer pass, MIFs and interface records removed, MRT6_DONE, exit status 0.
[[noreturn]] void exit_daemon(Router* r);
// The same clean-up after a start that failed (its message printed), with exit status 1, so
// that a service manager sees the failure.
[[noreturn]] void fail_start(Router* r);
void delete_all_links(Router* r);
// `mldproxyd -t`: reads the configuration file and says whether it is good; opens no socket.
// The exit status: 0 good, 1 bad.
int check_config(const char* path);
void shut_down(Router* r);

// The signals the daemon takes: those that end it (SIGKILL is named too; the system ignores
// that request) and SIGUSR2, which asks for the state to be printed.
void daemon_signals(sigset_t* set);
// Main's life after start-up: ends the daemon on a signal, passes SIGUSR2 on to the input
// thread, and otherwise sleeps.
[[noreturn]] void main_wait(Router* r, const sigset_t* signals);

}  // namespace mldproxy

#endif
