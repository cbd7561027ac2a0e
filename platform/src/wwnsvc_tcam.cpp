// The WWN service and the interface-family query, as tables that tests and tools fill.
#include <array>
#include <cstring>
#include <map>
#include <utility>

#include "platform/tcam.h"
#include "platform/wwnsvc.h"

namespace {

using Wwn = std::array<uint8_t, 8>;

std::map<std::pair<Wwn, uint32_t>, Wwn> &vsan_wwns() {
    static std::map<std::pair<Wwn, uint32_t>, Wwn> table;
    return table;
}

struct Interface {
    int32_t family_a;
    int32_t status;
};

std::map<uint32_t, Interface> &interfaces() {
    static std::map<uint32_t, Interface> table;
    return table;
}

Wwn wwn_of(const void *p) {
    Wwn w;
    std::memcpy(w.data(), p, 8);
    return w;
}

// Lowest VSAN of a length-prefixed VSAN bit field, or -1.
int32_t lowest_vsan(const void *vsans) {
    uint32_t len;
    std::memcpy(&len, vsans, 4);
    const auto *bits = static_cast<const uint8_t *>(vsans) + 4;
    for (uint32_t i = 0; i < len && i < 512; ++i)
        for (int b = 0; b < 8; ++b)
            if (bits[i] & (0x80 >> b)) return int32_t(i * 8 + b);
    return -1;
}

}  // namespace

extern "C" {

int32_t wwnsvc_get_vsan_wwn(const void *switch_wwn, const void *vsans, void *reply) {
    if (switch_wwn == nullptr || vsans == nullptr || reply == nullptr) return WWNSVC_ERR_INVALID;
    const int32_t vsan = lowest_vsan(vsans);
    if (vsan < 0) return WWNSVC_ERR_INVALID;
    auto it = vsan_wwns().find({wwn_of(switch_wwn), uint32_t(vsan)});
    if (it == vsan_wwns().end()) return WWNSVC_ERR_NOT_FOUND;
    auto *out = static_cast<uint8_t *>(reply);
    std::memcpy(out, switch_wwn, 8);
    std::memcpy(out + 8, it->second.data(), 8);
    return 0;
}

void wwnsvc_table_set(const uint8_t switch_wwn[8], uint32_t vsan, const uint8_t vsan_wwn[8]) {
    vsan_wwns()[{wwn_of(switch_wwn), vsan}] = wwn_of(vsan_wwn);
}

void wwnsvc_table_clear(void) { vsan_wwns().clear(); }

int32_t tcam_is_family_a_interface(uint32_t ifindex, uint32_t *flag) {
    if (flag == nullptr) return TCAM_ERR_INVALID;
    auto it = interfaces().find(ifindex);
    if (it == interfaces().end()) return TCAM_ERR_NO_INTERFACE;
    if (it->second.status != 0) return it->second.status;
    *flag = it->second.family_a ? 1 : 0;
    return 0;
}

void tcam_interface_set(uint32_t ifindex, int32_t family_a, int32_t status) {
    interfaces()[ifindex] = Interface{family_a, status};
}

void tcam_table_clear(void) { interfaces().clear(); }

}  // extern "C"
