// The zone database: rebuilt from the store's records, changed one transaction at a time.
#include "zone_db.hpp"

#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>
#include <set>
#include <stdexcept>

#include "platform/tlvbuf.h"
#include "tlv.hpp"
#include "zfx_ascii_cfg.h"
#include "zfx_zone_db.h"
#include "zfx_zone_msg.h"
#include "zfxd_protocol.h"

namespace zfxd {
namespace {

using zfxtool::load;


// A NUL-terminated name within its field of max bytes, or nothing.
std::optional<std::string> name_at(const uint8_t *p, size_t max) {
    const size_t n = strnlen(reinterpret_cast<const char *>(p), max);
    if (n == max) return std::nullopt;
    return std::string(reinterpret_cast<const char *>(p), n);
}

Bytes service_key(uint32_t key) {
    Bytes k{uint8_t(ZFXD_KVDB_SERVICE_TABLE), 0, 0, 0, 0, 0};
    std::memcpy(k.data() + 2, &key, 4);
    return k;
}

Bytes flags_key() { return {uint8_t(ZFX_KVDB_GLOBAL_FLAGS_KEY), 0x01}; }

// The ids of a zoneset's zones in a stored zoneset record's array: the full bitmap (type 60)
// when the record has one, else the short one (type 4).
bool zoneset_zones(const uint8_t *array, size_t len, std::vector<uint16_t> &zones) {
    const uint8_t *short_map = nullptr, *full_map = nullptr;
    size_t short_len = 0;
    const bool ok = zfxtool::tlv_elements(array, len, [&](uint16_t type, uint16_t n, const uint8_t *v) {
        if (type == ZFX_TLV_ZONESET_ZONES_EXT && n >= 4 + ZFX_ZONE_BITMAP_SIZE) full_map = v + 4;
        if (type == ZFX_TLV_ZONESET_ZONES && n >= 4) {
            short_map = v + 4;
            short_len = n - 4u;
        }
    });
    if (!ok) return false;
    for (uint32_t id = 1; id <= ZFX_ZONE_ID_MAX; ++id) {
        const bool in = full_map != nullptr ? zfxtool::id_bit(full_map, id) : short_map != nullptr && id / 8 < short_len && zfxtool::id_bit(short_map, id);
        if (in) zones.push_back(uint16_t(id));
    }
    return true;
}

// The zone ids of the active zoneset data, each zone entry checked to lie within the data.
bool active_zones(const uint8_t *data, size_t len, ActiveState &active) {
    if (len < 72) return false;
    const auto name = name_at(data + 2, ZFX_NAME_SIZE);
    if (!name) return false;
    active.id = load<uint16_t>(data);
    active.name = *name;
    const uint32_t member_entry = 8 + tlvbuf_size_get(8) + tlvbuf_size_get(4) + tlvbuf_size_get(4);
    const uint16_t count = load<uint16_t>(data + 70);
    size_t at = 72;
    for (uint16_t i = 0; i < count; ++i) {
        if (len - at < 72) return false;
        active.zones.push_back(load<uint16_t>(data + at));
        const size_t members = load<uint16_t>(data + at + 70);
        if ((len - at - 72) / member_entry < members) return false;
        at += 72 + members * member_entry;
    }
    return true;
}

}  // namespace

ZoneDb::~ZoneDb() { kvdb_close(writer_); }

std::string ZoneDb::open(const std::string &location) {
    int32_t status = 0;
    writer_ = kvdb_create(location.c_str(), &status);
    if (writer_ == nullptr) return location + ": cannot open the store for writing (status " + std::to_string(status) + ")";
    kvdb_store *reader = kvdb_open(location.c_str(), &status);
    if (reader == nullptr) return location + ": cannot open the store for reading (status " + std::to_string(status) + ")";
    std::string error = rebuild(reader, location);
    const auto present = [&](const Bytes &key) {
        const kvdb_datum k{const_cast<uint8_t *>(key.data()), uint32_t(key.size())};
        return kvdb_fetch(reader, &k, nullptr) != nullptr;
    };
    const bool whole = present({ZFX_KVDB_ZONE_DB_HEADER_KEY, 0}) && present({ZFX_KVDB_ZONE_OPTIONS_KEY, 0});
    kvdb_close(reader);
    index();
    if (!error.empty() || whole) return error;
    // A new store (or one written without them) gets the header and the options word of the
    // database it holds, so that it reads as a zone database from the first change on.
    std::vector<uint16_t> zone_ids, zoneset_ids;
    for (const auto &entry : zones_) zone_ids.push_back(entry.first);
    for (const auto &entry : zonesets_) zoneset_ids.push_back(entry.first);
    status = kvdb_txn_begin(writer_);
    for (const auto &[k, v] : {zfxtool::zone_db_header_record(zone_ids, zoneset_ids), zfxtool::zone_options_record(active_ && active_->force)}) {
        const kvdb_datum key{const_cast<uint8_t *>(k.data()), uint32_t(k.size())}, value{const_cast<uint8_t *>(v.data()), uint32_t(v.size())};
        if (status == 0) status = kvdb_put(writer_, &key, &value);
    }
    if (status == 0) status = kvdb_txn_commit(writer_);
    else kvdb_txn_abort(writer_);
    return status == 0 ? "" : location + ": cannot initialise the store (status " + std::to_string(status) + ")";
}

std::string ZoneDb::rebuild(kvdb_store *store, const std::string &location) {
    std::map<uint16_t, std::map<uint16_t, Member>> members;  // by zone id, member id
    std::optional<uint32_t> options;
    uint32_t chunk_records = 0;
    kvdb_cursor cursor{};
    for (kvdb_datum *k = kvdb_move2location(store, KVDB_LOC_FIRST, &cursor); k != nullptr;
         k = kvdb_move2location(store, KVDB_LOC_NEXT, &cursor)) {
        const auto *kp = static_cast<const uint8_t *>(k->data);
        const kvdb_datum *v = kvdb_getvalue(store, &cursor);
        if (v == nullptr) return location + ": a record cannot be read (key " + zfxtool::hex(kp, k->len) + ")";
        const auto *vp = static_cast<const uint8_t *>(v->data);
        const uint32_t vlen = vp != nullptr ? v->len : 0;
        const std::string bad = location + ": a malformed record (key " + zfxtool::hex(kp, k->len) + ", " + std::to_string(vlen) + " value bytes)";
        const uint8_t table = kp[0];
        const bool six = k->len == ZFX_ZONE_DB_KEY_SIZE;
        const uint16_t first = six ? load<uint16_t>(kp + 2) : 0, second = six ? load<uint16_t>(kp + 4) : 0;
        if (table == ZFX_KVDB_ZONE_KEY) {
            if (!six || second != 0 || first == 0 || first > ZFX_ZONE_ID_MAX || vlen < sizeof(zfx_zone_rec_head)) return bad;
            Zone z;
            z.id = first;
            const auto name = name_at(vp + 4, ZFX_NAME_SIZE);
            if (!name || name->empty()) return bad;
            z.name = *name;
            const bool ok = zfxtool::tlv_elements(vp + 72, vlen - 72u, [&](uint16_t type, uint16_t n, const uint8_t *val) {
                if (type == ZFX_TLV_ZONE_QOS && n >= 4) z.qos = load<uint32_t>(val);
                if (type == ZFX_TLV_ZONE_READ_ONLY && n >= 4) z.read_only = ntohl(load<uint32_t>(val)) == 1;
            });
            if (!ok || z.qos > ZFX_ZONE_QOS_HIGH) return bad;
            zones_.emplace(z.id, std::move(z));
        } else if (table == ZFX_KVDB_ZONE_MEMBER_KEY) {
            if (!six || first == 0 || first > ZFX_ZONE_MEMBER_ID_MAX || vlen < sizeof(zfx_member_rec_head) ||
                !zfxtool::tlv_elements(vp + 4, vlen - 4u, [](uint16_t, uint16_t, const uint8_t *) {}))
                return bad;
            zfx_zone_member_node node{};
            if (zfx_zone_decode_member_from_kvdb_cfg(vp, &node) != 0) return bad;
            Member m;
            m.id = first;
            m.type = uint8_t(node.type);
            m.vsan = node.vsan;
            m.afid = node.afid;
            std::memcpy(m.pwwn.data(), node.pwwn, 8);
            std::memcpy(m.lun.data(), node.lun, 8);
            m.alias = node.device_alias;
            members[second][first] = std::move(m);
        } else if (table == ZFX_KVDB_ZONESET_KEY) {
            if (!six || second != 0 || first == 0 || first > ZFX_ZONESET_ID_MAX || vlen < sizeof(zfx_zone_rec_head)) return bad;
            Zoneset s;
            s.id = first;
            const auto name = name_at(vp + 4, ZFX_NAME_SIZE);
            if (!name || name->empty() || !zoneset_zones(vp + 72, vlen - 72u, s.zones)) return bad;
            s.name = *name;
            zonesets_.emplace(s.id, std::move(s));
        } else if (table == ZFX_KVDB_ZONE_OPTIONS_KEY && k->len == 2) {
            if (vlen < 4) return bad;
            options = ntohl(load<uint32_t>(vp));
        } else if (table == ZFX_KVDB_ACTIVE_ZONESET_KEY) {
            if (!six || first != 0) return bad;
            if (second != 0) ++chunk_records;
        } else if (table == ZFX_KVDB_NAT_KEY && k->len == 2) {
            nat_ = vlen >= 1 && vp[0] != 0;
        } else if (table == ZFX_KVDB_GLOBAL_FLAGS_KEY && k->len == 2 && kp[1] == 0x01) {
            // A shorter value fills the word from its first byte, as the text generator reads it.
            flags_ = 0;
            std::memcpy(&flags_, vp != nullptr ? vp : reinterpret_cast<const uint8_t *>(""), std::min<uint32_t>(vlen, 4));
        } else if (table == ZFXD_KVDB_SERVICE_TABLE) {
            if (!six) return bad;
            const uint32_t key = load<uint32_t>(kp + 2);
            if (key == ZFX_INFO_KEY_ACTIVATE_TIME) {
                if (vlen != 8) return bad;
                if (!active_) active_.emplace();
                active_->seconds = load<uint32_t>(vp);
                active_->micros = load<uint32_t>(vp + 4);
            } else {
                info_[key] = std::string(reinterpret_cast<const char *>(vp), vlen);
            }
        }
    }

    // Members belong to zones that exist; each zone lists its members in id order.
    for (auto &[zone_id, by_id] : members) {
        const auto it = zones_.find(zone_id);
        if (it == zones_.end())
            return location + ": member records of zone " + std::to_string(zone_id) + ", which does not exist";
        for (auto &entry : by_id) it->second.members.push_back(std::move(entry.second));
    }
    for (const auto &[id, s] : zonesets_)
        for (uint16_t z : s.zones)
            if (zones_.count(z) == 0) return location + ": zoneset " + s.name + " holds zone " + std::to_string(z) + ", which does not exist";

    // The active zoneset: the data joined from its chunks must be whole and decode.
    void *data = zfx_zone_restore_active_pzs_from_kvdb(store);
    if (data != nullptr) {
        int32_t status = 0;
        const Bytes head_key = zfxtool::zone_db_key(ZFX_KVDB_ACTIVE_ZONESET_KEY, 0, 0);
        const kvdb_datum hk{const_cast<uint8_t *>(head_key.data()), uint32_t(head_key.size())};
        const kvdb_datum *head = kvdb_fetch(store, &hk, &status);
        const uint32_t total = head != nullptr && head->len >= 4 ? ntohl(load<uint32_t>(static_cast<uint8_t *>(head->data))) : 0;
        uint64_t stored = 0;
        for (uint16_t n = 1; n <= chunk_records; ++n) {
            const Bytes ck = zfxtool::zone_db_key(ZFX_KVDB_ACTIVE_ZONESET_KEY, 0, n);
            const kvdb_datum key{const_cast<uint8_t *>(ck.data()), uint32_t(ck.size())};
            const kvdb_datum *chunk = kvdb_fetch(store, &key, &status);
            if (chunk == nullptr) break;
            stored += chunk->len;
        }
        ActiveState a = active_.value_or(ActiveState{});
        a.zones.clear();
        const bool ok = stored == total && active_zones(static_cast<uint8_t *>(data), total, a);
        std::free(data);
        if (!ok) return location + ": the active zoneset data is incomplete or malformed";
        a.force = options && (*options & ZFX_ZONE_OPTIONS_FORCE) != 0;
        a.chunks = chunk_records;
        active_ = std::move(a);
    } else if (active_ && chunk_records == 0) {
        active_.reset();  // an activation time without data: nothing is active
    }
    return "";
}

void ZoneDb::index() {
    zone_ids_.clear();
    zoneset_ids_.clear();
    for (const auto &[id, z] : zones_) zone_ids_[z.name] = id;
    for (const auto &[id, s] : zonesets_) zoneset_ids_[s.name] = id;
}

const Zone *ZoneDb::zone(uint16_t id) const {
    const auto it = zones_.find(id);
    return it != zones_.end() ? &it->second : nullptr;
}

const Zone *ZoneDb::zone(const std::string &name) const {
    const auto it = zone_ids_.find(name);
    return it != zone_ids_.end() ? zone(it->second) : nullptr;
}

const Zoneset *ZoneDb::zoneset(uint16_t id) const {
    const auto it = zonesets_.find(id);
    return it != zonesets_.end() ? &it->second : nullptr;
}

const Zoneset *ZoneDb::zoneset(const std::string &name) const {
    const auto it = zoneset_ids_.find(name);
    return it != zoneset_ids_.end() ? zoneset(it->second) : nullptr;
}

std::optional<std::string> ZoneDb::info(uint32_t key) const {
    const auto it = info_.find(key);
    if (it == info_.end()) return std::nullopt;
    return it->second;
}

uint32_t ZoneDb::member_count() const {
    uint32_t n = 0;
    for (const auto &[id, z] : zones_) n += uint32_t(z.members.size());
    return n;
}

namespace {

// The lowest id from 1 to max that the map does not hold, 0 when all are taken.
template <typename Map>
uint16_t lowest_free(const Map &map, uint32_t max) {
    uint32_t want = 1;
    for (const auto &entry : map) {
        if (entry.first != want) break;
        ++want;
    }
    return want <= max ? uint16_t(want) : 0;
}

}  // namespace

uint16_t ZoneDb::free_zone_id() const { return lowest_free(zones_, ZFX_ZONE_ID_MAX); }
uint16_t ZoneDb::free_zoneset_id() const { return lowest_free(zonesets_, ZFX_ZONESET_ID_MAX); }

uint16_t ZoneDb::free_member_id(const Zone &zone) {
    uint32_t want = 1;
    for (const Member &m : zone.members) {
        if (m.id != want) break;
        ++want;
    }
    return want <= ZFX_ZONE_MEMBER_ID_MAX ? uint16_t(want) : 0;
}

// ---- changes ---------------------------------------------------------------------------------

ZoneDb::Change::~Change() {
    if (!done_) rollback();
}

// One kind of named object of the database (zones, zonesets) as a change sees it: the objects by
// id, their ids by name, and each touched object as it was before the change (nothing: it did not
// exist). Every edit goes through here, so that an undo is always possible.
template <typename T>
struct Kind {
    std::map<uint16_t, T> &items;
    std::map<std::string, uint16_t> &ids;
    std::map<uint16_t, std::optional<T>> &before;

