// Interface names as the daemon keeps them: at most kIfnameLen characters, always terminated.
#ifndef MLDPROXYD_BASE_IFNAME_H
#define MLDPROXYD_BASE_IFNAME_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace mldproxy {

constexpr uint32_t kIfnameLen = 16;  // characters kept of an interface name

// Copies at most kIfnameLen characters of a name and terminates the copy (the
// destination has kIfnameLen + 1 bytes).
inline void copy_ifname(char* dst, const char* src) {
    size_t len = strnlen(src, kIfnameLen);
    std::memcpy(dst, src, len);
    dst[len] = '\0';
}
constexpr int kProtoIcmpv6 = 58;

}  // namespace mldproxy

#endif
