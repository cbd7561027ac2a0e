// zfx_gen_text.hpp - what every section of the configuration text shares: the process-wide
// generation handle, the line builder every line goes through, and the report of a section
// handed no store.
#pragma once

#include <array>
#include <bit>

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

// Writes the VSAN range text of a set's bit field (VSAN_BITSET_BYTES bytes, at any address) into
// out (no terminator), cut after its last whole run when the whole text is longer than max
// characters, so that a cut text never names a VSAN that is not in the set. Returns its length.
// (vsan_bitset_sprintf is this with no limit.)
size_t put_ranges(char *out, size_t max, const uint8_t *bits);

// Writers of the pieces of a line at p, which has room for them; each returns where the piece
// ends. They are what Line writes with, and what a writer of a line in place (Line::at) uses.

// The n characters at s: inline up to 16 of them, two moves that may overlap, never a byte outside
// either range (the words of the text have lengths the compiler knows; the short pieces of the
// records, names and numbers, are copied without a call as well).
inline char *put_chars(char *d, const char *s, size_t n) {
    if (n >= 8 && n <= 16) {
        const uint64_t head = load<uint64_t>(s), tail = load<uint64_t>(s + n - 8);
        store<uint64_t>(d, head);
        store<uint64_t>(d + n - 8, tail);
    } else if (n >= 4 && n < 8) {
        const uint32_t head = load<uint32_t>(s), tail = load<uint32_t>(s + n - 4);
        store<uint32_t>(d, head);
        store<uint32_t>(d + n - 4, tail);
    } else if (n != 0 && n < 4) {
        d[0] = s[0];
        d[n / 2] = s[n / 2];
        d[n - 1] = s[n - 1];
    } else if (n != 0) {
        std::memcpy(d, s, n);
    }
    return d + n;
}
template <size_t N>
inline char *put_chars(char *d, const char (&word)[N]) {
    return put_chars(d, word, N - 1);
}

// "00" to "99", each number's two digits.
inline constexpr std::array<char, 200> kDigitPairs = [] {
    std::array<char, 200> t{};
    for (int i = 0; i < 100; ++i) t[size_t(2 * i)] = char('0' + i / 10), t[size_t(2 * i + 1)] = char('0' + i % 10);
    return t;
}();

// Every byte's two lower-case hexadecimal digits, as the 16-bit word that stores them in order.
inline constexpr std::array<uint16_t, 256> kHexPairs = [] {
    constexpr char kHex[] = "0123456789abcdef";
    std::array<uint16_t, 256> t{};
    for (int b = 0; b < 256; ++b) t[size_t(b)] = uint16_t(uint8_t(kHex[b >> 4]) | uint8_t(kHex[b & 0xF]) << 8);
    return t;
}();

// The WWN and LUN texts below are the platform's fmt_wwn and fmt_lun texts, built in a few words
// and stored whole: the text service reads the line right after it is written, and its wide
// reads would wait for a string of narrow writes (or for a copy of one) to reach the cache. Each
// writes a few bytes past its text (lines have room for them), which the next piece overwrites.

// The text of a WWN's 8 bytes, "20:00:00:11:22:33:44:55" (23 characters; writes 24).
inline char *put_wwn(char *p, const uint8_t *wwn) {
    const auto hex = [wwn](int i) { return uint64_t(kHexPairs[wwn[i]]); };
    constexpr uint64_t c = ':';
    store<uint64_t>(p, hex(0) | c << 16 | hex(1) << 24 | c << 40 | hex(2) << 48);
    store<uint64_t>(p + 8, c | hex(3) << 8 | c << 24 | hex(4) << 32 | c << 48 | (hex(5) & 0xFF) << 56);
    store<uint64_t>(p + 16, hex(5) >> 8 | c << 8 | hex(6) << 16 | c << 32 | hex(7) << 40);
    return p + 23;
}

