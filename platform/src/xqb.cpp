// The raw message transport over the endpoint, and the name-server client built on it.
#include "platform/xqb.h"

#include <cerrno>
#include <cstring>

#include "byte_order.hpp"
#include "endpoint_impl.hpp"
#include "platform/dir.h"

namespace {

using plat::load_be32;
using plat::store_be32;

void hold(xqb_msg *held, plat_msg *msg) {
    plat_msg_free(held->msg);
    held->msg = msg;
}

}  // namespace

extern "C" {

int32_t xqb_send(plat_endpoint *ep, uint32_t node, uint32_t sap, uint32_t opcode,
                 const void *payload, uint32_t length, xqb_msg *held, uint32_t flags,
                 const xqb_send_opts *opts) {
    if (ep == nullptr || (payload == nullptr && length != 0)) {
        errno = EINVAL;
        return -1;
    }
    // The copy the caller keeps is made before anything leaves, so that a send never happens
    // whose token the caller could not read.
    plat_msg *kept = nullptr;
    if (held != nullptr) {
        const plat_msg_info info{0, opcode, node, sap, 0, 0, 0};
        kept = plat_msg_new(&info, payload, length);
        if (kept == nullptr) {
            errno = ENOMEM;
            return -1;
        }
    }
    plat_call call{.op = PLAT_OP_RAW_SEND,
                   .opcode = opcode,
                   .node = node,
                   .sap = sap,
                   .opt_b = flags,
                   .want_reply = opts != nullptr && opts->request != 0,
                   .payload = length != 0 ? payload : nullptr,
                   .length = length};
    plat_answer answer;
    const int32_t r = plat::endpoint_call(ep, call, answer);
    if (r < 0) {
        const int err = errno;
        plat_msg_free(kept);
        errno = err;
        return r;
    }
    if (kept != nullptr) {
        plat::msg_set_token(kept, call.token);
        hold(held, kept);
    }
    return r;
}

uint32_t xqb_rr_token_get(const xqb_msg *msg) {
    const plat_msg_info *info = msg != nullptr ? plat_msg_info_get(msg->msg) : nullptr;
    return info != nullptr ? info->token : 0;
}

int32_t xqb_recv(plat_endpoint *ep, xqb_msg *held, const xqb_recv_opts *opts) {
    if (held == nullptr || opts == nullptr) {
        errno = EINVAL;
        return -1;
    }
    hold(held, nullptr);
    const uint32_t token = opts->select == XQB_SELECT_TOKEN ? opts->token : 0;
    plat_msg *msg = nullptr;
    const int32_t r = plat::endpoint_recv(ep, token, opts->wait, &msg);
    held->msg = r == 0 ? msg : nullptr;
    return r;
}

void *xqb_payload_get(xqb_msg *msg, uint32_t *length) {
    return plat_msg_payload(msg != nullptr ? msg->msg : nullptr, length);
}

void xqb_drop(plat_endpoint *, xqb_msg *msg) {
    if (msg != nullptr) hold(msg, nullptr);
}

// ---- name-server client ----------------------------------------------------------------------

int32_t dir_send_get_entry_given_portname(plat_endpoint *ep, uint32_t word1, uint32_t word2,
                                          const dir_query *query, xqb_msg *held) {
    if (ep == nullptr || query == nullptr || held == nullptr) return DIR_ERR_INVALID;
    uint8_t req[DIR_REQUEST_SIZE] = {};
    store_be32(req, word1);
    store_be32(req + 4, word2);
    store_be32(req + 8, query->scope);
    req[12] = uint8_t(query->attributes >> 8);
    req[13] = uint8_t(query->attributes);
    req[14] = query->flags;
    const xqb_send_opts opts{.request = 1};
    return xqb_send(ep, DIR_NODE, DIR_SAP, DIR_OP_GET_ENTRY_BY_PORTNAME, req, sizeof req, held, 0,
                    &opts) < 0
               ? DIR_ERR_SEND
               : 0;
}

int32_t dir_parse_get_entry_status(xqb_msg *reply, uint32_t *count, uint32_t *entry_length,
                                   dir_entry_ref *ref) {
    if (reply == nullptr) return DIR_ERR_INVALID;
    uint32_t len;
    const auto *p = static_cast<const uint8_t *>(xqb_payload_get(reply, &len));
    if (len < 4) return DIR_ERR_MALFORMED;
    if (const uint32_t status = load_be32(p)) return int32_t(status);
    if (len < DIR_REPLY_HEADER_SIZE) return DIR_ERR_MALFORMED;
    const uint32_t n = load_be32(p + 4), size = load_be32(p + 8);
    if (n == 0) return DIR_ERR_NOT_FOUND;
    if (size < DIR_ENTRY_SIZE || size > len - DIR_REPLY_HEADER_SIZE) return DIR_ERR_MALFORMED;
    if (count != nullptr) *count = n;
    if (entry_length != nullptr) *entry_length = size;
    if (ref != nullptr) *ref = dir_entry_ref{DIR_REPLY_HEADER_SIZE, size};
    return 0;
}

int32_t dir_parse_get_entry(xqb_msg *reply, const dir_entry_ref *ref, dir_entry *entry) {
    if (reply == nullptr || ref == nullptr || entry == nullptr) return DIR_ERR_INVALID;
    uint32_t len;
    const auto *p = static_cast<const uint8_t *>(xqb_payload_get(reply, &len));
    if (ref->length < DIR_ENTRY_SIZE || ref->offset > len || ref->length > len - ref->offset)
        return DIR_ERR_MALFORMED;
    std::memcpy(entry, p + ref->offset, sizeof *entry);
    entry->symbolic_name[DIR_SYMBOLIC_NAME_SIZE - 1] = '\0';
    return 0;
}

}  // extern "C"
