/*
 * zfx_zone_msg.h - zone configuration messages: the TLV layout of zonesets, zones and zone
 * members, the three one-entry messages that carry them, their create checks and byte-order
 * conversions, and the configuration and query requests built on them.
 *
 * TLV element: u16 type, u16 length, the value; the next element begins tlvbuf_size_get(length)
 * bytes later (platform/tlvbuf.h: 4 + length rounded up to a multiple of 4). TLV array: a u32
 * element count, then the elements. Element headers and the count word are host order in
 * messages and stored records alike; only values and the message's own fields are converted.
 *
 * Messages: an 8-byte header (entry count, flags), then one entry: its fixed fields, then the
 * TLV array.
 *
 *   kind      message type        entry fields                          array at   one-record size
 *   zoneset   ZFX_MSG_ZONESET     16 zero bytes, zoneset id (24)        28         1244
 *   zone      ZFX_MSG_ZONE        zone id (8)                           12          380
 *   member    ZFX_MSG_ZONE_MEMBER parent (zone) id (8), member id (12)  16          140
 *
 * The entry count and ids are host order while a caller fills a message and network order on
 * the wire; the flags stay host order. The one-record size has room for one element of every
 * type the kind carries.
 *
 * Malformed arrays. Wherever the library reads a TLV array it first checks that every element the
 * count claims lies within the bytes available (for a caller's message: its one-record size from
 * the message's start; for a reply: the reply's length). An array that fails is never walked;
 * each function says what its caller gets then.
 */
#ifndef ZFX_ZONE_MSG_H
#define ZFX_ZONE_MSG_H

#include "zfx_common.h"
#include "zfx_service.h"

ZFX_EXTERN_C_BEGIN

/* ---- TLV types (value size; byte order of the value on the wire) ------------------------------
 */

#define ZFX_TLV_ZONESET_NAME 1u         /* name, NUL-terminated, 68 reserved; as given */
#define ZFX_TLV_ZONESET_ATTR 3u         /* 8-byte attribute block */
#define ZFX_TLV_ZONESET_ZONES 4u        /* 260: count 256 + zone bitmap (stored records only) */
#define ZFX_TLV_ZONESET_ZONE_NAME 5u    /* a zone's name, 68 reserved; as given */
#define ZFX_TLV_ZONE_NAME 6u            /* zone name, 68 reserved; as given */
#define ZFX_TLV_ZONE_MEMBERS 7u         /* 260: count 256 + member bitmap; host order */
#define ZFX_TLV_ZONE_ATTR 9u            /* 8-byte attribute block */
#define ZFX_TLV_MEMBER_PWWN 10u         /* 8-byte port WWN; as given */
#define ZFX_TLV_MEMBER_VSAN 11u         /* u32; network order in requests */
#define ZFX_TLV_MEMBER_AFID 12u         /* u32 (low 16 bits used); network order in requests */
#define ZFX_TLV_MEMBER_TYPE 27u         /* u32 ZFX_MEMBER_*; network order in requests */
#define ZFX_TLV_ZONESET_INFO 31u        /* 20-byte information block; as received */
#define ZFX_TLV_MEMBER_LUN 44u          /* 8-byte LUN; as given */
#define ZFX_TLV_ZONE_QOS 45u            /* u32 ZFX_ZONE_QOS_*; host order everywhere */
#define ZFX_TLV_ZONE_EXT 46u            /* zone extension (stored active zoneset data) */
#define ZFX_TLV_ZONE_EXT_MEMBER 53u     /* nested member element (stored active zoneset data) */
#define ZFX_TLV_ZONESET_NAME2 56u       /* second zoneset name, 68 reserved */
#define ZFX_TLV_ZONE_NAME2 57u          /* second zone name; no room reserved */
#define ZFX_TLV_ZONE_READ_ONLY 59u      /* u32, 1 = read-only; network order everywhere */
#define ZFX_TLV_ZONESET_ZONES_EXT 60u   /* 1028: count 1024 + zone bitmap (stored records only) */
#define ZFX_TLV_ZONESET_ZONE_BITMAP 61u /* 1028: count 1024 + zone bitmap; host order */
#define ZFX_TLV_MEMBER_DEVICE_ALIAS 65u /* device alias, NUL-terminated, 68 reserved */

