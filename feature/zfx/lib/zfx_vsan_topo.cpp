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

void fill_topo(uint8_t *out, const kvdb_datum &key, const kvdb_datum &value, const void *) {
    const uint8_t *k = static_cast<const uint8_t *>(key.data);
    store_be16(out + offsetof(zfx_vsan_topo_entry, afid), load_le16(k + offsetof(zfx_vt_kvdb_key, afid)));
    std::memcpy(out + offsetof(zfx_vsan_topo_entry, wwn), k + offsetof(zfx_vt_kvdb_key, wwn), ZFX_WWN_SIZE);
    std::memcpy(out + offsetof(zfx_vsan_topo_entry, vsans), value.data, sizeof(vsan_bitset));
    const bool local = std::memcmp(k + offsetof(zfx_vt_kvdb_key, wwn), local_switch_wwn, ZFX_WWN_SIZE) == 0;
    store_be32(out + offsetof(zfx_vsan_topo_entry, is_local), local ? 1 : 0);
    store_be32(out + offsetof(zfx_vsan_topo_entry, membership), k[offsetof(zfx_vt_kvdb_key, membership)]);
}

// One pass of the text: the entries whose membership passes the test, each as an entry line at
// level 1 (word is "" or "no "), with the database line before the first one when asked.
// Returns how many entries it wrote.
uint32_t topo_pass(uint32_t handle, const zfx_vsan_topo_list *list, bool (*take)(uint32_t membership),
                   const char *word, bool database_line) {
    char buf[kRangeLineSize];
    Line line(buf, sizeof buf);
    uint32_t written = 0;
    const uint32_t count = list_count(list);
    for (uint32_t i = 0; i < count; ++i) {
        const zfx_vsan_topo_entry &e = list->entries[i];
        if (!take(ntoh32(e.membership))) continue;
        if (written++ == 0 && database_line)
            line.text("zfx vsan-topology database").end().add(handle, ZFX_ELEM_TOPOLOGY, kBaseLevel);
        line.text(word).text("autonomous-fabric-id ").dec(ntoh16(e.afid), 4).text(" switch-wwn ").wwn(e.wwn);
        line.text(" vsan-ranges ").ranges(&e.vsans).end().add(handle, ZFX_ELEM_TOPOLOGY, 1);
    }
    return written;
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
    const TableWalk walk{vt_shape(table), start, sizeof start, sizeof(vsan_bitset), false, membership_matches, &mask};
    return get_list(store, walk, fill_topo, nullptr, list, size);
}

int32_t zfx_vsan_topo_config_show(uint32_t handle, const zfx_vsan_topo_list *list) {
    const uint32_t activated = topo_pass(
        handle, list, [](uint32_t m) { return (m & ZFX_VT_FLAG_ACTIVE) != 0; }, "", true);
    if (activated != 0) {
        char buf[64];
        Line(buf, sizeof buf).text("zfx vsan-topology activate").end().add(handle, ZFX_ELEM_TOPOLOGY, kBaseLevel);
    }
    topo_pass(handle, list, [](uint32_t m) { return m == ZFX_VT_FLAG_CONFIG; }, "", true);
    // Removals follow whatever the configured pass wrote, without a database line of their own.
    topo_pass(handle, list, [](uint32_t m) { return m == ZFX_VT_FLAG_ACTIVE; }, "no ", false);
    return 0;
}

int32_t zfx_vsan_topology_generate_ascii_config(uint32_t handle, kvdb_store *store) {
    if (store == nullptr) {
        report_null_store(kVtNullStore);
        return 0;
    }
    zfx_vsan_topo_list *list = nullptr;
    uint32_t size = 0;
    if (zfx_vsan_topo_config_get(store, ZFX_VT_TABLE, ZFX_VT_FLAG_ACTIVE | ZFX_VT_FLAG_CONFIG, &list, &size) == 0)
        zfx_vsan_topo_config_show(handle, list);
    if (list != nullptr) {
        if (list_count(list) != 0) commit_reqd = 1;
        std::free(list);
    }
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
