// zfx_internal.hpp - helpers that every source file of libzfx shares. One helper per concern:
// byte order and unaligned access, the library's single allocation path, bounded formatting.
// Nothing here is exported.
#pragma once

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "zfx_common.h"

namespace zfx {

// ---- byte order and unaligned access ----------------------------------------------------------
// Records are packed byte layouts; fields are read and written through memcpy so that no access
// depends on the alignment of the buffer it lies in.

template <typename T>
inline T load(const void *p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

template <typename T>
inline void store(void *p, T v) {
    std::memcpy(p, &v, sizeof v);
}

inline uint16_t bswap(uint16_t v) { return __builtin_bswap16(v); }
inline uint32_t bswap(uint32_t v) { return __builtin_bswap32(v); }
inline uint64_t bswap(uint64_t v) { return __builtin_bswap64(v); }

// Host order is little-endian on the control processor and on every development machine.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "libzfx assumes a little-endian host");

inline uint16_t hton16(uint16_t v) { return bswap(v); }
inline uint32_t hton32(uint32_t v) { return bswap(v); }
inline uint16_t ntoh16(uint16_t v) { return bswap(v); }
inline uint32_t ntoh32(uint32_t v) { return bswap(v); }

inline uint16_t load_le16(const void *p) { return load<uint16_t>(p); }
inline uint32_t load_le32(const void *p) { return load<uint32_t>(p); }
inline uint16_t load_be16(const void *p) { return bswap(load<uint16_t>(p)); }
inline uint32_t load_be32(const void *p) { return bswap(load<uint32_t>(p)); }
inline void store_le16(void *p, uint16_t v) { store(p, v); }
inline void store_le32(void *p, uint32_t v) { store(p, v); }
inline void store_be16(void *p, uint16_t v) { store(p, bswap(v)); }
inline void store_be32(void *p, uint32_t v) { store(p, bswap(v)); }

// Reverses a 32-bit field in place: the one conversion between host and network order.
inline void swap32_at(void *p) { store(p, bswap(load<uint32_t>(p))); }
inline void swap16_at(void *p) { store(p, bswap(load<uint16_t>(p))); }

// ---- allocation -------------------------------------------------------------------------------
// Every block the library allocates with the standard allocator goes through these, so that
// a caller can free it with free() and so that allocation failure can be exercised in one place.

void *mem_alloc(size_t size);
void *mem_zalloc(size_t size);  // zero-filled
// A zero-filled array of n elements of size bytes; NULL also when n x size does not fit size_t.
void *mem_zalloc_array(size_t n, size_t size);

// True when a test build was asked to fail this allocation; every allocating path of the library
// (the standard allocator above and the tracked allocator) asks it once per allocation.
bool injected_alloc_failure();

// ---- status helpers -----------------------------------------------------------------------------

// The code for a platform call that returned -1: errno's low 12 bits under the library's prefix.
inline int32_t errno_status() { return ZFX_ERR_ERRNO(errno); }

// ---- bounded formatting -------------------------------------------------------------------------
// Formats into buf of size bytes, always terminated, never past the end; longer text is cut.
// Returns the characters actually stored (not what vsnprintf would have wanted).
__attribute__((format(printf, 3, 4))) size_t fmt_bounded(char *buf, size_t size, const char *fmt,
                                                         ...);

}  // namespace zfx
