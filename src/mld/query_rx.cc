#include "mld/handlers.h"

// A query heard on a downstream link changes nothing but the link's MLD version, which the
// dispatch has recorded already. Queries from the upstream are answered from the host state.
int mldrt_handle_mld_query(mldrt_router*, mldrt_interface*, const uint8_t*, uint8_t*) {
    return 0;
}
