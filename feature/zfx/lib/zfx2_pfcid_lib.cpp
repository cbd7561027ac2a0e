// Persistent FCIDs: the keys of both kinds, entries and their byte order, the tracked list read
// from any key on, and the database text.
#include <algorithm>

#include "zfx_ascii_cfg.h"
#include "zfx_gen_text.hpp"
#include "zfx_kvdb_walk.hpp"
#include "zfx_tracked_alloc.hpp"

namespace zfx {
namespace {

constexpr const char *kPfcidSource = "../feature/zfx/lib/zfx2_pfcid_lib";

constexpr KeyShape pfcid_shape(uint32_t kinds) {
    return KeyShape{ZFX2_PFCID_TABLE, kinds, sizeof(zfx2_pfcid_key), ZFX_ERR_TABLE_KEY, ZFX_ERR_TABLE_KEY};
}
constexpr uint32_t kDomainBit = kind_bit(ZFX2_PFCID_KIND_DOMAIN), kFcidBit = kind_bit(ZFX2_PFCID_KIND_FCID);

// The numbers that change with byte order, at their offsets in an entry. Key bytes 2 to 17 are
// entry bytes 4 to 19, so in a key the same numbers lie kKeyShift bytes earlier.
struct Field {
    uint8_t offset;
    uint8_t width;
};
constexpr Field kIdentity[] = {{offsetof(zfx2_pfcid_entry, tag), 2},
                               {offsetof(zfx2_pfcid_entry, afid), 2},
                               {offsetof(zfx2_pfcid_entry, vsan), 4}};
constexpr Field kNative[] = {{offsetof(zfx2_pfcid_entry, id.domain.native_afid), 2},
                             {offsetof(zfx2_pfcid_entry, id.domain.native_vsan), 4}};
constexpr size_t kKeyShift = offsetof(zfx2_pfcid_entry, tag) - offsetof(zfx2_pfcid_key, tag);
constexpr size_t kKeyBody = sizeof(zfx2_pfcid_key) - offsetof(zfx2_pfcid_key, tag);  // 16 bytes
static_assert(offsetof(zfx2_pfcid_entry, fcid) - offsetof(zfx2_pfcid_entry, tag) == kKeyBody);
static_assert(offsetof(zfx2_pfcid_entry, kind) == 0);  // an entry's kind word is at its start

// Reverses the identity numbers, and the native ones for the domain layout, of a key or entry
// whose fields lie shift bytes before their entry offsets.
void swap_numbers(uint8_t *base, bool domain, size_t shift) {
    for (const Field &f : kIdentity) f.width == 2 ? swap16_at(base + f.offset - shift) : swap32_at(base + f.offset - shift);
    if (!domain) return;
    for (const Field &f : kNative) f.width == 2 ? swap16_at(base + f.offset - shift) : swap32_at(base + f.offset - shift);
}

// Converts an entry in place; the kind decides the fields in host order, read before the swap
// when going to network order and after it when coming back. with_word: the value word as well.
void convert_entry(uint8_t *e, bool to_host, bool with_word) {
    swap32_at(e);
    const uint32_t kind = to_host ? load_le32(e) : bswap(load_le32(e));
    swap_numbers(e, kind == ZFX2_PFCID_KIND_DOMAIN, 0);
    if (with_word) swap32_at(e + offsetof(zfx2_pfcid_entry, word));
}

int32_t key_init(zfx2_pfcid_key *key, uint8_t kind) {
    if (key == nullptr) return ZFX_ERR_INVALID_VALUE;
    std::memset(key, 0, sizeof *key);
    key->table = ZFX2_PFCID_TABLE;
    key->kind = kind;
    key->tag = ZFX2_PFCID_TAG_FIRST;
    return 0;
}

void populate(const zfx2_pfcid_entry *entry, zfx2_pfcid_key *key, int32_t convert, uint8_t kind) {
    if (entry == nullptr || key == nullptr) return;
    uint8_t *k = reinterpret_cast<uint8_t *>(key);
    k[0] = ZFX2_PFCID_TABLE;
    k[1] = kind;
    std::memcpy(k + offsetof(zfx2_pfcid_key, tag), reinterpret_cast<const uint8_t *>(entry) + offsetof(zfx2_pfcid_entry, tag),
                kKeyBody);
    if (convert == 1) swap_numbers(k, kind == ZFX2_PFCID_KIND_DOMAIN, kKeyShift);
}

void key_val_to_entry(const zfx2_pfcid_key *key, const zfx2_pfcid_value *value, zfx2_pfcid_entry *entry,
                      bool convert, bool domain) {
    if (key == nullptr || value == nullptr || entry == nullptr) return;
    const uint8_t *k = reinterpret_cast<const uint8_t *>(key);
    uint8_t *e = reinterpret_cast<uint8_t *>(entry);
    std::memset(e, 0, sizeof *entry);
    store_le32(e, k[offsetof(zfx2_pfcid_key, kind)]);
    std::memcpy(e + offsetof(zfx2_pfcid_entry, tag), k + offsetof(zfx2_pfcid_key, tag), kKeyBody);
    // The domain layout has no use for the key's bytes 12 and 13.
    if (domain) std::memset(e + offsetof(zfx2_pfcid_entry, id.domain.reserved), 0, 2);
    std::memcpy(e + offsetof(zfx2_pfcid_entry, fcid), value, sizeof *value);
    if (!convert) return;
    swap32_at(e);
    swap_numbers(e, domain, 0);
    swap32_at(e + offsetof(zfx2_pfcid_entry, word));
}

// A list entry, in network order, from a key that passed the check (so 18 bytes of either kind)
// and its value; a value shorter than 8 bytes gives only the bytes it holds.
void fill_pfcid(uint8_t *out, const kvdb_datum &key, const kvdb_datum &value, const void *) {
    zfx2_pfcid_key k;
    std::memcpy(&k, key.data, sizeof k);
    zfx2_pfcid_value v{};
    copy_value(&v, sizeof v, &value);
    key_val_to_entry(&k, &v, reinterpret_cast<zfx2_pfcid_entry *>(out), true, k.kind == ZFX2_PFCID_KIND_DOMAIN);
}

// ---- the text ---------------------------------------------------------------------------------

constexpr size_t kPfcidLineSize = 128;

// What ties an FCID record to a domain record: the same AFID and VSAN, and the FCID's domain
// byte equal to the domain the record assigns (byte 1 of the value in both kinds).
uint64_t placement(const zfx2_pfcid_entry &e) {
    return uint64_t(load_be16(&e.afid)) << 40 | uint64_t(load_be32(&e.vsan)) << 8 | e.fcid[1];
}

// The FCID records of a list grouped by placement, each group in list order, so that every
// domain record finds its records without a pass over the whole list.
struct Placed {
    uint64_t placement;
    uint32_t position;
    bool operator<(const Placed &o) const {
        return placement != o.placement ? placement < o.placement : position < o.position;
    }
};

struct FcidIndex {
    Placed *placed = nullptr;  // NULL when it could not be allocated: the list is scanned instead
    uint32_t count = 0;

