// The system interfaces as routing netlink describes them: index, name, link-local address,
// MTU and up state, kept until the daemon has acted on each change.
#ifndef MLDPROXYD_IFACE_SYSTEM_LINKS_H
#define MLDPROXYD_IFACE_SYSTEM_LINKS_H

#include <cstdint>

namespace mldproxy {

// What the kernel told us about one system interface.
struct SystemLink {
    uint8_t state;             // kSysifFilled once a link message filled it
    uint8_t event;             // bits kSysifEv*
    uint8_t up;                // IFF_UP of the last link message
    uint8_t named_left_alone;  // its log line saying it is no downstream was printed
    uint32_t ifindex;
    uint8_t addr[16];  // link-local address
    char name[20];     // always terminated
    uint32_t mtu;      // IFLA_MTU of the last link message
};

constexpr uint8_t kSysifFilled = 2;
constexpr uint8_t kSysifEvUp = 1;
constexpr uint8_t kSysifEvByFlag = 2;
constexpr uint8_t kSysifEvRestart = 4;
constexpr uint8_t kSysifEvDown = 8;
constexpr uint8_t kSysifNewlink = kSysifEvUp | kSysifEvByFlag;    // 3
constexpr uint8_t kSysifDellink = kSysifEvDown | kSysifEvByFlag;  // 10

// System interfaces by kernel index. Any index is accepted (kernel indexes grow without bound
// as links come and go), so the table is a small growing array searched by index.
struct SystemLinkTable {
    SystemLink* entries;
    uint32_t count;
    uint32_t capacity;
};
extern SystemLinkTable g_sysIfInfo;

constexpr uint32_t kMaxSysif = 4096;

void system_link_reset();  // empties the table and frees its memory
SystemLink* system_link_find(uint32_t ifindex);
SystemLink* system_link_get(uint32_t ifindex);  // find or add a zeroed entry; nullptr if full
void system_link_remove(uint32_t ifindex);

}  // namespace mldproxy

#endif
