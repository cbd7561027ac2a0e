// What the zfx command needs, beyond libzfx's requests, to talk to the feature's service (zfxd):
// the connection, the length of the replies the library hands over without one, and the checked
// reading of the zone queries' multi-entry replies.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fabric.hpp"
#include "platform/endpoint.h"
#include "zfx_zone_msg.h"

namespace zfxtool {

struct RelayState;

// A connection to the service. ep() is the endpoint every library request travels through.
// measured() is a second endpoint over the same connection for the queries whose replies the
// caller reads itself: the library hands those over without their length (the message queries
// zfx_dlg_get_zone/_zoneset/_zone_member and zfx_dlg_get_zoneset_status), so measured() relays
// each waited request to ep() unchanged and remembers how long the reply was. It carries waited
// requests only; every other operation fails with EOPNOTSUPP.
class Connection {
public:
    // Over ep, which the connection closes when it owns it (then also when this fails). nullptr
    // when ep is nullptr or memory is short, errno set.
    static std::unique_ptr<Connection> over(plat_endpoint *ep, bool owns = true);
    // Connects to the service listening at path; nullptr with errno set when nobody does.
    static std::unique_ptr<Connection> open_socket(const char *path);
    ~Connection();
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    plat_endpoint *ep() const { return ep_; }
    plat_endpoint *measured() const { return measured_; }
    // The length of the reply to the last request made through measured(); 0 when none came. A
    // reply that comes beside a nonzero status is not passed on (the channel gives no length).
    uint32_t reply_length() const;

private:
    Connection(plat_endpoint *ep, bool owns, RelayState *relay, plat_endpoint *measured)
        : ep_(ep), owns_(owns), relay_(relay), measured_(measured) {}
    plat_endpoint *ep_;
    bool owns_;
    RelayState *relay_;
    plat_endpoint *measured_;
};

// The ids set in a bitmap value as the zone queries carry it (a byte count in host order, then
// the bits; see set_id_bit), reading no more than room bytes; id 0 is never an id.
std::vector<uint32_t> bitmap_ids(const uint8_t *value, size_t room);

struct ZoneEntry {
    uint32_t id = 0;
    std::string name;
    uint32_t qos = ZFX_ZONE_QOS_NONE;
    bool read_only = false;
    std::optional<std::vector<uint32_t>> member_ids;  // its member bitmap, when one came
};

struct MemberEntry {
    uint32_t zone_id = 0;
    uint32_t id = 0;
    uint32_t type = 0;  // ZFX_MEMBER_*
    Wwn pwwn{};         // types 0 and 240
    std::string alias;  // types 1 and 241
    Wwn lun{};          // types 240 and 241
    uint32_t vsan = 0;
    uint32_t afid = 1;
};

struct ZonesetEntry {
    uint32_t id = 0;
    std::string name;
    std::vector<uint32_t> zones;  // zone ids, ascending
    bool active = false;
};

struct ZonesetStatus {
    uint32_t id = 0;
    uint32_t zones = 0;
    bool active = false;
    std::string name;
};

// The replies of the zone message queries as zfxd sends them: the entry count, then that many
// entries back to back, each its fixed fields and its TLV array; the count and ids in network
// order, element values as zfxd_protocol.h says. Each reads the len bytes at reply and returns
// "" with out filled, or what is wrong with the reply (out then unspecified). Nothing beyond the
// len bytes is read: each entry's array is checked against the bytes left before its elements
// are read, and each value against the size its type needs. A reply is malformed when an entry
// lacks what identifies it (a name; a member's type, VSAN and identifying values), holds a value
// out of range, or bytes other than zeros follow its last entry.
std::string decode_zones(const void *reply, uint32_t len, std::vector<ZoneEntry> &out);
std::string decode_members(const void *reply, uint32_t len, std::vector<MemberEntry> &out);
std::string decode_zonesets(const void *reply, uint32_t len, std::vector<ZonesetEntry> &out);
// The zoneset status reply: a count, then that many zfxd_zoneset_status entries.
std::string decode_zoneset_status(const void *reply, uint32_t len, std::vector<ZonesetStatus> &out);
// A member as zfx_dlg_get_zone_member_data fills it, checked as the replies are.
std::string member_from_info(const zfx_zone_member_info &info, MemberEntry &out);

}  // namespace zfxtool
