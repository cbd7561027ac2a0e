/*
 * zfx_zone_db.h - the persistent zone database: the service's in-memory zone, member and
 * zoneset nodes, the store records the service writes for them, the active zoneset data, and
 * the readers that restore zone state from the store.
 *
 * The feature's service keeps its zone database in ordered trees (platform/tree.h) of the nodes
 * below. It encodes a node with the functions here, writes the value they return under the
 * node's key itself, and frees it with free(). Every record is built at exactly its computed size
 * and zero-filled first, so each byte a layout does not set is zero. Numbers are host order
 * unless a layout says otherwise; TLV arrays and elements are those of zfx_zone_msg.h, and every
 * size is computed with the platform's tlvbuf_size_get rule that builds them (T(n) below).
 *
 * Store keys (ids are u16 in host order; zfx_zone_db_key builds the six-byte ones):
 *   zone database header    66 00                         zfx_zone_db_header
 *   zoneset                 67 00 <zoneset id> 00 00      zoneset record
 *   zone                    68 00 <zone id> 00 00         zone record
 *   zone member             69 00 <member id> <zone id>   member record
 *   zone options            6B 00                         u32, network order; bit 31: forced
 *                                                         activation
 *   active zoneset data     6C 00 00 00 <chunk n>         chunk 0: the data's total length, u32
 *                                                         network order; chunks 1, 2, ...: the
 *                                                         data's bytes in order
 *
 * Zone record: zfx_zone_rec_head, then the array: 7 (the 260-byte member bitmap), 9 (the 8-byte
 *   attribute block), 45 (QoS, u32, always present), and 59 (u32 1 in network order) only for a
 *   read-only zone. Size 76 + T(260) + T(8) + T(4) [+ T(4)].
 * Zoneset record: zfx_zone_rec_head, then the array: 4 (u32 256, bytes 0-249 of the zone
 *   bitmap, 6 zero bytes), 60 (u32 1024, the whole zone bitmap) only when a zone id of 2000 or
 *   more is set, then 3 (the 8-byte attribute block). Readers take 60 when present, else 4.
 * Member record: zfx_member_rec_head, then the member's attribute elements in record order:
 *   [27 member type, only when asked for; never in a record], 10 port WWN (types 0, 240),
 *   11 VSAN, 12 fabric ID widened to u32, 44 LUN (types 240, 241), 65 device alias with its NUL
 *   (types 1, 241). Size 8 + the elements.
 *
 * Active zoneset data (the active zoneset in one blob):
 *   zfx_active_zoneset_data         zoneset id, name, number of zones (the zone tree's count)
 *   per zone, in the tree's order:  zfx_zone_entry_head (zone id, name, member entry count),
 *                                   then one member entry per port-WWN member (type 0), in
 *                                   the member tree's order: a member record of that member
 *                                   (elements 10, 11, 12)
 *   extension area, when needed:    u32 number of elements, then one zone extension element
 *                                   (zfx_zone_ext_head, type 46) per zone with anything to
 *                                   record: inner elements 45 (QoS, when not 0), 59 (u32 1,
 *                                   network order, when read-only), then one element 53 per
 *                                   member of type 1, 240 or 241, whose value is a member head
 *                                   and an array in extension order: 11 VSAN, 12 fabric ID,
 *                                   65 device alias or 10 port WWN, 44 LUN.
 * The two member element orders differ on purpose: a member record puts the port WWN before the
 * VSAN, an extension member puts VSAN and fabric ID first.
 *
 * Choices where the layout alone does not settle it:
 *  - A zone node without a member tree is written as a zone entry with member count 0 (and its
 *    extension element when it has QoS or is read-only), so that the size and the data agree and
 *    the entries end exactly where the extension area begins.
 *  - A member of a type other than 0, 1, 240, 241 is left out of the active zoneset data and of
 *    its size; it has no member record either (the encoder answers NULL).
 *  - Names are copied up to 67 characters and always terminated, even from a node whose name
 *    field lacks its terminator.
 */
#ifndef ZFX_ZONE_DB_H
#define ZFX_ZONE_DB_H

#include <string.h>

#include "platform/kvdb.h"
#include "platform/tree.h"
#include "zfx_common.h"
#include "zfx_zone_msg.h"

ZFX_EXTERN_C_BEGIN

/* ---- ids and bitmaps ----------------------------------------------------------------------------
 * Bitmaps use the bit order of zfx_zone_msg.h: id n is 0x80 >> (n % 8) of byte n / 8; id 0 is
 * never used. */

