/*
 * zfx_ascii_cfg.h - configuration text generation: the entry points the configuration-text
 * service calls, the feature's text elements, the section driver and the global settings.
 *
 * The feature's configuration lives in its persistent store (platform/kvdb.h); generation reads
 * it (never writes) and adds command lines to text elements of a generation of the
 * configuration-text service (platform/ptxt.h), one generation at a time per process.
 *
 * Text elements, all in group ZFX_PTXT_GROUP (180), kind ZFX_PTXT_ELEM_KIND (11):
 *   1 feature line                  no dependency
 *   2 zones and zonesets            after 4, and after element 9 of group 37
 *   3 VSAN topology                 after 4
 *   4 global settings               after 1
 *   5 commit line                   after 4, 2, 3, 6, 7 and 8
 *   6 AFID table                    after 4
 *   7 service groups                after 4
 *   8 persistent FCIDs              after 4
 * so the text reads: the feature line, the global settings, the five tables, the commit line.
 *
 * Sections run in this order, each whatever the ones before it did: NAT, fabric distribution,
 * (commit flag reset), virtual domains, global flags, AAM registration, zones and zonesets, VSAN
 * topology, AFID table, service groups, persistent FCIDs, and the commit line, written when
 * distribution is on and a section after the reset has set commit_reqd.
 *
 * Element 4 (global settings) holds, in this order and each only when its setting is on:
 *   "zfx nat\n", "zfx distribute\n", the virtual domain lines, "zfx fcdomain check-ignore\n",
 *   "zfx share-hw-entries\n", "zfx aam register\n".
 *
 * Store records read here (two-byte keys):
 *   0x75 0x01  global flags          u32, host order; a shorter value fills the word from its
 *                                    first byte, the rest staying 0 (ZFX_GFLAG_ bits)
 *   0x70 0x00  NAT                   first byte non-zero: NAT on
 *   0x7A 0x00  AAM registration      first byte non-zero: the feature registers with AAM
 *   0x6E 0x00  fabric distribution   u32, network order; 1: on, anything else off; a value of
 *                                    fewer than 4 bytes counts as missing
 * and in the debug store, under the 8-byte key of two host-order words 2, 0, the
 * zfx_debug_level_record.
 *
 * A section handed no store reports "ZFX-VT-PTXT: kvdb service is null\n" through perror (so the
 * message, ": " and the system's error text appear on standard error).
 */
#ifndef ZFX_ASCII_CFG_H
#define ZFX_ASCII_CFG_H

#include "platform/kvdb.h"
#include "vsan_bitset.h"
#include "zfx_common.h"

ZFX_EXTERN_C_BEGIN

/* ---- text elements ----------------------------------------------------------------------------- */

#define ZFX_PTXT_GROUP 180u
#define ZFX_PTXT_ELEM_KIND 11u
#define ZFX_ELEM_FEATURE 1u
#define ZFX_ELEM_ZONE 2u
#define ZFX_ELEM_TOPOLOGY 3u
#define ZFX_ELEM_GLOBAL 4u
#define ZFX_ELEM_COMMIT 5u
#define ZFX_ELEM_AFID 6u
#define ZFX_ELEM_SERVICE_GROUP 7u
#define ZFX_ELEM_PFCID 8u

/* Other groups the feature's text is tied to; their meaning is the configuration-text service's. */
#define ZFX_PTXT_ZONE_AFTER_GROUP 37u   /* element 2 comes after its element 9 */
#define ZFX_PTXT_ZONE_AFTER_ELEM 9u
#define ZFX_PTXT_LOGGING_GROUP 118u     /* element 1 comes after its element 1 once a logging */
#define ZFX_PTXT_LOGGING_ELEM 1u        /* level line is written */
#define ZFX_PTXT_CONFIG_GROUP 115u      /* the logging-level line goes to this group's text */

/* ---- global settings ------------------------------------------------------------------------- */

#define ZFX_GFLAG_FCDOMAIN_CHECK_IGNORE 0x01u /* "zfx fcdomain check-ignore\n" */
#define ZFX_GFLAG_VDOM_FORCE 0x02u            /* the virtual domain line ends in " force" */
#define ZFX_GFLAG_SHARE_HW_ENTRIES 0x10u      /* "zfx share-hw-entries\n" */

