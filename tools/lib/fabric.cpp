// The writer: a fabric model turned into the records the service writes, and written into stores.
#include "fabric.hpp"

#include <arpa/inet.h>

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <bit>
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

// Takes a record an encoder built into out, whose capacity a writer reuses from one record to
// the next (or throws when the encoder refused the node). length is read only here, after the
// encoder that sets it has run, whatever order the arguments were evaluated in.
void take(void *block, const uint32_t &length, const char *what, Bytes &out) {
    if (block == nullptr) throw std::runtime_error(std::string("the library refused to encode ") + what);
    out.assign(static_cast<uint8_t *>(block), static_cast<uint8_t *>(block) + length);
    std::free(block);
}

Bytes take(void *block, const uint32_t &length, const char *what) {
    Bytes out;
    take(block, length, what, out);
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

void check_zone_id(uint32_t id) {
    if (id == 0 || id > ZFX_ZONE_ID_MAX) throw std::runtime_error("zone id out of range: " + std::to_string(id));
}

// A zone node with its member bitmap; its member tree is left to the caller.
zfx_zone_node zone_node(const Zone &z) {
    check_zone_id(z.id);
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
        check_zone_id(zid);
        set_id_bit(node.zone_bitmap, zid);
    }
    return node;
}

// The values of the zone database's records, built into out (see take).
void zone_value(const Zone &zone, Bytes &out) {
    const zfx_zone_node node = zone_node(zone);
    uint32_t length = 0;
    take(zfx_zone_encode_zone_to_kvdb(&node, &length), length, "a zone", out);
}

void member_value(uint16_t member_id, const Member &member, Bytes &out) {
    const zfx_zone_member_node node = member_node(member, member_id);
    uint32_t length = 0;
    take(zfx_zone_encode_zone_member_to_kvdb(&node, &length), length, "a zone member", out);
}

void zoneset_value(const Zoneset &zoneset, Bytes &out) {
    const zfx_zoneset_node node = zoneset_node(zoneset.id, zoneset.name, zoneset.zones);
    uint32_t length = 0;
    take(zfx_zone_encode_zoneset_to_kvdb(&node, &length), length, "a zoneset", out);
}

// The active zoneset data made of the given zones, whole (active_records splits it).
Bytes active_data(const Active &active, const std::vector<const Zone *> &zones) {
    // The data is made of nodes in trees, as the service holds them in memory.
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
    return take(zfx_zone_zoneset_to_persistent_kvdb_data(&set, &length), length, "the active zoneset");
}

// The records of the configuration store as the writer plans them, in the order config_records
// lists them. The zone database's zone, member and zoneset records are planned as their keys and
// the objects they are made of, and their values built only when they are written, one at a
// time: a fabric of half a million members then costs a few megabytes of plan instead of a pair
// of vectors per record. Every other record (the fabric tables, the header, the options) is held
// whole: there are far fewer of them.
class ConfigPlan {
public:
    ConfigPlan(const Fabric &fabric, size_t chunk_size);

    size_t size() const { return entries_.size(); }
    // Record i's key, and its value (built into scratch, or pointing into the plan).
    std::string_view key(size_t i) const;
    std::string_view value(size_t i, Bytes &scratch) const;
    // Orders the records by key, as the store holds them, so that they can be appended. Of
    // records with the same key only the last one listed stays, the one a put would leave.
    void sort_by_key();

private:
    enum class Kind : uint8_t { held, zone, member, zoneset, chunk };
    // 20 bytes a record. The first bytes of every key are here, so that sorting compares most
    // keys without looking further; the zone database's six-byte keys are here whole.
    struct Entry {
        uint8_t head[8];  // the key's first 8 bytes, zeros after a shorter key
        uint32_t index;   // held: in held_; zone, member: the zone's in the fabric; zoneset: in the fabric; chunk: its number
        uint32_t listed;  // its place in config_records' order
        uint16_t member;  // a member's index in its zone
        Kind kind;
        uint8_t key_len;  // up to 255 (KVDB_KEY_MAX is larger, but the feature's keys are short)
    };

