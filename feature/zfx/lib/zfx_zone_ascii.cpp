// The zone section of the configuration text: every stored zone with its attributes and members,
// every zoneset with its member zones, and the activation line, read from the store alone.
//
// Every record is checked against its stored length before anything of it is written: a record
// shorter than its fixed part, or whose array does not lie within it, fails like a missing one.
// The first failure ends the section (the lines already added stay).
#include <algorithm>
#include <cassert>
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
// What is asked for ahead of a record's reading: a zone record's name, attributes and member
// bitmap lie within it.
constexpr size_t kRecordAhead = 512;

// What a walk hands on N items late: an item's lines are asked of memory (read or written) when
// the walk meets it, and it is handled N items later, so that the walk's waits on memory overlap
// instead of coming one after another.
template <typename T, uint32_t N>
class Late {
public:
    // Keeps item, after handing the one kept N items before it (if any) to handle.
    template <typename Handle>
    void push(const T &item, Handle &&handle) {
        T &slot = items_[n_++ % N];
        if (n_ > N) handle(slot);
        slot = item;
    }
    // Hands the items still kept to handle, in the order they came: the walk's end.
    template <typename Handle>
    void drain(Handle &&handle) const {
        for (uint32_t i = n_ > N ? n_ - N : 0; i < n_; ++i) handle(items_[i % N]);
    }

private:
    T items_[N];
    uint32_t n_ = 0;
};

// A zone or zoneset record, checked: its stored id, its name, its array (which lies within the
// record: walk it with TlvChecked), and how many member ids its last member bitmap element names
// (what the member index needs of a zone, taken while the record is at hand). The name and the
// array lie in the stored record, or in the zone table's copy of it (copy_zone).
struct NamedRecord {
    uint16_t id;
    uint8_t name_len;
    uint16_t members;
    uint16_t member_span;  // the bytes of its member bitmap (after the count word) that hold them
    uint32_t span;         // the bytes from the name to the record's end: what a pass reads of it
    const char *name;      // name_len characters, no terminator
    uint8_t *array;
};

// The bytes of a member bitmap element's bits (they follow its 4-byte count word) that name
// member ids: at most kIdBits of them.
uint32_t member_bytes(const Tlv &bits) {
    const uint32_t n = bits.len > 4 ? bits.len - 4u : 0u;
    return n < ZFX_MEMBER_BITMAP_SIZE ? n : ZFX_MEMBER_BITMAP_SIZE;
}

// How many member ids a member bitmap element names; used as bit_count sets it.
uint32_t count_members(const Tlv &bits, uint32_t &used) {
    const uint32_t n = member_bytes(bits);
    used = 0;
    return n == 0 ? 0 : bit_count(bits.value + 4, 8 * n, &used);
}

enum class Found : uint8_t { unread, yes, empty, failed };

// Checks a record the store gave for a zone or zoneset key (value NULL: the lookup failed).
// empty: a value with no data; failed: no value, or one shorter than its fixed part or whose
// array does not lie within it.
Found check_named(const kvdb_datum *value, NamedRecord &rec) {
    if (value == nullptr) return Found::failed;
    if (value->data == nullptr || value->len == 0) return Found::empty;
    const size_t array_off = offsetof(zfx_zone_rec_head, tlvs);
    auto *data = static_cast<uint8_t *>(value->data);
    if (value->len < sizeof(zfx_zone_rec_head)) return Found::failed;
    // One pass checks the array and finds the last member bitmap element (it counts, as in the
    // zone pass).
    Tlv members{};
    TlvWalk walk(data + array_off, value->len - array_off, TlvStepwise{});
    for (Tlv e; walk.next(e);)
        if (e.type == ZFX_TLV_ZONE_MEMBERS) members = e;
    if (!walk.ok()) return Found::failed;
    rec.id = load_le16(data);
    rec.name = reinterpret_cast<const char *>(data + offsetof(zfx_zone_rec_head, name));
    rec.name_len = uint8_t(strnlen(rec.name, ZFX_NAME_SIZE - 1));
    rec.array = data + array_off;
    rec.span = value->len - uint32_t(offsetof(zfx_zone_rec_head, name));
    uint32_t used;
    rec.members = uint16_t(count_members(members, used));
    rec.member_span = uint16_t(used);
    return Found::yes;
}

