// zfxd's handlers driven by the library's own request and query functions, through the in-process
// transport: one scripted scenario builds a zone database with every kind of request, and after
// every change the store holds exactly what the tools' writer would write for the same database;
// the generated text is the golden one; a restart on the same store answers the queries alike;
// and every refused request leaves the store untouched.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <fstream>
#include <functional>

#include "fabric.hpp"
#include "platform/dlg.h"
#include "service.hpp"
#include "store.hpp"
#include "store_guard.hpp"
#include "zfx_service.h"
#include "zfx_zone_db.h"
#include "zfx_zone_msg.h"
#include "zfxd_protocol.h"
#include "zfxd_under_test.hpp"

namespace {

using namespace zfxtest;
using zfxtool::format;

bool zone_db_key(const Bytes &k) { return k[0] >= ZFX_KVDB_ZONE_DB_HEADER_KEY && k[0] <= ZFX_KVDB_ACTIVE_ZONESET_KEY; }

std::vector<Record> records(const std::string &location, bool zone_db_only) {
    std::vector<Record> out;
    zfxtool::walk_store(location, [&](const uint8_t *k, uint32_t klen, const uint8_t *v, uint32_t vlen) {
        if (!zone_db_only || zone_db_key(Bytes(k, k + klen))) out.push_back({Bytes(k, k + klen), Bytes(v, v + vlen)});
    });
    return out;
}

// The zone database records the tools' writer makes of the database zfxd holds.
std::vector<Record> written_by_the_tools(zfxd::ZoneDb &db) {
    zfxtool::Fabric f;
    for (const auto &entry : db.zones()) f.zones.push_back(entry.second);
    for (const auto &entry : db.zonesets()) f.zonesets.push_back(entry.second);
    if (db.active()) f.active = zfxtool::Active{db.active()->id, db.active()->name, db.active()->zones, db.active()->force};
    std::vector<Record> out;
    for (auto &[k, v] : zfxtool::config_records(f))
        if (zone_db_key(k)) out.push_back({k, v});
    std::sort(out.begin(), out.end());
    return out;
}

const uint8_t kWwn1[8] = {0x21, 0, 0, 0x24, 0xff, 0x01, 0x02, 0x03};
const uint8_t kWwn2[8] = {0x50, 0x06, 0x01, 0x60, 0x3b, 0x20, 0x11, 0x4a};
const uint8_t kLun[8] = {0, 0x01, 0, 0, 0, 0, 0, 0};

// Requests by name, without ids, attributes or options.
uint32_t zone(plat_endpoint *ep, uint32_t op, const char *name) { return zfx_dlg_config_zone(ep, op, name, nullptr, nullptr, 0); }
uint32_t zoneset(plat_endpoint *ep, uint32_t op, const char *name, const char *zone = nullptr, const char *new_name = nullptr) {
    return zfx_dlg_config_zoneset(ep, op, name, new_name, zone, nullptr, 0);
}
uint32_t member(plat_endpoint *ep, uint32_t op, const char *zone, uint32_t type, const void *value, uint32_t vsan,
                const uint8_t *lun = nullptr, uint32_t id = 0) {
    return zfx_dlg_config_zone_member(ep, op, zone, id, 0, type, value, lun, vsan, 0, nullptr, 0);
}
uint32_t activation(plat_endpoint *ep, uint32_t op, const char *name, uint32_t flags = 0) {
    return zfx_dlg_config_zone_activation(ep, op, name, flags, 0, nullptr, 0);
}
// The TLV array of a message built by hand.
template <typename Msg>
uint8_t *array_of(Msg *m) { return reinterpret_cast<uint8_t *>(m) + 8; }

// What the queries answer that the zfx commands' end-to-end run does not show, as one text: a
// zone's data and a member's, the info values, the message queries for every object, the enabled
// status three ways and NAT in a VSAN. (The active zoneset, the activation time and every zone
// are that run's.)
std::string answers(plat_endpoint *ep) {
    zfx_zone_info z{.id = 2};
    const uint32_t zr = zfx_dlg_get_zone_data(ep, ZFXD_OP_GET, &z, 0);
    std::string out = format("zone %u: %u %s qos %u/%u ro %u members %s\n", zr, z.id, z.name, z.qos_set, z.qos, z.read_only,
                             hex(bytes_of(z.members + 4, 8)).c_str());
    // A member by its port WWN and one by its alias: what a reply lacks is left zero.
    for (uint32_t id : {1u, 2u}) {
        zfx_zone_member_info m{.id = id, .zone_id = 2};
        const uint32_t mr = zfx_dlg_get_zone_member_data(ep, ZFXD_OP_GET, &m, 0);
        out += format("member %u: type %u vsan %u afid %u alias %s wwn %s lun %s\n", mr, m.type, m.vsan, m.afid, m.device_alias,
                      hex(bytes_of(m.pwwn, 8)).c_str(), hex(bytes_of(m.lun, 8)).c_str());
    }
    for (uint32_t key : {ZFXD_INFO_ZONES, ZFXD_INFO_ZONESETS, ZFXD_INFO_MEMBERS, ZFXD_INFO_ACTIVE_ZONESET, ZFXD_INFO_DEFAULT_ZONE, ZFXD_INFO_CHECK_IGNORE})
        out += format("info %u = %s\n", key, zfx_dlg_get_info_char(ep, key));
    zfx_info_record *r = zfx_dlg_get_info_with_timeout(ep, ZFXD_INFO_MEMBERS, 1);
    out += format("members %s %d\n", r != nullptr ? r->value : "?", zfx_dlg_get_info_int_with_timeout(ep, ZFXD_INFO_ZONES, 1));
    std::free(r);
    // The message queries with id 0 answer every object (every zone, the zfx command's zone show):
    // their entry counts.
    zfx_zoneset_msg *sets_reply = nullptr;
    zfx_zone_member_msg *members_reply = nullptr;
    const uint32_t sq = zfx_dlg_get_zoneset(ep, ZFXD_OP_GET, nullptr, 0, &sets_reply, 1, 0);
    const uint32_t mq = zfx_dlg_get_zone_member(ep, ZFXD_OP_GET, "web", 0, 0, &members_reply, 1, 0);
    out += format("all: zonesets %u/%u web members %u/%u\n", sq, sets_reply ? ntohl(sets_reply->hdr.count) : 0, mq,
                  members_reply ? ntohl(members_reply->hdr.count) : 0);
    std::free(sets_reply);
    std::free(members_reply);
    // The enabled status three ways, and NAT in a VSAN through a send, a receive and a parse.
    zfx_status_reply *st = nullptr, *ext = nullptr, *parsed = nullptr;
    const int32_t s1 = zfx_is_zfx_enabled(ep, &st), s2 = zfx_is_zfx_enabled_ext(ep, &ext);
    out += format("enabled %d/%u ext %d/%u version %u\n", s1, st->enabled, s2, ext->enabled, st->status2);
    std::free(st);
    std::free(ext);
    plat_msg *msg = nullptr;
    uint32_t nat = 7;
    if (zfx_is_zfx_enabled_send(ep, 5) == 0 && plat_endpoint_recv(ep, 0, &msg) == 0 && zfx_is_zfx_enabled_parse(msg, &parsed) == 0)
        out += format("split enabled %u\n", parsed->enabled);
    plat_msg_free(std::exchange(msg, nullptr));
    if (zfx_is_zfx_nat_enabled_in_vsan_send(ep, 10, 6) == 0 && plat_endpoint_recv(ep, 0, &msg) == 0 && zfx_is_zfx_nat_enabled_in_vsan_parse(msg, &nat) == 0)
        out += format("nat in vsan 10: %u\n", nat);
    plat_msg_free(msg);
    return out;
}

TEST(Zfxd, EveryRequestBuildsTheDatabaseTheToolsWouldWriteAndARestartKeepsIt) {
    Prefix prefix;
    put(prefix.config(), {nat_rec(1)});  // NAT is the store's, not zfxd's
    ZfxdUnderTest d(prefix.config());
    plat_endpoint *ep = d.ep();
    const auto same_as_tools = [&](const char *step) { EXPECT_EQ(records(d.location(), true), written_by_the_tools(d.db())) << "after " << step; };

    // Zones, three ways: plain, with attributes, and a message built by hand.
    ASSERT_EQ(zone(ep, ZFXD_OP_CREATE, "web"), 0u);
    ASSERT_EQ(zfx_dlg_config_zone_all_attrib(ep, ZFXD_OP_CREATE, "db", nullptr, 0, ZFX_ZONE_QOS_HIGH, 1, nullptr, 0), 0u);
    zfx_zone_msg *zm = zfx_dlg_malloc_one_zone_and_all_attribs();
    const uint32_t medium = ZFX_ZONE_QOS_MEDIUM;
    ASSERT_EQ(zfx_dlg_zone_add_tlv(array_of(zm), ZFX_TLV_ZONE_NAME, 7, "backup"), 0);
    ASSERT_EQ(zfx_dlg_zone_add_tlv(array_of(zm), ZFX_TLV_ZONE_QOS, 4, &medium), 0);
    ASSERT_EQ(zfx_do_sanity_for_zone_create(zm), 0);
    ASSERT_EQ(zfx_dlg_config_zone_tlv(ep, ZFXD_OP_CREATE, zm, nullptr, 0), 0u);
    std::free(zm);
    same_as_tools("zones");

    // Members of all four kinds, by zone name and by zone id. (One by a message built by hand is the
    // zfx command's member add --id, in its end-to-end run.)
    ASSERT_EQ(member(ep, ZFXD_OP_CREATE, "web", ZFX_MEMBER_PWWN, kWwn1, 10), 0u);
    ASSERT_EQ(zfx_dlg_config_zone_member(ep, ZFXD_OP_ADD, "web", 0, 0, ZFX_MEMBER_DEVICE_ALIAS, "host-a", nullptr, 10, 5, nullptr, 0), 0u);
    ASSERT_EQ(member(ep, ZFXD_OP_CREATE, "db", ZFX_MEMBER_PWWN_LUN, kWwn2, 20, kLun), 0u);
    ASSERT_EQ(zfx_dlg_config_zone_member(ep, ZFXD_OP_CREATE, nullptr, 0, 2, ZFX_MEMBER_DEVICE_ALIAS_LUN, "array-b", kLun, 20, 7, nullptr, 0), 0u);
    // A member added and removed again: by its value, then one by its id.
    ASSERT_EQ(member(ep, ZFXD_OP_CREATE, "web", ZFX_MEMBER_PWWN, kWwn2, 11), 0u);
    ASSERT_EQ(member(ep, ZFXD_OP_REMOVE, "web", ZFX_MEMBER_PWWN, kWwn2, 11), 0u);
    ASSERT_EQ(member(ep, ZFXD_OP_CREATE, "db", ZFX_MEMBER_DEVICE_ALIAS, "gone", 1), 0u);
    ASSERT_EQ(member(ep, ZFXD_OP_DELETE, "db", ZFX_MEMBER_PWWN, nullptr, 0, nullptr, 3), 0u);
    same_as_tools("members");

    // Attributes and a rename.
    ASSERT_EQ(zfx_dlg_config_zone_attrib(ep, ZFXD_OP_MODIFY, "web", nullptr, 0, ZFX_ZONE_QOS_LOW, ZFX_ATTR_NONE, nullptr, 0), 0u);
    ASSERT_EQ(zfx_dlg_config_zone_attrib(ep, ZFXD_OP_MODIFY, nullptr, nullptr, 2, ZFX_ATTR_NONE, 0, nullptr, 0), 0u);
    ASSERT_EQ(zfx_dlg_config_zone_all_attrib(ep, ZFXD_OP_MODIFY, "backup", "vault", 0, ZFX_ATTR_NONE, ZFX_ATTR_NONE, nullptr, 0), 0u);
    same_as_tools("attributes");

    // Zonesets: by zone name, by bitmap in a hand-built message, zones removed, a zone deleted
    // out of a zoneset, a zoneset renamed.
    ASSERT_EQ(zoneset(ep, ZFXD_OP_CREATE, "prod", "web"), 0u);
    ASSERT_EQ(zfx_dlg_config_zoneset_all_attrib(ep, ZFXD_OP_ADD, "prod", nullptr, 0, "db", nullptr, nullptr, 0), 0u);
    Bytes bitmap = cat({le32(1024), id_bits(1024, {2, 3})});
    zfx_zoneset_msg *sm = zfx_dlg_malloc_one_zoneset_and_all_attribs();
    zfx_dlg_zoneset_add_tlv(array_of(sm), ZFX_TLV_ZONESET_NAME, 4, "lab");
    zfx_dlg_zoneset_add_tlv(array_of(sm), ZFX_TLV_ZONESET_ZONE_BITMAP, uint16_t(bitmap.size()), bitmap.data());
    ASSERT_EQ(zfx_do_sanity_for_zoneset_create(sm), 0);
    ASSERT_EQ(zfx_dlg_config_zoneset_tlv(ep, ZFXD_OP_CREATE, sm, nullptr, 0), 0u);
    std::free(sm);
    bitmap = cat({le32(1024), id_bits(1024, {2})});
    ASSERT_EQ(zfx_dlg_config_zoneset_all_attrib(ep, ZFXD_OP_REMOVE, nullptr, nullptr, 2, nullptr, bitmap.data(), nullptr, 0), 0u);
    ASSERT_EQ(zone(ep, ZFXD_OP_CREATE, "tmp"), 0u);
    ASSERT_EQ(zoneset(ep, ZFXD_OP_ADD, "lab", "tmp"), 0u);
    ASSERT_EQ(zone(ep, ZFXD_OP_DELETE, "tmp"), 0u);
    ASSERT_EQ(zoneset(ep, ZFXD_OP_CREATE, "old"), 0u);
    ASSERT_EQ(zoneset(ep, ZFXD_OP_DELETE, "old"), 0u);
    ASSERT_EQ(zoneset(ep, ZFXD_OP_MODIFY, "lab", nullptr, "test"), 0u);
    same_as_tools("zonesets");

    // Switches and values, then the activation (the last change: the tools write the active data
    // from the zones as they are now).
    ASSERT_EQ(zfx_set_fcdomain_check_ignore(ep, 1), 0);
    ASSERT_EQ(zfx_dlg_set_info(ep, ZFXD_INFO_DEFAULT_ZONE, 1, nullptr, 0), 0);
    ASSERT_EQ(activation(ep, ZFXD_OP_ACTIVATE, "test"), 0u);
    ASSERT_EQ(activation(ep, ZFXD_OP_ACTIVATE, "prod", ZFXD_ACTIVATE_FORCE), 0u);
    same_as_tools("activation");

    const std::string text = generate_from(d.location());
    std::ifstream golden(std::string(std::getenv("ZFX_SOURCE_DIR") != nullptr ? std::getenv("ZFX_SOURCE_DIR") : ".") + "/tests/golden/zfxd.txt");
    EXPECT_EQ(text, std::string(std::istreambuf_iterator<char>(golden), {}));

    const std::string want =
        "zone 0: 2 db qos 1/3 ro 0 members 60 00 00 00 00 00 00 00 \n"
        "member 0: type 240 vsan 20 afid 1 alias  wwn 50 06 01 60 3b 20 11 4a  lun 00 01 00 00 00 00 00 00 \n"
        "member 0: type 241 vsan 20 afid 7 alias array-b wwn 00 00 00 00 00 00 00 00  lun 00 01 00 00 00 00 00 00 \n"
        "info 1 = 3\ninfo 2 = 2\ninfo 3 = 4\ninfo 4 = 1\ninfo 32 = 1\ninfo 34 = 1\n"
        "members 4 3\nall: zonesets 0/2 web members 0/2\n"
        "enabled 0/1 ext 0/1 version 1\nsplit enabled 1\nnat in vsan 10: 1\n";
    EXPECT_EQ(answers(ep), want);

    d.restart();
    EXPECT_EQ(answers(d.ep()), want);
    EXPECT_EQ(generate_from(d.location()), text);
    same_as_tools("restart");

    // Deactivation removes every chunk and the time, and the text loses its activation line.
    ASSERT_EQ(activation(d.ep(), ZFXD_OP_DEACTIVATE, nullptr), 0u);
    same_as_tools("deactivation");
    EXPECT_EQ(zfx_dlg_get_info_int(d.ep(), ZFXD_INFO_ACTIVE_ZONESET), 0);
}

// Every refusal answers its status and writes nothing.
TEST(Zfxd, RefusedRequestsAnswerTheirStatusAndChangeNothing) {
    Prefix prefix;
    ZfxdUnderTest d(prefix.config());
    plat_endpoint *ep = d.ep();
    ASSERT_EQ(zone(ep, ZFXD_OP_CREATE, "web"), 0u);
    ASSERT_EQ(member(ep, ZFXD_OP_CREATE, "web", ZFX_MEMBER_PWWN, kWwn1, 10), 0u);
    ASSERT_EQ(zoneset(ep, ZFXD_OP_CREATE, "prod", "web"), 0u);
    const auto before = records(d.location(), false);
    const std::string long_name(68, 'x');
    const auto raw = [&](uint32_t msg_type, uint32_t opcode, Bytes payload) {
        uint32_t len = uint32_t(payload.size());
        return uint32_t(dlg_req_resp(msg_type, opcode, payload.data(), nullptr, &len, nullptr, 0, ZFX_SAP, ep, 10));
    };
    const Bytes zone_head = cat({be32(1), zeros(8)});
    const std::tuple<const char *, std::function<uint32_t()>, int32_t> rows[] = {
        {"zone exists", [&] { return zone(ep, ZFXD_OP_CREATE, "web"); }, ZFXD_ERR_EXISTS},
        {"zone name too long", [&] { return zone(ep, ZFXD_OP_CREATE, long_name.c_str()); }, ZFXD_ERR_INVALID},
        {"zone create without a name", [&] { return zfx_dlg_config_zone_all_attrib(ep, ZFXD_OP_CREATE, nullptr, nullptr, 5, 0, 0, nullptr, 0); },
         ZFX_ERR_CREATE_INCOMPLETE},
        {"QoS above high", [&] { return zfx_dlg_config_zone_attrib(ep, ZFXD_OP_MODIFY, "web", nullptr, 0, 4, ZFX_ATTR_NONE, nullptr, 0); }, ZFXD_ERR_INVALID},
        {"no such zone", [&] { return zone(ep, ZFXD_OP_DELETE, "nope"); }, ZFXD_ERR_NOT_FOUND},
        {"member of no zone", [&] { return member(ep, ZFXD_OP_CREATE, "nope", ZFX_MEMBER_PWWN, kWwn2, 1); }, ZFXD_ERR_NOT_FOUND},
        {"member twice", [&] { return member(ep, ZFXD_OP_CREATE, "web", ZFX_MEMBER_PWWN, kWwn1, 10); }, ZFXD_ERR_EXISTS},
        {"member without a VSAN", [&] { return member(ep, ZFXD_OP_CREATE, "web", ZFX_MEMBER_PWWN, kWwn2, 0); }, ZFX_ERR_CREATE_INCOMPLETE},
        {"VSAN above 4095", [&] { return member(ep, ZFXD_OP_CREATE, "web", ZFX_MEMBER_PWWN, kWwn2, 4096); }, ZFXD_ERR_INVALID},
        {"LUN member without a LUN", [&] { return member(ep, ZFXD_OP_CREATE, "web", ZFX_MEMBER_PWWN_LUN, kWwn2, 1); }, ZFX_ERR_CREATE_INCOMPLETE},
        {"member id above 2047", [&] { return member(ep, ZFXD_OP_CREATE, "web", ZFX_MEMBER_PWWN, kWwn2, 1, nullptr, 2048); }, ZFXD_ERR_INVALID},
        {"remove a member that is not there", [&] { return member(ep, ZFXD_OP_REMOVE, "web", ZFX_MEMBER_PWWN, kWwn2, 10); }, ZFXD_ERR_NOT_FOUND},
        {"zoneset exists", [&] { return zoneset(ep, ZFXD_OP_CREATE, "prod"); }, ZFXD_ERR_EXISTS},
        {"zoneset of an unknown zone", [&] { return zoneset(ep, ZFXD_OP_CREATE, "lab", "nope"); }, ZFXD_ERR_NOT_FOUND},
        {"remove a zone the zoneset lacks", [&] { return zoneset(ep, ZFXD_OP_REMOVE, "prod", "db"); }, ZFXD_ERR_NOT_FOUND},
        {"activate an unknown zoneset", [&] { return activation(ep, ZFXD_OP_ACTIVATE, "nope"); }, ZFXD_ERR_NOT_FOUND},
        {"deactivate with nothing active", [&] { return activation(ep, ZFXD_OP_DEACTIVATE, nullptr); }, ZFXD_ERR_NOT_FOUND},
        {"read-only info key", [&] { return uint32_t(zfx_dlg_set_info(ep, ZFXD_INFO_ZONES, 3, nullptr, 0)); }, ZFXD_ERR_INVALID},
        {"log level out of range", [&] { return uint32_t(zfx_dlg_set_info(ep, ZFXD_INFO_LOG_LEVEL, 3, nullptr, 0)); }, ZFXD_ERR_INVALID},
        {"unknown message type", [&] { return raw(8699, 1, Bytes(8, 0)); }, ZFXD_ERR_UNSUPPORTED},
        {"unknown operation", [&] { return raw(ZFX_MSG_ZONE, 99, cat({zone_head, le32(0)})); }, ZFXD_ERR_UNSUPPORTED},
        {"short zone message", [&] { return raw(ZFX_MSG_ZONE, ZFXD_OP_CREATE, Bytes(10, 0)); }, ZFXD_ERR_MALFORMED},
        {"array counting more than it holds", [&] { return raw(ZFX_MSG_ZONE, ZFXD_OP_CREATE, cat({zone_head, le32(3), tlv(6, str0("a"))})); },
         ZFXD_ERR_MALFORMED},
        {"name without its terminator", [&] { return raw(ZFX_MSG_ZONE, ZFXD_OP_CREATE, cat({zone_head, tlv_array({tlv(6, Bytes{'a', 'b'})})})); },
         ZFXD_ERR_MALFORMED},
        {"short activation", [&] { return raw(ZFX_MSG_ZONE_ACTIVATION, ZFXD_OP_ACTIVATE, Bytes(83, 0)); }, ZFXD_ERR_MALFORMED},
        {"status query of an odd length", [&] { return raw(ZFX_MSG_STATUS, 1, Bytes(5, 0)); }, ZFXD_ERR_MALFORMED},
        {"short info record", [&] { return raw(ZFX_MSG_INFO, ZFXD_OP_INFO_GET, Bytes(259, 0)); }, ZFXD_ERR_MALFORMED},
        {"unknown info key", [&] { return raw(ZFX_MSG_INFO, ZFXD_OP_INFO_GET, cat({be32(999), zeros(256)})); }, ZFXD_ERR_NOT_FOUND},
    };
    for (const auto &[what, send, want] : rows) {
        EXPECT_EQ(send(), uint32_t(want)) << what;
        EXPECT_EQ(records(d.location(), false), before) << what;
    }
    EXPECT_EQ(d.db().changes(), 3u);
}

}  // namespace
