// The direct algorithms of the report (see overview_reference.h).
#include "overview_reference.h"

#include <cstring>

#include "report/copy_loading.h"

namespace pd::test {

namespace {

// Unlinks `*p`; `*p` becomes its predecessor, or null when it was the head.
void listdelete(reclist** head, reclist** p) {
  if (*p == *head) {
    *head = (*p)->next;
    *p = nullptr;
    return;
  }
  reclist* q = *head;
  while (q != nullptr && q->next != *p) q = q->next;
  if (q == nullptr) return;
  q->next = (*p)->next;
  *p = q;
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

void attach_plexes(overview_state& st, sview* vn, const volrec* vol) {
  reclist* p = st.plexlist;
  while (p != nullptr) {
    const plexrec* pl = record_of(p->r)->plex();
    if (seqno_equal(pl->pl_vol_rid, vol->v_rid)) {
      vn->diff = wrapping_sub(vn->diff, 1);
      const int expected = pl->pl_sd_num == 0 ? 1 : static_cast<int>(pl->pl_sd_num);
      sview* pn = st.pool.new_sview(p->r, expected);
      addchild(vn, pn);
      listdelete(&st.plexlist, &p);
      attach_subdisks(st, pn, pl);
    }
    p = p != nullptr ? p->next : st.plexlist;
  }
}

void collect(dbase* db, overview_state& st) {
  dbrec_iter it;
  dbrlist_iter(&it, db);
  while (db_record* r = dbrlist_next(&it)) {
    const record* rec = record_of(r);
    if (rec == nullptr) {
      collect_finding(st, r, false);
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
        collect_finding(st, r, st.dglist != nullptr);
        listadd(st.pool, &st.dglist, r);
        break;
      default: listadd(st.pool, &st.otherlist, r); break;
    }
  }
}

void build_tree(overview_state& st) {
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

void duplicate_ids(overview_state& st) {
  for (const reclist* a = st.dmlist; a != nullptr; a = a->next) {
    for (const reclist* b = a->next; b != nullptr; b = b->next) {
      if (std::strcmp(record_of(a->r)->dm()->dm_diskid, record_of(b->r)->dm()->dm_diskid) == 0) {
        add_duplicate_id(st, a->r, b->r);
      }
    }
  }
}

}  // namespace

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

void reference_analyse(overview_state& st, dbase* db, const voldb_info& hdr) {
  overview_start(st, db, hdr);
  collect(db, st);
  build_tree(st);
  duplicate_ids(st);
  overview_finish(st, hdr, 0);
}

}  // namespace pd::test
