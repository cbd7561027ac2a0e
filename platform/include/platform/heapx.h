/*
 * heapx.h - the platform's tracked allocator: blocks from the standard heap, counted per owner (a
 * component number; the feature's is 180) so that a leak or a runaway table shows per component.
 *
 * heapx_alloc(owner, type, size): a block of size bytes (not cleared), or NULL when the heap is
 *   exhausted or a test asked this allocation to fail. type is the caller's allocation type,
 *   recorded with the block. A size of 0 gives a valid, unique block.
 * heapx_free(block): releases a block from heapx_alloc; NULL is ignored. Blocks from the standard
 *   allocator must not be given here, nor heapx blocks to free().
 *
 * Counters, failure injection and trailers exist for tests and tools; they are process-wide and
 * unlocked.
 */
#ifndef PLAT_HEAPX_H
#define PLAT_HEAPX_H

#include "platform/plat_common.h"

PLAT_EXTERN_C_BEGIN

PLAT_API void *heapx_alloc(uint32_t owner, uint32_t type, uint32_t size);
PLAT_API void heapx_free(void *block);

typedef struct heapx_owner_stats {
    uint64_t allocs;        /* successful allocations */
    uint64_t frees;         /* releases */
    uint64_t failures;      /* allocations refused */
    uint64_t bytes_in_use;  /* bytes of the blocks not yet released */
} heapx_owner_stats;

/* Counters of one owner (all zero for an owner never seen). Owners 0 to 1023 are tracked. */
PLAT_API heapx_owner_stats heapx_stats(uint32_t owner);
/* Clears every owner's counters (blocks still outstanding stay valid and can be freed). */
PLAT_API void heapx_stats_reset(void);
/* From now on the nth heapx_alloc (1 = the next one) fails; 0 turns failure off. */
PLAT_API void heapx_fail_allocation(uint32_t nth);

/* From now on every block is followed by a copy of the size bytes at bytes (at most
 * HEAPX_TRAILER_MAX; size 0 turns it off). A reader that runs past a block's end then reads what
 * the test chose, say one more plausible record, instead of whatever the heap holds there, so
 * that the overrun shows in what it produces. Returns 0, or -1 for a size too large or no bytes. */
#define HEAPX_TRAILER_MAX 64
PLAT_API int32_t heapx_trail_blocks(const void *bytes, uint32_t size);

PLAT_EXTERN_C_END

#endif /* PLAT_HEAPX_H */
