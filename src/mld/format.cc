#include <cstring>

#include "base/bytes.h"
#include "db/db.h"
#include "mld/mld.h"

namespace mldproxy {

namespace {

constexpr uint32_t kMrcFloatFrom = 32768;
constexpr uint32_t kQqicFloatFrom = 128;
constexpr uint32_t kMaxExponent = 7;

}  // namespace

// RFC 3810 section 5.1.3: 1 | exp (3 bits) | mant (12 bits), value = (mant | 0x1000) << (exp+3).
uint16_t encode_max_response_code(uint32_t ms) {
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
uint8_t encode_query_interval_code(uint32_t seconds) {
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

uint8_t encode_robustness(uint32_t robustness) {
    return robustness < 8 ? static_cast<uint8_t>(robustness) : 0;
}

uint32_t encode_bare_record(uint8_t* buf, const uint8_t* group, RecordType rec_type) {
    buf[0] = static_cast<uint8_t>(rec_type);
    buf[1] = 0;
    put_be16(buf + 2, 0);
    std::memcpy(buf + 4, group, kAddrLen);
    return kRecordHeaderLen;
}

uint32_t append_record_source(uint8_t* rec, const uint8_t* src) {
    uint16_t n = get_be16(rec + 2);
    std::memcpy(rec + kRecordHeaderLen + kAddrLen * n, src, kAddrLen);
    put_be16(rec + 2, static_cast<uint16_t>(n + 1));
    return kAddrLen;
}

uint32_t build_record(uint8_t* buf, const uint8_t* group, RecordType rec_type, const Source* list) {
    uint32_t len = encode_bare_record(buf, group, rec_type);
    for (const Source* s = list; s; s = s->next) {
        len += append_record_source(buf, s->address);
    }
    return len;
}

uint32_t list_length(const Source* list) {
    uint32_t n = 0;
    for (; list; list = list->next) {
        n++;
    }
    return n;
}

RecordType current_state_record_type(FilterMode mode) {
    return mode == FilterMode::Exclude ? RecordType::ModeIsExclude : RecordType::ModeIsInclude;
}

}  // namespace mldproxy
