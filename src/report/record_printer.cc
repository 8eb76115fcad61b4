// Long-format printing of one configuration record: the frame from the
// block store, then the block of labelled lines of the record's kind.
//
// Record ids and tids share one static text buffer in the converters, so
// every line that prints two of them passes buffers of its own.
#include "report/record_printer.h"

#include <cstdint>
#include <cstring>
#include <algorithm>

#include "codec/text_forms.h"
#include "io/out_buffer.h"
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
void print_words(out_buffer& ob, unsigned long flags, std::span<const flag_word> words) {
  for (const flag_word& w : words) {
    if ((flags & w.bit) != 0) ob.puts(w.word);
  }
}

void print_comment(out_buffer& ob, const char* comment) {
  if (comment[0] != '\0') {
    ob.lit("\n comment:  ");
    ob.puts(comment);
  }
}

void put_id(out_buffer& ob, const volseqno_t& id) { ob.commit(put_seqno(ob.reserve(24), id)); }
void put_off(out_buffer& ob, voff_t v) { ob.commit(put_voff(ob.reserve(24), v)); }
void put_guid_text(out_buffer& ob, const voldguid_t& g) {
  ob.commit(put_guid(ob.reserve(40), g));
}

// "<label><name> rid=<rid> <tidlabel><tid>", the first line of most kinds.
void put_title(out_buffer& ob, const char* label, const char* name, const volrid_t& rid,
               const char* tidlabel, const volseqno_t& tid) {
  ob.puts(label);
  ob.puts(name);
  ob.lit(" rid=");
  put_id(ob, rid);
  ob.puts(tidlabel);
  put_id(ob, tid);
}

// Counts what goes through it, for the column of the volume's flag words.
struct counted {
  out_buffer& ob;
  int col;
  void puts(const char* s) {
    ob.puts(s);
    col += static_cast<int>(std::strlen(s));
  }
  void off(voff_t v) {
    char* p = ob.reserve(24);
    char* e = put_voff(p, v);
    col += static_cast<int>(e - p);
    ob.commit(e);
  }
};

}  // namespace

int print_flag_words(out_buffer& ob, unsigned long flags, const flag_word* words, std::size_t n,
                     int col) {
  for (std::size_t i = 0; i < n; ++i) {
    if ((flags & words[i].bit) == 0) continue;
    const int len = static_cast<int>(std::strlen(words[i].word));
    if (col + len + 1 > FLAG_WRAP_COLUMN) {
      ob.lit("\n         ");
      col = 9;
    }
    ob.putc(' ');
    ob.puts(words[i].word);
    col += len + 1;
  }
  return col;
}

int print_flag_words(FILE* out, unsigned long flags, const flag_word* words, std::size_t n,
                     int col) {
  out_buffer ob(out, out_buffer::MAX_RESERVE);
  return print_flag_words(ob, flags, words, n, col);
}

void record_printer::print_record(const dbase* db, const db_record* r) {
  char* p = ob_.reserve(160);
  p = std::copy_n("#Record ", 8, p);
  p = out_buffer::udec(p, static_cast<unsigned long>(r->dbr_ref), 4);
  p = std::copy_n(": type=0x", 9, p);
  p = out_buffer::hex(p, static_cast<unsigned>(r->dbr_type), 4);
  p = std::copy_n(" flags=0x", 9, p);
  p = out_buffer::hex(p, static_cast<unsigned>(r->dbr_flag), 4);
  p = std::copy_n(" gen_flags=0x", 13, p);
  p = out_buffer::hex(p, static_cast<unsigned>(r->dbr_gen_flag), 4);
  p = std::copy_n(" size=", 6, p);
  p = out_buffer::udec(p, static_cast<unsigned long>(r->dbr_size), 0);
  p = std::copy_n("\n#Blocks:", 9, p);
  ob_.commit(p);
  // The store links each block at most once; the bound only guards the walk.
  std::size_t steps = 0;
  for (std::size_t b = r->dbr_first_blkno; b < db->ddb_nblocks && steps < db->ddb_nblocks;
       b = ddb_block(db, b).dbb_next_blkno, ++steps) {
    p = ob_.reserve(24);
    *p++ = ' ';
    ob_.commit(out_buffer::udec(p, static_cast<unsigned long>(b), 0));
  }
  ob_.putc('\n');
  const record* rec = record_of(r);
  if (rec == nullptr) return done();
  const void* u = record_fields(rec, *scratch_);
  if (m_qzmake_format_ != 0) {
    print_fields(rec->type, u);
    return done();
  }
  switch (rec->type) {
    case REC_TYPE_VOL: print_volume_longformat(*static_cast<const volrec*>(u)); break;
    case REC_TYPE_PLEX: print_plex_longformat(*static_cast<const plexrec*>(u)); break;
    case REC_TYPE_SD: print_subdisk_longformat(*static_cast<const sdrec*>(u)); break;
    case REC_TYPE_DM: print_diskmedia_longformat(*static_cast<const dmrec*>(u)); break;
    case REC_TYPE_DG: print_diskgroup_longformat(*static_cast<const dgrec*>(u)); break;
    case REC_TYPE_RVOL: print_rvol_longformat(*static_cast<const rvolrec*>(u)); break;
    case REC_TYPE_REP: print_replica_longformat(*static_cast<const reprec*>(u)); break;
    case REC_TYPE_DCO: print_dco_longformat(*static_cast<const dcorec*>(u)); break;
    case REC_TYPE_SNAP: print_snap_longformat(*static_cast<const snaprec*>(u)); break;
    default: break;
  }
  done();
}

