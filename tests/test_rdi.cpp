// Virtual domains: both line forms among the global lines, the per-AFID list's bytes and
// capacities, the longest range text, and the tracked allocation of the list (counters, the
// failure report, nothing leaked).
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "history.hpp"
#include "platform/heapx.h"
#include "platform/tlg.h"
#include "store.hpp"
#include "zfx_ascii_cfg.h"
#include "zfx_testing.h"

namespace {

using namespace zfxtest;

std::vector<int> run(int first, int last) {
    std::vector<int> v;
    for (int p = first; p <= last; ++p) v.push_back(p);
    return v;
}

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
        {"per AFID, an empty set skipped", {rdi_rec(1, vsans_of(run(10, 20))), rdi_rec(2, vsans({0, 4095}))},
         add2 + "1  vsan-ranges 10-20\n"},
        {"per AFID in key order (host-order AFIDs)", {rdi_rec(1, vsans({1})), rdi_rec(256, vsans({2}))},
         add2 + "256  vsan-ranges 2\n" + add2 + "1  vsan-ranges 1\n"},
        {"a short per-AFID value", {rdi_rec(7, cat({le32(512), {0, 0x80}}))}, add2 + "7  vsan-ranges 8\n"},
        {"a key of another length ends the walk",
         {rdi_rec(1, vsans({1})), {{0x79, 0, 2, 0, 0}, vsans({2})}, rdi_rec(3, vsans({3}))}, add2 + "1  vsan-ranges 1\n"},
        {"never a commit of their own", {distribute_rec(1), vdom_list_rec(vsans({7})), rdi_rec(5, vsans({8}))},
         "zfx distribute\n" + add + "7\n" + add2 + "5  vsan-ranges 8\n"},
        {"after distribution, before the flags",
         {aam_rec(1), flags_rec(0x13), nat_rec(1), distribute_rec(1), vdom_list_rec(vsans({7})), rdi_rec(5, vsans({8}))},
         "zfx nat\nzfx distribute\n" + add + "7 force\n" + add2 +
             "5  vsan-ranges 8\nzfx fcdomain check-ignore\nzfx share-hw-entries\nzfx aam register\nzfx commit\n"},
    };
    for (const auto &c : cases) EXPECT_EQ(section(c.records), c.expected) << c.name;
}

TEST(VirtualDomains, LongRangeTextIsCutAfterItsLastWholeRun) {
    std::vector<int> pairs;  // 1-2,4-5,...: 12911 characters of range text
    for (int p = 1; p + 1 < 4094; p += 3) pairs.insert(pairs.end(), {p, p + 1});
    const Bytes set = vsans_of(pairs);
    char full[VSAN_BITSET_TEXT_SIZE];
    vsan_bitset_sprintf(full, reinterpret_cast<const vsan_bitset *>(set.data()));
    const std::string text = section({flags_rec(ZFX_GFLAG_VDOM_FORCE), vdom_list_rec(set), rdi_rec(65535, set)});
    const std::string heads[] = {"zfx virtual-fcdomain-add vsan-ranges ",
                                 "zfx virtual-fcdomain-add2 autonomous-fabric-ID 65535  vsan-ranges "};
    const std::string tails[] = {" force\n", "\n"};
    size_t at = 0;
    for (int i = 0; i < 2; ++i) {
        const size_t end = text.find('\n', at) + 1;
        const std::string line = text.substr(at, end - at);
        at = end;
        EXPECT_LE(line.size(), ZFX_VDOM_LINE_SIZE - 1);
        EXPECT_GT(line.size(), ZFX_VDOM_LINE_SIZE - 12);  // no more than a run and its comma short
        ASSERT_EQ(line.rfind(heads[i], 0), 0u);
        ASSERT_EQ(line.substr(line.size() - tails[i].size()), tails[i]);
        const std::string ranges = line.substr(heads[i].size(), line.size() - heads[i].size() - tails[i].size());
        EXPECT_EQ(std::string(full).rfind(ranges, 0), 0u);
        EXPECT_EQ(full[ranges.size()], ',');  // the cut falls between whole runs
    }
    EXPECT_EQ(at, text.size());
}

