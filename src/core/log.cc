#include "core/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "core/clock.h"

namespace {

constexpr uint64_t kIntervalMs = 1000;
constexpr int kFormats = 32;  // more distinct texts than the daemon has: every slot is one text

struct seen {
    const char* fmt;  // the format literal itself identifies the message text
    uint64_t last_ms;
    uint32_t held;
};
seen g_seen[kFormats];

seen* slot_of(const char* fmt) {
    seen* oldest = &g_seen[0];
    for (seen& s : g_seen) {
        if (s.fmt == fmt) {
            return &s;
        }
        oldest = s.last_ms < oldest->last_ms ? &s : oldest;
    }
    *oldest = seen{fmt, 0, 0};
    return oldest;
}

// The text with the count of held-back ones before its newline (or at its end).
int print_with_count(const char* text, uint32_t held) {
    if (held == 0) {
        return fputs(text, stdout) < 0 ? -1 : static_cast<int>(strlen(text));
    }
    size_t len = strlen(text);
    bool newline = len > 0 && text[len - 1] == '\n';
    return printf("%.*s (%u more like this in the last second)%s",
                  static_cast<int>(newline ? len - 1 : len), text, held, newline ? "\n" : "");
}

// Prints `text` unless a message of the same `key` was printed less than a second ago.
int print_keyed(const char* key, const char* text, int len) {
    uint64_t now = mldrt_now_ms();
    seen* s = slot_of(key);
    if (s->last_ms != 0 && now - s->last_ms < kIntervalMs) {
        s->held++;
        return len;  // what printf would have answered: callers pass it on as before
    }
    int n = print_with_count(text, s->held);
    s->last_ms = now;
    s->held = 0;
    return n;
}

}  // namespace

int mldrt_log(const char* fmt, ...) {
    char text[256];
    va_list ap;
    va_start(ap, fmt);
    int len = vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    return print_keyed(fmt, text, len);
}

int mldrt_log_puts(const char* text) {
    char line[256];
    int len = snprintf(line, sizeof line, "%s\n", text);
    return print_keyed(text, line, len);
}

int mldrt_log_str(const char* text) {
    return print_keyed(text, text, static_cast<int>(strlen(text)));
}

void mldrt_log_reset() {
    std::memset(g_seen, 0, sizeof g_seen);
}