    void hold(Record record) {
        if (record.first.size() > 255) throw std::logic_error("a store key longer than 255 bytes");
        Entry &e = entries_.emplace_back(Entry{{}, uint32_t(held_.size()), uint32_t(entries_.size()), 0, Kind::held, uint8_t(record.first.size())});
        std::memcpy(e.head, record.first.data(), std::min(sizeof e.head, record.first.size()));
        held_.push_back(std::move(record));
    }
    void planned(Kind kind, uint8_t table, uint16_t first, uint16_t second, uint32_t index, uint16_t member = 0) {
        Entry &e = entries_.emplace_back(Entry{{}, index, uint32_t(entries_.size()), member, kind, ZFX_ZONE_DB_KEY_SIZE});
        zfx_zone_db_key(e.head, table, first, second);
    }
    std::string_view key(const Entry &e) const {
        if (e.kind == Kind::held) return {reinterpret_cast<const char *>(held_[e.index].first.data()), e.key_len};
        return {reinterpret_cast<const char *>(e.head), e.key_len};
    }
    // Bytewise key order (a shorter key before its extensions), then the order of the list. The
    // heads decide nearly every comparison of a sort, so that comparison is inline: the heads as
    // numbers whose order is the bytes' order.
    bool key_before(const Entry &a, const Entry &b) const {
        const uint64_t x = head_order(a), y = head_order(b);
        return x != y ? x < y : tie_before(a, b);
    }
    static uint64_t head_order(const Entry &e) {
        uint64_t v;
        std::memcpy(&v, e.head, sizeof v);
        return std::endian::native == std::endian::little ? __builtin_bswap64(v) : v;
    }
    // key_before of two entries with the same head.
    bool tie_before(const Entry &a, const Entry &b) const;
    void plan_zone_db();
    void plan_service_groups(const std::vector<ServiceGroup> &groups, uint8_t table);

    const Fabric &f_;
    size_t chunk_size_;
    std::vector<Entry> entries_;
    std::vector<Record> held_;
    Bytes active_;  // the active zoneset data, whole
};

ConfigPlan::ConfigPlan(const Fabric &f, size_t chunk_size) : f_(f), chunk_size_(chunk_size) {
    if (chunk_size == 0) throw std::invalid_argument("active zoneset chunks of 0 bytes");
    hold({{ZFX_KVDB_GLOBAL_FLAGS_KEY, 0x01}, bytes_of(f.flags)});
    hold({{ZFX_KVDB_NAT_KEY, 0x00}, {uint8_t(f.nat)}});
    hold({{ZFX_KVDB_AAM_KEY, 0x00}, {uint8_t(f.aam)}});
    hold({{ZFX_KVDB_DISTRIBUTE_KEY, 0x00}, be32(f.distribute ? 1 : 0)});
    if (f.vdom_list) hold({{ZFX_KVDB_VDOM_LIST_KEY, 0x00}, set_bytes(*f.vdom_list)});
    for (const auto &[afid, set] : f.vdoms) {
        const zfx_rdi_kvdb_key key{ZFX_RDI_TABLE, 0, afid};
        hold({bytes_of(key), set_bytes(set)});
    }

    plan_zone_db();

    for (const TopologyEntry &t : f.topology) {
        zfx_vt_kvdb_key key{ZFX_VT_TABLE, ZFX_VT_KIND_ENTRY, t.afid, {}, t.membership};
        std::memcpy(key.wwn, t.wwn.data(), 8);
        hold({bytes_of(key), set_bytes(t.vsans)});
    }
    zfx_vt_mode_record mode{};
    mode.mode = htonl(f.topology_auto ? ZFX_VT_MODE_AUTO : 0);
    hold({{ZFX_VT_TABLE, ZFX_VT_KIND_MODE}, bytes_of(mode)});

    for (const AfidEntry &a : f.afids) {
        zfx2_afid_table_kvdb_key key{uint8_t(a.is_default ? ZFX2_AFID_DEFAULT_TABLE : ZFX2_AFID_TABLE), ZFX2_AFID_KIND, {}, a.afid};
        std::memcpy(key.wwn, a.wwn.data(), 8);
        hold({bytes_of(key), set_bytes(a.vsans)});
    }

    plan_service_groups(f.groups_configured, ZFX2_SG_CFG_TABLE);
    plan_service_groups(f.groups_active, ZFX2_SG_ACTIVE_TABLE);
    const uint32_t policy = f.group_policy_deny ? 1 : 0;
    hold({{ZFX2_SG_ACTIVE_TABLE, ZFX2_SG_KIND_POLICY}, bytes_of(policy)});

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
        hold({bytes_of(key), bytes_of(value)});
    }
    for (const PfcidFcid &p : f.pfcid_fcids) {
        zfx2_pfcid_key key = pfcid_key(ZFX2_PFCID_KIND_FCID, p.afid, p.vsan);
        std::memcpy(key.id.pwwn, p.pwwn.data(), 8);
        const zfx2_pfcid_value value{{0, p.fcid[0], p.fcid[1], p.fcid[2]}, 0};
        hold({bytes_of(key), bytes_of(value)});
    }
}

