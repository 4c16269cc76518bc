// The system interfaces as routing netlink describes them: index, name, link-local address,
// MTU and up state, kept until the daemon has acted on each change.
#ifndef MLDPROXYD_IFACE_SYSTEM_LINKS_H
#define MLDPROXYD_IFACE_SYSTEM_LINKS_H

#include <cstdint>

namespace mldproxy {

// What the kernel told us about one system interface.
struct SystemLink {
    uint8_t state;             // kSystemLinkFilled once a link message filled it
    uint8_t event;             // bits kSystemLink* below
    uint8_t up;                // IFF_UP of the last link message
    uint8_t named_left_alone;  // its log line saying it is no downstream was printed
    uint32_t ifindex;
    uint8_t addr[16];  // link-local address
    char name[20];     // always terminated
    uint32_t mtu;      // IFLA_MTU of the last link message
};

constexpr uint8_t kSystemLinkFilled = 2;
constexpr uint8_t kSystemLinkUp = 1;
constexpr uint8_t kSystemLinkByFlag = 2;
constexpr uint8_t kSystemLinkRestart = 4;
constexpr uint8_t kSystemLinkDown = 8;
constexpr uint8_t kSystemLinkNew = kSystemLinkUp | kSystemLinkByFlag;        // 3
constexpr uint8_t kSystemLinkDeleted = kSystemLinkDown | kSystemLinkByFlag;  // 10

// System interfaces by kernel index. Any index is accepted (kernel indexes grow without bound
// as links come and go), so the table is a small growing array searched by index.
struct SystemLinkTable {
    SystemLink* entries;
    uint32_t count;
    uint32_t capacity;
};

constexpr uint32_t kMaxSystemLinks = 4096;

void system_link_reset(SystemLinkTable* t);  // empties the table and frees its memory
SystemLink* system_link_find(SystemLinkTable* t, uint32_t ifindex);
// Finds or adds a zeroed entry; nullptr when the table is full.
SystemLink* system_link_get(SystemLinkTable* t, uint32_t ifindex);
void system_link_remove(SystemLinkTable* t, uint32_t ifindex);

// The routing netlink dump under way. The kernel runs one dump per socket at a time, so the
// address dump is asked for when the link dump ends, and a dump wanted meanwhile waits.
enum class NetlinkDump : uint8_t { none, links, addresses };
struct NetlinkDumps {
    uint32_t seq;  // sequence number of the next request
    NetlinkDump running;
    bool again;  // both dumps are wanted again once the running one ends
};

}  // namespace mldproxy

#endif
