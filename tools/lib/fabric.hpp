// The fabric model of the tools: everything the feature's service keeps in its stores, held as
// plain values, and the one writer that turns a model into store records the way the service
// writes them. zfx-store's demo and synth build models in code; its loader builds one from
// configuration text. They all write through write_fabric.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "vsan_bitset.h"

namespace zfxtool {

using Bytes = std::vector<uint8_t>;
using Wwn = std::array<uint8_t, 8>;
using Record = std::pair<Bytes, Bytes>;  // key, value

// A VSAN set as the service stores it (the 516-byte vsan_bitset layout).
struct VsanSet {
    vsan_bitset bits;
    VsanSet() { vsan_bitset_init(&bits); }
    VsanSet &add(int32_t first, int32_t last) {
        vsan_bitset_set_range(&bits, first, last - first + 1);
        return *this;
    }
    bool operator==(const VsanSet &o) const { return vsan_bitset_equal(&bits, &o.bits) != 0; }
};

struct Member {
    uint8_t type = 0;  // ZFX_MEMBER_*
    Wwn pwwn{};        // types 0 and 240
    Wwn lun{};         // types 240 and 241
    std::string alias; // types 1 and 241
    uint32_t vsan = 1;
    uint16_t afid = 1;
    uint16_t id = 0;  // its id in the zone; 0: the one after the previous member's (1 for the first)
};

// A zone; its members are listed in ascending id order.
struct Zone {
    uint16_t id = 0;
    std::string name;
    uint32_t qos = 0;  // ZFX_ZONE_QOS_*
    bool read_only = false;
    std::vector<Member> members;
};

struct Zoneset {
    uint16_t id = 0;
    std::string name;
    std::vector<uint16_t> zones;  // zone ids
};

// The active zoneset: the data the service stores when it activates a zoneset, a copy of the
// zoneset's zones with their members at that moment.
struct Active {
    uint16_t id = 0;
    std::string name;
    std::vector<uint16_t> zones;  // zone ids of the model whose copies the data holds
    bool force = false;           // activated with force (the zone options word's bit 31)
};

struct TopologyEntry {
    uint16_t afid = 1;
    Wwn wwn{};
    uint8_t membership = 0;  // ZFX_VT_FLAG_* bits
    VsanSet vsans;
};

struct AfidEntry {
    bool is_default = false;  // the default table: one default AFID per switch
    Wwn wwn{};
    uint16_t afid = 1;
    VsanSet vsans;  // ordinary table only
};

struct GroupMember {
    uint16_t afid = 1;
    VsanSet vsans;
};

struct ServiceGroup {
    uint32_t id = 0;
    std::string name;
    std::vector<GroupMember> members;
};

struct PfcidDomain {
    uint16_t afid = 1;
    uint32_t vsan = 1;
    uint16_t native_afid = 1;
    uint32_t native_vsan = 1;
    uint8_t domain = 0;
};

struct PfcidFcid {
    uint16_t afid = 1;
    uint32_t vsan = 1;
    Wwn pwwn{};
    std::array<uint8_t, 3> fcid{};  // domain, area, port
};

struct Fabric {
    // Global settings.
    bool nat = false;
    bool distribute = false;
    bool aam = false;
    uint32_t flags = 0;  // ZFX_GFLAG_* bits
    // Virtual domains: the switch-wide set and the per-AFID sets.
    std::optional<VsanSet> vdom_list;
    std::map<uint16_t, VsanSet> vdoms;
    // Zone database.
    std::vector<Zone> zones;
    std::vector<Zoneset> zonesets;
    std::optional<Active> active;
    // Fabric tables.
    std::vector<TopologyEntry> topology;
    bool topology_auto = false;
    std::vector<AfidEntry> afids;
    std::vector<ServiceGroup> groups_configured;
    std::vector<ServiceGroup> groups_active;
    bool group_policy_deny = false;
    std::vector<PfcidDomain> pfcid_domains;
    std::vector<PfcidFcid> pfcid_fcids;
    // Debug store.
    std::optional<uint32_t> debug_level;

