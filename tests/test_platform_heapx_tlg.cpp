// The platform's tracked allocator and event history.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "capture.hpp"
#include "platform/heapx.h"
#include "platform/tlg.h"

namespace {

// Failure injection (the nth allocation fails, the next ones succeed again) is what the library's
// allocation-failure tests stand on; here the counters and the alignment.
TEST(Heapx, CountsPerOwner) {
    heapx_stats_reset();
    void *a = heapx_alloc(180, 309, 100);
    void *b = heapx_alloc(180, 281, 0);
    void *c = heapx_alloc(7, 1, 8);
    ASSERT_TRUE(a && b && c);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(a) % 16, 0u);
    std::memset(a, 0xAB, 100);
    EXPECT_EQ(heapx_stats(180).allocs, 2u);
    EXPECT_EQ(heapx_stats(180).bytes_in_use, 100u);
    heapx_free(a);
    heapx_free(b);
    heapx_free(nullptr);
    EXPECT_EQ(heapx_stats(180).frees, 2u);
    EXPECT_EQ(heapx_stats(180).bytes_in_use, 0u);
    EXPECT_EQ(heapx_stats(7).bytes_in_use, 8u);
    heapx_free(c);
    EXPECT_EQ(heapx_stats(99999).allocs, 0u);  // untracked owners read as zero
}

TEST(Tlg, HistoryRingKeepsTheNewestInOrder) {
    tlg_hist_clear();
    for (uint32_t i = 0; i < TLG_HIST_CAPACITY + 3; ++i) tlg_hist_event(0x730000, 4, &i);
    ASSERT_EQ(tlg_hist_count(), uint32_t(TLG_HIST_CAPACITY));
    tlg_hist_entry e;
    ASSERT_EQ(tlg_hist_get(0, &e), 0);
    uint32_t v;
    std::memcpy(&v, e.record, 4);
    EXPECT_EQ(v, 3u);  // the three oldest were overwritten
    ASSERT_EQ(tlg_hist_get(TLG_HIST_CAPACITY - 1, &e), 0);
    std::memcpy(&v, e.record, 4);
    EXPECT_EQ(v, uint32_t(TLG_HIST_CAPACITY + 2));
    EXPECT_EQ(tlg_hist_get(TLG_HIST_CAPACITY, &e), -1);

    std::string big(5000, 'x');
    tlg_hist_clear();
    tlg_hist_event(1, uint32_t(big.size()), big.data());
    ASSERT_EQ(tlg_hist_get(0, &e), 0);
    EXPECT_EQ(e.length, uint32_t(TLG_HIST_RECORD_MAX));
    tlg_hist_clear();
}

TEST(Tlg, SubtypeSwitchesAndDebugOutput) {
    EXPECT_EQ(tlg_hist_event_subtype_check(0x730000, 102), 0);
    tlg_hist_subtype_suppress(102, 1);
    EXPECT_NE(tlg_hist_event_subtype_check(0x730000, 102), 0);
    tlg_hist_subtype_suppress(102, 0);
    EXPECT_EQ(tlg_chk_int(102, 0, 0, 1), 0);
    tlg_debug_enable(102, 1);
    EXPECT_NE(tlg_chk_int(102, 0, 0, 1), 0);
    tlg_debug_enable(102, 0);
    zfxtest::Capture err(2);
    dbg_printf(1, &tlg_dbg_modname, 0, "Memory allocation failed in %s:%d (%s)", "f", 3, "file");
    dbg_printf(2, &tlg_dbg_modname, 0, "not shown at level 1");
    EXPECT_EQ(err.text(), "zfx: Memory allocation failed in f:3 (file)\n");
}

}  // namespace
