// The one router context and the process-wide flags shared by the main thread and the input
// thread. Everything else in the daemon hangs off `router`.
#ifndef MLDPROXYD_CORE_ROUTER_H
#define MLDPROXYD_CORE_ROUTER_H

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <cstring>

#include "db/addr_index.h"

struct mldrt_interface;
struct mldrt_mfdb_entry;
struct mldrt_report_builder;
struct mldrt_control;

constexpr uint32_t MLDRT_BUF_SIZE = 2048;
constexpr uint32_t MLDRT_SCRATCH_SIZE = 2048;
constexpr uint32_t MLDRT_NL_BUF_SIZE = 4096;
constexpr uint32_t MLDRT_IFNAME_LEN = 16;  // characters kept of an interface name

// Copies at most MLDRT_IFNAME_LEN characters of a name and terminates the copy (the
// destination has MLDRT_IFNAME_LEN + 1 bytes).
inline void mldrt_copy_ifname(char* dst, const char* src) {
    size_t len = strnlen(src, MLDRT_IFNAME_LEN);
    std::memcpy(dst, src, len);
    dst[len] = '\0';
}
constexpr int MLDRT_PROTO_ICMPV6 = 58;
// DOWNSTREAM_IFNAME lines kept: the kernel has 32 MIFs, and one of them is the upstream's.
constexpr uint32_t MLDRT_MAX_DOWNSTREAM = 31;

// Router-wide counts since the start, for `mldproxyd status`.
struct mldrt_counters {
    uint32_t malformed;       // MLD messages dropped as too short or inconsistent
    uint32_t own;             // our own messages, looped back
    uint32_t not_ours;        // messages for no link we serve, or of a kind we do not handle
    uint32_t netlink_events;  // link and address messages read
};

struct mldrt_router {
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
    mldrt_interface* interfaces;
    mldrt_mfdb_entry* mfdb_list;
    mldrt_addr_index<mldrt_mfdb_entry> mfdb_index;  // beside mfdb_list
    mldrt_interface* upstream;
    // While set, upstream records join this one report instead of leaving one report each.
    mldrt_report_builder* report_batch;
    uint32_t robustness;
    uint32_t query_interval;
    uint32_t query_response_interval;
    uint32_t last_listener_query_interval;
    uint32_t last_listener_query_count;
    uint32_t verbose;
    uint32_t del_mifi;
    uint8_t upstream_addr[16];
    char upstream_ifname[MLDRT_IFNAME_LEN + 1];  // always terminated
    // The links chosen as downstream; none named means every multicast link is one.
    char downstream_ifnames[MLDRT_MAX_DOWNSTREAM][MLDRT_IFNAME_LEN + 1];
    uint32_t downstream_count;
    char group_text[48];
    mldrt_counters counters;
    mldrt_control* control;  // the control socket and its clients; null while there is none
};

extern mldrt_router router;

// Set once a shutdown has begun; the input thread leaves its loop when it sees it.
extern std::atomic<int> g_stop_requested;

// Zero every field of a router record (the record holds atomics, so no memset).
void mldrt_router_zero(mldrt_router* r);

#endif
