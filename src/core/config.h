// The configuration file: one "KEYWORD value" per line, read once at start-up into the router
// record. A key the file does not give takes its RFC 3810 default, with a line saying so; a
// line the reader does not understand is named with the file, its line number and the word,
// and makes the configuration bad.
#ifndef MLDPROXYD_CORE_CONFIG_H
#define MLDPROXYD_CORE_CONFIG_H

#include <cstdint>
#include <cstdio>

struct mldrt_router;

constexpr const char* MLDRT_CONFIG_PATH = "/etc/mld/mld.conf";

// Keyword ids, in table order; MLDRT_OPT_NONE also means "not a keyword".
enum mldrt_option_id : int {
    MLDRT_OPT_EMPTY = 0,
    MLDRT_OPT_UPSTREAM_IFNAME = 1,
    MLDRT_OPT_ROBUSTNESS_VARIABLE = 2,
    MLDRT_OPT_QUERY_INTERVAL = 3,
    MLDRT_OPT_QUERY_RESPONSE_INTERVAL = 4,
    MLDRT_OPT_LAST_LISTENER_QUERY_INTERVAL = 5,
    MLDRT_OPT_LAST_LISTENER_QUERY_COUNT = 6,
    MLDRT_OPT_VERBOSE = 7,
    MLDRT_OPT_DOWNSTREAM_IFNAME = 8,
    MLDRT_OPT_NONE = 9,
};

// Result of reading an open configuration file.
enum mldrt_config_result : int {
    MLDRT_CONFIG_OK = 0,              // an upstream interface was named, every line understood
    MLDRT_CONFIG_NO_UPSTREAM = 1,     // read to the end, no UPSTREAM_IFNAME with a value
    MLDRT_CONFIG_BAD_ROBUSTNESS = 2,  // stopped at a robustness of 0 (message printed)
    MLDRT_CONFIG_BAD_LINES = 3        // lines not understood (each one named)
};

// Id of the keyword that equals `token` exactly, or MLDRT_OPT_NONE (also for no token).
int mldrt_get_option(const char* token);

// Reads the configuration file at `path` into `r`: 0, or -1 after printing why.
int mldrt_get_config(mldrt_router* r, const char* path);

// Reads an already open file into `r`, using r->buf as the line buffer; does not close it.
// `path` names the file in messages.
mldrt_config_result mldrt_read_config(mldrt_router* r, FILE* fp, const char* path);

// True when the link `name` is to be served: the upstream, a link named by DOWNSTREAM_IFNAME,
// or any link when no DOWNSTREAM_IFNAME was given.
bool mldrt_is_chosen_link(const mldrt_router* r, const char* name);

#endif
