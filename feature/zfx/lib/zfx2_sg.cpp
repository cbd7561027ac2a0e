// Service groups: the active and configured tables, their lists, and the text of the active
// groups followed by what the configured table changes.
#include "zfx_ascii_cfg.h"
#include "zfx_fabric.h"
#include "zfx_gen_text.hpp"
#include "zfx_kvdb_walk.hpp"

#include <algorithm>
#include <initializer_list>

namespace zfx {
namespace {

uint8_t sg_table(uint8_t is_cfg) { return is_cfg ? ZFX2_SG_CFG_TABLE : ZFX2_SG_ACTIVE_TABLE; }

KeyShape member_shape(uint8_t is_cfg) {
    return KeyShape{sg_table(is_cfg), kind_bit(ZFX2_SG_KIND_MEMBER), sizeof(zfx2_sg_kvdb_key), ZFX_ERR_TABLE_KEY,
                    ZFX_ERR_TABLE_KEY};
}

KeyShape name_shape(uint8_t is_cfg) {
    return KeyShape{sg_table(is_cfg), kind_bit(ZFX2_SG_KIND_NAME), sizeof(zfx2_sg_kvdb_id_key), ZFX_ERR_TABLE_KEY,
                    ZFX_ERR_TABLE_KEY};
}

void fill_member(uint8_t *out, const kvdb_datum &key, const kvdb_datum &value, const void *state) {
    const uint8_t *k = static_cast<const uint8_t *>(key.data);
    store_be32(out + offsetof(zfx2_sg_entry, group_id), load_le32(k + offsetof(zfx2_sg_kvdb_key, group_id)));
    store_be16(out + offsetof(zfx2_sg_entry, afid), load_le16(k + offsetof(zfx2_sg_kvdb_key, afid)));
    out[offsetof(zfx2_sg_entry, state)] = *static_cast<const uint8_t *>(state);
    std::memcpy(out + offsetof(zfx2_sg_entry, vsans), value.data, sizeof(vsan_bitset));
}

bool same_name(const char *a, const char *b) { return std::strncmp(a, b, ZFX2_SG_NAME_SIZE) == 0; }

const zfx2_sg_entry *entry_at(uint32_t index, const zfx2_sg_list *a, const zfx2_sg_list *b) {
    return index < list_count(a) && list_count(b) != 0 ? &a->entries[index] : nullptr;
}

// The entries of a list in the order of what the differences compare (name, fabric ID, VSANs),
// so that each question "does the other list hold this group / member / member with these
// VSANs" is a binary search rather than a pass over the whole list: the answers are those of
// zfx2_sg_name_check_if_in_cfg2 and zfx2_sg_member_check_if_in_cfg2. Without memory for the
// order (order NULL) those answer instead.
class SgIndex {
public:
    // order: room for the list's entry count, kept by the caller for as long as the index.
    SgIndex(const zfx2_sg_list *list, uint32_t *order) : list_(list), order_(order) {
        if (order_ == nullptr) return;
        const uint32_t n = list_count(list);
        for (uint32_t i = 0; i < n; ++i) order_[i] = i;
        std::sort(order_, order_ + n, [&](uint32_t a, uint32_t b) { return compare(entry(a), entry(b), kVsans) < 0; });
    }

    // Depth of a comparison: the name alone, the name and fabric ID, or all three.
    enum Depth { kName, kAfid, kVsans };

    // Whether the list holds an entry equal to entry index of other up to depth (other's entries
    // against an empty list: never).
    bool holds(uint32_t index, const zfx2_sg_list *other, Depth depth) const {
        if (order_ == nullptr) {
            if (depth == kName) return zfx2_sg_name_check_if_in_cfg2(index, other, list_) != 0;
            return zfx2_sg_member_check_if_in_cfg2(index, other, list_, depth == kVsans) != 0;
        }
        const zfx2_sg_entry *e = entry_at(index, other, list_);
        if (e == nullptr) return false;
        const uint32_t *end = order_ + list_count(list_);
        const uint32_t *first = order_;
        const uint32_t *at = std::lower_bound(first, end, e, [&](uint32_t i, const zfx2_sg_entry *x) {
            return compare(entry(i), *x, depth) < 0;
        });
        return at != end && compare(entry(*at), *e, depth) == 0;
    }

private:
    const zfx2_sg_entry &entry(uint32_t i) const { return list_->entries[i]; }
    static int compare(const zfx2_sg_entry &a, const zfx2_sg_entry &b, Depth depth) {
        if (const int c = std::strncmp(a.name, b.name, ZFX2_SG_NAME_SIZE); c != 0 || depth == kName) return c;
        if (a.afid != b.afid) return int(a.afid) - int(b.afid);
        return depth == kAfid ? 0 : std::memcmp(&a.vsans, &b.vsans, sizeof a.vsans);
    }

