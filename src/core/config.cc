#include "core/config.h"

#include <cstring>

#include "core/router.h"

namespace {

struct mldrt_confopt {
    const char* keyword;
    int id;
};

// Row 0 is an empty keyword that no token can equal; the last row ends the table.
const mldrt_confopt mldrt_confopts[] = {
    {"", MLDRT_OPT_EMPTY},
    {"UPSTREAM_IFNAME", MLDRT_OPT_UPSTREAM_IFNAME},
    {"ROBUSTNESS_VARIABLE", MLDRT_OPT_ROBUSTNESS_VARIABLE},
    {"QUERY_INTERVAL", MLDRT_OPT_QUERY_INTERVAL},
    {"QUERY_RESPONSE_INTERVAL", MLDRT_OPT_QUERY_RESPONSE_INTERVAL},
    {"LAST_LISTENER_QUERY_INTERVAL", MLDRT_OPT_LAST_LISTENER_QUERY_INTERVAL},
    {"LAST_LISTENER_QUERY_COUNT", MLDRT_OPT_LAST_LISTENER_QUERY_COUNT},
    {"VERBOSE", MLDRT_OPT_VERBOSE},
    {nullptr, MLDRT_OPT_NONE},
};

const char* const kSeparators = " \t\r\n";

bool is_atoi_space(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

struct line_state {
    mldrt_router* r;
    char* save;
    bool upstream_named;
};

char* next_token(line_state* ls) {
    return strtok_r(nullptr, kSeparators, &ls->save);
}

void set_upstream_name(mldrt_router* r, const char* name) {
    // Keep at most 16 characters; the field has room for the terminator, so a longer configured
    // name is cut and then simply matches no kernel interface name (those have at most 15).
    mldrt_copy_ifname(r->upstream_ifname, name);
}

// One line's keyword and its values; false when the robustness check fails.
bool apply_option(line_state* ls, int id) {
    mldrt_router* r = ls->r;
    if (id == MLDRT_OPT_LAST_LISTENER_QUERY_COUNT) {
        const char* value = next_token(ls);
        r->last_listener_query_count = value ? mldrt_atoi(value) : r->robustness;
        id = MLDRT_OPT_VERBOSE;  // a third token on this line sets VERBOSE, as deployed
    }
    const char* value = next_token(ls);
    if (!value) {
        return true;
    }
    switch (id) {
        case MLDRT_OPT_UPSTREAM_IFNAME:
            set_upstream_name(r, value);
            ls->upstream_named = true;
            return true;
        case MLDRT_OPT_ROBUSTNESS_VARIABLE:
            r->robustness = mldrt_atoi(value);
            if (r->robustness == 0) {
                printf("\nMLDRT: Robustness must be greater than %d", 1);
                return false;
            }
            return true;
        case MLDRT_OPT_QUERY_INTERVAL:
            r->query_interval = mldrt_atoi(value);
            return true;
        case MLDRT_OPT_QUERY_RESPONSE_INTERVAL:
            r->query_response_interval = mldrt_atoi(value);
            return true;
        case MLDRT_OPT_LAST_LISTENER_QUERY_INTERVAL:
            r->last_listener_query_interval = mldrt_atoi(value);
            return true;
        default:
            r->verbose = mldrt_atoi(value);
            return true;
    }
}

}  // namespace

uint32_t mldrt_atoi(const char* text) {
    while (is_atoi_space(*text)) {
        text++;
    }
    bool negative = *text == '-';
    if (*text == '-' || *text == '+') {
        text++;
    }
    uint32_t value = 0;
    for (; *text >= '0' && *text <= '9'; text++) {
        value = value * 10u + static_cast<uint32_t>(*text - '0');
    }
    return negative ? 0u - value : value;
}

int mldrt_get_option(const char* token) {
    if (!token) {
        return MLDRT_OPT_NONE;
    }
    for (const mldrt_confopt* opt = mldrt_confopts; opt->keyword; opt++) {
        if (std::strcmp(opt->keyword, token) == 0) {
            return opt->id;
        }
    }
    return MLDRT_OPT_NONE;
}

mldrt_config_result mldrt_read_config(mldrt_router* r, FILE* fp) {
    line_state ls{r, nullptr, false};
    char* line = reinterpret_cast<char*>(r->buf);
    // A line longer than the buffer arrives in pieces; each piece is read as a line.
    while (fgets(line, static_cast<int>(r->buf_size), fp)) {
        int id = mldrt_get_option(strtok_r(line, kSeparators, &ls.save));
        if (id < MLDRT_OPT_UPSTREAM_IFNAME || id > MLDRT_OPT_VERBOSE) {
            continue;
        }
        if (!apply_option(&ls, id)) {
            return MLDRT_CONFIG_BAD_ROBUSTNESS;
        }
    }
    return ls.upstream_named ? MLDRT_CONFIG_OK : MLDRT_CONFIG_NO_UPSTREAM;
}

int mldrt_get_config(mldrt_router* r, const char* path) {
    FILE* fp = fopen(path, "r");
    if (!fp) {
        printf("\nMLDRT: Can't open file %s", path);
        return -1;
    }
    mldrt_config_result result = mldrt_read_config(r, fp);
    if (result == MLDRT_CONFIG_BAD_ROBUSTNESS) {
        // The file stays open on this path, as deployed routers have always done: the process
        // ends right after this failure anyway.
        return -1;
    }
    fclose(fp);
    if (result == MLDRT_CONFIG_NO_UPSTREAM) {
        puts("MLDRT: Upstream interface not specified");
        return -1;
    }
    return 0;
}