// What the zone text reads of a zone record, copied: its name, then an array of its attribute
// elements (a value of 4 bytes each, in the record's order) and its last member bitmap element,
// cut after the last byte naming a member. The text of the copy is the record's.
constexpr size_t kKeptAttrs = 4;  // a record with more attribute elements is not copied
constexpr size_t kCopyMax = ZFX_NAME_SIZE + 4 + kKeptAttrs * tlv_elem_size(4) + tlv_elem_size(4 + ZFX_MEMBER_BITMAP_SIZE);

// Copies rec (checked) to dst, which has room for kCopyMax bytes, and points rec at the copy;
// false, with rec and dst untouched, when the record has more attributes than a copy keeps.
bool copy_zone(NamedRecord &rec, uint8_t *dst) {
    Tlv attrs[kKeptAttrs]{};
    size_t n = 0;
    Tlv members{};
    TlvWalk walk(rec.array, TlvChecked{});
    for (Tlv e; walk.next(e);) {
        if ((e.type == ZFX_TLV_ZONE_QOS || e.type == ZFX_TLV_ZONE_READ_ONLY) && e.len >= 4) {
            if (n == kKeptAttrs) return false;
            attrs[n++] = e;
        } else if (e.type == ZFX_TLV_ZONE_MEMBERS) {
            members = e;
        }
    }
    std::memcpy(dst, rec.name, rec.name_len);
    uint8_t *array = dst + rec.name_len, *p = array + 4;
    const auto put = [&p](uint16_t type, const uint8_t *value, uint16_t len) {
        store(p, type);
        store(p + 2, len);
        std::memcpy(p + 4, value, len);
        p += tlv_elem_size(len);
    };
    for (size_t i = 0; i < n; ++i) put(attrs[i].type, attrs[i].value, 4);
    const uint16_t bytes = rec.member_span;  // taken from the same element when it was checked
    if (bytes != 0) put(ZFX_TLV_ZONE_MEMBERS, members.value, uint16_t(4 + bytes));
    store(array, uint32_t(n + (bytes != 0)));
    rec.name = reinterpret_cast<const char *>(dst);
    rec.array = array;
    rec.span = uint32_t(p - dst);
    return true;
}

// Looks up the record of table and id.
Found fetch_named(kvdb_store *store, uint8_t table, uint32_t id, NamedRecord &rec) {
    uint8_t key[ZFX_ZONE_DB_KEY_SIZE];
    zfx_zone_db_key(key, table, uint16_t(id), 0);
    int32_t status;
    return check_named(fetch(store, key, sizeof key, status), rec);
}

// The zone records, read with one walk of the zone table in key order and kept by zone id for
// both passes: each record is checked once, where the walk reads it, and the zoneset pass takes
// its zone names from here instead of looking every member zone up again. What the walk did not
// bring (no memory for the table, a value it could not read, a key past the first one that is
// not a zone key) is looked up in the store when first asked for, and kept as well: the text and
// its failures are the same either way. The table holds the ids below limit (one past the highest
// the header names): a small fabric's generation does not clear and map a table for every id
// there could be. A zone above them (a zoneset naming a zone the header does not) is looked up
// each time it is asked for.
//
// The walk also copies what the zone text reads of each record it brings (copy_zone) side by
// side, in the walk's order: the zone pass reads the zones in id order, which is not the
// store's (a key holds the id's low byte first), so that each zone's record would otherwise lie
// on a page of its own, read a second time long after the walk. The copies take a few dozen
// bytes a zone; their block is only reserved for the most they could take.
class ZoneTable {
public:
    ZoneTable(kvdb_store *store, uint32_t limit) : store_(store), limit_(std::min(limit, kZoneBits)) {
        slots_ = limit_ != 0 ? static_cast<Slot *>(mem_zalloc_array(limit_, sizeof(Slot))) : nullptr;
        if (slots_ == nullptr) return;
        copies_ = static_cast<uint8_t *>(mem_alloc(limit_ * kCopyMax));  // without it, no copies
        constexpr uint8_t start[2] = {ZFX_KVDB_ZONE_KEY, 0};
        constexpr KeyShape shape{ZFX_KVDB_ZONE_KEY, kind_bit(0), ZFX_ZONE_DB_KEY_SIZE, 1, 1};
        // A record is checked kAhead records after the walk met it. Its lines need no asking for:
        // the store's walk asks for the entries ahead of its steps.
        struct Met {
            uint32_t id;
            kvdb_datum value;
        };
        Late<Met, kAhead> met;
        size_t filled = 0;  // the copies' bytes
        const auto check = [&](const Met &m) {
            Slot &slot = slots_[m.id];
            slot.found = check_named(&m.value, slot.rec);
            if (slot.found == Found::yes && copies_ != nullptr && filled + kCopyMax <= limit_ * kCopyMax &&
                copy_zone(slot.rec, copies_ + filled))
                filled += slot.rec.span;
        };
        walk_table(store, TableWalk{shape, start, sizeof start}, UINT32_MAX, [&](const kvdb_datum &key, const kvdb_datum &value) {
            const uint8_t *k = static_cast<const uint8_t *>(key.data);
            const uint32_t id = load_le16(k + 2);
            // Only the key a lookup of the id would ask for, and only a value the walk could read.
            if (load_le16(k + 4) != 0 || id >= limit_ || value.data == nullptr) return;
            met.push(Met{id, value}, check);
        });
        met.drain(check);
    }
    ~ZoneTable() {
        std::free(copies_);
        std::free(slots_);
    }
    ZoneTable(const ZoneTable &) = delete;
    ZoneTable &operator=(const ZoneTable &) = delete;

