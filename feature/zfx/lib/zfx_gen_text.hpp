// zfx_gen_text.hpp - what every section of the configuration text shares: the process-wide
// generation handle, the line builder every line goes through, and the report of a section
// handed no store.
#pragma once

#include "platform/ptxt.h"
#include "vsan_bitset.h"
#include "zfx_internal.hpp"

namespace zfx {

// The generation in progress, set by either entry point; sections that are not handed the handle
// (the zone section) take it from here. One generation at a time per process.
extern uint32_t gen_handle;

// Level argument of Line::add for "the element's base level" (ptxt_elem_str_add) rather than a
// level.
constexpr int32_t kBaseLevel = -1;

// Buffer for a line that must hold a whole VSAN range text with its words around it.
constexpr size_t kRangeLineSize = VSAN_BITSET_TEXT_SIZE + 128;

// Writes the VSAN range text of set into out (no terminator), cut after its last whole run when
// the whole text is longer than max characters, so that a cut text never names a VSAN that is
// not in the set. Returns its length. (vsan_bitset_sprintf is this with no limit.)
size_t put_ranges(char *out, size_t max, const vsan_bitset *set);

// A line of the configuration text, built piece by piece in a caller's buffer of size bytes
// (at least 2) and handed to the text service in one call. The pieces are the exact forms the
// text has always used ("%s", "%-15s", "%.80s", "%d", "%4d", "%02x", WWN, LUN and range text),
// written straight into the line, with no format string to interpret. A line longer than the
// buffer is cut as snprintf cuts it, after size - 1 characters; when it was to end with "\n"
// (end()) the cut line still does, so that the next line never runs into it.
//
//     char buf[N];
//     Line(buf, sizeof buf).text("zfx zone name ").text(name).end().add(handle, element, 1);
class Line {
public:
    Line(char *buf, size_t size) : buf_(buf), size_(size) {}

    Line &text(const char *s) { return put(s, std::strlen(s)); }
    Line &text(const char *s, size_t n) { return put(s, n); }
    // "%.*s": at most max characters of s.
    Line &text_max(const char *s, size_t max) { return put(s, strnlen(s, max)); }
    // "%-*s": the n characters of s, then spaces up to width characters.
    Line &left(const char *s, size_t n, size_t width);
    Line &left(const char *s, size_t width) { return left(s, std::strlen(s), width); }
    // "%*d": v in decimal, right-aligned in width characters.
    Line &dec(int32_t v, uint32_t width = 0);
    // "%02x".
    Line &hex2(uint8_t b);
    // The platform's fmt_wwn text of the 8 bytes of a WWN as they lie in a record.
    Line &wwn(const uint8_t *wwn);
    // The platform's fmt_lun text of an 8-byte LUN.
    Line &lun(const uint8_t *lun);
    // The VSAN range text of set, cut after its last whole run when longer than room characters.
    Line &ranges(const vsan_bitset *set, size_t room = VSAN_BITSET_TEXT_MAX);
    // The line's "\n".
    Line &end() {
        put("\n", 1);
        if (cut_) buf_[size_ - 2] = '\n';
        return *this;
    }

    // Hands the line to element at level (kBaseLevel: the base level); the builder may be used
    // for another line afterwards. Returns the configuration-text service's status.
    int32_t add(uint32_t handle, uint32_t element, int32_t level);

    size_t length() const { return len_; }

private:
    Line &put(const char *s, size_t n) {
        const size_t room = size_ - 1 - len_;
        const size_t k = n < room ? n : room;
        std::memcpy(buf_ + len_, s, k);
        len_ += k;
        cut_ = cut_ || k < n;
        return *this;
    }

    char *buf_;
    size_t size_;
    size_t len_ = 0;
    bool cut_ = false;
};

// The report of a section handed no store, through perror as the system reports it.
inline constexpr const char *kVtNullStore = "ZFX-VT-PTXT: kvdb service is null\n";
inline constexpr const char *kSgNullStore = "ZFX-SG-PTXT: kvdb service is null\n";
void report_null_store(const char *message);

}  // namespace zfx
