/*
 * zfx_service.h - access to the feature's service: the request frame every request of the
 * library follows; the status, info, zoneset-status and check-ignore requests; the raw-message
 * queries (native domain, proxy domain list, frame hand-over, name-server entry); the routing
 * lookups (load-balancing hash, the forwarding device, next-hop and NAT requests, VSAN WWNs);
 * and the walk of the service's device entries.
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

#include "platform/dir.h"
#include "platform/endpoint.h"
#include "platform/xqb.h"
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
 * shorter than the 260-byte record. The text of a key-18 reply is a time value, not a string:
 * zfx_dlg_get_info_activate_time reads it. */
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
 * into time->word[0] and word[1]. It sends the request zfx_dlg_get_info sends, but needs only
 * the 12 bytes it reads, not the whole 260-byte record: a reply of 12 bytes or more gives the
 * time. The time is left as it was when the request fails or the reply is shorter than 12
 * bytes, and when time is NULL nothing is sent. */
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

/* ---- raw-message queries -----------------------------------------------------------------------
 * Raw messages of the transport (platform/xqb.h) to ZFX_NODE_REMOTE and ZFX_SAP. Each query has a
 * send step (the sent request is left in the caller's holder: the caller reads its reply token
 * with xqb_rr_token_get and drops it), a parse step (for the reply the caller received with that
 * token; the caller drops it afterwards), and a combined function that sends, receives the reply
 * by its token (again while a receive is interrupted, EINTR), parses and drops both messages.
 * Requests carry send options {request = 1}; the combined receive uses options {select 1, wait 0,
 * the token}.
 */

/* Native-domain query (opcode ZFX_XQB_NATIVE_DOMAIN): request and reply. */
typedef struct zfx_native_domain_request {
    uint32_t key1; /* network order */
    uint32_t key2; /* as the caller gives it */
} zfx_native_domain_request;

typedef struct zfx_native_domain_reply {
    uint32_t status;  /* network order; 0: the answer follows */
    uint32_t fc_addr; /* FC address word; its byte 1 (reply byte 5) is the native domain */
} zfx_native_domain_reply;

#define ZFX_NATIVE_DOMAIN_REPLY_MIN 6u /* the bytes read: the status and the domain byte */

ZFX_STATIC_ASSERT(sizeof(zfx_native_domain_request) == 8, "native-domain request is 8 bytes");
ZFX_STATIC_ASSERT(sizeof(zfx_native_domain_reply) == 8, "native-domain reply is 8 bytes");

/* Proxy-domain-list query (opcode ZFX_XQB_PROXY_DOMAIN_LIST): the request is the key alone (4
 * bytes, network order); the reply: */
#define ZFX_PROXY_DOMAIN_LIST_SIZE 32u

typedef struct zfx_proxy_domain_reply {
    uint32_t status; /* network order; 0: the answer follows */
    uint32_t unread;
    uint8_t domain_list[ZFX_PROXY_DOMAIN_LIST_SIZE];
    uint32_t value; /* network order */
} zfx_proxy_domain_reply;

ZFX_STATIC_ASSERT(sizeof(zfx_proxy_domain_reply) == 44, "proxy-domain reply is 44 bytes");
ZFX_STATIC_ASSERT(offsetof(zfx_proxy_domain_reply, value) == 40, "value at 40");

/* The caller's result of the proxy-domain-list query. */
typedef struct zfx_proxy_domain_list {
    uint32_t reserved;                               /* not written by the library */
    uint8_t domain_list[ZFX_PROXY_DOMAIN_LIST_SIZE]; /* reply bytes 8 to 39, unchanged */
    uint32_t value;                                  /* reply word 40, host order */
} zfx_proxy_domain_list;

ZFX_STATIC_ASSERT(sizeof(zfx_proxy_domain_list) == 40, "zfx_proxy_domain_list is 40 bytes");
ZFX_STATIC_ASSERT(offsetof(zfx_proxy_domain_list, value) == 36, "value at 36");

