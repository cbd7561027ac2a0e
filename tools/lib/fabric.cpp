// The writer: a fabric model turned into the records the service writes, and written into stores.
#include "fabric.hpp"

#include <arpa/inet.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <memory>
#include <set>
#include <stdexcept>

#include "platform/fmt.h"
#include "platform/kvdb.h"
#include "platform/tree.h"
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

Bytes key6(uint8_t table, uint16_t first, uint16_t second) {
    Bytes key(ZFX_ZONE_DB_KEY_SIZE);
    zfx_zone_db_key(key.data(), table, first, second);
    return key;
}

Bytes be32(uint32_t v) { return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}; }

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

// The zone database as the service holds it in memory: nodes in trees, built from the model.
class NodeDb {
public:
    explicit NodeDb(const Fabric &fabric) {
        for (const Zone &z : fabric.zones) {
            if (z.id == 0 || z.id > ZFX_ZONE_ID_MAX) throw std::runtime_error("zone id out of range: " + std::to_string(z.id));
            if (z.members.size() > ZFX_ZONE_MEMBER_ID_MAX)
                throw std::runtime_error("zone " + z.name + " has more than 2047 members");
            zfx_zone_node &node = zones_.emplace_back();
            node.id = z.id;
            copy_name(node.name, z.name);
            node.members = tree();
            const uint32_t bits = ZFX_MEMBER_BITMAP_SIZE;  // the bitmap's count word
            std::memcpy(node.member_bitmap, &bits, 4);
            node.qos = z.qos;
            node.read_only = z.read_only ? 1 : 0;
            uint32_t member_id = 0;
            for (const Member &m : z.members) {
                zfx_zone_member_node &mn = members_.emplace_back();
                mn.id = ++member_id;
                mn.type = m.type;
                mn.vsan = m.vsan;
                mn.afid = m.afid;
                std::memcpy(mn.pwwn, m.pwwn.data(), 8);
                std::memcpy(mn.lun, m.lun.data(), 8);
                copy_name(mn.device_alias, m.alias);
                tree_insert(node.members, &mn);
                set_id_bit(node.member_bitmap + 4, mn.id);
            }
            if (!by_zone_id_.emplace(z.id, &node).second) throw std::runtime_error("zone id used twice: " + std::to_string(z.id));
        }
    }

    zfx_zone_node &zone(uint16_t id) const {
        const auto it = by_zone_id_.find(id);
        if (it == by_zone_id_.end()) throw std::runtime_error("no zone with id " + std::to_string(id));
        return *it->second;
    }

    // A zoneset node; with_tree also links the zone nodes (as the active zoneset's data needs).
    zfx_zoneset_node zoneset(uint16_t id, const std::string &name, const std::vector<uint16_t> &zone_ids, bool with_tree) {
        zfx_zoneset_node node{};
        node.id = id;
        copy_name(node.name, name);
        node.zones = with_tree ? tree() : nullptr;
        for (uint16_t zid : zone_ids) {
            zfx_zone_node &z = zone(zid);
            set_id_bit(node.zone_bitmap, zid);
            if (with_tree) tree_insert(node.zones, &z);
        }
        return node;
    }

    const std::deque<zfx_zone_node> &zones() const { return zones_; }

private:
    plat_tree *tree() { return trees_.emplace_back(tree_create(by_id), tree_destroy).get(); }

    std::deque<zfx_zone_member_node> members_;
    std::deque<zfx_zone_node> zones_;
    std::map<uint16_t, zfx_zone_node *> by_zone_id_;
    std::vector<TreePtr> trees_;
};

