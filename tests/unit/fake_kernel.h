// The kernel as the unit tests see it: the daemon's system calls are redirected here at link
// time (GNU ld --wrap), recorded, and answered from what the test queued. Descriptors handed
// out by the fake start at kFirstFakeFd; calls on lower (real) descriptors pass through, so the
// test framework's own I/O is untouched. The one exception is close(0): the daemon must never
// close descriptor 0, so such a call is recorded like a fake one and not passed on.
#ifndef MLDPROXYD_TESTS_FAKE_KERNEL_H
#define MLDPROXYD_TESTS_FAKE_KERNEL_H

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace mldproxy {
struct Link;
struct Router;
// The router every test works on (the daemon's own is main's).
extern Router router;
}  // namespace mldproxy

namespace fake {

constexpr int kFirstFakeFd = 500;

struct socket_call {
    int fd, domain, type, protocol;
};
struct sockopt_call {
    int fd, level, name;
    std::vector<uint8_t> value;  // empty for a null option value
    bool null_value;
};
struct sent_message {
    int fd, flags;
    sockaddr_in6 dst;
    std::vector<uint8_t> payload, control;
};
// One datagram for recvmsg(): payload, sender, and the arrival index as IPV6_PKTINFO.
struct datagram {
    std::vector<uint8_t> payload;
    uint8_t src[16];
    uint32_t ifindex;
    bool with_pktinfo;
};
// What SIOCGETSGCNT_IN6 answers for every forwarding entry.
struct sg_answer {
    bool present;
    unsigned long packets, bytes, wrong_if;
};

struct kernel_state {
    int next_fd = kFirstFakeFd;
    int socket_result = 0;  // non-zero: socket() fails with this result
    std::vector<socket_call> sockets;
    std::vector<int> closed;
    std::vector<sockopt_call> sockopts;
    // Decides the result of each setsockopt (default: success).
    std::function<int(const sockopt_call&)> sockopt_result;
    std::vector<std::vector<uint8_t>> sent;            // send(): netlink requests
    std::vector<sent_message> sent_msgs;               // sendmsg()
    std::deque<std::vector<uint8_t>> netlink_batches;  // recv(): one batch per call
    int recv_errno = EAGAIN;  // errno of the next recv() that finds no batch, then EAGAIN again
    std::deque<datagram> datagrams;  // recvmsg()
    int bind_result = 0;
    std::vector<int> recv_flags;     // flags of every recv() (netlink)
    std::vector<int> recvmsg_flags;  // flags of every recvmsg()
    int mtu = 1500;                  // SIOCGIFMTU answer; negative: the ioctl fails
    sg_answer sg_counts{};
    // time() answers a fake clock plus this many seconds, the monotonic clock (clock_gettime) a
    // fake base plus this many milliseconds. Every reset() moves both an hour past their last
    // reading, so a once-a-minute rate limit of an earlier test has lapsed.
    int64_t clock_seconds = 0;
    uint64_t monotonic_ms = 0;
    std::vector<timeval> select_timeouts;  // what every select() was asked to wait
    // openlog() as "ident facility option", then every syslog() record as "priority text".
    std::vector<std::string> syslog;
    // Every call in order, as "socket", "setsockopt 41/203", "close 503", ... for sequences.
    std::vector<std::string> log;
};

kernel_state& kernel();
void reset();
// reset(), then the global router as start-up leaves it before the first interface: zeroed,
// its buffers allocated, fake router and netlink sockets, upstream "up0", the process-wide flags
// and the algebra's result arrays cleared. The caller sets the timer values it wants.
void fresh_router(uint32_t robustness);
// A link of the global router named `name`, link-local address fe80::<ifindex>, registered as
// MIF `mifi`; null when the daemon refuses it.
mldproxy::Link* make_link(const char* name, uint32_t ifindex, uint16_t mifi);
uint64_t monotonic_now_ms();
// One second of the daemon's event loop: the clock moves on a second and one pass runs with
// nothing to read (the membership tick, what else is due, the merge of the changes).
void run_second();
// The values of the setsockopt calls at one level and option, in order.
std::vector<std::vector<uint8_t>> sockopts(int level, int name);

}  // namespace fake

#endif
