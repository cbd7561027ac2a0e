// Zone queries: the exact query messages, the debug lines, the checks on replies, and the
// data queries' copies into their structures (bounded, converted where the layout says so).
#include <cerrno>
#include <cstring>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "capture.hpp"
#include "fake_service.hpp"
#include "zfx_zone_msg.h"

namespace {

using namespace zfxtest;

std::string chars(size_t n) {
    std::string s;
    for (size_t i = 0; i < n; ++i) s += char('a' + i % 26);
    return s;
}

TEST(ZoneQuery, MessageQueriesOnTheWireAndTheirDebugLines) {
    const std::string zone_line = "zfx_dlg_get_zone : msg_type = 2, num_zones = 1, id = 5, name = (null)\n",
                      set_line = "zfx_dlg_get_zoneset : msg_type 1, num_zonesets 1, id 7, name set flag 128\n",
                      member_line = "zfx_dlg_get_zone_member : msg_type = 4, num_zones = 2, id = 9, name = z\n";
    // The length after the call: the reply's, 0 for none, the request's own beside a status.
    const std::string payload_lines[] = {"Payload size = 6\n", "Payload size = 0\n", "Payload size = 28 \n"};
    const std::pair<std::string, Bytes> wire[] = {
        {"req 8602/2 t10", cat({be32(1), le16(0x1234), zeros(2), be32(5), le32(0)})},
        {"req 8601/1 t10", cat({be32(1), le16(0x80), zeros(18), be32(7), tlv_array({tlv(1, str0("set"))})})},
        {"req 8603/4 t10 reply", cat({be32(2), zeros(4), be32(8), be32(9), tlv_array({tlv(6, str0("z"))})})}};
    for (int level : {0, 1, 2}) {
        FakeService svc{Answer::reply_with(zeros(6)), Answer::none(), Answer::status(3)};
        zfx_zone_member_msg *member = nullptr;
        debug_cli = level;
        Capture out;
        EXPECT_EQ(zfx_dlg_get_zone(svc.ep(), 2, nullptr, 5, nullptr, 1, 0x1234), 0u);
        EXPECT_EQ(zfx_dlg_get_zoneset(svc.ep(), 1, "set", 7, nullptr, 1, ZFX_ZONESET_FLAG_ACTIVE), 0u);
        EXPECT_EQ(zfx_dlg_get_zone_member(svc.ep(), 4, "z", 9, 8, &member, 2, 0), 3u);
        debug_cli = 0;
        EXPECT_EQ(out.text(), level == 0 ? ""
                                         : zone_line + payload_lines[0] + set_line + (level == 1 ? "flag is 80 \n" : "") +
                                               payload_lines[1] + member_line + payload_lines[2]);
        EXPECT_EQ(member, nullptr);
        ASSERT_EQ(svc.sent().size(), 3u);
        for (size_t i = 0; i < 3; ++i) EXPECT_EQ(std::pair(svc.sent()[i].summary(), svc.sent()[i].payload), wire[i]);
    }
}

// The message query hands over a reply that checks out; the data query copies it, and on any
// failure leaves the caller's structure as it was.
TEST(ZoneQuery, RepliesAreCheckedBeforeUse) {
    const Bytes good = cat({be32(1), zeros(4), be32(5), tlv_array({tlv(6, str0("z"))})});
    const Bytes empties = cat({be32(1), zeros(4), be32(5), tlv_array({tlv(98, {}), tlv(99, {})})});
    const uint32_t invalid = uint32_t(ZFX_ERR_INVALID_ARG);
    // The answer, the message query's result and the reply it hands over, the data query's result.
    const std::tuple<Answer, uint32_t, Bytes, uint32_t> cases[] = {
        {Answer::reply_with(good), 0, good, 0},
        {Answer::reply_with(good, 7), 7, good, 7},  // beside a status, handed over too
        {Answer::reply_with(empties), 0, empties, 0},  // empty elements filling the array exactly
        {Answer::none(), 0, {}, invalid},
        {Answer::failure(EIO), 0xFFFFFFFFu, {}, 0xFFFFFFFFu},
        {Answer::reply_with(zeros(15)), invalid, {}, invalid},  // shorter than the fixed part
        {Answer::reply_with(cat({zeros(12), le32(2), tlv(6, str0("z"))})), invalid, {}, invalid},
        {Answer::reply_with(cat({zeros(12), le32(1), le16(6), le16(9), {'a'}})), invalid, {}, invalid},
    };
    for (const auto &[answer, result, handed, data_result] : cases) {
        FakeService svc{answer, answer};
        zfx_zone_msg *reply = reinterpret_cast<zfx_zone_msg *>(&svc);
        EXPECT_EQ(zfx_dlg_get_zone(svc.ep(), 1, nullptr, 5, &reply, 1, 0), result);
        EXPECT_EQ(take(reply, uint32_t(good.size())), handed);
        zfx_zone_info info;
        std::memset(&info, 0xCC, sizeof info);
        info.id = 5;
        const Bytes before = bytes_of(&info, sizeof info);
        EXPECT_EQ(zfx_dlg_get_zone_data(svc.ep(), 1, &info, 0), data_result);
        EXPECT_EQ(bytes_of(&info, sizeof info) == before, data_result != 0);
    }
    // A name whose element cannot be added (its size wraps in 16 bits).
    const std::string huge(65534, 'h');
    FakeService svc;
    Capture out;
    EXPECT_EQ(zfx_dlg_get_zone(svc.ep(), 1, huge.c_str(), 1, nullptr, 1, 0), uint32_t(ZFX_ERR_INVALID_ARG));
    EXPECT_EQ(zfx_dlg_get_zoneset(svc.ep(), 1, huge.c_str(), 1, nullptr, 1, 0), uint32_t(ZFX_ERR_INVALID_ARG));
    EXPECT_EQ(zfx_dlg_get_zone_member(svc.ep(), 1, huge.c_str(), 1, 1, nullptr, 1, 0), uint32_t(ZFX_ERR_INVALID_ARG));
    EXPECT_EQ(out.text(), "Internal error due to fail in adding zone name to tlvs\n");
    EXPECT_EQ(zfx_dlg_get_zone_member_data(svc.ep(), 1, nullptr, 0), invalid);
    EXPECT_TRUE(svc.sent().empty());
}

TEST(ZoneQuery, DataQueriesFillTheirStructures) {
    FakeService svc;
    const Bytes members = cat({le32(256), Bytes(256, 0x81)}), attr = {1, 2, 3, 4, 5, 6, 7, 8}, wwn = attr;
    // Zone: a 70-character name keeps 64; read-only converted, its word alone taken from a longer
    // value (the structure ends there); QoS as received; others (another kind's elements too)
    // passed over.
    svc.answer(Answer::reply_with(cat({be32(1), zeros(4), be32(0x0102),
                                       tlv_array({tlv(6, str0(chars(70))), tlv(7, members), tlv(9, attr), tlv(45, le32(3)),
                                                  tlv(59, cat({be32(1), {9, 9}})), tlv(99, zeros(12)), tlv(1, str0("set"))})})));
    svc.answer(Answer::reply_with(cat({be32(1), zeros(4), be32(3), tlv_array({tlv(45, cat({le32(0), {9}})), tlv(6, {'a', 'b'})})})));
    struct {
        zfx_zone_info info;
        uint8_t guard[4];
    } guarded;
    std::memset(&guarded, 0xCC, sizeof guarded);
    zfx_zone_info &zone = guarded.info;
    zone.id = 0x0102;
    ASSERT_EQ(zfx_dlg_get_zone_data(svc.ep(), 1, &zone, 0x40), 0u);
    EXPECT_EQ(svc.last().payload, cat({be32(1), le16(0x40), zeros(2), be32(0x0102), le32(0)}));
    EXPECT_EQ(std::pair(zone.id, std::string(zone.name)), std::pair(0x0102u, chars(64)));
    EXPECT_EQ(bytes_of(zone.members, 268), cat({members, attr}));  // members, attributes
    EXPECT_EQ(bytes_of(&zone.qos_set, 16), cat({le32(1), le32(3), le32(1), Bytes(4, 0xCC)}));  // qos set, qos, read-only
    zone.id = 3;
    ASSERT_EQ(zfx_dlg_get_zone_data(svc.ep(), 1, &zone, 0), 0u);
    EXPECT_EQ(std::pair(zone.qos_set, zone.read_only), std::pair(0u, 0u));  // a longer QoS value keeps to its word
    EXPECT_EQ(std::string(zone.name), "ab");  // an unterminated name stops at its length
    EXPECT_EQ(bytes_of(zone.members, 260), zeros(260));  // cleared first

    // Zoneset: the later of the two names wins; short and long values stay within their fields; a
    // member's element is passed over.
    svc.answer(Answer::reply_with(cat({be32(1), zeros(20), be32(6),
                                       tlv_array({tlv(56, str0("second-long-name")), tlv(1, str0("first")),
                                                  tlv(61, Bytes(2000, 0x42)), tlv(3, {9}), tlv(31, Bytes(20, 7)),
                                                  tlv(27, Bytes(8, 0x41))})})));
    zfx_zoneset_info set{.id = 6};
    ASSERT_EQ(zfx_dlg_get_zoneset_data(svc.ep(), 1, &set, 0), 0u);
    EXPECT_EQ(svc.last().payload, cat({be32(1), zeros(20), be32(6), le32(0)}));
    EXPECT_EQ(std::string(set.name), "first");
    // Zones, attributes, information.
    EXPECT_EQ(bytes_of(set.zones, 1056), cat({Bytes(1028, 0x42), {9}, zeros(7), Bytes(20, 7)}));

    // Member: both ids from the reply; fabric ID from the low 16 bits; a 70-character alias keeps 67.
    svc.answer(Answer::reply_with(cat({be32(1), zeros(4), be32(4), be32(3),
                                       tlv_array({tlv(27, le32(241)), tlv(12, le32(0x00050007)), tlv(10, wwn),
                                                  tlv(44, wwn), tlv(11, be32(10)), tlv(65, str0(chars(70)))})})));
    zfx_zone_member_info member{.id = 3, .zone_id = 4};
    ASSERT_EQ(zfx_dlg_get_zone_member_data(svc.ep(), 5, &member, 0), 0u);
    EXPECT_EQ(std::pair(svc.last().summary(), svc.last().payload),
              std::pair(std::string("req 8603/5 t10 reply"), cat({be32(1), zeros(4), be32(4), be32(3), le32(0)})));
    EXPECT_EQ(bytes_of(&member, 30), cat({le32(3), le32(4), le32(241), le16(7), wwn, wwn}));  // ids, type, AFID, WWN, LUN
    EXPECT_EQ(bytes_of(&member.vsan, 4), be32(10));  // as received
    EXPECT_EQ(std::string(member.device_alias), chars(67));
}

TEST(ZoneQuery, ActiveZoneset) {
    const Bytes head = cat({be32(1), zeros(24)}), bitmap = cat({le32(1024), Bytes(1024, 0x33)});
    // The answer, the result, the name ("~" when untouched), the zones (empty when untouched).
    const std::tuple<Answer, uint32_t, std::string, Bytes> cases[] = {
        {Answer::reply_with(cat({head, tlv_array({tlv(1, str0("active")), tlv(61, bitmap)})})), 0, "active", bitmap},
        {Answer::reply_with(cat({head, tlv_array({tlv(56, str0("a")), tlv(61, {})})})), 0, "a",
         cat({le32(1024), zeros(1024)})},
        {Answer::reply_with(cat({head, tlv_array({tlv(1, Bytes(80, 'n')), tlv(61, {1, 2})})})), 0, std::string(67, 'n'),
         cat({{1, 2}, zeros(1026)})},
        {Answer::none(), 0, "~", {}},
        {Answer::status(4), 4, "~", {}},
        {Answer::reply_with(cat({be32(2), zeros(24), tlv_array({tlv(1, str0("x")), tlv(61, bitmap)})})),
         uint32_t(ZFX_ERR_INVALID_ARG), "~", {}},
        {Answer::reply_with(cat({head, tlv_array({tlv(1, str0("only"))})})), uint32_t(ZFX_ERR_INVALID_ARG), "only", {}},
        {Answer::reply_with(cat({head, le32(3), tlv(1, str0("x"))})), uint32_t(ZFX_ERR_INVALID_ARG), "~", {}},
        // The zone bitmap's value runs 8 bytes past the reply.
        {Answer::reply_with(cat({head, le32(2), tlv(1, str0("x")), le16(61), le16(8)})), uint32_t(ZFX_ERR_INVALID_ARG), "~", {}},
    };
    for (const auto &[answer, result, want_name, want_zones] : cases) {
        FakeService svc{answer};
        char name[68] = "~";
        Bytes zones(1028, 0xEE);
        EXPECT_EQ(zfx_get_active_zoneset(svc.ep(), name, zones.data()), result);
        EXPECT_EQ(std::string(name), want_name);
        EXPECT_EQ(zones, want_zones.empty() ? Bytes(1028, 0xEE) : want_zones);
        EXPECT_EQ(svc.last().summary(), "req 8601/1 t10 reply");
        EXPECT_EQ(svc.last().payload, cat({be32(1), le16(0x80), zeros(18), be32(0), le32(0)}));
    }
    char name[68];
    uint8_t zones[1028];
    EXPECT_EQ(zfx_get_active_zoneset(nullptr, name, nullptr), uint32_t(ZFX_ERR_INVALID_ARG));
    EXPECT_EQ(zfx_get_active_zoneset(nullptr, nullptr, zones), uint32_t(ZFX_ERR_INVALID_ARG));
}

}  // namespace
