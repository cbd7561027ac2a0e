// zfx_tracked_alloc.hpp - the library's tracked allocation: store lists that a generation builds
// come from the platform's tracked allocator under the feature's owner number, are counted, and
// an allocation failure is reported to the event history (and the debug output when enabled).
#pragma once

#include <cstddef>
#include <cstdint>

// A block of size bytes from heapx_alloc(180, type, size), zero-filled when zero is nonzero, or
// NULL. The caller releases it with heapx_free and counts that in zfx_num_mem_frees.
void *zfx_tracked_alloc(const char *file, int32_t line, const char *function, uint32_t type, uint32_t size,
                        int32_t zero);

// Releases a tracked block and counts the release.
void zfx_tracked_free(void *block);

// The call as the library makes it: the caller's own source position and function name.
#define ZFX_TRACKED_ALLOC(file, type, size, zero) zfx_tracked_alloc(file, __LINE__, __func__, type, size, zero)

namespace zfx {

// Where a builder allocates its tracked list, as the failure report names it: the source it is
// filed under, the line, the builder's own name, and the allocation type.
struct TrackedSite {
    const char *file;
    int32_t line;
    const char *function;
    uint32_t type;
};

// A zero-filled tracked block for site, or NULL (reported). Builders hand build_list a
// capture-free lambda over a static site of their own, so that __func__ names the builder.
inline void *tracked_zalloc(const TrackedSite &site, size_t size) {
    return zfx_tracked_alloc(site.file, site.line, site.function, site.type, uint32_t(size), 1);
}

}  // namespace zfx
