// Well-known IPv6 addresses of MLD (RFC 3810 section 5, RFC 4291 section 2.7.1), as the 16-byte
// network-order values the daemon passes around.
#ifndef MLDPROXYD_BASE_ADDR_H
#define MLDPROXYD_BASE_ADDR_H

#include <cstdint>
#include <cstring>

namespace mldproxy {

// :: — also the source that stands for "every source" in the forwarding database.
inline constexpr uint8_t kAddrAny[16] = {};
inline constexpr uint8_t kAddrAllNodes[16] = {0xff, 0x02, 0, 0, 0, 0, 0, 0,
                                              0,    0,    0, 0, 0, 0, 0, 0x01};
inline constexpr uint8_t kAddrAllRouters[16] = {0xff, 0x02, 0, 0, 0, 0, 0, 0,
                                                0,    0,    0, 0, 0, 0, 0, 0x02};
inline constexpr uint8_t kAddrAllMldv2Routers[16] = {0xff, 0x02, 0, 0, 0, 0, 0, 0,
                                                     0,    0,    0, 0, 0, 0, 0, 0x16};

inline bool same_address(const uint8_t* a, const uint8_t* b) {
    return std::memcmp(a, b, 16) == 0;
}

inline bool is_unspecified(const uint8_t* addr) {
    return std::memcmp(addr, kAddrAny, 16) == 0;
}

// Scope of a multicast address (RFC 4291 section 2.7): the low four bits of its second byte.
// Scopes 0 (reserved), 1 (interface-local) and 2 (link-local) never leave their link.
inline bool is_link_scope_group(const uint8_t* grp) {
    return (grp[1] & 0x0f) <= 2;
}

}  // namespace mldproxy

#endif
