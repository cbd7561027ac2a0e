// Raw-message queries: native domain, proxy domain list, frame hand-over, and the name server's
// entry of a port name. Send, take the reply token, receive the reply that carries it, parse,
// drop.
#include <cerrno>

#include "zfx_internal.hpp"
#include "zfx_service.h"

namespace zfx {

namespace {

constexpr uint32_t kNsReplyWait = 5;  // the name server answers from another process

// The send step of both queries: a request to the feature's service whose reply is expected.
int32_t send_query(plat_endpoint *ep, uint32_t opcode, const void *request, uint32_t length,
                   xqb_msg *sent) {
    const xqb_send_opts opts{.request = 1};
    return xqb_send(ep, ZFX_NODE_REMOTE, ZFX_SAP, opcode, request, length, sent, 0, &opts) == -1
               ? ZFX_ERR_SEND
               : 0;
}

// Takes the token of the request in sent, drops the request and receives its reply into reply
// (which may be the same holder), again for as long as the receive is interrupted. 0, or the
// receive's negative result (-1 with errno).
int32_t receive_reply(plat_endpoint *ep, xqb_msg *sent, xqb_msg *reply, uint32_t wait) {
    const xqb_recv_opts opts{
        .select = XQB_SELECT_TOKEN, .wait = wait, .token = xqb_rr_token_get(sent)};
    xqb_drop(ep, sent);
    int32_t r;
    do {
        r = xqb_recv(ep, reply, &opts);
    } while (r == -1 && errno == EINTR);
    return r;
}

// The reply's payload when its status word is 0 and it holds need bytes; otherwise NULL and
// *status is the reply's status (host order) or ZFX_ERR_INVALID_ARG for a reply too short to read.
const uint8_t *reply_payload(xqb_msg *reply, uint32_t need, int32_t *status) {
    uint32_t len;
    const auto *p = static_cast<const uint8_t *>(xqb_payload_get(reply, &len));
    *status = p == nullptr || len < 4 ? ZFX_ERR_INVALID_ARG : int32_t(load_be32(p));
    if (*status == 0 && len < need) *status = ZFX_ERR_INVALID_ARG;
    return *status == 0 ? p : nullptr;
}

// The combined query: send with a local holder, receive into it, parse, drop.
template <typename Send, typename Parse>
int32_t ask(plat_endpoint *ep, Send send, Parse parse) {
    xqb_msg msg = XQB_MSG_EMPTY;
    int32_t r = send(&msg);
    if (r == 0) r = receive_reply(ep, &msg, &msg, 0);
    if (r == 0) r = parse(&msg);
    xqb_drop(ep, &msg);
    return r;
}

}  // namespace

}  // namespace zfx

using namespace zfx;

extern "C" {

int32_t zfx_send_get_native_domain(plat_endpoint *ep, uint32_t key1, uint32_t key2, xqb_msg *sent) {
    zfx_native_domain_request req;
    store_be32(&req.key1, key1);
    req.key2 = key2;
    return send_query(ep, ZFX_XQB_NATIVE_DOMAIN, &req, sizeof req, sent);
}

int32_t zfx_parse_get_native_domain(xqb_msg *reply, uint32_t *domain) {
    if (domain == nullptr) return ZFX_ERR_INVALID_ARG;
    int32_t r;
    const uint8_t *p = reply_payload(reply, ZFX_NATIVE_DOMAIN_REPLY_MIN, &r);
    if (p == nullptr) return r;
    *domain = p[offsetof(zfx_native_domain_reply, fc_addr) + 1];
    return 0;
}

int32_t zfx_get_native_domain(plat_endpoint *ep, uint32_t key1, uint32_t key2, uint32_t *domain) {
    if (domain == nullptr) return ZFX_ERR_INVALID_ARG;
    return ask(
        ep, [&](xqb_msg *m) { return zfx_send_get_native_domain(ep, key1, key2, m); },
        [&](xqb_msg *m) { return zfx_parse_get_native_domain(m, domain); });
}

int32_t zfx_send_get_proxy_domain_list(plat_endpoint *ep, uint32_t key, xqb_msg *sent) {
    uint32_t req;
    store_be32(&req, key);
    return send_query(ep, ZFX_XQB_PROXY_DOMAIN_LIST, &req, sizeof req, sent);
}

int32_t zfx_parse_get_proxy_domain_list(xqb_msg *reply, zfx_proxy_domain_list *list) {
    if (list == nullptr) return ZFX_ERR_INVALID_ARG;
    int32_t r;
    const uint8_t *p = reply_payload(reply, sizeof(zfx_proxy_domain_reply), &r);
    if (p == nullptr) return r;
    std::memcpy(list->domain_list, p + offsetof(zfx_proxy_domain_reply, domain_list),
                sizeof list->domain_list);
    list->value = load_be32(p + offsetof(zfx_proxy_domain_reply, value));
    return 0;
}

int32_t zfx_get_proxy_domain_list(plat_endpoint *ep, uint32_t key, zfx_proxy_domain_list *list) {
    if (list == nullptr) return ZFX_ERR_INVALID_ARG;
    return ask(
        ep, [&](xqb_msg *m) { return zfx_send_get_proxy_domain_list(ep, key, m); },
        [&](xqb_msg *m) { return zfx_parse_get_proxy_domain_list(m, list); });
}

int32_t zfx_forward_frame(plat_endpoint *ep, zfx_frame_record *frame) {
    if (frame == nullptr) return ZFX_ERR_INVALID_ARG;
    const uint32_t data_len = frame->data_len;
    if (data_len > UINT32_MAX - ZFX_FRAME_HEADER_SIZE) return ZFX_ERR_INVALID_VALUE;
    // The header words travel in network order; the caller gets its record back as it was.
    swap32_at(&frame->hdr[0]);
    swap32_at(&frame->hdr[1]);
    const int32_t r = xqb_send(ep, ZFX_NODE_REMOTE, ZFX_SAP, ZFX_XQB_FORWARD_FRAME, frame,
                               ZFX_FRAME_HEADER_SIZE + data_len, nullptr, 0, nullptr);
    const int32_t status = r == -1 ? errno_status() : 0;
    swap32_at(&frame->hdr[0]);
    swap32_at(&frame->hdr[1]);
    return status;
}

int32_t zfx_ns_get_entry_given_portname(plat_endpoint *ep, uint32_t word1, uint32_t word2,
                                        uint32_t scope, dir_entry *entry) {
    if (entry == nullptr) return ZFX_ERR_INVALID_ARG;
    const dir_query query{.scope = scope, .attributes = DIR_ATTR_ALL};
    xqb_msg sent = XQB_MSG_EMPTY, reply = XQB_MSG_EMPTY;
    int32_t r = dir_send_get_entry_given_portname(ep, word1, word2, &query, &sent);
    if (r == 0) r = receive_reply(ep, &sent, &reply, kNsReplyWait);
    dir_entry_ref ref{};
    uint32_t count, entry_len;
    if (r == 0) r = dir_parse_get_entry_status(&reply, &count, &entry_len, &ref);
    if (r == 0) r = dir_parse_get_entry(&reply, &ref, entry);
    xqb_drop(ep, &sent);
    xqb_drop(ep, &reply);
    return r;
}

}  // extern "C"