TEST(VirtualDomains, ListHoldsTheEntriesUpToItsCapacity) {
    std::vector<Record> records;
    for (uint16_t afid = 1; afid <= 5; ++afid) records.push_back(rdi_rec(afid, vsans({afid, 100})));
    Stored r(records);
    heapx_stats_reset();
    const uint64_t allocs = zfx_num_mem_allocs, callocs = zfx_num_callocs;
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
    EXPECT_EQ(zfx_num_callocs - callocs, 4u);
    EXPECT_EQ(heapx_stats(180).allocs, 4u);  // the feature's owner
    EXPECT_EQ(heapx_stats(180).bytes_in_use, 0u);

    alignas(4) uint8_t stale[4];
    zfx_rdi_list *list = reinterpret_cast<zfx_rdi_list *>(stale);
    uint32_t size = 9;
    EXPECT_EQ(zfx_rdi_get_next(r.get(), -2, &list, &size), ZFX_ERR_INVALID_VALUE);
    EXPECT_EQ(zfx_rdi_get_next(r.get(), INT32_MAX, &list, &size), ZFX_ERR_INVALID_VALUE);
    EXPECT_EQ(zfx_rdi_get_next(nullptr, 1, &list, &size), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(zfx_rdi_get_next(r.get(), 1, nullptr, &size), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(zfx_num_mem_allocs - allocs, 4u);
}

// The key checks and first keys of the per-fabric tables in one table: the virtual domains' and
// the persistent FCIDs' (any kind, domains only, FCIDs only).
TEST(StoreKeys, ChecksAcceptTheirTablesKeysAndFirstKeysStartThem) {
    using Check = int32_t (*)(const kvdb_datum *);
    const Check rdi = zfx_rdi_kvdb_key_check, any = zfx2_pfcid_kvdb_key_check,
                dom = zfx2_pfcid_vdom_kvdb_key_check, fcid = zfx2_pfcid_vfcid_kvdb_key_check;
    const Bytes k1 = cat({{0x74, 1}, zeros(16)}), k2 = cat({{0x74, 2}, zeros(16)});
    const int32_t bad = ZFX_ERR_TABLE_KEY;
    const struct {
        Check check;
        Bytes key;
        int32_t expected;
    } cases[] = {
        {rdi, {0x79, 0, 0, 0}, 0}, {rdi, {0x79, 9, 1, 2}, 0}, {rdi, {0x79, 0, 0}, bad}, {rdi, {0x79, 0, 0, 0, 0}, bad},
        {rdi, {0x78, 0, 0, 0}, bad}, {any, k1, 0}, {any, k2, 0}, {any, cat({{0x74, 3}, zeros(16)}), bad},
        {any, cat({{0x74, 0}, zeros(16)}), bad}, {any, cat({k1, {0}}), bad}, {any, Bytes(k1.begin(), k1.end() - 1), bad},
        {any, cat({{0x75, 1}, zeros(16)}), bad}, {dom, k1, 0}, {dom, k2, bad}, {fcid, k2, 0}, {fcid, k1, bad},
    };
    for (const auto &c : cases) {
        kvdb_datum key{const_cast<uint8_t *>(c.key.data()), uint32_t(c.key.size())};
        EXPECT_EQ(c.check(&key), c.expected) << testing::PrintToString(c.key);
    }
    for (Check c : {rdi, any, dom, fcid}) EXPECT_EQ(c(nullptr), bad);

    zfx_rdi_kvdb_key rk;
    zfx2_pfcid_key dk, fk;
    std::memset(&rk, 0xEE, sizeof rk);
    std::memset(&dk, 0xEE, sizeof dk);
    std::memset(&fk, 0xEE, sizeof fk);
    EXPECT_EQ(zfx_rdi_kvdb_key_init(&rk), 0);
    EXPECT_EQ(zfx2_pfcid_vdom_kvdb_key_init(&dk), 0);
    EXPECT_EQ(zfx2_pfcid_vfcid_kvdb_key_init(&fk), 0);
    EXPECT_EQ(bytes_of(&rk, sizeof rk), Bytes({0x79, 0, 0, 0}));
    EXPECT_EQ(bytes_of(&dk, sizeof dk), cat({{0x74, 1, 1, 0}, zeros(14)}));
    EXPECT_EQ(bytes_of(&fk, sizeof fk), cat({{0x74, 2, 1, 0}, zeros(14)}));
    EXPECT_EQ(zfx_rdi_kvdb_key_init(nullptr), ZFX_ERR_INVALID_VALUE);
    EXPECT_EQ(zfx2_pfcid_vdom_kvdb_key_init(nullptr), ZFX_ERR_INVALID_VALUE);
    EXPECT_EQ(zfx2_pfcid_vfcid_kvdb_key_init(nullptr), ZFX_ERR_INVALID_VALUE);
}

TEST(VirtualDomains, AFailedListIsReportedAndWritesNoPerFabricLine) {
    Prefix p;
    put(p.config(), {vdom_list_rec(vsans({1})), rdi_rec(2, vsans({3}))});
    const std::string both = "zfx virtual-fcdomain-add vsan-ranges 1\nzfx virtual-fcdomain-add2 autonomous-fabric-ID 2  vsan-ranges 3\n";
    const auto report = testing::MatchesRegex(
        R"(Memory allocation failed in zfx_rdi_get_next:[0-9]+ \(\.\./feature/zfx/lib/zfx_ascii_cfg\))");
    // The heap refusing takes the path of the library's own failure hook (the allocation-failure
    // sweep): the report, no per-fabric line.
    tlg_hist_clear();
    const uint64_t allocs_before = zfx_num_mem_allocs, frees_before = zfx_num_mem_frees;
    heapx_fail_allocation(1);
    const std::string failed_text = generate_from(p.config());
    heapx_fail_allocation(0);
    EXPECT_EQ(failed_text, "feature zfx\nzfx virtual-fcdomain-add vsan-ranges 1\n");
    EXPECT_THAT(alloc_failures(), testing::ElementsAre(report));
    // Only the persistent FCID list, the generation's other tracked list, was made and released.
    EXPECT_EQ(zfx_num_mem_allocs - allocs_before, 1u);
    EXPECT_EQ(zfx_num_mem_frees - frees_before, 1u);
    tlg_hist_clear();

    // The lists that were built (this one and the persistent FCIDs') are released and counted,
    // empty ones too.
    Prefix empty;
    put(empty.config(), {});
    for (const std::string &location : {p.config(), empty.config()}) {
        const uint64_t frees = zfx_num_mem_frees;
        heapx_stats_reset();
        const std::string text = generate_from(location);
        EXPECT_EQ(zfx_num_mem_frees - frees, 2u);
        EXPECT_EQ(heapx_stats(180).frees, 2u);
        EXPECT_EQ(heapx_stats(180).bytes_in_use, 0u);
        EXPECT_EQ(text, location == p.config() ? "feature zfx\n" + both : "feature zfx\n");
    }
    EXPECT_EQ(alloc_failures().size(), 0u);
}

}  // namespace
