/*
 * zfxd_protocol.h - what the feature's service (zfxd) makes of the requests the library sends:
 * the operation codes of each message type, the service's own statuses, its info keys, the
 * layouts it chooses where the library leaves them to the service, and its limits. zfxd and
 * the zfx command both build on this header; nothing here is part of libzfx.
 *
 * The service listens on a Unix-domain socket (platform/socket.h); requests arrive as the
 * library sends them (message type, operation code, payload in network byte order) and are
 * answered with the reply layouts of the library's headers.
 *
 * Operation codes (the library carries them; it waits 23 seconds for codes 3 and 4):
 *
 *   message type                    code                  what zfxd does
 *   8601 zoneset (ZFX_MSG_ZONESET)  ZFXD_OP_GET     1     query (zfx_dlg_get_zoneset*, zfx_get_active_zoneset)
 *                                   ZFXD_OP_CREATE  2     create the zoneset (type 1 name; an id in the entry
 *                                                         when no name); a zone name (type 5) or zone bitmap
 *                                                         (type 61) in the same message adds those zones
 *                                   ZFXD_OP_ADD     3     add the zone named by type 5, or the zones of the
 *                                                         type-61 bitmap, to the zoneset
 *                                   ZFXD_OP_REMOVE  4     remove them from the zoneset
 *                                   ZFXD_OP_DELETE  5     delete the zoneset (the active zoneset stays active)
 *                                   ZFXD_OP_MODIFY  6     rename the zoneset to the second name (type 56)
 *   8602 zone (ZFX_MSG_ZONE)        ZFXD_OP_GET     1     query (zfx_dlg_get_zone*)
 *                                   ZFXD_OP_CREATE  2     create the zone (type 6 name), with the QoS (45) and
 *                                                         read-only (59) elements it carries
 *                                   ZFXD_OP_DELETE  5     delete the zone, its members, and its place in every
 *                                                         zoneset
 *                                   ZFXD_OP_MODIFY  6     set the QoS and read-only elements it carries; a
 *                                                         second name (type 57) renames the zone
 *   8640 zone attributes            ZFXD_OP_MODIFY  6     as 8602 with ZFXD_OP_MODIFY
 *   8603 member (ZFX_MSG_ZONE_MEMBER) ZFXD_OP_GET   1     query (zfx_dlg_get_zone_member*)
 *                                   ZFXD_OP_CREATE  2     add the member to its zone; ZFXD_OP_ADD (3) is the same
 *                                   ZFXD_OP_REMOVE  4     remove the member (by id, or by its identifying
 *                                                         elements when the id is 0); ZFXD_OP_DELETE (5) is
 *                                                         the same
 *   8604 activation                 ZFXD_OP_ACTIVATE 3    activate the named zoneset: its zones and members as
 *                                                         they are now become the active zoneset data; value A
 *                                                         bit ZFXD_ACTIVATE_FORCE activates with force
 *                                   ZFXD_OP_DEACTIVATE 4  deactivate (the name, when given, must be the active
 *                                                         zoneset's)
 *   8605 info (ZFX_MSG_INFO)        1 get, 3 set          the info keys below
 *   8616 zoneset status             ZFXD_OP_GET     1     the zfxd_zoneset_status reply below
 *   8626 status (ZFX_MSG_STATUS)    1                     enabled (short form, VSAN form kind 2) and NAT in a
 *                                                         VSAN (VSAN form kind 1)
 *   8647 fcdomain check-ignore      3 ignore, 4 stop ignoring
 *   8611 device entries             ZFXD_OP_REMOTE  2     the batch of devices after the cursor (see the fabric)
 *   8634 per-VSAN value             ZFXD_OP_GET     1     a device's value in one VSAN
 *   8497 device entries, TLV        ZFXD_OP_GET     1     the batch after the cursor as a TLV-encoded reply
 *   8496 FCR query                  ZFXD_OP_GET     1     the devices the items name, as a TLV-encoded reply
 *   8620 next hop                   ZFXD_OP_REMOTE  2     the next-hop VSAN towards a destination
 *   8641 NAT next hop               ZFXD_OP_REMOTE  2     the addresses a flow takes in its next VSAN
 *   raw transport messages                                the native domain, proxy domains, frame hand-over and
 *                                                         the name server's entry of a port (see the fabric)
 *
 * Objects are named by name where a request carries one, by id otherwise. A create that gives
 * no id gets the lowest free one (zones 1..8191, zonesets 1..2047, members 1..2047 in a zone).
 * A member request names its zone by the zone name (type 6) when it carries one, by its parent
 * id otherwise. A create message is checked with the library's completeness checks first.
 *
 * Replies to queries are messages in the layouts of zfx_zone_msg.h: entry count and ids in
 * network order, element values as the store records hold them (members: VSAN, AFID and type
 * in host order; zones: QoS in host order, read-only in network order). A query by name or by
 * a nonzero id answers that object; a query with id 0 and no name answers every object of its
 * kind (every member of the zone, for a member query) in id order, the reply's entry count
 * saying how many entries follow, back to back. The active zoneset query (flags
 * ZFX_ZONESET_FLAG_ACTIVE) answers the name (type 1) and the zone bitmap (type 61), or no
 * reply at all when no zoneset is active.
 *
 * Every accepted change is written to the configuration store in one transaction before it is
 * acknowledged; a refused change changes nothing.
 */
