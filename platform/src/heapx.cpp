// Tracked allocator: each block carries a small header naming its owner and size, so that a
// release can be charged to the owner that allocated it.
#include "platform/heapx.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr uint32_t kOwners = 1024;

// 16 bytes keep the block after it aligned for any type on both architectures.
struct alignas(16) Header {
    uint32_t magic;
    uint32_t owner;
    uint32_t type;
    uint32_t size;
};
static_assert(sizeof(Header) == 16, "block header is 16 bytes");

constexpr uint32_t kMagic = 0x48454150;  // marks a live heapx block

heapx_owner_stats g_stats[kOwners];
uint32_t g_fail_at;
uint32_t g_attempts;
uint8_t g_trailer[HEAPX_TRAILER_MAX];  // what follows each new block, when g_trailer_size is set
uint32_t g_trailer_size;

heapx_owner_stats *stats_of(uint32_t owner) { return owner < kOwners ? &g_stats[owner] : nullptr; }

}  // namespace

extern "C" {

void *heapx_alloc(uint32_t owner, uint32_t type, uint32_t size) {
    heapx_owner_stats *st = stats_of(owner);
    ++g_attempts;
    if (g_fail_at != 0 && g_attempts == g_fail_at) {
        if (st) ++st->failures;
        return nullptr;
    }
    // On a 32-bit system the header and trailer could carry a size near 4 GiB around to a small one.
    const bool too_large = size > SIZE_MAX - sizeof(Header) - HEAPX_TRAILER_MAX;
    auto *h = too_large ? nullptr : static_cast<Header *>(std::malloc(sizeof(Header) + size_t(size) + g_trailer_size));
    if (h == nullptr) {
        if (st) ++st->failures;
        return nullptr;
    }
    *h = Header{kMagic, owner, type, size};
    std::memcpy(reinterpret_cast<uint8_t *>(h + 1) + size, g_trailer, g_trailer_size);
    if (st) {
        ++st->allocs;
        st->bytes_in_use += size;
    }
    return h + 1;
}

void heapx_free(void *block) {
    if (block == nullptr) return;
    Header *h = static_cast<Header *>(block) - 1;
    if (h->magic != kMagic) std::abort();  // not a heapx block, or released twice
    if (heapx_owner_stats *st = stats_of(h->owner)) {
        ++st->frees;
        st->bytes_in_use -= h->size;
    }
    h->magic = 0;
    std::free(h);
}

heapx_owner_stats heapx_stats(uint32_t owner) {
    const heapx_owner_stats *st = stats_of(owner);
    return st ? *st : heapx_owner_stats{};
}

void heapx_stats_reset(void) { std::memset(g_stats, 0, sizeof g_stats); }

void heapx_fail_allocation(uint32_t nth) {
    g_fail_at = nth;
    g_attempts = 0;
}

int32_t heapx_trail_blocks(const void *bytes, uint32_t size) {
    if (size > HEAPX_TRAILER_MAX || (bytes == nullptr && size != 0)) return -1;
    if (size != 0) std::memcpy(g_trailer, bytes, size);
    g_trailer_size = size;
    return 0;
}

}  // extern "C"
