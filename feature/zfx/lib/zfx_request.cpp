// The request frame, the split send/parse steps and the debug lines of zfx_request.hpp.
#include "zfx_request.hpp"

namespace zfx {

int32_t exchange(plat_endpoint *ep, const Exchange &x, Block *reply, uint32_t *length_after) {
    uint32_t length = x.length;
    void **slot = reply != nullptr ? reply->slot() : nullptr;
    const int32_t r = x.node != 0
                          ? dlg_remote_req_resp(x.msg_type, x.opcode, x.request, slot, &length,
                                                x.opt_a, x.opt_b, ZFX_SAP, x.node, ep, x.timeout)
                          : dlg_req_resp(x.msg_type, x.opcode, x.request, slot, &length, x.opt_a,
                                         x.opt_b, ZFX_SAP, ep, x.timeout);
    if (reply != nullptr) reply->len = length;
    if (length_after != nullptr) *length_after = length;
    return map_failure(r, x.on_failure);
}

int32_t map_failure(int32_t r, OnFailure how) {
    switch (how) {
        case OnFailure::keep:
            break;
        case OnFailure::errno_code:
            return r == -1 ? errno_status() : r;
        case OnFailure::errno_negative:
            return r < 0 ? errno_status() : r;
        case OnFailure::channel_code:
            return r == -1 ? ZFX_ERR_CHANNEL : r;
    }
    return r;
}

int32_t send_async(plat_endpoint *ep, uint32_t msg_type, uint32_t opcode, const void *request,
                   uint32_t length, uint32_t tag, const char *opt_a, OnFailure on_failure) {
    return map_failure(dlg_send_request(msg_type, opcode, request, length, opt_a, 0, ZFX_NODE_ASYNC,
                                        ZFX_SAP, ep, tag),
                       on_failure);
}

int32_t parse_async(plat_msg *msg, void **payload, uint32_t *length) {
    *payload = nullptr;
    *length = 0;
    return map_failure(dlg_parse_response(msg, payload, length), OnFailure::channel_code);
}

void cli_debug(const char *fmt, ...) {
    if (debug_cli == 0) return;
    va_list ap;
    va_start(ap, fmt);
    std::vprintf(fmt, ap);
    va_end(ap);
}

}  // namespace zfx