/* A frame handed over to the service (opcode ZFX_XQB_FORWARD_FRAME): a 128-byte header, then
 * data_len bytes of frame data; the message is the first 128 + data_len bytes. */
#define ZFX_FRAME_HEADER_SIZE 128u

typedef struct zfx_frame_record {
    uint32_t hdr[2]; /* host order here; network order in the message */
    uint32_t reserved[2];
    uint32_t data_len; /* host order */
    uint8_t reserved2[108];
    uint8_t data[]; /* data_len bytes */
} zfx_frame_record;

ZFX_STATIC_ASSERT(sizeof(zfx_frame_record) == ZFX_FRAME_HEADER_SIZE, "frame header is 128 bytes");
ZFX_STATIC_ASSERT(offsetof(zfx_frame_record, data_len) == 16, "data length at 16");

/* Native domain. Send: the request {key1, key2} into *sent (may be NULL: no token kept); 0, or
 * ZFX_ERR_SEND when the transport refuses it. Parse: 0 with *domain the reply's byte 5
 * (zero-extended); the reply's nonzero status word in host order (*domain untouched);
 * ZFX_ERR_INVALID_ARG for a NULL argument, a reply shorter than its status word, or a status 0
 * with fewer than 6 bytes. Combined: ZFX_ERR_INVALID_ARG for a NULL domain (nothing sent),
 * ZFX_ERR_SEND, -1 (errno set) or the receive's own negative result when the reply cannot be
 * received, otherwise the parse result. */
ZFX_API int32_t zfx_send_get_native_domain(plat_endpoint *ep, uint32_t key1, uint32_t key2,
                                           xqb_msg *sent);
ZFX_API int32_t zfx_parse_get_native_domain(xqb_msg *reply, uint32_t *domain);
ZFX_API int32_t zfx_get_native_domain(plat_endpoint *ep, uint32_t key1, uint32_t key2,
                                      uint32_t *domain);

/* Proxy domain list: as the native domain, with the request {key}; the parse step needs 44
 * bytes and fills list->domain_list and list->value (list->reserved is never written). */
ZFX_API int32_t zfx_send_get_proxy_domain_list(plat_endpoint *ep, uint32_t key, xqb_msg *sent);
ZFX_API int32_t zfx_parse_get_proxy_domain_list(xqb_msg *reply, zfx_proxy_domain_list *list);
ZFX_API int32_t zfx_get_proxy_domain_list(plat_endpoint *ep, uint32_t key,
                                          zfx_proxy_domain_list *list);

/* Hands the frame (128 + frame->data_len bytes, which the caller's record must hold) to the
 * service: no holder, no options, no reply. The header words hdr[0..1] travel in network order
 * and read as before when the function returns, on every path. 0; ZFX_ERR_ERRNO(errno) when the
 * transport refuses it; ZFX_ERR_INVALID_ARG for a NULL frame; ZFX_ERR_INVALID_VALUE when
 * 128 + data_len does not fit 32 bits (nothing sent). */
ZFX_API int32_t zfx_forward_frame(plat_endpoint *ep, zfx_frame_record *frame);

/* The name server's entry for a port name (word1, word2, given to the client unchanged), with the
 * query record {scope, DIR_ATTR_ALL}. The reply is received with options {select 1, wait 5, the
 * token}. 0 with *entry filled; the client's status from its send or either parse step, as it
 * stands; -1 (errno set) or the receive's negative result; ZFX_ERR_INVALID_ARG for a NULL entry
 * (nothing sent). Both messages are dropped on every path. */
ZFX_API int32_t zfx_ns_get_entry_given_portname(plat_endpoint *ep, uint32_t word1, uint32_t word2,
                                                uint32_t scope, dir_entry *entry);

