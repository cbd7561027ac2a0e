// zfx_bitmap.hpp - id bitmaps as the feature stores them (zone members, zones of a zoneset, the
// zone database header): id n is bit 0x80 >> (n % 8) of byte n / 8.
#pragma once

#include <bit>
#include <type_traits>

#include "zfx_internal.hpp"

namespace zfx {

inline bool bit_test(const uint8_t *bits, uint32_t n) { return (bits[n / 8] & (0x80u >> (n % 8))) != 0; }
inline void bit_set(uint8_t *bits, uint32_t n) { bits[n / 8] |= uint8_t(0x80u >> (n % 8)); }

// The first id at or after from that is set among the first nbits ids (nbits a multiple of 8),
// or nbits when there is none. Zero bytes are crossed eight at a time (taken as one big-endian
// word, whose leading zeros count ids from the word's first byte on), so walking every set id
// costs an eighth of the bitmap's bytes plus one step per id: the bitmaps are mostly empty.
inline uint32_t bit_next(const uint8_t *bits, uint32_t nbits, uint32_t from) {
    if (from >= nbits) return nbits;
    const uint32_t bytes = nbits / 8;
    uint32_t byte = from / 8;
    if (const uint32_t b = bits[byte] & (0xFFu >> (from % 8)); b != 0)
        return byte * 8 + uint32_t(std::countl_zero(uint8_t(b)));
    for (++byte; byte + 8 <= bytes; byte += 8) {
        if (const uint64_t w = bswap(load<uint64_t>(bits + byte)); w != 0) return byte * 8 + uint32_t(std::countl_zero(w));
    }
    for (; byte < bytes; ++byte) {
        if (bits[byte] != 0) return byte * 8 + uint32_t(std::countl_zero(bits[byte]));
    }
    return nbits;
}

// One past the highest id that is set among the first nbits ids (nbits a multiple of 8), 0 when
// none is: what a table indexed by the ids of a bitmap needs to hold them all.
inline uint32_t bit_end(const uint8_t *bits, uint32_t nbits) {
    for (uint32_t byte = nbits / 8; byte-- > 0;) {
        if (bits[byte] != 0) return byte * 8 + 8 - uint32_t(std::countr_zero(bits[byte]));
    }
    return 0;
}

// How many ids from 1 below nbits (nbits a multiple of 8) are set: the ids for_each_id visits.
// used, when given, is set to a count of the bitmap's first bytes that holds every set id (it
// ends at most seven bytes past the last one): a copy of that many bytes names the same ids.
inline uint32_t bit_count(const uint8_t *bits, uint32_t nbits, uint32_t *used = nullptr) {
    const uint32_t bytes = nbits / 8;
    uint32_t n = 0, byte = 0, end = 0;
    // Zero words (most of a bitmap) are passed over, four at a time where there are four: without
    // a population-count instruction (the switch's processor) each count is a call.
    const auto count = [&](uint64_t w, uint32_t at) {
        if (w != 0) n += uint32_t(std::popcount(w)), end = at + 8;
    };
    for (; byte + 32 <= bytes; byte += 32) {
        const uint64_t a = load<uint64_t>(bits + byte), b = load<uint64_t>(bits + byte + 8),
                       c = load<uint64_t>(bits + byte + 16), d = load<uint64_t>(bits + byte + 24);
        if ((a | b | c | d) == 0) continue;
        count(a, byte), count(b, byte + 8), count(c, byte + 16), count(d, byte + 24);
    }
    for (; byte + 8 <= bytes; byte += 8) count(load<uint64_t>(bits + byte), byte);
    for (; byte < bytes; ++byte) {
        if (bits[byte] != 0) {
            n += uint32_t(std::popcount(bits[byte]));
            end = byte + 1;
        }
    }
    if (used != nullptr) *used = end;
    return bytes != 0 && (bits[0] & 0x80u) != 0 ? n - 1 : n;  // id 0 names nothing
}

// Calls visit(id) for every set id from 1 below nbits, in ascending order; stops early, with its
// result, at the first call that returns nonzero (a visit that returns nothing never stops the
// walk). Returns 0 otherwise. The bitmap is read eight bytes at a time, each byte once (a visit
// must not change it): walking the set ids costs an eighth of its bytes plus one step per id.
// A caller that knows how many ids are set gives that as most: the walk ends after that many
// visits, without reading the rest of the bitmap.
template <typename Visit>
int32_t for_each_id(const uint8_t *bits, uint32_t nbits, Visit &&visit, uint32_t most = UINT32_MAX) {
    if (most == 0) return 0;
    const auto call = [&](uint32_t id) -> int32_t {
        if constexpr (std::is_void_v<decltype(visit(id))>) {
            visit(id);
            return 0;
        } else {
            return visit(id);
        }
    };
    const uint32_t bytes = nbits / 8;
    uint32_t byte = 0;
    for (; byte + 8 <= bytes; byte += 8) {
        // The word's leading bit is its first id.
        uint64_t w = bswap(load<uint64_t>(bits + byte));
        if (byte == 0) w &= ~(uint64_t(1) << 63);  // id 0 names nothing
        while (w != 0) {
            const uint32_t first = uint32_t(std::countl_zero(w));
            w ^= uint64_t(1) << (63 - first);
            if (const int32_t r = call(byte * 8 + first)) return r;
            if (--most == 0) return 0;
        }
    }
    for (; byte < bytes; ++byte) {
        uint32_t b = byte == 0 ? bits[byte] & 0x7Fu : bits[byte];
        while (b != 0) {
            const uint32_t first = uint32_t(std::countl_zero(uint8_t(b)));
            b ^= 0x80u >> first;
            if (const int32_t r = call(byte * 8 + first)) return r;
            if (--most == 0) return 0;
        }
    }
    return 0;
}

}  // namespace zfx
