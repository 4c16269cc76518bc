// The receive path: one datagram from the router socket, told apart as a kernel upcall or an
// MLD message from a known interface; and the interface sockets, read and thrown away.
#ifndef MLDPROXYD_DAEMON_RECEIVE_H
#define MLDPROXYD_DAEMON_RECEIVE_H

#include "db/router.h"

namespace mldproxy {

struct Link;

// Reads one datagram from the router socket; only `proto` 58 (ICMPv6) is handled. True when a
// datagram was taken from the socket, whatever became of it; false when none was waiting.
bool handle_input(Router* r, int proto);
// Reads one datagram from the interface's socket and drops it; returns the read's result.
int handle_other_message(Router* r, Link* ifp);

}  // namespace mldproxy

#endif
