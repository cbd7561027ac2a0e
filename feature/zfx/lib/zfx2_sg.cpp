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

// A member's fields as its key and value hold them (its group's name aside): what its list entry
// is filled from.
struct StoredMember {
    const uint8_t *key;
    const uint8_t *value;  // a VSAN set as stored
    uint32_t group() const { return load_le32(key + offsetof(zfx2_sg_kvdb_key, group_id)); }
    uint16_t afid() const { return load_le16(key + offsetof(zfx2_sg_kvdb_key, afid)); }
};

void fill_member(uint8_t *out, const kvdb_datum &key, const kvdb_datum &value, const void *state) {
    const StoredMember m{static_cast<const uint8_t *>(key.data), static_cast<const uint8_t *>(value.data)};
    store_be32(out + offsetof(zfx2_sg_entry, group_id), m.group());
    store_be16(out + offsetof(zfx2_sg_entry, afid), m.afid());
    out[offsetof(zfx2_sg_entry, state)] = *static_cast<const uint8_t *>(state);
    std::memcpy(out + offsetof(zfx2_sg_entry, vsans), m.value, sizeof(vsan_bitset));
}

// The walk over a table's members (the active one, or the configured one for is_cfg non-zero).
TableWalk member_walk(uint8_t is_cfg) {
    static constexpr uint8_t kStarts[2][sizeof(zfx2_sg_kvdb_key)] = {{ZFX2_SG_ACTIVE_TABLE, ZFX2_SG_KIND_MEMBER},
                                                                     {ZFX2_SG_CFG_TABLE, ZFX2_SG_KIND_MEMBER}};
    const uint8_t(&start)[sizeof(zfx2_sg_kvdb_key)] = kStarts[is_cfg ? 1 : 0];
    return TableWalk{member_shape(is_cfg), start, sizeof start, sizeof(vsan_bitset)};
}

bool same_name(const char *a, const char *b) { return std::strncmp(a, b, ZFX2_SG_NAME_SIZE) == 0; }

// What the text and the differences read of a member: its group's name (ZFX2_SG_NAME_SIZE
// characters, NUL-padded), its fabric ID, and its VSAN set as stored.
struct Member {
    const char *name;
    uint16_t afid;
    const uint8_t *vsans;
    const uint8_t *bits() const { return vsans + offsetof(vsan_bitset, bits); }
};

// A list's members.
class ListedMembers {
public:
    explicit ListedMembers(const zfx2_sg_list *list) : list_(list) {}
    uint32_t size() const { return list_count(list_); }
    Member operator[](uint32_t i) const {
        const zfx2_sg_entry &e = list_->entries[i];
        return Member{e.name, ntoh16(e.afid), reinterpret_cast<const uint8_t *>(&e.vsans)};
    }

private:
    const zfx2_sg_list *list_;
};

// A table's members held where the store holds them, with their group's names looked up once per
// group, as the list looks them up: what the text reads, without the list's copy of every
// member's VSAN set. ok() is false when there was no memory for it, as for the list.
class StoredMembers {
public:
    StoredMembers(kvdb_store *store, uint8_t is_cfg) : held_(store, member_walk(is_cfg)) {
        const uint32_t n = held_.size();
        if (!held_.ok() || n == 0) return;
        // A group's members lie together (its id leads their keys): a name for each run of them.
        uint32_t groups = 0;
        for (uint32_t i = 0; i < n; ++i) groups += i == 0 || group(i) != group(i - 1);
        // (On the switch's 32 bits a table too large for the block counts as one without memory.)
        if (groups > (SIZE_MAX - size_t(n) * sizeof(uint32_t)) / ZFX2_SG_NAME_SIZE) return;
        block_ = static_cast<uint8_t *>(mem_alloc(size_t(n) * sizeof(uint32_t) + size_t(groups) * ZFX2_SG_NAME_SIZE));
        if (block_ == nullptr) return;
        uint32_t *const name_of = names_of();
        char *const names = reinterpret_cast<char *>(block_ + size_t(n) * sizeof(uint32_t));
        for (uint32_t i = 0, g = 0; i < n; ++i) {
            const bool first_of_group = i == 0 || group(i) != group(i - 1);
            if (first_of_group && i != 0) ++g;
            if (first_of_group) zfx2_sg_get_name_from_id(group(i), names + size_t(g) * ZFX2_SG_NAME_SIZE, store, is_cfg);
            name_of[i] = g;
        }
    }
    ~StoredMembers() { std::free(block_); }
    StoredMembers(const StoredMembers &) = delete;
    StoredMembers &operator=(const StoredMembers &) = delete;

