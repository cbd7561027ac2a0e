// The shared helpers of zfx_internal.hpp that are not inline.
#include "zfx_internal.hpp"

#include "zfx_testing.h"

namespace zfx {

#ifdef ZFX_TESTING
namespace {
uint32_t g_fail_at;   // 0: never fail
uint32_t g_attempts;  // since the last zfx_testing_fail_allocation
}  // namespace

bool injected_alloc_failure() {
    ++g_attempts;
    return g_fail_at != 0 && g_attempts == g_fail_at;
}
#else
bool injected_alloc_failure() { return false; }
#endif

void *mem_alloc(size_t size) { return injected_alloc_failure() ? nullptr : std::malloc(size); }

void *mem_zalloc(size_t size) { return injected_alloc_failure() ? nullptr : std::calloc(1, size); }

void *mem_zalloc_array(size_t n, size_t size) {
    return injected_alloc_failure() ? nullptr : std::calloc(n, size);
}

size_t fmt_bounded(char *buf, size_t size, const char *fmt, ...) {
    if (buf == nullptr || size == 0) return 0;
    va_list ap;
    va_start(ap, fmt);
    int n = std::vsnprintf(buf, size, fmt, ap);
    va_end(ap);
    if (n < 0) {
        buf[0] = '\0';
        return 0;
    }
    return static_cast<size_t>(n) < size ? static_cast<size_t>(n) : size - 1;
}

}  // namespace zfx

#ifdef ZFX_TESTING
extern "C" {

void zfx_testing_fail_allocation(uint32_t nth) {
    zfx::g_fail_at = nth;
    zfx::g_attempts = 0;
}

uint32_t zfx_testing_allocation_count(void) { return zfx::g_attempts; }

}  // extern "C"
#endif
