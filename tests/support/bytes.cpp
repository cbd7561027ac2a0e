#include "bytes.hpp"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zfxtest {

const Bytes kWwn = {0x20, 0x00, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55};

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes le16(uint16_t v) { return {uint8_t(v), uint8_t(v >> 8)}; }
Bytes le32(uint32_t v) { return {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)}; }
Bytes be32(uint32_t v) { return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}; }
Bytes zeros(size_t n) { return Bytes(n, 0); }
Bytes str0(const std::string &s) { return Bytes(s.c_str(), s.c_str() + s.size() + 1); }

Bytes bytes_of(const void *p, size_t n) {
    const auto *b = static_cast<const uint8_t *>(p);
    return n != 0 ? Bytes(b, b + n) : Bytes{};
}

Bytes take(void *p, const uint32_t &len) {
    Bytes b = p != nullptr ? bytes_of(p, len) : Bytes{};
    std::free(p);
    return b;
}

Bytes id_bits(size_t nbytes, const std::vector<int> &ids) {
    Bytes out(nbytes, 0);
    for (int n : ids) out[size_t(n) / 8] |= uint8_t(0x80 >> (n % 8));
    return out;
}

Bytes vsans(const std::vector<int> &members) { return cat({le32(512), id_bits(512, members)}); }

Bytes tlv(uint16_t type, const Bytes &value) {
    Bytes out = cat({le16(type), le16(uint16_t(value.size())), value});
    out.resize(out.size() + (4 - value.size() % 4) % 4, 0);
    return out;
}

Bytes tlv_array(std::initializer_list<Bytes> elements) { return cat({le32(uint32_t(elements.size())), cat(elements)}); }

std::string hex(const Bytes &b) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (uint8_t c : b) s += {digits[c >> 4], digits[c & 15], ' '};
    return s;
}

std::string format(const char *fmt, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    return buf;
}

bool KeyOrder::operator()(const Bytes &a, const Bytes &b) const {
    const size_t n = std::min(a.size(), b.size());
    const int c = n == 0 ? 0 : std::memcmp(a.data(), b.data(), n);
    return c != 0 ? c < 0 : a.size() < b.size();
}

}  // namespace zfxtest
