// Zone queries: the exact query messages, the debug lines, the checks on replies, and the
// data queries' copies into their structures (bounded, converted where the layout says so).
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "capture.hpp"
#include "fake_service.hpp"
#include "zfx_testing.h"
#include "zfx_zone_msg.h"

namespace {

using namespace zfxtest;

TEST(ZoneQuery, MessageQueriesOnTheWire) {
    FakeService svc;
    zfx_zone_msg *zone = nullptr;
    zfx_zoneset_msg *set = nullptr;
    zfx_zone_member_msg *member = nullptr;
    EXPECT_EQ(zfx_dlg_get_zone(svc.ep(), 2, nullptr, 5, &zone, 1, 0x1234), 0u);
    EXPECT_EQ(zfx_dlg_get_zone(svc.ep(), 2, "zn", 5, nullptr, 3, 0), 0u);
    EXPECT_EQ(zfx_dlg_get_zoneset(svc.ep(), 1, "set", 7, &set, 1, ZFX_ZONESET_FLAG_ACTIVE), 0u);
    EXPECT_EQ(zfx_dlg_get_zone_member(svc.ep(), 4, "z", 9, 8, &member, 1, 0), 0u);
    EXPECT_EQ(zone, nullptr);  // no reply came
    const Bytes expected[] = {
        cat({be32(1), le16(0x1234), zeros(2), be32(5), le32(0)}),
        cat({be32(3), zeros(4), be32(5), tlv_array({tlv(6, str0("zn"))})}),
        cat({be32(1), le16(0x80), zeros(2), zeros(16), be32(7), tlv_array({tlv(1, str0("set"))})}),
        cat({be32(1), zeros(4), be32(8), be32(9), tlv_array({tlv(6, str0("z"))})}),
    };
    const uint32_t types[] = {8602, 8602, 8601, 8603}, ops[] = {2, 2, 1, 4};
    ASSERT_EQ(svc.sent().size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        const Sent &s = svc.sent()[i];
        EXPECT_EQ(s.payload, expected[i]) << i << "\n" << hex(s.payload);
        EXPECT_EQ(s.msg_type, types[i]);
        EXPECT_EQ(s.opcode, ops[i]);
        EXPECT_EQ(s.timeout, 10u);
        EXPECT_EQ(s.want_reply, i != 1);
        EXPECT_FALSE(s.opt_a.has_value());
        EXPECT_EQ(s.opt_b, 0u);
    }
}

TEST(ZoneQuery, DebugLines) {
    struct DebugCase {
        int32_t level;
        std::string out;
    };
    const DebugCase cases[] = {
        {0, ""},
        {1,
         "zfx_dlg_get_zone : msg_type = 2, num_zones = 1, id = 5, name = (null)\nPayload size = 6\n"
         "zfx_dlg_get_zoneset : msg_type 1, num_zonesets 1, id 7, name s flag 128\nflag is 80 "
         "\nPayload size = 0\n"
         "zfx_dlg_get_zone_member : msg_type = 3, num_zones = 2, id = 9, name = z\nPayload size = "
         "28 \n"},
        {2,
         "zfx_dlg_get_zone : msg_type = 2, num_zones = 1, id = 5, name = (null)\nPayload size = 6\n"
         "zfx_dlg_get_zoneset : msg_type 1, num_zonesets 1, id 7, name s flag 128\nPayload size = "
         "0\n"
         "zfx_dlg_get_zone_member : msg_type = 3, num_zones = 2, id = 9, name = z\nPayload size = "
         "28 \n"},
    };
    for (const DebugCase &c : cases) {
        FakeService svc;
        // The length after the call: the reply's (even when not wanted), 0 for none, and the
        // request's own when the service answers with a status.
        svc.answer(Answer::reply_with(zeros(6)));
        svc.answer(Answer::none());
        svc.answer(Answer::status(3));
        debug_cli = c.level;
        Capture out;
        zfx_dlg_get_zone(svc.ep(), 2, nullptr, 5, nullptr, 1, 0);
        zfx_dlg_get_zoneset(svc.ep(), 1, "s", 7, nullptr, 1, 0x80);
        zfx_dlg_get_zone_member(svc.ep(), 3, "z", 9, 8, nullptr, 2, 0);
        debug_cli = 0;
        EXPECT_EQ(out.text(), c.out) << c.level;
    }
}

TEST(ZoneQuery, MessageQueryReplies) {
    const Bytes good = cat({be32(1), zeros(4), be32(5), tlv_array({tlv(6, str0("z"))})});
    struct ReplyCase {
        const char *what;
        Answer answer;
        uint32_t result;
        bool reply;
    };
    const ReplyCase cases[] = {
        {"well formed", Answer::reply_with(good), 0, true},
        {"status beside a reply", Answer::reply_with(good, 7), 7, true},
        {"channel failure", Answer::failure(EIO), 0xFFFFFFFFu, false},
        {"shorter than the fixed part", Answer::reply_with(zeros(15)),
         uint32_t(ZFX_ERR_INVALID_ARG), false},
        {"count past the reply", Answer::reply_with(cat({zeros(12), le32(2), tlv(6, str0("z"))})),
         uint32_t(ZFX_ERR_INVALID_ARG), false},
        {"element past the reply",
         Answer::reply_with(cat({zeros(12), le32(1), le16(6), le16(9), {'a'}})),
         uint32_t(ZFX_ERR_INVALID_ARG), false},
    };
    for (const ReplyCase &c : cases) {
        FakeService svc;
        svc.answer(c.answer);
        zfx_zone_msg *reply = reinterpret_cast<zfx_zone_msg *>(&svc);
        EXPECT_EQ(zfx_dlg_get_zone(svc.ep(), 1, nullptr, 5, &reply, 1, 0), c.result) << c.what;
        EXPECT_EQ(reply != nullptr, c.reply) << c.what;
        if (reply != nullptr) {
            EXPECT_EQ(bytes_of(reply, good.size()), good) << c.what;
        }
        std::free(reply);
    }
    // Allocation failure, and a name whose element cannot be added (its size wraps in 16 bits).
    const std::string huge(65534, 'h');
    FakeService svc;
    zfx_testing_fail_allocation(1);
    EXPECT_EQ(zfx_dlg_get_zoneset(svc.ep(), 1, "s", 1, nullptr, 1, 0), uint32_t(ZFX_ERR_NO_MEMORY));
    zfx_testing_fail_allocation(0);
    Capture out;
    EXPECT_EQ(zfx_dlg_get_zone(svc.ep(), 1, huge.c_str(), 1, nullptr, 1, 0),
              uint32_t(ZFX_ERR_INVALID_ARG));
    EXPECT_EQ(zfx_dlg_get_zone_member(svc.ep(), 1, huge.c_str(), 1, 1, nullptr, 1, 0),
              uint32_t(ZFX_ERR_INVALID_ARG));
    EXPECT_EQ(out.text(), "Internal error due to fail in adding zone name to tlvs\n");
    EXPECT_TRUE(svc.sent().empty());
}

std::string chars(size_t n) {
    std::string s;
    for (size_t i = 0; i < n; ++i) s += char('a' + i % 26);
    return s;
}

TEST(ZoneQuery, DataQueriesFillTheirStructures) {
    const Bytes members = cat({le32(256), Bytes(256, 0x81)});
    const Bytes attr = {1, 2, 3, 4, 5, 6, 7, 8};
    // Zone: a 70-character name keeps 64; read-only converted; QoS as received; unknown types
    // passed over.
    {
        FakeService svc;
        svc.answer(Answer::reply_with(
            cat({be32(1), zeros(4), be32(0x0102),
                 tlv_array({tlv(6, str0(chars(70))), tlv(7, members), tlv(9, attr),
                            tlv(45, le32(3)), tlv(59, be32(1)), tlv(99, zeros(12))})})));
        svc.answer(Answer::reply_with(
            cat({be32(1), zeros(4), be32(3), tlv_array({tlv(45, le32(0)), tlv(6, {'a', 'b'})})})));
        zfx_zone_info info;
        std::memset(&info, 0xCC, sizeof info);
        info.id = 0x0102;
        ASSERT_EQ(zfx_dlg_get_zone_data(svc.ep(), 1, &info, 0x40), 0u);
        EXPECT_EQ(svc.last().payload, cat({be32(1), le16(0x40), zeros(2), be32(0x0102), le32(0)}));
        EXPECT_EQ(info.id, 0x0102u);
        EXPECT_EQ(std::string(info.name), chars(64));
        EXPECT_EQ(bytes_of(info.members, 260), members);
        EXPECT_EQ(bytes_of(info.attributes, 8), attr);
        EXPECT_EQ(info.qos_set, 1u);
        EXPECT_EQ(info.qos, 3u);
        EXPECT_EQ(info.read_only, 1u);
        info.id = 3;
        ASSERT_EQ(zfx_dlg_get_zone_data(svc.ep(), 1, &info, 0), 0u);
        EXPECT_EQ(info.qos_set, 0u);
        EXPECT_EQ(std::string(info.name), "ab");  // an unterminated name stops at its length
        EXPECT_EQ(bytes_of(info.members, 260), zeros(260));  // cleared first
    }
    // Zoneset: the later of the two names wins; short and long values stay within their fields.
    {
        FakeService svc;
        svc.answer(Answer::reply_with(
            cat({be32(1), zeros(20), be32(6),
                 tlv_array({tlv(56, str0("second-long-name")), tlv(1, str0("first")),
                            tlv(61, Bytes(2000, 0x42)), tlv(3, {9}), tlv(31, Bytes(20, 7))})})));
        zfx_zoneset_info info{};
        info.id = 6;
        ASSERT_EQ(zfx_dlg_get_zoneset_data(svc.ep(), 1, &info, 0), 0u);
        EXPECT_EQ(std::string(info.name), "first");
        EXPECT_EQ(bytes_of(info.zones, 1028), Bytes(1028, 0x42));
        EXPECT_EQ(bytes_of(info.attributes, 8), cat({{9}, zeros(7)}));
        EXPECT_EQ(bytes_of(info.information, 20), Bytes(20, 7));
        EXPECT_EQ(svc.last().payload, cat({be32(1), zeros(20), be32(6), le32(0)}));
    }
    // Member: both ids from the reply; fabric ID from the low 16 bits; a 70-character alias
    // keeps 67.
    {
        FakeService svc;
        const Bytes wwn = {1, 2, 3, 4, 5, 6, 7, 8};
        svc.answer(Answer::reply_with(
            cat({be32(1), zeros(4), be32(4), be32(3),
                 tlv_array({tlv(27, le32(241)), tlv(12, le32(0x00050007)), tlv(10, wwn),
                            tlv(44, wwn), tlv(11, be32(10)), tlv(65, str0(chars(70)))})})));
        zfx_zone_member_info info{};
        info.id = 3;
        info.zone_id = 4;
        ASSERT_EQ(zfx_dlg_get_zone_member_data(svc.ep(), 5, &info, 0), 0u);
        EXPECT_EQ(svc.last().payload, cat({be32(1), zeros(4), be32(4), be32(3), le32(0)}));
        EXPECT_EQ(svc.last().opcode, 5u);
        EXPECT_EQ(info.id, 3u);
        EXPECT_EQ(info.zone_id, 4u);
        EXPECT_EQ(info.type, 241u);
        EXPECT_EQ(info.afid, 7u);
        EXPECT_EQ(bytes_of(info.pwwn, 8), wwn);
        EXPECT_EQ(bytes_of(info.lun, 8), wwn);
        EXPECT_EQ(bytes_of(&info.vsan, 4), be32(10));  // as received
        EXPECT_EQ(std::string(info.device_alias), chars(67));
    }
}

TEST(ZoneQuery, FailedDataQueriesLeaveTheStructure) {
    const Answer answers[] = {Answer::none(), Answer::failure(EIO),
                              Answer::reply_with(zeros(40), 9),
                              Answer::reply_with(cat({be32(1), zeros(8), le32(3)}))};
    const uint32_t results[] = {uint32_t(ZFX_ERR_INVALID_ARG), 0xFFFFFFFFu, 9,
                                uint32_t(ZFX_ERR_INVALID_ARG)};
    for (size_t i = 0; i < 4; ++i) {
        FakeService svc;
        svc.answer(answers[i]);
        zfx_zone_info info;
        std::memset(&info, 0xCC, sizeof info);
        EXPECT_EQ(zfx_dlg_get_zone_data(svc.ep(), 1, &info, 0), results[i]) << i;
        EXPECT_EQ(bytes_of(&info, sizeof info), Bytes(sizeof info, 0xCC)) << i;
    }
    FakeService svc;
    EXPECT_EQ(zfx_dlg_get_zone_member_data(svc.ep(), 1, nullptr, 0), uint32_t(ZFX_ERR_INVALID_ARG));
    EXPECT_TRUE(svc.sent().empty());
}

TEST(ZoneQuery, ActiveZoneset) {
    const Bytes head = cat({be32(1), zeros(24)});
    const Bytes bitmap = cat({le32(1024), Bytes(1024, 0x33)});
    struct ActiveCase {
        const char *what;
        Answer answer;
        uint32_t result;
        std::string name;  // "~" for untouched
        Bytes zones;       // empty for untouched
    };
    const ActiveCase cases[] = {
        {"name and bitmap",
         Answer::reply_with(cat({head, tlv_array({tlv(1, str0("active")), tlv(61, bitmap)})})), 0,
         "active", bitmap},
        {"empty bitmap",
         Answer::reply_with(cat({head, tlv_array({tlv(56, str0("a")), tlv(61, {})})})), 0, "a",
         cat({le32(1024), zeros(1024)})},
        {"short bitmap, long name",
         Answer::reply_with(cat({head, tlv_array({tlv(1, Bytes(80, 'n')), tlv(61, {1, 2})})})), 0,
         std::string(67, 'n'), cat({{1, 2}, zeros(1026)})},
        {"no reply", Answer::none(), 0, "~", {}},
        {"status", Answer::status(4), 4, "~", {}},
        {"two entries",
         Answer::reply_with(
             cat({be32(2), zeros(24), tlv_array({tlv(1, str0("x")), tlv(61, bitmap)})})),
         uint32_t(ZFX_ERR_INVALID_ARG),
         "~",
         {}},
        {"name only",
         Answer::reply_with(cat({head, tlv_array({tlv(1, str0("only"))})})),
         uint32_t(ZFX_ERR_INVALID_ARG),
         "only",
         {}},
        {"malformed",
         Answer::reply_with(cat({head, le32(3), tlv(1, str0("x"))})),
         uint32_t(ZFX_ERR_INVALID_ARG),
         "~",
         {}},
    };
    for (const ActiveCase &c : cases) {
        FakeService svc;
        svc.answer(c.answer);
        char name[68];
        std::memset(name, '~', sizeof name);
        name[1] = '\0';
        Bytes zones(1028, 0xEE);
        EXPECT_EQ(zfx_get_active_zoneset(svc.ep(), name, zones.data()), c.result) << c.what;
        EXPECT_EQ(std::string(name), c.name) << c.what;
        EXPECT_EQ(zones, c.zones.empty() ? Bytes(1028, 0xEE) : c.zones) << c.what;
        ASSERT_EQ(svc.sent().size(), 1u);
        EXPECT_EQ(svc.last().payload, cat({be32(1), le16(0x80), zeros(18), be32(0), le32(0)}));
        EXPECT_EQ(svc.last().opcode, 1u);
    }
    EXPECT_EQ(zfx_get_active_zoneset(nullptr, nullptr, nullptr), uint32_t(ZFX_ERR_INVALID_ARG));
}

}  // namespace
