#include "core/config.h"

#include <cerrno>
#include <cstring>

#include "core/log.h"
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
    {"DOWNSTREAM_IFNAME", MLDRT_OPT_DOWNSTREAM_IFNAME},
    {nullptr, MLDRT_OPT_NONE},
};

const char* const kSeparators = " \t\r\n";
// Kernel interface names have at most 15 characters; a longer one can never match a link.
constexpr size_t kMaxKernelIfname = 15;

// What each number may be, by what it has to fit on the wire (RFC 3810 section 5.1).
struct number_rule {
    uint32_t min;
    uint32_t max;
};
number_rule rule_of(int id) {
    switch (id) {
        case MLDRT_OPT_ROBUSTNESS_VARIABLE:
        case MLDRT_OPT_LAST_LISTENER_QUERY_COUNT:
            return {1, 7};  // a query's QRV field holds 3 bits (section 5.1.8)
        case MLDRT_OPT_QUERY_INTERVAL:
            return {1, 31744};  // the largest QQIC, in seconds (section 5.1.9)
        case MLDRT_OPT_QUERY_RESPONSE_INTERVAL:
            return {1, 8387584};  // the largest Maximum Response Code, in ms (section 5.1.3)
        case MLDRT_OPT_LAST_LISTENER_QUERY_INTERVAL:
            // Specific queries carry it in ms without the floating form: 32767 ms at most.
            // 0 is taken as 1 s.
            return {0, 32};
        default:
            return {0, 1};  // VERBOSE: off or on
    }
}

// The RFC 3810 section 9 defaults of a key the file does not give (the last listener query
// count defaults to the robustness).
struct default_value {
    int id;
    uint32_t mldrt_router::*field;
    uint32_t value;
    const char* unit;
};
const default_value kDefaults[] = {
    {MLDRT_OPT_ROBUSTNESS_VARIABLE, &mldrt_router::robustness, 2, ""},
    {MLDRT_OPT_QUERY_INTERVAL, &mldrt_router::query_interval, 125, " s"},
    {MLDRT_OPT_QUERY_RESPONSE_INTERVAL, &mldrt_router::query_response_interval, 10000, " ms"},
    {MLDRT_OPT_LAST_LISTENER_QUERY_INTERVAL, &mldrt_router::last_listener_query_interval, 1, " s"},
};

struct reader {
    mldrt_router* r;
    const char* path;
    uint32_t line;   // 1 for the first line
    char* save;      // strtok_r's position in the line
    uint32_t given;  // bit `id` set: the key was given a value
    bool upstream_named;
    bool bad;  // a line was not understood
};

char* next_token(reader* rd) {
    return strtok_r(nullptr, kSeparators, &rd->save);
}

// The word is cut at 64 characters: enough for any keyword, number or interface name.
void complain(reader* rd, const char* what, const char* word) {
    mldrt_print("MLDRT: %s:%u: %s \"%.64s\"\n", rd->path, rd->line, what, word);
    rd->bad = true;
}

enum class number { ok, not_a_number, out_of_range };

// An optional sign and decimal digits, nothing else; `*value` saturates above 2^32 - 1 so
// that no text overflows, and is 0 for a negative number.
number read_number(const char* text, const number_rule& rule, uint32_t* value) {
    bool negative = *text == '-';
    if (*text == '-' || *text == '+') {
        text++;
    }
    if (*text < '0' || *text > '9') {
        return number::not_a_number;
    }
    uint64_t v = 0;
    for (; *text >= '0' && *text <= '9'; text++) {
        v = v * 10u + static_cast<uint64_t>(*text - '0');
        if (v > UINT32_MAX) {
            v = uint64_t{UINT32_MAX} + 1u;
        }
    }
    if (*text != '\0') {
        return number::not_a_number;
    }
    *value = negative || v > UINT32_MAX ? 0u : static_cast<uint32_t>(v);
    bool in_range = !(negative && v != 0) && v >= rule.min && v <= rule.max;
    return in_range ? number::ok : number::out_of_range;
}

