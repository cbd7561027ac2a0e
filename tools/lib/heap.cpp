#include "heap.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace zfxtool {

void reserve_heap_in_huge_pages() {
#if defined(__GLIBC__)
    constexpr int kReserve = 256 << 20;  // the most the largest configurations take, and more
    constexpr uintptr_t kHugePage = uintptr_t(2) << 20;
    mallopt(M_TRIM_THRESHOLD, 2 * kReserve);
    mallopt(M_TOP_PAD, kReserve);
    // The largest threshold the allocator takes: 32 MB (16 MB on 32 bits).
    mallopt(M_MMAP_THRESHOLD, int(4 * sizeof(long)) << 20);
    const uintptr_t before = reinterpret_cast<uintptr_t>(sbrk(0));
    // A block larger than what is left at the heap's top makes it grow by the reserve at once.
    void *volatile block = std::malloc(1 << 20);
    std::free(block);
    const uintptr_t after = reinterpret_cast<uintptr_t>(sbrk(0));
    if (before == uintptr_t(-1) || after == uintptr_t(-1)) return;
    const uintptr_t start = (before + kHugePage - 1) & ~(kHugePage - 1), end = after & ~(kHugePage - 1);
    if (end > start) madvise(reinterpret_cast<void *>(start), end - start, MADV_HUGEPAGE);
#endif
}

}  // namespace zfxtool
