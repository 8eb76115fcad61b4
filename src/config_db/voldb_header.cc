// The database header ("VMDB") and the disk-group/database version map.
//
// Stored form: magic (4), ddb_fields (nblocks, blksize, hdrsize: U4 each),
// voldb_info_base_fields (commit state, major, minor: U2 each), then:
//   major 3: voldb_info_more_fields_1_2            14 + 64 + 8 + 8 + 7*4 + 7*4 = 150
//   major 4: voldb_info_more_fields                31 + 64 + 16 + 56 + 16      = 183
//            voldb_info_netmirror_fields           16 (read when minor > 10)
//            voldb_info_more_fields_nt_minor_1     8  (read when minor > 9)
//            eight groups when minor > 16          4 + 16 + 8 + 5*8            = 68
// The writer writes the 22-byte prefix through ddb_fields and
// voldb_info_base_fields; the reader takes it from voldb_prefix_decode, whose
// offsets spell out the same layout.
// The reader tests minor > 10 before minor > 9: a minor-10 header yields the
// update time from the bytes where the writer put the repeated counters.
#include <algorithm>
#include <cstring>
#include <iterator>
#include <vector>

#include "base/errors.h"
#include "codec/integers.h"
#include "config_db/record_field_macros.h"
#include "config_db/record_layouts.h"

