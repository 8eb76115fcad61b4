// The decoded configuration records and the decoded database header.
//
// Each record kind has one plain structure: its temporary members (record
// id, name, utility strings, transient flags) come first, then its
// permanent members. The field tables of record_layouts.h reach the members
// by offsetof, so every structure here is standard-layout and holds only
// scalars, character arrays, GUIDs, port-information blocks and two kinds
// of heap pointers:
//   - AWSTRING members are `wchar_t*` (null or a terminated wide string),
//   - VBYTE members are `std::uint8_t*` (null or a self-sized byte string).
// The decoder allocates them with malloc; voldbsup_free_fields (or
// dbf_free_tbl over the record's tables) releases and nulls them.
//
// Character arrays have the widths of the stored tables (terminator
// included): names 32, utility strings 15, states 15, comments 41, disk and
// group ids 65. Members that no stored layout carries (kernel state, device
// numbers, counters kept in memory only) exist for the tag tables and stay
// zero after decoding.
//
// Create a structure zero-filled (`volrec v{};`); decoding overwrites only
// the members its tables name.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "base/types.h"
#include "codec/field_codec.h"

namespace pd {

// Base kinds: bits 0-3 of a record's type code.
inline constexpr int REC_TYPE_ANY = 0;
inline constexpr int REC_TYPE_VOL = 1;
inline constexpr int REC_TYPE_PLEX = 2;
inline constexpr int REC_TYPE_SD = 3;
inline constexpr int REC_TYPE_DM = 4;
inline constexpr int REC_TYPE_DG = 5;
inline constexpr int REC_TYPE_DA = 6;
inline constexpr int REC_TYPE_RVOL = 7;
inline constexpr int REC_TYPE_REP = 8;
inline constexpr int REC_TYPE_DCO = 9;
inline constexpr int REC_TYPE_SNAP = 10;
inline constexpr int REC_TYPE_STPOOL = 11;
inline constexpr int REC_TYPE_INFO = 12;
inline constexpr int REC_TYPE_CACHE = 13;
inline constexpr int REC_TYPE_VSET = 14;

inline constexpr std::size_t REC_NAME_LEN = 32;     // names, terminator included
inline constexpr std::size_t REC_UTIL_LEN = 15;     // tutil/putil strings
inline constexpr std::size_t REC_STATE_LEN = 15;
inline constexpr std::size_t REC_COMMENT_LEN = 41;
inline constexpr std::size_t REC_ID_LEN = 65;       // disk ids, group ids

// ---------------------------------------------------------------------------
// Volume.

// v_tflag (temporary, never stored)
inline constexpr std::uint32_t VOL_TF_REC_LOCK = 0x1;
inline constexpr std::uint32_t VOL_TF_DATA_LOCK = 0x2;
inline constexpr std::uint32_t VOL_TF_RECOVER = 0x4;          // recovery running
inline constexpr std::uint32_t VOL_TF_KRECOVER = 0x8;
inline constexpr std::uint32_t VOL_TF_DEVOPEN = 0x10;
inline constexpr std::uint32_t VOL_TF_HAS_LOGS = 0x20;
inline constexpr std::uint32_t VOL_TF_INVALID = 0x40;
inline constexpr std::uint32_t VOL_TF_ACTIVE = 0x80;
inline constexpr std::uint32_t VOL_TF_RECOVER_OFFSET = 0x100;  // v_recover_offset valid
inline constexpr std::uint32_t VOL_TF_DIRTY = 0x200;
inline constexpr std::uint32_t VOL_TF_BUSY = 0x400;
inline constexpr std::uint32_t VOL_TF_DEGRADED = 0x800;
inline constexpr std::uint32_t VOL_TF_UNUSABLE = 0x1000;
inline constexpr std::uint32_t VOL_TF_IOFAIL = 0x2000;
inline constexpr std::uint32_t VOL_TF_APP_DIRTY = 0x4000;
inline constexpr std::uint32_t VOL_TF_LOGGING = 0x8000;
inline constexpr std::uint32_t VOL_TF_R_ALL = 0x10000;
inline constexpr std::uint32_t VOL_TF_R_SOME = 0x20000;
inline constexpr std::uint32_t VOL_TF_W_ALL = 0x40000;
inline constexpr std::uint32_t VOL_TF_W_SOME = 0x80000;
inline constexpr std::uint32_t VOL_TF_NT_RAID_INIT = 0x100000;
inline constexpr std::uint32_t VOL_TF_NT_CURR_ROOTVOL = 0x200000;
inline constexpr std::uint32_t VOL_TF_NT_PAGEPATH = 0x400000;
inline constexpr std::uint32_t VOL_TF_NT_CRASHDUMP = 0x800000;
inline constexpr std::uint32_t VOL_TF_LOCK = 0x1000000;

// v_pflag (stored)
inline constexpr std::uint32_t VOL_PF_WRITEBACK = 0x1;
inline constexpr std::uint32_t VOL_PF_WRITECOPY = 0x2;
inline constexpr std::uint32_t VOL_PF_CRASHED = 0x4;
inline constexpr std::uint32_t VOL_PF_SPECIFY_WRITECOPY = 0x8;
inline constexpr std::uint32_t VOL_PF_FORCEMINOR = 0x10;
inline constexpr std::uint32_t VOL_PF_BADLOG = 0x100;
inline constexpr std::uint32_t VOL_PF_KDETACH = 0x400;
inline constexpr std::uint32_t VOL_PF_STORAGE = 0x800;
inline constexpr std::uint32_t VOL_PF_APPRECOVER = 0x1000;
inline constexpr std::uint32_t VOL_PF_NT_PENDING = 0x2000;
inline constexpr std::uint32_t VOL_PF_NT_RAID_NTFT = 1u << 20;
inline constexpr std::uint32_t VOL_PF_NT_BOOT_VOLUME = 1u << 21;
inline constexpr std::uint32_t VOL_PF_NT_SYSTEM_VOLUME = 1u << 22;
inline constexpr std::uint32_t VOL_PF_NT_RETAIN_PARTITION = 1u << 23;
inline constexpr std::uint32_t VOL_PF_SITE_SEPARATED = 1u << 24;
inline constexpr std::uint32_t VOL_PF_SITE_CONFINED = 1u << 25;

// Read policies (v_read_pol, v_current_read_pol).
inline constexpr std::int32_t VOL_RP_ROUND = 1;
inline constexpr std::int32_t VOL_RP_PREFER = 2;
inline constexpr std::int32_t VOL_RP_SELECT = 3;
inline constexpr std::int32_t VOL_RP_RAID = 4;

struct volrec {
  // v_tmp
  volrid_t v_rid;
  char v_name[REC_NAME_LEN];
  char v_tutil[3][REC_UTIL_LEN];
  std::uint32_t v_tflag;
  std::uint32_t v_tflag2;
  std::int32_t v_kstate;
  std::int32_t v_lasterr;
  std::int32_t v_current_read_pol;
  std::uint32_t v_log_serial_lo;
  std::uint32_t v_log_serial_hi;
  std::uint64_t v_node_bdev;
  std::uint64_t v_node_cdev;
  std::uint32_t v_iosize;
  std::uint32_t v_sd_num;
  volseqno_t v_lasterr_tid;
  voff_t v_recover_offset;
  std::int64_t v_nt_kernel_part_type;
  // v_perm
  char v_use_type[32];
  char v_fstype[17];
  char v_comment[REC_COMMENT_LEN];
  char v_putil[3][REC_UTIL_LEN];
  char v_state[REC_STATE_LEN];
  char v_start_opts[33];
  std::int32_t v_read_pol;
  std::uint64_t v_minor;
  std::uint32_t v_uid;
  std::uint32_t v_gid;
  std::uint32_t v_mode;
  std::uint32_t v_pflag;
  std::uint32_t v_pflag2;
  std::uint32_t v_pflag3;
  std::uint32_t v_pl_num;
  volseqno_t v_update_tid;
  volseqno_t v_detach_tid;
  voff_t v_len;
  voff_t v_log_len;
  std::uint32_t v_log_type;
  char v_pref_name[REC_NAME_LEN];
  volrid_t v_pref_plex_rid;
  volrid_t v_log_rid;
  volrid_t v_vset_rid;          // subvolume group: owning volume set
  std::uint32_t v_vset_index;   // subvolume group: index in the set
  voff_t v_recover_checkpoint;
  volseqno_t v_recover_seqno;
  wchar_t* v_nt_mount_name;
  std::int64_t v_nt_part_type;
  voldguid_t v_nt_vol_guid;
  char v_nm_site[REC_NAME_LEN];     // netmirror group: site name
  std::uint32_t v_nm_flags;         // netmirror group: mirror flags
  char v_dco_name[REC_NAME_LEN];
  volrid_t v_dco_rid;
  volrid_t v_cache_rid;             // space-optimised snapshot cache
  std::uint32_t v_reserved1;
};

// ---------------------------------------------------------------------------
// Plex.

// pl_tflag (temporary)
inline constexpr std::uint32_t PL_TF_LOCK = 0x1;
inline constexpr std::uint32_t PL_TF_DEVOPEN = 0x2;
inline constexpr std::uint32_t PL_TF_LOG = 0x4;
inline constexpr std::uint32_t PL_TF_COMPLETE = 0x8;
inline constexpr std::uint32_t PL_TF_NOERROR = 0x10;
inline constexpr std::uint32_t PL_TF_REMOVED = 0x20;
inline constexpr std::uint32_t PL_TF_NODAREC = 0x40;
inline constexpr std::uint32_t PL_TF_NODEVICE = 0x80;
inline constexpr std::uint32_t PL_TF_STALE = 0x100;
inline constexpr std::uint32_t PL_TF_DIRTY = 0x200;
inline constexpr std::uint32_t PL_TF_BUSY = 0x400;
inline constexpr std::uint32_t PL_TF_RAIDLOG = 0x800;
inline constexpr std::uint32_t PL_TF_NT_CURR_BOOTPLEX = 0x1000;
inline constexpr std::uint32_t PL_TF_COMPACT = 0x2000;
inline constexpr std::uint32_t PL_TF_VOLATILE = 0x4000;

// pl_pflag (stored)
inline constexpr std::uint32_t PL_PF_KDETACH = 0x1;
inline constexpr std::uint32_t PL_PF_RECOVER = 0x2;
inline constexpr std::uint32_t PL_PF_IOFAIL = 0x4;
inline constexpr std::uint32_t PL_PF_NT_PENDING = 0x8;

// pl_layout
inline constexpr std::int32_t PL_LAYOUT_STRIPE = 1;
inline constexpr std::int32_t PL_LAYOUT_CONCAT = 2;
inline constexpr std::int32_t PL_LAYOUT_RAID = 3;

struct plexrec {
  // pl_tmp
  volrid_t pl_rid;
  char pl_name[REC_NAME_LEN];
  char pl_tutil[3][REC_UTIL_LEN];
  std::uint32_t pl_tflag;
  std::int32_t pl_kstate;
  std::int32_t pl_lasterr;
  std::int32_t pl_iomode;
  voff_t pl_len;
  voff_t pl_contig_len;
  std::uint64_t pl_dev;
  std::uint64_t pl_minor;
  volseqno_t pl_lasterr_tid;
  char pl_v_name[REC_NAME_LEN];
  char pl_log_sd[REC_NAME_LEN];
  // pl_perm
  char pl_comment[REC_COMMENT_LEN];
  char pl_putil[3][REC_UTIL_LEN];
  char pl_state[REC_STATE_LEN];
  std::int32_t pl_layout;
  std::uint32_t pl_pflag;
  std::uint32_t pl_sd_num;
  volseqno_t pl_update_tid;
  volseqno_t pl_detach_tid;
  volrid_t pl_vol_rid;
  volrid_t pl_log_sd_rid;
  voff_t pl_st_width;
  std::uint32_t pl_ncolumn;
  volrid_t pl_snap_rid;         // snap group: master volume
  voff_t pl_snap_offset;        // snap group: progress of the snapshot copy
  voldguid_t pl_guid;
  volrid_t pl_dcoplex_rid;
  volrid_t pl_vsssnap_rid;      // vsssnapshot group
  std::uint32_t pl_vsssnap_flags;
  voldguid_t pl_mapguid;
  std::uint8_t* pl_info;        // info group (self-sized byte string)
  std::uint32_t pl_reserved1;
};

// ---------------------------------------------------------------------------
// Subdisk.

inline constexpr std::uint32_t SD_TF_LOCK = 0x1;
inline constexpr std::uint32_t SD_TF_DEVOPEN = 0x2;
inline constexpr std::uint32_t SD_TF_NODAREC = 0x4;
inline constexpr std::uint32_t SD_TF_NODEVICE = 0x8;
inline constexpr std::uint32_t SD_TF_REMOVED = 0x10;
inline constexpr std::uint32_t SD_TF_STALE = 0x20;
inline constexpr std::uint32_t SD_TF_BUSY = 0x40;
inline constexpr std::uint32_t SD_TF_LOG = 0x100;            // a log subdisk

inline constexpr std::uint32_t SD_PF_RECOVER = 0x8;
inline constexpr std::uint32_t SD_PF_KDETACH = 0x10;
inline constexpr std::uint32_t SD_PF_RELOCATE = 0x20;
inline constexpr std::uint32_t SD_PF_BOOT_EXTENDED = 0x40;
inline constexpr std::uint32_t SD_PF_ORIGBOOT = 0x100;
inline constexpr std::uint32_t SD_PF_VOLATILE = 0x1000;

struct sdrec {
  // sd_tmp
  volrid_t sd_rid;
  char sd_name[REC_NAME_LEN];
  char sd_tutil[3][REC_UTIL_LEN];
  std::uint32_t sd_tflag;
  std::int32_t sd_kstate;
  std::int32_t sd_lasterr;
  std::uint64_t sd_dev;
  volseqno_t sd_lasterr_tid;
  char sd_dm_name[REC_NAME_LEN];
  char sd_plex_name[REC_NAME_LEN];
  char sd_da_name[REC_NAME_LEN];
  // sd_perm
  char sd_comment[REC_COMMENT_LEN];
  char sd_putil[3][REC_UTIL_LEN];
  std::uint32_t sd_pflag;
  volseqno_t sd_update_tid;
  voff_t sd_dm_offset;
  voff_t sd_pl_offset;
  voff_t sd_len;
  volrid_t sd_plex_rid;
  volrid_t sd_dm_rid;
  std::uint32_t sd_column;
  volseqno_t sd_detach_tid;     // detach group
  std::uint64_t sd_minor;       // minor group
  voff_t sd_nt_hidden_sectors;
  volrid_t sd_orig_dm_rid;      // orig group: where the subdisk came from
  voff_t sd_orig_dm_offset;
  std::uint32_t sd_reserved1;
};

// ---------------------------------------------------------------------------
// Disk media.

inline constexpr std::uint32_t DM_TF_LOCK = 0x1;
inline constexpr std::uint32_t DM_TF_NODAREC = 0x2;
inline constexpr std::uint32_t DM_TF_NODEVICE = 0x4;
inline constexpr std::uint32_t DM_TF_FAILED_WAS = 0x8;

inline constexpr std::uint32_t DM_PF_RESERVED = 0x1;
inline constexpr std::uint32_t DM_PF_SPARE = 0x2;
inline constexpr std::uint32_t DM_PF_FAILING = 0x4;
inline constexpr std::uint32_t DM_PF_ENCAP_PENDING = 0x8;
inline constexpr std::uint32_t DM_PF_MERGE_REQUIRED = 0x10;
inline constexpr std::uint32_t DM_PF_REMOVED = 0x100;       // no disk id
inline constexpr std::uint32_t DM_PF_DETACHED = 0x200;

struct dmrec {
  // dm_tmp
  volrid_t dm_rid;
  char dm_name[REC_NAME_LEN];
  char dm_tutil[3][REC_UTIL_LEN];
  std::uint32_t dm_tflag;
  char dm_da_name[REC_NAME_LEN];
  std::uint64_t dm_dev;
  voff_t dm_pub_offset;
  voff_t dm_pub_len;
  voff_t dm_priv_offset;
  voff_t dm_priv_len;
  // dm_perm
  char dm_diskid[REC_ID_LEN];
  voldguid_t dm_nt_last_diskset_id;
  wchar_t* dm_nt_persistent_name;
  std::uint32_t dm_pflag;
  volseqno_t dm_update_tid;
  char dm_comment[REC_COMMENT_LEN];
  char dm_putil[3][REC_UTIL_LEN];
  std::uint8_t* dm_app_value;       // app_value group
  std::uint32_t dm_timeout;         // timeout group
  char dm_last_da_name[REC_NAME_LEN];  // lastdev group
  char dm_move_dgid[REC_ID_LEN];    // move group: group the disk moves from
  volseqno_t dm_move_tid;
  volrid_t dm_stpool_rid;           // stpool group
  std::uint8_t* dm_info;            // info group
  voldguid_t dm_guid;               // guid group
  std::uint32_t dm_cds_flags;       // cds group: cross-platform disk
  std::uint32_t dm_cds_alignment;
  std::uint32_t dm_reserved1;
};

// ---------------------------------------------------------------------------
// Disk group.

inline constexpr std::uint32_t DG_PF_IMPORTED = 0x1;
inline constexpr std::uint32_t DG_PF_SHARED = 0x2;
inline constexpr std::uint32_t DG_PF_NOAUTOIMPORT = 0x4;
inline constexpr std::uint32_t DG_PF_CDS = 0x8;

struct dgrec {
  // dg_tmp
  volrid_t dg_rid;
  char dg_real_name[REC_NAME_LEN];
  char dg_tutil[3][REC_UTIL_LEN];
  char dg_tagname[REC_NAME_LEN];
  std::uint32_t dg_tflag;
  std::int32_t dg_actmode;
  // dg_perm
  char dg_dgid[REC_ID_LEN];
  voldguid_t dg_nt_diskset_id;
  std::uint32_t dg_pflag;
  volseqno_t dg_update_tid;
  std::int32_t dg_nconfig;          // 0 default, negative all
  std::int32_t dg_nlog;
  std::uint32_t dg_base_minor;
  std::uint32_t dg_version;
  char dg_comment[REC_COMMENT_LEN];
  char dg_putil[3][REC_UTIL_LEN];
  std::uint32_t dg_policy;          // policy group
  char dg_move_dgid[REC_ID_LEN];    // move group
  volseqno_t dg_move_tid;
  std::uint32_t dg_io_fence;        // io_fence group
  std::uint32_t dg_cds_flags;       // cds group
  std::uint32_t dg_dfpolicy;        // dfpolicy group: disk-detach policy
  std::uint32_t dg_reserved1;
};

// ---------------------------------------------------------------------------
// Disk access.

struct darec {
  // da_tmp
  volrid_t da_rid;
  char da_name[REC_NAME_LEN];
  char da_tutil[3][REC_UTIL_LEN];
  std::uint32_t da_tflag;
  char da_dm_name[REC_NAME_LEN];
  char da_diskid[REC_ID_LEN];
  char da_dgname[REC_NAME_LEN];
  char da_dgid[REC_ID_LEN];
  std::uint64_t da_pub_dev;
  std::uint64_t da_priv_dev;
  voff_t da_pub_offset;
  voff_t da_pub_len;
  voff_t da_priv_offset;
  voff_t da_priv_len;
  std::uint32_t da_hostid;
  // da_perm
  char da_comment[REC_COMMENT_LEN];
  char da_type[15];
  char da_info[129];
  std::uint32_t da_pflag;
  volseqno_t da_update_tid;
};

// ---------------------------------------------------------------------------
// Replicated volume.

struct rvolrec {
  volrid_t rv_rid;
  char rv_name[REC_NAME_LEN];
  char rv_tutil[3][REC_UTIL_LEN];
  std::uint32_t rv_tflag;
  std::int32_t rv_kstate;
  char rv_comment[REC_COMMENT_LEN];
  char rv_putil[3][REC_UTIL_LEN];
  char rv_state[REC_STATE_LEN];
  std::uint32_t rv_pflag;
  volseqno_t rv_update_tid;
  std::uint64_t rv_minor;
  std::uint32_t rv_rlink_num;       // replication links
  std::uint32_t rv_datavol_num;     // data volumes
  volrid_t rv_srl_rid;              // the replicator log volume
  char rv_srl_name[REC_NAME_LEN];
  std::uint32_t rv_primary;         // 1 on the primary
  volseqno_t rv_checkpoint_seqno;
  volseqno_t rv_detach_tid;
  volrid_t rv_logvol_rid;           // logvol_rid group
};

// ---------------------------------------------------------------------------
// Replication link.

struct reprec {
  volrid_t rp_rid;
  char rp_name[REC_NAME_LEN];
  char rp_tutil[3][REC_UTIL_LEN];
  std::uint32_t rp_tflag;
  std::int32_t rp_kstate;
  char rp_comment[REC_COMMENT_LEN];
  char rp_putil[3][REC_UTIL_LEN];
  char rp_state[REC_STATE_LEN];
  std::uint32_t rp_pflag;
  volseqno_t rp_update_tid;
  volrid_t rp_rvol_rid;             // the replicated volume it serves
  char rp_remote_host[65];
  char rp_local_host[65];
  char rp_remote_dg[REC_NAME_LEN];
  char rp_remote_dgid[REC_ID_LEN];
  char rp_remote_rlink[REC_NAME_LEN];
  volrid_t rp_remote_rlink_rid;
  std::uint32_t rp_protocol;
  std::uint32_t rp_synchronous;
  std::uint32_t rp_latency_high_mark;
  std::uint32_t rp_latency_low_mark;
  std::uint32_t rp_srl_protect;
  std::uint32_t rp_packet_size;
  std::uint32_t rp_timeout;
  volseqno_t rp_checkpoint_seqno;
  std::uint32_t rp_max_outstanding;
  std::uint32_t rp_compression;
  PORTINFO rp_net_address;
  PORTINFO rp_local_address;
  std::uint64_t rp_bandwidth_limit;  // bandwidth group
  PORTINFO6 rp_net_address6;         // ipv6 group
  PORTINFO6 rp_local_address6;
};

// ---------------------------------------------------------------------------
// Data change object.

struct dcorec {
  volrid_t dco_rid;
  char dco_name[REC_NAME_LEN];
  char dco_tutil[3][REC_UTIL_LEN];
  std::uint32_t dco_tflag;
  char dco_comment[REC_COMMENT_LEN];
  char dco_putil[3][REC_UTIL_LEN];
  char dco_state[REC_STATE_LEN];
  std::uint32_t dco_pflag;
  volseqno_t dco_update_tid;
  char dco_log_name[REC_NAME_LEN];  // the DCO log volume
  volrid_t dco_log_vol;
  volrid_t dco_parent_vol;
  std::uint32_t dco_drl_len;        // in blocks of the map
  std::uint32_t dco_nmaps;
  voff_t dco_regsz;                 // regsz group: region size
  std::uint32_t dco_version;        // version group
  std::uint32_t dco_reserved1;
};

// ---------------------------------------------------------------------------
// Snapshot.

struct snaprec {
  volrid_t sp_rid;
  char sp_name[REC_NAME_LEN];
  char sp_tutil[3][REC_UTIL_LEN];
  std::uint32_t sp_tflag;
  char sp_comment[REC_COMMENT_LEN];
  char sp_putil[3][REC_UTIL_LEN];
  std::uint32_t sp_pflag;
  std::uint32_t sp_pflag2;
  volseqno_t sp_update_tid;
  volrid_t sp_dco_rid;
  volrid_t sp_vol_rid;              // the snapshot's volume
  volrid_t sp_peer_rid;             // the other side of the relationship
  std::uint32_t sp_map_index;
  volseqno_t sp_snap_tid;           // when the snapshot was taken
  voldguid_t sp_guid;
  voldguid_t sp_vol_guid;
  voldguid_t sp_snap_volguid;
  voldguid_t sp_plex_guid;
  volrid_t sp_snpt_rid;             // snpt group: snapshot point
  char sp_snpt_name[REC_NAME_LEN];
  std::int32_t sp_link_state;       // link group (linkperm_fields)
  volrid_t sp_link_rid;
  voff_t sp_link_offset;
  std::uint32_t sp_reserved1;
};

// ---------------------------------------------------------------------------
// Cache.

struct cacherec {
  volrid_t cache_rid;
  char cache_name[REC_NAME_LEN];
  char cache_tutil[3][REC_UTIL_LEN];
  std::uint32_t cache_tflag;
  std::int32_t cache_kstate;
  char cache_comment[REC_COMMENT_LEN];
  char cache_putil[3][REC_UTIL_LEN];
  char cache_state[REC_STATE_LEN];
  std::uint32_t cache_pflag;
  volseqno_t cache_update_tid;
  volrid_t cache_vol_rid;           // the volume that holds the cache
  std::uint64_t cache_minor;
  voff_t cache_len;
  voff_t cache_region_size;
  voff_t cache_highwater;
  voff_t cache_autogrow_size;
  voff_t cache_maxgrow;
  std::uint32_t cache_autogrow;
  std::uint32_t cache_nsnaps;
  std::uint32_t cache_uid;
  std::uint32_t cache_gid;
  std::uint32_t cache_mode;
  volseqno_t cache_detach_tid;
  std::uint32_t cache_iosize;
  std::uint32_t cache_mapsize;
  voldguid_t cache_guid;
  volrid_t cache_svm_rid;           // svm group
  std::uint32_t cache_version;      // version group
  std::uint32_t cache_reserved1;
};

// ---------------------------------------------------------------------------
// Storage pool.

struct stpoolrec {
  volrid_t stp_rid;
  char stp_name[REC_NAME_LEN];
  char stp_tutil[3][REC_UTIL_LEN];
  std::uint32_t stp_tflag;
  char stp_comment[REC_COMMENT_LEN];
  char stp_putil[3][REC_UTIL_LEN];
  std::uint32_t stp_pflag;
  volseqno_t stp_update_tid;
  char stp_policy[REC_NAME_LEN];    // allocation policy name
  std::uint32_t stp_autogrow;
  std::uint32_t stp_selfsufficient;
  std::uint32_t stp_dm_num;
  std::uint32_t stp_vol_num;
  voldguid_t stp_guid;              // guid group
  std::uint32_t stp_reserved1;      // reserved1 group
};

// ---------------------------------------------------------------------------
// Information record.

struct inforec {
  volrid_t inf_rid;
  char inf_name[REC_NAME_LEN];
  char inf_tutil[3][REC_UTIL_LEN];
  std::uint32_t inf_tflag;
  char inf_comment[REC_COMMENT_LEN];
  std::uint32_t inf_pflag;
  volseqno_t inf_update_tid;
  volrid_t inf_parent_rid;          // the record it describes
  std::uint32_t inf_kind;
  std::uint32_t inf_version;
  std::uint8_t* inf_value;          // self-sized byte string
  voldguid_t inf_guid;              // guid group
  std::uint32_t inf_reserved1;
};

// ---------------------------------------------------------------------------
// Volume set.

struct vsetrec {
  volrid_t vset_rid;
  char vset_name[REC_NAME_LEN];
  char vset_tutil[3][REC_UTIL_LEN];
  std::uint32_t vset_tflag;
  std::int32_t vset_kstate;
  char vset_comment[REC_COMMENT_LEN];
  char vset_putil[3][REC_UTIL_LEN];
  char vset_state[REC_STATE_LEN];
  char vset_use_type[32];
  std::uint32_t vset_pflag;
  volseqno_t vset_update_tid;
  std::uint64_t vset_minor;
  std::uint32_t vset_vol_num;
  std::uint32_t vset_uid;
  std::uint32_t vset_gid;
  std::uint32_t vset_mode;
  voff_t vset_len;
  volseqno_t vset_detach_tid;
  voldguid_t vset_guid;
  volrid_t vset_svm_rid;            // svm group
  volrid_t vset_rvol_rid;           // rvol group
  std::uint32_t vset_reserved1;
};

// ---------------------------------------------------------------------------
// Link set, export, site (codes above 0xFF).

struct linksetrec {
  volrid_t ls_rid;
  char ls_name[REC_NAME_LEN];
  char ls_tutil[3][REC_UTIL_LEN];
  std::uint32_t ls_tflag;
  char ls_comment[REC_COMMENT_LEN];
  char ls_putil[3][REC_UTIL_LEN];
  char ls_state[REC_STATE_LEN];
  std::uint32_t ls_pflag;
  volseqno_t ls_update_tid;
  volrid_t ls_src_rid;              // source volume of the links
  volrid_t ls_dst_rid;              // target volume
  volrid_t ls_src_dco_rid;
  volrid_t ls_dst_dco_rid;
  std::uint32_t ls_map_index;
  volseqno_t ls_sync_tid;
  voldguid_t ls_guid;
  voldguid_t ls_src_volguid;
  voldguid_t ls_dst_volguid;
  std::uint32_t ls_reserved1;
};

struct exportrec {
  volrid_t ex_rid;
  char ex_name[REC_NAME_LEN];
  char ex_tutil[3][REC_UTIL_LEN];
  std::uint32_t ex_tflag;
  char ex_comment[REC_COMMENT_LEN];
  std::uint32_t ex_pflag;
  volseqno_t ex_update_tid;
  char ex_host[65];                 // host the object is exported to
  volrid_t ex_obj_rid;              // exported object
  char ex_obj_name[REC_NAME_LEN];
  std::uint32_t ex_mode;
  std::uint32_t ex_reserved1;
};

struct siterec {
  volrid_t site_rid;
  char site_name[REC_NAME_LEN];
  char site_tutil[3][REC_UTIL_LEN];
  std::uint32_t site_tflag;
  char site_comment[REC_COMMENT_LEN];
  char site_putil[3][REC_UTIL_LEN];
  std::uint32_t site_pflag;
  volseqno_t site_update_tid;
  voldguid_t site_guid;
  std::uint32_t site_state;
  std::uint32_t site_dm_num;
  std::uint32_t site_reserved1;
};

// Every decoded structure, for owners that keep one slot per record.
union urec {
  urec() : v() {}
  volrec v;
  plexrec pl;
  sdrec sd;
  dmrec dm;
  dgrec dg;
  darec da;
  rvolrec rv;
  reprec rp;
  dcorec dco;
  snaprec sp;
  cacherec cache;
  stpoolrec stp;
  inforec inf;
  vsetrec vset;
  linksetrec ls;
  exportrec ex;
  siterec site;
};

// ---------------------------------------------------------------------------
// The database header.

// vdbi_commit_state
inline constexpr std::uint16_t VDBI_CLEAN = 1;
inline constexpr std::uint16_t VDBI_CHANGE = 2;
inline constexpr std::uint16_t VDBI_COMMIT = 3;
inline constexpr std::uint16_t VDBI_ABORT = 4;
inline constexpr std::uint16_t VDBI_NEW = 5;
inline constexpr std::uint16_t VDBI_STALE = 6;
inline constexpr std::uint16_t VDBI_OFFLINE = 8;

// Record counts of one summary (stored 4 bytes each).
struct vol_summary {
  unsigned long vs_v_cnt;
  unsigned long vs_pl_cnt;
  unsigned long vs_sd_cnt;
  unsigned long vs_dm_cnt;
  unsigned long vs_da_cnt;
  unsigned long vs_reserved_1;
  unsigned long vs_reserved_2;
  unsigned long vs_rv_cnt;
  unsigned long vs_rp_cnt;
  unsigned long vs_dco_cnt;
  unsigned long vs_sp_cnt;
  unsigned long vs_stpool_cnt;
  unsigned long vs_info_cnt;
  unsigned long vs_vset_cnt;
  unsigned long vs_cache_cnt;
  unsigned long vs_export_cnt;
};

struct voldb_info {
  std::uint16_t vdbi_commit_state;
  std::uint16_t vdbi_version_major;
  std::uint16_t vdbi_version_minor;
  char vdbi_dg_name[32];
  char vdbi_dg_name_1_2[15];
  char vdbi_dg_id[65];
  volseqno_t vdbi_config_tid;
  volseqno_t vdbi_pending_tid;
  vol_summary vdbi_config_sum;
  vol_summary vdbi_pending_sum;
  std::uint64_t vdbi_nt_update_time;
  std::uint16_t vdbi_pending_major;
  std::uint16_t vdbi_pending_minor;
  std::uint32_t vdbi_prev_tag;
  std::uint32_t vdbi_cur_tag;
};

static_assert(std::is_standard_layout_v<volrec> && std::is_standard_layout_v<plexrec> &&
                  std::is_standard_layout_v<sdrec> && std::is_standard_layout_v<dmrec> &&
                  std::is_standard_layout_v<dgrec> && std::is_standard_layout_v<darec> &&
                  std::is_standard_layout_v<rvolrec> && std::is_standard_layout_v<reprec> &&
                  std::is_standard_layout_v<dcorec> && std::is_standard_layout_v<snaprec> &&
                  std::is_standard_layout_v<cacherec> && std::is_standard_layout_v<stpoolrec> &&
                  std::is_standard_layout_v<inforec> && std::is_standard_layout_v<vsetrec> &&
                  std::is_standard_layout_v<linksetrec> &&
                  std::is_standard_layout_v<exportrec> && std::is_standard_layout_v<siterec> &&
                  std::is_standard_layout_v<voldb_info>,
              "field tables reach members by offsetof");

}  // namespace pd
