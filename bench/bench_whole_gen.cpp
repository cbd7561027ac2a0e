// The whole configuration text, generated from synthetic LMDB stores of three sizes, against a
// bare LMDB cursor scan of every record of the same store (the reference: the least any reader
// of the store must do). Sizes are named by their zone count: 1k, 8k and 64k. Zone ids end at
// 8191, so the 64k store holds 8191 zones of 64 members each: the records of 64k zones of 8.
// Zonesets (64 zones each), topology, AFID, service-group and persistent-FCID tables grow with
// the size.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "fabric.hpp"
#include "lmdb_scan.hpp"
#include "platform/kvdb.h"
#include "platform/ptxt.h"
#include "zfx_ascii_cfg.h"

namespace {

struct Store {
    std::string dir;
    uint64_t records = 0;
    explicit Store(uint32_t size) {
        std::string tmpl = (std::filesystem::temp_directory_path() / "zfx-bench-XXXXXX").string();
        dir = mkdtemp(tmpl.data());
        zfxtool::SynthParams p;
        p.zones = size < 8191 ? size : 8191;
        p.members = 8 * size / p.zones;
        p.zonesets = size / 64;
        p.topology = p.afids = size / 32;
        p.groups = size / 64;
        p.pfcids = size / 8;
        const zfxtool::Fabric f = zfxtool::synth_fabric(p);
        records = zfxtool::config_records(f).size();
        zfxtool::write_fabric(f, dir, dir, false);
    }
    ~Store() { std::filesystem::remove_all(dir); }
};

// One store per size for the whole run, shared by both benchmarks.
const Store &store(uint32_t size) {
    static std::map<uint32_t, std::unique_ptr<Store>> stores;
    auto &s = stores[size];
    if (!s) s = std::make_unique<Store>(size);
    return *s;
}

int32_t count_text(void *sink, void *, const char *, uint32_t len) {
    *static_cast<uint64_t *>(sink) += len;
    return 0;
}

void BM_WholeGeneration(benchmark::State &state) {
    const Store &s = store(uint32_t(state.range(0)));
    uint64_t bytes = 0;
    ptxt_request request{s.dir.c_str(), s.dir.c_str(), count_text, &bytes};
    // The switch's store service keeps its stores open between requests, as the reference keeps
    // its environment: handles held here keep both stores (the configuration and the debug one
    // each generation reads) mapped, so each generation measures the reading and the text, not
    // mapping the stores afresh.
    kvdb_store *held = kvdb_open((s.dir + "/zfx_startup_config").c_str(), nullptr);
    kvdb_store *held_debug = kvdb_open((s.dir + "/zfx_debug").c_str(), nullptr);
    for (auto _ : state) zfx_ptxt_gen_func(nullptr, &request);
    state.SetItemsProcessed(int64_t(state.iterations() * s.records));
    state.counters["records"] = double(s.records);
    state.counters["text_bytes"] = double(bytes / state.iterations());
    kvdb_close(held_debug);
    kvdb_close(held);
}

void BM_BareLmdbScan(benchmark::State &state) {
    const Store &s = store(uint32_t(state.range(0)));
    LmdbScan lmdb(s.dir + "/zfx_startup_config");
    const uint8_t first = 0;
    for (auto _ : state) {
        const uint64_t sum = lmdb.scan(&first, 1, 0, [](const MDB_val &) { return true; });
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(int64_t(state.iterations() * s.records));
}

BENCHMARK(BM_WholeGeneration)->Arg(1000)->Arg(8000)->Arg(65536)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BareLmdbScan)->Arg(1000)->Arg(8000)->Arg(65536)->Unit(benchmark::kMillisecond);

}  // namespace
