#include "proxy/proxy.h"

void mldrt_update_host_state(mldrt_router*) {}

void mldrt_clean_host_state(mldrt_router*) {}
