#include "daemon/receive.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "base/log.h"
#include "iface/interface.h"
#include "kernel/mroute.h"
#include "proxy/upcall.h"
#include "mld/mld.h"

namespace mldproxy {

namespace {

constexpr size_t kControlLen = 128;

struct receive_frame {
    sockaddr_in6 from;
    iovec iov;
    alignas(cmsghdr) uint8_t control[kControlLen];
    msghdr msg;
};

void prepare(receive_frame* f, uint8_t* buf, uint32_t size) {
    std::memset(f, 0, sizeof *f);
    f->iov.iov_base = buf;
    f->iov.iov_len = size;
    f->msg.msg_name = &f->from;
    f->msg.msg_namelen = sizeof f->from;
    f->msg.msg_iov = &f->iov;
    f->msg.msg_iovlen = 1;
    f->msg.msg_control = f->control;
    f->msg.msg_controllen = sizeof f->control;
}

// The last IPV6_PKTINFO record of the ancillary data, if any.
bool find_pktinfo(msghdr* msg, in6_pktinfo* info) {
    bool found = false;
    for (cmsghdr* c = CMSG_FIRSTHDR(msg); c; c = CMSG_NXTHDR(msg, c)) {
        if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_PKTINFO &&
            c->cmsg_len >= CMSG_LEN(sizeof *info)) {
            std::memcpy(info, CMSG_DATA(c), sizeof *info);
            found = true;
        }
    }
    return found;
}

// A kernel upcall (a whole mrt6msg, Linux may add more) starts with a zero byte and names its
// MIF in host order at bytes 2 and 3; only those for the upstream MIF are upcalls to us. A
// shorter datagram is no upcall, and its bytes beyond what arrived are never looked at.
bool is_upstream_upcall(const Router* r, const uint8_t* buf, ssize_t len) {
    if (len < static_cast<ssize_t>(sizeof(Mrt6Msg))) {
        return false;
    }
    uint16_t mif;
    std::memcpy(&mif, buf + offsetof(Mrt6Msg, im6_mif), sizeof mif);
    return buf[0] == 0 && mif == r->upstream->mifi;
}

}  // namespace

bool handle_input(Router* r, int proto) {
    if (!r->upstream) {
        return false;
    }
    receive_frame f;
    prepare(&f, r->buf, r->buf_size);
    if (proto != kProtoIcmpv6) {
        return false;
    }
    ssize_t n = recvmsg(r->router_sock, &f.msg, MSG_DONTWAIT);
    if (n < 0) {
        return false;
    }
    if (r->active == 0) {
        return true;
    }
    in6_pktinfo info;
    if (!find_pktinfo(&f.msg, &info)) {
        print_message("MLDRT: Could not get receive interface info index was %d\n", 0);
        return true;
    }
    if (is_upstream_upcall(r, r->buf, n)) {
        handle_upcall(r, r->buf, static_cast<int>(n));
        return true;
    }
    Link* ifp = find_link_by_index(r->interfaces, info.ipi6_ifindex);
    if (!ifp) {
        r->counters.not_ours++;  // a link the daemon does not serve
        return true;
    }
    char text[INET6_ADDRSTRLEN];
    if (!inet_ntop(AF_INET6, &f.from.sin6_addr, text, sizeof text)) {
        print_message("mld_rcv : Problem with sender address resolution\n");
        return true;
    }
    uint8_t src[16];
    std::memcpy(src, &f.from.sin6_addr, 16);
    handle_mld_message(r, ifp, r->buf, src, static_cast<int>(n));
    return true;
}

int handle_other_message(Router* r, Link* ifp) {
    receive_frame f;
    prepare(&f, r->buf, r->buf_size);
    return static_cast<int>(recvmsg(ifp->sock, &f.msg, MSG_DONTWAIT));
}

}  // namespace mldproxy