/* ---- routing lookups ---------------------------------------------------------------------------
 * FC addresses (sid, did) are words holding the 24-bit address in network order, as in a frame
 * header: read as a host integer, the domain is bits 8 to 15. They are never converted.
 *
 * The forwarding device "/dev/fcfwd" is opened read-only on the first control call that needs it
 * and kept for the life of the process in one descriptor, shared by all threads; two threads
 * whose first calls race both open it, one descriptor is kept and the other closed. A failed
 * open leaves it unopened and the next call tries again. Argument blocks are host order.
 */
#define ZFX_FCFWD_PATH "/dev/fcfwd"
#define ZFX_FCFWD_IOC_NATIVE_VSAN 0x4625u /* type 'F', number 0x25, no size or direction bits */
#define ZFX_FCFWD_IOC_NEXT_HOP 0x4624u    /* type 'F', number 0x24 */
#define ZFX_FCFWD_DOMAIN_MASK 0x0000FF00u
#define ZFX_FCFWD_ADDR_MASK 0xFFFFFF00u
#define ZFX_DOMAIN_MAX 239u /* the highest domain a next hop is asked for */

typedef struct zfx_fcfwd_native_vsan_arg {
    uint32_t vsan;
    uint32_t sid;
    uint32_t did;
    uint16_t flow;
    uint16_t reserved;    /* zero */
    uint32_t native_vsan; /* out: written by the driver */
} zfx_fcfwd_native_vsan_arg;

ZFX_STATIC_ASSERT(sizeof(zfx_fcfwd_native_vsan_arg) == 20, "native-VSAN block is 20 bytes");
ZFX_STATIC_ASSERT(offsetof(zfx_fcfwd_native_vsan_arg, native_vsan) == 16, "out at 16");

typedef struct zfx_fcfwd_next_hop_arg {
    uint32_t vsan;
    uint32_t did;
    uint32_t domain_mask; /* ZFX_FCFWD_DOMAIN_MASK */
    uint32_t zero;
    uint32_t addr_mask;   /* ZFX_FCFWD_ADDR_MASK */
    uint32_t next_hop;    /* out: written by the driver */
    uint8_t reserved[12]; /* zero */
} zfx_fcfwd_next_hop_arg;

ZFX_STATIC_ASSERT(sizeof(zfx_fcfwd_next_hop_arg) == 36, "next-hop block is 36 bytes");
ZFX_STATIC_ASSERT(offsetof(zfx_fcfwd_next_hop_arg, next_hop) == 20, "out at 20");

/* Remote requests to the service (operation 2, node ZFX_NODE_REMOTE, option A "ZFX", timeout 1):
 * ZFX_MSG_NEXT_HOP_VSAN asks {vsan (network order), did}, the reply's first word is the next-hop
 * VSAN (network order); ZFX_MSG_NAT_NEXT_HOP asks {vsan, next hop (both network order), sid,
 * did}, the reply holds the sid and did to use in the next-hop VSAN. */
typedef struct zfx_next_hop_request {
    uint32_t vsan;
    uint32_t did;
} zfx_next_hop_request;

typedef struct zfx_nat_next_hop_request {
    uint32_t vsan;
    uint32_t next_hop;
    uint32_t sid;
    uint32_t did;
} zfx_nat_next_hop_request;

typedef struct zfx_nat_next_hop_reply {
    uint32_t sid;
    uint32_t did;
} zfx_nat_next_hop_reply;

ZFX_STATIC_ASSERT(sizeof(zfx_next_hop_request) == 8, "next-hop request is 8 bytes");
ZFX_STATIC_ASSERT(sizeof(zfx_nat_next_hop_request) == 16, "NAT next-hop request is 16 bytes");
ZFX_STATIC_ASSERT(sizeof(zfx_nat_next_hop_reply) == 8, "NAT next-hop reply is 8 bytes");

/* Zone names that the feature generates begin with this prefix. */
#define ZFX_ZONE_PREFIX "ZFXZ_"

