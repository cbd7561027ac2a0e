// Virtual domains: the switch-wide VSAN set and the per-AFID sets, their key check, the tracked
// per-AFID list and the lines of both forms in the global settings.
#include <initializer_list>

#include "zfx_ascii_cfg.h"
#include "zfx_gen_text.hpp"
#include "zfx_kvdb_walk.hpp"
#include "zfx_tracked_alloc.hpp"

namespace zfx {
namespace {

// The failure report files the per-AFID list under the configuration-text source, where the
// virtual domain text has always been reported from.
constexpr const char *kRdiSource = "../feature/zfx/lib/zfx_ascii_cfg";

constexpr KeyShape kRdiShape{ZFX_RDI_TABLE, 0, sizeof(zfx_rdi_kvdb_key), ZFX_ERR_TABLE_KEY, ZFX_ERR_TABLE_KEY};

void fill_rdi(uint8_t *out, const kvdb_datum &key, const kvdb_datum &value, const void *) {
    store_be16(out + offsetof(zfx_rdi_entry, afid),
               load_le16(static_cast<const uint8_t *>(key.data) + offsetof(zfx_rdi_kvdb_key, afid)));
    // A short value gives the set only the bytes it holds.
    copy_value(out + offsetof(zfx_rdi_entry, vsans), sizeof(vsan_bitset), &value);
}

// Adds the line the words of head begin (the line's words up to the ranges), the range text of
// set and tail end ("\n" or " force\n") to the global settings, after taking out the VSANs that
// are never configured (0, 4094, 4095); a set left empty adds nothing. The range text is cut after
// its last whole run where the whole line would not fit its buffer.
void vdom_line(uint32_t handle, vsan_bitset *set, Line &head, const char *tail) {
    for (int32_t v : {0, 4094, 4095}) vsan_bitset_clear_bit(set, v);
    if (vsan_bitset_first_bit(set) < 0) return;
    head.ranges(set, ZFX_VDOM_LINE_SIZE - 1 - head.length() - std::strlen(tail)).text(tail).add(handle, ZFX_ELEM_GLOBAL, 0);
}

}  // namespace
}  // namespace zfx

using namespace zfx;

extern "C" {

int32_t zfx_rdi_kvdb_key_check(const kvdb_datum *key) { return key_check(key, kRdiShape); }

int32_t zfx_rdi_kvdb_key_init(zfx_rdi_kvdb_key *key) {
    if (key == nullptr) return ZFX_ERR_INVALID_VALUE;
    *key = zfx_rdi_kvdb_key{ZFX_RDI_TABLE, 0, 0};
    return 0;
}

int32_t zfx_rdi_get_next(kvdb_store *store, int32_t count, zfx_rdi_list **list, uint32_t *size) {
    static const TrackedSite site{kRdiSource, __LINE__, __func__, ZFX_RDI_ALLOC_TYPE};
    zfx_rdi_kvdb_key start;
    zfx_rdi_kvdb_key_init(&start);
    const int32_t status = get_list(store, TableWalk{kRdiShape, &start, sizeof start}, fill_rdi, nullptr, list, size,
                                    count, [](size_t bytes) { return tracked_zalloc(site, bytes); });
    // A list that could not be allocated is in the event history already; the caller finds none.
    return status == ZFX_ERR_NO_MEMORY ? 0 : status;
}

int32_t zfx2_rdi_mode_generate_ascii_config(uint32_t handle, kvdb_store *store) {
    if (store == nullptr) {
        report_null_store(kVtNullStore);
        return 0;
    }
    uint32_t flags = 0;
    zfx_global_flags_kvdb_restore(store, &flags);
    const uint8_t key[2] = {ZFX_KVDB_VDOM_LIST_KEY, 0x00};
    int32_t status;
    const kvdb_datum *value = fetch(store, key, sizeof key, status);
    if (status != 0) return status;
    if (value == nullptr) return 0;
    // Only the stored bits count: the set takes its own length word.
    vsan_bitset set;
    vsan_bitset_init(&set);
    if (holds(value, offsetof(vsan_bitset, bits) + 1)) {
        const kvdb_datum bits{static_cast<uint8_t *>(value->data) + offsetof(vsan_bitset, bits),
                              value->len - uint32_t(offsetof(vsan_bitset, bits))};
        copy_value(set.bits, sizeof set.bits, &bits);
    }
    char buf[ZFX_VDOM_LINE_SIZE];
    Line line(buf, sizeof buf);
    line.text("zfx virtual-fcdomain-add vsan-ranges ");
    vdom_line(handle, &set, line, (flags & ZFX_GFLAG_VDOM_FORCE) != 0 ? " force\n" : "\n");
    return 0;
}

int32_t zfx2_rdi_mode_generate_ascii_config2(uint32_t handle, kvdb_store *store) {
    if (store == nullptr) {
        report_null_store(kVtNullStore);
        return 0;
    }
    zfx_rdi_list *list = nullptr;
    uint32_t size = 0;
    zfx_rdi_get_next(store, -1, &list, &size);
    if (list == nullptr) return 0;
    char buf[ZFX_VDOM_LINE_SIZE];
    for (uint32_t i = 0, n = list_count(list); i < n; ++i) {
        zfx_rdi_entry &e = list->entries[i];
        Line line(buf, sizeof buf);
        line.text("zfx virtual-fcdomain-add2 autonomous-fabric-ID ").dec(ntoh16(e.afid)).text("  vsan-ranges ");
        vdom_line(handle, &e.vsans, line, "\n");
    }
    zfx_tracked_free(list);
    return 0;
}

}  // extern "C"
