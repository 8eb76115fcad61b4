// Which database version a record needs.
//
// Each kind has a table of vdb_compat rows in ascending version: the
// optional groups (type-word presence flags from 0x800 up) and the
// permanent flag bits a version understands. The newest row of every table
// accepts every flag bit, so a record is placed by its groups and by the
// flag bits older versions did not know. The temporary masks are kept for
// the writing side and not consulted here.
#include <cstdint>

#include "base/errors.h"
#include "config_db/record_layouts.h"

namespace pd {

struct vdb_compat {
  std::uint16_t vdbc_major_version;
  std::uint16_t vdbc_minor_version;
  std::uint32_t vdbc_valid_subtypes;
  std::uint32_t vdbc_valid_tflags;
  std::uint32_t vdbc_valid_pflags;
  std::uint32_t vdbc_valid_pflags2;
  std::uint32_t vdbc_valid_tflags2;
  std::uint32_t vdbc_valid_pflags3;
};

namespace {

constexpr std::uint32_t ALL = 0xFFFFFFFFu;
constexpr vdb_compat END{0, 0, 0, 0, 0, 0, 0, 0};

// Volume pflag bits by the version that introduced them.
constexpr std::uint32_t VPF_3_1 = 0x1 | 0x2 | 0x4 | 0x8 | 0x10 | 0x100;
constexpr std::uint32_t VPF_4_10 = VPF_3_1 | 0x400 | 0x800 | 0x1000 | 0x2000 | 0xF00000;

const vdb_compat vrec_compat_tbl[] = {
    {3, 1, 0x800 | 0x8000, ALL, VPF_3_1, 0, 0, 0},
    {4, 10, 0x800 | 0x8000 | 0x1000 | 0x2000, ALL, VPF_4_10, 0, 0, 0},
    {4, 12, 0x800 | 0x8000 | 0x1000 | 0x2000 | 0x4000 | 0x10000, ALL, VPF_4_10, 0, 0, 0},
    {4, 13, 0x800 | 0x8000 | 0x1000 | 0x2000 | 0x4000 | 0x10000 | 0x20000, ALL, VPF_4_10, 0, 0,
     0},
    {4, 15, 0x800 | 0x8000 | 0x1000 | 0x2000 | 0x4000 | 0x10000 | 0x20000 | 0x40000, ALL,
     VPF_4_10, ALL, ALL, 0},
    {4, 16, 0x800 | 0x8000 | 0x1000 | 0x2000 | 0x4000 | 0x1F0000, ALL, VPF_4_10 | 0x3000000, ALL,
     ALL, ALL},
    {4, 17, ALL, ALL, ALL, ALL, ALL, ALL},
    END};

const vdb_compat prec_compat_tbl[] = {
    {3, 1, 0x1000, ALL, 0x7, 0, 0, 0},
    {4, 10, 0x1000 | 0x2000 | 0x4000, ALL, 0xF, 0, 0, 0},
    {4, 13, 0x1000 | 0x2000 | 0x4000 | 0x8000, ALL, 0xF, 0, 0, 0},
    {4, 14, 0x3F000, ALL, 0xF, 0, 0, 0},
    {4, 16, 0x3F000 | 0x40000 | 0x80000000, ALL, 0xF, 0, 0, 0},
    {4, 17, ALL, ALL, ALL, ALL, ALL, ALL},
    END};

const vdb_compat srec_compat_tbl[] = {
    {3, 1, 0x800 | 0x1000, ALL, 0x8 | 0x10 | 0x20, 0, 0, 0},
    {4, 10, 0x800 | 0x1000 | 0x2000, ALL, 0x8 | 0x10 | 0x20 | 0x40 | 0x100 | 0x1000, 0, 0, 0},
    {4, 12, 0x800 | 0x1000 | 0x2000 | 0x8000, ALL, 0x1178, 0, 0, 0},
    {4, 14, 0x800 | 0x1000 | 0x2000 | 0x8000 | 0x10000, ALL, 0x1178, 0, 0, 0},
    {4, 17, ALL, ALL, ALL, ALL, ALL, ALL},
    END};

const vdb_compat dmrec_compat_tbl[] = {
    {3, 1, 0, ALL, 0x1 | 0x2 | 0x100 | 0x200, 0, 0, 0},
    {4, 10, 0x800 | 0x1000, ALL, 0x30F, 0, 0, 0},
    {4, 12, 0x800 | 0x1000 | 0xC0000000, ALL, 0x30F, 0, 0, 0},
    {4, 13, 0x800 | 0x1000 | 0xC0000000 | 0x2000 | 0x4000, ALL, 0x30F, 0, 0, 0},
    {4, 15, 0xC001F800, ALL, 0x31F, 0, 0, 0},
    {4, 16, 0xC003F800, ALL, 0x31F, 0, 0, 0},
    {4, 17, ALL, ALL, ALL, ALL, ALL, ALL},
    END};

const vdb_compat dgrec_compat_tbl[] = {
    {3, 1, 0x800 | 0x1000, ALL, 0x1 | 0x2, 0, 0, 0},
    {4, 10, 0x800 | 0x1000 | 0x2000 | 0x4000, ALL, 0x7, 0, 0, 0},
    {4, 13, 0x8000F800, ALL, 0x7, 0, 0, 0},
    {4, 15, 0x8003F800, ALL, 0xF, 0, 0, 0},
    {4, 16, 0x8007F800, ALL, 0xF, 0, 0, 0},
    {4, 17, ALL, ALL, ALL, ALL, ALL, ALL},
    END};

const vdb_compat darec_compat_tbl[] = {
    {3, 1, 0, ALL, 0xFF, 0, 0, 0},
    {4, 17, ALL, ALL, ALL, ALL, ALL, ALL},
    END};

const vdb_compat rvrec_compat_tbl[] = {
    {4, 10, 0, ALL, 0xFF, 0, 0, 0},
    {4, 14, 0x800, ALL, 0xFF, 0, 0, 0},
    {4, 17, ALL, ALL, ALL, ALL, ALL, ALL},
    END};

const vdb_compat rprec_compat_tbl[] = {
    {4, 10, 0, ALL, 0xFF, 0, 0, 0},
    {4, 13, 0x800, ALL, 0xFF, 0, 0, 0},
    {4, 16, 0x800 | 0x1000, ALL, 0xFF, 0, 0, 0},
    {4, 17, ALL, ALL, ALL, ALL, ALL, ALL},
    END};

const vdb_compat dcorec_compat_tbl[] = {
    {4, 11, 0, ALL, 0xFF, 0, 0, 0},
    {4, 13, 0x800 | 0x1000, ALL, 0xFF, 0, 0, 0},
    {4, 17, ALL, ALL, ALL, ALL, ALL, ALL},
    END};

const vdb_compat snaprec_compat_tbl[] = {
    {4, 11, 0, ALL, 0xFF, 0xFF, 0, 0},
    {4, 13, 0x4000, ALL, 0xFF, 0xFF, 0, 0},
    {4, 14, 0x4000 | 0x2000 | 0x1000, ALL, 0xFF, 0xFF, 0, 0},
    {4, 17, ALL, ALL, ALL, ALL, ALL, ALL},
    END};

const vdb_compat stpoolrec_compat_tbl[] = {
    {4, 13, 0, ALL, 0xFF, 0, 0, 0},
    {4, 15, 0x800, ALL, 0xFF, 0, 0, 0},
    {4, 17, ALL, ALL, ALL, ALL, ALL, ALL},
    END};

const vdb_compat inforec_compat_tbl[] = {
    {4, 13, 0, ALL, 0xFF, 0, 0, 0},
    {4, 15, 0x800, ALL, 0xFF, 0, 0, 0},
    {4, 17, ALL, ALL, ALL, ALL, ALL, ALL},
    END};

const vdb_compat cacherec_compat_tbl[] = {
    {4, 13, 0, ALL, 0xFF, 0, 0, 0},
    {4, 14, 0x800, ALL, 0xFF, 0, 0, 0},
    {4, 15, 0x800 | 0x1000, ALL, 0xFF, 0, 0, 0},
    {4, 17, ALL, ALL, ALL, ALL, ALL, ALL},
    END};

const vdb_compat vsetrec_compat_tbl[] = {
    {4, 14, 0, ALL, 0xFF, 0, 0, 0},
    {4, 15, 0x800, ALL, 0xFF, 0, 0, 0},
    {4, 16, 0x800 | 0x1000, ALL, 0xFF, 0, 0, 0},
    {4, 17, ALL, ALL, ALL, ALL, ALL, ALL},
    END};

// Kept for the writing side; no record kind selects them.
[[maybe_unused]] const vdb_compat exportrec_compat_tbl[] = {{4, 17, ALL, ALL, ALL, ALL, ALL, ALL},
                                                            END};
[[maybe_unused]] const vdb_compat linksetrec_compat_tbl[] = {
    {4, 16, 0, ALL, 0xFF, 0, 0, 0}, {4, 17, ALL, ALL, ALL, ALL, ALL, ALL}, END};
[[maybe_unused]] const vdb_compat siterec_compat_tbl[] = {{4, 17, ALL, ALL, ALL, ALL, ALL, ALL},
                                                          END};

const vdb_compat* compat_table(std::uint32_t kind) {
  switch (kind) {
    case REC_TYPE_VOL: return vrec_compat_tbl;
    case REC_TYPE_PLEX: return prec_compat_tbl;
    case REC_TYPE_SD: return srec_compat_tbl;
    case REC_TYPE_DM: return dmrec_compat_tbl;
    case REC_TYPE_DG: return dgrec_compat_tbl;
    case REC_TYPE_DA: return darec_compat_tbl;
    case REC_TYPE_RVOL: return rvrec_compat_tbl;
    case REC_TYPE_REP: return rprec_compat_tbl;
    case REC_TYPE_DCO: return dcorec_compat_tbl;
    case REC_TYPE_SNAP: return snaprec_compat_tbl;
    case REC_TYPE_STPOOL: return stpoolrec_compat_tbl;
    case REC_TYPE_INFO: return inforec_compat_tbl;
    case REC_TYPE_CACHE: return cacherec_compat_tbl;
    case REC_TYPE_VSET: return vsetrec_compat_tbl;
    default: return nullptr;
  }
}

struct flag_words {
  std::uint32_t pflag = 0;
  std::uint32_t pflag2 = 0;
  std::uint32_t pflag3 = 0;
};

flag_words record_flags(std::uint32_t kind, const void* sp) {
  flag_words f;
  switch (kind) {
    case REC_TYPE_VOL: {
      const auto* v = static_cast<const volrec*>(sp);
      f.pflag = v->v_pflag;
      f.pflag2 = v->v_pflag2;
      f.pflag3 = v->v_pflag3;
      break;
    }
    case REC_TYPE_SNAP: {
      const auto* s = static_cast<const snaprec*>(sp);
      f.pflag = s->sp_pflag;
      f.pflag2 = s->sp_pflag2;
      break;
    }
    case REC_TYPE_PLEX: f.pflag = static_cast<const plexrec*>(sp)->pl_pflag; break;
    case REC_TYPE_SD: f.pflag = static_cast<const sdrec*>(sp)->sd_pflag; break;
    case REC_TYPE_DM: f.pflag = static_cast<const dmrec*>(sp)->dm_pflag; break;
    case REC_TYPE_DG: f.pflag = static_cast<const dgrec*>(sp)->dg_pflag; break;
    case REC_TYPE_DA: f.pflag = static_cast<const darec*>(sp)->da_pflag; break;
    case REC_TYPE_RVOL: f.pflag = static_cast<const rvolrec*>(sp)->rv_pflag; break;
    case REC_TYPE_REP: f.pflag = static_cast<const reprec*>(sp)->rp_pflag; break;
    case REC_TYPE_DCO: f.pflag = static_cast<const dcorec*>(sp)->dco_pflag; break;
    case REC_TYPE_STPOOL: f.pflag = static_cast<const stpoolrec*>(sp)->stp_pflag; break;
    case REC_TYPE_INFO: f.pflag = static_cast<const inforec*>(sp)->inf_pflag; break;
    case REC_TYPE_CACHE: f.pflag = static_cast<const cacherec*>(sp)->cache_pflag; break;
    case REC_TYPE_VSET: f.pflag = static_cast<const vsetrec*>(sp)->vset_pflag; break;
    default: break;
  }
  return f;
}

bool accepts(const vdb_compat& c, std::uint32_t type, const flag_words& f) {
  return (type & RTYPE_PRESENCE & ~c.vdbc_valid_subtypes) == 0 &&
         (f.pflag & ~c.vdbc_valid_pflags) == 0 && (f.pflag2 & ~c.vdbc_valid_pflags2) == 0 &&
         (f.pflag3 & ~c.vdbc_valid_pflags3) == 0;
}

// tfindctblent: the oldest row from which every later row accepts.
const vdb_compat* tfindctblent(const vdb_compat* tbl, std::uint32_t type, const flag_words& f) {
  std::size_t n = 0;
  while (tbl[n].vdbc_major_version != 0) ++n;
  std::size_t i = n;
  while (i > 0 && accepts(tbl[i - 1], type, f)) --i;
  return i < n ? &tbl[i] : nullptr;
}

}  // namespace

int voldbsup_rtyp2vers(std::uint32_t type, const db_record*, const void* sp,
                       std::uint16_t* major, std::uint16_t* minor) {
  std::uint32_t kind = type & RTYPE_KIND_MASK;
  const vdb_compat* tbl = compat_table(kind);
  if (tbl == nullptr || sp == nullptr) return VE_DB_FORMAT;
  const vdb_compat* c = tfindctblent(tbl, type, record_flags(kind, sp));
  if (c == nullptr) return VE_DB_FORMAT;
  *major = c->vdbc_major_version;
  *minor = c->vdbc_minor_version;
  return 0;
}

}  // namespace pd
