/*
 * endpoint.h - the caller's transport endpoint, the messages it receives, and the transport
 * interface that carries its traffic.
 *
 * An endpoint is what a program holds to talk to the switch's services: every channel request
 * (dlg.h) and every raw transport message (xqb.h) goes out through the endpoint's transport, and
 * every message that comes back for the program waits in the endpoint's receive queue until the
 * program takes it. The endpoint does not interpret any traffic; the transport is an interface
 * (plat_transport) so that the same endpoint can run over the in-process transport below, where
 * a handler function plays the far side, or over another transport (a socket) added later.
 *
 * Operations. Every operation the platform carries is described to the transport by one
 * plat_call record, and the transport answers with one plat_answer:
 *
 *   PLAT_OP_REQ_RESP      dlg_req_resp: a request whose reply the caller waits for
 *   PLAT_OP_REMOTE        dlg_remote_req_resp: the same, to the node address given
 *   PLAT_OP_SEND_REQUEST  dlg_send_request: a request whose reply arrives later as a message
 *   PLAT_OP_RECV          a receive on the endpoint (plat_endpoint_recv, xqb_recv): the
 *                         transport may fail it (-1 with errno EINTR, as a signal would; or
 *                         another negative result) or deliver pending messages with
 *                         plat_endpoint_post before the queue is searched; timeout carries the
 *                         receiver's longest wait in seconds (0: the transport's default)
 *   PLAT_OP_RAW_SEND      xqb_send: a raw message with an opcode and a reply token, no message
 *                         type; want_reply is the send options' request word, opt_b the send's
 *                         flags argument
 *
 * Reply tokens. Every send that expects a later reply (PLAT_OP_SEND_REQUEST, PLAT_OP_RAW_SEND)
 * gets a fresh nonzero token from its endpoint, carried in plat_call.token; when the transport
 * answers such a send with a reply, the endpoint queues it as a message carrying the same token,
 * the call's message type, opcode and tag, and the answer's reply_status. A receive can select a
 * message by its token.
 *
 * Threads: an endpoint belongs to one thread at a time; nothing here takes a lock.
 */
#ifndef PLAT_ENDPOINT_H
#define PLAT_ENDPOINT_H

#include "platform/plat_common.h"

PLAT_EXTERN_C_BEGIN

typedef struct plat_endpoint plat_endpoint; /* opaque */
typedef struct plat_msg plat_msg;           /* opaque: a received message */

typedef enum plat_op {
    PLAT_OP_REQ_RESP = 1,
    PLAT_OP_REMOTE = 2,
    PLAT_OP_SEND_REQUEST = 3,
    PLAT_OP_RECV = 4,
    PLAT_OP_RAW_SEND = 5
} plat_op;

/* One operation as the caller passed it. Pointers stay valid only while the transport runs. */
typedef struct plat_call {
    plat_op op;
    uint32_t msg_type;   /* channel message type (0 for raw messages and receives) */
    uint32_t opcode;     /* operation code */
    uint32_t node;       /* destination node address: remote requests and sends; 0 otherwise */
    uint32_t sap;        /* service access point */
    const char *opt_a;   /* option A: a service name such as "ZFX", or NULL */
    uint32_t opt_b;      /* option B */
    uint32_t tag;        /* the caller's tag of an asynchronous send; 0 otherwise */
    uint32_t timeout;    /* of a waited request; 0 otherwise */
    uint32_t token;      /* sends: the reply token given to this send; receives: the token
                            wanted, 0 for any message */
    int32_t want_reply;  /* waited requests: 1 when the caller asked for the reply payload */
    const void *payload; /* the request bytes exactly as sent (NULL when length is 0) */
    uint32_t length;
} plat_call;

/* The transport's answer. The endpoint fills it with zeros before asking. */
typedef struct plat_answer {
    int32_t result;    /* what the operation returns: 0, -1 (then errno = err), or a status */
    int32_t err;       /* errno to set when result is -1 */
    const void *reply; /* reply payload, or NULL for none; the bytes must stay valid until the
                          transport is next called on this endpoint or the endpoint closes.
                          An empty reply is any non-NULL pointer with reply_length 0 */
    uint32_t reply_length;
    int32_t reply_status; /* sends: the status the queued reply message carries */
} plat_answer;