#define ZFX_KVDB_GLOBAL_FLAGS_KEY 0x75u /* second key byte 0x01 */
#define ZFX_KVDB_NAT_KEY 0x70u          /* second key byte 0x00 */
#define ZFX_KVDB_AAM_KEY 0x7Au          /* second key byte 0x00 */
#define ZFX_KVDB_DISTRIBUTE_KEY 0x6Eu   /* second key byte 0x00 */

/* ---- stores ------------------------------------------------------------------------------------- */

/* A store's location: "%s/%s_%s" with the request's prefix, "zfx" and the suffix, cut to 119
 * characters. */
#define ZFX_STORE_LOCATION_SIZE 120u
#define ZFX_STORE_CONFIG_SUFFIX "startup_config"
#define ZFX_STORE_DEBUG_SUFFIX "debug"

/* Debug logging level, in the debug store. Counts only when valid is 1 and level is 0 to 7;
 * level 5 writes no line. A stored value shorter than 8 bytes counts as missing. */
typedef struct zfx_debug_level_record {
    uint32_t valid; /* host order */
    uint32_t level; /* host order */
} zfx_debug_level_record;

ZFX_STATIC_ASSERT(sizeof(zfx_debug_level_record) == 8, "debug level record is two words");

#define ZFX_DEBUG_LEVEL_KEY_WORD0 2u
#define ZFX_DEBUG_LEVEL_KEY_WORD1 0u
#define ZFX_DEBUG_LEVEL_SILENT 5u
#define ZFX_DEBUG_LEVEL_MAX 7u

/* Kinds of the stores listed in a generation request. */
#define ZFX_GEN_STORE_CONFIG 2u
#define ZFX_GEN_STORE_DEBUG 5u
#define ZFX_GEN_SELECT_GENERATE 1u

/* One store listed in a generation request. store is a pointer: one 32-bit word on the switch,
 * so the entry is three words there (12 bytes) and 24 bytes on x86_64. */
typedef struct zfx_gen_store_entry {
    uint32_t kind;     /* ZFX_GEN_STORE_CONFIG, ZFX_GEN_STORE_DEBUG; others are skipped */
    kvdb_store *store; /* an open store, the service's */
    uint32_t reserved; /* not read */
} zfx_gen_store_entry;

/* The request through which the service hands over stores it has opened. */
typedef struct zfx_gen_request {
    uint32_t reserved;  /* not read */
    uint32_t handle;    /* the generation's handle */
    uint32_t selector;  /* ZFX_GEN_SELECT_GENERATE, or nothing is generated */
    uint32_t count;     /* entries that follow; the caller guarantees that many */
    zfx_gen_store_entry entries[];
} zfx_gen_request;

ZFX_STATIC_ASSERT(sizeof(zfx_gen_request) == 16, "request header is four words");
ZFX_STATIC_ASSERT(offsetof(zfx_gen_request, entries) == 16, "entries follow the header");
ZFX_STATIC_ASSERT(sizeof(zfx_gen_store_entry) == (sizeof(void *) == 4 ? 12 : 24),
                  "a store entry is three pointer-sized words");
ZFX_STATIC_ASSERT(offsetof(zfx_gen_store_entry, store) == sizeof(void *), "store is the second word");

/* ---- the commit flag ---------------------------------------------------------------------------- */

/* 1 when text generated since the driver last reset it calls for the commit line; 0 otherwise.
 * Only the driver resets it; sections only set it to 1. One generation at a time per process. */
ZFX_API extern int32_t commit_reqd;

/* ---- entry points ------------------------------------------------------------------------------ */

/*
 * Entry with a request of the configuration-text service: msg and req are the service's
 * (req is the platform's ptxt_request), handed back unchanged to ptxt_respond. Opens a
 * generation, opens the configuration store "<prefix>/zfx_startup_config" and generates from it;
 * only when it opened, opens the debug store "<debug prefix>/zfx_debug" and adds its logging
 * line. Every store it opens is closed before it responds. Always responds; returns
 * ptxt_respond's result. A request without a prefix counts as a store that does not open.
 */
