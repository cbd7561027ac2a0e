// The VSAN topology, AFID and service-group tables: key checks, list bytes, and their text from
// stores built record by record, including the walks' stopping rules and the longest lines.
#include <arpa/inet.h>

#include <cstring>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "store.hpp"
#include "zfx_ascii_cfg.h"
#include "zfx_fabric.h"

namespace {

using namespace zfxtest;

const Bytes kOther = {0x10, 0x00, 0x00, 0x00, 0x00, 0x00, 0xab, 0xcd};

// Every per-fabric key check, from one key it accepts, against each way a key can be wrong: none
// at all, a byte more or less, another table (with a wrong length too: the length is tested
// first), and a kind the table does not hold (-1: the table takes any kind). Where the library
// writes the first key of a walk, it writes that accepted key over whatever was there.
TEST(StoreKeys, ChecksRefuseEveryWayAKeyCanBeWrongAndFirstKeysPass) {
    using Check = std::function<int32_t(const kvdb_datum *)>;
    const int32_t bad = ZFX_ERR_TABLE_KEY, vt = ZFX_ERR_VT_KEY, afid = ZFX_ERR_AFID_KEY;
    const Bytes member = cat({{0x73, 2}, zeros(6)}), name = cat({{0x76, 1}, zeros(4)});
    const Bytes domain = cat({{0x74, 1, 1, 0}, zeros(14)}), fcid = cat({{0x74, 2, 1, 0}, zeros(14)});
    const struct {
        Check check;
        Bytes key;
        int refused_kind;
        int32_t bad_key, bad_length;
        std::function<int32_t(void *)> init = nullptr;
    } cases[] = {
        {[](auto k) { return zfx_vt_kvdb_key_check(k, 0x65); }, cat({{0x65, 1}, zeros(11)}), 2, vt, ZFX_ERR_VT_KEY_LENGTH},
        {[](auto k) { return zfx2_afid_table_kvdb_key_check(k, 0); }, cat({{0x71, 1}, zeros(10)}), 0, afid, ZFX_ERR_AFID_KEY_LENGTH},
        {[](auto k) { return zfx2_afid_table_kvdb_key_check(k, 1); }, cat({{0x72, 1}, zeros(10)}), 2, afid, ZFX_ERR_AFID_KEY_LENGTH},
        {zfx2_sg_cfg_kvdb_key_check, member, 1, bad, bad},
        {[](auto k) { return zfx2_sg_kvdb_key_check_internal(k, 1); }, member, 3, bad, bad},
        {zfx2_sg_active_kvdb_key_check, cat({{0x76, 2}, zeros(6)}), 1, bad, bad},
        {zfx2_sg_active_kvdb_key_check_id, name, 2, bad, bad},
        {[](auto k) { return zfx2_sg_kvdb_key_check_id_internal(k, 0); }, name, 3, bad, bad},
        {zfx2_sg_cfg_kvdb_key_check_id, cat({{0x73, 1}, zeros(4)}), 2, bad, bad},
        {zfx_rdi_kvdb_key_check, {0x79, 0, 0, 0}, -1, bad, bad,
         [](void *k) { return zfx_rdi_kvdb_key_init(static_cast<zfx_rdi_kvdb_key *>(k)); }},
        {zfx2_pfcid_kvdb_key_check, domain, 3, bad, bad}, {zfx2_pfcid_kvdb_key_check, fcid, 0, bad, bad},
        {zfx2_pfcid_vdom_kvdb_key_check, domain, 2, bad, bad,
         [](void *k) { return zfx2_pfcid_vdom_kvdb_key_init(static_cast<zfx2_pfcid_key *>(k)); }},
        {zfx2_pfcid_vfcid_kvdb_key_check, fcid, 1, bad, bad,
         [](void *k) { return zfx2_pfcid_vfcid_kvdb_key_init(static_cast<zfx2_pfcid_key *>(k)); }},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto &c = cases[i];
        auto check = [&](Bytes key) {
            kvdb_datum d{key.data(), uint32_t(key.size())};
            return c.check(&d);
        };
        Bytes other_table = c.key, other_kind = c.key, first(c.key.size(), 0xEE);
        ++other_table[0];
        other_kind[1] = uint8_t(c.refused_kind < 0 ? 9 : c.refused_kind);
        EXPECT_EQ(check(c.key), 0) << i;
        EXPECT_EQ(c.check(nullptr), c.bad_key) << i;
        EXPECT_EQ(check(cat({c.key, {0}})), c.bad_length) << i;
        EXPECT_EQ(check(Bytes(c.key.begin(), c.key.end() - 1)), c.bad_length) << i;
        EXPECT_EQ(check(other_table), c.bad_key) << i;
        EXPECT_EQ(check(cat({other_table, {0}})), c.bad_length) << i;
        EXPECT_EQ(check(other_kind), c.refused_kind < 0 ? 0 : c.bad_key) << i;
        if (!c.init) continue;
        EXPECT_EQ(c.init(first.data()), 0);
        EXPECT_EQ(first, c.key);
        EXPECT_EQ(c.init(nullptr), ZFX_ERR_INVALID_VALUE);
    }
}

// The lists in key order and network order; only the local switch's entry is marked local.
TEST(Fabric, TopologyAndAfidListsAndTheModeRecord) {
    Stored r({topo_rec(5, kWwn, 3, vsans({1, 4095})), topo_rec(6, kOther, 2, vsans({})), topo_rec(7, kOther, 1, vsans({9})),
              topo_mode_rec(ZFX_VT_MODE_AUTO), afid_rec(true, kOther, 0x0b, vsans({})), afid_rec(true, kWwn, 0x0a, vsans({}))});
    std::memcpy(local_switch_wwn, kWwn.data(), 8);
    zfx_vsan_topo_list *list = nullptr;
    zfx2_afid_table_list *afids;
    uint32_t size = 0, afid_size;
    ASSERT_EQ(zfx_vsan_topo_config_get(r.get(), 0x65, ZFX_VT_FLAG_ACTIVE, &list, &size), 0);
    ASSERT_EQ(zfx2_afid_table_config_get(r.get(), &afids, &afid_size, 1), 0);
    std::memset(local_switch_wwn, 0, 8);
    // The entries the mask takes.
    EXPECT_EQ(bytes_of(list, size), cat({be32(2), {0, 5, 0, 0}, kWwn, vsans({1, 4095}), be32(1), be32(0), be32(3), be32(0),
                                         {0, 7, 0, 0}, kOther, vsans({9}), be32(0), be32(0), be32(1), be32(0)}));
    EXPECT_EQ(bytes_of(afids, afid_size), cat({be32(2), {0, 0x0b, 0, 0}, kOther, vsans({}), be32(0), zeros(8),
                                               {0, 0x0a, 0, 0}, kWwn, vsans({}), be32(1), zeros(8)}));
    // Their shows return 0 (what they write is the table cases').
    EXPECT_NE(generation_text([&](uint32_t h) {
                  EXPECT_EQ(zfx_vsan_topo_config_show(h, list), 0);
                  EXPECT_EQ(zfx2_afid_table_config_show(h, afids, 1), 0);
              }),
              "");
    std::free(list);
    std::free(afids);
    EXPECT_EQ(zfx_vsan_topo_config_get(nullptr, 0x65, 3, &list, &size), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(size, 0u);

    // The mode record is handed back whole; every argument is needed, the outputs cleared first.
    zfx_vt_mode_record mode;
    uint32_t first = 9;
    for (int missing = 0; missing < 3; ++missing)
        EXPECT_EQ(zfx_vt_get_vsan_topo_flag_in_kvdb(missing == 0 ? nullptr : r.get(), missing == 1 ? nullptr : &mode,
                                                    missing == 2 ? nullptr : &first),
                  ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(first, 0u);
    ASSERT_EQ(zfx_vt_get_vsan_topo_flag_in_kvdb(r.get(), &mode, &first), 0);
    EXPECT_EQ(bytes_of(&mode, sizeof mode), topo_mode_rec(ZFX_VT_MODE_AUTO).second);
    EXPECT_EQ(first, 0xA1B2C3D4u);
}

// The demo's golden text holds the topology's three passes in their order (activated,
// configured, removals), each AFID half under its own database line, and the service groups'
// active block with its deny policy and each kind of difference beside others; here what it does
// not hold: the configured pass and each difference alone, the walks' stopping rules, and the limits of a line.
// The topology table asks for the commit line by itself (its auto mode does too, which hides
// this in the stores that have both; the other sections' rule is the allocation sweep's section
// texts and the driver's commit rules).
TEST(Fabric, TablesTextCaseByCase) {
    const std::string db = "zfx vsan-topology database\n";
    auto entry = [](int afid, const char *ranges, const char *word = "") {
        char buf[200];
        std::snprintf(buf, sizeof buf, "  %sautonomous-fabric-id %4d switch-wwn 20:00:00:11:22:33:44:55 vsan-ranges %s\n",
                      word, afid, ranges);
        return std::string(buf);
    };
    const std::string afid_db = "autonomous-fabric-id database\n";
    const std::string g1 = "zfx service-group name g1\n", g2 = "zfx service-group name g2\n";
    const std::string activate = "zfx service-group activate\n";
    auto m = [](int afid, const char *ranges, const char *word = "") {
        char buf[120];
        std::snprintf(buf, sizeof buf, "  %sautonomous-fabric-id %2d vsan-ranges %s\n", word, afid, ranges);
        return std::string(buf);
    };
    // Groups of one table, each a name record then its members (fabric ID, VSANs).
    using Group = std::tuple<uint32_t, std::string, std::vector<std::pair<uint16_t, std::vector<int>>>>;
    auto groups = [](bool cfg, std::vector<Group> list, std::vector<Record> out = {}) {
        for (auto &[id, name, members] : list) {
            out.push_back(sg_name_rec(cfg, id, name));
            for (auto &[afid, set] : members) out.push_back(sg_member_rec(cfg, id, afid, vsans_of(set)));
        }
        return out;
    };
    const auto active12 = groups(false, {{1, "g1", {{1, {1}}, {2, {2, 3}}}}});
    // VSANs 1 to run_end, then every other one from `from` to 1900; fits gets their range text up
    // to 1800. With run_end 100 that text fills a member line exactly (2047 characters with its
    // "\n"); with 1000 the next run would need one character more than the line has.
    auto runs = [](int run_end, int from, std::string &fits) {
        std::vector<int> set;
        fits = "1-" + std::to_string(run_end);
        for (int v = 1; v <= run_end; ++v) set.push_back(v);
        for (int v = from; v <= 1900; v += 2) {
            set.push_back(v);
            if (v <= 1800) fits.append(",").append(std::to_string(v));
        }
        return vsans_of(set);
    };
    std::string fits, fits_short;
    const Bytes tight = runs(100, 1000, fits), one_short = runs(1000, 1002, fits_short);
    const TextCase cases[] = {
        {"topology configured only: nothing to activate, and a commit without the auto mode",
         {distribute_rec(1), topo_rec(5, kWwn, 2, vsans({4095}))}, "zfx distribute\n" + db + entry(5, "4095") + "zfx commit\n"},
        {"another mode", {topo_mode_rec(100)}, ""},
        {"short mode record is missing", {{{0x65, 0x02}, cat({le32(0), be32(101)})}}, ""},
        {"a short value is passed over", {topo_rec(1, kWwn, 2, Bytes(515, 0)), topo_rec(2, kWwn, 2, vsans({2}))},
         db + entry(2, "2")},
        {"a key of the wrong length ends the walk",
         {topo_rec(1, kWwn, 2, vsans({1})), {cat({{0x65, 1, 2}, Bytes(11, 0)}), vsans({})}, topo_rec(3, kWwn, 2, vsans({3}))},
         db + entry(1, "1")},
        {"AFIDs: the default half first, each in key order",
         {afid_rec(false, kWwn, 10, vsans({1, 2, 3, 7})), afid_rec(true, kOther, 1, vsans({5})), afid_rec(false, kOther, 2, vsans({}))},
         afid_db + "  switch-wwn 10:00:00:00:00:00:ab:cd default-autonomous-fabric-id    1\n" + afid_db +
             "  switch-wwn 10:00:00:00:00:00:ab:cd autonomous-fabric-id    2 vsan-ranges \n"
             "  switch-wwn 20:00:00:11:22:33:44:55 autonomous-fabric-id   10 vsan-ranges 1-3,7\n"},
        {"groups configured only", groups(true, {{1, "g1", {{1, {1}}}}, {2, "g2", {{2, {2}}}}}), g1 + m(1, "1") + g2 + m(2, "2")},
        {"groups active only: every one removed", groups(false, {{1, "g1", {{1, {1}}}}, {2, "g2", {{1, {4}}}}}),
         g1 + m(1, "1") + g2 + m(1, "4") + activate + "no " + g1 + "no " + g2},
        {"groups unchanged", groups(true, {{7, "g1", {{1, {1}}, {2, {2, 3}}}}}, active12), g1 + m(1, "1") + m(2, "2-3") + activate},
        {"nameless members share the empty name", {sg_member_rec(true, 1, 1, vsans({1})), sg_member_rec(true, 2, 2, vsans({2}))},
         m(1, "1") + m(2, "2")},
        {"names print up to 80 bytes", groups(true, {{1, std::string(100, 'n'), {{1, {1}}}}}),
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
    EXPECT_EQ(bytes_of(list, 11), cat({be32(1), be32(0x01020304), {'g', 'r', 'p'}}));
    EXPECT_EQ(bytes_of(reinterpret_cast<uint8_t *>(list) + 88, 4), Bytes({0x05, 0x06, ZFX2_SG_STATE_ACTIVE_DENY, 0}));
    EXPECT_EQ(zfx2_sg_name_check_if_in_cfg2(0, list, list), 1);
    EXPECT_EQ(zfx2_sg_member_check_if_in_cfg2(0, list, list, 1), 1);
    EXPECT_EQ(zfx2_sg_name_check_if_in_cfg2(1, list, list), 0);
    EXPECT_EQ(zfx2_sg_name_check_if_in_cfg2(0, nullptr, list), 0);
    EXPECT_EQ(zfx2_sg_member_check_if_in_cfg2(0, list, nullptr, 0), 0);
    // Only the counted entries are looked at: a matching one past the count is not there.
    std::vector<uint64_t> room((sizeof *list + 2 * sizeof list->entries[0] + 7) / 8, 0);
    auto *past = reinterpret_cast<zfx2_sg_list *>(room.data());
    past->count = htonl(1);
    past->entries[1] = list->entries[0];
    EXPECT_EQ(zfx2_sg_name_check_if_in_cfg2(0, list, past), 0);
    EXPECT_EQ(zfx2_sg_member_check_if_in_cfg2(0, list, past, 1), 0);
    EXPECT_NE(generation_text([&](uint32_t h) {
                  EXPECT_EQ(zfx2_sg_table_active_show(h, list, 0), 0);
                  EXPECT_EQ(zfx2_sg_table_config_show(h, list, nullptr), 0);
              }),
              "");
    std::free(list);

    char name[ZFX2_SG_NAME_SIZE];
    std::memset(name, 'x', sizeof name);
    EXPECT_EQ(zfx2_sg_get_name_from_id(0x01020304, name, r.get(), 0), 0);
    EXPECT_EQ(bytes_of(name, sizeof name), cat({{'g', 'r', 'p'}, zeros(sizeof name - 3)}));
    std::memset(name, 'x', sizeof name);
    EXPECT_EQ(zfx2_sg_get_name_from_id(7, name, r.get(), 0), ZFX_ERR_TABLE_KEY);
    EXPECT_EQ(std::string(name, sizeof name), std::string(sizeof name, '\0'));
    EXPECT_EQ(zfx2_sg_get_name_from_id(7, nullptr, r.get(), 0), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(zfx2_sg_config_get(r.get(), nullptr, &size, 1), ZFX_ERR_INVALID_ARG);
    // The policy word, when stored whole.
    Stored short_policy({{sg_policy_rec(9).first, {9, 0, 0}}});
    for (auto [store, policy] : {std::pair{r.get(), 9u}, {short_policy.get(), 0u}, {nullptr, 0u}})
        EXPECT_EQ(zfx2_get_default_sg_policy(store), policy);
}

// A show of no list writes nothing, and returns 0 like every show.
TEST(Fabric, ShowsOfNoListWriteNothing) {
    EXPECT_EQ(generation_text([&](uint32_t h) {
                  EXPECT_EQ(zfx_vsan_topo_config_show(h, nullptr), 0);
                  EXPECT_EQ(zfx2_afid_table_config_show(h, nullptr, 0), 0);
                  EXPECT_EQ(zfx2_sg_table_active_show(h, nullptr, 0), 0);
                  EXPECT_EQ(zfx2_sg_table_config_show(h, nullptr, nullptr), 0);
              }),
              "");
}

}  // namespace
