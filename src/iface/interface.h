// Interface records: one per multicast-capable link that has a link-local address, each with
// its own raw ICMPv6 socket (for sending and for its memberships), an MTU-sized packet buffer
// and a kernel MIF index.
#ifndef MLDPROXYD_IFACE_INTERFACE_H
#define MLDPROXYD_IFACE_INTERFACE_H

#include <cstdint>

#include "base/address_index.h"
#include "base/ifname.h"

namespace mldproxy {

struct Group;

// What crossed one link since the daemon started, for `mldproxyd status`. MLDv1 reports and
// dones count as reports.
struct LinkCounters {
    uint32_t reports_in;
    uint32_t queries_in;
    uint32_t reports_out;
    uint32_t queries_out;
};

struct Link {
    uint8_t addr[16];           // link-local address
    char name[kIfnameLen + 1];  // always terminated
    uint16_t mifi;
    uint32_t ifindex;
    bool is_upstream;
    int32_t sock;
    int32_t mld_version;  // 1 or 2: the last query heard on the link decides
    bool querier;
    uint32_t query_interval;
    uint64_t query_due_ms;  // the next general query (monotonic milliseconds)
    uint32_t query_response_interval;
    uint32_t startup_query_count;
    uint32_t announce_left;    // start-up report rounds still to send
    uint64_t announce_due_ms;  // when the next round leaves
    Group* groups;
    AddressIndex<Group> group_index;  // beside groups
    Link* next;
    Link** pprev;
    bool started;
    uint8_t* buf;
    uint32_t buf_size;
    LinkCounters counters;
};

// What creation needs to know about a system interface.
struct LinkDesc {
    char name[kIfnameLen + 1];
    uint8_t addr[16];
    uint32_t ifindex;
};

constexpr uint32_t kDefaultIfBufSize = 2048;  // when the MTU cannot be read
constexpr uint32_t kMaxIfBufSize = 65535;     // no IPv6 packet is larger without jumbograms
constexpr uint32_t kMinIfBufSize = 1280;      // the IPv6 minimum MTU

// What a new link takes from the configuration.
struct LinkSettings {
    bool upstream;
    uint32_t query_interval;
    uint32_t query_response_interval;
    uint32_t robustness;
};

// Sizes the link's message buffer to its MTU (at least 1280 bytes); false when no buffer of
// that size could be had (a link that had one keeps it).
bool set_link_mtu(Link* ifp, uint32_t mtu);
// A new record, not yet on a list, with its socket and options; nullptr after a message.
Link* create_link(const LinkDesc* desc, uint16_t mifi, const LinkSettings& settings);
// Puts the record at the head of the list `links`.
void insert_link(Link** links, Link* ifp);
// Closes the socket, frees the buffer, unlinks and frees the record.
void delete_link(Link* ifp);

Link* find_link_by_name(Link* links, const char* name);
Link* find_link_by_index(Link* links, uint32_t ifindex);
Link* find_link_by_address(Link* links, const uint8_t* addr);

// Lowest MIF index that no record of `links` uses.
uint16_t free_mif_index(const Link* links);

int get_interface_mtu(const char* name);

// Blocks every ICMPv6 type but the four MLD ones (queries, v1 reports and dones, v2 reports).
int set_mld_icmp_filter(int sock);

}  // namespace mldproxy

#endif
