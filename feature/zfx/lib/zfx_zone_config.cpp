// Zone configuration requests: the caller's one-record messages, and zonesets, zones, members
// and activations built from plain arguments.
#include "platform/fmt.h"
#include "zfx_zone_kind.hpp"

namespace zfx {

namespace {

// Converts a built or caller's message to network order, sends it without wanting a reply,
// and converts it back; the caller keeps the message. avail is the message's length for the
// array check, length what is sent. trace: the member request's progress lines.
uint32_t send_message(plat_endpoint *ep, uint32_t opcode, const ZoneKind &k, uint32_t msg_type,
                      void *msg, uint32_t avail, uint32_t length, const char *opt_a, uint32_t opt_b,
                      bool trace = false) {
    if (trace) cli_debug("converting member structure to network byte order..\n");
    if (!convert(k, msg, avail)) return uint32_t(ZFX_ERR_INVALID_ARG);
    if (trace) cli_debug("sending req to zfx..\n");
    const int32_t r = exchange(ep, {.msg_type = msg_type,
                                    .opcode = opcode,
                                    .request = msg,
                                    .length = length,
                                    .timeout = config_timeout(opcode),
                                    .opt_a = opt_a,
                                    .opt_b = opt_b});
    if (trace) cli_debug("return code: 0x%x\n", unsigned(r));
    convert(k, msg, avail);
    return uint32_t(r);
}

uint32_t send_caller_message(plat_endpoint *ep, uint32_t opcode, const ZoneKind &k, void *msg,
                             const char *opt_a, uint32_t opt_b) {
    const uint32_t size = one_record_size(k);
    return send_message(ep, opcode, k, k.msg_type, msg, size, size, opt_a, opt_b);
}

// Sets the entry count of a message this library built, sends it as msg_type, and releases it.
uint32_t send_built(plat_endpoint *ep, uint32_t opcode, const ZoneKind &k, uint32_t msg_type,
                    Block &msg, const char *opt_a, uint32_t opt_b, bool trace = false) {
    store_le32(msg.get(), 1);
    return send_message(ep, opcode, k, msg_type, msg.get(), msg.len, msg.len, opt_a, opt_b, trace);
}

bool valid_member_type(uint32_t t) {
    return t == ZFX_MEMBER_PWWN || t == ZFX_MEMBER_DEVICE_ALIAS || t == ZFX_MEMBER_PWWN_LUN ||
           t == ZFX_MEMBER_DEVICE_ALIAS_LUN;
}

bool member_is_pwwn(uint32_t t) { return t == ZFX_MEMBER_PWWN || t == ZFX_MEMBER_PWWN_LUN; }

// The debug line of each member element, printed as it is added.
void print_member_elem(const Elem &e) {
    const auto *v = static_cast<const uint8_t *>(e.value);
    switch (e.type) {
        case ZFX_TLV_ZONE_NAME:
            cli_debug("adding zone name: %s\n", static_cast<const char *>(e.value));
            break;
        case ZFX_TLV_MEMBER_TYPE:
            cli_debug("adding member type: %d\n", int(load_le32(v)));
            break;
        case ZFX_TLV_MEMBER_PWWN:
            cli_debug("adding pwwn: 0x%llx\n", static_cast<unsigned long long>(load<uint64_t>(v)));
            break;
        case ZFX_TLV_MEMBER_DEVICE_ALIAS:
            cli_debug("adding device-alias: %s\n", static_cast<const char *>(e.value));
            break;
        case ZFX_TLV_MEMBER_LUN:
            cli_debug("adding lun: 0x%2x%2x%2x%2x%2x%2x%2x%2x\n", v[0], v[1], v[2], v[3], v[4],
                      v[5], v[6], v[7]);
            break;
        case ZFX_TLV_MEMBER_VSAN:
            cli_debug("adding vsan: %d\n", int(load_le32(v)));
            break;
        case ZFX_TLV_MEMBER_AFID:
            cli_debug("adding autonomous-fabric-id: %d\n", int(load_le32(v)));
            break;
        default:
            break;
    }
}

// The zone requests of both message types.
uint32_t config_zone(plat_endpoint *ep, uint32_t opcode, uint32_t msg_type, const char *name,
                     const char *name2, uint32_t zone_id, uint32_t qos, uint32_t read_only,
                     const char *opt_a, uint32_t opt_b) {
    const uint32_t read_only_net = hton32(read_only);
    ElemList elems;
    if (name != nullptr) elems.add_str(ZFX_TLV_ZONE_NAME, name);
    if (qos != ZFX_ATTR_NONE) elems.add(ZFX_TLV_ZONE_QOS, 4, &qos);
    if (name2 != nullptr) elems.add_str(ZFX_TLV_ZONE_NAME2, name2);
    if (read_only != ZFX_ATTR_NONE) elems.add(ZFX_TLV_ZONE_READ_ONLY, 4, &read_only_net);
    Block msg;
    if (const int32_t r = build_message(kZoneKind, elems, msg)) return uint32_t(r);
    if (name == nullptr) store_le32(msg.bytes() + offsetof(zfx_zone_msg, id), zone_id);
    return send_built(ep, opcode, kZoneKind, msg_type, msg, opt_a, opt_b);
}

}  // namespace

}  // namespace zfx

