// Validation of TLV arrays against the bytes they have (zfx_tlv_walk.hpp).
#include "zfx_tlv_walk.hpp"

namespace zfx {

bool tlv_array_valid(const void *array, size_t avail) {
    if (array == nullptr || avail < 4) return false;
    const auto *a = static_cast<const uint8_t *>(array);
    const uint32_t count = load<uint32_t>(a);
    // Every element takes at least its 4-byte header, so a count above avail / 4 cannot hold;
    // checking it first keeps the loop bounded by the bytes, not by the claim.
    if (count > (avail - 4) / 4) return false;
    uint64_t off = 4;
    for (uint32_t i = 0; i < count; ++i) {
        if (off + 4 > avail) return false;
        const uint16_t len = load<uint16_t>(a + off + 2);
        if (off + 4 + len > avail) return false;
        off += tlv_elem_size(len);
    }
    return true;
}

}  // namespace zfx
