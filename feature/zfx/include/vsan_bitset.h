/*
 * vsan_bitset.h - the set of VSAN numbers: 4096 positions, one per VSAN 0 to 4095, with its
 * algebra, searches, run iterators, text form and conversions.
 *
 * Layout (also a message and store format): a u32 length word in host order (512), then 512
 * bytes of bits. Position p lives in byte p / 8 of the bits under the mask 0x80 >> (p % 8): the
 * lowest position of each byte is its most significant bit. The same bit order is used by every
 * bitmap of the library.
 *
 * The length word is written only by vsan_bitset_init (and so vsan_bitset_new); no operation
 * reads, tests or changes it otherwise: vsan_bitset_copy leaves the destination's alone and
 * vsan_bitset_equal does not compare it.
 *
 * Results: searches return a position, or -1 when there is none; tests return 1 or 0.
 *
 * Out-of-range arguments never touch memory outside the 512 bytes of bits:
 *  - set/clear of a position outside 0..4095 does nothing; testing one gives 0;
 *  - runs (start, count) are clipped to 0..4095; a count of 0 or less does nothing;
 *  - forward searches treat a negative start as 0 and give -1 for a start of 4096 or more;
 *  - the backward search treats a start above 4095 as 4095 and gives -1 for a negative start.
 *
 * Text form (the VSAN range text): runs of set positions in ascending order, "%d" for a run of
 * one, "%d-%d" for a run of two or more, joined by "," without blanks; empty for the empty set.
 * The longest text any set yields is 12913 characters (VSAN_BITSET_TEXT_MAX), so a buffer of
 * VSAN_BITSET_TEXT_SIZE (12914) bytes always holds it with its terminator.
 *
 * Threads: no operation keeps shared state, except vsan_bitset_snprintf, whose resume cursor is
 * the process-wide range_print_cursor of the platform: one chunked write at a time per process.
 */
#ifndef VSAN_BITSET_H
#define VSAN_BITSET_H

#include "zfx_common.h"

ZFX_EXTERN_C_BEGIN

#define VSAN_BITSET_NUMBITS 4096
#define VSAN_BITSET_BYTES 512
#define VSAN_BITSET_TEXT_MAX 12913
#define VSAN_BITSET_TEXT_SIZE 12914

typedef struct vsan_bitset {
    uint32_t len;                      /* length of the bit field in bytes: 512 */
    uint8_t bits[VSAN_BITSET_BYTES];   /* position p: bits[p / 8] & (0x80 >> (p % 8)) */
} vsan_bitset;

ZFX_STATIC_ASSERT(sizeof(vsan_bitset) == 516, "vsan_bitset is 516 bytes");
ZFX_STATIC_ASSERT(offsetof(vsan_bitset, bits) == 4, "bits follow the length word");

/* Cursor of the run iterators and argument of vsan_bitset_is_range_free. A walk starts with
 * {first = 1, last = 0}: no run returned yet. */
typedef struct vsan_bitset_range {
    int32_t first; /* first position of a run */
    int32_t last;  /* last position of the run, inclusive */
} vsan_bitset_range;

ZFX_STATIC_ASSERT(sizeof(vsan_bitset_range) == 8, "vsan_bitset_range is two 32-bit words");

#define VSAN_BITSET_RANGE_START {1, 0}

/* ---- elementary operations ---------------------------------------------------------------- */

ZFX_API int32_t vsan_bitset_numbits(void); /* 4096 */
ZFX_API void vsan_bitset_set_bit(vsan_bitset *set, int32_t p);
ZFX_API void vsan_bitset_clear_bit(vsan_bitset *set, int32_t p);
ZFX_API int32_t vsan_bitset_is_bit_set(const vsan_bitset *set, int32_t p);
/* Positions start .. start + count - 1 become set (value nonzero) or clear (value 0). */
ZFX_API void vsan_bitset_set_range_value(vsan_bitset *set, int32_t start, int32_t count, int32_t value);
ZFX_API void vsan_bitset_set_range(vsan_bitset *set, int32_t start, int32_t count);
ZFX_API void vsan_bitset_clear_range(vsan_bitset *set, int32_t start, int32_t count);
ZFX_API void vsan_bitset_fill(vsan_bitset *set);
ZFX_API void vsan_bitset_clear(vsan_bitset *set);
/* Length word 512, all positions clear; returns set. */
ZFX_API vsan_bitset *vsan_bitset_init(vsan_bitset *set);
/* A new initialised set from the standard allocator, or NULL; release with vsan_bitset_delete. */
ZFX_API vsan_bitset *vsan_bitset_new(void);
ZFX_API void vsan_bitset_delete(vsan_bitset *set);
/* The destination's bits become the source's; its length word is left alone. */
ZFX_API void vsan_bitset_copy(vsan_bitset *dst, const vsan_bitset *src);