void record_printer::print_volume_longformat(const volrec& v) {
  out_buffer& ob = ob_;
  put_title(ob, " Volume:   ", v.v_name, v.v_rid, " update=", v.v_update_tid);
  if (v.v_nt_mount_name != nullptr) {
    std::fprintf(ob.stream(), " mountname=%ls", v.v_nt_mount_name);
  }
  ob.lit("\n info:     len=");
  put_off(ob, v.v_len);
  ob.lit(" guid=");
  put_guid_text(ob, v.v_nt_vol_guid);
  ob.lit("\n type:     parttype=");
  ob.put_dec(static_cast<long>(v.v_nt_part_type));
  ob.lit(" usetype=");
  ob.puts(v.v_use_type);
  if (v.v_fstype[0] != '\0') {
    ob.lit(" fstype=");
    ob.puts(v.v_fstype);
  }
  if ((v.v_pflag & VOL_PF_SITE_CONFINED) != 0) ob.lit(" Site-Confined");
  if ((v.v_pflag & VOL_PF_SITE_SEPARATED) != 0) ob.lit(" Site-Separated");
  ob.lit("\n state:    state=");
  ob.puts(v.v_state);
  ob.lit("\n policies: read=");
  ob.puts(tags_.vol_sprint_field(&v, "readpol"));
  if (v.v_read_pol == VOL_RP_PREFER) {
    ob.lit(" (plex=");
    if (v.v_pref_name[0] != '\0') {
      ob.puts(v.v_pref_name);
    } else {
      put_id(ob, v.v_pref_plex_rid);
    }
    ob.putc(')');
  }
  ob.lit("\n flags:  ");
  counted c{ob, 10};  // the newline counts, as in the column printf returned
  {
    char* p = ob.reserve(24);
    char* e = out_buffer::hex(p, static_cast<unsigned>(v.v_pflag), 0);
    c.col += static_cast<int>(e - p);
    ob.commit(e);
  }
  c.puts("  ");
  const bool recovering = (v.v_tflag & VOL_TF_RECOVER) != 0;
  if (v.v_read_pol == VOL_RP_RAID && recovering) {
    c.puts(" recover-parity (");
    if (0 < v.v_len) {
      c.puts("offset=");
      c.off(0);
      c.puts(" ckpoint=");
      c.off(v.v_recover_checkpoint);
    } else {
      c.puts("done");
    }
    c.puts(")");
  } else if (recovering) {
    c.puts(" recover (");
    if ((v.v_tflag & VOL_TF_RECOVER_OFFSET) != 0) {
      c.puts("offset=");
      c.off(v.v_recover_offset);
    } else {
      c.puts("done");
    }
    if (v.v_recover_checkpoint > 0) {
      c.puts(" ckpoint=");
      c.off(v.v_recover_checkpoint);
    }
    c.puts(")");
  }
  print_flag_words(ob, v.v_pflag, vol_flag_words, std::size(vol_flag_words), c.col);
  print_comment(ob, v.v_comment);
  ob.lit("\n\n");
  done();
}

void record_printer::print_plex_longformat(const plexrec& pl) {
  out_buffer& ob = ob_;
  put_title(ob, " Plex:     ", pl.pl_name, pl.pl_rid, " update=", pl.pl_update_tid);
  ob.putc('\n');
  if (!guid_equal(pl.pl_guid, zeroguid)) {
    ob.lit(" info      guid=");
    put_guid_text(ob, pl.pl_guid);
    ob.putc('\n');
  }
  ob.lit(" type:     layout=");
  ob.puts(tags_.plex_sprint_field(&pl, "layout"));
  if (pl.pl_layout == PL_LAYOUT_STRIPE || pl.pl_layout == PL_LAYOUT_RAID) {
    if (pl.pl_ncolumn != 0) {
      ob.lit(" columns=");
      ob.put_dec(static_cast<long>(pl.pl_ncolumn));
    }
    ob.lit(" width=");
    put_off(ob, pl.pl_st_width);
  }
  ob.lit("\n state:    state=");
  ob.puts(pl.pl_state);
  ob.lit("\n assoc:    vol=");
  put_id(ob, pl.pl_vol_rid);
  ob.lit("\n flags:   ");
  print_words(ob, pl.pl_pflag, plex_flag_words);
  print_comment(ob, pl.pl_comment);
  ob.putc('\n');
  if (pl.pl_log_sd[0] != '\0' || rid_set(pl.pl_log_sd_rid)) {
    ob.lit(" logging:  logsd=");
    if (pl.pl_log_sd[0] != '\0') {
      ob.puts(pl.pl_log_sd);
    } else {
      put_id(ob, pl.pl_log_sd_rid);
    }
    ob.putc('\n');
  }
  if (rid_set(pl.pl_snap_rid)) {
    ob.lit(" snap:     master_volume_rid=");
    put_id(ob, pl.pl_snap_rid);
    ob.putc('\n');
  }
  ob.lit(" dco:      dcoplex_rid=");
  put_id(ob, pl.pl_dcoplex_rid);
  ob.lit("\n\n");
  done();
}