/* Member types (value of ZFX_TLV_MEMBER_TYPE); no other value is a member type. */
#define ZFX_MEMBER_PWWN 0u               /* identified by ZFX_TLV_MEMBER_PWWN */
#define ZFX_MEMBER_DEVICE_ALIAS 1u       /* ZFX_TLV_MEMBER_DEVICE_ALIAS */
#define ZFX_MEMBER_PWWN_LUN 240u         /* ZFX_TLV_MEMBER_PWWN and ZFX_TLV_MEMBER_LUN */
#define ZFX_MEMBER_DEVICE_ALIAS_LUN 241u /* ZFX_TLV_MEMBER_DEVICE_ALIAS and ZFX_TLV_MEMBER_LUN */

/* QoS priority (value of ZFX_TLV_ZONE_QOS); 0 is none. */
#define ZFX_ZONE_QOS_NONE 0u
#define ZFX_ZONE_QOS_LOW 1u
#define ZFX_ZONE_QOS_MEDIUM 2u
#define ZFX_ZONE_QOS_HIGH 3u

/* Query flags (header flags field): ask for the active zoneset. */
#define ZFX_ZONESET_FLAG_ACTIVE 0x80u

/* Bitmap values (types 4, 7, 60, 61): a u32 byte count in host order, then the bits; bit n is
 * 0x80 >> (n % 8) of byte n / 8. Zone ids 1..8191, member ids 1..2047; id 0 is never used. */
#define ZFX_ZONE_MEMBERS_SIZE 260u
#define ZFX_ZONESET_ZONES_SIZE 1028u
#define ZFX_ATTR_SIZE 8u
#define ZFX_ZONESET_INFO_SIZE 20u

/* Argument value meaning "leave the element out" (QoS, read-only). */
#define ZFX_ATTR_NONE 0xFFFFFFFFu

/* ---- records ----------------------------------------------------------------------------------
 */

typedef struct zfx_tlv {
    uint16_t type;
    uint16_t length; /* value bytes; the value follows */
} zfx_tlv;

typedef struct zfx_tlv32 {
    uint32_t type;
    uint32_t length; /* the next element begins tlvbuf32_size_get(length) bytes later */
} zfx_tlv32;

typedef struct zfx_tlv_block {
    uint32_t count; /* host order; the elements follow */
} zfx_tlv_block;

ZFX_STATIC_ASSERT(sizeof(zfx_tlv) == 4, "zfx_tlv header is 4 bytes");
ZFX_STATIC_ASSERT(sizeof(zfx_tlv32) == 8, "zfx_tlv32 header is 8 bytes");

typedef struct zfx_msg_hdr {
    uint32_t count;    /* entries */
    uint16_t flags;    /* host order, never converted */
    uint16_t reserved; /* zero */
} zfx_msg_hdr;

/* Each message struct is its fixed part ending with the array's count word; the elements
 * follow it. */
typedef struct zfx_zoneset_msg {
    zfx_msg_hdr hdr;
    uint8_t reserved[16]; /* zero */
    uint32_t id;
    zfx_tlv_block tlvs;
} zfx_zoneset_msg;

typedef struct zfx_zone_msg {
    zfx_msg_hdr hdr;
    uint32_t id;
    zfx_tlv_block tlvs;
} zfx_zone_msg;

typedef struct zfx_zone_member_msg {
    zfx_msg_hdr hdr;
    uint32_t parent_id; /* the member's zone */
    uint32_t id;        /* the member */
    zfx_tlv_block tlvs;
} zfx_zone_member_msg;

ZFX_STATIC_ASSERT(sizeof(zfx_msg_hdr) == 8, "message header is 8 bytes");
ZFX_STATIC_ASSERT(offsetof(zfx_msg_hdr, flags) == 4, "flags at 4");
ZFX_STATIC_ASSERT(sizeof(zfx_zoneset_msg) == 32, "zoneset message fixed part");
ZFX_STATIC_ASSERT(offsetof(zfx_zoneset_msg, id) == 24, "zoneset id at 24");
ZFX_STATIC_ASSERT(offsetof(zfx_zoneset_msg, tlvs) == 28, "zoneset array at 28");
ZFX_STATIC_ASSERT(sizeof(zfx_zone_msg) == 16, "zone message fixed part");
ZFX_STATIC_ASSERT(offsetof(zfx_zone_msg, tlvs) == 12, "zone array at 12");
ZFX_STATIC_ASSERT(sizeof(zfx_zone_member_msg) == 20, "member message fixed part");
ZFX_STATIC_ASSERT(offsetof(zfx_zone_member_msg, id) == 12, "member id at 12");
ZFX_STATIC_ASSERT(offsetof(zfx_zone_member_msg, tlvs) == 16, "member array at 16");

