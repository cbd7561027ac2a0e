// Line emission and the text forms shared by the sections of the configuration text.
#include "zfx_gen_text.hpp"

#include "platform/fmt.h"

namespace zfx {

uint32_t gen_handle;

int32_t emit(uint32_t handle, uint32_t element, int32_t level, char *buf, size_t size, const char *fmt, ...) {
    if (buf == nullptr || size < 2) return ZFX_ERR_INVALID_ARG;
    va_list ap;
    va_start(ap, fmt);
    const int n = std::vsnprintf(buf, size, fmt, ap);
    va_end(ap);
    if (n < 0) return ZFX_ERR_INVALID_ARG;
    if (size_t(n) >= size) {
        const size_t f = std::strlen(fmt);
        if (f != 0 && fmt[f - 1] == '\n') buf[size - 2] = '\n';
    }
    return level < 0 ? ptxt_elem_str_add(handle, element, buf)
                     : ptxt_elem_str_add_indent(handle, element, buf, uint32_t(level));
}

static_assert(kWwnTextSize == FMT_WWN_SIZE);

void wwn_text(char (&out)[kWwnTextSize], const uint8_t *wwn) {
    plat_wwn w;
    std::memcpy(w.bytes, wwn, sizeof w.bytes);
    fmt_wwn(out, w);
}

size_t cut_ranges(char *text, size_t max) {
    size_t len = std::strlen(text);
    if (len <= max) return len;
    // Runs are joined by ","; the cut falls on the last separator within the limit.
    len = max;
    while (len > 0 && text[len] != ',') --len;
    text[len] = '\0';
    return len;
}

size_t range_text(char (&out)[VSAN_BITSET_TEXT_SIZE], const vsan_bitset *set, size_t room) {
    vsan_bitset_sprintf(out, set);
    return cut_ranges(out, room);
}

void report_null_store(const char *message) { std::perror(message); }

}  // namespace zfx
