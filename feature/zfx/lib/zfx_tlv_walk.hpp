// zfx_tlv_walk.hpp - TLV sizes and the validated walker: the one way the library reads a TLV
// array that came from outside (a reply, a caller's message, a stored record, a received
// message).
//
// The platform's walkers (platform/tlvbuf.h) trust the array they are given: they know no length
// and read every header up to the count word. TlvWalk first checks, against the bytes available,
// that every element the count claims lies within them; an array that fails is not walked at
// all. An array that passes is then walked without another check, by the platform's layout and
// size rule (tlv_elem_size), inline: the walk reads each header once and calls nothing, which
// matters to readers that walk one array per stored record. Usage:
//
//     TlvWalk walk(array, bytes_from_array_start);
//     if (!walk.ok()) return <the function's malformed result>;
//     for (Tlv e; walk.next(e);) { ... e.type, e.len, e.value (NULL when len is 0) ... }
#pragma once

#include "platform/tlvbuf.h"
#include "zfx_internal.hpp"

namespace zfx {

// Bytes one element with an n-byte value occupies, cut to 16 bits as every size computation of
// the zone messages keeps it.
inline uint16_t tlv_size(uint32_t n) { return static_cast<uint16_t>(tlvbuf_size_get(n)); }

// Bytes an element whose header gives length n occupies: the platform's tlvbuf_size_get for a
// 16-bit length (4 + n rounded up to a multiple of 4), without the call.
constexpr uint32_t tlv_elem_size(uint16_t n) { return 4 + ((uint32_t(n) + 3) & ~3u); }

// Value length of a string element: its characters and the terminator, cut to 16 bits.
inline uint16_t tlv_str_len(const char *s) { return static_cast<uint16_t>(std::strlen(s) + 1); }

struct Tlv {
    uint16_t type;
    uint16_t len;
    uint8_t *value;  // inside the array; NULL for an empty value
};

// Copies the element's value into dst, at most n bytes and never past the value's length;
// returns the bytes copied.
inline size_t tlv_copy(void *dst, const Tlv &e, size_t n) {
    const size_t len = e.len < n ? e.len : n;
    if (e.value != nullptr && len != 0) std::memcpy(dst, e.value, len);
    return e.value != nullptr ? len : 0;
}

// Copies a string value into dst: its characters up to the terminator, at most max of them and
// never past the value's length, then a terminator (dst holds max + 1 bytes).
inline void tlv_copy_text(char *dst, const Tlv &e, size_t max) {
    const size_t room = e.len < max ? e.len : max;
    const size_t n = e.value != nullptr ? strnlen(reinterpret_cast<const char *>(e.value), room) : 0;
    if (n != 0) std::memcpy(dst, e.value, n);
    dst[n] = '\0';
}

// True when the array's count word and every element it counts lie within avail bytes from the
// array's start: each header whole, each value whole (the last element's padding may be absent).
bool tlv_array_valid(const void *array, size_t avail);

// Says that an array has passed tlv_array_valid already (a stored record checked where it was
// read): a TlvWalk made with it walks the array without checking it again.
struct TlvChecked {};

// Says that the array is to be checked as the walk goes, each element against the bytes available
// before it is given out, with the same rules as tlv_array_valid: the walk reads each header once
// instead of twice. It stops at the first element that does not lie within them, and ok() is
// false from then on: a reader that may act only on a whole valid array collects what it walks
// and acts once the walk has ended with ok().
struct TlvStepwise {};

class TlvWalk {
public:
    TlvWalk(void *array, size_t avail)
        : array_(static_cast<uint8_t *>(array)), ok_(tlv_array_valid(array, avail)) {
        count_ = ok_ ? load<uint32_t>(array_) : 0;
    }
    TlvWalk(void *array, TlvChecked) : array_(static_cast<uint8_t *>(array)), ok_(true), count_(load<uint32_t>(array_)) {}
    TlvWalk(void *array, size_t avail, TlvStepwise) : array_(static_cast<uint8_t *>(array)), avail_(avail), stepwise_(true) {
        // Every element takes at least its 4-byte header, so a count above avail / 4 cannot hold;
        // refusing it first keeps a walk bounded by the bytes, not by the claim.
        ok_ = array_ != nullptr && avail >= 4 && load<uint32_t>(array_) <= (avail - 4) / 4;
        count_ = ok_ ? load<uint32_t>(array_) : 0;
    }

    bool ok() const { return ok_; }
    uint32_t count() const { return count_; }

    // The next element; false at the end (at once for an array that is not ok).
    bool next(Tlv &e) {
        if (seen_ == count_) return false;
        uint8_t *h = array_ + offset_;
        if (stepwise_ && (uint64_t(offset_) + 4 > avail_ || uint64_t(offset_) + 4 + load<uint16_t>(h + 2) > avail_)) {
            ok_ = false;
            count_ = seen_;
            return false;
        }
        e.type = load<uint16_t>(h);
        e.len = load<uint16_t>(h + 2);
        e.value = e.len != 0 ? h + 4 : nullptr;
        offset_ += tlv_elem_size(e.len);
        ++seen_;
        return true;
    }

private:
    uint8_t *array_;
    size_t avail_ = 0;
    bool stepwise_ = false;
    bool ok_;
    uint32_t count_;
    uint32_t seen_ = 0;
    size_t offset_ = 4;
};

}  // namespace zfx
