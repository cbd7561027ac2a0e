// The way back from text to store: zfx-store load (the configuration text read, parsed into a
// fabric and written) and zfx-store synth (a synthetic fabric made and written through the same
// writer), against a bare LMDB write of exactly the records they write, in key order with
// MDB_APPEND in one transaction (the reference: the least any writer of those records must do).
// Sizes are named by their zone count, as in bench_whole_gen: 1k and 8k zones of 8 members, and
// 64k, the 8191 zones of 64 members, 128 zonesets, 256 topology and AFID entries, 128 service
// groups and 8192 persistent FCIDs of the largest store the tools are measured with (a 35 MB text).
// Each run writes a fresh store directory under the temporary directory ($TMPDIR: point it at
// /dev/shm to leave the disk out).
#include <benchmark/benchmark.h>
#include <lmdb.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "fabric.hpp"
#include "load.hpp"
#include "platform/ptxt.h"
#include "zfx_ascii_cfg.h"

namespace {

zfxtool::SynthParams synth_params(uint32_t size) {
    zfxtool::SynthParams p;
    if (size == 65536) {
        p.zones = 8191;
        p.members = 64;
        p.zonesets = 128;
        p.topology = p.afids = 256;
        p.groups = 128;
        p.pfcids = 8192;
    } else {
        p.zones = size;
        p.members = 8;
        p.zonesets = size / 64;
        p.topology = p.afids = size / 32;
        p.groups = size / 64;
        p.pfcids = size;
    }
    return p;
}

int32_t append_text(void *sink, void *, const char *text, uint32_t len) {
    static_cast<std::string *>(sink)->append(text, len);
    return 0;
}

// A size's fabric, its records as the store holds them (in key order) and its configuration
// text in a file, made once for the whole run.
struct Input {
    std::string dir;
    zfxtool::SynthParams params;
    std::map<std::string, std::string> records;  // key -> value, bytes as chars
    std::string text_file;
    size_t text_bytes = 0;

    explicit Input(uint32_t size) : params(synth_params(size)) {
        std::string tmpl = (std::filesystem::temp_directory_path() / "zfx-bench-XXXXXX").string();
        dir = mkdtemp(tmpl.data());
        const zfxtool::Fabric f = zfxtool::synth_fabric(params);
        for (const auto &[k, v] : zfxtool::config_records(f))  // the last of equal keys, as stored
            records[std::string(k.begin(), k.end())] = std::string(v.begin(), v.end());
        zfxtool::write_fabric(f, dir + "/source", dir + "/source", false);
        std::string text;
        const std::string prefix = dir + "/source";
        ptxt_request request{prefix.c_str(), prefix.c_str(), append_text, &text};
        zfx_ptxt_gen_func(nullptr, &request);
        text_bytes = text.size();
        text_file = dir + "/config.txt";
        std::FILE *out = std::fopen(text_file.c_str(), "wb");
        std::fwrite(text.data(), 1, text.size(), out);
        std::fclose(out);
    }
    ~Input() { std::filesystem::remove_all(dir); }
};

const Input &input(uint32_t size) {
    static std::map<uint32_t, std::unique_ptr<Input>> inputs;
    auto &in = inputs[size];
    if (!in) in = std::make_unique<Input>(size);
    return *in;
}

// Runs write once per iteration into a store directory of its own, removed outside the timing.
template <typename Write>
void each_into_fresh_store(benchmark::State &state, const Input &in, Write &&write) {
    const std::string target = in.dir + "/target";
    for (auto _ : state) {
        write(target);
        state.PauseTiming();
        std::filesystem::remove_all(target);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(int64_t(state.iterations() * in.records.size()));
    state.counters["records"] = double(in.records.size());
}

void BM_Load(benchmark::State &state) {
    const Input &in = input(uint32_t(state.range(0)));
    each_into_fresh_store(state, in, [&in, &state](const std::string &target) {
        zfxtool::Fabric f;
        std::string error;
        if (!zfxtool::load_file(in.text_file, f, error) || !zfxtool::write_fabric(f, target, target, false).empty())
            state.SkipWithError("the load failed");
    });
    state.counters["text_bytes"] = double(in.text_bytes);
}

// The parse alone: the text read into a fabric, nothing written.
void BM_LoadParse(benchmark::State &state) {
    const Input &in = input(uint32_t(state.range(0)));
    for (auto _ : state) {
        zfxtool::Fabric f;
        std::string error;
        if (!zfxtool::load_file(in.text_file, f, error)) state.SkipWithError("the parse failed");
        benchmark::DoNotOptimize(f.zones.data());
    }
    state.SetItemsProcessed(int64_t(state.iterations() * in.records.size()));
}

void BM_Synth(benchmark::State &state) {
    const Input &in = input(uint32_t(state.range(0)));
    each_into_fresh_store(state, in, [&in, &state](const std::string &target) {
        if (!zfxtool::write_fabric(zfxtool::synth_fabric(in.params), target, target, false).empty())
            state.SkipWithError("the write failed");
    });
}

void BM_BareLmdbWrite(benchmark::State &state) {
    const Input &in = input(uint32_t(state.range(0)));
    each_into_fresh_store(state, in, [&in, &state](const std::string &target) {
        const std::string location = zfxtool::config_location(target);
        std::filesystem::create_directories(location);
        MDB_env *env = nullptr;
        MDB_txn *txn = nullptr;
        MDB_dbi dbi = 0;
        int rc = mdb_env_create(&env);
        if (rc == 0) rc = mdb_env_set_mapsize(env, size_t(256) << 20);
        if (rc == 0) rc = mdb_env_open(env, location.c_str(), MDB_NOTLS, 0644);
        if (rc == 0) rc = mdb_txn_begin(env, nullptr, 0, &txn);
        if (rc == 0) rc = mdb_dbi_open(txn, nullptr, 0, &dbi);
        for (auto it = in.records.begin(); rc == 0 && it != in.records.end(); ++it) {
            MDB_val k{it->first.size(), const_cast<char *>(it->first.data())};
            MDB_val v{it->second.size(), const_cast<char *>(it->second.data())};
            rc = mdb_put(txn, dbi, &k, &v, MDB_APPEND);
        }
        if (rc == 0) rc = mdb_txn_commit(txn);
        else if (txn != nullptr) mdb_txn_abort(txn);
        mdb_env_close(env);
        if (rc != 0) state.SkipWithError(mdb_strerror(rc));
    });
}

BENCHMARK(BM_Load)->Arg(1000)->Arg(8000)->Arg(65536)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadParse)->Arg(1000)->Arg(8000)->Arg(65536)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Synth)->Arg(1000)->Arg(8000)->Arg(65536)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BareLmdbWrite)->Arg(1000)->Arg(8000)->Arg(65536)->Unit(benchmark::kMillisecond);

}  // namespace
