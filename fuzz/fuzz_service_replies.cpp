// Arbitrary replies of the feature's service to every request whose reply the library reads: the
// enabled and NAT queries (waited and split), the named values, the zone, zoneset and member
// message and data queries, the active zoneset, the next-hop VSAN and a device's per-VSAN value.
// Whatever the bytes, a function answers with its documented result and never reads past the
// reply; a failed status query gives its all-zero substitute, a failed data query leaves the
// caller's record untouched, and every name it writes is terminated.
#include <cstring>
#include <vector>

#include "fake_service.hpp"
#include "fuzz_input.hpp"
#include "zfx_service.h"
#include "zfx_zone_msg.h"

using zfxtest::Answer;

namespace {

// A received reply message holding payload, as the split parse steps get it.
plat_msg *reply_message(const std::vector<uint8_t> &payload, int32_t status) {
    plat_msg_info info{};
    info.msg_type = ZFX_MSG_STATUS;
    info.status = status;
    return plat_msg_new(&info, payload.empty() ? nullptr : payload.data(), uint32_t(payload.size()));
}

void enabled(int32_t (*query)(plat_endpoint *, zfx_status_reply **), plat_endpoint *ep) {
    zfx_status_reply *r = nullptr;
    const int32_t st = query(ep, &r);
    if (r == nullptr) zfxfuzz::finding("no reply and no substitute");
    static const uint8_t zeros[ZFX_STATUS_REPLY_SUBSTITUTE_SIZE] = {};
    if (st != 0 && std::memcmp(r, zeros, sizeof zeros) != 0) zfxfuzz::finding("a substitute that is not all zero");
    std::free(r);
}

bool terminated(const char *name) { return std::memchr(name, '\0', ZFX_NAME_SIZE) != nullptr; }

// A data query, asked twice of the same reply: once into a record of arbitrary bytes, which a
// failure must leave as it was, and once into a zeroed one, whose name is terminated whatever the
// reply held.
template <typename Info>
void data_query(plat_endpoint *ep, uint32_t (*query)(plat_endpoint *, uint32_t, Info *, uint16_t),
                char (Info::*name)[ZFX_NAME_SIZE]) {
    Info info, before;
    std::memset(&info, 0xA5, sizeof info);
    info.id = 1;
    before = info;
    const uint32_t st = query(ep, 1, &info, 0);
    if (st != 0 && std::memcmp(&info, &before, sizeof info) != 0) zfxfuzz::finding("a failed query changed the record");
    Info clean{};
    clean.id = 1;
    if (query(ep, 1, &clean, 0) != st) zfxfuzz::finding("the same reply answered otherwise");
    if (!terminated(clean.*name)) zfxfuzz::finding("an unterminated name");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    zfxfuzz::Input in(data, size);
    const uint8_t which = in.take<uint8_t>();
    const int32_t result = in.take<uint8_t>() < 32 ? int32_t(in.take<uint32_t>()) : 0;
    const std::vector<uint8_t> reply = in.rest();

    zfxtest::FakeService svc;
    svc.answer(Answer::reply_with(reply, result));
    svc.answer(Answer::reply_with(reply, result));  // for the queries asked twice
    switch (which % 17) {
    case 0:
        enabled(zfx_is_zfx_enabled, svc.ep());
        break;
    case 1:
        enabled(zfx_is_zfx_enabled_ext, svc.ep());
        break;
    case 2: {
        plat_msg *m = reply_message(reply, result == -1 ? 0 : result);
        zfx_status_reply *r = nullptr;
        zfx_is_zfx_enabled_parse(m, &r);
        uint32_t flag;
        zfx_is_zfx_nat_enabled_in_vsan_parse(m, &flag);
        plat_msg_free(m);
        break;
    }
    case 3: {
        zfx_info_record *r = zfx_dlg_get_info(svc.ep(), 7);
        if (r != nullptr && reply.size() < sizeof *r) zfxfuzz::finding("a short reply taken as a record");
        std::free(r);
        break;
    }
    case 4:
        zfx_dlg_get_info_int(svc.ep(), 7);
        break;
    case 5: {
        zfx_time_value t, before;
        std::memset(&t, 0xA5, sizeof t);
        before = t;
        zfx_dlg_get_info_activate_time(svc.ep(), &t);
        if (reply.size() < 12 && std::memcmp(&t, &before, sizeof t) != 0)
            zfxfuzz::finding("a short reply set the time");
        break;
    }
    case 6:
        if (std::memchr(zfx_dlg_get_info_char(svc.ep(), 7), '\0', 256) == nullptr)
            zfxfuzz::finding("an unterminated value text");
        break;
    case 7:
        data_query(svc.ep(), zfx_dlg_get_zone_data, &zfx_zone_info::name);
        break;
    case 8:
        data_query(svc.ep(), zfx_dlg_get_zoneset_data, &zfx_zoneset_info::name);
        break;
    case 9:
        data_query(svc.ep(), zfx_dlg_get_zone_member_data, &zfx_zone_member_info::device_alias);
        break;
    case 10: {
        char name[ZFX_NAME_SIZE] = {};
        uint8_t zones[1028];
        zfx_get_active_zoneset(svc.ep(), name, zones);
        if (!terminated(name)) zfxfuzz::finding("an unterminated zoneset name");
        break;
    }
    case 11: {
        void *r = nullptr;
        zfx_dlg_get_zoneset_status(svc.ep(), 1, 3, &r);
        std::free(r);
        break;
    }
    case 12: {
        zfx_zoneset_msg *r = nullptr;
        zfx_dlg_get_zoneset(svc.ep(), 1, "zs", 1, &r, 1, 0);
        std::free(r);
        break;
    }
    case 13: {
        zfx_zone_msg *r = nullptr;
        zfx_dlg_get_zone(svc.ep(), 1, nullptr, 1, &r, 1, 0);
        std::free(r);
        break;
    }
    case 14: {
        zfx_zone_member_msg *r = nullptr;
        zfx_dlg_get_zone_member(svc.ep(), 1, "z", 1, 2, &r, 1, 0);
        std::free(r);
        break;
    }
    case 15: {
        uint32_t hop = 0;
        zfx_get_next_hop_vsan(svc.ep(), 7, 0x010203, &hop);
        if (result == 0 && reply.size() < 4 && hop != 7) zfxfuzz::finding("a short reply changed the next hop");
        break;
    }
    default: {
        void *r = nullptr;
        zfx2_dlg_pv_vsan_entry_get(svc.ep(), 1, 2, 3, &r);
        std::free(r);
        break;
    }
    }
    return 0;
}
