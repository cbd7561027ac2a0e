// TLV walking, message conversion and a whole data query, each beside a straightforward
// reference in the same binary:
//  - the platform walker over a long array against a bare pointer walk;
//  - the member conversion (array validated, then walked) against hand-written swaps at known
//    offsets;
//  - a zone data query through the in-process channel against the channel call alone with a
//    prebuilt request and a memcpy of the reply's fields (the floor of any request).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/dlg.h"
#include "platform/tlvbuf.h"
#include "zfx_zone_msg.h"

namespace {

std::vector<uint8_t> long_array(uint32_t n) {
    std::vector<uint8_t> a(4 + size_t(n) * 8);
    std::memset(a.data(), 0, 4);
    for (uint32_t i = 0; i < n; ++i) {
        const uint32_t v = i;
        tlvbuf_add_tlv(a.data(), uint32_t(a.size()), uint16_t(i), 4, &v, 0);
    }
    return a;
}

void BM_WalkPlatform(benchmark::State &state) {
    std::vector<uint8_t> a = long_array(uint32_t(state.range(0)));
    for (auto _ : state) {
        uint32_t cursor = 0, sum = 0;
        uint16_t type, len;
        void *value;
        while (tlvbuf_get_next_tlv(a.data(), &type, &len, &value, 0, &cursor) == 0)
            sum += type + len;
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_WalkReference(benchmark::State &state) {
    std::vector<uint8_t> a = long_array(uint32_t(state.range(0)));
    for (auto _ : state) {
        uint32_t count, sum = 0;
        std::memcpy(&count, a.data(), 4);
        const uint8_t *p = a.data() + 4;
        for (uint32_t i = 0; i < count; ++i) {
            uint16_t type, len;
            std::memcpy(&type, p, 2);
            std::memcpy(&len, p + 2, 2);
            sum += type + len;
            p += 4 + ((len + 3u) & ~3u);
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

zfx_zone_member_msg *full_member() {
    zfx_zone_member_msg *m = zfx_dlg_malloc_one_zone_member_and_all_attribs();
    const uint8_t wwn[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    const uint32_t vsan = 10, afid = 7, type = 240;
    zfx_dlg_zone_member_add_tlv(&m->parent_id, ZFX_TLV_MEMBER_PWWN, 8, wwn);
    zfx_dlg_zone_member_add_tlv(&m->parent_id, ZFX_TLV_MEMBER_VSAN, 4, &vsan);
    zfx_dlg_zone_member_add_tlv(&m->parent_id, ZFX_TLV_MEMBER_AFID, 4, &afid);
    zfx_dlg_zone_member_add_tlv(&m->parent_id, ZFX_TLV_MEMBER_TYPE, 4, &type);
    zfx_dlg_zone_member_add_tlv(&m->parent_id, ZFX_TLV_MEMBER_LUN, 8, wwn);
    return m;
}

void BM_MemberConvert(benchmark::State &state) {
    zfx_zone_member_msg *m = full_member();
    for (auto _ : state) {
        zfx_zone_member_tlv_hton(m);
        benchmark::DoNotOptimize(m);
    }
    std::free(m);
}

void swap_at(uint8_t *p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    v = __builtin_bswap32(v);
    std::memcpy(p, &v, 4);
}

void BM_MemberConvertReference(benchmark::State &state) {
    zfx_zone_member_msg *m = full_member();
    auto *b = reinterpret_cast<uint8_t *>(m);
    for (auto _ : state) {
        // The layout is known: header, ids, then WWN (12 bytes), VSAN, AFID and type values.
        swap_at(b);
        swap_at(b + 8);
        swap_at(b + 12);
        swap_at(b + 20 + 12 + 4);
        swap_at(b + 20 + 20 + 4);
        swap_at(b + 20 + 28 + 4);
        benchmark::DoNotOptimize(m);
    }
    std::free(m);
}

struct Canned {
    std::vector<uint8_t> reply;
};

void answer(void *ctx, const plat_call *call, plat_answer *a) {
    if (call->op == PLAT_OP_RECV) return;
    const auto *c = static_cast<const Canned *>(ctx);
    a->reply = c->reply.data();
    a->reply_length = uint32_t(c->reply.size());
}

Canned zone_reply() {
    Canned c;
    c.reply.resize(12 + 4 + 72 + 264 + 8 + 8 + 12);
    uint8_t *p = c.reply.data();
    const uint32_t one = __builtin_bswap32(1), id = __builtin_bswap32(5), count = 5;
    std::memcpy(p, &one, 4);
    std::memcpy(p + 8, &id, 4);
    std::memcpy(p + 12, &count, 4);
    uint8_t *e = p + 16;
    auto put = [&](uint16_t type, uint16_t len) {
        std::memcpy(e, &type, 2);
        std::memcpy(e + 2, &len, 2);
        std::memset(e + 4, 'a', len);
        e += 4 + ((len + 3u) & ~3u);
    };
    put(ZFX_TLV_ZONE_NAME, 68);
    put(ZFX_TLV_ZONE_MEMBERS, 260);
    put(ZFX_TLV_ZONE_QOS, 4);
    put(ZFX_TLV_ZONE_READ_ONLY, 4);
    put(ZFX_TLV_ZONE_ATTR, 8);
    return c;
}

void BM_ZoneDataQuery(benchmark::State &state) {
    Canned c = zone_reply();
    plat_endpoint *ep = plat_endpoint_open_inproc(answer, &c);
    zfx_zone_info info{};
    for (auto _ : state) {
        info.id = 5;
        benchmark::DoNotOptimize(zfx_dlg_get_zone_data(ep, 1, &info, 0));
    }
    plat_endpoint_close(ep);
}

void BM_ZoneDataQueryReference(benchmark::State &state) {
    Canned c = zone_reply();
    plat_endpoint *ep = plat_endpoint_open_inproc(answer, &c);
    uint8_t request[16] = {0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 5, 0, 0, 0, 0};
    zfx_zone_info info{};
    for (auto _ : state) {
        void *reply = nullptr;
        uint32_t len = sizeof request;
        dlg_req_resp(ZFX_MSG_ZONE, 1, request, &reply, &len, nullptr, 0, ZFX_SAP, ep, 10);
        std::memcpy(info.name, static_cast<uint8_t *>(reply) + 20, 64);
        std::memcpy(info.members, static_cast<uint8_t *>(reply) + 92, 260);
        std::free(reply);
        benchmark::DoNotOptimize(info);
    }
    plat_endpoint_close(ep);
}

}  // namespace

BENCHMARK(BM_WalkPlatform)->Arg(64)->Arg(4096);
BENCHMARK(BM_WalkReference)->Arg(64)->Arg(4096);
BENCHMARK(BM_MemberConvert);
BENCHMARK(BM_MemberConvertReference);
BENCHMARK(BM_ZoneDataQuery);
BENCHMARK(BM_ZoneDataQueryReference);
