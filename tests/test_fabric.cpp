// The VSAN topology, AFID and service-group tables: key checks, list bytes, and their text from
// stores built record by record, including the walks' stopping rules and the longest lines.
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "store.hpp"
#include "zfx_ascii_cfg.h"
#include "zfx_fabric.h"

namespace {

using namespace zfxtest;

const Bytes kWwn = {0x20, 0x00, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const Bytes kOther = {0x10, 0x00, 0x00, 0x00, 0x00, 0x00, 0xab, 0xcd};

struct TextCase {
    const char *name;
    std::vector<Record> records;
    std::string expected;  // the text after the feature line
};

// The key checks of the per-fabric tables in one table: each tests, in that order, a missing key,
// the length, the table and the kind; and the first keys the walks start from.
TEST(StoreKeys, ChecksAcceptTheirTablesKeysAndFirstKeysStartThem) {
    using Check = std::function<int32_t(const kvdb_datum *)>;
    const Check vt = [](auto k) { return zfx_vt_kvdb_key_check(k, 0x65); };
    const Check afid = [](auto k) { return zfx2_afid_table_kvdb_key_check(k, 0); };
    const Check afid_default = [](auto k) { return zfx2_afid_table_kvdb_key_check(k, 1); };
    const Check sg_cfg = zfx2_sg_cfg_kvdb_key_check, sg_active = zfx2_sg_active_kvdb_key_check;
    const Check sg_internal = [](auto k) { return zfx2_sg_kvdb_key_check_internal(k, 1); };
    const Check id_active = zfx2_sg_active_kvdb_key_check_id, id_cfg = zfx2_sg_cfg_kvdb_key_check_id;
    const Check id_internal = [](auto k) { return zfx2_sg_kvdb_key_check_id_internal(k, 0); };
    const Check rdi = zfx_rdi_kvdb_key_check, any = zfx2_pfcid_kvdb_key_check;
    const Check dom = zfx2_pfcid_vdom_kvdb_key_check, fcid = zfx2_pfcid_vfcid_kvdb_key_check;
    const Bytes vt_key = cat({{0x65, 1}, zeros(11)}), afid_key = cat({{0x71, 1}, zeros(10)});
    const Bytes member = cat({{0x73, 2}, zeros(6)}), name = cat({{0x76, 1}, zeros(4)});
    const Bytes k1 = cat({{0x74, 1}, zeros(16)}), k2 = cat({{0x74, 2}, zeros(16)});
    const int32_t bad = ZFX_ERR_TABLE_KEY;
    const struct {
        Check check;
        Bytes key;  // empty: no key at all
        int32_t expected;
    } cases[] = {
        {vt, vt_key, 0}, {vt, {}, ZFX_ERR_VT_KEY}, {vt, cat({vt_key, {0}}), ZFX_ERR_VT_KEY_LENGTH},
        {vt, cat({{0x66, 0}, zeros(12)}), ZFX_ERR_VT_KEY_LENGTH},  // the length before the table
        {vt, cat({{0x66, 1}, zeros(11)}), ZFX_ERR_VT_KEY}, {vt, cat({{0x65, 2}, zeros(11)}), ZFX_ERR_VT_KEY},
        {afid, afid_key, 0}, {afid_default, afid_key, ZFX_ERR_AFID_KEY}, {afid, cat({afid_key, {0}}), ZFX_ERR_AFID_KEY_LENGTH},
        {afid, cat({{0x71, 0}, zeros(10)}), ZFX_ERR_AFID_KEY},
        {sg_cfg, member, 0}, {sg_active, member, bad}, {sg_internal, member, 0}, {sg_cfg, cat({member, {0}}), bad},
        {id_active, name, 0}, {id_cfg, name, bad}, {id_internal, name, 0}, {id_active, cat({{0x76, 2}, zeros(4)}), bad},
        {rdi, {0x79, 0, 0, 0}, 0}, {rdi, {0x79, 9, 1, 2}, 0}, {rdi, {0x79, 0, 0}, bad}, {rdi, {0x79, 0, 0, 0, 0}, bad},
        {rdi, {0x78, 0, 0, 0}, bad}, {rdi, {}, bad}, {any, k1, 0}, {any, k2, 0}, {any, {}, bad},
        {any, cat({{0x74, 3}, zeros(16)}), bad}, {any, cat({{0x74, 0}, zeros(16)}), bad}, {any, cat({k1, {0}}), bad},
        {any, Bytes(k1.begin(), k1.end() - 1), bad}, {any, cat({{0x75, 1}, zeros(16)}), bad},
        {dom, k1, 0}, {dom, k2, bad}, {dom, {}, bad}, {fcid, k2, 0}, {fcid, k1, bad}, {fcid, {}, bad},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto &c = cases[i];
        kvdb_datum key{const_cast<uint8_t *>(c.key.data()), uint32_t(c.key.size())};
        EXPECT_EQ(c.check(c.key.empty() ? nullptr : &key), c.expected) << "case " << i;
    }

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

TEST(Fabric, TopologyListHoldsTheEntriesMaskedInNetworkOrder) {
    Stored r({topo_rec(5, kWwn, 3, vsans({1, 4095})), topo_rec(6, kOther, 2, vsans({})), topo_rec(7, kOther, 1, vsans({9}))});
    std::memcpy(local_switch_wwn, kWwn.data(), 8);
    zfx_vsan_topo_list *list = nullptr;
    uint32_t size = 0;
    ASSERT_EQ(zfx_vsan_topo_config_get(r.get(), 0x65, ZFX_VT_FLAG_ACTIVE, &list, &size), 0);
    ASSERT_EQ(size, 4u + 2 * 544);
    const uint8_t *b = reinterpret_cast<const uint8_t *>(list);
    const Bytes expected_first = cat({{0, 5, 0, 0}, kWwn, vsans({1, 4095}), be32(1), be32(0), be32(3), be32(0)});
    EXPECT_EQ(Bytes(b, b + 4), be32(2));
    EXPECT_EQ(Bytes(b + 4, b + 4 + 544), expected_first);
    EXPECT_EQ(Bytes(b + 4 + 544, b + 4 + 544 + 12), cat({{0, 7, 0, 0}, kOther}));
    EXPECT_EQ(Bytes(b + 4 + 544 + 528, b + 4 + 2 * 544), cat({be32(0), be32(0), be32(1), be32(0)}));
    std::free(list);
    std::memset(local_switch_wwn, 0, 8);

    EXPECT_EQ(zfx_vsan_topo_config_get(nullptr, 0x65, 3, &list, &size), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(size, 0u);
}

TEST(Fabric, TopologyTextRunsItsThreePasses) {
    const std::string db = "zfx vsan-topology database\n", act = "zfx vsan-topology activate\n";
    auto entry = [](int afid, const char *ranges, const char *word = "") {
        char buf[200];
        std::snprintf(buf, sizeof buf, "  %sautonomous-fabric-id %4d switch-wwn 20:00:00:11:22:33:44:55 vsan-ranges %s\n",
                      word, afid, ranges);
        return std::string(buf);
    };
    const TextCase cases[] = {
        {"both: once, in the activated block", {topo_rec(5, kWwn, 3, vsans({1, 2, 3, 7}))}, db + entry(5, "1-3,7") + act},
        {"configured only", {topo_rec(5, kWwn, 2, vsans({}))}, db + entry(5, "")},
        {"activated only: then removed", {topo_rec(5, kWwn, 1, vsans({9}))},
         db + entry(5, "9") + act + entry(5, "9", "no ")},
        {"mixed, in key order per pass",
         {topo_rec(3, kWwn, 3, vsans({3})), topo_rec(1, kWwn, 1, vsans({1})), topo_rec(2, kWwn, 2, vsans({2}))},
         db + entry(1, "1") + entry(3, "3") + act + db + entry(2, "2") + entry(1, "1", "no ")},
        {"auto mode alone", {topo_mode_rec(ZFX_VT_MODE_AUTO)}, "zfx vsan-topology auto\n"},
        {"another mode", {topo_mode_rec(100)}, ""},
        {"short mode record is missing", {{{0x65, 0x02}, cat({le32(0), be32(101)})}}, ""},
        {"a short value is passed over", {topo_rec(1, kWwn, 2, Bytes(515, 0)), topo_rec(2, kWwn, 2, vsans({2}))},
         db + entry(2, "2")},
        {"a key of the wrong length ends the walk",
         {topo_rec(1, kWwn, 2, vsans({1})), {cat({{0x65, 1, 2}, Bytes(11, 0)}), vsans({})}, topo_rec(3, kWwn, 2, vsans({3}))},
         db + entry(1, "1")},
    };
    for (const TextCase &c : cases) EXPECT_EQ(section(c.records), c.expected) << c.name;
}

TEST(Fabric, AfidTableWritesEachHalfUnderItsOwnDatabaseLine) {
    const std::string db = "autonomous-fabric-id database\n";
    EXPECT_EQ(section({afid_rec(false, kWwn, 10, vsans({1, 2, 3, 7})), afid_rec(true, kOther, 1, vsans({5})),
                       afid_rec(false, kOther, 2, vsans({}))}),
              db + "  switch-wwn 10:00:00:00:00:00:ab:cd default-autonomous-fabric-id    1\n" + db +
                  "  switch-wwn 10:00:00:00:00:00:ab:cd autonomous-fabric-id    2 vsan-ranges \n"
                  "  switch-wwn 20:00:00:11:22:33:44:55 autonomous-fabric-id   10 vsan-ranges 1-3,7\n");
    EXPECT_EQ(section({afid_rec(false, kWwn, 10, vsans({4}))}),
              db + "  switch-wwn 20:00:00:11:22:33:44:55 autonomous-fabric-id   10 vsan-ranges 4\n");

    // The entries in key order (switch WWN first); only the local switch's is marked local.
    Stored r({afid_rec(true, kOther, 0x0b, vsans({})), afid_rec(true, kWwn, 0x0a, vsans({}))});
    std::memcpy(local_switch_wwn, kWwn.data(), 8);
    zfx2_afid_table_list *list;
    uint32_t size;
    ASSERT_EQ(zfx2_afid_table_config_get(r.get(), &list, &size, 1), 0);
    ASSERT_EQ(size, 4u + 2 * 540);
    const uint8_t *b = reinterpret_cast<const uint8_t *>(list);
    EXPECT_EQ(Bytes(b, b + 16), cat({be32(2), {0, 0x0b, 0, 0}, kOther}));
    EXPECT_EQ(Bytes(b + 4 + 528, b + 544), cat({be32(0), be32(0), be32(0)}));
    EXPECT_EQ(Bytes(b + 544, b + 556), cat({{0, 0x0a, 0, 0}, kWwn}));
    EXPECT_EQ(Bytes(b + 544 + 528, b + size), cat({be32(1), be32(0), be32(0)}));
    std::free(list);
    std::memset(local_switch_wwn, 0, 8);
}

TEST(Fabric, ServiceGroupsWriteTheActiveBlockThenTheDifferences) {
    const std::string g1 = "zfx service-group name g1\n", g2 = "zfx service-group name g2\n";
    const std::string activate = "zfx service-group activate\n";
    auto m = [](int afid, const char *ranges, const char *word = "") {
        char buf[120];
        std::snprintf(buf, sizeof buf, "  %sautonomous-fabric-id %2d vsan-ranges %s\n", word, afid, ranges);
        return std::string(buf);
    };
    auto group = [](bool cfg, uint32_t id, const char *name, std::vector<std::pair<uint16_t, std::vector<int>>> members) {
        std::vector<Record> out{sg_name_rec(cfg, id, name)};
        for (auto &[afid, set] : members) out.push_back(sg_member_rec(cfg, id, afid, vsans_of(set)));
        return out;
    };
    auto both = [](std::vector<Record> a, const std::vector<Record> &b) {
        a.insert(a.end(), b.begin(), b.end());
        return a;
    };
    const auto active12 = group(false, 1, "g1", {{1, {1}}, {2, {2, 3}}});
    // VSANs 1 to run_end, then every other one from `from` to 1900; fits gets their range text up
    // to 1800. With run_end 100 that text fills a member line exactly (2047 characters with its
    // "\n"); with 1000 the next run would need one character more than the line has.
    auto runs = [](int run_end, int from, std::string &fits) {
        std::vector<int> set;
        fits = "1-" + std::to_string(run_end);
        for (int v = 1; v <= run_end; ++v) set.push_back(v);
        for (int v = from; v <= 1900; v += 2) {
            set.push_back(v);
            if (v <= 1800) fits += "," + std::to_string(v);
        }
        return vsans_of(set);
    };
    std::string fits, fits_short;
    const Bytes tight = runs(100, 1000, fits), one_short = runs(1000, 1002, fits_short);
    const TextCase cases[] = {
        {"both empty", {}, ""},
        {"configured only", both(group(true, 1, "g1", {{1, {1}}}), group(true, 2, "g2", {{2, {2}}})),
         g1 + m(1, "1") + g2 + m(2, "2")},
        {"active only: every group removed", both(group(false, 1, "g1", {{1, {1}}}), group(false, 2, "g2", {{1, {4}}})),
         g1 + m(1, "1") + g2 + m(1, "4") + activate + "no " + g1 + "no " + g2},
        {"unchanged", both(active12, group(true, 7, "g1", {{1, {1}}, {2, {2, 3}}})), g1 + m(1, "1") + m(2, "2-3") + activate},
        {"changed VSANs: written again, no removal", both(active12, group(true, 1, "g1", {{1, {1}}, {2, {5}}})),
         g1 + m(1, "1") + m(2, "2-3") + activate + g1 + m(2, "5")},
        {"member removed from a group that stays", both(active12, group(true, 1, "g1", {{1, {1}}})),
         g1 + m(1, "1") + m(2, "2-3") + activate + g1 + m(2, "2-3", "no ")},
        {"default deny", both(group(false, 1, "g1", {{1, {1}}}), {sg_policy_rec(1), sg_member_rec(true, 1, 1, vsans({1})),
                                                                   sg_name_rec(true, 1, "g1")}),
         g1 + m(1, "1") + "zfx service-group activate default-sg-deny\n"},
        {"nameless members share the empty name", {sg_member_rec(true, 1, 1, vsans({1})), sg_member_rec(true, 2, 2, vsans({2}))},
         m(1, "1") + m(2, "2")},
        {"names print up to 80 bytes", group(true, 1, std::string(100, 'n').c_str(), {{1, {1}}}),
         "zfx service-group name " + std::string(80, 'n') + "\n" + m(1, "1")},
        {"the longest line: cut after the last whole run that fits", {sg_member_rec(true, 1, 1, tight)},
         "  autonomous-fabric-id  1 vsan-ranges " + fits + "\n"},
        {"a run one character too long stays off the line", {sg_member_rec(true, 1, 1, one_short)},
         "  autonomous-fabric-id  1 vsan-ranges " + fits_short + "\n"},
    };
    for (const TextCase &c : cases) EXPECT_EQ(section(c.records), c.expected) << c.name;
}

TEST(Fabric, ServiceGroupListsAndLookups) {
    Stored r({sg_policy_rec(9), sg_member_rec(false, 0x01020304, 0x0506, vsans({1})), sg_name_rec(false, 0x01020304, "grp")});
    zfx2_sg_list *list;
    uint32_t size;
    ASSERT_EQ(zfx2_sg_config_get(r.get(), &list, &size, 0), 0);
    ASSERT_EQ(size, 608u);
    const uint8_t *b = reinterpret_cast<const uint8_t *>(list);
    EXPECT_EQ(Bytes(b, b + 11), cat({be32(1), be32(0x01020304), {'g', 'r', 'p'}}));
    EXPECT_EQ(Bytes(b + 88, b + 92), Bytes({0x05, 0x06, ZFX2_SG_STATE_ACTIVE_DENY, 0}));
    EXPECT_EQ(zfx2_sg_name_check_if_in_cfg2(0, list, list), 1);
    EXPECT_EQ(zfx2_sg_member_check_if_in_cfg2(0, list, list, 1), 1);
    EXPECT_EQ(zfx2_sg_name_check_if_in_cfg2(1, list, list), 0);
    EXPECT_EQ(zfx2_sg_member_check_if_in_cfg2(0, list, nullptr, 0), 0);
    std::free(list);

    char name[ZFX2_SG_NAME_SIZE];
    std::memset(name, 'x', sizeof name);
    EXPECT_EQ(zfx2_sg_get_name_from_id(7, name, r.get(), 0), ZFX_ERR_TABLE_KEY);
    EXPECT_EQ(std::string(name, sizeof name), std::string(sizeof name, '\0'));
    EXPECT_EQ(zfx2_sg_get_name_from_id(7, nullptr, r.get(), 0), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(zfx2_get_default_sg_policy(r.get()), 9u);
    // No policy word: none stored whole, or no store at all.
    Stored short_policy({{sg_policy_rec(9).first, {9, 0, 0}}});
    EXPECT_EQ(zfx2_get_default_sg_policy(short_policy.get()), 0u);
    EXPECT_EQ(zfx2_get_default_sg_policy(nullptr), 0u);
    EXPECT_EQ(zfx2_sg_config_get(r.get(), nullptr, &size, 1), ZFX_ERR_INVALID_ARG);
}

// The sections with a commit argument ask for the commit when their tables hold records and not
// otherwise; every section and show function returns 0, and a show of no list writes nothing.
TEST(Fabric, SectionsAskForTheCommitAndShowsReturnZero) {
    Stored full({topo_rec(5, kWwn, 3, vsans({1})), afid_rec(false, kWwn, 1, vsans({1})),
                 sg_member_rec(true, 1, 1, vsans({1})), sg_member_rec(false, 1, 2, vsans({2}))});
    Stored empty({});
    for (auto run : {zfx2_afid_table_generate_ascii_config, zfx2_sg_table_generate_ascii_config}) {
        for (kvdb_store *store : {full.get(), empty.get()}) {
            int32_t commit = 0;
            generation_text([&](uint32_t h) { EXPECT_EQ(run(h, store, &commit), 0); });
            EXPECT_EQ(commit, store == full.get() ? 1 : 0);
        }
    }
    // The topology section sets the global itself (and, without a mode record, returns its status).
    for (kvdb_store *store : {full.get(), empty.get()}) {
        commit_reqd = 0;
        generation_text([&](uint32_t h) { zfx_vsan_topology_generate_ascii_config(h, store); });
        EXPECT_EQ(commit_reqd, store == full.get() ? 1 : 0);
    }
    zfx_vsan_topo_list *topo;
    zfx2_afid_table_list *afid;
    zfx2_sg_list *active, *cfg;
    uint32_t size;
    ASSERT_EQ(zfx_vsan_topo_config_get(full.get(), 0x65, 3, &topo, &size), 0);
    ASSERT_EQ(zfx2_afid_table_config_get(full.get(), &afid, &size, 0), 0);
    ASSERT_EQ(zfx2_sg_config_get(full.get(), &active, &size, 0), 0);
    ASSERT_EQ(zfx2_sg_config_get(full.get(), &cfg, &size, 1), 0);
    for (bool none : {true, false}) {
        const std::string text = generation_text([&](uint32_t h) {
            EXPECT_EQ(zfx_vsan_topo_config_show(h, none ? nullptr : topo), 0);
            EXPECT_EQ(zfx2_afid_table_config_show(h, none ? nullptr : afid, 0), 0);
            EXPECT_EQ(zfx2_sg_table_active_show(h, none ? nullptr : active, 0), 0);
            EXPECT_EQ(zfx2_sg_table_config_show(h, none ? nullptr : cfg, none ? nullptr : active), 0);
        });
        EXPECT_EQ(text.empty(), none) << text;
    }
    for (void *list : std::initializer_list<void *>{topo, afid, active, cfg}) std::free(list);
}

}  // namespace