    bool ok() const { return held_.ok() && (held_.size() == 0 || block_ != nullptr); }
    uint32_t size() const { return ok() ? held_.size() : 0; }
    Member operator[](uint32_t i) const {
        const char *names = reinterpret_cast<const char *>(block_ + size_t(held_.size()) * sizeof(uint32_t));
        const HeldEntry &e = held_[i];
        return Member{names + size_t(names_of()[i]) * ZFX2_SG_NAME_SIZE, StoredMember{e.key, e.value}.afid(), e.value};
    }

private:
    uint32_t group(uint32_t i) const { return StoredMember{held_[i].key, held_[i].value}.group(); }
    uint32_t *names_of() const { return reinterpret_cast<uint32_t *>(block_); }

    HeldEntries held_;
    uint8_t *block_ = nullptr;  // each member's name index, then the names
};

// Depth of a comparison: the name alone, the name and fabric ID, or all three.
enum Depth { kName, kAfid, kVsans };

// The order of two members (a Member or a Ranked each) up to depth, their names' order given.
template <typename T>
int compare_after_names(int names, const T &a, const T &b, Depth depth) {
    if (names != 0 || depth == kName) return names;
    if (a.afid != b.afid) return int(a.afid) - int(b.afid);
    return depth == kAfid ? 0 : std::memcmp(a.vsans, b.vsans, sizeof(vsan_bitset));
}

int compare(const Member &a, const Member &b, Depth depth) {
    return compare_after_names(std::strncmp(a.name, b.name, ZFX2_SG_NAME_SIZE), a, b, depth);
}

// Whether table b holds a member equal to member index of table a up to depth, by a pass over b
// (a member against an empty table: never).
template <typename Table>
bool pair_holds(uint32_t index, const Table &a, const Table &b, Depth depth) {
    if (index >= a.size() || b.size() == 0) return false;
    const Member e = a[index];
    for (uint32_t j = 0, n = b.size(); j < n; ++j)
        if (compare(e, b[j], depth) == 0) return true;
    return false;
}

// Ranks the group names of the members of tables a and b into rank (a's members first), with
// scratch room for as many: equal names get equal ranks, and ranks follow the names' order. The
// differences then compare names as numbers, not as strings over and over. A table's members of
// one group lie together (its id leads their keys), so only the first member of each run of one
// name is sorted; the others take its rank.
template <typename Table>
void rank_names(const Table &a, const Table &b, uint32_t *rank, uint32_t *scratch) {
    const uint32_t na = a.size(), n = na + b.size();
    const auto name = [&](uint32_t p) { return p < na ? a[p].name : b[p - na].name; };
    uint32_t heads = 0;
    for (uint32_t p = 0; p < n; ++p) {
        rank[p] = UINT32_MAX;  // a member that only continues a run takes its rank below
        if (p == 0 || !same_name(name(p), name(p - 1))) scratch[heads++] = p;
    }
    std::sort(scratch, scratch + heads,
              [&](uint32_t x, uint32_t y) { return std::strncmp(name(x), name(y), ZFX2_SG_NAME_SIZE) < 0; });
    for (uint32_t h = 0, r = 0; h < heads; ++h) {
        if (h != 0 && !same_name(name(scratch[h]), name(scratch[h - 1]))) ++r;
        rank[scratch[h]] = r;
    }
    for (uint32_t p = 1; p < n; ++p)
        if (rank[p] == UINT32_MAX) rank[p] = rank[p - 1];
}

