/*
 * dlg.h - the request/response channel to the switch's services, carried by the caller's
 * endpoint (endpoint.h). The channel adds nothing to the bytes: what the caller passes reaches
 * the endpoint's transport exactly, and the reply bytes come back exactly.
 *
 * Results: 0 success; -1 failure with errno set (EINVAL for a missing endpoint or length
 * argument, ENOMEM when the reply cannot be copied, or the errno the transport answered); any
 * other value is a status of the service or of the channel, handed to the caller as it stands.
 */
#ifndef PLAT_DLG_H
#define PLAT_DLG_H

#include "platform/endpoint.h"

PLAT_EXTERN_C_BEGIN

/*
 * Sends the request (*length bytes) and waits at most timeout for the reply.
 *  reply: when not NULL, set to NULL on entry; then, whenever the service answers with reply
 *    bytes and the result is not -1 (so also beside a status), a newly allocated copy of them
 *    (standard allocator; the caller frees it with free). When NULL, no reply is wanted and any
 *    reply bytes are dropped.
 *  length: in: the request's length; out on result 0: the reply's length (0 when no reply came),
 *    whether or not the reply was wanted; left alone on any other result.
 *  opt_a, opt_b: the channel's options, passed through (opt_a a service name or NULL).
 */
PLAT_API int32_t dlg_req_resp(uint32_t msg_type, uint32_t opcode, const void *request, void **reply,
                              uint32_t *length, const char *opt_a, uint32_t opt_b, uint32_t sap,
                              plat_endpoint *ep, uint32_t timeout);

/* dlg_req_resp to a given node address. */
PLAT_API int32_t dlg_remote_req_resp(uint32_t msg_type, uint32_t opcode, const void *request,
                                     void **reply, uint32_t *length, const char *opt_a,
                                     uint32_t opt_b, uint32_t sap, uint32_t node, plat_endpoint *ep,
                                     uint32_t timeout);

/* Sends the request (length bytes) and returns at once. The reply, when the service gives one,
 * is queued on the endpoint as a message carrying the tag, the send's reply token and the
 * reply's status; the caller takes it with plat_endpoint_recv and reads it with
 * dlg_parse_response. */
PLAT_API int32_t dlg_send_request(uint32_t msg_type, uint32_t opcode, const void *request,
                                  uint32_t length, const char *opt_a, uint32_t opt_b, uint32_t node,
                                  uint32_t sap, plat_endpoint *ep, uint32_t tag);

/* For a received reply message: a nonzero status of the reply is returned as it stands (payload
 * and length are not written); on 0 *payload points at the payload inside the message (NULL when
 * empty; it belongs to the message) and *length holds its length. payload and length may be
 * NULL. -1 (errno EINVAL) for a NULL message. */
PLAT_API int32_t dlg_parse_response(plat_msg *msg, void **payload, uint32_t *length);

PLAT_EXTERN_C_END

#endif /* PLAT_DLG_H */