    explicit FcidIndex(const zfx2_pfcid_list *list) {
        const uint32_t n = list_count(list);
        for (uint32_t i = 0; i < n; ++i) count += load_be32(&list->entries[i].kind) == ZFX2_PFCID_KIND_FCID;
        if (count == 0) return;
        placed = static_cast<Placed *>(mem_alloc(count * sizeof(Placed)));
        if (placed == nullptr) return;
        for (uint32_t i = 0, j = 0; i < n; ++i)
            if (load_be32(&list->entries[i].kind) == ZFX2_PFCID_KIND_FCID) placed[j++] = Placed{placement(list->entries[i]), i};
        std::sort(placed, placed + count);
    }
    ~FcidIndex() { std::free(placed); }
    FcidIndex(const FcidIndex &) = delete;
    FcidIndex &operator=(const FcidIndex &) = delete;
};

struct PfcidText {
    uint32_t handle;
    const zfx2_pfcid_list *list;
    char line[kPfcidLineSize];

    void fcid_line(const zfx2_pfcid_entry &e) {
        Line(line, sizeof line)
            .text("pwwn ")
            .wwn(e.id.pwwn)
            .text(" fcid 0x")
            .hex2(e.fcid[1])
            .hex2(e.fcid[2])
            .hex2(e.fcid[3])
            .end()
            .add(handle, ZFX_ELEM_PFCID, 2);
    }

