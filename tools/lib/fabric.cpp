// The writer: a fabric model turned into the records the service writes, and written into stores.
#include "fabric.hpp"

#include <arpa/inet.h>

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <deque>
#include <filesystem>
#include <memory>
#include <set>
#include <stdexcept>

#include "platform/fmt.h"
#include "platform/kvdb.h"
#include "platform/tree.h"
#include "store_guard.hpp"
#include "zfx_ascii_cfg.h"
#include "zfx_fabric.h"
#include "zfx_zone_db.h"

namespace zfxtool {
namespace {

template <typename T>
Bytes bytes_of(const T &value) {
    const auto *p = reinterpret_cast<const uint8_t *>(&value);
    return Bytes(p, p + sizeof value);
}

Bytes set_bytes(const VsanSet &set) { return bytes_of(set.bits); }


void copy_name(char (&field)[ZFX_NAME_SIZE], const std::string &name) {
    std::memset(field, 0, sizeof field);
    std::memcpy(field, name.data(), std::min(name.size(), sizeof field - 1));
}

// Takes a record an encoder built (or throws when it refused the node). length is read only
// here, after the encoder that sets it has run, whatever order the arguments were evaluated in.
Bytes take(void *block, const uint32_t &length, const char *what) {
    if (block == nullptr) throw std::runtime_error(std::string("the library refused to encode ") + what);
    Bytes out(static_cast<uint8_t *>(block), static_cast<uint8_t *>(block) + length);
    std::free(block);
    return out;
}

int32_t by_id(const void *a, const void *b) {
    uint32_t x, y;
    std::memcpy(&x, a, 4);
    std::memcpy(&y, b, 4);
    return x < y ? -1 : x > y;
}

using TreePtr = std::unique_ptr<plat_tree, decltype(&tree_destroy)>;

zfx_zone_member_node member_node(const Member &m, uint16_t id) {
    zfx_zone_member_node node{};
    node.id = id;
    node.type = m.type;
    node.vsan = m.vsan;
    node.afid = m.afid;
    std::memcpy(node.pwwn, m.pwwn.data(), 8);
    std::memcpy(node.lun, m.lun.data(), 8);
    copy_name(node.device_alias, m.alias);
    return node;
}

// A zone node with its member bitmap; its member tree is left to the caller.
zfx_zone_node zone_node(const Zone &z) {
    if (z.id == 0 || z.id > ZFX_ZONE_ID_MAX) throw std::runtime_error("zone id out of range: " + std::to_string(z.id));
    zfx_zone_node node{};
    node.id = z.id;
    copy_name(node.name, z.name);
    const uint32_t bits = ZFX_MEMBER_BITMAP_SIZE;  // the bitmap's count word
    std::memcpy(node.member_bitmap, &bits, 4);
    node.qos = z.qos;
    node.read_only = z.read_only ? 1 : 0;
    for (uint16_t id : member_ids(z)) set_id_bit(node.member_bitmap + 4, id);
    return node;
}

zfx_zoneset_node zoneset_node(uint16_t id, const std::string &name, const std::vector<uint16_t> &zone_ids) {
    if (id == 0 || id > ZFX_ZONESET_ID_MAX) throw std::runtime_error("zoneset id out of range: " + std::to_string(id));
    zfx_zoneset_node node{};
    node.id = id;
    copy_name(node.name, name);
    for (uint16_t zid : zone_ids) {
        if (zid == 0 || zid > ZFX_ZONE_ID_MAX) throw std::runtime_error("zone id out of range: " + std::to_string(zid));
        set_id_bit(node.zone_bitmap, zid);
    }
    return node;
}

void add_zone_db(const Fabric &fabric, size_t chunk_size, std::vector<Record> &out) {
    std::map<uint16_t, const Zone *> zones;
    for (const Zone &z : fabric.zones) {
        if (!zones.emplace(z.id, &z).second) throw std::runtime_error("zone id used twice: " + std::to_string(z.id));
        out.push_back(zone_record(z));
        const std::vector<uint16_t> ids = member_ids(z);
        for (size_t i = 0; i < ids.size(); ++i) out.push_back(member_record(z.id, ids[i], z.members[i]));
    }
    std::vector<uint16_t> zoneset_ids;
    for (const Zoneset &s : fabric.zonesets) {
        if (std::find(zoneset_ids.begin(), zoneset_ids.end(), s.id) != zoneset_ids.end())
            throw std::runtime_error("zoneset id used twice: " + std::to_string(s.id));
        zoneset_ids.push_back(s.id);
        for (uint16_t zid : s.zones)
            if (zones.count(zid) == 0) throw std::runtime_error("zoneset " + s.name + " names no zone with id " + std::to_string(zid));
        out.push_back(zoneset_record(s));
    }
    std::vector<uint16_t> zone_ids;
    for (const auto &entry : zones) zone_ids.push_back(entry.first);
    out.push_back(zone_db_header_record(zone_ids, zoneset_ids));
    out.push_back(zone_options_record(fabric.active && fabric.active->force));
    if (!fabric.active) return;
    std::vector<const Zone *> active_zones;
    for (uint16_t id : std::set<uint16_t>(fabric.active->zones.begin(), fabric.active->zones.end())) {
        const auto it = zones.find(id);
        if (it == zones.end()) throw std::runtime_error("no zone with id " + std::to_string(id));
        active_zones.push_back(it->second);
    }
    const std::vector<Record> active = active_records(*fabric.active, active_zones, chunk_size);
    out.insert(out.end(), active.begin(), active.end());
}

void add_service_groups(const std::vector<ServiceGroup> &groups, uint8_t table, std::vector<Record> &out) {
    for (const ServiceGroup &g : groups) {
        const zfx2_sg_kvdb_id_key name_key{table, ZFX2_SG_KIND_NAME, g.id};
        Bytes name(ZFX2_SG_NAME_SIZE, 0);
        std::memcpy(name.data(), g.name.data(), std::min<size_t>(g.name.size(), ZFX2_SG_NAME_SIZE - 1));
        out.push_back({bytes_of(name_key), name});
        for (const GroupMember &m : g.members) {
            const zfx2_sg_kvdb_key key{table, ZFX2_SG_KIND_MEMBER, g.id, m.afid};
            out.push_back({bytes_of(key), set_bytes(m.vsans)});
        }
    }
}

}  // namespace

Bytes zone_db_key(uint8_t table, uint16_t first, uint16_t second) {
    Bytes key(ZFX_ZONE_DB_KEY_SIZE);
    zfx_zone_db_key(key.data(), table, first, second);
    return key;
}

std::vector<uint16_t> member_ids(const Zone &zone) {
    std::vector<uint16_t> ids;
    ids.reserve(zone.members.size());
    uint32_t last = 0;
    for (const Member &m : zone.members) {
        const uint32_t id = m.id != 0 ? m.id : last + 1;
        if (id <= last || id > ZFX_ZONE_MEMBER_ID_MAX)
            throw std::runtime_error("zone " + zone.name + ": member ids out of order or above 2047");
        ids.push_back(uint16_t(last = id));
    }
    return ids;
}

Record zone_record(const Zone &zone) {
    const zfx_zone_node node = zone_node(zone);
    uint32_t length = 0;
    return {zone_db_key(ZFX_KVDB_ZONE_KEY, zone.id, 0), take(zfx_zone_encode_zone_to_kvdb(&node, &length), length, "a zone")};
}

Record member_record(uint16_t zone_id, uint16_t member_id, const Member &member) {
    const zfx_zone_member_node node = member_node(member, member_id);
    uint32_t length = 0;
    return {zone_db_key(ZFX_KVDB_ZONE_MEMBER_KEY, member_id, zone_id),
            take(zfx_zone_encode_zone_member_to_kvdb(&node, &length), length, "a zone member")};
}

Record zoneset_record(const Zoneset &zoneset) {
    const zfx_zoneset_node node = zoneset_node(zoneset.id, zoneset.name, zoneset.zones);
    uint32_t length = 0;
    return {zone_db_key(ZFX_KVDB_ZONESET_KEY, zoneset.id, 0),
            take(zfx_zone_encode_zoneset_to_kvdb(&node, &length), length, "a zoneset")};
}

Record zone_db_header_record(const std::vector<uint16_t> &zone_ids, const std::vector<uint16_t> &zoneset_ids) {
    zfx_zone_db_header header{};
    for (uint16_t id : zone_ids) set_id_bit(header.zones, id);
    for (uint16_t id : zoneset_ids) set_id_bit(header.zonesets, id);
    // The short bitmap is the full one's first bytes, as the service keeps both.
    std::memcpy(header.zones_short, header.zones, sizeof header.zones_short);
    header.zones_length = ZFX_ZONE_BITMAP_SIZE;
    return {{ZFX_KVDB_ZONE_DB_HEADER_KEY, 0}, bytes_of(header)};
}

Record zone_options_record(bool force) {
    return {{ZFX_KVDB_ZONE_OPTIONS_KEY, 0}, be32(force ? ZFX_ZONE_OPTIONS_FORCE : 0)};
}

std::vector<Record> active_records(const Active &active, const std::vector<const Zone *> &zones, size_t chunk_size) {
    // The active zoneset data is made of nodes in trees, as the service holds them in memory.
    std::vector<TreePtr> trees;
    const auto tree = [&] { return trees.emplace_back(tree_create(by_id), tree_destroy).get(); };
    std::deque<zfx_zone_node> zone_nodes;
    std::deque<zfx_zone_member_node> member_nodes;
    std::vector<uint16_t> zone_ids;
    zfx_zoneset_node set{};
    for (const Zone *z : zones) zone_ids.push_back(z->id);
    set = zoneset_node(active.id, active.name, zone_ids);
    set.zones = tree();
    for (const Zone *z : zones) {
        zfx_zone_node &node = zone_nodes.emplace_back(zone_node(*z));
        node.members = tree();
        const std::vector<uint16_t> ids = member_ids(*z);
        for (size_t i = 0; i < ids.size(); ++i) tree_insert(node.members, &member_nodes.emplace_back(member_node(z->members[i], ids[i])));
        tree_insert(set.zones, &node);
    }
    uint32_t length = 0;
    const Bytes data = take(zfx_zone_zoneset_to_persistent_kvdb_data(&set, &length), length, "the active zoneset");
    std::vector<Record> out;
    out.push_back({zone_db_key(ZFX_KVDB_ACTIVE_ZONESET_KEY, 0, 0), be32(uint32_t(data.size()))});
    uint16_t chunk = 0;
    for (size_t at = 0; at < data.size(); at += chunk_size) {
        const size_t end = std::min(data.size(), at + chunk_size);
        out.push_back({zone_db_key(ZFX_KVDB_ACTIVE_ZONESET_KEY, 0, ++chunk), Bytes(data.begin() + long(at), data.begin() + long(end))});
    }
    return out;
}

const Zone *Fabric::zone(uint16_t id) const {
    for (const Zone &z : zones)
        if (z.id == id) return &z;
    return nullptr;
}

std::string config_location(const std::string &dir) { return dir + "/zfx_" ZFX_STORE_CONFIG_SUFFIX; }
std::string debug_location(const std::string &dir) { return dir + "/zfx_" ZFX_STORE_DEBUG_SUFFIX; }

std::vector<Record> config_records(const Fabric &f, size_t chunk_size) {
    std::vector<Record> out;
    out.push_back({{ZFX_KVDB_GLOBAL_FLAGS_KEY, 0x01}, bytes_of(f.flags)});
    out.push_back({{ZFX_KVDB_NAT_KEY, 0x00}, {uint8_t(f.nat)}});
    out.push_back({{ZFX_KVDB_AAM_KEY, 0x00}, {uint8_t(f.aam)}});
    out.push_back({{ZFX_KVDB_DISTRIBUTE_KEY, 0x00}, be32(f.distribute ? 1 : 0)});
    if (f.vdom_list) out.push_back({{ZFX_KVDB_VDOM_LIST_KEY, 0x00}, set_bytes(*f.vdom_list)});
    for (const auto &[afid, set] : f.vdoms) {
        const zfx_rdi_kvdb_key key{ZFX_RDI_TABLE, 0, afid};
        out.push_back({bytes_of(key), set_bytes(set)});
    }

    add_zone_db(f, chunk_size, out);

    for (const TopologyEntry &t : f.topology) {
        zfx_vt_kvdb_key key{ZFX_VT_TABLE, ZFX_VT_KIND_ENTRY, t.afid, {}, t.membership};
        std::memcpy(key.wwn, t.wwn.data(), 8);
        out.push_back({bytes_of(key), set_bytes(t.vsans)});
    }
    zfx_vt_mode_record mode{};
    mode.mode = htonl(f.topology_auto ? ZFX_VT_MODE_AUTO : 0);
    out.push_back({{ZFX_VT_TABLE, ZFX_VT_KIND_MODE}, bytes_of(mode)});

    for (const AfidEntry &a : f.afids) {
        zfx2_afid_table_kvdb_key key{uint8_t(a.is_default ? ZFX2_AFID_DEFAULT_TABLE : ZFX2_AFID_TABLE), ZFX2_AFID_KIND, {}, a.afid};
        std::memcpy(key.wwn, a.wwn.data(), 8);
        out.push_back({bytes_of(key), set_bytes(a.vsans)});
    }

    add_service_groups(f.groups_configured, ZFX2_SG_CFG_TABLE, out);
    add_service_groups(f.groups_active, ZFX2_SG_ACTIVE_TABLE, out);
    const uint32_t policy = f.group_policy_deny ? 1 : 0;
    out.push_back({{ZFX2_SG_ACTIVE_TABLE, ZFX2_SG_KIND_POLICY}, bytes_of(policy)});

    const auto pfcid_key = [](uint8_t kind, uint16_t afid, uint32_t vsan) {
        zfx2_pfcid_key key{};
        key.table = ZFX2_PFCID_TABLE;
        key.kind = kind;
        key.tag = ZFX2_PFCID_TAG_FIRST;
        key.afid = afid;
        key.vsan = vsan;
        return key;
    };
    for (const PfcidDomain &d : f.pfcid_domains) {
        zfx2_pfcid_key key = pfcid_key(ZFX2_PFCID_KIND_DOMAIN, d.afid, d.vsan);
        key.id.domain.native_afid = d.native_afid;
        key.id.domain.native_vsan = d.native_vsan;
        const zfx2_pfcid_value value{{0, d.domain, 0, 0}, 0};
        out.push_back({bytes_of(key), bytes_of(value)});
    }
    for (const PfcidFcid &p : f.pfcid_fcids) {
        zfx2_pfcid_key key = pfcid_key(ZFX2_PFCID_KIND_FCID, p.afid, p.vsan);
        std::memcpy(key.id.pwwn, p.pwwn.data(), 8);
        const zfx2_pfcid_value value{{0, p.fcid[0], p.fcid[1], p.fcid[2]}, 0};
        out.push_back({bytes_of(key), bytes_of(value)});
    }
    return out;
}

std::vector<Record> debug_records(const Fabric &f) {
    if (!f.debug_level) return {};
    const uint32_t key[2] = {ZFX_DEBUG_LEVEL_KEY_WORD0, ZFX_DEBUG_LEVEL_KEY_WORD1};
    const zfx_debug_level_record value{1, *f.debug_level};
    return {{bytes_of(key), bytes_of(value)}};
}

namespace {

std::string status_text(int32_t status) {
    switch (status) {
        case KVDB_ERR_INVALID: return "invalid argument";
        case KVDB_ERR_NO_MEMORY: return "out of memory";
        case KVDB_NOT_FOUND: return "not found";
        case KVDB_ERR_OPEN: return "not a store, or cannot be opened";
        case KVDB_ERR_IO: return "input/output error";
        case KVDB_ERR_FULL: return "store is full";
        case KVDB_ERR_TXN: return "a transaction is already open";
        default: return "status " + std::to_string(status);
    }
}

// The keys the store at location holds now (none when there is no store there); false when the
// store is damaged.
bool existing_keys(const std::string &location, std::vector<Bytes> &keys) {
    keys.clear();
    return walk_store(location, [&keys](const uint8_t *k, uint32_t klen, const uint8_t *, uint32_t) {
               keys.emplace_back(k, k + klen);
           }) != StoreState::damaged;
}

std::string not_empty(const std::string &location) {
    return location + ": the store is not empty (use --replace to overwrite it)";
}

kvdb_datum datum(const Bytes &b) { return {const_cast<uint8_t *>(b.data()), uint32_t(b.size())}; }

}  // namespace

std::string write_store(const std::string &location, const std::vector<Record> &records, bool replace) {
    std::vector<Bytes> old;
    if (!existing_keys(location, old)) return damaged_text(location);
    if (!old.empty() && !replace) return not_empty(location);
    // The store directory's parents are made as needed (an in-memory location has none).
    std::error_code ec;
    if (location.rfind(KVDB_LOCATION_MEM_PREFIX, 0) != 0)
        std::filesystem::create_directories(std::filesystem::path(location).parent_path(), ec);
    if (ec) return location + ": cannot create its directory: " + ec.message();
    // A write transaction reads the store's pages too (the tree it changes, the free pages).
    const StoreGuard guard(location);
    int32_t status = 0;
    kvdb_store *store = kvdb_create(location.c_str(), &status);
    if (store == nullptr) return location + ": cannot create the store: " + status_text(status);
    status = kvdb_txn_begin(store);
    for (const Bytes &k : old) {
        if (status != 0) break;
        const kvdb_datum key = datum(k);
        status = kvdb_delete(store, &key);
    }
    for (const auto &[k, v] : records) {
        if (status != 0) break;
        const kvdb_datum key = datum(k), value = datum(v);
        status = kvdb_put(store, &key, &value);
    }
    if (status == 0) status = kvdb_txn_commit(store);
    else kvdb_txn_abort(store);
    kvdb_close(store);
    return status == 0 ? "" : location + ": cannot write the store: " + status_text(status);
}

std::string write_fabric(const Fabric &fabric, const std::string &dir, const std::string &debug_dir, bool replace) {
    const std::vector<Record> config = config_records(fabric), debug = debug_records(fabric);
    const std::string debug_store = debug_location(debug_dir);
    std::vector<Bytes> old_debug;
    if (!existing_keys(debug_store, old_debug)) return damaged_text(debug_store);
    if (!replace) {
        std::vector<Bytes> old_config;
        if (!existing_keys(config_location(dir), old_config)) return damaged_text(config_location(dir));
        if (!old_config.empty()) return not_empty(config_location(dir));
        if (!old_debug.empty()) return not_empty(debug_store);
    }
    std::string error = write_store(config_location(dir), config, replace);
    // A fabric without a logging level writes no debug store, but empties one it replaces.
    if (error.empty() && (!debug.empty() || (replace && !old_debug.empty())))
        error = write_store(debug_store, debug, replace);
    return error;
}

std::string hex(const uint8_t *p, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(n * 3);
    for (size_t i = 0; i < n; ++i) {
        if (i != 0) out += ' ';
        out += digits[p[i] >> 4];
        out += digits[p[i] & 15];
    }
    return out;
}

Bytes be32(uint32_t v) { return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}; }