/* ---- whole-set algebra ---------------------------------------------------------------------
 * Byte by byte over the 512 bytes; every operand byte is read before the destination byte is
 * written, so any operands may be the same set. In the mask operations the positions outside the
 * mask keep their old value and the operation applies inside the mask only. */

ZFX_API void vsan_bitset_union(vsan_bitset *dst, const vsan_bitset *src);        /* dst | src */
ZFX_API void vsan_bitset_intersection(vsan_bitset *dst, const vsan_bitset *src); /* dst & src */
ZFX_API void vsan_bitset_subtract(vsan_bitset *dst, const vsan_bitset *src);     /* dst & ~src */
ZFX_API void vsan_bitset_revert(vsan_bitset *set);                               /* ~set */
ZFX_API void vsan_bitset_xor(vsan_bitset *dst, const vsan_bitset *a, const vsan_bitset *b);
ZFX_API void vsan_bitset_maskcopy(vsan_bitset *dst, const vsan_bitset *src, const vsan_bitset *mask);
ZFX_API void vsan_bitset_maskrevert(vsan_bitset *dst, const vsan_bitset *mask);
ZFX_API void vsan_bitset_maskintersect(vsan_bitset *dst, const vsan_bitset *src, const vsan_bitset *mask);
ZFX_API void vsan_bitset_maskunion(vsan_bitset *dst, const vsan_bitset *src, const vsan_bitset *mask);
ZFX_API void vsan_bitset_masksubtract(vsan_bitset *dst, const vsan_bitset *src, const vsan_bitset *mask);

/* ---- comparisons and counting ---------------------------------------------------------------- */

ZFX_API int32_t vsan_bitset_intersects(const vsan_bitset *a, const vsan_bitset *b);
ZFX_API int32_t vsan_bitset_equal(const vsan_bitset *a, const vsan_bitset *b);
ZFX_API int32_t vsan_bitset_maskequal(const vsan_bitset *a, const vsan_bitset *b, const vsan_bitset *mask);
/* 1 when every position set in a is set in b. */
ZFX_API int32_t vsan_bitset_subset(const vsan_bitset *a, const vsan_bitset *b);
ZFX_API int32_t vsan_bitset_bitcount(const vsan_bitset *set);

/* ---- searches --------------------------------------------------------------------------------- */

ZFX_API int32_t vsan_bitset_find_bit(const vsan_bitset *set, int32_t start);      /* smallest set >= start */
ZFX_API int32_t vsan_bitset_find_free_bit(const vsan_bitset *set, int32_t start); /* smallest clear >= start */
ZFX_API int32_t vsan_bitset_find_prev_bit(const vsan_bitset *set, int32_t start); /* largest set <= start */
ZFX_API int32_t vsan_bitset_first_bit(const vsan_bitset *set);
ZFX_API int32_t vsan_bitset_next_bit(const vsan_bitset *set, int32_t p);          /* find_bit(p + 1) */
ZFX_API int32_t vsan_bitset_first_free_bit(const vsan_bitset *set);
ZFX_API int32_t vsan_bitset_next_free_bit(const vsan_bitset *set, int32_t p);
/* The set (clear) position with n set (clear) positions before it; -1 for n < 0 or too few. */
ZFX_API int32_t vsan_bitset_nth_bit(const vsan_bitset *set, int32_t n);
ZFX_API int32_t vsan_bitset_nth_free_bit(const vsan_bitset *set, int32_t n);
/* 0 and the next run of set (clear) positions in *cursor, or -1 when there is none. A cursor
 * whose last is 4094 or more ends the walk and is left as it was. */
