// The request handlers of zfxd: decode what the library sent, check it, change the zone database
// through one store transaction, answer in the library's reply layouts.
#include "service.hpp"

#include <arpa/inet.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <set>

#include "tlv.hpp"
#include "zfx_ascii_cfg.h"
#include "zfx_common.h"
#include "zfx_service.h"
#include "zfx_zone_db.h"
#include "zfx_zone_msg.h"
#include "zfxd_protocol.h"

namespace zfxd {
namespace {

using zfxtool::id_bit;
using zfxtool::load;
using zfxtool::set_id_bit;

void put_be32(Bytes &out, uint32_t v) {
    const Bytes b = zfxtool::be32(v);
    out.insert(out.end(), b.begin(), b.end());
}

Answer status(int32_t result) { return Answer{result, false, {}}; }
Answer reply(Bytes bytes) { return Answer{0, true, std::move(bytes)}; }

// ---- requests ------------------------------------------------------------------------------------

// The three zone message layouts: where the entry's ids and the TLV array lie.
struct Layout {
    uint32_t array_at;   // 28, 12, 16
    uint32_t id_at;      // zoneset 24, zone 8, member 12
    uint32_t parent_at;  // member 8; 0 for none
};
constexpr Layout kZoneset{28, 24, 0};
constexpr Layout kZone{12, 8, 0};
constexpr Layout kMember{16, 12, 8};

// A zone message as received: its header fields in host order and its elements (the first of
// each type), checked to lie within the payload.
struct Msg {
    uint16_t flags = 0;
    uint32_t id = 0;
    uint32_t parent = 0;
    std::map<uint16_t, std::pair<const uint8_t *, uint16_t>> elements;

