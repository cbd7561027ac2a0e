// Bounded copies and formatters.
#include "platform/fmt.h"

#include <cstring>

extern "C" {

uint32_t copy_str_to_buf(uint32_t limit, char *dst, const char *src) {
    if (dst == nullptr || limit == 0) return 0;
    uint32_t n = 0;
    if (src != nullptr) {
        n = uint32_t(strnlen(src, limit - 1));
        std::memcpy(dst, src, n);
    }
    dst[n] = '\0';
    return n;
}

}  // extern "C"