namespace pd {

namespace {

#define S dbase
const db_field ddb_fields[] = {F_U4(ddb_nblocks), F_U4(ddb_blksize), F_U4(ddb_hdrsize)};
#undef S

#define S voldb_info
#define F_SUM7(sum)                                                                       \
  F_U4(sum.vs_v_cnt), F_U4(sum.vs_pl_cnt), F_U4(sum.vs_sd_cnt), F_U4(sum.vs_dm_cnt),     \
      F_U4(sum.vs_da_cnt), F_U4(sum.vs_reserved_1), F_U4(sum.vs_reserved_2)
#define F_PAIR(m) F_U4(vdbi_config_sum.m), F_U4(vdbi_pending_sum.m)

const db_field voldb_info_base_fields[] = {
    F_U2(vdbi_commit_state), F_U2(vdbi_version_major), F_U2(vdbi_version_minor)};

const db_field voldb_info_more_fields_1_2[] = {
    F_STR(vdbi_dg_name_1_2, 14), F_STR(vdbi_dg_id, 64), F_SEQ(vdbi_config_tid),
    F_SEQ(vdbi_pending_tid), F_SUM7(vdbi_config_sum), F_SUM7(vdbi_pending_sum)};
static_assert(std::size(voldb_info_more_fields_1_2) == 18);

#define F_RVRP                                                                   \
  F_U4(vdbi_config_sum.vs_rv_cnt), F_U4(vdbi_config_sum.vs_rp_cnt),              \
      F_U4(vdbi_pending_sum.vs_rv_cnt), F_U4(vdbi_pending_sum.vs_rp_cnt)

const db_field voldb_info_more_fields[] = {
    F_STR(vdbi_dg_name, 31), F_STR(vdbi_dg_id, 64), F_SEQ(vdbi_config_tid),
    F_SEQ(vdbi_pending_tid), F_SUM7(vdbi_config_sum), F_SUM7(vdbi_pending_sum), F_RVRP};
static_assert(std::size(voldb_info_more_fields) == 22);

const db_field voldb_info_netmirror_fields[] = {F_RVRP};
const db_field voldb_info_more_fields_nt_minor_1[] = {F_U8(vdbi_nt_update_time)};
const db_field voldb_info_dbvers_fields[] = {F_U2(vdbi_pending_major), F_U2(vdbi_pending_minor)};
const db_field voldb_info_dco_snap_fields[] = {
    F_U4(vdbi_config_sum.vs_dco_cnt), F_U4(vdbi_config_sum.vs_sp_cnt),
    F_U4(vdbi_pending_sum.vs_dco_cnt), F_U4(vdbi_pending_sum.vs_sp_cnt)};
const db_field voldb_info_active_tag_fields[] = {F_U4(vdbi_prev_tag), F_U4(vdbi_cur_tag)};
const db_field voldb_info_stpool_fields[] = {F_PAIR(vs_stpool_cnt)};
const db_field voldb_info_info_fields[] = {F_PAIR(vs_info_cnt)};
const db_field voldb_info_vset_fields[] = {F_PAIR(vs_vset_cnt)};
const db_field voldb_info_cache_fields[] = {F_PAIR(vs_cache_cnt)};
const db_field voldb_info_export_fields[] = {F_PAIR(vs_export_cnt)};
#undef F_RVRP
#undef F_PAIR
#undef F_SUM7
#undef S

struct table_ref {
  const db_field* ftbl;
  std::size_t nflds;
};
#define T(tbl) table_ref{tbl, std::size(tbl)}

const table_ref minor17_groups[] = {
    T(voldb_info_dbvers_fields), T(voldb_info_dco_snap_fields),
    T(voldb_info_active_tag_fields), T(voldb_info_stpool_fields),
    T(voldb_info_info_fields), T(voldb_info_vset_fields),
    T(voldb_info_cache_fields), T(voldb_info_export_fields)};

// Every group a major-4 header is written with, in order.
const table_ref major4_groups[] = {
    T(voldb_info_more_fields), T(voldb_info_netmirror_fields),
    T(voldb_info_more_fields_nt_minor_1), T(voldb_info_dbvers_fields),
    T(voldb_info_dco_snap_fields), T(voldb_info_active_tag_fields),
    T(voldb_info_stpool_fields), T(voldb_info_info_fields),
    T(voldb_info_vset_fields), T(voldb_info_cache_fields),
    T(voldb_info_export_fields)};
const table_ref major3_groups[] = {T(voldb_info_more_fields_1_2)};
#undef T

// Chains a decode; null stays null.
const std::uint8_t* unfmt(const table_ref& t, void* sp, const std::uint8_t* p,
                          const std::uint8_t* lim) {
  return p == nullptr ? nullptr : dbf_unfmt_tbl(t.ftbl, t.nflds, sp, p, lim);
}

}  // namespace

const std::uint8_t* voldb_prefix_decode(const std::uint8_t* p, const std::uint8_t* lim,
                                        voldb_prefix_info* out) {
  if (p == nullptr || lim < p || static_cast<std::size_t>(lim - p) < VOLDB_PREFIX_SIZE)
    return nullptr;
  out->vdp_magic_ok = std::memcmp(p, voldb_magic, VOLDB_MAGIC_LEN) == 0;
  out->vdp_nblocks = get_be32(p + VOLDB_OFF_NBLOCKS);
  out->vdp_blksize = get_be32(p + VOLDB_OFF_BLKSIZE);
  out->vdp_hdrsize = get_be32(p + VOLDB_OFF_HDRSIZE);
  out->vdp_commit_state = get_be16(p + VOLDB_OFF_COMMIT_STATE);
  out->vdp_version_major = get_be16(p + VOLDB_OFF_VERSION_MAJOR);
  out->vdp_version_minor = get_be16(p + VOLDB_OFF_VERSION_MINOR);
  return p + VOLDB_PREFIX_SIZE;
}

int voldbsup_unformat_header(dbase* db, const std::uint8_t* buf, std::size_t len,
                             voldb_info* vi) {
  if (len < VOLDB_MAGIC_LEN || std::memcmp(buf, voldb_magic, VOLDB_MAGIC_LEN) != 0)
    return VE_BAD_MAGIC;
  const std::uint8_t* lim = buf + std::min(len, VOLDB_HDR_DECODE);
  voldb_prefix_info pre;
  const std::uint8_t* p = voldb_prefix_decode(buf, lim, &pre);
  if (p == nullptr) return VE_DB_FORMAT;
  db->ddb_nblocks = pre.vdp_nblocks;
  db->ddb_blksize = pre.vdp_blksize;
  db->ddb_hdrsize = pre.vdp_hdrsize;
  vi->vdbi_commit_state = pre.vdp_commit_state;
  vi->vdbi_version_major = pre.vdp_version_major;
  vi->vdbi_version_minor = pre.vdp_version_minor;
  std::uint16_t minor = vi->vdbi_version_minor;
  switch (vi->vdbi_version_major) {
    case 3:
      p = unfmt(major3_groups[0], vi, p, lim);
      std::memset(vi->vdbi_dg_name, 0, sizeof vi->vdbi_dg_name);
      std::memcpy(vi->vdbi_dg_name, vi->vdbi_dg_name_1_2, sizeof vi->vdbi_dg_name_1_2);
      break;
    case 4:
      p = unfmt({voldb_info_more_fields, std::size(voldb_info_more_fields)}, vi, p, lim);
      if (minor > 10) {
        p = unfmt({voldb_info_netmirror_fields, std::size(voldb_info_netmirror_fields)}, vi, p,
                  lim);
      }
      if (minor > 9) {
        p = unfmt({voldb_info_more_fields_nt_minor_1,
                   std::size(voldb_info_more_fields_nt_minor_1)},
                  vi, p, lim);
      }
      if (minor > 16) {
        for (const table_ref& t : minor17_groups) p = unfmt(t, vi, p, lim);
      }
      break;
    default:
      return VE_DB_VERSION;
  }
  if (p == nullptr) return VE_DB_FORMAT;
  db->ddb_mvers_major = vi->vdbi_version_major;
  db->ddb_mvers_minor = vi->vdbi_version_minor;
  return 0;
}

int voldbsup_format_header(dbase* db, std::uint8_t* buf, std::size_t len, const voldb_info* vi) {
  const table_ref* groups = nullptr;
  std::size_t ngroups = 0;
  switch (vi->vdbi_version_major) {
    case 3: groups = major3_groups; ngroups = std::size(major3_groups); break;
    case 4: groups = major4_groups; ngroups = std::size(major4_groups); break;
    default: return VE_DB_VERSION;
  }
  std::size_t need = VOLDB_MAGIC_LEN + dbf_tblsize(ddb_fields, std::size(ddb_fields), db) +
                     dbf_tblsize(voldb_info_base_fields, std::size(voldb_info_base_fields), vi);
  for (std::size_t i = 0; i < ngroups; ++i) need += dbf_tblsize(groups[i].ftbl, groups[i].nflds, vi);
  if (need > len) return VE_DB_FORMAT;
  std::memset(buf, 0, std::min(len, std::max(need, db->ddb_hdrsize)));
  std::memcpy(buf, voldb_magic, VOLDB_MAGIC_LEN);
  std::uint8_t* p = dbf_fmt_tbl(ddb_fields, std::size(ddb_fields), db, buf + VOLDB_MAGIC_LEN);
  p = dbf_fmt_tbl(voldb_info_base_fields, std::size(voldb_info_base_fields), vi, p);
  for (std::size_t i = 0; i < ngroups; ++i) p = dbf_fmt_tbl(groups[i].ftbl, groups[i].nflds, vi, p);
  return 0;
}

int voldbsup_reformat_header(const dbase* db, std::uint8_t* buf, std::size_t len,
                             const voldb_info* vi) {
  // The groups voldbsup_unformat_header reads for this version, in its order.
  std::vector<table_ref> groups;
  const std::uint16_t minor = vi->vdbi_version_minor;
  switch (vi->vdbi_version_major) {
    case 3: groups.push_back(major3_groups[0]); break;
    case 4:
      groups.push_back({voldb_info_more_fields, std::size(voldb_info_more_fields)});
      if (minor > 10)
        groups.push_back({voldb_info_netmirror_fields, std::size(voldb_info_netmirror_fields)});
      if (minor > 9)
        groups.push_back({voldb_info_more_fields_nt_minor_1,
                          std::size(voldb_info_more_fields_nt_minor_1)});
      if (minor > 16) {
        for (const table_ref& t : minor17_groups) groups.push_back(t);
      }
      break;
    default: return VE_DB_VERSION;
  }
  std::size_t need = VOLDB_MAGIC_LEN + dbf_tblsize(ddb_fields, std::size(ddb_fields), db) +
                     dbf_tblsize(voldb_info_base_fields, std::size(voldb_info_base_fields), vi);
  for (const table_ref& t : groups) need += dbf_tblsize(t.ftbl, t.nflds, vi);
  if (need > len) return VE_DB_FORMAT;
  std::memcpy(buf, voldb_magic, VOLDB_MAGIC_LEN);
  std::uint8_t* p = dbf_fmt_tbl(ddb_fields, std::size(ddb_fields), db, buf + VOLDB_MAGIC_LEN);
  p = dbf_fmt_tbl(voldb_info_base_fields, std::size(voldb_info_base_fields), vi, p);
  for (const table_ref& t : groups) p = dbf_fmt_tbl(t.ftbl, t.nflds, vi, p);
  const std::size_t end = std::min(len, std::max(need, db->ddb_hdrsize));
  std::memset(p, 0, end - need);
  return 0;
}

// ---------------------------------------------------------------------------

const dgdbv_entry dgdbvtbl[] = {{10, 3, 1},  {20, 4, 10}, {30, 4, 11}, {40, 4, 12}, {43, 4, 13},
                                {45, 4, 14}, {50, 4, 15}, {60, 4, 16}, {171, 4, 17}};
const std::size_t n_dgdbvtbl = std::size(dgdbvtbl);

int dgv2dbv(unsigned dgv, std::uint16_t* major, std::uint16_t* minor) {
  for (const dgdbv_entry& e : dgdbvtbl) {
    if (e.dgv == dgv) {
      *major = e.major;
      *minor = e.minor;
      return 0;
    }
  }
  *major = 0;
  *minor = 0;
  return VE_DGVERSION_UNKNOWN;
}

int dbv2dgv(std::uint16_t major, std::uint16_t minor, unsigned* dgv) {
  for (const dgdbv_entry& e : dgdbvtbl) {
    if (e.major == major && e.minor == minor) {
      *dgv = e.dgv;
      return 0;
    }
  }
  *dgv = 0;
  return VE_DB_VERSION;
}

}  // namespace pd
