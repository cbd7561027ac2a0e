/*
 * kvdb.h - the platform's persistent store: ordered key/value stores named by a location.
 *
 * Backends, chosen by the location:
 *  - "mem:NAME" (any text after the prefix): an in-memory store, process-wide, shared by every
 *    handle opened on the same location, gone when the process ends. It takes fault injection
 *    (kvdb_mem_inject) so that tests can make a lookup, an open or a cursor fail.
 *  - anything else: a directory holding an LMDB environment (data.mdb, lock.mdb). kvdb_create
 *    makes the directory when it is missing (one level, mode 0755); kvdb_open only opens what
 *    exists. The environment's map is 256 MiB, so a store holds at most that much.
 *
 * Keys are 1 to KVDB_KEY_MAX (511) bytes and ordered bytewise, as memcmp orders them, a key
 * sorting before its extensions (0x65 < 0x65 0x00 < 0x65 0x01 < 0x66). Values are 0 bytes or
 * more.
 *
 * Reading. kvdb_open gives a read handle that sees the store as it was when it was opened (a
 * snapshot; writes made afterwards are not seen through it). Every key and value that a read
 * handle hands out, and every descriptor kvdb_fetch returns, stays valid and unchanged until the
 * handle is closed. Several read handles may be open on one location at once, in one thread.
 *
 * Writing is for tools and tests: kvdb_create gives a write handle (which cannot read), and
 * kvdb_put / kvdb_delete change the store, each in a transaction of its own, or all together
 * between kvdb_txn_begin and kvdb_txn_commit. One write transaction at a time per location.
 *
 * Statuses (int32_t): 0 success, or one of the KVDB_ codes below. No call crashes on a NULL
 * argument: it answers KVDB_ERR_INVALID (or NULL, for the calls that return a pointer).
 *
 * Threads: every call may be made from any thread, but a handle and the cursors used with it
 * belong to one thread at a time.
 */
#ifndef PLAT_KVDB_H
#define PLAT_KVDB_H

#include "platform/plat_common.h"

PLAT_EXTERN_C_BEGIN

#define KVDB_KEY_MAX 511u
#define KVDB_LOCATION_MEM_PREFIX "mem:"

/* ---- statuses ------------------------------------------------------------------------------ */
#define KVDB_ERR_INVALID ((int32_t)0x40480001)   /* NULL argument, key of 0 or > 511 bytes,
                                                     read call on a write handle or the reverse */
#define KVDB_ERR_NO_MEMORY ((int32_t)0x40480002) /* the store could not allocate */
#define KVDB_NOT_FOUND ((int32_t)0x40480003)     /* no such key; also kvdb_delete of a missing key */
#define KVDB_ERR_OPEN ((int32_t)0x40480004)      /* location missing, not a store, or not usable */
#define KVDB_ERR_IO ((int32_t)0x40480005)        /* the backend failed (LMDB error, disk) */
#define KVDB_ERR_FULL ((int32_t)0x40480006)      /* the store's map is full */
#define KVDB_ERR_TXN ((int32_t)0x40480007)       /* no transaction to commit, or one is open already
                                                     (on this location, through any handle) */

/* Store descriptor: a key or a value. data is NULL or len is 0 for a value with no data. */
typedef struct kvdb_datum {
    void *data;
    uint32_t len;
} kvdb_datum;

/* A store handle (read or write). Opaque. */
typedef struct kvdb_store kvdb_store;

/*
 * Cursor of the ordered walk: a plain record owned by the caller (on its stack, usually). It
 * holds no resource, so it is never released; it only names a position of one read handle.
 *  - match: after kvdb_move2key, 0 when the cursor landed exactly on the key asked for and 1 when
 *    it landed on a later key (or found none); after any other move, 0.
 *  - key: the key under the cursor, as the last move returned it (NULL data: not positioned).
 *  - value: filled by kvdb_getvalue.
 *  - store, serial: which handle positioned it and which of its moves; the handle keeps its own
 *    backend position for the cursor it moved last, so that stepping a walk costs O(1), and finds
 *    any other cursor's position again from its key.
 * Its first 32-bit word is match on every architecture.
 */
typedef struct kvdb_cursor {
    uint32_t match;
    uint32_t serial;
    const kvdb_store *store;
    kvdb_datum key;
    kvdb_datum value;
} kvdb_cursor;

PLAT_STATIC_ASSERT(offsetof(kvdb_cursor, match) == 0, "the match word comes first");

/* Location codes of kvdb_move2location. */
#define KVDB_LOC_FIRST 1u /* the smallest key of the store */
#define KVDB_LOC_LAST 2u  /* the largest key */
#define KVDB_LOC_NEXT 3u  /* the key after the cursor's */
#define KVDB_LOC_PREV 4u  /* the key before the cursor's */

/* ---- reading --------------------------------------------------------------------------------- */

/* Opens the store at location for reading. Returns the handle and sets *status to 0, or returns
 * NULL and sets *status (KVDB_ERR_OPEN for a location that does not hold a store): the handle is
 * NULL exactly when the status is non-zero. status may be NULL. */
PLAT_API kvdb_store *kvdb_open(const char *location, int32_t *status);
/* Closes a read or write handle (a write transaction still open is aborted). NULL is ignored.
 * Everything the handle handed out becomes invalid. Returns 0 or KVDB_ERR_INVALID. */
PLAT_API int32_t kvdb_close(kvdb_store *store);

