// Zone, zoneset and member messages with arbitrary contents, as a caller might hand them over or
// build them element by element with the add functions: the completeness checks, both
// conversions, and the senders. A conversion there and back restores every field it converts,
// except the first byte of an attribute block (zone type 9, zoneset type 3), which takes the value
// of the fourth on the first round and keeps it after; so the message after one round is a fixed
// point of further rounds and of the senders. A message built by the add functions is never
// malformed, and an add that is refused leaves the message as it was.
#include <vector>

#include "fake_service.hpp"
#include "fuzz_input.hpp"
#include "zfx_zone_msg.h"

using zfxfuzz::finding;

namespace {

template <typename Msg>
struct Kind {
    uint32_t (*size)();
    int32_t (*check)(const Msg *);
    void (*hton)(Msg *);
    void (*ntoh)(Msg *);
    uint32_t (*send)(plat_endpoint *, uint32_t, Msg *, const char *, uint32_t);
    Msg *(*make)();
    int32_t (*add)(void *, uint16_t, uint16_t, const void *);
    bool restores;  // no attribute block whose first byte a round changes
};

const Kind<zfx_zone_member_msg> kMember{zfx_get_size_one_zone_member_tlv,
                                        zfx_do_sanity_for_zone_member_create,
                                        zfx_zone_member_tlv_hton,
                                        zfx_zone_member_tlv_ntoh,
                                        zfx_dlg_config_zone_member_tlv,
                                        zfx_dlg_malloc_one_zone_member_and_all_attribs,
                                        zfx_dlg_zone_member_add_tlv,
                                        true};
const Kind<zfx_zone_msg> kZone{zfx_get_size_one_zone_tlv,
                               zfx_do_sanity_for_zone_create,
                               zfx_zone_tlv_hton,
                               zfx_zone_tlv_ntoh,
                               zfx_dlg_config_zone_tlv,
                               zfx_dlg_malloc_one_zone_and_all_attribs,
                               zfx_dlg_zone_add_tlv,
                               false};
const Kind<zfx_zoneset_msg> kZoneset{zfx_get_size_one_zoneset_tlv,
                                     zfx_do_sanity_for_zoneset_create,
                                     zfx_zoneset_tlv_hton,
                                     zfx_zoneset_tlv_ntoh,
                                     zfx_dlg_config_zoneset_tlv,
                                     zfx_dlg_malloc_one_zoneset_and_all_attribs,
                                     zfx_dlg_zoneset_add_tlv,
                                     false};

// The message's bytes, straight from the input or built with the add functions.
template <typename Msg>
std::vector<uint8_t> message(zfxfuzz::Input &in, const Kind<Msg> &k, bool built) {
    const uint32_t size = k.size();
    if (!built) {
        std::vector<uint8_t> bytes = in.bytes(size);
        bytes.resize(size);
        return bytes;
    }
    Msg *msg = k.make();
    auto *raw = reinterpret_cast<uint8_t *>(msg);
    for (int n = 0; n < 24 && in.left() > 0; ++n) {
        const auto type = in.take<uint16_t>();
        const auto length = uint16_t(in.take<uint16_t>() % 1100);
        std::vector<uint8_t> value = in.bytes(length);
        value.resize(length);
        const std::vector<uint8_t> before(raw, raw + size);
        const int32_t r = k.add(raw + 8, type, length, value.data());
        if (r != 0 && (r != ZFX_ERR_INVALID_ARG || std::memcmp(raw, before.data(), size) != 0))
            finding("a refused add changed the message");
    }
    if (k.check(msg) == ZFX_ERR_INVALID_ARG) finding("the add functions built a malformed message");
    std::vector<uint8_t> bytes(raw, raw + size);
    std::free(msg);
    return bytes;
}

template <typename Msg>
void exercise(zfxfuzz::Input &in, const Kind<Msg> &k, bool built) {
    const std::vector<uint8_t> bytes = message(in, k, built);
    const uint32_t size = k.size();
    // The message in a block of exactly its one-record size, so ASan sees any access past it.
    auto *msg = static_cast<Msg *>(std::malloc(size));
    std::memcpy(msg, bytes.data(), size);
    k.check(msg);
    if (std::memcmp(msg, bytes.data(), size) != 0) finding("a completeness check changed the message");
    k.hton(msg);
    k.ntoh(msg);
    const std::vector<uint8_t> once(reinterpret_cast<uint8_t *>(msg), reinterpret_cast<uint8_t *>(msg) + size);
    if (k.restores && once != bytes) finding("conversion does not restore the message");
    k.hton(msg);
    k.ntoh(msg);
    if (std::memcmp(msg, once.data(), size) != 0) finding("a second round changed the message");
    zfxtest::FakeService svc;
    k.send(svc.ep(), 3, msg, nullptr, 0);
    if (std::memcmp(msg, once.data(), size) != 0) finding("sender changed the caller's message");
    std::free(msg);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    zfxfuzz::Input in(data, size);
    // 0-2: a message as the input gives it; 3-5: one built with the add functions.
    const uint8_t which = in.take<uint8_t>() % 6;
    const bool built = which >= 3;
    switch (which % 3) {
        case 0: exercise(in, kMember, built); break;
        case 1: exercise(in, kZone, built); break;
        default: exercise(in, kZoneset, built); break;
    }
    return 0;
}