ZFX_API int32_t vsan_bitset_next_range(const vsan_bitset *set, vsan_bitset_range *cursor);
ZFX_API int32_t vsan_bitset_next_free_range(const vsan_bitset *set, vsan_bitset_range *cursor);
/* 1 when no position from range->first + 1 to range->last is set (first itself not examined). */
ZFX_API int32_t vsan_bitset_is_range_free(const vsan_bitset *set, const vsan_bitset_range *range);

/* ---- text --------------------------------------------------------------------------------------- */

/* Writes the VSAN range text, terminated, into buffer (room for VSAN_BITSET_TEXT_SIZE bytes);
 * returns the number of characters. */
ZFX_API int32_t vsan_bitset_sprintf(char *buffer, const vsan_bitset *set);

/*
 * Chunked VSAN range text for buffers smaller than the whole text. Call with restart 1, then with
 * restart 0 until *done is 1; every chunk stands alone (no leading ","), and the caller joins
 * chunks with a separator of its own. A run is never split: a chunk ends before the first item
 * (separator and run) that would not fit with its terminator. Returns the characters written in
 * this chunk; *done is 1 when the chunk ends the text. The buffer is always terminated (size
 * must be at least 1; with size 0 or a NULL buffer nothing is written, 0 is returned and *done is
 * 0). A chunk in which not even the first item fits comes back empty with *done 0; a further call
 * with the same size returns the same empty chunk. done may be NULL.
 *
 * The resume point is the process-wide range_print_cursor: the last position of the last whole
 * run written, 0 when no chunked write is under way. A resumed write continues after it, so a
 * cursor of 0 never yields position 0.
 */
ZFX_API int32_t vsan_bitset_snprintf(char *buffer, uint32_t size, const vsan_bitset *set, uint8_t restart,
                                     uint8_t *done);

/* Prints the VSAN range text to standard output, without a newline (nothing when its 16384-byte
 * work buffer cannot be allocated). */
ZFX_API void vsan_bitset_printf(const vsan_bitset *set);
/* Prints the runs in hexadecimal ("%#x" or "%#x-%#x", joined by ","), without a newline. */
ZFX_API void vsan_bitset_hex_printf(const vsan_bitset *set);
/* Prints the 512 bytes of bits as 1024 lower-case hexadecimal digits. */
ZFX_API void vsan_bitset_printf_hex(const vsan_bitset *set);

/* ---- operations inside a run of positions --------------------------------------------------
 * Inside start .. start + count - 1 the destination becomes the result of the whole-set
 * operation; outside it stays as it was. The run is clipped to 0..4095. These cannot fail. */

ZFX_API void vsan_bitset_union_range(vsan_bitset *dst, const vsan_bitset *src, int32_t start, int32_t count);
ZFX_API void vsan_bitset_intersection_range(vsan_bitset *dst, const vsan_bitset *src, int32_t start,
                                            int32_t count);
ZFX_API void vsan_bitset_subtract_range(vsan_bitset *dst, const vsan_bitset *src, int32_t start, int32_t count);
ZFX_API void vsan_bitset_revert_range(vsan_bitset *set, int32_t start, int32_t count);

/* ---- conversions ---------------------------------------------------------------------------------
 * Bit-array form: position p is bit 1 << (p % 8) of byte p / 8 (each byte's bits reversed). */

/* The first length bytes of array are zeroed, then bytes 0..min(512, length)-1 converted. */
ZFX_API void vsan_bitset_to_bitarray(const vsan_bitset *set, uint8_t *array, int32_t length);
/* The set's bits are cleared (length word untouched), then taken from array's first
 * min(512, length) bytes. */
ZFX_API void vsan_bitset_from_bitarray(vsan_bitset *set, const uint8_t *array, int32_t length);
/* Pass-throughs to the platform's bits_compress / bits_uncompress (see platform/bits.h). */
ZFX_API int32_t vsan_bitset_compress(const void *set, void *dst, uint32_t dst_size);
ZFX_API int32_t vsan_bitset_uncompress(const void *src, uint32_t src_len, void *set);

ZFX_EXTERN_C_END

#endif /* VSAN_BITSET_H */