    // The zone record of id, checked.
    Found get(uint32_t id, NamedRecord &rec) {
        if (slots_ == nullptr || id >= limit_) return fetch_named(store_, ZFX_KVDB_ZONE_KEY, id, rec);
        Slot &slot = slots_[id];
        if (slot.found == Found::unread) slot.found = fetch_named(store_, ZFX_KVDB_ZONE_KEY, id, slot.rec);
        rec = slot.rec;
        return slot.found;
    }

    // One past the highest id the table holds.
    uint32_t limit() const { return limit_; }

    // Asks for the first bytes (at most max) of the zone record of id, when the walk read it: the
    // zone pass, which reads the records in id order, asks ahead of its reads. (The zoneset pass
    // does not: asking for a zoneset's zones at once, each after reading its slot, cost it more
    // than it saved.)
    void prefetch(uint32_t id, size_t max) const {
        if (slots_ == nullptr || id >= limit_ || slots_[id].found != Found::yes) return;
        const NamedRecord &r = slots_[id].rec;
        prefetch_value(r.name, r.span, max);
    }

private:
    static constexpr uint32_t kAhead = 8;
    struct Slot {
        NamedRecord rec;
        Found found;
    };
    kvdb_store *store_;
    uint32_t limit_;
    Slot *slots_ = nullptr;
    uint8_t *copies_ = nullptr;
};

// for_each_id over the member ids a member bitmap element names; as many as count_members gives
// for it, when the caller has that count, as most.
template <typename Visit>
int32_t for_each_member(const Tlv &bits, Visit &&visit, uint32_t most = UINT32_MAX) {
    const uint32_t n = member_bytes(bits);
    return n == 0 ? 0 : for_each_id(bits.value + 4, 8 * n, visit, most);
}

