// Interface records: one per multicast-capable link that has a link-local address, each with
// its own raw ICMPv6 socket (for sending and for its memberships), an MTU-sized packet buffer
// and a kernel MIF index.
#ifndef MLDPROXYD_IFACE_INTERFACE_H
#define MLDPROXYD_IFACE_INTERFACE_H

#include <cstdint>

#include "core/router.h"

struct mldrt_group;

// What crossed one link since the daemon started, for `mldproxyd status`. MLDv1 reports and
// dones count as reports.
struct mldrt_link_counters {
    uint32_t reports_in;
    uint32_t queries_in;
    uint32_t reports_out;
    uint32_t queries_out;
};

struct mldrt_interface {
    uint8_t addr[16];                 // link-local address
    char name[MLDRT_IFNAME_LEN + 1];  // always terminated
    uint16_t mifi;
    uint32_t ifindex;
    int32_t is_upstream;
    int32_t sock;
    int32_t mld_version;  // 1 or 2: the last query heard on the link decides
    int32_t querier;
    uint32_t query_interval;
    uint64_t query_due_ms;  // the next general query (monotonic milliseconds)
    uint32_t query_response_interval;
    uint32_t startup_query_count;
    uint32_t announce_left;    // start-up report rounds still to send
    uint64_t announce_due_ms;  // when the next round leaves
    mldrt_group* groups;
    mldrt_addr_index<mldrt_group> group_index;  // beside groups
    mldrt_interface* next;
    mldrt_interface** pprev;
    int32_t started;
    uint8_t* buf;
    uint32_t buf_size;
    mldrt_link_counters counters;
};

// What creation needs to know about a system interface.
struct mldrt_interface_desc {
    char name[MLDRT_IFNAME_LEN + 1];
    uint8_t addr[16];
    uint32_t ifindex;
};

constexpr uint32_t MLDRT_DEFAULT_IF_BUF_SIZE = 2048;  // when the MTU cannot be read
constexpr uint32_t MLDRT_MAX_IF_BUF_SIZE = 65535;     // no IPv6 packet is larger without jumbograms
constexpr uint32_t MLDRT_MIN_IF_BUF_SIZE = 1280;      // the IPv6 minimum MTU

// The record named like `desc` if there is one, else a new record at the head of the list.
mldrt_interface* mld_add_interface(mldrt_router* r, const mldrt_interface_desc* desc,
                                   uint16_t mifi);
// A new record, not yet on the list, with its socket and options; nullptr after a message.
// Sizes the link's message buffer to its MTU (at least 1280 bytes); false when no buffer of
// that size could be had (a link that had one keeps it).
bool mldrt_set_interface_mtu(mldrt_interface* ifp, uint32_t mtu);
mldrt_interface* mldrt_create_interface(mldrt_router* r, const mldrt_interface_desc* desc,
                                        uint16_t mifi);
// Closes the socket, frees the buffer, unlinks and frees the record.
void mldrt_delete_interface(mldrt_interface* ifp);

mldrt_interface* mldrt_lookup_interface_name(mldrt_router* r, const char* name);
mldrt_interface* mldrt_lookup_interface_index(mldrt_router* r, uint32_t ifindex);
mldrt_interface* mldrt_lookup_interface_addr(mldrt_router* r, const uint8_t* addr);

// Lowest MIF index that no record uses.
uint16_t mldrt_get_new_vifi(mldrt_router* r);

int ipv6_addr_equal(const void* a, const void* b);
int get_interface_mtu(const char* name);

// Blocks every ICMPv6 type but the four MLD ones (queries, v1 reports and dones, v2 reports).
int mldrt_set_mld_icmp_filter(int sock);

#endif
