// zfx_tlv_walk.hpp - TLV sizes and the validated walker: the one way the library reads a TLV
// array that came from outside (a reply, a caller's message, a stored record, a received
// message).
//
// The platform's walkers (platform/tlvbuf.h) trust the array they are given: they know no length
// and read every header up to the count word. TlvWalk first checks, against the bytes available,
// that every element the count claims lies within them, and only then walks with the platform's
// walker; an array that fails is not walked at all. Usage:
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

class TlvWalk {
public:
    // aligned: walk with tlvbuf_aligned_get_next_tlv (arrays the sender declares aligned).
    TlvWalk(void *array, size_t avail, bool aligned = false)
        : array_(array), ok_(tlv_array_valid(array, avail)), aligned_(aligned) {
        count_ = ok_ ? tlvbuf_get_num_tlvs(array, 0) : 0;
    }

    bool ok() const { return ok_; }
    uint32_t count() const { return count_; }

    // The next element; false at the end (at once for an array that is not ok).
    bool next(Tlv &e) {
        if (seen_ == count_) return false;
        void *value = nullptr;
        const int32_t r =
            aligned_ ? tlvbuf_aligned_get_next_tlv(array_, &e.type, &e.len, &value, 0, &cursor_)
                     : tlvbuf_get_next_tlv(array_, &e.type, &e.len, &value, 0, &cursor_);
        if (r != 0) return false;
        e.value = static_cast<uint8_t *>(value);
        ++seen_;
        return true;
    }

private:
    void *array_;
    bool ok_;
    bool aligned_;
    uint32_t count_;
    uint32_t seen_ = 0;
    uint32_t cursor_ = 0;
};

}  // namespace zfx
