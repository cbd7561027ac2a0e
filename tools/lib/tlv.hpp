// TLV arrays that come from outside the process (store values, service replies), read only
// after they have been checked against the bytes that hold them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/tlvbuf.h"

namespace zfxtool {

// Calls each(type, length, value) for the elements of the array at array (host-order count
// word and headers, len bytes available), in order, once every element the count claims has
// been found to lie within len: each header whole, each value whole. Returns the bytes the
// array takes, count word and every element with its padding (the last element's padding may
// lie beyond len: a sender may leave it out); 0, having called nothing, when the array does
// not fit.
template <typename Each>
size_t tlv_elements(const uint8_t *array, size_t len, Each &&each) {
    auto u16_at = [&](size_t at) {
        uint16_t v;
        std::memcpy(&v, array + at, sizeof v);
        return v;
    };
    if (len < 4) return 0;
    uint32_t count;
    std::memcpy(&count, array, sizeof count);
    // Every element takes at least its header, so the walk is bounded by the bytes, not the claim.
    if (count > (len - 4) / 4) return 0;
    size_t at = 4;
    for (uint32_t i = 0; i < count; ++i) {
        if (at > len || len - at < 4 || len - at - 4 < u16_at(at + 2)) return 0;
        at += tlvbuf_size_get(u16_at(at + 2));
    }
    const size_t end = at;
    at = 4;
    for (uint32_t i = 0; i < count; ++i) {
        const uint16_t length = u16_at(at + 2);
        each(u16_at(at), length, array + at + 4);
        at += tlvbuf_size_get(length);
    }
    return end;
}

}  // namespace zfxtool
