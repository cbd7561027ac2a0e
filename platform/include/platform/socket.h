/*
 * socket.h - the socket transport: an endpoint (endpoint.h) whose operations travel as frames
 * (frame.h) over a Unix-domain stream socket to a service that listens on it (zfxd, for the
 * feature's service). The channel (dlg.h), the raw transport (xqb.h) and everything built on
 * them work over it unchanged.
 *
 * What each operation does on the wire:
 *  - waited requests (dlg_req_resp, dlg_remote_req_resp): one call frame; the caller waits for
 *    the answer that carries the call's sequence number, at most the request's timeout in
 *    seconds (PLAT_SOCKET_DEFAULT_WAIT when it is 0). No answer in time: -1 with errno
 *    ETIMEDOUT, as a channel reports it; an answer that comes later is dropped.
 *  - asynchronous sends (dlg_send_request, xqb_send): one call frame carrying the send's reply
 *    token; the send returns 0 once the frame is written. The service's answer, when it comes
 *    with reply bytes, is queued on the endpoint as a message under the send's token (its status
 *    is the answer's reply status, or its result when that is not 0).
 *  - receives (plat_endpoint_recv, xqb_recv): whatever answers have arrived are queued first; a
 *    receive that finds no message for its token waits for more at most its wait in seconds
 *    (PLAT_SOCKET_DEFAULT_WAIT when it is 0), then fails with EAGAIN.
 * Answers to sends that arrive while a waited request waits are queued, not lost.
 *
 * A service that closes the connection, dies or answers with a frame that does not decode makes
 * the operation fail with -1 and errno (ECONNRESET for a closed connection, EPROTO for a bad
 * frame); from then on every operation of the endpoint fails at once with ENOTCONN. So does a
 * call frame left half written when its wait ran out (-1 ETIMEDOUT first): the stream cannot be
 * resumed. Nothing blocks beyond the operation's wait, and writes never raise SIGPIPE. A call
 * whose payload is longer than PLAT_FRAME_PAYLOAD_MAX fails with EMSGSIZE before anything is
 * written.
 *
 * Threads: as every endpoint, one thread at a time.
 */
#ifndef PLAT_SOCKET_H
#define PLAT_SOCKET_H

#include "platform/endpoint.h"

PLAT_EXTERN_C_BEGIN

#define PLAT_SOCKET_DEFAULT_WAIT 10u /* seconds */

/* Connects to the service listening at path. NULL with errno set when path is NULL or empty or
 * too long for a socket address (EINVAL, ENAMETOOLONG), when nobody listens there (ENOENT,
 * ECONNREFUSED, ...; EAGAIN when the service has more connections waiting than it accepts:
 * connecting never waits) or when memory is short. Close with plat_endpoint_close. */
PLAT_API plat_endpoint *plat_endpoint_open_socket(const char *path);

PLAT_EXTERN_C_END

#endif /* PLAT_SOCKET_H */
