#include "fake_service.hpp"

#include <cstdio>

#include <stdexcept>

namespace zfxtest {

FakeService::FakeService(std::initializer_list<Answer> script)
    : ep_(plat_endpoint_open_inproc(&FakeService::handle, this)), script_(script) {
    if (ep_ == nullptr) throw std::runtime_error("plat_endpoint_open_inproc");
}

FakeService::~FakeService() { plat_endpoint_close(ep_); }

void FakeService::handle(void *ctx, const plat_call *call, plat_answer *answer) {
    auto *self = static_cast<FakeService *>(ctx);
    const auto *p = static_cast<const uint8_t *>(call->payload);
    Sent seen{call->op, call->msg_type, call->opcode, call->node, call->sap,
              call->opt_a != nullptr ? std::optional<std::string>(call->opt_a) : std::nullopt,
              call->opt_b, call->tag, call->timeout, call->token, call->want_reply != 0,
              p != nullptr ? Bytes(p, p + call->length) : Bytes{}};
    if (call->op == PLAT_OP_RECV) {
        self->receives_.push_back(std::move(seen));
        if (self->next_fault_ < self->recv_faults_.size()) {
            const Answer &f = self->recv_faults_[self->next_fault_++];
            answer->result = f.result;
            answer->err = f.err;
        }
        return;
    }
    self->sent_.push_back(std::move(seen));
    self->current_ = self->next_ < self->script_.size() ? self->script_[self->next_++] : Answer{};
    *answer = self->current_.to_plat();
}

plat_answer Answer::to_plat() const {
    static const uint8_t empty = 0;
    return {result, err, reply ? (reply->empty() ? &empty : reply->data()) : nullptr, reply ? uint32_t(reply->size()) : 0,
            reply_status};
}

std::string Sent::summary() const {
    static const char *const kOps[] = {"?", "req", "remote", "send", "recv", "raw"};
    std::string s = kOps[op >= PLAT_OP_REQ_RESP && op <= PLAT_OP_RAW_SEND ? op : 0];
    char buf[32];
    const auto put = [&](const char *format, uint32_t v) { std::snprintf(buf, sizeof buf, format, v), s += buf; };
    put(" %u", msg_type), put("/%u", opcode);
    if (node != 0) put(" @%x", node);
    if (sap != 110) put(" sap=%u", sap);
    if (op == PLAT_OP_REQ_RESP || op == PLAT_OP_REMOTE) put(" t%u", timeout);
    if (tag != 0) put(" tag%u", tag);
    if (want_reply) s += " reply";
    if (opt_a) s.append(" a=").append(*opt_a);
    if (opt_b != 0) put(" b%u", opt_b);
    return s;
}

}  // namespace zfxtest