ZFX_API int32_t zfx_ptxt_gen_func(void *msg, void *req);

/*
 * Entry with stores the service opened: takes request->handle as the generation (always, first),
 * then, when the selector is 1, runs each listed store in order (configuration stores through
 * zfx_ascii_gen_from_kvdb, debug stores through zfx_debug_ascii_gen_from_kvdb). Opens, closes and
 * responds nothing. Returns 0, or ZFX_ERR_INVALID_ARG for a NULL request.
 */
ZFX_API int32_t zfx_ascii_cfg_generate(const zfx_gen_request *request);

/* ---- generators (within a generation whose handle is set) ------------------------------------------ */

/* Declares the feature's elements and runs every section on store (see above). Returns the
 * status of the persistent FCID section (the last); when the commit line is added, the result of
 * adding it. */
ZFX_API int32_t zfx_ascii_gen_from_kvdb(kvdb_store *store);
/* Adds "logging level zfx <level>\n" to group 115's text for a valid debug level record of
 * store (NULL: nothing), and makes element 1 come after element 1 of group 118. Returns 0 when
 * the line was added, the status of the lookup or of adding the line otherwise, or
 * ZFX_KVDB_NOT_FOUND when the record is absent, short, invalid or silent. */
ZFX_API int32_t zfx_debug_ascii_gen_from_kvdb(kvdb_store *store);

/* "zfx nat\n" to element 4 when NAT is on, and commit_reqd set. Returns the lookup's status, or
 * 0 (with the perror report) when store is NULL. */
ZFX_API int32_t zfx2_fcid_nat_generate_ascii_config(uint32_t handle, kvdb_store *store);
/* The same for "zfx aam register\n". */
ZFX_API int32_t zfx2_aam_generate_ascii_config(uint32_t handle, kvdb_store *store);
/* "zfx fcdomain check-ignore\n" then "zfx share-hw-entries\n" to element 4 for their flag bits
 * (a failed read counts as no flag). Returns 0. */
ZFX_API int32_t zfx_global_flags_mode_generate_ascii_config(uint32_t handle, kvdb_store *store);

/* ---- readers ------------------------------------------------------------------------------------------ */

/* Sets *flags to 0, then to the global flags record (as many of its first 4 bytes as it holds).
 * Returns the store's status (0: read), or ZFX_ERR_INVALID_ARG for a NULL store or flags. */
ZFX_API int32_t zfx_global_flags_kvdb_restore(kvdb_store *store, uint32_t *flags);
/* Destination first. *flag (one byte) is set to 0, then to the NAT record's first byte when the
 * record has one. Returns the store's status, or ZFX_ERR_INVALID_ARG for a NULL argument. */
ZFX_API int32_t zfx2_get_fcid_nat_flag_from_kvdb(uint8_t *flag, kvdb_store *store);
/* The same for the AAM registration record. */
ZFX_API int32_t zfx2_get_aam_flag_from_kvdb(uint8_t *flag, kvdb_store *store);
/* 1 when the fabric distribution record exists and holds 1 (network order); 0 in every other
 * case, a NULL store included. */
ZFX_API int32_t zfx_kvdb_restore_fabric_distribute(kvdb_store *store);

/* ---- zones and zonesets -------------------------------------------------------------------------------
 * Element 2 holds, from the zone database of the store (zfx_zone_db.h):
 *   for each zone, in ascending id:      "zfx zone name <name>\n"
 *                                          "attribute qos priority low|medium|high\n" (level 1)
 *                                          "attribute read-only\n" (level 1, in the order of the
 *                                          record's elements)
 *                                          one line per member, in ascending member id, at level 1,
 *                                          made of: "member pwwn <wwn> " or
 *                                          "member device-alias <alias padded to 15> " (none for
 *                                          an unknown type), "lun <lun> " or 11 blanks, then
 *                                          "vsan <v>\n" for fabric ID 1, otherwise
 *                                          "vsan <v> autonomous-fabric-id <afid>\n"
 *   for each zoneset, in ascending id:   "zfx zoneset name <name>\n", then "member <zone>\n"
 *                                          (level 1) per member zone in ascending zone id
 *   last, when there is active zoneset data: "zfx zoneset activate name <name>[ force]\n"
 * Zones come from the header's full zone bitmap, or its short one when the full one is empty.
 * WWNs are formatted with fmt_wwn into zfx_sp_wwn_str and LUNs with fmt_lun into lun_str.
 */

