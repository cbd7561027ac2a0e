// The fabrics zfx-store builds in code: the demo fabric and the synthetic ones.
#include <stdexcept>

#include "fabric.hpp"
#include "zfx_ascii_cfg.h"
#include "zfx_fabric.h"
#include "zfx_zone_db.h"

namespace zfxtool {
namespace {

Wwn wwn(uint8_t a, uint8_t b, uint8_t c, uint8_t d) { return {0x20, 0x00, 0x00, 0xaa, a, b, c, d}; }
Wwn lun(uint8_t hi, uint8_t lo) { return {hi, lo, 0, 0, 0, 0, 0, 0}; }

Member pwwn(const Wwn &w, uint32_t vsan, uint16_t afid = 1) { return {ZFX_MEMBER_PWWN, w, {}, "", vsan, afid}; }
Member pwwn_lun(const Wwn &w, const Wwn &l, uint32_t vsan, uint16_t afid = 1) {
    return {ZFX_MEMBER_PWWN_LUN, w, l, "", vsan, afid};
}
Member alias(const std::string &a, uint32_t vsan, uint16_t afid = 1) { return {ZFX_MEMBER_DEVICE_ALIAS, {}, {}, a, vsan, afid}; }
Member alias_lun(const std::string &a, const Wwn &l, uint32_t vsan, uint16_t afid = 1) {
    return {ZFX_MEMBER_DEVICE_ALIAS_LUN, {}, l, a, vsan, afid};
}

VsanSet vsans(std::initializer_list<std::pair<int32_t, int32_t>> runs) {
    VsanSet set;
    for (const auto &[first, last] : runs) set.add(first, last);
    return set;
}

// splitmix64: small, fast and the same everywhere, so a seed names one fabric.
class Random {
public:
    explicit Random(uint64_t seed) : state_(seed) {}
    uint64_t next() {
        uint64_t z = (state_ += 0x9e3779b97f4a7c15ull);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
        return z ^ (z >> 31);
    }
    uint32_t below(uint32_t n) { return n == 0 ? 0 : uint32_t(next() % n); }
    Wwn wwn() {
        const uint64_t v = next();
        Wwn w{0x20, 0x00};
        for (int i = 2; i < 8; ++i) w[size_t(i)] = uint8_t(v >> (8 * i));
        return w;
    }
    VsanSet vsans() {
        VsanSet set;
        for (uint32_t runs = 1 + below(4); runs-- > 0;) {
            const int32_t first = int32_t(1 + below(4000));
            set.add(first, first + int32_t(below(8)));
        }
        return set;
    }

private:
    uint64_t state_;
};

void check_range(const char *what, uint32_t value, uint32_t max) {
    if (value > max) throw std::invalid_argument(std::string(what) + " must be at most " + std::to_string(max));
}

}  // namespace

Fabric demo_fabric() {
    Fabric f;
    f.nat = true;
    f.distribute = true;
    f.aam = true;
    f.flags = ZFX_GFLAG_FCDOMAIN_CHECK_IGNORE | ZFX_GFLAG_VDOM_FORCE | ZFX_GFLAG_SHARE_HW_ENTRIES;
    f.vdom_list = vsans({{10, 12}, {20, 20}});
    f.vdoms[2] = vsans({{30, 31}});
    f.vdoms[5] = vsans({{40, 40}, {45, 47}});

    const Wwn host_a = wwn(0x10, 0, 0, 0x01), host_b = wwn(0x10, 0, 0, 0x02), array_a = wwn(0x50, 0, 0, 0x0a),
              array_b = wwn(0x50, 0, 0, 0x0b), tape = wwn(0x70, 0, 0, 0x01);
    f.zones = {
        {1, "hosts-to-array", ZFX_ZONE_QOS_HIGH, false,
         {pwwn(host_a, 10), pwwn(host_b, 10), pwwn(array_a, 20, 2)}},
        {2, "backup", ZFX_ZONE_QOS_NONE, true,
         {alias("tape-drive-1", 10), pwwn_lun(tape, lun(0, 1), 10), alias("backup-server-long-name", 10)}},
        {3, "analytics", ZFX_ZONE_QOS_LOW, false, {alias_lun("warehouse", lun(0x40, 0x12), 30, 3), pwwn(host_b, 30, 3)}},
        {4, "staging", ZFX_ZONE_QOS_NONE, false, {}},
        {2001, "dr-replication", ZFX_ZONE_QOS_MEDIUM, true, {pwwn(array_a, 20, 2), pwwn(array_b, 40, 5)}},
        {2500, "archive", ZFX_ZONE_QOS_NONE, false, {pwwn_lun(array_b, {0, 0, 0, 0, 0, 0, 0, 7}, 40, 5), alias("vault", 40, 5)}},
    };
    f.zonesets = {{1, "production", {1, 2, 3}}, {2, "disaster-recovery", {2, 2001, 2500}}, {3, "lab", {4}}};
    f.active = Active{2, "disaster-recovery", {2, 2001, 2500}, true};

    const Wwn sw1 = wwn(0x00, 0x00, 0xff, 0x01), sw2 = wwn(0x00, 0x00, 0xff, 0x02), sw3 = wwn(0x00, 0x00, 0xff, 0x03);
    f.topology = {
        {1, sw1, ZFX_VT_FLAG_ACTIVE | ZFX_VT_FLAG_CONFIG, vsans({{1, 10}, {100, 100}})},
        {2, sw2, ZFX_VT_FLAG_ACTIVE, vsans({{20, 29}})},
        {3, sw3, ZFX_VT_FLAG_CONFIG, vsans({{30, 30}, {32, 32}, {34, 40}})},
    };
    f.topology_auto = true;
    f.afids = {
        {true, sw1, 1, {}},
        {true, sw2, 2, {}},
        {false, sw1, 2, vsans({{20, 29}})},
        {false, sw2, 3, vsans({{30, 40}})},
    };

    f.groups_active = {
        {1, "finance", {{1, vsans({{10, 12}})}, {2, vsans({{20, 20}})}, {4, vsans({{50, 50}})}}},
        {2, "engineering", {{3, vsans({{30, 33}})}}},
        {3, "legacy", {{1, vsans({{90, 99}})}}},
    };
    f.groups_configured = {
        {1, "finance", {{1, vsans({{10, 12}})}, {2, vsans({{20, 20}})}}},
        {2, "engineering", {{3, vsans({{30, 35}})}}},
        {4, "research", {{5, vsans({{40, 40}, {45, 47}})}}},
    };
    f.group_policy_deny = true;

    f.pfcid_domains = {{1, 10, 2, 20, 0x21}, {1, 10, 3, 30, 0x22}, {2, 20, 1, 10, 0x31}};
    f.pfcid_fcids = {
        {1, 10, host_a, {0x21, 0x00, 0x01}},
        {1, 10, host_b, {0x21, 0x00, 0x02}},
        {1, 10, tape, {0x22, 0x01, 0x00}},
        {2, 20, array_a, {0x31, 0x0a, 0xef}},
    };
    f.debug_level = 3;
    return f;
}

Fabric synth_fabric(const SynthParams &p) {
    check_range("zones", p.zones, ZFX_ZONE_ID_MAX);
    check_range("members", p.members, ZFX_ZONE_MEMBER_ID_MAX);
    check_range("zonesets", p.zonesets, ZFX_ZONESET_ID_MAX);
    check_range("afids", p.afids, 65535);
    Random rnd(p.seed);
    Fabric f;
    f.nat = rnd.below(2) == 0;
    f.distribute = rnd.below(4) != 0;
    f.aam = rnd.below(2) == 0;
    static const uint32_t kFlags[] = {ZFX_GFLAG_FCDOMAIN_CHECK_IGNORE, ZFX_GFLAG_VDOM_FORCE, ZFX_GFLAG_SHARE_HW_ENTRIES};
    for (uint32_t flag : kFlags)
        if (rnd.below(2) == 0) f.flags |= flag;
    if (rnd.below(4) != 0) f.vdom_list = rnd.vsans();
    for (uint32_t i = 0; i < p.afids / 8; ++i) f.vdoms[uint16_t(1 + rnd.below(64))] = rnd.vsans();

    static const uint8_t kTypes[] = {ZFX_MEMBER_PWWN, ZFX_MEMBER_DEVICE_ALIAS, ZFX_MEMBER_PWWN_LUN, ZFX_MEMBER_DEVICE_ALIAS_LUN};
    f.zones.reserve(p.zones);
    for (uint32_t z = 1; z <= p.zones; ++z) {
        Zone &zone = f.zones.emplace_back();
        zone.id = uint16_t(z);
        zone.name = "zone-" + std::to_string(z);
        zone.qos = rnd.below(4);
        zone.read_only = rnd.below(8) == 0;
        for (uint32_t m = 0; m < p.members; ++m) {
            Member &member = zone.members.emplace_back();
            member.type = kTypes[rnd.below(4)];
            member.pwwn = rnd.wwn();
            member.lun = {0, uint8_t(rnd.below(256)), 0, 0, 0, 0, 0, 0};
            member.alias = "device-" + std::to_string(rnd.below(100000));
            member.vsan = 1 + rnd.below(4093);
            member.afid = uint16_t(rnd.below(4) == 0 ? 2 + rnd.below(30) : 1);
        }
    }
    for (uint32_t s = 1; s <= p.zonesets; ++s) {
        Zoneset &set = f.zonesets.emplace_back();
        set.id = uint16_t(s);
        set.name = "zoneset-" + std::to_string(s);
        std::vector<bool> taken(p.zones + 1);
        for (uint32_t i = 0; i < p.zones_per_set && p.zones != 0; ++i) {
            const uint32_t z = 1 + rnd.below(p.zones);
            if (!taken[z]) set.zones.push_back(uint16_t(z));
            taken[z] = true;
        }
    }
    if (!f.zonesets.empty()) f.active = Active{1, f.zonesets[0].name, f.zonesets[0].zones, rnd.below(2) == 0};

    for (uint32_t i = 0; i < p.topology; ++i)
        f.topology.push_back({uint16_t(1 + rnd.below(64)), rnd.wwn(), uint8_t(1 + rnd.below(3)), rnd.vsans()});
    for (uint32_t i = 0; i < p.afids; ++i)
        f.afids.push_back({i % 4 == 0, rnd.wwn(), uint16_t(1 + i), rnd.vsans()});
    // Most groups are active and configured alike; some were added, removed or changed since
    // the activation, as a fabric under change has them.
    for (uint32_t g = 1; g <= p.groups; ++g) {
        ServiceGroup group{g, "group-" + std::to_string(g), {}};
        for (uint16_t afid = 1; afid <= 4; ++afid) group.members.push_back({afid, rnd.vsans()});
        const uint32_t change = rnd.below(8);
        if (change != 0) f.groups_active.push_back(group);
        if (change == 1) continue;  // removed from the configuration
        if (change == 2) group.members.back().vsans = rnd.vsans();
        if (change == 3) group.members.erase(group.members.begin() + long(rnd.below(4)));
        if (change == 4) group.members.push_back({uint16_t(5 + rnd.below(20)), rnd.vsans()});
        f.groups_configured.push_back(group);
    }
    f.group_policy_deny = rnd.below(2) == 0;
    for (uint32_t i = 0; i < p.pfcids; ++i) {
        const uint32_t domain = i / 8;
        if (i % 8 == 0)
            f.pfcid_domains.push_back({uint16_t(1 + domain % 4), 1 + domain / 4, 1, 1 + domain, uint8_t(1 + domain % 239)});
        const PfcidDomain &d = f.pfcid_domains.back();
        f.pfcid_fcids.push_back({d.afid, d.vsan, rnd.wwn(), {d.domain, uint8_t(i / 256), uint8_t(i)}});
    }
    f.debug_level = rnd.below(ZFX_DEBUG_LEVEL_MAX + 1);
    return f;
}

}  // namespace zfxtool
