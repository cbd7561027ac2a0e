// zfx-store load: the feature's configuration text parsed back into a fabric model.
//
// The text is what the library's generators write, read line by line, or the same commands as a
// person or another tool has them. Every line is normalised before it is read: a CR before the
// line end and trailing blanks go, blank lines and "!" comment lines are skipped (they end no
// block), and the words are what runs of blanks separate. An indented line (any blanks and tabs)
// belongs to the block the lines before it opened; which block that is, and for persistent FCIDs
// whether a line is a domain or an FCID, the lines say, never the indentation's width.
// Hexadecimal in WWNs, LUNs and FCIDs is read in either case. Names are words and keep every
// character they have.
//
// A line of another feature (one that no zfx command starts like) is an error, or, when the
// caller asks for it, skipped together with the indented lines under it and counted. A line that
// starts like a zfx command is the feature's own: when it is malformed it is an error either way.
//
// Three sections need more than one line to be understood, because the generators write one table
// in several passes:
//  - VSAN topology: the entries of the first database block are the activated ones; those that a
//    later "no ..." line names are activated only, the others both activated and configured; the
//    entries of the database block after "zfx vsan-topology activate" are configured only. A
//    database block that no activate line follows is a configured one.
//  - Service groups: the groups before "zfx service-group activate" are the active table; after
//    it come the removed groups, the removed members and the added or changed members, from which
//    the configured table is the active one with those changes. Without an activate line every
//    group line is an added one.
//  - Persistent FCIDs: FCID lines stand under the domain line they belong to.
// Ids the text does not carry are assigned in order of appearance: zones and zonesets 1, 2, ...,
// members 1, 2, ... within their zone, service groups in the order their lines appear (one id
// per name, shared by both tables).
#include "load.hpp"

#include "text_lines.hpp"

#include <algorithm>
#include <set>
#include <string_view>

#include "zfx_ascii_cfg.h"
#include "zfx_fabric.h"
#include "zfx_zone_db.h"

namespace zfxtool {
namespace {

constexpr size_t kNameMax = ZFX_NAME_SIZE - 1;           // what a zone, zoneset or alias field keeps
constexpr size_t kGroupNameMax = ZFX2_SG_NAME_SIZE - 1;  // what a service-group name record keeps

// A parse failure: what is wrong with the line at hand.
using Bad = LineError;

uint16_t afid_number(const std::string &text) { return uint16_t(number(text, 0xFFFF, "autonomous fabric ID")); }

Wwn wwn(const std::string &text) { return wwn_word(text); }
VsanSet ranges(const std::string &text) { return vsan_ranges(text); }

Wwn lun(const std::string &text) {
    Wwn l;
    if (!parse_lun(text, l)) throw Bad{"malformed LUN '" + text + "'"};
    return l;
}

std::string name(const std::string &text, size_t max, const char *what) {
    if (text.size() > max) throw Bad{std::string(what) + " '" + text + "' is longer than " + std::to_string(max) + " characters"};
    return text;
}

// Words of a line from the given one on must be exactly these (a "*" takes any word).
bool shape(const Words &w, std::initializer_list<const char *> want, size_t from = 0) {
    if (w.size() != from + want.size()) return false;
    size_t i = from;
    for (const char *s : want) {
        if (std::string(s) != "*" && w[i] != s) return false;
        ++i;
    }
    return true;
}

struct GroupLine {
    std::string group;
    uint16_t afid;
    VsanSet vsans;
};

class Loader {
public:
    explicit Loader(Fabric &fabric) : f_(fabric) {}

    // A line of the feature's: indented, it belongs to the block the lines before it opened.
    void line(bool indented, const Words &w) { indented ? nested(w) : top(w); }

    // A line of another feature, skipped: it ends the block at hand like any unindented line.
    void foreign() { block_ = Block::none; }

    void finish() {
        // A topology database block that no activate line followed is a configured one.
        for (TopologyEntry &t : topo_pending_) t.membership = ZFX_VT_FLAG_CONFIG;
        f_.topology.insert(f_.topology.end(), topo_pending_.begin(), topo_pending_.end());
        // Group lines that no activate line followed are added ones.
        if (!sg_activated_) {
            for (GroupLine &g : sg_active_) sg_added_.push_back(std::move(g));
            sg_active_.clear();
        }
        build_service_groups();
        if (active_name_) {
            Active a{uint16_t(f_.zonesets.size() + 1), *active_name_, {}, active_force_};
            for (const Zoneset &s : f_.zonesets)
                if (s.name == a.name) a = Active{s.id, s.name, s.zones, active_force_};
            f_.active = a;
        }
    }

private:
    enum class Block { none, zone, zoneset, topology, afid, group, pfcid, pfcid_domain };