#define ZFX_SCRATCH_STR_SIZE 128u

/* Scratch text of the last member WWN and LUN written; process-wide, unlocked. */
ZFX_API extern char zfx_sp_wwn_str[ZFX_SCRATCH_STR_SIZE];
ZFX_API extern char lun_str[ZFX_SCRATCH_STR_SIZE];

/*
 * Adds the zone section to element 2 of the generation in progress (its handle as set by the
 * entry points) and sets commit_reqd for every zone and zoneset written. Returns 0 when the text
 * is complete, when store is NULL, or when the store has no zone database header (nothing is
 * written then). ZFX_ERR_KVDB as soon as a lookup fails (the header's other than not found; a
 * zone, member, zoneset or member zone that is missing), a member record cannot be decoded, or
 * a record is malformed (shorter than its fixed part, or its array not within its value); the
 * lines already added stay and nothing more is written. A zone record with no data is skipped.
 */
ZFX_API int32_t zfx_zone_generate_ascii_config(kvdb_store *store);

/* ---- tracked lists -------------------------------------------------------------------------------
 * The lists of virtual domains and persistent FCIDs come from the platform's tracked allocator
 * (platform/heapx.h, owner 180), zero-filled, and are counted in zfx_num_mem_allocs and
 * zfx_num_callocs. Their user releases them with heapx_free (never free) and adds 1 to
 * zfx_num_mem_frees. A list that cannot be allocated is recorded in the event history (event
 * 0x730000, a record of the u32 102 followed by "Memory allocation failed in <builder>:<line>
 * (<source>)" and its NUL) and printed with dbg_printf when the subtype's debug output is on; the
 * builder then returns 0 with *list NULL and *size 0, and the text that needed the list is not
 * written.
 *
 * Both tables are walked in store key order from their first key as long as the keys pass the
 * table's key check: the first key that fails ends the walk.
 */

/* ======================================= virtual domains ======================================= */
/*
 * A virtual domain is added to a set of VSANs switch-wide (the list form: one record) or per
 * autonomous fabric ID (one record per AFID). Their lines go to element 4 at level 0, after
 * "zfx distribute\n" and before the global flag lines, the list form first:
 *   "zfx virtual-fcdomain-add vsan-ranges %s\n"          (or "... %s force\n" when the global
 *                                                          flag ZFX_GFLAG_VDOM_FORCE is set)
 *   "zfx virtual-fcdomain-add2 autonomous-fabric-ID %d  vsan-ranges %s\n"    per AFID, key order
 * VSAN 0, 4094 and 4095 are never written, and a set holding no other VSAN writes no line. A line
 * holds at most ZFX_VDOM_LINE_SIZE - 1 characters with its "\n": longer range text is cut after
 * the last whole run that fits. Neither form sets commit_reqd.
 */

#define ZFX_KVDB_VDOM_LIST_KEY 0x6Du /* second key byte 0x00; value: a stored vsan_bitset */
#define ZFX_RDI_TABLE 0x79u           /* per-AFID records */
#define ZFX_RDI_ALLOC_TYPE 309u       /* allocation type of the per-AFID list */
#define ZFX_VDOM_LINE_SIZE 10240u

/* Key of a per-AFID record; its value is a stored vsan_bitset (516 bytes; a shorter value gives
 * the set only the bytes it holds). */
typedef struct __attribute__((packed)) zfx_rdi_kvdb_key {
    uint8_t table;    /* ZFX_RDI_TABLE */
    uint8_t reserved; /* not interpreted; 0 in the table's first key */
    uint16_t afid;    /* host order */
} zfx_rdi_kvdb_key;

ZFX_STATIC_ASSERT(sizeof(zfx_rdi_kvdb_key) == 4, "virtual domain key is 4 bytes");

typedef struct zfx_rdi_entry {
    uint16_t afid;     /* network order */
    uint16_t reserved; /* zero */
    vsan_bitset vsans; /* as stored */
} zfx_rdi_entry;