using namespace zfx;

extern "C" {

uint32_t zfx_dlg_config_zone_member_tlv(plat_endpoint *ep, uint32_t opcode,
                                        zfx_zone_member_msg *msg, const char *opt_a,
                                        uint32_t opt_b) {
    return send_caller_message(ep, opcode, kMemberKind, msg, opt_a, opt_b);
}

uint32_t zfx_dlg_config_zone_tlv(plat_endpoint *ep, uint32_t opcode, zfx_zone_msg *msg,
                                 const char *opt_a, uint32_t opt_b) {
    return send_caller_message(ep, opcode, kZoneKind, msg, opt_a, opt_b);
}

uint32_t zfx_dlg_config_zoneset_tlv(plat_endpoint *ep, uint32_t opcode, zfx_zoneset_msg *msg,
                                    const char *opt_a, uint32_t opt_b) {
    return send_caller_message(ep, opcode, kZonesetKind, msg, opt_a, opt_b);
}

uint32_t zfx_dlg_config_zone_member(plat_endpoint *ep, uint32_t opcode, const char *zone_name,
                                    uint32_t id, uint32_t parent_id, uint32_t member_type,
                                    const void *member_value, const uint8_t *lun, uint32_t vsan,
                                    uint32_t afid, const char *opt_a, uint32_t opt_b) {
    cli_debug(
        "%s : id = %d, parent_id=%d zone name=%s member type=%d vsan=%d autonomous-fabric-id=%d\n",
        "zfx_dlg_config_zone_member", int(id), int(parent_id), name_text(zone_name),
        int(member_type), int(vsan), int(afid));
    if (!valid_member_type(member_type)) {
        cli_debug("invalid member type: %d\n", int(member_type));
        return uint32_t(ZFX_ERR_INVALID_VALUE);
    }
    ElemList elems;
    if (zone_name != nullptr) elems.add_str(ZFX_TLV_ZONE_NAME, zone_name);
    elems.add(ZFX_TLV_MEMBER_TYPE, 4, &member_type);
    if (member_value != nullptr) {
        if (member_is_pwwn(member_type))
            elems.add(ZFX_TLV_MEMBER_PWWN, 8, member_value);
        else
            elems.add_str(ZFX_TLV_MEMBER_DEVICE_ALIAS, static_cast<const char *>(member_value));
    }
    if (lun != nullptr) elems.add(ZFX_TLV_MEMBER_LUN, 8, lun);
    if (vsan != 0) elems.add(ZFX_TLV_MEMBER_VSAN, 4, &vsan);
    if (afid != 0) elems.add(ZFX_TLV_MEMBER_AFID, 4, &afid);

    Block msg;
    if (const int32_t r = build_message(kMemberKind, elems, msg, print_member_elem))
        return uint32_t(r);
    store_le32(msg.bytes() + offsetof(zfx_zone_member_msg, id), id);
    store_le32(msg.bytes() + offsetof(zfx_zone_member_msg, parent_id), parent_id);
    return send_built(ep, opcode, kMemberKind, ZFX_MSG_ZONE_MEMBER, msg, opt_a, opt_b, true);
}

uint32_t zfx_dlg_config_zone_all_attrib(plat_endpoint *ep, uint32_t opcode, const char *name,
                                        const char *name2, uint32_t zone_id, uint32_t qos,
                                        uint32_t read_only, const char *opt_a, uint32_t opt_b) {
    return config_zone(ep, opcode, ZFX_MSG_ZONE, name, name2, zone_id, qos, read_only, opt_a,
                       opt_b);
}

uint32_t zfx_dlg_config_zone_attrib(plat_endpoint *ep, uint32_t opcode, const char *name,
                                    const char *name2, uint32_t zone_id, uint32_t qos,
                                    uint32_t read_only, const char *opt_a, uint32_t opt_b) {
    return config_zone(ep, opcode, ZFX_MSG_ZONE_ATTRIB, name, name2, zone_id, qos, read_only, opt_a,
                       opt_b);
}

uint32_t zfx_dlg_config_zone(plat_endpoint *ep, uint32_t opcode, const char *name,
                             const char *name2, const char *opt_a, uint32_t opt_b) {
    return config_zone(ep, opcode, ZFX_MSG_ZONE, name, name2, 0, ZFX_ZONE_QOS_NONE, ZFX_ATTR_NONE,
                       opt_a, opt_b);
}

uint32_t zfx_dlg_config_zoneset_all_attrib(plat_endpoint *ep, uint32_t opcode, const char *name,
                                           const char *name2, uint32_t zoneset_id,
                                           const char *zone_name, const void *zone_bitmap,
                                           const char *opt_a, uint32_t opt_b) {
    ElemList elems;
    if (name != nullptr) elems.add_str(ZFX_TLV_ZONESET_NAME, name);
    // A zone name wins over a bitmap.
    if (zone_name != nullptr)
        elems.add_str(ZFX_TLV_ZONESET_ZONE_NAME, zone_name);
    else if (zone_bitmap != nullptr)
        elems.add(ZFX_TLV_ZONESET_ZONE_BITMAP, ZFX_ZONESET_ZONES_SIZE, zone_bitmap);
    if (name2 != nullptr) elems.add_str(ZFX_TLV_ZONESET_NAME2, name2);
    Block msg;
    if (const int32_t r = build_message(kZonesetKind, elems, msg)) return uint32_t(r);
    if (name == nullptr) store_le32(msg.bytes() + offsetof(zfx_zoneset_msg, id), zoneset_id);
    return send_built(ep, opcode, kZonesetKind, ZFX_MSG_ZONESET, msg, opt_a, opt_b);
}

uint32_t zfx_dlg_config_zoneset(plat_endpoint *ep, uint32_t opcode, const char *name,
                                const char *name2, const char *zone_name, const char *opt_a,
                                uint32_t opt_b) {
    return zfx_dlg_config_zoneset_all_attrib(ep, opcode, name, name2, 0, zone_name, nullptr, opt_a,
                                             opt_b);
}

uint32_t zfx_dlg_config_zone_activation(plat_endpoint *ep, uint32_t opcode, const char *name,
                                        uint32_t value_a, uint32_t value_b, const char *opt_a,
                                        uint32_t opt_b) {
    zfx_zone_activation_req req{};
    if (name != nullptr) copy_str_to_buf(sizeof req.name, req.name, name);
    req.value_a = value_a;
    store_be32(&req.value_b, value_b);
    return uint32_t(exchange(ep, {.msg_type = ZFX_MSG_ZONE_ACTIVATION,
                                  .opcode = opcode,
                                  .request = &req,
                                  .length = sizeof req,
                                  .timeout = config_timeout(opcode),
                                  .opt_a = opt_a,
                                  .opt_b = opt_b,
                                  .on_failure = OnFailure::errno_negative}));
}

}  // extern "C"
