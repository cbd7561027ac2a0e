// The zone section of the configuration text: every stored zone with its attributes and members,
// every zoneset with its member zones, and the activation line, read from the store alone.
//
// Every record is checked against its stored length before anything of it is written: a record
// shorter than its fixed part, or whose array does not lie within it, fails like a missing one.
// The first failure ends the section (the lines already added stay).
#include <algorithm>
#include <iterator>

#include "platform/fmt.h"
#include "zfx_ascii_cfg.h"
#include "zfx_bitmap.hpp"
#include "zfx_gen_text.hpp"
#include "zfx_kvdb_walk.hpp"
#include "zfx_tlv_walk.hpp"
#include "zfx_zone_db.hpp"

extern "C" {
char zfx_sp_wwn_str[ZFX_SCRATCH_STR_SIZE];
char lun_str[ZFX_SCRATCH_STR_SIZE];
}

namespace zfx {
namespace {

static_assert(ZFX_SCRATCH_STR_SIZE >= FMT_WWN_SIZE && ZFX_SCRATCH_STR_SIZE >= FMT_LUN_SIZE);

constexpr size_t kLineSize = 2048;
constexpr uint32_t kZoneBits = 8 * ZFX_ZONE_BITMAP_SIZE;
constexpr uint32_t kIdBits = 8 * ZFX_MEMBER_BITMAP_SIZE;  // member ids, zoneset ids
// The LUN column of a member without a LUN: as wide as "lun 0x0000 ".
constexpr char kNoLun[] = "           ";
constexpr const char *kQos[] = {nullptr, "low", "medium", "high"};

// The member records of the whole member table, found with one walk and grouped by zone id, so
// that a zone's members come from its group rather than from a store lookup each. The table is
// ordered by member id first, so a zone's members lie all over it, and a lookup per member was
// the largest cost of the text on a large store. Whatever the index does not hold (no memory for
// it, a value the walk could not read, a key past the first one that does not look like a member
// key) is looked up in the store as before: the text and its failures are the same either way.
class MemberIndex {
public:
    // zones: one past the highest zone id the text will ask for; members of other zones are
    // left to lookups.
    MemberIndex(kvdb_store *store, uint32_t zones) : zones_(zones) {
        constexpr uint8_t start[2] = {ZFX_KVDB_ZONE_MEMBER_KEY, 0};
        constexpr KeyShape shape{ZFX_KVDB_ZONE_MEMBER_KEY, kind_bit(0), ZFX_ZONE_DB_KEY_SIZE, 1, 1};
        const auto indexed = [](const kvdb_datum &key, const void *bound) { return zone_of(key) < *static_cast<const uint32_t *>(bound); };
        const TableWalk walk{shape, start, sizeof start, 0, false, indexed, &zones_};
        // Zone z's entries lie at starts_[z] .. starts_[z + 1]. A first walk counts them (into
        // starts_[z + 2]); the sums make starts_[z + 1] the group's start, and the second walk fills
        // each group from there, leaving starts_[z + 1] at its end, which is the next one's start.
        starts_ = static_cast<uint32_t *>(mem_zalloc_array(zones_ + 2, sizeof(uint32_t)));
        if (starts_ == nullptr) return;
        const uint32_t n = walk_table(store, walk, UINT32_MAX, [&](const kvdb_datum &key, const kvdb_datum &) {
            ++starts_[zone_of(key) + 2];
        });
        entries_ = static_cast<Entry *>(mem_zalloc_array(n, sizeof(Entry)));
        if (entries_ == nullptr) return;
        for (uint32_t z = 2; z < zones_ + 2; ++z) starts_[z] += starts_[z - 1];
        // The second walk reaches no more keys than the first (a walk that ends early leaves
        // empty entries, which find passes over).
        walk_table(store, walk, n, [&](const kvdb_datum &key, const kvdb_datum &value) {
            entries_[starts_[zone_of(key) + 1]++] = Entry{load_le16(static_cast<uint8_t *>(key.data) + 2), value};
        });
        for (uint32_t z = 0; z < zones_; ++z)
            std::sort(entries_ + starts_[z], entries_ + starts_[z + 1], [](const Entry &a, const Entry &b) { return a.member < b.member; });
    }
    ~MemberIndex() {
        std::free(entries_);
        std::free(starts_);
    }
    MemberIndex(const MemberIndex &) = delete;
    MemberIndex &operator=(const MemberIndex &) = delete;

    // The value of the member's record, or NULL when the index does not hold one.
    const kvdb_datum *find(uint16_t zone, uint16_t member) const {
        if (entries_ == nullptr || zone >= zones_) return nullptr;
        const Entry *first = entries_ + starts_[zone], *last = entries_ + starts_[zone + 1];
        const Entry *e = std::lower_bound(first, last, member, [](const Entry &a, uint16_t m) { return a.member < m; });
        return e != last && e->member == member && e->value.data != nullptr ? &e->value : nullptr;
    }

private:
    struct Entry {
        uint16_t member;
        kvdb_datum value;
    };
    static uint32_t zone_of(const kvdb_datum &key) { return load_le16(static_cast<uint8_t *>(key.data) + 4); }

