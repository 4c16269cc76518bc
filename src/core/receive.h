// The receive path: one datagram from the router socket, told apart as a kernel upcall or an
// MLD message from a known interface; and the interface sockets, read and thrown away.
#ifndef MLDPROXYD_CORE_RECEIVE_H
#define MLDPROXYD_CORE_RECEIVE_H

#include "core/router.h"

struct mldrt_interface;

// Reads one datagram from the router socket; only `proto` 58 (ICMPv6) is handled. True when a
// datagram was taken from the socket, whatever became of it; false when none was waiting.
bool mldrt_handle_input(mldrt_router* r, int proto);
// Reads one datagram from the interface's socket and drops it; returns the read's result.
int mldrt_handle_other_pkts(mldrt_router* r, mldrt_interface* ifp);

#endif
