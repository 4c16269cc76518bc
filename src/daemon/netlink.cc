#include "daemon/netlink.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/clock.h"
#include "daemon/config.h"
#include "base/log.h"
#include "db/db.h"
#include "mld/timers.h"
#include "iface/interface.h"
#include "kernel/mroute.h"
#include "proxy/proxy.h"

namespace mldproxy {

namespace {

constexpr uint32_t kNlHdrLen = 16;
constexpr uint32_t kIfInfoLen = 16;
constexpr uint32_t kIfAddrLen = 8;
constexpr uint32_t kRtaHdrLen = 4;
constexpr int kMaxLinkAttr = 20;
constexpr int kMaxAddrAttr = 7;
static_assert(sizeof(nlmsghdr) == kNlHdrLen, "netlink header is 16 bytes");
static_assert(sizeof(ifinfomsg) == kIfInfoLen, "link message header is 16 bytes");
static_assert(sizeof(ifaddrmsg) == kIfAddrLen, "address message header is 8 bytes");

uint32_t align4(uint32_t n) {
    return (n + 3u) & ~3u;
}

const uint8_t* rta_payload(const rtattr* rta) {
    return reinterpret_cast<const uint8_t*>(rta) + kRtaHdrLen;
}
// Attributes are read by copy: nothing guarantees their alignment inside a received buffer.
rtattr rta_header(const void* p) {
    rtattr hdr;
    std::memcpy(&hdr, p, sizeof hdr);
    return hdr;
}
uint32_t rta_payload_len(const rtattr* rta) {
    return rta_header(rta).rta_len - kRtaHdrLen;
}

void request_dump(Router* r, int type) {
    if (request_netlink_dump(&r->netlink_sock, type, r->netlink_dumps.seq++) == 0) {
        r->netlink_dumps.running =
            type == RTM_GETLINK ? NetlinkDump::links : NetlinkDump::addresses;
    }
}

// Links first, then their addresses: a link's record is made once its link-local address is
// known. A dump asked for while another ran (after lost notifications) starts afterwards.
void end_of_dump(Router* r) {
    NetlinkDump ended = r->netlink_dumps.running;
    r->netlink_dumps.running = NetlinkDump::none;
    if (ended == NetlinkDump::links) {
        request_dump(r, RTM_GETADDR);
    } else if (r->netlink_dumps.again) {
        r->netlink_dumps.again = false;
        request_dump(r, RTM_GETLINK);
    }
}

// The socket's queue overflowed and notifications were lost: the kernel's whole picture is
// asked for again, so no link or address change is missed for good.
void resynchronise(Router* r) {
    if (r->netlink_dumps.running == NetlinkDump::none) {
        request_dump(r, RTM_GETLINK);
    } else {
        r->netlink_dumps.again = true;
    }
}

bool has_address(const SystemLink* entry) {
    static const uint8_t none[16] = {};
    return std::memcmp(entry->addr, none, sizeof none) != 0;
}

void copy_link_name(SystemLink* entry, const rtattr* attr) {
    uint32_t n = rta_payload_len(attr);
    if (n > sizeof entry->name - 1) {
        n = sizeof entry->name - 1;
    }
    std::memcpy(entry->name, rta_payload(attr), n);
    entry->name[n] = '\0';  // the kernel's own terminator, if any, ends the name earlier
}

bool is_link_local(const uint8_t* addr) {
    return addr[0] == 0xfe && (addr[1] & 0xc0) == 0x80;
}

void handle_one_message(Router* r, const nlmsghdr* hdr, const uint8_t* msg) {
    uint16_t type = hdr->nlmsg_type;
    if (type == RTM_NEWLINK || type == RTM_DELLINK || type == RTM_NEWADDR || type == RTM_DELADDR) {
        r->counters.netlink_events++;
    }
    switch (type) {
        case RTM_NEWLINK:
        case RTM_DELLINK:
            handle_link_message(hdr->nlmsg_type != RTM_DELLINK, msg, hdr->nlmsg_len, r);
            break;
        case RTM_NEWADDR:
        case RTM_DELADDR:
            handle_address_message(msg, hdr->nlmsg_len, r);
            break;
        default:
            break;
    }
}

}  // namespace

int start_netlink(Router* r) {
    r->netlink_dumps.running = NetlinkDump::none;
    r->netlink_dumps.again = false;
    request_dump(r, RTM_GETLINK);
    return r->netlink_dumps.running == NetlinkDump::links ? 0 : -1;
}

int request_netlink_dump(int32_t* sockp, int type, uint32_t seq) {
    if (type == RTM_GETLINK && *sockp <= 0) {
        int s = socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
        if (s < 0) {
            print_failure("MLDRT: Can't open bcast socket", "socket");
            return -1;
        }
        sockaddr_nl local{};
        local.nl_family = AF_NETLINK;
        local.nl_groups = kNlGroups;
        int rc = bind(s, reinterpret_cast<sockaddr*>(&local), sizeof local);
        if (rc < 0) {
            print_failure("MLDRT: Can't bind bcast socket", "bind");
            close(s);
            return -1;
        }
        *sockp = s;
    }
    // Netlink header and a one-byte rtgenmsg (family AF_UNSPEC), padded to 20 bytes.
    struct {
        nlmsghdr hdr;
        uint8_t family[4];
    } req{};
    static_assert(sizeof req == 20, "dump request is 20 bytes");
    req.hdr.nlmsg_len = kNlHdrLen + 1;
    req.hdr.nlmsg_type = static_cast<uint16_t>(type);
    req.hdr.nlmsg_flags = NLM_F_REQUEST | NLM_F_ROOT | NLM_F_MATCH;
    req.hdr.nlmsg_seq = seq;
    send(*sockp, &req, sizeof req, 0);
    return 0;
}

bool handle_link(Router* r) {
    ssize_t n = recv(r->netlink_sock, r->nl_buf, r->nl_buf_size, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n < 0) {
        if (errno != ENOBUFS) {
            return false;
        }
        resynchronise(r);
        return true;  // the queue still holds what came after the overflow
    }
    uint32_t left = static_cast<uint32_t>(n);
    const uint8_t* p = r->nl_buf;
    while (left >= kNlHdrLen) {
        nlmsghdr hdr;
        std::memcpy(&hdr, p, sizeof hdr);
        if (hdr.nlmsg_len < kNlHdrLen || hdr.nlmsg_len > left) {
            break;
        }
        if (hdr.nlmsg_type == NLMSG_DONE || hdr.nlmsg_type == NLMSG_ERROR) {
            end_of_dump(r);  // a refused request ends its dump as an empty one would
        } else {
            handle_one_message(r, &hdr, p);
        }
        uint32_t step = align4(hdr.nlmsg_len);
        if (step >= left) {
            break;
        }
        p += step;
        left -= step;
    }
    return true;
}

void parse_attributes(const rtattr** tb, int max, const rtattr* rta, uint32_t len) {
    std::memset(tb, 0, sizeof(*tb) * static_cast<size_t>(max + 1));
    const uint8_t* p = reinterpret_cast<const uint8_t*>(rta);
    while (len >= kRtaHdrLen) {
        rtattr hdr = rta_header(p);
        if (hdr.rta_len < kRtaHdrLen || hdr.rta_len > len) {
            return;
        }
        if (hdr.rta_type <= max) {
            tb[hdr.rta_type] = reinterpret_cast<const rtattr*>(p);
        }
        uint32_t step = align4(hdr.rta_len);
        if (step >= len) {
            return;
        }
        p += step;
        len -= step;
    }
}

void handle_link_message(bool is_new, const uint8_t* msg, uint32_t len, Router* r) {
    if (len < kNlHdrLen + kIfInfoLen) {
        return;
    }
    ifinfomsg ifi;
    std::memcpy(&ifi, msg + kNlHdrLen, sizeof ifi);
    const rtattr* tb[kMaxLinkAttr + 1];
    const auto* attrs = reinterpret_cast<const rtattr*>(msg + kNlHdrLen + kIfInfoLen);
    parse_attributes(tb, kMaxLinkAttr, attrs, len - kNlHdrLen - kIfInfoLen);
    bool usable = (ifi.ifi_flags & IFF_MULTICAST) && !(ifi.ifi_flags & IFF_LOOPBACK);
    SystemLink* entry = nullptr;
    if (tb[IFLA_IFNAME] && tb[IFLA_MTU] && usable) {
        entry = system_link_get(&r->system_links, static_cast<uint32_t>(ifi.ifi_index));
    }
    if (!entry) {
        return;
    }
    // The link keeps the address it had: addresses come and go by address messages alone.
    uint32_t ifindex = entry->ifindex;
    uint8_t named_left_alone = entry->named_left_alone;
    uint8_t addr[16];
    std::memcpy(addr, entry->addr, sizeof addr);
    std::memset(entry, 0, sizeof *entry);
    entry->state = kSystemLinkFilled;
    entry->ifindex = ifindex;
    entry->named_left_alone = named_left_alone;
    std::memcpy(entry->addr, addr, sizeof addr);
    copy_link_name(entry, tb[IFLA_IFNAME]);
    if (rta_payload_len(tb[IFLA_MTU]) == sizeof entry->mtu) {
        std::memcpy(&entry->mtu, rta_payload(tb[IFLA_MTU]), sizeof entry->mtu);
    }
    entry->event = is_new ? kSystemLinkNew : kSystemLinkDeleted;
    entry->up = (ifi.ifi_flags & IFF_UP) ? 1 : 0;
    if (!is_new) {
        apply_system_link(r, entry);
        system_link_remove(&r->system_links, ifindex);
    } else if (has_address(entry)) {
        apply_system_link(r, entry);
    }
}

void handle_address_message(const uint8_t* msg, uint32_t len, Router* r) {
    if (len < kNlHdrLen + kIfAddrLen) {
        return;
    }
    ifaddrmsg ifa;
    std::memcpy(&ifa, msg + kNlHdrLen, sizeof ifa);
    if (ifa.ifa_family != AF_INET6) {
        return;
    }
    const rtattr* tb[kMaxAddrAttr + 1];
    const auto* attrs = reinterpret_cast<const rtattr*>(msg + kNlHdrLen + kIfAddrLen);
    parse_attributes(tb, kMaxAddrAttr, attrs, len - kNlHdrLen - kIfAddrLen);
    const rtattr* attr = tb[IFA_LOCAL] ? tb[IFA_LOCAL] : tb[IFA_ADDRESS];
    // New and deleted addresses are handled alike: either way the entry learns the address.
    if (attr && rta_payload_len(attr) == 16 && is_link_local(rta_payload(attr))) {
        SystemLink* entry = system_link_find(&r->system_links, ifa.ifa_index);
        if (entry && entry->state == kSystemLinkFilled) {
            std::memcpy(entry->addr, rta_payload(attr), 16);
            apply_system_link(r, entry);
        }
    }
}

void apply_system_link(Router* r, SystemLink* entry) {
    if (entry->state != kSystemLinkFilled) {
        return;
    }
    // With DOWNSTREAM_IFNAME lines, a link they do not name gets no record, MIF or query: a
    // container's veth, a guest bridge or a PPP carrier is no place for the proxy's traffic.
    if (!is_chosen_link(r, entry->name)) {
        // A chosen link renamed to a name not chosen is no downstream any more.
        if (find_link_by_index(r->interfaces, entry->ifindex)) {
            handle_link_down(r, entry);
        }
        if (!entry->named_left_alone) {
            print_message("MLDRT: Link %s is not a DOWNSTREAM_IFNAME, left alone\n", entry->name);
            entry->named_left_alone = 1;
        }
        return;
    }
    uint8_t ev = entry->event;
    if (ev & kSystemLinkRestart) {
        handle_link_down(r, entry);
        handle_link_up(r, entry);
    } else if (ev & kSystemLinkUp) {
        handle_link_up(r, entry);
    } else if (ev & kSystemLinkDown) {
        handle_link_down(r, entry);
    } else if (ev & kSystemLinkByFlag) {
        if (entry->up) {
            handle_link_up(r, entry);
        } else {
            handle_link_down(r, entry);
        }
    }
}

namespace {

// A link already known by its index: a new name or MTU is taken into its record, so that a
// renamed link keeps its MIF and its groups, and messages always fit the link. A name that
// changes the link's role (to or from the upstream's) makes it a new link.
bool refresh_known_link(Router* r, const SystemLink* entry) {
    Link* ifp = find_link_by_index(r->interfaces, entry->ifindex);
    if (!ifp) {
        return false;
    }
    bool upstream_name = std::strcmp(entry->name, r->upstream_ifname) == 0;
    if (ifp->is_upstream != upstream_name) {
        handle_link_down(r, entry);
        return false;
    }
    copy_ifname(ifp->name, entry->name);
    if (entry->mtu != 0) {
        set_link_mtu(ifp, entry->mtu);
    }
    return true;
}

}  // namespace

void handle_link_up(Router* r, const SystemLink* entry) {
    if (refresh_known_link(r, entry)) {
        return;
    }
    LinkDesc desc{};
    copy_ifname(desc.name, entry->name);
    std::memcpy(desc.addr, entry->addr, 16);
    desc.ifindex = entry->ifindex;
    Link* ifp = add_link(r, &desc, free_mif_index(r->interfaces));
    if (!ifp) {
        return;
    }
    if (!kernel_add_mif(r->router_sock, ifp->mifi, ifp->ifindex)) {
        delete_link(ifp);
        return;
    }
    if (ifp->is_upstream) {
        r->upstream = ifp;
        r->active = 1;
        // Every querier sends a general query at once.
        uint64_t now = now_ms();
        for (Link* it = r->interfaces; it; it = it->next) {
            it->query_due_ms = now;
        }
        rewrite_kernel_forwarding(r);
        // The new upstream hears the whole state in the merge after this netlink batch.
        restart_host_state(r);
    }
}

void handle_link_down(Router* r, const SystemLink* entry) {
    Link* ifp = find_link_by_index(r->interfaces, entry->ifindex);
    if (!ifp) {
        return;
    }
    if (ifp->is_upstream) {
        r->active = 0;
        final_membership_pass(r);
        report_changes(r);
        r->upstream = nullptr;
    } else {
        age_link_groups(r, ifp);
    }
    release_link_groups(r, ifp);
    kernel_delete_mif(r->router_sock, ifp->mifi, ifp->ifindex);
    delete_link(ifp);
}

}  // namespace mldproxy