/* Looks key up. Found: sets *status to 0 and returns a descriptor of the value (valid until the
 * handle is closed). Otherwise returns NULL and sets *status: KVDB_NOT_FOUND for a missing key,
 * KVDB_ERR_INVALID for bad arguments, or a status injected for the key. status may be NULL. */
PLAT_API kvdb_datum *kvdb_fetch(kvdb_store *store, const kvdb_datum *key, int32_t *status);
/* The store's second interface: the same lookup as kvdb_fetch; *status is always written. */
PLAT_API kvdb_datum *kvdb2_fetch(kvdb_store *store, const kvdb_datum *key, int32_t *status);

/* Positions cursor on the first key at or after key and returns &cursor->key, or NULL when no
 * key follows (the cursor is then not positioned; match is 1). Sets cursor->match as above. */
PLAT_API kvdb_datum *kvdb_move2key(kvdb_store *store, const kvdb_datum *key, kvdb_cursor *cursor);
/* Moves cursor to a location (KVDB_LOC_*) and returns &cursor->key, or NULL when there is no such
 * key, the code is unknown, or NEXT/PREV is asked of a cursor that is not positioned. NEXT and
 * PREV at the ends leave the cursor not positioned. */
PLAT_API kvdb_datum *kvdb_move2location(kvdb_store *store, uint32_t location, kvdb_cursor *cursor);
/* The value under the cursor's key in &cursor->value, or NULL when the cursor is not positioned
 * or the key's lookup fails (an injected status). */
PLAT_API kvdb_datum *kvdb_getvalue(kvdb_store *store, kvdb_cursor *cursor);
/* The first failure the read handle met in its backend, or 0. A cursor move that fails because
 * the store cannot be read there (an LMDB store whose file is damaged; an injected cursor fault)
 * returns NULL as if the keys ended, and a lookup that fails for another reason than a missing
 * key answers its status: both are remembered here, so that a caller that must tell a damaged
 * store from a shorter one asks after its walk. KVDB_ERR_INVALID for NULL or a write handle.
 * LMDB trusts its file: it reports the damage it meets in page headers and page numbers, but
 * other damage (a length, an offset within a page) makes a read fault instead (SIGBUS, SIGSEGV)
 * or fails one of LMDB's own assertions (SIGABRT), which no status can report. */
PLAT_API int32_t kvdb_read_failure(const kvdb_store *store);

/* ---- writing (tools and tests) ------------------------------------------------------------------- */

/* Opens the store at location for writing, creating it when missing. NULL exactly when *status
 * is non-zero. status may be NULL. */
PLAT_API kvdb_store *kvdb_create(const char *location, int32_t *status);
/* Stores value under key, replacing what was there. value may be NULL for an empty value. */
PLAT_API int32_t kvdb_put(kvdb_store *store, const kvdb_datum *key, const kvdb_datum *value);
/* Stores value under key like kvdb_put, for a key that sorts after every key the store holds
 * (in the open transaction, when there is one): the way to write records that come in key order.
 * It skips the search for the key's place, and an LMDB store fills its pages whole instead of
 * splitting them in half. KVDB_ERR_INVALID when key does not sort after the store's last key. */
PLAT_API int32_t kvdb_append(kvdb_store *store, const kvdb_datum *key, const kvdb_datum *value);
/* Removes key; KVDB_NOT_FOUND when it is not there. */
PLAT_API int32_t kvdb_delete(kvdb_store *store, const kvdb_datum *key);
/* Removes every key (in the open transaction, when there is one), as deleting each would, but
 * without reading the records: an LMDB store gives its pages back whole (mdb_drop), so that a
 * store is emptied without LMDB moving the contents of its pages about. */
PLAT_API int32_t kvdb_clear(kvdb_store *store);
/* Starts a transaction: the puts and deletes that follow are seen by handles opened after
 * kvdb_txn_commit, all together, and by none when kvdb_txn_abort (or kvdb_close) ends it. */
PLAT_API int32_t kvdb_txn_begin(kvdb_store *store);
PLAT_API int32_t kvdb_txn_commit(kvdb_store *store);
PLAT_API int32_t kvdb_txn_abort(kvdb_store *store);
/* Deletes the store at location: an in-memory store is forgotten (handles still open keep what
 * they see); an LMDB directory loses data.mdb and lock.mdb and is removed when then empty.
 * KVDB_ERR_TXN when a handle of this process is open on the LMDB location; KVDB_ERR_OPEN when
 * there is no store there. */
PLAT_API int32_t kvdb_destroy(const char *location);

/* ---- fault injection (in-memory stores) ---------------------------------------------------------- */

typedef struct kvdb_mem_faults {
    int32_t open_status;    /* non-zero: kvdb_open of the location fails with it */
    int32_t key_status;     /* non-zero: lookups of key answer it, kvdb_getvalue on it gives NULL */
    const void *key;        /* the key key_status applies to (copied) */
    uint32_t key_len;
    uint32_t cursor_fail_at; /* n > 0: from the nth cursor move of each read handle on, every move
                                returns NULL as if the store ended; 0: never */
} kvdb_mem_faults;

/* Sets the faults of the in-memory store at location (creating the store, empty, when missing);
 * NULL faults clears them. They apply at once to every handle of the store, open or not.
 * Returns 0, or KVDB_ERR_INVALID for a location that is not "mem:" or a key over 511 bytes. */
PLAT_API int32_t kvdb_mem_inject(const char *location, const kvdb_mem_faults *faults);

PLAT_EXTERN_C_END

#endif /* PLAT_KVDB_H */
