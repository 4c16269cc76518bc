#include "daemon/config.h"

#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "db/router.h"

namespace mldproxy {

namespace {

struct ConfigOption {
    const char* keyword;
    int id;
};

// Row 0 is an empty keyword that no token can equal; the last row ends the table.
const ConfigOption ConfigOptions[] = {
    {"", kOptEmpty},
    {"UPSTREAM_IFNAME", kOptUpstreamIfname},
    {"ROBUSTNESS_VARIABLE", kOptRobustnessVariable},
    {"QUERY_INTERVAL", kOptQueryInterval},
    {"QUERY_RESPONSE_INTERVAL", kOptQueryResponseInterval},
    {"LAST_LISTENER_QUERY_INTERVAL", kOptLastListenerQueryInterval},
    {"LAST_LISTENER_QUERY_COUNT", kOptLastListenerQueryCount},
    {"VERBOSE", kOptVerbose},
    {"DOWNSTREAM_IFNAME", kOptDownstreamIfname},
    {nullptr, kOptNone},
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
        case kOptRobustnessVariable:
        case kOptLastListenerQueryCount:
            return {1, 7};  // a query's QRV field holds 3 bits (section 5.1.8)
        case kOptQueryInterval:
            return {1, 31744};  // the largest QQIC, in seconds (section 5.1.9)
        case kOptQueryResponseInterval:
            return {1, 8387584};  // the largest Maximum Response Code, in ms (section 5.1.3)
        case kOptLastListenerQueryInterval:
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
    uint32_t Router::*field;
    uint32_t value;
    const char* unit;
};
const default_value kDefaults[] = {
    {kOptRobustnessVariable, &Router::robustness, 2, ""},
    {kOptQueryInterval, &Router::query_interval, 125, " s"},
    {kOptQueryResponseInterval, &Router::query_response_interval, 10000, " ms"},
    {kOptLastListenerQueryInterval, &Router::last_listener_query_interval, 1, " s"},
};

struct reader {
    Router* r;
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
    print_message("MLDRT: %s:%u: %s \"%.64s\"\n", rd->path, rd->line, what, word);
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
    Router* r = rd->r;
    if (!name_fits(rd, name)) {
        return;
    }
    for (uint32_t i = 0; i < r->downstream_count; i++) {
        if (std::strcmp(r->downstream_ifnames[i], name) == 0) {
            return;
        }
    }
    if (r->downstream_count == kMaxDownstream) {
        complain(rd, "more than 31 downstream links", name);
        return;
    }
    copy_ifname(r->downstream_ifnames[r->downstream_count++], name);
}

bool is_comment(const char* token) {
    return token[0] == '#';
}

// One line's keyword and its values; false when the robustness check stops the reading.
bool apply_option(reader* rd, int id, const char* keyword) {
    Router* r = rd->r;
    const char* value = next_token(rd);
    if (id == kOptLastListenerQueryCount) {
        // Without a value the count is left to its default, the robustness.
        if (value && !is_comment(value)) {
            take_number(rd, id, value, &r->last_listener_query_count);
        }
        // A third word on this line sets VERBOSE, as deployed configurations rely on.
        value = value ? next_token(rd) : nullptr;
        if (!value || is_comment(value)) {
            return true;
        }
        id = kOptVerbose;
    }
    if (!value || is_comment(value)) {
        complain(rd, "no value for", keyword);
        return true;
    }
    switch (id) {
        case kOptUpstreamIfname:
            // A name too long is kept cut to 16 characters, as older routers did, and named.
            name_fits(rd, value);
            copy_ifname(r->upstream_ifname, value);
            rd->upstream_named = true;
            return true;
        case kOptDownstreamIfname:
            add_downstream(rd, value);
            return true;
        case kOptRobustnessVariable: {
            uint32_t v = 0;
            number n = read_number(value, rule_of(id), &v);
            if (n == number::not_a_number || v == 0) {
                // A robustness of 0 (or none readable) ends the reading at once, as it always
                // has; the line is named as well.
                print_message("\nMLDRT: Robustness must be greater than %d\n", 1);
                complain_about_number(rd, n, id, value);
                return false;
            }
            take_number(rd, id, value, &r->robustness);
            return true;
        }
        case kOptQueryInterval:
            take_number(rd, id, value, &r->query_interval);
            return true;
        case kOptQueryResponseInterval:
            take_number(rd, id, value, &r->query_response_interval);
            return true;
        case kOptLastListenerQueryInterval:
            take_number(rd, id, value, &r->last_listener_query_interval);
            return true;
        default:
            take_number(rd, kOptVerbose, value, &r->verbose);
            return true;
    }
}

// Every key the file left out takes its default, with a line naming it. A last listener query
// interval of 0 would leave every left group waiting for ever, so it is taken as 1 s too.
void take_defaults(reader* rd) {
    Router* r = rd->r;
    for (const default_value& d : kDefaults) {
        if (!(rd->given & (1u << d.id))) {
            r->*d.field = d.value;
            print_message("MLDRT: %s not set, using the RFC 3810 default %u%s\n",
                          ConfigOptions[d.id].keyword, d.value, d.unit);
        }
    }
    if (r->last_listener_query_interval == 0) {
        r->last_listener_query_interval = 1;
        print_message("MLDRT: LAST_LISTENER_QUERY_INTERVAL 0 taken as the RFC 3810 default 1 s\n");
    }
    if (!(rd->given & (1u << kOptLastListenerQueryCount))) {
        r->last_listener_query_count = r->robustness;
        print_message("MLDRT: LAST_LISTENER_QUERY_COUNT not set, using the robustness %u\n",
                      r->robustness);
    }
}

}  // namespace

int get_option(const char* token) {
    if (!token) {
        return kOptNone;
    }
    for (const ConfigOption* opt = ConfigOptions; opt->keyword; opt++) {
        if (std::strcmp(opt->keyword, token) == 0) {
            return opt->id;
        }
    }
    return kOptNone;
}

ConfigResult read_config(Router* r, FILE* fp, const char* path) {
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
            int id = get_option(keyword);
            if (id < kOptUpstreamIfname || id > kOptDownstreamIfname) {
                complain(&rd, "unknown keyword", keyword);
            } else if (!apply_option(&rd, id, keyword)) {
                return ConfigResult::BadRobustness;
            }
        }
        rd.line += whole ? 1u : 0u;
    }
    if (!rd.upstream_named) {
        return ConfigResult::NoUpstream;
    }
    if (rd.bad) {
        return ConfigResult::BadLines;
    }
    take_defaults(&rd);
    return ConfigResult::Ok;
}

int get_config(Router* r, const char* path) {
    FILE* fp = fopen(path, "r");
    if (!fp) {
        print_message("\nMLDRT: Can't open file %s: fopen: %s\n", path, strerror(errno));
        return -1;
    }
    ConfigResult result = read_config(r, fp, path);
    if (result == ConfigResult::BadRobustness) {
        // The file stays open on this path, as deployed routers have always done: the process
        // ends right after this failure anyway.
        return -1;
    }
    fclose(fp);
    if (result == ConfigResult::NoUpstream) {
        print_message("MLDRT: Upstream interface not specified\n");
    }
    return result == ConfigResult::Ok ? 0 : -1;
}

bool is_chosen_link(const Router* r, const char* name) {
    if (r->downstream_count == 0 || std::strncmp(name, r->upstream_ifname, kIfnameLen) == 0) {
        return true;
    }
    for (uint32_t i = 0; i < r->downstream_count; i++) {
        if (std::strncmp(name, r->downstream_ifnames[i], kIfnameLen) == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace mldproxy