// The member records the zones ask for, found with one walk of the member table in key order and
// grouped by zone, so that a zone's members come from its group rather than from a store lookup
// each. A zone's group has a place for each member its record's bitmap names, filled in the
// table's key order, so no sort is needed. The table is ordered by member id first, so a zone's
// records lie all over it: each record find() hands over asks for the one a few dozen places on,
// which the zone pass reads as many member lines later. Whatever the index does not hold (no memory
// for it, a value the walk could not read, a group that is full, a key past the first one that
// does not look like a member key) is looked up in the store as before: the text and its failures
// are the same either way.
class MemberIndex {
    struct Entry;

public:
    MemberIndex(kvdb_store *store, ZoneTable &zones, const uint8_t *zone_ids) : groups_(zones.limit()) {
        // The groups, by the zone id the records hold (member keys carry that one), for the ids
        // the zone table holds.
        if (groups_ == 0) return;
        starts_ = static_cast<uint32_t *>(mem_zalloc_array(groups_ + 1, sizeof(uint32_t)));
        ends_ = static_cast<uint32_t *>(mem_zalloc_array(groups_, sizeof(uint32_t)));
        if (starts_ == nullptr || ends_ == nullptr) {
            release();
            return;
        }
        // Group z has its places from starts_[z] to starts_[z + 1] (counted into starts_[z + 1]
        // first); the walk fills them in order, ends_[z] the first one not filled. An entry is
        // the record of its own key, whichever zone record asks for it: when two records hold one
        // id, the first one's count sizes the group and what does not fit is looked up.
        for_each_id(zone_ids, kZoneBits, [&](uint32_t id) {
            NamedRecord zone;
            if (zones.get(id, zone) == Found::yes && zone.id < groups_ && starts_[zone.id + 1] == 0)
                starts_[zone.id + 1] = zone.members;
        });
        for (uint32_t z = 0; z < groups_; ++z) {
            starts_[z + 1] += starts_[z];
            ends_[z] = starts_[z];
        }
        const uint32_t total = starts_[groups_];
        entries_ = static_cast<Entry *>(mem_zalloc_array(total, sizeof(Entry)));
        if (entries_ == nullptr) {
            release();
            return;
        }
        constexpr uint8_t start[2] = {ZFX_KVDB_ZONE_MEMBER_KEY, 0};
        constexpr KeyShape shape{ZFX_KVDB_ZONE_MEMBER_KEY, kind_bit(0), ZFX_ZONE_DB_KEY_SIZE, 1, 1};
        // An entry is written 16 records after the walk asked for its place: the places lie all
        // over the index (a zone's group takes one record of each member id).
        struct Held {
            Entry *place;
            Entry entry;
        };
        Late<Held, 16> held;
        const auto write = [](const Held &h) { *h.place = h.entry; };
        walk_table(store, TableWalk{shape, start, sizeof start}, UINT32_MAX, [&](const kvdb_datum &key, const kvdb_datum &value) {
            const uint8_t *k = static_cast<const uint8_t *>(key.data);
            const uint32_t zone = load_le16(k + 4);
            // A member the zone's bitmap does not name would only take the place of one it names,
            // which is then looked up: the text is the same, and the walk need not read the
            // bitmaps (they lie all over the zone table). A value the walk could not read, or one
            // too long for an entry, is left to the lookup.
            if (zone >= groups_ || ends_[zone] == starts_[zone + 1] || value.data == nullptr || value.len == 0 ||
                value.len > UINT16_MAX)
                return;
            Entry *place = &entries_[ends_[zone]++];
            __builtin_prefetch(place, 1);
            held.push(Held{place, Entry{static_cast<const uint8_t *>(value.data), uint16_t(value.len), load_le16(k + 2)}}, write);
        });
        held.drain(write);
    }
    ~MemberIndex() { release(); }
    MemberIndex(const MemberIndex &) = delete;
    MemberIndex &operator=(const MemberIndex &) = delete;

    // Where the zone pass finds the members of one zone: the zone's group, found once for the
    // zone, not once for each member.
    class Group {
    public:
        // The value of the member's record, or NULL when the index does not hold one.
        const kvdb_datum *find(uint16_t member) {
            // The zone pass asks for a zone's members in ascending id, which is the group's order
            // below id 256: the entry after the last one found is tried first.
            const Entry *e = next_;
            if (e == last_ || e->member != member) {
                // A group is in the table's key order: the member id's low byte first.
                const auto rank = [](uint16_t id) { return uint16_t(id << 8 | id >> 8); };
                e = std::lower_bound(first_, last_, rank(member), [&](const Entry &a, uint16_t r) { return rank(a.member) < r; });
                if (e == last_ || e->member != member) return nullptr;
            }
            next_ = e + 1;
            // The places follow the zone pass's order: one record asked for per record found, so
            // the reads wait on memory together and at an even pace, not in a burst at each zone.
            constexpr ptrdiff_t kAhead = 32;
            if (end_ - e > kAhead && e[kAhead].data != nullptr) prefetch_value(e[kAhead].data, e[kAhead].len);
            found_ = kvdb_datum{const_cast<uint8_t *>(e->data), e->len};
            return &found_;
        }

    private:
        friend class MemberIndex;
        const Entry *first_ = nullptr, *last_ = nullptr, *next_ = nullptr;
        const Entry *end_ = nullptr;  // the index's end: what is asked for ahead lies before it
        kvdb_datum found_{};
    };

    // The group of zone; an empty one (its members are looked up) when the index holds none.
    Group group(uint16_t zone) const {
        Group g;
        if (entries_ == nullptr || zone >= groups_) return g;
        g.first_ = g.next_ = entries_ + starts_[zone];
        g.last_ = entries_ + ends_[zone];
        g.end_ = entries_ + starts_[groups_];
        return g;
    }

private:
    struct Entry {
        const uint8_t *data;  // NULL for a place not filled
        uint16_t len;
        uint16_t member;
    };

    void release() {
        std::free(entries_);
        std::free(ends_);
        std::free(starts_);
        entries_ = nullptr;
        ends_ = nullptr;
        starts_ = nullptr;
    }

    uint32_t groups_;
    uint32_t *starts_ = nullptr;
    uint32_t *ends_ = nullptr;
    Entry *entries_ = nullptr;
};

