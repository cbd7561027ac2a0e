/*
 * plat_common.h - shared definitions of the platform layer: the switch services that libzfx
 * calls (channel, transport, store, configuration text, TLV arrays, trees, allocator, event
 * history, formatters), implemented here so that the library runs on any Linux machine. A real
 * platform replaces this library at link time; its interface is plain C.
 */
#ifndef PLAT_COMMON_H
#define PLAT_COMMON_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define PLAT_EXTERN_C_BEGIN extern "C" {
#define PLAT_EXTERN_C_END }
#else
#define PLAT_EXTERN_C_BEGIN
#define PLAT_EXTERN_C_END
#endif

#define PLAT_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define PLAT_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define PLAT_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

#endif /* PLAT_COMMON_H */
