/*
 * xqb.h - the raw message transport: messages with an opcode (no channel message type), sent
 * through the caller's endpoint (endpoint.h) and answered, when they are requests, by a reply
 * that carries the request's reply token.
 *
 * A request goes out with xqb_send into a message holder; the caller reads its reply token with
 * xqb_rr_token_get and drops the sent message; then xqb_recv with receive options that name the
 * token takes the reply into a holder; xqb_payload_get reads it and xqb_drop releases it.
 *
 *     xqb_msg msg = XQB_MSG_EMPTY;
 *     xqb_send_opts so = {.request = 1};
 *     if (xqb_send(ep, node, sap, opcode, &req, sizeof req, &msg, 0, &so) == -1) ...;
 *     xqb_recv_opts ro = {.select = XQB_SELECT_TOKEN, .token = xqb_rr_token_get(&msg)};
 *     xqb_drop(ep, &msg);
 *     while ((r = xqb_recv(ep, &msg, &ro)) == -1 && errno == EINTR) {}
 *     ... xqb_payload_get(&msg, &len) ...
 *     xqb_drop(ep, &msg);
 *
 * Over the endpoint's transport a send is the operation PLAT_OP_RAW_SEND: msg_type 0, the
 * opcode, node, sap, the payload bytes as given, opt_b the send's flags argument, want_reply the
 * send options' request word (0 without options); it gets a fresh reply token, and a reply the
 * transport answers with is queued on the endpoint under that token. A receive is PLAT_OP_RECV
 * with the token wanted and the options' wait in the call's timeout.
 *
 * Threads: as the endpoint, one thread at a time; a reply is selected only by its token.
 */
#ifndef PLAT_XQB_H
#define PLAT_XQB_H

#include "platform/endpoint.h"

PLAT_EXTERN_C_BEGIN

/* A message holder: empty (msg NULL), a sent request, or a received message. The holder owns
 * what it holds until xqb_drop. Not a wire record: its size is that of a pointer. */
typedef struct xqb_msg {
    plat_msg *msg;
} xqb_msg;

#define XQB_MSG_EMPTY \
    { NULL }

PLAT_STATIC_ASSERT(sizeof(xqb_msg) == sizeof(void *), "a holder is one pointer");

/* Send options (76 bytes). request = 1: the message is a request whose reply is expected
 * (transports may keep reply state for it); 0 or no options: a datagram. Every other byte 0. */
typedef struct xqb_send_opts {
    uint32_t request;
    uint8_t reserved[72];
} xqb_send_opts;

PLAT_STATIC_ASSERT(sizeof(xqb_send_opts) == 76, "send options are 76 bytes");

/* Receive options (40 bytes).
 *  select: XQB_SELECT_TOKEN (1) takes the message carrying token; XQB_SELECT_ANY (0) the first
 *          message queued, whatever it answers.
 *  flags:  0 (reserved).
 *  wait:   the longest wait in seconds a blocking transport may spend; 0 = its default. The
 *          in-process transport never blocks: a receive that finds nothing fails with EAGAIN.
 *  token:  the reply token wanted (xqb_rr_token_get of the sent request). */
#define XQB_SELECT_ANY 0u
#define XQB_SELECT_TOKEN 1u

typedef struct xqb_recv_opts {
    uint32_t select;
    uint32_t flags;
    uint32_t wait;
    uint32_t token;
    uint8_t reserved[24];
} xqb_recv_opts;

PLAT_STATIC_ASSERT(sizeof(xqb_recv_opts) == 40, "receive options are 40 bytes");
PLAT_STATIC_ASSERT(offsetof(xqb_recv_opts, token) == 12, "the token is word 3");

/*
 * Sends length bytes of payload with opcode to (node, sap). When held is given, the sent
 * message (its payload copied, its reply token set) is left in it for the caller, who reads the
 * token and drops it; a message the holder held before is released first. flags is passed to
 * the transport (0). opts may be NULL.
 * Returns 0 (or the transport's non-negative result); -1 with errno: EINVAL for a NULL endpoint
 * or a NULL payload with a nonzero length, ENOMEM when the sent message cannot be kept (nothing
 * is sent then), or the transport's errno.
 */
PLAT_API int32_t xqb_send(plat_endpoint *ep, uint32_t node, uint32_t sap, uint32_t opcode,
                          const void *payload, uint32_t length, xqb_msg *held, uint32_t flags,
                          const xqb_send_opts *opts);

/* The reply token of the message held (the sent request's; a received reply carries the token
 * of the request it answers); 0 for an empty holder or NULL. */
PLAT_API uint32_t xqb_rr_token_get(const xqb_msg *msg);

/*
 * Takes the message the options select (see xqb_recv_opts) into held; a message the holder held
 * before is released first. Returns 0 on success; -1 with errno EINVAL for a NULL argument,
 * EAGAIN when no queued message matches, EINTR when the transport reports an interruption (the
 * caller receives again), or the transport's errno; or the transport's own negative result.
 * The holder is empty after any failure.
 */
PLAT_API int32_t xqb_recv(plat_endpoint *ep, xqb_msg *held, const xqb_recv_opts *opts);

/* The payload of the message held (inside the message; valid until it is dropped) and, when
 * length is not NULL, its length; NULL (length 0) for an empty payload or holder. */
PLAT_API void *xqb_payload_get(xqb_msg *msg, uint32_t *length);

/* Releases the message held and empties the holder. NULL or an empty holder does nothing. */
PLAT_API void xqb_drop(plat_endpoint *ep, xqb_msg *msg);

PLAT_EXTERN_C_END

#endif /* PLAT_XQB_H */
