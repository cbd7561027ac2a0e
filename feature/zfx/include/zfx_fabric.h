/*
 * zfx_fabric.h - the VSAN topology, the autonomous fabric ID (AFID) table and the service groups:
 * their store records, the flat lists read from the store, and their configuration text.
 *
 * Common rules:
 *  - Store keys hold numbers in host order; switch WWNs are 8 bytes in printing order, printed as
 *    "%02x:" seven times then "%02x". Values that should hold a VSAN set are the 516-byte
 *    vsan_bitset layout; a shorter value counts as missing (its entry is not listed).
 *  - A list is one block from the standard allocator, released by the caller with free: a count
 *    word in network order, then the entries in store key order, numbers in network order. The
 *    size handed back is the block's size, 4 + entry size x entries. Every byte not listed in an
 *    entry is zero.
 *  - Each table is walked from its first key in store order as long as the keys pass the table's
 *    key check: the first key that fails (another table or kind, a wrong length, the end of the
 *    store) ends the walk.
 *  - A list that cannot be allocated: the builder returns ZFX_ERR_NO_MEMORY with *list NULL and
 *    *size 0, and the generator writes nothing for that table.
 *  - A generator handed no store reports through perror ("ZFX-VT-PTXT: kvdb service is null\n",
 *    for service groups "ZFX-SG-PTXT: kvdb service is null\n"), writes nothing and returns 0.
 *  - Range text is the VSAN range text of vsan_bitset.h. Topology and AFID lines hold it whole
 *    (up to 12913 characters); a service-group line holds at most 2047 characters with its "\n",
 *    its range text cut after the last whole run that fits.
 */
#ifndef ZFX_FABRIC_H
#define ZFX_FABRIC_H

#include "platform/kvdb.h"
#include "vsan_bitset.h"
#include "zfx_common.h"

ZFX_EXTERN_C_BEGIN

#define ZFX_WWN_SIZE 8u

/* ======================================= VSAN topology ====================================== */
/*
 * Text, in element 3, three passes over the list with the activate line after the first:
 *   "zfx vsan-topology database\n"                 before the first activated entry (bit 0)
 *     "autonomous-fabric-id %4d switch-wwn %s vsan-ranges %s\n"       each, level 1
 *   "zfx vsan-topology activate\n"                 when the first pass wrote an entry
 *   "zfx vsan-topology database\n"                 before the first entry of membership 2
 *     "autonomous-fabric-id %4d switch-wwn %s vsan-ranges %s\n"       each, level 1
 *     "no autonomous-fabric-id %4d switch-wwn %s vsan-ranges %s\n"    membership 1, level 1
 *   "zfx vsan-topology auto\n"                     when the mode record says automatic
 */

#define ZFX_VT_TABLE 0x65u
#define ZFX_VT_KIND_ENTRY 1u
#define ZFX_VT_KIND_MODE 2u
#define ZFX_VT_FLAG_ACTIVE 0x01u /* part of the activated topology */
#define ZFX_VT_FLAG_CONFIG 0x02u /* part of the configured topology database */
#define ZFX_VT_MODE_AUTO 101u

/* Key of a topology entry; the value is a vsan_bitset. */
typedef struct __attribute__((packed)) zfx_vt_kvdb_key {
    uint8_t table;               /* ZFX_VT_TABLE */
    uint8_t kind;                /* ZFX_VT_KIND_ENTRY */
    uint16_t afid;               /* host order */
    uint8_t wwn[ZFX_WWN_SIZE];   /* switch WWN */
    uint8_t membership;          /* ZFX_VT_FLAG_ bits */
} zfx_vt_kvdb_key;

ZFX_STATIC_ASSERT(sizeof(zfx_vt_kvdb_key) == 13, "topology key is 13 bytes");
ZFX_STATIC_ASSERT(offsetof(zfx_vt_kvdb_key, membership) == 12, "membership is the last key byte");

/* Topology mode record: key ZFX_VT_TABLE, ZFX_VT_KIND_MODE; value of 24 bytes. */
typedef struct zfx_vt_mode_record {
    uint32_t word0;       /* handed back as stored */
    uint32_t mode;        /* network order; ZFX_VT_MODE_AUTO: automatic topology */
    uint32_t reserved[4]; /* not interpreted */
} zfx_vt_mode_record;

ZFX_STATIC_ASSERT(sizeof(zfx_vt_mode_record) == 24, "topology mode record is six words");

