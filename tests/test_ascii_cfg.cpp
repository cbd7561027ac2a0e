// The generation driver: whole texts from stores built record by record, the commit rules, the
// debug logging line, both entry points, and failures that must not stop the next section.
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "capture.hpp"
#include "full_store.hpp"
#include "platform/ptxt.h"
#include "store.hpp"
#include "zfx_ascii_cfg.h"
#include "zfx_fabric.h"
#include "zfx_testing.h"

namespace {

using namespace zfxtest;


// What calls for the commit line (distribution on): a flag line of a section after the reset, a
// zone or a zoneset, each setting commit_reqd to exactly the 1 the line is written for; NAT's
// line comes before the reset, and an activation alone calls for nothing. (The rest of the rules
// and the order of the global lines are the whole stores' texts'.)
TEST(AsciiCfg, WhatCallsForTheCommit) {
    const std::vector<Record> active = active_chunks(cat({le16(1), name68("a"), le16(0)}), 100);
    const TextCase cases[] = {
        {"AAM", {distribute_rec(1), aam_rec(1)}, "zfx distribute\nzfx aam register\nzfx commit\n"},
        {"NAT", {distribute_rec(1), nat_rec(1)}, "zfx nat\nzfx distribute\n"},
        {"a zoneset", {distribute_rec(1), zone_db_header_rec({}, {4}), zoneset_rec(4, "zs", tlv_array({}))},
         "zfx distribute\nzfx zoneset name zs\nzfx commit\n"},
        {"a zone", {distribute_rec(1), zone_db_header_rec({2}, {}), zone_rec(2, "z", tlv_array({}))},
         "zfx distribute\nzfx zone name z\nzfx commit\n"},
        {"an activation", {distribute_rec(1), zone_db_header_rec({}, {}), active[0], active[1]},
         "zfx distribute\nzfx zoneset activate name a\n"},
    };
    for (const TextCase &c : cases) EXPECT_EQ(section(c.records), c.expected) << c.name;
}

TEST(AsciiCfg, DebugLevelLineOnlyForAValidAudibleLevel) {
    const std::pair<Record, std::string> cases[] = {
        {debug_level_rec(1, 7), "logging level zfx 7\n"},
        {debug_level_rec(1, 0), "logging level zfx 0\n"},
        {debug_level_rec(1, 5), ""},
        {debug_level_rec(0, 3), ""},
        {debug_level_rec(1, 8), ""},
        {{cat({le32(2), le32(0)}), le32(1)}, ""},          // 4 bytes: shorter than the record
        {{cat({le32(2), le32(1)}), cat({le32(1), le32(3)})}, ""},  // another key
    };
    for (const auto &[record, line] : cases) {
        const Stored cfg({nat_rec(1)}), other({aam_rec(1)});
        Prefix p;
        put(p.debug(), {record});
        Reader dbg(p.debug());
        // Listed first: the stores run in the order listed, each configuration store adds its
        // feature line, a store of unknown kind is passed over, and the logging line still
        // renders after the feature's elements.
        EXPECT_EQ(generate({{ZFX_GEN_STORE_DEBUG, dbg.get()}, {ZFX_GEN_STORE_CONFIG, other.get()}, {99, cfg.get()},
                            {ZFX_GEN_STORE_CONFIG, cfg.get()}}),
                  "feature zfx\nfeature zfx\nzfx aam register\nzfx nat\n" + line);
    }
    EXPECT_EQ(zfx_debug_ascii_gen_from_kvdb(nullptr), 0);
}

struct Sink {
    std::string text;
    int calls = 0;
    static int32_t take(void *arg, void *, const char *text, uint32_t len) {
        auto *s = static_cast<Sink *>(arg);
        s->text.assign(text, len);
        ++s->calls;
        return 7;
    }
};

// Opened by location (the tools' end-to-end run prints whole LMDB stores through this entry), a
// store that does not open still gets an answer, and the sink's result is the entry's.
TEST(AsciiCfg, GenFuncOpensTheStoresItselfAndAlwaysResponds) {
    // Without the configuration store, nothing (the debug store is never read); without the debug
    // store, the configuration's text.
    Prefix p;
    put(p.debug(), {debug_level_rec(1, 7)});
    Sink sink;
    ptxt_request req{p.path().c_str(), p.path().c_str(), Sink::take, &sink};
    EXPECT_EQ(zfx_ptxt_gen_func(nullptr, &req), 7);
    EXPECT_EQ(sink.text, "");
    put(p.config(), {nat_rec(1)});
    kvdb_mem_faults fail_open{int32_t(0x40480099)};
    kvdb_mem_inject(p.debug().c_str(), &fail_open);
    EXPECT_EQ(zfx_ptxt_gen_func(nullptr, &req), 7);
    EXPECT_EQ(sink.text, "feature zfx\nzfx nat\n");
    req.startup_cfg_prefix = nullptr;
    EXPECT_EQ(zfx_ptxt_gen_func(nullptr, &req), 7);
    EXPECT_EQ(sink.text, "");
    EXPECT_EQ(sink.calls, 3);
}

TEST(AsciiCfg, AFailingSectionNeverStopsTheNext) {
    using namespace full;
    Prefix p;
    put(p.config(), records());
    EXPECT_EQ(generate_from(p.config()), whole());
    const auto inject = [&](const kvdb_mem_faults &f) { kvdb_mem_inject(p.config().c_str(), &f); };
    // (A list that cannot be allocated takes away its own table only: the allocation-failure
    // sweep runs this generation failing each allocation in turn.)
    // A lookup that fails: the topology section returns early without its auto line; everything
    // after it still runs.
    const uint8_t mode_key[] = {0x65, 0x02};
    inject({0, int32_t(0x40480077), mode_key, 2, 0});
    EXPECT_EQ(generate_from(p.config()), text(kTopo + kDefaultAfid + kAfid + kActiveSg + kCfgSg + kPfcid));
    // A cursor that fails at once: no table at all, the single records still read, and the zone
    // section looks its members up one by one.
    inject({0, 0, nullptr, 0, 1});
    EXPECT_EQ(generate_from(p.config()), text(kTopoAuto, kVdomList));
    const uint8_t nat_key[] = {0x70, 0x00};
    inject({0, int32_t(0x40480077), nat_key, 2, 0});
    Reader r(p.config());
    uint8_t flag = 9;
    EXPECT_EQ(zfx2_get_fcid_nat_flag_from_kvdb(&flag, r.get()), 0x40480077);
    EXPECT_EQ(flag, 0);
    EXPECT_EQ(zfx2_get_fcid_nat_flag_from_kvdb(nullptr, r.get()), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(zfx2_get_aam_flag_from_kvdb(&flag, nullptr), ZFX_ERR_INVALID_ARG);
}

// The service-group text three ways: the section reading the members where the store holds
// them, the show functions on the lists, and those again without memory for their index (the
// differences then found by the pairwise checks). A fixed case pins the text; seeded tables
// bring names shared by several groups, names that are prefixes of others, groups whose name
// record is missing, and sets that differ or not.
TEST(AsciiCfg, ServiceGroupTextFromStoreListsAndPairwiseChecks) {
    const auto three_ways = [](const std::vector<Record> &records) {
        Stored r(records);
        zfx2_sg_list *cfg = nullptr, *act = nullptr;
        uint32_t size = 0;
        EXPECT_EQ(zfx2_sg_config_get(r.get(), &cfg, &size, 1), 0);
        EXPECT_EQ(zfx2_sg_config_get(r.get(), &act, &size, 0), 0);
        std::string texts[3];
        texts[0] = generation_text([&](uint32_t h) { zfx2_sg_table_generate_ascii_config(h, r.get(), nullptr); });
        for (uint32_t fail : {0u, 1u}) {
            texts[1 + fail] = generation_text([&](uint32_t h) {
                zfx2_sg_table_active_show(h, act, zfx2_get_default_sg_policy(r.get()));
                zfx_testing_fail_allocation(fail);  // the first: the index
                zfx2_sg_table_config_show(h, cfg, act);
                zfx_testing_fail_allocation(0);
            });
        }
        std::free(cfg);
        std::free(act);
        EXPECT_EQ(texts[1], texts[0]);
        EXPECT_EQ(texts[2], texts[0]);
        return texts[0];
    };
    EXPECT_EQ(three_ways({sg_name_rec(false, 1, "g1"), sg_member_rec(false, 1, 1, vsans({1})),
                          sg_member_rec(false, 1, 2, vsans({2})), sg_name_rec(false, 2, "gone"),
                          sg_member_rec(false, 2, 1, vsans({3})), sg_member_rec(false, 2, 2, vsans({3})),
                          sg_name_rec(true, 1, "g1"), sg_member_rec(true, 1, 1, vsans({1, 4})), sg_name_rec(true, 3, "new"),
                          sg_member_rec(true, 1, 3, vsans({2})), sg_member_rec(true, 3, 1, vsans({5}))}),
              "zfx service-group name g1\n  autonomous-fabric-id  1 vsan-ranges 1\n  autonomous-fabric-id  2 vsan-ranges 2\n"
              "zfx service-group name gone\n  autonomous-fabric-id  1 vsan-ranges 3\n  autonomous-fabric-id  2 vsan-ranges 3\n"
              "zfx service-group activate\n"
              "no zfx service-group name gone\nzfx service-group name g1\n  no autonomous-fabric-id  2 vsan-ranges 2\n"
              "zfx service-group name g1\n  autonomous-fabric-id  1 vsan-ranges 1,4\n  autonomous-fabric-id  3 vsan-ranges 2\n"
              "zfx service-group name new\n  autonomous-fabric-id  1 vsan-ranges 5\n");
    static const char *const kNames[] = {"a", "ab", "b", "a\xff", ""};
    for (uint32_t seed = 1; seed <= 30; ++seed) {
        std::vector<Record> records;
        uint32_t x = seed;
        const auto next = [&x](uint32_t n) { return ((x = x * 1103515245u + 12345u) >> 16 & 0x7FFF) % n; };
        for (bool cfg : {false, true})
            for (uint32_t group = 1 + next(3), groups = next(6); groups-- > 0; group += 1 + next(300)) {
                if (next(6) != 0) records.push_back(sg_name_rec(cfg, group, kNames[next(std::size(kNames))]));
                for (uint16_t afid = 1; afid <= 3; ++afid)
                    if (next(3) != 0) records.push_back(sg_member_rec(cfg, group, afid, vsans({int(1 + next(2))})));
            }
        three_ways(records);
    }
}

// A request that selects nothing, shows of no list and sections handed no store: they return 0,
// write no text and ask for no commit; the sections that read a store report its absence.
TEST(AsciiCfg, SectionsHandedNoStoreReportItAndWriteNothing) {
    int32_t commit = 0;
    std::string text;
    EXPECT_EQ(generation_text([&](uint32_t h) {
                  const zfx_gen_request idle{0, h, 0, 0};
                  EXPECT_EQ(zfx_ascii_cfg_generate(&idle), 0);
                  EXPECT_EQ(zfx_ascii_cfg_generate(nullptr), ZFX_ERR_INVALID_ARG);
                  Capture err(2);
                  // (A braced list runs its calls in order.)
                  const int32_t statuses[] = {
                      zfx2_fcid_nat_generate_ascii_config(h, nullptr), zfx2_aam_generate_ascii_config(h, nullptr),
                      zfx_vsan_topology_generate_ascii_config(h, nullptr),
                      zfx2_afid_table_generate_ascii_config(h, nullptr, &commit),
                      zfx2_sg_table_generate_ascii_config(h, nullptr, &commit),
                      zfx_global_flags_mode_generate_ascii_config(h, nullptr),
                      zfx_vsan_topo_config_show(h, nullptr), zfx2_afid_table_config_show(h, nullptr, 0),
                      zfx2_sg_table_active_show(h, nullptr, 0), zfx2_sg_table_config_show(h, nullptr, nullptr),
                      zfx2_rdi_mode_generate_ascii_config(h, nullptr), zfx2_rdi_mode_generate_ascii_config2(h, nullptr),
                      zfx2_pfcid_generate_ascii_config(h, nullptr, &commit)};
                  for (int32_t status : statuses) EXPECT_EQ(status, 0);
                  text = err.text();
              }),
              "");
    const std::string vt = "(ZFX-VT-PTXT: kvdb service is null\n: [^\n]*\n)";
    EXPECT_THAT(text, testing::MatchesRegex(vt + "{4}ZFX-SG-PTXT: kvdb service is null\n: [^\n]*\n" + vt + "{3}"));
    EXPECT_EQ(commit, 0);
    uint32_t flags = 5;
    EXPECT_EQ(zfx_global_flags_kvdb_restore(nullptr, &flags), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(flags, 0u);
    EXPECT_EQ(zfx_kvdb_restore_fabric_distribute(nullptr), 0);
}

}  // namespace