    void top(const Words &w) {
        block_ = Block::none;
        if (shape(w, {"feature", "zfx"}) || shape(w, {"zfx", "commit"})) return;
        if (shape(w, {"zfx", "nat"})) return void(f_.nat = true);
        if (shape(w, {"zfx", "distribute"})) return void(f_.distribute = true);
        if (shape(w, {"zfx", "aam", "register"})) return void(f_.aam = true);
        if (shape(w, {"zfx", "fcdomain", "check-ignore"})) return void(f_.flags |= ZFX_GFLAG_FCDOMAIN_CHECK_IGNORE);
        if (shape(w, {"zfx", "share-hw-entries"})) return void(f_.flags |= ZFX_GFLAG_SHARE_HW_ENTRIES);
        if (shape(w, {"zfx", "virtual-fcdomain-add", "vsan-ranges", "*"}) ||
            shape(w, {"zfx", "virtual-fcdomain-add", "vsan-ranges", "*", "force"})) {
            if (w.size() == 5) f_.flags |= ZFX_GFLAG_VDOM_FORCE;
            return void(f_.vdom_list = ranges(w[3]));
        }
        if (shape(w, {"zfx", "virtual-fcdomain-add2", "autonomous-fabric-ID", "*", "vsan-ranges", "*"}))
            return void(f_.vdoms[afid_number(w[3])] = ranges(w[5]));
        if (shape(w, {"zfx", "zone", "name", "*"})) return zone(w[3]);
        if (shape(w, {"zfx", "zoneset", "name", "*"})) return zoneset(w[3]);
        if (shape(w, {"zfx", "zoneset", "activate", "name", "*"}) || shape(w, {"zfx", "zoneset", "activate", "name", "*", "force"})) {
            active_name_ = name(w[4], kNameMax, "zoneset name");
            active_force_ = w.size() == 6;
            return;
        }
        if (shape(w, {"zfx", "vsan-topology", "database"})) return void(block_ = Block::topology);
        if (shape(w, {"zfx", "vsan-topology", "activate"})) {
            // The block before was the activated topology; removals may follow at once.
            for (TopologyEntry &t : topo_pending_) t.membership = ZFX_VT_FLAG_ACTIVE | ZFX_VT_FLAG_CONFIG;
            f_.topology.insert(f_.topology.end(), topo_pending_.begin(), topo_pending_.end());
            topo_pending_.clear();
            topo_activated_ = true;
            return void(block_ = Block::topology);
        }
        if (shape(w, {"zfx", "vsan-topology", "auto"})) return void(f_.topology_auto = true);
        if (shape(w, {"autonomous-fabric-id", "database"})) return void(block_ = Block::afid);
        if (shape(w, {"zfx", "service-group", "name", "*"})) {
            group_ = name(w[3], kGroupNameMax, "service-group name");
            return void(block_ = Block::group);
        }
        if (shape(w, {"zfx", "service-group", "activate"}) || shape(w, {"zfx", "service-group", "activate", "default-sg-deny"})) {
            if (sg_activated_) throw Bad{"service groups activated twice"};
            sg_activated_ = true;
            f_.group_policy_deny = w.size() == 4;
            return;
        }
        if (shape(w, {"no", "zfx", "service-group", "name", "*"})) {
            if (!sg_activated_) throw Bad{"a removed service group, but no service groups are activated"};
            return void(sg_removed_groups_.push_back(w[4]));
        }
        if (shape(w, {"zfx", "fcdomain", "database", "autonomous-fabric-num", "*", "vsan", "*"})) {
            pfcid_afid_ = afid_number(w[4]);
            pfcid_vsan_ = vsan_number(w[6]);
            return void(block_ = Block::pfcid);
        }
        if (shape(w, {"logging", "level", "zfx", "*"})) return void(f_.debug_level = uint32_t(number(w[3], ZFX_DEBUG_LEVEL_MAX, "logging level")));
        if (w[0] == "member") throw Bad{"a member line outside a zone or zoneset (the lines of a block are indented)"};
        throw Bad{"a malformed zfx line"};
    }

