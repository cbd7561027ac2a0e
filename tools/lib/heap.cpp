#include "heap.hpp"

#include <cstdint>
#include <cstdlib>  // and with it the C library's name, __GLIBC__

#if defined(__GLIBC__)
#include <malloc.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>
#endif

namespace zfxtool {

#if defined(__GLIBC__)
namespace {

// Whether the process may map as much as it asks for: under a limit, the reserve would take the
// room that the store's own map needs.
bool unlimited(int resource) {
    rlimit limit{};
    return getrlimit(resource, &limit) == 0 && limit.rlim_cur == RLIM_INFINITY;
}

}  // namespace
#endif

void reserve_heap_in_huge_pages() {
#if defined(__GLIBC__)
    // What a configuration of tens of megabytes takes, and more; a larger one grows the heap past
    // it as the allocator always does.
    constexpr int kReserve = 256 << 20;
    constexpr uintptr_t kHugePage = uintptr_t(2) << 20;
    if (!unlimited(RLIMIT_AS) || !unlimited(RLIMIT_DATA)) return;
    mallopt(M_TRIM_THRESHOLD, 2 * kReserve);
    mallopt(M_TOP_PAD, kReserve);
    // The largest threshold the allocator takes: 32 MB (16 MB on 32 bits).
    mallopt(M_MMAP_THRESHOLD, int(4 * sizeof(long)) << 20);
    const uintptr_t before = reinterpret_cast<uintptr_t>(sbrk(0));
    // A block larger than what is left at the heap's top makes it grow by the reserve at once.
    void *volatile block = std::malloc(1 << 20);
    std::free(block);
    const uintptr_t after = reinterpret_cast<uintptr_t>(sbrk(0));
    const uintptr_t start = (before + kHugePage - 1) & ~(kHugePage - 1), end = after & ~(kHugePage - 1);
    if (before != uintptr_t(-1) && after != uintptr_t(-1) && end > start) {
        madvise(reinterpret_cast<void *>(start), end - start, MADV_HUGEPAGE);
        return;
    }
    // The heap did not grow (the allocator takes its memory elsewhere, or the system refused the
    // reserve): the allocator's own settings come back, so that no later growth asks for it.
    constexpr int kDefault = 128 << 10;
    mallopt(M_TOP_PAD, kDefault);
    mallopt(M_TRIM_THRESHOLD, kDefault);
    mallopt(M_MMAP_THRESHOLD, kDefault);
#endif
}

}  // namespace zfxtool