// The text of an 8-byte LUN: "0x" and its first level's four digits, then "-" and four digits
// for each further level up to the last non-zero one (6 to 21 characters; writes up to 24).
inline char *put_lun(char *p, const uint8_t *lun) {
    const uint64_t levels_word = bswap(load<uint64_t>(lun));  // level 0 in the high bits
    const size_t levels = levels_word == 0 ? 1 : 4 - size_t(std::countr_zero(levels_word)) / 16;
    for (size_t i = 0; i < levels; ++i)
        store<uint64_t>(p + 1 + 5 * i, '-' | uint64_t(kHexPairs[lun[2 * i]]) << 8 | uint64_t(kHexPairs[lun[2 * i + 1]]) << 24);
    store<uint16_t>(p, uint16_t('0' | 'x' << 8));  // over the first level's "-"
    return p + 1 + 5 * levels;
}

// The most characters of "%d".
constexpr size_t kDecMax = 11;

// "%d". The digits go straight to their place, two at a time from the last pair back: written
// into a scratch first, a copy would read them back before they had reached the cache and wait
// for them.
inline char *put_dec(char *p, int32_t v) {
    // The magnitude as unsigned, so that INT32_MIN has one too.
    const uint32_t magnitude = v < 0 ? 0u - uint32_t(v) : uint32_t(v);
    size_t n = magnitude < 100 ? (magnitude < 10 ? 1 : 2) : magnitude < 10000 ? (magnitude < 1000 ? 3 : 4) : 5;
    for (uint32_t power = 100000; n < 10 && magnitude >= power; power *= 10) ++n;
    if (v < 0) *p++ = '-';
    char *const end = p + n;
    char *q = end;
    uint32_t u = magnitude;
    for (; u >= 100; u /= 100) {
        q -= 2;
        std::memcpy(q, &kDigitPairs[2 * (u % 100)], 2);
    }
    if (u >= 10) std::memcpy(q - 2, &kDigitPairs[2 * u], 2);
    else q[-1] = char('0' + u);
    return end;
}

// A line of the configuration text, built piece by piece in a caller's buffer and handed to the
// text service. The pieces are the exact forms the text has always used ("%s", "%.80s", "%d",
// "%4d", "%02x", WWN and range text), written straight into the line, with no format string to
// interpret; a line of a bounded form is written in place with the piece writers above (at()).
// A line longer than its size is cut as snprintf cuts it, after size - 1 characters; when it was
// to end with "\n" (end()) the cut line still does, so that the next line never runs into it.
//
// A builder made with a buffer of one line's size hands each line over as add() is called:
//
//     char buf[N];
//     Line(buf, sizeof buf).text("zfx zone name ").text(name).end().add(handle, element, 1);
//
// A builder made with a larger buffer gathers its lines: while they go to the same element at
// the same level and the buffer has room for another whole line, add() keeps them, and they go
// to the text service together, in one call (the service indents every line of a call alike, so
// the text is the same). They are handed over when a line for another element or level comes,
// when the buffer is full, by flush(), and at the latest when the builder is destroyed.
class Line {
public:
    Line(char *buf, size_t size) : Line(buf, size, size) {}
    // Lines of at most line_size - 1 characters (line_size at least 2) gathered in capacity bytes
    // (at least line_size).
    Line(char *buf, size_t capacity, size_t line_size)
        : buf_(buf), line_size_(line_size), keep_below_(capacity > line_size ? capacity - line_size + 1 : 0) {}
    ~Line() { flush(); }
    Line(const Line &) = delete;
    Line &operator=(const Line &) = delete;

