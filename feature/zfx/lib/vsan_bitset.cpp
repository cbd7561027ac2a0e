// VSAN sets: representation, algebra, searches, run iterators, text forms and conversions.
//
// Searches read the bit field 64 positions at a time: eight bytes taken as one big-endian word put
// position 64w + k at bit 63 - k, so the first set position of a word is its count of leading
// zeros and the last one 63 minus its count of trailing zeros. The results are those of a
// position-by-position scan; a sparse set is crossed in at most 64 steps.
#include "vsan_bitset.h"

#include <array>
#include <bit>

#include "platform/bits.h"
#include "zfx_gen_text.hpp"
#include "zfx_internal.hpp"

namespace {

constexpr int32_t kBits = VSAN_BITSET_NUMBITS;
constexpr int32_t kBytes = VSAN_BITSET_BYTES;
constexpr int32_t kWords = kBits / 64;

// Word w of a set's bit field, wherever the field lies (a set read where the store holds it may
// lie at any address).
inline uint64_t word_at(const uint8_t *bits, int32_t w) { return zfx::bswap(zfx::load<uint64_t>(bits + 8 * w)); }
inline uint64_t word_at(const vsan_bitset *s, int32_t w) { return word_at(s->bits, w); }

inline bool in_range(int32_t p) { return p >= 0 && p < kBits; }

// Forward search over set positions (invert = false) or clear positions (invert = true). The
// start is 64 bits wide so that "the position after p" needs no guard against wrapping.
int32_t find_forward(const vsan_bitset *s, int64_t start, bool invert) {
    if (start < 0) start = 0;
    if (start >= kBits) return -1;
    const uint64_t flip = invert ? ~uint64_t(0) : 0;
    int32_t w = int32_t(start >> 6);
    uint64_t word = (word_at(s, w) ^ flip) & (~uint64_t(0) >> (start & 63));
    for (;;) {
        if (word) return 64 * w + std::countl_zero(word);
        if (++w == kWords) return -1;
        word = word_at(s, w) ^ flip;
    }
}

int32_t find_backward(const vsan_bitset *s, int32_t start) {
    if (start < 0) return -1;
    if (start >= kBits) start = kBits - 1;
    int32_t w = start >> 6;
    uint64_t word = word_at(s, w) & (~uint64_t(0) << (63 - (start & 63)));
    for (;;) {
        if (word) return 64 * w + 63 - std::countr_zero(word);
        if (--w < 0) return -1;
        word = word_at(s, w);
    }
}

int32_t nth(const vsan_bitset *s, int32_t n, bool invert) {
    if (n < 0) return -1;
    const uint64_t flip = invert ? ~uint64_t(0) : 0;
    for (int32_t w = 0; w < kWords; ++w) {
        uint64_t word = word_at(s, w) ^ flip;
        int32_t c = std::popcount(word);
        if (n < c) {
            for (; n > 0; --n) word &= ~(uint64_t(1) << (63 - std::countl_zero(word)));  // drop the n before it
            return 64 * w + std::countl_zero(word);
        }
        n -= c;
    }
    return -1;
}

// The run iterator shared by the set and the free walks.
int32_t next_run(const vsan_bitset *s, vsan_bitset_range *cur, bool invert) {
    if (cur == nullptr || cur->last >= kBits - 2) return -1;
    int32_t first;
    if (cur->first == 1 && cur->last == 0) {
        first = find_forward(s, 0, invert);
    } else {
        // Position last + 1 is known to be outside the walk (it ended the previous run).
        first = find_forward(s, cur->last + 2, invert);
    }
    cur->first = first;
    if (first < 0) return -1;
    int32_t end = find_forward(s, first + 1, !invert);
    cur->last = end < 0 ? kBits - 1 : end - 1;
    return 0;
}

// Clips a run to the set's positions; false when nothing is left of it.
bool clip_run(int32_t &start, int32_t &count) {
    if (count <= 0) return false;
    int64_t lo = start, hi = int64_t(start) + count;  // [lo, hi)
    if (lo < 0) lo = 0;
    if (hi > kBits) hi = kBits;
    if (lo >= hi) return false;
    start = int32_t(lo);
    count = int32_t(hi - lo);
    return true;
}

void set_run(vsan_bitset *s, int32_t start, int32_t count, bool value) {
    if (!clip_run(start, count)) return;
    while (count > 0) {
        const int32_t shift = start & 7;
        const int32_t end = shift + count;
        uint8_t mask = uint8_t(0xFFu >> shift);
        int32_t remaining = 0;
        if (end <= 8) mask &= uint8_t(~(0xFFu >> end));
        else remaining = end - 8;
        if (value) s->bits[start >> 3] |= mask;
        else s->bits[start >> 3] &= uint8_t(~mask);
        start = (start & ~7) + 8;
        count = remaining;
    }
}

// Whole-set algebra: each output byte depends only on the operand bytes at the same offset, and
// fn reads them before the byte is stored, so operands may alias freely.
template <typename Fn>
inline void bytewise(vsan_bitset *dst, Fn fn) {
    for (int32_t i = 0; i < kBytes; ++i) dst->bits[i] = uint8_t(fn(dst->bits[i], i));
}

// ---- text ---------------------------------------------------------------------------------------

// Calls fn(first, last) for every run of set positions that starts at or after from, in ascending
// order, until fn returns false. One pass over the words: within a word the next boundary is a
// count of leading zeros of the word (looking for a set position) or of its complement (looking
// for the end of a run), so a run costs two bit counts whatever its length. Whole words with no
// boundary (all clear between runs, all set within one) are passed over four at a time as they
// lie, untouched by the byte order: most of a set's text is a few runs in a field of 64 words.
template <typename Fn>
void walk_runs(const uint8_t *bits, int64_t from, Fn fn) {
    if (from < 0) from = 0;
    if (from >= kBits) return;
    const auto raw = [bits](int32_t w) { return zfx::load<uint64_t>(bits + 8 * w); };
    int32_t start = -1;
    int pos = int(from & 63);
    for (int32_t w = int32_t(from >> 6); w < kWords; ++w, pos = 0) {
        if (pos == 0) {
            const uint64_t none = start < 0 ? 0 : ~uint64_t(0);  // a word without a boundary
            while (w + 4 <= kWords && ((raw(w) ^ none) | (raw(w + 1) ^ none) | (raw(w + 2) ^ none) | (raw(w + 3) ^ none)) == 0)
                w += 4;
            while (w < kWords && raw(w) == none) ++w;
            if (w == kWords) break;
        }
        const uint64_t word = word_at(bits, w);
        for (;;) {  // pos stays below 64: it only ever moves onto a set bit of the shifted word
            const uint64_t rest = (start < 0 ? word : ~word) << pos;
            if (rest == 0) break;
            pos += std::countl_zero(rest);
            if (start < 0) {
                start = 64 * w + pos;
            } else {
                if (!fn(start, 64 * w + pos - 1)) return;
                start = -1;
            }
        }
    }
    if (start >= 0) fn(start, kBits - 1);
}

// Decimal text of every position, made at compile time: the range text is mostly numbers.
struct DecimalText {
    char digits[4];
    uint8_t length;
};

constexpr auto kDecimal = [] {
    std::array<DecimalText, kBits> table{};
    for (int32_t v = 0; v < kBits; ++v) {
        char tmp[4];
        uint8_t n = 0;
        for (int32_t x = v; n == 0 || x > 0; x /= 10) tmp[n++] = char('0' + x % 10);
        for (uint8_t i = 0; i < n; ++i) table[v].digits[i] = tmp[n - 1 - i];
        table[v].length = n;
    }
    return table;
}();

// Length of one item of the range text: an optional "," then "%d" or "%d-%d".
inline uint32_t item_len(bool sep, int32_t first, int32_t last) {
    return uint32_t(sep) + kDecimal[first].length + (last > first ? 1u + kDecimal[last].length : 0u);
}

inline uint32_t put_item(char *p, bool sep, int32_t first, int32_t last) {
    char *const begin = p;
    if (sep) *p++ = ',';
    std::memcpy(p, kDecimal[first].digits, kDecimal[first].length);
    p += kDecimal[first].length;
    if (last > first) {
        *p++ = '-';
        std::memcpy(p, kDecimal[last].digits, kDecimal[last].length);
        p += kDecimal[last].length;
    }
    return uint32_t(p - begin);
}

// The whole text, unbounded; buffer needs VSAN_BITSET_TEXT_SIZE bytes.
int32_t render(char *buf, const vsan_bitset *s) {
    const size_t n = zfx::put_ranges(buf, VSAN_BITSET_TEXT_MAX, s->bits);
    buf[n] = '\0';
    return int32_t(n);
}

// The shared shape of the run operations: inside [start, start + count) dst takes op(dst),
// outside it keeps its bits. The scratch sets live on the stack, so nothing can fail.
template <typename Op>
void apply_in_run(vsan_bitset *dst, int32_t start, int32_t count, Op op) {
    if (dst == nullptr || !clip_run(start, count)) return;
    vsan_bitset inside;
    vsan_bitset_init(&inside);
    set_run(&inside, start, count, true);
    vsan_bitset result;
    vsan_bitset_init(&result);
    vsan_bitset_copy(&result, dst);
    op(&result);
    vsan_bitset_maskcopy(dst, &result, &inside);
}

}  // namespace

