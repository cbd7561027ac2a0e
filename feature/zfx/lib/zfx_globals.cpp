// Process-wide storage of libzfx. Everything here is zero when the library is loaded; the library
// has no initialisation call and no load-time constructor, and releases nothing at unload.
#include "zfx_common.h"

extern "C" {

int32_t debug_cli;
uint8_t local_switch_wwn[8];

// Kept for the feature's service, which owns the contents; the library never touches them.
alignas(8) uint8_t zfx2_gl_db[ZFX2_GL_DB_SIZE];
alignas(8) uint8_t zfx2_active_sg_htbl[ZFX_HTBL_HEAD_SIZE];
alignas(8) uint8_t zfx2_cfg_sg_htbl[ZFX_HTBL_HEAD_SIZE];
alignas(8) uint8_t zfx2_fwd_local_htbl[ZFX_HTBL_HEAD_SIZE];
alignas(8) uint8_t zfx2_fwd_remote_htbl[ZFX_HTBL_HEAD_SIZE];
alignas(8) uint8_t zfx2_vsan_intf_htbl[ZFX_HTBL_HEAD_SIZE];
alignas(8) uint8_t zfx_kvdb_pwwn_htbl[ZFX_HTBL_HEAD_SIZE];
uint32_t zfx2_dev_vsan_info_ht;
alignas(8) uint8_t zfx_vdri_hist_dbg_array[ZFX_VDRI_HIST_DBG_SIZE];
uint32_t zfx_vdri_hist_dbg_array_idx;
uint32_t zfx_vdri_hist_dbg_array_idx_rolled_over;
char zfx_diag_str[ZFX_DIAG_STR_SIZE];
char zfx_mem_str[ZFX_MEM_STR_SIZE];
char zfx_acct_log_buffer[ZFX_ACCT_LOG_BUFFER_SIZE];
char zfx_sp_fcid_str[ZFX_SP_FCID_STR_SIZE];
alignas(8) uint8_t vdri_per_domain_info[VDRI_PER_DOMAIN_INFO_SIZE];
alignas(4) uint8_t vdri_fsm_hash_tbl[VDRI_FSM_HASH_TBL_SIZE];
alignas(4) uint8_t vdri_swils[VDRI_SWILS_SIZE];
alignas(4) uint8_t vdri_fsm_id_buf[VDRI_FSM_ID_BUF_SIZE];
uint32_t vdri_last_subaction_flag;
uint64_t zfx_num_calloc_frees;
uint32_t zfx_pdd_len;
uint32_t zfx_pdd_write_error;
uint32_t zfx_print_cnt;
uint32_t zfx_rc_cnt;
uint32_t zfx_dft_wr_ptr;
uint32_t zfx_dft_available;
uint32_t zfx_dft_rolled_over;
uint32_t zfx_dft_last_initial;
uint8_t zfx_dpl;
void *zfx_prv_stdout_fp;
uint32_t zfx_vt_kvdb_svc_nv;
uint32_t diag_resp_pending;
uint32_t tmpfile_size_in_bytes;
uint32_t fcns_sync;
uint32_t aam_deregister_check_init_flag;
uint32_t debug_final_image;
uint32_t local_autonomous_fab_id;
uint32_t zfx_swils_seq_num;

}  // extern "C"
