// Messages caused by what arrives from a link. A LAN host can make the daemon repeat one of
// them as fast as it sends, so each message text is printed at most once a second; the next
// one printed after others were held back says how many: "... (N more like this in the last
// second)". Start-up, configuration and shutdown messages do not come through here and are
// never held back.
#ifndef MLDPROXYD_CORE_LOG_H
#define MLDPROXYD_CORE_LOG_H

#include <cstdint>

// printf of `fmt`, unless a message of the same format was printed less than a second ago.
// Returns the text's length either way, as printf would, so callers that pass it on keep doing so.
int mldrt_log(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// puts of `text` (the text and a newline), held back like mldrt_log.
int mldrt_log_puts(const char* text);
// `text` as it is (no newline added), held back like mldrt_log.
int mldrt_log_str(const char* text);

// Forgets every format seen (a fresh router).
void mldrt_log_reset();

#endif
