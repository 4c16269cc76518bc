#include <cstring>

#include "core/bytes.h"
#include "db/db.h"
#include "mld/mld.h"

namespace {

constexpr uint32_t kMrcFloatFrom = 32768;
constexpr uint32_t kQqicFloatFrom = 128;
constexpr uint32_t kMaxExponent = 7;

}  // namespace

// RFC 3810 section 5.1.3: 1 | exp (3 bits) | mant (12 bits), value = (mant | 0x1000) << (exp+3).
uint16_t mldrt_encode_mrc(uint32_t ms) {
    if (ms < kMrcFloatFrom) {
        return static_cast<uint16_t>(ms);
    }
    for (uint32_t e = 0; e <= kMaxExponent; e++) {
        uint32_t m = ms >> (e + 3);
        if (m < 8192) {
            return static_cast<uint16_t>(0x8000 | (e << 12) | (m - 4096));
        }
    }
    return static_cast<uint16_t>(ms);
}

// RFC 3810 section 5.1.9: 1 | exp (3 bits) | mant (4 bits), value = (mant | 0x10) << (exp+3).
uint8_t mldrt_encode_qqic(uint32_t seconds) {
    if (seconds < kQqicFloatFrom) {
        return static_cast<uint8_t>(seconds);
    }
    for (uint32_t e = 0; e <= kMaxExponent; e++) {
        uint32_t m = seconds >> (e + 3);
        if (m < 32) {
            return static_cast<uint8_t>(0x80 | (e << 4) | (m - 16));
        }
    }
    return static_cast<uint8_t>(seconds);
}

uint8_t mldrt_encode_qrv(uint32_t robustness) {
    return robustness < 8 ? static_cast<uint8_t>(robustness) : 0;
}

uint32_t mldrt_encode_report_mcast_rec(uint8_t* buf, const uint8_t* group, uint8_t rec_type) {
    buf[0] = rec_type;
    buf[1] = 0;
    mldrt_put_be16(buf + 2, 0);
    std::memcpy(buf + 4, group, MLDRT_ADDR_LEN);
    return MLDRT_MCAST_REC_HDR_LEN;
}

uint32_t mldrt_append_src_to_mcast_rec(uint8_t* rec, const uint8_t* src) {
    uint16_t n = mldrt_get_be16(rec + 2);
    std::memcpy(rec + MLDRT_MCAST_REC_HDR_LEN + MLDRT_ADDR_LEN * n, src, MLDRT_ADDR_LEN);
    mldrt_put_be16(rec + 2, static_cast<uint16_t>(n + 1));
    return MLDRT_ADDR_LEN;
}

uint32_t mldrt_build_mcast_record(uint8_t* buf, const uint8_t* group, uint8_t rec_type,
                                  const mldrt_src* list) {
    uint32_t len = mldrt_encode_report_mcast_rec(buf, group, rec_type);
    for (const mldrt_src* s = list; s; s = s->next) {
        len += mldrt_append_src_to_mcast_rec(buf, s->src_addr);
    }
    return len;
}

uint32_t mldrt_srclist_len(const mldrt_src* list) {
    uint32_t n = 0;
    for (; list; list = list->next) {
        n++;
    }
    return n;
}

uint8_t mldrt_get_rectype_from_group_mode(uint32_t mode) {
    if (mode == 0) {
        return MLDRT_REC_MODE_IS_INCLUDE;
    }
    return mode == 1 ? MLDRT_REC_MODE_IS_EXCLUDE : 0;
}
