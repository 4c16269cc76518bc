// Arbitrary bytes as the configuration file: the reader must stay within its line buffer and
// keep the upstream name terminated.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "daemon/config.h"
#include "db/router.h"
#include "fake_kernel.h"

using namespace mldproxy;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    std::vector<uint8_t> copy(data, data + size);
    FILE* fp = fmemopen(copy.data(), size, "r");
    if (!fp) {
        return 0;
    }
    reset_router(&router);
    router.buf_size = kBufSize;
    router.buf = static_cast<uint8_t*>(calloc(1, router.buf_size));
    read_config(&router, fp, "mld.conf");
    if (std::strlen(router.upstream_ifname) > kIfnameLen) {
        abort();
    }
    fclose(fp);
    free(router.buf);
    return 0;
}
