// Zone TLV records: sizes, one-record messages, adding elements, the create checks and the
// byte-order conversions, against byte layouts written out independently.
#include <cstdlib>
#include <cstring>
#include <random>

#include <gtest/gtest.h>

#include "fake_service.hpp"
#include "platform/tlvbuf.h"
#include "zfx_testing.h"
#include "zfx_zone_msg.h"

namespace {

using namespace zfxtest;

TEST(ZoneTlv, SizesOfTypesAndRecords) {
    const struct {
        uint32_t type, size;
    } cases[] = {{0, 0},   {1, 72},  {2, 8},     {3, 12},  {4, 0},     {5, 72},     {6, 72},
                 {7, 264}, {9, 12},  {10, 12},   {11, 8},  {17, 1032}, {25, 0},     {27, 8},
                 {31, 24}, {44, 12}, {45, 8},    {46, 0},  {53, 0},    {56, 72},    {57, 0},
                 {59, 8},  {60, 0},  {61, 1032}, {65, 72}, {66, 0},    {0x10001, 0}};
    for (const auto &c : cases) EXPECT_EQ(zfx_tlv_size_get_for_type(c.type), c.size) << c.type;
    EXPECT_EQ(zfx_get_size_one_zone_member_tlv(), 20u + 12 + 8 + 8 + 8 + 12 + 72);
    EXPECT_EQ(zfx_get_size_one_zone_tlv(), 16u + 72 + 264 + 12 + 8 + 8);
    EXPECT_EQ(zfx_get_size_one_zoneset_tlv(), 32u + 72 + 72 + 1032 + 12 + 24);
}

// The three kinds side by side, so that every test runs on each.
struct Kind {
    const char *name;
    void *(*alloc)();
    int32_t (*add)(void *, uint16_t, uint16_t, const void *);
    uint32_t size;
    size_t array_off;
};

const Kind kKinds[] = {
    {"member", [] { return static_cast<void *>(zfx_dlg_malloc_one_zone_member_and_all_attribs()); },
     zfx_dlg_zone_member_add_tlv, 140, 16},
    {"zone", [] { return static_cast<void *>(zfx_dlg_malloc_one_zone_and_all_attribs()); },
     zfx_dlg_zone_add_tlv, 380, 12},
    {"zoneset", [] { return static_cast<void *>(zfx_dlg_malloc_one_zoneset_and_all_attribs()); },
     zfx_dlg_zoneset_add_tlv, 1244, 28},
};

TEST(ZoneTlv, OneRecordMessagesFillToTheirSize) {
    for (const Kind &k : kKinds) {
        auto *msg = static_cast<uint8_t *>(k.alloc());
        ASSERT_NE(msg, nullptr);
        EXPECT_EQ(bytes_of(msg, k.size), cat({le32(1), zeros(k.size - 4)})) << k.name;
        // Fill the array to the last byte of the one-record size: 4-byte values, then empty ones.
        uint32_t room = k.size - uint32_t(k.array_off) - 4, added = 0;
        const uint32_t v = 0x11223344;
        for (; room >= 8; room -= 8, ++added) ASSERT_EQ(k.add(msg + 8, 11, 4, &v), 0) << k.name;
        for (; room >= 4; room -= 4, ++added)
            ASSERT_EQ(k.add(msg + 8, 12, 0, nullptr), 0) << k.name;
        const Bytes full = bytes_of(msg, k.size);
        EXPECT_EQ(k.add(msg + 8, 11, 0, nullptr), ZFX_ERR_INVALID_ARG) << k.name;
        EXPECT_EQ(bytes_of(msg, k.size), full) << k.name;
        EXPECT_EQ(tlvbuf_get_num_tlvs(msg + k.array_off, 0), added);
        EXPECT_EQ(k.add(nullptr, 11, 4, &v), ZFX_ERR_INVALID_ARG);
        std::free(msg);
        zfx_testing_fail_allocation(1);
        EXPECT_EQ(k.alloc(), nullptr);
        zfx_testing_fail_allocation(0);
    }
    // Type 57 reserves no room: it fits a zone message only where reserved elements are left out.
    auto *zone = zfx_dlg_malloc_one_zone_and_all_attribs();
    const Bytes name(68, 'n'), members(260, 0), attr(8, 0), word(4, 0);
    EXPECT_EQ(zfx_dlg_zone_add_tlv(&zone->id, 6, 68, name.data()), 0);
    EXPECT_EQ(zfx_dlg_zone_add_tlv(&zone->id, 7, 260, members.data()), 0);
    EXPECT_EQ(zfx_dlg_zone_add_tlv(&zone->id, 9, 8, attr.data()), 0);
    EXPECT_EQ(zfx_dlg_zone_add_tlv(&zone->id, 45, 4, word.data()), 0);
    EXPECT_EQ(zfx_dlg_zone_add_tlv(&zone->id, 57, 4, word.data()),
              0);  // in the read-only element's room
    EXPECT_EQ(zfx_dlg_zone_add_tlv(&zone->id, 59, 4, word.data()), ZFX_ERR_INVALID_ARG);
    std::free(zone);
}

// A message of the kind whose array holds the given elements; the rest of the one-record size
// zero.
Bytes message(const Kind &k, const Bytes &fixed, const Bytes &array) {
    Bytes m = cat({fixed, array});
    m.resize(k.size, 0);
    return m;
}

TEST(ZoneTlv, CreateChecks) {
    const Kind &member = kKinds[0], &zone = kKinds[1], &zoneset = kKinds[2];
    const Bytes w = le32(1), wwn(8, 1), name = str0("n");
    const Bytes mhead = cat({le32(1), zeros(12)}), zhead = cat({le32(1), zeros(8)}),
                shead = cat({le32(1), zeros(24)});
    struct Case {
        const char *what;
        const Kind &kind;
        Bytes msg;
        int32_t result;
    };
    const Case cases[] = {
        {"alias, vsan, type", member,
         message(member, mhead, tlv_array({tlv(65, name), tlv(11, w), tlv(27, w)})), 0},
        {"pwwn, type, vsan", member,
         message(member, mhead, tlv_array({tlv(10, wwn), tlv(27, w), tlv(11, w)})), 0},
        {"no vsan", member, message(member, mhead, tlv_array({tlv(10, wwn), tlv(27, w)})),
         ZFX_ERR_CREATE_INCOMPLETE},
        {"no identity", member,
         message(member, mhead, tlv_array({tlv(11, w), tlv(27, w), tlv(44, wwn)})),
         ZFX_ERR_CREATE_INCOMPLETE},
        {"empty member", member, message(member, mhead, tlv_array({})), ZFX_ERR_CREATE_INCOMPLETE},
        {"zone by name", zone, message(zone, zhead, tlv_array({tlv(45, w), tlv(6, name)})), 0},
        {"zone without name", zone, message(zone, zhead, tlv_array({tlv(45, w)})),
         ZFX_ERR_CREATE_INCOMPLETE},
        {"zone with empty name", zone, message(zone, zhead, tlv_array({tlv(6, {})})),
         ZFX_ERR_CREATE_INCOMPLETE},
        {"zoneset by name", zoneset, message(zoneset, shead, tlv_array({tlv(1, name)})), 0},
        {"zoneset by second name", zoneset, message(zoneset, shead, tlv_array({tlv(56, name)})),
         ZFX_ERR_CREATE_INCOMPLETE},
        {"count past the message", zone, message(zone, zhead, cat({le32(200), tlv(6, name)})),
         ZFX_ERR_INVALID_ARG},
        {"element past the message", zone, message(zone, zhead, cat({le32(1), le16(6), le16(400)})),
         ZFX_ERR_INVALID_ARG},
    };
    for (const Case &c : cases) {
        const Bytes before = c.msg;
        int32_t r;
        if (&c.kind == &member)
            r = zfx_do_sanity_for_zone_member_create(
                reinterpret_cast<const zfx_zone_member_msg *>(c.msg.data()));
        else if (&c.kind == &zone)
            r = zfx_do_sanity_for_zone_create(reinterpret_cast<const zfx_zone_msg *>(c.msg.data()));
        else
            r = zfx_do_sanity_for_zoneset_create(
                reinterpret_cast<const zfx_zoneset_msg *>(c.msg.data()));
        EXPECT_EQ(r, c.result) << c.what;
        EXPECT_EQ(c.msg, before) << c.what;
    }
    EXPECT_EQ(zfx_do_sanity_for_zone_create(nullptr), ZFX_ERR_INVALID_ARG);
}

TEST(ZoneTlv, ConversionsOnTheWire) {
    // Member: entry count and both ids reversed; VSAN, fabric ID and type reversed; WWN, LUN,
    // names, element headers, the array count and the flags as they were.
    const Bytes wwn = {1, 2, 3, 4, 5, 6, 7, 8};
    const Bytes member_host = message(
        kKinds[0], cat({le32(1), le16(0x0102), zeros(2), le32(5), le32(6)}),
        tlv_array({tlv(6, str0("z")), tlv(10, wwn), tlv(11, le32(10)), tlv(12, le32(0x00050007)),
                   tlv(27, le32(241)), tlv(44, wwn), tlv(45, le32(2))}));
    const Bytes member_net = message(
        kKinds[0], cat({be32(1), le16(0x0102), zeros(2), be32(5), be32(6)}),
        tlv_array({tlv(6, str0("z")), tlv(10, wwn), tlv(11, be32(10)), tlv(12, be32(0x00050007)),
                   tlv(27, be32(241)), tlv(44, wwn), tlv(45, le32(2))}));
    // Zone: id reversed; QoS stays host order, read-only as it is; the attribute block's first
    // byte takes its fourth.
    const Bytes attr = {0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8};
    const Bytes attr_conv = {0xA4, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8};
    const Bytes zone_host =
        message(kKinds[1], cat({le32(1), zeros(4), le32(0x0A0B)}),
                tlv_array({tlv(9, attr), tlv(45, le32(2)), tlv(59, be32(1)), tlv(11, le32(3))}));
    const Bytes zone_net = message(
        kKinds[1], cat({be32(1), zeros(4), be32(0x0A0B)}),
        tlv_array({tlv(9, attr_conv), tlv(45, le32(2)), tlv(59, be32(1)), tlv(11, le32(3))}));
    // Zoneset: id at 24 reversed, its 16 reserved bytes and the flags untouched.
    const Bytes reserved(16, 0x5C);
    const Bytes set_host =
        message(kKinds[2], cat({le32(1), le16(0x80), zeros(2), reserved, le32(9)}),
                tlv_array({tlv(1, str0("s")), tlv(3, attr), tlv(61, zeros(1028))}));
    const Bytes set_net =
        message(kKinds[2], cat({be32(1), le16(0x80), zeros(2), reserved, be32(9)}),
                tlv_array({tlv(1, str0("s")), tlv(3, attr_conv), tlv(61, zeros(1028))}));
    struct Case {
        const char *what;
        void (*hton)(void *);
        void (*ntoh)(void *);
        Bytes host, net;
    };
    const Case cases[] = {
        {"member", [](void *m) { zfx_zone_member_tlv_hton(static_cast<zfx_zone_member_msg *>(m)); },
         [](void *m) { zfx_zone_member_tlv_ntoh(static_cast<zfx_zone_member_msg *>(m)); },
         member_host, member_net},
        {"zone", [](void *m) { zfx_zone_tlv_hton(static_cast<zfx_zone_msg *>(m)); },
         [](void *m) { zfx_zone_tlv_ntoh(static_cast<zfx_zone_msg *>(m)); }, zone_host, zone_net},
        {"zoneset", [](void *m) { zfx_zoneset_tlv_hton(static_cast<zfx_zoneset_msg *>(m)); },
         [](void *m) { zfx_zoneset_tlv_ntoh(static_cast<zfx_zoneset_msg *>(m)); }, set_host,
         set_net},
    };
    for (const Case &c : cases) {
        Bytes m = c.host;
        c.hton(m.data());
        EXPECT_EQ(m, c.net) << c.what << "\n" << hex(m);
        c.ntoh(m.data());
        // Everything the conversion reversed comes back; only attribute blocks keep their first
        // byte.
        Bytes back = c.host;
        if (c.host == zone_host || c.host == set_host) {
            auto at = std::search(back.begin(), back.end(), attr.begin(), attr.end());
            *at = 0xA4;
        }
        EXPECT_EQ(m, back) << c.what;
        // A malformed array: the whole message is left as it is.
        Bytes bad = c.host;
        const size_t count_at = c.host == member_host ? 16 : c.host == zone_host ? 12 : 28;
        bad[count_at] = 0xFF;
        const Bytes before = bad;
        c.hton(bad.data());
        EXPECT_EQ(bad, before) << c.what;
        c.hton(nullptr);
    }
}

}  // namespace
