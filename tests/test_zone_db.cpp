// The persistent zone database: exact bytes of every record kind and of the active zoneset data,
// the member decode and the restoring readers. (The text made of such records: test_zone_ascii.)
#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "platform/tlvbuf.h"
#include "store.hpp"
#include "zone_nodes.hpp"
#include "zfx_zone_db.h"
#include "zfx_zone_db.hpp"

namespace {

using namespace zfxtest;


TEST(ZoneDb, MemberRecordsCarryTheElementsOfTheirTypeAndDecodeBack) {
    const std::string alias(ZFX_NAME_SIZE - 1, 'a');  // the longest
    const std::pair<uint32_t, Bytes> cases[] = {
        {0, tlv_array({tlv(10, node_wwn(9)), tlv(11, le32(10)), tlv(12, le32(5))})},
        {1, tlv_array({tlv(11, le32(10)), tlv(12, le32(5)), tlv(65, str0(alias))})},
        {240, tlv_array({tlv(10, node_wwn(9)), tlv(11, le32(10)), tlv(12, le32(5)), tlv(44, kNodeLun)})},
        {241, tlv_array({tlv(11, le32(10)), tlv(12, le32(5)), tlv(44, kNodeLun), tlv(65, str0(alias))})},
    };
    ZoneNodes db;
    zfx_zone_node &z = db.zone(1, "z", 0, 0, false);
    for (const auto &[type, array] : cases) {
        zfx_zone_member_node &m = db.member(z, 0x10009, type, 10, 5, alias);  // id keeps its low 16 bits
        uint32_t len = 0;
        const Bytes rec = take(zfx_zone_encode_zone_member_to_kvdb(&m, &len), len);
        EXPECT_EQ(rec, cat({le16(9), {uint8_t(type), 0}, array})) << type << ": " << hex(rec);
        // Decoded back: the fields of its type, no others.
        zfx_zone_member_node back{};
        ASSERT_EQ(zfx_zone_decode_member_from_kvdb_cfg(rec.data(), &back), 0);
        const bool wwn = type == 0 || type == 240, lun = type >= 240, named = type == 1 || type == 241;
        EXPECT_EQ(std::tuple(back.type, back.vsan, back.afid), std::tuple(type, 10u, uint16_t(5)));
        EXPECT_EQ(std::tuple(bytes_of(back.pwwn, 8), bytes_of(back.lun, 8), std::string(back.device_alias)),
                  std::tuple(wwn ? node_wwn(9) : zeros(8), lun ? kNodeLun : zeros(8), named ? alias : ""));

        uint32_t size = 0, typed = 0;
        EXPECT_EQ(zfx_zone_get_zone_member_attrib_tlvs_size(&m, 0, &size), 0);
        EXPECT_EQ(size + 8, rec.size());
        // With the type element: 27 first, then the same elements.
        EXPECT_EQ(zfx_zone_get_zone_member_attrib_tlvs_size(&m, 1, &typed), 0);
        EXPECT_EQ(typed, size + 8);
        Bytes typed_array(typed + 4, 0);
        EXPECT_EQ(zfx_zone_encode_zone_member_attrib_tlvs(typed_array.data(), typed + 4, &m, 1), 0);
        EXPECT_EQ(typed_array, cat({le32(tlvbuf_get_num_tlvs(array.data(), 0) + 1), tlv(27, le32(type)),
                                    Bytes(array.begin() + 4, array.end())}));
    }
    // A bad member type, missing arguments, a refused add, no memory.
    zfx_zone_member_node &bad = db.member(z, 3, 7, 1, 1);
    uint32_t len = 99, size = 99;
    EXPECT_EQ(zfx_zone_encode_zone_member_to_kvdb(&bad, &len), nullptr);
    EXPECT_EQ(zfx_zone_get_zone_member_attrib_tlvs_size(&bad, 0, &size), ZFX_ERR_BAD_MEMBER_TYPE);
    EXPECT_EQ(size, 0u);
    for (int32_t st : {zfx_zone_get_zone_member_attrib_tlvs_size(nullptr, 0, &size),
                       zfx_zone_get_zone_member_attrib_tlvs_size(&bad, 0, nullptr),
                       zfx_zone_encode_zone_member_attrib_tlvs(nullptr, 64, &bad, 0)})
        EXPECT_EQ(st, ZFX_ERR_INVALID_VALUE);
    uint8_t small[16] = {};
    EXPECT_EQ(zfx_zone_encode_zone_member_attrib_tlvs(small, sizeof small, &bad, 0), ZFX_ERR_BAD_MEMBER_TYPE);
    EXPECT_EQ(zfx_zone_encode_zone_member_attrib_tlvs(small, sizeof small, &db.members[0], 0), -1);
    EXPECT_EQ(tlvbuf_get_num_tlvs(small, 0), 1u);  // the port WWN fitted, the VSAN did not
    EXPECT_EQ(len, 99u);
}

// Unknown elements pass, the AFID is the low 16 bits of the host-order word, and what the record
// lacks keeps its value (the id is the caller's). The last of repeated elements counts; a WWN or
// LUN shorter than 8 bytes counts as none; an alias without its terminator is cut to 67
// characters, a later empty one empties it.
TEST(ZoneDb, DecodeFillsOnlyWhatTheRecordCarries) {
    zfx_zone_member_node m{};
    std::snprintf(m.device_alias, sizeof m.device_alias, "kept");
    const Bytes wwn{1, 2, 3, 4, 5, 6, 7, 8}, lun{9, 8, 7, 6, 5, 4, 3, 2};
    const Bytes rec = cat({le16(4), {0, 0},
                           tlv_array({tlv(10, wwn), tlv(10, {1, 1, 1, 1}), tlv(44, lun), tlv(44, {}), tlv(11, le32(9)),
                                      tlv(99, le32(1)), tlv(11, le32(7)), tlv(12, be32(0x00030002))})});
    ASSERT_EQ(zfx_zone_decode_member_from_kvdb_cfg(rec.data(), &m), 0);
    EXPECT_EQ(std::tuple(m.id, m.vsan, m.afid), std::tuple(0u, 7u, uint16_t(0x0300)));
    EXPECT_EQ(std::tuple(bytes_of(m.pwwn, 8), bytes_of(m.lun, 8), std::string(m.device_alias)),
              std::tuple(wwn, lun, "kept"));
    for (const auto &[alias, want] : {std::pair{tlv_array({tlv(65, Bytes(68, 'x'))}), std::string(67, 'x')},
                                      {tlv_array({tlv(65, {'a', 'b', 0, 'c'}), tlv(65, {})}), std::string()}}) {
        ASSERT_EQ(zfx_zone_decode_member_from_kvdb_cfg(cat({le16(4), {0, 0}, alias}).data(), &m), 0);
        EXPECT_EQ(std::string(m.device_alias), want);
    }
    EXPECT_EQ(zfx_zone_decode_member_from_kvdb_cfg(nullptr, &m), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(zfx_zone_decode_member_from_kvdb_cfg(rec.data(), nullptr), ZFX_ERR_INVALID_ARG);
}

// The member view reads a record laid out as the encoder writes it at its elements' places, and
// any other record by walking it: both ways must agree on every record, as written, cut short or
// with any one byte changed (an exactly sized copy, so that a read past it is seen). A record the
// walk takes is read alike, and no further, when its length is not known (the public decoder
// trusts a record to be as long as its array claims).
TEST(ZoneDb, MemberViewAtTheElementsPlacesIsTheWalks) {
    const auto view = [](const Bytes &r, bool walked, size_t len = 0) {
        const auto rec = std::make_unique<uint8_t[]>(r.size());
        std::copy(r.begin(), r.end(), rec.get());
        zfx::MemberView v{};
        len = len != 0 ? len : r.size();
        const bool ok = walked ? zfx::view_walked_member(rec.get(), len, v) : zfx::view_member(rec.get(), len, v);
        const auto at = [&](const void *p) { return p != nullptr ? static_cast<const uint8_t *>(p) - rec.get() : -1; };
        // (What a refused record leaves in the view is not for use.)
        return ok ? std::tuple(true, v.type, v.has_vsan, v.has_afid, v.has_alias, v.vsan, v.afid, at(v.pwwn), at(v.lun),
                               at(v.alias), v.alias_len)
                  : std::tuple(false, uint8_t(0), false, false, false, 0u, uint16_t(0), ptrdiff_t(-2), ptrdiff_t(-2),
                               ptrdiff_t(-2), size_t(0));
    };
    ZoneNodes db;
    zfx_zone_node &z = db.zone(1, "z", 0, 0, false);
    // Each type with the elements it carries, in record order.
    const std::pair<uint32_t, std::vector<uint16_t>> types[] = {
        {0, {10, 11, 12}}, {1, {11, 12, 65}}, {240, {10, 11, 12, 44}}, {241, {11, 12, 44, 65}}};
    for (const auto &[type, elements] : types)
        for (size_t n : {size_t(1), size_t(20), size_t(ZFX_NAME_SIZE - 1)}) {
            uint32_t len = 0;
            const Bytes rec = take(zfx_zone_encode_zone_member_to_kvdb(&db.member(z, 9, type, 4094, 7, std::string(n, 'a')), &len), len);
            // Also the same elements with empty values: a short record, whose later elements' places
            // under the layout lie past its end.
            Bytes empty = cat({le16(9), {uint8_t(type), 0}, le32(uint32_t(elements.size()))});
            for (uint16_t e : elements) empty = cat({empty, tlv(e, {})});
            std::vector<Bytes> records = {empty};
            for (size_t cut = 0; cut <= rec.size(); ++cut) records.emplace_back(rec.begin(), rec.begin() + long(cut));
            for (size_t i = 0; i < rec.size(); ++i)
                for (int b : {0x00, 0x01, 0x07, 0xF0, 0xFF, rec[i] + 1, rec[i] - 1}) {
                    records.push_back(rec);
                    records.back()[i] = uint8_t(b);
                }
            for (const Bytes &r : records) {
                const auto walked = view(r, true);
                ASSERT_EQ(view(r, false), walked) << hex(r);
                if (std::get<0>(walked)) {
                    ASSERT_EQ(view(r, false, SIZE_MAX / 2), walked) << hex(r);
                }
            }
            // The places the reader checks are those the encoder writes to.
            zfx::MemberView v{};
            EXPECT_TRUE(zfx::view_written_member(rec.data(), rec.size(), v) && v.type == type) << hex(rec);
        }
}

TEST(ZoneDb, ZoneAndZonesetRecords) {
    ZoneNodes db;
    zfx_zone_node &plain = db.zone(0x12345, "plain");
    const zfx_zone_member_node &first = db.member(plain, 3, 0, 1, 1);
    db.member(plain, 2047, 0, 1, 1);  // the bitmap's last bit
    zfx_zone_node &ro = db.zone(2, "read-only", 2, 1);
    const Bytes attr = {0xA1, 0, 0, 0, 0, 0, 0, 0xA8};
    uint32_t len = 0;
    EXPECT_EQ(take(zfx_zone_encode_zone_to_kvdb(&plain, &len), len),
              zone_rec(0x2345, "plain", tlv_array({members_tlv({3, 2047}), tlv(9, attr), tlv(45, le32(0))})).second);
    EXPECT_EQ(take(zfx_zone_encode_zone_to_kvdb(&ro, &len), len),
              zone_rec(2, "read-only", tlv_array({members_tlv({}), tlv(9, attr), tlv(45, le32(2)), tlv(59, be32(1))})).second);

    // Zone ids below 2000 fit element 4 (its first 250 bytes); any later id adds element 60.
    const Bytes zsattr = {0xB1, 0, 0, 0, 0, 0, 0, 0xB8};
    const std::pair<std::vector<int>, Bytes> sets[] = {
        {{1, 1999}, tlv_array({zones_tlv(4, {1, 1999}), tlv(3, zsattr)})},
        {{1, 2000}, tlv_array({zones_tlv(4, {1}), zones_tlv(60, {1, 2000}), tlv(3, zsattr)})},
        {{8191}, tlv_array({zones_tlv(4, {}), zones_tlv(60, {8191}), tlv(3, zsattr)})},
    };
    for (const auto &[ids, array] : sets) {
        ZoneNodes d;
        zfx_zoneset_node s = d.zoneset(5, "zs", {});
        for (int id : ids) s.zone_bitmap[id / 8] |= uint8_t(0x80 >> (id % 8));
        EXPECT_EQ(take(zfx_zone_encode_zoneset_to_kvdb(&s, &len), len), zoneset_rec(5, "zs", array).second) << ids.back();
    }
    // A name that fills its field without a terminator is cut to 67 characters.
    std::memset(plain.name, 'n', sizeof plain.name);
    const Bytes cut = take(zfx_zone_encode_zone_to_kvdb(&plain, &len), len);
    EXPECT_EQ(Bytes(cut.begin() + 4, cut.begin() + 72), cat({Bytes(67, 'n'), {0}}));

    // Each argument missing on its own.
    const zfx_zoneset_node set = db.zoneset(5, "zs", {});
    for (const void *rec : {zfx_zone_encode_zone_member_to_kvdb(nullptr, &len),
                            zfx_zone_encode_zone_member_to_kvdb(&first, nullptr),
                            zfx_zone_encode_zone_to_kvdb(nullptr, &len), zfx_zone_encode_zone_to_kvdb(&ro, nullptr),
                            zfx_zone_encode_zoneset_to_kvdb(nullptr, &len),
                            zfx_zone_encode_zoneset_to_kvdb(&set, nullptr)})
        EXPECT_EQ(rec, nullptr);
}

// Expected bytes of the active zoneset data, written out piece by piece.
Bytes entry(uint16_t id, const std::string &name, uint16_t count) { return cat({le16(id), name68(name), le16(count)}); }
Bytes pwwn_entry(uint16_t id, uint32_t vsan, uint32_t afid) {
    return cat({le16(id), {0, 0}, tlv_array({tlv(10, node_wwn(uint8_t(id))), tlv(11, le32(vsan)), tlv(12, le32(afid))})});
}
Bytes ext(uint32_t zone_id, std::initializer_list<Bytes> inner) {
    const Bytes body = cat(inner);
    return cat({le32(46), le32(uint32_t(8 + body.size())), le32(zone_id), le32(uint32_t(inner.size())), body});
}
Bytes ext_member(uint16_t id, uint8_t type, const Bytes &array) { return tlv(53, cat({le16(id), {type, 0}, array})); }

TEST(ZoneDb, ActiveZonesetDataWithItsExtensionArea) {
    ZoneNodes db;
    zfx_zone_node &z1 = db.zone(1, "z1");
    db.member(z1, 7, 0, 10, 1);
    db.member(z1, 3, 0, 10, 2);  // written in the tree's order: 3 before 7
    zfx_zone_node &z2 = db.zone(0x10002, "z2", 2, 1);
    db.member(z2, 5, 241, 20, 1, "alias-b");
    db.member(z2, 4, 1, 20, 1, "alias-a");
    db.member(z2, 6, 0, 20, 1);
    db.member(z2, 9, 240, 20, 3);
    db.member(z2, 8, 77, 20, 3);  // unknown type: left out
    zfx_zone_node &z3 = db.zone(3, "no-tree", 1, 0, false);
    zfx_zone_node &z4 = db.zone(4, "empty");
    zfx_zoneset_node s = db.zoneset(0x10009, "active", {&z3, &z1, &z4, &z2});

    // Zones in the tree's order (by id): 1, 3, 4, 0x10002, whatever order the zoneset was built in.
    const Bytes main = cat({entry(9, "active", 4), entry(1, "z1", 2), pwwn_entry(3, 10, 2), pwwn_entry(7, 10, 1),
                            entry(3, "no-tree", 0), entry(4, "empty", 0), entry(2, "z2", 1), pwwn_entry(6, 20, 1)});
    const Bytes area = cat({le32(2), ext(3, {tlv(45, le32(1))}),
                            ext(0x10002, {tlv(45, le32(2)), tlv(59, be32(1)),
                                          ext_member(4, 1, tlv_array({tlv(11, le32(20)), tlv(12, le32(1)), tlv(65, str0("alias-a"))})),
                                          ext_member(5, 241, tlv_array({tlv(11, le32(20)), tlv(12, le32(1)), tlv(65, str0("alias-b")), tlv(44, kNodeLun)})),
                                          ext_member(9, 240, tlv_array({tlv(11, le32(20)), tlv(12, le32(3)), tlv(10, node_wwn(9)), tlv(44, kNodeLun)}))})});
    uint32_t ext_size = 0, len = 7;
    EXPECT_EQ(zfx_zoneset_get_persistent_data_size(&s, &ext_size), main.size() + area.size());
    EXPECT_EQ(ext_size, area.size());
    const Bytes data = take(zfx_zone_zoneset_to_persistent_kvdb_data(&s, &len), len);
    EXPECT_EQ(data, cat({main, area})) << hex(data);

    // Only port-WWN members and no attributes: no extension area.
    zfx_zoneset_node plain = db.zoneset(1, "plain", {&z1, &z4});
    EXPECT_EQ(zfx_zoneset_get_persistent_data_size(&plain, &ext_size), 72u + 72 + 2 * 36 + 72);
    EXPECT_EQ(ext_size, 0u);
    // No zone tree: the head alone.
    zfx_zoneset_node bare{2, "bare", nullptr, {}, {}};
    EXPECT_EQ(take(zfx_zone_zoneset_to_persistent_kvdb_data(&bare, &len), len), entry(2, "bare", 0));
    // No zoneset (the length is cleared), or no length.
    EXPECT_EQ(zfx_zone_zoneset_to_persistent_kvdb_data(nullptr, &len), nullptr);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(zfx_zone_zoneset_to_persistent_kvdb_data(&s, nullptr), nullptr);
    EXPECT_EQ(zfx_zoneset_get_persistent_data_size(nullptr, &ext_size), 0u);
    EXPECT_EQ(zfx_zoneset_get_persistent_data_size(&s, nullptr), uint32_t(ZFX_ERR_INVALID_ARG));
}

// Exactly the room it needs, or one byte less (nothing written, nothing counted); the bytes past
// the room stay untouched either way.
TEST(ZoneDb, ExtensionStepWritesOnlyWhatFits) {
    ZoneNodes db;
    zfx_zone_node &z = db.zone(6, "z", 3);
    db.member(z, 2, 1, 4, 1, "a");
    const std::pair<zfx_zone_node *, Bytes> cases[] = {
        {&z, ext(6, {tlv(45, le32(3)), ext_member(2, 1, tlv_array({tlv(11, le32(4)), tlv(12, le32(1)), tlv(65, str0("a"))}))})},
        {&db.zone(7, "ro", 0, 1), ext(7, {tlv(59, be32(1))})},
    };
    for (const auto &[zone, want] : cases) {
        for (uint32_t room : {uint32_t(want.size()), uint32_t(want.size() - 1), 16u}) {
            const Bytes guard(4, 0xEE);
            Bytes buf = cat({zeros(room), guard});
            uint32_t count = 5;
            uint8_t *cursor = buf.data();
            EXPECT_EQ(zfx_zone_ext_to_persistent_kvdb_data(zone, &count, room, &cursor), 0u);
            const bool fits = room >= want.size();
            EXPECT_EQ(count, fits ? 6u : 5u) << room;
            EXPECT_EQ(cursor, buf.data() + (fits ? want.size() : 0)) << room;
            EXPECT_EQ(buf, cat({fits ? want : zeros(room), guard})) << room;
        }
    }
    // Any argument or the cursor missing, or a zone with nothing to record (no attribute, port-WWN
    // members only): nothing written, nothing counted.
    zfx_zone_node &bare = db.zone(8, "bare");
    db.member(bare, 3, 0, 1, 1);
    uint8_t buf[64] = {}, *at = buf, *none = nullptr;
    uint32_t count = 5;
    for (uint32_t written : {zfx_zone_ext_to_persistent_kvdb_data(&bare, &count, 64, &at),
                             zfx_zone_ext_to_persistent_kvdb_data(nullptr, &count, 64, &at),
                             zfx_zone_ext_to_persistent_kvdb_data(&z, nullptr, 64, &at),
                             zfx_zone_ext_to_persistent_kvdb_data(&z, &count, 64, nullptr),
                             zfx_zone_ext_to_persistent_kvdb_data(&z, &count, 64, &none)})
        EXPECT_EQ(written, 0u);
    EXPECT_EQ(std::tuple(count, at, bytes_of(buf, 64)), std::tuple(5u, buf, zeros(64)));
}

// The restoring readers: the active data joined from its chunks (completed, never overrun), and
// the options word, of which at most four bytes are copied.
TEST(ZoneDb, RestoringReadersJoinCompleteAndNeverOverrun) {
    Bytes data(300);
    for (size_t i = 0; i < data.size(); ++i) data[i] = uint8_t(i * 7 + 1);
    // The name, the records, the data expected (empty: NULL).
    const std::tuple<const char *, std::vector<Record>, Bytes> cases[] = {
        {"two chunks", active_chunks(data, 200), data},
        {"one byte at a time", active_chunks(data, 1), data},
        {"chunk 2 missing", {active_chunks(data, 200)[0], active_chunks(data, 200)[1]},
         cat({Bytes(data.begin(), data.begin() + 200), zeros(100)})},
        {"surplus not copied", active_chunks(cat({data, Bytes(150, 0xEE)}), 200, 300), data},
        {"chunk 1 missing", {{{0x6C, 0, 0, 0, 0, 0}, be32(300)}}, zeros(300)},
        {"total 0", active_chunks(data, 200, 0), {}},
        {"total beyond what the data can take", active_chunks(data, 200, 0xFFFFFFFF), {}},
        {"no header", {active_chunks(data, 200)[1]}, {}},
        {"header too short", {{{0x6C, 0, 0, 0, 0, 0}, {0, 0, 1}}}, {}},
    };
    for (const auto &[name, records, expected] : cases) {
        Stored r(records);
        auto *got = static_cast<uint8_t *>(zfx_zone_restore_active_pzs_from_kvdb(r.get()));
        EXPECT_EQ(got == nullptr, expected.empty()) << name;
        EXPECT_EQ(take(got, uint32_t(expected.size())), expected) << name;
    }
    EXPECT_EQ(zfx_zone_restore_active_pzs_from_kvdb(nullptr), nullptr);

    const std::pair<std::vector<Record>, std::pair<int32_t, Bytes>> options[] = {
        {{zone_options_rec(0x80000001)}, {0, {0x80, 0, 0, 1, 0xEE}}},
        {{{{0x6B, 0}, {1, 2, 3, 4, 5, 6}}}, {0, {1, 2, 3, 4, 0xEE}}},
        {{{{0x6B, 0}, {9}}}, {0, {9, 0xEE, 0xEE, 0xEE, 0xEE}}},
        {{{{0x6B, 0}, {}}}, {ZFX_ERR_KVDB, Bytes(5, 0xEE)}},
        {{}, {ZFX_ERR_KVDB, Bytes(5, 0xEE)}},
    };
    for (const auto &[records, want] : options) {
        Stored r(records);
        Bytes dst(5, 0xEE);
        EXPECT_EQ(zfx_zone_kvdb_restore_options_from_kvdb(r.get(), reinterpret_cast<uint32_t *>(dst.data())), want.first);
        EXPECT_EQ(dst, want.second);
        EXPECT_EQ(zfx_zone_kvdb_restore_options_from_kvdb(r.get(), nullptr), ZFX_ERR_INVALID_ARG);
    }
}

}  // namespace