    uint32_t zones_;
    uint32_t *starts_ = nullptr;
    Entry *entries_ = nullptr;
};

struct Section {
    kvdb_store *store;
    uint32_t handle;
    const MemberIndex *members;
    char line[kLineSize];
};

// A zone or zoneset record, checked: its stored id, its name, and its array.
struct NamedRecord {
    uint16_t id;
    char name[ZFX_NAME_SIZE];
    uint8_t *array;
    size_t avail;
};

enum class Found { yes, empty, failed };

// Looks up the record of table and id. empty: a value with no data.
Found fetch_named(kvdb_store *store, uint8_t table, uint32_t id, NamedRecord &rec) {
    uint8_t key[ZFX_ZONE_DB_KEY_SIZE];
    zfx_zone_db_key(key, table, uint16_t(id), 0);
    int32_t status;
    const kvdb_datum *value = fetch(store, key, sizeof key, status);
    if (value == nullptr) return Found::failed;
    if (value->data == nullptr || value->len == 0) return Found::empty;
    const size_t array_off = offsetof(zfx_zone_rec_head, tlvs);
    auto *data = static_cast<uint8_t *>(value->data);
    if (value->len < sizeof(zfx_zone_rec_head) || !tlv_array_valid(data + array_off, value->len - array_off))
        return Found::failed;
    rec.id = load_le16(data);
    copy_str_to_buf(ZFX_NAME_SIZE, rec.name, reinterpret_cast<const char *>(data + offsetof(zfx_zone_rec_head, name)));
    rec.array = data + array_off;
    rec.avail = value->len - array_off;
    return Found::yes;
}

// A bitmap element's bits (after its 4-byte count word) into dst, at most size bytes; dst is
// cleared first, so a short element leaves the rest of it empty.
void take_bitmap(uint8_t *dst, size_t size, const Tlv &e) {
    std::memset(dst, 0, size);
    if (e.len > 4) std::memcpy(dst, e.value + 4, size_t(e.len - 4) < size ? size_t(e.len - 4) : size);
}

// One member line in three pieces: the member, the LUN column, the VSAN and fabric ID.
void member_line(Section &s, const zfx_zone_member_node &m) {
    MemberShape shape{};
    const bool known = member_shape(m.type, shape);
    if (known && shape.pwwn) {
        plat_wwn wwn;
        std::memcpy(wwn.bytes, m.pwwn, sizeof wwn.bytes);
        fmt_wwn(zfx_sp_wwn_str, wwn);
        emit(s.handle, ZFX_ELEM_ZONE, 1, s.line, sizeof s.line, "member pwwn %s ", zfx_sp_wwn_str);
    } else if (known && shape.alias) {
        emit(s.handle, ZFX_ELEM_ZONE, 1, s.line, sizeof s.line, "member device-alias %-15s ", m.device_alias);
    }
    if (known && shape.lun) {
        fmt_lun(lun_str, m.lun);
        emit(s.handle, ZFX_ELEM_ZONE, 1, s.line, sizeof s.line, "lun %s ", lun_str);
    } else {
        emit(s.handle, ZFX_ELEM_ZONE, 1, s.line, sizeof s.line, "%s", kNoLun);
    }
    if (m.afid == 1)
        emit(s.handle, ZFX_ELEM_ZONE, 1, s.line, sizeof s.line, "vsan %d\n", int32_t(m.vsan));
    else
        emit(s.handle, ZFX_ELEM_ZONE, 1, s.line, sizeof s.line, "vsan %d autonomous-fabric-id %d\n",
             int32_t(m.vsan), int32_t(m.afid));
}

int32_t zone_text(Section &s, uint32_t id) {
    NamedRecord zone;
    const Found found = fetch_named(s.store, ZFX_KVDB_ZONE_KEY, id, zone);
    if (found != Found::yes) return found == Found::empty ? 0 : ZFX_ERR_KVDB;
    emit(s.handle, ZFX_ELEM_ZONE, 0, s.line, sizeof s.line, "zfx zone name %s\n", zone.name);
    commit_reqd = 1;
    uint8_t members[ZFX_MEMBER_BITMAP_SIZE] = {};
    TlvWalk walk(zone.array, zone.avail);
    for (Tlv e; walk.next(e);) {
        if (e.type == ZFX_TLV_ZONE_QOS && e.len >= 4) {
            const uint32_t qos = load_le32(e.value);
            if (qos < std::size(kQos) && kQos[qos] != nullptr)
                emit(s.handle, ZFX_ELEM_ZONE, 1, s.line, sizeof s.line, "attribute qos priority %s\n", kQos[qos]);
        } else if (e.type == ZFX_TLV_ZONE_READ_ONLY && e.len >= 4 && load_be32(e.value) == 1) {
            emit(s.handle, ZFX_ELEM_ZONE, 1, s.line, sizeof s.line, "%s", "attribute read-only\n");
        } else if (e.type == ZFX_TLV_ZONE_MEMBERS) {
            take_bitmap(members, sizeof members, e);
        }
    }
    // Member keys carry the zone id the record itself holds.
    return for_each_id(members, kIdBits, [&](uint32_t member_id) {
        uint8_t key[ZFX_ZONE_DB_KEY_SIZE];
        zfx_zone_db_key(key, ZFX_KVDB_ZONE_MEMBER_KEY, uint16_t(member_id), zone.id);
        int32_t status;
        const kvdb_datum *value = s.members->find(zone.id, uint16_t(member_id));
        if (value == nullptr) value = fetch(s.store, key, sizeof key, status);
        zfx_zone_member_node m{};
        if (value == nullptr || !decode_member(value->data, value->len, m)) return ZFX_ERR_KVDB;
        member_line(s, m);
        return 0;
    });
}

int32_t zoneset_text(Section &s, uint32_t id) {
    NamedRecord zoneset;
    if (fetch_named(s.store, ZFX_KVDB_ZONESET_KEY, id, zoneset) != Found::yes) return ZFX_ERR_KVDB;
    emit(s.handle, ZFX_ELEM_ZONE, 0, s.line, sizeof s.line, "zfx zoneset name %s\n", zoneset.name);
    commit_reqd = 1;
    // The full bitmap (60) when the record has one, otherwise the short one (4).
    uint8_t zones[ZFX_ZONE_BITMAP_SIZE] = {};
    uint8_t short_zones[ZFX_MEMBER_BITMAP_SIZE] = {};
    bool full = false;
    TlvWalk walk(zoneset.array, zoneset.avail);
    for (Tlv e; walk.next(e);) {
        if (e.type == ZFX_TLV_ZONESET_ZONES_EXT) {
            take_bitmap(zones, sizeof zones, e);
            full = true;
        } else if (e.type == ZFX_TLV_ZONESET_ZONES) {
            take_bitmap(short_zones, sizeof short_zones, e);
        }
    }
    if (!full) std::memcpy(zones, short_zones, sizeof short_zones);
    return for_each_id(zones, kZoneBits, [&](uint32_t zone_id) {
        NamedRecord zone;
        const Found found = fetch_named(s.store, ZFX_KVDB_ZONE_KEY, zone_id, zone);
        if (found == Found::yes)
            emit(s.handle, ZFX_ELEM_ZONE, 1, s.line, sizeof s.line, "member %s\n", zone.name);
        return found == Found::failed ? ZFX_ERR_KVDB : 0;
    });
}

// The line names the active zoneset, which its data holds in its head: only the head is read, so
// that the line never waits on (or fails for want of) memory for the whole data.
int32_t activation_text(Section &s) {
    const uint32_t total = active_total(s.store);
    if (total == 0) return 0;
    if (total < sizeof(zfx_active_zoneset_data)) return ZFX_ERR_KVDB;
    zfx_active_zoneset_data head{};
    read_active(s.store, &head, sizeof head);
    char name[ZFX_NAME_SIZE];
    copy_str_to_buf(sizeof name, name, head.name);
    uint32_t options = 0;
    const bool force = zfx_zone_kvdb_restore_options_from_kvdb(s.store, &options) == 0 &&
                       (load_be32(&options) & ZFX_ZONE_OPTIONS_FORCE) != 0;
    emit(s.handle, ZFX_ELEM_ZONE, 0, s.line, sizeof s.line, force ? "zfx zoneset activate name %s force\n"
                                                                 : "zfx zoneset activate name %s\n", name);
    return 0;
}

}  // namespace
}  // namespace zfx