/* The path of a flow over npaths equal paths: (vsan ^ sid ^ did) % npaths into *path. The three
 * further values take no part. A path count of 0 gives path 0 (there is no path to divide
 * among). 0; ZFX_ERR_INVALID_ARG for a NULL path. */
ZFX_API int32_t zfx2_software_load_balancing_vsan_sid_did_hash(uint32_t vsan, uint32_t sid,
                                                               uint32_t did, uint32_t unused1,
                                                               uint32_t unused2, uint32_t unused3,
                                                               uint8_t npaths, uint8_t *path);

/* 1 when name begins with ZFX_ZONE_PREFIX (case-sensitive), else 0 (NULL included). */
ZFX_API int32_t zfx_is_zfx_zone(const char *name);

/* The switch's WWN in a VSAN, from the platform's WWN service. switch_wwn points to the switch's 8
 * WWN bytes and goes to the service unchanged; kind must be nonzero (its meaning is the
 * service's). *wwn (8 bytes) is zeroed, then on 0 holds the service's bytes 8 to 15.
 * ZFX_ERR_INVALID_ARG for kind 0 or a NULL wwn (nothing written); ZFX_ERR_INVALID_VALUE for a
 * VSAN above 4095; the service's status unchanged; 0 with the WWN left zero when the reply
 * buffer cannot be allocated. */
ZFX_API int32_t zfx_get_vsan_wwn_from_switch_wwn(const uint8_t *switch_wwn, uint32_t kind,
                                                 uint32_t vsan, uint8_t *wwn);

/* The flow's native VSAN from the forwarding driver (ZFX_FCFWD_IOC_NATIVE_VSAN). *native is
 * first set to vsan, so a failure leaves the flow's own VSAN; on 0 it is the driver's answer.
 * ZFX_ERR_ERRNO(errno) when the device cannot be opened or the call fails; ZFX_ERR_INVALID_ARG for
 * a NULL native (nothing done). */
ZFX_API int32_t zfx_ioc_get_native_vsan(uint32_t vsan, uint32_t sid, uint32_t did, uint16_t flow,
                                        uint32_t *native);

/* The next-hop VSAN towards did from the forwarding driver (ZFX_FCFWD_IOC_NEXT_HOP). On 0
 * *next_hop is the driver's answer; otherwise it is not written: ZFX_ERR_ERRNO(errno) when the
 * device cannot be opened or the call fails; ZFX_ERR_INVALID_VALUE, without a call, when the
 * domain of did is above 239; ZFX_ERR_INVALID_ARG for a NULL next_hop (nothing done). */
ZFX_API int32_t zfx_ioc_get_next_hop_vsan(uint32_t vsan, uint32_t did, uint32_t *next_hop);

/* Does the flow cross VSANs? *flag is set to 0; on an interface of hardware family A the flag
 * becomes 1 when the driver's next hop towards did differs from vsan, on any other interface when
 * the flow's native VSAN does. 0; ZFX_ERR_INVALID_VALUE for a NULL flag; the interface query's
 * status or the driver lookup's code, unchanged. */
ZFX_API int32_t zfx_is_zfx_flow(uint32_t vsan, uint32_t sid, uint32_t did, uint32_t ifindex,
                                uint16_t flow, uint32_t *flag);

/* The next-hop VSAN towards did, asked of the service. Never fails: *next_hop is the service's
 * answer, or vsan itself when the request fails or the reply is missing or shorter than 4 bytes
 * (the routing does not change). 0; ZFX_ERR_INVALID_ARG for a NULL next_hop (nothing sent). */
ZFX_API int32_t zfx_get_next_hop_vsan(plat_endpoint *ep, uint32_t vsan, uint32_t did,
                                      uint32_t *next_hop);

/* How NAT rewrites a flow in its next VSAN. When the driver's next hop for (*vsan, *did) is known,
 * at most 4096 and not *vsan itself, the service is asked; with a reply of at least 8 bytes *vsan
 * becomes the next hop and *sid, *did the reply's words. In every other case nothing changes.
 * 0; ZFX_ERR_INVALID_ARG when any pointer is NULL (nothing done). */