    void nested(const Words &w) {
        if (w[0] == "zfx") throw Bad{"a zfx command indented like a line of a block"};
        switch (block_) {
            case Block::zone: return zone_line(w);
            case Block::zoneset:
                if (!shape(w, {"member", "*"})) break;
                return zoneset_member(w[1]);
            case Block::topology: return topology_line(w);
            case Block::afid:
                if (shape(w, {"switch-wwn", "*", "default-autonomous-fabric-id", "*"}))
                    return void(f_.afids.push_back({true, wwn(w[1]), afid_number(w[3]), {}}));
                if (shape(w, {"switch-wwn", "*", "autonomous-fabric-id", "*", "vsan-ranges", "*"}))
                    return void(f_.afids.push_back({false, wwn(w[1]), afid_number(w[3]), ranges(w[5])}));
                break;
            case Block::group: return group_line(w);
            case Block::pfcid_domain:
                if (shape(w, {"pwwn", "*", "fcid", "*"})) return fcid(w);
                [[fallthrough]];
            case Block::pfcid:
                if (!shape(w, {"native-autonomous-fabric-num", "*", "native-vsan", "*", "domain", "*"})) break;
                f_.pfcid_domains.push_back({pfcid_afid_, pfcid_vsan_, afid_number(w[1]), vsan_number(w[3]), uint8_t(number(w[5], 255, "domain"))});
                return void(block_ = Block::pfcid_domain);
            case Block::none:
                if (w[0] == "member") throw Bad{"a member line outside a zone or zoneset"};
                throw Bad{"an indented line under no block"};
        }
        throw Bad{"not a line of this block"};
    }

    void zone(const std::string &zone_name) {
        if (!zone_names_.insert(name(zone_name, kNameMax, "zone name")).second) throw Bad{"zone " + zone_name + " is defined twice"};
        if (f_.zones.size() == ZFX_ZONE_ID_MAX) throw Bad{"more than 8191 zones"};
        f_.zones.push_back({uint16_t(f_.zones.size() + 1), zone_name, ZFX_ZONE_QOS_NONE, false, {}});
        block_ = Block::zone;
    }

    void zone_line(const Words &w) {
        Zone &z = f_.zones.back();
        if (shape(w, {"attribute", "read-only"})) return void(z.read_only = true);
        if (shape(w, {"attribute", "qos", "priority", "*"})) {
            for (uint32_t q = ZFX_ZONE_QOS_LOW; q <= ZFX_ZONE_QOS_HIGH; ++q)
                if (w[3] == qos_word(q)) return void(z.qos = q);
            throw Bad{"unknown QoS priority '" + w[3] + "' (low, medium or high)"};
        }
        // member pwwn W | device-alias A, [lun L], vsan V, [autonomous-fabric-id F]
        if (w.size() < 3 || w[0] != "member" || (w[1] != "pwwn" && w[1] != "device-alias"))
            throw Bad{"not a line of a zone"};
        Member m;
        const bool alias = w[1] == "device-alias";
        if (alias) m.alias = name(w[2], kNameMax, "device alias");
        else m.pwwn = wwn(w[2]);
        size_t at = 3;
        const bool has_lun = w.size() > at + 1 && w[at] == "lun";
        if (has_lun) {
            m.lun = lun(w[at + 1]);
            at += 2;
        }
        m.type = uint8_t(alias ? (has_lun ? ZFX_MEMBER_DEVICE_ALIAS_LUN : ZFX_MEMBER_DEVICE_ALIAS)
                               : (has_lun ? ZFX_MEMBER_PWWN_LUN : ZFX_MEMBER_PWWN));
        if (!shape(w, {"vsan", "*"}, at) && !shape(w, {"vsan", "*", "autonomous-fabric-id", "*"}, at))
            throw Bad{"a member line must end in 'vsan V' or 'vsan V autonomous-fabric-id F'"};
        m.vsan = vsan_number(w[at + 1]);
        if (w.size() == at + 4) m.afid = afid_number(w[at + 3]);
        if (z.members.size() == ZFX_ZONE_MEMBER_ID_MAX) throw Bad{"more than 2047 members in zone " + z.name};
        z.members.push_back(m);
    }

    void zoneset(const std::string &set_name) {
        if (!zoneset_names_.insert(name(set_name, kNameMax, "zoneset name")).second) throw Bad{"zoneset " + set_name + " is defined twice"};
        if (f_.zonesets.size() == ZFX_ZONESET_ID_MAX) throw Bad{"more than 2047 zonesets"};
        f_.zonesets.push_back({uint16_t(f_.zonesets.size() + 1), set_name, {}});
        block_ = Block::zoneset;
    }

    void zoneset_member(const std::string &zone_name) {
        for (const Zone &z : f_.zones)
            if (z.name == zone_name) return f_.zonesets.back().zones.push_back(z.id);
        throw Bad{"zoneset member " + zone_name + " is no zone defined before it"};
    }