using namespace zfx;

extern "C" {

int32_t zfx_zone_generate_ascii_config(kvdb_store *store) {
    if (store == nullptr) return 0;
    const uint8_t key[2] = {ZFX_KVDB_ZONE_DB_HEADER_KEY, 0x00};
    int32_t status;
    const kvdb_datum *value = fetch(store, key, sizeof key, status);
    if (status == ZFX_KVDB_NOT_FOUND) return 0;  // no zone database: not even an activation line
    if (value == nullptr) return ZFX_ERR_KVDB;
    zfx_zone_db_header header{};
    copy_mem_to_buf(sizeof header, &header, value->data, value->len);
    // An older header has only the short zone bitmap; it stands for the first ids of the full one.
    if (bit_next(header.zones, kZoneBits, 0) == kZoneBits)
        std::memcpy(header.zones, header.zones_short, sizeof header.zones_short);

    uint32_t last_zone = 0;
    for_each_id(header.zones, kZoneBits, [&](uint32_t id) {
        last_zone = id;
        return 0;
    });
    const MemberIndex members(store, last_zone + 1);
    Section s{store, gen_handle, &members, {}};
    if (const int32_t r = for_each_id(header.zones, kZoneBits, [&](uint32_t id) { return zone_text(s, id); }))
        return r;
    if (const int32_t r = for_each_id(header.zonesets, kIdBits, [&](uint32_t id) { return zoneset_text(s, id); }))
        return r;
    return activation_text(s);
}

}  // extern "C"
