// The command line:
//   mldproxyd [-f FILE] [-s SOCKET] [--syslog]   run the proxy
//   mldproxyd -t [-f FILE]                   check the configuration file, touch nothing else
//   mldproxyd status [--json] [-s SOCKET]    show the running daemon's state
//   mldproxyd --help | --version
// and the status client, which asks the daemon over its control socket.
#ifndef MLDPROXYD_DAEMON_CLI_H
#define MLDPROXYD_DAEMON_CLI_H

#include <cstdio>

namespace mldproxy {

enum class Command { run, check, status, help, version, bad };

struct Options {
    Command command;
    const char* config_path;  // -f; /etc/mld/mld.conf by default
    const char* socket_path;  // -s; /run/mldproxyd.sock by default
    bool json;                // status --json
    bool syslog;              // --syslog: messages to syslog instead of standard output
    const char* bad_word;     // the word that made the command line bad
};

// Exit status of a command line that could not be understood (usage printed).
constexpr int kExitUsage = 2;

Options parse_options(int argc, const char* const* argv);
void print_usage(FILE* out);
void print_version(FILE* out);
// Connects to the daemon, prints its answer on standard output; the exit status: 0, or 1 when
// no daemon answered (with a message on standard error).
int run_status_client(const Options& o);

}  // namespace mldproxy

#endif