ZFX_API int32_t zfx_nat_get_next_hop_info(plat_endpoint *ep, uint32_t *vsan, uint32_t *sid,
                                          uint32_t *did);

/* ---- device entries ----------------------------------------------------------------------------
 * The service's device database, walked in batches ordered by the service. The library holds one
 * cursor per process (a zfx_device_entry); a handle points to it. Each batch asks for the devices
 * after the cursor's port WWN, and a batch with entries moves the cursor to its last device. One
 * walk at a time per process: every handle moves the same cursor, and nothing is locked.
 */
#define ZFX_DEVICE_ENTRY_SIZE 5020u
#define ZFX_DEVICE_ENTRY_HEAD_SIZE 4252u /* what the type-69 element of a TLV reply carries */
#define ZFX_NS_BLOCK_SIZE 768u
#define ZFX_DEVICE_FLAG_PER_VSAN 0x04u /* the VSAN value differs per VSAN: ask VSAN by VSAN */
#define ZFX_TLV_DEVICE_ENTRY 69u
#define ZFX_PV_VSAN_PAIRS_MAX 4096u /* one pair per VSAN number at most */
#define ZFX_DEVICE_BATCH_TIMEOUT 50u

/* A device entry, exchanged with the service unchanged (no byte-order conversion). */
typedef struct zfx_device_entry {
    uint32_t pwwn[2];    /* the port WWN, key of the walk, as two words */
    uint32_t vsan_value; /* the device's value in every VSAN, unless the per-VSAN flag is set */
    uint8_t reserved1[8];
    vsan_bitset vsans; /* the VSANs in which the device is known */
    uint8_t reserved2[1564];
    uint8_t flags; /* ZFX_DEVICE_FLAG_PER_VSAN */
    uint8_t reserved3[2151];
    uint8_t ns_block[ZFX_NS_BLOCK_SIZE]; /* name-server attributes */
} zfx_device_entry;

ZFX_STATIC_ASSERT(sizeof(zfx_device_entry) == ZFX_DEVICE_ENTRY_SIZE, "device entry is 5020 bytes");
ZFX_STATIC_ASSERT(offsetof(zfx_device_entry, vsan_value) == 8, "VSAN value at 8");
ZFX_STATIC_ASSERT(offsetof(zfx_device_entry, vsans) == 20, "VSAN set at 20");
ZFX_STATIC_ASSERT(offsetof(zfx_device_entry, flags) == 2100, "flags at 2100");
ZFX_STATIC_ASSERT(offsetof(zfx_device_entry, ns_block) == ZFX_DEVICE_ENTRY_HEAD_SIZE,
                  "name-server block at 4252");

/* A device's value in one VSAN, as the service or the device entry gives it. */
typedef struct zfx_pv_vsan_pair {
    uint32_t vsan;
    uint32_t value;
} zfx_pv_vsan_pair;

ZFX_STATIC_ASSERT(sizeof(zfx_pv_vsan_pair) == 8, "a pair is 8 bytes");

/* A device's name-server view, in memory. pairs (pair_count records, standard allocator) belongs
 * to the caller, NULL when pair_count is 0. */
typedef struct zfx_device_ns_entry {
    vsan_bitset vsans; /* first-generation view; all zero in the second */
    uint8_t ns_block[ZFX_NS_BLOCK_SIZE];
    uint32_t pair_count;
    zfx_pv_vsan_pair *pairs;
} zfx_device_ns_entry;

ZFX_STATIC_ASSERT(offsetof(zfx_device_ns_entry, ns_block) == 516, "block at 516");
ZFX_STATIC_ASSERT(offsetof(zfx_device_ns_entry, pair_count) == 1284, "pair count at 1284");
ZFX_STATIC_ASSERT(offsetof(zfx_device_ns_entry, pairs) == 1288, "pairs at 1288");