#define ZFX_ZONE_ID_MAX 8191u           /* zone ids 1..8191 */
#define ZFX_ZONESET_ID_MAX 2047u        /* zoneset ids 1..2047 */
#define ZFX_ZONE_MEMBER_ID_MAX 2047u    /* member ids 1..2047 within a zone */
#define ZFX_ZONE_BITMAP_SIZE 1024u      /* bits of every zone id */
#define ZFX_ZONE_SHORT_BITMAP_SIZE 250u /* bytes of the zone bitmap that element 4 carries */
#define ZFX_ZONE_SHORT_ID_LIMIT 2000u   /* the first zone id only element 60 can carry */
#define ZFX_MEMBER_BITMAP_SIZE 256u     /* bits of every member id */

/* ---- nodes of the service's zone database ------------------------------------------------------- */

typedef struct zfx_zone_member_node {
    uint32_t id;                      /* member id; records keep its low 16 bits */
    uint32_t type;                    /* ZFX_MEMBER_* */
    uint32_t vsan;
    uint16_t afid;                    /* autonomous fabric ID */
    uint8_t pwwn[8];                  /* types 0 and 240 */
    uint8_t lun[8];                   /* types 240 and 241 */
    char device_alias[ZFX_NAME_SIZE]; /* types 1 and 241; NUL-terminated */
} zfx_zone_member_node;

ZFX_STATIC_ASSERT(sizeof(zfx_zone_member_node) == 100, "member node is 100 bytes");
ZFX_STATIC_ASSERT(offsetof(zfx_zone_member_node, afid) == 12, "afid at 12");
ZFX_STATIC_ASSERT(offsetof(zfx_zone_member_node, pwwn) == 14, "pwwn at 14");
ZFX_STATIC_ASSERT(offsetof(zfx_zone_member_node, lun) == 22, "lun at 22");
ZFX_STATIC_ASSERT(offsetof(zfx_zone_member_node, device_alias) == 30, "alias at 30");

typedef struct zfx_zone_node {
    uint32_t id;                                  /* records keep its low 16 bits, the
                                                     extension all 32 */
    char name[ZFX_NAME_SIZE];                     /* NUL-terminated */
    plat_tree *members;                           /* zfx_zone_member_node elements, or NULL */
    uint8_t member_bitmap[ZFX_ZONE_MEMBERS_SIZE]; /* u32 256, then the member id bits */
    uint8_t attributes[ZFX_ATTR_SIZE];            /* the zone attribute block, stored as is */
    uint32_t qos;                                 /* ZFX_ZONE_QOS_* */
    uint32_t read_only;                           /* 1: read-only */
} zfx_zone_node;

/* The tree pointer is 4 bytes on the switch and 8 on x86_64 (where it also aligns to 8). */
ZFX_STATIC_ASSERT(offsetof(zfx_zone_node, members) == 72, "member tree at 72");
ZFX_STATIC_ASSERT(offsetof(zfx_zone_node, member_bitmap) == 72 + sizeof(void *), "bitmap after the tree");
ZFX_STATIC_ASSERT(offsetof(zfx_zone_node, read_only) == 72 + sizeof(void *) + 272, "read-only last");
ZFX_STATIC_ASSERT(sizeof(zfx_zone_node) == (sizeof(void *) == 4 ? 352 : 360), "zone node size");

typedef struct zfx_zoneset_node {
    uint32_t id;                             /* records keep its low 16 bits */
    char name[ZFX_NAME_SIZE];                /* NUL-terminated */
    plat_tree *zones;                        /* zfx_zone_node elements, or NULL */
    uint8_t zone_bitmap[ZFX_ZONE_BITMAP_SIZE];
    uint8_t attributes[ZFX_ATTR_SIZE];       /* the zoneset attribute block, stored as is */
} zfx_zoneset_node;

ZFX_STATIC_ASSERT(offsetof(zfx_zoneset_node, zones) == 72, "zone tree at 72");
ZFX_STATIC_ASSERT(offsetof(zfx_zoneset_node, zone_bitmap) == 72 + sizeof(void *), "bitmap after the tree");
ZFX_STATIC_ASSERT(sizeof(zfx_zoneset_node) == (sizeof(void *) == 4 ? 1108 : 1112), "zoneset node size");

/* ---- store records ---------------------------------------------------------------------------------- */

/* Fixed part of a zone record and of a zoneset record; the TLV array's count word ends it. */
typedef struct zfx_zone_rec_head {
    uint16_t id;
    uint16_t reserved;        /* zero */
    char name[ZFX_NAME_SIZE]; /* NUL-terminated */
    zfx_tlv_block tlvs;
} zfx_zone_rec_head;

ZFX_STATIC_ASSERT(sizeof(zfx_zone_rec_head) == 76, "zone and zoneset record head");
ZFX_STATIC_ASSERT(offsetof(zfx_zone_rec_head, tlvs) == 72, "record array at 72");

/* Fixed part of a member record, of a member entry of the active zoneset data, and of the value
 * of an extension member (element 53). */