void add_zone_db(const Fabric &fabric, size_t chunk_size, std::vector<Record> &out) {
    NodeDb db(fabric);
    zfx_zone_db_header header{};
    uint32_t length = 0;
    for (const zfx_zone_node &z : db.zones()) {
        set_id_bit(header.zones, z.id);
        out.push_back({key6(ZFX_KVDB_ZONE_KEY, uint16_t(z.id), 0), take(zfx_zone_encode_zone_to_kvdb(&z, &length), length, "a zone")});
        tree_walker walker{};
        while (auto *m = static_cast<zfx_zone_member_node *>(tree_walk(z.members, &walker)))
            out.push_back({key6(ZFX_KVDB_ZONE_MEMBER_KEY, uint16_t(m->id), uint16_t(z.id)),
                           take(zfx_zone_encode_zone_member_to_kvdb(m, &length), length, "a zone member")});
    }
    std::set<uint16_t> zoneset_ids;
    for (const Zoneset &s : fabric.zonesets) {
        if (s.id == 0 || s.id > ZFX_ZONESET_ID_MAX || !zoneset_ids.insert(s.id).second)
            throw std::runtime_error("zoneset id out of range or used twice: " + std::to_string(s.id));
        set_id_bit(header.zonesets, s.id);
        const zfx_zoneset_node node = db.zoneset(s.id, s.name, s.zones, false);
        out.push_back({key6(ZFX_KVDB_ZONESET_KEY, s.id, 0), take(zfx_zone_encode_zoneset_to_kvdb(&node, &length), length, "a zoneset")});
    }
    // The short bitmap is the full one's first bytes, as the service keeps both.
    std::memcpy(header.zones_short, header.zones, sizeof header.zones_short);
    header.zones_length = ZFX_ZONE_BITMAP_SIZE;
    out.push_back({{ZFX_KVDB_ZONE_DB_HEADER_KEY, 0}, bytes_of(header)});
    out.push_back({{ZFX_KVDB_ZONE_OPTIONS_KEY, 0}, be32(fabric.active && fabric.active->force ? ZFX_ZONE_OPTIONS_FORCE : 0)});
    if (!fabric.active) return;

    const zfx_zoneset_node active = db.zoneset(fabric.active->id, fabric.active->name, fabric.active->zones, true);
    const Bytes data = take(zfx_zone_zoneset_to_persistent_kvdb_data(&active, &length), length, "the active zoneset");
    out.push_back({key6(ZFX_KVDB_ACTIVE_ZONESET_KEY, 0, 0), be32(uint32_t(data.size()))});
    uint16_t chunk = 0;
    for (size_t at = 0; at < data.size(); at += chunk_size) {
        const size_t end = std::min(data.size(), at + chunk_size);
        out.push_back({key6(ZFX_KVDB_ACTIVE_ZONESET_KEY, 0, ++chunk), Bytes(data.begin() + long(at), data.begin() + long(end))});
    }
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

// The keys a store holds now; a location that holds no store has none.
std::vector<Bytes> existing_keys(const std::string &location) {
    std::vector<Bytes> keys;
    kvdb_store *store = kvdb_open(location.c_str(), nullptr);
    if (store == nullptr) return keys;
    kvdb_cursor cursor{};
    for (kvdb_datum *k = kvdb_move2location(store, KVDB_LOC_FIRST, &cursor); k != nullptr;
         k = kvdb_move2location(store, KVDB_LOC_NEXT, &cursor))
        keys.emplace_back(static_cast<uint8_t *>(k->data), static_cast<uint8_t *>(k->data) + k->len);
    kvdb_close(store);
    return keys;
}

kvdb_datum datum(const Bytes &b) { return {const_cast<uint8_t *>(b.data()), uint32_t(b.size())}; }

}  // namespace

std::string write_store(const std::string &location, const std::vector<Record> &records, bool replace) {
    const std::vector<Bytes> old = existing_keys(location);
    if (!old.empty() && !replace) return location + ": the store is not empty (use --replace to overwrite it)";
    // The store directory's parents are made as needed (an in-memory location has none).
    std::error_code ec;
    if (location.rfind(KVDB_LOCATION_MEM_PREFIX, 0) != 0)
        std::filesystem::create_directories(std::filesystem::path(location).parent_path(), ec);
    if (ec) return location + ": cannot create its directory: " + ec.message();
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
    if (!replace) {
        for (const std::string &loc : {config_location(dir), debug_location(debug_dir)})
            if (!existing_keys(loc).empty()) return loc + ": the store is not empty (use --replace to overwrite it)";
    }
    std::string error = write_store(config_location(dir), config, replace);
    // A fabric without a logging level writes no debug store, but empties one it replaces.
    const std::string debug_store = debug_location(debug_dir);
    if (error.empty() && (!debug.empty() || (replace && !existing_keys(debug_store).empty())))
        error = write_store(debug_store, debug, replace);
    return error;
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
    // "0x", then 1 to 4 levels of four digits joined by "-": 5n + 1 characters for n levels.
    if (text.rfind("0x", 0) != 0 || text.size() < 6 || text.size() > 21 || (text.size() - 1) % 5 != 0) return false;
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