    void topology_line(const Words &w) {
        const bool removal = !w.empty() && w[0] == "no";
        if (!shape(w, {"autonomous-fabric-id", "*", "switch-wwn", "*", "vsan-ranges", "*"}, removal ? 1 : 0))
            throw Bad{"not a line of the VSAN topology"};
        const size_t at = removal ? 1 : 0;
        TopologyEntry e{afid_number(w[at + 1]), wwn(w[at + 3]), 0, ranges(w[at + 5])};
        if (!removal && !topo_activated_) return topo_pending_.push_back(e);
        if (!removal) {
            e.membership = ZFX_VT_FLAG_CONFIG;
            return f_.topology.push_back(e);
        }
        // A removal names an activated entry, which is then activated only.
        for (TopologyEntry &t : f_.topology)
            if (t.membership == (ZFX_VT_FLAG_ACTIVE | ZFX_VT_FLAG_CONFIG) && t.afid == e.afid && t.wwn == e.wwn && t.vsans == e.vsans)
                return void(t.membership = ZFX_VT_FLAG_ACTIVE);
        throw Bad{"a removal of a topology entry that is not activated"};
    }

    void group_line(const Words &w) {
        const bool removal = !w.empty() && w[0] == "no";
        if (!shape(w, {"autonomous-fabric-id", "*", "vsan-ranges", "*"}, removal ? 1 : 0)) throw Bad{"not a line of a service group"};
        GroupLine g{group_, afid_number(w[removal ? 2 : 1]), ranges(w[removal ? 4 : 3])};
        if (removal && !sg_activated_) throw Bad{"a removed service-group member, but no service groups are activated"};
        (removal ? sg_removed_members_ : sg_activated_ ? sg_added_ : sg_active_).push_back(std::move(g));
    }

    void fcid(const Words &w) {
        const std::string &text = w[3];
        const uint32_t v = fcid_number(text);
        const PfcidFcid p{pfcid_afid_, pfcid_vsan_, wwn(w[1]), {uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}};
        if (p.fcid[0] != f_.pfcid_domains.back().domain) throw Bad{"the FCID's domain differs from the domain it stands under"};
        // An FCID stands under every domain line of its fabric with its domain: keep one record.
        for (const PfcidFcid &o : f_.pfcid_fcids)
            if (o.afid == p.afid && o.vsan == p.vsan && o.pwwn == p.pwwn) {
                if (o.fcid != p.fcid) throw Bad{"port WWN " + w[1] + " has two FCIDs"};
                return;
            }
        f_.pfcid_fcids.push_back(p);
    }

    // Both service-group tables from the passes. Group ids follow the order the passes show (each
    // pass is in id order), so that the tables list as the text did.
    void build_service_groups() {
        std::vector<std::vector<std::string>> passes(4);
        const auto names = [](const std::vector<GroupLine> &lines, std::vector<std::string> &out) {
            for (const GroupLine &g : lines)
                if (out.empty() || out.back() != g.group) out.push_back(g.group);
        };
        names(sg_active_, passes[0]);
        passes[1] = sg_removed_groups_;
        names(sg_removed_members_, passes[2]);
        names(sg_added_, passes[3]);
        const std::vector<std::string> order = merge_orders(passes);
        const auto id_of = [&](const std::string &g) {
            const uint32_t rank = uint32_t(std::find(order.begin(), order.end(), g) - order.begin()) + 1;
            // Keys hold the id in host order, so beyond 255 groups the ids are chosen so that
            // their key bytes still sort in rank order.
            return order.size() <= 255 ? rank : __builtin_bswap32(rank);
        };
        const std::set<std::string> removed(sg_removed_groups_.begin(), sg_removed_groups_.end());
        std::map<std::string, std::vector<GroupMember>> configured;
        for (const GroupLine &g : sg_active_) {
            f_.groups_active.empty() || f_.groups_active.back().name != g.group
                ? f_.groups_active.push_back({id_of(g.group), g.group, {{g.afid, g.vsans}}})
                : f_.groups_active.back().members.push_back({g.afid, g.vsans});
            if (!removed.count(g.group)) configured[g.group].push_back({g.afid, g.vsans});
        }
        for (const GroupLine &g : sg_removed_members_) {
            auto &members = configured[g.group];
            members.erase(std::remove_if(members.begin(), members.end(), [&](const GroupMember &m) { return m.afid == g.afid; }),
                          members.end());
        }
        for (const GroupLine &g : sg_added_) {
            auto &members = configured[g.group];
            auto it = std::find_if(members.begin(), members.end(), [&](const GroupMember &m) { return m.afid == g.afid; });
            if (it != members.end()) it->vsans = g.vsans;
            else members.push_back({g.afid, g.vsans});
        }
        for (const std::string &g : order)
            if (auto it = configured.find(g); it != configured.end() && !it->second.empty())
                f_.groups_configured.push_back({id_of(g), g, it->second});
    }

