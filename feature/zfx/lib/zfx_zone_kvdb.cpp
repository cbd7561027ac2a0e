// The persistent zone database: the records of zones, members and zonesets, the active zoneset
// data with its extension area, the member decode, and the restoring readers.
//
// A member's attribute elements are described once (which fields its type carries) and written
// in one of two orders by one writer: record order for member records and the member entries of
// the active zoneset data, extension order for the extension members. Sizes always come from the
// same element lists that are written, so a size and the bytes written cannot disagree.
#include <iterator>

#include "platform/fmt.h"
#include "zfx_bitmap.hpp"
#include "zfx_kvdb_walk.hpp"
#include "zfx_zone_db.hpp"
#include "zfx_zone_kind.hpp"

namespace zfx {

namespace {

enum class Field : uint8_t { type, pwwn, vsan, afid, lun, alias };

struct Order {
    const Field *fields;
    uint8_t n;
};

constexpr Field kRecordFields[] = {Field::type, Field::pwwn, Field::vsan, Field::afid, Field::lun, Field::alias};
constexpr Field kExtFields[] = {Field::vsan, Field::afid, Field::alias, Field::pwwn, Field::lun};
constexpr Order kRecordOrder{kRecordFields, uint8_t(std::size(kRecordFields))};
constexpr Order kExtOrder{kExtFields, uint8_t(std::size(kExtFields))};

// A member's attribute elements, in one order, with the values they point to: the 32-bit values
// widened as stored and the alias copied with its terminator whatever the node's field holds.
// Not to be copied (the list points into it).
struct MemberElems {
    uint32_t type, vsan, afid;
    char alias[ZFX_NAME_SIZE];
    ElemList list;

