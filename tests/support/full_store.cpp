#include "full_store.hpp"

#include "zfx_fabric.h"
#include "zfx_zone_db.h"

namespace zfxtest::full {

std::vector<Record> records() {
    std::vector<Record> r = {
        distribute_rec(1), nat_rec(1), aam_rec(1), flags_rec(0x10), topo_rec(1, kWwn, 1, vsans({4})),
        topo_mode_rec(ZFX_VT_MODE_AUTO), afid_rec(true, kWwn, 2, vsans({})), afid_rec(false, kWwn, 3, vsans({5})),
        sg_member_rec(false, 1, 1, vsans({6})), sg_member_rec(true, 1, 1, vsans({6, 8})), vdom_list_rec(vsans({9})),
        rdi_rec(4, vsans({10})), pfcid_domain_rec(1, 10, 2, 20, 0x20), pfcid_fcid_rec(1, 10, kWwn, {0, 0x20, 1, 0}),
        zone_db_header_rec({1}, {1}), zone_rec(1, "z1", tlv_array({members_tlv({1})})),
        member_rec(1, 1, ZFX_MEMBER_PWWN, tlv_array({tlv(10, kWwn), tlv(11, le32(10)), tlv(12, le32(1))})),
        zoneset_rec(1, "zs1", tlv_array({zones_tlv(4, {1})})),
    };
    for (Record &c : active_chunks(cat({le16(1), name68("zs1"), le16(0)}), 40)) r.push_back(std::move(c));
    return r;
}

const std::string kHead = "feature zfx\nzfx nat\nzfx distribute\n";
const std::string kVdomList = "zfx virtual-fcdomain-add vsan-ranges 9\n";
const std::string kVdomAfid = "zfx virtual-fcdomain-add2 autonomous-fabric-ID 4  vsan-ranges 10\n";
const std::string kTail = "zfx share-hw-entries\nzfx aam register\n";
const std::string kZone = "zfx zone name z1\n  member pwwn 20:00:00:11:22:33:44:55            vsan 10\n"
                          "zfx zoneset name zs1\n  member z1\nzfx zoneset activate name zs1\n";
const std::string kTopo =
    "zfx vsan-topology database\n  autonomous-fabric-id    1 switch-wwn 20:00:00:11:22:33:44:55 vsan-ranges 4\n"
    "zfx vsan-topology activate\n  no autonomous-fabric-id    1 switch-wwn 20:00:00:11:22:33:44:55 vsan-ranges 4\n";
const std::string kTopoAuto = "zfx vsan-topology auto\n";
const std::string kDefaultAfid =
    "autonomous-fabric-id database\n  switch-wwn 20:00:00:11:22:33:44:55 default-autonomous-fabric-id    2\n";
const std::string kAfid =
    "autonomous-fabric-id database\n  switch-wwn 20:00:00:11:22:33:44:55 autonomous-fabric-id    3 vsan-ranges 5\n";
const std::string kActiveSg = "  autonomous-fabric-id  1 vsan-ranges 6\nzfx service-group activate\n";
const std::string kCfgSg = "  autonomous-fabric-id  1 vsan-ranges 6,8\n";
const std::string kPfcid = "zfx fcdomain database autonomous-fabric-num 1 vsan 10\n"
                           "  native-autonomous-fabric-num 2 native-vsan 20 domain 32\n"
                           "    pwwn 20:00:00:11:22:33:44:55 fcid 0x200100\n";
const std::string kCommit = "zfx commit\n";

std::string text(const std::string &tables, const std::string &vdoms) {
    return kHead + vdoms + kTail + kZone + tables + kCommit;
}

std::string whole() { return text(kTopo + kTopoAuto + kDefaultAfid + kAfid + kActiveSg + kCfgSg + kPfcid); }

}  // namespace zfxtest::full
