// Store access shared by every reader of the generation path: see zfx_kvdb_walk.hpp.
#include "zfx_kvdb_walk.hpp"

#include "zfx_testing.h"

#ifdef ZFX_TESTING
#include <atomic>

namespace {
std::atomic<uint32_t> g_lookups;
}  // namespace

extern "C" uint32_t zfx_testing_lookup_count(void) { return g_lookups.exchange(0); }
#endif

namespace zfx {

const kvdb_datum *fetch(kvdb_store *store, const void *key, uint32_t key_len, int32_t &status) {
#ifdef ZFX_TESTING
    g_lookups.fetch_add(1, std::memory_order_relaxed);
#endif
    kvdb_datum k{const_cast<void *>(key), key_len};
    status = ZFX_ERR_KVDB;  // a store that answers without setting a status has failed
    const kvdb_datum *v = kvdb_fetch(store, &k, &status);
    return status == 0 ? v : nullptr;
}

void copy_value(void *dst, size_t size, const kvdb_datum *value) {
    if (value == nullptr || value->data == nullptr) return;
    std::memcpy(dst, value->data, value->len < size ? value->len : size);
}

int32_t build_list(kvdb_store *store, const TableWalk &walk, const ListShape &shape, int32_t count,
                   ListAlloc alloc, FillEntry fill, const void *fill_arg, void **list, uint32_t *size) {
    *list = nullptr;
    *size = 0;
    uint32_t capacity =
        count >= 0 ? uint32_t(count) : walk_table(store, walk, UINT32_MAX, [](const kvdb_datum &, const kvdb_datum &) {});
    // The size must fit 32 bits (and the address space) on the switch as well.
    if (capacity > (UINT32_MAX - shape.header) / shape.entry) return ZFX_ERR_NO_MEMORY;
    const uint32_t bytes = shape.header + shape.entry * capacity;
    uint8_t *block = static_cast<uint8_t *>(alloc(bytes));
    if (block == nullptr) return ZFX_ERR_NO_MEMORY;
    uint8_t *entry = block + shape.header;
    const uint32_t filled = walk_table(store, walk, capacity, [&](const kvdb_datum &key, const kvdb_datum &value) {
        fill(entry, key, value, fill_arg);
        entry += shape.entry;
    });
    store_be32(block, filled);
    *list = block;
    *size = bytes;
    return 0;
}

HeldEntries::HeldEntries(kvdb_store *store, const TableWalk &walk) {
    const auto hold = [](uint8_t *entry, const kvdb_datum &key, const kvdb_datum &value, const void *) {
        const HeldEntry held{static_cast<const uint8_t *>(key.data), static_cast<const uint8_t *>(value.data)};
        std::memcpy(entry, &held, sizeof held);
    };
    uint32_t size;
    build_list(store, walk, ListShape{kHeader, sizeof(HeldEntry)}, -1, list_zalloc, hold, nullptr, &block_, &size);
}

}  // namespace zfx
