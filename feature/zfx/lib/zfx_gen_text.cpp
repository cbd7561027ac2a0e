// The line builder and the text forms shared by the sections of the configuration text.
#include "zfx_gen_text.hpp"

#include "platform/fmt.h"

namespace zfx {

uint32_t gen_handle;

Line &Line::spaces(size_t k) {
    static constexpr char kSpaces[] = "                ";
    for (size_t pad = k; pad != 0;) {
        const size_t step = pad < sizeof kSpaces - 1 ? pad : sizeof kSpaces - 1;
        put(kSpaces, step);
        pad -= step;
    }
    return *this;
}

Line &Line::dec_any(int32_t v, uint32_t width) {
    char digits[kDecMax];
    const size_t n = size_t(put_dec(digits, v) - digits);
    if (n > kDecMax) __builtin_unreachable();
    if (width > n) spaces(width - n);
    return put(digits, n);  // cut as snprintf cuts it
}

Line &Line::hex2(uint8_t b) {
    char t[2];
    store<uint16_t>(t, kHexPairs[b]);
    return put(t, 2);
}

Line &Line::wwn(const uint8_t *wwn) {
    char t[FMT_WWN_SIZE];
    return put(t, size_t(put_wwn(t, wwn) - t));
}

Line &Line::ranges(const uint8_t *bits, size_t most) {
    if (most <= room()) {
        len_ += put_ranges(buf_ + len_, most, bits);
        return *this;
    }
    // The line's end may fall within a run: cut whole runs to most first, then the line.
    char t[VSAN_BITSET_TEXT_SIZE];
    return put(t, put_ranges(t, most < VSAN_BITSET_TEXT_MAX ? most : VSAN_BITSET_TEXT_MAX, bits));
}

int32_t Line::hand(size_t n) {
    // The line being built after them, if any, keeps its first character; with none, the
    // terminator is in place already.
    const char first = n < len_ ? buf_[n] : '\0';
    if (n < len_) buf_[n] = '\0';
    const char *text = buf_ + kept_;
    const int32_t status = level_ < 0 ? ptxt_elem_str_add(handle_, element_, text)
                                      : ptxt_elem_str_add_indent(handle_, element_, text, uint32_t(level_));
    buf_[n] = first;
    if (n == len_) kept_ = start_ = len_ = 0;  // nothing left: the buffer starts again
    else kept_ = n;                           // the line being built, which begins at n, stays
    return status;
}

int32_t Line::add_any(uint32_t handle, uint32_t element, int32_t level) {
    // Kept lines for another element or level go first, on their own.
    int32_t status = start_ != kept_ && (handle != handle_ || element != element_ || level != level_) ? flush() : 0;
    handle_ = handle;
    element_ = element;
    level_ = level;
    start_ = len_;
    // The terminator the text service reads the kept lines up to goes after each line as it is
    // added: the next line overwrites it, but when the lines go over before one follows them,
    // it has long reached the cache. One stored just before the service reads it would make the
    // service's first wide reads wait for it.
    buf_[len_] = '\0';
    cut_ = false;
    if (len_ >= keep_below_) {
        const int32_t handed = hand(len_);
        if (status == 0) status = handed;
    }
    return status;
}

int32_t Line::flush() { return start_ != kept_ ? hand(start_) : 0; }

void report_null_store(const char *message) { std::perror(message); }

}  // namespace zfx