/* A transport: how an endpoint's operations reach the far side. */
typedef struct plat_transport {
    /* Carries one operation and fills the answer. */
    void (*call)(void *ctx, plat_endpoint *ep, const plat_call *call, plat_answer *answer);
    /* Called once when the endpoint closes, to release ctx; may be NULL. */
    void (*close)(void *ctx);
} plat_transport;

/* A new endpoint over the given transport (copied; ctx is handed to its functions). NULL when
 * transport or its call function is NULL, or when memory is short. */
PLAT_API plat_endpoint *plat_endpoint_open(const plat_transport *transport, void *ctx);

/*
 * The in-process transport: the handler is the far side. It receives every operation exactly as
 * the caller passed it (plat_call, payload bytes included) and answers in plat_answer: a result
 * (0, -1 with an errno, or a status) and optionally reply bytes, which a waited request hands to
 * its caller as a newly allocated payload and an asynchronous send queues on the endpoint as a
 * reply message. The handler may call plat_endpoint_post to queue further messages.
 * tests/support/fake_service.hpp builds a recording, scripted service on it.
 */
typedef void (*plat_service_handler)(void *ctx, const plat_call *call, plat_answer *answer);
PLAT_API plat_endpoint *plat_endpoint_open_inproc(plat_service_handler handler, void *ctx);

/* Closes the endpoint: frees the messages still queued, then calls the transport's close. NULL
 * does nothing. */
PLAT_API void plat_endpoint_close(plat_endpoint *ep);

/* ---- messages ----------------------------------------------------------------------------------
 */

/* What a message carries besides its payload. */
typedef struct plat_msg_info {
    uint32_t msg_type;
    uint32_t opcode;
    uint32_t node;
    uint32_t sap;
    uint32_t tag;   /* the tag of the send it answers */
    uint32_t token; /* the reply token of the send it answers; 0 when it answers none */
    int32_t status; /* the reply's status: 0, or what dlg_parse_response returns */
} plat_msg_info;

/* A new message with a copy of the payload (length bytes; payload may be NULL when length is 0).
 * NULL when info is NULL or memory is short. Release with plat_msg_free. */
PLAT_API plat_msg *plat_msg_new(const plat_msg_info *info, const void *payload, uint32_t length);
PLAT_API void plat_msg_free(plat_msg *msg); /* NULL does nothing */
/* The message's description; NULL for NULL. */
PLAT_API const plat_msg_info *plat_msg_info_get(const plat_msg *msg);
/* The payload inside the message (writable, valid until the message is freed) and its length;
 * NULL (length 0) for an empty payload or a NULL message. length may be NULL. */
PLAT_API void *plat_msg_payload(plat_msg *msg, uint32_t *length);

/* Queues msg at the end of the endpoint's receive queue; the endpoint owns it from then on.
 * 0, or -1 (errno EINVAL) when ep or msg is NULL (msg is then not taken). */
PLAT_API int32_t plat_endpoint_post(plat_endpoint *ep, plat_msg *msg);

/* Takes the first queued message whose token is the given one (any message for token 0) and
 * stores it in *out; the caller owns it (plat_msg_free). First the transport is asked
 * (PLAT_OP_RECV): a nonzero result is returned as it stands (-1 with its errno). Nothing
 * blocks: when no message matches, -1 with errno EAGAIN. -1 with EINVAL when ep or out is NULL. */
PLAT_API int32_t plat_endpoint_recv(plat_endpoint *ep, uint32_t token, plat_msg **out);

/* Messages waiting in the endpoint's queue (0 for NULL). */
PLAT_API uint32_t plat_endpoint_pending(const plat_endpoint *ep);

PLAT_EXTERN_C_END

#endif /* PLAT_ENDPOINT_H */
