#include "fake_service.hpp"

#include <cstdio>
#include <stdexcept>

namespace zfxtest {

FakeService::FakeService() : ep_(plat_endpoint_open_inproc(&FakeService::handle, this)) {
    if (ep_ == nullptr) throw std::runtime_error("plat_endpoint_open_inproc");
}

FakeService::~FakeService() { plat_endpoint_close(ep_); }

void FakeService::handle(void *ctx, const plat_call *call, plat_answer *answer) {
    auto *self = static_cast<FakeService *>(ctx);
    if (call->op == PLAT_OP_RECV) {
        if (self->next_fault_ < self->recv_faults_.size()) {
            const Answer &f = self->recv_faults_[self->next_fault_++];
            answer->result = f.result;
            answer->err = f.err;
        }
        return;
    }
    const auto *p = static_cast<const uint8_t *>(call->payload);
    self->sent_.push_back(
        Sent{call->op, call->msg_type, call->opcode, call->node, call->sap,
             call->opt_a != nullptr ? std::optional<std::string>(call->opt_a) : std::nullopt,
             call->opt_b, call->tag, call->timeout, call->token, call->want_reply != 0,
             p != nullptr ? Bytes(p, p + call->length) : Bytes{}});
    self->current_ = self->next_ < self->script_.size() ? self->script_[self->next_++] : Answer{};
    const Answer &a = self->current_;
    answer->result = a.result;
    answer->err = a.err;
    answer->reply_status = a.reply_status;
    if (a.reply) {
        static const uint8_t empty = 0;
        answer->reply = a.reply->empty() ? &empty : a.reply->data();
        answer->reply_length = uint32_t(a.reply->size());
    }
}

Bytes be32(uint32_t v) { return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}; }
Bytes le32(uint32_t v) { return {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)}; }
Bytes le16(uint16_t v) { return {uint8_t(v), uint8_t(v >> 8)}; }
Bytes zeros(size_t n) { return Bytes(n, 0); }
Bytes str0(const std::string &s) { return Bytes(s.c_str(), s.c_str() + s.size() + 1); }

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &b : parts) out.insert(out.end(), b.begin(), b.end());
    return out;
}

Bytes bytes_of(const void *p, size_t n) {
    const auto *b = static_cast<const uint8_t *>(p);
    return n != 0 ? Bytes(b, b + n) : Bytes{};
}

Bytes tlv(uint16_t type, const Bytes &value) {
    Bytes out = cat({le16(type), le16(uint16_t(value.size())), value});
    out.resize(out.size() + (4 - value.size() % 4) % 4, 0);
    return out;
}

Bytes tlv_array(std::initializer_list<Bytes> elements) {
    Bytes out = le32(uint32_t(elements.size()));
    for (const Bytes &e : elements) out.insert(out.end(), e.begin(), e.end());
    return out;
}

std::string hex(const Bytes &b) {
    std::string s;
    char buf[4];
    for (uint8_t c : b) {
        std::snprintf(buf, sizeof buf, "%02x ", c);
        s += buf;
    }
    return s;
}

}  // namespace zfxtest
