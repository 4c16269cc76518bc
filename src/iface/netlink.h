// Routing netlink: the link and address dumps at start-up, the kernel's link and IPv6-address
// notifications afterwards, and the table of system interfaces they fill. A complete entry
// brings the daemon's interface record (and its MIF) up or down.
#ifndef MLDPROXYD_IFACE_NETLINK_H
#define MLDPROXYD_IFACE_NETLINK_H

#include <cstdint>

#include "db/router.h"

struct rtattr;

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

constexpr uint32_t kNlGroups = 0x101;  // RTMGRP_LINK | RTMGRP_IPV6_IFADDR

// Opens and binds the netlink socket into *sockp (for a link dump, when none is open) and sends a
// dump request of `type` (RTM_GETLINK or RTM_GETADDR).
int scan_available_interfaces(int32_t* sockp, int type);
// Starts the start-up dumps: links, then (when the link dump ends) their addresses. 0 or -1.
int start_netlink(Router* r);
// Reads and handles one batch from the netlink socket, at once: links come and go, and records,
// MIFs and sockets with them, before the caller waits again. A dump's end asks for the next
// dump; lost notifications (ENOBUFS) ask for both dumps again. False when nothing was waiting.
bool handle_link(Router* r);

void handle_intf_link_event(int is_new, const uint8_t* msg, uint32_t len, Router* r);
void handle_intf_addr_event(int is_new, const uint8_t* msg, uint32_t len, Router* r);
// Standard rtattr walk over `len` bytes at `rta`, keeping types up to `max` in tb[0..max].
void parse_rtatable(const rtattr** tb, int max, const rtattr* rta, uint32_t len);

void apply_system_link(Router* r, SystemLink* entry);
void handle_link_up(Router* r, const SystemLink* entry);
void handle_link_down(Router* r, const SystemLink* entry);

}  // namespace mldproxy

#endif
