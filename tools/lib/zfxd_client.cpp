// The connection to zfxd with its measuring relay, and the checked decoders of the zone queries'
// replies.
#include "zfxd_client.hpp"

#include <arpa/inet.h>

#include <algorithm>
#include <new>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/dlg.h"
#include "platform/socket.h"
#include "tlv.hpp"
#include "zfxd_protocol.h"

namespace zfxtool {

// ---- the measuring relay ---------------------------------------------------------------------

struct RelayState {
    plat_endpoint *inner;
    void *reply = nullptr;  // the last reply, alive until the next call as the endpoint asks
    uint32_t length = 0;
};

namespace {

void relay_call(void *ctx, plat_endpoint *, const plat_call *call, plat_answer *answer) {
    auto *r = static_cast<RelayState *>(ctx);
    std::free(r->reply);
    r->reply = nullptr;
    r->length = 0;
    if (call->op != PLAT_OP_REQ_RESP && call->op != PLAT_OP_REMOTE) {
        answer->result = -1;
        answer->err = EOPNOTSUPP;
        return;
    }
    uint32_t length = call->length;
    void *reply = nullptr;
    void **want = call->want_reply ? &reply : nullptr;
    const int32_t result =
        call->op == PLAT_OP_REMOTE
            ? dlg_remote_req_resp(call->msg_type, call->opcode, call->payload, want, &length, call->opt_a,
                                  call->opt_b, call->sap, call->node, r->inner, call->timeout)
            : dlg_req_resp(call->msg_type, call->opcode, call->payload, want, &length, call->opt_a,
                           call->opt_b, call->sap, r->inner, call->timeout);
    if (result == -1) {
        answer->err = errno;
        answer->result = -1;
        std::free(reply);
        return;
    }
    answer->result = result;
    if (result != 0 || reply == nullptr) {
        std::free(reply);
        return;
    }
    r->reply = reply;
    r->length = length;
    answer->reply = reply;
    answer->reply_length = length;
}

void relay_close(void *ctx) {
    auto *r = static_cast<RelayState *>(ctx);
    std::free(r->reply);
    delete r;
}

}  // namespace

std::unique_ptr<Connection> Connection::over(plat_endpoint *ep, bool owns) {
    if (ep == nullptr) return nullptr;
    auto *relay = new (std::nothrow) RelayState{ep};
    static const plat_transport transport{relay_call, relay_close};
    plat_endpoint *measured = relay != nullptr ? plat_endpoint_open(&transport, relay) : nullptr;
    Connection *c = measured != nullptr ? new (std::nothrow) Connection(ep, owns, relay, measured) : nullptr;
    if (c == nullptr) {
        if (measured != nullptr) plat_endpoint_close(measured);  // frees relay as well
        else delete relay;
        if (owns) plat_endpoint_close(ep);
        errno = ENOMEM;
        return nullptr;
    }
    return std::unique_ptr<Connection>(c);
}

std::unique_ptr<Connection> Connection::open_socket(const char *path) {
    return over(plat_endpoint_open_socket(path));
}

Connection::~Connection() {
    plat_endpoint_close(measured_);
    if (owns_) plat_endpoint_close(ep_);
}

uint32_t Connection::reply_length() const { return relay_->length; }

// ---- reading the replies ---------------------------------------------------------------------

namespace {
uint32_t load32(const uint8_t *p) { return load<uint32_t>(p); }
uint32_t load_be32(const uint8_t *p) { return ntohl(load32(p)); }
}  // namespace

std::vector<uint32_t> bitmap_ids(const uint8_t *value, size_t room) {
    std::vector<uint32_t> ids;
    if (room < 4) return ids;
    const size_t bytes = std::min<size_t>(load32(value), room - 4);
    for (uint32_t id = 1; id < bytes * 8; ++id)
        if (id_bit(value + 4, id)) ids.push_back(id);
    return ids;
}

namespace {

struct Element {
    uint16_t type;
    uint16_t length;
    const uint8_t *value;
};

// What an element's value is read as; each check names the element by its type.
struct Values {
    std::string error;

