/*
 * zfx_testing.h - hooks that exist only in test builds of libzfx (CMake option ZFX_TESTING, on
 * whenever the tests are built). A library built for installation leaves them out
 * (-DZFX_BUILD_TESTS=OFF), so they are never part of its interface.
 */
#ifndef ZFX_TESTING_H
#define ZFX_TESTING_H

#include "zfx_common.h"

ZFX_EXTERN_C_BEGIN

#ifdef ZFX_TESTING
/* From now on, the nth allocation that libzfx makes (1 = the next one), with the standard
 * allocator or the tracked allocator, fails as if memory were exhausted; the ones before and after
 * it succeed. 0 turns failure off. Also resets the allocation counter. */
ZFX_API void zfx_testing_fail_allocation(uint32_t nth);
/* Allocations libzfx attempted since the last zfx_testing_fail_allocation call (the failed one
 * included). */
ZFX_API uint32_t zfx_testing_allocation_count(void);
/* Store lookups by key that libzfx made since the last call (walks of a table are not counted),
 * and the count starts again: a reader that should take its records from a walk can be held to
 * it, since its lookups give the same text, only slower. */
ZFX_API uint32_t zfx_testing_lookup_count(void);
#endif

ZFX_EXTERN_C_END

#endif /* ZFX_TESTING_H */