    Line &text(const char *s) { return put(s, std::strlen(s)); }
    Line &text(const char *s, size_t n) { return put(s, n); }
    // "%.*s": at most max characters of s.
    Line &text_max(const char *s, size_t max) { return put(s, strnlen(s, max)); }
    // "%*d": v in decimal, right-aligned in width characters. Most numbers of the text have no
    // width and fit the line: they are written in place, inline.
    Line &dec(int32_t v, uint32_t width = 0) {
        if (width != 0 || room() < kDecMax) return dec_any(v, width);
        len_ = size_t(put_dec(buf_ + len_, v) - buf_);
        return *this;
    }
    // "%02x".
    Line &hex2(uint8_t b);
    // The text of the 8 bytes of a WWN as they lie in a record (put_wwn).
    Line &wwn(const uint8_t *wwn);
    // The VSAN range text of a set's bit field (see put_ranges), cut after its last whole run when
    // longer than most characters.
    Line &ranges(const uint8_t *bits, size_t most = VSAN_BITSET_TEXT_MAX);
    Line &ranges(const vsan_bitset *set, size_t most = VSAN_BITSET_TEXT_MAX) { return ranges(set->bits, most); }
    // The line's "\n".
    Line &end() {
        put("\n", 1);
        if (cut_) buf_[start_ + line_size_ - 2] = '\n';
        return *this;
    }

    // Ends the line and gives it to element at level (kBaseLevel: the base level); the builder
    // goes on with the next line. Returns the configuration-text service's status for the lines
    // handed over in this call (0 when they are all kept for later).
    int32_t add(uint32_t handle, uint32_t element, int32_t level) {
        // The common case, inline: a line for where the last line went, with room left for
        // another (whether lines are kept or not: it is then the first one kept).
        if (len_ >= keep_below_ || handle != handle_ || element != element_ || level != level_)
            return add_any(handle, element, level);
        start_ = len_;
        buf_[len_] = '\0';  // see add_any
        cut_ = false;
        return 0;
    }
    // Hands the lines kept over; returns the service's status (0 when there were none). Called
    // before a line for another element or level is written (rather than by its add()), it hands
    // them over with their terminator long in place: see add_any.
    int32_t flush();

    // The characters of the line being built.
    size_t length() const { return len_ - start_; }
    // How many more characters the line takes before it is cut.
    size_t room() const { return line_size_ - 1 - (len_ - start_); }

    // A line written in place: where its next character goes, for a writer that knows its text
    // fits the room (room() at least its longest: a line begins with line_size - 1), which then
    // hands back where it ended. No piece of such a text is cut, so nothing is checked on the
    // way: a line of a bounded form (a member's) costs its characters alone.
    char *at() { return buf_ + len_; }
    Line &done(char *end) {
        len_ = size_t(end - buf_);
        return *this;
    }

private:
    Line &dec_any(int32_t v, uint32_t width);
    // k spaces.
    Line &spaces(size_t k);
    int32_t add_any(uint32_t handle, uint32_t element, int32_t level);
    Line &put(const char *s, size_t n) {
        const size_t left = room();
        if (n <= left) {
            len_ = size_t(put_chars(buf_ + len_, s, n) - buf_);
            return *this;
        }
        std::memcpy(buf_ + len_, s, left);
        len_ += left;
        cut_ = true;
        return *this;
    }
    // Hands the kept lines up to n (the line being built, or the buffer's end) to their element.
    int32_t hand(size_t n);

    char *buf_;
    size_t line_size_;
    // A line that ends below this leaves room for another whole one in the buffer, and is kept;
    // 0 for a builder that gathers nothing.
    size_t keep_below_;
    // The kept lines lie from kept_ to start_, where the line being built begins. A line left
    // after the kept lines went over stays where it is (kept_ moves up to it) rather than moving
    // to the buffer's start: it began with the room of a whole line, which it keeps.
    size_t kept_ = 0;
    size_t start_ = 0;
    size_t len_ = 0;
    bool cut_ = false;
    // Where the kept lines go.
    uint32_t handle_ = 0;
    uint32_t element_ = 0;
    int32_t level_ = 0;
};

// The report of a section handed no store, through perror as the system reports it.
inline constexpr const char *kVtNullStore = "ZFX-VT-PTXT: kvdb service is null\n";
inline constexpr const char *kSgNullStore = "ZFX-SG-PTXT: kvdb service is null\n";
void report_null_store(const char *message);

}  // namespace zfx
