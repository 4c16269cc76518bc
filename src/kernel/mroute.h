// The kernel's IPv6 multicast forwarding engine (Linux MRT6), behind one small adapter: every
// function builds one kernel record on the stack and makes one setsockopt call on the router
// socket, returning 0 or -1.
#ifndef MLDPROXYD_KERNEL_MROUTE_H
#define MLDPROXYD_KERNEL_MROUTE_H

#include <netinet/in.h>

#include <cstdint>

namespace mldproxy {

constexpr int kKLevel = 41;  // IPPROTO_IPV6
constexpr int MRT6_INIT_OPT = 200;
constexpr int MRT6_DONE_OPT = 201;
constexpr int MRT6_ADD_MIF_OPT = 202;
constexpr int MRT6_DEL_MIF_OPT = 203;
constexpr int MRT6_ADD_MFC_OPT = 204;
constexpr int MRT6_DEL_MFC_OPT = 205;
constexpr int MRT6MSG_NOCACHE_TYPE = 1;

constexpr uint32_t kMaxmifs = 32;  // the kernel's MIF table; one ifset word
constexpr uint32_t kMaxPifi = 0xffff;

// Linux <linux/mroute6.h> layouts, written out so that the sizes are checked here.
struct Mif6Ctl {
    uint16_t mif6c_mifi;
    uint8_t mif6c_flags;
    uint8_t vifc_threshold;
    uint16_t mif6c_pifi;
    uint32_t vifc_rate_limit;
};
static_assert(sizeof(Mif6Ctl) == 12, "mif6ctl is 12 bytes");

struct Mf6cCtl {
    sockaddr_in6 mf6cc_origin;
    sockaddr_in6 mf6cc_mcastgrp;
    uint16_t mf6cc_parent;
    uint32_t mf6cc_ifset[8];
};
static_assert(sizeof(sockaddr_in6) == 28, "sockaddr_in6 is 28 bytes");
static_assert(sizeof(Mf6cCtl) == 92, "mf6cctl is 92 bytes");

// An upcall as the kernel queues it on the router socket (im6_mif is in host order).
struct Mrt6Msg {
    uint8_t im6_mbz;
    uint8_t im6_msgtype;
    uint16_t im6_mif;
    uint32_t im6_pad;
    uint8_t im6_src[16];
    uint8_t im6_dst[16];
};
static_assert(sizeof(Mrt6Msg) == 40, "mrt6msg is 40 bytes");

bool kernel_start_routing(int sock);
bool kernel_stop_routing(int sock);
// Each returns true when the kernel took the request (a failure prints its message).
// Registers (or removes) MIF `mifi` for the system interface `ifindex`.
bool kernel_add_mif(int sock, uint16_t mifi, uint32_t ifindex);
bool kernel_delete_mif(int sock, uint16_t mifi, uint32_t ifindex);

// First ifset word for a 32-byte output-interface array (byte i non-zero: forward on MIF i).
uint32_t ifset_word(const uint8_t* oifs);

// Installs or replaces (source, group). A source of :: is the group's any-source entry: a real
// (*,G) entry whose set also holds the upstream MIF, because Linux forwards with a (*,G) entry
// only packets that arrive on a MIF of its set. `parent` is the upstream MIF.
bool kernel_add_mfc(int sock, uint16_t parent, const uint8_t* group, const uint8_t* source,
                    const uint8_t* oifs);
// Removes (source, group); silent for a specific source, which may never have been installed.
bool kernel_delete_mfc(int sock, const uint8_t* group, const uint8_t* source);

// What the kernel counted for one forwarding entry (SIOCGETSGCNT_IN6).
struct SourceGroupCounts {
    unsigned long packets;
    unsigned long bytes;
    unsigned long wrong_if;  // arrivals on a MIF other than the entry's parent
};
// The counts of (source, group), source :: for the (*,G) entry; false when the kernel has no
// such entry.
bool kernel_sg_counts(int sock, const uint8_t* group, const uint8_t* source,
                      SourceGroupCounts* out);

}  // namespace mldproxy

#endif
