#include "daemon/cli.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "daemon/config.h"
#include "daemon/control.h"

namespace mldproxy {

#ifndef MLD_VERSION
#define MLD_VERSION "unknown"
#endif

namespace {

bool is(const char* word, const char* what) {
    return std::strcmp(word, what) == 0;
}

Options bad(Options o, const char* word) {
    o.command = Command::bad;
    o.bad_word = word;
    return o;
}

int connect_to(const char* path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof addr.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::memcpy(addr.sun_path, path, strlen(path) + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) < 0) {
        int saved = errno;
        close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

}  // namespace

Options parse_options(int argc, const char* const* argv) {
    Options o{Command::run, kConfigPath, kDefaultSocket, false, false, nullptr};
    int i = 1;
    if (i < argc && is(argv[i], "status")) {
        o.command = Command::status;
        i++;
    }
    // Help and version win wherever they stand, so that asking for help never starts the proxy.
    for (int j = 1; j < argc; j++) {
        if (is(argv[j], "--help") || is(argv[j], "-h")) {
            o.command = Command::help;
            return o;
        }
        if (is(argv[j], "--version")) {
            o.command = Command::version;
            return o;
        }
    }
    bool proxy = o.command == Command::run;
    for (; i < argc; i++) {
        const char* w = argv[i];
        bool takes_value = is(w, "-s") || (is(w, "-f") && proxy);
        if (takes_value && i + 1 >= argc) {
            return bad(o, w);
        }
        if (takes_value) {
            (is(w, "-s") ? o.socket_path : o.config_path) = argv[++i];
        } else if (is(w, "--json") && o.command == Command::status) {
            o.json = true;
        } else if (is(w, "-t") && proxy) {
            o.command = Command::check;
        } else if (is(w, "--syslog") && proxy) {
            o.syslog = true;
        } else {
            return bad(o, w);
        }
    }
    return o;
}

void print_usage(FILE* out) {
    fprintf(out,
            "usage: mldproxyd [-f FILE] [-s SOCKET] [--syslog]\n"
            "       mldproxyd -t [-f FILE]\n"
            "       mldproxyd status [--json] [-s SOCKET]\n"
            "       mldproxyd --help | --version\n"
            "\n"
            "Runs the IPv6 multicast (MLD) proxy, or shows the state of the running one.\n"
            "  -f FILE    configuration file (default %s)\n"
            "  -s SOCKET  control socket (default %s)\n"
            "  -t         check the configuration file and exit: 0 good, 1 bad\n"
            "  --syslog   messages to syslog (facility daemon) instead of standard output\n"
            "  --json     status as one JSON object\n",
            kConfigPath, kDefaultSocket);
}

void print_version(FILE* out) {
    fprintf(out, "mldproxyd %s\n", MLD_VERSION);
}

int run_status_client(const Options& o) {
    int fd = connect_to(o.socket_path);
    if (fd < 0) {
        fprintf(stderr, "mldproxyd: can't connect to %s: %s (is the daemon running?)\n",
                o.socket_path, strerror(errno));
        return 1;
    }
    const char* request = o.json ? "status json\n" : "status\n";
    if (send(fd, request, strlen(request), MSG_NOSIGNAL) < 0) {
        fprintf(stderr, "mldproxyd: can't send to %s: %s\n", o.socket_path, strerror(errno));
        close(fd);
        return 1;
    }
    char buf[4096];
    ssize_t n = 0;
    while ((n = recv(fd, buf, sizeof buf, 0)) > 0) {
        fwrite(buf, 1, static_cast<size_t>(n), stdout);
    }
    close(fd);
    return 0;
}

}  // namespace mldproxy