void record_printer::print_subdisk_longformat(const sdrec& sd) {
  out_buffer& ob = ob_;
  put_title(ob, " Subdisk:  ", sd.sd_name, sd.sd_rid, " updated=", sd.sd_update_tid);
  ob.lit("\n info:     disk=");
  put_id(ob, sd.sd_dm_rid);
  ob.lit(" offset=");
  put_off(ob, sd.sd_dm_offset);
  ob.lit(" len=");
  put_off(ob, sd.sd_len);
  ob.lit(" hidden=");
  put_off(ob, sd.sd_nt_hidden_sectors);
  ob.lit("\n assoc:    plex=");
  put_id(ob, sd.sd_plex_rid);
  if ((sd.sd_tflag & SD_TF_LOG) != 0) {
    ob.lit(" (log)");
  } else {
    ob.lit(" (column=");
    ob.put_dec(static_cast<long>(sd.sd_column));
    ob.lit(" offset=");
    put_off(ob, sd.sd_pl_offset);
    ob.putc(')');
  }
  ob.lit("\n flags:   ");
  print_words(ob, sd.sd_pflag, sd_flag_words);
  print_comment(ob, sd.sd_comment);
  ob.lit("\n\n");
  done();
}

void record_printer::print_diskmedia_longformat(const dmrec& dm) {
  out_buffer& ob = ob_;
  put_title(ob, " Disk:     ", dm.dm_name, dm.dm_rid, " updated=", dm.dm_update_tid);
  if ((dm.dm_pflag & DM_PF_REMOVED) == 0) {
    ob.lit("\n assoc:    diskid=");
    ob.puts(dm.dm_diskid);
    if ((dm.dm_pflag & DM_PF_DETACHED) != 0) ob.lit(" detached");
  } else {
    ob.lit("\n assoc:    removed");
  }
  if (dm.dm_nt_persistent_name != nullptr) {
    std::fprintf(ob.stream(), " lastdevice=%ls", dm.dm_nt_persistent_name);
  }
  ob.putc('\n');
  if (!guid_equal(dm.dm_nt_last_diskset_id, zeroguid)) {
    ob.lit(" lastset:  id=");
    put_guid_text(ob, dm.dm_nt_last_diskset_id);
    ob.putc('\n');
  }
  ob.lit(" flags:   ");
  print_words(ob, dm.dm_pflag, dm_flag_words);
  print_comment(ob, dm.dm_comment);
  ob.lit("\n\n");
  done();
}

// The kinds below are rare in a copy: printed through the stream itself.

void record_printer::print_diskgroup_longformat(const dgrec& dg) {
  FILE* const out_ = ob_.stream();
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
  FILE* const out_ = ob_.stream();
  idbuf rid, tid;
  std::fprintf(out_, " RVOL:     %s rid=%s update=%s\n", rv.rv_name, volridtostr(rv.rv_rid, rid),
               volseqnotostr(rv.rv_update_tid, tid));
  std::fputs("\n", out_);
}

void record_printer::print_replica_longformat(const reprec& rp) {
  FILE* const out_ = ob_.stream();
  idbuf rid, tid;
  std::fprintf(out_, " REPLICA:  %s rid=%s update=%s\n", rp.rp_name, volridtostr(rp.rp_rid, rid),
               volseqnotostr(rp.rp_update_tid, tid));
  std::fputs("\n", out_);
}

void record_printer::print_dco_longformat(const dcorec& dco) {
  FILE* const out_ = ob_.stream();
  idbuf rid, tid;
  std::fprintf(out_, " DCO:     %s rid=%s update=%s\n", dco.dco_log_name,
               volridtostr(dco.dco_rid, rid), volseqnotostr(dco.dco_update_tid, tid));
  std::fprintf(out_, " assoc:    log_rid=%s,  parent_rid=%s \n", volridtostr(dco.dco_log_vol, rid),
               volridtostr(dco.dco_parent_vol, tid));
  std::fputs("\n", out_);
}

void record_printer::print_snap_longformat(const snaprec& sp) {
  FILE* const out_ = ob_.stream();
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
  FILE* const out_ = ob_.stream();
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