    bool has(uint16_t type) const { return elements.count(type) != 0; }
    // A 32-bit element; byte order as the element travels.
    std::optional<uint32_t> u32(uint16_t type, bool network) const {
        const auto it = elements.find(type);
        if (it == elements.end() || it->second.second < 4) return std::nullopt;
        const uint32_t v = load<uint32_t>(it->second.first);
        return network ? ntohl(v) : v;
    }
    // A string element: its text up to the terminator, which must lie within the element.
    std::optional<std::string> text(uint16_t type) const {
        const auto it = elements.find(type);
        if (it == elements.end()) return std::nullopt;
        const auto *p = reinterpret_cast<const char *>(it->second.first);
        const size_t n = strnlen(p, it->second.second);
        if (n == it->second.second) return std::nullopt;
        return std::string(p, n);
    }
    const uint8_t *bytes(uint16_t type, uint16_t at_least) const {
        const auto it = elements.find(type);
        return it != elements.end() && it->second.second >= at_least ? it->second.first : nullptr;
    }
};

// The payload copied to storage aligned for the library's message structures.
struct Aligned {
    explicit Aligned(const uint8_t *p, uint32_t n) : words((n + 3) / 4 + 1, 0) {
        if (n != 0) std::memcpy(words.data(), p, n);
    }
    const uint8_t *data() const { return reinterpret_cast<const uint8_t *>(words.data()); }
    std::vector<uint32_t> words;
};

bool parse(const Layout &kind, const uint8_t *p, uint32_t n, Msg &msg) {
    if (n < kind.array_at + 4) return false;
    msg.flags = load<uint16_t>(p + 4);
    msg.id = ntohl(load<uint32_t>(p + kind.id_at));
    if (kind.parent_at != 0) msg.parent = ntohl(load<uint32_t>(p + kind.parent_at));
    return zfxtool::tlv_elements(p + kind.array_at, n - kind.array_at, [&](uint16_t type, uint16_t len, const uint8_t *v) {
        msg.elements.emplace(type, std::make_pair(v, len));
    });
}

// A name element, or the status that refuses it: no terminator is malformed, a bad name invalid.
int32_t name_of(const Msg &msg, uint16_t type, std::optional<std::string> &out) {
    out.reset();
    if (!msg.has(type)) return 0;
    out = msg.text(type);
    if (!out) return ZFXD_ERR_MALFORMED;
    return zfxtool::valid_name(*out) ? 0 : ZFXD_ERR_INVALID;
}

// A create's first checks: the library's completeness check of the message as it came, then the
// name it must carry (when name_type is not 0).
template <typename MsgT>
int32_t create_checks(int32_t (*complete)(const MsgT *), const uint8_t *p, uint32_t n, const Msg &msg, uint16_t name_type,
                      std::optional<std::string> &name) {
    Aligned copy(p, n);
    if (complete(reinterpret_cast<const MsgT *>(copy.data())) != 0) return ZFX_ERR_CREATE_INCOMPLETE;
    return name_type != 0 ? name_of(msg, name_type, name) : 0;
}

// The id a create gets: the one asked for (in range and free), or the lowest free one.
template <typename Taken>
int32_t new_id(uint32_t asked, uint16_t lowest_free, uint32_t max, Taken &&taken, uint16_t &id) {
    if (asked == 0) {
        id = lowest_free;
        return lowest_free != 0 ? 0 : ZFXD_ERR_FULL;
    }
    if (asked > max) return ZFXD_ERR_INVALID;
    id = uint16_t(asked);
    return taken(id) ? ZFXD_ERR_EXISTS : 0;
}

// ---- replies -----------------------------------------------------------------------------------

// A reply message: the header (entry count in network order, the query's flags), then entries.
struct ReplyMsg {
    explicit ReplyMsg(uint16_t flags) : bytes(8, 0) { std::memcpy(bytes.data() + 4, &flags, 2); }
    void entry(const Bytes &fixed, const zfxtool::TlvArray &array) {
        bytes.insert(bytes.end(), fixed.begin(), fixed.end());
        bytes.insert(bytes.end(), array.bytes().begin(), array.bytes().end());
        ++count;
    }
    // A list with no entries still has the layout's fixed part: one all-zero entry with an empty
    // array follows its count of 0 (the library refuses a reply shorter than that).
    Bytes take(size_t fixed) {
        if (count == 0) bytes.resize(bytes.size() + fixed + 4, 0);
        const uint32_t n = htonl(count);
        std::memcpy(bytes.data(), &n, 4);
        return std::move(bytes);
    }
    Bytes bytes;
    uint32_t count = 0;
};

void add_name(zfxtool::TlvArray &a, uint16_t type, const std::string &name) {
    a.add(type, name.c_str(), uint16_t(name.size() + 1));
}

void zone_entry(ReplyMsg &r, const Zone &z) {
    Bytes fixed;
    put_be32(fixed, z.id);
    zfxtool::TlvArray a;
    add_name(a, ZFX_TLV_ZONE_NAME, z.name);
    uint8_t members[ZFX_ZONE_MEMBERS_SIZE] = {};
    const uint32_t count = ZFX_MEMBER_BITMAP_SIZE;
    std::memcpy(members, &count, 4);
    for (const Member &m : z.members) set_id_bit(members + 4, m.id);
    a.add(ZFX_TLV_ZONE_MEMBERS, members, sizeof members);
    const uint8_t attributes[ZFX_ATTR_SIZE] = {};
    a.add(ZFX_TLV_ZONE_ATTR, attributes, sizeof attributes);
    a.add_u32(ZFX_TLV_ZONE_QOS, z.qos);
    a.add_u32(ZFX_TLV_ZONE_READ_ONLY, htonl(z.read_only ? 1 : 0));
    r.entry(fixed, a);
}

void zoneset_bitmap(zfxtool::TlvArray &a, const std::vector<uint16_t> &zones) {
    uint8_t map[ZFX_ZONESET_ZONES_SIZE] = {};
    const uint32_t count = ZFX_ZONE_BITMAP_SIZE;
    std::memcpy(map, &count, 4);
    for (uint16_t id : zones) set_id_bit(map + 4, id);
    a.add(ZFX_TLV_ZONESET_ZONE_BITMAP, map, sizeof map);
}

void zoneset_entry(ReplyMsg &r, const Zoneset &s, bool active) {
    Bytes fixed(16, 0);
    put_be32(fixed, s.id);
    zfxtool::TlvArray a;
    add_name(a, ZFX_TLV_ZONESET_NAME, s.name);
    zoneset_bitmap(a, s.zones);
    const uint8_t attributes[ZFX_ATTR_SIZE] = {};
    a.add(ZFX_TLV_ZONESET_ATTR, attributes, sizeof attributes);
    zfxd_zoneset_info_block info{};
    info.zones = htonl(uint32_t(s.zones.size()));
    info.active = htonl(active ? 1 : 0);
    a.add(ZFX_TLV_ZONESET_INFO, &info, sizeof info);
    r.entry(fixed, a);
}

void member_entry(ReplyMsg &r, const Zone &z, const Member &m) {
    Bytes fixed;
    put_be32(fixed, z.id);
    put_be32(fixed, m.id);
    zfxtool::TlvArray a;
    add_name(a, ZFX_TLV_ZONE_NAME, z.name);
    a.add_u32(ZFX_TLV_MEMBER_TYPE, m.type);
    if (m.type == ZFX_MEMBER_PWWN || m.type == ZFX_MEMBER_PWWN_LUN) a.add(ZFX_TLV_MEMBER_PWWN, m.pwwn.data(), 8);
    else add_name(a, ZFX_TLV_MEMBER_DEVICE_ALIAS, m.alias);
    if (m.type == ZFX_MEMBER_PWWN_LUN || m.type == ZFX_MEMBER_DEVICE_ALIAS_LUN) a.add(ZFX_TLV_MEMBER_LUN, m.lun.data(), 8);
    a.add_u32(ZFX_TLV_MEMBER_VSAN, m.vsan);
    a.add_u32(ZFX_TLV_MEMBER_AFID, m.afid);
    r.entry(fixed, a);
}

std::string describe(int32_t result) {
    const char *name = zfxd_status_name(result);
    if (result == 0) return "done";
    char buf[64];
    std::snprintf(buf, sizeof buf, "refused 0x%08x", uint32_t(result));
    return std::string(buf) + " (" + (name != nullptr ? name : "?") + ")";
}

bool valid_member_type(uint32_t t) {
    return t == ZFX_MEMBER_PWWN || t == ZFX_MEMBER_DEVICE_ALIAS || t == ZFX_MEMBER_PWWN_LUN || t == ZFX_MEMBER_DEVICE_ALIAS_LUN;
}

// The member a member request describes, from its elements; what identifies it must be there.
int32_t member_of(const Msg &msg, Member &m) {
    const auto type = msg.u32(ZFX_TLV_MEMBER_TYPE, true);
    const auto vsan = msg.u32(ZFX_TLV_MEMBER_VSAN, true);
    if (!type || !vsan) return ZFX_ERR_CREATE_INCOMPLETE;
    if (!valid_member_type(*type) || *vsan == 0 || *vsan > 4095) return ZFXD_ERR_INVALID;
    m.type = uint8_t(*type);
    m.vsan = *vsan;
    const auto afid = msg.u32(ZFX_TLV_MEMBER_AFID, true);
    if (afid && (*afid == 0 || *afid > 0xFFFF)) return ZFXD_ERR_INVALID;
    m.afid = afid ? uint16_t(*afid) : 1;
    const bool by_pwwn = m.type == ZFX_MEMBER_PWWN || m.type == ZFX_MEMBER_PWWN_LUN;
    const bool with_lun = m.type == ZFX_MEMBER_PWWN_LUN || m.type == ZFX_MEMBER_DEVICE_ALIAS_LUN;
    if (by_pwwn) {
        const uint8_t *p = msg.bytes(ZFX_TLV_MEMBER_PWWN, 8);
        if (p == nullptr) return ZFX_ERR_CREATE_INCOMPLETE;
        std::memcpy(m.pwwn.data(), p, 8);
    } else {
        std::optional<std::string> alias;
        if (const int32_t st = name_of(msg, ZFX_TLV_MEMBER_DEVICE_ALIAS, alias)) return st;
        if (!alias) return ZFX_ERR_CREATE_INCOMPLETE;
        m.alias = *alias;
    }
    if (with_lun) {
        const uint8_t *p = msg.bytes(ZFX_TLV_MEMBER_LUN, 8);
        if (p == nullptr) return ZFX_ERR_CREATE_INCOMPLETE;
        std::memcpy(m.lun.data(), p, 8);
    }
    return 0;
}

bool same_device(const Member &a, const Member &b) {
    return a.type == b.type && a.pwwn == b.pwwn && a.alias == b.alias && a.lun == b.lun && a.vsan == b.vsan && a.afid == b.afid;
}

std::string member_text(const Member &m) {
    std::string s = (m.type == ZFX_MEMBER_PWWN || m.type == ZFX_MEMBER_PWWN_LUN) ? "pwwn " + zfxtool::wwn_text(m.pwwn)
                                                                                : "device-alias " + m.alias;
    if (m.type == ZFX_MEMBER_PWWN_LUN || m.type == ZFX_MEMBER_DEVICE_ALIAS_LUN) s += " lun " + zfxtool::lun_text(m.lun);
    return s + " vsan " + std::to_string(m.vsan) + " afid " + std::to_string(m.afid);
}

// The handlers of one request, sharing the database, the log and the peer.
class Handler {
public:
    Handler(ZoneDb &db, std::string &what) : db_(db), what_(what) {}

