// Routing netlink: the link and address dumps at start-up, the kernel's link and IPv6-address
// notifications afterwards, and the table of system interfaces they fill. A complete entry
// brings the daemon's interface record (and its MIF) up or down.
#ifndef MLDPROXYD_IFACE_NETLINK_H
#define MLDPROXYD_IFACE_NETLINK_H

#include <cstdint>

#include "core/router.h"

struct rtattr;

// What the kernel told us about one system interface.
struct mldrt_sysif {
    uint8_t state;             // MLDRT_SYSIF_FILLED once a link message filled it
    uint8_t event;             // bits MLDRT_SYSIF_EV_*
    uint8_t up;                // IFF_UP of the last link message
    uint8_t named_left_alone;  // its log line saying it is no downstream was printed
    uint32_t ifindex;
    uint8_t addr[16];  // link-local address
    char name[20];     // always terminated
    uint32_t mtu;      // IFLA_MTU of the last link message
};

constexpr uint8_t MLDRT_SYSIF_FILLED = 2;
constexpr uint8_t MLDRT_SYSIF_EV_UP = 1;
constexpr uint8_t MLDRT_SYSIF_EV_BY_FLAG = 2;
constexpr uint8_t MLDRT_SYSIF_EV_RESTART = 4;
constexpr uint8_t MLDRT_SYSIF_EV_DOWN = 8;
constexpr uint8_t MLDRT_SYSIF_NEWLINK = MLDRT_SYSIF_EV_UP | MLDRT_SYSIF_EV_BY_FLAG;    // 3
constexpr uint8_t MLDRT_SYSIF_DELLINK = MLDRT_SYSIF_EV_DOWN | MLDRT_SYSIF_EV_BY_FLAG;  // 10

// System interfaces by kernel index. Any index is accepted (kernel indexes grow without bound
// as links come and go), so the table is a small growing array searched by index.
struct mldrt_sysif_table {
    mldrt_sysif* entries;
    uint32_t count;
    uint32_t capacity;
};
extern mldrt_sysif_table g_sysIfInfo;

constexpr uint32_t MLDRT_MAX_SYSIF = 4096;

void mldrt_sysif_reset();  // empties the table and frees its memory
mldrt_sysif* mldrt_sysif_find(uint32_t ifindex);
mldrt_sysif* mldrt_sysif_get(uint32_t ifindex);  // find or add a zeroed entry; nullptr if full
void mldrt_sysif_remove(uint32_t ifindex);

constexpr uint32_t MLDRT_NL_GROUPS = 0x101;  // RTMGRP_LINK | RTMGRP_IPV6_IFADDR

// Opens and binds the netlink socket into *sockp (for a link dump, when none is open) and sends a
// dump request of `type` (RTM_GETLINK or RTM_GETADDR).
int scan_available_interfaces(int32_t* sockp, int type);
// Starts the start-up dumps: links, then (when the link dump ends) their addresses. 0 or -1.
int mldrt_start_netlink(mldrt_router* r);
// Reads and handles one batch from the netlink socket, at once: links come and go, and records,
// MIFs and sockets with them, before the caller waits again. A dump's end asks for the next
// dump; lost notifications (ENOBUFS) ask for both dumps again. False when nothing was waiting.
bool mldrt_handle_interface(mldrt_router* r);

void handle_intf_link_event(int is_new, const uint8_t* msg, uint32_t len, mldrt_router* r);
void handle_intf_addr_event(int is_new, const uint8_t* msg, uint32_t len, mldrt_router* r);
// Standard rtattr walk over `len` bytes at `rta`, keeping types up to `max` in tb[0..max].
void parse_rtatable(const rtattr** tb, int max, const rtattr* rta, uint32_t len);

void mldrt_handle_sysif(mldrt_router* r, mldrt_sysif* entry);
void mldrt_handle_interface_up(mldrt_router* r, const mldrt_sysif* entry);
void mldrt_handle_interface_down(mldrt_router* r, const mldrt_sysif* entry);

#endif
