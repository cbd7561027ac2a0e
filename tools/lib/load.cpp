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

#include <algorithm>
#include <cctype>
#include <fstream>
#include <cstdio>
#include <memory>
#include <set>
#include <string_view>
#include <charconv>
#include <map>
#include <tuple>

#include "zfx_ascii_cfg.h"
#include "zfx_fabric.h"
#include "zfx_zone_db.h"

namespace zfxtool {
namespace {

constexpr size_t kNameMax = ZFX_NAME_SIZE - 1;           // what a zone, zoneset or alias field keeps
constexpr size_t kGroupNameMax = ZFX2_SG_NAME_SIZE - 1;  // what a service-group name record keeps

// A line's words point into the text; one vector serves every line.
using Words = std::vector<std::string_view>;

// A parse failure: what is wrong with the line at hand.
struct Bad {
    std::string what;
};

bool hex_digit(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

// The "0x" before a LUN or an FCID, in either case like the digits after it.
bool hex_prefix(std::string_view text) { return text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'); }

// "what 'text'", for messages.
std::string quoted(const char *what, std::string_view text) { return std::string(what) + " '" + std::string(text) + "'"; }

uint64_t number(std::string_view text, uint64_t max, const char *what) {
    uint64_t v = 0;
    if (text.empty() || text.size() > 10 || !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }))
        throw Bad{std::string("malformed ") + quoted(what, text)};
    std::from_chars(text.data(), text.data() + text.size(), v);
    if (v > max) throw Bad{std::string(what) + " " + std::string(text) + " is out of range (at most " + std::to_string(max) + ")"};
    return v;
}

uint32_t vsan_number(std::string_view text) { return uint32_t(number(text, VSAN_BITSET_NUMBITS - 1, "VSAN")); }
uint16_t afid_number(std::string_view text) { return uint16_t(number(text, 0xFFFF, "autonomous fabric ID")); }

Wwn wwn(std::string_view text) {
    Wwn w;
    if (!parse_wwn(text, w)) throw Bad{quoted("malformed WWN", text)};
    return w;
}

Wwn lun(std::string_view text) {
    Wwn l;
    if (!parse_lun(text, l)) throw Bad{quoted("malformed LUN", text)};
    return l;
}

// VSAN range text: runs "a" or "a-b" joined by ",".
VsanSet ranges(std::string_view text) {
    VsanSet set;
    for (std::string_view rest = text; !rest.empty();) {
        const size_t comma = std::min(rest.find(','), rest.size());
        const std::string_view run = rest.substr(0, comma);
        rest.remove_prefix(std::min(comma + 1, rest.size()));
        const size_t dash = run.find('-');
        const uint32_t first = vsan_number(run.substr(0, dash));
        const uint32_t last = dash == std::string_view::npos ? first : vsan_number(run.substr(dash + 1));
        if (last < first) throw Bad{quoted("VSAN range", run) + " runs backwards"};
        set.add(int32_t(first), int32_t(last));
    }
    if (text.empty() || text.back() == ',') throw Bad{quoted("malformed VSAN ranges", text)};
    return set;
}

std::string name(std::string_view text, size_t max, const char *what) {
    if (text.size() > max) throw Bad{quoted(what, text) + " is longer than " + std::to_string(max) + " characters"};
    return std::string(text);
}

// Words of a line from the given one on must be exactly these (a "*" takes any word).
bool shape(const Words &w, std::initializer_list<std::string_view> want, size_t from = 0) {
    if (w.size() != from + want.size()) return false;
    size_t i = from;
    for (std::string_view s : want) {
        if (s != "*" && w[i] != s) return false;
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
            return void(sg_removed_groups_.emplace_back(w[4]));
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

    void zone(std::string_view zone_name) {
        const uint16_t id = uint16_t(f_.zones.size() + 1);
        if (!zone_ids_.emplace(name(zone_name, kNameMax, "zone name"), id).second)
            throw Bad{"zone " + std::string(zone_name) + " is defined twice"};
        if (f_.zones.size() == ZFX_ZONE_ID_MAX) throw Bad{"more than 8191 zones"};
        f_.zones.push_back({id, std::string(zone_name), ZFX_ZONE_QOS_NONE, false, {}});
        block_ = Block::zone;
    }

    void zone_line(const Words &w) {
        Zone &z = f_.zones.back();
        if (shape(w, {"attribute", "read-only"})) return void(z.read_only = true);
        if (shape(w, {"attribute", "qos", "priority", "*"})) {
            for (uint32_t q = ZFX_ZONE_QOS_LOW; q <= ZFX_ZONE_QOS_HIGH; ++q)
                if (w[3] == qos_word(q)) return void(z.qos = q);
            throw Bad{quoted("unknown QoS priority", w[3]) + " (low, medium or high)"};
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

    void zoneset(std::string_view set_name) {
        if (!zoneset_names_.insert(name(set_name, kNameMax, "zoneset name")).second)
            throw Bad{"zoneset " + std::string(set_name) + " is defined twice"};
        if (f_.zonesets.size() == ZFX_ZONESET_ID_MAX) throw Bad{"more than 2047 zonesets"};
        f_.zonesets.push_back({uint16_t(f_.zonesets.size() + 1), std::string(set_name), {}});
        block_ = Block::zoneset;
    }

    void zoneset_member(std::string_view zone_name) {
        const auto it = zone_ids_.find(zone_name);
        if (it == zone_ids_.end()) throw Bad{"zoneset member " + std::string(zone_name) + " is no zone defined before it"};
        f_.zonesets.back().zones.push_back(it->second);
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
        const std::string_view text = w[3];
        if (text.size() != 8 || !hex_prefix(text) || !std::all_of(text.begin() + 2, text.end(), hex_digit))
            throw Bad{quoted("malformed FCID", text) + " (0x and six hexadecimal digits)"};
        uint32_t v = 0;
        std::from_chars(text.data() + 2, text.data() + text.size(), v, 16);
        const PfcidFcid p{pfcid_afid_, pfcid_vsan_, wwn(w[1]), {uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}};
        if (p.fcid[0] != f_.pfcid_domains.back().domain) throw Bad{"the FCID's domain differs from the domain it stands under"};
        // An FCID stands under every domain line of its fabric with its domain: keep one record.
        const auto [it, added] = fcid_index_.emplace(std::tuple(p.afid, p.vsan, p.pwwn), f_.pfcid_fcids.size());
        if (added) return f_.pfcid_fcids.push_back(p);
        if (f_.pfcid_fcids[it->second].fcid != p.fcid) throw Bad{"port WWN " + std::string(w[1]) + " has two FCIDs"};
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
    std::map<std::string, uint16_t, std::less<>> zone_ids_;  // by name
    std::set<std::string> zoneset_names_;
    std::map<std::tuple<uint16_t, uint32_t, Wwn>, size_t> fcid_index_;  // (AFID, VSAN, port WWN) -> in pfcid_fcids
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

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";  // what some editors put before UTF-8 text

// A line as the loader reads it: without the CR of a CRLF line end and without trailing blanks,
// its indentation (blanks and tabs, any number) apart. body is empty for a blank line.
struct TextLine {
    bool indented = false;
    std::string_view body;
};

// Blanks and tabs, tested a character at a time: the standard searches for a set of characters
// look each one up in the set with a call of their own.
bool blank(char c) { return c == ' ' || c == '\t'; }

TextLine normalise(std::string_view raw) {
    if (raw.ends_with('\r')) raw.remove_suffix(1);
    while (raw.ends_with(' ')) raw.remove_suffix(1);
    size_t indent = 0;
    while (indent < raw.size() && blank(raw[indent])) ++indent;
    if (indent == raw.size()) return {};
    return {indent > 0, raw.substr(indent)};
}

// The words of a line's body: what runs of blanks (and, in another feature's lines, tabs) separate.
void words(std::string_view body, Words &out) {
    out.clear();
    const size_t n = body.size();
    for (size_t at = 0; at < n;) {
        if (blank(body[at])) {
            ++at;
            continue;
        }
        size_t end = at;
        while (end < n && !blank(body[end])) ++end;
        out.push_back(body.substr(at, end - at));
        at = end;
    }
}

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

// Text fed to a loader in pieces, as it is read: whole lines go to the loader at once, the
// words of each pointing into the piece, and only a line that a piece cuts short waits for the
// next one. The text is never held whole.
class TextFeed {
public:
    TextFeed(Fabric &fabric, const LoadOptions &options) : loader_(fabric), options_(options) {}

    // Reads the whole lines of text (and, at_end, the last one without its "\n"); returns what
    // is left of text, the start of a line the next piece ends. Throws Bad.
    std::string_view feed(std::string_view text, bool at_end) {
        if (!started_ && text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
        started_ = true;
        while (!text.empty()) {
            const size_t end = text.find('\n');
            if (end == std::string_view::npos && !at_end) break;
            if (end == std::string_view::npos) {  // the last line, without its "\n"
                line(text);
                return {};
            }
            line(text.substr(0, end));
            text.remove_prefix(end + 1);
        }
        return text;
    }

    void finish() { loader_.finish(); }
    size_t line_number() const { return line_number_; }
    size_t foreign_lines() const { return foreign_lines_; }

private:
    void line(std::string_view raw) {
        const TextLine line = normalise(raw);
        ++line_number_;
        if (line.body.empty() || line.body[0] == '!') return;  // blank lines and comments end no block
        words(line.body, words_);
        if (!line.indented) in_foreign_ = !feature_line(words_);
        if (in_foreign_) {
            if (!options_.skip_foreign) throw Bad{"not a line of the zfx configuration (another feature's? --skip-foreign skips those)"};
            ++foreign_lines_;
            loader_.foreign();
            return;
        }
        // Names end at the first control character in a record (or print as one), so a line
        // holding one could not come back as it was.
        if (std::any_of(line.body.begin(), line.body.end(), [](char c) { return (unsigned char)c < 0x20 || c == 0x7F; }))
            throw Bad{"a control character in the line"};
        loader_.line(line.indented, words_);
    }

    Loader loader_;
    const LoadOptions &options_;
    Words words_;
    size_t line_number_ = 0, foreign_lines_ = 0;
    bool in_foreign_ = false;  // the lines at hand are another feature's block
    bool started_ = false;     // the text's first bytes came (a byte-order mark goes only there)
};

// Runs read (which feeds the text to feed and returns false, with error set, when the text
// cannot be read) and turns a parse failure into "SOURCE:LINE: what".
template <typename Read>
bool load(const std::string &source, Fabric &fabric, std::string &error, const LoadOptions &options, size_t *skipped,
          Read &&read) {
    TextFeed feed(fabric, options);
    try {
        if (!read(feed)) return false;
        feed.finish();
    } catch (const Bad &bad) {
        error = source + ":" + std::to_string(feed.line_number()) + ": " + bad.what;
        return false;
    }
    if (skipped != nullptr) *skipped = feed.foreign_lines();
    return true;
}

}  // namespace

bool load_text(const std::string &text, const std::string &source, Fabric &fabric, std::string &error,
               const LoadOptions &options, size_t *skipped) {
    return load(source, fabric, error, options, skipped, [&text](TextFeed &feed) {
        feed.feed(text, true);
        return true;
    });
}

bool load_file(const std::string &path, Fabric &fabric, std::string &error, const LoadOptions &options, size_t *skipped) {
    FILE *const in = path == "-" ? stdin : std::fopen(path.c_str(), "rb");
    if (in == nullptr) {
        error = path + ": cannot read the file";
        return false;
    }
    const std::unique_ptr<FILE, int (*)(FILE *)> closer(in == stdin ? nullptr : in, std::fclose);
    return load(path, fabric, error, options, skipped, [&](TextFeed &feed) {
        constexpr size_t kPiece = size_t(256) << 10;
        std::string buffer;  // a line cut short by the last piece, then the next piece
        for (bool at_end = false; !at_end;) {
            const size_t kept = buffer.size();
            buffer.resize(kept + kPiece);
            const size_t got = std::fread(buffer.data() + kept, 1, kPiece, in);
            buffer.resize(kept + got);
            if (std::ferror(in)) {
                error = path + ": cannot read the file";
                return false;
            }
            at_end = got == 0;
            const std::string_view rest = feed.feed(buffer, at_end);
            buffer.erase(0, buffer.size() - rest.size());
        }
        return true;
    });
}

}  // namespace zfxtool