    Answer zone(uint32_t opcode, const uint8_t *p, uint32_t n, bool attributes_only);
    Answer zoneset(uint32_t opcode, const uint8_t *p, uint32_t n);
    Answer member(uint32_t opcode, const uint8_t *p, uint32_t n);
    Answer activation(uint32_t opcode, const uint8_t *p, uint32_t n);
    Answer info(uint32_t opcode, const uint8_t *p, uint32_t n, int &log_level, const FabricService &fabric);
    Answer zoneset_status(uint32_t opcode, const uint8_t *p, uint32_t n);
    Answer enabled(uint32_t opcode, const uint8_t *p, uint32_t n);
    Answer check_ignore(uint32_t opcode, const uint8_t *p, uint32_t n);

private:
    // The zone a message names: by its name element when it has one, else by id.
    int32_t find_zone(const Msg &msg, uint16_t name_type, uint32_t id, const Zone *&out) {
        std::optional<std::string> name;
        if (const int32_t st = name_of(msg, name_type, name)) return st;
        out = name ? db_.zone(*name) : (id <= ZFX_ZONE_ID_MAX ? db_.zone(uint16_t(id)) : nullptr);
        return out != nullptr ? 0 : ZFXD_ERR_NOT_FOUND;
    }
    int32_t find_zoneset(const Msg &msg, const Zoneset *&out) {
        std::optional<std::string> name;
        if (const int32_t st = name_of(msg, ZFX_TLV_ZONESET_NAME, name)) return st;
        out = name ? db_.zoneset(*name) : (msg.id <= ZFX_ZONESET_ID_MAX ? db_.zoneset(uint16_t(msg.id)) : nullptr);
        return out != nullptr ? 0 : ZFXD_ERR_NOT_FOUND;
    }
    // The zones a zoneset request names: one zone by name (type 5), or a bitmap (type 61).
    int32_t zones_named(const Msg &msg, std::vector<uint16_t> &zones) {
        std::optional<std::string> name;
        if (const int32_t st = name_of(msg, ZFX_TLV_ZONESET_ZONE_NAME, name)) return st;
        if (name) {
            const Zone *z = db_.zone(*name);
            if (z == nullptr) return ZFXD_ERR_NOT_FOUND;
            zones.push_back(z->id);
            what_ += " zone " + *name;
            return 0;
        }
        const uint8_t *map = msg.bytes(ZFX_TLV_ZONESET_ZONE_BITMAP, ZFX_ZONESET_ZONES_SIZE);
        if (map == nullptr) return msg.has(ZFX_TLV_ZONESET_ZONE_BITMAP) ? ZFXD_ERR_MALFORMED : 0;
        for (uint32_t id = 1; id <= ZFX_ZONE_ID_MAX; ++id) {
            if (!id_bit(map + 4, id)) continue;
            if (db_.zone(uint16_t(id)) == nullptr) return ZFXD_ERR_NOT_FOUND;
            zones.push_back(uint16_t(id));
        }
        what_ += " zones " + std::to_string(zones.size());
        return 0;
    }

