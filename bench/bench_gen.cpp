// Generation from an LMDB store against a bare LMDB cursor scan of the same records (the
// reference: the least any reader of the table must do). Topology entries of 516-byte VSAN sets,
// as the feature's service writes them.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "lmdb_scan.hpp"
#include "platform/kvdb.h"
#include "platform/ptxt.h"
#include "zfx_ascii_cfg.h"
#include "zfx_fabric.h"

namespace {

// A store of n topology entries in a temporary directory, removed at exit.
struct Store {
    std::string dir;
    explicit Store(int n) {
        std::string tmpl = (std::filesystem::temp_directory_path() / "zfx-bench-XXXXXX").string();
        dir = mkdtemp(tmpl.data());
        const std::string loc = dir + "/zfx_startup_config";
        kvdb_store *w = kvdb_create(loc.c_str(), nullptr);
        kvdb_txn_begin(w);
        for (int i = 0; i < n; ++i) {
            uint8_t key[13] = {0x65, 1, uint8_t(i), uint8_t(i >> 8), 0x20, 0, 0, 0, 0, 0, uint8_t(i), 1, 3};
            uint8_t set[516] = {0, 2, 0, 0};
            for (int v = 1; v < 4096; v += 1 + (i + v) % 7) set[4 + v / 8] |= uint8_t(0x80 >> (v % 8));
            kvdb_datum k{key, sizeof key}, val{set, sizeof set};
            kvdb_put(w, &k, &val);
        }
        kvdb_txn_commit(w);
        kvdb_close(w);
    }
    ~Store() { std::filesystem::remove_all(dir); }
    std::string location() const { return dir + "/zfx_startup_config"; }
};

void BM_BareLmdbScan(benchmark::State &state) {
    Store s(int(state.range(0)));
    LmdbScan lmdb(s.location());
    const uint8_t start[2] = {0x65, 1};
    for (auto _ : state) {
        uint64_t sum = lmdb.scan(start, sizeof start, 100, [](const MDB_val &k) {
            return k.mv_size == 13 && static_cast<const uint8_t *>(k.mv_data)[0] == 0x65;
        });
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// The topology list: a counting walk and a filling walk through the platform's cursor.
void BM_TopologyList(benchmark::State &state) {
    Store s(int(state.range(0)));
    kvdb_store *store = kvdb_open(s.location().c_str(), nullptr);
    for (auto _ : state) {
        zfx_vsan_topo_list *list;
        uint32_t size;
        zfx_vsan_topo_config_get(store, ZFX_VT_TABLE, 3, &list, &size);
        benchmark::DoNotOptimize(list);
        free(list);
    }
    kvdb_close(store);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// The whole generation, rendered: the list, the range text and the lines.
void BM_Generation(benchmark::State &state) {
    Store s(int(state.range(0)));
    kvdb_store *store = kvdb_open(s.location().c_str(), nullptr);
    for (auto _ : state) {
        uint32_t handle;
        ptxt_hdl_init(&handle);
        zfx_gen_request req{0, handle, ZFX_GEN_SELECT_GENERATE, 0};
        zfx_ascii_cfg_generate(&req);
        zfx_ascii_gen_from_kvdb(store);
        char *text;
        ptxt_render(handle, &text, nullptr);
        benchmark::DoNotOptimize(text);
        free(text);
        ptxt_hdl_release(handle);
    }
    kvdb_close(store);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

BENCHMARK(BM_BareLmdbScan)->Arg(2000);
BENCHMARK(BM_TopologyList)->Arg(2000);
BENCHMARK(BM_Generation)->Arg(2000);

}  // namespace