    MemberElems() = default;
    MemberElems(const MemberElems &) = delete;
    MemberElems &operator=(const MemberElems &) = delete;
};

// Fills e with the member's elements in order; false for an unknown member type.
bool member_elems(const zfx_zone_member_node &m, const Order &order, bool with_type, MemberElems &e) {
    MemberShape shape;
    if (!member_shape(m.type, shape)) return false;
    e.type = m.type;
    e.vsan = m.vsan;
    e.afid = m.afid;
    for (uint8_t i = 0; i < order.n; ++i) {
        switch (order.fields[i]) {
            case Field::type:
                if (with_type) e.list.add(ZFX_TLV_MEMBER_TYPE, 4, &e.type);
                break;
            case Field::pwwn:
                if (shape.pwwn) e.list.add(ZFX_TLV_MEMBER_PWWN, 8, m.pwwn);
                break;
            case Field::vsan: e.list.add(ZFX_TLV_MEMBER_VSAN, 4, &e.vsan); break;
            case Field::afid: e.list.add(ZFX_TLV_MEMBER_AFID, 4, &e.afid); break;
            case Field::lun:
                if (shape.lun) e.list.add(ZFX_TLV_MEMBER_LUN, 8, m.lun);
                break;
            case Field::alias:
                if (shape.alias) {
                    const uint32_t n = copy_str_to_buf(sizeof e.alias, e.alias, m.device_alias);
                    e.list.add(ZFX_TLV_MEMBER_DEVICE_ALIAS, uint16_t(n + 1), e.alias);
                }
                break;
        }
    }
    return true;
}

// Adds the elements in order; 0 or the first refused add's result.
int32_t add_elems(void *array, uint32_t capacity, const ElemList &list) {
    for (const Elem &e : list) {
        if (const int32_t r = tlvbuf_add_tlv(array, capacity, e.type, e.len, e.value, 0)) return r;
    }
    return 0;
}

// Bytes of a member head and its array of these elements.
uint32_t member_size(const MemberElems &e) { return offsetof(zfx_member_rec_head, tlvs) + e.list.array_bytes(); }

// Writes the member's head and array at `at` and returns the bytes written, member_size(e): every
// caller has made that room (an exact allocation, a buffer sized by the same elements, or a room
// check of its own). The array is sized to its elements, so every add fits.
uint32_t write_member(uint8_t *at, const zfx_zone_member_node &m, const MemberElems &e) {
    const uint32_t size = member_size(e);
    store_le16(at, uint16_t(m.id));
    at[2] = uint8_t(m.type);
    at[3] = 0;
    store_le32(at + 4, 0);
    add_elems(at + offsetof(zfx_member_rec_head, tlvs), e.list.array_bytes(), e.list);
    return size;
}

// The elements of a tree, in order.
template <typename T>
const T *next(const plat_tree *tree, tree_walker &w) {
    return static_cast<const T *>(tree_walk(tree, &w));
}

// A zone or zoneset record: its head (low 16 bits of the id, the name) and its array holding
// exactly the elements.
void *encode_named(uint32_t id, const char *name, const ElemList &list, uint32_t *length) {
    // The array is allocated to exactly the size it is given as capacity, so no add is refused.
    const uint32_t size = offsetof(zfx_zone_rec_head, tlvs) + list.array_bytes();
    auto *rec = static_cast<uint8_t *>(mem_zalloc(size));
    if (rec == nullptr) return nullptr;
    store_le16(rec, uint16_t(id));
    copy_str_to_buf(ZFX_NAME_SIZE, reinterpret_cast<char *>(rec + offsetof(zfx_zone_rec_head, name)), name);
    add_elems(rec + offsetof(zfx_zone_rec_head, tlvs), list.array_bytes(), list);
    *length = size;
    return rec;
}

// What a zone contributes to the active zoneset data: its member entries (port-WWN members) and
// the inner elements of its extension element.
struct ZoneParts {
    uint64_t entries = 0;
    uint64_t inner = 0;
};

ZoneParts zone_parts(const zfx_zone_node &z) {
    ZoneParts p;
    if (z.qos != 0) p.inner += tlv_size(4);
    if (z.read_only == 1) p.inner += tlv_size(4);
    tree_walker w{};
    while (const auto *m = next<zfx_zone_member_node>(z.members, w)) {
        MemberElems e;
        if (m->type == ZFX_MEMBER_PWWN) {
            member_elems(*m, kRecordOrder, false, e);
            p.entries += member_size(e);
        } else if (member_elems(*m, kExtOrder, false, e)) {
            p.inner += tlv_size(member_size(e));
        }
    }
    return p;
}

// The active zoneset data's size, and the extension area's in ext. Summed in 64 bits, so that
// trees too large for the data's 32-bit size are told apart instead of wrapping around.
uint64_t pzs_size(const zfx_zoneset_node &zs, uint64_t &ext) {
    ext = 0;
    uint64_t main = sizeof(zfx_active_zoneset_data);
    tree_walker w{};
    while (const auto *z = next<zfx_zone_node>(zs.zones, w)) {
        const ZoneParts p = zone_parts(*z);
        main += sizeof(zfx_zone_entry_head) + uint64_t(p.entries);
        // An extension element's length is 32 bits; a zone that needs more makes the data too large.
        const uint64_t length = sizeof(zfx_zone_ext_head) - sizeof(zfx_tlv32) + p.inner;
        if (p.inner != 0) ext += length <= UINT32_MAX - 8 ? tlvbuf32_size_get(uint32_t(length)) : length;
    }
    if (ext != 0) ext += 4;  // the area's count word
    return main + ext;
}

// Writes an entry head: the id's low 16 bits and the name (the count is written by the caller).
void write_head(uint8_t *at, uint32_t id, const char *name) {
    store_le16(at, uint16_t(id));
    copy_str_to_buf(ZFX_NAME_SIZE, reinterpret_cast<char *>(at + offsetof(zfx_active_zoneset_data, name)), name);
}

// Writes one zone entry and its member entries at cursor and returns the new cursor. The data
// was sized by pzs_size from these same zones and elements, so the entry always fits.
uint8_t *write_zone_entry(uint8_t *cursor, const zfx_zone_node &z) {
    write_head(cursor, z.id, z.name);
    uint8_t *at = cursor + sizeof(zfx_zone_entry_head);
    uint16_t count = 0;
    tree_walker w{};
    while (const auto *m = next<zfx_zone_member_node>(z.members, w)) {
        if (m->type != ZFX_MEMBER_PWWN) continue;
        MemberElems e;
        member_elems(*m, kRecordOrder, false, e);
        at += write_member(at, *m, e);
        ++count;
    }
    store_le16(cursor + offsetof(zfx_zone_entry_head, count), count);
    return at;
}

// Appends a 16-bit-header element at p (room checked by the caller) and returns the next one.
uint8_t *put_inner(uint8_t *p, uint16_t type, uint16_t length) {
    store_le16(p, type);
    store_le16(p + 2, length);
    return p + tlv_size(length);
}

// The most the active zoneset data can take: every zone id in use, each zone with every member id,
// each member in the extension area at its largest (a 67-character device alias and a LUN), QoS
// and read-only set. A stored total beyond it is not the data's.
uint32_t active_data_max() {
    const uint32_t member = tlv_size(sizeof(zfx_member_rec_head) + 2 * tlv_size(4) + tlv_size(ZFX_NAME_SIZE) + tlv_size(8));
    const uint32_t ext = tlvbuf32_size_get(sizeof(zfx_zone_ext_head) - sizeof(zfx_tlv32) + 2 * tlv_size(4) +
                                           ZFX_ZONE_MEMBER_ID_MAX * member);
    return sizeof(zfx_active_zoneset_data) + 4 + ZFX_ZONE_ID_MAX * (sizeof(zfx_zone_entry_head) + ext);
}

}  // namespace

bool decode_member(const void *record, size_t len, zfx_zone_member_node &m) {
    MemberView v;
    if (!view_member(record, len, v)) return false;
    m.type = v.type;
    if (v.pwwn != nullptr) std::memcpy(m.pwwn, v.pwwn, sizeof m.pwwn);
    if (v.has_vsan) m.vsan = v.vsan;
    if (v.has_afid) m.afid = v.afid;
    if (v.lun != nullptr) std::memcpy(m.lun, v.lun, sizeof m.lun);
    if (v.has_alias) {
        if (v.alias_len != 0) std::memcpy(m.device_alias, v.alias, v.alias_len);
        m.device_alias[v.alias_len] = '\0';
    }
    return true;
}

uint32_t active_total(kvdb_store *store) {
    uint8_t key[ZFX_ZONE_DB_KEY_SIZE];
    zfx_zone_db_key(key, ZFX_KVDB_ACTIVE_ZONESET_KEY, 0, 0);
    int32_t status;
    const kvdb_datum *head = fetch(store, key, sizeof key, status);
    if (!holds(head, 4)) return 0;
    const uint32_t total = load_be32(head->data);
    static const uint32_t max = active_data_max();
    return total <= max ? total : 0;
}

uint32_t read_active(kvdb_store *store, void *data, uint32_t size) {
    auto *out = static_cast<uint8_t *>(data);
    uint8_t key[ZFX_ZONE_DB_KEY_SIZE];
    // The chunks' own lengths decide; the first missing number ends the data, and so does the
    // last number a key holds (the count wraps to 0 past it).
    uint32_t filled = 0;
    for (uint16_t n = 1; n != 0 && filled < size; ++n) {
        zfx_zone_db_key(key, ZFX_KVDB_ACTIVE_ZONESET_KEY, 0, n);
        int32_t status;
        const kvdb_datum *chunk = fetch(store, key, sizeof key, status);
        if (chunk == nullptr) break;
        filled += copy_mem_to_buf(size - filled, out + filled, chunk->data, chunk->len);
    }
    return filled;
}

}  // namespace zfx