ZFX_STATIC_ASSERT(sizeof(zfx_rdi_entry) == 520, "virtual domain entry is 520 bytes");
ZFX_STATIC_ASSERT(offsetof(zfx_rdi_entry, vsans) == 4, "VSAN set at 4");

/* A tracked list: 4 + 520 x capacity bytes. */
typedef struct zfx_rdi_list {
    uint32_t count; /* network order: entries filled */
    zfx_rdi_entry entries[];
} zfx_rdi_list;

ZFX_STATIC_ASSERT(offsetof(zfx_rdi_list, entries) == 4, "entries follow the count");

/* The list-form line. Returns the lookup's status (0 also when the set is empty or the record
 * holds no data); a store without the record writes nothing and returns ZFX_KVDB_NOT_FOUND. A
 * NULL store is reported through perror (see above) and returns 0. */
ZFX_API int32_t zfx2_rdi_mode_generate_ascii_config(uint32_t handle, kvdb_store *store);
/* The per-AFID lines, from zfx_rdi_get_next(store, -1, ...); the list is released with heapx_free
 * and counted. Returns 0 (also when the list cannot be allocated, or store is NULL: reported
 * through perror). */
ZFX_API int32_t zfx2_rdi_mode_generate_ascii_config2(uint32_t handle, kvdb_store *store);
/*
 * Lists the per-AFID records: count entries at most, or with count -1 as many as the table holds
 * (a first walk counts them). *list receives a tracked list of 4 + 520 x capacity bytes (*size),
 * its count word the entries actually filled, the rest zero. Returns 0, including when the list
 * cannot be allocated (*list NULL, *size 0, see "tracked lists"); ZFX_ERR_INVALID_VALUE for a
 * count below -1 or a list whose size would not fit 32 bits; ZFX_ERR_INVALID_ARG for a NULL
 * argument. On every failure *list and *size (when not NULL) are NULL and 0.
 */
ZFX_API int32_t zfx_rdi_get_next(kvdb_store *store, int32_t count, zfx_rdi_list **list, uint32_t *size);
/* 0 for a key of 4 bytes whose first byte is ZFX_RDI_TABLE; ZFX_ERR_TABLE_KEY otherwise (a NULL
 * key included). */
ZFX_API int32_t zfx_rdi_kvdb_key_check(const kvdb_datum *key);
/* Writes the table's first key, 0x79 0x00 0x00 0x00, into key. Returns 0, or
 * ZFX_ERR_INVALID_VALUE for a NULL key. */
ZFX_API int32_t zfx_rdi_kvdb_key_init(zfx_rdi_kvdb_key *key);

/* ====================================== persistent FCIDs ======================================= */
/*
 * For an AFID and VSAN, a domain record (kind 1) assigns the domain that stands there for a native
 * AFID and VSAN; under it, FCID records (kind 2) give the FCID that a port WWN keeps. Text, in
 * element 8:
 *   "zfx fcdomain database autonomous-fabric-num %d vsan %d\n"      level 0, before a domain
 *        record whose AFID or VSAN differs from the previous one's (the first is compared with 0, 0)
 *   "native-autonomous-fabric-num %d native-vsan %d domain %d\n"     level 1, each domain record
 *   "pwwn %s fcid 0x%02x%02x%02x\n"                                  level 2, under each domain
 *        record: every FCID record of its AFID and VSAN whose FCID domain byte is its domain,
 *        in key order (the WWN as eight "%02x" bytes joined by ":", the FCID's domain, area, port)
 * Domain records come in key order; FCID records under no domain record are not written. The
 * section sets commit_reqd when the table holds any record.
 */

#define ZFX2_PFCID_TABLE 0x74u
#define ZFX2_PFCID_KIND_DOMAIN 1u
#define ZFX2_PFCID_KIND_FCID 2u
#define ZFX2_PFCID_TAG_FIRST 1u     /* tag of the table's first keys */
#define ZFX2_PFCID_ALLOC_TYPE 281u  /* allocation type of the list */

