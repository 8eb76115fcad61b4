// The tag tables of the record kinds and the value tables.
//
// Tag numbers are given per field; aliases of one field share the number.
// Name and comment entries carry the member width less one as their extra
// value, the most leading NUL bytes the printer skips, so that the text
// never starts outside the member. Flag entries carry their bit mask. The
// volume and plex tables hold the names of the system in their order; the
// six others are derived from their record structures in the same pattern
// (docs/report.md lists them).
#include <cstddef>
#include <type_traits>
#include <utility>

#include "config_db/records.h"
#include "report/tag_printer.h"

namespace pd {

namespace {

// Entry helpers: a named member, a name (width less one), a flag bit, a
// pseudo-field.
#define TD(S, tag, name, kind, member, info)                                      \
  voltagdesc {                                                                     \
    tag, name, kind, offsetof(S, member), info, sizeof(std::declval<S&>().member), \
        std::is_signed_v<std::remove_cvref_t<decltype(std::declval<S&>().member)>> \
  }
#define TN(S, tag, name, kind, member) \
  TD(S, tag, name, kind, member, static_cast<long>(sizeof(std::declval<S&>().member)) - 1)
#define TF(S, tag, name, member, mask) TD(S, tag, name, TAG_FLAG, member, static_cast<long>(mask))
#define TNOOP(tag, name) \
  voltagdesc { tag, name, TAG_NOOP, 0, 0, 0, false }
#define PSEUDO(tag) TNOOP(tag, "EXISTS"), TNOOP(tag + 1, "IMPLICIT"), TNOOP(tag + 2, "CHANGED")

// ---------------------------------------------------------------------------
#define V(...) TD(volrec, __VA_ARGS__)
#define VN(...) TN(volrec, __VA_ARGS__)
#define VF(...) TF(volrec, __VA_ARGS__)
constexpr voltagdesc vtag_table[] = {
    VN(1, "tutil0", TAG_NAME, v_tutil[0]),
    VN(2, "tutil1", TAG_NAME, v_tutil[1]),
    VN(3, "tutil2", TAG_NAME, v_tutil[2]),
    VF(4, "rec_lock", v_tflag, VOL_TF_REC_LOCK),
    VF(5, "lock", v_tflag, VOL_TF_LOCK),
    VF(6, "data_lock", v_tflag, VOL_TF_DATA_LOCK),
    VF(6, "datalock", v_tflag, VOL_TF_DATA_LOCK),
    V(7, "kstate", TAG_VKSTATE, v_kstate, 0),
    VF(8, "r_all", v_tflag, VOL_TF_R_ALL),
    VF(8, "r_all", v_tflag, VOL_TF_R_ALL),
    VF(8, "rall", v_tflag, VOL_TF_R_ALL),
    VF(9, "r_some", v_tflag, VOL_TF_R_SOME),
    VF(9, "rsome", v_tflag, VOL_TF_R_SOME),
    VF(10, "w_all", v_tflag, VOL_TF_W_ALL),
    VF(10, "wall", v_tflag, VOL_TF_W_ALL),
    VF(11, "w_some", v_tflag, VOL_TF_W_SOME),
    VF(11, "wsome", v_tflag, VOL_TF_W_SOME),
    V(12, "lasterr", TAG_LONG, v_lasterr, 0),
    VN(13, "use_type", TAG_NAME, v_use_type),
    VN(13, "usetype", TAG_NAME, v_use_type),
    VN(14, "fstype", TAG_NAME, v_fstype),
    VN(15, "comment", TAG_COMMNT, v_comment),
    VN(16, "putil0", TAG_NAME, v_putil[0]),
    VN(17, "putil1", TAG_NAME, v_putil[1]),
    VN(18, "putil2", TAG_NAME, v_putil[2]),
    VN(19, "state", TAG_NAME, v_state),
    VF(20, "writeback", v_pflag, VOL_PF_WRITEBACK),
    VF(21, "writecopy", v_pflag, VOL_PF_WRITECOPY),
    VF(22, "specify_writecopy", v_pflag, VOL_PF_SPECIFY_WRITECOPY),
    VF(22, "specifywritecopy", v_pflag, VOL_PF_SPECIFY_WRITECOPY),
    VF(23, "logging", v_tflag, VOL_TF_LOGGING),
    VF(24, "has_logs", v_tflag, VOL_TF_HAS_LOGS),
    VF(24, "haslogs", v_tflag, VOL_TF_HAS_LOGS),
    VF(25, "devopen", v_tflag, VOL_TF_DEVOPEN),
    VF(25, "open", v_tflag, VOL_TF_DEVOPEN),
    V(26, "log_serial_lo", TAG_ULONG, v_log_serial_lo, 0),
    V(27, "log_serial_hi", TAG_ULONG, v_log_serial_hi, 0),
    V(28, "node_bdev", TAG_DEV, v_node_bdev, 0),
    V(28, "nodebdev", TAG_DEV, v_node_bdev, 0),
    V(28, "nodedev", TAG_DEV, v_node_bdev, 0),
    V(28, "bdev", TAG_DEV, v_node_bdev, 0),
    V(28, "dev", TAG_DEV, v_node_bdev, 0),
    V(29, "node_cdev", TAG_DEV, v_node_cdev, 0),
    V(29, "nodecdev", TAG_DEV, v_node_cdev, 0),
    V(29, "cdev", TAG_DEV, v_node_cdev, 0),
    V(30, "iosize", TAG_SIZE, v_iosize, 0),
    V(31, "pl_num", TAG_ULONG, v_pl_num, 0),
    V(31, "plnum", TAG_ULONG, v_pl_num, 0),
    V(31, "nplex", TAG_ULONG, v_pl_num, 0),
    TNOOP(32, "plex"),
    VN(33, "pref_name", TAG_PREF, v_pref_name),
    VN(33, "prefname", TAG_PREF, v_pref_name),
    VN(34, "start_opts", TAG_NAME, v_start_opts),
    VN(34, "startopts", TAG_NAME, v_start_opts),
    V(35, "read_pol", TAG_R_POL, v_read_pol, 0),
    V(35, "readpol", TAG_R_POL, v_read_pol, 0),
    V(36, "current_read_pol", TAG_R_POL, v_current_read_pol, 0),
    V(36, "currentreadpol", TAG_R_POL, v_current_read_pol, 0),
    V(36, "creadpol", TAG_R_POL, v_current_read_pol, 0),
    V(37, "minor", TAG_MINOR, v_minor, 0),
    V(38, "user", TAG_UID, v_uid, 0),
    V(39, "group", TAG_GID, v_gid, 0),
    V(40, "mode", TAG_MODE, v_mode, 0),
    V(41, "log_type", TAG_LOG_TYPE, v_log_type, 0),
    V(41, "logtype", TAG_LOG_TYPE, v_log_type, 0),
    V(42, "len", TAG_LEN, v_len, 0),
    V(43, "log_len", TAG_LEN, v_log_len, 0),
    V(43, "loglen", TAG_LEN, v_log_len, 0),
    V(44, "update_tid", TAG_SEQNO, v_update_tid, 0),
    V(44, "updatetid", TAG_SEQNO, v_update_tid, 0),
    V(45, "rid", TAG_RID, v_rid, 0),
    V(46, "pref_plex_rid", TAG_RID, v_pref_plex_rid, 0),
    V(46, "prefplex_rid", TAG_RID, v_pref_plex_rid, 0),
    V(46, "prefplexrid", TAG_RID, v_pref_plex_rid, 0),
    V(47, "detach_tid", TAG_SEQNO, v_detach_tid, 0),
    V(47, "detachtid", TAG_SEQNO, v_detach_tid, 0),
    VF(48, "active", v_tflag, VOL_TF_ACTIVE),
    VF(49, "forceminor", v_pflag, VOL_PF_FORCEMINOR),
    VF(50, "badlog", v_pflag, VOL_PF_BADLOG),
    VF(51, "recover", v_tflag, VOL_TF_RECOVER),
    VF(52, "krecover", v_tflag, VOL_TF_KRECOVER),
    VF(53, "invalid", v_tflag, VOL_TF_INVALID),
    V(54, "recover_offset", TAG_OFFSET, v_recover_offset, 0),
    V(54, "recoveroffset", TAG_OFFSET, v_recover_offset, 0),
    V(55, "log_rid", TAG_RID, v_log_rid, 0),
    V(55, "logrid", TAG_RID, v_log_rid, 0),
    V(56, "recover_checkpoint", TAG_OFFSET, v_recover_checkpoint, 0),
    V(56, "recovercheckpoint", TAG_OFFSET, v_recover_checkpoint, 0),
    V(57, "lasterr_tid", TAG_SEQNO, v_lasterr_tid, 0),
    V(57, "lasterrtid", TAG_SEQNO, v_lasterr_tid, 0),
    V(57, "errortid", TAG_SEQNO, v_lasterr_tid, 0),
    V(57, "errtid", TAG_SEQNO, v_lasterr_tid, 0),
    V(58, "sd_num", TAG_ULONG, v_sd_num, 0),
    V(58, "sdnum", TAG_ULONG, v_sd_num, 0),
    V(58, "nsd", TAG_ULONG, v_sd_num, 0),
    VF(59, "dirty", v_tflag, VOL_TF_DIRTY),
    VF(60, "busy", v_tflag, VOL_TF_BUSY),
    VF(61, "degraded", v_tflag, VOL_TF_DEGRADED),
    VF(62, "unusable", v_tflag, VOL_TF_UNUSABLE),
    VF(63, "kdetach", v_pflag, VOL_PF_KDETACH),
    VF(64, "iofail", v_tflag, VOL_TF_IOFAIL),
    VF(65, "storage", v_pflag, VOL_PF_STORAGE),
    VF(66, "applrecov", v_pflag, VOL_PF_APPRECOVER),
    VF(66, "apprecover", v_pflag, VOL_PF_APPRECOVER),
    V(67, "recover_seqno", TAG_SEQNO, v_recover_seqno, 0),
    V(67, "recov_seqno", TAG_SEQNO, v_recover_seqno, 0),
    VF(68, "app_dirty", v_tflag, VOL_TF_APP_DIRTY),
    VF(68, "appdirty", v_tflag, VOL_TF_APP_DIRTY),
    VN(69, "dco_name", TAG_NAME, v_dco_name),
    V(70, "dco_rid", TAG_RID, v_dco_rid, 0),
    V(71, "nt_part_type", TAG_LONG, v_nt_part_type, 0),
    V(72, "nt_kernel_part_type", TAG_LONG, v_nt_kernel_part_type, 0),
    V(73, "nt_vol_guid", TAG_NT_GUID, v_nt_vol_guid, 0),
    VF(74, "nt_raid_init", v_tflag, VOL_TF_NT_RAID_INIT),
    VF(75, "nt_curr_rootvol", v_tflag, VOL_TF_NT_CURR_ROOTVOL),
    VF(76, "nt_pagepath", v_tflag, VOL_TF_NT_PAGEPATH),
    VF(77, "nt_crashdump", v_tflag, VOL_TF_NT_CRASHDUMP),
    VF(78, "nt_pending", v_pflag, VOL_PF_NT_PENDING),
    VF(79, "nt_raid_ntft", v_pflag, VOL_PF_NT_RAID_NTFT),
    VF(80, "nt_boot_volume", v_pflag, VOL_PF_NT_BOOT_VOLUME),
    VF(81, "nt_system_volume", v_pflag, VOL_PF_NT_SYSTEM_VOLUME),
    VF(82, "nt_retain_partition", v_pflag, VOL_PF_NT_RETAIN_PARTITION),
    PSEUDO(83),
};
static_assert(std::size(vtag_table) == 125);

// ---------------------------------------------------------------------------
#define P(...) TD(plexrec, __VA_ARGS__)
#define PN(...) TN(plexrec, __VA_ARGS__)
#define PF(...) TF(plexrec, __VA_ARGS__)
constexpr voltagdesc ptag_table[] = {
    PN(1, "tutil0", TAG_NAME, pl_tutil[0]),
    PN(2, "tutil1", TAG_NAME, pl_tutil[1]),
    PN(3, "tutil2", TAG_NAME, pl_tutil[2]),
    PF(4, "lock", pl_tflag, PL_TF_LOCK),
    PF(5, "compact", pl_tflag, PL_TF_COMPACT),
    P(6, "iomode", TAG_PIOMODE, pl_iomode, 0),
    PF(7, "volatile", pl_tflag, PL_TF_VOLATILE),
    P(8, "kstate", TAG_PKSTATE, pl_kstate, 0),
    P(9, "lasterr", TAG_LONG, pl_lasterr, 0),
    P(10, "len", TAG_LEN, pl_len, 0),
    P(11, "contig_len", TAG_LEN, pl_contig_len, 0),
    P(11, "contiglen", TAG_LEN, pl_contig_len, 0),
    P(12, "dev", TAG_DEV, pl_dev, 0),
    P(13, "minor", TAG_MINOR, pl_minor, 0),
    PN(14, "comment", TAG_COMMNT, pl_comment),
    PN(15, "putil0", TAG_NAME, pl_putil[0]),
    PN(16, "putil1", TAG_NAME, pl_putil[1]),
    PN(17, "putil2", TAG_NAME, pl_putil[2]),
    PN(18, "v_name", TAG_NAME, pl_v_name),
    PN(18, "vname", TAG_NAME, pl_v_name),
    PN(18, "volume", TAG_NAME, pl_v_name),
    P(19, "layout", TAG_LAYOUT, pl_layout, 0),
    P(20, "st_width", TAG_STWIDTH, pl_st_width, 0),
    P(20, "stwidth", TAG_STWIDTH, pl_st_width, 0),
    P(21, "sd_num", TAG_ULONG, pl_sd_num, 0),
    P(21, "sdnum", TAG_ULONG, pl_sd_num, 0),
    P(21, "nsd", TAG_ULONG, pl_sd_num, 0),
    TNOOP(22, "sd"),
    PN(23, "state", TAG_NAME, pl_state),
    PN(24, "log_sd", TAG_NAME, pl_log_sd),
    PN(24, "logsd", TAG_NAME, pl_log_sd),
    P(25, "update_tid", TAG_SEQNO, pl_update_tid, 0),
    P(25, "updatetid", TAG_SEQNO, pl_update_tid, 0),
    P(26, "rid", TAG_RID, pl_rid, 0),
    P(27, "vol_rid", TAG_RID, pl_vol_rid, 0),
    P(27, "volrid", TAG_RID, pl_vol_rid, 0),
    P(28, "detach_tid", TAG_SEQNO, pl_detach_tid, 0),
    P(28, "detachtid", TAG_SEQNO, pl_detach_tid, 0),
    P(29, "log_sd_rid", TAG_RID, pl_log_sd_rid, 0),
    P(29, "logsd_rid", TAG_RID, pl_log_sd_rid, 0),
    P(29, "logsdrid", TAG_RID, pl_log_sd_rid, 0),
    PF(30, "devopen", pl_tflag, PL_TF_DEVOPEN),
    PF(30, "open", pl_tflag, PL_TF_DEVOPEN),
    PF(31, "log", pl_tflag, PL_TF_LOG),
    PF(32, "complete", pl_tflag, PL_TF_COMPLETE),
    PF(33, "noerror", pl_tflag, PL_TF_NOERROR),
    PF(34, "kdetach", pl_pflag, PL_PF_KDETACH),
    PF(35, "iofail", pl_pflag, PL_PF_IOFAIL),
    PF(36, "removed", pl_tflag, PL_TF_REMOVED),
    PF(37, "nodarec", pl_tflag, PL_TF_NODAREC),
    PF(38, "nodevice", pl_tflag, PL_TF_NODEVICE),
    PF(39, "stale", pl_tflag, PL_TF_STALE),
    PF(40, "recover", pl_pflag, PL_PF_RECOVER),
    P(41, "lasterr_tid", TAG_SEQNO, pl_lasterr_tid, 0),
    P(41, "lasterrtid", TAG_SEQNO, pl_lasterr_tid, 0),
    P(41, "errortid", TAG_SEQNO, pl_lasterr_tid, 0),
    P(41, "errtid", TAG_SEQNO, pl_lasterr_tid, 0),
    P(42, "ncolumn", TAG_ULONG, pl_ncolumn, 0),
    P(42, "columns", TAG_ULONG, pl_ncolumn, 0),
    P(42, "ncol", TAG_ULONG, pl_ncolumn, 0),
    PF(43, "dirty", pl_tflag, PL_TF_DIRTY),
    PF(44, "busy", pl_tflag, PL_TF_BUSY),
    PF(45, "raidlog", pl_tflag, PL_TF_RAIDLOG),
    PF(45, "raid5log", pl_tflag, PL_TF_RAIDLOG),
    P(46, "plex_snap_rid", TAG_RID, pl_snap_rid, 0),
    P(47, "plex_guid", TAG_GUID, pl_guid, 0),
    P(48, "dcoplex_rid", TAG_RID, pl_dcoplex_rid, 0),
    PF(49, "nt_curr_bootplex", pl_tflag, PL_TF_NT_CURR_BOOTPLEX),
    PF(50, "nt_pending", pl_pflag, PL_PF_NT_PENDING),
    PSEUDO(51),
};
static_assert(std::size(ptag_table) == 72);

// ---------------------------------------------------------------------------
#define S(...) TD(sdrec, __VA_ARGS__)
#define SN(...) TN(sdrec, __VA_ARGS__)
#define SF(...) TF(sdrec, __VA_ARGS__)
constexpr voltagdesc stag_table[] = {
    SN(1, "tutil0", TAG_NAME, sd_tutil[0]),
    SN(2, "tutil1", TAG_NAME, sd_tutil[1]),
    SN(3, "tutil2", TAG_NAME, sd_tutil[2]),
    SF(4, "lock", sd_tflag, SD_TF_LOCK),
    S(5, "kstate", TAG_VKSTATE, sd_kstate, 0),
    S(5, "kernel_state", TAG_VKSTATE, sd_kstate, 0),
    S(6, "lasterr", TAG_LONG, sd_lasterr, 0),
    S(6, "last_error", TAG_LONG, sd_lasterr, 0),
    S(7, "dev", TAG_DEV, sd_dev, 0),
    S(7, "node_dev", TAG_DEV, sd_dev, 0),
    S(7, "nodedev", TAG_DEV, sd_dev, 0),
    SN(8, "comment", TAG_COMMNT, sd_comment),
    SN(9, "putil0", TAG_NAME, sd_putil[0]),
    SN(10, "putil1", TAG_NAME, sd_putil[1]),
    SN(11, "putil2", TAG_NAME, sd_putil[2]),
    SN(12, "dm_name", TAG_NAME, sd_dm_name),
    SN(12, "dmname", TAG_NAME, sd_dm_name),
    SN(12, "disk", TAG_NAME, sd_dm_name),
    SN(12, "dm", TAG_NAME, sd_dm_name),
    SN(13, "plex_name", TAG_NAME, sd_plex_name),
    SN(13, "plexname", TAG_NAME, sd_plex_name),
    SN(13, "plex", TAG_NAME, sd_plex_name),
    SN(13, "pl_name", TAG_NAME, sd_plex_name),
    SN(14, "da_name", TAG_NAME, sd_da_name),
    SN(14, "daname", TAG_NAME, sd_da_name),
    S(15, "dm_offset", TAG_OFFSET, sd_dm_offset, 0),
    S(15, "dmoffset", TAG_OFFSET, sd_dm_offset, 0),
    S(15, "dm_off", TAG_OFFSET, sd_dm_offset, 0),
    S(15, "doffset", TAG_OFFSET, sd_dm_offset, 0),
    S(16, "pl_offset", TAG_OFFSET, sd_pl_offset, 0),
    S(16, "ploffset", TAG_OFFSET, sd_pl_offset, 0),
    S(16, "pl_off", TAG_OFFSET, sd_pl_offset, 0),
    S(16, "plex_offset", TAG_OFFSET, sd_pl_offset, 0),
    S(16, "poffset", TAG_OFFSET, sd_pl_offset, 0),
    S(17, "len", TAG_LEN, sd_len, 0),
    S(17, "length", TAG_LEN, sd_len, 0),
    S(17, "sd_len", TAG_LEN, sd_len, 0),
    S(17, "sdlen", TAG_LEN, sd_len, 0),
    S(18, "update_tid", TAG_SEQNO, sd_update_tid, 0),
    S(18, "updatetid", TAG_SEQNO, sd_update_tid, 0),
    S(19, "rid", TAG_RID, sd_rid, 0),
    S(20, "plex_rid", TAG_RID, sd_plex_rid, 0),
    S(20, "plexrid", TAG_RID, sd_plex_rid, 0),
    S(20, "pl_rid", TAG_RID, sd_plex_rid, 0),
    S(21, "dm_rid", TAG_RID, sd_dm_rid, 0),
    S(21, "dmrid", TAG_RID, sd_dm_rid, 0),
    S(21, "disk_rid", TAG_RID, sd_dm_rid, 0),
    S(22, "column", TAG_ULONG, sd_column, 0),
    S(22, "columns", TAG_ULONG, sd_column, 0),
    S(22, "col", TAG_ULONG, sd_column, 0),
    S(22, "sd_column", TAG_ULONG, sd_column, 0),
    S(23, "detach_tid", TAG_SEQNO, sd_detach_tid, 0),
    S(23, "detachtid", TAG_SEQNO, sd_detach_tid, 0),
    S(24, "minor", TAG_MINOR, sd_minor, 0),
    S(25, "nt_hidden_sectors", TAG_LEN, sd_nt_hidden_sectors, 0),
    S(25, "hidden_sectors", TAG_LEN, sd_nt_hidden_sectors, 0),
    S(25, "hidden", TAG_LEN, sd_nt_hidden_sectors, 0),
    S(25, "hiddensec", TAG_LEN, sd_nt_hidden_sectors, 0),
    S(26, "orig_dm_rid", TAG_RID, sd_orig_dm_rid, 0),
    S(26, "origdmrid", TAG_RID, sd_orig_dm_rid, 0),
    S(27, "orig_dm_offset", TAG_OFFSET, sd_orig_dm_offset, 0),
    S(27, "origdmoffset", TAG_OFFSET, sd_orig_dm_offset, 0),
    S(27, "orig_dm_off", TAG_OFFSET, sd_orig_dm_offset, 0),
    S(28, "lasterr_tid", TAG_SEQNO, sd_lasterr_tid, 0),
    S(28, "lasterrtid", TAG_SEQNO, sd_lasterr_tid, 0),
    S(28, "errortid", TAG_SEQNO, sd_lasterr_tid, 0),
    S(28, "errtid", TAG_SEQNO, sd_lasterr_tid, 0),
    SF(29, "devopen", sd_tflag, SD_TF_DEVOPEN),
    SF(29, "open", sd_tflag, SD_TF_DEVOPEN),
    SF(30, "nodarec", sd_tflag, SD_TF_NODAREC),
    SF(31, "nodevice", sd_tflag, SD_TF_NODEVICE),
    SF(32, "removed", sd_tflag, SD_TF_REMOVED),
    SF(33, "stale", sd_tflag, SD_TF_STALE),
    SF(34, "busy", sd_tflag, SD_TF_BUSY),
    SF(35, "log", sd_tflag, SD_TF_LOG),
    SF(36, "recover", sd_pflag, SD_PF_RECOVER),
    SF(37, "kdetach", sd_pflag, SD_PF_KDETACH),
    SF(38, "relocate", sd_pflag, SD_PF_RELOCATE),
    SF(39, "boot_extended", sd_pflag, SD_PF_BOOT_EXTENDED),
    SF(39, "bootextended", sd_pflag, SD_PF_BOOT_EXTENDED),
    SF(39, "boot_ext", sd_pflag, SD_PF_BOOT_EXTENDED),
    SF(40, "origboot", sd_pflag, SD_PF_ORIGBOOT),
    SF(41, "volatile", sd_pflag, SD_PF_VOLATILE),
    PSEUDO(42),
};
static_assert(std::size(stag_table) == 86);

// ---------------------------------------------------------------------------
#define M(...) TD(dmrec, __VA_ARGS__)
#define MN(...) TN(dmrec, __VA_ARGS__)
#define MF(...) TF(dmrec, __VA_ARGS__)
constexpr voltagdesc mtag_table[] = {
    MN(1, "tutil0", TAG_NAME, dm_tutil[0]),
    MN(2, "tutil1", TAG_NAME, dm_tutil[1]),
    MN(3, "tutil2", TAG_NAME, dm_tutil[2]),
    MF(4, "lock", dm_tflag, DM_TF_LOCK),
    MN(5, "da_name", TAG_NAME, dm_da_name),
    MN(5, "daname", TAG_NAME, dm_da_name),
    MN(5, "device", TAG_NAME, dm_da_name),
    MN(5, "da", TAG_NAME, dm_da_name),
    M(6, "dev", TAG_DEV, dm_dev, 0),
    M(6, "node_dev", TAG_DEV, dm_dev, 0),
    M(6, "nodedev", TAG_DEV, dm_dev, 0),
    M(7, "pub_offset", TAG_OFFSET, dm_pub_offset, 0),
    M(7, "puboffset", TAG_OFFSET, dm_pub_offset, 0),
    M(7, "public_offset", TAG_OFFSET, dm_pub_offset, 0),
    M(7, "pub_off", TAG_OFFSET, dm_pub_offset, 0),
    M(8, "pub_len", TAG_LEN, dm_pub_len, 0),
    M(8, "publen", TAG_LEN, dm_pub_len, 0),
    M(8, "public_len", TAG_LEN, dm_pub_len, 0),
    M(8, "publiclen", TAG_LEN, dm_pub_len, 0),
    M(8, "pub_length", TAG_LEN, dm_pub_len, 0),
    M(9, "priv_offset", TAG_OFFSET, dm_priv_offset, 0),
    M(9, "privoffset", TAG_OFFSET, dm_priv_offset, 0),
    M(9, "private_offset", TAG_OFFSET, dm_priv_offset, 0),
    M(9, "priv_off", TAG_OFFSET, dm_priv_offset, 0),
    M(10, "priv_len", TAG_LEN, dm_priv_len, 0),
    M(10, "privlen", TAG_LEN, dm_priv_len, 0),
    M(10, "private_len", TAG_LEN, dm_priv_len, 0),
    M(10, "privatelen", TAG_LEN, dm_priv_len, 0),
    M(10, "priv_length", TAG_LEN, dm_priv_len, 0),
    MN(11, "diskid", TAG_UUID, dm_diskid),
    MN(11, "disk_id", TAG_UUID, dm_diskid),
    MN(11, "dm_diskid", TAG_UUID, dm_diskid),
    M(12, "last_diskset_id", TAG_NT_GUID, dm_nt_last_diskset_id, 0),
    M(12, "lastdisksetid", TAG_NT_GUID, dm_nt_last_diskset_id, 0),
    M(12, "nt_last_diskset_id", TAG_NT_GUID, dm_nt_last_diskset_id, 0),
    M(12, "diskset_id", TAG_NT_GUID, dm_nt_last_diskset_id, 0),
    TNOOP(13, "nt_persistent_name"),
    TNOOP(13, "persistent_name"),
    M(14, "update_tid", TAG_SEQNO, dm_update_tid, 0),
    M(14, "updatetid", TAG_SEQNO, dm_update_tid, 0),
    M(15, "rid", TAG_RID, dm_rid, 0),
    M(15, "dm_rid", TAG_RID, dm_rid, 0),
    M(15, "dmrid", TAG_RID, dm_rid, 0),
    MN(16, "comment", TAG_COMMNT, dm_comment),
    MN(17, "putil0", TAG_NAME, dm_putil[0]),
    MN(18, "putil1", TAG_NAME, dm_putil[1]),
    MN(19, "putil2", TAG_NAME, dm_putil[2]),
    M(20, "timeout", TAG_ULONG, dm_timeout, 0),
    MN(21, "last_da_name", TAG_NAME, dm_last_da_name),
    MN(21, "lastdaname", TAG_NAME, dm_last_da_name),
    MN(21, "lastdev", TAG_NAME, dm_last_da_name),
    MN(21, "last_device", TAG_NAME, dm_last_da_name),
    MN(21, "lastdevice", TAG_NAME, dm_last_da_name),
    MN(22, "move_dgid", TAG_UUID, dm_move_dgid),
    MN(22, "movedgid", TAG_UUID, dm_move_dgid),
    MN(22, "move_dg", TAG_UUID, dm_move_dgid),
    M(23, "move_tid", TAG_SEQNO, dm_move_tid, 0),
    M(23, "movetid", TAG_SEQNO, dm_move_tid, 0),
    M(24, "stpool_rid", TAG_RID, dm_stpool_rid, 0),
    M(24, "stpoolrid", TAG_RID, dm_stpool_rid, 0),
    M(24, "stpool", TAG_RID, dm_stpool_rid, 0),
    M(25, "guid", TAG_GUID, dm_guid, 0),
    M(25, "dm_guid", TAG_GUID, dm_guid, 0),
    M(25, "dmguid", TAG_GUID, dm_guid, 0),
    M(26, "cds_flags", TAG_ULONG, dm_cds_flags, 0),
    M(26, "cdsflags", TAG_ULONG, dm_cds_flags, 0),
    M(26, "cds", TAG_ULONG, dm_cds_flags, 0),
    M(27, "cds_alignment", TAG_ULONG, dm_cds_alignment, 0),
    M(27, "cdsalignment", TAG_ULONG, dm_cds_alignment, 0),
    M(27, "alignment", TAG_ULONG, dm_cds_alignment, 0),
    MF(28, "nodarec", dm_tflag, DM_TF_NODAREC),
    MF(29, "nodevice", dm_tflag, DM_TF_NODEVICE),
    MF(30, "failed_was", dm_tflag, DM_TF_FAILED_WAS),
    MF(30, "failedwas", dm_tflag, DM_TF_FAILED_WAS),
    MF(31, "reserved", dm_pflag, DM_PF_RESERVED),
    MF(32, "spare", dm_pflag, DM_PF_SPARE),
    MF(33, "failing", dm_pflag, DM_PF_FAILING),
    MF(34, "encap_pending", dm_pflag, DM_PF_ENCAP_PENDING),
    MF(34, "encappending", dm_pflag, DM_PF_ENCAP_PENDING),
    MF(34, "encap", dm_pflag, DM_PF_ENCAP_PENDING),
    MF(35, "merge_required", dm_pflag, DM_PF_MERGE_REQUIRED),
    MF(35, "mergerequired", dm_pflag, DM_PF_MERGE_REQUIRED),
    MF(35, "merge", dm_pflag, DM_PF_MERGE_REQUIRED),
    MF(36, "removed", dm_pflag, DM_PF_REMOVED),
    MF(37, "detached", dm_pflag, DM_PF_DETACHED),
    PSEUDO(38),
};
static_assert(std::size(mtag_table) == 88);

// ---------------------------------------------------------------------------
#define G(...) TD(dgrec, __VA_ARGS__)
#define GN(...) TN(dgrec, __VA_ARGS__)
constexpr voltagdesc gtag_table[] = {
    GN(1, "tutil0", TAG_NAME, dg_tutil[0]),
    GN(2, "tutil1", TAG_NAME, dg_tutil[1]),
    GN(3, "tutil2", TAG_NAME, dg_tutil[2]),
    GN(4, "tagname", TAG_NAME, dg_tagname),
    G(5, "actmode", TAG_DGACTMODE, dg_actmode, 0),
    G(5, "act_mode", TAG_DGACTMODE, dg_actmode, 0),
    GN(6, "dgid", TAG_UUID, dg_dgid),
    GN(6, "dg_id", TAG_UUID, dg_dgid),
    G(7, "diskset_id", TAG_NT_GUID, dg_nt_diskset_id, 0),
    G(7, "disksetid", TAG_NT_GUID, dg_nt_diskset_id, 0),
    G(7, "nt_diskset_id", TAG_NT_GUID, dg_nt_diskset_id, 0),
    G(8, "update_tid", TAG_SEQNO, dg_update_tid, 0),
    G(8, "updatetid", TAG_SEQNO, dg_update_tid, 0),
    G(9, "rid", TAG_RID, dg_rid, 0),
    G(10, "nconfig", TAG_NCOPY, dg_nconfig, 0),
    G(10, "nconfigs", TAG_NCOPY, dg_nconfig, 0),
    G(11, "nlog", TAG_NCOPY, dg_nlog, 0),
    G(11, "nlogs", TAG_NCOPY, dg_nlog, 0),
    G(12, "base_minor", TAG_MINOR, dg_base_minor, 0),
    G(12, "baseminor", TAG_MINOR, dg_base_minor, 0),
    G(13, "version", TAG_DGVERS, dg_version, 0),
    G(13, "dgversion", TAG_DGVERS, dg_version, 0),
    GN(14, "comment", TAG_COMMNT, dg_comment),
    GN(15, "putil0", TAG_NAME, dg_putil[0]),
    GN(16, "putil1", TAG_NAME, dg_putil[1]),
    GN(17, "putil2", TAG_NAME, dg_putil[2]),
    G(18, "dfpolicy", TAG_DDPOLICY, dg_dfpolicy, 0),
    PSEUDO(19),
};
static_assert(std::size(gtag_table) == 30);

// ---------------------------------------------------------------------------
// The disk-access record has no named temporary flags; its lock is bit 0x1
// of da_tflag as in the other kinds.
inline constexpr std::uint32_t DA_TF_LOCK = 0x1;
#define A(...) TD(darec, __VA_ARGS__)
#define AN(...) TN(darec, __VA_ARGS__)
constexpr voltagdesc atag_table[] = {
    AN(1, "tutil0", TAG_NAME, da_tutil[0]),
    AN(2, "tutil1", TAG_NAME, da_tutil[1]),
    AN(3, "tutil2", TAG_NAME, da_tutil[2]),
    TF(darec, 4, "lock", da_tflag, DA_TF_LOCK),
    AN(5, "dm_name", TAG_NAME, da_dm_name),
    AN(5, "dmname", TAG_NAME, da_dm_name),
    AN(5, "disk", TAG_NAME, da_dm_name),
    AN(5, "dm", TAG_NAME, da_dm_name),
    AN(6, "diskid", TAG_UUID, da_diskid),
    AN(6, "disk_id", TAG_UUID, da_diskid),
    AN(7, "dgname", TAG_NAME, da_dgname),
    AN(7, "dg_name", TAG_NAME, da_dgname),
    AN(7, "diskgroup", TAG_NAME, da_dgname),
    AN(7, "dg", TAG_NAME, da_dgname),
    AN(7, "group", TAG_NAME, da_dgname),
    AN(8, "dgid", TAG_UUID, da_dgid),
    AN(8, "dg_id", TAG_UUID, da_dgid),
    AN(8, "diskgroupid", TAG_UUID, da_dgid),
    A(9, "pub_dev", TAG_DEV, da_pub_dev, 0),
    A(9, "pubdev", TAG_DEV, da_pub_dev, 0),
    A(9, "public_dev", TAG_DEV, da_pub_dev, 0),
    A(9, "publicdev", TAG_DEV, da_pub_dev, 0),
    A(9, "dev", TAG_DEV, da_pub_dev, 0),
    A(9, "device", TAG_DEV, da_pub_dev, 0),
    A(10, "priv_dev", TAG_DEV, da_priv_dev, 0),
    A(10, "privdev", TAG_DEV, da_priv_dev, 0),
    A(10, "private_dev", TAG_DEV, da_priv_dev, 0),
    A(10, "privatedev", TAG_DEV, da_priv_dev, 0),
    A(11, "pub_offset", TAG_OFFSET, da_pub_offset, 0),
    A(11, "puboffset", TAG_OFFSET, da_pub_offset, 0),
    A(11, "public_offset", TAG_OFFSET, da_pub_offset, 0),
    A(11, "publicoffset", TAG_OFFSET, da_pub_offset, 0),
    A(11, "pub_off", TAG_OFFSET, da_pub_offset, 0),
    A(12, "pub_len", TAG_LEN, da_pub_len, 0),
    A(12, "publen", TAG_LEN, da_pub_len, 0),
    A(12, "public_len", TAG_LEN, da_pub_len, 0),
    A(12, "publiclen", TAG_LEN, da_pub_len, 0),
    A(12, "pub_length", TAG_LEN, da_pub_len, 0),
    A(13, "priv_offset", TAG_OFFSET, da_priv_offset, 0),
    A(13, "privoffset", TAG_OFFSET, da_priv_offset, 0),
    A(13, "private_offset", TAG_OFFSET, da_priv_offset, 0),
    A(13, "privateoffset", TAG_OFFSET, da_priv_offset, 0),
    A(13, "priv_off", TAG_OFFSET, da_priv_offset, 0),
    A(14, "priv_len", TAG_LEN, da_priv_len, 0),
    A(14, "privlen", TAG_LEN, da_priv_len, 0),
    A(14, "private_len", TAG_LEN, da_priv_len, 0),
    A(14, "privatelen", TAG_LEN, da_priv_len, 0),
    A(14, "priv_length", TAG_LEN, da_priv_len, 0),
    A(15, "hostid", TAG_ULONG, da_hostid, 0),
    A(15, "host_id", TAG_ULONG, da_hostid, 0),
    AN(16, "comment", TAG_COMMNT, da_comment),
    AN(17, "type", TAG_NAME, da_type),
    AN(17, "da_type", TAG_NAME, da_type),
    AN(17, "disktype", TAG_NAME, da_type),
    AN(17, "disk_type", TAG_NAME, da_type),
    AN(18, "info", TAG_COMMNT, da_info),
    AN(18, "da_info", TAG_COMMNT, da_info),
    AN(18, "diskinfo", TAG_COMMNT, da_info),
    AN(18, "disk_info", TAG_COMMNT, da_info),
    A(19, "update_tid", TAG_SEQNO, da_update_tid, 0),
    A(19, "updatetid", TAG_SEQNO, da_update_tid, 0),
    A(20, "rid", TAG_RID, da_rid, 0),
    PSEUDO(21),
};
static_assert(std::size(atag_table) == 65);

// ---------------------------------------------------------------------------
inline constexpr std::uint32_t DCO_TF_LOCK = 0x1;
#define D(...) TD(dcorec, __VA_ARGS__)
#define DN(...) TN(dcorec, __VA_ARGS__)
constexpr voltagdesc dcotag_table[] = {
    DN(1, "tutil0", TAG_NAME, dco_tutil[0]),
    DN(2, "tutil1", TAG_NAME, dco_tutil[1]),
    DN(3, "tutil2", TAG_NAME, dco_tutil[2]),
    TF(dcorec, 4, "lock", dco_tflag, DCO_TF_LOCK),
    DN(5, "comment", TAG_COMMNT, dco_comment),
    DN(6, "putil0", TAG_NAME, dco_putil[0]),
    DN(7, "putil1", TAG_NAME, dco_putil[1]),
    DN(8, "putil2", TAG_NAME, dco_putil[2]),
    DN(9, "state", TAG_NAME, dco_state),
    D(10, "update_tid", TAG_SEQNO, dco_update_tid, 0),
    D(10, "updatetid", TAG_SEQNO, dco_update_tid, 0),
    D(11, "rid", TAG_RID, dco_rid, 0),
    DN(12, "log_name", TAG_NAME, dco_log_name),
    DN(12, "logname", TAG_NAME, dco_log_name),
    D(13, "log_rid", TAG_RID, dco_log_vol, 0),
    D(13, "logrid", TAG_RID, dco_log_vol, 0),
    D(13, "log_vol", TAG_RID, dco_log_vol, 0),
    D(14, "parent_rid", TAG_RID, dco_parent_vol, 0),
    D(14, "parentrid", TAG_RID, dco_parent_vol, 0),
    D(15, "drl_len", TAG_ULONG, dco_drl_len, 0),
    D(15, "drllen", TAG_ULONG, dco_drl_len, 0),
    D(16, "nmaps", TAG_ULONG, dco_nmaps, 0),
    D(17, "regsz", TAG_LEN, dco_regsz, 0),
    D(17, "regionsz", TAG_LEN, dco_regsz, 0),
    D(18, "version", TAG_ULONG, dco_version, 0),
    PSEUDO(19),
};
static_assert(std::size(dcotag_table) == 28);

// ---------------------------------------------------------------------------
#define SP(...) TD(snaprec, __VA_ARGS__)
#define SPN(...) TN(snaprec, __VA_ARGS__)
constexpr voltagdesc snaptag_table[] = {
    SPN(1, "tutil0", TAG_NAME, sp_tutil[0]),
    SPN(2, "tutil1", TAG_NAME, sp_tutil[1]),
    SPN(3, "tutil2", TAG_NAME, sp_tutil[2]),
    SPN(4, "comment", TAG_COMMNT, sp_comment),
    SPN(5, "putil0", TAG_NAME, sp_putil[0]),
    SPN(6, "putil1", TAG_NAME, sp_putil[1]),
    SPN(7, "putil2", TAG_NAME, sp_putil[2]),
    SP(8, "update_tid", TAG_SEQNO, sp_update_tid, 0),
    SP(9, "rid", TAG_RID, sp_rid, 0),
    SP(10, "dco_rid", TAG_RID, sp_dco_rid, 0),
    SP(11, "vol_rid", TAG_RID, sp_vol_rid, 0),
    SP(12, "peer_rid", TAG_RID, sp_peer_rid, 0),
    SP(13, "map_index", TAG_ULONG, sp_map_index, 0),
    SP(14, "snap_tid", TAG_SEQNO, sp_snap_tid, 0),
    SP(15, "guid", TAG_GUID, sp_guid, 0),
    SP(16, "vol_guid", TAG_GUID, sp_vol_guid, 0),
    SP(17, "snapvol_guid", TAG_GUID, sp_snap_volguid, 0),
    SP(18, "plex_guid", TAG_GUID, sp_plex_guid, 0),
    SPN(19, "snpt_name", TAG_NAME, sp_snpt_name),
    PSEUDO(20),
};
static_assert(std::size(snaptag_table) == 22);

// ---------------------------------------------------------------------------
constexpr valtbl vkstate_table[] = {
    {1, "DISABLED"}, {2, "DETACHED"}, {3, "ENABLED"},
    {1, "disabled"}, {2, "detached"}, {3, "enabled"},
};
constexpr valtbl layout_table[] = {
    {2, "CONCAT"}, {1, "STRIPE"}, {3, "RAID"}, {3, "RAID5"},
    {2, "concat"}, {1, "stripe"}, {3, "raid"}, {3, "raid5"},
};
constexpr valtbl iomode_table[] = {
    {0, "NONE"}, {1, "RO"},       {1, "READONLY"}, {2, "WO"},       {2, "WRITEONLY"},
    {3, "RW"},   {3, "READWRITE"}, {0, "none"},    {1, "ro"},       {1, "readonly"},
    {2, "writeonly"}, {3, "rw"},  {3, "readwrite"},
};
constexpr valtbl logtype_table[] = {
    {0, "UNDEF"}, {16, "NONE"}, {32, "REGION"}, {32, "DRL"},
    {0, "undef"}, {16, "none"}, {32, "region"}, {32, "drl"},
};
// Exception policies: upper case, lower case, then both without underscores.
constexpr valtbl except_table[] = {
    {1, "NO_OP"},       {2, "FAIL_OP"},      {3, "DET_PL"},         {3, "DET_PLEX"},
    {4, "FAIL_DET_PL"}, {4, "FAIL_DET_PLEX"}, {5, "DET_VOL"},       {6, "FAIL_DET_VOL"},
    {7, "GEN_DET"},     {8, "GEN_DET_SPARSE"}, {9, "GEN_FAIL"},     {10, "GEN_DET2"},
    {1, "no_op"},       {2, "fail_op"},      {3, "det_pl"},         {3, "det_plex"},
    {4, "fail_det_pl"}, {4, "fail_det_plex"}, {5, "det_vol"},       {6, "fail_det_vol"},
    {7, "gen_det"},     {8, "gen_det_sparse"}, {9, "gen_fail"},     {10, "gen_det2"},
    {1, "NOOP"},        {2, "FAILOP"},       {3, "DETPL"},          {3, "DETPLEX"},
    {4, "FAILDETPL"},   {4, "FAILDETPLEX"},  {5, "DETVOL"},         {6, "FAILDETVOL"},
    {7, "GENDET"},      {8, "GENDETSPARSE"}, {9, "GENFAIL"},        {10, "GENDET2"},
    {1, "noop"},        {2, "failop"},       {3, "detpl"},          {3, "detplex"},
    {4, "faildetpl"},   {4, "faildetplex"},  {5, "detvol"},         {6, "faildetvol"},
    {7, "gendet"},      {8, "gendetsparse"}, {9, "genfail"},        {10, "gendet2"},
};
static_assert(std::size(except_table) == 48);
constexpr valtbl rpol_table[] = {
    {1, "ROUND"}, {2, "PREFER"}, {3, "SELECT"}, {4, "RAID"}, {4, "RAID5"},
    {1, "round"}, {2, "prefer"}, {3, "select"}, {4, "raid"}, {4, "raid5"},
};

}  // namespace

std::span<const voltagdesc> vtagdesc() { return vtag_table; }
std::span<const voltagdesc> ptagdesc() { return ptag_table; }
std::span<const voltagdesc> stagdesc() { return stag_table; }
std::span<const voltagdesc> mtagdesc() { return mtag_table; }
std::span<const voltagdesc> gtagdesc() { return gtag_table; }
std::span<const voltagdesc> atagdesc() { return atag_table; }
std::span<const voltagdesc> dcotagdesc() { return dcotag_table; }
std::span<const voltagdesc> snaptagdesc() { return snaptag_table; }

std::span<const valtbl> vkstates() { return vkstate_table; }
std::span<const valtbl> pkstates() { return vkstate_table; }
std::span<const valtbl> layouts() { return layout_table; }
std::span<const valtbl> iomodes() { return iomode_table; }
std::span<const valtbl> logtypes() { return logtype_table; }
std::span<const valtbl> excepts() { return except_table; }
std::span<const valtbl> rpols() { return rpol_table; }

std::span<const voltagdesc> record_tag_table(int type) {
  switch (type) {
    case REC_TYPE_VOL: return vtagdesc();
    case REC_TYPE_PLEX: return ptagdesc();
    case REC_TYPE_SD: return stagdesc();
    case REC_TYPE_DM: return mtagdesc();
    case REC_TYPE_DG: return gtagdesc();
    case REC_TYPE_DA: return atagdesc();
    case REC_TYPE_DCO: return dcotagdesc();
    case REC_TYPE_SNAP: return snaptagdesc();
    default: return {};
  }
}

const char* record_kind_name(int type) {
  static const char* const names[16] = {
      "type0",   "volume", "plex",     "subdisk", "disk", "diskgroup", "da",   "rvol",
      "replica", "dco",    "snapshot", "stpool",  "info", "cache",     "vset", "type15"};
  return type >= 0 && type < 16 ? names[type] : "none";
}

}  // namespace pd
