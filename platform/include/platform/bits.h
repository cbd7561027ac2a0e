/*
 * bits.h - generic bit-array helpers of the platform: byte bit reversal, compression of a
 * length-prefixed bit field, and the process-wide resume cursor of chunked range printing.
 */
#ifndef PLAT_BITS_H
#define PLAT_BITS_H

#include "platform/plat_common.h"

PLAT_EXTERN_C_BEGIN

/* The low 8 bits of b in reverse order (bit 7 to bit 0, bit 6 to bit 1, ...); the other bits of
 * the argument are ignored and the result's bits above 7 are zero. */
PLAT_API uint32_t byte_bitswap(uint32_t b);

/*
 * Compression of a length-prefixed bit field: a u32 byte count in host order followed by that
 * many bytes of bits, bit p being 0x80 >> (p % 8) of byte p / 8 (the layout of a VSAN set).
 *
 * Compressed form (run lengths, so that sparse or clustered sets shrink to a few bytes):
 *   varint   number of bits N (8 x the byte count)
 *   u8       value of the first run (0 or 1)
 *   varint*  lengths of the runs in order, alternating values, each at least 1, summing to N
 * A varint is LEB128: 7 bits per byte, low-order group first, 0x80 set on every byte but the
 * last. The empty field (N = 0) is the varint 0 alone.
 *
 * bits_compress(src, dst, dst_size): writes the compressed form of src to dst; returns its
 *   length in bytes, or -1 when src or dst is NULL, or dst_size is too small (dst then holds
 *   nothing usable).
 * bits_uncompress(src, src_len, dst): dst is a length-prefixed field whose count word gives its
 *   room; its bits are replaced by the decoded ones (positions past N cleared) and its count word
 *   is left as it is. Returns 0, or -1 when the input is malformed (truncated, runs of length 0,
 *   runs not summing to N, or N larger than dst's room); on -1 dst's bits are unspecified but
 *   nothing outside them is written.
 * Round trip: bits_uncompress(bits_compress(x)) restores every bit of x.
 */
PLAT_API int32_t bits_compress(const void *src, void *dst, uint32_t dst_size);
PLAT_API int32_t bits_uncompress(const void *src, uint32_t src_len, void *dst);

/* Resume cursor of the chunked VSAN range writer, shared by every user in the process: the last
 * position of the last run written by an unfinished chunked write, 0 when none is under way. */
PLAT_API extern int32_t range_print_cursor;

PLAT_EXTERN_C_END

#endif /* PLAT_BITS_H */
