/*
 * zfx_common.h - what every part of libzfx shares: the export macro, the status codes, the
 * addressing of the feature's service, the message types it answers, and the process-wide
 * storage the library defines.
 *
 * Status codes are signed 32-bit results; 0 is success. The library's own codes carry 0x9A in
 * their second byte (ZFX_ERR_CREATE_INCOMPLETE alone carries 0x49); any other nonzero value a
 * platform call returns is handed to the caller unchanged. Compare codes by their full value.
 *
 * Byte order: the control processor is little-endian. "Host order" below means little-endian,
 * "network order" big-endian.
 */
#ifndef ZFX_COMMON_H
#define ZFX_COMMON_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define ZFX_EXTERN_C_BEGIN extern "C" {
#define ZFX_EXTERN_C_END }
#else
#define ZFX_EXTERN_C_BEGIN
#define ZFX_EXTERN_C_END
#endif

/* Every name the library documents carries ZFX_API; everything else stays hidden. */
#define ZFX_API __attribute__((visibility("default")))

/* Compile-time layout checks that read the same in C11 and C++. */
#ifdef __cplusplus
#define ZFX_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define ZFX_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

ZFX_EXTERN_C_BEGIN

/* ---- status codes --------------------------------------------------------------------------- */

/* A platform call failed with -1; the low 12 bits of errno are joined in with OR. */
#define ZFX_ERR_ERRNO_BASE ((int32_t)0x809A0000u)
#define ZFX_ERR_ERRNO(e) ((int32_t)(0x809A0000u | ((uint32_t)(e) & 0xFFFu)))
/* The channel's send or parse step failed (returned -1); errno is not consulted. */
#define ZFX_ERR_CHANNEL ((int32_t)0x809A0FFFu)
/* An allocation failed. */
#define ZFX_ERR_NO_MEMORY ((int32_t)0x009A0001)
/* The message transport refused a message. */
#define ZFX_ERR_SEND ((int32_t)0x409A0001)
/* A required argument is missing, a record could not be built, or a reply is malformed. */
#define ZFX_ERR_INVALID_ARG ((int32_t)0x409A0006)
/* An argument lies outside its range. */
#define ZFX_ERR_INVALID_VALUE ((int32_t)0x409A000A)
/* A device-entry reply holds no entries. */
#define ZFX_ERR_NO_ENTRIES ((int32_t)0x409A0018)
/* A topology key belongs to another table or kind. */
#define ZFX_ERR_VT_KEY ((int32_t)0x409A001C)
/* A topology key has the wrong length. */
#define ZFX_ERR_VT_KEY_LENGTH ((int32_t)0x409A001E)
/* A store lookup or record decode failed. */
#define ZFX_ERR_KVDB ((int32_t)0x409A0039)
/* An AFID key has the wrong length. */
#define ZFX_ERR_AFID_KEY_LENGTH ((int32_t)0x409A0087)
/* An AFID key belongs to another table or kind. */
#define ZFX_ERR_AFID_KEY ((int32_t)0x409A008A)
/* A store key does not belong to the table walked, or a group name is missing. */
#define ZFX_ERR_TABLE_KEY ((int32_t)0x409A0090)
/* A member of unknown type met while sizing a persistent record. */
#define ZFX_ERR_BAD_MEMBER_TYPE ((int32_t)0x409A00B7)
/* A create message lacks a required element (second byte 0x49, not 0x9A). */
#define ZFX_ERR_CREATE_INCOMPLETE ((int32_t)0x40490037)
/* The store's own answer for a key that does not exist. */
#define ZFX_KVDB_NOT_FOUND ((int32_t)0x40480003)

/* ---- addressing of the feature's service ---------------------------------------------------- */

#define ZFX_SAP 110u                      /* service access point of the feature's service */
#define ZFX_NODE_ASYNC 0xFE000000u        /* destination node of asynchronous channel sends */
#define ZFX_NODE_REMOTE 0xFE000001u       /* remote channel requests and raw transport messages */
#define ZFX_SERVICE_NAME "ZFX"            /* option A of the requests that name the service */

/* ---- message types of the feature's service ------------------------------------------------ */

#define ZFX_MSG_ZONESET 8601u
#define ZFX_MSG_ZONE 8602u
#define ZFX_MSG_ZONE_MEMBER 8603u
#define ZFX_MSG_ZONE_ACTIVATION 8604u
#define ZFX_MSG_INFO 8605u
#define ZFX_MSG_NS_DEVICE_ENTRY 8611u
#define ZFX_MSG_ZONESET_STATUS 8616u
#define ZFX_MSG_NEXT_HOP_VSAN 8620u
#define ZFX_MSG_STATUS 8626u
#define ZFX_MSG_PV_VSAN_ENTRY 8634u
#define ZFX_MSG_ZONE_ATTRIB 8640u
#define ZFX_MSG_NAT_NEXT_HOP 8641u
#define ZFX_MSG_FCDOMAIN_CHECK_IGNORE 8647u
#define ZFX_MSG_FCR_QUERY 8496u
#define ZFX_MSG_NS_ENTRY_REQ 8497u

/* Opcodes of raw transport messages. */
#define ZFX_XQB_NATIVE_DOMAIN 198657u
#define ZFX_XQB_PROXY_DOMAIN_LIST 8615u
#define ZFX_XQB_FORWARD_FRAME 8644u

/* ---- shared numbers ------------------------------------------------------------------------- */