    // One order of names that keeps the order of every pass (the first appearance decides
    // between names no pass orders).
    static std::vector<std::string> merge_orders(const std::vector<std::vector<std::string>> &passes) {
        std::vector<std::string> all;
        std::map<std::string, std::set<std::string>> after;  // name -> names that must come first
        for (const auto &pass : passes)
            for (size_t i = 0; i < pass.size(); ++i) {
                if (std::find(all.begin(), all.end(), pass[i]) == all.end()) all.push_back(pass[i]);
                if (i > 0) after[pass[i]].insert(pass[i - 1]);
            }
        std::vector<std::string> out;
        while (out.size() < all.size()) {
            const std::string *pick = nullptr;
            for (const std::string &n : all) {
                if (std::find(out.begin(), out.end(), n) != out.end()) continue;
                if (pick == nullptr) pick = &n;  // a cycle: the earliest left goes next
                const auto &need = after[n];
                if (std::all_of(need.begin(), need.end(), [&](const std::string &m) { return std::find(out.begin(), out.end(), m) != out.end(); })) {
                    pick = &n;
                    break;
                }
            }
            out.push_back(*pick);
        }
        return out;
    }

    Fabric &f_;
    Block block_ = Block::none;
    std::set<std::string> zone_names_, zoneset_names_;
    std::optional<std::string> active_name_;
    bool active_force_ = false;
    std::vector<TopologyEntry> topo_pending_;
    bool topo_activated_ = false;
    std::string group_;
    bool sg_activated_ = false;
    std::vector<GroupLine> sg_active_, sg_removed_members_, sg_added_;
    std::vector<std::string> sg_removed_groups_;
    uint16_t pfcid_afid_ = 0;
    uint32_t pfcid_vsan_ = 0;
};

// Whether an unindented line is the feature's own: every command the generators write starts
// like one of these, and so do the lines of its blocks, which unindented are a mistake in zfx
// text rather than another feature's line.
bool feature_line(const Words &w) {
    static const std::vector<std::vector<std::string_view>> heads = {
        {"zfx"}, {"no", "zfx"}, {"feature", "zfx"}, {"logging", "level", "zfx"}, {"autonomous-fabric-id"},
        {"no", "autonomous-fabric-id"}, {"member"}, {"attribute"}, {"switch-wwn"}, {"native-autonomous-fabric-num"}, {"pwwn"},
    };
    return std::any_of(heads.begin(), heads.end(), [&](const std::vector<std::string_view> &head) {
        return w.size() >= head.size() && std::equal(head.begin(), head.end(), w.begin());
    });
}

}  // namespace

bool load_text(const std::string &text, const std::string &source, Fabric &fabric, std::string &error,
               const LoadOptions &options, size_t *skipped) {
    Loader loader(fabric);
    size_t foreign_lines = 0;
    bool in_foreign = false;  // the lines at hand are another feature's block
    const bool read = each_line(text, source, [&](const TextLine &line) {
        if (line.body.empty() || line.body[0] == '!') return;  // blank lines and comments end no block
        const Words w = words(line.body);
        if (!line.indented) in_foreign = !feature_line(w);
        if (in_foreign) {
            if (!options.skip_foreign) throw Bad{"not a line of the zfx configuration (another feature's? --skip-foreign skips those)"};
            ++foreign_lines;
            loader.foreign();
            return;
        }
        // Names end at the first control character in a record (or print as one), so a line
        // holding one could not come back as it was.
        if (std::any_of(line.body.begin(), line.body.end(), [](char c) { return (unsigned char)c < 0x20 || c == 0x7F; }))
            throw Bad{"a control character in the line"};
        loader.line(line.indented, w);
    }, error);
    if (!read) return false;
    loader.finish();
    if (skipped != nullptr) *skipped = foreign_lines;
    return true;
}

bool load_file(const std::string &path, Fabric &fabric, std::string &error, const LoadOptions &options, size_t *skipped) {
    std::string text;
    return read_text(path, text, error) && load_text(text, path, fabric, error, options, skipped);
}

}  // namespace zfxtool
