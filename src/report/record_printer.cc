// Long-format printing of one configuration record: the frame from the
// block store, then the block of labelled lines of the record's kind.
//
// Record ids and tids share one static text buffer in the converters, so
// every line that prints two of them passes buffers of its own.
#include "report/record_printer.h"

#include <cstdint>
#include <cstring>

#include "codec/text_forms.h"
#include "report/copy_loading.h"

namespace pd {

namespace {

using idbuf = char[24];
using guidbuf = char[40];

const char* guid_text(const voldguid_t& g, guidbuf& b) {
  voldguid_to_string(b, &g);
  return b;
}

bool rid_set(const volrid_t& r) { return r.seqno_lo != 0 || r.seqno_hi != 0; }

constexpr flag_word vol_flag_words[] = {
    {VOL_PF_CRASHED, "crashed"},
    {VOL_PF_BADLOG, "badlog"},
    {VOL_PF_WRITECOPY, "writecopy"},
    {VOL_PF_WRITEBACK, "writeback"},
    {VOL_PF_KDETACH, "kdetach"},
    {VOL_PF_STORAGE, "storage"},
    {VOL_PF_APPRECOVER, "apprecover"},
    {VOL_PF_NT_PENDING, "pending"},
    {VOL_PF_NT_RAID_NTFT, "raid-ntft"},
    {VOL_PF_NT_BOOT_VOLUME, "boot-volume"},
    {VOL_PF_NT_SYSTEM_VOLUME, "system-volume"},
    {VOL_PF_NT_RETAIN_PARTITION, "retain-partition"},
};

constexpr flag_word plex_flag_words[] = {
    {PL_PF_RECOVER, " recover"},
    {PL_PF_IOFAIL, " iofail"},
    {PL_PF_NT_PENDING, " pending"},
};

constexpr flag_word sd_flag_words[] = {
    {SD_PF_VOLATILE, " volatile"},
    {SD_PF_RECOVER, " recover"},
    {SD_PF_RELOCATE, " relocate"},
    {SD_PF_KDETACH, " kdetach"},
    {SD_PF_BOOT_EXTENDED, " boot-extended"},
    {SD_PF_ORIGBOOT, " origboot"},
};

constexpr flag_word dm_flag_words[] = {
    {DM_PF_RESERVED, " reserved"},
    {DM_PF_SPARE, " spare"},
    {DM_PF_FAILING, " failing"},
    {DM_PF_ENCAP_PENDING, " encap-pending"},
    {DM_PF_MERGE_REQUIRED, " merge-required"},
};

// Words printed as they stand, without wrapping.
void print_words(FILE* out, unsigned long flags, std::span<const flag_word> words) {
  for (const flag_word& w : words) {
    if ((flags & w.bit) != 0) std::fputs(w.word, out);
  }
}

void print_comment(FILE* out, const char* comment) {
  if (comment[0] != '\0') std::fprintf(out, "\n comment:  %s", comment);
}

}  // namespace

int print_flag_words(FILE* out, unsigned long flags, const flag_word* words, std::size_t n,
                     int col) {
  for (std::size_t i = 0; i < n; ++i) {
    if ((flags & words[i].bit) == 0) continue;
    const int len = static_cast<int>(std::strlen(words[i].word));
    if (col + len + 1 > FLAG_WRAP_COLUMN) {
      std::fputs("\n         ", out);
      col = 9;
    }
    std::fprintf(out, " %s", words[i].word);
    col += len + 1;
  }
  return col;
}

void record_printer::print_record(const dbase* db, const db_record* r) {
  std::fprintf(out_, "#Record %4lu: type=0x%04x flags=0x%04x gen_flags=0x%04x ",
               static_cast<unsigned long>(r->dbr_ref), static_cast<unsigned>(r->dbr_type),
               static_cast<unsigned>(r->dbr_flag), static_cast<unsigned>(r->dbr_gen_flag));
  std::fprintf(out_, "size=%lu\n", static_cast<unsigned long>(r->dbr_size));
  std::fputs("#Blocks:", out_);
  // The store links each block at most once; the bound only guards the walk.
  std::size_t steps = 0;
  for (std::size_t b = r->dbr_first_blkno; b < db->ddb_nblocks && steps < db->ddb_nblocks;
       b = ddb_block(db, b).dbb_next_blkno, ++steps) {
    std::fprintf(out_, " %lu", static_cast<unsigned long>(b));
  }
  std::fputs("\n", out_);
  const record* rec = record_of(r);
  if (rec == nullptr) return;
  if (m_qzmake_format_ != 0) {
    print_fields(rec->type, rec->u);
    return;
  }
  switch (rec->type) {
    case REC_TYPE_VOL: print_volume_longformat(*rec->vol()); break;
    case REC_TYPE_PLEX: print_plex_longformat(*rec->plex()); break;
    case REC_TYPE_SD: print_subdisk_longformat(*rec->sd()); break;
    case REC_TYPE_DM: print_diskmedia_longformat(*rec->dm()); break;
    case REC_TYPE_DG: print_diskgroup_longformat(*rec->dg()); break;
    case REC_TYPE_RVOL: print_rvol_longformat(*rec->rvol()); break;
    case REC_TYPE_REP: print_replica_longformat(*rec->rep()); break;
    case REC_TYPE_DCO: print_dco_longformat(*rec->dco()); break;
    case REC_TYPE_SNAP: print_snap_longformat(*rec->snap()); break;
    default: break;
  }
}

void record_printer::print_volume_longformat(const volrec& v) {
  idbuf rid, tid;
  guidbuf g;
  std::fprintf(out_, " Volume:   %s rid=%s update=%s", v.v_name, volridtostr(v.v_rid, rid),
               volseqnotostr(v.v_update_tid, tid));
  if (v.v_nt_mount_name != nullptr) std::fprintf(out_, " mountname=%ls", v.v_nt_mount_name);
  std::fputs("\n", out_);
  std::fprintf(out_, " info:     len=%s guid=%s\n", vofftostr(v.v_len),
               guid_text(v.v_nt_vol_guid, g));
  const bool fs = v.v_fstype[0] != '\0';
  std::fprintf(out_, " type:     parttype=%ld usetype=%s%s%s", static_cast<long>(v.v_nt_part_type),
               v.v_use_type, fs ? " fstype=" : "", fs ? v.v_fstype : "");
  if ((v.v_pflag & VOL_PF_SITE_CONFINED) != 0) std::fputs(" Site-Confined", out_);
  if ((v.v_pflag & VOL_PF_SITE_SEPARATED) != 0) std::fputs(" Site-Separated", out_);
  std::fprintf(out_, "\n state:    state=%s\n", v.v_state);
  std::fprintf(out_, " policies: read=%s", tags_.vol_sprint_field(&v, "readpol"));
  if (v.v_read_pol == VOL_RP_PREFER) {
    std::fprintf(out_, " (plex=%s)",
                 v.v_pref_name[0] != '\0' ? v.v_pref_name : volridtostr(v.v_pref_plex_rid, rid));
  }
  int col = std::fprintf(out_, "\n flags:  %x  ", static_cast<unsigned>(v.v_pflag));
  if (col < 0) col = 0;
  const bool recovering = (v.v_tflag & VOL_TF_RECOVER) != 0;
  if (v.v_read_pol == VOL_RP_RAID && recovering) {
    col += std::fprintf(out_, " recover-parity (");
    if (0 < v.v_len) {
      idbuf off;
      col += std::fprintf(out_, "offset=%s ckpoint=%s", vofftostr(0, off),
                          vofftostr(v.v_recover_checkpoint));
    } else {
      col += std::fprintf(out_, "done");
    }
    col += std::fprintf(out_, ")");
  } else if (recovering) {
    col += std::fprintf(out_, " recover (");
    if ((v.v_tflag & VOL_TF_RECOVER_OFFSET) != 0) {
      col += std::fprintf(out_, "offset=%s", vofftostr(v.v_recover_offset));
    } else {
      col += std::fprintf(out_, "done");
    }
    if (v.v_recover_checkpoint > 0) {
      col += std::fprintf(out_, " ckpoint=%s", vofftostr(v.v_recover_checkpoint));
    }
    col += std::fprintf(out_, ")");
  }
  print_flag_words(out_, v.v_pflag, vol_flag_words, std::size(vol_flag_words), col);
  print_comment(out_, v.v_comment);
  std::fputs("\n\n", out_);
}

void record_printer::print_plex_longformat(const plexrec& pl) {
  idbuf rid, tid;
  guidbuf g;
  std::fprintf(out_, " Plex:     %s rid=%s update=%s\n", pl.pl_name, volridtostr(pl.pl_rid, rid),
               volseqnotostr(pl.pl_update_tid, tid));
  if (!guid_equal(pl.pl_guid, zeroguid)) {
    std::fprintf(out_, " info      guid=%s\n", guid_text(pl.pl_guid, g));
  }
  std::fprintf(out_, " type:     layout=%s", tags_.plex_sprint_field(&pl, "layout"));
  if (pl.pl_layout == PL_LAYOUT_STRIPE || pl.pl_layout == PL_LAYOUT_RAID) {
    if (pl.pl_ncolumn != 0) std::fprintf(out_, " columns=%ld", static_cast<long>(pl.pl_ncolumn));
    std::fprintf(out_, " width=%s", vofftostr(pl.pl_st_width));
  }
  std::fprintf(out_, "\n state:    state=%s\n", pl.pl_state);
  std::fprintf(out_, " assoc:    vol=%s\n", volridtostr(pl.pl_vol_rid, rid));
  std::fputs(" flags:   ", out_);
  print_words(out_, pl.pl_pflag, plex_flag_words);
  print_comment(out_, pl.pl_comment);
  std::fputs("\n", out_);
  if (pl.pl_log_sd[0] != '\0' || rid_set(pl.pl_log_sd_rid)) {
    std::fprintf(out_, " logging:  logsd=%s\n",
                 pl.pl_log_sd[0] != '\0' ? pl.pl_log_sd : volridtostr(pl.pl_log_sd_rid, rid));
  }
  if (rid_set(pl.pl_snap_rid)) {
    std::fprintf(out_, " snap:     master_volume_rid=%s\n", volridtostr(pl.pl_snap_rid, rid));
  }
  std::fprintf(out_, " dco:      dcoplex_rid=%s\n", volridtostr(pl.pl_dcoplex_rid, rid));
  std::fputs("\n", out_);
}

void record_printer::print_subdisk_longformat(const sdrec& sd) {
  idbuf rid, tid;
  idbuf off, len;
  std::fprintf(out_, " Subdisk:  %s rid=%s updated=%s\n", sd.sd_name, volridtostr(sd.sd_rid, rid),
               volseqnotostr(sd.sd_update_tid, tid));
  std::fprintf(out_, " info:     disk=%s offset=%s len=%s hidden=%s\n",
               volridtostr(sd.sd_dm_rid, rid), vofftostr(sd.sd_dm_offset, off),
               vofftostr(sd.sd_len, len), vofftostr(sd.sd_nt_hidden_sectors));
  std::fprintf(out_, " assoc:    plex=%s", volridtostr(sd.sd_plex_rid, rid));
  if ((sd.sd_tflag & SD_TF_LOG) != 0) {
    std::fputs(" (log)", out_);
  } else {
    std::fprintf(out_, " (column=%ld offset=%s)", static_cast<long>(sd.sd_column),
                 vofftostr(sd.sd_pl_offset));
  }
  std::fputs("\n flags:   ", out_);
  print_words(out_, sd.sd_pflag, sd_flag_words);
  print_comment(out_, sd.sd_comment);
  std::fputs("\n\n", out_);
}

void record_printer::print_diskmedia_longformat(const dmrec& dm) {
  idbuf rid, tid;
  guidbuf g;
  std::fprintf(out_, " Disk:     %s rid=%s updated=%s\n", dm.dm_name, volridtostr(dm.dm_rid, rid),
               volseqnotostr(dm.dm_update_tid, tid));
  if ((dm.dm_pflag & DM_PF_REMOVED) == 0) {
    std::fprintf(out_, " assoc:    diskid=%s", dm.dm_diskid);
    if ((dm.dm_pflag & DM_PF_DETACHED) != 0) std::fputs(" detached", out_);
  } else {
    std::fputs(" assoc:    removed", out_);
  }
  if (dm.dm_nt_persistent_name != nullptr) {
    std::fprintf(out_, " lastdevice=%ls", dm.dm_nt_persistent_name);
  }
  std::fputs("\n", out_);
  if (!guid_equal(dm.dm_nt_last_diskset_id, zeroguid)) {
    std::fprintf(out_, " lastset:  id=%s\n", guid_text(dm.dm_nt_last_diskset_id, g));
  }
  std::fputs(" flags:   ", out_);
  print_words(out_, dm.dm_pflag, dm_flag_words);
  print_comment(out_, dm.dm_comment);
  std::fputs("\n\n", out_);
}

void record_printer::print_diskgroup_longformat(const dgrec& dg) {
  idbuf rid, tid;
  guidbuf g;
  std::fprintf(out_, " Group:    %s rid=%s version=%d update=%s\n", dg.dg_real_name,
               volridtostr(dg.dg_rid, rid), static_cast<int>(dg.dg_version),
               volseqnotostr(dg.dg_update_tid, tid));
  std::fprintf(out_, " id:       dgid=%s\n", dg.dg_dgid);
  std::fprintf(out_, " diskset:  id=%s\n", guid_text(dg.dg_nt_diskset_id, g));
  std::fputs(" copies:  ", out_);
  if (dg.dg_nconfig >= 1) {
    std::fprintf(out_, " nconfig=%ld", static_cast<long>(dg.dg_nconfig));
  } else {
    std::fprintf(out_, " nconfig=%s", dg.dg_nconfig == 0 ? "default" : "all");
  }
  if (dg.dg_nlog >= 1) {
    std::fprintf(out_, " nlog=%ld\n", static_cast<long>(dg.dg_nlog));
  } else {
    std::fprintf(out_, " nlog=%s\n", dg.dg_nlog == 0 ? "default" : "all");
  }
  std::fprintf(out_, " minors:   >= %lu\n", static_cast<unsigned long>(dg.dg_base_minor));
  if (dg.dg_comment[0] != '\0') std::fprintf(out_, " comment:  %s\n", dg.dg_comment);
  std::fputs("\n", out_);
}

void record_printer::print_rvol_longformat(const rvolrec& rv) {
  idbuf rid, tid;
  std::fprintf(out_, " RVOL:     %s rid=%s update=%s\n", rv.rv_name, volridtostr(rv.rv_rid, rid),
               volseqnotostr(rv.rv_update_tid, tid));
  std::fputs("\n", out_);
}

void record_printer::print_replica_longformat(const reprec& rp) {
  idbuf rid, tid;
  std::fprintf(out_, " REPLICA:  %s rid=%s update=%s\n", rp.rp_name, volridtostr(rp.rp_rid, rid),
               volseqnotostr(rp.rp_update_tid, tid));
  std::fputs("\n", out_);
}

void record_printer::print_dco_longformat(const dcorec& dco) {
  idbuf rid, tid;
  std::fprintf(out_, " DCO:     %s rid=%s update=%s\n", dco.dco_log_name,
               volridtostr(dco.dco_rid, rid), volseqnotostr(dco.dco_update_tid, tid));
  std::fprintf(out_, " assoc:    log_rid=%s,  parent_rid=%s \n", volridtostr(dco.dco_log_vol, rid),
               volridtostr(dco.dco_parent_vol, tid));
  std::fputs("\n", out_);
}

void record_printer::print_snap_longformat(const snaprec& sp) {
  idbuf rid, tid;
  guidbuf g;
  std::fprintf(out_, " SNAP:     %s rid=%s update=%s\n", sp.sp_name, volridtostr(sp.sp_rid, rid),
               volseqnotostr(sp.sp_update_tid, tid));
  std::fprintf(out_, " assoc:    dco_rid=%s\n", volridtostr(sp.sp_dco_rid, rid));
  std::fprintf(out_, " spguid: %s\n", guid_text(sp.sp_guid, g));
  std::fprintf(out_, " volguid: %s\n", guid_text(sp.sp_vol_guid, g));
  std::fprintf(out_, " snapvolguid: %s\n", guid_text(sp.sp_snap_volguid, g));
  std::fprintf(out_, " plexguid: %s\n", guid_text(sp.sp_plex_guid, g));
  std::fputs("\n", out_);
}

// The field-list form, selected by an option this tool never sets: every
// entry of the kind's tag table as "  name=value", one per line.
void record_printer::print_fields(int type, const void* u) {
  std::span<const voltagdesc> table;
  switch (type) {
    case REC_TYPE_VOL: table = vtagdesc(); break;
    case REC_TYPE_PLEX: table = ptagdesc(); break;
    case REC_TYPE_SD: table = stagdesc(); break;
    case REC_TYPE_DM: table = mtagdesc(); break;
    case REC_TYPE_DG: table = gtagdesc(); break;
    default: return;
  }
  for (const voltagdesc& d : table) {
    if (d.type == TAG_NOOP) continue;
    std::fprintf(out_, "  %s=%s\n", d.name, tags_.field_sprint(u, d));
  }
}

}  // namespace pd