    void touch(uint16_t id) {
        if (before.count(id) != 0) return;
        const auto it = items.find(id);
        before[id] = it != items.end() ? std::optional<T>(it->second) : std::nullopt;
    }
    T &create(uint16_t id, const std::string &name) {
        touch(id);
        T &x = items[id];
        x = T{};
        x.id = id;
        x.name = name;
        ids[name] = id;
        return x;
    }
    T &edit(uint16_t id) {
        touch(id);
        return items.at(id);
    }
    void rename(uint16_t id, const std::string &name) {
        T &x = edit(id);
        ids.erase(x.name);
        x.name = name;
        ids[name] = id;
    }
    void erase(uint16_t id) {
        touch(id);
        const auto it = items.find(id);
        if (it == items.end()) return;
        ids.erase(it->second.name);
        items.erase(it);
    }
    // Puts back what the change touched (the names are indexed again by the caller).
    void restore() {
        for (auto &[id, was] : before) {
            if (was) items[id] = std::move(*was);
            else items.erase(id);
        }
    }
};

Kind<Zone> ZoneDb::Change::zones() { return {db_.zones_, db_.zone_ids_, zones_before_}; }
Kind<Zoneset> ZoneDb::Change::zonesets() { return {db_.zonesets_, db_.zoneset_ids_, zonesets_before_}; }

Zone &ZoneDb::Change::create_zone(uint16_t id, const std::string &name) { return zones().create(id, name); }
Zone &ZoneDb::Change::zone(uint16_t id) { return zones().edit(id); }
void ZoneDb::Change::rename_zone(uint16_t id, const std::string &name) { zones().rename(id, name); }
void ZoneDb::Change::erase_zone(uint16_t id) { zones().erase(id); }
Zoneset &ZoneDb::Change::create_zoneset(uint16_t id, const std::string &name) { return zonesets().create(id, name); }
Zoneset &ZoneDb::Change::zoneset(uint16_t id) { return zonesets().edit(id); }
void ZoneDb::Change::rename_zoneset(uint16_t id, const std::string &name) { zonesets().rename(id, name); }
void ZoneDb::Change::erase_zoneset(uint16_t id) { zonesets().erase(id); }

void ZoneDb::Change::set_active(std::optional<ActiveState> active) {
    if (!active_before_) active_before_ = db_.active_;
    db_.active_ = std::move(active);
}

void ZoneDb::Change::set_global_flags(uint32_t flags) {
    if (!flags_before_) flags_before_ = db_.flags_;
    db_.flags_ = flags;
}

void ZoneDb::Change::set_info(uint32_t key, const std::string &text) {
    if (info_before_.count(key) == 0) info_before_[key] = db_.info(key);
    db_.info_[key] = text;
}

void ZoneDb::Change::rollback() {
    zones().restore();
    zonesets().restore();
    if (active_before_) db_.active_ = std::move(*active_before_);
    if (flags_before_) db_.flags_ = *flags_before_;
    for (auto &[key, before] : info_before_) {
        if (before) db_.info_[key] = std::move(*before);
        else db_.info_.erase(key);
    }
    db_.index();
    done_ = true;
}

namespace {

// One write of a change: a record stored, or a key removed (no value).
struct Write {
    Bytes key;
    std::optional<Bytes> value;
};

bool same_member(const Member &a, const Member &b) {
    return a.id == b.id && a.type == b.type && a.pwwn == b.pwwn && a.lun == b.lun && a.alias == b.alias && a.vsan == b.vsan &&
           a.afid == b.afid;
}

const Member *find_member(const Zone &z, uint16_t id) {
    for (const Member &m : z.members)
        if (m.id == id) return &m;
    return nullptr;
}

// The records that turn a zone as it was into the zone as it is.
void zone_writes(const std::optional<Zone> &before, const Zone *after, uint16_t id, std::vector<Write> &out) {
    const auto member_key = [id](uint16_t mid) { return zfxtool::zone_db_key(ZFX_KVDB_ZONE_MEMBER_KEY, mid, id); };
    if (before)
        for (const Member &m : before->members)
            if (after == nullptr || find_member(*after, m.id) == nullptr) out.push_back({member_key(m.id), std::nullopt});
    if (after == nullptr) {
        if (before) out.push_back({zfxtool::zone_db_key(ZFX_KVDB_ZONE_KEY, id, 0), std::nullopt});
        return;
    }
    auto [key, value] = zfxtool::zone_record(*after);
    out.push_back({std::move(key), std::move(value)});
    for (const Member &m : after->members) {
        const Member *old = before ? find_member(*before, m.id) : nullptr;
        if (old != nullptr && same_member(*old, m)) continue;
        auto [mk, mv] = zfxtool::member_record(id, m.id, m);
        out.push_back({std::move(mk), std::move(mv)});
    }
}

}  // namespace

int32_t ZoneDb::Change::commit() {
    std::vector<Write> writes;
    bool header = false;
    try {
        for (const auto &[id, before] : zones_before_) {
            const Zone *after = db_.zone(id);
            header |= bool(before) != (after != nullptr);
            zone_writes(before, after, id, writes);
        }
        for (const auto &[id, before] : zonesets_before_) {
            const Zoneset *after = db_.zoneset(id);
            header |= bool(before) != (after != nullptr);
            const Bytes key = zfxtool::zone_db_key(ZFX_KVDB_ZONESET_KEY, id, 0);
            if (after != nullptr) writes.push_back({key, zfxtool::zoneset_record(*after).second});
            else if (before) writes.push_back({key, std::nullopt});
        }
        if (header) {
            std::vector<uint16_t> zone_ids, zoneset_ids;
            for (const auto &entry : db_.zones_) zone_ids.push_back(entry.first);
            for (const auto &entry : db_.zonesets_) zoneset_ids.push_back(entry.first);
            auto [key, value] = zfxtool::zone_db_header_record(zone_ids, zoneset_ids);
            writes.push_back({std::move(key), std::move(value)});
        }
        if (active_before_) {
            const uint32_t old_chunks = *active_before_ ? (*active_before_)->chunks : 0;
            uint32_t new_chunks = 0;
            std::optional<ActiveState> &now = db_.active_;
            if (now) {
                zfxtool::Active a;
                a.id = now->id;
                a.name = now->name;
                a.force = now->force;
                std::vector<const Zone *> zones;
                for (uint16_t z : now->zones) zones.push_back(&db_.zones_.at(z));
                const auto records = zfxtool::active_records(a, zones, zfxtool::kActiveChunkSize);
                new_chunks = uint32_t(records.size() - 1);  // chunk 0 holds the total
                for (const auto &[key, value] : records) writes.push_back({key, value});
                now->chunks = new_chunks;
                Bytes time(8);
                std::memcpy(time.data(), &now->seconds, 4);
                std::memcpy(time.data() + 4, &now->micros, 4);
                writes.push_back({service_key(ZFX_INFO_KEY_ACTIVATE_TIME), time});
            } else {
                writes.push_back({zfxtool::zone_db_key(ZFX_KVDB_ACTIVE_ZONESET_KEY, 0, 0), std::nullopt});
                writes.push_back({service_key(ZFX_INFO_KEY_ACTIVATE_TIME), std::nullopt});
            }
            for (uint32_t n = new_chunks + 1; n <= old_chunks; ++n)
                writes.push_back({zfxtool::zone_db_key(ZFX_KVDB_ACTIVE_ZONESET_KEY, 0, uint16_t(n)), std::nullopt});
            auto [options_key, options] = zfxtool::zone_options_record(now && now->force);
            writes.push_back({std::move(options_key), std::move(options)});
        }
        if (flags_before_) {
            Bytes value(4);
            std::memcpy(value.data(), &db_.flags_, 4);
            writes.push_back({flags_key(), value});
        }
        for (const auto &[key, before] : info_before_) {
            const std::string &text = db_.info_.at(key);
            writes.push_back({service_key(key), Bytes(text.begin(), text.end())});
        }
    } catch (const std::exception &) {
        rollback();
        return ZFXD_ERR_STORE;
    }

    int32_t status = kvdb_txn_begin(db_.writer_);
    for (const Write &w : writes) {
        if (status != 0) break;
        const kvdb_datum key{const_cast<uint8_t *>(w.key.data()), uint32_t(w.key.size())};
        if (w.value) {
            const kvdb_datum value{const_cast<uint8_t *>(w.value->data()), uint32_t(w.value->size())};
            status = kvdb_put(db_.writer_, &key, &value);
        } else {
            status = kvdb_delete(db_.writer_, &key);
            if (status == KVDB_NOT_FOUND) status = 0;  // gone already: what the change wants
        }
    }
    if (status == 0) status = kvdb_txn_commit(db_.writer_);
    else kvdb_txn_abort(db_.writer_);
    if (status != 0) {
        rollback();
        return ZFXD_ERR_STORE;
    }
    ++db_.changes_;
    done_ = true;
    return 0;
}

}  // namespace zfxd
