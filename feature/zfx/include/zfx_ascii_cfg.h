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
 * status of the last section; when the commit line is added, the result of adding it. */
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
 *                                          in three pieces: "member pwwn <wwn> " or
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

ZFX_EXTERN_C_END

#endif /* ZFX_ASCII_CFG_H */
