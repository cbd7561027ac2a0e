// Validation of TLV arrays against the bytes they have (zfx_tlv_walk.hpp).
#include "zfx_tlv_walk.hpp"

namespace zfx {

bool tlv_array_valid(const void *array, size_t avail) {
    // The stepwise walk holds the rules; walked to its end, it says whether every element lies
    // within the bytes.
    TlvWalk walk(const_cast<void *>(array), avail, TlvStepwise{});
    for (Tlv e; walk.next(e);) {
    }
    return walk.ok();
}

}  // namespace zfx