// The section's lines are gathered: a zone's member lines (and its attribute lines) go to the
// text service together, and so do the member lines of a zoneset.
constexpr size_t kGatherSize = 4 * kLineSize;

struct Section {
    Section(kvdb_store *st, uint32_t h, ZoneTable *z, MemberIndex *m)
        : store(st), handle(h), zones(z), members(m), out(text, sizeof text, kLineSize) {}
    // The process-wide scratch strings are left holding the texts of the last WWN and LUN the
    // section wrote, as they always have been: formatted there once, when it ends.
    ~Section() {
        if (last_wwn != nullptr) {
            plat_wwn wwn;
            std::memcpy(wwn.bytes, last_wwn, sizeof wwn.bytes);
            fmt_wwn(zfx_sp_wwn_str, wwn);
        }
        if (last_lun != nullptr) fmt_lun(lun_str, last_lun);
    }
    Section(const Section &) = delete;
    Section &operator=(const Section &) = delete;
    kvdb_store *store;
    uint32_t handle;
    ZoneTable *zones;
    MemberIndex *members;
    const uint8_t *last_wwn = nullptr;  // 8 bytes, in a record (valid while the store is open)
    const uint8_t *last_lun = nullptr;
    char text[kGatherSize];
    Line out;  // every line of the section; what it keeps goes over when the section ends
};

// A bitmap element's bits (after its 4-byte count word) into dst, at most size bytes; dst is
// cleared first, so a short element leaves the rest of it empty.
void take_bitmap(uint8_t *dst, size_t size, const Tlv &e) {
    std::memset(dst, 0, size);
    if (e.len > 4) std::memcpy(dst, e.value + 4, size_t(e.len - 4) < size ? size_t(e.len - 4) : size);
}

// The longest member line: a device alias of the longest name, a LUN, the widest VSAN and AFID.
constexpr size_t kMemberLineMax = sizeof "member device-alias " + ZFX_NAME_SIZE + sizeof "lun " + FMT_LUN_SIZE +
                                  sizeof "vsan " + kDecMax + sizeof " autonomous-fabric-id " + kDecMax;
static_assert(kMemberLineMax < kLineSize);

// One member line: the member, the LUN column, the VSAN and fabric ID, from the record where it
// lies; what the record lacks reads as zero (an empty alias). The line is written in place: it
// begins with the room of a whole line, which holds the longest member line and what the WWN and
// LUN writers write past their texts.
void member_line(Section &s, const MemberView &m) {
    static constexpr uint8_t kZero[8] = {};
    static constexpr char kPad[] = "               ";  // an alias's column: 15 characters
    MemberShape shape{};  // an unknown type leaves it empty: no member text, no LUN
    member_shape(m.type, shape);
    assert(s.out.room() >= kMemberLineMax);
    char *p = s.out.at();
    if (shape.pwwn) {
        s.last_wwn = m.pwwn != nullptr ? m.pwwn : kZero;
        p = put_wwn(put_chars(p, "member pwwn "), s.last_wwn);
        *p++ = ' ';
    } else if (shape.alias) {
        p = put_chars(p, "member device-alias ");
        p = put_chars(p, m.alias != nullptr ? m.alias : "", m.alias_len);
        if (m.alias_len < sizeof kPad - 1) p = put_chars(p, kPad, sizeof kPad - 1 - m.alias_len);
        *p++ = ' ';
    }
    if (shape.lun) {
        s.last_lun = m.lun != nullptr ? m.lun : kZero;
        p = put_lun(put_chars(p, "lun "), s.last_lun);
        *p++ = ' ';
    } else {
        p = put_chars(p, kNoLun);
    }
    p = put_chars(p, "vsan ");
    p = put_dec(p, int32_t(m.vsan));
    if (m.afid != 1) p = put_dec(put_chars(p, " autonomous-fabric-id "), int32_t(m.afid));
    *p++ = '\n';
    s.out.done(p).add(s.handle, ZFX_ELEM_ZONE, 1);
}

// A line of a word and a record's name, written in place: the line begins with the room of a
// whole line, which holds the longest name.
template <size_t N>
Line &name_line(Line &line, const char (&word)[N], const NamedRecord &rec) {
    static_assert(N + ZFX_NAME_SIZE < kLineSize);
    char *p = put_chars(put_chars(line.at(), word), rec.name, rec.name_len);
    *p++ = '\n';
    return line.done(p);
}

