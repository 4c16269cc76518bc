// Routing netlink: the link and address dumps at start-up, the kernel's link and IPv6-address
// notifications afterwards, and the table of system interfaces they fill. A complete entry
// brings the daemon's interface record (and its MIF) up or down.
#ifndef MLDPROXYD_DAEMON_NETLINK_H
#define MLDPROXYD_DAEMON_NETLINK_H

#include <cstdint>

#include "db/router.h"
#include "iface/system_links.h"

struct rtattr;

namespace mldproxy {

constexpr uint32_t kNlGroups = 0x101;  // RTMGRP_LINK | RTMGRP_IPV6_IFADDR

// Opens and binds the netlink socket into *sockp (for a link dump, when none is open) and sends a
// dump request of `type` (RTM_GETLINK or RTM_GETADDR).
int request_netlink_dump(int32_t* sockp, int type, uint32_t seq);
// Starts the start-up dumps: links, then (when the link dump ends) their addresses. 0 or -1.
int start_netlink(Router* r);
// Reads and handles one batch from the netlink socket, at once: links come and go, and records,
// MIFs and sockets with them, before the caller waits again. A dump's end asks for the next
// dump; lost notifications (ENOBUFS) ask for both dumps again. False when nothing was waiting.
bool handle_link(Router* r);

void handle_link_message(bool is_new, const uint8_t* msg, uint32_t len, Router* r);
// New and deleted addresses alike: the table keeps what the kernel says the link has now.
void handle_address_message(const uint8_t* msg, uint32_t len, Router* r);
// Standard rtattr walk over `len` bytes at `rta`, keeping types up to `max` in tb[0..max].
void parse_attributes(const rtattr** tb, int max, const rtattr* rta, uint32_t len);

void apply_system_link(Router* r, SystemLink* entry);
void handle_link_up(Router* r, const SystemLink* entry);
void handle_link_down(Router* r, const SystemLink* entry);

}  // namespace mldproxy

#endif