// Every check the encoders' nodes make is made here, before anything is written.
void ConfigPlan::plan_zone_db() {
    std::map<uint16_t, const Zone *> zones;
    for (size_t i = 0; i < f_.zones.size(); ++i) {
        const Zone &z = f_.zones[i];
        if (!zones.emplace(z.id, &z).second) throw std::runtime_error("zone id used twice: " + std::to_string(z.id));
        check_zone_id(z.id);
        planned(Kind::zone, ZFX_KVDB_ZONE_KEY, z.id, 0, uint32_t(i));
        const std::vector<uint16_t> ids = member_ids(z);  // checks them
        for (size_t m = 0; m < ids.size(); ++m) planned(Kind::member, ZFX_KVDB_ZONE_MEMBER_KEY, ids[m], z.id, uint32_t(i), uint16_t(m));
    }
    std::vector<uint16_t> zoneset_ids;
    for (size_t i = 0; i < f_.zonesets.size(); ++i) {
        const Zoneset &s = f_.zonesets[i];
        if (std::find(zoneset_ids.begin(), zoneset_ids.end(), s.id) != zoneset_ids.end())
            throw std::runtime_error("zoneset id used twice: " + std::to_string(s.id));
        zoneset_ids.push_back(s.id);
        for (uint16_t zid : s.zones)
            if (zones.count(zid) == 0) throw std::runtime_error("zoneset " + s.name + " names no zone with id " + std::to_string(zid));
        (void)zoneset_node(s.id, s.name, s.zones);  // its id's range
        planned(Kind::zoneset, ZFX_KVDB_ZONESET_KEY, s.id, 0, uint32_t(i));
    }
    std::vector<uint16_t> zone_ids;
    for (const auto &entry : zones) zone_ids.push_back(entry.first);
    hold(zone_db_header_record(zone_ids, zoneset_ids));
    hold(zone_options_record(f_.active && f_.active->force));
    if (!f_.active) return;
    std::vector<const Zone *> active_zones;
    for (uint16_t id : std::set<uint16_t>(f_.active->zones.begin(), f_.active->zones.end())) {
        const auto it = zones.find(id);
        if (it == zones.end()) throw std::runtime_error("no zone with id " + std::to_string(id));
        active_zones.push_back(it->second);
    }
    active_ = active_data(*f_.active, active_zones);
    hold({zone_db_key(ZFX_KVDB_ACTIVE_ZONESET_KEY, 0, 0), be32(uint32_t(active_.size()))});
    const size_t chunks = (active_.size() + chunk_size_ - 1) / chunk_size_;
    for (size_t n = 1; n <= chunks; ++n) planned(Kind::chunk, ZFX_KVDB_ACTIVE_ZONESET_KEY, 0, uint16_t(n), uint32_t(n));
}

