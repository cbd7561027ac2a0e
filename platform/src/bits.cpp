// Generic bit-array helpers: byte bit reversal and run-length compression of bit fields.
#include "platform/bits.h"

#include <cstring>

extern "C" {
int32_t range_print_cursor;
}

namespace {

// Reads a LEB128 varint of at most 32 bits; false when truncated or too long.
bool read_varint(const uint8_t *&p, const uint8_t *end, uint32_t &out) {
    uint32_t v = 0;
    for (int shift = 0; shift < 35; shift += 7) {
        if (p == end) return false;
        uint8_t b = *p++;
        if (shift == 28 && (b & 0x70)) return false;  // more than 32 bits
        v |= uint32_t(b & 0x7F) << shift;
        if (!(b & 0x80)) {
            out = v;
            return true;
        }
    }
    return false;
}

struct Writer {
    uint8_t *p;
    uint8_t *end;
    bool ok = true;
    void byte(uint8_t b) {
        if (p == end) ok = false;
        else *p++ = b;
    }
    void varint(uint32_t v) {
        do {
            uint8_t b = v & 0x7F;
            v >>= 7;
            byte(v ? uint8_t(b | 0x80) : b);
        } while (v && ok);
    }
};

inline bool bit_at(const uint8_t *bits, uint32_t p) { return bits[p >> 3] & (0x80u >> (p & 7)); }

}  // namespace

extern "C" {

uint32_t byte_bitswap(uint32_t b) {
    uint32_t x = b & 0xFF;
    x = ((x & 0xF0) >> 4) | ((x & 0x0F) << 4);
    x = ((x & 0xCC) >> 2) | ((x & 0x33) << 2);
    x = ((x & 0xAA) >> 1) | ((x & 0x55) << 1);
    return x;
}

int32_t bits_compress(const void *src, void *dst, uint32_t dst_size) {
    if (src == nullptr || dst == nullptr) return -1;
    uint32_t nbytes;
    std::memcpy(&nbytes, src, 4);
    if (nbytes > 0x1FFFFFFFu) return -1;  // N must fit 32 bits
    const uint8_t *bits = static_cast<const uint8_t *>(src) + 4;
    const uint32_t n = nbytes * 8;
    Writer w{static_cast<uint8_t *>(dst), static_cast<uint8_t *>(dst) + dst_size};
    w.varint(n);
    if (n == 0) return w.ok ? int32_t(w.p - static_cast<uint8_t *>(dst)) : -1;
    bool cur = bit_at(bits, 0);
    w.byte(cur ? 1 : 0);
    uint32_t run = 0;
    for (uint32_t p = 0; p < n && w.ok; ++p) {
        // Whole bytes of the current value are skipped at once.
        if ((p & 7) == 0 && p + 8 <= n && bits[p >> 3] == (cur ? 0xFF : 0x00)) {
            run += 8;
            p += 7;
            continue;
        }
        if (bit_at(bits, p) == cur) {
            ++run;
        } else {
            w.varint(run);
            cur = !cur;
            run = 1;
        }
    }
    w.varint(run);
    return w.ok ? int32_t(w.p - static_cast<uint8_t *>(dst)) : -1;
}

int32_t bits_uncompress(const void *src, uint32_t src_len, void *dst) {
    if (src == nullptr || dst == nullptr) return -1;
    const uint8_t *p = static_cast<const uint8_t *>(src);
    const uint8_t *end = p + src_len;
    uint32_t room;
    std::memcpy(&room, dst, 4);
    uint8_t *bits = static_cast<uint8_t *>(dst) + 4;
    uint32_t n;
    if (!read_varint(p, end, n)) return -1;
    if (room > 0x1FFFFFFFu || n > room * 8) return -1;
    std::memset(bits, 0, room);
    if (n == 0) return p == end ? 0 : -1;
    if (p == end || *p > 1) return -1;
    bool cur = *p++ == 1;
    uint32_t pos = 0;
    while (pos < n) {
        uint32_t run;
        if (!read_varint(p, end, run) || run == 0 || run > n - pos) return -1;
        if (cur) {
            for (uint32_t i = pos; i < pos + run; ++i) bits[i >> 3] |= uint8_t(0x80u >> (i & 7));
        }
        pos += run;
        cur = !cur;
    }
    return p == end ? 0 : -1;
}

}  // extern "C"
