// The persistent FCID text on tables of n domain records and 10 x n FCID records (LMDB stores,
// as the feature's service writes them), against a reference that places the FCIDs as the plain
// walk does: a pass over the whole list under every domain record. The library's time should
// grow with n (n log n at worst); the reference's grows with n squared.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "platform/heapx.h"
#include "platform/kvdb.h"
#include "platform/ptxt.h"
#include "zfx_ascii_cfg.h"

namespace {

// A store of n domain records, each the only one of its (AFID, VSAN, domain), and 10 x n FCID
// records spread evenly over them, in a temporary directory removed at exit.
struct Store {
    std::string dir;
    kvdb_store *reader = nullptr;

    explicit Store(int n) {
        std::string tmpl = (std::filesystem::temp_directory_path() / "zfx-bench-XXXXXX").string();
        dir = mkdtemp(tmpl.data());
        const std::string loc = dir + "/zfx_startup_config";
        kvdb_store *w = kvdb_create(loc.c_str(), nullptr);
        kvdb_txn_begin(w);
        auto put = [&](zfx2_pfcid_key key, uint8_t domain, uint8_t area, uint8_t port) {
            zfx2_pfcid_value value{{0, domain, area, port}, 0};
            kvdb_datum k{&key, sizeof key}, v{&value, sizeof value};
            kvdb_put(w, &k, &v);
        };
        for (int i = 0; i < n; ++i) {
            zfx2_pfcid_key key;
            zfx2_pfcid_vdom_kvdb_key_init(&key);
            key.afid = uint16_t(1 + i % 4);
            key.vsan = uint32_t(1 + (i / 4) % 4000);
            key.id.domain.native_afid = uint16_t(i % 3);
            key.id.domain.native_vsan = uint32_t(i);
            put(key, uint8_t(1 + i / 16000), 0, 0);
        }
        for (int j = 0; j < 10 * n; ++j) {
            const int i = j % n;  // the domain record it stands under
            zfx2_pfcid_key key;
            zfx2_pfcid_vfcid_kvdb_key_init(&key);
            key.afid = uint16_t(1 + i % 4);
            key.vsan = uint32_t(1 + (i / 4) % 4000);
            const uint64_t wwn = 0x2000000000000000ull | uint64_t(j);
            for (int b = 0; b < 8; ++b) key.id.pwwn[b] = uint8_t(wwn >> (56 - 8 * b));
            put(key, uint8_t(1 + i / 16000), uint8_t(j >> 8), uint8_t(j));
        }
        kvdb_txn_commit(w);
        kvdb_close(w);
        reader = kvdb_open(loc.c_str(), nullptr);
    }
    ~Store() {
        kvdb_close(reader);
        std::filesystem::remove_all(dir);
    }

