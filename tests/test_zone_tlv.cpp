// Zone TLV records: sizes, one-record messages, adding elements, the create checks and the
// byte-order conversions, against byte layouts written out independently.
#include <algorithm>
#include <cstdlib>

#include <gtest/gtest.h>

#include "fake_service.hpp"
#include "platform/tlvbuf.h"
#include "zfx_zone_msg.h"

namespace {

using namespace zfxtest;

TEST(ZoneTlv, SizesOfTypesAndRecords) {
    const std::pair<uint32_t, uint32_t> cases[] = {
        {0, 0},  {1, 72},  {2, 8},  {3, 12},  {4, 0},  {5, 72},  {6, 72},   {7, 264},   {9, 12}, {10, 12},
        {11, 8}, {17, 1032}, {25, 0}, {27, 8}, {31, 24}, {44, 12}, {45, 8}, {46, 0}, {53, 0}, {56, 72},
        {57, 0}, {59, 8},  {60, 0}, {61, 1032}, {65, 72}, {66, 0}, {0x10001, 0}};
    for (const auto &[type, size] : cases) EXPECT_EQ(zfx_tlv_size_get_for_type(type), size) << type;
    EXPECT_EQ(zfx_get_size_one_zone_member_tlv(), 20u + 12 + 8 + 8 + 8 + 12 + 72);
    EXPECT_EQ(zfx_get_size_one_zone_tlv(), 16u + 72 + 264 + 12 + 8 + 8);
    EXPECT_EQ(zfx_get_size_one_zoneset_tlv(), 32u + 72 + 72 + 1032 + 12 + 24);
}

// The three kinds side by side, so that every test runs on each.
struct Kind {
    void *(*alloc)();
    int32_t (*add)(void *, uint16_t, uint16_t, const void *);
    int32_t (*check)(const void *);
    void (*hton)(void *);
    void (*ntoh)(void *);
    uint32_t size, array_off;
};

const Kind kMember{[] { return static_cast<void *>(zfx_dlg_malloc_one_zone_member_and_all_attribs()); },
                   zfx_dlg_zone_member_add_tlv,
                   [](const void *m) { return zfx_do_sanity_for_zone_member_create(static_cast<const zfx_zone_member_msg *>(m)); },
                   [](void *m) { zfx_zone_member_tlv_hton(static_cast<zfx_zone_member_msg *>(m)); },
                   [](void *m) { zfx_zone_member_tlv_ntoh(static_cast<zfx_zone_member_msg *>(m)); }, 140, 16};
const Kind kZone{[] { return static_cast<void *>(zfx_dlg_malloc_one_zone_and_all_attribs()); }, zfx_dlg_zone_add_tlv,
                 [](const void *m) { return zfx_do_sanity_for_zone_create(static_cast<const zfx_zone_msg *>(m)); },
                 [](void *m) { zfx_zone_tlv_hton(static_cast<zfx_zone_msg *>(m)); },
                 [](void *m) { zfx_zone_tlv_ntoh(static_cast<zfx_zone_msg *>(m)); }, 380, 12};
const Kind kZoneset{[] { return static_cast<void *>(zfx_dlg_malloc_one_zoneset_and_all_attribs()); },
                    zfx_dlg_zoneset_add_tlv,
                    [](const void *m) { return zfx_do_sanity_for_zoneset_create(static_cast<const zfx_zoneset_msg *>(m)); },
                    [](void *m) { zfx_zoneset_tlv_hton(static_cast<zfx_zoneset_msg *>(m)); },
                    [](void *m) { zfx_zoneset_tlv_ntoh(static_cast<zfx_zoneset_msg *>(m)); }, 1244, 28};

// A message of the kind: its fixed part, the array, zeros to the one-record size.
Bytes message(const Kind &k, const Bytes &fixed, const Bytes &array) {
    Bytes m = cat({fixed, array});
    m.resize(k.size, 0);
    return m;
}

TEST(ZoneTlv, OneRecordMessagesFillToTheirSize) {
    for (const Kind *k : {&kMember, &kZone, &kZoneset}) {
        auto *msg = static_cast<uint8_t *>(k->alloc());
        ASSERT_NE(msg, nullptr);
        EXPECT_EQ(bytes_of(msg, k->size), cat({le32(1), zeros(k->size - 4)}));
        // Fill the array to the last byte of the one-record size: 4-byte values, then empty ones.
        uint32_t room = k->size - k->array_off - 4, added = 0;
        const uint32_t v = 0x11223344;
        for (; room >= 8; room -= 8, ++added) ASSERT_EQ(k->add(msg + 8, 11, 4, &v), 0);
        for (; room >= 4; room -= 4, ++added) ASSERT_EQ(k->add(msg + 8, 12, 0, nullptr), 0);
        const Bytes full = bytes_of(msg, k->size);
        EXPECT_EQ(k->add(msg + 8, 11, 0, nullptr), ZFX_ERR_INVALID_ARG);
        EXPECT_EQ(bytes_of(msg, k->size), full);
        EXPECT_EQ(tlvbuf_get_num_tlvs(msg + k->array_off, 0), added);
        EXPECT_EQ(k->add(nullptr, 11, 4, &v), ZFX_ERR_INVALID_ARG);
        std::free(msg);
    }
    // Type 57 reserves no room: it fits a zone message only where reserved elements are left out.
    auto *zone = zfx_dlg_malloc_one_zone_and_all_attribs();
    const Bytes big(260, 'n');
    for (const auto &[type, len] : {std::pair{6, 68}, {7, 260}, {9, 8}, {45, 4}, {57, 4}})
        EXPECT_EQ(zfx_dlg_zone_add_tlv(&zone->id, uint16_t(type), uint16_t(len), big.data()), 0);
    EXPECT_EQ(zfx_dlg_zone_add_tlv(&zone->id, 59, 4, big.data()), ZFX_ERR_INVALID_ARG);
    std::free(zone);
}

TEST(ZoneTlv, CreateChecks) {
    const Bytes w = le32(1), wwn(8, 1), name = str0("n");
    const Bytes mhead = cat({le32(1), zeros(12)}), zhead = cat({le32(1), zeros(8)}), shead = cat({le32(1), zeros(24)});
    const struct {
        const Kind &kind;
        Bytes msg;
        int32_t result;
    } cases[] = {
        {kMember, message(kMember, mhead, tlv_array({tlv(65, name), tlv(11, w), tlv(27, w)})), 0},
        {kMember, message(kMember, mhead, tlv_array({tlv(10, wwn), tlv(27, w), tlv(11, w)})), 0},
        {kMember, message(kMember, mhead, tlv_array({tlv(10, wwn), tlv(27, w)})), ZFX_ERR_CREATE_INCOMPLETE},
        {kMember, message(kMember, mhead, tlv_array({tlv(11, w), tlv(27, w), tlv(44, wwn)})), ZFX_ERR_CREATE_INCOMPLETE},
        {kMember, message(kMember, mhead, tlv_array({})), ZFX_ERR_CREATE_INCOMPLETE},
        {kZone, message(kZone, zhead, tlv_array({tlv(45, w), tlv(6, name)})), 0},
        {kZone, message(kZone, zhead, tlv_array({tlv(45, w)})), ZFX_ERR_CREATE_INCOMPLETE},
        {kZone, message(kZone, zhead, tlv_array({tlv(6, {})})), ZFX_ERR_CREATE_INCOMPLETE},  // no value
        {kZone, message(kZone, zhead, tlv_array({tlv(0, name)})), ZFX_ERR_CREATE_INCOMPLETE},  // type 0 is no name
        {kZoneset, message(kZoneset, shead, tlv_array({tlv(1, name)})), 0},
        {kZoneset, message(kZoneset, shead, tlv_array({tlv(56, name)})), ZFX_ERR_CREATE_INCOMPLETE},
        {kZone, message(kZone, zhead, cat({le32(200), tlv(6, name)})), ZFX_ERR_INVALID_ARG},    // count too big
        {kZone, message(kZone, zhead, cat({le32(1), le16(6), le16(400)})), ZFX_ERR_INVALID_ARG},  // value too long
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.kind.check(c.msg.data()), c.result) << hex(Bytes(c.msg.begin(), c.msg.begin() + 40));
    }
    EXPECT_EQ(zfx_do_sanity_for_zone_create(nullptr), ZFX_ERR_INVALID_ARG);
}

