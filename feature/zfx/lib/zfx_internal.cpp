// The shared helpers of zfx_internal.hpp that are not inline.
#include "zfx_internal.hpp"

namespace zfx {

void *mem_alloc(size_t size) { return std::malloc(size); }

void *mem_zalloc(size_t size) { return std::calloc(1, size); }

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