    const zfx2_sg_list *list_;
    uint32_t *order_;
};

// A pass over one list. It keeps the name of the last group line it wrote, so that a group's
// members share one group line.
struct Pass {
    uint32_t handle;
    char last[ZFX2_SG_NAME_SIZE] = {};
    char line[ZFX2_SG_LINE_SIZE];

    // The group line for e, unless the pass wrote it last. word is "" or "no ".
    void group(const zfx2_sg_entry &e, const char *word = "") {
        if (same_name(e.name, last)) return;
        std::memcpy(last, e.name, sizeof last);
        Line(line, sizeof line).text(word).text("zfx service-group name ").text_max(e.name, sizeof e.name).end().add(
            handle, ZFX_ELEM_SERVICE_GROUP, kBaseLevel);
    }
    // A member line at level 1, its range text cut after the last run that fits the line.
    void member(const zfx2_sg_entry &e, const char *word = "") {
        Line l(line, sizeof line);
        l.text(word).text("autonomous-fabric-id ").dec(ntoh16(e.afid), 2).text(" vsan-ranges ");
        // The words and the "\n" take their room first; the ranges get the rest.
        l.ranges(&e.vsans, sizeof line - 2 - l.length()).end().add(handle, ZFX_ELEM_SERVICE_GROUP, 1);
    }
};

}  // namespace
}  // namespace zfx

using namespace zfx;

