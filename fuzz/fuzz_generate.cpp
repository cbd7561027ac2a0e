// The whole configuration-text generation over a store filled from the input: arbitrary keys
// (their first byte drawn from the tables the generators read) and arbitrary values, in the
// configuration store and the debug store. Whatever the store holds, the generation ends, reads
// nothing outside the store's values and leaks nothing.
#include <cstdlib>
#include <vector>

#include "fuzz_input.hpp"
#include "platform/kvdb.h"
#include "platform/ptxt.h"
#include "zfx_ascii_cfg.h"

namespace {

// First key bytes of the feature's tables; the last entry stands for the debug store.
constexpr uint8_t kTables[] = {0x65, 0x66, 0x67, 0x68, 0x69, 0x6B, 0x6C, 0x6D, 0x6E, 0x70,
                               0x71, 0x72, 0x73, 0x74, 0x75, 0x76, 0x79, 0x7A, 0x00};
constexpr char kConfig[] = "mem:fuzz/zfx_startup_config";
constexpr char kDebug[] = "mem:fuzz/zfx_debug";

void fill(zfxfuzz::Input &in) {
    kvdb_destroy(kConfig);
    kvdb_destroy(kDebug);
    kvdb_store *config = kvdb_create(kConfig, nullptr);
    kvdb_store *debug = kvdb_create(kDebug, nullptr);
    while (in.left() > 0) {
        const uint8_t table = kTables[in.take<uint8_t>() % sizeof kTables];
        std::vector<uint8_t> key = in.bytes(in.take<uint8_t>() % 24);
        std::vector<uint8_t> value = in.bytes(in.take<uint16_t>() % 2048);
        kvdb_store *target = config;
        if (table == 0x00) {
            target = debug;  // the debug level record's key is eight bytes: words 2 and 0
            key.resize(8);
        } else {
            key.insert(key.begin(), table);
        }
        kvdb_datum k{key.data(), uint32_t(key.size())};
        kvdb_datum v{value.empty() ? nullptr : value.data(), uint32_t(value.size())};
        kvdb_put(target, &k, &v);
    }
    kvdb_close(config);
    kvdb_close(debug);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    zfxfuzz::Input in(data, size);
    fill(in);
    kvdb_store *config = kvdb_open(kConfig, nullptr);
    kvdb_store *debug = kvdb_open(kDebug, nullptr);
    uint32_t handle = 0;
    ptxt_hdl_init(&handle);
    alignas(zfx_gen_request) uint8_t raw[sizeof(zfx_gen_request) + 2 * sizeof(zfx_gen_store_entry)] = {};
    auto *req = reinterpret_cast<zfx_gen_request *>(raw);
    req->handle = handle;
    req->selector = ZFX_GEN_SELECT_GENERATE;
    req->count = 2;
    req->entries[0] = {ZFX_GEN_STORE_CONFIG, config, 0};
    req->entries[1] = {ZFX_GEN_STORE_DEBUG, debug, 0};
    zfx_ascii_cfg_generate(req);
    char *text = nullptr;
    ptxt_render(handle, &text, nullptr);
    std::free(text);
    ptxt_hdl_release(handle);
    kvdb_close(config);
    kvdb_close(debug);
    return 0;
}
