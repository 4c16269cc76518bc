#include "daemon/control.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/clock.h"
#include "base/log.h"
#include "daemon/status.h"

namespace mldproxy {

namespace {

constexpr uint32_t kMaxRequest = 64;   // "status json\n" and room to spare
constexpr int kMaxClients = 4;         // served at once; more are closed at once
constexpr uint64_t kRequestMs = 1000;  // to send the request
constexpr uint64_t kReplyMs = 5000;    // to read the reply
constexpr int kBacklog = 16;

struct client {
    int fd;  // -1: a free slot
    uint64_t deadline;
    uint32_t in_len;
    char in[kMaxRequest];
    Text out;
    uint32_t sent;
};

}  // namespace

struct Control {
    int fd;
    sockaddr_un addr;
    client clients[kMaxClients];
};

namespace {

void drop(client* c) {
    close(c->fd);
    text_free(&c->out);
    *c = client{};
    c->fd = -1;
}

bool fill_address(sockaddr_un* addr, const char* path) {
    *addr = sockaddr_un{};
    addr->sun_family = AF_UNIX;
    if (strlen(path) >= sizeof addr->sun_path) {
        print_message("MLDRT: Control socket path too long: %s\n", path);
        return false;
    }
    std::memcpy(addr->sun_path, path, strlen(path) + 1);
    return true;
}

// True when a daemon accepts connections at the address: its socket must not be taken over.
bool answered(const sockaddr_un* addr) {
    int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (probe < 0) {
        return false;
    }
    bool yes = connect(probe, reinterpret_cast<const sockaddr*>(addr), sizeof *addr) == 0;
    close(probe);
    return yes;
}

bool fail(const char* call, const char* path, int fd) {
    print_message("MLDRT: Can't %s control socket %s: %s\n", call, path, strerror(errno));
    if (fd >= 0) {
        close(fd);
    }
    return false;
}

// Binds with mode 0600 from the start: no moment in which another user could connect.
bool bind_private(int fd, const sockaddr_un* addr) {
    mode_t old = umask(0177);
    int rc = bind(fd, reinterpret_cast<const sockaddr*>(addr), sizeof *addr);
    umask(old);
    return rc == 0;
}

// A free slot, else the one of the client that has waited longest without sending a request:
// silent connections cannot lock out a client that asks at once.
client* free_slot(Control* ctl) {
    client* oldest = nullptr;
    for (client& c : ctl->clients) {
        if (c.fd < 0) {
            return &c;
        }
        if (c.out.len == 0 && (!oldest || c.deadline < oldest->deadline)) {
            oldest = &c;
        }
    }
    if (oldest) {
        drop(oldest);
    }
    return oldest;
}

// At most as many connections a pass as there are slots, after the clients already connected
// were read: a burst of connections cannot push out a client before its request was looked at.
void accept_clients(Control* ctl, uint64_t now) {
    for (int i = 0; i < kMaxClients; i++) {
        int fd = accept4(ctl->fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            return;
        }
        client* slot = free_slot(ctl);
        if (!slot || fd >= FD_SETSIZE) {
            close(fd);  // busy: the client sees the connection end without a reply
            continue;
        }
        slot->fd = fd;
        slot->deadline = now + kRequestMs;
    }
}

void start_reply(Router* r, client* c, const char* request, uint64_t now) {
    control_answer(r, request, &c->out);
    c->deadline = now + kReplyMs;
    if (c->out.len == 0) {
        drop(c);  // out of memory: nothing to say
    }
}

void read_request(Router* r, client* c, uint64_t now) {
    ssize_t n = recv(c->fd, c->in + c->in_len, kMaxRequest - c->in_len, MSG_DONTWAIT);
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
        drop(c);
        return;
    }
    if (n < 0) {
        return;
    }
    c->in_len += static_cast<uint32_t>(n);
    char* end = static_cast<char*>(std::memchr(c->in, '\n', c->in_len));
    if (end) {
        *end = '\0';
        if (end > c->in && end[-1] == '\r') {
            end[-1] = '\0';
        }
        start_reply(r, c, c->in, now);
    } else if (c->in_len == kMaxRequest) {
        start_reply(r, c, nullptr, now);
    }
}

void write_reply(client* c) {
    ssize_t n =
        send(c->fd, c->out.data + c->sent, c->out.len - c->sent, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
        return;
    }
    if (n <= 0) {
        drop(c);
        return;
    }
    c->sent += static_cast<uint32_t>(n);
    if (c->sent == c->out.len) {
        drop(c);
    }
}

}  // namespace

