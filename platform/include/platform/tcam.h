/*
 * tcam.h - the interface-family query of the platform's forwarding hardware, reduced to a table
 * that tests and tools fill.
 *
 * tcam_is_family_a_interface(ifindex, flag): 0 and *flag nonzero when the interface belongs to
 *   hardware family A (whose forwarding is asked for the next hop), 0 and *flag 0 when it belongs
 *   to another family; the interface's status when the table gives one, TCAM_ERR_NO_INTERFACE for
 *   an interface the table does not hold, TCAM_ERR_INVALID for a NULL flag pointer.
 */
#ifndef PLAT_TCAM_H
#define PLAT_TCAM_H

#include "platform/plat_common.h"

PLAT_EXTERN_C_BEGIN

#define TCAM_ERR_NO_INTERFACE ((int32_t)0x40510002)
#define TCAM_ERR_INVALID ((int32_t)0x40510006)

PLAT_API int32_t tcam_is_family_a_interface(uint32_t ifindex, uint32_t *flag);

/* Table control: the interface's family (nonzero = family A) and the status its query answers
 * (0 for a working interface); clearing forgets every interface. */
PLAT_API void tcam_interface_set(uint32_t ifindex, int32_t family_a, int32_t status);
PLAT_API void tcam_table_clear(void);

PLAT_EXTERN_C_END

#endif /* PLAT_TCAM_H */
