// zfxd's request handlers on arbitrary requests: raw payloads of any length for every message type
// and operation code the service knows (and some it does not), and zone messages whose TLV arrays
// are built from the input so that the handlers' deeper checks are reached; the fabric's requests
// (device batches, per-VSAN values, TLV-encoded replies, next hops, NAT) and raw transport
// messages to the feature and the name server, answered from a small fabric. What must hold:
// answers carry only the documented statuses; after every request the store holds exactly the
// records the tools' writer makes of the database in memory (an accepted change wrote all of
// itself, a refused one nothing; the fabric's requests change nothing); device batches are whole
// entries and TLV-encoded replies decode with the library's checked parser; and a restart on that
// store rebuilds the same database.
#include <algorithm>
#include <cstring>
#include <memory>

#include "fabric.hpp"
#include "fabric_file.hpp"
#include "platform/dir.h"
#include "platform/endpoint.h"
#include "fuzz_input.hpp"
#include "service.hpp"
#include "tlv.hpp"
#include "zfx_common.h"
#include "zfx_service.h"
#include "zfx_zone_db.h"
#include "zfx_zone_msg.h"
#include "zfxd_protocol.h"

namespace {

using zfxfuzz::Input;
using Records = std::vector<zfxtool::Record>;

const char kStore[] = "mem:fuzz-zfxd";

const uint32_t kTypes[] = {ZFX_MSG_ZONESET, ZFX_MSG_ZONE, ZFX_MSG_ZONE_MEMBER, ZFX_MSG_ZONE_ACTIVATION, ZFX_MSG_ZONE_ATTRIB, ZFX_MSG_INFO,
                           ZFX_MSG_ZONESET_STATUS, ZFX_MSG_STATUS, ZFX_MSG_FCDOMAIN_CHECK_IGNORE, 8699,
                           ZFX_MSG_NS_DEVICE_ENTRY, ZFX_MSG_PV_VSAN_ENTRY, ZFX_MSG_NS_ENTRY_REQ, ZFX_MSG_FCR_QUERY,
                           ZFX_MSG_NEXT_HOP_VSAN, ZFX_MSG_NAT_NEXT_HOP};
// Raw transport messages: access point and opcode.
const std::pair<uint32_t, uint32_t> kRaw[] = {{ZFX_SAP, ZFX_XQB_NATIVE_DOMAIN}, {ZFX_SAP, ZFX_XQB_PROXY_DOMAIN_LIST},
                                              {ZFX_SAP, ZFX_XQB_FORWARD_FRAME}, {DIR_SAP, DIR_OP_GET_ENTRY_BY_PORTNAME},
                                              {ZFX_SAP, 1}, {7, DIR_OP_GET_ENTRY_BY_PORTNAME}};

// A small fabric: its port WWNs begin 21:00 and 22:00 so that short inputs name them.
const char kFabric[] =
    "device 21:00:00:00:00:00:00:00 fcid 0x0a0001 vsans 1,10 value 7 name a\n"
    "device 21:00:00:00:00:00:00:01 fcid 0x0a0002 vsans 10-12 per-vsan 10:5,12:9\n"
    "device 22:00:00:00:00:00:00:00 fcid 0x0b0001 vsans 16\n"
    "native-domain 1 10\nproxy-domains 1 2,3\nnext-hop 1 10 10\nnat 1 10 0x0a0001 0x0b0001 0x140001 0x140002\n";
const uint16_t kElements[] = {ZFX_TLV_ZONESET_NAME, ZFX_TLV_ZONESET_ZONE_NAME, ZFX_TLV_ZONE_NAME, ZFX_TLV_MEMBER_PWWN,
                              ZFX_TLV_MEMBER_VSAN, ZFX_TLV_MEMBER_AFID, ZFX_TLV_MEMBER_TYPE, ZFX_TLV_MEMBER_LUN,
                              ZFX_TLV_ZONE_QOS, ZFX_TLV_ZONESET_NAME2, ZFX_TLV_ZONE_NAME2, ZFX_TLV_ZONE_READ_ONLY,
                              ZFX_TLV_ZONESET_ZONE_BITMAP, ZFX_TLV_MEMBER_DEVICE_ALIAS};

// What a fabric reply must be: batches of whole entries, TLV-encoded replies the library decodes.
void check_fabric_reply(uint32_t type, const zfxd::Answer &a) {
    if (!a.has_reply) return;
    if (type == ZFX_MSG_NS_DEVICE_ENTRY && a.reply.size() % ZFX_DEVICE_ENTRY_SIZE != 0) zfxfuzz::finding("a batch of partial entries");
    if (type != ZFX_MSG_NS_ENTRY_REQ && type != ZFX_MSG_FCR_QUERY) return;
    zfx_device_entry *entries = nullptr;
    int32_t count = -1;
    const int32_t r = zfx2_device_entry_parse_checked(a.reply.data(), uint32_t(a.reply.size()), &entries, &count);
    if (r != 0 && !(r == ZFX_ERR_NO_ENTRIES && count == 0)) zfxfuzz::finding("a TLV-encoded reply the library does not decode");
    std::free(entries);
}

bool documented(int32_t r) {
    return r == 0 || r == ZFX_ERR_CREATE_INCOMPLETE || (uint32_t(r) >= uint32_t(ZFXD_ERR_UNSUPPORTED) && uint32_t(r) <= uint32_t(ZFXD_ERR_STORE));
}

Records sorted(Records r) {
    std::sort(r.begin(), r.end());
    return r;
}

// The zone database records of the store, and those the tools' writer makes of a database.
Records stored() {
    Records out;
    kvdb_store *s = kvdb_open(kStore, nullptr);
    kvdb_cursor c{};
    for (kvdb_datum *k = kvdb_move2location(s, KVDB_LOC_FIRST, &c); k != nullptr; k = kvdb_move2location(s, KVDB_LOC_NEXT, &c)) {
        const auto *kp = static_cast<uint8_t *>(k->data);
        if (kp[0] < ZFX_KVDB_ZONE_DB_HEADER_KEY || kp[0] > ZFX_KVDB_ACTIVE_ZONESET_KEY) continue;
        const kvdb_datum *v = kvdb_getvalue(s, &c);
        const auto *vp = static_cast<uint8_t *>(v->data);
        out.push_back({zfxtool::Bytes(kp, kp + k->len), zfxtool::Bytes(vp, vp + v->len)});
    }
    kvdb_close(s);
    return out;
}

Records written(const zfxd::ZoneDb &db) {
    zfxtool::Fabric f;
    for (const auto &entry : db.zones()) f.zones.push_back(entry.second);
    for (const auto &entry : db.zonesets()) f.zonesets.push_back(entry.second);
    Records out;
    for (auto &[k, v] : zfxtool::config_records(f))
        if (k[0] >= ZFX_KVDB_ZONE_DB_HEADER_KEY && k[0] < ZFX_KVDB_ZONE_OPTIONS_KEY) out.push_back({k, v});
    return sorted(out);
}

// The store's records without the active zoneset's (the tools would make its data from the zones
// as they are now, zfxd keeps it as it was at activation).
Records without_active(Records r) {
    std::erase_if(r, [](const zfxtool::Record &x) { return x.first[0] >= ZFX_KVDB_ZONE_OPTIONS_KEY; });
    return sorted(r);
}

// A zone message of the kind the type names, its elements taken from the input.
zfxtool::Bytes message(uint32_t type, Input &in) {
    const uint32_t fixed = type == ZFX_MSG_ZONESET ? 28 : type == ZFX_MSG_ZONE_MEMBER ? 16 : 12;
    zfxtool::Bytes msg(fixed, 0);
    const uint32_t ids = in.take<uint32_t>();
    msg[3] = 1;
    msg[4] = in.take<uint8_t>();  // flags, low byte: the active zoneset bit among them
    msg[fixed - 1] = uint8_t(ids & 7);
    if (type == ZFX_MSG_ZONE_MEMBER) msg[11] = uint8_t((ids >> 8) & 7);
    zfxtool::TlvArray a;
    for (uint8_t n = in.take<uint8_t>() % 6; n > 0; --n) {
        const uint16_t t = kElements[in.take<uint8_t>() % (sizeof kElements / sizeof kElements[0])];
        const uint8_t how = in.take<uint8_t>();
        zfxtool::Bytes v;
        switch (how % 4) {
            case 0: v = in.bytes(in.take<uint8_t>() % 12); break;                 // raw bytes
            case 1: v = {'z', uint8_t('a' + how / 4 % 4), 0}; break;              // a short name
            case 2: v = {0, 0, 0, uint8_t(how / 4 % 8)}; break;                   // a small number, network order
            default:                                                              // a zone bitmap
                v.assign(1028, 0);
                v[1] = 4;
                v[4] = uint8_t(how & 0x7F);
        }
        a.add(t, v.data(), uint16_t(v.size()));
    }
    msg.insert(msg.end(), a.bytes().begin(), a.bytes().end());
    return msg;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    kvdb_destroy(kStore);
    Input in(data, size);
    {
        zfxd::ZoneDb db;
        if (!db.open(kStore).empty()) zfxfuzz::finding("a fresh store does not open");
        static const zfxd::FabricDesc fabric = [] {
            zfxd::FabricDesc f;
            std::string error;
            if (!zfxd::parse_fabric(kFabric, "fabric", {}, f, error)) zfxfuzz::finding("the harness's fabric is refused");
            return f;
        }();
        zfxd::Service service(db, nullptr, &fabric);
        for (int requests = 0; requests < 24 && in.left() != 0; ++requests) {
            const uint8_t pick = in.take<uint8_t>();
            if (pick >= 0xF0) {  // a raw transport message
                const auto [sap, raw_opcode] = kRaw[pick % (sizeof kRaw / sizeof kRaw[0])];
                const zfxtool::Bytes raw = in.bytes(in.take<uint16_t>() % 600);
                std::unique_ptr<uint8_t[]> exact(new uint8_t[raw.size() + 1]);
                if (!raw.empty()) std::memcpy(exact.get(), raw.data(), raw.size());
                const zfxd::Answer a = service.dispatch({PLAT_OP_RAW_SEND, 0, raw_opcode, sap, raw.empty() ? nullptr : exact.get(), uint32_t(raw.size())}, {});
                if (!documented(a.result)) zfxfuzz::finding("a raw message answered with an undocumented status");
                continue;
            }
            const uint32_t type = kTypes[pick % (sizeof kTypes / sizeof kTypes[0])];
            const uint32_t opcode = in.take<uint8_t>() % 8;
            zfxtool::Bytes payload;
            if ((pick & 0x80) != 0 && (type == ZFX_MSG_ZONESET || type == ZFX_MSG_ZONE || type == ZFX_MSG_ZONE_MEMBER || type == ZFX_MSG_ZONE_ATTRIB))
                payload = message(type == ZFX_MSG_ZONE_ATTRIB ? ZFX_MSG_ZONE : type, in);
            else
                payload = in.bytes(in.take<uint16_t>() % 1100);
            // An exact-size heap block, so that a read past the payload is seen.
            std::unique_ptr<uint8_t[]> exact(new uint8_t[payload.size() + 1]);
            if (!payload.empty()) std::memcpy(exact.get(), payload.data(), payload.size());
            const zfxd::Answer a = service.handle(type, opcode, payload.empty() ? nullptr : exact.get(), uint32_t(payload.size()), {});
            if (!documented(a.result)) zfxfuzz::finding("an answer with an undocumented status");
            if (a.has_reply && a.result != 0) zfxfuzz::finding("a reply beside a refusal");
            check_fabric_reply(type, a);
            if (without_active(stored()) != written(db)) zfxfuzz::finding("the store differs from the database in memory");
        }
        const Records before = stored();
        zfxd::ZoneDb again;
        if (!again.open(kStore).empty()) zfxfuzz::finding("the store zfxd wrote does not reopen");
        if (written(again) != written(db)) zfxfuzz::finding("a restart rebuilds another database");
        const auto &a = again.active(), &b = db.active();
        if (a.has_value() != b.has_value() || (a && (a->id != b->id || a->name != b->name || a->zones != b->zones || a->force != b->force)))
            zfxfuzz::finding("a restart rebuilds another active zoneset");
        if (stored() != before) zfxfuzz::finding("a restart changed the store");
    }
    kvdb_destroy(kStore);
    return 0;
}
