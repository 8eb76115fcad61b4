// Field tables of the main record kinds: volume, plex, subdisk, disk media,
// disk group and disk access, in stored order. Every base group starts with
// the record id and the name; optional groups hold the members their
// presence flag switches on (flags in record_layouts.cc).
#include "config_db/record_field_macros.h"
#include "config_db/record_fields.h"
#include "config_db/record_layouts.h"
#include "config_db/records.h"

namespace pd {

#define S anyrec
const db_field anyrec_fields[] = {F_VRID(rid), F_VSTR(name)};
#undef S

// ---------------------------------------------------------------------------
#define S volrec
const db_field voltmp_fields[] = {F_TMP(v_rid, v_name, v_tutil)};

const db_field volperm_fields[] = {
    F_VRID(v_rid),        F_VSTR(v_name),       F_VSTR(v_use_type),  F_VSTR(v_fstype),
    F_STR(v_state, 14),   F_SCHAR(v_read_pol),  F_VU(v_minor),       F_U4(v_pflag),
    F_VU(v_pl_num),       F_SEQ(v_update_tid),  F_SEQ(v_detach_tid), F_VVOFF(v_len),
    F_VVOFF(v_log_len)};

const db_field volperm_fields_512[] = {
    F_VRID(v_rid),         F_VSTR(v_name),         F_VSTR(v_use_type),    F_VSTR(v_fstype),
    F_VSTR(v_comment),     F_PUTIL(v_putil),       F_STR(v_state, 14),    F_VSTR(v_start_opts),
    F_SCHAR(v_read_pol),   F_VU(v_minor),          F_VU(v_uid),           F_VU(v_gid),
    F_VU(v_mode),          F_U4(v_pflag),          F_VU(v_pl_num),        F_SEQ(v_update_tid),
    F_SEQ(v_detach_tid),   F_VVOFF512(v_len),      F_VVOFF512(v_log_len)};

const db_field volperm_nt_part_type_fields[] = {F_VU(v_nt_part_type)};
const db_field volperm_nt_vol_guid_fields[] = {F_GUID(v_nt_vol_guid)};
const db_field volperm_prefer_fields[] = {F_VRID(v_pref_plex_rid)};
const db_field volperm_log_rid_fields[] = {F_VRID(v_log_rid)};
const db_field volperm_subvolume_fields[] = {F_VRID(v_vset_rid), F_VU(v_vset_index)};
const db_field volperm_checkpoint_fields[] = {F_VVOFF(v_recover_checkpoint)};
const db_field volperm_checkpoint_fields_512[] = {F_VVOFF512(v_recover_checkpoint)};
const db_field volperm_recov_seqno_fields[] = {F_SEQ(v_recover_seqno)};
const db_field volperm_nt_mount_name_fields[] = {F_AWSTR(v_nt_mount_name)};
const db_field volperm_netmirror_fields[] = {F_VSTR(v_nm_site), F_U4(v_nm_flags)};
const db_field volperm_dco_fields[] = {F_VRID(v_dco_rid)};
const db_field volperm_pflag2_fields[] = {F_U4(v_pflag2)};
const db_field volperm_pflag3_fields[] = {F_U4(v_pflag3)};
const db_field volperm_cache_fields[] = {F_VRID(v_cache_rid)};
const db_field volperm_reserved1_fields[] = {F_U4(v_reserved1)};

// Release 1.2: two alternative bases, chosen by flag 0x1000.
const db_field volperm_fields_1_2[] = {
    F_VRID(v_rid),       F_VSTR(v_name),     F_VSTR(v_use_type),  F_STR(v_state, 14),
    F_SCHAR(v_read_pol), F_VU(v_minor),      F_U4(v_pflag),       F_VU(v_pl_num),
    F_SEQ(v_update_tid), F_VVOFF(v_len)};
const db_field volperm_detach_fields_1_2[] = {
    F_VRID(v_rid),       F_VSTR(v_name),     F_VSTR(v_use_type),  F_STR(v_state, 14),
    F_SCHAR(v_read_pol), F_VU(v_minor),      F_U4(v_pflag),       F_VU(v_pl_num),
    F_SEQ(v_update_tid), F_SEQ(v_detach_tid), F_VVOFF(v_len),     F_VVOFF(v_log_len)};
#undef S

// ---------------------------------------------------------------------------
#define S plexrec
const db_field plextmp_fields[] = {F_TMP(pl_rid, pl_name, pl_tutil)};

const db_field plexperm_fields[] = {
    F_VRID(pl_rid),        F_VSTR(pl_name),       F_VSTR(pl_state),     F_SCHAR(pl_layout),
    F_U4(pl_pflag),        F_VU(pl_sd_num),       F_SEQ(pl_update_tid), F_SEQ(pl_detach_tid),
    F_VRID(pl_vol_rid),    F_VRID(pl_log_sd_rid)};

const db_field plexperm_stripe_fields[] = {F_VVOFF(pl_st_width), F_VU(pl_ncolumn)};
const db_field plexperm_stripe_fields_512[] = {F_VVOFF512(pl_st_width), F_VU(pl_ncolumn)};
const db_field plexperm_snap_fields[] = {F_VRID(pl_snap_rid), F_VVOFF(pl_snap_offset)};
const db_field plexperm_guid_fields[] = {F_GUID(pl_guid)};
const db_field plexperm_dcoplex_fields[] = {F_VRID(pl_dcoplex_rid)};
const db_field plexperm_vsssnapshot_fields[] = {F_VRID(pl_vsssnap_rid), F_U4(pl_vsssnap_flags)};
const db_field plexperm_comment_fields[] = {F_VSTR(pl_comment)};
const db_field plexperm_info_fields[] = {F_VBYTE(pl_info)};
const db_field plexperm_mapguid_fields[] = {F_GUID(pl_mapguid)};
const db_field plexperm_reserved1_fields[] = {F_U4(pl_reserved1)};

const db_field plexperm_fields_1_2[] = {
    F_VRID(pl_rid),  F_VSTR(pl_name),  F_VSTR(pl_state),     F_SCHAR(pl_layout),
    F_U4(pl_pflag),  F_VU(pl_sd_num),  F_SEQ(pl_update_tid), F_VRID(pl_vol_rid)};
const db_field plexperm_stripe_fields_1_2[] = {F_VVOFF(pl_st_width), F_VU(pl_ncolumn)};
#undef S

// ---------------------------------------------------------------------------
#define S sdrec
const db_field sdtmp_fields[] = {F_TMP(sd_rid, sd_name, sd_tutil)};

const db_field sdperm_fields[] = {
    F_VRID(sd_rid),       F_VSTR(sd_name),    F_U4(sd_pflag),     F_SEQ(sd_update_tid),
    F_VOFF(sd_dm_offset), F_VOFF(sd_pl_offset), F_VVOFF(sd_len),  F_VRID(sd_plex_rid),
    F_VRID(sd_dm_rid)};

const db_field sdperm_fields_512[] = {
    F_VRID(sd_rid),          F_VSTR(sd_name),          F_VSTR(sd_comment),
    F_PUTIL(sd_putil),       F_U4(sd_pflag),           F_SEQ(sd_update_tid),
    F_VOFF512(sd_dm_offset), F_VOFF512(sd_pl_offset),  F_VVOFF512(sd_len),
    F_VRID(sd_plex_rid),     F_VRID(sd_dm_rid)};

const db_field sdperm_stripe_fields[] = {F_VU(sd_column)};
const db_field sdperm_detach_fields[] = {F_SEQ(sd_detach_tid)};
const db_field sdperm_minor_fields[] = {F_VU(sd_minor)};
const db_field sdperm_nt_hiddensec_fields[] = {F_VVOFF(sd_nt_hidden_sectors)};
const db_field sdperm_orig_fields[] = {F_VRID(sd_orig_dm_rid), F_VOFF(sd_orig_dm_offset)};
const db_field sdperm_orig_fields_512[] = {F_VRID(sd_orig_dm_rid), F_VOFF512(sd_orig_dm_offset)};
const db_field sdperm_comment_fields[] = {F_VSTR(sd_comment)};
const db_field sdperm_reserved1_fields[] = {F_U4(sd_reserved1)};

const db_field sdperm_fields_1_2[] = {
    F_VRID(sd_rid),       F_VSTR(sd_name),        F_SEQ(sd_update_tid), F_VOFF(sd_dm_offset),
    F_VOFF(sd_pl_offset), F_VVOFF(sd_len),        F_VRID(sd_plex_rid),  F_VRID(sd_dm_rid)};
#undef S

// ---------------------------------------------------------------------------
#define S dmrec
// The disk-media temporary part keeps all three utility strings variable.
const db_field dmtmp_fields[] = {F_VRID(dm_rid), F_VSTR(dm_name), F_PUTIL(dm_tutil)};

const db_field dmperm_fields_2_0[] = {
    F_VRID(dm_rid),   F_VSTR(dm_name),  F_VSTR(dm_diskid), F_AWSTR(dm_nt_persistent_name),
    F_U4(dm_pflag),   F_SEQ(dm_update_tid)};

const db_field dmperm_fields_nt_2[] = {
    F_VRID(dm_rid),     F_VSTR(dm_name),     F_GUIDMEM(dm_diskid),
    F_GUID(dm_nt_last_diskset_id),           F_AWSTR(dm_nt_persistent_name),
    F_U4(dm_pflag),     F_SEQ(dm_update_tid)};

const db_field dmperm_app_value_fields[] = {F_VBYTE(dm_app_value)};
const db_field dmperm_comment_fields[] = {F_VSTR(dm_comment)};
const db_field dmperm_timeout_fields[] = {F_U4(dm_timeout)};
const db_field dmperm_lastdev_fields[] = {F_VSTR(dm_last_da_name)};
const db_field dmperm_move_fields[] = {F_VSTR(dm_move_dgid), F_SEQ(dm_move_tid)};
const db_field dmperm_stpool_fields[] = {F_VRID(dm_stpool_rid)};
const db_field dmperm_info_fields[] = {F_VBYTE(dm_info)};
const db_field dmperm_guid_fields[] = {F_GUID(dm_guid)};
const db_field dmperm_cds_fields[] = {F_U4(dm_cds_flags), F_VU(dm_cds_alignment)};
const db_field dmperm_reserved1_fields[] = {F_U4(dm_reserved1)};

const db_field dmperm_fields_1_2[] = {
    F_VRID(dm_rid), F_VSTR(dm_name), F_STR(dm_diskid, 64), F_U4(dm_pflag), F_SEQ(dm_update_tid)};
#undef S

// ---------------------------------------------------------------------------
#define S dgrec
const db_field dgtmp_fields[] = {F_TMP(dg_rid, dg_real_name, dg_tutil), F_VSTR(dg_tagname)};

const db_field dgperm_fields_nt_1[] = {
    F_VRID(dg_rid), F_VSTR(dg_real_name), F_VSTR(dg_dgid), F_U4(dg_pflag), F_SEQ(dg_update_tid)};

const db_field dgperm_fields_nt_2[] = {
    F_VRID(dg_rid),   F_VSTR(dg_real_name),  F_GUIDMEM(dg_dgid),
    F_GUID(dg_nt_diskset_id),                F_U4(dg_pflag),      F_SEQ(dg_update_tid)};

const db_field dgperm_ncopy_fields[] = {F_VU(dg_nconfig), F_VU(dg_nlog)};
const db_field dgperm_base_minor_fields[] = {F_VU(dg_base_minor)};
const db_field dgperm_version_fields[] = {F_U4(dg_version)};
const db_field dgperm_comment_fields[] = {F_VSTR(dg_comment)};
const db_field dgperm_policy_fields[] = {F_U4(dg_policy)};
const db_field dgperm_move_fields[] = {F_VSTR(dg_move_dgid), F_SEQ(dg_move_tid)};
const db_field dgperm_io_fence_fields[] = {F_U4(dg_io_fence)};
const db_field dgperm_cds_fields[] = {F_U4(dg_cds_flags)};
const db_field dgperm_dfpolicy_fields[] = {F_U4(dg_dfpolicy)};
const db_field dgperm_reserved1_fields[] = {F_U4(dg_reserved1)};

const db_field dgperm_fields_1_2[] = {
    F_VRID(dg_rid), F_VSTR(dg_real_name), F_STR(dg_dgid, 64), F_U4(dg_pflag),
    F_SEQ(dg_update_tid)};
#undef S

// ---------------------------------------------------------------------------
#define S darec
const db_field daperm_fields[] = {
    F_VRID(da_rid), F_VSTR(da_name), F_VSTR(da_comment), F_VSTR(da_type),
    F_VSTR(da_info), F_U4(da_pflag), F_SEQ(da_update_tid)};
#undef S

}  // namespace pd
