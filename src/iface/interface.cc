#include "base/addr.h"
#include "iface/interface.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/log.h"
#include "base/mld_types.h"

namespace mldproxy {

namespace {

// IPV6_CHECKSUM lives at the raw-socket level on Linux (EINVAL at IPPROTO_IPV6).
constexpr int kSolRaw = 255;
// Offset of the ICMPv6 checksum that the kernel computes and verifies.
constexpr int kIcmp6ChecksumOffset = 2;

int set_int_option(int sock, int level, int name, int value) {
    return setsockopt(sock, level, name, &value, sizeof value);
}

int join_group(int sock, const uint8_t* group, uint32_t ifindex) {
    ipv6_mreq mreq{};
    std::memcpy(&mreq.ipv6mr_multiaddr, group, 16);
    mreq.ipv6mr_interface = ifindex;
    return setsockopt(sock, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, &mreq, sizeof mreq);
}

// The per-interface socket options, in the order routers have always set them; false after
// the failing option's message.
bool set_interface_options(Link* ifp) {
    int s = ifp->sock;
    if (set_int_option(s, SOL_SOCKET, SO_REUSEADDR, 1) < 0) {
        print_failure("MLDRT: SetSockOpt failed for SO_REUSEADDR", "setsockopt");
        return false;
    }
    if (set_int_option(s, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, 1) < 0) {
        print_failure("MLDRT: SetSockOpt failed for IPV6_MULTICAST_HOPS", "setsockopt");
        return false;
    }
    if (set_int_option(s, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, 0) < 0) {
        print_failure("MLDRT: SetSockOpt failed for IPV6_MULTICAST_LOOP", "setsockopt");
        return false;
    }
    int rc = set_int_option(s, IPPROTO_IPV6, IPV6_MULTICAST_IF, static_cast<int>(ifp->ifindex));
    if (rc < 0) {
        print_failure("MLDRT: SetSockOpt failed for IP_MULTICAST_IF", "setsockopt");
        return false;
    }
    if (join_group(s, kAddrAllRouters, ifp->ifindex) < 0) {
        print_failure("MLDRT: SetSockOpt failed for IPV6_ADD_MEMBERSHIP1", "setsockopt");
        return false;
    }
    if (join_group(s, kAddrAllMldv2Routers, ifp->ifindex) < 0) {
        print_failure("MLDRT: SetSockOpt failed for IPV6_ADD_MEMBERSHIP2", "setsockopt");
        return false;
    }
    if (set_int_option(s, kSolRaw, IPV6_CHECKSUM, kIcmp6ChecksumOffset) < 0) {
        print_failure("MLDRT: SetSockOpt failed for IPV6_CHECKSUM", "setsockopt");
        return false;
    }
    if (set_int_option(s, IPPROTO_IPV6, IPV6_RECVPKTINFO, 1) < 0) {
        print_failure("MLDRT: SetSockOpt failed for IPV6_RECVPKTINFO", "setsockopt");
        return false;
    }
    if (set_mld_icmp_filter(s) < 0) {
        print_failure("MLDRT: SetSockOpt failed for ICMP Filter", "setsockopt");
        return false;
    }
    return true;
}

void fill_record(Link* ifp, const LinkDesc* desc, uint16_t mifi, const LinkSettings& s) {
    copy_ifname(ifp->name, desc->name);
    if (s.upstream) {
        ifp->is_upstream = true;
        ifp->querier = false;
    } else {
        ifp->is_upstream = false;
        ifp->querier = true;
    }
    ifp->ifindex = desc->ifindex;
    ifp->query_interval = s.query_interval;
    ifp->query_due_ms = 0;  // the first general query leaves as soon as the link has started
    ifp->query_response_interval = s.query_response_interval;
    ifp->mifi = mifi;
    ifp->mld_version = 2;
    ifp->startup_query_count = s.robustness - 1;  // wraps for robustness 0, as deployed
}

void release_record(Link* ifp) {
    index_free(&ifp->group_index);  // empty by now: groups are released first
    if (ifp->sock > 0) {
        close(ifp->sock);
    }
    free(ifp->buf);
    free(ifp);
}

}  // namespace

int set_mld_icmp_filter(int sock) {
    icmp6_filter filter;
    ICMP6_FILTER_SETBLOCKALL(&filter);
    ICMP6_FILTER_SETPASS(kTypeQuery, &filter);
    ICMP6_FILTER_SETPASS(kTypeV1Report, &filter);
    ICMP6_FILTER_SETPASS(kTypeV1Done, &filter);
    ICMP6_FILTER_SETPASS(kTypeV2Report, &filter);
    return setsockopt(sock, IPPROTO_ICMPV6, ICMP6_FILTER, &filter, sizeof filter);
}

int get_interface_mtu(const char* name) {
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    if (s < 1) {
        return -1;
    }
    ifreq ifr{};
    std::memcpy(ifr.ifr_name, name, strnlen(name, IFNAMSIZ - 1));
    int rc = ioctl(s, SIOCGIFMTU, &ifr);
    close(s);
    return rc < 0 ? -1 : ifr.ifr_mtu;
}

bool set_link_mtu(Link* ifp, uint32_t mtu) {
    // IPv6 links carry at least 1280 bytes, and no message needs more than a packet holds.
    uint32_t size = mtu < kMinIfBufSize ? kMinIfBufSize : mtu > kMaxIfBufSize ? kMaxIfBufSize : mtu;
    if (ifp->buf && size == ifp->buf_size) {
        return true;
    }
    auto* buf = static_cast<uint8_t*>(calloc(1, size));
    if (!buf) {
        return false;  // the old buffer and size stay: messages still fit them
    }
    free(ifp->buf);
    ifp->buf = buf;
    ifp->buf_size = size;
    return true;
}

Link* create_link(const LinkDesc* desc, uint16_t mifi, const LinkSettings& settings) {
    auto* ifp = static_cast<Link*>(calloc(1, sizeof(Link)));
    if (!ifp) {
        print_message("MLDRT: Router interface allocation failed\n");
        return nullptr;
    }
    int mtu = get_interface_mtu(desc->name);
    if (!set_link_mtu(ifp, mtu > 0 ? static_cast<uint32_t>(mtu) : kDefaultIfBufSize)) {
        free(ifp);
        print_message("MLDRT: Interface buffer allocation failed\n");
        return nullptr;
    }
    ifp->sock = socket(AF_INET6, SOCK_RAW, kProtoIcmpv6);
    // A descriptor that select() cannot watch is as useless as none at all.
    if (ifp->sock < 0 || ifp->sock >= FD_SETSIZE) {
        if (ifp->sock < 0) {
            print_failure("MLDRT: Cant open interface socket", "socket");
        } else {
            print_message("MLDRT: Cant open interface socket\n");
        }
        release_record(ifp);
        return nullptr;
    }
    fill_record(ifp, desc, mifi, settings);
    if (!set_interface_options(ifp)) {
        // Released, unlike older routers that kept the half-made record: the next netlink
        // batch for this link tries again from scratch.
        release_record(ifp);
        return nullptr;
    }
    return ifp;
}

void insert_link(Link** links, Link* ifp) {
    ifp->next = *links;
    if (*links) {
        (*links)->pprev = &ifp->next;
    }
    ifp->pprev = links;
    *links = ifp;
}

void delete_link(Link* ifp) {
    if (ifp->pprev) {
        *ifp->pprev = ifp->next;
    }
    if (ifp->next) {
        ifp->next->pprev = ifp->pprev;
    }
    release_record(ifp);
}

Link* find_link_by_name(Link* links, const char* name) {
    for (Link* ifp = links; ifp; ifp = ifp->next) {
        if (std::strncmp(ifp->name, name, kIfnameLen) == 0) {
            return ifp;
        }
    }
    return nullptr;
}

Link* find_link_by_index(Link* links, uint32_t ifindex) {
    for (Link* ifp = links; ifp; ifp = ifp->next) {
        if (ifp->ifindex == ifindex) {
            return ifp;
        }
    }
    return nullptr;
}

Link* find_link_by_address(Link* links, const uint8_t* addr) {
    for (Link* ifp = links; ifp; ifp = ifp->next) {
        if (same_address(ifp->addr, addr)) {
            return ifp;
        }
    }
    return nullptr;
}

uint16_t free_mif_index(const Link* links) {
    for (uint32_t candidate = 0;; candidate++) {
        const Link* ifp = links;
        while (ifp && ifp->mifi != candidate) {
            ifp = ifp->next;
        }
        if (!ifp) {
            return static_cast<uint16_t>(candidate);
        }
    }
}

}  // namespace mldproxy