void ConfigPlan::plan_service_groups(const std::vector<ServiceGroup> &groups, uint8_t table) {
    for (const ServiceGroup &g : groups) {
        const zfx2_sg_kvdb_id_key name_key{table, ZFX2_SG_KIND_NAME, g.id};
        Bytes name(ZFX2_SG_NAME_SIZE, 0);
        std::memcpy(name.data(), g.name.data(), std::min<size_t>(g.name.size(), ZFX2_SG_NAME_SIZE - 1));
        hold({bytes_of(name_key), name});
        for (const GroupMember &m : g.members) {
            const zfx2_sg_kvdb_key key{table, ZFX2_SG_KIND_MEMBER, g.id, m.afid};
            hold({bytes_of(key), set_bytes(m.vsans)});
        }
    }
}

std::string_view ConfigPlan::key(size_t i) const { return key(entries_[i]); }

std::string_view ConfigPlan::value(size_t i, Bytes &scratch) const {
    const Entry &e = entries_[i];
    const auto view = [](const Bytes &b, size_t at = 0, size_t n = SIZE_MAX) {
        return std::string_view(reinterpret_cast<const char *>(b.data()) + at, std::min(n, b.size() - at));
    };
    switch (e.kind) {
        case Kind::held: return view(held_[e.index].second);
        case Kind::chunk: return view(active_, (e.index - 1) * chunk_size_, chunk_size_);
        case Kind::zone: zone_value(f_.zones[e.index], scratch); break;
        case Kind::zoneset: zoneset_value(f_.zonesets[e.index], scratch); break;
        case Kind::member: {
            uint16_t id;  // the key's first id
            std::memcpy(&id, e.head + 2, sizeof id);
            member_value(id, f_.zones[e.index].members[e.member], scratch);
            break;
        }
    }
    return view(scratch);
}

bool ConfigPlan::tie_before(const Entry &a, const Entry &b) const {
    if (a.key_len > 8 && b.key_len > 8) {
        if (const int c = key(a).compare(key(b)); c != 0) return c < 0;
    } else if (a.key_len != b.key_len) {
        return a.key_len < b.key_len;  // the heads end in zeros: the shorter key is the other's start
    }
    return a.listed < b.listed;
}

void ConfigPlan::sort_by_key() {
    std::sort(entries_.begin(), entries_.end(), [this](const Entry &a, const Entry &b) { return key_before(a, b); });
    // Of a run of equal keys the last one listed stays.
    size_t kept = 0;
    for (size_t i = 0; i < entries_.size(); ++i)
        if (i + 1 == entries_.size() || key(entries_[i]) != key(entries_[i + 1])) entries_[kept++] = entries_[i];
    entries_.resize(kept);
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
    Record r{zone_db_key(ZFX_KVDB_ZONE_KEY, zone.id, 0), {}};
    zone_value(zone, r.second);
    return r;
}

Record member_record(uint16_t zone_id, uint16_t member_id, const Member &member) {
    Record r{zone_db_key(ZFX_KVDB_ZONE_MEMBER_KEY, member_id, zone_id), {}};
    member_value(member_id, member, r.second);
    return r;
}