#ifndef ZFXD_PROTOCOL_H
#define ZFXD_PROTOCOL_H

#include <stdint.h>

#include "zfx_common.h"

ZFX_EXTERN_C_BEGIN

/* ---- operation codes -------------------------------------------------------------------------- */
#define ZFXD_OP_GET 1u
#define ZFXD_OP_CREATE 2u
#define ZFXD_OP_ADD 3u
#define ZFXD_OP_REMOVE 4u
#define ZFXD_OP_DELETE 5u
#define ZFXD_OP_MODIFY 6u
#define ZFXD_OP_ACTIVATE 3u   /* 8604 */
#define ZFXD_OP_DEACTIVATE 4u /* 8604 */
#define ZFXD_OP_INFO_GET 1u   /* 8605 */
#define ZFXD_OP_INFO_SET 3u   /* 8605 */
#define ZFXD_OP_REMOTE 2u     /* 8611, 8620, 8641: the library's remote and batch requests */

/* Activation value A: bit 0 activates with force (stored in the zone options word). */
#define ZFXD_ACTIVATE_FORCE 0x1u

/* ---- the service's statuses (second byte 0xA1) -------------------------------------------------- */
#define ZFXD_ERR_UNSUPPORTED ((int32_t)0x40A10001) /* message type or operation code not served */
#define ZFXD_ERR_MALFORMED ((int32_t)0x40A10002)   /* payload too short, or a TLV array that does
                                                      not hold what it counts */
#define ZFXD_ERR_EXISTS ((int32_t)0x40A10003)      /* the name or id is taken */
#define ZFXD_ERR_NOT_FOUND ((int32_t)0x40A10004)   /* no such zone, zoneset, member or active zoneset */
#define ZFXD_ERR_FULL ((int32_t)0x40A10005)        /* no free id left */
#define ZFXD_ERR_INVALID ((int32_t)0x40A10006)     /* a value out of range: name empty or longer than
                                                      67 characters, member type, VSAN above 4095,
                                                      AFID 0, QoS above 3, read-only not 0 or 1,
                                                      an id out of range, an info key not settable */
#define ZFXD_ERR_STORE ((int32_t)0x40A10007)       /* the store transaction failed: nothing changed */
/* A create without its required elements answers the library's ZFX_ERR_CREATE_INCOMPLETE. */

/* The name server's answer for a port name it does not know (platform/dir.h's DIR_ERR_NOT_FOUND). */
#define ZFXD_DIR_ERR_NOT_FOUND ((int32_t)0x40520002)

/* The name of a status of the service or of the library's request path, for messages:
 * "ZFXD_ERR_NOT_FOUND", "ZFX_ERR_CREATE_INCOMPLETE", ...; NULL for one it does not know. */
static inline const char *zfxd_status_name(int32_t status) {
    switch (status) {
        case 0: return "success";
        case ZFXD_ERR_UNSUPPORTED: return "ZFXD_ERR_UNSUPPORTED";
        case ZFXD_ERR_MALFORMED: return "ZFXD_ERR_MALFORMED";
        case ZFXD_ERR_EXISTS: return "ZFXD_ERR_EXISTS";
        case ZFXD_ERR_NOT_FOUND: return "ZFXD_ERR_NOT_FOUND";
        case ZFXD_ERR_FULL: return "ZFXD_ERR_FULL";
        case ZFXD_ERR_INVALID: return "ZFXD_ERR_INVALID";
        case ZFXD_ERR_STORE: return "ZFXD_ERR_STORE";
        case ZFX_ERR_CREATE_INCOMPLETE: return "ZFX_ERR_CREATE_INCOMPLETE";
        case ZFX_ERR_NO_MEMORY: return "ZFX_ERR_NO_MEMORY";
        case ZFX_ERR_INVALID_ARG: return "ZFX_ERR_INVALID_ARG";
        case ZFX_ERR_INVALID_VALUE: return "ZFX_ERR_INVALID_VALUE";
        case ZFX_ERR_CHANNEL: return "ZFX_ERR_CHANNEL";
        case ZFX_ERR_SEND: return "ZFX_ERR_SEND";
        case ZFXD_DIR_ERR_NOT_FOUND: return "DIR_ERR_NOT_FOUND";
        case -1: return "channel failure";
        default: break;
    }
    if (((uint32_t)status & 0xFFFFF000u) == (uint32_t)ZFX_ERR_ERRNO_BASE) return "ZFX_ERR_ERRNO_BASE";
    return (const char *)0;
}

