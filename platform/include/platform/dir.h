/*
 * dir.h - the client of the switch's FC name server: the entry of a port, asked by its port
 * name. The query is a raw transport request (xqb.h) that the client addresses itself; the
 * caller receives the reply with the request's token and hands it to the two parse steps.
 *
 *     xqb_msg sent = XQB_MSG_EMPTY, reply = XQB_MSG_EMPTY;
 *     dir_send_get_entry_given_portname(ep, w0, w1, &query, &sent);
 *     ... receive the reply carrying xqb_rr_token_get(&sent) into reply, drop sent ...
 *     dir_parse_get_entry_status(&reply, &count, &entry_len, &ref);   0: an entry is there
 *     dir_parse_get_entry(&reply, &ref, &entry);
 *
 * Request (opcode DIR_OP_GET_ENTRY_BY_PORTNAME to node DIR_NODE, access point DIR_SAP, with
 * send options {request = 1}), 24 bytes, numbers in network order:
 *   0  u32  port-name word 1        4  u32  port-name word 2
 *   8  u32  query.scope             12 u16  query.attributes
 *   14 u8   query.flags             15 u8   0
 *   16 8 bytes zero
 *
 * Reply, numbers in network order:
 *   0  u32  status: 0, or the name server's status (DIR_ERR_NOT_FOUND, ...)
 *   4  u32  count of entries that follow
 *   8  u32  n, the length of each entry (at least DIR_ENTRY_SIZE; longer entries carry fields
 *           of newer name servers, which this client ignores)
 *   12 count x n bytes: the entries, each beginning with a dir_entry
 *
 * Status codes (0x52 in the second byte): see below. Every other nonzero status comes from the
 * name server's reply, converted to host order.
 */
#ifndef PLAT_DIR_H
#define PLAT_DIR_H

#include "platform/xqb.h"

PLAT_EXTERN_C_BEGIN

#define DIR_NODE 0x00FFFFFCu /* the name server's well-known address */
#define DIR_SAP 32u
#define DIR_OP_GET_ENTRY_BY_PORTNAME 0x2001u
#define DIR_REQUEST_SIZE 24u
#define DIR_REPLY_HEADER_SIZE 12u

#define DIR_ERR_SEND ((int32_t)0x40520001)      /* the transport refused the query (errno set) */
#define DIR_ERR_NOT_FOUND ((int32_t)0x40520002) /* no entry for the port name */
#define DIR_ERR_INVALID ((int32_t)0x40520006)   /* a NULL argument */
#define DIR_ERR_MALFORMED ((int32_t)0x40520007) /* a reply shorter than what it announces */

/* What the query asks, in host order (the client converts it). */
#define DIR_ATTR_ALL 0xFFFFu

typedef struct dir_query {
    uint32_t scope;      /* the caller's: e.g. the VSAN whose name server is asked */
    uint16_t attributes; /* attribute mask; DIR_ATTR_ALL for every attribute */
    uint8_t flags;       /* 0 */
    uint8_t reserved;    /* 0 */
    uint32_t reserved2[2];
} dir_query;

PLAT_STATIC_ASSERT(sizeof(dir_query) == 16, "the query record is 16 bytes");
PLAT_STATIC_ASSERT(offsetof(dir_query, attributes) == 4, "attributes at 4");

/* Where the entry lies in the reply payload: the status step finds it, the entry step reads it. */
typedef struct dir_entry_ref {
    uint32_t offset;
    uint32_t length;
} dir_entry_ref;

PLAT_STATIC_ASSERT(sizeof(dir_entry_ref) == 8, "an entry reference is 8 bytes");

/* A name-server entry, as the reply carries it (no field is converted). */
#define DIR_SYMBOLIC_NAME_SIZE 256u

typedef struct dir_entry {
    uint32_t port_id; /* FC address word, network order as in a frame header */
    uint8_t port_name[8];
    uint8_t node_name[8];
    uint32_t class_of_service; /* network order */
    uint8_t fc4_types[32];
    uint8_t port_type;
    uint8_t reserved[3];
    char symbolic_name[DIR_SYMBOLIC_NAME_SIZE]; /* always terminated after parsing */
} dir_entry;

#define DIR_ENTRY_SIZE 316u
PLAT_STATIC_ASSERT(sizeof(dir_entry) == DIR_ENTRY_SIZE, "a name-server entry is 316 bytes");
PLAT_STATIC_ASSERT(offsetof(dir_entry, symbolic_name) == 60, "symbolic name at 60");

/* Sends the query for the port name (word1, word2) with the query record; the sent request is
 * left in held (see xqb_send). 0; DIR_ERR_INVALID for a NULL ep, query or held (nothing sent);
 * DIR_ERR_SEND when the transport refuses it (errno tells why). */
PLAT_API int32_t dir_send_get_entry_given_portname(plat_endpoint *ep, uint32_t word1,
                                                   uint32_t word2, const dir_query *query,
                                                   xqb_msg *held);

/* The reply's verdict. 0 when it holds an entry: *count (entries in the reply), *entry_length
 * and *ref (where the first entry lies) are set; each may be NULL. Otherwise nothing is set and
 * the result is the reply's status (host order), DIR_ERR_NOT_FOUND for a count of 0,
 * DIR_ERR_MALFORMED for a reply shorter than its header or than its first entry, or an entry
 * length below DIR_ENTRY_SIZE, DIR_ERR_INVALID for a NULL reply. */
PLAT_API int32_t dir_parse_get_entry_status(xqb_msg *reply, uint32_t *count, uint32_t *entry_length,
                                            dir_entry_ref *ref);

/* Copies the entry that ref locates into *entry, its symbolic name terminated. 0;
 * DIR_ERR_INVALID for a NULL argument; DIR_ERR_MALFORMED when ref does not lie within the reply
 * or is shorter than DIR_ENTRY_SIZE (*entry untouched). */
PLAT_API int32_t dir_parse_get_entry(xqb_msg *reply, const dir_entry_ref *ref, dir_entry *entry);

PLAT_EXTERN_C_END

#endif /* PLAT_DIR_H */