TEST(ZoneTlv, ConversionsOnTheWire) {
    const Bytes wwn = {1, 2, 3, 4, 5, 6, 7, 8}, attr = {0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8};
    const Bytes attr_conv = cat({{0xA4}, Bytes(attr.begin() + 1, attr.end())});  // byte 0 takes byte 3
    const Bytes reserved(16, 0x5C);
    const struct {
        const Kind &kind;
        Bytes host, net;
    } cases[] = {
        // Member: entry count, both ids, VSAN, fabric ID and type reversed; strings, WWN, LUN, QoS,
        // element headers, the array count and the flags as they were.
        {kMember,
         message(kMember, cat({le32(1), le16(0x0102), zeros(2), le32(5), le32(6)}),
                 tlv_array({tlv(6, str0("z")), tlv(10, wwn), tlv(11, le32(10)), tlv(12, le32(0x00050007)),
                            tlv(27, le32(241)), tlv(44, wwn), tlv(45, le32(2))})),
         message(kMember, cat({be32(1), le16(0x0102), zeros(2), be32(5), be32(6)}),
                 tlv_array({tlv(6, str0("z")), tlv(10, wwn), tlv(11, be32(10)), tlv(12, be32(0x00050007)),
                            tlv(27, be32(241)), tlv(44, wwn), tlv(45, le32(2))}))},
        // Zone: id reversed; QoS and read-only as they are; the attribute block's convention.
        {kZone,
         message(kZone, cat({le32(1), zeros(4), le32(0x0A0B)}),
                 tlv_array({tlv(9, attr), tlv(45, le32(2)), tlv(59, be32(1)), tlv(11, le32(3))})),
         message(kZone, cat({be32(1), zeros(4), be32(0x0A0B)}),
                 tlv_array({tlv(9, attr_conv), tlv(45, le32(2)), tlv(59, be32(1)), tlv(11, le32(3))}))},
        // Zoneset: the id at 24 reversed; its 16 reserved bytes untouched.
        {kZoneset,
         message(kZoneset, cat({le32(1), le16(0x80), zeros(2), reserved, le32(9)}),
                 tlv_array({tlv(1, str0("s")), tlv(3, attr), tlv(61, zeros(1028))})),
         message(kZoneset, cat({be32(1), le16(0x80), zeros(2), reserved, be32(9)}),
                 tlv_array({tlv(1, str0("s")), tlv(3, attr_conv), tlv(61, zeros(1028))}))},
    };
    for (const auto &c : cases) {
        Bytes m = c.host;
        c.kind.hton(m.data());
        EXPECT_EQ(m, c.net) << hex(m);
        // ntoh restores everything hton reversed; the attribute block keeps its first byte.
        c.kind.ntoh(m.data());
        Bytes back = c.host;
        const auto at = std::search(back.begin(), back.end(), attr.begin(), attr.end());
        if (at != back.end()) *at = 0xA4;
        EXPECT_EQ(m, back);
        // A malformed array leaves the whole message as it is.
        Bytes bad = c.host;
        bad[c.kind.array_off + 1] = 0xFF;
        const Bytes before = bad;
        c.kind.hton(bad.data());
        EXPECT_EQ(bad, before);
        c.kind.hton(nullptr);
    }
}

}  // namespace
