// The zone database both ways. The first byte picks:
//  - nodes drawn from the input (names without terminators, member types of any value, ids beyond
//    their ranges, trees of any shape), encoded into every record and into the active zoneset
//    data: the encoders write only inside their blocks, the active zoneset data is exactly as long
//    as its size says, and a member record decodes back into the member's fields;
//  - a stored member record of arbitrary bytes, decoded with its length as the zone text decodes
//    it: refused with the node untouched, or decoded into a node that the public decoder gives too
//    and that encodes into a record decoding into the same node;
//  - the active zoneset data and the zone options restored from arbitrary chunks: the data (whole,
//    or a head of any size as the zone text reads it) is the chunks' bytes in order, up to the
//    total of chunk 0 or the head's size and the first missing chunk, then zeros.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <vector>

#include "fuzz_input.hpp"
#include "zfx_zone_db.h"
#include "zfx_zone_db.hpp"

namespace {

int32_t by_id(const void *a, const void *b) {
    const uint32_t x = *static_cast<const uint32_t *>(a), y = *static_cast<const uint32_t *>(b);
    return x < y ? -1 : x > y;
}

constexpr uint32_t kTypes[] = {ZFX_MEMBER_PWWN, ZFX_MEMBER_DEVICE_ALIAS, ZFX_MEMBER_PWWN_LUN,
                               ZFX_MEMBER_DEVICE_ALIAS_LUN};

template <typename T>
void fill(zfxfuzz::Input &in, T &node) {
    const std::vector<uint8_t> raw = in.bytes(sizeof node);
    if (!raw.empty()) std::memcpy(&node, raw.data(), raw.size());
}

void check_member(const zfx_zone_member_node &m) {
    uint32_t len = 0;
    void *rec = zfx_zone_encode_zone_member_to_kvdb(&m, &len);
    if (rec == nullptr) return;
    zfx_zone_member_node back{};
    if (zfx_zone_decode_member_from_kvdb_cfg(rec, &back) != 0 || back.type != m.type || back.vsan != m.vsan ||
        back.afid != m.afid)
        zfxfuzz::finding("a member record does not decode into its member");
    const bool alias = m.type == ZFX_MEMBER_DEVICE_ALIAS || m.type == ZFX_MEMBER_DEVICE_ALIAS_LUN;
    if (alias && std::strncmp(back.device_alias, m.device_alias, ZFX_NAME_SIZE - 1) != 0)
        zfxfuzz::finding("a device alias does not come back");
    std::free(rec);
}

// The fields a member record carries for the member's type.
bool same_member(const zfx_zone_member_node &a, const zfx_zone_member_node &b) {
    zfx::MemberShape shape{};
    zfx::member_shape(a.type, shape);
    return a.type == b.type && a.vsan == b.vsan && a.afid == b.afid &&
           (!shape.pwwn || std::memcmp(a.pwwn, b.pwwn, sizeof a.pwwn) == 0) &&
           (!shape.lun || std::memcmp(a.lun, b.lun, sizeof a.lun) == 0) &&
           (!shape.alias || std::strcmp(a.device_alias, b.device_alias) == 0);
}

void decode_record(zfxfuzz::Input &in) {
    // The record in a block of exactly its size, so that any read past it is caught.
    const std::vector<uint8_t> bytes = in.rest();
    auto *rec = static_cast<uint8_t *>(std::malloc(bytes.size() + 1));
    if (!bytes.empty()) std::memcpy(rec, bytes.data(), bytes.size());
    zfx_zone_member_node m{}, before{};
    if (!zfx::decode_member(rec, bytes.size(), m)) {
        if (std::memcmp(&m, &before, sizeof m) != 0) zfxfuzz::finding("a refused record changed the node");
        std::free(rec);
        return;
    }
    if (std::memchr(m.device_alias, '\0', sizeof m.device_alias) == nullptr) zfxfuzz::finding("an unterminated alias");
    zfx_zone_member_node pub{};
    if (zfx_zone_decode_member_from_kvdb_cfg(rec, &pub) != 0 || std::memcmp(&pub, &m, sizeof m) != 0)
        zfxfuzz::finding("the public decoder reads a whole record otherwise");
    std::free(rec);
    uint32_t len = 0;
    void *again = zfx_zone_encode_zone_member_to_kvdb(&m, &len);
    zfx::MemberShape shape;
    if ((again != nullptr) != zfx::member_shape(m.type, shape)) zfxfuzz::finding("a decoded member does not encode");
    zfx_zone_member_node back{};
    if (again != nullptr && (!zfx::decode_member(again, len, back) || !same_member(m, back)))
        zfxfuzz::finding("a decoded member does not come back from its record");
    std::free(again);
}

constexpr char kStore[] = "mem:fuzz/zone_db";

void put(kvdb_store *store, const uint8_t *key, uint32_t key_len, const std::vector<uint8_t> &value) {
    const kvdb_datum k{const_cast<uint8_t *>(key), key_len};
    const kvdb_datum v{const_cast<uint8_t *>(value.data()), uint32_t(value.size())};
    kvdb_put(store, &k, &v);
}

void restore_chunks(zfxfuzz::Input &in) {
    kvdb_destroy(kStore);
    kvdb_store *w = kvdb_create(kStore, nullptr);
    uint8_t key[ZFX_ZONE_DB_KEY_SIZE];
    // Chunk 0: mostly a total of at most 64 KiB, sometimes any bytes (short, huge, zero).
    const uint8_t head = in.take<uint8_t>();
    std::vector<uint8_t> total_value;
    if (head < 0xF0) {
        const uint32_t total = in.take<uint16_t>();
        total_value = {uint8_t(total >> 24), uint8_t(total >> 16), uint8_t(total >> 8), uint8_t(total)};
    } else {
        total_value = in.bytes(head % 8);
    }
    zfx_zone_db_key(key, ZFX_KVDB_ACTIVE_ZONESET_KEY, 0, 0);
    if (head % 16 != 15) put(w, key, sizeof key, total_value);  // else no chunk 0 at all
    // Chunks 1, 2, ...: a gap where the input says; what they should give, joined.
    std::vector<uint8_t> joined;
    bool gap = false;
    for (uint16_t n = 1, count = in.take<uint8_t>() % 12; n <= count; ++n) {
        const uint16_t len = in.take<uint16_t>();
        const std::vector<uint8_t> chunk = in.bytes(len % 1024);
        if (len & 0x8000) {
            gap = true;
            continue;
        }
        zfx_zone_db_key(key, ZFX_KVDB_ACTIVE_ZONESET_KEY, 0, n);
        put(w, key, sizeof key, chunk);
        if (!gap) joined.insert(joined.end(), chunk.begin(), chunk.end());
    }
    const uint8_t options_key[2] = {ZFX_KVDB_ZONE_OPTIONS_KEY, 0};
    const std::vector<uint8_t> options = in.bytes(in.take<uint8_t>() % 8);
    put(w, options_key, sizeof options_key, options);
    kvdb_close(w);

    // A reader of the data's head asks for any number of bytes, in a block of exactly that size.
    const uint32_t head_size = in.take<uint16_t>() % 2048;

    kvdb_store *store = kvdb_open(kStore, nullptr);
    const bool has_total = head % 16 != 15 && total_value.size() >= 4;
    const uint32_t stored =
        has_total ? uint32_t(total_value[0]) << 24 | total_value[1] << 16 | total_value[2] << 8 | total_value[3] : 0;
    const uint32_t total = zfx::active_total(store);
    if (total != stored && (total != 0 || stored <= UINT16_MAX))
        zfxfuzz::finding("a total other than chunk 0 gives");
    // The joined chunks, then zeros.
    auto expect_data = [&](const uint8_t *data, uint32_t size) {
        const size_t filled = std::min<size_t>(joined.size(), size);
        if (filled != 0 && std::memcmp(data, joined.data(), filled) != 0)
            zfxfuzz::finding("restored data differs from the chunks");
        // Checked in full up to 64 KiB past what was stored, and at the very end.
        const size_t zeros = std::min<size_t>(size - filled, 1 << 16);
        if (std::count(data + filled, data + filled + zeros, 0) != std::ptrdiff_t(zeros) ||
            (size > filled && data[size - 1] != 0))
            zfxfuzz::finding("restored data past the chunks is not zero");
    };
    auto *restored = static_cast<uint8_t *>(zfx_zone_restore_active_pzs_from_kvdb(store));
    if (restored != nullptr) {
        if (total == 0) zfxfuzz::finding("data restored without a total");
        expect_data(restored, total);
    } else if (total != 0 && total <= UINT16_MAX) {
        zfxfuzz::finding("a restore refused");
    }
    std::free(restored);
    auto *head_block = static_cast<uint8_t *>(std::calloc(1, head_size));
    const uint32_t got = zfx::read_active(store, head_block, head_size);
    if (got != std::min<size_t>(joined.size(), head_size)) zfxfuzz::finding("the head read filled another length");
    expect_data(head_block, head_size);
    std::free(head_block);

    uint32_t word = 0xA5A5A5A5, want = word;
    if (!options.empty()) std::memcpy(&want, options.data(), std::min<size_t>(options.size(), 4));
    const int32_t st = zfx_zone_kvdb_restore_options_from_kvdb(store, &word);
    if (st != (options.empty() ? ZFX_ERR_KVDB : 0) || word != want) zfxfuzz::finding("zone options restored otherwise");
    kvdb_close(store);
}

void encode_nodes(zfxfuzz::Input &in) {
    std::deque<zfx_zone_node> zones;
    std::deque<zfx_zone_member_node> members;
    std::vector<plat_tree *> trees;
    zfx_zoneset_node zoneset{};
    fill(in, zoneset);
    zoneset.zones = trees.emplace_back(tree_create(by_id));
    for (uint8_t nz = in.take<uint8_t>() % 12; nz > 0; --nz) {
        zfx_zone_node &z = zones.emplace_back();
        fill(in, z);
        const uint8_t shape = in.take<uint8_t>();
        z.members = shape & 0x80 ? nullptr : trees.emplace_back(tree_create(by_id));
        for (uint8_t nm = shape % 10; nm > 0; --nm) {
            zfx_zone_member_node &m = members.emplace_back();
            fill(in, m);
            const uint8_t pick = in.take<uint8_t>();
            if (pick < 240) m.type = kTypes[pick % 4];  // mostly valid types, sometimes any
            tree_insert(z.members, &m);
            check_member(m);
        }
        tree_insert(zoneset.zones, &z);
        uint32_t len = 0;
        std::free(zfx_zone_encode_zone_to_kvdb(&z, &len));

        // The extension step alone, in a block of exactly its room: it never writes past it.
        const uint32_t room = in.take<uint16_t>() % 1024;
        auto *area = static_cast<uint8_t *>(std::calloc(1, room));
        uint8_t *cursor = area;
        uint32_t count = 0;
        zfx_zone_ext_to_persistent_kvdb_data(&z, &count, room, &cursor);
        if (cursor < area || cursor > area + room) zfxfuzz::finding("the extension cursor left its area");
        std::free(area);
    }
    uint32_t len = 0, ext = 0;
    std::free(zfx_zone_encode_zoneset_to_kvdb(&zoneset, &len));
    const uint32_t total = zfx_zoneset_get_persistent_data_size(&zoneset, &ext);
    void *blob = zfx_zone_zoneset_to_persistent_kvdb_data(&zoneset, &len);
    if (blob != nullptr && len != total) zfxfuzz::finding("active zoneset data of another size than computed");
    std::free(blob);
    for (plat_tree *t : trees) tree_destroy(t);
}

}  // namespace

// A corrupted chunk 0 may give a total of up to about 1.8 GiB, which the restore allocates before
// it reads a chunk; at that size every run would spend its time on the sanitizer's bookkeeping.
// Allocations above 64 MiB fail instead, which also takes the restore's out-of-memory path.
extern "C" const char *__asan_default_options() { return "allocator_may_return_null=1:max_allocation_size_mb=64"; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    zfxfuzz::Input in(data, size);
    switch (in.take<uint8_t>() % 3) {
        case 0: encode_nodes(in); break;
        case 1: decode_record(in); break;
        default: restore_chunks(in); break;
    }
    return 0;
}
