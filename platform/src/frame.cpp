// Frames of the socket transport: the fixed header, written and checked in one place.
#include "platform/frame.h"

#include <cstring>

#include "byte_order.hpp"

namespace {

using plat::load_be32;
using plat::store_be32;

// The header's 32-bit words from offset 8 on, in their order, as members of plat_frame: one
// table serves the writer and the reader.
template <typename F>
void each_word(F &&f) {
    f(8, &plat_frame::seq);
    f(12, &plat_frame::op);
    f(16, &plat_frame::msg_type);
    f(20, &plat_frame::opcode);
    f(24, &plat_frame::node);
    f(28, &plat_frame::sap);
    f(32, &plat_frame::opt_b);
    f(36, &plat_frame::tag);
    f(40, &plat_frame::timeout);
    f(44, &plat_frame::token);
    f(48, &plat_frame::want_reply);
    f(64, &plat_frame::flags);
    f(68, &plat_frame::opt_a_length);
    f(72, &plat_frame::payload_length);
}

template <typename F>
void each_signed(F &&f) {
    f(52, &plat_frame::result);
    f(56, &plat_frame::err);
    f(60, &plat_frame::reply_status);
}

}  // namespace

extern "C" {

void plat_frame_encode(const plat_frame *frame, void *out) {
    auto *p = static_cast<uint8_t *>(out);
    std::memset(p, 0, PLAT_FRAME_HEADER_SIZE);
    store_be32(p, PLAT_FRAME_MAGIC);
    store_be32(p + 4, PLAT_FRAME_VERSION << 16 | frame->kind);
    each_word([&](size_t at, uint32_t plat_frame::*field) { store_be32(p + at, frame->*field); });
    each_signed([&](size_t at, int32_t plat_frame::*field) { store_be32(p + at, uint32_t(frame->*field)); });
}

int32_t plat_frame_decode(const void *buf, size_t len, uint32_t max_payload, plat_frame *frame) {
    if (len < PLAT_FRAME_HEADER_SIZE) return PLAT_FRAME_SHORT;
    const auto *p = static_cast<const uint8_t *>(buf);
    if (load_be32(p) != PLAT_FRAME_MAGIC) return PLAT_FRAME_BAD_MAGIC;
    if (load_be32(p + 4) >> 16 != PLAT_FRAME_VERSION) return PLAT_FRAME_BAD_VERSION;
    plat_frame f{};
    f.kind = uint16_t(load_be32(p + 4));
    if (f.kind != PLAT_FRAME_CALL && f.kind != PLAT_FRAME_ANSWER) return PLAT_FRAME_BAD_KIND;
    each_word([&](size_t at, uint32_t plat_frame::*field) { f.*field = load_be32(p + at); });
    each_signed([&](size_t at, int32_t plat_frame::*field) { f.*field = int32_t(load_be32(p + at)); });
    // A receive is the endpoint's own business: it never crosses the wire.
    if (f.op < PLAT_OP_REQ_RESP || f.op > PLAT_OP_RAW_SEND || f.op == PLAT_OP_RECV || f.want_reply > 1)
        return PLAT_FRAME_BAD_OP;
    const uint32_t known = PLAT_FRAME_HAS_PAYLOAD | PLAT_FRAME_HAS_OPT_A;
    if ((f.flags & ~known) != 0 || load_be32(p + 76) != 0 ||
        ((f.flags & PLAT_FRAME_HAS_PAYLOAD) == 0 && f.payload_length != 0) ||
        ((f.flags & PLAT_FRAME_HAS_OPT_A) == 0 && f.opt_a_length != 0))
        return PLAT_FRAME_BAD_FLAGS;
    if (max_payload > PLAT_FRAME_PAYLOAD_MAX) max_payload = PLAT_FRAME_PAYLOAD_MAX;
    if (f.opt_a_length > PLAT_FRAME_OPT_A_MAX || f.payload_length > max_payload) return PLAT_FRAME_TOO_LONG;
    *frame = f;
    return PLAT_FRAME_OK;
}

size_t plat_frame_size(const plat_frame *frame) {
    return PLAT_FRAME_HEADER_SIZE + size_t(frame->opt_a_length) + size_t(frame->payload_length);
}

plat_frame plat_frame_for_call(const plat_call *call, uint32_t seq) {
    plat_frame f{};
    f.kind = PLAT_FRAME_CALL;
    f.seq = seq;
    f.op = uint32_t(call->op);
    f.msg_type = call->msg_type;
    f.opcode = call->opcode;
    f.node = call->node;
    f.sap = call->sap;
    f.opt_b = call->opt_b;
    f.tag = call->tag;
    f.timeout = call->timeout;
    f.token = call->token;
    f.want_reply = call->want_reply != 0;
    if (call->opt_a != nullptr) {
        f.flags |= PLAT_FRAME_HAS_OPT_A;
        f.opt_a_length = uint32_t(strnlen(call->opt_a, PLAT_FRAME_OPT_A_MAX));
    }
    if (call->payload != nullptr || call->length != 0) {
        f.flags |= PLAT_FRAME_HAS_PAYLOAD;
        f.payload_length = call->length;
    }
    return f;
}

plat_frame plat_frame_for_answer(const plat_frame *call, const plat_answer *answer) {
    plat_frame f = *call;
    f.kind = PLAT_FRAME_ANSWER;
    f.result = answer->result;
    f.err = answer->err;
    f.reply_status = answer->reply_status;
    f.flags = answer->reply != nullptr ? PLAT_FRAME_HAS_PAYLOAD : 0;
    f.opt_a_length = 0;
    f.payload_length = answer->reply != nullptr ? answer->reply_length : 0;
    return f;
}

const char *plat_frame_error_text(int32_t result) {
    switch (result) {
        case PLAT_FRAME_OK: return "a whole header";
        case PLAT_FRAME_SHORT: return "a short header";
        case PLAT_FRAME_BAD_MAGIC: return "not a frame (bad magic)";
        case PLAT_FRAME_BAD_VERSION: return "a frame of another version";
        case PLAT_FRAME_BAD_KIND: return "an unknown frame kind";
        case PLAT_FRAME_BAD_OP: return "an unknown operation";
        case PLAT_FRAME_BAD_FLAGS: return "flags or reserved bytes that contradict the lengths";
        case PLAT_FRAME_TOO_LONG: return "a frame longer than allowed";
        default: return "an unknown decode result";
    }
}

}  // extern "C"
