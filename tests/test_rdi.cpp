// Virtual domains: both line forms among the global lines, the per-AFID list's bytes and
// capacities and refusals, the longest range text, the list form's status, and the sections
// handed no store.
#include <climits>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "capture.hpp"
#include "platform/heapx.h"
#include "store.hpp"
#include "zfx_ascii_cfg.h"
#include "zfx_testing.h"

namespace {

using namespace zfxtest;

TEST(VirtualDomains, LinesOfBothFormsStandAmongTheGlobalLines) {
    const std::string add = "zfx virtual-fcdomain-add vsan-ranges ", add2 = "zfx virtual-fcdomain-add2 autonomous-fabric-ID ";
    const struct {
        const char *name;
        std::vector<Record> records;
        std::string expected;
    } cases[] = {
        {"list form, forced", {flags_rec(ZFX_GFLAG_VDOM_FORCE), vdom_list_rec(vsans({1, 2, 3, 5}))}, add + "1-3,5 force\n"},
        {"only 4094 and 4095", {vdom_list_rec(vsans({4094, 4095}))}, ""},
        {"0 and 1", {vdom_list_rec(vsans({0, 1}))}, add + "1\n"},
        {"a short list value gives the bits it holds", {{{0x6D, 0x00}, cat({le32(512), {0x60}})}}, add + "1-2\n"},
        {"list value without bits", {{{0x6D, 0x00}, le32(512)}}, ""},
        {"per AFID, an empty set skipped", {rdi_rec(1, vsans({10, 11, 12})), rdi_rec(2, vsans({0, 4095}))},
         add2 + "1  vsan-ranges 10-12\n"},
        {"per AFID in key order (host-order AFIDs)", {rdi_rec(1, vsans({1})), rdi_rec(256, vsans({2}))},
         add2 + "256  vsan-ranges 2\n" + add2 + "1  vsan-ranges 1\n"},
        {"a short per-AFID value", {rdi_rec(7, cat({le32(512), {0, 0x80}}))}, add2 + "7  vsan-ranges 8\n"},
        {"a key of another length ends the walk",
         {rdi_rec(1, vsans({1})), {{0x79, 0, 2, 0, 0}, vsans({2})}, rdi_rec(3, vsans({3}))}, add2 + "1  vsan-ranges 1\n"},
        {"never a commit of their own", {distribute_rec(1), vdom_list_rec(vsans({7})), rdi_rec(5, vsans({8}))},
         "zfx distribute\n" + add + "7\n" + add2 + "5  vsan-ranges 8\n"},
    };
    for (const auto &c : cases) EXPECT_EQ(section(c.records), c.expected) << c.name;
}

// The edge fabrics' text digest pins the cut of the longest range text in both line forms; the
// forced form's longer tail must still leave the line within its size, cut between whole runs.
TEST(VirtualDomains, ForcedLongLineIsCutAfterItsLastWholeRun) {
    std::vector<int> pairs;  // 1-2,4-5,...: 12911 characters of range text
    for (int p = 1; p + 1 < 4094; p += 3) pairs.insert(pairs.end(), {p, p + 1});
    const Bytes set = vsans_of(pairs);
    char full[VSAN_BITSET_TEXT_SIZE];
    vsan_bitset_sprintf(full, reinterpret_cast<const vsan_bitset *>(set.data()));
    const std::string line = section({flags_rec(ZFX_GFLAG_VDOM_FORCE), vdom_list_rec(set)});
    const std::string head = "zfx virtual-fcdomain-add vsan-ranges ", tail = " force\n";
    EXPECT_LE(line.size(), ZFX_VDOM_LINE_SIZE - 1);
    EXPECT_GT(line.size(), ZFX_VDOM_LINE_SIZE - 12);  // no more than a run and its comma short
    ASSERT_EQ(line.rfind(head, 0), 0u);
    ASSERT_EQ(line.substr(line.size() - tail.size()), tail);
    const std::string ranges = line.substr(head.size(), line.size() - head.size() - tail.size());
    EXPECT_EQ(std::string(full).rfind(ranges, 0), 0u);
    EXPECT_EQ(full[ranges.size()], ',');
}

TEST(VirtualDomains, ListHoldsTheEntriesUpToItsCapacity) {
    std::vector<Record> records;
    for (uint16_t afid = 1; afid <= 5; ++afid) records.push_back(rdi_rec(afid, vsans({afid, 100})));
    Stored r(records);
    const uint64_t allocs = zfx_num_mem_allocs;
    const struct {
        int32_t count;
        uint32_t size, filled;
    } cases[] = {{2, 1044, 2}, {-1, 4 + 5 * 520, 5}, {0, 4, 0}, {7, 4 + 7 * 520, 5}};
    for (const auto &c : cases) {
        zfx_rdi_list *list = nullptr;
        uint32_t size = 0;
        ASSERT_EQ(zfx_rdi_get_next(r.get(), c.count, &list, &size), 0);
        ASSERT_NE(list, nullptr);
        ASSERT_EQ(size, c.size) << c.count;
        const uint8_t *b = reinterpret_cast<const uint8_t *>(list);
        EXPECT_EQ(Bytes(b, b + 4), be32(c.filled));
        for (uint32_t i = 0; i < c.filled; ++i)
            EXPECT_EQ(Bytes(b + 4 + 520 * i, b + 4 + 520 * (i + 1)), cat({{0, uint8_t(i + 1), 0, 0}, records[i].second}));
        EXPECT_EQ(Bytes(b + 4 + 520 * c.filled, b + size), zeros(size - 4 - 520 * c.filled));
        heapx_free(list);
    }
    EXPECT_EQ(zfx_num_mem_allocs - allocs, 4u);

    alignas(4) uint8_t stale[4];
    zfx_rdi_list *list = reinterpret_cast<zfx_rdi_list *>(stale);
    uint32_t size = 9;
    // The allocator's own refusal takes the library's failure path (the allocation-failure sweep
    // checks what it leaves and reports) and is counted under the feature's owner.
    const uint64_t refused = heapx_stats(180).failures;
    heapx_fail_allocation(1);
    EXPECT_EQ(zfx_rdi_get_next(r.get(), 1, &list, &size), 0);
    heapx_fail_allocation(0);
    EXPECT_EQ(heapx_stats(180).failures, refused + 1);
    EXPECT_EQ(zfx_rdi_get_next(r.get(), -2, &list, &size), ZFX_ERR_INVALID_VALUE);
    EXPECT_EQ(zfx_rdi_get_next(r.get(), INT32_MAX, &list, &size), ZFX_ERR_INVALID_VALUE);
    EXPECT_EQ(zfx_rdi_get_next(nullptr, 1, &list, &size), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(zfx_rdi_get_next(r.get(), 1, nullptr, &size), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(zfx_num_mem_allocs - allocs, 4u);
}

// The list form answers its lookup's status: 0 with the record (one without bits too), the
// store's "not found" without it.
TEST(VirtualDomains, ListFormAnswersItsLookupsStatus) {
    const std::pair<std::vector<Record>, int32_t> cases[] = {
        {{vdom_list_rec(vsans({7}))}, 0}, {{{{0x6D, 0x00}, le32(512)}}, 0}, {{}, ZFX_KVDB_NOT_FOUND}};
    for (const auto &[records, status] : cases) {
        Stored r(records);
        generation_text([&](uint32_t h) { EXPECT_EQ(zfx2_rdi_mode_generate_ascii_config(h, r.get()), status); });
    }
}

// Handed no store, the virtual-domain and persistent FCID sections report it, return 0 and write
// nothing.
TEST(VirtualDomains, SectionsWithoutAStoreReturnZero) {
    Capture err(2);
    int32_t commit = 0;
    const std::string text = generation_text([&](uint32_t h) {
        EXPECT_EQ(zfx2_rdi_mode_generate_ascii_config(h, nullptr), 0);
        EXPECT_EQ(zfx2_rdi_mode_generate_ascii_config2(h, nullptr), 0);
        EXPECT_EQ(zfx2_pfcid_generate_ascii_config(h, nullptr, &commit), 0);
    });
    EXPECT_EQ(text + std::to_string(commit), "0");
    EXPECT_THAT(err.text(), testing::MatchesRegex("(ZFX-VT-PTXT: kvdb service is null\n: [^\n]*\n){3}"));
}

}  // namespace