/* The request of ZFX_MSG_PV_VSAN_ENTRY: the port WWN words as they stand in the device entry,
 * the VSAN in network order. The reply's first word is the value, taken unchanged. */
typedef struct zfx_pv_vsan_query {
    uint32_t pwwn[2];
    uint32_t vsan;
} zfx_pv_vsan_query;

ZFX_STATIC_ASSERT(sizeof(zfx_pv_vsan_query) == 12, "per-VSAN query is 12 bytes");

/* The request of ZFX_MSG_FCR_QUERY, built by the caller: count (host order) items of 12 bytes,
 * which the library does not interpret; 4 + 12 x count bytes. */
typedef struct zfx_fcr_query_item {
    uint8_t bytes[12];
} zfx_fcr_query_item;

typedef struct zfx_fcr_query {
    uint32_t count;
    zfx_fcr_query_item items[];
} zfx_fcr_query;

ZFX_STATIC_ASSERT(sizeof(zfx_fcr_query) == 4, "FCR query header is the count");

/* Points *handle to the cursor and sets its port WWN to zero: the walk starts at the beginning.
 * 0; ZFX_ERR_INVALID_ARG for a NULL handle (the cursor is left alone). */
ZFX_API int32_t zfx_device_entry_handle_init(zfx_device_entry **handle);

/* The same, with the port WWN words (word0 at bytes 0 to 3, word1 at 4 to 7, as stored in memory):
 * the walk continues after that device. A NULL handle still sets the cursor. */
ZFX_API void zfx_device_entry_handle_init_with_wwn(zfx_device_entry **handle, uint32_t word0,
                                                   uint32_t word1);

/* One batch: the 5020-byte cursor as ZFX_MSG_NS_DEVICE_ENTRY, operation 2, option A "ZFX",
 * timeout 50. 0 with *count = reply length / 5020 (a trailing partial entry is ignored) and
 * *entries the entries in reply order (the caller frees the block; NULL when *count is 0); when
 * count is at least 1, the last entry is copied over *cursor. Any other result is the channel's,
 * unchanged (-1 with errno, or the service's status), with no output set and the cursor unchanged;
 * ZFX_ERR_INVALID_ARG, nothing sent, for a NULL argument. */
ZFX_API int32_t zfx_dlg_ns_device_entry_get(plat_endpoint *ep, zfx_device_entry *cursor,
                                            zfx_device_entry **entries, uint32_t *count);

/* zfx_dlg_ns_device_entry_get on the handle's cursor. */
ZFX_API int32_t zfx_device_entry_get_next(plat_endpoint *ep, zfx_device_entry *handle,
                                          zfx_device_entry **entries, uint32_t *count);

/* The same batch in the name-server views. *entries (count records; the caller frees each pairs
 * array, then the block) is NULL when count is 0.
 * First generation: each entry's VSAN set and name-server block, no pairs.
 * Second generation: the name-server block and the device's pairs in ascending VSAN order: for
 * each VSAN of its set, (VSAN, vsan_value), or, when the device has the per-VSAN flag, (VSAN, the
 * service's answer to zfx2_dlg_pv_vsan_entry_get); a VSAN whose request fails, or whose reply is
 * shorter than 4 bytes, is left out.
 * Results as the batch; ZFX_ERR_NO_MEMORY when a view cannot be allocated (nothing is kept and
 * the cursor is not moved, so the same batch can be asked again). */
ZFX_API int32_t zfx_device_ns_entry_get_next(plat_endpoint *ep, zfx_device_entry *handle,
                                             zfx_device_ns_entry **entries, uint32_t *count);
ZFX_API int32_t zfx2_device_ns_entry_get_next(plat_endpoint *ep, zfx_device_entry *handle,
                                              zfx_device_ns_entry **entries, uint32_t *count);

