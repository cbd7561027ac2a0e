// zfx_gen_text.hpp - what every section of the configuration text shares: the process-wide
// generation handle, line emission, the WWN text, range text that must fit a line, and the report
// of a section handed no store.
#pragma once

#include "platform/ptxt.h"
#include "vsan_bitset.h"
#include "zfx_internal.hpp"

namespace zfx {

// The generation in progress, set by either entry point; sections that are not handed the handle
// (the zone section) take it from here. One generation at a time per process.
extern uint32_t gen_handle;

// Level argument of emit for "the element's base level" (ptxt_elem_str_add) rather than a level.
constexpr int32_t kBaseLevel = -1;

// Buffer for a line that must hold a whole VSAN range text with its words around it.
constexpr size_t kRangeLineSize = VSAN_BITSET_TEXT_SIZE + 128;

// Formats a line (or a piece of one) into buf of size bytes and adds it to element at level
// (kBaseLevel: the base level). A text longer than the buffer is cut; when the format ends a line
// the cut line still ends with "\n", so that the next line never runs into it. Returns the
// configuration-text service's status.
__attribute__((format(printf, 6, 7))) int32_t emit(uint32_t handle, uint32_t element, int32_t level, char *buf,
                                                   size_t size, const char *fmt, ...);

// "xx:xx:xx:xx:xx:xx:xx:xx": a WWN's 8 bytes in stored order, lower-case hexadecimal (the
// platform's fmt_wwn, for WWNs that lie in a record).
constexpr size_t kWwnTextSize = 24;
void wwn_text(char (&out)[kWwnTextSize], const uint8_t *wwn);

// Cuts VSAN range text in place to at most max characters, after its last whole run, so that a
// cut text never names a VSAN that is not in the set. Returns the new length.
size_t cut_ranges(char *text, size_t max);

// The VSAN range text of set in out, cut after its last whole run when it is longer than room
// characters. Returns its length.
size_t range_text(char (&out)[VSAN_BITSET_TEXT_SIZE], const vsan_bitset *set, size_t room);

// The report of a section handed no store, through perror as the system reports it.
inline constexpr const char *kVtNullStore = "ZFX-VT-PTXT: kvdb service is null\n";
inline constexpr const char *kSgNullStore = "ZFX-SG-PTXT: kvdb service is null\n";
void report_null_store(const char *message);

}  // namespace zfx