/* Zone activation request (84 bytes). */
typedef struct zfx_zone_activation_req {
    char name[ZFX_NAME_SIZE]; /* zoneset name, terminated; zero when none */
    uint32_t value_a;         /* host order, as given */
    uint32_t reserved1;
    uint32_t value_b; /* network order */
    uint32_t reserved2;
} zfx_zone_activation_req;

ZFX_STATIC_ASSERT(sizeof(zfx_zone_activation_req) == 84, "activation request is 84 bytes");
ZFX_STATIC_ASSERT(offsetof(zfx_zone_activation_req, value_b) == 76, "value B at 76");

/* What the data queries fill; cleared first, ids in host order, other fields as received. */
typedef struct zfx_zone_info {
    uint32_t id;                            /* in: the zone to ask for */
    char name[ZFX_NAME_SIZE];               /* type 6, at most 64 characters */
    uint8_t members[ZFX_ZONE_MEMBERS_SIZE]; /* type 7 */
    uint8_t attributes[ZFX_ATTR_SIZE];      /* type 9 */
    uint32_t qos_set;                       /* 1 when type 45 came with a nonzero value */
    uint32_t qos;                           /* type 45 */
    uint32_t read_only;                     /* type 59, host order */
} zfx_zone_info;

ZFX_STATIC_ASSERT(sizeof(zfx_zone_info) == 352, "zfx_zone_info is 352 bytes");
ZFX_STATIC_ASSERT(offsetof(zfx_zone_info, members) == 72, "members at 72");
ZFX_STATIC_ASSERT(offsetof(zfx_zone_info, qos_set) == 340, "qos_set at 340");
ZFX_STATIC_ASSERT(offsetof(zfx_zone_info, read_only) == 348, "read_only at 348");

typedef struct zfx_zoneset_info {
    uint32_t id;                                /* in: the zoneset to ask for */
    char name[ZFX_NAME_SIZE];                   /* type 1 or 56 (the later wins), at most 64 */
    uint8_t zones[ZFX_ZONESET_ZONES_SIZE];      /* type 61 */
    uint8_t attributes[ZFX_ATTR_SIZE];          /* type 3 */
    uint8_t information[ZFX_ZONESET_INFO_SIZE]; /* type 31 */
} zfx_zoneset_info;

ZFX_STATIC_ASSERT(sizeof(zfx_zoneset_info) == 1128, "zfx_zoneset_info is 1128 bytes");
ZFX_STATIC_ASSERT(offsetof(zfx_zoneset_info, attributes) == 1100, "attributes at 1100");
ZFX_STATIC_ASSERT(offsetof(zfx_zoneset_info, information) == 1108, "information at 1108");

typedef struct zfx_zone_member_info {
    uint32_t id;                      /* in: the member to ask for */
    uint32_t zone_id;                 /* in: the member's zone */
    uint32_t type;                    /* type 27 */
    uint16_t afid;                    /* type 12, low 16 bits */
    uint8_t pwwn[8];                  /* type 10 */
    uint8_t lun[8];                   /* type 44 */
    uint32_t vsan;                    /* type 11 */
    char device_alias[ZFX_NAME_SIZE]; /* type 65, at most 67 characters */
} zfx_zone_member_info;

ZFX_STATIC_ASSERT(sizeof(zfx_zone_member_info) == 104, "zfx_zone_member_info is 104 bytes");
ZFX_STATIC_ASSERT(offsetof(zfx_zone_member_info, pwwn) == 14, "pwwn at 14");
ZFX_STATIC_ASSERT(offsetof(zfx_zone_member_info, vsan) == 32, "vsan at 32");
ZFX_STATIC_ASSERT(offsetof(zfx_zone_member_info, device_alias) == 36, "alias at 36");

