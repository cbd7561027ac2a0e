// zfx: configures and reads the zfx feature's zone database through its service, zfxd, with
// libzfx's request and query functions over a socket endpoint. The argument reading, the
// command table and the printing live here; the connection and the checked reading of
// multi-entry replies are zfxd_client's.
#include <arpa/inet.h>

#include <cctype>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "cli.hpp"
#include "fabric.hpp"
#include "platform/dlg.h"
#include "zfx_common.h"
#include "zfx_service.h"
#include "zfx_zone_db.h"
#include "zfx_zone_msg.h"
#include "zfxd_client.hpp"
#include "zfxd_protocol.h"

using namespace zfxtool;

namespace {

// ---- what goes wrong --------------------------------------------------------------------------

struct Usage {  // the command line is wrong: exit 2
    std::string what;
};
struct Failed {  // the request was refused or failed, or its reply was malformed: exit 1
    std::string what;
};


// Text from the command line, safe to echo: control characters shown as '?'.
std::string printable(std::string s) {
    for (char &c : s)
        if ((unsigned char)c < 0x20 || c == 0x7F) c = '?';
    return s;
}

struct Free {
    void operator()(void *p) const { std::free(p); }
};
template <typename T>
using Owned = std::unique_ptr<T, Free>;

struct MsgFree {
    void operator()(plat_msg *m) const { plat_msg_free(m); }
};

// ---- the session: the connection, opened when a command first needs it, and the output -------

class Session {
public:
    explicit Session(std::string socket) : socket_(std::move(socket)) {}

    std::string what;  // the command and its object, for messages: "zone create web"
    std::string out;   // what the command prints, written only when it succeeds

    Connection &conn() {
        if (!conn_) {
            conn_ = Connection::open_socket(socket_.c_str());
            if (!conn_) throw Failed{"cannot connect to zfxd at " + socket_ + ": " + std::strerror(errno)};
        }
        return *conn_;
    }

    // A library result: 0 passes; -1 (a failed channel call) is reported with its errno, any
    // other status by its value, name and meaning.
    void check(uint32_t result) const {
        const int err = errno;
        const auto status = int32_t(result);
        if (status == 0) return;
        if (status == -1) throw Failed{what + ": " + std::strerror(err)};
        const char *name = zfxd_status_name(status);
        const bool errno_code = name != nullptr && std::strcmp(name, "ZFX_ERR_ERRNO_BASE") == 0;
        throw Failed{format("%s: status 0x%08x (%s: %s)", what.c_str(), unsigned(status), name != nullptr ? name : "unknown",
                            errno_code ? std::strerror(status & 0xFFF) : zfxd_status_text(status))};
    }

    [[noreturn]] void malformed(const std::string &why) const { throw Failed{what + ": malformed reply: " + why}; }

    // Decodes a reply of the measured endpoint with decode. A missing reply is no entries; with
    // one, exactly one entry must come.
    template <typename Entry, typename Decode>
    std::vector<Entry> entries(const void *reply, Decode decode, bool one) {
        std::vector<Entry> list;
        if (reply == nullptr) {
            if (one) malformed("no reply came");
            return list;
        }
        const std::string error = decode(reply, conn_->reply_length(), list);
        if (!error.empty()) malformed(error);
        if (one && list.size() != 1) malformed("it holds " + std::to_string(list.size()) + " entries, not one");
        return list;
    }

    // Zones: every zone (name nullptr, a query with id 0), the one named, or the one with an id.
    std::vector<ZoneEntry> zones(const char *name, uint32_t id = 0) {
        zfx_zone_msg *reply = nullptr;
        const uint32_t r = zfx_dlg_get_zone(conn().measured(), ZFXD_OP_GET, name, id, &reply, 1, 0);
        const Owned<zfx_zone_msg> owned(reply);
        check(r);
        auto list = entries<ZoneEntry>(reply, decode_zones, name != nullptr || id != 0);
        if (name != nullptr && list[0].name != name) malformed("zone " + std::string(name) + " was asked for, " + list[0].name + " came");
        if (id != 0 && list[0].id != id) malformed("zone " + std::to_string(id) + " was asked for, zone " + std::to_string(list[0].id) + " came");
        return list;
    }
    ZoneEntry zone(const std::string &name) { return zones(name.c_str())[0]; }

    // The members of a zone, in id order. A zone whose member bitmap came empty has none to ask
    // for, which saves a query for each such zone.
    std::vector<MemberEntry> members(const ZoneEntry &zone) {
        if (zone.member_ids && zone.member_ids->empty()) return {};
        const uint32_t zone_id = zone.id;
        zfx_zone_member_msg *reply = nullptr;
        const uint32_t r = zfx_dlg_get_zone_member(conn().measured(), ZFXD_OP_GET, nullptr, 0, zone_id, &reply, 1, 0);
        const Owned<zfx_zone_member_msg> owned(reply);
        check(r);
        auto list = entries<MemberEntry>(reply, decode_members, false);
        for (const MemberEntry &m : list)
            if (m.zone_id != zone_id) malformed("member " + std::to_string(m.id) + " of zone " + std::to_string(m.zone_id) + " came for zone " + std::to_string(zone_id));
        return list;
    }

    // The name of the zone with an id, or nothing when there is no such zone (any more).
    std::optional<std::string> zone_name(uint32_t id) {
        if (auto it = names_.find(id); it != names_.end()) return it->second;
        zfx_zone_info info{};
        info.id = id;
        const uint32_t r = zfx_dlg_get_zone_data(conn().ep(), ZFXD_OP_GET, &info, 0);
        std::optional<std::string> name;
        if (int32_t(r) != ZFXD_ERR_NOT_FOUND) {
            check(r);
            name.emplace(info.name, strnlen(info.name, sizeof info.name));
            // The data query keeps 64 characters of a name; one that fills them may go on.
            if (name->size() == kDataQueryNameChars) name = zones(nullptr, id)[0].name;
            if (!valid_name(*name)) malformed("zone " + std::to_string(id) + " has a name that is empty or holds a control character");
        }
        return names_[id] = name;
    }

private:
    static constexpr size_t kDataQueryNameChars = 64;
    std::string socket_;
    std::unique_ptr<Connection> conn_;
    std::map<uint32_t, std::optional<std::string>> names_;
};

// ---- the command table ------------------------------------------------------------------------

enum class Kind { flag, text, number };

struct Opt {
    const char *name;
    Kind kind;
    uint64_t min = 0, max = 0;  // numbers
};

// A command line read against a command's options.
struct Parsed {
    std::vector<std::string> pos;
    std::map<std::string, std::string> text;
    std::map<std::string, uint64_t> num;
    std::set<std::string> flags;

