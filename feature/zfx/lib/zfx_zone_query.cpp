// Zone queries: the message queries that hand the service's reply to the caller, the data
// queries that copy one object's elements into a fixed structure, and the active zoneset.
#include <iterator>

#include "zfx_zone_kind.hpp"

namespace zfx {

namespace {

constexpr uint32_t kQueryTimeout = 10;
constexpr uint32_t kOpGet = 1;

// What differs between the three message queries besides their kind.
struct QueryKind {
    const ZoneKind &kind;
    const char *function;  // the name its debug line gives
    bool zoneset_line;     // the zoneset's debug line (with flags) rather than the zone's
    const char *payload_line;
    bool report_add_failure;  // print the internal-error line when the name cannot be added
};

const QueryKind kZonesetQuery{kZonesetKind, "zfx_dlg_get_zoneset", true, "Payload size = %d\n",
                              false};
const QueryKind kZoneQuery{kZoneKind, "zfx_dlg_get_zone", false, "Payload size = %d\n", false};
const QueryKind kMemberQuery{kMemberKind, "zfx_dlg_get_zone_member", false, "Payload size = %d \n",
                             true};

// Sends one message query. ids are the kind's id fields in order (member: parent, member). On 0
// a reply, when one came, holds the kind's fixed part and a well-formed array; a malformed one
// is released and gives ZFX_ERR_INVALID_ARG.
int32_t query_message(plat_endpoint *ep, const QueryKind &q, uint32_t opcode, const char *name,
                      const uint32_t *ids, uint32_t count, uint16_t flags, Block *reply) {
    const ZoneKind &k = q.kind;
    const int shown_id = int(ids[k.n_ids - 1]);  // the object's own id
    if (q.zoneset_line) {
        cli_debug("%s : msg_type %d, num_zonesets %d, id %d, name %s flag %d\n", q.function,
                  int(opcode), int(count), shown_id, name_text(name), int(flags));
        if (debug_cli == 1) std::printf("flag is %x \n", unsigned(flags));
    } else {
        cli_debug("%s : msg_type = %d, num_zones = %d, id = %d, name = %s\n", q.function,
                  int(opcode), int(count), shown_id, name_text(name));
    }
    ElemList elems;
    if (name != nullptr) elems.add_str(k.name_type, name);
    Block msg;
    if (const int32_t r = build_message(k, elems, msg)) {
        if (r == ZFX_ERR_INVALID_ARG && q.report_add_failure)
            std::puts("Internal error due to fail in adding zone name to tlvs");
        return r;
    }
    // Built in network order directly; the flags travel as given.
    store_be32(msg.get(), count);
    store_le16(msg.bytes() + offsetof(zfx_msg_hdr, flags), flags);
    for (uint8_t i = 0; i < k.n_ids; ++i) store_be32(msg.bytes() + k.id_off[i], ids[i]);
    uint32_t length;
    const int32_t r = exchange(ep,
                               {.msg_type = k.msg_type,
                                .opcode = opcode,
                                .request = msg.get(),
                                .length = msg.len,
                                .timeout = kQueryTimeout},
                               reply, &length);
    cli_debug(q.payload_line, int(length));
    if (r == 0 && reply != nullptr && *reply &&
        !(reply->holds(fixed_size(k)) &&
          tlv_array_valid(reply->bytes() + k.array_off, reply->len - k.array_off))) {
        reply->slot();
        return ZFX_ERR_INVALID_ARG;
    }
    return r;
}

// The exported message queries: the reply, checked, to the caller.
template <typename Msg>
uint32_t query_for_caller(plat_endpoint *ep, const QueryKind &q, uint32_t opcode, const char *name,
                          const uint32_t *ids, Msg **reply, uint32_t count, uint16_t flags) {
    Block out;
    const int32_t r =
        query_message(ep, q, opcode, name, ids, count, flags, reply != nullptr ? &out : nullptr);
    if (reply != nullptr) *reply = static_cast<Msg *>(out.release());
    return uint32_t(r);
}

// ---- data queries -------------------------------------------------------------------------------

enum class Fill : uint8_t {
    bytes,    // as received, at most the field's size
    text,     // a string of at most aux characters, the field terminated
    u32_net,  // a network-order word, to host order
    qos,      // as received; the flag at offset aux becomes 1 when the value is nonzero
    afid,     // the low-order 16 bits of the 32-bit value as received
};

struct FieldRule {
    uint16_t type;
    Fill fill;
    uint16_t off;
    uint16_t size;
    uint16_t aux;
};

// How one structure is filled from a reply.
struct InfoLayout {
    const QueryKind &query;
    uint16_t info_id_off[2];  // where the structure holds the kind's ids, in the kind's order
    const FieldRule *rules;
    uint8_t n_rules;
};

constexpr uint16_t kNameChars = 64;  // names copied into the structures
constexpr uint16_t kAliasChars = ZFX_NAME_SIZE - 1;

#define ZFX_FIELD(S, f) uint16_t(offsetof(S, f)), uint16_t(sizeof(S::f))

constexpr FieldRule kZoneRules[] = {
    {ZFX_TLV_ZONE_NAME, Fill::text, ZFX_FIELD(zfx_zone_info, name), kNameChars},
    {ZFX_TLV_ZONE_MEMBERS, Fill::bytes, ZFX_FIELD(zfx_zone_info, members), 0},
    {ZFX_TLV_ZONE_ATTR, Fill::bytes, ZFX_FIELD(zfx_zone_info, attributes), 0},
    {ZFX_TLV_ZONE_QOS, Fill::qos, ZFX_FIELD(zfx_zone_info, qos), offsetof(zfx_zone_info, qos_set)},
    {ZFX_TLV_ZONE_READ_ONLY, Fill::u32_net, ZFX_FIELD(zfx_zone_info, read_only), 0},
};
constexpr FieldRule kZonesetRules[] = {
    {ZFX_TLV_ZONESET_NAME, Fill::text, ZFX_FIELD(zfx_zoneset_info, name), kNameChars},
    {ZFX_TLV_ZONESET_NAME2, Fill::text, ZFX_FIELD(zfx_zoneset_info, name), kNameChars},
    {ZFX_TLV_ZONESET_ZONE_BITMAP, Fill::bytes, ZFX_FIELD(zfx_zoneset_info, zones), 0},
    {ZFX_TLV_ZONESET_ATTR, Fill::bytes, ZFX_FIELD(zfx_zoneset_info, attributes), 0},
    {ZFX_TLV_ZONESET_INFO, Fill::bytes, ZFX_FIELD(zfx_zoneset_info, information), 0},
};
constexpr FieldRule kMemberRules[] = {
    {ZFX_TLV_MEMBER_TYPE, Fill::bytes, ZFX_FIELD(zfx_zone_member_info, type), 0},
    {ZFX_TLV_MEMBER_AFID, Fill::afid, ZFX_FIELD(zfx_zone_member_info, afid), 0},
    {ZFX_TLV_MEMBER_PWWN, Fill::bytes, ZFX_FIELD(zfx_zone_member_info, pwwn), 0},
    {ZFX_TLV_MEMBER_LUN, Fill::bytes, ZFX_FIELD(zfx_zone_member_info, lun), 0},
    {ZFX_TLV_MEMBER_VSAN, Fill::bytes, ZFX_FIELD(zfx_zone_member_info, vsan), 0},
    {ZFX_TLV_MEMBER_DEVICE_ALIAS, Fill::text, ZFX_FIELD(zfx_zone_member_info, device_alias),
     kAliasChars},
};

#undef ZFX_FIELD

const InfoLayout kZoneInfo{
    kZoneQuery, {offsetof(zfx_zone_info, id), 0}, kZoneRules, uint8_t(std::size(kZoneRules))};
const InfoLayout kZonesetInfo{kZonesetQuery,
                              {offsetof(zfx_zoneset_info, id), 0},
                              kZonesetRules,
                              uint8_t(std::size(kZonesetRules))};
const InfoLayout kMemberInfo{
    kMemberQuery,
    {offsetof(zfx_zone_member_info, zone_id), offsetof(zfx_zone_member_info, id)},
    kMemberRules,
    uint8_t(std::size(kMemberRules))};

void fill_field(uint8_t *info, const FieldRule &f, const Tlv &e) {
    uint8_t *field = info + f.off;
    // A later element of the same type replaces an earlier one whole.
    std::memset(field, 0, f.size);
    switch (f.fill) {
        case Fill::bytes:
            tlv_copy(field, e, f.size);
            break;
        case Fill::text:
            tlv_copy_text(reinterpret_cast<char *>(field), e, f.aux);
            break;
        case Fill::u32_net:
            tlv_copy(field, e, 4);
            swap32_at(field);
            break;
        case Fill::qos:
            tlv_copy(field, e, 4);
            store_le32(info + f.aux, load_le32(field) != 0 ? 1 : 0);
            break;
        case Fill::afid: {
            uint8_t word[4] = {};
            tlv_copy(word, e, sizeof word);
            store_le16(field, static_cast<uint16_t>(load_le32(word)));
            break;
        }
    }
}

uint32_t data_query(plat_endpoint *ep, const InfoLayout &L, size_t info_size, uint32_t opcode,
                    void *info, uint16_t flags) {
    if (info == nullptr) return uint32_t(ZFX_ERR_INVALID_ARG);
    const ZoneKind &k = L.query.kind;
    auto *out = static_cast<uint8_t *>(info);
    uint32_t ids[2] = {};
    for (uint8_t i = 0; i < k.n_ids; ++i) ids[i] = load_le32(out + L.info_id_off[i]);
    Block reply;
    const int32_t r = query_message(ep, L.query, opcode, nullptr, ids, 1, flags, &reply);
    if (r != 0) return uint32_t(r);
    if (!reply) return uint32_t(ZFX_ERR_INVALID_ARG);
    // The reply has been checked: from here nothing fails, so the structure changes only now.
    std::memset(out, 0, info_size);
    for (uint8_t i = 0; i < k.n_ids; ++i)
        store_le32(out + L.info_id_off[i], load_be32(reply.bytes() + k.id_off[i]));
    TlvWalk walk(reply.bytes() + k.array_off, TlvChecked{});
    for (Tlv e; walk.next(e);) {
        for (uint8_t i = 0; i < L.n_rules; ++i)
            if (L.rules[i].type == e.type) fill_field(out, L.rules[i], e);
    }
    return 0;
}

}  // namespace

}  // namespace zfx