void complain_about_number(reader* rd, number n, int id, const char* value) {
    if (n == number::not_a_number) {
        complain(rd, "not a number", value);
        return;
    }
    number_rule rule = rule_of(id);
    char what[40];
    snprintf(what, sizeof what, "out of range %u-%u", rule.min, rule.max);
    complain(rd, what, value);
}

// Stores a number in its field when it is one and in range, else names the line.
void take_number(reader* rd, int id, const char* value, uint32_t* field) {
    uint32_t v = 0;
    number n = read_number(value, rule_of(id), &v);
    if (n != number::ok) {
        complain_about_number(rd, n, id, value);
        return;
    }
    *field = v;
    rd->given |= 1u << id;
}

bool name_fits(reader* rd, const char* name) {
    if (strlen(name) > kMaxKernelIfname) {
        complain(rd, "interface name longer than 15 characters", name);
        return false;
    }
    return true;
}

void add_downstream(reader* rd, const char* name) {
    mldrt_router* r = rd->r;
    if (!name_fits(rd, name)) {
        return;
    }
    for (uint32_t i = 0; i < r->downstream_count; i++) {
        if (std::strcmp(r->downstream_ifnames[i], name) == 0) {
            return;
        }
    }
    if (r->downstream_count == MLDRT_MAX_DOWNSTREAM) {
        complain(rd, "more than 31 downstream links", name);
        return;
    }
    mldrt_copy_ifname(r->downstream_ifnames[r->downstream_count++], name);
}

bool is_comment(const char* token) {
    return token[0] == '#';
}

// One line's keyword and its values; false when the robustness check stops the reading.
bool apply_option(reader* rd, int id, const char* keyword) {
    mldrt_router* r = rd->r;
    const char* value = next_token(rd);
    if (id == MLDRT_OPT_LAST_LISTENER_QUERY_COUNT) {
        // Without a value the count is left to its default, the robustness.
        if (value && !is_comment(value)) {
            take_number(rd, id, value, &r->last_listener_query_count);
        }
        // A third word on this line sets VERBOSE, as deployed configurations rely on.
        value = value ? next_token(rd) : nullptr;
        if (!value || is_comment(value)) {
            return true;
        }
        id = MLDRT_OPT_VERBOSE;
    }
    if (!value || is_comment(value)) {
        complain(rd, "no value for", keyword);
        return true;
    }
    switch (id) {
        case MLDRT_OPT_UPSTREAM_IFNAME:
            // A name too long is kept cut to 16 characters, as older routers did, and named.
            name_fits(rd, value);
            mldrt_copy_ifname(r->upstream_ifname, value);
            rd->upstream_named = true;
            return true;
        case MLDRT_OPT_DOWNSTREAM_IFNAME:
            add_downstream(rd, value);
            return true;
        case MLDRT_OPT_ROBUSTNESS_VARIABLE: {
            uint32_t v = 0;
            number n = read_number(value, rule_of(id), &v);
            if (n == number::not_a_number || v == 0) {
                // A robustness of 0 (or none readable) ends the reading at once, as it always
                // has; the line is named as well.
                mldrt_print("\nMLDRT: Robustness must be greater than %d\n", 1);
                complain_about_number(rd, n, id, value);
                return false;
            }
            take_number(rd, id, value, &r->robustness);
            return true;
        }
        case MLDRT_OPT_QUERY_INTERVAL:
            take_number(rd, id, value, &r->query_interval);
            return true;
        case MLDRT_OPT_QUERY_RESPONSE_INTERVAL:
            take_number(rd, id, value, &r->query_response_interval);
            return true;
        case MLDRT_OPT_LAST_LISTENER_QUERY_INTERVAL:
            take_number(rd, id, value, &r->last_listener_query_interval);
            return true;
        default:
            take_number(rd, MLDRT_OPT_VERBOSE, value, &r->verbose);
            return true;
    }
}

