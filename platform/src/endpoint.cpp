// Endpoints, their receive queues, and the in-process transport.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "endpoint_impl.hpp"

struct plat_msg {
    plat_msg_info info;
    plat_msg *next;  // receive-queue link
    uint32_t length;
    alignas(8) unsigned char payload[];
};

struct plat_endpoint {
    plat_transport transport;
    void *ctx;
    uint32_t last_token;
    uint32_t pending;
    plat_msg *head;
    plat_msg *tail;
};

namespace {

// The in-process transport hands every operation to its handler unchanged.
struct Inproc {
    plat_service_handler handler;
    void *ctx;
};

void inproc_call(void *ctx, plat_endpoint *, const plat_call *call, plat_answer *answer) {
    auto *in = static_cast<Inproc *>(ctx);
    in->handler(in->ctx, call, answer);
}

void inproc_close(void *ctx) { std::free(ctx); }

// What a receive for token takes: the message carrying it, or any message for token 0.
bool wanted(const plat_msg *m, uint32_t token) { return token == 0 || m->info.token == token; }

}  // namespace

namespace plat {

int32_t endpoint_call(plat_endpoint *ep, plat_call &call, plat_answer &answer) {
    answer = plat_answer{};
    const bool awaits_reply = call.op == PLAT_OP_SEND_REQUEST || call.op == PLAT_OP_RAW_SEND;
    if (awaits_reply) {
        if (++ep->last_token == 0) ++ep->last_token;  // 0 means "no token"
        call.token = ep->last_token;
    }
    ep->transport.call(ep->ctx, ep, &call, &answer);
    if (answer.result == -1) {
        errno = answer.err;
        return -1;
    }
    if (awaits_reply && answer.result == 0 && answer.reply != nullptr) {
        const plat_msg_info info{call.msg_type, call.opcode, call.node,          call.sap,
                                 call.tag,      call.token,  answer.reply_status};
        plat_msg *msg = plat_msg_new(&info, answer.reply, answer.reply_length);
        if (msg == nullptr) {  // the reply is lost as if the service had never answered
            errno = ENOMEM;
            return -1;
        }
        plat_endpoint_post(ep, msg);
    }
    return answer.result;
}

void msg_set_token(plat_msg *msg, uint32_t token) { msg->info.token = token; }

bool endpoint_has_message(const plat_endpoint *ep, uint32_t token) {
    for (const plat_msg *m = ep->head; m != nullptr; m = m->next)
        if (wanted(m, token)) return true;
    return false;
}

int32_t endpoint_recv(plat_endpoint *ep, uint32_t token, uint32_t wait, plat_msg **out) {
    if (ep == nullptr || out == nullptr) {
        errno = EINVAL;
        return -1;
    }
    plat_call call{.op = PLAT_OP_RECV, .timeout = wait, .token = token};
    plat_answer answer;
    const int32_t r = endpoint_call(ep, call, answer);
    if (r != 0) return r;
    plat_msg *prev = nullptr;
    for (plat_msg *m = ep->head; m != nullptr; prev = m, m = m->next) {
        if (!wanted(m, token)) continue;
        (prev != nullptr ? prev->next : ep->head) = m->next;
        if (ep->tail == m) ep->tail = prev;
        --ep->pending;
        m->next = nullptr;
        *out = m;
        return 0;
    }
    errno = EAGAIN;
    return -1;
}

}  // namespace plat

extern "C" {

plat_endpoint *plat_endpoint_open(const plat_transport *transport, void *ctx) {
    if (transport == nullptr || transport->call == nullptr) return nullptr;
    auto *ep = static_cast<plat_endpoint *>(std::calloc(1, sizeof(plat_endpoint)));
    if (ep == nullptr) return nullptr;
    ep->transport = *transport;
    ep->ctx = ctx;
    return ep;
}

plat_endpoint *plat_endpoint_open_inproc(plat_service_handler handler, void *ctx) {
    if (handler == nullptr) return nullptr;
    auto *in = static_cast<Inproc *>(std::malloc(sizeof(Inproc)));
    if (in == nullptr) return nullptr;
    *in = Inproc{handler, ctx};
    static const plat_transport inproc{inproc_call, inproc_close};
    plat_endpoint *ep = plat_endpoint_open(&inproc, in);
    if (ep == nullptr) std::free(in);
    return ep;
}

void plat_endpoint_close(plat_endpoint *ep) {
    if (ep == nullptr) return;
    for (plat_msg *m = ep->head; m != nullptr;) {
        plat_msg *next = m->next;
        plat_msg_free(m);
        m = next;
    }
    if (ep->transport.close != nullptr) ep->transport.close(ep->ctx);
    std::free(ep);
}

plat_msg *plat_msg_new(const plat_msg_info *info, const void *payload, uint32_t length) {
    if (info == nullptr || (payload == nullptr && length != 0)) return nullptr;
    auto *msg = static_cast<plat_msg *>(std::malloc(sizeof(plat_msg) + length));
    if (msg == nullptr) return nullptr;
    msg->info = *info;
    msg->next = nullptr;
    msg->length = length;
    if (length != 0) std::memcpy(msg->payload, payload, length);
    return msg;
}

void plat_msg_free(plat_msg *msg) { std::free(msg); }

const plat_msg_info *plat_msg_info_get(const plat_msg *msg) {
    return msg != nullptr ? &msg->info : nullptr;
}

void *plat_msg_payload(plat_msg *msg, uint32_t *length) {
    const uint32_t n = msg != nullptr ? msg->length : 0;
    if (length != nullptr) *length = n;
    return n != 0 ? msg->payload : nullptr;
}

int32_t plat_endpoint_post(plat_endpoint *ep, plat_msg *msg) {
    if (ep == nullptr || msg == nullptr) {
        errno = EINVAL;
        return -1;
    }
    msg->next = nullptr;
    if (ep->tail != nullptr)
        ep->tail->next = msg;
    else
        ep->head = msg;
    ep->tail = msg;
    ++ep->pending;
    return 0;
}

int32_t plat_endpoint_recv(plat_endpoint *ep, uint32_t token, plat_msg **out) {
    return plat::endpoint_recv(ep, token, 0, out);
}

uint32_t plat_endpoint_pending(const plat_endpoint *ep) { return ep != nullptr ? ep->pending : 0; }

}  // extern "C"
