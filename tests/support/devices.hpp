// Device entries and the TLV-encoded replies that carry them, written out byte by byte for the
// suites that walk and decode them.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "bytes.hpp"
#include "zfx_service.h"

namespace zfxtest {

// An entry, its head (everything before the name-server block) and the block.
constexpr size_t kEntry = 5020, kHead = 4252, kBlock = 768;

// A device entry: port WWN words, the VSAN value, the VSAN set, the flags, and bytes of the
// service's own (a marker at 12 and 3000, the name-server block) filled with mark.
inline Bytes device(uint32_t w0, uint32_t w1, uint32_t value, const std::vector<int> &vsan_list, uint8_t flags,
                    uint8_t mark) {
    Bytes d = cat({le32(w0), le32(w1), le32(value)});
    d.resize(kEntry, 0);
    const Bytes set = vsans(vsan_list);
    std::copy(set.begin(), set.end(), d.begin() + 20);
    d[12] = d[3000] = mark;
    d[2100] = flags;
    std::fill(d.begin() + kHead, d.end(), mark);
    return d;
}
inline Bytes head(const Bytes &d) { return Bytes(d.begin(), d.begin() + kHead); }
inline Bytes block(const Bytes &d) { return Bytes(d.begin() + kHead, d.end()); }
inline Bytes pair(uint32_t vsan, uint32_t value) { return cat({le32(vsan), le32(value)}); }
// The entry count, a word the decoders do not read, then the elements.
inline Bytes tlv_reply(int32_t count, std::initializer_list<Bytes> elements) {
    return cat({le32(uint32_t(count)), {0xEE, 0xEE, 0xEE, 0xEE}, tlv_array(elements)});
}

// Name-server entries handed out, with their pairs.
inline void free_ns(zfx_device_ns_entry *entries, size_t n) {
    for (size_t i = 0; i < n; ++i) std::free(entries[i].pairs);
    std::free(entries);
}

}  // namespace zfxtest