/* Store key, 18 bytes; numbers in host order. */
typedef struct __attribute__((packed)) zfx2_pfcid_key {
    uint8_t table; /* ZFX2_PFCID_TABLE */
    uint8_t kind;  /* ZFX2_PFCID_KIND_ */
    uint16_t tag;  /* carried, not interpreted */
    uint16_t afid;
    uint32_t vsan;
    union {
        struct __attribute__((packed)) {
            uint16_t native_afid;
            uint16_t reserved; /* not read */
            uint32_t native_vsan;
        } domain;        /* kind 1 */
        uint8_t pwwn[8]; /* kind 2: the port WWN */
    } id;
} zfx2_pfcid_key;

ZFX_STATIC_ASSERT(sizeof(zfx2_pfcid_key) == 18, "persistent FCID key is 18 bytes");
ZFX_STATIC_ASSERT(offsetof(zfx2_pfcid_key, vsan) == 6, "VSAN at 6");
ZFX_STATIC_ASSERT(offsetof(zfx2_pfcid_key, id) == 10, "native AFID or WWN at 10");

/* Store value, 8 bytes, both kinds. */
typedef struct zfx2_pfcid_value {
    uint8_t fcid[4]; /* byte 0 not read, 1 domain, 2 area, 3 port; never converted. A domain
                        record's byte 1 is the domain it assigns. */
    uint32_t word;   /* host order; carried, not used by the text */
} zfx2_pfcid_value;

ZFX_STATIC_ASSERT(sizeof(zfx2_pfcid_value) == 8, "persistent FCID value is 8 bytes");

/* A record as handed to callers, 28 bytes; in a list every number is in network order. */
typedef struct zfx2_pfcid_entry {
    uint32_t kind;
    uint16_t tag;
    uint16_t afid;
    uint32_t vsan;
    union {
        struct {
            uint16_t native_afid;
            uint16_t reserved; /* zero */
            uint32_t native_vsan;
        } domain;        /* kind 1 */
        uint8_t pwwn[8]; /* kind 2: as in the key */
    } id;
    uint8_t fcid[4]; /* the value's bytes 0 to 3, never converted */
    uint32_t word;   /* the value's bytes 4 to 7 as a number */
} zfx2_pfcid_entry;

ZFX_STATIC_ASSERT(sizeof(zfx2_pfcid_entry) == 28, "persistent FCID entry is 28 bytes");
ZFX_STATIC_ASSERT(offsetof(zfx2_pfcid_entry, id) == 12, "native AFID or WWN at 12");
ZFX_STATIC_ASSERT(offsetof(zfx2_pfcid_entry, id.domain.native_vsan) == 16, "native VSAN at 16");
ZFX_STATIC_ASSERT(offsetof(zfx2_pfcid_entry, fcid) == 20, "FCID at 20");
ZFX_STATIC_ASSERT(offsetof(zfx2_pfcid_entry, word) == 24, "value word at 24");

/* A tracked list: 8 + 28 x capacity bytes, entries in store key order (so every domain record
 * before every FCID record). */
typedef struct zfx2_pfcid_list {
    uint32_t count;    /* network order: entries filled */
    uint32_t reserved; /* zero */
    zfx2_pfcid_entry entries[];
} zfx2_pfcid_list;

ZFX_STATIC_ASSERT(offsetof(zfx2_pfcid_list, entries) == 8, "entries follow two words");

/* Writes the table to element 8 (see above) and sets *commit (when commit is not NULL) when the
 * table holds a record. The time taken grows as n log n in the number of records. Returns the
 * list builder's status: 0 when it ran, also when the list could not be allocated (then nothing
 * is written and *commit is left alone). A NULL store is reported through perror and returns 0. */
ZFX_API int32_t zfx2_pfcid_generate_ascii_config(uint32_t handle, kvdb_store *store, int32_t *commit);
/*
 * Lists the table from start on: start is an entry in network order whose key is built with the
 * key populators (convert 1), or NULL for the table's first domain key; the walk begins at the
 * first key at or after that key, passing over a key equal to it (a caller resumes after the last
 * entry it holds by handing that entry back). count is the capacity, or -1 for as many as the
 * walk finds (a first walk counts them). *list receives a tracked list of 8 + 28 x capacity bytes
 * (*size). Returns 0, including when the list cannot be allocated (*list NULL, *size 0, see
 * "tracked lists"); ZFX_ERR_INVALID_VALUE, allocating nothing, for a start whose kind is neither
 * 1 nor 2, a count below -1, or a list whose size would not fit 32 bits; ZFX_ERR_INVALID_ARG for
 * a NULL store, list or size. On every failure *list and *size (when not NULL) are NULL and 0.
 */