int32_t zone_text(Section &s, uint32_t id) {
    NamedRecord zone;
    const Found found = s.zones->get(id, zone);
    if (found != Found::yes) return found == Found::empty ? 0 : ZFX_ERR_KVDB;
    Line &line = s.out;
    // The zone's lines change level twice: the lines kept go over before the next level's line
    // is written (see Line::flush).
    line.flush();
    name_line(line, "zfx zone name ", zone).add(s.handle, ZFX_ELEM_ZONE, 0);
    line.flush();
    commit_reqd = 1;
    Tlv members{};  // the last member bitmap element counts
    TlvWalk walk(zone.array, TlvChecked{});
    for (Tlv e; walk.next(e);) {
        if (e.type == ZFX_TLV_ZONE_QOS && e.len >= 4) {
            const uint32_t qos = load_le32(e.value);
            if (qos < std::size(kQos) && kQos[qos] != nullptr)
                line.text("attribute qos priority ").text(kQos[qos]).end().add(s.handle, ZFX_ELEM_ZONE, 1);
        } else if (e.type == ZFX_TLV_ZONE_READ_ONLY && e.len >= 4 && load_be32(e.value) == 1) {
            line.text("attribute read-only\n").add(s.handle, ZFX_ELEM_ZONE, 1);
        } else if (e.type == ZFX_TLV_ZONE_MEMBERS) {
            members = e;
        }
    }
    // Member keys carry the zone id the record itself holds.
    MemberIndex::Group group = s.members->group(zone.id);
    return for_each_member(members, [&](uint32_t member_id) {
        const kvdb_datum *value = group.find(uint16_t(member_id));
        if (value == nullptr) {
            uint8_t key[ZFX_ZONE_DB_KEY_SIZE];
            zfx_zone_db_key(key, ZFX_KVDB_ZONE_MEMBER_KEY, uint16_t(member_id), zone.id);
            int32_t status;
            value = fetch(s.store, key, sizeof key, status);
        }
        MemberView m;
        if (value == nullptr || !view_member(value->data, value->len, m)) return ZFX_ERR_KVDB;
        member_line(s, m);
        return 0;
    }, zone.members);  // counted from the same element when the record was checked
}

int32_t zoneset_text(Section &s, uint32_t id) {
    NamedRecord zoneset;
    if (fetch_named(s.store, ZFX_KVDB_ZONESET_KEY, id, zoneset) != Found::yes) return ZFX_ERR_KVDB;
    Line &line = s.out;
    name_line(line, "zfx zoneset name ", zoneset).add(s.handle, ZFX_ELEM_ZONE, 0);
    commit_reqd = 1;
    // The full bitmap (60) when the record has one, otherwise the short one (4).
    uint8_t zones[ZFX_ZONE_BITMAP_SIZE] = {};
    uint8_t short_zones[ZFX_MEMBER_BITMAP_SIZE] = {};
    bool full = false;
    TlvWalk walk(zoneset.array, TlvChecked{});
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
        const Found found = s.zones->get(zone_id, zone);
        if (found == Found::yes) name_line(line, "member ", zone).add(s.handle, ZFX_ELEM_ZONE, 1);
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
    Line &line = s.out;
    line.text("zfx zoneset activate name ").text(name);
    if (force) line.text(" force");
    line.end().add(s.handle, ZFX_ELEM_ZONE, 0);
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

    ZoneTable zones(store, bit_end(header.zones, kZoneBits));
    MemberIndex members(store, zones, header.zones);
    Section s(store, gen_handle, &zones, &members);
    // The zone pass reads the zone records in id order, not the walk's: it asks for the record
    // of the zone kZonesAhead zones on before each one it writes.
    constexpr uint32_t kZonesAhead = 8;
    uint32_t ahead = bit_next(header.zones, kZoneBits, 1);
    for (uint32_t i = 0; i < kZonesAhead && ahead < kZoneBits; ++i, ahead = bit_next(header.zones, kZoneBits, ahead + 1))
        zones.prefetch(ahead, kRecordAhead);
    if (const int32_t r = for_each_id(header.zones, kZoneBits, [&](uint32_t id) {
            if (ahead < kZoneBits) {
                zones.prefetch(ahead, kRecordAhead);
                ahead = bit_next(header.zones, kZoneBits, ahead + 1);
            }
            return zone_text(s, id);
        }))
        return r;
    if (const int32_t r = for_each_id(header.zonesets, kIdBits, [&](uint32_t id) { return zoneset_text(s, id); }))
        return r;
    return activation_text(s);
}

}  // extern "C"