typedef struct zfx_member_rec_head {
    uint16_t id;
    uint8_t type; /* ZFX_MEMBER_* */
    uint8_t reserved;
    zfx_tlv_block tlvs;
} zfx_member_rec_head;

ZFX_STATIC_ASSERT(sizeof(zfx_member_rec_head) == 8, "member head");
ZFX_STATIC_ASSERT(offsetof(zfx_member_rec_head, tlvs) == 4, "member array at 4");

/* The head of the active zoneset data (count: zones) and of each of its zone entries (count:
 * member entries that follow). */
typedef struct zfx_active_zoneset_data {
    uint16_t id;
    char name[ZFX_NAME_SIZE]; /* NUL-terminated */
    uint16_t count;
} zfx_active_zoneset_data;
typedef zfx_active_zoneset_data zfx_zone_entry_head;

ZFX_STATIC_ASSERT(sizeof(zfx_active_zoneset_data) == 72, "active zoneset head");
ZFX_STATIC_ASSERT(offsetof(zfx_active_zoneset_data, count) == 70, "count at 70");

/* A zone extension element: a 32-bit-header element (zfx_tlv32) whose length counts the zone id,
 * the inner count and the inner elements; the next one begins tlvbuf32_size_get(length) later. */
typedef struct zfx_zone_ext_head {
    uint32_t type;    /* ZFX_TLV_ZONE_EXT */
    uint32_t length;  /* 8 + the inner elements' bytes */
    uint32_t zone_id; /* all 32 bits */
    uint32_t count;   /* inner elements */
} zfx_zone_ext_head;

ZFX_STATIC_ASSERT(sizeof(zfx_zone_ext_head) == 16, "extension element head");

/* The zone database header (value of key 66 00). A stored header may be shorter (without the
 * full zone bitmap); what it does not hold reads as zero. When the full zone bitmap is empty the
 * short one stands for its first 251 bytes. */
typedef struct zfx_zone_db_header {
    uint32_t reserved0;
    uint8_t zonesets[ZFX_MEMBER_BITMAP_SIZE]; /* zoneset ids 1..2047 */
    uint32_t reserved1;
    uint8_t zones_short[251];                 /* zone ids 1..2007 */
    uint8_t reserved2[5];
    uint32_t zones_length;                    /* not read */
    uint8_t zones[ZFX_ZONE_BITMAP_SIZE];      /* zone ids 1..8191 */
} zfx_zone_db_header;

ZFX_STATIC_ASSERT(sizeof(zfx_zone_db_header) == 1548, "zone database header is 1548 bytes");
ZFX_STATIC_ASSERT(offsetof(zfx_zone_db_header, zones_short) == 264, "short zone bitmap at 264");
ZFX_STATIC_ASSERT(offsetof(zfx_zone_db_header, zones) == 524, "full zone bitmap at 524");

/* ---- store keys ------------------------------------------------------------------------------------ */

#define ZFX_KVDB_ZONE_DB_HEADER_KEY 0x66u  /* 2 bytes: 66 00 */
#define ZFX_KVDB_ZONESET_KEY 0x67u
#define ZFX_KVDB_ZONE_KEY 0x68u
#define ZFX_KVDB_ZONE_MEMBER_KEY 0x69u
#define ZFX_KVDB_ZONE_OPTIONS_KEY 0x6Bu    /* 2 bytes: 6B 00 */
#define ZFX_KVDB_ACTIVE_ZONESET_KEY 0x6Cu
#define ZFX_ZONE_DB_KEY_SIZE 6u
#define ZFX_ZONE_OPTIONS_FORCE 0x80000000u /* options word bit (host value): forced activation */

/* A six-byte key: table, 0, then first and second in host order. zone: (ZFX_KVDB_ZONE_KEY, zone
 * id, 0); member: (ZFX_KVDB_ZONE_MEMBER_KEY, member id, zone id); zoneset: (ZFX_KVDB_ZONESET_KEY,
 * zoneset id, 0); chunk n of the active zoneset data: (ZFX_KVDB_ACTIVE_ZONESET_KEY, 0, n). */
static inline void zfx_zone_db_key(uint8_t key[ZFX_ZONE_DB_KEY_SIZE], uint8_t table, uint16_t first,
                                   uint16_t second) {
    key[0] = table;
    key[1] = 0;
    memcpy(key + 2, &first, 2);
    memcpy(key + 4, &second, 2);
}

/* ---- encoding ------------------------------------------------------------------------------------- */

/* The record of a zone, a member or a zoneset: a new block (free it with free()) and its size in
 * *length. NULL, *length untouched, when the node or length is NULL, memory is short, an element
 * cannot be added, or (member) the member type is unknown. */