#define ZFX_VSAN_MAX 4095u                /* VSANs are 0 to 4095; 0 means none in arguments */
#define ZFX_NAME_SIZE 68u                 /* zoneset, zone and alias names: 67 characters + NUL */

/* ---- globals set by the linking process ----------------------------------------------------- */

/* Nonzero: the zone request and query functions print debug lines to standard output. */
ZFX_API extern int32_t debug_cli;
/* The local switch's WWN, 8 bytes in printing order. */
ZFX_API extern uint8_t local_switch_wwn[8];

/* ---- tracked allocation counters -------------------------------------------------------------
 * The store lists of the virtual-domain and persistent-FCID tables come from the platform's
 * tracked allocator (owner 180). Plain process-wide counters, incremented without locking. */
ZFX_API extern uint64_t zfx_num_mem_allocs; /* successful tracked allocations */
ZFX_API extern uint64_t zfx_num_callocs;    /* of them, the zero-filled ones */
ZFX_API extern uint64_t zfx_num_mem_frees;  /* tracked releases */

/* ---- process-wide storage kept for the feature's service ------------------------------------
 * Zero at load. None of the library's own functions reads or writes these; the feature's
 * service owns their contents. Sizes are bytes.
 */
#define ZFX2_GL_DB_SIZE 704
#define ZFX_HTBL_HEAD_SIZE 16
#define ZFX_VDRI_HIST_DBG_SIZE 27648
#define ZFX_DIAG_STR_SIZE 2000
#define ZFX_MEM_STR_SIZE 512
#define ZFX_ACCT_LOG_BUFFER_SIZE 128
#define ZFX_SP_FCID_STR_SIZE 128
#define VDRI_PER_DOMAIN_INFO_SIZE 960
#define VDRI_FSM_HASH_TBL_SIZE 12
#define VDRI_SWILS_SIZE 44
#define VDRI_FSM_ID_BUF_SIZE 256

ZFX_API extern uint8_t zfx2_gl_db[ZFX2_GL_DB_SIZE];
ZFX_API extern uint8_t zfx2_active_sg_htbl[ZFX_HTBL_HEAD_SIZE];
ZFX_API extern uint8_t zfx2_cfg_sg_htbl[ZFX_HTBL_HEAD_SIZE];
ZFX_API extern uint8_t zfx2_fwd_local_htbl[ZFX_HTBL_HEAD_SIZE];
ZFX_API extern uint8_t zfx2_fwd_remote_htbl[ZFX_HTBL_HEAD_SIZE];
ZFX_API extern uint8_t zfx2_vsan_intf_htbl[ZFX_HTBL_HEAD_SIZE];
ZFX_API extern uint8_t zfx_kvdb_pwwn_htbl[ZFX_HTBL_HEAD_SIZE];
ZFX_API extern uint32_t zfx2_dev_vsan_info_ht;
ZFX_API extern uint8_t zfx_vdri_hist_dbg_array[ZFX_VDRI_HIST_DBG_SIZE];
ZFX_API extern uint32_t zfx_vdri_hist_dbg_array_idx;
ZFX_API extern uint32_t zfx_vdri_hist_dbg_array_idx_rolled_over;
ZFX_API extern char zfx_diag_str[ZFX_DIAG_STR_SIZE];
ZFX_API extern char zfx_mem_str[ZFX_MEM_STR_SIZE];
ZFX_API extern char zfx_acct_log_buffer[ZFX_ACCT_LOG_BUFFER_SIZE];
ZFX_API extern char zfx_sp_fcid_str[ZFX_SP_FCID_STR_SIZE];
ZFX_API extern uint8_t vdri_per_domain_info[VDRI_PER_DOMAIN_INFO_SIZE];
ZFX_API extern uint8_t vdri_fsm_hash_tbl[VDRI_FSM_HASH_TBL_SIZE];
ZFX_API extern uint8_t vdri_swils[VDRI_SWILS_SIZE];
ZFX_API extern uint8_t vdri_fsm_id_buf[VDRI_FSM_ID_BUF_SIZE];
ZFX_API extern uint32_t vdri_last_subaction_flag;
ZFX_API extern uint64_t zfx_num_calloc_frees;
ZFX_API extern uint32_t zfx_pdd_len;
ZFX_API extern uint32_t zfx_pdd_write_error;
ZFX_API extern uint32_t zfx_print_cnt;
ZFX_API extern uint32_t zfx_rc_cnt;
ZFX_API extern uint32_t zfx_dft_wr_ptr;
ZFX_API extern uint32_t zfx_dft_available;
ZFX_API extern uint32_t zfx_dft_rolled_over;
ZFX_API extern uint32_t zfx_dft_last_initial;
ZFX_API extern uint8_t zfx_dpl;
/* The service's saved standard-output stream; a pointer, 32 bits wide on the switch. */
ZFX_API extern void *zfx_prv_stdout_fp;
ZFX_API extern uint32_t zfx_vt_kvdb_svc_nv;
ZFX_API extern uint32_t diag_resp_pending;
ZFX_API extern uint32_t tmpfile_size_in_bytes;
ZFX_API extern uint32_t fcns_sync;
ZFX_API extern uint32_t aam_deregister_check_init_flag;
ZFX_API extern uint32_t debug_final_image;
ZFX_API extern uint32_t local_autonomous_fab_id;
/* Sequence number of the feature's switch internal link service requests. */
ZFX_API extern uint32_t zfx_swils_seq_num;

ZFX_EXTERN_C_END

#endif /* ZFX_COMMON_H */
