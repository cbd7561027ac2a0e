/*
 * tlvbuf.h - TLV arrays of the switch platform.
 *
 * Layout (host byte order throughout; no function here converts anything):
 *   array:   u32 element count, then the elements back to back in the order they were added
 *   element: u16 type, u16 length (value bytes), the value, then zero padding up to a multiple
 *            of 4 bytes, so that every element, and so every header and 32-bit value, starts
 *            4 bytes apart from the array's start
 *   element with a 32-bit header: u32 type, u32 length, the value, padding likewise
 *
 * One rule serves building, walking and sizing:
 *   tlvbuf_size_get(n)   = 4 + n rounded up to a multiple of 4
 *   tlvbuf32_size_get(n) = 8 + n rounded up to a multiple of 4
 * (both saturate at UINT32_MAX for n near 2^32). For value sizes up to 65531 the result fits 16
 * bits; callers that keep 16-bit sizes cut larger ones themselves.
 *
 * Walking: the cursor is a u32 that the caller sets to 0 before the first call and otherwise
 * leaves to the walker; it is opaque (it encodes the position of the next element, so that each
 * step costs the same however far the walk has come, for arrays of up to 8191 elements within
 * 1 MiB; beyond that the walker remembers, per thread, where the last step it took led, so that
 * a walk that goes on from there costs the same too, and any other step re-walks the headers
 * from the start). The walkers trust the array:
 * they have no length to check against and read every header up to the count. An array that
 * comes from outside the process must be validated against the bytes it has before it is walked.
 *
 * The trailing flags arguments are reserved and always 0.
 */
#ifndef PLAT_TLVBUF_H
#define PLAT_TLVBUF_H

#include "platform/plat_common.h"

PLAT_EXTERN_C_BEGIN

PLAT_API uint32_t tlvbuf_size_get(uint32_t n);
PLAT_API uint32_t tlvbuf32_size_get(uint32_t n);

/* The array's count word; 0 for NULL. */
PLAT_API uint32_t tlvbuf_get_num_tlvs(const void *array, uint32_t flags);

/*
 * Appends one element (type, length value bytes copied from value, zero padding) and increments
 * the count. capacity is the bytes the array may use from its start, count word included.
 * Returns 0, or -1 with the array unchanged when: array is NULL, value is NULL with a nonzero
 * length, the existing elements do not lie within the capacity, the count is at its maximum, or
 * the new element (padding included) does not fit.
 */
PLAT_API int32_t tlvbuf_add_tlv(void *array, uint32_t capacity, uint16_t type, uint16_t length,
                                const void *value, uint32_t flags);

/*
 * The next element of the walk: 0 with its type, length and a pointer to its value inside the
 * array (changes through it change the array), or nonzero (-1) when the count is exhausted or
 * array or cursor is NULL. The value pointer is NULL for an element of length 0. type, length
 * and value may each be NULL when not wanted.
 */
PLAT_API int32_t tlvbuf_get_next_tlv(void *array, uint16_t *type, uint16_t *length, void **value,
                                     uint32_t flags, uint32_t *cursor);

/* The walker of arrays that the sender declares aligned. Every array of this platform is laid
 * out aligned (see above), so it walks exactly as tlvbuf_get_next_tlv. */
PLAT_API int32_t tlvbuf_aligned_get_next_tlv(void *array, uint16_t *type, uint16_t *length,
                                             void **value, uint32_t flags, uint32_t *cursor);

PLAT_EXTERN_C_END

#endif /* PLAT_TLVBUF_H */
