// Zone, zoneset and member messages with arbitrary contents, as a caller might hand them over:
// the completeness checks, both conversions, and the senders. A conversion there and back restores
// every field it converts, except the first byte of an attribute block (zone type 9, zoneset type
// 3), which takes the value of the fourth on the first round and keeps it after; so the message
// after one round is a fixed point of further rounds and of the senders.
#include <vector>

#include "fake_service.hpp"
#include "fuzz_input.hpp"
#include "zfx_zone_msg.h"

using zfxfuzz::finding;

namespace {

template <typename Msg>
void exercise(zfxfuzz::Input &in, bool restores, uint32_t size, int32_t (*check)(const Msg *), void (*hton)(Msg *),
              void (*ntoh)(Msg *), uint32_t (*send)(plat_endpoint *, uint32_t, Msg *, const char *, uint32_t)) {
    // The message in a block of exactly its one-record size, so ASan sees any access past it.
    std::vector<uint8_t> bytes = in.bytes(size);
    bytes.resize(size);
    auto *msg = static_cast<Msg *>(std::malloc(size));
    std::memcpy(msg, bytes.data(), size);
    check(msg);
    hton(msg);
    ntoh(msg);
    const std::vector<uint8_t> once(reinterpret_cast<uint8_t *>(msg), reinterpret_cast<uint8_t *>(msg) + size);
    if (restores && once != bytes) finding("conversion does not restore the message");
    hton(msg);
    ntoh(msg);
    if (std::memcmp(msg, once.data(), size) != 0) finding("a second round changed the message");
    zfxtest::FakeService svc;
    send(svc.ep(), 3, msg, nullptr, 0);
    if (std::memcmp(msg, once.data(), size) != 0) finding("sender changed the caller's message");
    std::free(msg);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    zfxfuzz::Input in(data, size);
    switch (in.take<uint8_t>() % 3) {
    case 0:
        exercise<zfx_zone_member_msg>(in, true, zfx_get_size_one_zone_member_tlv(), zfx_do_sanity_for_zone_member_create,
                                      zfx_zone_member_tlv_hton, zfx_zone_member_tlv_ntoh,
                                      zfx_dlg_config_zone_member_tlv);
        break;
    case 1:
        exercise<zfx_zone_msg>(in, false, zfx_get_size_one_zone_tlv(), zfx_do_sanity_for_zone_create, zfx_zone_tlv_hton,
                               zfx_zone_tlv_ntoh, zfx_dlg_config_zone_tlv);
        break;
    default:
        exercise<zfx_zoneset_msg>(in, false, zfx_get_size_one_zoneset_tlv(), zfx_do_sanity_for_zoneset_create,
                                  zfx_zoneset_tlv_hton, zfx_zoneset_tlv_ntoh, zfx_dlg_config_zoneset_tlv);
        break;
    }
    return 0;
}
