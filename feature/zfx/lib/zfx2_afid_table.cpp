// The autonomous fabric ID table, its default and ordinary halves: key check, list and text.
#include "zfx_ascii_cfg.h"
#include "zfx_fabric.h"
#include "zfx_gen_text.hpp"
#include "zfx_kvdb_walk.hpp"

#include <initializer_list>

namespace zfx {
namespace {

KeyShape afid_shape(uint8_t is_default) {
    return KeyShape{uint8_t(is_default ? ZFX2_AFID_DEFAULT_TABLE : ZFX2_AFID_TABLE), kind_bit(ZFX2_AFID_KIND),
                    sizeof(zfx2_afid_table_kvdb_key), ZFX_ERR_AFID_KEY, ZFX_ERR_AFID_KEY_LENGTH};
}

// An entry's fields as its key and value hold them: what its list entry is filled from, and what
// the text reads of an entry held in the store.
struct StoredAfid {
    const uint8_t *key;
    const uint8_t *value;  // a VSAN set as stored
    uint16_t afid() const { return load_le16(key + offsetof(zfx2_afid_table_kvdb_key, afid)); }
    const uint8_t *wwn() const { return key + offsetof(zfx2_afid_table_kvdb_key, wwn); }
    const uint8_t *bits() const { return value + offsetof(vsan_bitset, bits); }
};

// The same fields of a list entry.
struct ListedAfid {
    const zfx2_afid_table_entry &e;
    uint16_t afid() const { return ntoh16(e.afid); }
    const uint8_t *wwn() const { return e.wwn; }
    const uint8_t *bits() const { return e.vsans.bits; }
};

void fill_afid(uint8_t *out, const kvdb_datum &key, const kvdb_datum &value, const void *) {
    const StoredAfid a{static_cast<const uint8_t *>(key.data), static_cast<const uint8_t *>(value.data)};
    store_be16(out + offsetof(zfx2_afid_table_entry, afid), a.afid());
    std::memcpy(out + offsetof(zfx2_afid_table_entry, wwn), a.wwn(), ZFX_WWN_SIZE);
    std::memcpy(out + offsetof(zfx2_afid_table_entry, vsans), a.value, sizeof(vsan_bitset));
    store_be32(out + offsetof(zfx2_afid_table_entry, is_local),
               std::memcmp(a.wwn(), local_switch_wwn, ZFX_WWN_SIZE) == 0 ? 1 : 0);
}

// The walk over the default (is_default non-zero) or the ordinary half.
TableWalk afid_walk(uint8_t is_default) {
    static constexpr uint8_t kStarts[2][sizeof(zfx2_afid_table_kvdb_key)] = {{ZFX2_AFID_TABLE, ZFX2_AFID_KIND},
                                                                             {ZFX2_AFID_DEFAULT_TABLE, ZFX2_AFID_KIND}};
    const uint8_t(&start)[sizeof(zfx2_afid_table_kvdb_key)] = kStarts[is_default ? 1 : 0];
    return TableWalk{afid_shape(is_default), start, sizeof start, sizeof(vsan_bitset)};
}

// The text of a table of count entries (at(i) gives entry i's fields).
template <typename At>
void afid_show(uint32_t handle, uint32_t count, At at, uint8_t is_default) {
    if (count == 0) return;
    char buf[kRangeLineSize];
    Line line(buf, sizeof buf);
    line.text("autonomous-fabric-id database").end().add(handle, ZFX_ELEM_AFID, kBaseLevel);
    for (uint32_t i = 0; i < count; ++i) {
        const auto e = at(i);
        line.text("switch-wwn ").wwn(e.wwn());
        if (is_default) line.text(" default-autonomous-fabric-id ").dec(e.afid(), 4);
        else line.text(" autonomous-fabric-id ").dec(e.afid(), 4).text(" vsan-ranges ").ranges(e.bits());
        line.end().add(handle, ZFX_ELEM_AFID, 1);
    }
}

}  // namespace
}  // namespace zfx

using namespace zfx;

extern "C" {

int32_t zfx2_afid_table_kvdb_key_check(const kvdb_datum *key, uint8_t is_default) {
    return key_check(key, afid_shape(is_default));
}

int32_t zfx2_afid_table_config_get(kvdb_store *store, zfx2_afid_table_list **list, uint32_t *size,
                                   uint8_t is_default) {
    return get_list(store, afid_walk(is_default), fill_afid, nullptr, list, size);
}

int32_t zfx2_afid_table_config_show(uint32_t handle, const zfx2_afid_table_list *list, uint8_t is_default) {
    afid_show(handle, list_count(list), [list](uint32_t i) { return ListedAfid{list->entries[i]}; }, is_default);
    return 0;
}

int32_t zfx2_afid_table_generate_ascii_config(uint32_t handle, kvdb_store *store, int32_t *commit) {
    if (store == nullptr) {
        report_null_store(kVtNullStore);
        return 0;
    }
    // The text reads each entry once: it reads them where the store holds them, not from a list.
    for (const uint8_t is_default : {1, 0}) {
        const HeldEntries held(store, afid_walk(is_default));
        afid_show(handle, held.size(), [&held](uint32_t i) { return StoredAfid{held[i].key, held[i].value}; }, is_default);
        if (held.size() != 0 && commit != nullptr) *commit = 1;
    }
    return 0;
}

}  // extern "C"
