// The ICMPv6 message types of MLD: what a link's socket lets through and what the receive
// path tells apart.
#ifndef MLDPROXYD_BASE_MLD_TYPES_H
#define MLDPROXYD_BASE_MLD_TYPES_H

#include <cstdint>

namespace mldproxy {

// ICMPv6 types of MLD (RFC 2710, RFC 3810 section 5).
constexpr uint8_t kTypeQuery = 130;
constexpr uint8_t kTypeV1Report = 131;
constexpr uint8_t kTypeV1Done = 132;
constexpr uint8_t kTypeV2Report = 143;

}  // namespace mldproxy

#endif
