// zfx_kvdb_walk.hpp - how the library reads the feature's store: single-record lookups with
// bounded copies, the key checks of every table, and the one table walk that every list reader
// (topology, AFID table, service groups, virtual domains, persistent FCIDs) is built on.
//
// A table is described, not coded: a KeyShape says what its keys look like and which codes its
// check answers; a TableWalk says where the walk starts and which entries it takes; a ListShape
// and a fill function say how an entry of its flat list is laid out. build_list does the rest:
// a counting walk, one allocation, a filling walk from the same start key.
#pragma once

#include "platform/kvdb.h"
#include "zfx_internal.hpp"

namespace zfx {

// ---- single records ---------------------------------------------------------------------------

// Looks key up. Sets status to the store's status and returns the store's descriptor of the
// value: NULL when status is non-zero or the store gave none ("no value"); a descriptor with NULL
// data or length 0 is a value with no data.
const kvdb_datum *fetch(kvdb_store *store, const void *key, uint32_t key_len, int32_t &status);

// Copies at most size bytes of the value into dst (nothing for NULL or a value without data).
void copy_value(void *dst, size_t size, const kvdb_datum *value);

// True when the value holds at least len bytes (a shorter record counts as missing).
inline bool holds(const kvdb_datum *value, uint32_t len) {
    return value != nullptr && value->data != nullptr && value->len >= len;
}

// Asks the processor for the cache lines of a stored value (its first max bytes) ahead of reading
// it: a pass that reads records in an order other than the store's asks for several at once, so
// that their misses overlap instead of coming one after another. Reads nothing itself.
inline void prefetch_value(const void *data, size_t len, size_t max = 512) {
    const auto *p = static_cast<const char *>(data);
    const size_t n = len < max ? len : max;
    for (size_t off = 0; off < n; off += 64) __builtin_prefetch(p + off);
    if (n != 0) __builtin_prefetch(p + n - 1);
    // The compiler counts asking for a line as no effect at all: a function that does nothing
    // else (this one, or one that only reads to find what to ask for) would be taken for one
    // whose calls can be dropped, and dropped. This empty statement is an effect it must keep.
    asm volatile("");
}

// ---- key checks -----------------------------------------------------------------------------------

// What the keys of one table look like. kinds is a bit mask of the accepted second bytes
// (kind_bit(k)); 0 leaves the second byte unchecked.
struct KeyShape {
    uint8_t table;
    uint32_t kinds;
    uint32_t length;
    int32_t bad_key;     // a NULL key, another table, an unaccepted kind
    int32_t bad_length;  // a length other than length
};

constexpr uint32_t kind_bit(uint8_t kind) { return kind < 32 ? 1u << kind : 0; }

// Tests a NULL key, then the length, then the table byte, then the kind; the first failing test
// decides the code. 0 when the key belongs to the table. Inline: every step of a walk asks it.
inline int32_t key_check(const kvdb_datum *key, const KeyShape &shape) {
    if (key == nullptr) return shape.bad_key;
    if (key->len != shape.length) return shape.bad_length;
    const uint8_t *k = static_cast<const uint8_t *>(key->data);
    if (k == nullptr || k[0] != shape.table) return shape.bad_key;
    if (shape.kinds != 0 && (shape.length < 2 || (kind_bit(k[1]) & shape.kinds) == 0)) return shape.bad_key;
    return 0;
}

// ---- table walks -----------------------------------------------------------------------------------

struct TableWalk {
    KeyShape shape;            // the walk ends at the first key that fails this check
    const void *start;         // the key the walk positions on first
    uint32_t start_len;
    uint32_t value_min = 0;    // a value shorter than this counts as missing: the key is passed over
    bool past_start = false;   // a key equal to start is passed over (walks resuming after a key)
    // Which keys are taken (NULL: all that pass the check); arg is the walk's own.
    bool (*select)(const kvdb_datum &key, const void *arg) = nullptr;
    const void *arg = nullptr;
};

// Calls visit(key, value) for the entries of the walk, in key order, at most limit of them, with
// a cursor of its own; returns how many it visited. key and value stay valid until the store is
// closed.
template <typename Visit>
uint32_t walk_table(kvdb_store *store, const TableWalk &w, uint32_t limit, Visit &&visit) {
    kvdb_cursor cursor{};
    kvdb_datum start{const_cast<void *>(w.start), w.start_len};
    const kvdb_datum *key = kvdb_move2key(store, &start, &cursor);
    if (key != nullptr && cursor.match == 0 && w.past_start) key = kvdb_move2location(store, KVDB_LOC_NEXT, &cursor);
    uint32_t visited = 0;
    for (; key != nullptr && visited < limit && key_check(key, w.shape) == 0;
         key = kvdb_move2location(store, KVDB_LOC_NEXT, &cursor)) {
        if (w.select != nullptr && !w.select(*key, w.arg)) continue;
        const kvdb_datum *value = kvdb_getvalue(store, &cursor);
        const kvdb_datum v = value != nullptr ? *value : kvdb_datum{nullptr, 0};
        if (w.value_min != 0 && !holds(&v, w.value_min)) continue;
        visit(*key, v);
        ++visited;
    }
    return visited;
}

// ---- flat lists -------------------------------------------------------------------------------------

// A list: header bytes (the first 4 the entry count, network order), then entries.
struct ListShape {
    uint32_t header;
    uint32_t entry;
};

using ListAlloc = void *(*)(size_t size);  // a zero-filled block, or NULL
// Fills one zeroed entry from a key that passed the walk's check and its value, which holds at
// least the walk's value_min bytes (with value_min 0 it may hold none: bound the copy by it).
using FillEntry = void (*)(uint8_t *entry, const kvdb_datum &key, const kvdb_datum &value, const void *arg);

// Builds a table's list: count < 0 sizes it by a counting walk, otherwise count is its capacity.
// Allocates header + entry x capacity bytes through alloc, fills at most capacity entries with a
// second walk, and writes the number filled into the count word (the two walks can differ when
// the store fails between them; the list never claims more than it holds). On success *list and
// *size (the allocated size) are set and 0 returned; ZFX_ERR_NO_MEMORY leaves them NULL and 0.
int32_t build_list(kvdb_store *store, const TableWalk &walk, const ListShape &shape, int32_t count,
                   ListAlloc alloc, FillEntry fill, const void *fill_arg, void **list, uint32_t *size);

// The standard allocator's zero-filled block, for lists the caller releases with free.
inline void *list_zalloc(size_t size) { return mem_zalloc(size); }

// The frame of an exported list builder whose list is a header (List's fields before entries, the
// first its count word) followed by List::entries: *list and *size are cleared first, NULL
// arguments answer ZFX_ERR_INVALID_ARG, a count below -1 or one whose list would not fit 32 bits
// ZFX_ERR_INVALID_VALUE; then the list is built by build_list with count (-1: a counting walk)
// and alloc, and its status returned.
template <typename List>
int32_t get_list(kvdb_store *store, const TableWalk &walk, FillEntry fill, const void *fill_arg, List **list,
                 uint32_t *size, int32_t count = -1, ListAlloc alloc = list_zalloc) {
    if (list != nullptr) *list = nullptr;
    if (size != nullptr) *size = 0;
    if (store == nullptr || list == nullptr || size == nullptr) return ZFX_ERR_INVALID_ARG;
    constexpr uint32_t header = offsetof(List, entries);
    constexpr uint32_t entry = sizeof(static_cast<List *>(nullptr)->entries[0]);
    if (count < -1 || (count > 0 && uint32_t(count) > (UINT32_MAX - header) / entry)) return ZFX_ERR_INVALID_VALUE;
    void *block;
    const int32_t status = build_list(store, walk, ListShape{header, entry}, count, alloc, fill, fill_arg, &block, size);
    *list = static_cast<List *>(block);
    return status;
}

// The entry count of a list (network order in its first word); 0 for NULL.
inline uint32_t list_count(const void *list) { return list == nullptr ? 0 : load_be32(list); }

// ---- entries held where they lie ----------------------------------------------------------------

// An entry of a walk as the store holds it: its key and its value, where they lie.
struct HeldEntry {
    const uint8_t *key;
    const uint8_t *value;
};

// The entries of a walk, held where they lie (valid until the store is closed), for a reader that
// reads each of them once, as the configuration text does: a flat list would copy every value
// (a VSAN set of 516 bytes) into memory of its own first, only for the text to read the copy.
// Built as a list is (a counting walk, one allocation, a filling walk), so it fails as one does.
class HeldEntries {
public:
    HeldEntries(kvdb_store *store, const TableWalk &walk);
    ~HeldEntries() { std::free(block_); }
    HeldEntries(const HeldEntries &) = delete;
    HeldEntries &operator=(const HeldEntries &) = delete;

    // False when there was no memory for the entries (the walk then holds none).
    bool ok() const { return block_ != nullptr; }
    uint32_t size() const { return list_count(block_); }
    const HeldEntry &operator[](uint32_t i) const {
        return reinterpret_cast<const HeldEntry *>(static_cast<const uint8_t *>(block_) + kHeader)[i];
    }

private:
    // The count word, padded so that the entries after it are aligned.
    static constexpr uint32_t kHeader = sizeof(HeldEntry);
    void *block_ = nullptr;
};

}  // namespace zfx
