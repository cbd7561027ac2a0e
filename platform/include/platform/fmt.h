/*
 * fmt.h - bounded copies and formatters of the switch platform.
 */
#ifndef PLAT_FMT_H
#define PLAT_FMT_H

#include "platform/plat_common.h"

PLAT_EXTERN_C_BEGIN

/* Copies the string src into dst, at most limit - 1 characters, and always terminates it when
 * limit is at least 1. A NULL src copies the empty string. Returns the characters copied (the
 * terminator not counted); 0 and nothing written when dst is NULL or limit is 0. src must be
 * terminated or at least limit - 1 bytes long. */
PLAT_API uint32_t copy_str_to_buf(uint32_t limit, char *dst, const char *src);

PLAT_EXTERN_C_END

#endif /* PLAT_FMT_H */
