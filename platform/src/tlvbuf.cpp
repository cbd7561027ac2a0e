// TLV arrays: one size rule (4-byte elements) for building, walking and sizing.
#include "platform/tlvbuf.h"

#include <cstring>

namespace {

uint32_t load32(const unsigned char *p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

uint16_t load16(const unsigned char *p) {
    uint16_t v;
    std::memcpy(&v, p, 2);
    return v;
}

// The cursor: 0 at the start; otherwise either the short form (bit 31 clear) holding the next
// element's index in bits 30..18 and its offset / 4 in bits 17..0, or the long form (bit 31 set)
// holding the index alone, whose offset is found again by walking the headers.
constexpr uint32_t kLongForm = 0x80000000u;
constexpr uint32_t kIndexShift = 18;
constexpr uint32_t kOffsetMask = (1u << kIndexShift) - 1;
constexpr uint32_t kShortIndexLimit = 1u << (31 - kIndexShift);

// The last long-form cursor this thread handed out, with the offset it stands for: a walk that
// goes on from it (the usual case) finds its place at once instead of re-walking the headers,
// which would make a long walk quadratic.
struct LongStep {
    const unsigned char *array;
    uint32_t index;
    uint64_t offset;
};
thread_local LongStep t_last_long;

uint32_t encode(const unsigned char *array, uint32_t index, uint64_t offset) {
    if (index < kShortIndexLimit && offset / 4 <= kOffsetMask)
        return (index << kIndexShift) | uint32_t(offset / 4);
    t_last_long = LongStep{array, index, offset};
    return kLongForm | index;
}

uint64_t offset_of(const unsigned char *array, uint32_t index) {
    uint64_t off = 4;
    for (uint32_t i = 0; i < index; ++i) off += tlvbuf_size_get(load16(array + off + 2));
    return off;
}

int32_t next_tlv(void *array, uint16_t *type, uint16_t *length, void **value, uint32_t *cursor) {
    if (array == nullptr || cursor == nullptr) return -1;
    auto *a = static_cast<unsigned char *>(array);
    uint32_t index;
    uint64_t off;
    if (*cursor == 0) {
        index = 0;
        off = 4;
    } else if (*cursor & kLongForm) {
        index = *cursor & ~kLongForm;
        const LongStep &last = t_last_long;
        off = last.array == a && last.index == index ? last.offset : offset_of(a, index);
    } else {
        index = *cursor >> kIndexShift;
        off = uint64_t(*cursor & kOffsetMask) * 4;
    }
    if (index >= load32(a) || index == ~kLongForm) return -1;
    const uint16_t t = load16(a + off);
    const uint16_t n = load16(a + off + 2);
    if (type != nullptr) *type = t;
    if (length != nullptr) *length = n;
    if (value != nullptr) *value = n != 0 ? a + off + 4 : nullptr;
    *cursor = encode(a, index + 1, off + tlvbuf_size_get(n));
    return 0;
}

}  // namespace

extern "C" {

uint32_t tlvbuf_size_get(uint32_t n) {
    return n > 0xFFFFFFFFu - 7 ? 0xFFFFFFFFu : 4 + ((n + 3) & ~3u);
}

uint32_t tlvbuf32_size_get(uint32_t n) {
    return n > 0xFFFFFFFFu - 11 ? 0xFFFFFFFFu : 8 + ((n + 3) & ~3u);
}

uint32_t tlvbuf_get_num_tlvs(const void *array, uint32_t) {
    return array != nullptr ? load32(static_cast<const unsigned char *>(array)) : 0;
}

int32_t tlvbuf_add_tlv(void *array, uint32_t capacity, uint16_t type, uint16_t length,
                       const void *value, uint32_t) {
    if (array == nullptr || capacity < 4 || (value == nullptr && length != 0)) return -1;
    auto *a = static_cast<unsigned char *>(array);
    const uint32_t count = load32(a);
    if (count == 0xFFFFFFFFu) return -1;
    // The end of the last element; every header read lies within the capacity.
    uint64_t off = 4;
    for (uint32_t i = 0; i < count; ++i) {
        if (off + 4 > capacity) return -1;
        off += tlvbuf_size_get(load16(a + off + 2));
    }
    const uint32_t size = tlvbuf_size_get(length);
    if (off + size > capacity) return -1;
    unsigned char *e = a + off;
    std::memcpy(e, &type, 2);
    std::memcpy(e + 2, &length, 2);
    if (length != 0) std::memcpy(e + 4, value, length);
    std::memset(e + 4 + length, 0, size - 4 - length);
    const uint32_t grown = count + 1;
    std::memcpy(a, &grown, 4);
    return 0;
}

int32_t tlvbuf_get_next_tlv(void *array, uint16_t *type, uint16_t *length, void **value, uint32_t,
                            uint32_t *cursor) {
    return next_tlv(array, type, length, value, cursor);
}

int32_t tlvbuf_aligned_get_next_tlv(void *array, uint16_t *type, uint16_t *length, void **value,
                                    uint32_t, uint32_t *cursor) {
    return next_tlv(array, type, length, value, cursor);
}

}  // extern "C"
