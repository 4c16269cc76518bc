// The configuration file: one "KEYWORD value" per line, read once at start-up into the router
// record. A key the file does not give takes its RFC 3810 default, with a line saying so; a
// line the reader does not understand is named with the file, its line number and the word,
// and makes the configuration bad.
#ifndef MLDPROXYD_DAEMON_CONFIG_H
#define MLDPROXYD_DAEMON_CONFIG_H

#include <cstdint>
#include <cstdio>

namespace mldproxy {

struct Router;

constexpr const char* kConfigPath = "/etc/mld/mld.conf";

// Keyword ids, in table order; kOptNone also means "not a keyword".
enum OptionId : int {
    kOptEmpty = 0,
    kOptUpstreamIfname = 1,
    kOptRobustnessVariable = 2,
    kOptQueryInterval = 3,
    kOptQueryResponseInterval = 4,
    kOptLastListenerQueryInterval = 5,
    kOptLastListenerQueryCount = 6,
    kOptVerbose = 7,
    kOptDownstreamIfname = 8,
    kOptNone = 9,
};

// Result of reading an open configuration file.
enum class ConfigResult {
    Ok,             // an upstream interface was named, every line understood
    NoUpstream,     // read to the end, no UPSTREAM_IFNAME with a value
    BadRobustness,  // stopped at a robustness of 0 (message printed)
    BadLines        // lines not understood (each one named)
};

// Id of the keyword that equals `token` exactly, or kOptNone (also for no token).
int get_option(const char* token);

// Reads the configuration file at `path` into `r`: 0, or -1 after printing why.
int get_config(Router* r, const char* path);

// Reads an already open file into `r`, using r->buf as the line buffer; does not close it.
// `path` names the file in messages.
ConfigResult read_config(Router* r, FILE* fp, const char* path);

// True when the link `name` is to be served: the upstream, a link named by DOWNSTREAM_IFNAME,
// or any link when no DOWNSTREAM_IFNAME was given.
bool is_chosen_link(const Router* r, const char* name);

}  // namespace mldproxy

#endif