void control_answer(Router* r, const char* request, Text* reply) {
    if (!request) {
        text_add(reply, "error: request too long\n");
    } else if (std::strcmp(request, "status") == 0 || std::strcmp(request, "status json") == 0) {
        render_status(r, request[6] != '\0', reply);
    } else {
        text_add(reply, "error: unknown request (try \"status\" or \"status json\")\n");
    }
}

bool control_open(Router* r, const char* path) {
    auto* ctl = static_cast<Control*>(calloc(1, sizeof(Control)));
    if (!ctl) {
        print_message("MLDRT: Control socket allocation failed\n");
        return false;
    }
    ctl->fd = -1;
    for (client& c : ctl->clients) {
        c.fd = -1;
    }
    r->control = ctl;
    if (!fill_address(&ctl->addr, path)) {
        return false;
    }
    if (answered(&ctl->addr)) {
        print_message("MLDRT: Another mldproxyd answers on %s\n", path);
        return false;
    }
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return fail("open", path, -1);
    }
    if (fd >= FD_SETSIZE) {
        errno = EMFILE;
        return fail("watch", path, fd);
    }
    unlink(path);  // a stale socket of a daemon that did not end cleanly; none answered above
    if (!bind_private(fd, &ctl->addr)) {
        return fail("bind", path, fd);
    }
    if (listen(fd, kBacklog) < 0) {
        unlink(path);
        return fail("listen on", path, fd);
    }
    ctl->fd = fd;
    return true;
}

void control_close(Router* r) {
    Control* ctl = r->control;
    if (!ctl) {
        return;
    }
    for (client& c : ctl->clients) {
        if (c.fd >= 0) {
            drop(&c);
        }
    }
    if (ctl->fd >= 0) {
        close(ctl->fd);
        unlink(ctl->addr.sun_path);
    }
    free(ctl);
    r->control = nullptr;
}

int control_watch(const Router* r, fd_set* readable, fd_set* writable, int maxfd) {
    const Control* ctl = r->control;
    if (!ctl || ctl->fd < 0) {
        return maxfd;
    }
    FD_SET(ctl->fd, readable);
    maxfd = ctl->fd > maxfd ? ctl->fd : maxfd;
    for (const client& c : ctl->clients) {
        if (c.fd >= 0) {
            FD_SET(c.fd, c.out.len > 0 ? writable : readable);
            maxfd = c.fd > maxfd ? c.fd : maxfd;
        }
    }
    return maxfd;
}

void control_serve(Router* r, const fd_set* readable, const fd_set* writable) {
    Control* ctl = r->control;
    if (!ctl || ctl->fd < 0) {
        return;
    }
    uint64_t now = now_ms();
    for (client& c : ctl->clients) {
        if (c.fd >= 0 && c.out.len == 0 && FD_ISSET(c.fd, readable)) {
            read_request(r, &c, now);
        } else if (c.fd >= 0 && c.out.len > 0 && FD_ISSET(c.fd, writable)) {
            write_reply(&c);
        }
        if (c.fd >= 0 && now >= c.deadline) {
            drop(&c);
        }
    }
    if (FD_ISSET(ctl->fd, readable)) {
        accept_clients(ctl, now);
    }
}

uint64_t control_deadline(const Router* r) {
    uint64_t due = kNever;
    if (r->control) {
        for (const client& c : r->control->clients) {
            due = c.fd >= 0 ? earlier(due, c.deadline) : due;
        }
    }
    return due;
}

}  // namespace mldproxy
