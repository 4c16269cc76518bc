#include "db/router.h"

#include <cstring>

#include "iface/interface.h"

namespace mldproxy {

std::atomic<int> g_stop_requested{0};

void reset_router(Router* r) {
    r->active = 0;
    r->running = 0;
    r->input_thread = pthread_t{};
    r->router_sock = 0;
    r->netlink_sock = 0;
    r->buf_size = 0;
    r->buf = nullptr;
    r->scratch_size = 0;
    r->scratch = nullptr;
    r->nl_buf_size = 0;
    r->nl_buf = nullptr;
    r->interfaces = nullptr;
    r->entries = nullptr;
    r->entry_index = {};
    r->upstream = nullptr;
    r->report_batch = nullptr;
    r->robustness = 0;
    r->query_interval = 0;
    r->query_response_interval = 0;
    r->last_listener_query_interval = 0;
    r->last_listener_query_count = 0;
    r->verbose = 0;
    std::memset(r->upstream_addr, 0, sizeof r->upstream_addr);
    std::memset(r->upstream_ifname, 0, sizeof r->upstream_ifname);
    std::memset(r->downstream_ifnames, 0, sizeof r->downstream_ifnames);
    r->downstream_count = 0;
    std::memset(r->group_text, 0, sizeof r->group_text);
    r->counters = RouterCounters{};
    r->control = nullptr;
    r->system_links = SystemLinkTable{};
    r->netlink_dumps = NetlinkDumps{};
    r->forwarding_entries = 0;
    r->input_thread_joinable = false;
}

Link* add_link(Router* r, const LinkDesc* desc, uint16_t mifi) {
    Link* ifp = find_link_by_name(r->interfaces, desc->name);
    if (ifp) {
        return ifp;
    }
    bool upstream = std::strncmp(desc->name, r->upstream_ifname, kIfnameLen) == 0;
    LinkSettings settings{upstream, r->query_interval, r->query_response_interval, r->robustness};
    ifp = create_link(desc, mifi, settings);
    if (!ifp) {
        return nullptr;
    }
    if (upstream) {
        std::memcpy(r->upstream_addr, desc->addr, 16);
    }
    insert_link(&r->interfaces, ifp);
    std::memcpy(ifp->addr, desc->addr, 16);
    return ifp;
}

}  // namespace mldproxy
