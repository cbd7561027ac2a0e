// Arbitrary replies of the feature's service to every request whose reply the library reads: the
// enabled and NAT queries (waited and split), the named values, the zone, zoneset and member
// message and data queries, the active zoneset, the next-hop VSAN and a device's per-VSAN value.
// Whatever the bytes, a function answers with its documented result and never reads past the
// reply.
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    zfxfuzz::Input in(data, size);
    const uint8_t which = in.take<uint8_t>();
    const int32_t result = in.take<uint8_t>() < 32 ? int32_t(in.take<uint32_t>()) : 0;
    const std::vector<uint8_t> reply = in.rest();

    zfxtest::FakeService svc;
    svc.answer(Answer::reply_with(reply, result));
    switch (which % 17) {
    case 0: {
        zfx_status_reply *r = nullptr;
        zfx_is_zfx_enabled(svc.ep(), &r);
        std::free(r);
        break;
    }
    case 1: {
        zfx_status_reply *r = nullptr;
        zfx_is_zfx_enabled_ext(svc.ep(), &r);
        std::free(r);
        break;
    }
    case 2: {
        plat_msg *m = reply_message(reply, result == -1 ? 0 : result);
        zfx_status_reply *r = nullptr;
        zfx_is_zfx_enabled_parse(m, &r);
        uint32_t flag;
        zfx_is_zfx_nat_enabled_in_vsan_parse(m, &flag);
        plat_msg_free(m);
        break;
    }
    case 3:
        std::free(zfx_dlg_get_info(svc.ep(), 7));
        break;
    case 4:
        zfx_dlg_get_info_int(svc.ep(), 7);
        break;
    case 5: {
        zfx_time_value t{};
        zfx_dlg_get_info_activate_time(svc.ep(), &t);
        break;
    }
    case 6:
        zfx_dlg_get_info_char(svc.ep(), 7);
        break;
    case 7: {
        zfx_zone_info info{};
        info.id = 1;
        zfx_dlg_get_zone_data(svc.ep(), 1, &info, 0);
        break;
    }
    case 8: {
        zfx_zoneset_info info{};
        info.id = 1;
        zfx_dlg_get_zoneset_data(svc.ep(), 1, &info, 0);
        break;
    }
    case 9: {
        zfx_zone_member_info info{};
        info.id = 1;
        zfx_dlg_get_zone_member_data(svc.ep(), 1, &info, 0);
        break;
    }
    case 10: {
        char name[ZFX_NAME_SIZE];
        uint8_t zones[1028];
        zfx_get_active_zoneset(svc.ep(), name, zones);
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
