// Frame headers that every reader of the socket transport refuses, for the suites of the
// transport (a service that sends them) and of zfxd (a client that sends them): a good header
// with one word set to a bad value, and the decode result it gets.
#pragma once

#include <algorithm>

#include "bytes.hpp"
#include "platform/frame.h"

namespace zfxtest {

// A frame's header as the stream carries it.
inline Bytes encoded(const plat_frame &f) {
    Bytes b(PLAT_FRAME_HEADER_SIZE);
    plat_frame_encode(&f, b.data());
    return b;
}

// A header the reader accepts: option A of 3 bytes and a payload of 5 follow it.
inline Bytes frame_header(uint16_t kind) {
    return encoded({.kind = kind, .seq = 1, .op = PLAT_OP_REQ_RESP, .flags = 3, .opt_a_length = 3, .payload_length = 5});
}

// b with the big-endian word at offset at set to value.
inline Bytes with_word(Bytes b, size_t at, uint32_t value) {
    const Bytes word = be32(value);
    std::copy(word.begin(), word.end(), b.begin() + ptrdiff_t(at));
    return b;
}

struct FrameFault {
    const char *what;
    size_t at;
    uint32_t value;
    int32_t result;
};

inline constexpr FrameFault kFrameFaults[] = {
    {"magic", 0, 0x5A584632u, PLAT_FRAME_BAD_MAGIC},
    {"version", 4, 2u << 16 | PLAT_FRAME_ANSWER, PLAT_FRAME_BAD_VERSION},
    {"kind 0", 4, 1u << 16, PLAT_FRAME_BAD_KIND},
    {"kind 3", 4, 1u << 16 | 3, PLAT_FRAME_BAD_KIND},
    {"op 0", 12, 0, PLAT_FRAME_BAD_OP},
    {"op receive", 12, PLAT_OP_RECV, PLAT_FRAME_BAD_OP},
    {"op 6", 12, 6, PLAT_FRAME_BAD_OP},
    {"want_reply 2", 48, 2, PLAT_FRAME_BAD_OP},
    {"unknown flag", 64, 7, PLAT_FRAME_BAD_FLAGS},
    {"payload without its flag", 64, PLAT_FRAME_HAS_OPT_A, PLAT_FRAME_BAD_FLAGS},
    {"option A without its flag", 64, PLAT_FRAME_HAS_PAYLOAD, PLAT_FRAME_BAD_FLAGS},
    {"reserved word", 76, 1, PLAT_FRAME_BAD_FLAGS},
    {"option A too long", 68, PLAT_FRAME_OPT_A_MAX + 1, PLAT_FRAME_TOO_LONG},
    {"payload too long", 72, PLAT_FRAME_PAYLOAD_MAX + 1, PLAT_FRAME_TOO_LONG},
};

}  // namespace zfxtest
