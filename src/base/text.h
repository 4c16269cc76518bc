// A growing text buffer for replies that may be large (the status of ten thousand groups):
// printf-style appends, and one flag that tells whether memory ran out on the way.
#ifndef MLDPROXYD_BASE_TEXT_H
#define MLDPROXYD_BASE_TEXT_H

#include <cstdint>

namespace mldproxy {

struct Text {
    char* data;  // terminated while len > 0
    uint32_t len;
    uint32_t cap;
    bool failed;  // an append did not fit in memory: the text is cut there
};

void text_add(Text* t, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
// Room for the longest IPv6 address text and its terminator.
constexpr uint32_t kAddrText = 46;
// The 16 bytes as IPv6 address text in `buf` (kAddrText bytes); returns `buf`.
const char* address_text(const uint8_t* addr, char* buf);
// Frees the buffer and empties the text.
void text_free(Text* t);

}  // namespace mldproxy

#endif
