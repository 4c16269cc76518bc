// What `mldproxyd status` shows of a running daemon: its links, the listeners on every
// downstream link, the host state reported upstream, the kernel forwarding entries it wrote with
// the kernel's packet counts, and its counters. As a table for a person or as one JSON object
// (top-level keys "links", "upstream", "forwarding", "counters") for scripts.
#ifndef MLDPROXYD_DAEMON_STATUS_H
#define MLDPROXYD_DAEMON_STATUS_H

#include "db/router.h"
#include "base/text.h"

namespace mldproxy {

void render_status(Router* r, bool json, Text* out);

}  // namespace mldproxy

#endif