/* ---- TLV records ------------------------------------------------------------------------------
 */

/* The element size of a type: tlvbuf_size_get of the room the type reserves (68 for names, 4 for
 * 32-bit values, 8 for WWNs, LUNs and attribute blocks, 260, 1028, 20), cut to 16 bits; 0 for a
 * type that reserves no room (4, 46, 53, 57, 60 and every unknown type). */
ZFX_API uint32_t zfx_tlv_size_get_for_type(uint32_t type);

/* One-record sizes: 140 (member), 380 (zone), 1244 (zoneset). */
ZFX_API uint32_t zfx_get_size_one_zone_member_tlv(void);
ZFX_API uint32_t zfx_get_size_one_zone_tlv(void);
ZFX_API uint32_t zfx_get_size_one_zoneset_tlv(void);

/* A new one-record message: zero but for the entry count 1 (host order). NULL when memory is
 * short. The caller frees it with free(). */
ZFX_API zfx_zone_member_msg *zfx_dlg_malloc_one_zone_member_and_all_attribs(void);
ZFX_API zfx_zone_msg *zfx_dlg_malloc_one_zone_and_all_attribs(void);
ZFX_API zfx_zoneset_msg *zfx_dlg_malloc_one_zoneset_and_all_attribs(void);

/* Adds an element to the array of a one-record message. entry is the message's address plus 8
 * (the entry, not the message). Any type is accepted while it fits the one-record size.
 * 0, or ZFX_ERR_INVALID_ARG when it does not fit, when entry is NULL, or when value is NULL with
 * a nonzero length; the array is then unchanged. */
ZFX_API int32_t zfx_dlg_zone_member_add_tlv(void *entry, uint16_t type, uint16_t length,
                                            const void *value);
ZFX_API int32_t zfx_dlg_zone_add_tlv(void *entry, uint16_t type, uint16_t length,
                                     const void *value);
ZFX_API int32_t zfx_dlg_zoneset_add_tlv(void *entry, uint16_t type, uint16_t length,
                                        const void *value);

/* Create checks of a one-record message in host order; they change nothing.
 *  member: a type 10 or 65 element, a type 11 and a type 27 element;
 *  zone: a type 6 element with a value; zoneset: a type 1 element with a value.
 * 0 when it passes; ZFX_ERR_CREATE_INCOMPLETE when the array is empty or lacks what is required;
 * ZFX_ERR_INVALID_ARG when msg is NULL or its array is malformed. */
ZFX_API int32_t zfx_do_sanity_for_zone_member_create(const zfx_zone_member_msg *msg);
ZFX_API int32_t zfx_do_sanity_for_zone_create(const zfx_zone_msg *msg);
ZFX_API int32_t zfx_do_sanity_for_zoneset_create(const zfx_zoneset_msg *msg);

/*
 * Byte-order conversion of a one-record message in place. _hton and _ntoh of a kind perform the
 * same steps (reversing bytes twice restores them): the entry count and the kind's ids are
 * reversed, and values: member types 11, 12 and 27 are reversed; the 8-byte attribute blocks
 * (zone type 9, zoneset type 3) get their first byte from the fourth, the service's convention
 * for them. Element headers, the array's count word, the flags and every other value stay as
 * they are. A message whose array is malformed is left entirely unchanged; NULL does nothing.
 */
ZFX_API void zfx_zone_member_tlv_hton(zfx_zone_member_msg *msg);
ZFX_API void zfx_zone_member_tlv_ntoh(zfx_zone_member_msg *msg);
ZFX_API void zfx_zone_tlv_hton(zfx_zone_msg *msg);
ZFX_API void zfx_zone_tlv_ntoh(zfx_zone_msg *msg);
ZFX_API void zfx_zoneset_tlv_hton(zfx_zoneset_msg *msg);
ZFX_API void zfx_zoneset_tlv_ntoh(zfx_zoneset_msg *msg);