    bool has(const std::string &o) const { return text.count(o) != 0 || num.count(o) != 0 || flags.count(o) != 0; }
    uint32_t number(const std::string &o, uint32_t otherwise) const {
        const auto it = num.find(o);
        return it != num.end() ? uint32_t(it->second) : otherwise;
    }
};

struct Command {
    const char *path;      // "zone member add"
    const char *synopsis;  // what follows the path
    size_t min_pos, max_pos;
    std::vector<Opt> opts;
    void (*run)(Session &, const Parsed &);
    std::string help;  // what it does and prints
};

// ---- argument values --------------------------------------------------------------------------

std::string name_arg(const std::string &text, const char *what) {
    if (!valid_name(text)) throw Usage{std::string(what) + " '" + printable(text) + "' must be 1 to 67 characters, none of them a control character"};
    return text;
}

uint32_t qos_arg(const std::string &text) {
    for (uint32_t q = ZFX_ZONE_QOS_NONE; q <= ZFX_ZONE_QOS_HIGH; ++q)
        if (text == qos_word(q)) return q;
    throw Usage{"--qos takes none, low, medium or high, not '" + printable(text) + "'"};
}

bool on_off(const std::string &text, const char *what) {
    if (text == "on") return true;
    if (text == "off") return false;
    throw Usage{std::string(what) + " takes on or off, not '" + printable(text) + "'"};
}

struct InfoKey {
    const char *name;
    uint32_t key;
};
const InfoKey kInfoKeys[] = {
    {"zones", ZFXD_INFO_ZONES},          {"zonesets", ZFXD_INFO_ZONESETS},
    {"members", ZFXD_INFO_MEMBERS},      {"active-zoneset", ZFXD_INFO_ACTIVE_ZONESET},
    {"changes", ZFXD_INFO_CHANGES},      {"activate-time", ZFX_INFO_KEY_ACTIVATE_TIME},
    {"default-zone", ZFXD_INFO_DEFAULT_ZONE}, {"log-level", ZFXD_INFO_LOG_LEVEL},
    {"check-ignore", ZFXD_INFO_CHECK_IGNORE},
    {"devices", ZFXD_INFO_DEVICES},      {"frames", ZFXD_INFO_FRAMES},
    {"last-frame", ZFXD_INFO_LAST_FRAME},
};

bool digits(const std::string &text, size_t from = 0) {
    return text.size() > from && text.size() - from <= 10 &&
           std::all_of(text.begin() + long(from), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

uint32_t key_arg(const std::string &text) {
    for (const InfoKey &k : kInfoKeys)
        if (text == k.name) return k.key;
    if (digits(text) && std::stoull(text) <= UINT32_MAX) return uint32_t(std::stoull(text));
    std::string names;
    for (const InfoKey &k : kInfoKeys) names += std::string(names.empty() ? "" : ", ") + k.name;
    throw Usage{"unknown info key '" + printable(text) + "': a number, or one of " + names};
}

int32_t int_arg(const std::string &text) {
    const size_t from = !text.empty() && text[0] == '-' ? 1 : 0;
    if (digits(text, from)) {
        const long long v = std::stoll(text);
        if (v >= INT32_MIN && v <= INT32_MAX) return int32_t(v);
    }
    throw Usage{"VALUE takes a number from " + std::to_string(INT32_MIN) + " to " + std::to_string(INT32_MAX) + ", not '" + printable(text) + "'"};
}

// A member as the command line gives it: what identifies it, its VSAN and AFID.
struct MemberArgs {
    uint32_t type = ZFX_MEMBER_PWWN;
    Wwn pwwn{};
    std::string alias;
    std::optional<Wwn> lun;
    uint32_t vsan = 1;
    uint32_t afid = 1;

    const void *value() const { return alias.empty() ? static_cast<const void *>(pwwn.data()) : alias.c_str(); }
};

MemberArgs member_args(const Parsed &p) {
    MemberArgs m;
    const bool pwwn = p.has("--pwwn"), alias = p.has("--device-alias");
    if (pwwn == alias) throw Usage{"give either --pwwn WWN or --device-alias ALIAS"};
    if (pwwn && !parse_wwn(p.text.at("--pwwn"), m.pwwn))
        throw Usage{"--pwwn takes a WWN of eight hexadecimal pairs, aa:bb:cc:dd:ee:ff:00:11, not '" + printable(p.text.at("--pwwn")) + "'"};
    if (alias) m.alias = name_arg(p.text.at("--device-alias"), "device alias");
    if (p.has("--lun")) {
        Wwn lun;
        if (!parse_lun(p.text.at("--lun"), lun))
            throw Usage{"--lun takes 0x and one to four levels of four hexadecimal digits joined by -, as 0x0001 or 0x4012-0005, not '" +
                        printable(p.text.at("--lun")) + "'"};
        m.lun = lun;
    }
    m.type = alias ? (m.lun ? ZFX_MEMBER_DEVICE_ALIAS_LUN : ZFX_MEMBER_DEVICE_ALIAS) : (m.lun ? ZFX_MEMBER_PWWN_LUN : ZFX_MEMBER_PWWN);
    m.vsan = p.number("--vsan", 1);
    m.afid = p.number("--afid", 1);
    return m;
}

// ---- printing ---------------------------------------------------------------------------------

// A member as the configuration text writes it (the AFID only when it is not the default, 1).
std::string member_text(const MemberEntry &m) {
    const bool alias = m.type == ZFX_MEMBER_DEVICE_ALIAS || m.type == ZFX_MEMBER_DEVICE_ALIAS_LUN;
    std::string t = alias ? "device-alias " + m.alias : "pwwn " + wwn_text(m.pwwn);
    if (m.type == ZFX_MEMBER_PWWN_LUN || m.type == ZFX_MEMBER_DEVICE_ALIAS_LUN) t += " lun " + lun_text(m.lun);
    t += " vsan " + std::to_string(m.vsan);
    if (m.afid != 1) t += " autonomous-fabric-id " + std::to_string(m.afid);
    return t;
}

void print_zone_head(Session &s, const ZoneEntry &z) {
    s.out += format("zone name %s id %u\n", z.name.c_str(), z.id);
    if (z.qos != ZFX_ZONE_QOS_NONE) s.out += format("  attribute qos priority %s\n", qos_word(z.qos));
    if (z.read_only) s.out += "  attribute read-only\n";
}

// The zones of a zoneset by name, in id order; a zone deleted since (the active zoneset keeps
// the zones it was activated with) by its id.
void print_zoneset_zones(Session &s, const std::vector<uint32_t> &ids) {
    for (uint32_t id : ids) {
        const std::optional<std::string> name = s.zone_name(id);
        s.out += name ? "  member " + *name + "\n" : format("  member zone-id %u\n", id);
    }
}

void print_zoneset(Session &s, const std::string &name, uint32_t id, bool active, const std::vector<uint32_t> &zones) {
    s.out += format("zoneset name %s id %u%s\n", name.c_str(), id, active ? " active" : "");
    print_zoneset_zones(s, zones);
}

// ---- zones ------------------------------------------------------------------------------------

// The entry of a one-record message, where its add functions take it.
void *entry_of(void *msg) { return static_cast<uint8_t *>(msg) + sizeof(zfx_msg_hdr); }

uint16_t str_len(const std::string &s) { return uint16_t(s.size() + 1); }

void zone_create(Session &s, const Parsed &p) {
    const std::string name = name_arg(p.pos[0], "zone name");
    const uint32_t qos = p.has("--qos") ? qos_arg(p.text.at("--qos")) : ZFX_ATTR_NONE;
    const uint32_t read_only = p.has("--read-only") ? 1 : ZFX_ATTR_NONE;
    plat_endpoint *ep = s.conn().ep();
    if (p.has("--id")) {
        // A zone with its id: the one-record message, filled here and checked before it goes.
        const Owned<zfx_zone_msg> msg(zfx_dlg_malloc_one_zone_and_all_attribs());
        if (!msg) s.check(uint32_t(ZFX_ERR_NO_MEMORY));
        msg->id = p.number("--id", 0);
        void *entry = entry_of(msg.get());
        s.check(uint32_t(zfx_dlg_zone_add_tlv(entry, ZFX_TLV_ZONE_NAME, str_len(name), name.c_str())));
        if (qos != ZFX_ATTR_NONE) s.check(uint32_t(zfx_dlg_zone_add_tlv(entry, ZFX_TLV_ZONE_QOS, 4, &qos)));
        const uint32_t read_only_net = htonl(1);  // the one value carried in network order
        if (read_only != ZFX_ATTR_NONE) s.check(uint32_t(zfx_dlg_zone_add_tlv(entry, ZFX_TLV_ZONE_READ_ONLY, 4, &read_only_net)));
        s.check(uint32_t(zfx_do_sanity_for_zone_create(msg.get())));
        s.check(zfx_dlg_config_zone_tlv(ep, ZFXD_OP_CREATE, msg.get(), nullptr, 0));
    } else if (qos == ZFX_ATTR_NONE && read_only == ZFX_ATTR_NONE) {
        s.check(zfx_dlg_config_zone(ep, ZFXD_OP_CREATE, name.c_str(), nullptr, nullptr, 0));
    } else {
        s.check(zfx_dlg_config_zone_all_attrib(ep, ZFXD_OP_CREATE, name.c_str(), nullptr, 0, qos, read_only, nullptr, 0));
    }
}

void zone_delete(Session &s, const Parsed &p) {
    const std::string name = name_arg(p.pos[0], "zone name");
    s.check(zfx_dlg_config_zone_all_attrib(s.conn().ep(), ZFXD_OP_DELETE, name.c_str(), nullptr, 0, ZFX_ATTR_NONE, ZFX_ATTR_NONE, nullptr, 0));
}

void zone_rename(Session &s, const Parsed &p) {
    const std::string name = name_arg(p.pos[0], "zone name"), to = name_arg(p.pos[1], "new zone name");
    s.check(zfx_dlg_config_zone_all_attrib(s.conn().ep(), ZFXD_OP_MODIFY, name.c_str(), to.c_str(), 0, ZFX_ATTR_NONE, ZFX_ATTR_NONE, nullptr, 0));
}

void zone_attribute(Session &s, const Parsed &p) {
    const std::string name = name_arg(p.pos[0], "zone name");
    if (!p.has("--qos") && !p.has("--read-only")) throw Usage{"zone attribute needs --qos or --read-only"};
    const uint32_t qos = p.has("--qos") ? qos_arg(p.text.at("--qos")) : ZFX_ATTR_NONE;
    const uint32_t read_only = p.has("--read-only") ? uint32_t(on_off(p.text.at("--read-only"), "--read-only")) : ZFX_ATTR_NONE;
    s.check(zfx_dlg_config_zone_attrib(s.conn().ep(), ZFXD_OP_MODIFY, name.c_str(), nullptr, 0, qos, read_only, nullptr, 0));
}

void zone_show(Session &s, const Parsed &p) {
    const std::optional<std::string> name = p.pos.empty() ? std::nullopt : std::optional(name_arg(p.pos[0], "zone name"));
    for (const ZoneEntry &z : s.zones(name ? name->c_str() : nullptr)) {
        print_zone_head(s, z);
        for (const MemberEntry &m : s.members(z)) s.out += "  member " + member_text(m) + "\n";
    }
}

// ---- members ----------------------------------------------------------------------------------

// A member request built as a one-record message: the zone named by its id, the member by its
// id, and (m given) the member's elements, checked as a create before it goes.
void member_message(Session &s, uint32_t opcode, uint32_t zone_id, uint32_t id, const MemberArgs *m) {
    const Owned<zfx_zone_member_msg> msg(zfx_dlg_malloc_one_zone_member_and_all_attribs());
    if (!msg) s.check(uint32_t(ZFX_ERR_NO_MEMORY));
    msg->parent_id = zone_id;
    msg->id = id;
    if (m != nullptr) {
        void *entry = entry_of(msg.get());
        s.check(uint32_t(zfx_dlg_zone_member_add_tlv(entry, ZFX_TLV_MEMBER_TYPE, 4, &m->type)));
        s.check(uint32_t(m->alias.empty() ? zfx_dlg_zone_member_add_tlv(entry, ZFX_TLV_MEMBER_PWWN, 8, m->pwwn.data())
                                          : zfx_dlg_zone_member_add_tlv(entry, ZFX_TLV_MEMBER_DEVICE_ALIAS, str_len(m->alias), m->alias.c_str())));
        if (m->lun) s.check(uint32_t(zfx_dlg_zone_member_add_tlv(entry, ZFX_TLV_MEMBER_LUN, 8, m->lun->data())));
        s.check(uint32_t(zfx_dlg_zone_member_add_tlv(entry, ZFX_TLV_MEMBER_VSAN, 4, &m->vsan)));
        s.check(uint32_t(zfx_dlg_zone_member_add_tlv(entry, ZFX_TLV_MEMBER_AFID, 4, &m->afid)));
        s.check(uint32_t(zfx_do_sanity_for_zone_member_create(msg.get())));
    }
    s.check(zfx_dlg_config_zone_member_tlv(s.conn().ep(), opcode, msg.get(), nullptr, 0));
}

void member_add(Session &s, const Parsed &p) {
    const std::string zone = name_arg(p.pos[0], "zone name");
    const MemberArgs m = member_args(p);
    if (p.has("--id")) {
        // A device alias and the zone's name do not both fit the one-record message: the zone
        // goes by its id.
        member_message(s, ZFXD_OP_CREATE, s.zone(zone).id, p.number("--id", 0), &m);
        return;
    }
    s.check(zfx_dlg_config_zone_member(s.conn().ep(), ZFXD_OP_CREATE, zone.c_str(), 0, 0, m.type, m.value(),
                                       m.lun ? m.lun->data() : nullptr, m.vsan, m.afid, nullptr, 0));
}

void member_remove(Session &s, const Parsed &p) {
    const std::string zone = name_arg(p.pos[0], "zone name");
    if (p.has("--id")) {
        for (const char *o : {"--pwwn", "--device-alias", "--lun", "--vsan", "--afid"})
            if (p.has(o)) throw Usage{std::string("--id names the member; ") + o + " does not go with it"};
        member_message(s, ZFXD_OP_REMOVE, s.zone(zone).id, p.number("--id", 0), nullptr);
        return;
    }
    const MemberArgs m = member_args(p);
    s.check(zfx_dlg_config_zone_member(s.conn().ep(), ZFXD_OP_REMOVE, zone.c_str(), 0, 0, m.type, m.value(),
                                       m.lun ? m.lun->data() : nullptr, m.vsan, m.afid, nullptr, 0));
}

void member_show(Session &s, const Parsed &p) {
    const std::string name = name_arg(p.pos[0], "zone name");
    const ZoneEntry z = s.zone(name);
    std::vector<MemberEntry> members;
    if (p.has("--id")) {
        zfx_zone_member_info info{};
        info.zone_id = z.id;
        info.id = p.number("--id", 0);
        s.check(zfx_dlg_get_zone_member_data(s.conn().ep(), ZFXD_OP_GET, &info, 0));
        MemberEntry m;
        const std::string error = member_from_info(info, m);
        if (!error.empty()) s.malformed(error);
        members.push_back(m);
    } else {
        members = s.members(z);
    }
    print_zone_head(s, z);
    for (const MemberEntry &m : members) s.out += format("  member id %u ", m.id) + member_text(m) + "\n";
}

// ---- zonesets ---------------------------------------------------------------------------------

void zoneset_create(Session &s, const Parsed &p) {
    const std::string name = name_arg(p.pos[0], "zoneset name");
    plat_endpoint *ep = s.conn().ep();
    if (!p.has("--id")) {
        s.check(zfx_dlg_config_zoneset(ep, ZFXD_OP_CREATE, name.c_str(), nullptr, nullptr, nullptr, 0));
        return;
    }
    const Owned<zfx_zoneset_msg> msg(zfx_dlg_malloc_one_zoneset_and_all_attribs());
    if (!msg) s.check(uint32_t(ZFX_ERR_NO_MEMORY));
    msg->id = p.number("--id", 0);
    s.check(uint32_t(zfx_dlg_zoneset_add_tlv(entry_of(msg.get()), ZFX_TLV_ZONESET_NAME, str_len(name), name.c_str())));
    s.check(uint32_t(zfx_do_sanity_for_zoneset_create(msg.get())));
    s.check(zfx_dlg_config_zoneset_tlv(ep, ZFXD_OP_CREATE, msg.get(), nullptr, 0));
}

void zoneset_delete(Session &s, const Parsed &p) {
    const std::string name = name_arg(p.pos[0], "zoneset name");
    s.check(zfx_dlg_config_zoneset(s.conn().ep(), ZFXD_OP_DELETE, name.c_str(), nullptr, nullptr, nullptr, 0));
}

void zoneset_rename(Session &s, const Parsed &p) {
    const std::string name = name_arg(p.pos[0], "zoneset name"), to = name_arg(p.pos[1], "new zoneset name");
    s.check(zfx_dlg_config_zoneset(s.conn().ep(), ZFXD_OP_MODIFY, name.c_str(), to.c_str(), nullptr, nullptr, 0));
}

// Adds or removes zones: one by its name; several at once as a bitmap of their ids, so that the
// service takes them in one change.
void zoneset_zones(Session &s, const Parsed &p, uint32_t opcode) {
    const std::string name = name_arg(p.pos[0], "zoneset name");
    std::vector<std::string> zones;
    for (size_t i = 1; i < p.pos.size(); ++i) zones.push_back(name_arg(p.pos[i], "zone name"));
    if (zones.size() == 1) {
        s.check(zfx_dlg_config_zoneset(s.conn().ep(), opcode, name.c_str(), nullptr, zones[0].c_str(), nullptr, 0));
        return;
    }
    uint8_t bitmap[ZFX_ZONESET_ZONES_SIZE] = {};
    const uint32_t bytes = ZFX_ZONESET_ZONES_SIZE - 4;  // the byte count, host order
    std::memcpy(bitmap, &bytes, 4);
    for (const std::string &zone : zones) {
        const uint32_t id = s.zone(zone).id;
        if (id == 0 || id > ZFX_ZONE_ID_MAX) s.malformed("zone " + zone + " has id " + std::to_string(id));
        set_id_bit(bitmap + 4, id);
    }
    s.check(zfx_dlg_config_zoneset_all_attrib(s.conn().ep(), opcode, name.c_str(), nullptr, 0, nullptr, bitmap, nullptr, 0));
}

void zoneset_add(Session &s, const Parsed &p) { zoneset_zones(s, p, ZFXD_OP_ADD); }
void zoneset_remove(Session &s, const Parsed &p) { zoneset_zones(s, p, ZFXD_OP_REMOVE); }

void zoneset_show(Session &s, const Parsed &p) {
    if (!p.pos.empty()) {
        const std::string name = name_arg(p.pos[0], "zoneset name");
        zfx_zoneset_msg *reply = nullptr;
        const uint32_t r = zfx_dlg_get_zoneset(s.conn().measured(), ZFXD_OP_GET, name.c_str(), 0, &reply, 1, 0);
        const Owned<zfx_zoneset_msg> owned(reply);
        s.check(r);
        const ZonesetEntry set = s.entries<ZonesetEntry>(reply, decode_zonesets, true)[0];
        if (set.name != name) s.malformed("zoneset " + name + " was asked for, " + set.name + " came");
        print_zoneset(s, set.name, set.id, set.active, set.zones);
        return;
    }
    // Every zoneset: the status list names them and marks the active one; each one's zones come
    // from its data query.
    void *reply = nullptr;
    const int32_t r = zfx_dlg_get_zoneset_status(s.conn().measured(), ZFXD_OP_GET, ZFX_ZONESET_ID_ALL, &reply);
    const Owned<void> owned(reply);
    s.check(uint32_t(r));
    for (const ZonesetStatus &st : s.entries<ZonesetStatus>(reply, decode_zoneset_status, false)) {
        zfx_zoneset_info info{};
        info.id = st.id;
        s.check(zfx_dlg_get_zoneset_data(s.conn().ep(), ZFXD_OP_GET, &info, 0));
        print_zoneset(s, st.name, st.id, st.active, bitmap_ids(info.zones, sizeof info.zones));
    }
}

void zoneset_activate(Session &s, const Parsed &p) {
    const std::string name = name_arg(p.pos[0], "zoneset name");
    const uint32_t value_a = p.has("--force") ? ZFXD_ACTIVATE_FORCE : 0;
    s.check(zfx_dlg_config_zone_activation(s.conn().ep(), ZFXD_OP_ACTIVATE, name.c_str(), value_a, 0, nullptr, 0));
}

void zoneset_deactivate(Session &s, const Parsed &p) {
    const std::optional<std::string> name = p.pos.empty() ? std::nullopt : std::optional(name_arg(p.pos[0], "zoneset name"));
    s.check(zfx_dlg_config_zone_activation(s.conn().ep(), ZFXD_OP_DEACTIVATE, name ? name->c_str() : nullptr, 0, 0, nullptr, 0));
}

void show_active_zoneset(Session &s, const Parsed &) {
    char name[ZFX_NAME_SIZE] = {};
    uint8_t zones[ZFX_ZONESET_ZONES_SIZE] = {};
    s.check(zfx_get_active_zoneset(s.conn().ep(), name, zones));
    if (name[0] == '\0') {  // no reply: nothing is active
        s.out += "no active zoneset\n";
        return;
    }
    if (!valid_name(name)) s.malformed("the active zoneset's name holds a control character");
    s.out += format("active zoneset %s\n", name);
    print_zoneset_zones(s, bitmap_ids(zones, sizeof zones));
}

// ---- status, named values, the fcdomain check -------------------------------------------------

constexpr uint32_t kTagEnabled = 1;  // tags of the split queries' sends
constexpr uint32_t kTagNat = 2;

// The answer to the split query sent with tag: the one send outstanding, so the first message.
std::unique_ptr<plat_msg, MsgFree> receive(Session &s, uint32_t tag) {
    plat_msg *msg = nullptr;
    const int32_t r = plat_endpoint_recv(s.conn().ep(), 0, &msg);
    if (r != 0) {
        const int err = errno;
        throw Failed{s.what + ": no answer: " + (r == -1 ? std::strerror(err) : format("result %d", r))};
    }
    std::unique_ptr<plat_msg, MsgFree> owned(msg);
    if (plat_msg_info_get(msg)->tag != tag) s.malformed("an answer to another request came");
    return owned;
}

void status(Session &s, const Parsed &p) {
    const std::string form = p.text.count("--form") ? p.text.at("--form") : "short";
    if (form != "short" && form != "extended" && form != "split") throw Usage{"--form takes short, extended or split, not '" + printable(form) + "'"};
    plat_endpoint *ep = s.conn().ep();
    zfx_status_reply got{};
    int32_t r;
    if (form == "split") {
        s.check(uint32_t(zfx_is_zfx_enabled_send(ep, kTagEnabled)));
        const auto msg = receive(s, kTagEnabled);
        zfx_status_reply *reply = nullptr;
        r = zfx_is_zfx_enabled_parse(msg.get(), &reply);
        if (r == 0) got = *reply;  // it points into the message
    } else {
        zfx_status_reply *reply = nullptr;
        r = form == "short" ? zfx_is_zfx_enabled(ep, &reply) : zfx_is_zfx_enabled_ext(ep, &reply);
        const Owned<zfx_status_reply> owned(reply);
        if (r == 0) got = *reply;
    }
    s.check(uint32_t(r));
    s.out += got.enabled != 0 ? "zfx is enabled\n" : "zfx is disabled\n";
    s.out += format("protocol version %u\n", got.status2);
    s.out += format("changes %u\n", got.status3);
    if (p.has("--vsan")) {
        const uint32_t vsan = p.number("--vsan", 0);
        s.check(uint32_t(zfx_is_zfx_nat_enabled_in_vsan_send(ep, int32_t(vsan), kTagNat)));
        const auto msg = receive(s, kTagNat);
        uint32_t nat = 0;
        s.check(uint32_t(zfx_is_zfx_nat_enabled_in_vsan_parse(msg.get(), &nat)));
        s.out += format("nat is %s in vsan %u\n", nat != 0 ? "enabled" : "disabled", vsan);
    }
}

// "YYYY-MM-DD HH:MM:SS" of seconds since the epoch, in UTC, computed here: the switch's 32-bit
// time_t would turn the service's unsigned seconds negative after 2038.
std::string utc_text(uint32_t seconds) {
    // Days to a civil date, with years that begin in March so that the leap day comes last.
    const int64_t z = seconds / 86400 + 719468, era = z / 146097, doe = z - era * 146097;
    const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100), mp = (5 * doy + 2) / 153;
    const int64_t day = doy - (153 * mp + 2) / 5 + 1, month = mp < 10 ? mp + 3 : mp - 9;
    const int64_t year = yoe + era * 400 + (month <= 2 ? 1 : 0);
    const uint32_t t = seconds % 86400;
    return format("%04d-%02d-%02d %02u:%02u:%02u", int(year), int(month), int(day), t / 3600, t / 60 % 60, t % 60);
}

void info_get(Session &s, const Parsed &p) {
    const uint32_t key = key_arg(p.pos[0]);
    const std::string form = p.text.count("--form") ? p.text.at("--form") : "record";
    if (form != "record" && form != "text" && form != "number") throw Usage{"--form takes record, text or number, not '" + printable(form) + "'"};
    const bool timeout = p.has("--timeout");
    if (key == ZFX_INFO_KEY_ACTIVATE_TIME && (p.has("--form") || timeout)) throw Usage{"activate-time is read one way: --form and --timeout do not apply"};
    if (form == "text" && timeout) throw Usage{"--form text reads with the library's own timeout: --timeout does not apply"};
    plat_endpoint *ep = s.conn().ep();
    if (key == ZFX_INFO_KEY_ACTIVATE_TIME) {
        // Words that no answer can hold (microseconds run below a million) tell a failure apart.
        zfx_time_value t{{UINT32_MAX, UINT32_MAX}};
        zfx_dlg_get_info_activate_time(ep, &t);
        const uint32_t seconds = ntohl(t.word[0]), micros = ntohl(t.word[1]);
        if (t.word[0] == UINT32_MAX && t.word[1] == UINT32_MAX) throw Failed{s.what + ": no answer, or a short one"};
        if (micros > 999999) s.malformed(format("%u microseconds", micros));
        if (seconds == 0 && micros == 0) {
            s.out += "none\n";
            return;
        }
        s.out += utc_text(seconds) + format(".%06u UTC\n", micros);
        return;
    }
    const uint32_t wait = p.number("--timeout", 0);
    if (form == "number") {
        s.out += format("%d\n", timeout ? zfx_dlg_get_info_int_with_timeout(ep, key, wait) : zfx_dlg_get_info_int(ep, key));
    } else if (form == "text") {
        s.out += printable(zfx_dlg_get_info_char(ep, key)) + "\n";
    } else {
        const Owned<zfx_info_record> record(timeout ? zfx_dlg_get_info_with_timeout(ep, key, wait) : zfx_dlg_get_info(ep, key));
        if (!record) throw Failed{s.what + ": no value: the service refused the key, or the request failed"};
        if (std::memchr(record->value, '\0', sizeof record->value) == nullptr) s.malformed("the value has no terminator");
        s.out += printable(record->value) + "\n";
    }
}

void info_set(Session &s, const Parsed &p) {
    const uint32_t key = key_arg(p.pos[0]);
    const int32_t value = int_arg(p.pos[1]);
    s.check(uint32_t(zfx_dlg_set_info(s.conn().ep(), key, value, nullptr, 0)));
}

void check_ignore(Session &s, const Parsed &p) {
    const bool on = on_off(p.pos[0], "check-ignore");
    s.check(uint32_t(zfx_set_fcdomain_check_ignore(s.conn().ep(), on ? 1 : 0)));
}

// ---- the fabric: devices, domains, next hops, NAT, the name server --------------------------

// Rows in aligned columns: the first row is the header; each column as wide as its widest cell,
// two blanks between columns, no blanks at the end of a line.
void table(Session &s, const std::vector<std::vector<std::string>> &rows) {
    std::vector<size_t> width;
    for (const auto &row : rows)
        for (size_t i = 0; i < row.size(); ++i) {
            if (width.size() <= i) width.push_back(0);
            width[i] = std::max(width[i], row[i].size());
        }
    for (const auto &row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) line += i + 1 < row.size() ? row[i] + std::string(width[i] - row[i].size() + 2, ' ') : row[i];
        while (!line.empty() && line.back() == ' ') line.pop_back();
        s.out += line + "\n";
    }
}

std::string fcid_text(uint32_t fcid) { return format("0x%06x", fcid); }

uint32_t fcid_arg(const std::string &text) {
    if (text.size() == 8 && text.rfind("0x", 0) == 0 && std::all_of(text.begin() + 2, text.end(), [](char c) { return std::isxdigit((unsigned char)c) != 0; }))
        return uint32_t(std::stoul(text.substr(2), nullptr, 16));
    throw Usage{"an FCID is 0x and six hexadecimal digits (domain, area, port), as 0x0a0001, not '" + printable(text) + "'"};
}

uint32_t vsan_arg(const std::string &text, const char *what) {
    if (digits(text) && std::stoull(text) >= 1 && std::stoull(text) <= ZFX_VSAN_MAX) return uint32_t(std::stoull(text));
    throw Usage{std::string(what) + " takes a VSAN from 1 to " + std::to_string(ZFX_VSAN_MAX) + ", not '" + printable(text) + "'"};
}

Wwn wwn_arg(const std::string &text) {
    Wwn w;
    if (!parse_wwn(text, w)) throw Usage{"a port WWN is eight hexadecimal pairs, aa:bb:cc:dd:ee:ff:00:11, not '" + printable(text) + "'"};
    return w;
}

// Address words travel as a frame header holds them: the address in network order.
uint32_t address_word(uint32_t fcid) { return htonl(fcid); }
uint32_t address_of(uint32_t word) { return ntohl(word) & 0xFFFFFFu; }

Wwn entry_wwn(const void *p) {
    Wwn w;
    std::memcpy(w.data(), p, 8);
    return w;
}

// The device walk: batch after batch from the start until one comes empty, each batch after the
// last device of the one before. fetch(handle, count) asks for the next batch and hands back its
// entries' port WWNs through keep; a batch that does not move forward is a malformed reply.
template <typename Fetch>
void walk(Session &s, Fetch fetch) {
    zfx_device_entry *handle = nullptr;
    s.check(uint32_t(zfx_device_entry_handle_init(&handle)));
    std::optional<Wwn> last;
    for (;;) {
        std::vector<Wwn> wwns;
        fetch(handle, wwns);
        if (wwns.empty()) return;
        for (const Wwn &w : wwns) {
            if (last && !(*last < w)) s.malformed("device " + wwn_text(w) + " came after " + wwn_text(*last));
            last = w;
        }
    }
}

std::vector<zfx_device_entry> device_entries(Session &s) {
    std::vector<zfx_device_entry> all;
    walk(s, [&](zfx_device_entry *handle, std::vector<Wwn> &wwns) {
        zfx_device_entry *entries = nullptr;
        uint32_t count = 0;
        const int32_t r = zfx_device_entry_get_next(s.conn().ep(), handle, &entries, &count);
        const Owned<zfx_device_entry> owned(entries);
        s.check(uint32_t(r));
        for (uint32_t i = 0; i < count; ++i) {
            all.push_back(entries[i]);
            wwns.push_back(entry_wwn(entries[i].pwwn));
        }
    });
    return all;
}

uint32_t entry_word(const zfx_device_entry &e, size_t at) {
    uint32_t v;
    std::memcpy(&v, reinterpret_cast<const uint8_t *>(&e) + at, 4);
    return ntohl(v);
}

dir_entry ns_of(const uint8_t *block) {
    dir_entry d;
    std::memcpy(&d, block, sizeof d);
    d.symbolic_name[sizeof d.symbolic_name - 1] = '\0';
    return d;
}

void show_device(Session &s, const Parsed &p) {
    if (!p.has("--ns")) {
        std::vector<std::vector<std::string>> rows{{"PWWN", "FCID", "AFID", "VSANS", "VALUE"}};
        for (const zfx_device_entry &e : device_entries(s)) {
            const bool per_vsan = (e.flags & ZFX_DEVICE_FLAG_PER_VSAN) != 0;
            rows.push_back({wwn_text(entry_wwn(e.pwwn)), fcid_text(entry_word(e, ZFXD_DEVICE_FCID_AT) & 0xFFFFFFu),
                            std::to_string(entry_word(e, ZFXD_DEVICE_AFID_AT)), vsan_text(e.vsans),
                            per_vsan ? "per-vsan" : std::to_string(e.vsan_value)});
        }
        table(s, rows);
        s.out += format("%zu devices\n", rows.size() - 1);
        return;
    }
    // The second-generation name-server view: the block and the values VSAN by VSAN.
    std::vector<std::vector<std::string>> rows{{"PWWN", "FCID", "NODE", "VSAN:VALUE", "NAME"}};
    walk(s, [&](zfx_device_entry *handle, std::vector<Wwn> &wwns) {
        zfx_device_ns_entry *entries = nullptr;
        uint32_t count = 0;
        const int32_t r = zfx2_device_ns_entry_get_next(s.conn().ep(), handle, &entries, &count);
        struct Release {
            zfx_device_ns_entry *e;
            uint32_t n;
            ~Release() {
                for (uint32_t i = 0; e != nullptr && i < n; ++i) std::free(e[i].pairs);
                std::free(e);
            }
        } release{entries, count};
        s.check(uint32_t(r));
        for (uint32_t i = 0; i < count; ++i) {
            const dir_entry d = ns_of(entries[i].ns_block);
            std::string pairs;
            for (uint32_t k = 0; k < entries[i].pair_count; ++k)
                pairs += format("%s%u:%u", k == 0 ? "" : ",", entries[i].pairs[k].vsan, entries[i].pairs[k].value);
            wwns.push_back(entry_wwn(d.port_name));
            rows.push_back({wwn_text(entry_wwn(d.port_name)), fcid_text(address_of(d.port_id)), wwn_text(entry_wwn(d.node_name)),
                            pairs.empty() ? "-" : pairs, d.symbolic_name[0] != '\0' ? printable(d.symbolic_name) : "-"});
        }
    });
    table(s, rows);
    s.out += format("%zu devices\n", rows.size() - 1);
}

void show_native_domain(Session &s, const Parsed &p) {
    const uint32_t vsan = vsan_arg(p.pos[0], "show native-domain");
    uint32_t domain = 0;
    s.check(uint32_t(zfx_get_native_domain(s.conn().ep(), vsan, 0, &domain)));
    table(s, {{"VSAN", "NATIVE-DOMAIN"}, {std::to_string(vsan), format("%u (0x%02x)", domain, domain)}});
}

void show_proxy_domains(Session &s, const Parsed &p) {
    const uint32_t vsan = vsan_arg(p.pos[0], "show proxy-domains");
    zfx_proxy_domain_list list{};
    s.check(uint32_t(zfx_get_proxy_domain_list(s.conn().ep(), vsan, &list)));
    std::string domains;
    for (uint32_t d = 0; d < 8 * ZFX_PROXY_DOMAIN_LIST_SIZE; ++d)
        if (id_bit(list.domain_list, d)) domains.append(domains.empty() ? "" : ",").append(std::to_string(d));
    table(s, {{"VSAN", "COUNT", "PROXY-DOMAINS"}, {std::to_string(vsan), std::to_string(list.value), domains.empty() ? "-" : domains}});
}

void show_next_hop(Session &s, const Parsed &p) {
    const uint32_t vsan = vsan_arg(p.pos[0], "show next-hop");
    // The destinations asked: the FCIDs given, or one address in each domain of the fabric's
    // devices (the next hop goes by domain), in ascending order.
    std::vector<uint32_t> fcids;
    for (size_t i = 1; i < p.pos.size(); ++i) fcids.push_back(fcid_arg(p.pos[i]));
    if (fcids.empty()) {
        std::set<uint32_t> domains;
        for (const zfx_device_entry &e : device_entries(s)) domains.insert((entry_word(e, ZFXD_DEVICE_FCID_AT) >> 16) & 0xFF);
        for (uint32_t d : domains) fcids.push_back(d << 16);
    }
    std::vector<std::vector<std::string>> rows{{"VSAN", "DESTINATION", "DOMAIN", "NEXT-HOP"}};
    for (uint32_t fcid : fcids) {
        uint32_t next = 0;
        s.check(uint32_t(zfx_get_next_hop_vsan(s.conn().ep(), vsan, address_word(fcid), &next)));
        // The library answers the flow's own VSAN when the service knows no next hop.
        rows.push_back({std::to_string(vsan), fcid_text(fcid), std::to_string(fcid >> 16), next == vsan ? "-" : std::to_string(next)});
    }
    table(s, rows);
}

// The NAT rewrite of a flow. The library asks the forwarding driver for the next VSAN before it
// asks the service, and a development machine has no driver: the next VSAN is given here and
// the service is asked with the library's request record, as the library sends it.
void show_nat_next_hop(Session &s, const Parsed &p) {
    const uint32_t vsan = vsan_arg(p.pos[0], "VSAN"), next = vsan_arg(p.pos[1], "NEXT-VSAN");
    const uint32_t sid = fcid_arg(p.pos[2]), did = fcid_arg(p.pos[3]);
    zfx_nat_next_hop_request req{htonl(vsan), htonl(next), address_word(sid), address_word(did)};
    void *reply = nullptr;
    uint32_t length = sizeof req;
    const int32_t r = dlg_remote_req_resp(ZFX_MSG_NAT_NEXT_HOP, ZFXD_OP_REMOTE, &req, &reply, &length, ZFX_SERVICE_NAME, 0, ZFX_SAP,
                                          ZFX_NODE_REMOTE, s.conn().ep(), 1);
    const Owned<void> owned(reply);
    s.check(uint32_t(r));
    if (reply == nullptr || length < sizeof(zfx_nat_next_hop_reply)) s.malformed(format("%u bytes", length));
    zfx_nat_next_hop_reply got;
    std::memcpy(&got, reply, sizeof got);
    table(s, {{"VSAN", "SID", "DID", "NEXT-VSAN", "NAT-SID", "NAT-DID"},
              {std::to_string(vsan), fcid_text(sid), fcid_text(did), std::to_string(next), fcid_text(address_of(got.sid)),
               fcid_text(address_of(got.did))}});
}

void ns_get(Session &s, const Parsed &p) {
    const Wwn pwwn = wwn_arg(p.pos[0]);
    uint32_t words[2];
    std::memcpy(words, pwwn.data(), 8);
    dir_entry e{};
    // The port-name words are the WWN's halves as numbers: the client sends them in network
    // order, which puts the WWN on the wire in printing order.
    s.check(uint32_t(zfx_ns_get_entry_given_portname(s.conn().ep(), ntohl(words[0]), ntohl(words[1]), p.number("--vsan", 0), &e)));
    if (entry_wwn(e.port_name) != pwwn) s.malformed("the entry of " + wwn_text(entry_wwn(e.port_name)) + " came");
    table(s, {{"PWWN", "FCID", "NODE", "CLASS", "TYPE", "NAME"},
              {wwn_text(pwwn), fcid_text(address_of(e.port_id)), wwn_text(entry_wwn(e.node_name)), std::to_string(ntohl(e.class_of_service)),
               std::to_string(e.port_type), e.symbolic_name[0] != '\0' ? printable(e.symbolic_name) : "-"}});
}

// ---- the table --------------------------------------------------------------------------------

const Opt kQos{"--qos", Kind::text};
const Opt kReadOnlyFlag{"--read-only", Kind::flag};
const Opt kPwwn{"--pwwn", Kind::text};
const Opt kAlias{"--device-alias", Kind::text};
const Opt kLun{"--lun", Kind::text};
const Opt kVsan{"--vsan", Kind::number, 1, ZFX_VSAN_MAX};
const Opt kAfid{"--afid", Kind::number, 1, 0xFFFF};
const Opt kZoneId{"--id", Kind::number, 1, ZFX_ZONE_ID_MAX};
const Opt kMemberId{"--id", Kind::number, 1, ZFX_ZONE_MEMBER_ID_MAX};
const Opt kZonesetId{"--id", Kind::number, 1, ZFX_ZONESET_ID_MAX};
const size_t kMany = SIZE_MAX;

const char kMemberLine[] =
    "    member pwwn WWN [lun LUN] vsan V [autonomous-fabric-id A]\n"
    "    member device-alias ALIAS [lun LUN] vsan V [autonomous-fabric-id A]\n"
    "  (the autonomous fabric ID when it is not 1, as the configuration text writes members).\n";

const std::vector<Command> &commands() {
    static const std::vector<Command> table = {
        {"zone create", "NAME [--qos none|low|medium|high] [--read-only] [--id N]", 1, 1, {kQos, kReadOnlyFlag, kZoneId}, zone_create,
         "Creates a zone, with a QoS priority and read-only when asked. It gets the lowest free id,\n"
         "or with --id the id N (1 to 8191): the request is then built as a one-record zone message\n"
         "and checked for completeness before it is sent.\n"},
        {"zone delete", "NAME", 1, 1, {}, zone_delete, "Deletes a zone with its members; every zoneset loses it.\n"},
        {"zone rename", "NAME NEW-NAME", 2, 2, {}, zone_rename, "Renames a zone.\n"},
        {"zone attribute", "ZONE [--qos none|low|medium|high] [--read-only on|off]", 1, 1,
         {kQos, {"--read-only", Kind::text}}, zone_attribute, "Sets a zone's QoS priority, its read-only attribute, or both.\n"},
        {"zone show", "[NAME]", 0, 1, {}, zone_show,
         std::string("Prints the zone named, or every zone in id order (one query for all of them):\n"
                     "    zone name NAME id ID\n"
                     "      attribute qos priority low|medium|high   (unless none)\n"
                     "      attribute read-only                      (when read-only)\n"
                     "      member ...                               (each member, in id order)\n"
                     "  member lines:\n")
             .append(kMemberLine)},
        {"zone member add", "ZONE (--pwwn WWN | --device-alias ALIAS) [--lun LUN] [--vsan N] [--afid N] [--id N]", 1, 1,
         {kPwwn, kAlias, kLun, kVsan, kAfid, kMemberId}, member_add,
         "Adds a member to a zone: a port WWN (aa:bb:cc:dd:ee:ff:00:11) or a device alias, with a LUN\n"
         "when given (0x0001, 0x4012-0005: up to four levels of four hexadecimal digits). VSAN and\n"
         "autonomous fabric ID default to 1. It gets the lowest free id in its zone, or with --id\n"
         "the id N (1 to 2047): the request is then built as a one-record member message, naming the\n"
         "zone by its id, and checked for completeness before it is sent.\n"},
        {"zone member remove", "ZONE (--pwwn WWN | --device-alias ALIAS) [--lun LUN] [--vsan N] [--afid N] | ZONE --id N", 1, 1,
         {kPwwn, kAlias, kLun, kVsan, kAfid, kMemberId}, member_remove,
         "Removes a member from a zone: the one the values name (VSAN and autonomous fabric ID\n"
         "default to 1, as when adding), or with --id the member with that id (zfx zone member show\n"
         "lists the ids).\n"},
        {"zone member show", "ZONE [--id N]", 1, 1, {kMemberId}, member_show,
         std::string("Prints a zone's members with their ids, or the one member with id N:\n"
                     "    zone name NAME id ID\n"
                     "      member id N ...\n"
                     "  with the zone's attribute lines as zfx zone show prints them, and member values:\n")
             .append(kMemberLine)},
        {"zoneset create", "NAME [--id N]", 1, 1, {kZonesetId}, zoneset_create,
         "Creates an empty zoneset. It gets the lowest free id, or with --id the id N (1 to 2047):\n"
         "the request is then built as a one-record zoneset message and checked for completeness\n"
         "before it is sent.\n"},
        {"zoneset delete", "NAME", 1, 1, {}, zoneset_delete, "Deletes a zoneset; when it is the active one, what is active stays.\n"},
        {"zoneset rename", "NAME NEW-NAME", 2, 2, {}, zoneset_rename, "Renames a zoneset.\n"},
        {"zoneset add", "NAME ZONE...", 2, kMany, {}, zoneset_add,
         "Adds zones to a zoneset: one by its name, several as one change (by their ids).\n"},
        {"zoneset remove", "NAME ZONE...", 2, kMany, {}, zoneset_remove,
         "Removes zones from a zoneset: one by its name, several as one change (by their ids).\n"},
        {"zoneset show", "[NAME]", 0, 1, {}, zoneset_show,
         "Prints the zoneset named, or every zoneset in id order, with its zones in id order:\n"
         "    zoneset name NAME id ID [active]\n"
         "      member ZONE\n"
         "  \"active\" marks the active zoneset.\n"},
        {"zoneset activate", "NAME [--force]", 1, 1, {{"--force", Kind::flag}}, zoneset_activate,
         "Activates a zoneset: its zones and members as they are now become the active zoneset.\n"},
        {"zoneset deactivate", "[NAME]", 0, 1, {}, zoneset_deactivate,
         "Deactivates the active zoneset (when NAME is given, it must be the active one's).\n"},
        {"show active-zoneset", "", 0, 0, {}, show_active_zoneset,
         "Prints the active zoneset and the zones it was activated with, in id order:\n"
         "    active zoneset NAME\n"
         "      member ZONE\n"
         "  a zone deleted since as \"member zone-id ID\"; or \"no active zoneset\".\n"},
        {"status", "[--vsan N] [--form short|extended|split]", 0, 0, {kVsan, {"--form", Kind::text}}, status,
         "Asks whether zfx is enabled, and with --vsan whether NAT is enabled in that VSAN:\n"
         "    zfx is enabled | zfx is disabled\n"
         "    protocol version V\n"
         "    changes N                    (changes committed since zfxd started)\n"
         "    nat is enabled|disabled in vsan N\n"
         "--form picks the form of the enabled query: short (default), extended (the VSAN form), or\n"
         "split (sent, then its answer received and parsed apart); all answer alike.\n"},
        {"info get", "KEY [--form record|text|number] [--timeout S]", 1, 1, {{"--form", Kind::text}, {"--timeout", Kind::number, 1, 600}}, info_get,
         "Prints a named value of the service. KEY is a number or one of: zones, zonesets, members,\n"
         "active-zoneset (its id, 0 for none), changes, activate-time, default-zone (0 deny, 1\n"
         "permit), log-level, check-ignore, devices, frames (handed over), last-frame (HDR0 HDR1\n"
         "LENGTH CHECK). activate-time prints \"YYYY-MM-DD HH:MM:SS.UUUUUU UTC\",\n"
         "or \"none\". --form picks the query: record (default; a failure is an error), text or\n"
         "number (these two print an empty text or 0 when the request fails: they cannot tell).\n"
         "--timeout waits S seconds (record and number forms) instead of the library's 4.\n"},
        {"info set", "KEY VALUE", 2, 2, {}, info_set,
         "Sets a named value (default-zone, log-level, or a key by number) to the number VALUE.\n"},
        {"check-ignore", "on|off", 1, 1, {}, check_ignore, "Makes the service ignore its fcdomain check (on), or heed it again (off).\n"},
        {"show device", "[--ns]", 0, 0, {{"--ns", Kind::flag}}, show_device,
         "Walks the fabric's devices in batches, in port WWN order, and prints one line each:\n"
         "    PWWN  FCID  AFID  VSANS  VALUE      (VALUE: per-vsan when it differs per VSAN)\n"
         "  or with --ns the name-server view, its values asked VSAN by VSAN where they differ:\n"
         "    PWWN  FCID  NODE  VSAN:VALUE  NAME  (pairs joined by \",\"; - for none)\n"
         "  then \"N devices\".\n"},
        {"show native-domain", "VSAN", 1, 1, {}, show_native_domain, "Prints the VSAN's native domain:\n    VSAN  NATIVE-DOMAIN\n"},
        {"show proxy-domains", "VSAN", 1, 1, {}, show_proxy_domains,
         "Prints the VSAN's proxy domains, ascending:\n    VSAN  COUNT  PROXY-DOMAINS (joined by \",\")\n"},
        {"show next-hop", "VSAN [FCID...]", 1, kMany, {}, show_next_hop,
         "Prints the next-hop VSAN from VSAN towards each FCID (0x0a0001: domain, area, port), or\n"
         "towards each domain of the fabric's devices:\n"
         "    VSAN  DESTINATION  DOMAIN  NEXT-HOP   (- when the traffic stays in VSAN)\n"},
        {"show nat next-hop", "VSAN NEXT-VSAN SID DID", 4, 4, {}, show_nat_next_hop,
         "Prints how NAT rewrites the flow from SID to DID in VSAN when it crosses into NEXT-VSAN:\n"
         "    VSAN  SID  DID  NEXT-VSAN  NAT-SID  NAT-DID\n"
         "  (the service refuses a flow it has no rewrite for).\n"},
        {"ns get", "PWWN [--vsan N]", 1, 1, {kVsan}, ns_get,
         "Prints the name server's entry of a port, in VSAN N when given:\n"
         "    PWWN  FCID  NODE  CLASS  TYPE  NAME\n"},
    };
    return table;
}

const char kGlobal[] =
    "\n"
    "Configures and reads the zfx feature's zone database through its service, zfxd, and reads\n"
    "the fabric it serves: devices, native and proxy domains, next hops, NAT, name-server entries.\n"
    "\n"
    "options (before COMMAND):\n"
    "  --socket PATH  zfxd's socket (default: $" ZFXD_SOCKET_ENV ", else " ZFXD_SOCKET_DEFAULT ")\n"
    "  --debug        show the library's debug lines (on standard output)\n"
    "  --help         this text; zfx COMMAND --help (or a group: zfx zone --help) tells more\n"
    "\n"
    "Names of zones, zonesets and device aliases are 1 to 67 characters, none a control character;\n"
    "a name that begins with \"-\" goes after \"--\". Changes print nothing; the show commands print\n"
    "what each one's help shows.\n"
    "\n"
    "exit status: 0 success; 1 the service refused the request (zfx: WHAT: status 0x... (NAME: text)),\n"
    "could not be reached, or answered with a malformed reply; 2 bad command line\n";

std::vector<std::string> words_of(const std::string &path) {
    std::vector<std::string> w;
    size_t at = 0;
    while (at <= path.size()) {
        const size_t sp = path.find(' ', at);
        w.push_back(path.substr(at, sp == std::string::npos ? std::string::npos : sp - at));
        if (sp == std::string::npos) break;
        at = sp + 1;
    }
    return w;
}

std::string usage_line(const Command &c) { return std::string("zfx ") + c.path + (*c.synopsis ? " " : "") + c.synopsis; }

bool in_group(const Command &c, const std::string &group) {
    const std::string path = c.path;
    return group.empty() || path == group || path.rfind(group + " ", 0) == 0;
}

// Help for the commands of a group or for one command (the group is its path); "": all of them.
void print_help(const std::string &group) {
    if (group.empty()) {
        std::printf("usage: zfx [--socket PATH] [--debug] COMMAND ...\n\ncommands:\n");
        for (const Command &c : commands()) std::printf("  %s\n", usage_line(c).c_str() + 4);
        std::printf("%s", kGlobal);
        return;
    }
    const char *lead = "usage: ";
    for (const Command &c : commands())
        if (in_group(c, group)) {
            std::printf("%s%s\n", lead, usage_line(c).c_str());
            lead = "       ";
        }
    for (const Command &c : commands())
        if (in_group(c, group)) std::printf("\n%s:\n%s", c.path, c.help.c_str());
    std::printf("\nexit status: 0 success; 1 the service refused the request, could not be reached or\n"
                "answered with a malformed reply; 2 bad command line. See zfx --help.\n");
}

// Reads a command's arguments after its path: options by the table, the rest positional.
Parsed parse(const Command &c, Args &args) {
    Parsed p;
    bool options = true;
    std::string error;
    while (!args.done()) {
        const std::string a = args.take();
        // A negative number is a value, not an option.
        const bool option = options && a.size() > 1 && a[0] == '-' && !(a[1] >= '0' && a[1] <= '9');
        if (option && a == "--") {
            options = false;
            continue;
        }
        if (!option) {
            if (p.pos.size() == c.max_pos) throw Usage{std::string(c.path) + ": unexpected argument '" + printable(a) + "'"};
            p.pos.push_back(a);
            continue;
        }
        const auto o = std::find_if(c.opts.begin(), c.opts.end(), [&](const Opt &x) { return a == x.name; });
        if (o == c.opts.end()) throw Usage{std::string(c.path) + ": unknown option " + printable(a)};
        if (p.has(a)) throw Usage{a + " is given twice"};
        if (o->kind == Kind::flag) {
            p.flags.insert(a);
        } else if (o->kind == Kind::text) {
            if (!args.value(a, p.text[a], error)) throw Usage{error};
        } else if (!args.number(a, o->max, p.num[a], error, o->min)) {
            throw Usage{error};
        }
    }
    if (p.pos.size() < c.min_pos) throw Usage{std::string(c.path) + ": missing argument (usage: " + usage_line(c) + ")"};
    return p;
}

}  // namespace