// What the differences compare of a member: its name's rank (rank_names), its fabric ID, and
// its VSAN set as stored.
struct Ranked {
    uint32_t rank;
    uint16_t afid;
    const uint8_t *vsans;
};

int compare(const Ranked &a, const Ranked &b, Depth depth) {
    return compare_after_names(a.rank < b.rank ? -1 : a.rank > b.rank ? 1 : 0, a, b, depth);
}

// The members of a table in the order of what the differences compare (name, fabric ID, VSANs),
// so that each question "does the other table hold this group / member / member with these
// VSANs" is a binary search rather than a pass over the whole table. Without memory for the
// ranks and the order (both NULL) pair_holds answers instead.
template <typename Table>
class SgIndex {
public:
    // rank: the ranks of the table's members; order: room for as many. Both are kept by the
    // caller for as long as the index.
    SgIndex(const Table &table, const uint32_t *rank, uint32_t *order) : table_(table), rank_(rank), order_(order) {
        if (order_ == nullptr) return;
        const uint32_t n = table.size();
        for (uint32_t i = 0; i < n; ++i) order_[i] = i;
        std::sort(order_, order_ + n, [&](uint32_t a, uint32_t b) { return compare(key(a), key(b), kVsans) < 0; });
    }

    // Whether the table holds a member equal to member index of other's table up to depth.
    bool holds(uint32_t index, const SgIndex &other, Depth depth) const {
        if (order_ == nullptr) return pair_holds(index, other.table_, table_, depth);
        if (index >= other.table_.size() || table_.size() == 0) return false;
        const Ranked e = other.key(index);
        const uint32_t *first = order_, *end = order_ + table_.size();
        const uint32_t *at = std::lower_bound(first, end, e, [&](uint32_t i, const Ranked &x) {
            return compare(key(i), x, depth) < 0;
        });
        return at != end && compare(key(*at), e, depth) == 0;
    }

private:
    Ranked key(uint32_t i) const {
        const Member m = table_[i];
        return Ranked{rank_[i], m.afid, m.vsans};
    }

    const Table &table_;
    const uint32_t *rank_;
    uint32_t *order_;
};

// A pass over one table. It keeps the name of the last group line it wrote, so that a group's
// members share one group line.
struct Pass {
    uint32_t handle;
    char last[ZFX2_SG_NAME_SIZE] = {};
    char line[ZFX2_SG_LINE_SIZE];

    // The group line for m, unless the pass wrote it last. word is "" or "no ".
    void group(const Member &m, const char *word = "") {
        if (same_name(m.name, last)) return;
        std::memcpy(last, m.name, sizeof last);
        Line(line, sizeof line).text(word).text("zfx service-group name ").text_max(m.name, ZFX2_SG_NAME_SIZE).end().add(
            handle, ZFX_ELEM_SERVICE_GROUP, kBaseLevel);
    }
    // A member line at level 1, its range text cut after the last run that fits the line.
    void member(const Member &m, const char *word = "") {
        Line l(line, sizeof line);
        l.text(word).text("autonomous-fabric-id ").dec(m.afid, 2).text(" vsan-ranges ");
        // The words and the "\n" take their room first; the ranges get the rest.
        l.ranges(m.bits(), sizeof line - 2 - l.length()).end().add(handle, ZFX_ELEM_SERVICE_GROUP, 1);
    }
};

// The active block: every active member under its group's line, then the activation line.
template <typename Table>
void active_show(uint32_t handle, const Table &active, uint32_t policy) {
    const uint32_t count = active.size();
    if (count == 0) return;
    Pass pass{handle};
    for (uint32_t i = 0; i < count; ++i) {
        pass.group(active[i]);
        pass.member(active[i]);
    }
    Line(pass.line, sizeof pass.line)
        .text(policy == 0 ? "zfx service-group activate\n" : "zfx service-group activate default-sg-deny\n")
        .add(handle, ZFX_ELEM_SERVICE_GROUP, kBaseLevel);
}