/* ---- configuration requests -------------------------------------------------------------------
 * Every function takes the caller's endpoint and operation code first and its channel options A
 * and B last, all passed through. Timeout: 23 for operation codes 3 and 4, 10 otherwise. No reply
 * is wanted. Results (u32): the channel's result unchanged (-1 as 0xFFFFFFFF included), or
 * ZFX_ERR_NO_MEMORY (allocation failed) or ZFX_ERR_INVALID_ARG (an element could not be added);
 * every buffer a function builds is released before it returns.
 */

/* Sends the caller's one-record message (host order): converted to network order, sent at the
 * one-record size, converted back; the caller keeps it. ZFX_ERR_INVALID_ARG, nothing sent and
 * the message untouched, when msg is NULL or its array is malformed. */
ZFX_API uint32_t zfx_dlg_config_zone_member_tlv(plat_endpoint *ep, uint32_t opcode,
                                                zfx_zone_member_msg *msg, const char *opt_a,
                                                uint32_t opt_b);
ZFX_API uint32_t zfx_dlg_config_zone_tlv(plat_endpoint *ep, uint32_t opcode, zfx_zone_msg *msg,
                                         const char *opt_a, uint32_t opt_b);
ZFX_API uint32_t zfx_dlg_config_zoneset_tlv(plat_endpoint *ep, uint32_t opcode,
                                            zfx_zoneset_msg *msg, const char *opt_a,
                                            uint32_t opt_b);

/*
 * A zone member from plain arguments, sent as ZFX_MSG_ZONE_MEMBER at exactly the length of what
 * it carries. Elements, in order, each only when asked for: zone name (6), member type (27,
 * always), port WWN (10, 8 bytes at member_value, types 0 and 240) or device alias (65, the
 * string at member_value, types 1 and 241), LUN (44, 8 bytes), VSAN (11, when not 0), fabric ID
 * (12, when not 0). Both ids are always carried. A member type other than 0, 1, 240, 241 gives
 * ZFX_ERR_INVALID_VALUE before anything is allocated. With debug_cli set, prints its progress
 * to standard output.
 */
ZFX_API uint32_t zfx_dlg_config_zone_member(plat_endpoint *ep, uint32_t opcode,
                                            const char *zone_name, uint32_t id, uint32_t parent_id,
                                            uint32_t member_type, const void *member_value,
                                            const uint8_t *lun, uint32_t vsan, uint32_t afid,
                                            const char *opt_a, uint32_t opt_b);

/* A zone: the name (6) when given, else the id in the entry; QoS (45, host order) and read-only
 * (59, network order) unless ZFX_ATTR_NONE; the second name (57) when given. Sent as
 * ZFX_MSG_ZONE (_all_attrib) or ZFX_MSG_ZONE_ATTRIB (_attrib). */
ZFX_API uint32_t zfx_dlg_config_zone_all_attrib(plat_endpoint *ep, uint32_t opcode,
                                                const char *name, const char *name2,
                                                uint32_t zone_id, uint32_t qos, uint32_t read_only,
                                                const char *opt_a, uint32_t opt_b);
ZFX_API uint32_t zfx_dlg_config_zone_attrib(plat_endpoint *ep, uint32_t opcode, const char *name,
                                            const char *name2, uint32_t zone_id, uint32_t qos,
                                            uint32_t read_only, const char *opt_a, uint32_t opt_b);
/* zfx_dlg_config_zone_all_attrib with id 0, QoS 0 and no read-only element. */
ZFX_API uint32_t zfx_dlg_config_zone(plat_endpoint *ep, uint32_t opcode, const char *name,
                                     const char *name2, const char *opt_a, uint32_t opt_b);

/* A zoneset: the name (1) when given, else the id in the entry; the zone name (5) when given,
 * else the 1028-byte zone bitmap (61) when given; the second name (56) when given. Sent as
 * ZFX_MSG_ZONESET. */
ZFX_API uint32_t zfx_dlg_config_zoneset_all_attrib(plat_endpoint *ep, uint32_t opcode,
                                                   const char *name, const char *name2,
                                                   uint32_t zoneset_id, const char *zone_name,
                                                   const void *zone_bitmap, const char *opt_a,
                                                   uint32_t opt_b);
/* zfx_dlg_config_zoneset_all_attrib with id 0 and no bitmap. */
ZFX_API uint32_t zfx_dlg_config_zoneset(plat_endpoint *ep, uint32_t opcode, const char *name,
                                        const char *name2, const char *zone_name, const char *opt_a,
                                        uint32_t opt_b);

