// Where the daemon's messages go, and how often a LAN host can make it repeat one.
//
// Every message goes through print_message (or the log_message family below): to standard output,
// or with --syslog to syslog (facility daemon, ident mldproxyd), one syslog record per line.
//
// Messages caused by what arrives from a link come through log_message*: a LAN host can make the
// daemon repeat one of them as fast as it sends, so each message text is printed at most once a
// second; the next one printed after others were held back says how many: "... (N more like
// this in the last second)". Start-up, configuration and shutdown messages use print_message and
// are never held back.
#ifndef MLDPROXYD_BASE_LOG_H
#define MLDPROXYD_BASE_LOG_H

#include <cstddef>
#include <cstdint>

namespace mldproxy {

// From now on messages go to syslog (true) or to standard output (false, the default).
void log_use_syslog(bool on);

// printf of `fmt` to wherever messages go; returns the text's length.
int print_message(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// A failed system call: "`text`: `call`: strerror(errno)" and a newline.
void print_failure(const char* text, const char* call);
// `len` bytes of text as they are (a long text such as the status, in one piece).
void print_text(const char* text, size_t len);

// printf of `fmt`, unless a message of the same format was printed less than a second ago.
// Returns the text's length either way, as printf would, so callers that pass it on keep doing so.
int log_message(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// puts of `text` (the text and a newline), held back like log_message.
int log_line(const char* text);
// `text` as it is (no newline added), held back like log_message.
int log_text(const char* text);

// Forgets every format seen (a fresh router).
void log_reset();

}  // namespace mldproxy

#endif
