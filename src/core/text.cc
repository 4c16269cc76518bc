#include "core/text.h"

#include <arpa/inet.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

bool reserve(mldrt_text* t, uint32_t more) {
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

void mldrt_text_add(mldrt_text* t, const char* fmt, ...) {
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

const char* mldrt_addr_text(const uint8_t* addr, char* buf) {
    static_assert(MLDRT_ADDR_TEXT >= INET6_ADDRSTRLEN, "room for any address");
    if (!inet_ntop(AF_INET6, addr, buf, MLDRT_ADDR_TEXT)) {
        buf[0] = '\0';
    }
    return buf;
}

void mldrt_text_free(mldrt_text* t) {
    free(t->data);
    *t = mldrt_text{};
}