namespace zfx {

size_t put_ranges(char *out, size_t max, const uint8_t *bits) {
    size_t n = 0;
    walk_runs(bits, 0, [&](int32_t first, int32_t last) {
        const bool sep = n > 0;
        if (item_len(sep, first, last) > max - n) return false;
        n += put_item(out + n, sep, first, last);
        return true;
    });
    return n;
}

}  // namespace zfx

extern "C" {

// ---- elementary operations ----------------------------------------------------------------------

int32_t vsan_bitset_numbits(void) { return kBits; }

void vsan_bitset_set_bit(vsan_bitset *set, int32_t p) {
    if (in_range(p)) set->bits[p >> 3] |= uint8_t(0x80u >> (p & 7));
}

void vsan_bitset_clear_bit(vsan_bitset *set, int32_t p) {
    if (in_range(p)) set->bits[p >> 3] &= uint8_t(~(0x80u >> (p & 7)));
}

int32_t vsan_bitset_is_bit_set(const vsan_bitset *set, int32_t p) {
    return in_range(p) && (set->bits[p >> 3] & (0x80u >> (p & 7))) ? 1 : 0;
}

void vsan_bitset_set_range_value(vsan_bitset *set, int32_t start, int32_t count, int32_t value) {
    set_run(set, start, count, value != 0);
}

void vsan_bitset_set_range(vsan_bitset *set, int32_t start, int32_t count) {
    vsan_bitset_set_range_value(set, start, count, 1);
}

void vsan_bitset_clear_range(vsan_bitset *set, int32_t start, int32_t count) {
    vsan_bitset_set_range_value(set, start, count, 0);
}

void vsan_bitset_fill(vsan_bitset *set) { std::memset(set->bits, 0xFF, kBytes); }

void vsan_bitset_clear(vsan_bitset *set) { std::memset(set->bits, 0, kBytes); }

vsan_bitset *vsan_bitset_init(vsan_bitset *set) {
    set->len = kBytes;
    vsan_bitset_clear(set);
    return set;
}

vsan_bitset *vsan_bitset_new(void) {
    auto *set = static_cast<vsan_bitset *>(zfx::mem_alloc(sizeof(vsan_bitset)));
    return set ? vsan_bitset_init(set) : nullptr;
}

void vsan_bitset_delete(vsan_bitset *set) { std::free(set); }

void vsan_bitset_copy(vsan_bitset *dst, const vsan_bitset *src) {
    std::memmove(dst->bits, src->bits, kBytes);
}

// ---- whole-set algebra --------------------------------------------------------------------------

void vsan_bitset_union(vsan_bitset *dst, const vsan_bitset *src) {
    bytewise(dst, [src](uint8_t d, int32_t i) { return d | src->bits[i]; });
}

void vsan_bitset_intersection(vsan_bitset *dst, const vsan_bitset *src) {
    bytewise(dst, [src](uint8_t d, int32_t i) { return d & src->bits[i]; });
}

void vsan_bitset_subtract(vsan_bitset *dst, const vsan_bitset *src) {
    bytewise(dst, [src](uint8_t d, int32_t i) { return d & ~src->bits[i]; });
}

void vsan_bitset_revert(vsan_bitset *set) {
    bytewise(set, [](uint8_t d, int32_t) { return ~d; });
}

void vsan_bitset_xor(vsan_bitset *dst, const vsan_bitset *a, const vsan_bitset *b) {
    bytewise(dst, [a, b](uint8_t, int32_t i) { return a->bits[i] ^ b->bits[i]; });
}

void vsan_bitset_maskcopy(vsan_bitset *dst, const vsan_bitset *src, const vsan_bitset *mask) {
    bytewise(dst, [src, mask](uint8_t d, int32_t i) { return (d & ~mask->bits[i]) | (src->bits[i] & mask->bits[i]); });
}

void vsan_bitset_maskrevert(vsan_bitset *dst, const vsan_bitset *mask) {
    bytewise(dst, [mask](uint8_t d, int32_t i) { return d ^ mask->bits[i]; });
}

void vsan_bitset_maskintersect(vsan_bitset *dst, const vsan_bitset *src, const vsan_bitset *mask) {
    bytewise(dst, [src, mask](uint8_t d, int32_t i) {
        return (d & ~mask->bits[i]) | (d & src->bits[i] & mask->bits[i]);
    });
}

void vsan_bitset_maskunion(vsan_bitset *dst, const vsan_bitset *src, const vsan_bitset *mask) {
    bytewise(dst, [src, mask](uint8_t d, int32_t i) {
        return (d & ~mask->bits[i]) | ((d | src->bits[i]) & mask->bits[i]);
    });
}

void vsan_bitset_masksubtract(vsan_bitset *dst, const vsan_bitset *src, const vsan_bitset *mask) {
    bytewise(dst, [src, mask](uint8_t d, int32_t i) {
        return (d & ~mask->bits[i]) | (d & ~src->bits[i] & mask->bits[i]);
    });
}

// ---- comparisons and counting -------------------------------------------------------------------

int32_t vsan_bitset_intersects(const vsan_bitset *a, const vsan_bitset *b) {
    for (int32_t w = 0; w < kWords; ++w)
        if (word_at(a, w) & word_at(b, w)) return 1;
    return 0;
}

int32_t vsan_bitset_equal(const vsan_bitset *a, const vsan_bitset *b) {
    return std::memcmp(a->bits, b->bits, kBytes) == 0 ? 1 : 0;
}

int32_t vsan_bitset_maskequal(const vsan_bitset *a, const vsan_bitset *b, const vsan_bitset *mask) {
    for (int32_t w = 0; w < kWords; ++w)
        if ((word_at(a, w) ^ word_at(b, w)) & word_at(mask, w)) return 0;
    return 1;
}

int32_t vsan_bitset_subset(const vsan_bitset *a, const vsan_bitset *b) {
    for (int32_t w = 0; w < kWords; ++w)
        if (word_at(a, w) & ~word_at(b, w)) return 0;
    return 1;
}

int32_t vsan_bitset_bitcount(const vsan_bitset *set) {
    int32_t n = 0;
    for (int32_t w = 0; w < kWords; ++w) n += std::popcount(zfx::load<uint64_t>(set->bits + 8 * w));
    return n;
}

// ---- searches -----------------------------------------------------------------------------------

int32_t vsan_bitset_find_bit(const vsan_bitset *set, int32_t start) { return find_forward(set, start, false); }

int32_t vsan_bitset_find_free_bit(const vsan_bitset *set, int32_t start) {
    return find_forward(set, start, true);
}

int32_t vsan_bitset_find_prev_bit(const vsan_bitset *set, int32_t start) { return find_backward(set, start); }

int32_t vsan_bitset_first_bit(const vsan_bitset *set) { return find_forward(set, 0, false); }

int32_t vsan_bitset_next_bit(const vsan_bitset *set, int32_t p) {
    return find_forward(set, int64_t(p) + 1, false);
}

int32_t vsan_bitset_first_free_bit(const vsan_bitset *set) { return find_forward(set, 0, true); }

int32_t vsan_bitset_next_free_bit(const vsan_bitset *set, int32_t p) {
    return find_forward(set, int64_t(p) + 1, true);
}

int32_t vsan_bitset_nth_bit(const vsan_bitset *set, int32_t n) { return nth(set, n, false); }

int32_t vsan_bitset_nth_free_bit(const vsan_bitset *set, int32_t n) { return nth(set, n, true); }

int32_t vsan_bitset_next_range(const vsan_bitset *set, vsan_bitset_range *cursor) {
    return next_run(set, cursor, false);
}

int32_t vsan_bitset_next_free_range(const vsan_bitset *set, vsan_bitset_range *cursor) {
    return next_run(set, cursor, true);
}

int32_t vsan_bitset_is_range_free(const vsan_bitset *set, const vsan_bitset_range *range) {
    // The first set position after first; a range with last <= first never holds it.
    int32_t p = find_forward(set, int64_t(range->first) + 1, false);
    return p >= 0 && p <= range->last ? 0 : 1;
}

// ---- text ---------------------------------------------------------------------------------------

int32_t vsan_bitset_sprintf(char *buffer, const vsan_bitset *set) { return render(buffer, set); }

int32_t vsan_bitset_snprintf(char *buffer, uint32_t size, const vsan_bitset *set, uint8_t restart,
                             uint8_t *done) {
    if (done) *done = 0;
    if (buffer == nullptr || size == 0) return 0;
    // A resumed write goes on after the last run written (so a cursor of 0 never yields 0); widened,
    // as the cursor is anyone's to set.
    int64_t from = 0;
    if (restart) range_print_cursor = 0;
    else from = int64_t(range_print_cursor) + 1;
    uint32_t n = 0;
    bool full = false;
    walk_runs(set->bits, from, [&](int32_t first, int32_t last) {
        const uint32_t len = item_len(n > 0, first, last);
        if (len >= size - n) {  // the item and its terminator would not fit: the chunk ends here
            full = true;
            return false;
        }
        n += put_item(buffer + n, n > 0, first, last);
        range_print_cursor = last;
        return true;
    });
    buffer[n] = '\0';
    if (full) return int32_t(n);
    if (done) *done = 1;
    range_print_cursor = 0;
    return int32_t(n);
}

void vsan_bitset_printf(const vsan_bitset *set) {
    char *buf = static_cast<char *>(zfx::mem_alloc(16384));
    if (buf == nullptr) return;
    render(buf, set);
    std::printf("%s", buf);
    std::free(buf);
}

void vsan_bitset_hex_printf(const vsan_bitset *set) {
    bool first = true;
    walk_runs(set->bits, 0, [&](int32_t a, int32_t b) {
        if (!first) std::putchar(',');
        first = false;
        if (b > a) std::printf("%#x-%#x", unsigned(a), unsigned(b));
        else std::printf("%#x", unsigned(a));
        return true;
    });
}

void vsan_bitset_printf_hex(const vsan_bitset *set) {
    char out[2 * kBytes + 1];
    for (int32_t i = 0; i < kBytes; ++i) zfx::store<uint16_t>(out + 2 * i, zfx::kHexPairs[set->bits[i]]);
    out[2 * kBytes] = '\0';
    std::fputs(out, stdout);
}

// ---- operations inside a run of positions -------------------------------------------------------

void vsan_bitset_union_range(vsan_bitset *dst, const vsan_bitset *src, int32_t start, int32_t count) {
    apply_in_run(dst, start, count, [src](vsan_bitset *r) { vsan_bitset_union(r, src); });
}

void vsan_bitset_intersection_range(vsan_bitset *dst, const vsan_bitset *src, int32_t start, int32_t count) {
    apply_in_run(dst, start, count, [src](vsan_bitset *r) { vsan_bitset_intersection(r, src); });
}

void vsan_bitset_subtract_range(vsan_bitset *dst, const vsan_bitset *src, int32_t start, int32_t count) {
    apply_in_run(dst, start, count, [src](vsan_bitset *r) { vsan_bitset_subtract(r, src); });
}

void vsan_bitset_revert_range(vsan_bitset *set, int32_t start, int32_t count) {
    apply_in_run(set, start, count, [](vsan_bitset *r) { vsan_bitset_revert(r); });
}

// ---- conversions --------------------------------------------------------------------------------

void vsan_bitset_to_bitarray(const vsan_bitset *set, uint8_t *array, int32_t length) {
    if (array == nullptr || length <= 0) return;
    std::memset(array, 0, size_t(length));
    const int32_t n = length < kBytes ? length : kBytes;
    for (int32_t i = 0; i < n; ++i) array[i] = uint8_t(byte_bitswap(set->bits[i]));
}

void vsan_bitset_from_bitarray(vsan_bitset *set, const uint8_t *array, int32_t length) {
    vsan_bitset_clear(set);
    if (array == nullptr) return;
    const int32_t n = length < kBytes ? length : kBytes;
    for (int32_t i = 0; i < n; ++i) set->bits[i] = uint8_t(byte_bitswap(array[i]));
}

int32_t vsan_bitset_compress(const void *set, void *dst, uint32_t dst_size) {
    return bits_compress(set, dst, dst_size);
}

int32_t vsan_bitset_uncompress(const void *src, uint32_t src_len, void *set) {
    return bits_uncompress(src, src_len, set);
}

}  // extern "C"
