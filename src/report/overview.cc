// The configuration report: lists, hierarchy view, findings, database
// header, block map and the record details, in the report's fixed order.
#include "report/overview.h"

#include <cstddef>
#include <cstring>
#include <string>

#include <algorithm>

#include "codec/text_forms.h"
#include "io/out_buffer.h"
#include "report/copy_loading.h"
#include "report/overview_index.h"
#include "report/record_printer.h"

namespace pd {

const char* commit_state_word(unsigned state) {
  switch (state) {
    case VDBI_CLEAN: return "CLEAN";
    case VDBI_CHANGE: return "CHANGE";
    case VDBI_COMMIT: return "COMMIT";
    case VDBI_ABORT: return "ABORT";
    case VDBI_NEW: return "NEW";
    case VDBI_STALE: return "STALE";
    case VDBI_OFFLINE: return "OFFLINE";
    default: return "[BAD-STATE]";
  }
}

namespace {

// Width of one level of the tree prefix.
constexpr int TREE_LEVEL = 4;

void print_block_map(FILE* out, const dbase* db, int showfree) {
  out_buffer ob(out, std::size_t{1} << 18);
  if (showfree != 0) {
    for (std::size_t b = 0; b < db->ddb_nblocks; ++b) {
      print_block(ob, db, b, &ddb_block(db, b), showfree);
    }
    return;
  }
  // Blocks the store never touched are free and print nothing.
  for (std::size_t b = ddb_block_next(db, 0); b != DDB_NOBLOCK && b < db->ddb_nblocks;
       b = ddb_block_next(db, b + 1)) {
    print_block(ob, db, b, &ddb_block(db, b), showfree);
  }
}

}  // namespace

const char* rec_name(const db_record* r) {
  const record* rec = record_of(r);
  return rec != nullptr ? rec->name : "";
}

reclist* node_pool::new_reclist(db_record* r) {
  reclist* n = lists.make();
  n->r = r;
  return n;
}

sview* node_pool::new_sview(db_record* r, int diff) {
  sview* n = views.make();
  n->r = r;
  n->diff = diff;
  return n;
}

void listprint(FILE* out, const reclist* head) {
  out_buffer ob(out);
  for (; head != nullptr; head = head->next) {
    ob.lit("    ");
    ob.puts(rec_name(head->r));
    ob.putc('\n');
  }
}

void tree_printer::printsview(const sview* p, int ilen) {
  walk(p, ilen);
  ob_.flush();
}

void tree_printer::walk(const sview* p, int ilen) {
  for (;;) {
    // The root of a copy without a disk-group record has no line.
    if (p->r != nullptr) {
      const char* name = rec_name(p->r);
      if (p->diff == 0) {
        ob_.puts(indent_);
        ob_.puts(name);
        printsviewrecordinfo(ob_, p->r);
      } else if (next_ != last_) {
        // The node's finding: its name and mark, after the tree's drawing.
        ob_.puts(indent_);
        ob_.flush();
        raise_finding(s_, next_->f);
        ++next_;
      }
    }
    if (p->rlink == nullptr && ilen != 0) std::memset(indent_ + ilen - TREE_LEVEL, ' ', TREE_LEVEL);
    if (p->dlink != nullptr) {
      if (ilen != 0) std::memset(indent_ + ilen - 3, ' ', 3);
      std::strcat(indent_, "|---");
      walk(p->dlink, ilen + TREE_LEVEL);
      indent_[ilen] = '\0';
      if (ilen != 0) std::memcpy(indent_ + ilen - 3, "---", 3);
    }
    if (p->rlink == nullptr || ilen == 0) return;
    // A line of the vertical bars down to this level's "|".
    indent_[ilen - 3] = '\0';
    ob_.puts(indent_);
    ob_.putc('\n');
    indent_[ilen - 3] = '-';
    p = p->rlink;
  }
}

void printsviewrecordinfo(FILE* out, const db_record* r) {
  out_buffer ob(out, out_buffer::MAX_RESERVE);
  printsviewrecordinfo(ob, r);
}

void printsviewrecordinfo(out_buffer& ob, const db_record* r) {
  const record* rec = record_of(r);
  voff_t len = 0;
  bool sized = false;
  if (rec != nullptr && rec->type == REC_TYPE_VOL) {
    len = record_member<voff_t>(rec, offsetof(volrec, v_len));
    sized = true;
  } else if (rec != nullptr && rec->type == REC_TYPE_SD) {
    len = record_member<voff_t>(rec, offsetof(sdrec, sd_len));
    sized = true;
  }
  if (sized) {
    char* p = ob.reserve(64);
    p = std::copy_n("   (", 4, p);
    p = put_voff(p, len);
    *p++ = '/';
    p = put_voff(p, len / 2048);
    p = std::copy_n("MB)", 3, p);
    ob.commit(p);
  }
  ob.putc('\n');
}

void print_header(FILE* out, const dbase* db, const voldb_info* hdr) {
  std::fprintf(out, "#Header nblocks=%lu blksize=%lu hdrsize=%lu\n",
               static_cast<unsigned long>(db->ddb_nblocks),
               static_cast<unsigned long>(db->ddb_blksize),
               static_cast<unsigned long>(db->ddb_hdrsize));
  std::fprintf(out, "#flags=0x%04x (%s)\n", db->ddb_flag,
               commit_state_word(hdr->vdbi_commit_state));
  std::fprintf(out, "#version: %u/%u\n", static_cast<unsigned>(hdr->vdbi_version_major),
               static_cast<unsigned>(hdr->vdbi_version_minor));
  // The format is kept as it stands: glibc reads "I" as a flag and "64" as
  // the field width, so the low 32 bits print right-aligned in 64 columns.
#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wformat"
#pragma clang diagnostic ignored "-Wformat-invalid-specifier"
#pragma clang diagnostic ignored "-Wformat-extra-args"
#endif
  std::fprintf(out, "#timestamp: %I64u\n",
               static_cast<unsigned>(hdr->vdbi_nt_update_time & 0xFFFFFFFFu));
#if defined(__clang__)
#pragma clang diagnostic pop
#endif
  std::fprintf(out, "#dgname: %s  dgid: %s\n", hdr->vdbi_dg_name, hdr->vdbi_dg_id);
  const vol_summary& c = hdr->vdbi_config_sum;
  std::fprintf(out, "#config: tid=%s nvol=%lu nplex=%lu nsd=%lu ndm=%lu nda=%lu\n",
               volseqnotostr(hdr->vdbi_config_tid), c.vs_v_cnt, c.vs_pl_cnt, c.vs_sd_cnt,
               c.vs_dm_cnt, c.vs_da_cnt);
  const vol_summary& p = hdr->vdbi_pending_sum;
  std::fprintf(out, "#pending: tid=%s nvol=%lu nplex=%lu nsd=%lu ndm=%lu nda=%lu\n",
               volseqnotostr(hdr->vdbi_pending_tid), p.vs_v_cnt, p.vs_pl_cnt, p.vs_sd_cnt,
               p.vs_dm_cnt, p.vs_da_cnt);
}

void print_block(FILE* out, const dbase* db, std::size_t blkno, const db_block* b, int showfree) {
  out_buffer ob(out, out_buffer::MAX_RESERVE);
  print_block(ob, db, blkno, b, showfree);
}

void print_block(out_buffer& ob, const dbase* db, std::size_t blkno, const db_block* b,
                 int showfree) {
  if (blkno < db->ddb_hdrsize / db->ddb_blksize) return;
  const bool is_free = b->dbb_record == nullptr && b->dbb_flag == 0;
  if (is_free && showfree == 0) return;
  char* p = ob.reserve(160);
  p = std::copy_n("#Block ", 7, p);
  p = out_buffer::udec(p, static_cast<unsigned long>(blkno), 4);
  if (is_free) {
    p = std::copy_n(": free\n", 7, p);
    return ob.commit(p);
  }
  p = std::copy_n(": flag=0x", 9, p);
  p = out_buffer::hex(p, static_cast<unsigned>(b->dbb_flag), 4);
  if (b->dbb_record != nullptr) {
    p = std::copy_n(" ref=", 5, p);
    p = out_buffer::udec_left(p, b->dbb_record->dbr_ref, 4);
    p = std::copy_n(" offset=", 8, p);
    p = out_buffer::udec_left(p, static_cast<unsigned long>(b->dbb_offset), 4);
    p = std::copy_n(" frag_size=", 11, p);
    p = out_buffer::udec_left(p, static_cast<unsigned long>(b->dbb_frag_size), 4);
  }
  *p++ = '\n';
  ob.commit(p);
}

namespace {

// "fewer" when the header counts more records than were found, "more" when
// it counts fewer.
void count_finding(overview_state& st, finding_code code, int cnt, unsigned long claimed,
                   const char* what) {
  if (cnt == 0) return;
  finding f;
  f.code = code;
  if (cnt > 0) {
    f.text = finding_textf("!!Database has %d fewer %s record(s) than header does.!!", cnt, what);
  } else {
    f.text = finding_textf("!!Database has %d more %s record(s) than header does.!!",
                           wrapping_sub(0, cnt), what);
  }
  f.expected = std::to_string(claimed);
  f.actual = std::to_string(static_cast<unsigned>(wrapping_sub(static_cast<int>(claimed), cnt)));
  st.add(report_place::counts, std::move(f));
}

// The tree's findings, in the order the tree is printed.
void tree_findings(overview_state& st, const sview* p) {
  for (; p != nullptr; p = p->rlink) {
    if (p->r != nullptr && p->diff != 0) {
      finding f = record_finding(
          st, p->diff > 0 ? finding_code::missing_children : finding_code::extra_children, p->r);
      const int n = p->diff > 0 ? p->diff : wrapping_sub(0, p->diff);
      f.text = finding_textf("%s !!%d %s child(ren)!!", rec_name(p->r), n,
                             p->diff > 0 ? "missing" : "extra");
      st.add(report_place::tree, std::move(f));
    }
    tree_findings(st, p->dlink);
  }
}

// The update tid of a record whose long format is printed into `tid`;
// false for the other records.
bool update_tid(const db_record* r, volseqno_t& tid) {
  const record* rec = record_of(r);
  if (rec == nullptr) return false;
  std::size_t off = 0;
  switch (rec->type) {
    case REC_TYPE_VOL: off = offsetof(volrec, v_update_tid); break;
    case REC_TYPE_PLEX: off = offsetof(plexrec, pl_update_tid); break;
    case REC_TYPE_SD: off = offsetof(sdrec, sd_update_tid); break;
    case REC_TYPE_DM: off = offsetof(dmrec, dm_update_tid); break;
    default: return false;
  }
  if (rec->u == nullptr && rec->packed == nullptr) return false;
  tid = record_member<volseqno_t>(rec, off);
  return true;
}

// The later of two tids in the store's circular order: `tid` replaces
// `max` when it lies 0 to 2^63 - 1 ahead of it.
void track_tid(volseqno_t& max, const volseqno_t& tid) {
  const auto diff = static_cast<std::int64_t>(seqno_value(tid) - seqno_value(max));
  if (diff >= 0 && !seqno_equal(tid, max)) max = tid;
}

// The findings that print before each place, then those of the place.
const placed_finding* raise_at(session& s, const placed_finding* p, const placed_finding* end,
                               report_place at) {
  for (; p != end && p->at <= at; ++p) raise_finding(s, p->f);
  return p;
}

}  // namespace

finding_object finding_object_of(const db_record* r) {
  finding_object o;
  o.rtype = static_cast<int>(r->dbr_type & 15);
  if (const record* rec = record_of(r)) {
    o.rid = rec->rid;
    o.name = rec->name;
  }
  return o;
}

finding record_finding(const overview_state& st, finding_code code, const db_record* r) {
  finding f;
  f.code = code;
  f.object = finding_object_of(r);
  if (r->dbr_first_blkno != DDB_NOBLOCK) {
    f.place.block = static_cast<std::int64_t>(r->dbr_first_blkno * st.blksize / 512);
  }
  return f;
}

void collect_finding(overview_state& st, const db_record* r, bool extra_dg) {
  if (record_of(r) == nullptr) {
    finding f = record_finding(st, finding_code::corrupt_record, r);
    f.text = finding_textf("!! Corrupted ref=%d, 1st block=%d !!", static_cast<int>(r->dbr_ref),
                           static_cast<int>(r->dbr_first_blkno));
    st.add(report_place::collect, std::move(f));
  } else if (extra_dg) {
    finding f = record_finding(st, finding_code::extra_dg_record, r);
    f.text = "!!! ERROR: EXTRA DG RECORD !!!";
    st.add(report_place::collect, std::move(f));
  }
}

void add_duplicate_id(overview_state& st, const db_record* a, const db_record* b) {
  urec fa;
  urec fb;
  const auto* da = static_cast<const dmrec*>(record_fields(record_of(a), fa));
  const auto* db = static_cast<const dmrec*>(record_fields(record_of(b), fb));
  finding f = record_finding(st, finding_code::duplicate_disk_id, a);
  f.text = finding_textf("!! Disks %s and %s have duplicate id: %s !!", da->dm_name, db->dm_name,
                         da->dm_diskid);
  f.other = finding_object_of(b);
  st.add(report_place::disks, std::move(f));
}

void overview_start(overview_state& st, const dbase* db, const voldb_info& hdr) {
  st.blksize = db->ddb_blksize;
  st.v_cnt = static_cast<int>(hdr.vdbi_config_sum.vs_v_cnt);
  st.pl_cnt = static_cast<int>(hdr.vdbi_config_sum.vs_pl_cnt);
  st.sd_cnt = static_cast<int>(hdr.vdbi_config_sum.vs_sd_cnt);
  st.dm_cnt = static_cast<int>(hdr.vdbi_config_sum.vs_dm_cnt);
}

void overview_finish(overview_state& st, const voldb_info& hdr, int m_qzmake_format) {
  if (st.root->r == nullptr) {
    finding f;
    f.code = finding_code::no_dg_record;
    f.text = "!! No disk group record in configuration !!";
    st.add(report_place::tree, std::move(f));
  }
  tree_findings(st, st.root);
  const vol_summary& c = hdr.vdbi_config_sum;
  count_finding(st, finding_code::volume_count, st.v_cnt, c.vs_v_cnt, "volume");
  count_finding(st, finding_code::plex_count, st.pl_cnt, c.vs_pl_cnt, "plex");
  count_finding(st, finding_code::subdisk_count, st.sd_cnt, c.vs_sd_cnt, "subdisk");
  count_finding(st, finding_code::dm_count, st.dm_cnt, c.vs_dm_cnt, "dm");

  if (m_qzmake_format == 0) {
    volseqno_t tid;
    const std::vector<const db_record*> order = details_order(st);
    for (std::size_t i = 0; i < order.size(); ++i) {
      prefetch_details(order, i);
      if (update_tid(order[i], tid)) track_tid(st.max_tid, tid);
    }
  }
  const auto above =
      static_cast<std::int64_t>(seqno_value(st.max_tid) - seqno_value(hdr.vdbi_config_tid));
  if (above > 0) {
    finding f;
    f.code = finding_code::higher_tid;
    f.text = finding_textf("!!Database has a higher tid %s than header does.!!",
                           volseqnotostr(st.max_tid));
    f.expected = volseqnotostr(hdr.vdbi_config_tid);
    f.actual = volseqnotostr(st.max_tid);
    st.add(report_place::end, std::move(f));
  }
  std::stable_sort(st.findings.begin(), st.findings.end(),
                   [](const placed_finding& a, const placed_finding& b) { return a.at < b.at; });
}

void overview_analyse(overview_state& st, dbase* db, const voldb_info& hdr, int m_qzmake_format) {
  overview_start(st, db, hdr);
  overview_build_indexed(db, st);
  find_duplicate_ids(st);
  overview_finish(st, hdr, m_qzmake_format);
}

void print_overview(session& s, dbase* db, const voldb_info& hdr, const overview_state& st) {
  FILE* out = s.out;
  const placed_finding* next = st.findings.data();
  const placed_finding* const end = next + st.findings.size();
  next = raise_at(s, next, end, report_place::collect);

  std::fputs("========== Configuration Overview ========\n\n", out);
  if (next != end && next->f.code == finding_code::no_dg_record) raise_finding(s, (next++)->f);
  const placed_finding* tree_end = next;
  while (tree_end != end && tree_end->at == report_place::tree) ++tree_end;
  tree_printer(s, next, tree_end).printsview(st.root, 0);
  next = tree_end;
  std::fputs("\nOther records:\n", out);
  listprint(out, st.dmlist);
  next = raise_at(s, next, end, report_place::disks);
  listprint(out, st.vollist);
  listprint(out, st.plexlist);
  listprint(out, st.sdlist);
  listprint(out, st.otherlist);

  std::fputs("\n========== Configuration Details ========\n\n", out);
  print_header(out, db, &hdr);
  std::fputs("#\n", out);
  next = raise_at(s, next, end, report_place::counts);
  print_block_map(out, db, s.f_show_free);
  std::fputs("#\n", out);

  record_printer pr(out, s.m_qzmake_format);
  pr.hold();
  print_details_indexed(pr, db, details_order(st));
  pr.release();
  raise_at(s, next, end, report_place::end);
}

void raise_overview_findings(session& s, const overview_state& st) {
  for (const placed_finding& p : st.findings) raise_finding(s, p.f);
}

}  // namespace pd
