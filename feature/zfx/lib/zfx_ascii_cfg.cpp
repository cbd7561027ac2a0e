// The configuration-text entry points, the section driver and the global settings (NAT,
// distribution, global flags, AAM, the debug logging level).
#include "zfx_ascii_cfg.h"

#include "platform/ptxt.h"
#include "zfx_fabric.h"
#include "zfx_gen_text.hpp"
#include "zfx_kvdb_walk.hpp"

extern "C" {
int32_t commit_reqd;
}

namespace zfx {
namespace {

// The global lines are short; 64 bytes hold any of them.
constexpr size_t kGlobalLineSize = 64;

// Reads a two-byte-key flag record: dst (size bytes) is cleared, then takes as many of the
// value's bytes as it holds. Returns the store's status.
int32_t read_flag(kvdb_store *store, uint8_t table, uint8_t sub, void *dst, size_t size) {
    std::memset(dst, 0, size);
    const uint8_t key[2] = {table, sub};
    int32_t status;
    copy_value(dst, size, fetch(store, key, sizeof key, status));
    return status;
}

int32_t read_byte_flag(uint8_t *flag, kvdb_store *store, uint8_t table) {
    if (flag == nullptr || store == nullptr) return ZFX_ERR_INVALID_ARG;
    return read_flag(store, table, 0x00, flag, 1);
}

// The NAT and AAM lines: one flag record, one line, and the commit flag set with it.
int32_t flag_line(uint32_t handle, kvdb_store *store, int32_t (*reader)(uint8_t *, kvdb_store *),
                  const char *line) {
    if (store == nullptr) {
        report_null_store(kVtNullStore);
        return 0;
    }
    uint8_t flag = 0;
    const int32_t status = reader(&flag, store);
    if (status == 0 && flag != 0) {
        char buf[kGlobalLineSize];
        Line(buf, sizeof buf).text(line).add(handle, ZFX_ELEM_GLOBAL, 0);
        commit_reqd = 1;
    }
    return status;
}

// ---- the driver ---------------------------------------------------------------------------------

struct Dependency {
    uint32_t group;
    uint32_t element;
};

// The feature's elements in the order they are declared (the configuration-text service breaks
// ties in this order), each with what it comes after (unused places left zero: no group is 0).
struct ElementDecl {
    uint32_t element;
    Dependency after[3];
};

constexpr ElementDecl kElements[] = {
    {ZFX_ELEM_FEATURE, {}},
    {ZFX_ELEM_GLOBAL, {{ZFX_PTXT_GROUP, ZFX_ELEM_FEATURE}}},
    {ZFX_ELEM_ZONE, {{ZFX_PTXT_GROUP, ZFX_ELEM_GLOBAL}, {ZFX_PTXT_ZONE_AFTER_GROUP, ZFX_PTXT_ZONE_AFTER_ELEM}}},
    {ZFX_ELEM_TOPOLOGY, {{ZFX_PTXT_GROUP, ZFX_ELEM_GLOBAL}}},
    {ZFX_ELEM_COMMIT,
     {{ZFX_PTXT_GROUP, ZFX_ELEM_GLOBAL}, {ZFX_PTXT_GROUP, ZFX_ELEM_ZONE}, {ZFX_PTXT_GROUP, ZFX_ELEM_TOPOLOGY}}},
};
// The last three tables: each is declared, the commit line comes after it, it comes after 4.
constexpr uint32_t kLateTables[] = {ZFX_ELEM_AFID, ZFX_ELEM_SERVICE_GROUP, ZFX_ELEM_PFCID};

void declare_elements(uint32_t handle) {
    for (const ElementDecl &d : kElements) {
        ptxt_elem_add(handle, ZFX_PTXT_GROUP, d.element, ZFX_PTXT_ELEM_KIND);
        if (d.element == ZFX_ELEM_FEATURE) ptxt_elem_str_add(handle, ZFX_ELEM_FEATURE, "feature zfx\n");
        for (const Dependency &a : d.after)
            if (a.group != 0) ptxt_elem_dependency_add(handle, d.element, a.group, a.element);
    }
    for (uint32_t element : kLateTables) {
        ptxt_elem_add(handle, ZFX_PTXT_GROUP, element, ZFX_PTXT_ELEM_KIND);
        ptxt_elem_dependency_add(handle, ZFX_ELEM_COMMIT, ZFX_PTXT_GROUP, element);
        ptxt_elem_dependency_add(handle, element, ZFX_PTXT_GROUP, ZFX_ELEM_GLOBAL);
    }
}

// A section after the commit flag's reset. Its status is ignored, except the last one's, which
// becomes the driver's: a failing section never keeps the next from running.
using Section = int32_t (*)(uint32_t handle, kvdb_store *store);

// The sections in the order their text is wanted: the virtual domains (list form, then per
// fabric) first, so that their lines stand before the global flag lines in element 4, and leave
// commit_reqd alone; the persistent FCIDs last, their status becoming the driver's.
constexpr Section kSections[] = {
    zfx2_rdi_mode_generate_ascii_config,
    zfx2_rdi_mode_generate_ascii_config2,
    zfx_global_flags_mode_generate_ascii_config,
    zfx2_aam_generate_ascii_config,
    [](uint32_t, kvdb_store *store) { return zfx_zone_generate_ascii_config(store); },  // takes gen_handle
    zfx_vsan_topology_generate_ascii_config,
    [](uint32_t handle, kvdb_store *store) { return zfx2_afid_table_generate_ascii_config(handle, store, &commit_reqd); },
    [](uint32_t handle, kvdb_store *store) { return zfx2_sg_table_generate_ascii_config(handle, store, &commit_reqd); },
    [](uint32_t handle, kvdb_store *store) { return zfx2_pfcid_generate_ascii_config(handle, store, &commit_reqd); },
};

// Opens the store "<prefix>/zfx_<suffix>" in location; NULL when it does not open.
kvdb_store *open_store(char (&location)[ZFX_STORE_LOCATION_SIZE], const char *prefix, const char *suffix) {
    if (prefix == nullptr) return nullptr;
    fmt_bounded(location, sizeof location, "%s/%s_%s", prefix, "zfx", suffix);
    int32_t status = 0;
    kvdb_store *store = kvdb_open(location, &status);
    if (store != nullptr && status != 0) {
        kvdb_close(store);  // a handle that comes with a failure is not used
        store = nullptr;
    }
    return store;
}

}  // namespace
}  // namespace zfx

