// The configuration file: one "KEYWORD value" per line, read once at start-up into the router
// record. There are no defaults: a key the file does not give leaves its field at 0.
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
    MLDRT_OPT_NONE = 8,
};

// Result of reading an open configuration file.
enum mldrt_config_result : int {
    MLDRT_CONFIG_OK = 0,             // an upstream interface was named
    MLDRT_CONFIG_NO_UPSTREAM = 1,    // read to the end, no UPSTREAM_IFNAME with a value
    MLDRT_CONFIG_BAD_ROBUSTNESS = 2  // stopped at a robustness of 0 (message printed)
};

// atoi's grammar (blanks, sign, digits up to the first other character) accumulated modulo
// 2^32, so a value means the same on every target and overflow is defined.
uint32_t mldrt_atoi(const char* text);

// Id of the keyword that equals `token` exactly, or MLDRT_OPT_NONE (also for no token).
int mldrt_get_option(const char* token);

// Reads the configuration file at `path` into `r`: 0, or -1 after printing why.
int mldrt_get_config(mldrt_router* r, const char* path);

// Reads an already open file into `r`, using r->buf as the line buffer; does not close it.
mldrt_config_result mldrt_read_config(mldrt_router* r, FILE* fp);

#endif
