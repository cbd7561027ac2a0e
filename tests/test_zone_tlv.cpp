// Zone TLV records: sizes, one-record messages, adding elements, the create checks, the
// byte-order conversions and the caller's messages sent in network order, against byte layouts
// written out independently.
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "capture.hpp"
#include "fake_service.hpp"
#include "platform/tlvbuf.h"
#include "zfx_zone_msg.h"

namespace {

using namespace zfxtest;

// The three kinds side by side, so that every test runs on each.
struct Kind {
    std::function<void *()> alloc;
    int32_t (*add)(void *, uint16_t, uint16_t, const void *);
    std::function<int32_t(const void *)> check;
    std::function<void(void *)> hton, ntoh;
    std::function<uint32_t(plat_endpoint *, uint32_t, void *)> send;
    uint32_t (*one_size)();
    uint32_t size, array_off, msg_type;
};

template <typename M>
Kind kind(M *(*alloc)(), int32_t (*add)(void *, uint16_t, uint16_t, const void *), int32_t (*check)(const M *),
          void (*hton)(M *), void (*ntoh)(M *), uint32_t (*send)(plat_endpoint *, uint32_t, M *, const char *, uint32_t),
          uint32_t (*one_size)(), uint32_t size, uint32_t array_off, uint32_t msg_type) {
    return {[=] { return static_cast<void *>(alloc()); }, add, [=](const void *m) { return check(static_cast<const M *>(m)); },
            [=](void *m) { hton(static_cast<M *>(m)); }, [=](void *m) { ntoh(static_cast<M *>(m)); },
            [=](plat_endpoint *ep, uint32_t op, void *m) { return send(ep, op, static_cast<M *>(m), "o", 6); },
            one_size, size, array_off, msg_type};
}

const Kind kMember = kind(zfx_dlg_malloc_one_zone_member_and_all_attribs, zfx_dlg_zone_member_add_tlv,
                          zfx_do_sanity_for_zone_member_create, zfx_zone_member_tlv_hton, zfx_zone_member_tlv_ntoh,
                          zfx_dlg_config_zone_member_tlv, zfx_get_size_one_zone_member_tlv, 140, 16, 8603);
const Kind kZone = kind(zfx_dlg_malloc_one_zone_and_all_attribs,
                        zfx_dlg_zone_add_tlv, zfx_do_sanity_for_zone_create, zfx_zone_tlv_hton, zfx_zone_tlv_ntoh,
                        zfx_dlg_config_zone_tlv, zfx_get_size_one_zone_tlv, 380, 12, 8602);
const Kind kZoneset = kind(zfx_dlg_malloc_one_zoneset_and_all_attribs,
                           zfx_dlg_zoneset_add_tlv, zfx_do_sanity_for_zoneset_create, zfx_zoneset_tlv_hton,
                           zfx_zoneset_tlv_ntoh, zfx_dlg_config_zoneset_tlv, zfx_get_size_one_zoneset_tlv, 1244, 28, 8601);

// A message of the kind: its fixed part (count 1, zeros, unless given), the array, zeros to the
// one-record size, and 8 bytes more that nothing may read or write.
Bytes message(const Kind &k, const Bytes &array, Bytes fixed = {}) {
    if (fixed.empty()) fixed = cat({le32(1), zeros(k.array_off - 4)});
    Bytes m = cat({fixed, array});
    m.resize(k.size + 8, 0);
    return m;
}
// An array whose one element ends 4 bytes past the one-record size.
Bytes overrun(const Kind &k) { return cat({le32(1), le16(11), le16(uint16_t(k.size - k.array_off - 4))}); }

TEST(ZoneTlv, SizesOfTypesAndRecords) {
    const std::pair<uint32_t, uint32_t> cases[] = {
        {0, 0},  {1, 72},  {2, 8},  {3, 12},  {4, 0},  {5, 72},  {6, 72},   {7, 264},   {9, 12}, {10, 12},
        {11, 8}, {17, 1032}, {25, 0}, {27, 8}, {31, 24}, {44, 12}, {45, 8}, {46, 0}, {53, 0}, {56, 72},
        {57, 0}, {59, 8},  {60, 0}, {61, 1032}, {65, 72}, {66, 0}, {0x10001, 0}};
    for (const auto &[type, size] : cases) EXPECT_EQ(zfx_tlv_size_get_for_type(type), size) << type;

    // The one-record messages: allocated at their size, and filled to it.
    for (const Kind *k : {&kMember, &kZone, &kZoneset}) {
        EXPECT_EQ(k->one_size(), k->size);
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
        EXPECT_EQ(tlvbuf_get_num_tlvs(msg + k->array_off, 0), added);
        EXPECT_EQ(k->add(nullptr, 11, 4, &v), ZFX_ERR_INVALID_ARG);
        EXPECT_EQ(take(msg, k->size), full);
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
    const std::tuple<const Kind &, Bytes, int32_t> cases[] = {
        // Elements of other kinds' needs, and of type 0, add nothing to a complete record.
        {kMember, tlv_array({tlv(65, name), tlv(11, w), tlv(27, w), tlv(6, name), tlv(1, w), tlv(3, w), tlv(0, w)}), 0},
        {kMember, tlv_array({tlv(10, wwn), tlv(27, w), tlv(11, w)}), 0},
        {kMember, tlv_array({tlv(10, {}), tlv(11, {}), tlv(27, {})}), 0},  // a member's elements need no value
        {kMember, tlv_array({tlv(10, wwn), tlv(27, w)}), ZFX_ERR_CREATE_INCOMPLETE},
        {kMember, tlv_array({tlv(10, wwn), tlv(27, w), tlv(1, w)}), ZFX_ERR_CREATE_INCOMPLETE},  // 1 is no VSAN
        {kMember, tlv_array({tlv(10, wwn), tlv(11, w), tlv(1, w)}), ZFX_ERR_CREATE_INCOMPLETE},  // nor a type
        {kMember, tlv_array({tlv(11, w), tlv(27, w), tlv(44, wwn)}), ZFX_ERR_CREATE_INCOMPLETE},
        {kMember, tlv_array({}), ZFX_ERR_CREATE_INCOMPLETE},
        {kZone, tlv_array({tlv(45, w), tlv(6, name), tlv(0, w), tlv(1, name)}), 0},
        {kZone, tlv_array({tlv(45, w)}), ZFX_ERR_CREATE_INCOMPLETE},
        {kZone, tlv_array({tlv(6, {})}), ZFX_ERR_CREATE_INCOMPLETE},    // no value
        {kZone, tlv_array({tlv(0, name)}), ZFX_ERR_CREATE_INCOMPLETE},  // type 0 is no name
        {kZone, tlv_array({tlv(1, name)}), ZFX_ERR_CREATE_INCOMPLETE},  // nor a zoneset's name
        {kZoneset, tlv_array({tlv(1, name), tlv(6, name), tlv(0, w)}), 0},
        {kZoneset, tlv_array({tlv(56, name)}), ZFX_ERR_CREATE_INCOMPLETE},
        {kZoneset, tlv_array({tlv(1, {})}), ZFX_ERR_CREATE_INCOMPLETE},  // a zoneset's name needs its value
        {kZone, cat({le32(200), tlv(6, name)}), ZFX_ERR_INVALID_ARG},  // count too big
        {kZone, overrun(kZone), ZFX_ERR_INVALID_ARG},
    };
    for (const auto &[k, array, result] : cases) EXPECT_EQ(k.check(message(k, array).data()), result) << hex(array);
    EXPECT_EQ(zfx_do_sanity_for_zone_create(nullptr), ZFX_ERR_INVALID_ARG);
}

// hton and ntoh, and the caller's message sent: on the wire as hton makes it, handed back as ntoh
// makes it again.
TEST(ZoneTlv, ConversionsOnTheWire) {
    const Bytes wwn = {1, 2, 3, 4, 5, 6, 7, 8}, attr = {0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8};
    const Bytes attr_conv = cat({{0xA4}, Bytes(attr.begin() + 1, attr.end())});  // byte 0 takes byte 3
    const Bytes reserved(16, 0x5C);
    // Each kind's message: w writes the words hton reverses, a is the attribute block.
    const auto messages = [&](Bytes (*w)(uint32_t), const Bytes &a) {
        return std::vector<Bytes>{
            // Member: entry count, both ids, VSAN, fabric ID and type reversed; strings, WWN, LUN,
            // QoS, element headers, the array count and the flags as they were.
            message(kMember,
                    tlv_array({tlv(6, str0("z")), tlv(10, wwn), tlv(11, w(10)), tlv(12, w(0x00050007)), tlv(27, w(241)),
                               tlv(44, wwn), tlv(45, le32(2))}),
                    cat({w(1), le16(0x0102), zeros(2), w(5), w(6)})),
            // Zone: id reversed; QoS and read-only as they are; the attribute block's convention.
            message(kZone, tlv_array({tlv(9, a), tlv(45, le32(2)), tlv(59, be32(1)), tlv(11, le32(3))}),
                    cat({w(1), zeros(4), w(0x0A0B)})),
            // Zoneset: the id at 24 reversed; its 16 reserved bytes untouched.
            message(kZoneset, tlv_array({tlv(1, str0("s")), tlv(3, a), tlv(61, zeros(1028))}),
                    cat({w(1), le16(0x80), zeros(2), reserved, w(9)})),
        };
    };
    // ntoh restores everything hton reversed; the attribute block keeps its first byte.
    const std::vector<Bytes> hosts = messages(le32, attr), nets = messages(be32, attr_conv),
                             backs = messages(le32, attr_conv);
    const Kind *kinds[] = {&kMember, &kZone, &kZoneset};
    for (size_t i = 0; i < 3; ++i) {
        const Kind &k = *kinds[i];
        const Bytes &host = hosts[i], &net = nets[i], &back = backs[i];
        Bytes m = host;
        k.hton(m.data());
        EXPECT_EQ(m, net) << hex(m);
        k.ntoh(m.data());
        EXPECT_EQ(m, back);

        FakeService svc{Answer::failure(EIO), Answer::status(0x409A0006)};
        m = host;
        debug_cli = 1;  // a caller's message goes without the member request's progress lines
        Capture out;
        EXPECT_EQ(k.send(svc.ep(), 1, m.data()), 0xFFFFFFFFu);
        EXPECT_EQ(k.send(svc.ep(), 2, m.data()), 0x409A0006u);
        debug_cli = 0;
        EXPECT_EQ(out.text(), "");
        m = host;
        for (uint32_t op = 0; op < 6; ++op) {  // operation codes 3 and 4 wait longer
            ASSERT_EQ(k.send(svc.ep(), op, m.data()), 0u);
            EXPECT_EQ(svc.last().summary(), "req " + std::to_string(k.msg_type) + "/" + std::to_string(op) +
                                                (op == 3 || op == 4 ? " t23" : " t10") + " a=o b6");
            EXPECT_EQ(svc.last().payload, Bytes(net.begin(), net.begin() + k.size));
            EXPECT_EQ(m, back) << "the caller's message is host order again";
            m = host;
        }
        // A malformed array, even one that ends just past the message, leaves the whole message
        // as it is, and nothing is sent.
        for (const Bytes &array : {cat({le32(0xFF01), Bytes(host.begin() + k.array_off + 4, host.end())}), overrun(k)}) {
            Bytes bad = message(k, array, Bytes(host.begin(), host.begin() + k.array_off));
            const Bytes before = bad;
            k.hton(bad.data());
            EXPECT_EQ(bad, before);
            EXPECT_EQ(k.send(svc.ep(), 1, bad.data()), uint32_t(ZFX_ERR_INVALID_ARG));
            EXPECT_EQ(bad, before);
        }
        EXPECT_EQ(svc.sent().size(), 8u);
        k.hton(nullptr);
    }
    EXPECT_EQ(zfx_dlg_config_zone_tlv(nullptr, 1, nullptr, nullptr, 0), uint32_t(ZFX_ERR_INVALID_ARG));
}

}  // namespace
