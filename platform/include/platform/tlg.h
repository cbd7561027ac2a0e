/*
 * tlg.h - the platform's event history and debug output.
 *
 * Event history: components record short binary events (an event number and a record of bytes);
 * the history keeps the last TLG_HIST_CAPACITY of them in a ring that tools and tests read back.
 *
 * tlg_hist_event_subtype_check(event, subtype): 0 when events of that subtype are to be recorded
 *   (the default for every subtype), nonzero when a test or tool suppressed the subtype.
 * tlg_hist_event(event, length, record): records length bytes of record (at most
 *   TLG_HIST_RECORD_MAX are kept; the kept length is what was recorded). Returns 0.
 * tlg_chk_int(subtype, a, b, c): nonzero when debug output of the subtype is enabled (off by
 *   default); a, b and c are the caller's qualifiers and are not interpreted here.
 * dbg_printf(level, module, flags, format, ...): writes "<module name>: <text>\n" to standard
 *   error when level is at most the debug level set with tlg_dbg_level_set (default 1); module
 *   points to the caller's module-name record, such as &tlg_dbg_modname.
 */
#ifndef PLAT_TLG_H
#define PLAT_TLG_H

#include "platform/plat_common.h"

PLAT_EXTERN_C_BEGIN

#define TLG_HIST_CAPACITY 256
#define TLG_HIST_RECORD_MAX 1024
#define TLG_MODNAME_SIZE 32

/* The module name a process prints its debug lines under; "zfx" unless the process sets it. */
typedef struct tlg_modname {
    char name[TLG_MODNAME_SIZE];
} tlg_modname;
PLAT_API extern tlg_modname tlg_dbg_modname;

PLAT_API int32_t tlg_hist_event_subtype_check(uint32_t event, uint32_t subtype);
PLAT_API int32_t tlg_hist_event(uint32_t event, uint32_t length, const void *record);
PLAT_API int32_t tlg_chk_int(uint32_t subtype, uint32_t a, uint32_t b, uint32_t c);
PLAT_API int32_t dbg_printf(int32_t level, const tlg_modname *module, uint32_t flags, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

/* ---- control and read-back, for tools and tests ---- */

/* One recorded event as read back. */
typedef struct tlg_hist_entry {
    uint32_t event;
    uint32_t length;                        /* bytes kept in record */
    uint8_t record[TLG_HIST_RECORD_MAX];
} tlg_hist_entry;

/* Number of events held (at most TLG_HIST_CAPACITY). */
PLAT_API uint32_t tlg_hist_count(void);
/* The i-th held event, oldest first; 0, or -1 when i is not below tlg_hist_count(). */
PLAT_API int32_t tlg_hist_get(uint32_t i, tlg_hist_entry *out);
PLAT_API void tlg_hist_clear(void);
/* Suppress (nonzero) or allow (0) the recording of a subtype. */
PLAT_API void tlg_hist_subtype_suppress(uint32_t subtype, int32_t suppress);
/* Enable (nonzero) or disable (0) the debug output of a subtype. */
PLAT_API void tlg_debug_enable(uint32_t subtype, int32_t enable);
PLAT_API void tlg_dbg_level_set(int32_t level);

PLAT_EXTERN_C_END

#endif /* PLAT_TLG_H */