Record zoneset_record(const Zoneset &zoneset) {
    Record r{zone_db_key(ZFX_KVDB_ZONESET_KEY, zoneset.id, 0), {}};
    zoneset_value(zoneset, r.second);
    return r;
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
    const Bytes data = active_data(active, zones);
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
    const ConfigPlan plan(f, chunk_size);
    std::vector<Record> out;
    out.reserve(plan.size());
    Bytes scratch;
    for (size_t i = 0; i < plan.size(); ++i) {
        const std::string_view k = plan.key(i), v = plan.value(i, scratch);
        out.push_back({Bytes(k.begin(), k.end()), Bytes(v.begin(), v.end())});
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

// Whether the store at location is there, absent or damaged, and whether it holds records (read
// whole, so that damage shows before anything is written).
StoreState store_state(const std::string &location, bool &holds_records) {
    holds_records = false;
    return walk_store(location, [&holds_records](const uint8_t *, uint32_t, const uint8_t *, uint32_t) { holds_records = true; });
}

std::string not_empty(const std::string &location) {
    return location + ": the store is not empty (use --replace to overwrite it)";
}

kvdb_datum datum(const Bytes &b) { return {const_cast<uint8_t *>(b.data()), uint32_t(b.size())}; }
kvdb_datum datum(std::string_view s) { return {const_cast<char *>(s.data()), uint32_t(s.size())}; }

using StorePtr = std::unique_ptr<kvdb_store, decltype(&kvdb_close)>;

// Writes the store at location in one transaction: the records it holds go first (when replace
// allows it; a damaged store is refused), then write puts the new ones and answers a store
// status. An exception from write leaves the store as it was (closing the handle aborts).
template <typename Write>
std::string write_with(const std::string &location, bool replace, Write &&write) {
    bool old = false;
    const StoreState state = store_state(location, old);
    if (state == StoreState::damaged) return damaged_text(location);
    if (old && !replace) return not_empty(location);
    // The store directory's parents are made as needed (an in-memory location has none).
    std::error_code ec;
    if (location.rfind(KVDB_LOCATION_MEM_PREFIX, 0) != 0)
        std::filesystem::create_directories(std::filesystem::path(location).parent_path(), ec);
    if (ec) return location + ": cannot create its directory: " + ec.message();
    // A write transaction reads the store's pages too (the tree it changes, the free pages).
    const StoreGuard guard(location);
    int32_t status = 0;
    const StorePtr store(kvdb_create(location.c_str(), &status), kvdb_close);
    if (store == nullptr) return location + ": cannot create the store: " + status_text(status);
    // Emptied whole rather than key by key: deleting a key moves the contents of its page,
    // which LMDB does by the page's own offsets, trusted even where the walk could not check them.
    status = kvdb_txn_begin(store.get());
    if (status == 0 && old) status = kvdb_clear(store.get());
    if (status == 0) status = write(store.get());
    if (status == 0) status = kvdb_txn_commit(store.get());
    else kvdb_txn_abort(store.get());
    // A write reads pages that no walk of the records does (the tree of free pages): a store that
    // was there and fails there is as damaged as one whose records do not read.
    if (status == KVDB_ERR_IO && state == StoreState::readable) return damaged_text(location);
    return status == 0 ? "" : location + ": cannot write the store: " + status_text(status);
}

// The configuration store's records in key order, appended: the store, emptied first, takes
// them without a search for each key's place, and each value is built as it is written.
std::string write_config(const std::string &location, ConfigPlan &plan, bool replace) {
    plan.sort_by_key();
    return write_with(location, replace, [&plan](kvdb_store *store) {
        Bytes scratch;
        int32_t status = 0;
        for (size_t i = 0; i < plan.size() && status == 0; ++i) {
            const kvdb_datum key = datum(plan.key(i)), value = datum(plan.value(i, scratch));
            status = kvdb_append(store, &key, &value);
        }
        return status;
    });
}

}  // namespace

std::string write_store(const std::string &location, const std::vector<Record> &records, bool replace) {
    return write_with(location, replace, [&records](kvdb_store *store) {
        int32_t status = 0;
        for (auto it = records.begin(); it != records.end() && status == 0; ++it) {
            const kvdb_datum key = datum(it->first), value = datum(it->second);
            status = kvdb_put(store, &key, &value);
        }
        return status;
    });
}

std::string write_fabric(const Fabric &fabric, const std::string &dir, const std::string &debug_dir, bool replace) {
    ConfigPlan config(fabric, kActiveChunkSize);
    const std::vector<Record> debug = debug_records(fabric);
    const std::string debug_store = debug_location(debug_dir);
    bool old_debug = false, old_config = false;
    if (store_state(debug_store, old_debug) == StoreState::damaged) return damaged_text(debug_store);
    if (!replace) {
        if (store_state(config_location(dir), old_config) == StoreState::damaged) return damaged_text(config_location(dir));
        if (old_config) return not_empty(config_location(dir));
        if (old_debug) return not_empty(debug_store);
    }
    std::string error = write_config(config_location(dir), config, replace);
    // A fabric without a logging level writes no debug store, but empties one it replaces.
    if (error.empty() && (!debug.empty() || (replace && old_debug)))
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

bool parse_wwn(std::string_view text, Wwn &out) {
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

bool parse_lun(std::string_view text, Wwn &out) {
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
