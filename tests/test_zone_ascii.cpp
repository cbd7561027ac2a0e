// The zone section of the configuration text, from stores built record by record: the text rules
// that the golden texts and the edge fabrics' digests leave out, and the stop at the first failed
// lookup or malformed record.
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "store.hpp"
#include "zfx_ascii_cfg.h"

namespace {

using namespace zfxtest;

const Bytes kAttr = zeros(8);

// A zone's array: its member bitmap, its attribute block, then more elements.
Bytes zone_array(const std::vector<int> &members, std::initializer_list<Bytes> more = {}) {
    return cat({le32(uint32_t(2 + more.size())), members_tlv(members), tlv(9, kAttr), cat(more)});
}

Record member(uint16_t zone, uint16_t id, uint8_t type, std::initializer_list<Bytes> elements) {
    return member_rec(zone, id, type, tlv_array(elements));
}

Record pwwn_member(uint16_t zone, uint16_t id, uint32_t vsan, uint32_t afid) {
    return member(zone, id, 0, {tlv(10, kWwn), tlv(11, le32(vsan)), tlv(12, le32(afid))});
}

Bytes active(const std::string &name) { return cat({le16(1), name68(name), le16(0)}); }

std::vector<Record> with(std::vector<Record> base, const std::vector<Record> &more) {
    base.insert(base.end(), more.begin(), more.end());
    return base;
}

// The most the active zoneset data can take: every zone id with every member id, each member at
// its largest (the bound its readers document).
constexpr int64_t kLargestActive = 1878753364;

TEST(ZoneText, EveryRuleOfTheZoneSection) {
    const std::string wwn = "20:00:00:11:22:33:44:55";
    const std::vector<Record> one_zone = {zone_db_header_rec({1}, {}), zone_rec(1, "z1", zone_array({}))};
    const std::string tail = "vsan 10 autonomous-fabric-id 0\n";  // of a member without its AFID
    const std::tuple<const char *, std::vector<Record>, SectionResult> cases[] = {
        {"no header: nothing, not even the activation", active_chunks(active("a"), 100), {0, ""}},
        {"empty header", {zone_db_header_rec({}, {})}, {0, ""}},
        {"short header marks zones 1 and 3 (a zone without a member element has no members)",
         {zone_db_header_rec({1, 3}, {}, true), zone_rec(1, "z1", tlv_array({})), zone_rec(3, "z3", zone_array({}))},
         {0, "zfx zone name z1\nzfx zone name z3\n"}},
        {"both forms: the full one only",
         {{{0x66, 0}, cat({zeros(264), id_bits(251, {5}), zeros(9), id_bits(1024, {2008})})},
          zone_rec(2008, "z2008", zone_array({}))},
         {0, "zfx zone name z2008\n"}},
        {"attributes in the order of their elements, unknown QoS silent",
         {zone_db_header_rec({1, 2}, {}),
          zone_rec(1, "z1", zone_array({}, {tlv(59, be32(1)), tlv(45, le32(2))})),
          zone_rec(2, "z2", zone_array({}, {tlv(45, le32(5)), tlv(59, le32(1)), tlv(45, le32(1)), tlv(45, {3})}))},
         {0, "zfx zone name z1\n  attribute read-only\n  attribute qos priority medium\n"
             "zfx zone name z2\n  attribute qos priority low\n"}},
        // (The lines of whole members of each kind, in their columns, are the golden texts' and
        // the edge fabrics' digests.)
        {"member lines in member id order, from whatever elements the record has",
         with(one_zone, {zone_rec(1, "z1", zone_array({1, 3, 7, 2047})), pwwn_member(1, 1, 10, 1),
                         member(1, 3, 0, {tlv(10, kWwn), tlv(11, le32(4094))}),
                         member(1, 7, 0, {}),  // a record of its head alone
                         member(1, 2047, 9, {tlv(11, le32(8)), tlv(12, le32(1))})}),
         {0, "zfx zone name z1\n"
             "  member pwwn " + wwn + "            vsan 10\n"
             "  member pwwn " + wwn + "            vsan 4094 autonomous-fabric-id 0\n"
             "  member pwwn 00:00:00:00:00:00:00:00            vsan 0 autonomous-fabric-id 0\n"
             "             vsan 8\n"}},
        {"an alias takes a column of 15 characters, a longer one as much as it needs",
         with(one_zone, {zone_rec(1, "z1", zone_array({1, 2})), member(1, 1, 1, {tlv(65, str0(std::string(14, 'a'))), tlv(11, le32(10))}),
                         member(1, 2, 1, {tlv(65, str0(std::string(16, 'b'))), tlv(11, le32(10))})}),
         {0, "zfx zone name z1\n  member device-alias " + std::string(14, 'a') + std::string(13, ' ') + tail +
                 "  member device-alias " + std::string(16, 'b') + std::string(12, ' ') + tail}},
        {"short bitmaps: the bits they lack are clear",
         {zone_db_header_rec({1}, {1}), zone_rec(1, "z1", tlv_array({tlv(7, cat({le32(256), {0x40}})), tlv(9, kAttr)})),
          pwwn_member(1, 1, 10, 1), zoneset_rec(1, "zs", tlv_array({tlv(4, cat({le32(250), {0x40}}))}))},
         {0, "zfx zone name z1\n  member pwwn " + wwn + "            vsan 10\nzfx zoneset name zs\n  member z1\n"}},
        {"a bitmap a few bytes short: what follows it is not its bits",
         {zone_db_header_rec({1, 2020}, {1}), zone_rec(1, "z1", zone_array({})), zone_rec(2020, "z2020", zone_array({})),
          zoneset_rec(1, "zs", tlv_array({tlv(4, cat({le32(251), id_bits(251, {1})})), tlv(0xFFFF, {})}))},
         {0, "zfx zone name z1\nzfx zone name z2020\nzfx zoneset name zs\n  member z1\n"}},
        {"zonesets: the full bitmap wins, the short one otherwise, neither: the name alone",
         {zone_db_header_rec({1, 3000}, {1, 2, 3}), zone_rec(1, "z1", zone_array({})),
          zone_rec(3000, "z3000", zone_array({})), zone_rec(7, "never", zone_array({})),
          zoneset_rec(1, "full", tlv_array({zones_tlv(4, {7}), zones_tlv(60, {1, 3000}), tlv(3, kAttr)})),
          zoneset_rec(2, "short", tlv_array({zones_tlv(4, {1}), tlv(3, kAttr)})),
          zoneset_rec(3, "none", tlv_array({tlv(3, kAttr)}))},
         {0, "zfx zone name z1\nzfx zone name z3000\nzfx zoneset name full\n  member z1\n  member z3000\n"
             "zfx zoneset name short\n  member z1\nzfx zoneset name none\n"}},
        {"activation with force", with(with(one_zone, {zone_options_rec(0x80000000)}), {active_chunks(active("act"), 10)[0],
                                          active_chunks(active("act"), 50)[1], active_chunks(active("act"), 50)[2]}),
         {0, "zfx zone name z1\nzfx zoneset activate name act force\n"}},
        {"activation without force, or without options",
         with({zone_db_header_rec({}, {}), zone_options_rec(0x7FFFFFFF)}, active_chunks(active("act"), 100)),
         {0, "zfx zoneset activate name act\n"}},
        {"a total as large as the data can be is read",
         with({zone_db_header_rec({}, {})}, active_chunks(active("big"), 100, kLargestActive)),
         {0, "zfx zoneset activate name big\n"}},
        {"a larger total is no data",
         with({zone_db_header_rec({}, {})}, active_chunks(active("big"), 100, kLargestActive + 1)), {0, ""}},
        {"a record holding an id other than its key's (at the table's end): its members are those of the id it holds",
         {zone_db_header_rec({1}, {}), {zone_rec(1, "", {}).first, zone_rec(2, "z1", zone_array({1})).second}, pwwn_member(2, 1, 10, 1)},
         {0, "zfx zone name z1\n  member pwwn " + wwn + "            vsan 10\n"}},
        {"a record under a zone key of another shape is not the zone's",
         with(one_zone, {{{0x68, 0, 1, 0, 1, 0}, zone_rec(1, "other", zone_array({})).second}}), {0, "zfx zone name z1\n"}},
        {"a zone record with no data is skipped, in a zoneset too",
         {zone_db_header_rec({1, 2}, {1}), {{0x68, 0, 1, 0, 0, 0}, {}}, zone_rec(2, "z2", zone_array({})),
          zoneset_rec(1, "zs", tlv_array({zones_tlv(4, {1, 2})}))},
         {0, "zfx zone name z2\nzfx zoneset name zs\n  member z2\n"}},
    };
    for (const auto &[name, records, expected] : cases)
        EXPECT_EQ(zone_section_on(Stored(records).get()), expected) << name;
}

TEST(ZoneText, FirstFailureStopsTheSectionAndKeepsItsLines) {
    const std::vector<Record> base = with({zone_db_header_rec({1, 2}, {1}), zone_rec(1, "z1", zone_array({1})),
                                           pwwn_member(1, 1, 10, 1), zone_rec(2, "z2", zone_array({})),
                                           zoneset_rec(1, "zs", tlv_array({zones_tlv(4, {1, 2})}))},
                                          active_chunks(active("act"), 100));
    const std::string all = "zfx zone name z1\n  member pwwn 20:00:00:11:22:33:44:55            vsan 10\n"
                            "zfx zone name z2\nzfx zoneset name zs\n  member z1\n  member z2\n"
                            "zfx zoneset activate name act\n";
    const std::string to_z1 = "zfx zone name z1\n";
    const std::string to_zs = all.substr(0, all.find("zfx zoneset name"));
    // Each case drops one key of the complete store and stores records over it (a later record
    // replaces an earlier one of the same key), or has a read fail. Member records come from one
    // walk of their table; whatever the walk cannot give is looked up key by key, so the text is
    // the same: a member whose read fails stops the section, a walk that ends early at a key of
    // another shape changes nothing (one whose cursor fails at once: the generation suite's
    // walked-against-looked-up stores). The header's lookup failing otherwise than "not found"
    // ends the section at once. Only the whole text has status 0.
    const uint8_t member_key[6] = {0x69, 0, 1, 0, 1, 0}, header_key[2] = {0x66, 0};
    // The name, the key dropped, the records stored over the rest, the text, the read fault.
    const std::tuple<const char *, Bytes, std::vector<Record>, std::string, kvdb_mem_faults> cases[] = {
        {"complete", {}, {}, all, {}},
        {"member missing", {0x69, 0, 1, 0, 1, 0}, {}, to_z1, {}},
        {"member array claims more than it holds", {}, {member_rec(1, 1, 0, cat({le32(2), tlv(10, kWwn)}))}, to_z1, {}},
        {"member record shorter than its head", {}, {{{0x69, 0, 1, 0, 1, 0}, {1, 0, 0}}}, to_z1, {}},
        {"zone record shorter than its head", {}, {{{0x68, 0, 1, 0, 0, 0}, {1, 0, 0, 0, 'z'}}}, "", {}},
        {"zone array claims more than it holds", {}, {zone_rec(1, "z1", cat({le32(3), members_tlv({1})}))}, "", {}},
        {"zoneset record with no data", {}, {{{0x67, 0, 1, 0, 0, 0}, {}}}, to_zs, {}},
        {"zoneset names a zone without a record", {0x68, 0, 2, 0, 0, 0}, {zone_db_header_rec({1}, {1})},
         all.substr(0, all.find("zfx zone name z2")) + "zfx zoneset name zs\n  member z1\n", {}},
        {"active data shorter than its head", {}, {{{0x6C, 0, 0, 0, 0, 0}, be32(4)}},
         all.substr(0, all.find("zfx zoneset activate")), {}},
        {"header read fails", {}, {}, "", {0, int32_t(0x40480099), header_key, 2, 0}},
        {"member read fails", {}, {}, to_z1, {0, int32_t(0x40480099), member_key, 6, 0}},
        {"odd key first", {}, {{{0x69, 0, 0}, {1}}}, all, {}},
    };
    for (const auto &[name, drop, add, text, fault] : cases) {
        std::vector<Record> records = base;
        std::erase_if(records, [&](const Record &r) { return r.first == drop; });
        Stored stored(with(records, add));
        kvdb_mem_inject(stored.prefix().config().c_str(), &fault);
        EXPECT_EQ(zone_section_on(stored.get()), (SectionResult{text == all ? 0 : ZFX_ERR_KVDB, text})) << name;
    }
    EXPECT_EQ(zfx_zone_generate_ascii_config(nullptr), 0);
}

}  // namespace