/* What a status means, in a few words, for messages. */
static inline const char *zfxd_status_text(int32_t status) {
    switch (status) {
        case 0: return "done";
        case ZFXD_ERR_UNSUPPORTED: return "the service does not serve this request";
        case ZFXD_ERR_MALFORMED: return "the request is malformed";
        case ZFXD_ERR_EXISTS: return "the name or id is already taken";
        case ZFXD_ERR_NOT_FOUND: return "no such object";
        case ZFXD_ERR_FULL: return "no free id is left";
        case ZFXD_ERR_INVALID: return "a value is out of range";
        case ZFXD_ERR_STORE: return "the store could not be written; nothing changed";
        case ZFX_ERR_CREATE_INCOMPLETE: return "the create lacks a required element";
        case ZFX_ERR_NO_MEMORY: return "out of memory";
        case ZFX_ERR_INVALID_ARG: return "the request could not be built or the reply is missing";
        case ZFX_ERR_INVALID_VALUE: return "an argument is out of range";
        case ZFX_ERR_CHANNEL: return "the channel failed";
        case ZFX_ERR_SEND: return "the transport refused the message";
        case ZFXD_DIR_ERR_NOT_FOUND: return "the name server has no entry for the port name";
        case -1: return "the channel failed";
        default: break;
    }
    if (((uint32_t)status & 0xFFFFF000u) == (uint32_t)ZFX_ERR_ERRNO_BASE) return "the channel failed (errno in the low bits)";
    return "unknown status";
}

/* ---- info keys (8605) ------------------------------------------------------------------------- */
/* Read-only counters, as "%d" text. */
#define ZFXD_INFO_ZONES 1u          /* zones configured */
#define ZFXD_INFO_ZONESETS 2u       /* zonesets configured */
#define ZFXD_INFO_MEMBERS 3u        /* members of all zones */
#define ZFXD_INFO_ACTIVE_ZONESET 4u /* the active zoneset's id, 0 for none */
#define ZFXD_INFO_CHANGES 5u        /* changes committed since zfxd started */
/* The activation time (ZFX_INFO_KEY_ACTIVATE_TIME, 18): word 0 the seconds and word 1 the
 * microseconds since the epoch, both in network order (the library hands them over unconverted);
 * both zero when no zoneset is active. Kept in the store with the active zoneset. */
/* Settable values ("%d" text; zfx_dlg_set_info sends them), kept in the store. */
#define ZFXD_INFO_DEFAULT_ZONE 32u  /* default zone policy: 0 deny, 1 permit */
#define ZFXD_INFO_LOG_LEVEL 33u     /* zfxd's log: 0 errors, 1 changes (default), 2 every request */
/* Read-only: whether the fcdomain check is ignored (8647), 0 or 1. */
#define ZFXD_INFO_CHECK_IGNORE 34u
/* Read-only, about the fabric (below): devices in it; frames handed over since zfxd started; the
 * last frame handed over, as "HDR0 HDR1 LENGTH CHECK" (header words 0 and 1 in host order and
 * the check of its data, ZFXD_FRAME_CHECK, as 0x and eight hexadecimal digits; the length in
 * decimal), or the empty text before the first. */
#define ZFXD_INFO_DEVICES 35u
#define ZFXD_INFO_FRAMES 36u
#define ZFXD_INFO_LAST_FRAME 37u

/* The check of a frame's data: 32-bit FNV-1a over its data_len bytes. */
static inline uint32_t zfxd_frame_check(const uint8_t *data, uint32_t length) {
    uint32_t h = 2166136261u;
    for (uint32_t i = 0; i < length; ++i) h = (h ^ data[i]) * 16777619u;
    return h;
}

