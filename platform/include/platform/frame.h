/*
 * frame.h - the frames that carry an endpoint's operations over a stream socket between a
 * program and a service (the socket transport of endpoint.h on one side, a service such as zfxd
 * on the other).
 *
 * Every operation crosses as one call frame; the service answers every call that is not a
 * receive with one answer frame carrying the call's sequence number. A frame is a fixed
 * 80-byte header, then option A's text (no terminator), then the payload bytes exactly as the
 * caller passed them or the service answered them. Every header field is in network byte order:
 *
 *   offset  width  field
 *    0      u32    magic PLAT_FRAME_MAGIC ("ZXF1")
 *    4      u16    version PLAT_FRAME_VERSION
 *    6      u16    kind: PLAT_FRAME_CALL or PLAT_FRAME_ANSWER
 *    8      u32    seq: numbered by the caller per connection; an answer carries its call's
 *   12      u32    op (plat_op)
 *   16      u32    msg_type      \
 *   20      u32    opcode         |
 *   24      u32    node           |  the plat_call fields; an answer carries its call's, so
 *   28      u32    sap            |  that a reply queued on the endpoint can be described
 *   32      u32    opt_b          |  without remembering the call
 *   36      u32    tag            |
 *   40      u32    timeout        |
 *   44      u32    token          |
 *   48      u32    want_reply    /   (0 or 1)
 *   52      i32    result        \
 *   56      i32    err            |  the plat_answer fields (answers; 0 in calls). err is a
 *   60      i32    reply_status  /   Linux errno number
 *   64      u32    flags: PLAT_FRAME_HAS_PAYLOAD when a payload is carried (an answer's empty
 *                  reply differs from no reply); PLAT_FRAME_HAS_OPT_A when option A is given
 *   68      u32    opt_a_length: bytes of option A's text, at most PLAT_FRAME_OPT_A_MAX
 *   72      u32    payload_length
 *   76      u32    zero
 *
 * A reader checks the header before it trusts a length: plat_frame_decode refuses a frame whose
 * magic, version, kind, op, flags or lengths are wrong, and a payload longer than the reader's
 * own limit, before a byte of the body is read. A stream that carried a refused header cannot
 * be resynchronised: the reader drops the connection.
 */
#ifndef PLAT_FRAME_H
#define PLAT_FRAME_H

#include "platform/endpoint.h"

PLAT_EXTERN_C_BEGIN

#define PLAT_FRAME_MAGIC 0x5A584631u /* "ZXF1" */
#define PLAT_FRAME_VERSION 1u
#define PLAT_FRAME_HEADER_SIZE 80u
#define PLAT_FRAME_OPT_A_MAX 255u
/* The largest payload any reader accepts; a reader may set a lower limit of its own. */
#define PLAT_FRAME_PAYLOAD_MAX (64u << 20)

#define PLAT_FRAME_CALL 1u
#define PLAT_FRAME_ANSWER 2u

#define PLAT_FRAME_HAS_PAYLOAD 0x1u
#define PLAT_FRAME_HAS_OPT_A 0x2u

/* A frame header in host order. */
typedef struct plat_frame {
    uint16_t kind;
    uint32_t seq;
    uint32_t op;
    uint32_t msg_type;
    uint32_t opcode;
    uint32_t node;
    uint32_t sap;
    uint32_t opt_b;
    uint32_t tag;
    uint32_t timeout;
    uint32_t token;
    uint32_t want_reply;
    int32_t result;
    int32_t err;
    int32_t reply_status;
    uint32_t flags;
    uint32_t opt_a_length;
    uint32_t payload_length;
} plat_frame;

/* Results of plat_frame_decode. */
#define PLAT_FRAME_OK 0
#define PLAT_FRAME_SHORT 1           /* fewer than PLAT_FRAME_HEADER_SIZE bytes: read more */
#define PLAT_FRAME_BAD_MAGIC (-1)    /* not a frame */
#define PLAT_FRAME_BAD_VERSION (-2)  /* a frame of another version */
#define PLAT_FRAME_BAD_KIND (-3)     /* kind not PLAT_FRAME_CALL or PLAT_FRAME_ANSWER */
#define PLAT_FRAME_BAD_OP (-4)       /* op not a plat_op; a receive or a want_reply above 1 */
#define PLAT_FRAME_BAD_FLAGS (-5)    /* unknown flag bits, lengths that contradict the flags,
                                        or a nonzero reserved word */
#define PLAT_FRAME_TOO_LONG (-6)     /* option A or the payload longer than allowed */

/* Decodes and checks the header in the first len bytes of buf. max_payload is the reader's
 * limit on the payload (above PLAT_FRAME_PAYLOAD_MAX counts as PLAT_FRAME_PAYLOAD_MAX). On
 * PLAT_FRAME_OK *frame holds the header; the whole frame is plat_frame_size(frame) bytes. */
PLAT_API int32_t plat_frame_decode(const void *buf, size_t len, uint32_t max_payload, plat_frame *frame);

/* Writes the header of frame into out (PLAT_FRAME_HEADER_SIZE bytes), in network order. */
PLAT_API void plat_frame_encode(const plat_frame *frame, void *out);

/* The whole frame's size: header, option A, payload. */
PLAT_API size_t plat_frame_size(const plat_frame *frame);

/* A call frame's header for an operation (numbered seq); option A's length is cut to
 * PLAT_FRAME_OPT_A_MAX. An answer frame's header for the answer to a call frame. */
PLAT_API plat_frame plat_frame_for_call(const plat_call *call, uint32_t seq);
PLAT_API plat_frame plat_frame_for_answer(const plat_frame *call, const plat_answer *answer);

/* What a decode result means, in a few words ("bad magic", ...). */
PLAT_API const char *plat_frame_error_text(int32_t result);

PLAT_EXTERN_C_END

#endif /* PLAT_FRAME_H */