std::string format(const char *fmt, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    return buf;
}

bool valid_name(const std::string &name) {
    return !name.empty() && name.size() < ZFX_NAME_SIZE &&
           std::none_of(name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; });
}

std::string wwn_text(const Wwn &wwn) {
    char buf[FMT_WWN_SIZE];
    plat_wwn w;
    std::memcpy(w.bytes, wwn.data(), 8);
    return fmt_wwn(buf, w);
}

std::string lun_text(const Wwn &lun) {
    char buf[FMT_LUN_SIZE];
    return fmt_lun(buf, lun.data());
}

namespace {
bool hex_digit(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }
uint8_t hex_value(char c) { return uint8_t(c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10); }
}  // namespace

bool parse_wwn(const std::string &text, Wwn &out) {
    if (text.size() != 23) return false;
    Wwn w{};
    for (size_t i = 0; i < 8; ++i) {
        const size_t at = i * 3;
        if (!hex_digit(text[at]) || !hex_digit(text[at + 1]) || (i < 7 && text[at + 2] != ':')) return false;
        w[i] = uint8_t(hex_value(text[at]) << 4 | hex_value(text[at + 1]));
    }
    out = w;
    return true;
}

bool parse_lun(const std::string &text, Wwn &out) {
    // "0x" (or "0X"), then 1 to 4 levels of four digits joined by "-": 5n + 1 characters for n levels.
    if (text.size() < 2 || text[0] != '0' || (text[1] != 'x' && text[1] != 'X') || text.size() < 6 || text.size() > 21 || (text.size() - 1) % 5 != 0) return false;
    const size_t n = (text.size() - 1) / 5;
    Wwn l{};
    for (size_t level = 0; level < n; ++level) {
        const size_t at = 2 + level * 5;
        if (level > 0 && text[at - 1] != '-') return false;
        uint16_t v = 0;
        for (size_t d = 0; d < 4; ++d) {
            if (!hex_digit(text[at + d])) return false;
            v = uint16_t(v << 4 | hex_value(text[at + d]));
        }
        l[level * 2] = uint8_t(v >> 8);
        l[level * 2 + 1] = uint8_t(v);
    }
    out = l;
    return true;
}

const char *qos_word(uint32_t qos) {
    static const char *const words[] = {"none", "low", "medium", "high"};
    return qos < 4 ? words[qos] : "unknown";
}

std::string vsan_text(const vsan_bitset &set) {
    std::string text(VSAN_BITSET_TEXT_SIZE, '\0');
    text.resize(size_t(vsan_bitset_sprintf(text.data(), &set)));
    return text;
}

}  // namespace zfxtool
