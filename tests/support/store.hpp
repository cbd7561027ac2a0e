// Stores built record by record through the platform's write calls, byte builders for keys and
// values, and a generation run that returns the rendered configuration text.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "bytes.hpp"
#include "platform/kvdb.h"

namespace zfxtest {

// Records of the feature's configuration and debug stores, as its service writes them.
using Record = std::pair<Bytes, Bytes>;
Record flags_rec(uint32_t flags);
Record nat_rec(uint8_t on);
Record aam_rec(uint8_t on);
Record distribute_rec(uint32_t value);
Record topo_rec(uint16_t afid, const Bytes &wwn, uint8_t membership, const Bytes &set);
Record topo_mode_rec(uint32_t mode);
Record afid_rec(bool is_default, const Bytes &wwn, uint16_t afid, const Bytes &set);
Record sg_member_rec(bool cfg, uint32_t group, uint16_t afid, const Bytes &set);
Record sg_name_rec(bool cfg, uint32_t group, const std::string &name);
Record sg_policy_rec(uint32_t policy);
Record debug_level_rec(uint32_t valid, uint32_t level);
Record vdom_list_rec(const Bytes &set);
Record rdi_rec(uint16_t afid, const Bytes &set);
// Persistent FCID records: a domain assigned in (afid, vsan) for a native AFID and VSAN, and the
// FCID (4 bytes: unused, domain, area, port) a port WWN keeps there. tag is key bytes 2 and 3.
Record pfcid_domain_rec(uint16_t afid, uint32_t vsan, uint16_t native_afid, uint32_t native_vsan, uint8_t domain,
                        uint32_t word = 0, uint16_t tag = 1);
Record pfcid_fcid_rec(uint16_t afid, uint32_t vsan, const Bytes &wwn, const Bytes &fcid, uint32_t word = 0,
                      uint16_t tag = 1);

// The zone database, as the service stores it. name68 pads a name to its 68-byte field.
Bytes name68(const std::string &name);
// The header: zone ids in the full bitmap (or, with short_form, in the short one only).
Record zone_db_header_rec(const std::vector<int> &zones, const std::vector<int> &zonesets, bool short_form = false);
// A zone or zoneset record with the elements given (tlv_array of them).
Record zone_rec(uint16_t id, const std::string &name, const Bytes &array);
Record zoneset_rec(uint16_t id, const std::string &name, const Bytes &array);
Record member_rec(uint16_t zone_id, uint16_t member_id, uint8_t type, const Bytes &array);
// The member bitmap element (7) and the zoneset's zone bitmap elements (4: short, 60: full).
Bytes members_tlv(const std::vector<int> &ids);
Bytes zones_tlv(uint16_t type, const std::vector<int> &ids);
Record zone_options_rec(uint32_t options);
// The active zoneset data split into chunks of at most chunk bytes, with chunk 0 giving total
// (the data's size when not given).
std::vector<Record> active_chunks(const Bytes &data, size_t chunk, int64_t total = -1);

enum class Backend { mem, lmdb };

// A store location prefix of its own: "mem:<unique>" or a fresh temporary directory. The stores
// under it are removed when it goes.
class Prefix {
public:
    explicit Prefix(Backend backend = Backend::mem);
    ~Prefix();
    Prefix(const Prefix &) = delete;
    Prefix &operator=(const Prefix &) = delete;
    const std::string &path() const { return path_; }
    std::string config() const { return path_ + "/zfx_startup_config"; }
    std::string debug() const { return path_ + "/zfx_debug"; }

private:
    Backend backend_;
    std::string path_;
};

// Writes records to the store at location (created when missing), each in its own transaction.
void put(const std::string &location, const std::vector<Record> &records);

// A read handle, closed when it goes.
class Reader {
public:
    explicit Reader(const std::string &location);
    kvdb_store *get() const { return store_.get(); }

private:
    std::unique_ptr<kvdb_store, decltype(&kvdb_close)> store_{nullptr, kvdb_close};
};

// Records and the text expected of them, a row of the suites' text tables.
struct TextCase {
    const char *name;
    std::vector<Record> records;
    std::string expected;
};

// A configuration store of its own holding records, open for reading: the setup of every test
// that reads a store the service has written.
class Stored {
public:
    explicit Stored(const std::vector<Record> &records, Backend backend = Backend::mem);
    kvdb_store *get() const { return reader_.get(); }
    const Prefix &prefix() const { return prefix_; }

private:
    Prefix prefix_;
    Reader reader_;
};

// The text of a generation in which run adds its part: the feature's elements declared and the
// generation made the one in progress, as the entry points do.
std::string generation_text(const std::function<void(uint32_t handle)> &run);
// Runs zfx_ascii_cfg_generate on the stores (kind, store) in a new generation and returns the
// rendered text.
std::string generate(std::initializer_list<std::pair<uint32_t, kvdb_store *>> stores);
// Generates from the configuration store at location alone.
std::string generate_from(const std::string &location);
// A text service sink that appends what it is handed to the std::string at sink.
int32_t append_text(void *sink, void *msg, const char *text, uint32_t len);
// The text zfx_ptxt_gen_func hands over for the stores under prefix, as zfx-gen prints it.
// *status, when given, receives its result; without it, a result other than 0 fails the test.
std::string gen_func_text(const std::string &prefix, int32_t *status = nullptr);
// The zone section alone (zfx_zone_generate_ascii_config) on a store, in a generation of its own:
// its result and its text.
struct SectionResult {
    int32_t status;
    std::string text;
    bool operator==(const SectionResult &) const = default;
};
std::ostream &operator<<(std::ostream &os, const SectionResult &r);
SectionResult zone_section_on(kvdb_store *store);
// Generates from a store of records alone and returns the text after its feature line.
std::string section(const std::vector<Record> &records);

}  // namespace zfxtest
