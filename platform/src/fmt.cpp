// Bounded copies and formatters.
#include "platform/fmt.h"

#include <cstring>

namespace {

// Every byte's two lower-case hex digits, looked up whole: a WWN or LUN text is a string of them.
constexpr struct HexPairs {
    char at[256][2];
    constexpr HexPairs() : at() {
        constexpr char kHex[] = "0123456789abcdef";
        for (int b = 0; b < 256; ++b) at[b][0] = kHex[b >> 4], at[b][1] = kHex[b & 0xF];
    }
} kHexPairs;

char *put_hex_byte(char *p, uint8_t b) {
    std::memcpy(p, kHexPairs.at[b], 2);
    return p + 2;
}

}  // namespace

extern "C" {

uint32_t copy_str_to_buf(uint32_t limit, char *dst, const char *src) {
    if (dst == nullptr || limit == 0) return 0;
    uint32_t n = 0;
    if (src != nullptr) {
        n = uint32_t(strnlen(src, limit - 1));
        std::memcpy(dst, src, n);
    }
    dst[n] = '\0';
    return n;
}

uint32_t copy_mem_to_buf(uint32_t limit, void *dst, const void *src, uint32_t len) {
    if (dst == nullptr || src == nullptr) return 0;
    const uint32_t n = len < limit ? len : limit;
    if (n != 0) std::memcpy(dst, src, n);
    return n;
}

char *fmt_wwn(char *buf, plat_wwn wwn) {
    if (buf == nullptr) return nullptr;
    char *p = buf;
    for (size_t i = 0; i < 8; ++i) p = put_hex_byte(p, wwn.bytes[i]) + 1;
    for (size_t i = 2; i < 23; i += 3) buf[i] = ':';
    buf[23] = '\0';
    return buf;
}

char *fmt_lun(char *buf, const uint8_t *lun) {
    if (buf == nullptr) return nullptr;
    char *p = buf;
    if (lun != nullptr) {
        size_t levels = 4;  // down to the last non-zero level, the first always kept
        while (levels > 1 && lun[2 * levels - 2] == 0 && lun[2 * levels - 1] == 0) --levels;
        *p++ = '0';
        *p++ = 'x';
        for (size_t i = 0; i < levels; ++i) {
            if (i != 0) *p++ = '-';
            p = put_hex_byte(put_hex_byte(p, lun[2 * i]), lun[2 * i + 1]);
        }
    }
    *p = '\0';
    return buf;
}

}  // extern "C"