/* A device's value in one VSAN: the query {word0, word1, vsan} as ZFX_MSG_PV_VSAN_ENTRY,
 * operation 1, options 0 and 0, timeout 0. The reply payload goes to *reply (when reply is not
 * NULL; the caller frees it), beside any result. 0 or the service's non-negative status; a failed
 * channel call gives ZFX_ERR_ERRNO(errno). */
ZFX_API int32_t zfx2_dlg_pv_vsan_entry_get(plat_endpoint *ep, uint32_t word0, uint32_t word1,
                                           uint32_t vsan, void **reply);

/* Asynchronous sends (node ZFX_NODE_ASYNC, option A "ZFX", the caller's tag); the reply comes as a
 * message on the endpoint. The handle's cursor (5020 bytes) as ZFX_MSG_NS_ENTRY_REQ, operation 1;
 * the caller's query (4 + 12 x count bytes) as ZFX_MSG_FCR_QUERY, operation 1. The cursor is not
 * moved. dlg_send_request's result unchanged (-1 included); ZFX_ERR_INVALID_ARG for a NULL handle
 * or query; ZFX_ERR_INVALID_VALUE for a count whose length does not fit 32 bits. */
ZFX_API int32_t zfx2_device_ns_entry_send_req(plat_endpoint *ep, zfx_device_entry *handle,
                                              uint32_t tag);
ZFX_API int32_t zfx_fcr_query_entry_send(plat_endpoint *ep, const zfx_fcr_query *query,
                                         uint32_t tag);

/*
 * Decoders of a TLV-encoded device reply: a signed entry count (host order), 4
 * bytes not read, then from byte 8 an aligned TLV array. Per entry: an element of type
 * ZFX_TLV_DEVICE_ENTRY (the entry's first 4252 bytes), an element with the 768-byte name-server
 * block, an element whose value begins with a signed pair count n (host order), then n elements
 * of one zfx_pv_vsan_pair each. An entry whose first element has another type is that element
 * alone: "ignoring unknown tlv type: %d\n" is printed on standard output and the entry stays
 * zero.
 * zfx2_device_entry_parse: *entries gets count zeroed device entries filled from the reply (pairs
 * are stepped over). zfx2_device_ns_entry_parse: count zeroed name-server entries with the block
 * and the pairs (pair_count 0 and no array when n is below 1).
 *
 * The two _checked forms take the reply's length and never read past it: use them for bytes
 * that came from outside (a received message, a file). The forms without a length decode the
 * payload a caller hands over as the service laid it out: they read as far as its counts and
 * element lengths say, which the caller guarantees lie within the payload; a malformed reply is
 * still refused as below when its own counts betray it.
 * 0 with *count and *entries set (the caller frees them, and each pairs array);
 * ZFX_ERR_NO_ENTRIES when the count is below 1 (*count holds it, *entries not set);
 * ZFX_ERR_INVALID_ARG when an argument is NULL, the reply is shorter than 8 bytes, the array or
 * the entries it must hold exceed the reply, an element is shorter than what is read from it,
 * or an entry announces more than 4096 pairs; ZFX_ERR_NO_MEMORY. On these *count is 0, *entries
 * not set, nothing printed and nothing left allocated.
 */
ZFX_API int32_t zfx2_device_entry_parse(const void *payload, zfx_device_entry **entries, int32_t *count);
ZFX_API int32_t zfx2_device_ns_entry_parse(const void *payload, zfx_device_ns_entry **entries, int32_t *count);
ZFX_API int32_t zfx2_device_entry_parse_checked(const void *payload, uint32_t length,
                                                zfx_device_entry **entries, int32_t *count);
ZFX_API int32_t zfx2_device_ns_entry_parse_checked(const void *payload, uint32_t length,
                                                   zfx_device_ns_entry **entries, int32_t *count);

ZFX_EXTERN_C_END

#endif /* ZFX_SERVICE_H */