    bool sized(const Element &e, size_t need) {
        if (e.length >= need) return true;
        error = "element " + std::to_string(e.type) + " holds " + std::to_string(e.length) + " bytes, not " +
                std::to_string(need);
        return false;
    }
    bool host32(const Element &e, uint32_t &out) { return sized(e, 4) && (out = load32(e.value), true); }
    bool net32(const Element &e, uint32_t &out) { return sized(e, 4) && (out = load_be32(e.value), true); }
    bool bytes8(const Element &e, Wwn &out) { return sized(e, 8) && (std::memcpy(out.data(), e.value, 8), true); }
    bool name(const Element &e, std::string &out) {
        const void *end = e.length != 0 ? std::memchr(e.value, '\0', e.length) : nullptr;
        if (end == nullptr) return fail("element " + std::to_string(e.type) + " holds no terminated name");
        out.assign(reinterpret_cast<const char *>(e.value), static_cast<const uint8_t *>(end) - e.value);
        return valid_name(out) || fail("element " + std::to_string(e.type) + " holds a name that is empty, too long "
                                       "or holds a control character");
    }
    bool ids(const Element &e, std::vector<uint32_t> &out) { return sized(e, 4) && (out = bitmap_ids(e.value, e.length), true); }
    bool fail(std::string what) {
        error = std::move(what);
        return false;
    }
};

// Walks a multi-entry reply: for each entry, read(entry_fields, elements, values) fills one
// entry of out and returns false with values.error set for a malformed one. fixed is the size
// of an entry's fields before its array.
template <typename Entry, typename Read>
std::string walk_entries(const void *reply, uint32_t len, size_t fixed, std::vector<Entry> &out, Read &&read) {
    const auto *p = static_cast<const uint8_t *>(reply);
    out.clear();
    if (p == nullptr || len < sizeof(zfx_msg_hdr)) return "the reply is shorter than its header";
    const uint32_t count = load_be32(p);
    // Every entry takes at least its fields and its count word.
    if (count > (len - sizeof(zfx_msg_hdr)) / (fixed + 4))
        return "the reply counts " + std::to_string(count) + " entries but cannot hold them";
    size_t at = sizeof(zfx_msg_hdr);
    for (uint32_t i = 0; i < count; ++i) {
        const std::string which = "entry " + std::to_string(i + 1) + " of " + std::to_string(count);
        if (at > len || len - at < fixed + 4) return which + " is cut short";
        std::vector<Element> elements;
        const size_t size = tlv_elements(p + at + fixed, len - at - fixed, [&](uint16_t type, uint16_t length, const uint8_t *value) {
            elements.push_back({type, length, value});
        });
        if (size == 0) return which + ": its elements do not lie within the reply";
        Values values;
        out.emplace_back();
        if (!read(p + at, elements, values, out.back())) return which + ": " + values.error;
        at += fixed + size;
    }
    // Zeros may follow (a reply without entries may still carry an entry's fixed part, as the
    // library's queries ask of every reply); anything else is an entry the count left out.
    if (at < len && std::any_of(p + at, p + len, [](uint8_t b) { return b != 0; }))
        return std::to_string(len - at) + " bytes that are not zero follow the last entry";
    return "";
}

bool member_type(uint32_t type) {
    return type == ZFX_MEMBER_PWWN || type == ZFX_MEMBER_DEVICE_ALIAS || type == ZFX_MEMBER_PWWN_LUN ||
           type == ZFX_MEMBER_DEVICE_ALIAS_LUN;
}

// What every member must hold, however it was read.
bool member_complete(const MemberEntry &m, bool has_value, bool has_lun, Values &v) {
    if (!member_type(m.type)) return v.fail("member type " + std::to_string(m.type) + " is unknown");
    if (!has_value) return v.fail("the member lacks its port WWN or device alias");
    if ((m.type == ZFX_MEMBER_PWWN_LUN || m.type == ZFX_MEMBER_DEVICE_ALIAS_LUN) && !has_lun)
        return v.fail("the member lacks its LUN");
    if (m.vsan == 0 || m.vsan > ZFX_VSAN_MAX) return v.fail("the member's VSAN " + std::to_string(m.vsan) + " is out of range");
    return true;
}

}  // namespace

std::string decode_zones(const void *reply, uint32_t len, std::vector<ZoneEntry> &out) {
    return walk_entries(reply, len, sizeof(uint32_t), out, [](const uint8_t *entry, const std::vector<Element> &elements, Values &v, ZoneEntry &z) {
        z.id = load_be32(entry);
        for (const Element &e : elements) {
            bool ok = true;
            if (e.type == ZFX_TLV_ZONE_NAME) ok = v.name(e, z.name);
            else if (e.type == ZFX_TLV_ZONE_MEMBERS) ok = v.ids(e, z.member_ids.emplace());
            else if (e.type == ZFX_TLV_ZONE_QOS) ok = v.host32(e, z.qos) && (z.qos <= ZFX_ZONE_QOS_HIGH || v.fail("QoS " + std::to_string(z.qos) + " is out of range"));
            else if (e.type == ZFX_TLV_ZONE_READ_ONLY) {
                uint32_t ro = 0;
                ok = v.net32(e, ro) && (ro <= 1 || v.fail("read-only value " + std::to_string(ro) + " is neither 0 nor 1"));
                z.read_only = ro == 1;
            }
            if (!ok) return false;
        }
        return !z.name.empty() || v.fail("zone " + std::to_string(z.id) + " has no name");
    });
}

std::string decode_members(const void *reply, uint32_t len, std::vector<MemberEntry> &out) {
    return walk_entries(reply, len, 2 * sizeof(uint32_t), out, [](const uint8_t *entry, const std::vector<Element> &elements, Values &v, MemberEntry &m) {
        m.zone_id = load_be32(entry);
        m.id = load_be32(entry + 4);
        bool has_type = false, has_pwwn = false, has_alias = false, has_lun = false;
        for (const Element &e : elements) {
            bool ok = true;
            if (e.type == ZFX_TLV_MEMBER_TYPE) ok = has_type = v.host32(e, m.type);
            else if (e.type == ZFX_TLV_MEMBER_PWWN) ok = has_pwwn = v.bytes8(e, m.pwwn);
            else if (e.type == ZFX_TLV_MEMBER_DEVICE_ALIAS) ok = has_alias = v.name(e, m.alias);
            else if (e.type == ZFX_TLV_MEMBER_LUN) ok = has_lun = v.bytes8(e, m.lun);
            else if (e.type == ZFX_TLV_MEMBER_VSAN) ok = v.host32(e, m.vsan);
            else if (e.type == ZFX_TLV_MEMBER_AFID) ok = v.host32(e, m.afid);
            if (!ok) return false;
        }
        if (!has_type) return v.fail("the member has no type");
        const bool alias = m.type == ZFX_MEMBER_DEVICE_ALIAS || m.type == ZFX_MEMBER_DEVICE_ALIAS_LUN;
        return member_complete(m, alias ? has_alias : has_pwwn, has_lun, v);
    });
}

std::string decode_zonesets(const void *reply, uint32_t len, std::vector<ZonesetEntry> &out) {
    constexpr size_t kFixed = sizeof(zfx_zoneset_msg) - sizeof(zfx_msg_hdr) - sizeof(zfx_tlv_block);
    constexpr size_t kIdAt = offsetof(zfx_zoneset_msg, id) - sizeof(zfx_msg_hdr);
    return walk_entries(reply, len, kFixed, out, [](const uint8_t *entry, const std::vector<Element> &elements, Values &v, ZonesetEntry &s) {
        s.id = load_be32(entry + kIdAt);
        for (const Element &e : elements) {
            bool ok = true;
            if (e.type == ZFX_TLV_ZONESET_NAME) ok = v.name(e, s.name);
            else if (e.type == ZFX_TLV_ZONESET_ZONE_BITMAP) ok = v.ids(e, s.zones);
            else if (e.type == ZFX_TLV_ZONESET_INFO) {
                ok = v.sized(e, sizeof(zfxd_zoneset_info_block));
                s.active = ok && load_be32(e.value + offsetof(zfxd_zoneset_info_block, active)) == 1;
            }
            if (!ok) return false;
        }
        return !s.name.empty() || v.fail("zoneset " + std::to_string(s.id) + " has no name");
    });
}

std::string decode_zoneset_status(const void *reply, uint32_t len, std::vector<ZonesetStatus> &out) {
    const auto *p = static_cast<const uint8_t *>(reply);
    out.clear();
    if (p == nullptr || len < 4) return "the reply is shorter than its count";
    const uint32_t count = load_be32(p);
    if (count > (len - 4) / sizeof(zfxd_zoneset_status) || len - 4 != count * sizeof(zfxd_zoneset_status))
        return "the reply counts " + std::to_string(count) + " zonesets in " + std::to_string(len) + " bytes";
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t *e = p + 4 + i * sizeof(zfxd_zoneset_status);
        ZonesetStatus s;
        s.id = load_be32(e + offsetof(zfxd_zoneset_status, id));
        s.zones = load_be32(e + offsetof(zfxd_zoneset_status, zones));
        s.active = (load_be32(e + offsetof(zfxd_zoneset_status, flags)) & ZFXD_ZONESET_STATUS_ACTIVE) != 0;
        const char *name = reinterpret_cast<const char *>(e + offsetof(zfxd_zoneset_status, name));
        s.name.assign(name, strnlen(name, ZFX_NAME_SIZE));
        if (s.name.size() == ZFX_NAME_SIZE || !valid_name(s.name))
            return "zoneset " + std::to_string(i + 1) + " of " + std::to_string(count) +
                   ": its name is unterminated, empty or holds a control character";
        out.push_back(std::move(s));
    }
    return "";
}

std::string member_from_info(const zfx_zone_member_info &info, MemberEntry &out) {
    MemberEntry m;
    m.zone_id = info.zone_id;
    m.id = info.id;
    m.type = info.type;
    std::memcpy(m.pwwn.data(), info.pwwn, 8);
    std::memcpy(m.lun.data(), info.lun, 8);
    m.alias.assign(info.device_alias, strnlen(info.device_alias, ZFX_NAME_SIZE));
    m.vsan = info.vsan;
    m.afid = info.afid != 0 ? info.afid : 1;  // 0: no AFID came, which is the default, as in replies
    Values v;
    const bool alias = m.type == ZFX_MEMBER_DEVICE_ALIAS || m.type == ZFX_MEMBER_DEVICE_ALIAS_LUN;
    // The structure cannot say whether an element came; an alias must at least be a name, and a
    // LUN of all zeros is LUN 0.
    if (alias && !valid_name(m.alias)) return "the member's device alias is empty, too long or holds a control character";
    if (!member_complete(m, true, true, v)) return v.error;
    out = std::move(m);
    return "";
}

}  // namespace zfxtool
