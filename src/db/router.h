// The one router context and the process-wide flags shared by the main thread and the input
// thread. Everything else in the daemon hangs off `router`.
#ifndef MLDPROXYD_DB_ROUTER_H
#define MLDPROXYD_DB_ROUTER_H

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <cstring>

#include "base/address_index.h"
#include "base/ifname.h"
#include "iface/system_links.h"

namespace mldproxy {

struct Link;
struct LinkDesc;
struct ForwardingEntry;
struct ReportBuilder;
struct Control;

constexpr uint32_t kBufSize = 2048;
constexpr uint32_t kScratchSize = 2048;
constexpr uint32_t kNlBufSize = 4096;
// DOWNSTREAM_IFNAME lines kept: the kernel has 32 MIFs, and one of them is the upstream's.
constexpr uint32_t kMaxDownstream = 31;

// Router-wide counts since the start, for `mldproxyd status`.
struct RouterCounters {
    uint32_t malformed;       // MLD messages dropped as too short or inconsistent
    uint32_t own;             // our own messages, looped back
    uint32_t not_ours;        // messages for no link we serve, or of a kind we do not handle
    uint32_t netlink_events;  // link and address messages read
};

struct Router {
    // Written by the main thread while the input thread runs, hence atomic.
    std::atomic<int> active;
    std::atomic<int> running;
    pthread_t input_thread;
    int32_t router_sock;
    int32_t netlink_sock;
    uint32_t buf_size;
    uint8_t* buf;
    uint32_t scratch_size;
    uint8_t* scratch;
    uint32_t nl_buf_size;
    uint8_t* nl_buf;
    Link* interfaces;
    ForwardingEntry* entries;
    AddressIndex<ForwardingEntry> entry_index;  // beside entries
    Link* upstream;
    // While set, upstream records join this one report instead of leaving one report each.
    ReportBuilder* report_batch;
    uint32_t robustness;
    uint32_t query_interval;
    uint32_t query_response_interval;
    uint32_t last_listener_query_interval;
    uint32_t last_listener_query_count;
    uint32_t verbose;
    uint8_t upstream_addr[16];
    char upstream_ifname[kIfnameLen + 1];  // always terminated
    // The links chosen as downstream; none named means every multicast link is one.
    char downstream_ifnames[kMaxDownstream][kIfnameLen + 1];
    uint32_t downstream_count;
    char group_text[48];
    RouterCounters counters;
    Control* control;              // the control socket and its clients; null while there is none
    SystemLinkTable system_links;  // what routing netlink said of every system interface
    NetlinkDumps netlink_dumps;
    uint32_t forwarding_entries;  // on entries
    bool input_thread_joinable;
};

// Set once a shutdown has begun; the input thread leaves its loop when it sees it.
extern std::atomic<int> g_stop_requested;

// Zero every field of a router record (the record holds atomics, so no memset).
void reset_router(Router* r);

// The link named like `desc` if the router has one, else a new one (configured from the
// router's settings) at the head of its list; nullptr after a message.
Link* add_link(Router* r, const LinkDesc* desc, uint16_t mifi);

}  // namespace mldproxy

#endif
