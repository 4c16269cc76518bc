#include "base/text.h"

#include <arpa/inet.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace mldproxy {

namespace {

bool reserve(Text* t, uint32_t more) {
    if (t->failed) {
        return false;
    }
    uint32_t need = t->len + more + 1;
    if (need <= t->cap) {
        return true;
    }
    uint32_t cap = t->cap ? t->cap : 1024;
    while (cap < need) {
        cap *= 2;
    }
    auto* data = static_cast<char*>(realloc(t->data, cap));
    if (!data) {
        t->failed = true;
        return false;
    }
    t->data = data;
    t->cap = cap;
    return true;
}

}  // namespace

void text_add(Text* t, const char* fmt, ...) {
    // Written straight into the room left; only a text that does not fit is written again.
    for (int attempt = 0; attempt < 2 && !t->failed; attempt++) {
        uint32_t room = t->cap - t->len;
        va_list ap;
        va_start(ap, fmt);
        int n = vsnprintf(room ? t->data + t->len : nullptr, room, fmt, ap);
        va_end(ap);
        if (n < 0) {
            return;
        }
        if (static_cast<uint32_t>(n) < room) {
            t->len += static_cast<uint32_t>(n);
            return;
        }
        reserve(t, static_cast<uint32_t>(n));
    }
}

const char* address_text(const uint8_t* addr, char* buf) {
    static_assert(kAddrText >= INET6_ADDRSTRLEN, "room for any address");
    if (!inet_ntop(AF_INET6, addr, buf, kAddrText)) {
        buf[0] = '\0';
    }
    return buf;
}

void text_free(Text* t) {
    free(t->data);
    *t = Text{};
}

}  // namespace mldproxy