using namespace zfx;

extern "C" {

int32_t zfx_zone_get_zone_member_attrib_tlvs_size(const zfx_zone_member_node *member, uint32_t with_type,
                                                  uint32_t *size) {
    if (size != nullptr) *size = 0;
    if (member == nullptr || size == nullptr) return ZFX_ERR_INVALID_VALUE;
    MemberElems e;
    if (!member_elems(*member, kRecordOrder, with_type == 1, e)) return ZFX_ERR_BAD_MEMBER_TYPE;
    *size = e.list.bytes();
    return 0;
}

int32_t zfx_zone_encode_zone_member_attrib_tlvs(void *array, uint32_t capacity, const zfx_zone_member_node *member,
                                                uint32_t with_type) {
    if (array == nullptr || member == nullptr) return ZFX_ERR_INVALID_VALUE;
    MemberElems e;
    if (!member_elems(*member, kRecordOrder, with_type == 1, e)) return ZFX_ERR_BAD_MEMBER_TYPE;
    return add_elems(array, capacity, e.list);
}

void *zfx_zone_encode_zone_member_to_kvdb(const zfx_zone_member_node *member, uint32_t *length) {
    if (member == nullptr || length == nullptr) return nullptr;
    MemberElems e;
    if (!member_elems(*member, kRecordOrder, false, e)) return nullptr;
    const uint32_t size = member_size(e);
    auto *rec = static_cast<uint8_t *>(mem_zalloc(size));
    if (rec == nullptr) return nullptr;
    write_member(rec, *member, e);
    *length = size;
    return rec;
}

void *zfx_zone_encode_zone_to_kvdb(const zfx_zone_node *zone, uint32_t *length) {
    if (zone == nullptr || length == nullptr) return nullptr;
    const uint8_t read_only[4] = {0, 0, 0, 1};  // network order, as the service reads it
    ElemList list;
    list.add(ZFX_TLV_ZONE_MEMBERS, ZFX_ZONE_MEMBERS_SIZE, zone->member_bitmap);
    list.add(ZFX_TLV_ZONE_ATTR, ZFX_ATTR_SIZE, zone->attributes);
    list.add(ZFX_TLV_ZONE_QOS, 4, &zone->qos);
    if (zone->read_only == 1) list.add(ZFX_TLV_ZONE_READ_ONLY, 4, read_only);
    return encode_named(zone->id, zone->name, list, length);
}

void *zfx_zone_encode_zoneset_to_kvdb(const zfx_zoneset_node *zoneset, uint32_t *length) {
    if (zoneset == nullptr || length == nullptr) return nullptr;
    // Element 4 carries zone ids below 2000; element 60 is added only when a later id is set.
    uint8_t short_form[4 + ZFX_MEMBER_BITMAP_SIZE] = {};
    store_le32(short_form, ZFX_MEMBER_BITMAP_SIZE);
    std::memcpy(short_form + 4, zoneset->zone_bitmap, ZFX_ZONE_SHORT_BITMAP_SIZE);
    uint8_t full[4 + ZFX_ZONE_BITMAP_SIZE];
    store_le32(full, ZFX_ZONE_BITMAP_SIZE);
    std::memcpy(full + 4, zoneset->zone_bitmap, ZFX_ZONE_BITMAP_SIZE);
    const uint32_t nbits = 8 * ZFX_ZONE_BITMAP_SIZE;
    ElemList list;
    list.add(ZFX_TLV_ZONESET_ZONES, sizeof short_form, short_form);
    if (bit_next(zoneset->zone_bitmap, nbits, ZFX_ZONE_SHORT_ID_LIMIT) < nbits)
        list.add(ZFX_TLV_ZONESET_ZONES_EXT, sizeof full, full);
    list.add(ZFX_TLV_ZONESET_ATTR, ZFX_ATTR_SIZE, zoneset->attributes);
    return encode_named(zoneset->id, zoneset->name, list, length);
}

uint32_t zfx_zoneset_get_persistent_data_size(const zfx_zoneset_node *zoneset, uint32_t *ext_size) {
    if (ext_size == nullptr) return uint32_t(ZFX_ERR_INVALID_ARG);
    *ext_size = 0;
    if (zoneset == nullptr) return 0;
    uint64_t ext;
    const uint64_t total = pzs_size(*zoneset, ext);
    if (total != uint32_t(total)) return UINT32_MAX;  // beyond what the 32-bit size can say
    *ext_size = uint32_t(ext);
    return uint32_t(total);
}

uint32_t zfx_zone_ext_to_persistent_kvdb_data(const zfx_zone_node *zone, uint32_t *ext_count, uint32_t ext_size,
                                              uint8_t **cursor) {
    if (zone == nullptr || ext_count == nullptr || cursor == nullptr || *cursor == nullptr ||
        ext_size < sizeof(zfx_zone_ext_head))
        return 0;
    uint8_t *const el = *cursor;
    const uint8_t *const end = el + ext_size;
    uint8_t *p = el + sizeof(zfx_zone_ext_head);
    // Each write is checked against the room first; what fails is cleared again, uncounted.
    auto fits = [&](uint32_t bytes) { return bytes <= size_t(end - p); };
    bool ok = true;
    uint32_t count = 0;
    if (zone->qos != 0 && (ok = fits(tlv_size(4)))) {
        store_le32(p + 4, zone->qos);
        p = put_inner(p, ZFX_TLV_ZONE_QOS, 4);
        ++count;
    }
    if (ok && zone->read_only == 1 && (ok = fits(tlv_size(4)))) {
        store_be32(p + 4, 1);
        p = put_inner(p, ZFX_TLV_ZONE_READ_ONLY, 4);
        ++count;
    }
    tree_walker w{};
    while (ok) {
        const auto *m = next<zfx_zone_member_node>(zone->members, w);
        if (m == nullptr) break;
        MemberElems e;
        if (m->type == ZFX_MEMBER_PWWN || !member_elems(*m, kExtOrder, false, e)) continue;
        const uint32_t value = member_size(e);
        ok = fits(tlv_size(value));
        if (ok) {
            write_member(p + 4, *m, e);
            p = put_inner(p, ZFX_TLV_ZONE_EXT_MEMBER, uint16_t(value));
            ++count;
        }
    }
    const uint32_t inner = uint32_t(p - el) - sizeof(zfx_zone_ext_head);
    const uint32_t length = sizeof(zfx_zone_ext_head) - sizeof(zfx_tlv32) + inner;
    const uint32_t size = tlvbuf32_size_get(length);
    if (!ok || size > ext_size) {
        std::memset(el + sizeof(zfx_zone_ext_head), 0, size_t(p - el) - sizeof(zfx_zone_ext_head));
        return 0;
    }
    if (count == 0) return 0;
    store_le32(el + offsetof(zfx_zone_ext_head, type), ZFX_TLV_ZONE_EXT);
    store_le32(el + offsetof(zfx_zone_ext_head, length), length);
    store_le32(el + offsetof(zfx_zone_ext_head, zone_id), zone->id);
    store_le32(el + offsetof(zfx_zone_ext_head, count), count);
    store_le32(ext_count, load_le32(ext_count) + 1);
    *cursor = el + size;
    return 0;
}

void *zfx_zone_zoneset_to_persistent_kvdb_data(const zfx_zoneset_node *zoneset, uint32_t *length) {
    if (length != nullptr) *length = 0;
    if (zoneset == nullptr || length == nullptr) return nullptr;
    uint64_t ext;
    const uint64_t total = pzs_size(*zoneset, ext);
    if (total != uint32_t(total)) return nullptr;  // beyond what the 32-bit size can say
    auto *data = static_cast<uint8_t *>(mem_zalloc(total));
    if (data == nullptr) return nullptr;
    write_head(data, zoneset->id, zoneset->name);
    // The zone entries end exactly where the extension area begins.
    uint8_t *const area = data + total - ext;
    uint8_t *ext_cursor = ext != 0 ? area + 4 : nullptr;
    uint8_t *cursor = data + sizeof(zfx_active_zoneset_data);
    if (zoneset->zones != nullptr)
        store_le16(data + offsetof(zfx_active_zoneset_data, count), uint16_t(tree_count(zoneset->zones)));
    tree_walker w{};
    while (const auto *z = next<zfx_zone_node>(zoneset->zones, w)) {
        cursor = write_zone_entry(cursor, *z);
        if (ext != 0) {
            zfx_zone_ext_to_persistent_kvdb_data(z, reinterpret_cast<uint32_t *>(area),
                                                 uint32_t(data + total - ext_cursor), &ext_cursor);
        }
    }
    *length = uint32_t(total);
    return data;
}

int32_t zfx_zone_decode_member_from_kvdb_cfg(const void *record, zfx_zone_member_node *member) {
    if (record == nullptr || member == nullptr) return ZFX_ERR_INVALID_ARG;
    // The record has no length of its own: its array is trusted to be as long as it claims.
    decode_member(record, SIZE_MAX / 2, *member);
    return 0;
}

int32_t zfx_zone_kvdb_restore_options_from_kvdb(kvdb_store *store, uint32_t *options) {
    if (options == nullptr) return ZFX_ERR_INVALID_ARG;
    const uint8_t key[2] = {ZFX_KVDB_ZONE_OPTIONS_KEY, 0x00};
    int32_t status;
    const kvdb_datum *value = fetch(store, key, sizeof key, status);
    if (!holds(value, 1)) return ZFX_ERR_KVDB;
    copy_value(options, sizeof *options, value);
    return 0;
}

void *zfx_zone_restore_active_pzs_from_kvdb(kvdb_store *store) {
    const uint32_t total = active_total(store);
    if (total == 0) return nullptr;
    void *data = mem_zalloc(total);
    if (data != nullptr) read_active(store, data, total);
    return data;
}

}  // extern "C"
