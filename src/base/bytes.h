// Big-endian (network order) fields of wire messages, read and written byte by byte so that
// neither alignment nor the host's byte order matters.
#ifndef MLDPROXYD_BASE_BYTES_H
#define MLDPROXYD_BASE_BYTES_H

#include <cstdint>

namespace mldproxy {

inline uint16_t get_be16(const uint8_t* p) {
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

inline void put_be16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}

inline uint32_t get_be32(const uint8_t* p) {
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | p[3];
}

// What is left of a received message: every read first asks whether the bytes are there, and
// the cursor only ever shrinks, so nothing beyond what arrived is ever read.
struct Cursor {
    const uint8_t* p;
    uint32_t left;

    bool has(uint32_t n) const { return n <= left; }
    // Takes `n` bytes: their start, or nullptr (and nothing taken) when fewer are left.
    const uint8_t* take(uint32_t n) {
        if (!has(n)) {
            return nullptr;
        }
        const uint8_t* at = p;
        p += n;
        left -= n;
        return at;
    }
};

inline void put_be32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

}  // namespace mldproxy

#endif
