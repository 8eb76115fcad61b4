// The private-region handle and the records hung on it: the decoded header,
// the TOC entries, the copy descriptors, the tag-id list and the disk
// attributes a caller knows before the scan.
//
// The handle owns everything reachable from it. Lists are doubly linked with
// _next/_prev members as on disk-facing code elsewhere; they are freed by
// priv_unjoin (join products) and priv_reset (header, tag ids, flags).
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/types.h"

namespace pd {

struct session;
struct priv_info;

// pri_flags bits
inline constexpr unsigned long PRI_NOUPDATE = 1;
inline constexpr unsigned long PRI_USED_ALT = 4;
inline constexpr unsigned long PRI_JOINED = 16;
inline constexpr unsigned long PRI_PRIMARY_OK = 32;
inline constexpr unsigned long PRI_ALT_OK = 64;

// Flag bits of the sector I/O callbacks.
inline constexpr unsigned long PRI_IO_PRIVATE = 1;   // else the public region
inline constexpr unsigned long PRI_IO_ABSOLUTE = 4;  // else relative to the region

// dka_flags: the positions came from a backup header.
inline constexpr unsigned long DKA_USE_BACKUP = 0x4000;

struct disk_attrs {
  std::size_t dka_atomic_iosize = 0;
  voff_t dka_priv_offset = 0;
  voff_t dka_priv_len = 0;
  voff_t dka_primary_header = 0;
  voff_t dka_alternate_header = 0;
  voff_t dka_nt_backup_header = 0;
  std::uint16_t dka_nt_disk_is_nec98 = 0;
  unsigned long dka_flags = 0;
};

struct priv_header_info {
  std::uint16_t phi_version_major = 0;
  std::uint16_t phi_version_minor = 0;
  voldtime_t phi_update_time = 0;
  volseqno_t phi_update_seqno;
  voff_t phi_primary_header = 0;
  voff_t phi_alt_header = 0;
  char phi_diskid[65] = {};
  char phi_hostid[65] = {};
  char phi_dgid[65] = {};
  char phi_dg_name[32] = {};
  char phi_dg_name_1_2[15] = {};
  std::size_t phi_atomic_iosize = 0;
  unsigned long phi_flags = 0;
  std::uint16_t phi_pub_id = 0;
  std::uint16_t phi_priv_id = 0;
  voff_t phi_pub_len = 0;
  voff_t phi_pub_offset = 0;
  voff_t phi_priv_len = 0;
  voff_t phi_first_toc = 0;
  voff_t phi_first_alt_toc = 0;
  std::size_t phi_nconfig = 0;
  std::size_t phi_nlogs = 0;
  voff_t phi_config_len = 0;
  voff_t phi_log_len = 0;
  char phi_move_dgid[65] = {};
  unsigned long phi_nt_boot_disk_sig = 0;
  voff_t phi_nt_backup_header = 0;
  voldguid_t phi_nt_diskset_id;
  voldguid_t phi_nt_new_diskset_id;
  std::uint16_t phi_nt_disk_is_nec98 = 0;
  std::size_t phi_lockrgn_len = 0;
  voff_t phi_lockrgn_offset = 0;
  volseqno_t phi_next_seqno;
  voldtime_t phi_save_update_time = 0;
  volseqno_t phi_save_update_seqno;
  voff_t phi_priv_offset = 0;
  std::uint8_t phi_sctr_shift = 0;
  std::uint8_t phi_chunk_shift = 0;
  std::size_t phi_chunk_size = 0;
  volseqno_t phi_ssbactual_id;
};

// Region flags (dkr_flags)
inline constexpr std::uint16_t DKR_PUBLIC = 1;
inline constexpr std::uint16_t DKR_NEW = 2;
inline constexpr std::uint16_t DKR_DELETE = 4;
inline constexpr std::uint16_t DKR_DISABLED = 8;

struct disk_region {
  char dkr_type[9] = {};
  std::uint16_t dkr_flags = 0;
  std::uint16_t dkr_info_size = 0;
  voff_t dkr_offset = 0;
  voff_t dkr_len = 0;
  std::uint8_t* dkr_info = nullptr;  // dkr_info_size payload bytes, owned by the entry
};

struct toc_entry_info {
  toc_entry_info* tei_next = nullptr;
  toc_entry_info* tei_prev = nullptr;
  unsigned long tei_internal_flags = 0;
  std::size_t tei_sector = 0;
  disk_region tei_region;
};

struct copy_region_entry {
  std::size_t cr_number = 0;
  unsigned long cr_offset = 0;
};

struct lock_region_entry {
  std::size_t lr_number = 0;
  unsigned long lr_offset = 0;
};

struct tagid_region_entry {
  std::uint16_t dktagid_flags = 0;
  char dktagid_name[32] = {};
  char dktagid_value[256] = {};
  char dktagid_source[32] = {};
};

struct tagid_region_entry_list {
  tagid_region_entry_list* next = nullptr;
  tagid_region_entry tre;
};

struct copy_info {
  copy_info* ci_next = nullptr;
  copy_info* ci_prev = nullptr;
  int ci_npart = 0;
  int ci_copy = 0;
  toc_entry_info** ci_parts = nullptr;  // ci_npart entries, owned by the descriptor
};

struct aux_priv_region {
  aux_priv_region* apr_next = nullptr;
  aux_priv_region* apr_prev = nullptr;
  std::uint32_t* apr_alloc_map = nullptr;
  std::uint32_t* apr_pending_map = nullptr;
  voff_t apr_offset = 0;
  voff_t apr_len = 0;
};

// Sector I/O: (handle, buffer, sector, count of sectors, flags) -> volume error.
using priv_io_fn = int (*)(priv_info* priv, void* buf, voff_t offset, std::size_t len,
                           unsigned long flag);
using priv_updated_fn = void (*)(priv_info* priv);

struct priv_info {
  volrid_t pri_disk_rid;
  unsigned long pri_flags = 0;
  void* pri_io_private = nullptr;  // the I/O callbacks' context (the session)
  priv_io_fn pri_read = nullptr;
  priv_io_fn pri_write = nullptr;
  priv_updated_fn pri_updated = nullptr;
  std::uint32_t* pri_alloc_map = nullptr;
  std::uint32_t* pri_pending_map = nullptr;
  std::size_t pri_toc_copy_len = 0;
  std::size_t pri_toc_len = 0;
  voff_t* pri_toc_sectors = nullptr;
  voff_t* pri_alt_toc_sectors = nullptr;
  priv_header_info* pri_header = nullptr;
  toc_entry_info* pri_toc_entries = nullptr;
  aux_priv_region* pri_aux_priv = nullptr;
  aux_priv_region* pri_reserved = nullptr;
  copy_info* pri_config_copies = nullptr;
  copy_info* pri_log_copies = nullptr;
  tagid_region_entry_list* tagid_list = nullptr;
  disk_attrs pri_disk_attrs;
};

}  // namespace pd
