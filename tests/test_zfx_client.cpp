// The zfx command's side of the request path: the relay that measures replies, the decoders of
// the zone queries' multi-entry replies (which must take anything a service sends without
// reading past it), and the WWN and LUN text every tool reads.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <random>
#include <tuple>

#include "bytes.hpp"
#include "fabric.hpp"
#include "fake_service.hpp"
#include "store.hpp"
#include "zfxd_client.hpp"
#include "zfxd_protocol.h"

namespace {

using namespace zfxtest;
using zfxtool::Wwn;

Bytes reply(uint32_t count, std::initializer_list<Bytes> entries) { return cat({be32(count), zeros(4), cat(entries)}); }
Bytes zone(uint32_t id, std::initializer_list<Bytes> elements) { return cat({be32(id), tlv_array(elements)}); }
Bytes member(uint32_t zone_id, uint32_t id, std::initializer_list<Bytes> elements) {
    return cat({be32(zone_id), be32(id), tlv_array(elements)});
}
Bytes zoneset(uint32_t id, std::initializer_list<Bytes> elements) { return cat({zeros(16), be32(id), tlv_array(elements)}); }
Bytes name(uint16_t type, const std::string &s) { return tlv(type, str0(s)); }
const Bytes kWwn = {0x21, 0, 0, 0x24, 0xff, 0x4c, 0x8a, 0x01}, kLun = {0x40, 0x12, 0, 5, 0, 0, 0, 0};

// Every decoder, its result as one line of text: "" for success and what it read, or the error.
using Decode = std::function<std::string(const Bytes &)>;
template <typename Entry>
Decode decoder(std::string (*decode)(const void *, uint32_t, std::vector<Entry> &), std::string (*show)(const Entry &)) {
    return [=](const Bytes &b) {
        std::vector<Entry> out;
        const std::string error = decode(b.data(), uint32_t(b.size()), out);
        if (!error.empty()) return "error: " + error;
        std::string text;
        for (const Entry &e : out) text += show(e) + ";";
        return text;
    };
}
const Decode kZones = decoder<zfxtool::ZoneEntry>(zfxtool::decode_zones, [](const zfxtool::ZoneEntry &z) {
    return std::to_string(z.id) + " " + z.name + " qos" + std::to_string(z.qos) + (z.read_only ? " ro" : "") +
           (z.member_ids ? " members" + std::to_string(z.member_ids->size()) : "");
});
const Decode kMembers = decoder<zfxtool::MemberEntry>(zfxtool::decode_members, [](const zfxtool::MemberEntry &m) {
    return std::to_string(m.zone_id) + "/" + std::to_string(m.id) + " t" + std::to_string(m.type) + " " +
           (m.alias.empty() ? zfxtool::wwn_text(m.pwwn) : m.alias) + " " + zfxtool::lun_text(m.lun) + " v" +
           std::to_string(m.vsan) + " a" + std::to_string(m.afid);
});
const Decode kZonesets = decoder<zfxtool::ZonesetEntry>(zfxtool::decode_zonesets, [](const zfxtool::ZonesetEntry &s) {
    std::string t = std::to_string(s.id) + " " + s.name + (s.active ? " active" : "") + " zones";
    for (uint32_t z : s.zones) t.append(" ").append(std::to_string(z));
    return t;
});
const Decode kStatus = decoder<zfxtool::ZonesetStatus>(zfxtool::decode_zoneset_status, [](const zfxtool::ZonesetStatus &s) {
    return std::to_string(s.id) + " " + s.name + " " + std::to_string(s.zones) + (s.active ? " active" : "");
});

Bytes status_entry(uint32_t id, uint32_t zones, uint32_t flags, const std::string &n) {
    return cat({be32(id), be32(zones), be32(flags), name68(n)});
}

// Well-formed replies decode to what they hold; every shorter cut of them is refused (their last
// element ends aligned, so no cut is a reply without its last padding); zeros may follow, other
// bytes may not. Malformed ones say what is wrong (the expected text starts with "error: ").
TEST(ZfxClient, RepliesDecodeCutsAreRefusedAndMalformedOnesSayWhy) {
    const std::tuple<const Decode &, Bytes, std::string> cases[] = {
        {kZones, reply(2, {zone(3, {name(6, "web"), tlv(45, le32(3)), tlv(59, be32(1))}), zone(9, {name(6, "db"), tlv(7, cat({le32(256), id_bits(256, {1, 2047})}))})}),
         "3 web qos3 ro;9 db qos0 members2;"},
        {kZones, reply(0, {}), ""},
        {kMembers, reply(2, {member(3, 1, {tlv(27, le32(240)), tlv(10, kWwn), tlv(44, kLun), tlv(11, le32(10)), tlv(12, le32(5))}),
                             member(3, 2, {tlv(27, le32(1)), name(65, "tape"), tlv(11, le32(4095))})}),
         "3/1 t240 21:00:00:24:ff:4c:8a:01 0x4012-0005 v10 a5;3/2 t1 tape 0x0000 v4095 a1;"},
        {kZonesets, reply(1, {zoneset(2, {name(1, "prod"), tlv(31, cat({be32(2), be32(1), zeros(12)})),
                                          tlv(61, cat({le32(1024), id_bits(1024, {0, 2, 8191})}))})}),
         "2 prod active zones 2 8191;"},
        {kStatus, cat({be32(2), status_entry(1, 4, 0, "lab"), status_entry(2, 0, ZFXD_ZONESET_STATUS_ACTIVE, std::string(67, 'p'))}),
         "1 lab 4;2 " + std::string(67, 'p') + " 0 active;"},
        {kZones, cat({be32(1000), zeros(12)}), "error: the reply counts 1000 entries but cannot hold them"},
        {kZones, cat({be32(1), zeros(4), be32(1), le32(1), le16(6), le16(200), str0("web")}), "error: entry 1 of 1: its elements do not lie"},
        {kZones, reply(2, {zone(1, {name(6, "a")})}), "error: entry 2 of 2 is cut short"},
        {kZones, reply(1, {zone(1, {tlv(45, le32(1))})}), "error: entry 1 of 1: zone 1 has no name"},
        {kZones, reply(1, {zone(1, {name(6, "a"), tlv(45, le32(4))})}), "error: entry 1 of 1: QoS 4 is out of range"},
        {kZones, reply(1, {zone(1, {name(6, "a"), tlv(59, be32(2))})}), "error: entry 1 of 1: read-only value 2"},
        {kZones, reply(1, {zone(1, {name(6, "a"), tlv(59, Bytes{0, 1})})}), "error: entry 1 of 1: element 59 holds 2 bytes, not 4"},
        {kZones, reply(1, {zone(1, {tlv(6, Bytes{'a', 'b', 'c', 'd'})})}), "error: entry 1 of 1: element 6 holds no terminated name"},
        {kZones, reply(1, {zone(1, {name(6, "a\x1b[2J")})}), "error: entry 1 of 1: element 6 holds a name that is empty"},
        {kZones, reply(1, {zone(1, {name(6, std::string(68, 'z'))})}), "error: entry 1 of 1: element 6 holds a name that is empty"},
        {kMembers, reply(1, {member(1, 1, {tlv(27, le32(7)), tlv(10, kWwn), tlv(11, le32(1))})}), "error: entry 1 of 1: member type 7 is unknown"},
        {kMembers, reply(1, {member(1, 1, {tlv(27, le32(240)), tlv(10, kWwn), tlv(11, le32(1))})}), "error: entry 1 of 1: the member lacks its LUN"},
        {kMembers, reply(1, {member(1, 1, {tlv(27, le32(1)), tlv(10, kWwn), tlv(11, le32(1))})}), "error: entry 1 of 1: the member lacks its port WWN or"},
        {kMembers, reply(1, {member(1, 1, {tlv(27, le32(0)), tlv(10, kWwn)})}), "error: entry 1 of 1: the member's VSAN 0 is out of range"},
        {kMembers, reply(1, {member(1, 1, {tlv(10, kWwn), tlv(11, le32(1))})}), "error: entry 1 of 1: the member has no type"},
        {kMembers, reply(1, {member(1, 1, {tlv(27, le32(0)), tlv(10, Bytes{1, 2, 3}), tlv(11, le32(1))})}), "error: entry 1 of 1: element 10 holds 3"},
        {kZonesets, reply(1, {zoneset(1, {tlv(61, Bytes{1, 2})})}), "error: entry 1 of 1: element 61 holds 2 bytes"},
        {kStatus, cat({be32(2), status_entry(1, 0, 0, "a")}), "error: the reply counts 2 zonesets in 84 bytes"},
        {kStatus, cat({be32(1), status_entry(1, 0, 0, "a"), zeros(4)}), "error: the reply counts 1 zonesets in 88 bytes"},
        {kStatus, cat({be32(1), be32(1), be32(0), be32(0), Bytes(68, 'n')}), "error: zoneset 1 of 1: its name is unterminated"},
    };
    for (const auto &[decode, bytes, expect] : cases) {
        if (expect.starts_with("error: ")) {
            EXPECT_EQ(decode(bytes).rfind(expect, 0), 0u) << decode(bytes);
            continue;
        }
        EXPECT_EQ(decode(bytes), expect) << hex(bytes);
        for (size_t n = 0; n < bytes.size(); ++n) {
            const Bytes cut(bytes.begin(), bytes.begin() + long(n));  // its own block: reading past it is caught
            EXPECT_EQ(decode(cut).rfind("error: ", 0), 0u) << n << " of " << hex(bytes);
        }
        if (&decode != &kStatus) {
            EXPECT_EQ(decode(cat({bytes, zeros(8)})), expect);
            EXPECT_EQ(decode(cat({bytes, zeros(7), Bytes{1}})).rfind("error: 8 bytes that are not zero", 0), 0u);
        }
    }

    // Member data from a caller is held to the same rules as a reply's.
    zfx_zone_member_info info{.type = ZFX_MEMBER_DEVICE_ALIAS_LUN, .afid = 2, .vsan = 7};
    std::memcpy(info.device_alias, "vault", 6);
    zfxtool::MemberEntry m;
    EXPECT_EQ(zfxtool::member_from_info(info, m), "");
    EXPECT_EQ(std::tuple(m.alias, m.vsan, m.afid), std::tuple("vault", 7u, 2u));
    info.device_alias[0] = '\0';
    EXPECT_NE(zfxtool::member_from_info(info, m), "");
    info.type = ZFX_MEMBER_PWWN;
    info.vsan = 4096;
    EXPECT_EQ(zfxtool::member_from_info(info, m), "the member's VSAN 4096 is out of range");
}

// The measured endpoint sends what the connection's own would, byte for byte, and knows the
// length of the reply; a status drops the reply beside it, a failed channel keeps its errno, and
// it carries waited requests only.
TEST(ZfxClient, TheRelayCarriesRequestsUnchangedAndMeasuresReplies) {
    FakeService svc;
    const auto conn = zfxtool::Connection::over(svc.ep(), false);
    ASSERT_NE(conn, nullptr);
    const Bytes zones = reply(1, {zone(1, {name(6, "web")})});
    for (plat_endpoint *ep : {conn->ep(), conn->measured()}) {
        svc.answer(Answer::reply_with(zones));
        zfx_zone_msg *got = nullptr;
        EXPECT_EQ(zfx_dlg_get_zone(ep, ZFXD_OP_GET, "web", 0, &got, 1, 0), 0u);
        EXPECT_EQ(take(got, uint32_t(zones.size())), zones);
    }
    ASSERT_EQ(svc.sent().size(), 2u);
    EXPECT_EQ(std::pair(svc.sent()[1].summary(), svc.sent()[1].payload), std::pair(svc.sent()[0].summary(), svc.sent()[0].payload));
    EXPECT_EQ(conn->reply_length(), zones.size());

    svc.answer({ZFXD_ERR_NOT_FOUND, 0, zones, 0});
    svc.answer(Answer::failure(ECONNRESET));
    void *status = nullptr;
    EXPECT_EQ(zfx_dlg_get_zoneset_status(conn->measured(), ZFXD_OP_GET, 1, &status), ZFXD_ERR_NOT_FOUND);
    EXPECT_EQ(std::pair(status, conn->reply_length()), std::pair(static_cast<void *>(nullptr), 0u));
    EXPECT_EQ(zfx_dlg_get_zoneset_status(conn->measured(), ZFXD_OP_GET, 1, &status), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(zfx_is_zfx_enabled_send(conn->measured(), 1), ZFX_ERR_CHANNEL);
    EXPECT_EQ(errno, EOPNOTSUPP);
    EXPECT_EQ(svc.sent().size(), 4u);
}

// Text -> bytes -> text is the identity for what the formatters print. (Upper-case digits are
// read in the tools' round trip of messy text.)
TEST(ZfxClient, WwnAndLunTextRoundTrips) {
    std::mt19937 rnd(5);
    for (int i = 0; i < 200; ++i) {
        Wwn w, l{}, back;
        for (auto &b : w) b = uint8_t(rnd());
        for (size_t n = 0; n < 2 * (1 + rnd() % 4); ++n) l[n] = uint8_t(rnd() % 3 == 0 ? 0 : rnd());
        ASSERT_TRUE(zfxtool::parse_wwn(zfxtool::wwn_text(w), back));
        EXPECT_EQ(back, w);
        ASSERT_TRUE(zfxtool::parse_lun(zfxtool::lun_text(l), back));
        EXPECT_EQ(back, l);
    }
    Wwn back{};
    for (const char *bad : {"", "aa:bb:cc:dd:ee:ff:00", "aa:bb:cc:dd:ee:ff:00:1g", "aa-bb-cc-dd-ee-ff-00-11", "aa:bb:cc:dd:ee:ff:00:11:"})
        EXPECT_FALSE(zfxtool::parse_wwn(bad, back)) << bad;
    for (const char *bad : {"", "0x", "0x123", "0x12345", "0x1234-", "0x1234-123", "0x1234-1234-1234-1234-1234", "1234", "0x12g4", "0x1234:1234"})
        EXPECT_FALSE(zfxtool::parse_lun(bad, back)) << bad;
}

}  // namespace