/* Activates a zoneset: zfx_zone_activation_req (name cut to 67 characters) as
 * ZFX_MSG_ZONE_ACTIVATION. A negative channel result becomes ZFX_ERR_ERRNO(errno). */
ZFX_API uint32_t zfx_dlg_config_zone_activation(plat_endpoint *ep, uint32_t opcode,
                                                const char *name, uint32_t value_a,
                                                uint32_t value_b, const char *opt_a,
                                                uint32_t opt_b);

/* ---- queries ------------------------------------------------------------------------------------
 * Sent to ZFX_SAP with options 0 and 0, timeout 10. Results (u32): the channel's result
 * unchanged (-1 included), ZFX_ERR_NO_MEMORY, or ZFX_ERR_INVALID_ARG as each function says.
 */

/*
 * Message queries: a one-entry message with the name element (1 for zonesets, 6 for zones and
 * for the member's zone) when a name is given, the id(s) and the entry count in network order,
 * the flags in host order. *reply is the reply that came (service byte order; beside a nonzero
 * result too), which the caller frees, or NULL when none came. On 0 a reply that does not hold
 * the kind's fixed part and a well-formed TLV array is released and gives ZFX_ERR_INVALID_ARG
 * with *reply NULL. ZFX_ERR_NO_MEMORY, nothing sent and *reply NULL, when the query cannot be
 * allocated. reply may be NULL (no reply wanted). With debug_cli set they print their
 * requests and the length after the call; the member query prints
 * "Internal error due to fail in adding zone name to tlvs" whenever its name cannot be added.
 */
ZFX_API uint32_t zfx_dlg_get_zoneset(plat_endpoint *ep, uint32_t opcode, const char *name,
                                     uint32_t id, zfx_zoneset_msg **reply, uint32_t count,
                                     uint16_t flags);
ZFX_API uint32_t zfx_dlg_get_zone(plat_endpoint *ep, uint32_t opcode, const char *name, uint32_t id,
                                  zfx_zone_msg **reply, uint32_t count, uint16_t flags);
ZFX_API uint32_t zfx_dlg_get_zone_member(plat_endpoint *ep, uint32_t opcode, const char *name,
                                         uint32_t member_id, uint32_t parent_id,
                                         zfx_zone_member_msg **reply, uint32_t count,
                                         uint16_t flags);

/*
 * Data queries: ask for the one object whose id(s) the caller set in info, then fill info from
 * the reply (see the structures). 0 on success. ZFX_ERR_INVALID_ARG when info is NULL, when no
 * reply came, or when the reply is malformed; ZFX_ERR_NO_MEMORY, nothing sent, when the query
 * cannot be allocated; a nonzero channel result is returned unchanged. On any failure info is
 * left untouched.
 */
ZFX_API uint32_t zfx_dlg_get_zoneset_data(plat_endpoint *ep, uint32_t opcode,
                                          zfx_zoneset_info *info, uint16_t flags);
ZFX_API uint32_t zfx_dlg_get_zone_data(plat_endpoint *ep, uint32_t opcode, zfx_zone_info *info,
                                       uint16_t flags);
ZFX_API uint32_t zfx_dlg_get_zone_member_data(plat_endpoint *ep, uint32_t opcode,
                                              zfx_zone_member_info *info, uint16_t flags);

/*
 * The active zoneset: its name (first element of the reply, at most 67 characters, terminated)
 * into name (68 bytes) and its zone bitmap (second element, at most 1028 bytes, the rest zero;
 * count 1024 and no zones when the element is empty) into zones (1028 bytes).
 * 0 also when no reply came (outputs untouched). ZFX_ERR_INVALID_ARG when name or zones is NULL,
 * the reply is malformed, its entry count is not 1, or it has fewer than two elements (the name
 * may then have been written). ZFX_ERR_NO_MEMORY, nothing sent and the outputs untouched, when
 * the query cannot be allocated; a nonzero channel result is returned unchanged.
 */
ZFX_API uint32_t zfx_get_active_zoneset(plat_endpoint *ep, char *name, uint8_t *zones);

ZFX_EXTERN_C_END

#endif /* ZFX_ZONE_MSG_H */