/* ---- zoneset status (8616) -------------------------------------------------------------------- */
/* Reply: a u32 count, then count entries (network order), one per zoneset the selector names
 * (every zoneset for ZFX_ZONESET_ID_ALL), in id order. An unknown id answers ZFXD_ERR_NOT_FOUND. */
#define ZFXD_ZONESET_STATUS_ACTIVE 0x1u /* flags: this zoneset is the active one */
typedef struct zfxd_zoneset_status {
    uint32_t id;
    uint32_t zones; /* zones in the zoneset */
    uint32_t flags; /* ZFXD_ZONESET_STATUS_* */
    char name[68];
} zfxd_zoneset_status;

ZFX_STATIC_ASSERT(sizeof(zfxd_zoneset_status) == 80, "zoneset status entry is 80 bytes");

/* ---- status (8626) ---------------------------------------------------------------------------- */
/* The reply: enabled 1; second word the protocol version ZFXD_PROTOCOL_VERSION; third word the
 * changes committed since zfxd started; flags bit 0 when NAT is on (the store's NAT record) and
 * the query asked about a VSAN (kind 1). */
#define ZFXD_PROTOCOL_VERSION 1u

/* zoneset information block (type 31, 20 bytes) in zoneset replies: network order words. */
typedef struct zfxd_zoneset_info_block {
    uint32_t zones;  /* zones in the zoneset */
    uint32_t active; /* 1 when it is the active zoneset */
    uint32_t reserved[3];
} zfxd_zoneset_info_block;

ZFX_STATIC_ASSERT(sizeof(zfxd_zoneset_info_block) == 20, "zoneset information block is 20 bytes");

/* ---- zfxd's own records in the configuration store ----------------------------------------- */
/* Key: ZFXD_KVDB_SERVICE_TABLE, 0, then the info key as a u32 in host order (6 bytes). Value: the
 * text of a settable info value (no terminator), or for ZFX_INFO_KEY_ACTIVATE_TIME the seconds
 * and microseconds as two u32 in host order. The library's readers pass over this table. */
#define ZFXD_KVDB_SERVICE_TABLE 0x77u

