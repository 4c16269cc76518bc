#include "mld/mld.h"

void mldrt_handle_mld_message(mldrt_router*, mldrt_interface*, uint8_t*, const uint8_t*, int) {}
