// Record-type entries and the record codec.
//
// rec2field_table lists, per stored type code, the field groups of the
// record body. A group applies when (type & flagmask) == flagvalue; mask 0
// always applies; a non-zero mask with value 0 applies while the flag is
// clear (how the release-1.2 layouts choose between two bases). Presence
// flags of the optional groups are single bits above 0x800 (0x200 for a few
// of the oldest groups), one flag per group, none used twice in an entry.
#include "config_db/record_layouts.h"

#include <cstdlib>
#include <cstring>
#include <iterator>

#include "base/errors.h"
#include "codec/integers.h"
#include "config_db/record_fields.h"

namespace pd {

#define G(mask, value, tbl) r2f_group{(mask), (value), tbl, n_##tbl}
#define B(tbl) G(0u, 0u, tbl)
#define O(flag, tbl) G((flag), (flag), tbl)

// The optional groups shared by the volume entries, in stored order.
#define VOL_COMMON_GROUPS(checkpoint)                                            \
  O(0x800u, volperm_prefer_fields), O(0x2000u, volperm_log_rid_fields),          \
      O(0x4000u, volperm_subvolume_fields), O(0x8000u, checkpoint),              \
      O(0x1000u, volperm_recov_seqno_fields), O(0x200u, volperm_nt_mount_name_fields)

#define PLEX_COMMON_GROUPS(stripe)                                                   \
  O(0x1000u, stripe), O(0x2000u, plexperm_snap_fields), O(0x4000u, plexperm_guid_fields), \
      O(0x8000u, plexperm_dcoplex_fields), O(0x10000u, plexperm_vsssnapshot_fields),    \
      O(0x20000u, plexperm_comment_fields)

#define SD_COMMON_GROUPS(orig)                                                     \
  O(0x800u, sdperm_stripe_fields), O(0x1000u, sdperm_detach_fields),              \
      O(0x2000u, sdperm_minor_fields), O(0x200u, sdperm_nt_hiddensec_fields),     \
      O(0x8000u, orig)

const rec2field rec2field_table[] = {
    {0x3B, 1, {B(stpoolperm_fields), O(0x800u, stpoolperm_guid_fields),
               O(0x1000u, stpoolperm_reserved1_fields)}},
    {0x3C, 1, {B(infoperm_fields), O(0x800u, infoperm_guid_fields),
               O(0x1000u, infoperm_reserved1_fields)}},
    {0x59, 1, {B(dcoperm_fields_fmr2)}},
    {0x69, 1, {B(dcoperm_fields), O(0x800u, dcoperm_regsz_fields),
               O(0x1000u, dcoperm_version_fields), O(0x20000u, dcoperm_reserved1_fields)}},
    {0x5A, 1, {B(snapperm_fields_fmr2)}},
    {0x5A, 1, {B(snapperm_fields)}},
    {0x6A, 1, {B(snapperm_fields), O(0x4000u, snapperm_guid_fields),
               O(0x2000u, snapperm_snpt_fields), O(0x1000u, linkperm_fields),
               O(0x8000u, snapperm_reserved1_fields)}},
    {0x57, 1, {B(rvolperm_fields), O(0x800u, rvolperm_logvol_rid_fields)}},
    {0x58, 1, {B(repperm_fields), O(0x800u, repperm_bandwidth_fields),
               O(0x1000u, repperm_ipv6_fields)}},
    {0x3E, 1, {B(vsetperm_fields), O(0x800u, vsetperm_svm_fields),
               O(0x1000u, vsetperm_rvol_fields), O(0x2000u, vsetperm_reserved1_fields)}},
    {0x231, 1, {B(linksetperm_fields), O(0x800u, linksetperm_reserved1_fields)}},
    {0x232, 1, {B(exportperm_fields), O(0x800u, exportperm_reserved1_fields)}},
    {0x233, 1, {B(siteperm_fields), O(0x800u, siteperm_reserved1_fields)}},
    {0x3D, 1, {B(cacheperm_fields), O(0x800u, cacheperm_svm_fields),
               O(0x1000u, cacheperm_version_fields), O(0x2000u, cacheperm_reserved1_fields)}},
    {0x31, 1, {B(volperm_fields), VOL_COMMON_GROUPS(volperm_checkpoint_fields),
               O(0x20000u, volperm_dco_fields)}},
    {0x41, 1, {B(volperm_fields), B(volperm_nt_part_type_fields),
               VOL_COMMON_GROUPS(volperm_checkpoint_fields), O(0x20000u, volperm_dco_fields)}},
    {0x51, 1, {B(volperm_fields), B(volperm_nt_part_type_fields), B(volperm_nt_vol_guid_fields),
               VOL_COMMON_GROUPS(volperm_checkpoint_fields),
               O(0x10000u, volperm_netmirror_fields), O(0x20000u, volperm_dco_fields),
               O(0x40000u, volperm_pflag2_fields)}},
    {0x61, 1, {B(volperm_fields_512), B(volperm_nt_part_type_fields),
               B(volperm_nt_vol_guid_fields), VOL_COMMON_GROUPS(volperm_checkpoint_fields_512),
               O(0x10000u, volperm_netmirror_fields), O(0x20000u, volperm_dco_fields),
               O(0x40000u, volperm_pflag2_fields), O(0x80000u, volperm_pflag3_fields),
               O(0x100000u, volperm_cache_fields), O(0x200000u, volperm_reserved1_fields)}},
    {0x32, 1, {B(plexperm_fields), PLEX_COMMON_GROUPS(plexperm_stripe_fields)}},
    {0x42, 1, {B(plexperm_fields), PLEX_COMMON_GROUPS(plexperm_stripe_fields_512),
               O(0x80000000u, plexperm_info_fields), O(0x40000u, plexperm_mapguid_fields),
               O(0x80000u, plexperm_reserved1_fields)}},
    {0x33, 1, {B(sdperm_fields), SD_COMMON_GROUPS(sdperm_orig_fields),
               O(0x10000u, sdperm_comment_fields)}},
    {0x43, 1, {B(sdperm_fields_512), SD_COMMON_GROUPS(sdperm_orig_fields_512),
               O(0x10000u, sdperm_comment_fields), O(0x20000u, sdperm_reserved1_fields)}},
    {0x34, 1, {B(dmperm_fields_2_0)}},
    {0x44, 1, {B(dmperm_fields_nt_2), O(0x800u, dmperm_app_value_fields),
               O(0x1000u, dmperm_comment_fields), O(0x80000000u, dmperm_timeout_fields),
               O(0x40000000u, dmperm_lastdev_fields), O(0x2000u, dmperm_move_fields),
               O(0x4000u, dmperm_stpool_fields), O(0x8000u, dmperm_info_fields),
               O(0x10000u, dmperm_guid_fields), O(0x20000u, dmperm_cds_fields),
               O(0x40000u, dmperm_reserved1_fields)}},
    {0x35, 1, {B(dgperm_fields_nt_1), O(0x800u, dgperm_ncopy_fields),
               O(0x1000u, dgperm_base_minor_fields)}},
    {0x45, 1, {B(dgperm_fields_nt_2), O(0x800u, dgperm_ncopy_fields),
               O(0x1000u, dgperm_base_minor_fields), O(0x2000u, dgperm_version_fields),
               O(0x4000u, dgperm_comment_fields), O(0x80000000u, dgperm_policy_fields),
               O(0x8000u, dgperm_move_fields), O(0x10000u, dgperm_io_fence_fields),
               O(0x20000u, dgperm_cds_fields), O(0x40000u, dgperm_dfpolicy_fields),
               O(0x80000u, dgperm_reserved1_fields)}},
    {0x86, 2, {B(daperm_fields)}},
    // Temporary parts.
    {0x1B, 1, {B(stpooltmp_fields)}},
    {0x1C, 1, {B(infotmp_fields)}},
    {0x17, 1, {B(rvoltmp_fields)}},
    {0x18, 1, {B(reptmp_fields)}},
    {0x19, 1, {B(dcotmp_fields)}},
    {0x1A, 1, {B(snaptmp_fields)}},
    {0x1E, 1, {B(vsettmp_fields)}},
    {0x211, 1, {B(linksettemp_fields)}},
    {0x232, 1, {B(exporttemp_fields)}},
    {0x213, 1, {B(sitetmp_fields)}},
    {0x1D, 1, {B(cachetmp_fields)}},
    {0x81, 1, {B(voltmp_fields)}},
    {0x82, 1, {B(plextmp_fields)}},
    {0x83, 1, {B(sdtmp_fields)}},
    {0x84, 1, {B(dmtmp_fields)}},
    {0x85, 1, {B(dgtmp_fields)}},
    // Release-1.2 permanent layouts.
    {0x81, 1, {G(0x1000u, 0u, volperm_fields_1_2), O(0x1000u, volperm_detach_fields_1_2)}},
    {0x82, 1, {B(plexperm_fields_1_2), O(0x800u, plexperm_stripe_fields_1_2)}},
    {0x83, 1, {B(sdperm_fields_1_2)}},
    {0x84, 1, {B(dmperm_fields_1_2)}},
    {0x85, 1, {B(dgperm_fields_1_2), O(0x800u, dgperm_ncopy_fields)}},
};
const std::size_t n_rec2field_table = std::size(rec2field_table);
static_assert(std::size(rec2field_table) == 48);

#undef G
#undef B
#undef O

namespace {

bool applies(const r2f_group& g, std::uint32_t type) { return (type & g.flagmask) == g.flagvalue; }

// Calls fn(group) for every group of the entry, up to the first empty one.
template <typename Fn>
void for_each_group(const rec2field* r2f, Fn fn) {
  for (const r2f_group& g : r2f->r2f_tbls) {
    if (g.nflds == 0) break;
    fn(g);
  }
}

std::size_t groups_size(const rec2field* r2f, std::uint32_t type, const void* sp) {
  std::size_t size = 0;
  for_each_group(r2f, [&](const r2f_group& g) {
    if (applies(g, type)) size += dbf_tblsize(g.ftbl, g.nflds, sp);
  });
  return size;
}

bool extension_counted(std::uint32_t type) {
  return static_cast<std::int32_t>(type) < 0 || type > 0xFFFF;
}

}  // namespace

const rec2field* find_rec2field(std::uint32_t type) {
  std::uint32_t key = type & RTYPE_CODE_MASK;
  for (const rec2field& e : rec2field_table) {
    if (e.type == key) return &e;
  }
  return nullptr;
}

std::size_t voldbf_tblsize(const rec2field* r2f, std::uint32_t type, const void* sp) {
  return (extension_counted(type) ? 2 : 0) + groups_size(r2f, type, sp);
}

std::uint8_t* voldbf_fmt_tbl(const rec2field* r2f, std::uint32_t type, const void* sp,
                             std::uint8_t* buf) {
  for_each_group(r2f, [&](const r2f_group& g) {
    if (applies(g, type)) buf = dbf_fmt_tbl(g.ftbl, g.nflds, sp, buf);
  });
  return buf;
}

const std::uint8_t* voldbf_unfmt_tbl(const rec2field* r2f, std::uint32_t type, void* sp,
                                     const std::uint8_t* buf, const std::uint8_t* lim) {
  std::uint32_t claimed = 0;
  for_each_group(r2f, [&](const r2f_group& g) {
    if (buf == nullptr || !applies(g, type)) return;
    buf = dbf_unfmt_tbl(g.ftbl, g.nflds, sp, buf, lim);
    claimed |= g.flagmask;
  });
  // A presence flag the record's type does not know, checked once every
  // applicable group is read (what was decoded stays in the structure).
  if (buf == nullptr || ((type & RTYPE_PRESENCE) & ~claimed) != 0) return nullptr;
  return buf;
}

void voldbf_free_tbl(const rec2field* r2f, void* sp) {
  for_each_group(r2f, [&](const r2f_group& g) { dbf_free_tbl(g.ftbl, g.nflds, sp); });
}

bool voldbf_rec_has_guid(std::uint32_t type) {
  switch (type & RTYPE_KIND_MASK) {
    case 0: case 5: case 6: case 9: case 15: return false;
    default: return true;
  }
}

voldguid_t voldbf_get_guid(std::uint32_t type, const void* sp) {
  switch (type & RTYPE_KIND_MASK) {
    case REC_TYPE_VOL: return static_cast<const volrec*>(sp)->v_nt_vol_guid;
    case REC_TYPE_PLEX: return static_cast<const plexrec*>(sp)->pl_guid;
    case REC_TYPE_DM: return static_cast<const dmrec*>(sp)->dm_guid;
    case REC_TYPE_SNAP: return static_cast<const snaprec*>(sp)->sp_guid;
    case REC_TYPE_STPOOL: return static_cast<const stpoolrec*>(sp)->stp_guid;
    case REC_TYPE_INFO: return static_cast<const inforec*>(sp)->inf_guid;
    case REC_TYPE_CACHE: return static_cast<const cacherec*>(sp)->cache_guid;
    case REC_TYPE_VSET: return static_cast<const vsetrec*>(sp)->vset_guid;
    default: return zeroguid;
  }
}

std::size_t voldbsup_struct_size(std::uint32_t type) {
  switch (type & RTYPE_KIND_MASK) {
    case REC_TYPE_VOL: return sizeof(volrec);
    case REC_TYPE_PLEX: return sizeof(plexrec);
    case REC_TYPE_SD: return sizeof(sdrec);
    case REC_TYPE_DM: return sizeof(dmrec);
    case REC_TYPE_DG: return sizeof(dgrec);
    case REC_TYPE_DA: return sizeof(darec);
    case REC_TYPE_RVOL: return sizeof(rvolrec);
    case REC_TYPE_REP: return sizeof(reprec);
    case REC_TYPE_DCO: return sizeof(dcorec);
    case REC_TYPE_SNAP: return sizeof(snaprec);
    case REC_TYPE_STPOOL: return sizeof(stpoolrec);
    case REC_TYPE_INFO: return sizeof(inforec);
    case REC_TYPE_CACHE: return sizeof(cacherec);
    case REC_TYPE_VSET: return sizeof(vsetrec);
    default: return 0;
  }
}

std::size_t rec2field_struct_size(const rec2field* r2f) {
  switch (r2f->type) {
    case 0x211: case 0x231: return sizeof(linksetrec);
    case 0x232: return sizeof(exportrec);
    case 0x213: case 0x233: return sizeof(siterec);
    default: return voldbsup_struct_size(r2f->type);
  }
}

void voldbsup_free_fields(std::uint32_t type, void* sp) {
  if (const rec2field* r2f = find_rec2field(type)) voldbf_free_tbl(r2f, sp);
}

std::size_t voldbsup_record_size(std::uint32_t type, const void* sp) {
  const rec2field* r2f = find_rec2field(type);
  if (r2f == nullptr) return 0;
  return ((type & RTYPE_EXTENDED) ? 2 : 0) + groups_size(r2f, type, sp);
}

int voldbsup_format_record(dbase*, db_record* r, std::uint8_t* out, std::size_t offset,
                           std::size_t length, const void* sp) {
  if (r->dbr_build == nullptr) {
    std::uint32_t type = r->dbr_type;
    const rec2field* r2f = find_rec2field(type);
    // Type bits above 16 travel only in the extension.
    if (r2f == nullptr || (type > 0xFFFF && !(type & RTYPE_EXTENDED))) return VE_DB_FORMAT;
    std::size_t size = voldbsup_record_size(type, sp);
    auto* body = static_cast<std::uint8_t*>(std::malloc(size == 0 ? 1 : size));
    if (body == nullptr) return VE_NOMEM;
    std::uint8_t* p = body;
    if (type & RTYPE_EXTENDED) {
      put_be16(p, static_cast<std::uint16_t>(type >> 16));
      p += 2;
    }
    voldbf_fmt_tbl(r2f, type, sp, p);
    r->dbr_build = body;
    r->dbr_size = size;
  }
  if (offset > r->dbr_size || length > r->dbr_size - offset) return VE_DB_FORMAT;
  if (length > 0) std::memcpy(out, r->dbr_build + offset, length);
  return 0;
}

void voldbsup_format_cleanup_record(dbase*, db_record* r) {
  std::free(r->dbr_build);
  r->dbr_build = nullptr;
}

}  // namespace pd
