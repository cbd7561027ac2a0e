// TLV arrays that come from outside (store values, requests, replies): walked only once checked,
// and built in the layout the platform's TLV arrays have (one rule for sizes: tlvbuf_size_get).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "platform/tlvbuf.h"

namespace zfxtool {

// A value of type T from bytes that need not be aligned for it, in the bytes' own order.
template <typename T>
T load(const uint8_t *p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// Calls each(type, length, value) for the elements of the TLV array in the len bytes at array,
// once every element the count claims has been found to lie within them: each header whole, each
// value whole. Returns the bytes the array takes, count word and every element with its padding
// (the last element's padding may lie beyond len: a sender may leave it out), so that what
// follows the array can be found; 0, having called nothing, when the count word or an element it
// counts does not lie within len.
template <typename Each>
size_t tlv_elements(const uint8_t *array, size_t len, Each &&each) {
    if (len < 4) return 0;
    uint32_t count;
    std::memcpy(&count, array, 4);
    // Every element takes at least its 4-byte header, so a count beyond that is a lie.
    if (count > (len - 4) / 4) return 0;
    size_t at = 4;
    for (uint32_t i = 0; i < count; ++i) {
        if (at > len || len - at < 4) return 0;
        uint16_t length;
        std::memcpy(&length, array + at + 2, 2);
        if (len - at - 4 < length) return 0;
        at += tlvbuf_size_get(length);
    }
    const size_t end = at;
    at = 4;
    for (uint32_t i = 0; i < count; ++i) {
        uint16_t type, length;
        std::memcpy(&type, array + at, 2);
        std::memcpy(&length, array + at + 2, 2);
        each(type, length, array + at + 4);
        at += tlvbuf_size_get(length);
    }
    return end;
}

// A TLV array being built: the count word, then the elements in the order they are added.
class TlvArray {
public:
    TlvArray() : bytes_(4, 0) {}
    TlvArray &add(uint16_t type, const void *value, uint16_t length) {
        const size_t at = bytes_.size();
        bytes_.resize(at + tlvbuf_size_get(length), 0);
        std::memcpy(bytes_.data() + at, &type, 2);
        std::memcpy(bytes_.data() + at + 2, &length, 2);
        if (length != 0) std::memcpy(bytes_.data() + at + 4, value, length);
        uint32_t count;
        std::memcpy(&count, bytes_.data(), 4);
        ++count;
        std::memcpy(bytes_.data(), &count, 4);
        return *this;
    }
    // A 32-bit value exactly as given (the caller chooses its byte order).
    TlvArray &add_u32(uint16_t type, uint32_t value) { return add(type, &value, 4); }
    const std::vector<uint8_t> &bytes() const { return bytes_; }

private:
    std::vector<uint8_t> bytes_;
};

}  // namespace zfxtool
