/*
 * wwnsvc.h - the platform's WWN service, reduced to a table that tests and tools fill: for a
 * switch WWN and a VSAN, the WWN the switch uses in that VSAN.
 *
 * wwnsvc_get_vsan_wwn(switch_wwn, vsans, reply): switch_wwn points to the switch's 8 WWN bytes;
 *   vsans is a length-prefixed VSAN bit field (the layout of a VSAN set) whose lowest set VSAN is
 *   the one asked; reply is the caller's 16-byte buffer. On 0 the reply holds the switch WWN in
 *   bytes 0 to 7 and the VSAN's WWN in bytes 8 to 15. WWNSVC_ERR_NOT_FOUND when the table has no
 *   entry for the pair, WWNSVC_ERR_INVALID for a NULL argument or a set without a VSAN.
 */
#ifndef PLAT_WWNSVC_H
#define PLAT_WWNSVC_H

#include "platform/plat_common.h"

PLAT_EXTERN_C_BEGIN

#define WWNSVC_ERR_NOT_FOUND ((int32_t)0x40500002)
#define WWNSVC_ERR_INVALID ((int32_t)0x40500006)

PLAT_API int32_t wwnsvc_get_vsan_wwn(const void *switch_wwn, const void *vsans, void *reply);

/* Table control: add or replace the VSAN WWN of (switch WWN, VSAN); clear the table. */
PLAT_API void wwnsvc_table_set(const uint8_t switch_wwn[8], uint32_t vsan, const uint8_t vsan_wwn[8]);
PLAT_API void wwnsvc_table_clear(void);

PLAT_EXTERN_C_END

#endif /* PLAT_WWNSVC_H */
