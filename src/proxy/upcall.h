// The kernel's cache-miss upcalls for traffic arriving on the upstream link.
#ifndef MLDPROXYD_PROXY_UPCALL_H
#define MLDPROXYD_PROXY_UPCALL_H

#include <cstdint>

#include "db/router.h"

namespace mldproxy {

// `msg` holds `len` bytes read from the router socket that begin like an mrt6msg.
void handle_upcall(Router* r, const uint8_t* msg, int len);

}  // namespace mldproxy

#endif
