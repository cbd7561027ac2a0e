// Tracked allocation of the store lists, with the allocation counters and the failure report.
#include "zfx_tracked_alloc.hpp"

#include <cstring>

#include "platform/heapx.h"
#include "platform/tlg.h"
#include "zfx_internal.hpp"

namespace {

constexpr uint32_t kOwner = 180;            // the feature's owner number with the allocator
constexpr uint32_t kHistEvent = 0x730000;   // event history: memory events
constexpr uint32_t kSubtypeAllocFail = 102; // subtype of an allocation failure
constexpr const char *kAllocFailFormat = "Memory allocation failed in %s:%d (%s)";

// The history record of a failed allocation: the subtype word, then the message and its NUL.
struct AllocFailRecord {
    uint32_t subtype;
    char text[512];
};

void report_failure(const char *file, int32_t line, const char *function) {
    if (tlg_hist_event_subtype_check(kHistEvent, kSubtypeAllocFail) == 0) {
        AllocFailRecord rec;
        std::memset(&rec, 0, sizeof rec);
        rec.subtype = kSubtypeAllocFail;
        const size_t n = zfx::fmt_bounded(rec.text, sizeof rec.text, kAllocFailFormat, function, line, file);
        tlg_hist_event(kHistEvent, uint32_t(n + 5), &rec);
    }
    if (tlg_chk_int(kSubtypeAllocFail, 0, 0, 1) != 0)
        dbg_printf(1, &tlg_dbg_modname, 0, kAllocFailFormat, function, line, file);
}

}  // namespace

extern "C" {
uint64_t zfx_num_mem_allocs;
uint64_t zfx_num_callocs;
uint64_t zfx_num_mem_frees;
}

void *zfx_tracked_alloc(const char *file, int32_t line, const char *function, uint32_t type, uint32_t size,
                        int32_t zero) {
    void *block = zfx::injected_alloc_failure() ? nullptr : heapx_alloc(kOwner, type, size);
    if (block == nullptr) {
        report_failure(file, line, function);
        return nullptr;
    }
    if (zero) {
        std::memset(block, 0, size);
        ++zfx_num_callocs;
    }
    ++zfx_num_mem_allocs;
    return block;
}

void zfx_tracked_free(void *block) {
    if (block == nullptr) return;
    heapx_free(block);
    ++zfx_num_mem_frees;
}
