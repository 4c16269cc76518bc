#include "fake_kernel.h"

#include <sys/ioctl.h>
#include <net/if.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <string>

#include "daemon/event_loop.h"
#include "base/log.h"
#include "db/router.h"
#include "db/db.h"
#include "iface/interface.h"
#include "daemon/netlink.h"

using namespace mldproxy;

extern "C" {
int __real_close(int fd);
ssize_t __real_send(int fd, const void* buf, size_t len, int flags);
ssize_t __real_recv(int fd, void* buf, size_t len, int flags);
ssize_t __real_recvmsg(int fd, msghdr* msg, int flags);
ssize_t __real_sendmsg(int fd, const msghdr* msg, int flags);
int __real_setsockopt(int fd, int level, int name, const void* value, socklen_t len);
int __real_bind(int fd, const sockaddr* addr, socklen_t len);
int __real_ioctl(int fd, unsigned long request, ...);
int __real_select(int n, fd_set* r, fd_set* w, fd_set* e, timeval* t);
}

namespace mldproxy {
Router router;
}  // namespace mldproxy

namespace fake {

namespace {
kernel_state g_kernel;
int64_t g_clock_base = 1700000000;    // an hour past the last reading at every reset()
uint64_t g_monotonic_base = 5000000;  // milliseconds; likewise an hour on at every reset()

bool is_fake(int fd) {
    return fd >= kFirstFakeFd;
}

void fill_control(msghdr* msg, const datagram& d) {
    size_t room = msg->msg_controllen;
    msg->msg_controllen = 0;
    if (!d.with_pktinfo || room < CMSG_SPACE(sizeof(in6_pktinfo))) {
        return;
    }
    msg->msg_controllen = CMSG_SPACE(sizeof(in6_pktinfo));
    cmsghdr* c = CMSG_FIRSTHDR(msg);
    c->cmsg_level = IPPROTO_IPV6;
    c->cmsg_type = IPV6_PKTINFO;
    c->cmsg_len = CMSG_LEN(sizeof(in6_pktinfo));
    in6_pktinfo info{};
    info.ipi6_ifindex = d.ifindex;
    std::memcpy(CMSG_DATA(c), &info, sizeof info);
}
}  // namespace

kernel_state& kernel() {
    return g_kernel;
}

void reset() {
    g_clock_base += g_kernel.clock_seconds + 3600;  // never backwards
    g_monotonic_base += g_kernel.monotonic_ms + 3600000;
    g_kernel = kernel_state{};
}

void fresh_router(uint32_t robustness) {
    reset();
    system_link_reset(&router.system_links);
    reset_router(&router);
    clear_work_lists();
    limit_reset();
    log_reset();
    log_use_syslog(false);
    g_stop_requested = 0;
    router.buf_size = kBufSize;
    router.scratch_size = kScratchSize;
    router.nl_buf_size = kNlBufSize;
    router.buf = static_cast<uint8_t*>(calloc(1, router.buf_size));
    router.scratch = static_cast<uint8_t*>(calloc(1, router.scratch_size));
    router.nl_buf = static_cast<uint8_t*>(calloc(1, router.nl_buf_size));
    router.router_sock = g_kernel.next_fd++;
    router.netlink_sock = g_kernel.next_fd++;
    router.robustness = robustness;
    std::strcpy(router.upstream_ifname, "up0");
}

Link* make_link(const char* name, uint32_t ifindex, uint16_t mifi) {
    LinkDesc desc{};
    copy_ifname(desc.name, name);
    desc.addr[0] = 0xfe;
    desc.addr[1] = 0x80;
    desc.addr[15] = static_cast<uint8_t>(ifindex);
    desc.ifindex = ifindex;
    return add_link(&router, &desc, mifi);
}

uint64_t monotonic_now_ms() {
    return g_monotonic_base + g_kernel.monotonic_ms;
}

void run_second() {
    g_kernel.monotonic_ms += 1000;
    uint64_t next_tick = monotonic_now_ms();
    input_pass(&router, &next_tick);
}

std::vector<std::vector<uint8_t>> sockopts(int level, int name) {
    std::vector<std::vector<uint8_t>> out;
    for (const auto& c : g_kernel.sockopts) {
        if (c.level == level && c.name == name) {
            out.push_back(c.value);
        }
    }
    return out;
}

}  // namespace fake

