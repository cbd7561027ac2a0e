// The VSAN topology table: its key check, list, mode record and configuration text.
#include "zfx_ascii_cfg.h"
#include "zfx_fabric.h"
#include "zfx_gen_text.hpp"
#include "zfx_kvdb_walk.hpp"

namespace zfx {
namespace {

KeyShape vt_shape(uint8_t table) {
    return KeyShape{table, kind_bit(ZFX_VT_KIND_ENTRY), sizeof(zfx_vt_kvdb_key), ZFX_ERR_VT_KEY,
                    ZFX_ERR_VT_KEY_LENGTH};
}

bool membership_matches(const kvdb_datum &key, const void *mask) {
    return (static_cast<const uint8_t *>(key.data)[offsetof(zfx_vt_kvdb_key, membership)] &
            *static_cast<const uint8_t *>(mask)) != 0;
}

// An entry's fields as its key and value hold them: what its list entry is filled from, and what
// the text reads of an entry held in the store.
struct StoredTopo {
    const uint8_t *key;
    const uint8_t *value;  // a VSAN set as stored
    uint16_t afid() const { return load_le16(key + offsetof(zfx_vt_kvdb_key, afid)); }
    const uint8_t *wwn() const { return key + offsetof(zfx_vt_kvdb_key, wwn); }
    uint32_t membership() const { return key[offsetof(zfx_vt_kvdb_key, membership)]; }
    const uint8_t *bits() const { return value + offsetof(vsan_bitset, bits); }
};

// The same fields of a list entry.
struct ListedTopo {
    const zfx_vsan_topo_entry &e;
    uint16_t afid() const { return ntoh16(e.afid); }
    const uint8_t *wwn() const { return e.wwn; }
    uint32_t membership() const { return ntoh32(e.membership); }
    const uint8_t *bits() const { return e.vsans.bits; }
};

void fill_topo(uint8_t *out, const kvdb_datum &key, const kvdb_datum &value, const void *) {
    const StoredTopo t{static_cast<const uint8_t *>(key.data), static_cast<const uint8_t *>(value.data)};
    store_be16(out + offsetof(zfx_vsan_topo_entry, afid), t.afid());
    std::memcpy(out + offsetof(zfx_vsan_topo_entry, wwn), t.wwn(), ZFX_WWN_SIZE);
    std::memcpy(out + offsetof(zfx_vsan_topo_entry, vsans), t.value, sizeof(vsan_bitset));
    const bool local = std::memcmp(t.wwn(), local_switch_wwn, ZFX_WWN_SIZE) == 0;
    store_be32(out + offsetof(zfx_vsan_topo_entry, is_local), local ? 1 : 0);
    store_be32(out + offsetof(zfx_vsan_topo_entry, membership), t.membership());
}

// One pass of the text over count entries (at(i) gives entry i's fields): those whose membership
// passes the test, each as an entry line at level 1 (word is "" or "no "), with the database line
// before the first one when asked. Returns how many entries it wrote.
template <typename At>
uint32_t topo_pass(uint32_t handle, uint32_t count, At at, bool (*take)(uint32_t membership), const char *word,
                   bool database_line) {
    char buf[kRangeLineSize];
    Line line(buf, sizeof buf);
    uint32_t written = 0;
    for (uint32_t i = 0; i < count; ++i) {
        const auto e = at(i);
        if (!take(e.membership())) continue;
        if (written++ == 0 && database_line)
            line.text("zfx vsan-topology database").end().add(handle, ZFX_ELEM_TOPOLOGY, kBaseLevel);
        line.text(word).text("autonomous-fabric-id ").dec(e.afid(), 4).text(" switch-wwn ").wwn(e.wwn());
        line.text(" vsan-ranges ").ranges(e.bits()).end().add(handle, ZFX_ELEM_TOPOLOGY, 1);
    }
    return written;
}

// The text of a table of count entries: the activated ones, the configured ones, the removals.
template <typename At>
void topo_show(uint32_t handle, uint32_t count, At at) {
    const uint32_t activated = topo_pass(
        handle, count, at, [](uint32_t m) { return (m & ZFX_VT_FLAG_ACTIVE) != 0; }, "", true);
    if (activated != 0) {
        char buf[64];
        Line(buf, sizeof buf).text("zfx vsan-topology activate").end().add(handle, ZFX_ELEM_TOPOLOGY, kBaseLevel);
    }
    topo_pass(handle, count, at, [](uint32_t m) { return m == ZFX_VT_FLAG_CONFIG; }, "", true);
    // Removals follow whatever the configured pass wrote, without a database line of their own.
    topo_pass(handle, count, at, [](uint32_t m) { return m == ZFX_VT_FLAG_ACTIVE; }, "no ", false);
}

TableWalk topo_walk(const uint8_t (&start)[sizeof(zfx_vt_kvdb_key)], const uint8_t &mask) {
    return TableWalk{vt_shape(start[0]), start, sizeof start, sizeof(vsan_bitset), false, membership_matches, &mask};
}

}  // namespace
}  // namespace zfx

