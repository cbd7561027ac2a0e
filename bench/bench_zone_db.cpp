// The zone database at full size: encoding the active zoneset data of 8191 zones of 8 members
// beside a bare copy of the same bytes, and the zone text of a store of 8000 zones of 8 members
// and 1000 zonesets beside a bare LMDB cursor scan of the same records (the least any reader of
// them must do).
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <string>
#include <vector>

#include "lmdb_scan.hpp"
#include "platform/kvdb.h"
#include "platform/ptxt.h"
#include "platform/tree.h"
#include "zfx_ascii_cfg.h"
#include "zfx_zone_db.h"

namespace {

// Keeps a block's contents alive for the optimiser: its address escapes and memory is clobbered.
void keep(const void *p) { asm volatile("" : : "r"(p) : "memory"); }

int32_t by_id(const void *a, const void *b) {
    const uint32_t x = *static_cast<const uint32_t *>(a), y = *static_cast<const uint32_t *>(b);
    return x < y ? -1 : x > y;
}

// Members of each zone: six port WWNs, a device alias and a port WWN with a LUN, so that most go
// to the zone entries and two to the extension area; every eighth zone has a QoS.
constexpr uint32_t kMemberTypes[8] = {0, 0, 1, 0, 0, 240, 0, 0};

struct ZoneDb {
    std::deque<zfx_zone_member_node> members;
    std::deque<zfx_zone_node> zones;
    std::vector<plat_tree *> trees;
    ~ZoneDb() {
        for (plat_tree *t : trees) tree_destroy(t);
    }
    explicit ZoneDb(uint32_t n_zones) {
        for (uint32_t id = 1; id <= n_zones; ++id) {
            zfx_zone_node &z = zones.emplace_back();
            z = zfx_zone_node{id, {}, trees.emplace_back(tree_create(by_id)), {1}, {}, id % 8 == 0 ? 2u : 0u, 0};
            std::snprintf(z.name, sizeof z.name, "zone-%u", id);
            for (uint32_t m = 1; m <= 8; ++m) {
                zfx_zone_member_node &n = members.emplace_back();
                n = zfx_zone_member_node{m, kMemberTypes[m - 1], 100 + id % 50, uint16_t(1 + m % 2), {0x20, 0, 0, 0x11, 0x22, uint8_t(id >> 8), uint8_t(id), uint8_t(m)}, {0, uint8_t(m)}, {}};
                std::snprintf(n.device_alias, sizeof n.device_alias, "host-%u-%u", id, m);
                tree_insert(z.members, &n);
                z.member_bitmap[4 + m / 8] |= uint8_t(0x80 >> (m % 8));
            }
        }
    }
    zfx_zoneset_node zoneset(uint32_t id, uint32_t first, uint32_t n) {
        zfx_zoneset_node s{id, {}, trees.emplace_back(tree_create(by_id)), {}, {}};
        std::snprintf(s.name, sizeof s.name, "zoneset-%u", id);
        for (uint32_t i = 0; i < n; ++i) {
            zfx_zone_node &z = zones[first - 1 + i];
            tree_insert(s.zones, &z);
            s.zone_bitmap[z.id / 8] |= uint8_t(0x80 >> (z.id % 8));
        }
        return s;
    }
};

void BM_EncodeActiveZoneset(benchmark::State &state) {
    ZoneDb db(8191);
    zfx_zoneset_node s = db.zoneset(1, 1, 8191);
    uint32_t len = 0;
    for (auto _ : state) {
        void *data = zfx_zone_zoneset_to_persistent_kvdb_data(&s, &len);
        keep(data);
        free(data);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * len);
    state.counters["bytes"] = len;
}

// The reference: a new block of the same size filled by one copy of finished bytes.
void BM_CopyActiveZoneset(benchmark::State &state) {
    ZoneDb db(8191);
    zfx_zoneset_node s = db.zoneset(1, 1, 8191);
    uint32_t len = 0;
    void *source = zfx_zone_zoneset_to_persistent_kvdb_data(&s, &len);
    for (auto _ : state) {
        void *data = malloc(len);
        std::memcpy(data, source, len);
        keep(data);
        free(data);
    }
    free(source);
    state.SetBytesProcessed(int64_t(state.iterations()) * len);
}

// A configuration store of the zone database: 8000 zones of 8 members, 1000 zonesets of 8 zones
// each, and the active zoneset in chunks of 4000 bytes; in a temporary directory, or in memory.
struct Store {
    std::string dir, location;
    explicit Store(bool lmdb) {
        if (lmdb) {
            std::string tmpl = (std::filesystem::temp_directory_path() / "zfx-bench-XXXXXX").string();
            dir = mkdtemp(tmpl.data());
            location = dir + "/zfx_startup_config";
        } else {
            location = "mem:bench-zone-db";
        }
        ZoneDb db(8000);
        kvdb_store *w = kvdb_create(location.c_str(), nullptr);
        kvdb_txn_begin(w);
        auto put = [&](uint8_t table, uint32_t a, uint32_t b, void *value, uint32_t len) {
            uint8_t key[ZFX_ZONE_DB_KEY_SIZE];
            zfx_zone_db_key(key, table, uint16_t(a), uint16_t(b));
            kvdb_datum k{key, sizeof key}, v{value, len};
            kvdb_put(w, &k, &v);
        };
        zfx_zone_db_header header{};
        uint32_t len = 0;
        for (zfx_zone_node &z : db.zones) {
            header.zones[z.id / 8] |= uint8_t(0x80 >> (z.id % 8));
            void *rec = zfx_zone_encode_zone_to_kvdb(&z, &len);
            put(ZFX_KVDB_ZONE_KEY, z.id, 0, rec, len);
            free(rec);
            tree_walker walker{0};
            while (auto *m = static_cast<zfx_zone_member_node *>(tree_walk(z.members, &walker))) {
                rec = zfx_zone_encode_zone_member_to_kvdb(m, &len);
                put(ZFX_KVDB_ZONE_MEMBER_KEY, m->id, z.id, rec, len);
                free(rec);
            }
        }
        for (uint32_t id = 1; id <= 1000; ++id) {
            header.zonesets[id / 8] |= uint8_t(0x80 >> (id % 8));
            zfx_zoneset_node s = db.zoneset(id, 1 + (id - 1) * 8, 8);
            void *rec = zfx_zone_encode_zoneset_to_kvdb(&s, &len);
            put(ZFX_KVDB_ZONESET_KEY, id, 0, rec, len);
            free(rec);
        }
        uint8_t hkey[2] = {ZFX_KVDB_ZONE_DB_HEADER_KEY, 0};
        kvdb_datum hk{hkey, 2}, hv{&header, sizeof header};
        kvdb_put(w, &hk, &hv);
        zfx_zoneset_node active = db.zoneset(1, 1, 8);
        auto *data = static_cast<uint8_t *>(zfx_zone_zoneset_to_persistent_kvdb_data(&active, &len));
        uint8_t total[4] = {uint8_t(len >> 24), uint8_t(len >> 16), uint8_t(len >> 8), uint8_t(len)};
        put(ZFX_KVDB_ACTIVE_ZONESET_KEY, 0, 0, total, 4);
        for (uint32_t off = 0, n = 1; off < len; off += 4000, ++n)
            put(ZFX_KVDB_ACTIVE_ZONESET_KEY, 0, n, data + off, len - off < 4000 ? len - off : 4000);
        free(data);
        kvdb_txn_commit(w);
        kvdb_close(w);
    }
    ~Store() {
        if (dir.empty()) kvdb_destroy(location.c_str());
        else std::filesystem::remove_all(dir);
    }
};

// The whole zone section, rendered.
void zone_text(benchmark::State &state, bool lmdb) {
    Store s(lmdb);
    kvdb_store *store = kvdb_open(s.location.c_str(), nullptr);
    uint32_t text_len = 0;
    for (auto _ : state) {
        uint32_t handle;
        ptxt_hdl_init(&handle);
        zfx_gen_request req{0, handle, 0, 0};
        zfx_ascii_cfg_generate(&req);  // makes it the generation in progress
        ptxt_elem_add(handle, ZFX_PTXT_GROUP, ZFX_ELEM_ZONE, ZFX_PTXT_ELEM_KIND);
        zfx_zone_generate_ascii_config(store);
        char *text;
        ptxt_render(handle, &text, &text_len);
        keep(text);
        free(text);
        ptxt_hdl_release(handle);
    }
    kvdb_close(store);
    state.SetItemsProcessed(int64_t(state.iterations()) * 8000);
    state.counters["text_bytes"] = text_len;
}

void BM_ZoneTextLmdb(benchmark::State &state) { zone_text(state, true); }
void BM_ZoneTextMem(benchmark::State &state) { zone_text(state, false); }

// The reference: one LMDB cursor pass over the same records, touching each value.
void BM_BareLmdbScan(benchmark::State &state) {
    Store s(true);
    LmdbScan lmdb(s.location);
    const uint8_t start[1] = {ZFX_KVDB_ZONE_DB_HEADER_KEY};
    for (auto _ : state) {
        uint64_t sum = lmdb.scan(start, sizeof start, SIZE_MAX, [](const MDB_val &k) {
            return static_cast<const uint8_t *>(k.mv_data)[0] <= ZFX_KVDB_ACTIVE_ZONESET_KEY;
        });
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * 8000);
}

BENCHMARK(BM_EncodeActiveZoneset)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CopyActiveZoneset)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ZoneTextLmdb)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ZoneTextMem)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BareLmdbScan)->Unit(benchmark::kMillisecond);

}  // namespace
