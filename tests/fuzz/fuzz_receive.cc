// Arbitrary bytes as received MLD messages and kernel upcalls on a router with one upstream
// and two downstream links, with timers short enough to expire between messages: the record
// walk, the handlers, the timer pass and the forwarding database must stay within their
// buffers and free what they allocate.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "daemon/daemon.h"
#include "daemon/event_loop.h"
#include "db/router.h"
#include "db/db.h"
#include "fake_kernel.h"
#include "iface/interface.h"
#include "daemon/netlink.h"
#include "proxy/upcall.h"
#include "mld/mld.h"

using namespace mldproxy;

namespace {

void set_up_router() {
    fake::fresh_router(1);
    router.query_interval = 1;
    router.query_response_interval = 1000;
    router.last_listener_query_interval = 1;
    router.last_listener_query_count = 1;
    router.upstream = fake::make_link("up0", 2, 0);
    fake::make_link("dn0", 3, 1);
    fake::make_link("dn1", 4, 2);
    router.active = 1;
}

}  // namespace

// Input: chunks of [selector][length, 2 bytes big-endian][bytes]. Each chunk is one datagram
// handed on in a buffer of exactly its length, so that a read past what arrived is a
// sanitizer report; the selector picks the arrival link (or an upcall), and a second of the
// loop follows every chunk.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    set_up_router();
    uint8_t src[16] = {0xfe, 0x80};
    while (size >= 3) {
        uint8_t selector = data[0];
        size_t len = static_cast<size_t>(data[1]) << 8 | data[2];
        data += 3;
        size -= 3;
        if (len > size) {
            len = size;
        }
        auto* msg = static_cast<uint8_t*>(malloc(len ? len : 1));
        if (len) {
            std::memcpy(msg, data, len);
        }
        src[15] = selector;
        if ((selector & 3) == 3) {
            handle_upcall(&router, msg, static_cast<int>(len));
        } else {
            Link* ifp = router.interfaces;
            for (int i = 0; i < (selector & 3) && ifp->next; i++) {
                ifp = ifp->next;
            }
            handle_mld_message(&router, ifp, msg, src, static_cast<int>(len));
        }
        free(msg);
        fake::run_second();
        data += len;
        size -= len;
    }
    for (int i = 0; i < 4; i++) {
        fake::run_second();
    }
    router.active = 0;
    delete_all_links(&router);
    shut_down(&router);
    return 0;
}
