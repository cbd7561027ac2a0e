// A zone database of nodes in trees, as the service keeps it in memory, for the suites that run
// the zone encoders: zones, their members and zonesets, with the bitmaps the nodes carry.
#pragma once

#include <cstdint>
#include <deque>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "bytes.hpp"
#include "zfx_zone_db.h"

namespace zfxtest {

// The port WWN of member id n: kWwn with its last byte n; every LUN is kNodeLun.
extern const Bytes kNodeLun;
Bytes node_wwn(uint8_t last);

// Nodes live as long as the database; the trees are destroyed with it.
struct ZoneNodes {
    // A zone with attribute block A1 .. A8; without has_tree its members tree is NULL.
    zfx_zone_node &zone(uint32_t id, const std::string &name, uint32_t qos = 0, uint32_t ro = 0,
                        bool has_tree = true);
    // A member in the zone's tree (when it has one) and bitmap.
    zfx_zone_member_node &member(zfx_zone_node &z, uint32_t id, uint32_t type, uint32_t vsan, uint16_t afid,
                                 const std::string &alias = "");
    // A zoneset of the zones, with attribute block B1 .. B8.
    zfx_zoneset_node zoneset(uint32_t id, const std::string &name, std::initializer_list<zfx_zone_node *> zones);

    std::deque<zfx_zone_member_node> members;
    std::deque<zfx_zone_node> zones;
    std::vector<std::unique_ptr<plat_tree, decltype(&tree_destroy)>> trees;
};

}  // namespace zfxtest