int main(int argc, char **argv) {
    std::string hint;  // the help to point to after a usage error
    try {
        // The options before the command.
        Args global(argc, argv, 1);
        int at = 1;
        std::string socket, error;
        bool debug = false;
        while (!global.done() && global.peek().rfind("-", 0) == 0) {
            const std::string opt = global.take();
            ++at;
            if (opt == "--help" || opt == "-h") {
                print_help("");
                return kExitOk;
            }
            if (opt == "--debug") {
                debug = true;
            } else if (opt == "--socket") {
                if (!global.value(opt, socket, error)) throw Usage{error};
                if (socket.empty()) throw Usage{"--socket needs a path"};
                ++at;
            } else {
                throw Usage{"unknown option " + printable(opt)};
            }
        }
        if (global.done()) throw Usage{"a command is needed"};

        // The command: the longest path its words match; failing that, the longest group.
        const Command *cmd = nullptr;
        size_t matched = 0;
        std::string group;
        for (const Command &c : commands()) {
            const std::vector<std::string> w = words_of(c.path);
            size_t n = 0;
            while (n < w.size() && at + int(n) < argc && w[n] == argv[at + n]) ++n;
            if (n == w.size() && n > matched) {
                cmd = &c;
                matched = n;
            } else if (n > 0 && n < w.size()) {
                std::string g = w[0];
                for (size_t i = 1; i < n; ++i) g += " " + w[i];
                if (g.size() > group.size()) group = g;
            }
        }
        const int rest = at + int(matched);
        bool help = false;
        for (int i = cmd != nullptr ? rest : at; i < argc; ++i) help = help || !std::strcmp(argv[i], "--help") || !std::strcmp(argv[i], "-h");
        if (cmd == nullptr) {
            if (group.empty()) throw Usage{"unknown command '" + printable(argv[at]) + "'"};
            if (help) {
                print_help(group);
                return kExitOk;
            }
            hint = " " + group;
            const int next = at + int(words_of(group).size());
            throw Usage{next < argc ? group + ": unknown command '" + printable(argv[next]) + "'" : group + " needs a command"};
        }
        hint = std::string(" ") + cmd->path;
        if (help) {
            print_help(cmd->path);
            return kExitOk;
        }
        Args args(argc, argv, rest);
        const Parsed parsed = parse(*cmd, args);

        if (socket.empty()) {
            const char *env = std::getenv(ZFXD_SOCKET_ENV);
            socket = env != nullptr && *env != '\0' ? env : ZFXD_SOCKET_DEFAULT;
        }
        if (debug) debug_cli = 1;
        Session session(socket);
        session.what = cmd->path + (parsed.pos.empty() ? "" : " " + printable(parsed.pos[0]));
        cmd->run(session, parsed);
        if (std::fwrite(session.out.data(), 1, session.out.size(), stdout) != session.out.size() || std::fflush(stdout) != 0) {
            std::fprintf(stderr, "zfx: cannot write to standard output\n");
            return kExitFailure;
        }
        return kExitOk;
    } catch (const Usage &u) {
        std::fprintf(stderr, "zfx: %s\nTry 'zfx%s --help'.\n", u.what.c_str(), hint.c_str());
        return kExitUsage;
    } catch (const Failed &f) {
        std::fprintf(stderr, "zfx: %s\n", f.what.c_str());
        return kExitFailure;
    }
}
