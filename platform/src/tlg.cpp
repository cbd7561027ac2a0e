// Event history (a ring of the most recent events) and debug output.
#include "platform/tlg.h"

#include <bitset>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

constexpr uint32_t kSubtypes = 4096;  // subtypes above this range are always recorded, never printed

tlg_hist_entry g_ring[TLG_HIST_CAPACITY];
uint32_t g_next;   // slot of the next event
uint32_t g_count;  // events held
std::bitset<kSubtypes> g_suppressed;
std::bitset<kSubtypes> g_debug;
int32_t g_level = 1;

}  // namespace

extern "C" {

tlg_modname tlg_dbg_modname = {"zfx"};

int32_t tlg_hist_event_subtype_check(uint32_t, uint32_t subtype) {
    return subtype < kSubtypes && g_suppressed[subtype] ? 1 : 0;
}

int32_t tlg_hist_event(uint32_t event, uint32_t length, const void *record) {
    tlg_hist_entry &e = g_ring[g_next];
    e.event = event;
    e.length = length < TLG_HIST_RECORD_MAX ? length : TLG_HIST_RECORD_MAX;
    std::memset(e.record, 0, sizeof e.record);
    if (record != nullptr) std::memcpy(e.record, record, e.length);
    g_next = (g_next + 1) % TLG_HIST_CAPACITY;
    if (g_count < TLG_HIST_CAPACITY) ++g_count;
    return 0;
}

int32_t tlg_chk_int(uint32_t subtype, uint32_t, uint32_t, uint32_t) {
    return subtype < kSubtypes && g_debug[subtype] ? 1 : 0;
}

int32_t dbg_printf(int32_t level, const tlg_modname *module, uint32_t, const char *format, ...) {
    if (level > g_level || format == nullptr) return 0;
    char text[1024];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(text, sizeof text, format, ap);
    va_end(ap);
    std::fprintf(stderr, "%.*s: %s\n", TLG_MODNAME_SIZE, module ? module->name : "", text);
    return 0;
}

uint32_t tlg_hist_count(void) { return g_count; }

int32_t tlg_hist_get(uint32_t i, tlg_hist_entry *out) {
    if (i >= g_count || out == nullptr) return -1;
    const uint32_t oldest = (g_next + TLG_HIST_CAPACITY - g_count) % TLG_HIST_CAPACITY;
    *out = g_ring[(oldest + i) % TLG_HIST_CAPACITY];
    return 0;
}

void tlg_hist_clear(void) {
    g_next = 0;
    g_count = 0;
}

void tlg_hist_subtype_suppress(uint32_t subtype, int32_t suppress) {
    if (subtype < kSubtypes) g_suppressed[subtype] = suppress != 0;
}

void tlg_debug_enable(uint32_t subtype, int32_t enable) {
    if (subtype < kSubtypes) g_debug[subtype] = enable != 0;
}

void tlg_dbg_level_set(int32_t level) { g_level = level; }

}  // extern "C"
