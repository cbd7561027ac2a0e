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

void fill_afid(uint8_t *out, const kvdb_datum &key, const kvdb_datum &value, const void *) {
    const uint8_t *k = static_cast<const uint8_t *>(key.data);
    const uint8_t *wwn = k + offsetof(zfx2_afid_table_kvdb_key, wwn);
    store_be16(out + offsetof(zfx2_afid_table_entry, afid), load_le16(k + offsetof(zfx2_afid_table_kvdb_key, afid)));
    std::memcpy(out + offsetof(zfx2_afid_table_entry, wwn), wwn, ZFX_WWN_SIZE);
    std::memcpy(out + offsetof(zfx2_afid_table_entry, vsans), value.data, sizeof(vsan_bitset));
    store_be32(out + offsetof(zfx2_afid_table_entry, is_local),
               std::memcmp(wwn, local_switch_wwn, ZFX_WWN_SIZE) == 0 ? 1 : 0);
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
    const KeyShape shape = afid_shape(is_default);
    const uint8_t start[sizeof(zfx2_afid_table_kvdb_key)] = {shape.table, ZFX2_AFID_KIND};
    return get_list(store, TableWalk{shape, start, sizeof start, sizeof(vsan_bitset)}, fill_afid, nullptr, list, size);
}

int32_t zfx2_afid_table_config_show(uint32_t handle, const zfx2_afid_table_list *list, uint8_t is_default) {
    const uint32_t count = list_count(list);
    if (count == 0) return 0;
    char buf[kRangeLineSize];
    Line line(buf, sizeof buf);
    line.text("autonomous-fabric-id database").end().add(handle, ZFX_ELEM_AFID, kBaseLevel);
    for (uint32_t i = 0; i < count; ++i) {
        const zfx2_afid_table_entry &e = list->entries[i];
        const int32_t afid = ntoh16(e.afid);
        line.text("switch-wwn ").wwn(e.wwn);
        if (is_default) line.text(" default-autonomous-fabric-id ").dec(afid, 4);
        else line.text(" autonomous-fabric-id ").dec(afid, 4).text(" vsan-ranges ").ranges(&e.vsans);
        line.end().add(handle, ZFX_ELEM_AFID, 1);
    }
    return 0;
}

int32_t zfx2_afid_table_generate_ascii_config(uint32_t handle, kvdb_store *store, int32_t *commit) {
    if (store == nullptr) {
        report_null_store(kVtNullStore);
        return 0;
    }
    for (const bool is_default : {true, false}) {
        zfx2_afid_table_list *list = nullptr;
        uint32_t size = 0;
        if (zfx2_afid_table_config_get(store, &list, &size, is_default) == 0)
            zfx2_afid_table_config_show(handle, list, is_default);
        if (list != nullptr) {
            if (list_count(list) != 0 && commit != nullptr) *commit = 1;
            std::free(list);
        }
    }
    return 0;
}

}  // extern "C"
