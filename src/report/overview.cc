// The configuration report: lists, hierarchy view, findings, database
// header, block map and the record details, in the report's fixed order.
#include "report/overview.h"

#include <cstring>
#include <deque>
#include <map>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/errors.h"
#include "codec/text_forms.h"
#include "driver/messages.h"
#include "report/copy_loading.h"
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

// The record counters start from the header's claims, any 32-bit value, and
// wrap as 32-bit two's complement integers.
int wrapping_sub(int a, int b) {
  return static_cast<int>(static_cast<unsigned>(a) - static_cast<unsigned>(b));
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

// Every pair (A, B) of disks with equal ids, B after A in list order, in
// the order of a nested walk over the list, found through an index by id so
// that the cost follows the pairs printed rather than the square of the list.
void print_duplicate_ids(FILE* out, const reclist* dmlist) {
  std::vector<const dmrec*> disks;
  std::unordered_map<std::string_view, std::vector<std::size_t>> by_id;
  for (const reclist* a = dmlist; a != nullptr; a = a->next) {
    const dmrec* d = record_of(a->r)->dm();
    by_id[d->dm_diskid].push_back(disks.size());
    disks.push_back(d);
  }
  std::unordered_map<std::string_view, std::size_t> seen;  // members already passed
  for (const dmrec* da : disks) {
    const std::vector<std::size_t>& same = by_id[da->dm_diskid];
    for (std::size_t k = ++seen[da->dm_diskid]; k < same.size(); ++k) {
      std::fprintf(out, "!! Disks %s and %s have duplicate id: %s !!\n\n", da->dm_name,
                   disks[same[k]]->dm_name, da->dm_diskid);
    }
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

// The tree is built as nested walks over the lists would build it (each
// volume in list order takes the plexes of the plex list that name it, each
// such plex the subdisks that name it, in list order, and what one took is
// gone for the next), but through indexes by record id, so that the cost
// follows the number of records rather than products of list lengths.
std::uint64_t rid_key(const volrid_t& rid) {
  return (std::uint64_t{rid.seqno_hi} << 32) | rid.seqno_lo;
}

using rid_index = std::unordered_map<std::uint64_t, std::vector<reclist*>>;

template <class Owner>
rid_index index_by(const reclist* head, Owner owner) {
  rid_index idx;
  for (const reclist* n = head; n != nullptr; n = n->next) {
    idx[rid_key(owner(record_of(n->r)))].push_back(const_cast<reclist*>(n));
  }
  return idx;
}

// Takes (and forgets) the nodes filed under `rid`, in list order.
std::vector<reclist*> take(rid_index& idx, const volrid_t& rid) {
  auto it = idx.find(rid_key(rid));
  if (it == idx.end()) return {};
  std::vector<reclist*> nodes = std::move(it->second);
  idx.erase(it);
  return nodes;
}

// Unlinks the nodes in `gone` from the list, keeping the order of the rest.
void drop_nodes(reclist** head, const std::unordered_set<const reclist*>& gone) {
  reclist** link = head;
  while (*link != nullptr) {
    if (gone.count(*link) != 0) {
      *link = (*link)->next;
    } else {
      link = &(*link)->next;
    }
  }
}

// Appends children after `*last` (the parent's last child, null when none).
void append_child(sview* parent, sview** last, sview* c) {
  if (*last == nullptr) {
    parent->dlink = c;
  } else {
    (*last)->rlink = c;
  }
  *last = c;
}

}  // namespace

const char* rec_name(const db_record* r) {
  const record* rec = record_of(r);
  return rec != nullptr ? rec->name : "";
}

reclist* node_pool::new_reclist(db_record* r) {
  reclist& n = lists.emplace_back();
  n.r = r;
  return &n;
}

sview* node_pool::new_sview(db_record* r, int diff) {
  sview& n = views.emplace_back();
  n.r = r;
  n.diff = diff;
  return &n;
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

void sorted_list_builder::add(db_record* r) {
  auto it = groups_.try_emplace(rec_name(r)).first;
  std::deque<db_record*>& g = it->second;
  if (g.empty()) {
    g.push_back(r);
  } else if (it == groups_.begin()) {
    g.insert(g.begin() + 1, r);  // behind the equal head
  } else {
    g.push_front(r);
  }
}

void sorted_list_builder::link(node_pool& pool, reclist** head) const {
  reclist** tail = head;
  for (const auto& [name, g] : groups_) {
    for (db_record* r : g) {
      *tail = pool.new_reclist(r);
      tail = &(*tail)->next;
    }
  }
  *tail = nullptr;
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
        std::fprintf(out_, "%s%s !!%d extra child(ren)!!\n", indent_, name, -p->diff);
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
  std::fprintf(out, "#Block %4lu: ", static_cast<unsigned long>(blkno));
  if (b->dbb_record != nullptr) {
    std::fprintf(out, "flag=0x%04x ref=%-4lu offset=%-4lu frag_size=%-4lu\n",
                 static_cast<unsigned>(b->dbb_flag), b->dbb_record->dbr_ref,
                 static_cast<unsigned long>(b->dbb_offset),
                 static_cast<unsigned long>(b->dbb_frag_size));
  } else {
    std::fprintf(out, "flag=0x%04x\n", static_cast<unsigned>(b->dbb_flag));
  }
}

void overview_collect(FILE* out, dbase* db, overview_state& st) {
  sorted_list_builder dgs, vols, plexes, sds, dms, others;
  dbrec_iter it;
  dbrlist_iter(&it, db);
  while (db_record* r = dbrlist_next(&it)) {
    const record* rec = record_of(r);
    if (rec == nullptr) {
      std::fprintf(out, "!! Corrupted ref=%d, 1st block=%d !!\n\n", static_cast<int>(r->dbr_ref),
                   static_cast<int>(r->dbr_first_blkno));
      others.add(r);
      continue;
    }
    switch (rec->type) {
      case REC_TYPE_VOL:
        st.v_cnt = wrapping_sub(st.v_cnt, 1);
        vols.add(r);
        break;
      case REC_TYPE_PLEX:
        st.pl_cnt = wrapping_sub(st.pl_cnt, 1);
        plexes.add(r);
        break;
      case REC_TYPE_SD:
        st.sd_cnt = wrapping_sub(st.sd_cnt, 1);
        sds.add(r);
        break;
      case REC_TYPE_DM:
        st.dm_cnt = wrapping_sub(st.dm_cnt, 1);
        dms.add(r);
        break;
      case REC_TYPE_DG:
        if (!dgs.empty()) std::fputs("\n!!! ERROR: EXTRA DG RECORD !!!\n\n", out);
        dgs.add(r);
        break;
      default: others.add(r); break;
    }
  }
  dgs.link(st.pool, &st.dglist);
  vols.link(st.pool, &st.vollist);
  plexes.link(st.pool, &st.plexlist);
  sds.link(st.pool, &st.sdlist);
  dms.link(st.pool, &st.dmlist);
  others.link(st.pool, &st.otherlist);
}

void overview_build_tree(overview_state& st) {
  st.root = st.pool.new_sview(st.dglist != nullptr ? st.dglist->r : nullptr, 0);
  rid_index plexes = index_by(st.plexlist, [](const record* r) { return r->plex()->pl_vol_rid; });
  rid_index sds = index_by(st.sdlist, [](const record* r) { return r->sd()->sd_plex_rid; });
  std::unordered_set<const reclist*> placed;
  sview* last_vol = nullptr;
  for (reclist* v = st.vollist; v != nullptr; v = v->next) {
    const volrec* vol = record_of(v->r)->vol();
    sview* vn = st.pool.new_sview(v->r, static_cast<int>(vol->v_pl_num));
    append_child(st.root, &last_vol, vn);
    sview* last_plex = nullptr;
    for (reclist* p : take(plexes, vol->v_rid)) {
      const plexrec* pl = record_of(p->r)->plex();
      vn->diff -= 1;
      // A plex is always expected to have at least one subdisk.
      const int expected = pl->pl_sd_num == 0 ? 1 : static_cast<int>(pl->pl_sd_num);
      sview* pn = st.pool.new_sview(p->r, expected);
      append_child(vn, &last_plex, pn);
      placed.insert(p);
      sview* last_sd = nullptr;
      for (reclist* sd : take(sds, pl->pl_rid)) {
        pn->diff -= 1;
        append_child(pn, &last_sd, st.pool.new_sview(sd->r, 0));
        placed.insert(sd);
      }
    }
  }
  st.vollist = nullptr;  // every volume is in the tree
  drop_nodes(&st.plexlist, placed);
  drop_nodes(&st.sdlist, placed);
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
  overview_collect(out, db, st);
  overview_build_tree(st);

  std::fputs("========== Configuration Overview ========\n\n", out);
  if (st.root->r == nullptr) std::fputs(NO_DG_FINDING, out);
  tree_printer(out).printsview(st.root, 0);
  std::fputs("\nOther records:\n", out);
  listprint(out, st.dmlist);
  print_duplicate_ids(out, st.dmlist);
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
  printsviewrecord(pr, db, st.root);
  listprintrecord(pr, db, st.dmlist);
  listprintrecord(pr, db, st.vollist);
  listprintrecord(pr, db, st.plexlist);
  listprintrecord(pr, db, st.sdlist);
  listprintrecord(pr, db, st.otherlist);

  const auto above =
      static_cast<std::int64_t>(seqno_value(max_tid) - seqno_value(hdrinfo.vdbi_config_tid));
  if (above > 0) {
    std::fprintf(out, "\n!!Database has a higher tid %s than header does.!!\n",
                 volseqnotostr(max_tid));
  }
  return 1;
}

}  // namespace pd
