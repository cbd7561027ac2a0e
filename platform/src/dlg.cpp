// The request/response channel: requests travel through the endpoint's transport unchanged.
#include "platform/dlg.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "endpoint_impl.hpp"

namespace {

// What every channel operation tells the transport.
plat_call channel_call(plat_op op, uint32_t msg_type, uint32_t opcode, const void *request,
                       uint32_t length, const char *opt_a, uint32_t opt_b, uint32_t sap,
                       uint32_t node) {
    return plat_call{.op = op,
                     .msg_type = msg_type,
                     .opcode = opcode,
                     .node = node,
                     .sap = sap,
                     .opt_a = opt_a,
                     .opt_b = opt_b,
                     .payload = length != 0 ? request : nullptr,
                     .length = length};
}

// The waited request of dlg_req_resp and dlg_remote_req_resp.
int32_t request_and_wait(plat_op op, uint32_t msg_type, uint32_t opcode, const void *request,
                         void **reply, uint32_t *length, const char *opt_a, uint32_t opt_b,
                         uint32_t sap, uint32_t node, plat_endpoint *ep, uint32_t timeout) {
    if (reply != nullptr) *reply = nullptr;
    if (ep == nullptr || length == nullptr || (request == nullptr && *length != 0)) {
        errno = EINVAL;
        return -1;
    }
    plat_call call = channel_call(op, msg_type, opcode, request, *length, opt_a, opt_b, sap, node);
    call.timeout = timeout;
    call.want_reply = reply != nullptr;
    plat_answer answer;
    const int32_t r = plat::endpoint_call(ep, call, answer);
    if (r == -1) return -1;
    const uint32_t reply_length = answer.reply != nullptr ? answer.reply_length : 0;
    if (reply != nullptr && answer.reply != nullptr) {
        // At least one byte, so that an empty reply is still a reply the caller can free.
        void *copy = std::malloc(reply_length != 0 ? reply_length : 1);
        if (copy == nullptr) {
            errno = ENOMEM;
            return -1;
        }
        if (reply_length != 0) std::memcpy(copy, answer.reply, reply_length);
        *reply = copy;
    }
    if (r == 0) *length = reply_length;
    return r;
}

}  // namespace

extern "C" {

int32_t dlg_req_resp(uint32_t msg_type, uint32_t opcode, const void *request, void **reply,
                     uint32_t *length, const char *opt_a, uint32_t opt_b, uint32_t sap,
                     plat_endpoint *ep, uint32_t timeout) {
    return request_and_wait(PLAT_OP_REQ_RESP, msg_type, opcode, request, reply, length, opt_a,
                            opt_b, sap, 0, ep, timeout);
}

int32_t dlg_remote_req_resp(uint32_t msg_type, uint32_t opcode, const void *request, void **reply,
                            uint32_t *length, const char *opt_a, uint32_t opt_b, uint32_t sap,
                            uint32_t node, plat_endpoint *ep, uint32_t timeout) {
    return request_and_wait(PLAT_OP_REMOTE, msg_type, opcode, request, reply, length, opt_a, opt_b,
                            sap, node, ep, timeout);
}

int32_t dlg_send_request(uint32_t msg_type, uint32_t opcode, const void *request, uint32_t length,
                         const char *opt_a, uint32_t opt_b, uint32_t node, uint32_t sap,
                         plat_endpoint *ep, uint32_t tag) {
    if (ep == nullptr || (request == nullptr && length != 0)) {
        errno = EINVAL;
        return -1;
    }
    plat_call call = channel_call(PLAT_OP_SEND_REQUEST, msg_type, opcode, request, length, opt_a,
                                  opt_b, sap, node);
    call.tag = tag;
    plat_answer answer;
    return plat::endpoint_call(ep, call, answer);
}

int32_t dlg_parse_response(plat_msg *msg, void **payload, uint32_t *length) {
    const plat_msg_info *info = plat_msg_info_get(msg);
    if (info == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (info->status != 0) return info->status;
    uint32_t n;
    void *p = plat_msg_payload(msg, &n);
    if (payload != nullptr) *payload = p;
    if (length != nullptr) *length = n;
    return 0;
}

}  // extern "C"
