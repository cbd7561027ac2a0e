#include "zone_nodes.hpp"

#include <cstdio>
#include <cstring>

#include <gtest/gtest.h>

namespace zfxtest {

const Bytes kNodeLun = {0x00, 0x07, 0, 0, 0, 0, 0, 0};

Bytes node_wwn(uint8_t last) { return cat({Bytes(kWwn.begin(), kWwn.end() - 1), {last}}); }

static int32_t by_id(const void *a, const void *b) {
    const uint32_t x = *static_cast<const uint32_t *>(a), y = *static_cast<const uint32_t *>(b);
    return x < y ? -1 : x > y;
}

zfx_zone_node &ZoneNodes::zone(uint32_t id, const std::string &name, uint32_t qos, uint32_t ro, bool has_tree) {
    zfx_zone_node &z = zones.emplace_back();
    z = zfx_zone_node{id, {}, has_tree ? trees.emplace_back(tree_create(by_id), tree_destroy).get() : nullptr, {},
                      {0xA1, 0, 0, 0, 0, 0, 0, 0xA8}, qos, ro};
    std::snprintf(z.name, sizeof z.name, "%s", name.c_str());
    const uint32_t count = 256;
    std::memcpy(z.member_bitmap, &count, 4);
    return z;
}

zfx_zone_member_node &ZoneNodes::member(zfx_zone_node &z, uint32_t id, uint32_t type, uint32_t vsan, uint16_t afid,
                                        const std::string &alias) {
    zfx_zone_member_node &m = members.emplace_back();
    m = zfx_zone_member_node{id, type, vsan, afid, {}, {}, {}};
    const Bytes wwn = node_wwn(uint8_t(id));
    std::copy(wwn.begin(), wwn.end(), m.pwwn);
    std::copy(kNodeLun.begin(), kNodeLun.end(), m.lun);
    std::snprintf(m.device_alias, sizeof m.device_alias, "%s", alias.c_str());
    EXPECT_TRUE(z.members == nullptr || tree_insert(z.members, &m) == 0);
    if (id < 2048) z.member_bitmap[4 + id / 8] |= uint8_t(0x80 >> (id % 8));
    return m;
}

zfx_zoneset_node ZoneNodes::zoneset(uint32_t id, const std::string &name, std::initializer_list<zfx_zone_node *> zs) {
    zfx_zoneset_node s{id, {}, trees.emplace_back(tree_create(by_id), tree_destroy).get(), {},
                       {0xB1, 0, 0, 0, 0, 0, 0, 0xB8}};
    std::snprintf(s.name, sizeof s.name, "%s", name.c_str());
    for (zfx_zone_node *z : zs) {
        EXPECT_EQ(tree_insert(s.zones, z), 0);
        if (z->id < 8192) s.zone_bitmap[z->id / 8] |= uint8_t(0x80 >> (z->id % 8));
    }
    return s;
}

}  // namespace zfxtest
