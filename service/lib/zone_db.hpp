// zfxd's zone database: zones with their members, zonesets, the active zoneset and the few values
// the service keeps beside them, held in memory and mirrored in the configuration store.
//
// The store is the truth: the database is rebuilt from it at start (whatever wrote it: zfxd, or
// zfx-store demo|synth|load), and every change is made through a Change, which writes exactly the
// records the change touched, in one store transaction, before anyone is told it happened. A
// change whose transaction fails leaves memory as it was.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "fabric.hpp"
#include "platform/kvdb.h"

namespace zfxd {

using zfxtool::Bytes;
using zfxtool::Member;
using zfxtool::Zone;
using zfxtool::Zoneset;

// The active zoneset as the store holds it: the zones it was made of (their ids), the options
// word's force bit, the activation time (seconds, microseconds) and how many data chunks it took.
struct ActiveState {
    uint16_t id = 0;
    std::string name;
    std::vector<uint16_t> zones;
    bool force = false;
    uint32_t seconds = 0;
    uint32_t micros = 0;
    uint32_t chunks = 0;
};

template <typename T>
struct Kind;  // zone_db.cpp: one kind of named object, as a change edits it

class ZoneDb {
public:
    ZoneDb() = default;
    ZoneDb(const ZoneDb &) = delete;
    ZoneDb &operator=(const ZoneDb &) = delete;
    ~ZoneDb();

    // Opens the configuration store at location (creating it when it does not exist) and rebuilds
    // the database from its records. Returns an empty string, or what is wrong (a store that
    // cannot be opened, a record that does not decode, a member of a zone that does not exist).
    std::string open(const std::string &location);

    const std::map<uint16_t, Zone> &zones() const { return zones_; }
    const std::map<uint16_t, Zoneset> &zonesets() const { return zonesets_; }
    const Zone *zone(uint16_t id) const;
    const Zone *zone(const std::string &name) const;
    const Zoneset *zoneset(uint16_t id) const;
    const Zoneset *zoneset(const std::string &name) const;
    const std::optional<ActiveState> &active() const { return active_; }
    bool nat() const { return nat_; }
    uint32_t global_flags() const { return flags_; }
    // A settable info value as stored ("%d" text), or nothing.
    std::optional<std::string> info(uint32_t key) const;
    uint32_t member_count() const;
    uint32_t changes() const { return changes_; }
    // The lowest free id (0 when none is left).
    uint16_t free_zone_id() const;
    uint16_t free_zoneset_id() const;
    static uint16_t free_member_id(const Zone &zone);

    // One change. Edit through it, then commit; a change dropped without commit leaves the
    // database as it was.
    class Change {
    public:
        explicit Change(ZoneDb &db) : db_(db) {}
        Change(const Change &) = delete;
        Change &operator=(const Change &) = delete;
        ~Change();

        Zone &create_zone(uint16_t id, const std::string &name);
        Zone &zone(uint16_t id);  // an existing zone, to edit (not its name: rename_zone)
        void rename_zone(uint16_t id, const std::string &name);
        void erase_zone(uint16_t id);
        Zoneset &create_zoneset(uint16_t id, const std::string &name);
        Zoneset &zoneset(uint16_t id);
        void rename_zoneset(uint16_t id, const std::string &name);
        void erase_zoneset(uint16_t id);
        void set_active(std::optional<ActiveState> active);
        void set_global_flags(uint32_t flags);
        void set_info(uint32_t key, const std::string &text);

        // Writes every record the change touched in one transaction. 0, or ZFXD_ERR_STORE (the
        // transaction failed and the database is as it was before the change).
        int32_t commit();

    private:
        Kind<Zone> zones();
        Kind<Zoneset> zonesets();
        void rollback();

        ZoneDb &db_;
        std::map<uint16_t, std::optional<Zone>> zones_before_;
        std::map<uint16_t, std::optional<Zoneset>> zonesets_before_;
        std::optional<std::optional<ActiveState>> active_before_;
        std::optional<uint32_t> flags_before_;
        std::map<uint32_t, std::optional<std::string>> info_before_;
        bool done_ = false;
    };

private:
    std::string rebuild(kvdb_store *store, const std::string &location);
    void index();

    std::map<uint16_t, Zone> zones_;
    std::map<std::string, uint16_t> zone_ids_;
    std::map<uint16_t, Zoneset> zonesets_;
    std::map<std::string, uint16_t> zoneset_ids_;
    std::optional<ActiveState> active_;
    std::map<uint32_t, std::string> info_;
    bool nat_ = false;
    uint32_t flags_ = 0;
    uint32_t changes_ = 0;
    kvdb_store *writer_ = nullptr;
};

}  // namespace zfxd
