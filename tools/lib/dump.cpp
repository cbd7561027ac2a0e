// zfx-store dump: every record of a store, decoded by its table byte into readable form. A store
// may hold anything, so every value is checked against the layout before a field is read; what
// does not fit its layout is shown as malformed, with its bytes.
#include "dump.hpp"

#include <arpa/inet.h>

#include <cinttypes>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fabric.hpp"
#include "store_guard.hpp"
#include "tlv.hpp"
#include "zfx_ascii_cfg.h"
#include "zfx_fabric.h"
#include "zfx_service.h"
#include "zfx_zone_db.h"
#include "zfxd_protocol.h"

namespace zfxtool {
namespace {


// Ids of a bitmap in the zone database's bit order (id n: 0x80 >> n % 8 of byte n / 8), as runs.
std::string id_runs(const uint8_t *bits, size_t bytes) {
    std::string out;
    const size_t n = bytes * 8;
    for (size_t i = 0; i < n;) {
        if (!id_bit(bits, uint32_t(i))) {
            ++i;
            continue;
        }
        size_t j = i;
        while (j + 1 < n && id_bit(bits, uint32_t(j + 1))) ++j;
        if (!out.empty()) out += ',';
        out += j == i ? std::to_string(i) : std::to_string(i) + "-" + std::to_string(j);
        i = j + 1;
    }
    return out.empty() ? "none" : out;
}


std::string text_field(const uint8_t *p, size_t max) {
    return std::string(reinterpret_cast<const char *>(p), strnlen(reinterpret_cast<const char *>(p), max));
}

std::string set_text(const uint8_t *value, uint32_t len) {
    if (len < sizeof(vsan_bitset)) return "(no VSAN set: " + std::to_string(len) + " bytes)";
    return "vsans " + vsan_text(load<vsan_bitset>(value));
}

Wwn wwn_at(const uint8_t *p) {
    Wwn w;
    std::memcpy(w.data(), p, 8);
    return w;
}

using Line = std::string;

Line zone_db_record(uint8_t table, const uint8_t *k, uint32_t klen, const uint8_t *v, uint32_t vlen) {
    if (klen != ZFX_ZONE_DB_KEY_SIZE) return "";
    const uint16_t first = load<uint16_t>(k + 2), second = load<uint16_t>(k + 4);
    if (table == ZFX_KVDB_ACTIVE_ZONESET_KEY) {
        if (second != 0) return format("active-zoneset-data chunk %u: %u bytes", second, vlen);
        if (vlen < 4) return "";
        return format("active-zoneset-data total %u bytes", ntohl(load<uint32_t>(v)));
    }
    if (table == ZFX_KVDB_ZONE_MEMBER_KEY) {
        std::string out = format("zone-member %u of zone %u: ", first, second);
        if (vlen < sizeof(zfx_member_rec_head)) return "";
        zfx_zone_member_node m{};
        const bool whole = tlv_elements(v + 4, vlen - 4, [](uint16_t, uint16_t, const uint8_t *) {});
        if (!whole || zfx_zone_decode_member_from_kvdb_cfg(v, &m) != 0) return "";
        if (m.type == ZFX_MEMBER_PWWN || m.type == ZFX_MEMBER_PWWN_LUN) out += "pwwn " + wwn_text(wwn_at(m.pwwn));
        else if (m.type == ZFX_MEMBER_DEVICE_ALIAS || m.type == ZFX_MEMBER_DEVICE_ALIAS_LUN)
            out += "device-alias " + std::string(m.device_alias);
        else out += format("type %u", m.type);
        if (m.type == ZFX_MEMBER_PWWN_LUN || m.type == ZFX_MEMBER_DEVICE_ALIAS_LUN) out += " lun " + lun_text(wwn_at(m.lun));
        return out + format(" vsan %u afid %u", m.vsan, m.afid);
    }
    // zone or zoneset: the record head, then its array.
    if (vlen < sizeof(zfx_zone_rec_head) || second != 0) return "";
    std::string out = format("%s %u \"%s\"", table == ZFX_KVDB_ZONE_KEY ? "zone" : "zoneset", first,
                             text_field(v + 4, ZFX_NAME_SIZE).c_str());
    std::string zones_short, zones_full;
    const bool ok = tlv_elements(v + 72, vlen - 72, [&](uint16_t type, uint16_t len, const uint8_t *val) {
        if (type == ZFX_TLV_ZONE_MEMBERS && len >= 4) out += " members " + id_runs(val + 4, len - 4u);
        else if (type == ZFX_TLV_ZONE_QOS && len >= 4) out += std::string(" qos ") + qos_word(load<uint32_t>(val));
        else if (type == ZFX_TLV_ZONE_READ_ONLY && len >= 4) out += ntohl(load<uint32_t>(val)) == 1 ? " read-only" : "";
        else if (type == ZFX_TLV_ZONESET_ZONES && len >= 4) zones_short = id_runs(val + 4, len - 4u);
        else if (type == ZFX_TLV_ZONESET_ZONES_EXT && len >= 4) zones_full = id_runs(val + 4, len - 4u);
    });
    if (!ok) return "";
    if (table == ZFX_KVDB_ZONESET_KEY) out += " zones " + (zones_full.empty() ? zones_short : zones_full);
    return out;
}

Line decode(const uint8_t *k, uint32_t klen, const uint8_t *v, uint32_t vlen) {
    const uint8_t table = k[0], kind = klen > 1 ? k[1] : 0;
    const auto two = [&](const char *what) { return klen == 2 ? std::string(what) : std::string(); };
    switch (table) {
        case ZFX_VT_TABLE:
            if (kind == ZFX_VT_KIND_MODE && klen == 2 && vlen >= sizeof(zfx_vt_mode_record))
                return ntohl(load<zfx_vt_mode_record>(v).mode) == ZFX_VT_MODE_AUTO ? "topology-mode auto" : "topology-mode manual";
            if (kind == ZFX_VT_KIND_ENTRY && klen == sizeof(zfx_vt_kvdb_key)) {
                const auto key = load<zfx_vt_kvdb_key>(k);
                static const char *const memberships[] = {"none", "active", "configured", "active,configured"};
                return format("topology afid %u switch %s membership %s ", key.afid, wwn_text(wwn_at(key.wwn)).c_str(),
                              memberships[key.membership & 3]) +
                       set_text(v, vlen);
            }
            return "";
        case ZFX_KVDB_ZONE_DB_HEADER_KEY: {
            if (klen != 2 || vlen < offsetof(zfx_zone_db_header, zones)) return "";
            zfx_zone_db_header h{};
            std::memcpy(&h, v, std::min<size_t>(vlen, sizeof h));
            return "zone-database-header zonesets " + id_runs(h.zonesets, sizeof h.zonesets) + " zones " +
                   id_runs(h.zones, sizeof h.zones) + " zones-short " + id_runs(h.zones_short, sizeof h.zones_short);
        }
        case ZFX_KVDB_ZONESET_KEY:
        case ZFX_KVDB_ZONE_KEY:
        case ZFX_KVDB_ZONE_MEMBER_KEY:
        case ZFX_KVDB_ACTIVE_ZONESET_KEY: return zone_db_record(table, k, klen, v, vlen);
        case ZFX_KVDB_ZONE_OPTIONS_KEY:
            if (klen != 2 || vlen < 4) return "";
            return (ntohl(load<uint32_t>(v)) & ZFX_ZONE_OPTIONS_FORCE) ? "zone-options force" : "zone-options -";
        case ZFX_KVDB_VDOM_LIST_KEY: return klen == 2 ? "virtual-domains " + set_text(v, vlen) : "";
        case ZFX_RDI_TABLE: return klen == 4 ? format("virtual-domains afid %u ", load<uint16_t>(k + 2)) + set_text(v, vlen) : "";
        case ZFX_KVDB_DISTRIBUTE_KEY: return vlen >= 4 ? two(ntohl(load<uint32_t>(v)) == 1 ? "distribute on" : "distribute off") : "";
        case ZFX_KVDB_NAT_KEY: return vlen >= 1 ? two(v[0] ? "nat on" : "nat off") : "";
        case ZFX_KVDB_AAM_KEY: return vlen >= 1 ? two(v[0] ? "aam on" : "aam off") : "";
        case ZFX_KVDB_GLOBAL_FLAGS_KEY: {
            if (klen != 2 || vlen < 4) return "";
            const uint32_t f = load<uint32_t>(v);
            return format("global-flags 0x%08x%s%s%s", f, f & ZFX_GFLAG_FCDOMAIN_CHECK_IGNORE ? " check-ignore" : "",
                          f & ZFX_GFLAG_VDOM_FORCE ? " virtual-domain-force" : "", f & ZFX_GFLAG_SHARE_HW_ENTRIES ? " share-hw-entries" : "");
        }
        case ZFX2_AFID_TABLE:
        case ZFX2_AFID_DEFAULT_TABLE: {
            if (klen != sizeof(zfx2_afid_table_kvdb_key)) return "";
            const auto key = load<zfx2_afid_table_kvdb_key>(k);
            std::string out = format("afid%s switch %s afid %u", table == ZFX2_AFID_DEFAULT_TABLE ? "-default" : "",
                                     wwn_text(wwn_at(key.wwn)).c_str(), key.afid);
            return table == ZFX2_AFID_TABLE ? out + " " + set_text(v, vlen) : out;
        }
        case ZFX2_SG_CFG_TABLE:
        case ZFX2_SG_ACTIVE_TABLE: {
            const char *which = table == ZFX2_SG_CFG_TABLE ? "service-group-configured" : "service-group-active";
            if (kind == ZFX2_SG_KIND_NAME && klen == sizeof(zfx2_sg_kvdb_id_key))
                return format("%s %u name \"%s\"", which, load<uint32_t>(k + 2), text_field(v, std::min<uint32_t>(vlen, ZFX2_SG_NAME_SIZE)).c_str());
            if (kind == ZFX2_SG_KIND_MEMBER && klen == sizeof(zfx2_sg_kvdb_key))
                return format("%s %u afid %u ", which, load<uint32_t>(k + 2), load<uint16_t>(k + 6)) + set_text(v, vlen);
            if (kind == ZFX2_SG_KIND_POLICY && klen == 2 && vlen >= 4 && table == ZFX2_SG_ACTIVE_TABLE)
                return load<uint32_t>(v) != 0 ? "service-group-policy deny" : "service-group-policy permit";
            return "";
        }
        case ZFXD_KVDB_SERVICE_TABLE: {
            // zfxd's own records: its settable values and the activation time.
            if (klen != 6) return "";
            const uint32_t key = load<uint32_t>(k + 2);
            if (key == ZFX_INFO_KEY_ACTIVATE_TIME)
                return vlen == 8 ? format("zfxd activation-time %u.%06u", load<uint32_t>(v), load<uint32_t>(v + 4)) : "";
            return format("zfxd info %u = \"%s\"", key, text_field(v, vlen).c_str());
        }
        case ZFX2_PFCID_TABLE: {
            if (klen != sizeof(zfx2_pfcid_key) || vlen < sizeof(zfx2_pfcid_value)) return "";
            const auto key = load<zfx2_pfcid_key>(k);
            const auto value = load<zfx2_pfcid_value>(v);
            if (key.kind == ZFX2_PFCID_KIND_DOMAIN)
                return format("pfcid-domain afid %u vsan %u native-afid %u native-vsan %u domain %u", key.afid, key.vsan,
                              key.id.domain.native_afid, key.id.domain.native_vsan, value.fcid[1]);
            if (key.kind == ZFX2_PFCID_KIND_FCID)
                return format("pfcid afid %u vsan %u pwwn %s fcid 0x%02x%02x%02x", key.afid, key.vsan,
                              wwn_text(wwn_at(key.id.pwwn)).c_str(), value.fcid[1], value.fcid[2], value.fcid[3]);
            return "";
        }
        default: break;
    }
    // The debug store's logging level: a key of two words, 2 and 0.
    if (klen == 8 && load<uint32_t>(k) == ZFX_DEBUG_LEVEL_KEY_WORD0 && load<uint32_t>(k + 4) == ZFX_DEBUG_LEVEL_KEY_WORD1 &&
        vlen >= sizeof(zfx_debug_level_record)) {
        const auto r = load<zfx_debug_level_record>(v);
        return format("debug-level %u%s", r.level, r.valid == 1 ? "" : " (not valid)");
    }
    return "";
}

}  // namespace

StoreState dump_store(const std::string &location, bool raw, FILE *out, std::string &error) {
    // The store is read whole before a line is written: a damaged one prints nothing.
    StoreState state = walk_store(location);
    if (state == StoreState::readable)
        state = walk_store(location, [&](const uint8_t *k, uint32_t klen, const uint8_t *v, uint32_t vlen) {
            if (raw) {
                std::fprintf(out, "%s = %s\n", hex(k, klen).c_str(), hex(v, vlen).c_str());
                return;
            }
            const Line line = decode(k, klen, v != nullptr ? v : reinterpret_cast<const uint8_t *>(""), vlen);
            if (!line.empty()) std::fprintf(out, "%s\n", line.c_str());
            else std::fprintf(out, "unknown or malformed: key %s, %u value bytes\n", hex(k, klen).c_str(), vlen);
        });
    if (state == StoreState::absent) error = location + ": no store there";
    if (state == StoreState::damaged) error = damaged_text(location);
    return state;
}

}  // namespace zfxtool