using namespace zfx;

extern "C" {

int32_t zfx_global_flags_kvdb_restore(kvdb_store *store, uint32_t *flags) {
    if (flags == nullptr || store == nullptr) {
        if (flags != nullptr) *flags = 0;
        return ZFX_ERR_INVALID_ARG;
    }
    // Host order: a shorter value fills the word from its first byte.
    return read_flag(store, ZFX_KVDB_GLOBAL_FLAGS_KEY, 0x01, flags, sizeof *flags);
}

int32_t zfx2_get_fcid_nat_flag_from_kvdb(uint8_t *flag, kvdb_store *store) {
    return read_byte_flag(flag, store, ZFX_KVDB_NAT_KEY);
}

int32_t zfx2_get_aam_flag_from_kvdb(uint8_t *flag, kvdb_store *store) {
    return read_byte_flag(flag, store, ZFX_KVDB_AAM_KEY);
}

int32_t zfx_kvdb_restore_fabric_distribute(kvdb_store *store) {
    if (store == nullptr) return 0;
    const uint8_t key[2] = {ZFX_KVDB_DISTRIBUTE_KEY, 0x00};
    int32_t status;
    const kvdb_datum *value = fetch(store, key, sizeof key, status);
    return holds(value, 4) && load_be32(value->data) == 1 ? 1 : 0;
}

int32_t zfx2_fcid_nat_generate_ascii_config(uint32_t handle, kvdb_store *store) {
    return flag_line(handle, store, zfx2_get_fcid_nat_flag_from_kvdb, "zfx nat\n");
}

int32_t zfx2_aam_generate_ascii_config(uint32_t handle, kvdb_store *store) {
    return flag_line(handle, store, zfx2_get_aam_flag_from_kvdb, "zfx aam register\n");
}

int32_t zfx_global_flags_mode_generate_ascii_config(uint32_t handle, kvdb_store *store) {
    uint32_t flags = 0;
    zfx_global_flags_kvdb_restore(store, &flags);
    char buf[kGlobalLineSize];
    if (flags & ZFX_GFLAG_FCDOMAIN_CHECK_IGNORE)
        Line(buf, sizeof buf).text("zfx fcdomain check-ignore\n").add(handle, ZFX_ELEM_GLOBAL, 0);
    if (flags & ZFX_GFLAG_SHARE_HW_ENTRIES)
        Line(buf, sizeof buf).text("zfx share-hw-entries\n").add(handle, ZFX_ELEM_GLOBAL, 0);
    return 0;
}

int32_t zfx_ascii_gen_from_kvdb(kvdb_store *store) {
    const uint32_t handle = gen_handle;
    declare_elements(handle);
    zfx2_fcid_nat_generate_ascii_config(handle, store);
    const bool distribute = zfx_kvdb_restore_fabric_distribute(store) == 1;
    if (distribute) {
        char buf[kGlobalLineSize];
        Line(buf, sizeof buf).text("zfx distribute\n").add(handle, ZFX_ELEM_GLOBAL, 0);
    }
    // The NAT line alone never calls for a commit: only what follows the reset counts.
    commit_reqd = 0;
    int32_t result = 0;
    for (Section run : kSections) result = run(handle, store);
    if (commit_reqd == 1 && distribute) {
        char buf[kGlobalLineSize];
        result = Line(buf, sizeof buf).text("zfx commit\n").add(handle, ZFX_ELEM_COMMIT, 0);
    }
    return result;
}

int32_t zfx_debug_ascii_gen_from_kvdb(kvdb_store *store) {
    if (store == nullptr) return 0;
    uint8_t key[8];
    store_le32(key, ZFX_DEBUG_LEVEL_KEY_WORD0);
    store_le32(key + 4, ZFX_DEBUG_LEVEL_KEY_WORD1);
    kvdb_datum k{key, sizeof key};
    int32_t status = 2;  // the second interface reports through this word; it starts at 2
    const kvdb_datum *value = kvdb2_fetch(store, &k, &status);
    if (status != 0) return status;
    zfx_debug_level_record record{};
    if (!holds(value, sizeof record)) return ZFX_KVDB_NOT_FOUND;
    copy_value(&record, sizeof record, value);
    const uint32_t valid = load_le32(&record.valid), level = load_le32(&record.level);
    if (valid != 1 || level > ZFX_DEBUG_LEVEL_MAX || level == ZFX_DEBUG_LEVEL_SILENT) return ZFX_KVDB_NOT_FOUND;
    char line[kGlobalLineSize];
    fmt_bounded(line, sizeof line, "logging level %s %d\n", "zfx", int(level));
    ptxt_elem_dependency_add(gen_handle, ZFX_ELEM_FEATURE, ZFX_PTXT_LOGGING_GROUP, ZFX_PTXT_LOGGING_ELEM);
    return ptxt_elem_group_config_str_add(gen_handle, ZFX_PTXT_CONFIG_GROUP, 0, 3, line);
}

int32_t zfx_ptxt_gen_func(void *msg, void *req) {
    ptxt_hdl_init(&gen_handle);
    char location[ZFX_STORE_LOCATION_SIZE];
    if (kvdb_store *store = open_store(location, ptxt_startup_cfg_uri_prefix_get(req), ZFX_STORE_CONFIG_SUFFIX)) {
        zfx_ascii_gen_from_kvdb(store);
        kvdb_close(store);
        if (kvdb_store *debug =
                open_store(location, ptxt_startup_debug_cfg_uri_prefix_get(req), ZFX_STORE_DEBUG_SUFFIX)) {
            zfx_debug_ascii_gen_from_kvdb(debug);
            kvdb_close(debug);
        }
    }
    return ptxt_respond(gen_handle, msg, req);
}

int32_t zfx_ascii_cfg_generate(const zfx_gen_request *request) {
    if (request == nullptr) return ZFX_ERR_INVALID_ARG;
    gen_handle = request->handle;
    if (request->selector != ZFX_GEN_SELECT_GENERATE) return 0;
    for (uint32_t i = 0; i < request->count; ++i) {
        const zfx_gen_store_entry &entry = request->entries[i];
        if (entry.kind == ZFX_GEN_STORE_CONFIG) zfx_ascii_gen_from_kvdb(entry.store);
        else if (entry.kind == ZFX_GEN_STORE_DEBUG) zfx_debug_ascii_gen_from_kvdb(entry.store);
    }
    return 0;
}

}  // extern "C"