    // The FCID records under one domain record, in list order.
    void fcids_under(const zfx2_pfcid_entry &domain, const FcidIndex &index) {
        const uint64_t key = placement(domain);
        if (index.placed == nullptr) {
            for (uint32_t i = 0, n = list_count(list); i < n; ++i) {
                const zfx2_pfcid_entry &e = list->entries[i];
                if (load_be32(&e.kind) == ZFX2_PFCID_KIND_FCID && placement(e) == key) fcid_line(e);
            }
            return;
        }
        const Placed *p = std::partition_point(index.placed, index.placed + index.count,
                                               [&](const Placed &x) { return x.placement < key; });
        for (; p != index.placed + index.count && p->placement == key; ++p) fcid_line(list->entries[p->position]);
    }

    void write() {
        const FcidIndex index(list);
        uint16_t afid = 0;
        uint32_t vsan = 0;
        // Domain records come first in key order; the first record of another kind ends them.
        for (uint32_t i = 0, n = list_count(list); i < n; ++i) {
            zfx2_pfcid_entry d;
            zfx2_pfcid_entry_byte_order_convert(&d, &list->entries[i], 1);
            if (d.kind != ZFX2_PFCID_KIND_DOMAIN) break;
            if (d.afid != afid || d.vsan != vsan) {
                afid = d.afid;
                vsan = d.vsan;
                Line(line, sizeof line)
                    .text("zfx fcdomain database autonomous-fabric-num ")
                    .dec(afid)
                    .text(" vsan ")
                    .dec(int32_t(vsan))
                    .end()
                    .add(handle, ZFX_ELEM_PFCID, 0);
            }
            Line(line, sizeof line)
                .text("native-autonomous-fabric-num ")
                .dec(d.id.domain.native_afid)
                .text(" native-vsan ")
                .dec(int32_t(d.id.domain.native_vsan))
                .text(" domain ")
                .dec(d.fcid[1])
                .end()
                .add(handle, ZFX_ELEM_PFCID, 1);
            fcids_under(list->entries[i], index);
        }
    }
};

}  // namespace
}  // namespace zfx

using namespace zfx;