extern "C" {

int32_t zfx2_sg_kvdb_key_check_internal(const kvdb_datum *key, uint8_t is_cfg) {
    return key_check(key, member_shape(is_cfg));
}
int32_t zfx2_sg_cfg_kvdb_key_check(const kvdb_datum *key) { return key_check(key, member_shape(1)); }
int32_t zfx2_sg_active_kvdb_key_check(const kvdb_datum *key) { return key_check(key, member_shape(0)); }
int32_t zfx2_sg_kvdb_key_check_id_internal(const kvdb_datum *key, uint8_t is_cfg) {
    return key_check(key, name_shape(is_cfg));
}
int32_t zfx2_sg_cfg_kvdb_key_check_id(const kvdb_datum *key) { return key_check(key, name_shape(1)); }
int32_t zfx2_sg_active_kvdb_key_check_id(const kvdb_datum *key) { return key_check(key, name_shape(0)); }

uint32_t zfx2_get_default_sg_policy(kvdb_store *store) {
    if (store == nullptr) return 0;
    const uint8_t key[2] = {ZFX2_SG_ACTIVE_TABLE, ZFX2_SG_KIND_POLICY};
    int32_t status;
    const kvdb_datum *value = fetch(store, key, sizeof key, status);
    return holds(value, 4) ? load_le32(value->data) : 0;
}

int32_t zfx2_sg_get_name_from_id(uint32_t group_id, char *name, kvdb_store *store, uint8_t is_cfg) {
    if (name == nullptr) return ZFX_ERR_INVALID_ARG;
    std::memset(name, 0, ZFX2_SG_NAME_SIZE);
    if (store == nullptr) return ZFX_ERR_TABLE_KEY;
    uint8_t key[sizeof(zfx2_sg_kvdb_id_key)] = {sg_table(is_cfg), ZFX2_SG_KIND_NAME};
    store_le32(key + offsetof(zfx2_sg_kvdb_id_key, group_id), group_id);
    int32_t status;
    const kvdb_datum *value = fetch(store, key, sizeof key, status);
    if (value == nullptr) return ZFX_ERR_TABLE_KEY;
    copy_value(name, ZFX2_SG_NAME_SIZE, value);
    return 0;
}

int32_t zfx2_sg_config_get(kvdb_store *store, zfx2_sg_list **list, uint32_t *size, uint8_t is_cfg) {
    const uint8_t state = is_cfg                               ? 0
                          : zfx2_get_default_sg_policy(store) ? ZFX2_SG_STATE_ACTIVE_DENY
                                                               : ZFX2_SG_STATE_ACTIVE;
    const uint8_t start[sizeof(zfx2_sg_kvdb_key)] = {sg_table(is_cfg), ZFX2_SG_KIND_MEMBER};
    const TableWalk walk{member_shape(is_cfg), start, sizeof start, sizeof(vsan_bitset)};
    const int32_t status = get_list(store, walk, fill_member, &state, list, size);
    if (status != 0) return status;
    // Every entry carries its group's name. A group's members lie together (its id leads their
    // keys): an entry of the same group as the one before takes its name from there, and the
    // name is looked up once per group, not once per member.
    for (uint32_t i = 0, n = list_count(*list); i < n; ++i) {
        zfx2_sg_entry &e = (*list)->entries[i];
        const zfx2_sg_entry *before = i != 0 ? &(*list)->entries[i - 1] : nullptr;
        if (before != nullptr && before->group_id == e.group_id)
            std::memcpy(e.name, before->name, sizeof e.name);
        else
            zfx2_sg_get_name_from_id(ntoh32(e.group_id), e.name, store, is_cfg);
    }
    return 0;
}

int32_t zfx2_sg_name_check_if_in_cfg2(uint32_t index, const zfx2_sg_list *a, const zfx2_sg_list *b) {
    const zfx2_sg_entry *e = entry_at(index, a, b);
    if (e == nullptr) return 0;
    for (uint32_t j = 0, n = list_count(b); j < n; ++j)
        if (same_name(e->name, b->entries[j].name)) return 1;
    return 0;
}

int32_t zfx2_sg_member_check_if_in_cfg2(uint32_t index, const zfx2_sg_list *a, const zfx2_sg_list *b,
                                        uint8_t compare_vsans) {
    const zfx2_sg_entry *e = entry_at(index, a, b);
    if (e == nullptr) return 0;
    for (uint32_t j = 0, n = list_count(b); j < n; ++j) {
        const zfx2_sg_entry &o = b->entries[j];
        if (same_name(e->name, o.name) && e->afid == o.afid &&
            (!compare_vsans || std::memcmp(&e->vsans, &o.vsans, sizeof o.vsans) == 0))
            return 1;
    }
    return 0;
}

int32_t zfx2_sg_table_active_show(uint32_t handle, const zfx2_sg_list *active, uint32_t policy) {
    const uint32_t count = list_count(active);
    if (count == 0) return 0;
    Pass pass{handle};
    for (uint32_t i = 0; i < count; ++i) {
        pass.group(active->entries[i]);
        pass.member(active->entries[i]);
    }
    Line(pass.line, sizeof pass.line)
        .text(policy == 0 ? "zfx service-group activate\n" : "zfx service-group activate default-sg-deny\n")
        .add(handle, ZFX_ELEM_SERVICE_GROUP, kBaseLevel);
    return 0;
}

int32_t zfx2_sg_table_config_show(uint32_t handle, const zfx2_sg_list *configured, const zfx2_sg_list *active) {
    const uint32_t n_active = list_count(active), n_cfg = list_count(configured);
    // Both orders in one block.
    uint32_t *orders = static_cast<uint32_t *>(mem_zalloc_array(size_t(n_active) + n_cfg, sizeof(uint32_t)));
    const SgIndex in_configured(configured, orders), in_active(active, orders != nullptr ? orders + n_cfg : nullptr);
    // Removed groups: an active group the configured table no longer names.
    Pass removed{handle};
    for (uint32_t i = 0; i < n_active; ++i) {
        const zfx2_sg_entry &e = active->entries[i];
        if (same_name(e.name, removed.last)) continue;
        std::memcpy(removed.last, e.name, sizeof removed.last);
        if (!in_configured.holds(i, active, SgIndex::kName)) {
            Line(removed.line, sizeof removed.line).text("no zfx service-group name ").text_max(e.name, sizeof e.name).end().add(
                handle, ZFX_ELEM_SERVICE_GROUP, kBaseLevel);
        }
    }
    // Removed members of groups that stay.
    Pass gone{handle};
    for (uint32_t i = 0; i < n_active; ++i) {
        if (!in_configured.holds(i, active, SgIndex::kName) || in_configured.holds(i, active, SgIndex::kAfid))
            continue;
        gone.group(active->entries[i]);
        gone.member(active->entries[i], "no ");
    }
    // Added members, and members whose VSANs changed, written with their configured ranges.
    Pass added{handle};
    for (uint32_t i = 0; i < n_cfg; ++i) {
        if (in_active.holds(i, configured, SgIndex::kVsans)) continue;
        added.group(configured->entries[i]);
        added.member(configured->entries[i]);
    }
    std::free(orders);
    return 0;
}

int32_t zfx2_sg_table_generate_ascii_config(uint32_t handle, kvdb_store *store, int32_t *commit) {
    if (store == nullptr) {
        report_null_store(kSgNullStore);
        return 0;
    }
    zfx2_sg_list *active = nullptr, *configured = nullptr;
    uint32_t size = 0;
    const bool have_active = zfx2_sg_config_get(store, &active, &size, 0) == 0;
    if (have_active) zfx2_sg_table_active_show(handle, active, zfx2_get_default_sg_policy(store));
    // The differences need both tables: against an active table that could not be read they
    // would claim every configured member is new.
    if (zfx2_sg_config_get(store, &configured, &size, 1) == 0 && have_active)
        zfx2_sg_table_config_show(handle, configured, active);
    for (zfx2_sg_list *list : {active, configured}) {
        if (list != nullptr && list_count(list) != 0 && commit != nullptr) *commit = 1;
        std::free(list);
    }
    return 0;
}

}  // extern "C"