// What the configured table changes of the active one.
template <typename Table>
void config_show(uint32_t handle, const Table &configured, const Table &active) {
    const uint32_t n_active = active.size(), n_cfg = configured.size();
    const size_t n = size_t(n_active) + n_cfg;
    // The ranks of both tables' names, both orders and the ranking's scratch, in one block.
    uint32_t *block = static_cast<uint32_t *>(mem_zalloc_array(3 * n, sizeof(uint32_t)));
    if (block != nullptr) rank_names(configured, active, block, block + 2 * n);
    const SgIndex<Table> in_configured(configured, block, block != nullptr ? block + n : nullptr),
        in_active(active, block != nullptr ? block + n_cfg : nullptr, block != nullptr ? block + n + n_cfg : nullptr);
    // Removed groups: an active group the configured table no longer names.
    Pass removed{handle};
    for (uint32_t i = 0; i < n_active; ++i) {
        const Member e = active[i];
        if (same_name(e.name, removed.last)) continue;
        std::memcpy(removed.last, e.name, sizeof removed.last);
        if (!in_configured.holds(i, in_active, kName)) {
            Line(removed.line, sizeof removed.line).text("no zfx service-group name ").text_max(e.name, ZFX2_SG_NAME_SIZE).end().add(
                handle, ZFX_ELEM_SERVICE_GROUP, kBaseLevel);
        }
    }
    // Removed members of groups that stay.
    Pass gone{handle};
    for (uint32_t i = 0; i < n_active; ++i) {
        if (!in_configured.holds(i, in_active, kName) || in_configured.holds(i, in_active, kAfid)) continue;
        gone.group(active[i]);
        gone.member(active[i], "no ");
    }
    // Added members, and members whose VSANs changed, written with their configured ranges.
    Pass added{handle};
    for (uint32_t i = 0; i < n_cfg; ++i) {
        if (in_active.holds(i, in_configured, kVsans)) continue;
        added.group(configured[i]);
        added.member(configured[i]);
    }
    std::free(block);
}

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
    const int32_t status = get_list(store, member_walk(is_cfg), fill_member, &state, list, size);
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
    return pair_holds(index, ListedMembers(a), ListedMembers(b), kName) ? 1 : 0;
}

int32_t zfx2_sg_member_check_if_in_cfg2(uint32_t index, const zfx2_sg_list *a, const zfx2_sg_list *b,
                                        uint8_t compare_vsans) {
    return pair_holds(index, ListedMembers(a), ListedMembers(b), compare_vsans ? kVsans : kAfid) ? 1 : 0;
}

int32_t zfx2_sg_table_active_show(uint32_t handle, const zfx2_sg_list *active, uint32_t policy) {
    active_show(handle, ListedMembers(active), policy);
    return 0;
}

int32_t zfx2_sg_table_config_show(uint32_t handle, const zfx2_sg_list *configured, const zfx2_sg_list *active) {
    config_show(handle, ListedMembers(configured), ListedMembers(active));
    return 0;
}

int32_t zfx2_sg_table_generate_ascii_config(uint32_t handle, kvdb_store *store, int32_t *commit) {
    if (store == nullptr) {
        report_null_store(kSgNullStore);
        return 0;
    }
    // The text reads the members where the store holds them, not from lists.
    const StoredMembers active(store, 0);
    if (active.ok()) active_show(handle, active, zfx2_get_default_sg_policy(store));
    // The differences need both tables: against an active table that could not be read they
    // would claim every configured member is new.
    const StoredMembers configured(store, 1);
    if (configured.ok() && active.ok()) config_show(handle, configured, active);
    if ((active.size() != 0 || configured.size() != 0) && commit != nullptr) *commit = 1;
    return 0;
}

}  // extern "C"