typedef struct zfx_vsan_topo_entry {
    uint16_t afid;              /* network order */
    uint16_t reserved0;
    uint8_t wwn[ZFX_WWN_SIZE];  /* as in the key */
    vsan_bitset vsans;          /* as stored */
    uint32_t is_local;          /* network order: 1 when wwn equals local_switch_wwn */
    uint32_t reserved1;
    uint32_t membership;        /* network order: the key's membership byte */
    uint32_t reserved2;
} zfx_vsan_topo_entry;

ZFX_STATIC_ASSERT(sizeof(zfx_vsan_topo_entry) == 544, "topology entry is 544 bytes");
ZFX_STATIC_ASSERT(offsetof(zfx_vsan_topo_entry, vsans) == 12, "VSAN set at 12");
ZFX_STATIC_ASSERT(offsetof(zfx_vsan_topo_entry, is_local) == 528, "is-local at 528");
ZFX_STATIC_ASSERT(offsetof(zfx_vsan_topo_entry, membership) == 536, "membership at 536");

typedef struct zfx_vsan_topo_list {
    uint32_t count; /* network order */
    zfx_vsan_topo_entry entries[];
} zfx_vsan_topo_list;

/* Writes the topology section of store to element 3 (see above) and sets commit_reqd when the
 * table has entries or the mode is automatic. Returns 0, or the mode record's lookup status. */
ZFX_API int32_t zfx_vsan_topology_generate_ascii_config(uint32_t handle, kvdb_store *store);
/* 0 for a topology entry key of table; ZFX_ERR_VT_KEY for a NULL key, another table or kind;
 * ZFX_ERR_VT_KEY_LENGTH for a length other than 13 (tested in that order: null, length, table,
 * kind). */
ZFX_API int32_t zfx_vt_kvdb_key_check(const kvdb_datum *key, uint8_t table);
/* Reads the mode record into *record (zeroed first) and its word 0 into *first_word. Returns the
 * lookup's status (0: read); a value shorter than 24 bytes answers ZFX_KVDB_NOT_FOUND; NULL
 * arguments ZFX_ERR_INVALID_ARG. */
ZFX_API int32_t zfx_vt_get_vsan_topo_flag_in_kvdb(kvdb_store *store, zfx_vt_mode_record *record,
                                                  uint32_t *first_word);
/* Lists the topology entries of table whose membership byte shares a bit with mask. Returns 0,
 * ZFX_ERR_NO_MEMORY, or ZFX_ERR_INVALID_ARG for a NULL argument. */
ZFX_API int32_t zfx_vsan_topo_config_get(kvdb_store *store, uint8_t table, uint8_t mask,
                                         zfx_vsan_topo_list **list, uint32_t *size);
/* Writes the passes of a topology list (a NULL or empty list writes nothing). Returns 0. */
ZFX_API int32_t zfx_vsan_topo_config_show(uint32_t handle, const zfx_vsan_topo_list *list);

/* ====================================== AFID table ========================================= */
/*
 * Text, in element 6, for the default table and then the ordinary one, each only when it has
 * entries:
 *   "autonomous-fabric-id database\n"
 *     "switch-wwn %s default-autonomous-fabric-id %4d\n"                  default table, level 1
 *     "switch-wwn %s autonomous-fabric-id %4d vsan-ranges %s\n"           ordinary table, level 1
 */

#define ZFX2_AFID_TABLE 0x71u
#define ZFX2_AFID_DEFAULT_TABLE 0x72u
#define ZFX2_AFID_KIND 1u

/* Key of an AFID table entry; the value is a vsan_bitset (not used by the default table's text). */
typedef struct __attribute__((packed)) zfx2_afid_table_kvdb_key {
    uint8_t table;             /* ZFX2_AFID_TABLE or ZFX2_AFID_DEFAULT_TABLE */
    uint8_t kind;              /* ZFX2_AFID_KIND */
    uint8_t wwn[ZFX_WWN_SIZE]; /* switch WWN */
    uint16_t afid;             /* host order */
} zfx2_afid_table_kvdb_key;

ZFX_STATIC_ASSERT(sizeof(zfx2_afid_table_kvdb_key) == 12, "AFID key is 12 bytes");
ZFX_STATIC_ASSERT(offsetof(zfx2_afid_table_kvdb_key, afid) == 10, "AFID at 10");

typedef struct zfx2_afid_table_entry {
    uint16_t afid;             /* network order */
    uint16_t reserved0;
    uint8_t wwn[ZFX_WWN_SIZE]; /* as in the key */
    vsan_bitset vsans;         /* as stored */
    uint32_t is_local;         /* network order: 1 when wwn equals local_switch_wwn */
    uint32_t reserved1;
    uint32_t reserved2;
} zfx2_afid_table_entry;