using namespace zfx;

extern "C" {

uint32_t zfx_dlg_get_zoneset(plat_endpoint *ep, uint32_t opcode, const char *name, uint32_t id,
                             zfx_zoneset_msg **reply, uint32_t count, uint16_t flags) {
    return query_for_caller(ep, kZonesetQuery, opcode, name, &id, reply, count, flags);
}

uint32_t zfx_dlg_get_zone(plat_endpoint *ep, uint32_t opcode, const char *name, uint32_t id,
                          zfx_zone_msg **reply, uint32_t count, uint16_t flags) {
    return query_for_caller(ep, kZoneQuery, opcode, name, &id, reply, count, flags);
}

uint32_t zfx_dlg_get_zone_member(plat_endpoint *ep, uint32_t opcode, const char *name,
                                 uint32_t member_id, uint32_t parent_id,
                                 zfx_zone_member_msg **reply, uint32_t count, uint16_t flags) {
    const uint32_t ids[2] = {parent_id, member_id};
    return query_for_caller(ep, kMemberQuery, opcode, name, ids, reply, count, flags);
}

uint32_t zfx_dlg_get_zoneset_data(plat_endpoint *ep, uint32_t opcode, zfx_zoneset_info *info,
                                  uint16_t flags) {
    return data_query(ep, kZonesetInfo, sizeof *info, opcode, info, flags);
}

uint32_t zfx_dlg_get_zone_data(plat_endpoint *ep, uint32_t opcode, zfx_zone_info *info,
                               uint16_t flags) {
    return data_query(ep, kZoneInfo, sizeof *info, opcode, info, flags);
}

uint32_t zfx_dlg_get_zone_member_data(plat_endpoint *ep, uint32_t opcode,
                                      zfx_zone_member_info *info, uint16_t flags) {
    return data_query(ep, kMemberInfo, sizeof *info, opcode, info, flags);
}

uint32_t zfx_get_active_zoneset(plat_endpoint *ep, char *name, uint8_t *zones) {
    if (name == nullptr || zones == nullptr) return uint32_t(ZFX_ERR_INVALID_ARG);
    const uint32_t id = 0;
    Block reply;
    const int32_t r =
        query_message(ep, kZonesetQuery, kOpGet, nullptr, &id, 1, ZFX_ZONESET_FLAG_ACTIVE, &reply);
    if (r != 0) return uint32_t(r);
    if (!reply) return 0;
    if (load_be32(reply.bytes()) != 1) return uint32_t(ZFX_ERR_INVALID_ARG);
    // The service sends the name first and the zone bitmap second; they are taken by position
    // (from an array the query has checked).
    TlvWalk walk(reply.bytes() + kZonesetKind.array_off, TlvChecked{});
    Tlv e;
    if (!walk.next(e)) return uint32_t(ZFX_ERR_INVALID_ARG);
    if (e.value != nullptr) tlv_copy_text(name, e, ZFX_NAME_SIZE - 1);
    if (!walk.next(e)) return uint32_t(ZFX_ERR_INVALID_ARG);
    std::memset(zones, 0, ZFX_ZONESET_ZONES_SIZE);
    if (e.value != nullptr)
        tlv_copy(zones, e, ZFX_ZONESET_ZONES_SIZE);
    else
        store_le32(zones, ZFX_ZONESET_ZONES_SIZE - 4);
    return 0;
}

}  // extern "C"
