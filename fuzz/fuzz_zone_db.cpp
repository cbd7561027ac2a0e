// Zone database nodes drawn from the input (names without terminators, member types of any value,
// ids beyond their ranges, trees of any shape), encoded into every record and into the active
// zoneset data. Whatever the nodes hold, the encoders write only inside their blocks, the active
// zoneset data is exactly as long as its size says, and a member record decodes back into the
// member's fields.
#include <cstdlib>
#include <cstring>
#include <deque>
#include <vector>

#include "fuzz_input.hpp"
#include "zfx_zone_db.h"

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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    zfxfuzz::Input in(data, size);
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
    return 0;
}
