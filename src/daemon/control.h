// The control socket: a Unix stream socket (mode 0600) on which `mldproxyd status` asks the
// running daemon for its state. It only reports and never changes state. The event loop serves
// it without ever blocking on it: one short request per connection ("status" or "status json",
// ended by a newline), a reply, then the connection is closed; a client that sends nothing, too
// much or garbage gets an error or is closed at its deadline, and a few clients at a time are
// served (more are closed at once), so no client can hold back MLD.
#ifndef MLDPROXYD_DAEMON_CONTROL_H
#define MLDPROXYD_DAEMON_CONTROL_H

#include <sys/select.h>

#include <cstdint>

#include "db/router.h"
#include "base/text.h"

namespace mldproxy {

constexpr const char* kDefaultSocket = "/run/mldproxyd.sock";

// Opens the socket at `path`, replacing a stale one a crashed daemon left; refuses (false,
// after a message) when another daemon answers there or a system call fails.
bool control_open(Router* r, const char* path);
// Closes every connection and the socket, and removes the socket's file.
void control_close(Router* r);

// Adds the control descriptors to the sets of the loop's wait; returns the new highest one.
int control_watch(const Router* r, fd_set* readable, fd_set* writable, int maxfd);
// Accepts, reads, answers and closes as the sets allow, and drops clients past their deadline.
void control_serve(Router* r, const fd_set* readable, const fd_set* writable);
// The earliest client deadline (kNever when no client is connected).
uint64_t control_deadline(const Router* r);

// The reply to one request line (without its newline): the status, or an error line.
void control_answer(Router* r, const char* request, Text* reply);

}  // namespace mldproxy

#endif
