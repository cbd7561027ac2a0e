// Decoding a TLV-encoded device reply into name-server entries (checked in full, then filled)
// beside a reference that trusts the reply and fills in one bare pointer walk, with the same
// allocations. The ratio is the price of never reading past a reply.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/tlvbuf.h"
#include "zfx_service.h"

namespace {

// A reply of n devices with p pairs each.
std::vector<uint8_t> device_reply(uint32_t n, uint32_t p) {
    const uint32_t per = tlvbuf_size_get(ZFX_DEVICE_ENTRY_HEAD_SIZE) +
                         tlvbuf_size_get(ZFX_NS_BLOCK_SIZE) + tlvbuf_size_get(4) +
                         p * tlvbuf_size_get(8);
    std::vector<uint8_t> r(8 + 4 + size_t(n) * per, 0);
    const int32_t count = int32_t(n);
    std::memcpy(r.data(), &count, 4);
    uint8_t *a = r.data() + 8;
    const uint32_t cap = uint32_t(r.size() - 8);
    std::vector<uint8_t> head(ZFX_DEVICE_ENTRY_HEAD_SIZE, 1), block(ZFX_NS_BLOCK_SIZE, 2);
    for (uint32_t i = 0; i < n; ++i) {
        tlvbuf_add_tlv(a, cap, ZFX_TLV_DEVICE_ENTRY, uint16_t(head.size()), head.data(), 0);
        tlvbuf_add_tlv(a, cap, 1, uint16_t(block.size()), block.data(), 0);
        tlvbuf_add_tlv(a, cap, 2, 4, &p, 0);
        for (uint32_t k = 0; k < p; ++k) {
            const zfx_pv_vsan_pair pair{k + 1, i};
            tlvbuf_add_tlv(a, cap, 3, 8, &pair, 0);
        }
    }
    return r;
}

void release(zfx_device_ns_entry *e, int32_t n) {
    for (int32_t i = 0; i < n; ++i) std::free(e[i].pairs);
    std::free(e);
}

void BM_DecodeChecked(benchmark::State &state) {
    const std::vector<uint8_t> r = device_reply(uint32_t(state.range(0)), uint32_t(state.range(1)));
    for (auto _ : state) {
        zfx_device_ns_entry *e = nullptr;
        int32_t n = 0;
        zfx2_device_ns_entry_parse_checked(r.data(), uint32_t(r.size()), &e, &n);
        benchmark::DoNotOptimize(e);
        release(e, n);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_DecodeReference(benchmark::State &state) {
    const std::vector<uint8_t> r = device_reply(uint32_t(state.range(0)), uint32_t(state.range(1)));
    for (auto _ : state) {
        int32_t n;
        std::memcpy(&n, r.data(), 4);
        auto *e = static_cast<zfx_device_ns_entry *>(std::calloc(size_t(n), sizeof(zfx_device_ns_entry)));
        const uint8_t *p = r.data() + 12;
        auto next = [&p](uint16_t &len) {
            const uint8_t *v = p + 4;
            std::memcpy(&len, p + 2, 2);
            p += 4 + ((len + 3u) & ~3u);
            return v;
        };
        for (int32_t i = 0; i < n; ++i) {
            uint16_t len;
            next(len);
            std::memcpy(e[i].ns_block, next(len), ZFX_NS_BLOCK_SIZE);
            uint32_t pairs;
            std::memcpy(&pairs, next(len), 4);
            e[i].pairs = static_cast<zfx_pv_vsan_pair *>(std::calloc(pairs, 8));
            e[i].pair_count = pairs;
            for (uint32_t k = 0; k < pairs; ++k) std::memcpy(&e[i].pairs[k], next(len), 8);
        }
        benchmark::DoNotOptimize(e);
        release(e, n);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

BENCHMARK(BM_DecodeChecked)->Args({50, 0})->Args({50, 16})->Args({50, 256});
BENCHMARK(BM_DecodeReference)->Args({50, 0})->Args({50, 16})->Args({50, 256});

}  // namespace
