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

/* Copies len bytes of src into dst, at most limit of them. Returns the bytes copied; 0 and
 * nothing written when dst or src is NULL. */
PLAT_API uint32_t copy_mem_to_buf(uint32_t limit, void *dst, const void *src, uint32_t len);

/* A WWN's 8 bytes in printing order (first byte printed first), passed by value. */
typedef struct plat_wwn {
    uint8_t bytes[8];
} plat_wwn;

PLAT_STATIC_ASSERT(sizeof(plat_wwn) == 8, "a WWN is 8 bytes");

/* Room for the text of fmt_wwn and of fmt_lun, terminator included. */
#define FMT_WWN_SIZE 24u
#define FMT_LUN_SIZE 22u

/* "20:00:00:11:22:33:44:55": the 8 bytes in order, each as two lower-case hexadecimal digits,
 * joined by ":" (23 characters). buf holds at least FMT_WWN_SIZE bytes. Returns buf (NULL for a
 * NULL buf). */
PLAT_API char *fmt_wwn(char *buf, plat_wwn wwn);

/*
 * The text of an 8-byte LUN: its four 16-bit levels, each the big-endian value of two bytes
 * (bytes 0-1 are the first level), as "0x" and four lower-case hexadecimal digits for the first
 * level, then "-" and four digits for each further level up to the last non-zero one:
 *   00 01 00 00 00 00 00 00  ->  "0x0001"
 *   40 12 00 05 00 00 00 00  ->  "0x4012-0005"
 *   00 00 00 00 00 00 00 07  ->  "0x0000-0000-0000-0007"
 * (6 to 21 characters). buf holds at least FMT_LUN_SIZE bytes; a NULL lun gives "". Returns
 * buf (NULL for a NULL buf).
 */
PLAT_API char *fmt_lun(char *buf, const uint8_t *lun);

PLAT_EXTERN_C_END

#endif /* PLAT_FMT_H */
