#include "base/log.h"

#include <pthread.h>
#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/clock.h"

namespace mldproxy {

namespace {

constexpr uint64_t kIntervalMs = 1000;
constexpr int kFormats = 32;  // more distinct texts than the daemon has: every slot is one text

struct seen {
    const char* fmt;  // the format literal itself identifies the message text
    uint64_t last_ms;
    uint32_t held;
};
seen g_seen[kFormats];

// syslog takes whole lines, while some messages begin with their newline and the diagnostic
// dumps are printed piece by piece: text is gathered here up to each newline. The main thread
// prints at start-up and shutdown, the input thread in between, so the line is locked.
struct syslog_line {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    bool on = false;
    size_t len = 0;
    char text[480];  // a longer line is cut into records of this size
};
syslog_line g_syslog;

void flush_syslog_line() {
    if (g_syslog.len > 0) {
        syslog(LOG_INFO, "%.*s", static_cast<int>(g_syslog.len), g_syslog.text);
        g_syslog.len = 0;
    }
}

void emit(const char* text, size_t len) {
    if (!g_syslog.on) {
        fwrite(text, 1, len, stdout);
        return;
    }
    pthread_mutex_lock(&g_syslog.lock);
    for (size_t i = 0; i < len; i++) {
        if (text[i] == '\n') {
            flush_syslog_line();  // blank lines make no record
            continue;
        }
        if (g_syslog.len == sizeof g_syslog.text) {
            flush_syslog_line();
        }
        g_syslog.text[g_syslog.len++] = text[i];
    }
    pthread_mutex_unlock(&g_syslog.lock);
}

// vsnprintf into a buffer of the text's own size; the text's length, or -1.
int vemit(const char* fmt, va_list ap) {
    char small[256];
    va_list again;
    va_copy(again, ap);
    int len = vsnprintf(small, sizeof small, fmt, ap);
    if (len >= 0 && static_cast<size_t>(len) < sizeof small) {
        emit(small, static_cast<size_t>(len));
    } else if (len >= 0) {
        char* big = static_cast<char*>(malloc(static_cast<size_t>(len) + 1));
        if (big) {
            vsnprintf(big, static_cast<size_t>(len) + 1, fmt, again);
            emit(big, static_cast<size_t>(len));
            free(big);
        }
    }
    va_end(again);
    return len;
}

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
    size_t len = strlen(text);
    if (held == 0) {
        emit(text, len);
        return static_cast<int>(len);
    }
    bool newline = len > 0 && text[len - 1] == '\n';
    return print_message("%.*s (%u more like this in the last second)%s",
                         static_cast<int>(newline ? len - 1 : len), text, held,
                         newline ? "\n" : "");
}

// Prints `text` unless a message of the same `key` was printed less than a second ago.
int print_keyed(const char* key, const char* text, int len) {
    uint64_t now = now_ms();
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

void log_use_syslog(bool on) {
    if (on) {
        openlog("mldproxyd", LOG_PID, LOG_DAEMON);
    } else {
        closelog();
    }
    g_syslog.len = 0;
    g_syslog.on = on;
}

int print_message(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int len = vemit(fmt, ap);
    va_end(ap);
    return len;
}

void print_failure(const char* text, const char* call) {
    const char* error = strerror(errno);  // read before anything else can change errno
    print_message("%s: %s: %s\n", text, call, error);
}

void print_text(const char* text, size_t len) {
    emit(text, len);
}

int log_message(const char* fmt, ...) {
    char text[256];
    va_list ap;
    va_start(ap, fmt);
    int len = vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    return print_keyed(fmt, text, len);
}

int log_line(const char* text) {
    char line[256];
    int len = snprintf(line, sizeof line, "%s\n", text);
    return print_keyed(text, line, len);
}

int log_text(const char* text) {
    return print_keyed(text, text, static_cast<int>(strlen(text)));
}

void log_reset() {
    std::memset(g_seen, 0, sizeof g_seen);
}

}  // namespace mldproxy
