#include "db/db.h"

void mldrt_dump_interface_info(mldrt_router*, mldrt_interface*, const char*) {}