ZFX_API void *zfx_zone_encode_zone_to_kvdb(const zfx_zone_node *zone, uint32_t *length);
ZFX_API void *zfx_zone_encode_zone_member_to_kvdb(const zfx_zone_member_node *member, uint32_t *length);
ZFX_API void *zfx_zone_encode_zoneset_to_kvdb(const zfx_zoneset_node *zoneset, uint32_t *length);

/* The active zoneset data of a zoneset node: a new block (free it with free()) of the size that
 * zfx_zoneset_get_persistent_data_size gives, stored in *length (set to 0 first). NULL when the
 * node or length is NULL, the data would not fit a 32-bit size, memory is short, or an element
 * cannot be added (or the trees changed since they were sized, so that the data would not fit:
 * nothing is written past the block). */
ZFX_API void *zfx_zone_zoneset_to_persistent_kvdb_data(const zfx_zoneset_node *zoneset, uint32_t *length);

/* The active zoneset data's total size; *ext_size gets the extension area's size (0 when there
 * is none). 72 for a zoneset without a zone tree, 0 for a NULL node (*ext_size then 0),
 * UINT32_MAX (*ext_size 0) for trees whose data would not fit a 32-bit size, and
 * ZFX_ERR_INVALID_ARG (as a size) when ext_size is NULL. */
ZFX_API uint32_t zfx_zoneset_get_persistent_data_size(const zfx_zoneset_node *zoneset, uint32_t *ext_size);

/*
 * Writes the zone's extension element at *cursor when the zone has anything to record there
 * (QoS, read-only, members of type 1, 240, 241): increments the area's count at *ext_count and
 * moves *cursor past the element. ext_size is the room the extension area has left from *cursor
 * on; an element that does not fit is not written (nothing is counted, nothing moved). Does
 * nothing when an argument is NULL, ext_size is 0, or the zone has nothing to record. Returns 0.
 */
ZFX_API uint32_t zfx_zone_ext_to_persistent_kvdb_data(const zfx_zone_node *zone, uint32_t *ext_count,
                                                      uint32_t ext_size, uint8_t **cursor);

/* Adds the member's attribute elements in record order to array (capacity bytes from its start,
 * count word included); with_type 1 puts the member type element (27) first. 0; the first
 * refused add's result (the elements before it stay); ZFX_ERR_INVALID_VALUE when array or member
 * is NULL; ZFX_ERR_BAD_MEMBER_TYPE for an unknown member type (nothing added). */
ZFX_API int32_t zfx_zone_encode_zone_member_attrib_tlvs(void *array, uint32_t capacity,
                                                        const zfx_zone_member_node *member, uint32_t with_type);
/* *size = the bytes those elements take. 0; ZFX_ERR_INVALID_VALUE when member or size is NULL;
 * ZFX_ERR_BAD_MEMBER_TYPE (with *size 0) for an unknown member type. */
ZFX_API int32_t zfx_zone_get_zone_member_attrib_tlvs_size(const zfx_zone_member_node *member, uint32_t with_type,
                                                          uint32_t *size);

/*
 * Fills a member node from a member record: the type from the record's type byte, then port
 * WWN (10), VSAN (11), fabric ID (12, its low 16 bits), LUN (44) and device alias (65, at most 67
 * characters, terminated) from the elements present; an element shorter than its field and any
 * other type are passed over. The id (the key's) is not set and the node is not cleared first.
 * record must be a whole member record (the record has no length of its own: readers of the
 * store check a value against its length first, as the zone text does). 0, or
 * ZFX_ERR_INVALID_ARG when record or member is NULL.
 */
ZFX_API int32_t zfx_zone_decode_member_from_kvdb_cfg(const void *record, zfx_zone_member_node *member);

/* ---- restoring --------------------------------------------------------------------------------------- */

/* Copies the zone options word (network order, as stored; at most 4 bytes, a shorter value
 * filling it from its first byte) into *options. 0; ZFX_ERR_KVDB, *options untouched, when the
 * key is missing, the lookup fails or the value has no data; ZFX_ERR_INVALID_ARG when options is
 * NULL. */
ZFX_API int32_t zfx_zone_kvdb_restore_options_from_kvdb(kvdb_store *store, uint32_t *options);

/*
 * The active zoneset data joined from its chunks: a new zero-filled block of the total length
 * that chunk 0 gives (free it with free()), filled from chunks 1, 2, ... in order until the total
 * is reached or a chunk is missing; a surplus is not copied, and a missing chunk leaves the rest
 * zero (compare the chunks with the total to tell a partial restore). NULL when the store is
 * NULL, chunk 0 is missing, shorter than 4 bytes, gives 0 or more than the data can ever take
 * (every zone id with every member id, each member at its largest: 1 878 753 364 bytes), or
 * memory is short.
 */
ZFX_API void *zfx_zone_restore_active_pzs_from_kvdb(kvdb_store *store);

ZFX_EXTERN_C_END

#endif /* ZFX_ZONE_DB_H */