    // One store per size for the whole run: building the larger ones takes longer than measuring.
    static kvdb_store *of(int n) {
        static std::map<int, std::unique_ptr<Store>> stores;
        auto &s = stores[n];
        if (!s) s = std::make_unique<Store>(n);
        return s->reader;
    }
};

// A generation with the persistent FCID element declared, its text rendered and dropped at the end.
struct Generation {
    uint32_t handle = 0;
    Generation() {
        ptxt_hdl_init(&handle);
        ptxt_elem_add(handle, ZFX_PTXT_GROUP, ZFX_ELEM_PFCID, ZFX_PTXT_ELEM_KIND);
    }
    std::string text() const {
        char *t = nullptr;
        ptxt_render(handle, &t, nullptr);
        std::string out = t != nullptr ? t : "";
        free(t);
        return out;
    }
    ~Generation() { ptxt_hdl_release(handle); }
};

// The reference: the library's list and lines, but every domain record's FCIDs found by a pass
// over the whole list.
void reference_text(uint32_t handle, kvdb_store *store) {
    zfx2_pfcid_entry start{};
    start.kind = __builtin_bswap32(ZFX2_PFCID_KIND_DOMAIN);
    zfx2_pfcid_list *list = nullptr;
    uint32_t size = 0;
    zfx2_pfcid_get_next(store, &start, -1, &list, &size);
    if (list == nullptr) return;
    const uint32_t n = __builtin_bswap32(list->count);
    char line[128];
    uint32_t afid = 0, vsan = 0;
    for (uint32_t i = 0; i < n; ++i) {
        zfx2_pfcid_entry d, f;
        zfx2_pfcid_entry_byte_order_convert(&d, &list->entries[i], 1);
        if (d.kind != ZFX2_PFCID_KIND_DOMAIN) break;
        if (d.afid != afid || d.vsan != vsan) {
            afid = d.afid, vsan = d.vsan;
            snprintf(line, sizeof line, "zfx fcdomain database autonomous-fabric-num %d vsan %d\n", int(afid), int(vsan));
            ptxt_elem_str_add_indent(handle, ZFX_ELEM_PFCID, line, 0);
        }
        snprintf(line, sizeof line, "native-autonomous-fabric-num %d native-vsan %d domain %d\n",
                 int(d.id.domain.native_afid), int(d.id.domain.native_vsan), int(d.fcid[1]));
        ptxt_elem_str_add_indent(handle, ZFX_ELEM_PFCID, line, 1);
        for (uint32_t j = 0; j < n; ++j) {
            zfx2_pfcid_entry_byte_order_convert(&f, &list->entries[j], 1);
            if (f.kind != ZFX2_PFCID_KIND_FCID || f.afid != d.afid || f.vsan != d.vsan || f.fcid[1] != d.fcid[1]) continue;
            const uint8_t *w = f.id.pwwn;
            snprintf(line, sizeof line, "pwwn %02x:%02x:%02x:%02x:%02x:%02x:%02x:%02x fcid 0x%02x%02x%02x\n", w[0], w[1], w[2],
                     w[3], w[4], w[5], w[6], w[7], f.fcid[1], f.fcid[2], f.fcid[3]);
            ptxt_elem_str_add_indent(handle, ZFX_ELEM_PFCID, line, 2);
        }
    }
    heapx_free(list);
}

void BM_PfcidText(benchmark::State &state) {
    kvdb_store *store = Store::of(int(state.range(0)));
    for (auto _ : state) {
        Generation g;
        int32_t commit = 0;
        benchmark::DoNotOptimize(zfx2_pfcid_generate_ascii_config(g.handle, store, &commit));
    }
    state.SetComplexityN(state.range(0));
    state.SetItemsProcessed(state.iterations() * state.range(0) * 11);
}

void BM_ReferenceWalk(benchmark::State &state) {
    kvdb_store *store = Store::of(int(state.range(0)));
    {
        Generation lib, ref;
        int32_t commit = 0;
        zfx2_pfcid_generate_ascii_config(lib.handle, store, &commit);
        reference_text(ref.handle, store);
        // A comparison of different texts means nothing, and the smoke run must say so.
        if (lib.text() != ref.text()) {
            std::fprintf(stderr, "bench_pfcid: the library's text differs from the reference's (%d)\n", int(state.range(0)));
            std::exit(1);
        }
    }
    for (auto _ : state) {
        Generation g;
        reference_text(g.handle, store);
    }
    state.SetComplexityN(state.range(0));
    state.SetItemsProcessed(state.iterations() * state.range(0) * 11);
}

// The section with its lines formatted but refused by the text service (no generation is open
// under the handle): the library's own cost, without the platform's text builder.
void BM_PfcidTextDropped(benchmark::State &state) {
    kvdb_store *store = Store::of(int(state.range(0)));
    for (auto _ : state) {
        int32_t commit = 0;
        benchmark::DoNotOptimize(zfx2_pfcid_generate_ascii_config(0xFFFFFFF0u, store, &commit));
    }
    state.SetComplexityN(state.range(0));
    state.SetItemsProcessed(state.iterations() * state.range(0) * 11);
}

// The list alone: two walks of the store and the conversions.
void BM_PfcidList(benchmark::State &state) {
    kvdb_store *store = Store::of(int(state.range(0)));
    for (auto _ : state) {
        zfx2_pfcid_list *list = nullptr;
        uint32_t size = 0;
        zfx2_pfcid_get_next(store, nullptr, -1, &list, &size);
        benchmark::DoNotOptimize(list);
        heapx_free(list);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0) * 11);
}

BENCHMARK(BM_PfcidText)->Arg(1000)->Arg(3000)->Arg(10000)->Unit(benchmark::kMillisecond)->Complexity();
BENCHMARK(BM_PfcidTextDropped)->Arg(1000)->Arg(3000)->Arg(10000)->Unit(benchmark::kMillisecond)->Complexity();
BENCHMARK(BM_ReferenceWalk)->Arg(1000)->Arg(3000)->Unit(benchmark::kMillisecond)->Complexity();
BENCHMARK(BM_PfcidList)->Arg(1000)->Arg(3000)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace
