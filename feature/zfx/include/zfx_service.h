/*
 * zfx_service.h - access to the feature's service: the request frame every request of the
 * library follows, and the status, info, zoneset-status and check-ignore requests.
 *
 * The endpoint. Every request function takes the caller's transport endpoint (platform/endpoint.h)
 * first and hands it to the platform's channel (platform/dlg.h) unchanged; the library opens no
 * endpoint of its own. A program makes one with plat_endpoint_open (or plat_endpoint_open_inproc,
 * where a handler in the process plays the service).
 *
 * The request frame. A request is built in a zero-filled buffer, its 32-bit fields in network
 * byte order, and sent with dlg_req_resp to service access point ZFX_SAP with a message type of
 * the feature's service, an operation code and a timeout; the call blocks at most that long. A
 * reply payload comes back allocated by the channel and belongs to whoever the function says:
 * either it is converted to host order in place and handed to the caller, who frees it with
 * free(), or the function frees it itself, on every path.
 *
 * Results are signed 32-bit status codes (zfx_common.h): 0 success; ZFX_ERR_ERRNO(errno) where a
 * failed channel call (-1) is mapped with errno; ZFX_ERR_CHANNEL where a send or parse step
 * failed; any other value the channel returns is the service's status, returned unchanged.
 *
 * Replies are checked against their length before they are read: a reply missing after a
 * result of 0, or shorter than the fields read, is a failed request; each function says what it
 * gives then.
 */
#ifndef ZFX_SERVICE_H
#define ZFX_SERVICE_H

#include "platform/endpoint.h"
#include "vsan_bitset.h"
#include "zfx_common.h"

ZFX_EXTERN_C_BEGIN

/* ---- records exchanged with the service (network byte order unless noted) ------------------- */

/* Status query. Short form: the first word alone (4 bytes, zero). VSAN form (548 bytes): the
 * VSAN set with its length word 512 in host order, the kind byte, 31 zero bytes. */
#define ZFX_STATUS_QUERY_SHORT_SIZE 4u
#define ZFX_STATUS_KIND_NAT 1u /* is NAT enabled in the VSAN whose bit is set */
#define ZFX_STATUS_KIND_EXT 2u /* extended enabled status */

typedef struct zfx_status_query {
    vsan_bitset vsans;    /* length word (host order) and the VSAN bits */
    uint8_t kind;         /* ZFX_STATUS_KIND_* */
    uint8_t reserved[31]; /* zero */
} zfx_status_query;

ZFX_STATIC_ASSERT(sizeof(zfx_status_query) == 548, "zfx_status_query is 548 bytes");
ZFX_STATIC_ASSERT(offsetof(zfx_status_query, kind) == 516, "kind follows the VSAN set");

/* Status reply: the 13 bytes the library reads. A reply shorter than that is a failed request. */
#define ZFX_STATUS_FLAG_NAT 0x01u            /* flags bit 0: NAT is enabled in the asked VSAN */
#define ZFX_STATUS_REPLY_SUBSTITUTE_SIZE 48u /* the all-zero reply given after a failure */

typedef struct __attribute__((packed)) zfx_status_reply {
    uint32_t enabled; /* nonzero: the feature is enabled */
    uint32_t status2; /* second status word (the service's) */
    uint32_t status3; /* third status word (the service's) */
    uint8_t flags;    /* ZFX_STATUS_FLAG_NAT */
} zfx_status_reply;

ZFX_STATIC_ASSERT(sizeof(zfx_status_reply) == 13, "zfx_status_reply is the 13 bytes read");
ZFX_STATIC_ASSERT(offsetof(zfx_status_reply, flags) == 12, "flags at byte 12");

/* Named value ("info"), request and reply. */
#define ZFX_INFO_TEXT_SIZE 256u
#define ZFX_INFO_KEY_ACTIVATE_TIME 18u /* its reply carries a time value instead of text */

typedef struct zfx_info_record {
    uint32_t key;                   /* network order on the wire */
    char value[ZFX_INFO_TEXT_SIZE]; /* text, NUL-terminated; integers as "%d" */
} zfx_info_record;

ZFX_STATIC_ASSERT(sizeof(zfx_info_record) == 260, "zfx_info_record is 260 bytes");

/* The activation time: two 32-bit words as the service sends them (not converted). */
typedef struct zfx_time_value {
    uint32_t word[2];
} zfx_time_value;

ZFX_STATIC_ASSERT(sizeof(zfx_time_value) == 8, "zfx_time_value is two words");

/* Selector of one object (one = 1, its id) or of all (one = 0). */
#define ZFX_ZONESET_ID_ALL 0xFFFFFFFFu

typedef struct zfx_selector {
    uint32_t one;
    uint32_t id;
} zfx_selector;

ZFX_STATIC_ASSERT(sizeof(zfx_selector) == 8, "zfx_selector is 8 bytes");

/* ---- enabled status ---------------------------------------------------------------------------
 */

/*
 * Is the feature enabled? Sends the short-form query (zfx_is_zfx_enabled) or the VSAN form of
 * kind 2 with an empty VSAN set (zfx_is_zfx_enabled_ext) as ZFX_MSG_STATUS, operation 1,
 * timeout 15.
 *  0: *reply is the service's reply, its three words in host order; the caller frees it.
 *  otherwise *reply is a readable all-zero reply of ZFX_STATUS_REPLY_SUBSTITUTE_SIZE bytes
 *  (reads as "not enabled"), which the caller frees as well, and the result is:
 *    ZFX_ERR_ERRNO(errno) when the channel failed (-1);
 *    ZFX_ERR_INVALID_ARG when the reply is missing or shorter than 13 bytes;
 *    the channel's status otherwise.
 *  1 with *reply NULL when even the substitute cannot be allocated.
 *  ZFX_ERR_INVALID_ARG, nothing sent, when reply is NULL.
 */
ZFX_API int32_t zfx_is_zfx_enabled(plat_endpoint *ep, zfx_status_reply **reply);
ZFX_API int32_t zfx_is_zfx_enabled_ext(plat_endpoint *ep, zfx_status_reply **reply);

/* The same question split for callers with their own message loop: the send step sends the
 * short-form query with dlg_send_request (node ZFX_NODE_ASYNC, the caller's tag); the caller
 * receives the reply message on its endpoint and hands it to the parse step.
 * Send: 0, ZFX_ERR_CHANNEL when the send fails (-1), or the channel's other result.
 * Parse: 0 with *reply pointing into the message (its three words converted to host order in
 * place; it belongs to the message); ZFX_ERR_CHANNEL when parsing fails (-1); the reply's
 * status; ZFX_ERR_INVALID_ARG when reply is NULL or the payload is shorter than 13 bytes. On any
 * result but 0, *reply (when given) is NULL. */
ZFX_API int32_t zfx_is_zfx_enabled_send(plat_endpoint *ep, uint32_t tag);
ZFX_API int32_t zfx_is_zfx_enabled_parse(plat_msg *msg, zfx_status_reply **reply);

/* Is NAT enabled in a VSAN? The send step sends the VSAN form of kind 1 with the VSAN's bit set
 * (no bit for VSAN 0) like zfx_is_zfx_enabled_send; a VSAN outside 0..4095 gives
 * ZFX_ERR_INVALID_VALUE and nothing is sent.
 * Parse: *flag (when flag is not NULL) is written 0 first and becomes 1 when the reply's first
 * word is nonzero and bit 0 of its byte 12 is set; the reply is not converted. Results as
 * zfx_is_zfx_enabled_parse (a payload shorter than 13 bytes: ZFX_ERR_INVALID_ARG, flag 0). */
ZFX_API int32_t zfx_is_zfx_nat_enabled_in_vsan_send(plat_endpoint *ep, int32_t vsan, uint32_t tag);
ZFX_API int32_t zfx_is_zfx_nat_enabled_in_vsan_parse(plat_msg *msg, uint32_t *flag);

/* ---- switches and named values ----------------------------------------------------------------
 */

/* Makes the service ignore its fcdomain check (ignore nonzero: operation 3) or stop ignoring it
 * (operation 4): the selector {1, 0} as ZFX_MSG_FCDOMAIN_CHECK_IGNORE, no reply, timeout 5.
 * Returns the channel's result unchanged, -1 included. */
ZFX_API int32_t zfx_set_fcdomain_check_ignore(plat_endpoint *ep, int32_t ignore);

/* Sets a named value: the record with the key and the value as "%d" as ZFX_MSG_INFO,
 * operation 3, no reply, timeout 10, with the caller's option A and option B. Returns the
 * channel's result unchanged, -1 included. */
ZFX_API int32_t zfx_dlg_set_info(plat_endpoint *ep, uint32_t key, int32_t value, const char *opt_a,
                                 uint32_t opt_b);

/* Reads a named value: the record with the key as ZFX_MSG_INFO, operation 1, with the given
 * timeout (4 for zfx_dlg_get_info). The reply record (key as sent by the service, not
 * converted), which the caller frees; NULL when the request fails in any way, including a reply
 * shorter than the 260-byte record. The text of a key-18 reply is a time value, not a string. */
ZFX_API zfx_info_record *zfx_dlg_get_info_with_timeout(plat_endpoint *ep, uint32_t key,
                                                       uint32_t timeout);
ZFX_API zfx_info_record *zfx_dlg_get_info(plat_endpoint *ep, uint32_t key);

/* A named value as a number: the text read as strtol would in base 10 (leading blanks and a
 * sign accepted, parsing stops at the first non-digit, no digits give 0), held to the 32-bit
 * range. 0 when the request fails or the reply holds no terminated text. Timeout as above. */
ZFX_API int32_t zfx_dlg_get_info_int_with_timeout(plat_endpoint *ep, uint32_t key,
                                                  uint32_t timeout);
ZFX_API int32_t zfx_dlg_get_info_int(plat_endpoint *ep, uint32_t key);

/* The activation time (key 18, timeout 4): the reply's words at offsets 4 and 8, unconverted,
 * into time->word[0] and word[1]. The time is left as it was when the request fails or the
 * reply is shorter than 12 bytes, and when time is NULL nothing is sent. */
ZFX_API void zfx_dlg_get_info_activate_time(plat_endpoint *ep, zfx_time_value *time);

/* A named value as text (timeout 4): the library's one static 256-byte buffer, cleared and then
 * filled with the reply's text (always terminated). After a failed request, or a reply whose
 * text has no terminator, it holds the empty string. Every call returns the same buffer and
 * overwrites it: callers on several threads must serialise or copy at once. */
ZFX_API char *zfx_dlg_get_info_char(plat_endpoint *ep, uint32_t key);

/* ---- zoneset status ---------------------------------------------------------------------------
 */

/* Asks the status of one zoneset (selector {1, id}) or of all (id ZFX_ZONESET_ID_ALL: selector
 * {0, 0xFFFFFFFF}) as ZFX_MSG_ZONESET_STATUS with the caller's operation code, timeout 10. The
 * reply (service's layout) goes to *reply as the channel gives it (the caller frees it); reply
 * may be NULL. Returns the channel's result unchanged. */
ZFX_API int32_t zfx_dlg_get_zoneset_status(plat_endpoint *ep, uint32_t opcode, uint32_t zoneset_id,
                                           void **reply);

ZFX_EXTERN_C_END

#endif /* ZFX_SERVICE_H */
