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

// VSANs 1-2, 4-5, 7-8, ...: a set with one of the longest range texts (12911 characters).
std::vector<int> pairs() {
    std::vector<int> v;
    for (int p = 1; p + 1 < 4096; p += 3) v.insert(v.end(), {p, p + 1});
    return v;
}

TEST(Fabric, KeyChecksTestNullLengthTableKindInThatOrder) {
    using Check = std::function<int32_t(const kvdb_datum *)>;
    struct Case {
        Check check;
        Bytes key;
        int32_t expected;
    };
    const Bytes vt = cat({{0x65, 1}, Bytes(11, 0)}), afid = cat({{0x71, 1}, Bytes(10, 0)});
    const Bytes member = cat({{0x73, 2}, Bytes(6, 0)}), name = cat({{0x76, 1}, Bytes(4, 0)});
    const Check vt_check = [](const kvdb_datum *k) { return zfx_vt_kvdb_key_check(k, 0x65); };
    const Check afid_check = [](const kvdb_datum *k) { return zfx2_afid_table_kvdb_key_check(k, 0); };
    const Check default_check = [](const kvdb_datum *k) { return zfx2_afid_table_kvdb_key_check(k, 1); };
    const Case cases[] = {
        {vt_check, vt, 0},
        {vt_check, {}, ZFX_ERR_VT_KEY},
        {vt_check, cat({vt, {0}}), ZFX_ERR_VT_KEY_LENGTH},
        {vt_check, cat({{0x66, 0}, Bytes(12, 0)}), ZFX_ERR_VT_KEY_LENGTH},  // length before table
        {vt_check, cat({{0x66, 1}, Bytes(11, 0)}), ZFX_ERR_VT_KEY},
        {vt_check, cat({{0x65, 2}, Bytes(11, 0)}), ZFX_ERR_VT_KEY},
        {afid_check, afid, 0},
        {default_check, afid, ZFX_ERR_AFID_KEY},
        {afid_check, cat({afid, {0}}), ZFX_ERR_AFID_KEY_LENGTH},
        {afid_check, cat({{0x71, 0}, Bytes(10, 0)}), ZFX_ERR_AFID_KEY},
        {zfx2_sg_cfg_kvdb_key_check, member, 0},
        {zfx2_sg_active_kvdb_key_check, member, ZFX_ERR_TABLE_KEY},
        {[](const kvdb_datum *k) { return zfx2_sg_kvdb_key_check_internal(k, 1); }, member, 0},
        {zfx2_sg_cfg_kvdb_key_check, cat({member, {0}}), ZFX_ERR_TABLE_KEY},
        {zfx2_sg_active_kvdb_key_check_id, name, 0},
        {zfx2_sg_cfg_kvdb_key_check_id, name, ZFX_ERR_TABLE_KEY},
        {[](const kvdb_datum *k) { return zfx2_sg_kvdb_key_check_id_internal(k, 0); }, name, 0},
        {zfx2_sg_active_kvdb_key_check_id, cat({{0x76, 2}, Bytes(4, 0)}), ZFX_ERR_TABLE_KEY},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const Case &c = cases[i];
        kvdb_datum key{const_cast<uint8_t *>(c.key.data()), uint32_t(c.key.size())};
        EXPECT_EQ(c.check(c.key.empty() ? nullptr : &key), c.expected) << "case " << i;
    }
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

TEST(Fabric, TopologyAndAfidLinesHoldTheLongestRangeTextWhole) {
    const std::vector<int> set = pairs();
    const Bytes stored = vsans_of(set);
    char ranges[VSAN_BITSET_TEXT_SIZE];
    ASSERT_GT(vsan_bitset_sprintf(ranges, reinterpret_cast<const vsan_bitset *>(stored.data())), 12900);
    EXPECT_EQ(section({topo_rec(1, kWwn, 2, stored), afid_rec(false, kWwn, 1, stored)}),
              "zfx vsan-topology database\n  autonomous-fabric-id    1 switch-wwn 20:00:00:11:22:33:44:55 vsan-ranges " +
                  std::string(ranges) + "\nautonomous-fabric-id database\n"
                  "  switch-wwn 20:00:00:11:22:33:44:55 autonomous-fabric-id    1 vsan-ranges " + ranges + "\n");
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

    Stored r({afid_rec(true, kWwn, 0x0a, vsans({}))});
    std::memcpy(local_switch_wwn, kWwn.data(), 8);
    zfx2_afid_table_list *list;
    uint32_t size;
    ASSERT_EQ(zfx2_afid_table_config_get(r.get(), &list, &size, 1), 0);
    ASSERT_EQ(size, 544u);
    const uint8_t *b = reinterpret_cast<const uint8_t *>(list);
    EXPECT_EQ(Bytes(b, b + 16), cat({be32(1), {0, 0x0a, 0, 0}, kWwn}));
    EXPECT_EQ(Bytes(b + 4 + 528, b + 544), cat({be32(1), be32(0), be32(0)}));
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
    };
    for (const TextCase &c : cases) EXPECT_EQ(section(c.records), c.expected) << c.name;
}

TEST(Fabric, ServiceGroupLinesStopAt2047CharactersAfterAWholeRun) {
    const Bytes stored = vsans_of(pairs());
    char full[VSAN_BITSET_TEXT_SIZE];
    vsan_bitset_sprintf(full, reinterpret_cast<const vsan_bitset *>(stored.data()));
    const std::string text = section({sg_member_rec(true, 1, 1, stored)});
    const std::string line = text.substr(2);  // past the indentation the renderer adds
    const std::string head = "autonomous-fabric-id  1 vsan-ranges ";
    ASSERT_LE(line.size(), 2047u);
    ASSERT_EQ(line.substr(0, head.size()), head);
    EXPECT_EQ(line.back(), '\n');
    const std::string ranges = line.substr(head.size(), line.size() - head.size() - 1);
    const std::string rest = std::string(full).substr(ranges.size());
    EXPECT_EQ(rest[0], ',');  // cut before a separator: every run written is whole
    EXPECT_GT(line.size() + rest.find(',', 1), 2047u);  // and the next run would not have fit
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
    EXPECT_EQ(zfx2_sg_config_get(r.get(), nullptr, &size, 1), ZFX_ERR_INVALID_ARG);
}

}  // namespace