/* ---- the fabric -------------------------------------------------------------------------------
 * zfxd answers the routing, raw-message and device requests from the fabric description it loads
 * at start (zfxd --fabric FILE; the format is service/lib/fabric_file.hpp's and the README's),
 * an empty fabric without one. Nothing of the fabric is written to the store.
 *
 * Raw transport messages to ZFX_SAP (node ZFX_NODE_REMOTE), answered under their reply token:
 *   ZFX_XQB_NATIVE_DOMAIN      key1 is the VSAN; key2 is not read. The reply (8 bytes): status 0
 *                              and the domain's address word, network order, 00 DD 00 00; for a
 *                              VSAN without a native domain the status ZFXD_ERR_NOT_FOUND (in
 *                              network order, as every reply status here) and a zero word.
 *   ZFX_XQB_PROXY_DOMAIN_LIST  the key is the VSAN. The reply (44 bytes): status 0, a zero word,
 *                              the proxy domains as a bitmap (domain d is bit 0x80 >> (d % 8) of
 *                              byte d / 8), and the value, the number of proxy domains (network
 *                              order); a VSAN without proxy domains: status ZFXD_ERR_NOT_FOUND,
 *                              the rest zero.
 *   ZFX_XQB_FORWARD_FRAME      no reply. A frame whose message holds its 128-byte header and
 *                              exactly data_len bytes more is counted (ZFXD_INFO_FRAMES) and kept
 *                              as the last frame (ZFXD_INFO_LAST_FRAME); any other is refused
 *                              (ZFXD_ERR_MALFORMED, logged) and not counted.
 * Any other opcode, or a message too short for its request, answers ZFXD_ERR_UNSUPPORTED or
 * ZFXD_ERR_MALFORMED as the call's result, with no reply.
 *
 * The name server (DIR_NODE, DIR_SAP, DIR_OP_GET_ENTRY_BY_PORTNAME): the port-name words are the
 * port WWN's bytes 0 to 3 and 4 to 7 read in network order (the request carries the WWN in
 * printing order); the query's scope is a VSAN the device must be known in, 0 for any. The reply:
 * status 0, count 1, entry length DIR_ENTRY_SIZE, and the device's entry (ZFXD_NS_ENTRY below);
 * for an unknown port name, or a device not in the scope's VSAN, status DIR_ERR_NOT_FOUND and
 * count 0.
 *
 * The devices, ordered by port WWN (its 8 bytes compared in order), are the device entries of the
 * walk. zfxd fills these bytes of each zfx_device_entry, every other byte zero:
 *   0   the port WWN, in printing order
 *   8   the value in every VSAN (host order, as the library hands it on); 0 for a device whose
 *       values are per VSAN (flags ZFX_DEVICE_FLAG_PER_VSAN)
 *   12  ZFXD_DEVICE_FCID_AT: the FCID, a word in network order (00 DD AA PP), as in a frame header
 *   16  ZFXD_DEVICE_AFID_AT: the AFID, network order
 *   20  the VSANs the device is known in
 *   2100 flags: ZFX_DEVICE_FLAG_PER_VSAN when its values are per VSAN
 *   4252 the name-server block: the device's name-server entry (a dir_entry: port_id the FCID word,
 *       port_name, node_name, class of service ZFXD_NS_CLASS in network order, port type
 *       ZFXD_NS_PORT_TYPE, the symbolic name), the rest of the block zero.
 * 8611 (operation 2) answers the devices after the cursor's port WWN, at most ZFXD_DEVICE_BATCH of
 * them, back to back; after the last device, an empty reply (no entries, status 0): the end of
 * the walk. A request shorter than 8 bytes is ZFXD_ERR_MALFORMED.
 * 8634 (operation 1) answers a device's value in a VSAN in 4 bytes (host order): the device's
 * value, or for a per-VSAN device the value of that VSAN. An unknown port WWN, a VSAN the device
 * is not known in, or a per-VSAN device without a value for the VSAN: ZFXD_ERR_NOT_FOUND.
 * 8497 and 8496 (operation 1, asynchronous sends) are answered under the send's token with a
 * TLV-encoded reply as zfx2_device_entry_parse reads it: the entry count (host order), a zero
 * word, then per device the element ZFX_TLV_DEVICE_ENTRY (the entry's first 4252 bytes),
 * ZFXD_TLV_NS_BLOCK (the 768-byte block), ZFXD_TLV_PAIR_COUNT (the pair count, host order) and
 * that many ZFXD_TLV_PAIR elements, one zfx_pv_vsan_pair (host order) per VSAN of the device that
 * has a value, in ascending VSAN order. 8497 carries the cursor and answers the batch 8611 would;
 * 8496 carries items of {port WWN (8 bytes, printing order), VSAN (network order; 0: any)} and
 * answers the devices they name, in item order, an unknown port WWN or one not in the item's
 * VSAN left out; more than ZFXD_DEVICE_BATCH items is ZFXD_ERR_INVALID. No device: count 0.
 *
 * 8620 (operation 2) {VSAN, DID}: the next hop of the fabric's next-hop table for the VSAN and
 * the DID's domain, 4 bytes in network order; none: ZFXD_ERR_NOT_FOUND (the library keeps the
 * flow's VSAN). 8641 (operation 2) {VSAN, next VSAN, SID, DID}: the fabric's NAT rewrite of the
 * flow, {new SID, new DID} as address words; none: ZFXD_ERR_NOT_FOUND (nothing changes).
 */
#define ZFXD_DEVICE_BATCH 64u        /* device entries per batch: 64 x 5020 bytes, well within a frame */
#define ZFXD_DEVICE_FCID_AT 12u
#define ZFXD_DEVICE_AFID_AT 16u
#define ZFXD_NS_CLASS 3u             /* class of service of every device */
#define ZFXD_NS_PORT_TYPE 1u         /* N_Port */
#define ZFXD_TLV_NS_BLOCK 70u
#define ZFXD_TLV_PAIR_COUNT 71u
#define ZFXD_TLV_PAIR 72u

/* ---- where and how much ----------------------------------------------------------------------- */
#define ZFXD_SOCKET_ENV "ZFXD_SOCKET"           /* overrides the default socket path */
#define ZFXD_SOCKET_DEFAULT "/tmp/zfxd.sock"
#define ZFXD_MAX_CLIENTS 64u                    /* connections at once; beyond it the one idle the
                                                   longest is closed, or the new one if none is idle */
#define ZFXD_FRAME_TIMEOUT_MS 5000              /* a frame begun must be finished, and answers
                                                   waiting must start being read, within this */
#define ZFXD_MAX_REQUEST (64u << 10)            /* the largest request payload accepted */
#define ZFXD_MAX_PENDING_OUT (16u << 20)        /* answer bytes a client may leave unread before
                                                   it is dropped */

ZFX_EXTERN_C_END

#endif /* ZFXD_PROTOCOL_H */
