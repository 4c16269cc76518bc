#include "kernel/upcall.h"

void mldrt_handle_mrt6_msg(mldrt_router*, const uint8_t*, int) {}
