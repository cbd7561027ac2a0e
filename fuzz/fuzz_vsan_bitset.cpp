// VSAN sets from arbitrary bytes: the range text, the chunked writer with any buffer size, the run
// iterators, and decompression of arbitrary compressed forms.
#include <string>
#include <vector>

#include "fuzz_input.hpp"
#include "platform/bits.h"
#include "vsan_bitset.h"

using zfxfuzz::finding;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    zfxfuzz::Input in(data, size);
    vsan_bitset set;
    vsan_bitset_init(&set);
    const std::vector<uint8_t> bits = in.bytes(VSAN_BITSET_BYTES);
    if (!bits.empty()) std::memcpy(set.bits, bits.data(), bits.size());
    const uint32_t chunk = in.take<uint16_t>() % 64u + 1;

    std::vector<char> whole(VSAN_BITSET_TEXT_SIZE);
    const int32_t n = vsan_bitset_sprintf(whole.data(), &set);
    if (n < 0 || n > VSAN_BITSET_TEXT_MAX || int32_t(std::strlen(whole.data())) != n) finding("whole text length");

    // Chunks, each in a buffer of exactly its size (ASan sees any write past it), joined again.
    std::string joined;
    uint8_t done = 0;
    for (int call = 0; !done && call < 20000; ++call) {
        std::vector<char> buf(chunk);
        const int32_t m = vsan_bitset_snprintf(buf.data(), chunk, &set, call == 0, &done);
        if (m < 0 || uint32_t(m) >= chunk || std::strlen(buf.data()) != size_t(m)) finding("chunk length");
        if (m == 0 && !done) break;  // the widest item does not fit this size
        joined += (joined.empty() ? "" : ",") + std::string(buf.data());
    }
    if (done && joined != whole.data()) finding("chunks differ from the whole text");
    if (chunk >= 10 && !done) finding("a buffer of 10 holds every item");

    int32_t runs_total = 0;
    vsan_bitset_range r = VSAN_BITSET_RANGE_START;
    while (vsan_bitset_next_range(&set, &r) == 0) runs_total += r.last - r.first + 1;
    if (runs_total != vsan_bitset_bitcount(&set)) finding("runs do not cover the set");

    // Arbitrary compressed input: refused or decoded, never outside the destination.
    const std::vector<uint8_t> packed = in.rest();
    vsan_bitset out;
    vsan_bitset_init(&out);
    if (vsan_bitset_uncompress(packed.data(), uint32_t(packed.size()), &out) == 0) {
        std::vector<uint8_t> again(8192);
        const int32_t len = vsan_bitset_compress(&out, again.data(), uint32_t(again.size()));
        vsan_bitset back;
        vsan_bitset_init(&back);
        if (len < 0 || vsan_bitset_uncompress(again.data(), uint32_t(len), &back) != 0 ||
            !vsan_bitset_equal(&back, &out))
            finding("compression round trip");
    }
    return 0;
}