    ZoneDb &db_;
    std::string &what_;  // what the request did, for the log
};

Answer Handler::zone(uint32_t opcode, const uint8_t *p, uint32_t n, bool attributes_only) {
    Msg msg;
    if (!parse(kZone, p, n, msg)) return status(ZFXD_ERR_MALFORMED);
    if (attributes_only ? opcode != ZFXD_OP_MODIFY
                        : opcode != ZFXD_OP_GET && opcode != ZFXD_OP_CREATE && opcode != ZFXD_OP_DELETE && opcode != ZFXD_OP_MODIFY)
        return status(ZFXD_ERR_UNSUPPORTED);
    if (opcode == ZFXD_OP_GET) {
        what_ = "zone query";
        ReplyMsg r(msg.flags);
        if (!msg.has(ZFX_TLV_ZONE_NAME) && msg.id == 0) {
            for (const auto &[id, z] : db_.zones()) zone_entry(r, z);
            return reply(r.take(kZone.array_at - 8));
        }
        const Zone *z = nullptr;
        if (const int32_t st = find_zone(msg, ZFX_TLV_ZONE_NAME, msg.id, z)) return status(st);
        zone_entry(r, *z);
        return reply(r.take(kZone.array_at - 8));
    }
    const auto qos = msg.u32(ZFX_TLV_ZONE_QOS, false);
    const auto read_only = msg.u32(ZFX_TLV_ZONE_READ_ONLY, true);
    if ((qos && *qos > ZFX_ZONE_QOS_HIGH) || (read_only && *read_only > 1)) return status(ZFXD_ERR_INVALID);
    if (opcode == ZFXD_OP_CREATE) {
        std::optional<std::string> name;
        if (const int32_t st = create_checks(zfx_do_sanity_for_zone_create, p, n, msg, ZFX_TLV_ZONE_NAME, name)) return status(st);
        what_ = "zone create " + *name;
        if (db_.zone(*name) != nullptr) return status(ZFXD_ERR_EXISTS);
        uint16_t id = 0;
        if (const int32_t st = new_id(msg.id, db_.free_zone_id(), ZFX_ZONE_ID_MAX, [&](uint16_t i) { return db_.zone(i) != nullptr; }, id))
            return status(st);
        ZoneDb::Change change(db_);
        Zone &z = change.create_zone(id, *name);
        z.qos = qos.value_or(0);
        z.read_only = read_only.value_or(0) == 1;
        return status(change.commit());
    }
    const Zone *z = nullptr;
    if (const int32_t st = find_zone(msg, ZFX_TLV_ZONE_NAME, msg.id, z)) return status(st);
    const uint16_t id = z->id;
    if (opcode == ZFXD_OP_DELETE) {
        what_ = "zone delete " + z->name;
        ZoneDb::Change change(db_);
        for (const auto &[sid, s] : db_.zonesets()) {
            if (std::find(s.zones.begin(), s.zones.end(), id) == s.zones.end()) continue;
            std::vector<uint16_t> &zones = change.zoneset(sid).zones;
            zones.erase(std::remove(zones.begin(), zones.end(), id), zones.end());
        }
        change.erase_zone(id);
        return status(change.commit());
    }
    if (opcode != ZFXD_OP_MODIFY) return status(ZFXD_ERR_UNSUPPORTED);
    what_ = "zone modify " + z->name;
    std::optional<std::string> rename;
    if (const int32_t st = name_of(msg, ZFX_TLV_ZONE_NAME2, rename)) return status(st);
    if (rename && *rename != z->name && db_.zone(*rename) != nullptr) return status(ZFXD_ERR_EXISTS);
    ZoneDb::Change change(db_);
    Zone &edit = change.zone(id);
    if (qos) {
        edit.qos = *qos;
        what_ += " qos " + std::to_string(*qos);
    }
    if (read_only) {
        edit.read_only = *read_only == 1;
        what_ += edit.read_only ? " read-only" : " read-write";
    }
    if (rename) {
        change.rename_zone(id, *rename);
        what_ += " rename " + *rename;
    }
    return status(change.commit());
}

Answer Handler::zoneset(uint32_t opcode, const uint8_t *p, uint32_t n) {
    Msg msg;
    if (!parse(kZoneset, p, n, msg)) return status(ZFXD_ERR_MALFORMED);
    if (opcode < ZFXD_OP_GET || opcode > ZFXD_OP_MODIFY) return status(ZFXD_ERR_UNSUPPORTED);
    const std::optional<ActiveState> &active = db_.active();
    if (opcode == ZFXD_OP_GET) {
        ReplyMsg r(msg.flags);
        if ((msg.flags & ZFX_ZONESET_FLAG_ACTIVE) != 0) {
            what_ = "active zoneset query";
            if (!active) return Answer{};  // no reply: nothing is active
            Bytes fixed(16, 0);
            put_be32(fixed, active->id);
            zfxtool::TlvArray a;
            add_name(a, ZFX_TLV_ZONESET_NAME, active->name);
            zoneset_bitmap(a, active->zones);
            r.entry(fixed, a);
            return reply(r.take(kZoneset.array_at - 8));
        }
        what_ = "zoneset query";
        if (!msg.has(ZFX_TLV_ZONESET_NAME) && msg.id == 0) {
            for (const auto &[id, s] : db_.zonesets()) zoneset_entry(r, s, active && active->id == id);
            return reply(r.take(kZoneset.array_at - 8));
        }
        const Zoneset *s = nullptr;
        if (const int32_t st = find_zoneset(msg, s)) return status(st);
        zoneset_entry(r, *s, active && active->id == s->id);
        return reply(r.take(kZoneset.array_at - 8));
    }
    if (opcode == ZFXD_OP_CREATE) {
        std::optional<std::string> name;
        if (const int32_t st = create_checks(zfx_do_sanity_for_zoneset_create, p, n, msg, ZFX_TLV_ZONESET_NAME, name))
            return status(st);
        what_ = "zoneset create " + *name;
        if (db_.zoneset(*name) != nullptr) return status(ZFXD_ERR_EXISTS);
        std::vector<uint16_t> zones;
        if (const int32_t st = zones_named(msg, zones)) return status(st);
        uint16_t id = 0;
        if (const int32_t st =
                new_id(msg.id, db_.free_zoneset_id(), ZFX_ZONESET_ID_MAX, [&](uint16_t i) { return db_.zoneset(i) != nullptr; }, id))
            return status(st);
        ZoneDb::Change change(db_);
        Zoneset &s = change.create_zoneset(id, *name);
        std::sort(zones.begin(), zones.end());
        s.zones = zones;
        return status(change.commit());
    }
    const Zoneset *s = nullptr;
    if (const int32_t st = find_zoneset(msg, s)) return status(st);
    const uint16_t id = s->id;
    switch (opcode) {
        case ZFXD_OP_ADD:
        case ZFXD_OP_REMOVE: {
            const bool add = opcode == ZFXD_OP_ADD;
            what_ = std::string("zoneset ") + (add ? "add " : "remove ") + s->name;
            std::vector<uint16_t> zones;
            if (const int32_t st = zones_named(msg, zones)) return status(st);
            if (zones.empty()) return status(ZFXD_ERR_MALFORMED);
            std::set<uint16_t> now(s->zones.begin(), s->zones.end());
            for (uint16_t z : zones) {
                if (!add && now.count(z) == 0) return status(ZFXD_ERR_NOT_FOUND);
                if (add) now.insert(z);
                else now.erase(z);
            }
            ZoneDb::Change change(db_);
            change.zoneset(id).zones.assign(now.begin(), now.end());
            return status(change.commit());
        }
        case ZFXD_OP_DELETE: {
            what_ = "zoneset delete " + s->name;
            ZoneDb::Change change(db_);
            change.erase_zoneset(id);
            return status(change.commit());
        }
        case ZFXD_OP_MODIFY: {
            what_ = "zoneset modify " + s->name;
            std::optional<std::string> rename;
            if (const int32_t st = name_of(msg, ZFX_TLV_ZONESET_NAME2, rename)) return status(st);
            if (!rename) return status(ZFX_ERR_CREATE_INCOMPLETE);
            if (*rename != s->name && db_.zoneset(*rename) != nullptr) return status(ZFXD_ERR_EXISTS);
            what_ += " rename " + *rename;
            ZoneDb::Change change(db_);
            change.rename_zoneset(id, *rename);
            return status(change.commit());
        }
        default: return status(ZFXD_ERR_UNSUPPORTED);
    }
}

Answer Handler::member(uint32_t opcode, const uint8_t *p, uint32_t n) {
    Msg msg;
    if (!parse(kMember, p, n, msg)) return status(ZFXD_ERR_MALFORMED);
    if (opcode < ZFXD_OP_GET || opcode > ZFXD_OP_DELETE) return status(ZFXD_ERR_UNSUPPORTED);
    const Zone *z = nullptr;
    if (const int32_t st = find_zone(msg, ZFX_TLV_ZONE_NAME, msg.parent, z)) return status(st);
    const uint16_t zone_id = z->id;
    if (opcode == ZFXD_OP_GET) {
        what_ = "member query";
        ReplyMsg r(msg.flags);
        for (const Member &m : z->members)
            if (msg.id == 0 || m.id == msg.id) member_entry(r, *z, m);
        if (msg.id != 0 && r.count == 0) return status(ZFXD_ERR_NOT_FOUND);
        return reply(r.take(kMember.array_at - 8));
    }
    if (opcode == ZFXD_OP_CREATE || opcode == ZFXD_OP_ADD) {
        std::optional<std::string> none;
        if (const int32_t st = create_checks(zfx_do_sanity_for_zone_member_create, p, n, msg, 0, none)) return status(st);
        Member m;
        if (const int32_t st = member_of(msg, m)) return status(st);
        what_ = "member add " + z->name + " " + member_text(m);
        for (const Member &old : z->members)
            if (same_device(old, m)) return status(ZFXD_ERR_EXISTS);
        const auto taken = [&](uint16_t i) {
            return std::any_of(z->members.begin(), z->members.end(), [&](const Member &old) { return old.id == i; });
        };
        if (const int32_t st = new_id(msg.id, ZoneDb::free_member_id(*z), ZFX_ZONE_MEMBER_ID_MAX, taken, m.id)) return status(st);
        ZoneDb::Change change(db_);
        std::vector<Member> &members = change.zone(zone_id).members;
        members.insert(std::lower_bound(members.begin(), members.end(), m, [](const Member &a, const Member &b) { return a.id < b.id; }), m);
        return status(change.commit());
    }
    if (opcode != ZFXD_OP_REMOVE && opcode != ZFXD_OP_DELETE) return status(ZFXD_ERR_UNSUPPORTED);
    const Member *found = nullptr;
    if (msg.id != 0) {
        for (const Member &m : z->members)
            if (m.id == msg.id) found = &m;
    } else {
        Member want;
        if (const int32_t st = member_of(msg, want)) return status(st);
        for (const Member &m : z->members)
            if (same_device(m, want)) found = &m;
    }
    what_ = "member remove " + z->name;
    if (found == nullptr) return status(ZFXD_ERR_NOT_FOUND);
    what_ += " " + member_text(*found);
    const uint16_t member_id = found->id;
    ZoneDb::Change change(db_);
    std::vector<Member> &members = change.zone(zone_id).members;
    members.erase(std::remove_if(members.begin(), members.end(), [&](const Member &m) { return m.id == member_id; }), members.end());
    return status(change.commit());
}

Answer Handler::activation(uint32_t opcode, const uint8_t *p, uint32_t n) {
    if (n < sizeof(zfx_zone_activation_req)) return status(ZFXD_ERR_MALFORMED);
    const size_t len = strnlen(reinterpret_cast<const char *>(p), ZFX_NAME_SIZE);
    if (len == ZFX_NAME_SIZE) return status(ZFXD_ERR_MALFORMED);
    const std::string name(reinterpret_cast<const char *>(p), len);
    const uint32_t value_a = load<uint32_t>(p + 68);
    if (opcode == ZFXD_OP_ACTIVATE) {
        what_ = "zoneset activate " + name;
        const Zoneset *s = db_.zoneset(name);
        if (s == nullptr) return status(ZFXD_ERR_NOT_FOUND);
        ActiveState a;
        a.id = s->id;
        a.name = s->name;
        a.zones = s->zones;
        a.force = (value_a & ZFXD_ACTIVATE_FORCE) != 0;
        if (a.force) what_ += " force";
        timeval now{};
        gettimeofday(&now, nullptr);
        a.seconds = uint32_t(now.tv_sec);
        a.micros = uint32_t(now.tv_usec);
        ZoneDb::Change change(db_);
        change.set_active(std::move(a));
        return status(change.commit());
    }
    if (opcode != ZFXD_OP_DEACTIVATE) return status(ZFXD_ERR_UNSUPPORTED);
    what_ = "zoneset deactivate";
    if (!db_.active() || (!name.empty() && name != db_.active()->name)) return status(ZFXD_ERR_NOT_FOUND);
    ZoneDb::Change change(db_);
    change.set_active(std::nullopt);
    return status(change.commit());
}

// Strict decimal text for a settable value.
std::optional<long> decimal(const char *text) {
    if (*text == '\0') return std::nullopt;
    char *end = nullptr;
    errno = 0;
    const long v = std::strtol(text, &end, 10);
    if (*end != '\0' || errno != 0) return std::nullopt;
    return v;
}

Answer Handler::info(uint32_t opcode, const uint8_t *p, uint32_t n, int &log_level, const FabricService &fabric) {
    if (n < sizeof(zfx_info_record)) return status(ZFXD_ERR_MALFORMED);
    const uint32_t key = ntohl(load<uint32_t>(p));
    what_ = "info " + std::to_string(key);
    if (opcode == ZFXD_OP_INFO_SET) {
        const auto *text = reinterpret_cast<const char *>(p + 4);
        if (strnlen(text, ZFX_INFO_TEXT_SIZE) == ZFX_INFO_TEXT_SIZE) return status(ZFXD_ERR_MALFORMED);
        const auto v = decimal(text);
        const long max = key == ZFXD_INFO_DEFAULT_ZONE ? 1 : key == ZFXD_INFO_LOG_LEVEL ? 2 : -1;
        if (max < 0 || !v || *v < 0 || *v > max) return status(ZFXD_ERR_INVALID);
        what_ = "info set " + std::to_string(key) + " " + std::to_string(*v);
        ZoneDb::Change change(db_);
        change.set_info(key, std::to_string(*v));
        const int32_t st = change.commit();
        if (st == 0 && key == ZFXD_INFO_LOG_LEVEL) log_level = int(*v);
        return status(st);
    }
    if (opcode != ZFXD_OP_INFO_GET) return status(ZFXD_ERR_UNSUPPORTED);
    Bytes out(sizeof(zfx_info_record), 0);
    std::memcpy(out.data(), p, 4);
    const auto number = [&](long v) {
        const std::string s = std::to_string(v);
        std::memcpy(out.data() + 4, s.c_str(), s.size());
        return reply(out);
    };
    if (const std::optional<std::string> text = fabric.info(key)) {
        std::memcpy(out.data() + 4, text->c_str(), std::min<size_t>(text->size(), ZFX_INFO_TEXT_SIZE - 1));
        return reply(out);
    }
    const std::optional<ActiveState> &active = db_.active();
    switch (key) {
        case ZFXD_INFO_ZONES: return number(long(db_.zones().size()));
        case ZFXD_INFO_ZONESETS: return number(long(db_.zonesets().size()));
        case ZFXD_INFO_MEMBERS: return number(long(db_.member_count()));
        case ZFXD_INFO_ACTIVE_ZONESET: return number(active ? active->id : 0);
        case ZFXD_INFO_CHANGES: return number(long(db_.changes()));
        case ZFXD_INFO_CHECK_IGNORE: return number((db_.global_flags() & ZFX_GFLAG_FCDOMAIN_CHECK_IGNORE) != 0);
        case ZFXD_INFO_DEFAULT_ZONE: return number(std::atol(db_.info(key).value_or("0").c_str()));
        case ZFXD_INFO_LOG_LEVEL: return number(log_level);
        case ZFX_INFO_KEY_ACTIVATE_TIME: {
            const uint32_t words[2] = {htonl(active ? active->seconds : 0), htonl(active ? active->micros : 0)};
            std::memcpy(out.data() + 4, words, sizeof words);
            return reply(out);
        }
        default: return status(ZFXD_ERR_NOT_FOUND);
    }
}

Answer Handler::zoneset_status(uint32_t opcode, const uint8_t *p, uint32_t n) {
    if (opcode != ZFXD_OP_GET) return status(ZFXD_ERR_UNSUPPORTED);
    if (n < sizeof(zfx_selector)) return status(ZFXD_ERR_MALFORMED);
    what_ = "zoneset status";
    const bool one = ntohl(load<uint32_t>(p)) != 0;
    const uint32_t id = ntohl(load<uint32_t>(p + 4));
    Bytes out;
    put_be32(out, 0);
    uint32_t count = 0;
    for (const auto &[sid, s] : db_.zonesets()) {
        if (one && sid != id) continue;
        zfxd_zoneset_status e{};
        e.id = htonl(sid);
        e.zones = htonl(uint32_t(s.zones.size()));
        e.flags = htonl(db_.active() && db_.active()->id == sid ? ZFXD_ZONESET_STATUS_ACTIVE : 0);
        std::memcpy(e.name, s.name.c_str(), std::min(s.name.size(), sizeof e.name - 1));
        const auto *b = reinterpret_cast<const uint8_t *>(&e);
        out.insert(out.end(), b, b + sizeof e);
        ++count;
    }
    if (one && count == 0) return status(ZFXD_ERR_NOT_FOUND);
    const uint32_t be = htonl(count);
    std::memcpy(out.data(), &be, 4);
    return reply(out);
}

Answer Handler::enabled(uint32_t opcode, const uint8_t *p, uint32_t n) {
    if (opcode != 1) return status(ZFXD_ERR_UNSUPPORTED);
    bool nat = false;
    if (n == sizeof(zfx_status_query)) {
        const uint8_t kind = p[516];
        if (kind == ZFX_STATUS_KIND_NAT) {
            bool any = false;
            for (size_t i = 4; i < 516; ++i) any |= p[i] != 0;
            nat = any && db_.nat();
            what_ = "nat status";
        } else if (kind != ZFX_STATUS_KIND_EXT) {
            return status(ZFXD_ERR_MALFORMED);
        }
    } else if (n != ZFX_STATUS_QUERY_SHORT_SIZE) {
        return status(ZFXD_ERR_MALFORMED);
    }
    if (what_.empty()) what_ = "enabled status";
    Bytes out;
    put_be32(out, 1);
    put_be32(out, ZFXD_PROTOCOL_VERSION);
    put_be32(out, db_.changes());
    out.push_back(nat ? ZFX_STATUS_FLAG_NAT : 0);
    out.resize(16, 0);
    return reply(out);
}

Answer Handler::check_ignore(uint32_t opcode, const uint8_t *, uint32_t n) {
    if (opcode != 3 && opcode != 4) return status(ZFXD_ERR_UNSUPPORTED);
    if (n < sizeof(zfx_selector)) return status(ZFXD_ERR_MALFORMED);
    const bool ignore = opcode == 3;
    what_ = ignore ? "fcdomain check-ignore on" : "fcdomain check-ignore off";
    const uint32_t flags = ignore ? db_.global_flags() | ZFX_GFLAG_FCDOMAIN_CHECK_IGNORE
                                  : db_.global_flags() & ~uint32_t(ZFX_GFLAG_FCDOMAIN_CHECK_IGNORE);
    if (flags == db_.global_flags()) return status(0);
    ZoneDb::Change change(db_);
    change.set_global_flags(flags);
    return status(change.commit());
}

}  // namespace

Service::Service(ZoneDb &db, std::FILE *log, const FabricDesc *fabric)
    : db_(db), log_(log), fabric_(fabric != nullptr ? *fabric : empty_) {
    if (const auto level = db_.info(ZFXD_INFO_LOG_LEVEL)) log_level_ = std::atoi(level->c_str());
}

void Service::log(int level, const std::string &text) const {
    if (log_ == nullptr || level > log_level_) return;
    std::fprintf(log_, "zfxd: %s\n", text.c_str());
    std::fflush(log_);
}

Answer Service::handle(uint32_t msg_type, uint32_t opcode, const uint8_t *payload, uint32_t length, const Peer &peer) {
    static const uint8_t none[1] = {0};
    const uint8_t *p = payload != nullptr ? payload : none;
    const uint32_t changes = db_.changes();
    std::string what;
    Handler h(db_, what);
    Answer a;
    switch (msg_type) {
        case ZFX_MSG_ZONE: a = h.zone(opcode, p, length, false); break;
        case ZFX_MSG_ZONE_ATTRIB: a = h.zone(opcode, p, length, true); break;
        case ZFX_MSG_ZONESET: a = h.zoneset(opcode, p, length); break;
        case ZFX_MSG_ZONE_MEMBER: a = h.member(opcode, p, length); break;
        case ZFX_MSG_ZONE_ACTIVATION: a = h.activation(opcode, p, length); break;
        case ZFX_MSG_INFO: a = h.info(opcode, p, length, log_level_, fabric_); break;
        case ZFX_MSG_ZONESET_STATUS: a = h.zoneset_status(opcode, p, length); break;
        case ZFX_MSG_STATUS: a = h.enabled(opcode, p, length); break;
        case ZFX_MSG_FCDOMAIN_CHECK_IGNORE: a = h.check_ignore(opcode, p, length); break;
        default:
            if (FabricService::serves(msg_type)) a = fabric_.request(msg_type, opcode, p, length, what);
            else a = status(ZFXD_ERR_UNSUPPORTED);
            break;
    }
    if (what.empty()) {
        // Refused before the handler could say more: the request's kind and operation.
        static const char *const ops[] = {"", "query", "create", "add", "remove", "delete", "modify"};
        const char *kind = msg_type == ZFX_MSG_ZONE || msg_type == ZFX_MSG_ZONE_ATTRIB ? "zone"
                           : msg_type == ZFX_MSG_ZONESET                             ? "zoneset"
                           : msg_type == ZFX_MSG_ZONE_MEMBER                         ? "member"
                                                                                     : nullptr;
        what = kind != nullptr && opcode >= 1 && opcode <= 6 ? std::string(kind) + " " + ops[opcode]
                                                             : "request " + std::to_string(msg_type) + "/" + std::to_string(opcode);
    }
    // Changes (and refused changes) at level 1, queries at level 2; a store failure always.
    // The fabric's requests are all questions.
    const bool change = db_.changes() != changes || (a.result != 0 && !a.has_reply && opcode != ZFXD_OP_GET && !FabricService::serves(msg_type));
    const int level = a.result == ZFXD_ERR_STORE ? 0 : change ? 1 : 2;
    log(level, "uid " + std::to_string(peer.uid) + " pid " + std::to_string(peer.pid) + ": " + what + ": " + describe(a.result));
    return a;
}

Answer Service::handle_raw(uint32_t sap, uint32_t opcode, const uint8_t *payload, uint32_t length, const Peer &peer) {
    static const uint8_t none[1] = {0};
    std::string what;
    const Answer a = fabric_.raw(sap, opcode, payload != nullptr ? payload : none, length, what);
    // Raw messages change nothing: every one is logged at level 2, a refused one at level 1.
    log(a.result == 0 ? 2 : 1, "uid " + std::to_string(peer.uid) + " pid " + std::to_string(peer.pid) + ": " + what + ": " + describe(a.result));
    return a;
}

Answer Service::dispatch(const Request &r, const Peer &peer) {
    if (r.op == PLAT_OP_RAW_SEND) return handle_raw(r.sap, r.opcode, r.payload, r.length, peer);
    // The feature's service answers its own access point.
    if (r.sap != ZFX_SAP) return status(ZFXD_ERR_UNSUPPORTED);
    return handle(r.msg_type, r.opcode, r.payload, r.length, peer);
}

plat_endpoint *Service::open_inproc() {
    const plat_service_handler answer = [](void *ctx, const plat_call *call, plat_answer *out) {
        if (call->op == PLAT_OP_RECV) return;  // nothing arrives unasked
        auto *self = static_cast<Service *>(ctx);
        Answer &a = self->inproc_last_;
        a = self->dispatch({uint32_t(call->op), call->msg_type, call->opcode, call->sap,
                            static_cast<const uint8_t *>(call->payload), call->length},
                           Peer{});
        // A raw send that asks for no reply gets none, as over the socket.
        static const uint8_t empty = 0;
        const bool reply = a.has_reply && (call->op != PLAT_OP_RAW_SEND || call->want_reply != 0);
        out->result = a.result;
        out->reply = reply ? (a.reply.empty() ? &empty : a.reply.data()) : nullptr;
        out->reply_length = reply ? uint32_t(a.reply.size()) : 0;
    };
    return plat_endpoint_open_inproc(answer, this);
}

}  // namespace zfxd