ZFX_STATIC_ASSERT(sizeof(zfx2_afid_table_entry) == 540, "AFID entry is 540 bytes");
ZFX_STATIC_ASSERT(offsetof(zfx2_afid_table_entry, is_local) == 528, "is-local at 528");

typedef struct zfx2_afid_table_list {
    uint32_t count; /* network order */
    zfx2_afid_table_entry entries[];
} zfx2_afid_table_list;

/* Writes both halves to element 6 and sets *commit (when commit is not NULL) for a half with
 * entries. Returns 0. */
ZFX_API int32_t zfx2_afid_table_generate_ascii_config(uint32_t handle, kvdb_store *store, int32_t *commit);
/* 0 for a key of the default (is_default non-zero) or ordinary table; ZFX_ERR_AFID_KEY for a NULL
 * key, another table or kind; ZFX_ERR_AFID_KEY_LENGTH for a length other than 12. */
ZFX_API int32_t zfx2_afid_table_kvdb_key_check(const kvdb_datum *key, uint8_t is_default);
/* Lists one half. Returns 0, ZFX_ERR_NO_MEMORY, or ZFX_ERR_INVALID_ARG for a NULL argument. */
ZFX_API int32_t zfx2_afid_table_config_get(kvdb_store *store, zfx2_afid_table_list **list, uint32_t *size,
                                           uint8_t is_default);
/* Writes a list in the default or ordinary form (NULL or empty: nothing). Returns 0. */
ZFX_API int32_t zfx2_afid_table_config_show(uint32_t handle, const zfx2_afid_table_list *list,
                                            uint8_t is_default);

/* ===================================== service groups ====================================== */
/*
 * Text, in element 7 (group and activation lines at base level, members at level 1). A group
 * line is written only when the group name differs from the last one written by the same pass.
 *   active block:   "zfx service-group name %s\n", "autonomous-fabric-id %2d vsan-ranges %s\n",
 *                   then "zfx service-group activate\n" (policy 0) or
 *                   "zfx service-group activate default-sg-deny\n"
 *   removed groups: "no zfx service-group name %s\n" for an active group the configured table
 *                   lacks
 *   removed members: the group line, then "no autonomous-fabric-id %2d vsan-ranges %s\n" for an
 *                   active member (name and AFID) the configured table lacks in a group it keeps
 *   added members:  the group line, then "autonomous-fabric-id %2d vsan-ranges %s\n" for a
 *                   configured member with no identical active one (new or changed VSANs)
 * Names print up to their NUL or their 80th byte.
 */

#define ZFX2_SG_CFG_TABLE 0x73u
#define ZFX2_SG_ACTIVE_TABLE 0x76u
#define ZFX2_SG_KIND_NAME 1u
#define ZFX2_SG_KIND_MEMBER 2u
#define ZFX2_SG_KIND_POLICY 3u /* active table only: u32 host order, non-zero = default deny */
#define ZFX2_SG_NAME_SIZE 80u
#define ZFX2_SG_STATE_ACTIVE 1u
#define ZFX2_SG_STATE_ACTIVE_DENY 3u
#define ZFX2_SG_LINE_SIZE 2048u

/* Key of a group's name record; the value is the name (at most its first 80 bytes are used). */
typedef struct __attribute__((packed)) zfx2_sg_kvdb_id_key {
    uint8_t table;     /* ZFX2_SG_CFG_TABLE or ZFX2_SG_ACTIVE_TABLE */
    uint8_t kind;      /* ZFX2_SG_KIND_NAME */
    uint32_t group_id; /* host order */
} zfx2_sg_kvdb_id_key;

/* Key of a member record; the value is the member's vsan_bitset. */
typedef struct __attribute__((packed)) zfx2_sg_kvdb_key {
    uint8_t table;     /* ZFX2_SG_CFG_TABLE or ZFX2_SG_ACTIVE_TABLE */
    uint8_t kind;      /* ZFX2_SG_KIND_MEMBER */
    uint32_t group_id; /* host order */
    uint16_t afid;     /* host order */
} zfx2_sg_kvdb_key;

ZFX_STATIC_ASSERT(sizeof(zfx2_sg_kvdb_id_key) == 6, "group name key is 6 bytes");
ZFX_STATIC_ASSERT(sizeof(zfx2_sg_kvdb_key) == 8, "member key is 8 bytes");