// Every key the file left out takes its default, with a line naming it. A last listener query
// interval of 0 would leave every left group waiting for ever, so it is taken as 1 s too.
void take_defaults(reader* rd) {
    mldrt_router* r = rd->r;
    for (const default_value& d : kDefaults) {
        if (!(rd->given & (1u << d.id))) {
            r->*d.field = d.value;
            mldrt_print("MLDRT: %s not set, using the RFC 3810 default %u%s\n",
                        mldrt_confopts[d.id].keyword, d.value, d.unit);
        }
    }
    if (r->last_listener_query_interval == 0) {
        r->last_listener_query_interval = 1;
        mldrt_print("MLDRT: LAST_LISTENER_QUERY_INTERVAL 0 taken as the RFC 3810 default 1 s\n");
    }
    if (!(rd->given & (1u << MLDRT_OPT_LAST_LISTENER_QUERY_COUNT))) {
        r->last_listener_query_count = r->robustness;
        mldrt_print("MLDRT: LAST_LISTENER_QUERY_COUNT not set, using the robustness %u\n",
                    r->robustness);
    }
}

}  // namespace

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

mldrt_config_result mldrt_read_config(mldrt_router* r, FILE* fp, const char* path) {
    reader rd{r, path, 1, nullptr, 0, false, false};
    char* line = reinterpret_cast<char*>(r->buf);
    bool in_long_line = false;  // the rest of a line already named as too long
    while (fgets(line, static_cast<int>(r->buf_size), fp)) {
        size_t len = strlen(line);
        bool whole = (len > 0 && line[len - 1] == '\n') || feof(fp);
        bool skip = in_long_line;
        in_long_line = !whole;
        const char* keyword = skip ? nullptr : strtok_r(line, kSeparators, &rd.save);
        if (!skip && !whole) {
            complain(&rd, "line longer than the buffer", keyword ? keyword : "");
        } else if (keyword && !is_comment(keyword)) {
            int id = mldrt_get_option(keyword);
            if (id < MLDRT_OPT_UPSTREAM_IFNAME || id > MLDRT_OPT_DOWNSTREAM_IFNAME) {
                complain(&rd, "unknown keyword", keyword);
            } else if (!apply_option(&rd, id, keyword)) {
                return MLDRT_CONFIG_BAD_ROBUSTNESS;
            }
        }
        rd.line += whole ? 1u : 0u;
    }
    if (!rd.upstream_named) {
        return MLDRT_CONFIG_NO_UPSTREAM;
    }
    if (rd.bad) {
        return MLDRT_CONFIG_BAD_LINES;
    }
    take_defaults(&rd);
    return MLDRT_CONFIG_OK;
}

int mldrt_get_config(mldrt_router* r, const char* path) {
    FILE* fp = fopen(path, "r");
    if (!fp) {
        mldrt_print("\nMLDRT: Can't open file %s: fopen: %s\n", path, strerror(errno));
        return -1;
    }
    mldrt_config_result result = mldrt_read_config(r, fp, path);
    if (result == MLDRT_CONFIG_BAD_ROBUSTNESS) {
        // The file stays open on this path, as deployed routers have always done: the process
        // ends right after this failure anyway.
        return -1;
    }
    fclose(fp);
    if (result == MLDRT_CONFIG_NO_UPSTREAM) {
        mldrt_print("MLDRT: Upstream interface not specified\n");
    }
    return result == MLDRT_CONFIG_OK ? 0 : -1;
}

bool mldrt_is_chosen_link(const mldrt_router* r, const char* name) {
    if (r->downstream_count == 0 || std::strncmp(name, r->upstream_ifname, MLDRT_IFNAME_LEN) == 0) {
        return true;
    }
    for (uint32_t i = 0; i < r->downstream_count; i++) {
        if (std::strncmp(name, r->downstream_ifnames[i], MLDRT_IFNAME_LEN) == 0) {
            return true;
        }
    }
    return false;
}