using fake::g_kernel;
using fake::is_fake;

extern "C" {

int __real_socket(int domain, int type, int protocol);

void __wrap_openlog(const char* ident, int option, int facility) {
    g_kernel.syslog.push_back(std::string(ident) + " " + std::to_string(facility) + " " +
                              std::to_string(option));
}
void __wrap_syslog(int priority, const char* fmt, ...) {
    char text[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    g_kernel.syslog.push_back(std::to_string(priority) + " " + text);
}
void __wrap_closelog() {}
int __wrap_socket(int domain, int type, int protocol) {
    if (domain == AF_UNIX) {
        return __real_socket(domain, type, protocol);  // the control socket is a real one
    }
    g_kernel.log.push_back("socket");
    if (g_kernel.socket_result != 0) {
        errno = EPERM;  // so that a message naming the failure shows the kernel's word
        return g_kernel.socket_result;
    }
    int fd = g_kernel.next_fd++;
    g_kernel.sockets.push_back({fd, domain, type, protocol});
    return fd;
}
int __wrap_close(int fd) {
    if (!is_fake(fd) && fd != 0) {
        return __real_close(fd);
    }
    g_kernel.log.push_back("close " + std::to_string(fd));
    g_kernel.closed.push_back(fd);
    return 0;
}
int __wrap_bind(int fd, const sockaddr* addr, socklen_t len) {
    if (!is_fake(fd)) {
        return __real_bind(fd, addr, len);
    }
    g_kernel.log.push_back("bind");
    if (g_kernel.bind_result < 0) {
        errno = EADDRINUSE;
    }
    return g_kernel.bind_result;
}
ssize_t __wrap_send(int fd, const void* buf, size_t len, int flags) {
    if (!is_fake(fd)) {
        return __real_send(fd, buf, len, flags);
    }
    g_kernel.log.push_back("send");
    const auto* p = static_cast<const uint8_t*>(buf);
    g_kernel.sent.emplace_back(p, p + len);
    return static_cast<ssize_t>(len);
}
ssize_t __wrap_recv(int fd, void* buf, size_t len, int flags) {
    if (!is_fake(fd)) {
        return __real_recv(fd, buf, len, flags);
    }
    g_kernel.recv_flags.push_back(flags);
    if (g_kernel.netlink_batches.empty()) {
        errno = g_kernel.recv_errno;
        g_kernel.recv_errno = EAGAIN;
        return -1;
    }
    std::vector<uint8_t> batch = std::move(g_kernel.netlink_batches.front());
    g_kernel.netlink_batches.pop_front();
    const size_t n = std::min(batch.size(), len);
    if (n > 0) {
        std::memcpy(buf, batch.data(), n);
    }
    return static_cast<ssize_t>(n);
}
ssize_t __wrap_recvmsg(int fd, msghdr* msg, int flags) {
    if (!is_fake(fd)) {
        return __real_recvmsg(fd, msg, flags);
    }
    g_kernel.log.push_back("recvmsg");
    g_kernel.recvmsg_flags.push_back(flags);
    if (g_kernel.datagrams.empty()) {
        return -1;
    }
    fake::datagram d = std::move(g_kernel.datagrams.front());
    g_kernel.datagrams.pop_front();
    const size_t n = std::min(d.payload.size(), msg->msg_iov[0].iov_len);
    if (n > 0) {
        std::memcpy(msg->msg_iov[0].iov_base, d.payload.data(), n);
    }
    if (msg->msg_name && msg->msg_namelen >= sizeof(sockaddr_in6)) {
        sockaddr_in6 from{};
        from.sin6_family = AF_INET6;
        std::memcpy(&from.sin6_addr, d.src, 16);
        std::memcpy(msg->msg_name, &from, sizeof from);
    }
    fake::fill_control(msg, d);
    return static_cast<ssize_t>(n);
}
ssize_t __wrap_sendmsg(int fd, const msghdr* msg, int flags) {
    if (!is_fake(fd)) {
        return __real_sendmsg(fd, msg, flags);
    }
    g_kernel.log.push_back("sendmsg");
    fake::sent_message m{};
    m.fd = fd;
    m.flags = flags;
    if (msg->msg_name) {
        std::memcpy(&m.dst, msg->msg_name, sizeof m.dst);
    }
    for (size_t i = 0; i < msg->msg_iovlen; i++) {
        const auto* p = static_cast<const uint8_t*>(msg->msg_iov[i].iov_base);
        m.payload.insert(m.payload.end(), p, p + msg->msg_iov[i].iov_len);
    }
    const auto* c = static_cast<const uint8_t*>(msg->msg_control);
    m.control.assign(c, c + msg->msg_controllen);
    g_kernel.sent_msgs.push_back(m);
    return static_cast<ssize_t>(m.payload.size());
}
int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t len) {
    if (!is_fake(fd)) {
        return __real_setsockopt(fd, level, name, value, len);
    }
    g_kernel.log.push_back("setsockopt " + std::to_string(level) + "/" + std::to_string(name));
    fake::sockopt_call call{fd, level, name, {}, value == nullptr};
    if (value) {
        const auto* p = static_cast<const uint8_t*>(value);
        call.value.assign(p, p + len);
    }
    g_kernel.sockopts.push_back(call);
    int rc = g_kernel.sockopt_result ? g_kernel.sockopt_result(call) : 0;
    if (rc < 0) {
        errno = EACCES;
    }
    return rc;
}
int __wrap_ioctl(int fd, unsigned long request, ...) {
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    if (!is_fake(fd)) {
        return __real_ioctl(fd, request, arg);
    }
    g_kernel.log.push_back("ioctl");
    if (request == 0x89e1) {  // SIOCGETSGCNT_IN6: the counts of one forwarding entry
        const fake::sg_answer& c = g_kernel.sg_counts;
        auto* words = reinterpret_cast<unsigned long*>(static_cast<uint8_t*>(arg) + 56);
        words[0] = c.packets;
        words[1] = c.bytes;
        words[2] = c.wrong_if;
        return c.present ? 0 : -1;
    }
    if (request != SIOCGIFMTU || g_kernel.mtu < 0) {
        return -1;
    }
    static_cast<ifreq*>(arg)->ifr_mtu = g_kernel.mtu;
    return 0;
}
int __wrap_select(int n, fd_set* r, fd_set* w, fd_set* e, timeval* t) {
    if (n <= fake::kFirstFakeFd) {
        return __real_select(n, r, w, e, t);
    }
    g_kernel.log.push_back("select");
    if (t) {
        g_kernel.select_timeouts.push_back(*t);
        *t = timeval{0, 0};
    }
    return 0;
}
int __real_clock_gettime(clockid_t id, timespec* ts);
int __wrap_clock_gettime(clockid_t id, timespec* ts) {
    if (id != CLOCK_MONOTONIC) {
        return __real_clock_gettime(id, ts);
    }
    uint64_t ms = fake::monotonic_now_ms();
    ts->tv_sec = static_cast<time_t>(ms / 1000u);
    ts->tv_nsec = static_cast<long>(ms % 1000u * 1000000u);
    return 0;
}
time_t __wrap_time(time_t* out) {
    time_t now = static_cast<time_t>(fake::g_clock_base + g_kernel.clock_seconds);
    if (out) {
        *out = now;
    }
    return now;
}
int __wrap_usleep(useconds_t) {
    return 0;  // the daemon never waits on a fake clock
}
}