extern "C" {

int32_t zfx2_pfcid_kvdb_key_check(const kvdb_datum *key) { return key_check(key, pfcid_shape(kDomainBit | kFcidBit)); }
int32_t zfx2_pfcid_vdom_kvdb_key_check(const kvdb_datum *key) { return key_check(key, pfcid_shape(kDomainBit)); }
int32_t zfx2_pfcid_vfcid_kvdb_key_check(const kvdb_datum *key) { return key_check(key, pfcid_shape(kFcidBit)); }

int32_t zfx2_pfcid_vdom_kvdb_key_init(zfx2_pfcid_key *key) { return key_init(key, ZFX2_PFCID_KIND_DOMAIN); }
int32_t zfx2_pfcid_vfcid_kvdb_key_init(zfx2_pfcid_key *key) { return key_init(key, ZFX2_PFCID_KIND_FCID); }

void zfx2_pfcid_kvdb_vdom_key_populate(const zfx2_pfcid_entry *entry, zfx2_pfcid_key *key, int32_t convert) {
    populate(entry, key, convert, ZFX2_PFCID_KIND_DOMAIN);
}
void zfx2_pfcid_kvdb_vfcid_key_populate(const zfx2_pfcid_entry *entry, zfx2_pfcid_key *key, int32_t convert) {
    populate(entry, key, convert, ZFX2_PFCID_KIND_FCID);
}

void zfx2_pfcid_vdom_key_val_2_pfcid_entry(const zfx2_pfcid_key *key, const zfx2_pfcid_value *value,
                                           zfx2_pfcid_entry *entry, int32_t convert) {
    key_val_to_entry(key, value, entry, convert != 0, true);
}
void zfx2_pfcid_vfcid_key_val_2_pfcid_entry(const zfx2_pfcid_key *key, const zfx2_pfcid_value *value,
                                            zfx2_pfcid_entry *entry, int32_t convert) {
    key_val_to_entry(key, value, entry, convert != 0, false);
}

int32_t zfx2_pfcid_entry_hton(zfx2_pfcid_entry *entry) {
    if (entry == nullptr) return ZFX_ERR_INVALID_ARG;
    convert_entry(reinterpret_cast<uint8_t *>(entry), false, false);
    return 0;
}
int32_t zfx2_pfcid_entry_ntoh(zfx2_pfcid_entry *entry) {
    if (entry == nullptr) return ZFX_ERR_INVALID_ARG;
    convert_entry(reinterpret_cast<uint8_t *>(entry), true, false);
    return 0;
}
void zfx2_pfcid_entry_byte_order_convert(zfx2_pfcid_entry *destination, const zfx2_pfcid_entry *source,
                                         int32_t to_host) {
    if (destination == nullptr || source == nullptr) return;
    std::memmove(destination, source, sizeof *destination);
    convert_entry(reinterpret_cast<uint8_t *>(destination), to_host != 0, true);
}

int32_t zfx2_pfcid_get_next(kvdb_store *store, const zfx2_pfcid_entry *start, int32_t count, zfx2_pfcid_list **list,
                            uint32_t *size) {
    static const TrackedSite site{kPfcidSource, __LINE__, __func__, ZFX2_PFCID_ALLOC_TYPE};
    if (list != nullptr) *list = nullptr;
    if (size != nullptr) *size = 0;
    zfx2_pfcid_key key;
    if (start == nullptr) zfx2_pfcid_vdom_kvdb_key_init(&key);
    else if (load_be32(&start->kind) == ZFX2_PFCID_KIND_DOMAIN) zfx2_pfcid_kvdb_vdom_key_populate(start, &key, 1);
    else if (load_be32(&start->kind) == ZFX2_PFCID_KIND_FCID) zfx2_pfcid_kvdb_vfcid_key_populate(start, &key, 1);
    else return ZFX_ERR_INVALID_VALUE;
    // A key equal to the start is passed over: a caller resumes after the last entry it holds.
    const TableWalk walk{pfcid_shape(kDomainBit | kFcidBit), &key, sizeof key, 0, true};
    const int32_t status = get_list(store, walk, fill_pfcid, nullptr, list, size, count,
                                    [](size_t bytes) { return tracked_zalloc(site, bytes); });
    // A list that could not be allocated is in the event history already; the caller finds none.
    return status == ZFX_ERR_NO_MEMORY ? 0 : status;
}

int32_t zfx2_pfcid_generate_ascii_config(uint32_t handle, kvdb_store *store, int32_t *commit) {
    if (store == nullptr) {
        report_null_store(kVtNullStore);
        return 0;
    }
    zfx2_pfcid_entry start{};
    start.kind = hton32(ZFX2_PFCID_KIND_DOMAIN);
    zfx2_pfcid_list *list = nullptr;
    uint32_t size = 0;
    const int32_t status = zfx2_pfcid_get_next(store, &start, -1, &list, &size);
    if (status != 0) return status;
    if (list_count(list) != 0) {
        if (commit != nullptr) *commit = 1;
        PfcidText{handle, list, {}}.write();
    }
    zfx_tracked_free(list);
    return 0;
}

}  // extern "C"
