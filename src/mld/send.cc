#include "mld/mld.h"

int mldrt_send_general_query(mldrt_router*, mldrt_interface*) {
    return 0;
}

uint32_t mldrt_encode_report_mcast_rec(uint8_t*, const uint8_t*, uint8_t) {
    return MLDRT_MCAST_REC_HDR_LEN;
}

int mldrt_send_report(mldrt_router*, mldrt_interface*, const uint8_t*, const uint8_t*, uint32_t,
                      uint32_t) {
    return 0;
}