using namespace zfx;

extern "C" {

int32_t zfx_vt_kvdb_key_check(const kvdb_datum *key, uint8_t table) { return key_check(key, vt_shape(table)); }

int32_t zfx_vt_get_vsan_topo_flag_in_kvdb(kvdb_store *store, zfx_vt_mode_record *record, uint32_t *first_word) {
    if (record != nullptr) std::memset(record, 0, sizeof *record);
    if (first_word != nullptr) *first_word = 0;
    if (store == nullptr || record == nullptr || first_word == nullptr) return ZFX_ERR_INVALID_ARG;
    const uint8_t key[2] = {ZFX_VT_TABLE, ZFX_VT_KIND_MODE};
    int32_t status;
    const kvdb_datum *value = fetch(store, key, sizeof key, status);
    if (status != 0) return status;
    if (!holds(value, sizeof *record)) return ZFX_KVDB_NOT_FOUND;
    copy_value(record, sizeof *record, value);
    *first_word = record->word0;
    return 0;
}

int32_t zfx_vsan_topo_config_get(kvdb_store *store, uint8_t table, uint8_t mask, zfx_vsan_topo_list **list,
                                 uint32_t *size) {
    const uint8_t start[sizeof(zfx_vt_kvdb_key)] = {table, ZFX_VT_KIND_ENTRY};
    return get_list(store, topo_walk(start, mask), fill_topo, nullptr, list, size);
}

int32_t zfx_vsan_topo_config_show(uint32_t handle, const zfx_vsan_topo_list *list) {
    topo_show(handle, list_count(list), [list](uint32_t i) { return ListedTopo{list->entries[i]}; });
    return 0;
}

int32_t zfx_vsan_topology_generate_ascii_config(uint32_t handle, kvdb_store *store) {
    if (store == nullptr) {
        report_null_store(kVtNullStore);
        return 0;
    }
    // The text reads each entry once: it reads them where the store holds them, not from a list.
    const uint8_t start[sizeof(zfx_vt_kvdb_key)] = {ZFX_VT_TABLE, ZFX_VT_KIND_ENTRY};
    const uint8_t mask = ZFX_VT_FLAG_ACTIVE | ZFX_VT_FLAG_CONFIG;
    const HeldEntries held(store, topo_walk(start, mask));
    topo_show(handle, held.size(), [&held](uint32_t i) { return StoredTopo{held[i].key, held[i].value}; });
    if (held.size() != 0) commit_reqd = 1;
    zfx_vt_mode_record record;
    uint32_t first_word;
    const int32_t status = zfx_vt_get_vsan_topo_flag_in_kvdb(store, &record, &first_word);
    if (status != 0) return status;
    if (ntoh32(record.mode) == ZFX_VT_MODE_AUTO) {
        char buf[64];
        Line(buf, sizeof buf).text("zfx vsan-topology auto").end().add(handle, ZFX_ELEM_TOPOLOGY, kBaseLevel);
        commit_reqd = 1;
    }
    return 0;
}

}  // extern "C"