    const Zone *zone(uint16_t id) const;
};

// The store locations under a directory, as the configuration-text request forms them.
std::string config_location(const std::string &dir);
std::string debug_location(const std::string &dir);

// The records of the zone database, one object at a time, from libzfx's encoders (each throws
// std::runtime_error when an encoder refuses its node). The service writes these as its objects
// change; config_records writes them all.
Bytes zone_db_key(uint8_t table, uint16_t first, uint16_t second);
// The members' ids as Member::id resolves them, in the zone's order.
std::vector<uint16_t> member_ids(const Zone &zone);
Record zone_record(const Zone &zone);  // its member bitmap from the members' ids
Record member_record(uint16_t zone_id, uint16_t member_id, const Member &member);
Record zoneset_record(const Zoneset &zoneset);
Record zone_db_header_record(const std::vector<uint16_t> &zone_ids, const std::vector<uint16_t> &zoneset_ids);
Record zone_options_record(bool force);
// The active zoneset data made of the given zones (in ascending id order), split into chunks:
// chunk 0 (its total length) first, then chunks 1, 2, ...
std::vector<Record> active_records(const Active &active, const std::vector<const Zone *> &zones, size_t chunk_size);

// The records of the configuration store and of the debug store. Records of the zone database
// come from libzfx's encoders; the active zoneset data is split into chunks of chunk_size bytes.
// Throws std::runtime_error when an encoder refuses a node.
constexpr size_t kActiveChunkSize = 512;
std::vector<Record> config_records(const Fabric &fabric, size_t chunk_size = kActiveChunkSize);
std::vector<Record> debug_records(const Fabric &fabric);

// Writes records into the store at location, all in one transaction. A store that already
// holds records is refused unless replace is set (its records are then deleted in the same
// transaction), and a damaged one always is (damaged_text; remove it to write it anew). Returns
// an empty string, or what went wrong.
std::string write_store(const std::string &location, const std::vector<Record> &records, bool replace);

// Writes the fabric's configuration store under dir and, when it has a debug level, its debug
// store under debug_dir. Both stores are read first (records, damage), so that a refusal writes
// nothing. Returns an empty string, or what went wrong (a store whose transaction failed holds
// what it held before).
std::string write_fabric(const Fabric &fabric, const std::string &dir, const std::string &debug_dir, bool replace);

// Bytes as two-digit lower-case hexadecimal joined by blanks ("01 ff 20").
std::string hex(const uint8_t *p, size_t n);
// A 32-bit number's bytes in network order.
Bytes be32(uint32_t v);
// printf into a string (at most 511 characters).
std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// Formats bytes for people: a WWN "aa:bb:...", a LUN "0x0001" (as the zone text does).
std::string wwn_text(const Wwn &wwn);
std::string lun_text(const Wwn &lun);
// Reads them back, for every tool that takes them as text: a WWN is eight pairs of hexadecimal
// digits joined by ":" (the bytes in printing order), a LUN "0x" and one to four levels of four
// hexadecimal digits joined by "-" (each level the big-endian value of two bytes; levels left
// out are zero). Either case of digit. False, out untouched, for text of any other shape.
bool parse_wwn(std::string_view text, Wwn &out);
bool parse_lun(std::string_view text, Wwn &out);

// The word of a zone's QoS priority (ZFX_ZONE_QOS_*): "none", "low", "medium", "high";
// "unknown" for anything above.
const char *qos_word(uint32_t qos);
// A name as zones, zonesets and device aliases take it: 1 to 67 characters, none of them a
// control character.
bool valid_name(const std::string &name);

// The zone database's id bitmaps (zones of a zoneset, members of a zone): id n is bit
// 0x80 >> (n % 8) of byte n / 8.
inline void set_id_bit(uint8_t *bitmap, uint32_t id) { bitmap[id / 8] |= uint8_t(0x80u >> (id % 8)); }
inline bool id_bit(const uint8_t *bitmap, uint32_t id) { return (bitmap[id / 8] & (0x80u >> (id % 8))) != 0; }
std::string vsan_text(const vsan_bitset &set);

// The fabrics zfx-store builds in code: a small one that holds every kind of record, and a
// synthetic one of any size, the same for the same parameters.
Fabric demo_fabric();
struct SynthParams {
    uint32_t zones = 1000;      // 1..8191
    uint32_t members = 8;       // per zone, 0..2047
    uint32_t zonesets = 16;     // 0..2047; zoneset 1 is active
    uint32_t zones_per_set = 64;
    uint32_t topology = 32;     // topology entries
    uint32_t afids = 32;        // AFID table entries (a quarter in the default table)
    uint32_t groups = 16;       // service groups, 4 members each, configured and active
    uint32_t pfcids = 128;      // persistent FCIDs, 8 per domain
    uint64_t seed = 1;
};
// Fails (std::invalid_argument) for a count out of range.
Fabric synth_fabric(const SynthParams &params);

}  // namespace zfxtool
