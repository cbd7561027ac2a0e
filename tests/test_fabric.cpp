// The store's per-fabric tables: VSAN topology, AFIDs, service groups, virtual domains and
// persistent FCIDs. Key checks, list bytes, and their text from stores built record by record,
// including the walks' stopping rules and the longest lines.
//
// Virtual domains: both line forms among the global lines, the per-AFID list's bytes and
// capacities and refusals, the list form's status. (The longest range text in both forms: the
// generation suite's edge fabrics.)
//
// Persistent FCIDs: every conversion between stored records, entries and keys in both byte
// orders, the list read from any key on, and the database text, checked against the walk over the
// whole list on a random table.
#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "platform/heapx.h"
#include "store.hpp"
#include "zfx_ascii_cfg.h"
#include "zfx_fabric.h"
#include "zfx_testing.h"

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
    const std::string db = "zfx vsan-topology database\n", afid_db = "autonomous-fabric-id database\n";
    const std::string g1 = "zfx service-group name g1\n", g2 = "zfx service-group name g2\n",
                      activate = "zfx service-group activate\n";
    // A topology entry's line, and a service-group member's.
    auto entry = [](int afid, const char *ranges) {
        return format("  autonomous-fabric-id %4d switch-wwn 20:00:00:11:22:33:44:55 vsan-ranges %s\n", afid, ranges);
    };
    auto m = [](int afid, const char *ranges) {
        return format("  autonomous-fabric-id %2d vsan-ranges %s\n", afid, ranges);
    };
    // Groups of one table, each a name record then its members (fabric ID, VSANs).
    using Group = std::tuple<uint32_t, std::string, std::vector<std::pair<uint16_t, std::vector<int>>>>;
    auto groups = [](bool cfg, std::vector<Group> list, std::vector<Record> out = {}) {
        for (auto &[id, name, members] : list) {
            out.push_back(sg_name_rec(cfg, id, name));
            for (auto &[afid, set] : members) out.push_back(sg_member_rec(cfg, id, afid, vsans(set)));
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
        return vsans(set);
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

    // A group's name, the rest of the buffer cleared; an unknown id clears it all.
    char name[ZFX2_SG_NAME_SIZE];
    for (const auto &[id, result, known] : {std::tuple{0x01020304u, 0, Bytes{'g', 'r', 'p'}}, {7u, ZFX_ERR_TABLE_KEY, {}}}) {
        std::memset(name, 'x', sizeof name);
        EXPECT_EQ(zfx2_sg_get_name_from_id(id, name, r.get(), 0), result);
        EXPECT_EQ(bytes_of(name, sizeof name), cat({known, zeros(sizeof name - known.size())})) << id;
    }
    EXPECT_EQ(zfx2_sg_get_name_from_id(7, nullptr, r.get(), 0), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(zfx2_sg_config_get(r.get(), nullptr, &size, 1), ZFX_ERR_INVALID_ARG);
    // The policy word, when stored whole.
    Stored short_policy({{sg_policy_rec(9).first, {9, 0, 0}}});
    for (auto [store, policy] : {std::pair{r.get(), 9u}, {short_policy.get(), 0u}, {nullptr, 0u}})
        EXPECT_EQ(zfx2_get_default_sg_policy(store), policy);
}

// ---- virtual domains ----------------------------------------------------------------------------

TEST(VirtualDomains, LinesOfBothFormsStandAmongTheGlobalLines) {
    const std::string add = "zfx virtual-fcdomain-add vsan-ranges ", add2 = "zfx virtual-fcdomain-add2 autonomous-fabric-ID ";
    const TextCase cases[] = {
        {"list form, forced", {flags_rec(ZFX_GFLAG_VDOM_FORCE), vdom_list_rec(vsans({1, 2, 3, 5}))}, add + "1-3,5 force\n"},
        {"only 4094 and 4095", {vdom_list_rec(vsans({4094, 4095}))}, ""},
        {"a short list value gives the bits it holds", {{{0x6D, 0x00}, cat({le32(512), {0x60}})}}, add + "1-2\n"},
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
    for (const TextCase &c : cases) EXPECT_EQ(section(c.records), c.expected) << c.name;
}

TEST(VirtualDomains, ListHoldsTheEntriesUpToItsCapacity) {
    std::vector<Record> records;
    for (uint16_t afid = 1; afid <= 5; ++afid) records.push_back(rdi_rec(afid, vsans({afid, 100})));
    Stored r(records);
    const uint64_t allocs = zfx_num_mem_allocs;
    // The count asked for, the list's size and the entries filled.
    const std::tuple<int32_t, uint32_t, uint32_t> cases[] = {
        {2, 1044, 2}, {-1, 4 + 5 * 520, 5}, {0, 4, 0}, {7, 4 + 7 * 520, 5}};
    for (const auto &[count, expected_size, filled] : cases) {
        zfx_rdi_list *list = nullptr;
        uint32_t size = 0;
        ASSERT_EQ(zfx_rdi_get_next(r.get(), count, &list, &size), 0);
        ASSERT_NE(list, nullptr);
        ASSERT_EQ(size, expected_size) << count;
        const uint8_t *b = reinterpret_cast<const uint8_t *>(list);
        EXPECT_EQ(Bytes(b, b + 4), be32(filled));
        for (uint32_t i = 0; i < filled; ++i)
            EXPECT_EQ(Bytes(b + 4 + 520 * i, b + 4 + 520 * (i + 1)), cat({{0, uint8_t(i + 1), 0, 0}, records[i].second}));
        EXPECT_EQ(Bytes(b + 4 + 520 * filled, b + size), zeros(size - 4 - 520 * filled));
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

// ---- persistent FCIDs ----------------------------------------------------------------------------

Bytes reversed(const Bytes &b, size_t at, size_t n) { return Bytes(b.rbegin() + long(b.size() - at - n), b.rbegin() + long(b.size() - at)); }
uint32_t num(const Bytes &b, size_t at, size_t n) {
    uint32_t v = 0;
    for (size_t i = 0; i < n; ++i) v |= uint32_t(b[at + i]) << (8 * i);
    return v;
}

// The list entry of a record, in network order, laid out from the record's bytes alone.
Bytes entry_of(const Record &r) {
    const Bytes &k = r.first;
    Bytes v = r.second;
    v.resize(8);  // a short value holds only its first bytes
    const Bytes id = k[1] == 1 ? cat({reversed(k, 10, 2), {0, 0}, reversed(k, 14, 4)}) : Bytes(k.begin() + 10, k.end());
    return cat({be32(k[1]), reversed(k, 2, 2), reversed(k, 4, 2), reversed(k, 6, 4), id, Bytes(v.begin(), v.begin() + 4),
                reversed(v, 4, 4)});
}

std::vector<Record> sorted(std::vector<Record> records) {
    std::sort(records.begin(), records.end());  // the store's order: bytewise keys
    return records;
}

// The database text as the walk over the whole list gives it: for each domain record, every FCID
// record of the list that it places.
std::string walk_text(const std::vector<Record> &records) {
    std::string out;
    uint32_t afid = 0, vsan = 0;
    for (const auto &[k, v] : sorted(records)) {
        if (k[1] != 1) break;
        if (num(k, 4, 2) != afid || num(k, 6, 4) != vsan) {
            afid = num(k, 4, 2), vsan = num(k, 6, 4);
            out += format("zfx fcdomain database autonomous-fabric-num %d vsan %d\n", int(afid), int(vsan));
        }
        out += format("  native-autonomous-fabric-num %d native-vsan %d domain %d\n", int(num(k, 10, 2)),
                      int(num(k, 14, 4)), v[1]);
        for (const auto &[fk, fv] : sorted(records))
            if (fk[1] == 2 && num(fk, 4, 2) == afid && num(fk, 6, 4) == vsan && fv[1] == v[1])
                out += format("    pwwn %02x:%02x:%02x:%02x:%02x:%02x:%02x:%02x fcid 0x%02x%02x%02x\n", fk[10],
                              fk[11], fk[12], fk[13], fk[14], fk[15], fk[16], fk[17], fv[1], fv[2], fv[3]);
    }
    return out;
}

TEST(Pfcid, RecordsEntriesAndKeysConvertBothWaysInBothKinds) {
    const Record records[] = {
        pfcid_domain_rec(0x0102, 0x03040506, 0x0708, 0x090A0B0C, 0x21, 0x0D0E0F10, 0x1112),
        pfcid_fcid_rec(0x0102, 0x03040506, kWwn, {0xF1, 0x20, 0x01, 0x00}, 0x0D0E0F10, 0x1112),
    };
    for (const Record &r : records) {
        const bool domain = r.first[1] == 1;
        const auto to_entry = domain ? zfx2_pfcid_vdom_key_val_2_pfcid_entry : zfx2_pfcid_vfcid_key_val_2_pfcid_entry;
        const auto to_key = domain ? zfx2_pfcid_kvdb_vdom_key_populate : zfx2_pfcid_kvdb_vfcid_key_populate;
        const auto *key = reinterpret_cast<const zfx2_pfcid_key *>(r.first.data());
        const auto *value = reinterpret_cast<const zfx2_pfcid_value *>(r.second.data());
        zfx2_pfcid_entry net, host, e;
        zfx2_pfcid_key k;
        std::memset(&net, 0xEE, sizeof net);
        to_entry(key, value, &net, 1);
        ASSERT_EQ(bytes_of(&net, 28), entry_of(r)) << domain;
        to_entry(key, value, &host, 0);
        EXPECT_EQ(host.word, 0x0D0E0F10u);
        to_key(&net, &k, 1);
        EXPECT_EQ(bytes_of(&k, 18), r.first);
        for (int32_t convert : {0, 2}) {  // only 1 converts
            to_key(&host, &k, convert);
            EXPECT_EQ(bytes_of(&k, 18), r.first);
        }

        zfx2_pfcid_entry_byte_order_convert(&e, &net, 1);
        EXPECT_EQ(bytes_of(&e, 28), bytes_of(&host, 28));
        zfx2_pfcid_entry_byte_order_convert(&e, &e, 0);
        EXPECT_EQ(bytes_of(&e, 28), bytes_of(&net, 28));
        // hton and ntoh leave the value word alone.
        e = host;
        EXPECT_EQ(zfx2_pfcid_entry_hton(&e), 0);
        EXPECT_EQ(bytes_of(&e, 28), cat({bytes_of(&net, 24), bytes_of(&host.word, 4)}));
        EXPECT_EQ(zfx2_pfcid_entry_ntoh(&e), 0);
        EXPECT_EQ(bytes_of(&e, 28), bytes_of(&host, 28));
    }
    // A kind of neither layout converts only the fields every entry has.
    zfx2_pfcid_entry odd{}, before;
    odd.kind = 5;
    odd.vsan = 0x01020304;
    std::memcpy(odd.id.pwwn, kWwn.data(), 8);
    before = odd;
    zfx2_pfcid_entry_hton(&odd);
    EXPECT_EQ(bytes_of(&odd, 12), cat({be32(5), {0, 0, 0, 0}, be32(0x01020304)}));
    EXPECT_EQ(bytes_of(&odd.id, 16), bytes_of(&before.id, 16));

    EXPECT_EQ(zfx2_pfcid_entry_hton(nullptr), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(zfx2_pfcid_entry_ntoh(nullptr), ZFX_ERR_INVALID_ARG);
    // Any one argument missing: nothing is read or written.
    zfx2_pfcid_key key{};
    zfx2_pfcid_entry_byte_order_convert(nullptr, &odd, 1);
    zfx2_pfcid_entry_byte_order_convert(&odd, nullptr, 1);
    zfx2_pfcid_kvdb_vdom_key_populate(&odd, nullptr, 1);
    zfx2_pfcid_kvdb_vfcid_key_populate(nullptr, &key, 1);
    zfx2_pfcid_vfcid_key_val_2_pfcid_entry(nullptr, nullptr, &odd, 1);
    zfx2_pfcid_vdom_key_val_2_pfcid_entry(&key, nullptr, &odd, 1);
    EXPECT_EQ(bytes_of(&key, sizeof key), zeros(sizeof key));
    EXPECT_EQ(bytes_of(&odd.id, 16), bytes_of(&before.id, 16));
}

TEST(Pfcid, ListReadsFromAnyKeyOnPassingOverAnExactStart) {
    const std::vector<Record> records = sorted({
        pfcid_domain_rec(1, 10, 2, 20, 0x20), pfcid_domain_rec(1, 11, 2, 21, 0x21),
        pfcid_fcid_rec(1, 10, kWwn, {0, 0x20, 1, 0}, 7), pfcid_fcid_rec(2, 10, kWwn, {0, 0x20, 2, 0}),
        {cat({{0x74, 2, 1, 0, 3, 0}, le32(10), kWwn}), {0, 0x20}},  // a short value: the bytes it holds
    });
    Stored r(records);
    // The entries of a list, its size and its zero tail checked.
    auto list = [&](const zfx2_pfcid_entry *start, int32_t count, uint32_t expected_size) {
        zfx2_pfcid_list *l = nullptr;
        uint32_t size = 0;
        std::vector<Bytes> seen;
        EXPECT_EQ(zfx2_pfcid_get_next(r.get(), start, count, &l, &size), 0);
        EXPECT_EQ(size, expected_size);
        if (l == nullptr) return seen;
        for (uint32_t i = 0; i < ntohl(l->count); ++i) seen.push_back(bytes_of(&l->entries[i], 28));
        const Bytes whole = bytes_of(l, size);
        EXPECT_EQ(num(whole, 4, 4), 0u);
        EXPECT_EQ(Bytes(whole.begin() + 8 + 28 * long(seen.size()), whole.end()), zeros(size - 8 - 28 * seen.size()));
        heapx_free(l);
        return seen;
    };
    std::vector<Bytes> all;
    for (const Record &rec : records) all.push_back(entry_of(rec));
    EXPECT_EQ(list(nullptr, 0, 8), std::vector<Bytes>{});
    EXPECT_EQ(list(nullptr, 3, 92), std::vector<Bytes>(all.begin(), all.begin() + 3));
    EXPECT_EQ(list(nullptr, -1, 8 + 5 * 28), all);
    // Handing back the last entry held resumes after it, one entry at a time.
    std::vector<Bytes> resumed, one;
    zfx2_pfcid_entry at;
    for (const zfx2_pfcid_entry *start = nullptr; resumed.size() <= all.size(); start = &at) {
        if ((one = list(start, 1, 36)).empty()) break;
        resumed.push_back(one[0]);
        std::memcpy(&at, one[0].data(), 28);
    }
    EXPECT_EQ(resumed, all);
    // A start that is not stored begins at the key after it.
    std::memcpy(&at, all[0].data(), 28);
    at.id.domain.native_vsan = htonl(21);  // between the first two keys
    EXPECT_EQ(list(&at, -1, 8 + 4 * 28), std::vector<Bytes>(all.begin() + 1, all.end()));

    // A start of neither kind is refused: no list and a size of 0, whatever the caller's variables
    // held, and nothing allocated. (The counts and stores the list reader refuses are the
    // virtual-domain list's test's: both lists have the one reader.)
    const uint64_t allocs = zfx_num_mem_allocs;
    at.kind = htonl(3);
    alignas(4) uint8_t stale[8];
    zfx2_pfcid_list *l = reinterpret_cast<zfx2_pfcid_list *>(stale);
    uint32_t size = 5;
    EXPECT_EQ(zfx2_pfcid_get_next(r.get(), &at, 1, &l, &size), ZFX_ERR_INVALID_VALUE);
    EXPECT_EQ(l, nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(zfx_num_mem_allocs, allocs);
}

TEST(Pfcid, TextIsThatOfTheWalkOverTheWholeList) {
    std::mt19937 rng(7);
    auto pick = [&](uint32_t n) { return uint32_t(rng() % n); };
    RecordMap table;
    for (int i = 0; i < 60; ++i)
        table.insert(pfcid_domain_rec(pick(3), pick(4), pick(3), pick(50), uint8_t(0x20 + pick(4)), 0, uint16_t(1 + pick(2))));
    for (int i = 0; i < 400; ++i) {
        Bytes wwn(8);
        for (uint8_t &b : wwn) b = uint8_t(pick(256));
        // The FCID's first byte is not part of it.
        const Bytes fcid = {uint8_t(pick(256)), uint8_t(0x20 + pick(4)), uint8_t(pick(256)), uint8_t(pick(256))};
        table.insert(pfcid_fcid_rec(pick(3), pick(4), wwn, fcid));
    }
    const std::vector<Record> records(table.begin(), table.end());
    const std::string expected = walk_text(records);
    ASSERT_GT(expected.size(), 250 * 40u);  // most FCIDs are placed, some more than once
    ASSERT_EQ(expected.rfind("  native-", 0), 0u);  // the table starts in AFID 0, VSAN 0: no header
    commit_reqd = 0;
    EXPECT_EQ(section(records), expected);
    EXPECT_EQ(commit_reqd, 1);
    // The commit is asked for by any record of the table, even one that writes no line.
    commit_reqd = 0;
    EXPECT_EQ(section({records.back()}), "");
    EXPECT_EQ(commit_reqd, 1);

    // Without memory for the index that places the FCIDs, the same text comes from scanning the
    // list under every domain record; a table without FCID records makes no index at all. Each
    // block is followed by one more domain record (every word 1): the walk stops at the list's end.
    std::vector<Record> domains;
    for (const Record &rec : records)
        if (rec.first[1] == 1) domains.push_back(rec);
    const uint32_t one_more[7] = {htonl(1), htonl(1), htonl(1), htonl(1), htonl(1), htonl(1), htonl(1)};
    ASSERT_EQ(heapx_trail_blocks(one_more, sizeof one_more), 0);
    for (const auto &[stored, allocations] : {std::pair{records, 2u}, std::pair{domains, 1u}}) {
        Stored r(stored);
        int32_t commit = 0;
        const std::string text = generation_text([&](uint32_t handle) {
            zfx_testing_fail_allocation(2);  // the list, then the index
            EXPECT_EQ(zfx2_pfcid_generate_ascii_config(handle, r.get(), &commit), 0);
            EXPECT_EQ(zfx_testing_allocation_count(), allocations);
            zfx_testing_fail_allocation(0);
        });
        EXPECT_EQ(text, walk_text(stored));
        EXPECT_EQ(commit, 1);
    }
    heapx_trail_blocks(nullptr, 0);
}

}  // namespace
