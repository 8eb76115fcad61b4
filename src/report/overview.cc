// The configuration report: lists, hierarchy view, findings, database
// header, block map and the record details, in the report's fixed order.
#include "report/overview.h"

#include <cstring>

#include "base/errors.h"
#include "codec/text_forms.h"
#include "io/messages.h"
#include "report/copy_loading.h"
#include "report/overview_index.h"
#include "report/record_printer.h"

namespace pd {

namespace {

// Width of one level of the tree prefix.
constexpr int TREE_LEVEL = 4;

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

// One record-count check: "fewer" when the header counts more records than
// were found, "more" when it counts fewer.
void print_count_check(FILE* out, int cnt, const char* what) {
  if (cnt > 0) {
    std::fprintf(out, "!!Database has %d fewer %s record(s) than header does.!!\n", cnt, what);
  } else if (cnt < 0) {
    std::fprintf(out, "!!Database has %d more %s record(s) than header does.!!\n",
                 wrapping_sub(0, cnt), what);
  }
}

void print_block_map(FILE* out, const dbase* db, int showfree) {
  if (showfree != 0) {
    for (std::size_t b = 0; b < db->ddb_nblocks; ++b) {
      print_block(out, db, b, &ddb_block(db, b), showfree);
    }
    return;
  }
  // Blocks the store never touched are free and print nothing.
  for (std::size_t b = ddb_block_next(db, 0); b != DDB_NOBLOCK && b < db->ddb_nblocks;
       b = ddb_block_next(db, b + 1)) {
    print_block(out, db, b, &ddb_block(db, b), showfree);
  }
}

// The subdisks of sdlist that belong to the plex of node `pn`.
void attach_subdisks(overview_state& st, sview* pn, const plexrec* pl) {
  reclist* s = st.sdlist;
  while (s != nullptr) {
    if (seqno_equal(record_of(s->r)->sd()->sd_plex_rid, pl->pl_rid)) {
      pn->diff = wrapping_sub(pn->diff, 1);
      addchild(pn, st.pool.new_sview(s->r, 0));
      listdelete(&st.sdlist, &s);
    }
    s = s != nullptr ? s->next : st.sdlist;
  }
}

// The plexes of plexlist that belong to the volume of node `vn`.
void attach_plexes(overview_state& st, sview* vn, const volrec* vol) {
  reclist* p = st.plexlist;
  while (p != nullptr) {
    const plexrec* pl = record_of(p->r)->plex();
    if (seqno_equal(pl->pl_vol_rid, vol->v_rid)) {
      vn->diff = wrapping_sub(vn->diff, 1);
      // A plex is always expected to have at least one subdisk.
      const int expected = pl->pl_sd_num == 0 ? 1 : static_cast<int>(pl->pl_sd_num);
      sview* pn = st.pool.new_sview(p->r, expected);
      addchild(vn, pn);
      listdelete(&st.plexlist, &p);
      attach_subdisks(st, pn, pl);
    }
    p = p != nullptr ? p->next : st.plexlist;
  }
}

}  // namespace

void print_duplicate_ids(FILE* out, const reclist* dmlist) {
  for (const reclist* a = dmlist; a != nullptr; a = a->next) {
    const dmrec* da = record_of(a->r)->dm();
    for (const reclist* b = a->next; b != nullptr; b = b->next) {
      const dmrec* db = record_of(b->r)->dm();
      if (std::strcmp(da->dm_diskid, db->dm_diskid) == 0) {
        std::fprintf(out, "!! Disks %s and %s have duplicate id: %s !!\n\n", da->dm_name,
                     db->dm_name, da->dm_diskid);
      }
    }
  }
}

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

void listadd(node_pool& pool, reclist** head, db_record* r) {
  reclist* node = pool.new_reclist(r);
  const char* name = rec_name(r);
  if (*head == nullptr || std::strcmp(rec_name((*head)->r), name) > 0) {
    node->next = *head;
    *head = node;
    return;
  }
  reclist* cur = *head;
  while (cur->next != nullptr && std::strcmp(rec_name(cur->next->r), name) < 0) cur = cur->next;
  node->next = cur->next;
  cur->next = node;
}

void listdelete(reclist** head, reclist** p) {
  if (*p == *head) {
    *head = (*p)->next;
    *p = nullptr;  // the node goes back to the pool
    return;
  }
  reclist* q = *head;
  while (q != nullptr && q->next != *p) q = q->next;
  if (q == nullptr) return;
  q->next = (*p)->next;
  *p = q;
}

void listprint(FILE* out, const reclist* head) {
  for (; head != nullptr; head = head->next) std::fprintf(out, "    %s\n", rec_name(head->r));
}

void listprintrecord(record_printer& pr, dbase* db, const reclist* head) {
  for (; head != nullptr; head = head->next) pr.print_record(db, head->r);
}

void addchild(sview* p, sview* c) {
  if (p->dlink == nullptr) {
    p->dlink = c;
    return;
  }
  sview* last = p->dlink;
  while (last->rlink != nullptr) last = last->rlink;
  last->rlink = c;
}

void tree_printer::printsview(const sview* p, int ilen) {
  for (;;) {
    // The root of a copy without a disk-group record has no line.
    if (p->r != nullptr) {
      const char* name = rec_name(p->r);
      if (p->diff == 0) {
        std::fprintf(out_, "%s%s", indent_, name);
        printsviewrecordinfo(out_, p->r);
      } else if (p->diff > 0) {
        std::fprintf(out_, "%s%s !!%d missing child(ren)!!\n", indent_, name, p->diff);
      } else {
        std::fprintf(out_, "%s%s !!%d extra child(ren)!!\n", indent_, name,
                     wrapping_sub(0, p->diff));
      }
    }
    if (p->rlink == nullptr && ilen != 0) std::memset(indent_ + ilen - TREE_LEVEL, ' ', TREE_LEVEL);
    if (p->dlink != nullptr) {
      if (ilen != 0) std::memset(indent_ + ilen - 3, ' ', 3);
      std::strcat(indent_, "|---");
      printsview(p->dlink, ilen + TREE_LEVEL);
      indent_[ilen] = '\0';
      if (ilen != 0) std::memcpy(indent_ + ilen - 3, "---", 3);
    }
    if (p->rlink == nullptr || ilen == 0) return;
    // A line of the vertical bars down to this level's "|".
    indent_[ilen - 3] = '\0';
    std::fprintf(out_, "%s\n", indent_);
    indent_[ilen - 3] = '-';
    p = p->rlink;
  }
}

void printsviewrecordinfo(FILE* out, const db_record* r) {
  const record* rec = record_of(r);
  voff_t len = 0;
  bool sized = false;
  if (rec != nullptr && rec->type == REC_TYPE_VOL) {
    len = rec->vol()->v_len;
    sized = true;
  } else if (rec != nullptr && rec->type == REC_TYPE_SD) {
    len = rec->sd()->sd_len;
    sized = true;
  }
  if (sized) {
    char lenbuf[24];
    std::fprintf(out, "   (%s/%sMB)", vofftostr(len, lenbuf), vofftostr(len / 2048));
  }
  std::fputs("\n", out);
}

void printsviewrecord(record_printer& pr, dbase* db, const sview* p) {
  for (; p != nullptr; p = p->rlink) {
    if (p->r != nullptr) pr.print_record(db, p->r);
    if (p->dlink != nullptr) printsviewrecord(pr, db, p->dlink);
  }
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
  if (blkno < db->ddb_hdrsize / db->ddb_blksize) return;
  if (b->dbb_record == nullptr && b->dbb_flag == 0) {
    if (showfree != 0) std::fprintf(out, "#Block %4lu: free\n", static_cast<unsigned long>(blkno));
    return;
  }
  // "#Block %4lu: " and the rest of the line, in one call.
  if (b->dbb_record != nullptr) {
    std::fprintf(out, "#Block %4lu: flag=0x%04x ref=%-4lu offset=%-4lu frag_size=%-4lu\n",
                 static_cast<unsigned long>(blkno), static_cast<unsigned>(b->dbb_flag),
                 b->dbb_record->dbr_ref, static_cast<unsigned long>(b->dbb_offset),
                 static_cast<unsigned long>(b->dbb_frag_size));
  } else {
    std::fprintf(out, "#Block %4lu: flag=0x%04x\n", static_cast<unsigned long>(blkno),
                 static_cast<unsigned>(b->dbb_flag));
  }
}

void overview_collect(FILE* out, dbase* db, overview_state& st) {
  dbrec_iter it;
  dbrlist_iter(&it, db);
  while (db_record* r = dbrlist_next(&it)) {
    const record* rec = record_of(r);
    if (rec == nullptr) {
      std::fprintf(out, "!! Corrupted ref=%d, 1st block=%d !!\n\n", static_cast<int>(r->dbr_ref),
                   static_cast<int>(r->dbr_first_blkno));
      listadd(st.pool, &st.otherlist, r);
      continue;
    }
    switch (rec->type) {
      case REC_TYPE_VOL:
        st.v_cnt = wrapping_sub(st.v_cnt, 1);
        listadd(st.pool, &st.vollist, r);
        break;
      case REC_TYPE_PLEX:
        st.pl_cnt = wrapping_sub(st.pl_cnt, 1);
        listadd(st.pool, &st.plexlist, r);
        break;
      case REC_TYPE_SD:
        st.sd_cnt = wrapping_sub(st.sd_cnt, 1);
        listadd(st.pool, &st.sdlist, r);
        break;
      case REC_TYPE_DM:
        st.dm_cnt = wrapping_sub(st.dm_cnt, 1);
        listadd(st.pool, &st.dmlist, r);
        break;
      case REC_TYPE_DG:
        if (st.dglist != nullptr) std::fputs("\n!!! ERROR: EXTRA DG RECORD !!!\n\n", out);
        listadd(st.pool, &st.dglist, r);
        break;
      default: listadd(st.pool, &st.otherlist, r); break;
    }
  }
}

void overview_build_tree(overview_state& st) {
  st.root = st.pool.new_sview(st.dglist != nullptr ? st.dglist->r : nullptr, 0);
  reclist* v = st.vollist;
  while (v != nullptr) {
    const volrec* vol = record_of(v->r)->vol();
    sview* vn = st.pool.new_sview(v->r, static_cast<int>(vol->v_pl_num));
    addchild(st.root, vn);
    listdelete(&st.vollist, &v);
    attach_plexes(st, vn, vol);
    v = v != nullptr ? v->next : st.vollist;
  }
}

int config_report::configcopy_eof() {
  if (configcopy_eof_called != 0) return 1;
  configcopy_eof_called = 1;
  const int res = lastres;
  if (db->ddb_hdrsize == 0) {
    volpfmt(s, s.err, 1, ":668:Header not found\n");
    throw fatal_exit{1};
  }
  const auto dbsize = static_cast<std::int64_t>(db->ddb_nblocks * db->ddb_blksize);
  if (dbsize > lastoffset && res == 0) {
    volpfmt(s, s.err, 1, ":894:Premature EOF; %ld bytes expected\n", static_cast<long>(dbsize));
  }
  overview_state& st = view;
  st.v_cnt = static_cast<int>(hdrinfo.vdbi_config_sum.vs_v_cnt);
  st.pl_cnt = static_cast<int>(hdrinfo.vdbi_config_sum.vs_pl_cnt);
  st.sd_cnt = static_cast<int>(hdrinfo.vdbi_config_sum.vs_sd_cnt);
  st.dm_cnt = static_cast<int>(hdrinfo.vdbi_config_sum.vs_dm_cnt);
  FILE* out = s.out;
  if (st.direct) {
    overview_collect(out, db, st);
    overview_build_tree(st);
  } else {
    overview_build_indexed(out, db, st);
  }

  std::fputs("========== Configuration Overview ========\n\n", out);
  if (st.root->r == nullptr) std::fputs(NO_DG_FINDING, out);
  tree_printer(out).printsview(st.root, 0);
  std::fputs("\nOther records:\n", out);
  listprint(out, st.dmlist);
  if (st.direct) {
    print_duplicate_ids(out, st.dmlist);
  } else {
    print_duplicate_ids_indexed(out, st.dmlist);
  }
  listprint(out, st.vollist);
  listprint(out, st.plexlist);
  listprint(out, st.sdlist);
  listprint(out, st.otherlist);

  std::fputs("\n========== Configuration Details ========\n\n", out);
  print_header(out, db, &hdrinfo);
  std::fputs("#\n", out);
  print_count_check(out, st.v_cnt, "volume");
  print_count_check(out, st.pl_cnt, "plex");
  print_count_check(out, st.sd_cnt, "subdisk");
  print_count_check(out, st.dm_cnt, "dm");
  print_block_map(out, db, s.f_show_free);
  std::fputs("#\n", out);

  record_printer pr(out, max_tid, s.m_qzmake_format);
  if (st.direct) {
    printsviewrecord(pr, db, st.root);
    listprintrecord(pr, db, st.dmlist);
    listprintrecord(pr, db, st.vollist);
    listprintrecord(pr, db, st.plexlist);
    listprintrecord(pr, db, st.sdlist);
    listprintrecord(pr, db, st.otherlist);
  } else {
    print_details_indexed(pr, db, st);
  }

  const auto above =
      static_cast<std::int64_t>(seqno_value(max_tid) - seqno_value(hdrinfo.vdbi_config_tid));
  if (above > 0) {
    std::fprintf(out, "\n!!Database has a higher tid %s than header does.!!\n",
                 volseqnotostr(max_tid));
  }
  return 1;
}

}  // namespace pd