typedef struct zfx2_sg_entry {
    uint32_t group_id;             /* network order */
    char name[ZFX2_SG_NAME_SIZE];  /* NUL-padded; all zero when the name record is missing */
    uint16_t afid;                 /* network order */
    uint8_t state;                 /* 0 configured; active: 1, or 3 with the default policy deny */
    uint8_t reserved;
    vsan_bitset vsans;             /* as stored */
} zfx2_sg_entry;

ZFX_STATIC_ASSERT(sizeof(zfx2_sg_entry) == 604, "service-group entry is 604 bytes");
ZFX_STATIC_ASSERT(offsetof(zfx2_sg_entry, afid) == 84, "AFID at 84");
ZFX_STATIC_ASSERT(offsetof(zfx2_sg_entry, vsans) == 88, "VSAN set at 88");

typedef struct zfx2_sg_list {
    uint32_t count; /* network order */
    zfx2_sg_entry entries[];
} zfx2_sg_list;

/* Writes the active block and the differences to element 7, and sets *commit (when commit is not
 * NULL) for each table with entries. The differences are written only when both tables could be
 * read (without memory for one, there is no text of it). The text is what the show functions
 * below write of the two lists. Returns 0. */
ZFX_API int32_t zfx2_sg_table_generate_ascii_config(uint32_t handle, kvdb_store *store, int32_t *commit);
/* Lists the members of the configured (is_cfg non-zero) or active table, with their names.
 * Returns 0, ZFX_ERR_NO_MEMORY, or ZFX_ERR_INVALID_ARG for a NULL argument. */
ZFX_API int32_t zfx2_sg_config_get(kvdb_store *store, zfx2_sg_list **list, uint32_t *size, uint8_t is_cfg);
/* Writes the active block of an active list (NULL or empty: nothing). Returns 0. */
ZFX_API int32_t zfx2_sg_table_active_show(uint32_t handle, const zfx2_sg_list *active, uint32_t policy);
/* Writes the differences of configured against active (NULL counts as empty). Returns 0. */
ZFX_API int32_t zfx2_sg_table_config_show(uint32_t handle, const zfx2_sg_list *configured,
                                          const zfx2_sg_list *active);
/* The default policy word; 0 when the record is missing, shorter than 4 bytes or unreadable. */
ZFX_API uint32_t zfx2_get_default_sg_policy(kvdb_store *store);
/* Copies the name of group group_id (host order) of the chosen table into name (80 bytes,
 * NUL-padded, not terminated when the name fills all 80) and returns 0. A missing or unreadable
 * record, or a NULL store, leaves name empty (all zero) and returns ZFX_ERR_TABLE_KEY; a NULL
 * name returns ZFX_ERR_INVALID_ARG. */
ZFX_API int32_t zfx2_sg_get_name_from_id(uint32_t group_id, char *name, kvdb_store *store, uint8_t is_cfg);
/* 1 when list b has an entry whose name equals that of entry index of list a; 0 otherwise, and 0
 * for an index not below a's count, an empty b, or a NULL list. */
ZFX_API int32_t zfx2_sg_name_check_if_in_cfg2(uint32_t index, const zfx2_sg_list *a, const zfx2_sg_list *b);
/* 1 when list b holds the same member (name and AFID) as entry index of list a, or with
 * compare_vsans an identical one (all 516 bytes of the VSAN set equal too); 0 otherwise, with
 * the same 0 cases as above. */
ZFX_API int32_t zfx2_sg_member_check_if_in_cfg2(uint32_t index, const zfx2_sg_list *a, const zfx2_sg_list *b,
                                                uint8_t compare_vsans);

/* Key checks: 0, or ZFX_ERR_TABLE_KEY for a NULL key, a wrong length, table byte or kind (in that
 * order). Member keys are 8 bytes of kind 2, name keys 6 bytes of kind 1. */
ZFX_API int32_t zfx2_sg_kvdb_key_check_internal(const kvdb_datum *key, uint8_t is_cfg);
ZFX_API int32_t zfx2_sg_cfg_kvdb_key_check(const kvdb_datum *key);
ZFX_API int32_t zfx2_sg_active_kvdb_key_check(const kvdb_datum *key);
ZFX_API int32_t zfx2_sg_kvdb_key_check_id_internal(const kvdb_datum *key, uint8_t is_cfg);
ZFX_API int32_t zfx2_sg_cfg_kvdb_key_check_id(const kvdb_datum *key);
ZFX_API int32_t zfx2_sg_active_kvdb_key_check_id(const kvdb_datum *key);

ZFX_EXTERN_C_END

#endif /* ZFX_FABRIC_H */