ZFX_API int32_t zfx2_pfcid_get_next(kvdb_store *store, const zfx2_pfcid_entry *start, int32_t count,
                                    zfx2_pfcid_list **list, uint32_t *size);

/* Key checks: 0 for an 18-byte key starting with ZFX2_PFCID_TABLE whose kind is accepted (either
 * kind; domain only; FCID only), otherwise ZFX_ERR_TABLE_KEY (a NULL key included). */
ZFX_API int32_t zfx2_pfcid_kvdb_key_check(const kvdb_datum *key);
ZFX_API int32_t zfx2_pfcid_vdom_kvdb_key_check(const kvdb_datum *key);
ZFX_API int32_t zfx2_pfcid_vfcid_kvdb_key_check(const kvdb_datum *key);

/* The first key of a kind: table byte, kind (domain; FCID), tag 1, zeros to the end. Return 0,
 * or ZFX_ERR_INVALID_VALUE for a NULL key. */
ZFX_API int32_t zfx2_pfcid_vdom_kvdb_key_init(zfx2_pfcid_key *key);
ZFX_API int32_t zfx2_pfcid_vfcid_kvdb_key_init(zfx2_pfcid_key *key);

/* Build a key of the function's kind (domain; FCID) from entry bytes 4 to 19. When convert is 1
 * the entry is in network order and the key's numbers are turned to host order (tag, AFID, VSAN,
 * and for the domain kind the native AFID and VSAN); any other value copies them as they are.
 * A NULL argument does nothing. */
ZFX_API void zfx2_pfcid_kvdb_vdom_key_populate(const zfx2_pfcid_entry *entry, zfx2_pfcid_key *key, int32_t convert);
ZFX_API void zfx2_pfcid_kvdb_vfcid_key_populate(const zfx2_pfcid_entry *entry, zfx2_pfcid_key *key,
                                                int32_t convert);

/* Fill entry (cleared first) from a stored key and value, laid out for the function's kind
 * (domain: native AFID and VSAN, the key's bytes 12 and 13 dropped; FCID: the WWN), the kind
 * itself taken from the key. With convert non-zero the kind, tag, AFID, VSAN, the domain kind's
 * native fields and the value word are turned to network order; the WWN and FCID bytes never.
 * A NULL argument does nothing. */
ZFX_API void zfx2_pfcid_vdom_key_val_2_pfcid_entry(const zfx2_pfcid_key *key, const zfx2_pfcid_value *value,
                                                   zfx2_pfcid_entry *entry, int32_t convert);
ZFX_API void zfx2_pfcid_vfcid_key_val_2_pfcid_entry(const zfx2_pfcid_key *key, const zfx2_pfcid_value *value,
                                                    zfx2_pfcid_entry *entry, int32_t convert);

/* Convert an entry in place between host and network order: kind, tag, AFID, VSAN, and for the
 * domain kind the native AFID and VSAN (the kind read in host order: before converting for hton,
 * after it for ntoh). The FCID bytes and the value word stay as they are. Return 0, or
 * ZFX_ERR_INVALID_ARG for NULL. */
ZFX_API int32_t zfx2_pfcid_entry_hton(zfx2_pfcid_entry *entry);
ZFX_API int32_t zfx2_pfcid_entry_ntoh(zfx2_pfcid_entry *entry);
/* Copies source to destination and converts the copy to host order (to_host non-zero) or to
 * network order: the fields of hton and ntoh and the value word as well. destination may be
 * source. A NULL argument does nothing. */
ZFX_API void zfx2_pfcid_entry_byte_order_convert(zfx2_pfcid_entry *destination, const zfx2_pfcid_entry *source,
                                                 int32_t to_host);

ZFX_EXTERN_C_END

#endif /* ZFX_ASCII_CFG_H */
