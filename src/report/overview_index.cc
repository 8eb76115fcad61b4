// The report's list, tree and duplicate steps in O(n log n); the order
// rules they reproduce are described in overview_index.h.
#include "report/overview_index.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>

#include "report/copy_loading.h"

namespace pd {

namespace {

using index_t = std::uint32_t;

// A string's sort key: its first 32 bytes, zero-padded, as four big-endian
// words (so comparing keys compares the bytes as strcmp does), the string
// itself for longer strings, and its position as the last tie-break.
struct sort_key {
  std::uint64_t w[4];
  const char* s;
  index_t pos;
  bool longer;  // more than 32 characters: the rest decides ties

  sort_key(const char* str, index_t p) : s(str), pos(p) {
    unsigned char b[KEY_BYTES] = {};
    const std::size_t n = strnlen(str, KEY_BYTES);
    std::memcpy(b, str, n);
    longer = n == KEY_BYTES && str[KEY_BYTES] != '\0';
    for (int i = 0; i < 4; ++i) {
      std::uint64_t v = 0;
      for (int k = 0; k < 8; ++k) v = (v << 8) | b[8 * i + k];
      w[i] = v;
    }
  }
  static constexpr std::size_t KEY_BYTES = 32;
};

// strcmp's order of the two strings (-1, 0, 1).
int key_compare(const sort_key& a, const sort_key& b) {
  for (int i = 0; i < 4; ++i) {
    if (a.w[i] != b.w[i]) return a.w[i] < b.w[i] ? -1 : 1;
  }
  if (!a.longer && !b.longer) return 0;
  const int c = std::strcmp(a.s + sort_key::KEY_BYTES, b.s + sort_key::KEY_BYTES);
  return (c > 0) - (c < 0);
}

// The keys of strings 0..n-1 sorted in strcmp order, equal strings in
// position order.
template <class Str>
std::vector<sort_key> sorted_keys(std::size_t n, Str str) {
  std::vector<sort_key> keys;
  keys.reserve(n);
  for (std::size_t i = 0; i < n; ++i) keys.emplace_back(str(i), static_cast<index_t>(i));
  std::sort(keys.begin(), keys.end(), [](const sort_key& a, const sort_key& b) {
    const int c = key_compare(a, b);
    return c != 0 ? c < 0 : a.pos < b.pos;
  });
  return keys;
}

reclist* chain(node_pool& pool, const std::vector<db_record*>& recs,
               const std::vector<index_t>& order) {
  reclist* head = nullptr;
  reclist** link = &head;
  for (index_t i : order) {
    reclist* n = pool.new_reclist(recs[i]);
    *link = n;
    link = &n->next;
  }
  return head;
}

// First position of each rid among `nodes` (in their order): sorted
// (rid, position) pairs, one per rid.
class rid_index {
 public:
  template <class Rid>
  rid_index(std::size_t n, Rid rid_of) {
    keys_.reserve(n);
    for (std::size_t i = 0; i < n; ++i) keys_.emplace_back(seqno_value(rid_of(i)), i);
    std::sort(keys_.begin(), keys_.end());
    keys_.erase(std::unique(keys_.begin(), keys_.end(),
                            [](const auto& a, const auto& b) { return a.first == b.first; }),
                keys_.end());
  }
  // The first position with this rid, or npos.
  std::size_t find(const volrid_t& rid) const {
    const std::uint64_t v = seqno_value(rid);
    auto it = std::lower_bound(keys_.begin(), keys_.end(), std::make_pair(v, std::size_t{0}));
    return it != keys_.end() && it->first == v ? it->second : npos;
  }
  static constexpr std::size_t npos = std::numeric_limits<std::size_t>::max();

 private:
  std::vector<std::pair<std::uint64_t, std::size_t>> keys_;
};

// Children appended in O(1): the last child of each parent.
struct child_chains {
  explicit child_chains(std::size_t n) : last(n, nullptr) {}
  void append(sview* parent, std::size_t k, sview* c) {
    if (last[k] == nullptr) {
      parent->dlink = c;
    } else {
      last[k]->rlink = c;
    }
    last[k] = c;
  }
  std::vector<sview*> last;
};

std::vector<reclist*> nodes_of(const reclist* head) {
  std::vector<reclist*> v;
  for (const reclist* l = head; l != nullptr; l = l->next) v.push_back(const_cast<reclist*>(l));
  return v;
}

// Relinks the list to the nodes of `all` whose `kept` flag is set.
reclist* relink(const std::vector<reclist*>& all, const std::vector<bool>& kept) {
  reclist* head = nullptr;
  reclist** link = &head;
  for (std::size_t i = 0; i < all.size(); ++i) {
    if (!kept[i]) continue;
    *link = all[i];
    link = &all[i]->next;
  }
  *link = nullptr;
  return head;
}

// The plexes of plexlist under their volumes; returns the plex nodes in the
// order the direct tree walk meets them.
std::vector<sview*> attach_plexes(overview_state& st, const std::vector<sview*>& vols) {
  rid_index owner(vols.size(), [&](std::size_t i) { return record_of(vols[i]->r)->vol()->v_rid; });
  const std::vector<reclist*> plexes = nodes_of(st.plexlist);
  std::vector<bool> kept(plexes.size(), true);
  child_chains children(vols.size());
  for (std::size_t i = 0; i < plexes.size(); ++i) {
    const plexrec* pl = record_of(plexes[i]->r)->plex();
    const std::size_t v = owner.find(pl->pl_vol_rid);
    if (v == rid_index::npos) continue;
    kept[i] = false;
    vols[v]->diff -= 1;
    // A plex is always expected to have at least one subdisk.
    const int expected = pl->pl_sd_num == 0 ? 1 : static_cast<int>(pl->pl_sd_num);
    sview* pn = st.pool.new_sview(plexes[i]->r, expected);
    children.append(vols[v], v, pn);
  }
  st.plexlist = relink(plexes, kept);
  std::vector<sview*> met;
  for (const sview* vn : vols) {
    for (sview* pn = vn->dlink; pn != nullptr; pn = pn->rlink) met.push_back(pn);
  }
  return met;
}

void attach_subdisks(overview_state& st, const std::vector<sview*>& plexes) {
  rid_index owner(plexes.size(),
                  [&](std::size_t i) { return record_of(plexes[i]->r)->plex()->pl_rid; });
  const std::vector<reclist*> sds = nodes_of(st.sdlist);
  std::vector<bool> kept(sds.size(), true);
  child_chains children(plexes.size());
  for (std::size_t i = 0; i < sds.size(); ++i) {
    const std::size_t p = owner.find(record_of(sds[i]->r)->sd()->sd_plex_rid);
    if (p == rid_index::npos) continue;
    kept[i] = false;
    plexes[p]->diff -= 1;
    children.append(plexes[p], p, st.pool.new_sview(sds[i]->r, 0));
  }
  st.sdlist = relink(sds, kept);
}

}  // namespace

reclist* name_sorted_list(node_pool& pool, const std::vector<db_record*>& recs) {
  const std::size_t n = recs.size();
  const std::vector<sort_key> keys =
      sorted_keys(n, [&](std::size_t i) { return rec_name(recs[i]); });
  std::vector<index_t> order;
  order.reserve(n);
  // The lowest position (in adding order) of any name below the current run.
  index_t first_smaller = std::numeric_limits<index_t>::max();
  for (std::size_t g = 0, e = 0; g < n; g = e) {
    e = g + 1;
    while (e < n && key_compare(keys[e], keys[g]) == 0) ++e;
    const index_t e1 = keys[g].pos;  // the run's first added
    std::size_t h = g + 1;           // end of the names added while e1 was the head
    if (e1 < first_smaller) {
      while (h < e && keys[h].pos < first_smaller) ++h;
    }
    for (std::size_t k = e; k > h; --k) order.push_back(keys[k - 1].pos);
    order.push_back(e1);
    for (std::size_t k = h; k > g + 1; --k) order.push_back(keys[k - 1].pos);
    first_smaller = std::min(first_smaller, e1);
  }
  return chain(pool, recs, order);
}

void overview_collect_indexed(FILE* out, dbase* db, overview_state& st) {
  std::vector<db_record*> dg, vol, plex, sd, dm, other;
  dbrec_iter it;
  dbrlist_iter(&it, db);
  while (db_record* r = dbrlist_next(&it)) {
    const record* rec = record_of(r);
    if (rec == nullptr) {
      std::fprintf(out, "!! Corrupted ref=%d, 1st block=%d !!\n\n", static_cast<int>(r->dbr_ref),
                   static_cast<int>(r->dbr_first_blkno));
      other.push_back(r);
      continue;
    }
    switch (rec->type) {
      case REC_TYPE_VOL: st.v_cnt -= 1; vol.push_back(r); break;
      case REC_TYPE_PLEX: st.pl_cnt -= 1; plex.push_back(r); break;
      case REC_TYPE_SD: st.sd_cnt -= 1; sd.push_back(r); break;
      case REC_TYPE_DM: st.dm_cnt -= 1; dm.push_back(r); break;
      case REC_TYPE_DG:
        if (!dg.empty()) std::fputs("\n!!! ERROR: EXTRA DG RECORD !!!\n\n", out);
        dg.push_back(r);
        break;
      default: other.push_back(r); break;
    }
  }
  st.dglist = name_sorted_list(st.pool, dg);
  st.vollist = name_sorted_list(st.pool, vol);
  st.plexlist = name_sorted_list(st.pool, plex);
  st.sdlist = name_sorted_list(st.pool, sd);
  st.dmlist = name_sorted_list(st.pool, dm);
  st.otherlist = name_sorted_list(st.pool, other);
}

void overview_build_tree_indexed(overview_state& st) {
  st.root = st.pool.new_sview(st.dglist != nullptr ? st.dglist->r : nullptr, 0);
  std::vector<sview*> vols;
  sview** link = &st.root->dlink;
  for (const reclist* v = st.vollist; v != nullptr; v = v->next) {
    sview* vn = st.pool.new_sview(v->r, static_cast<int>(record_of(v->r)->vol()->v_pl_num));
    *link = vn;
    link = &vn->rlink;
    vols.push_back(vn);
  }
  st.vollist = nullptr;  // every volume hangs under the root
  attach_subdisks(st, attach_plexes(st, vols));
}

void print_duplicate_ids_indexed(FILE* out, const reclist* dmlist) {
  std::vector<const dmrec*> dms;
  for (const reclist* l = dmlist; l != nullptr; l = l->next) dms.push_back(record_of(l->r)->dm());
  const std::size_t n = dms.size();
  const std::vector<sort_key> keys =
      sorted_keys(n, [&](std::size_t i) { return dms[i]->dm_diskid; });
  std::vector<index_t> where(n);      // position of each disk in keys
  std::vector<index_t> group_end(n);  // end of the group of keys[p]
  for (std::size_t g = 0, e = 0; g < n; g = e) {
    e = g + 1;
    while (e < n && key_compare(keys[e], keys[g]) == 0) ++e;
    for (std::size_t p = g; p < e; ++p) {
      where[keys[p].pos] = static_cast<index_t>(p);
      group_end[p] = static_cast<index_t>(e);
    }
  }
  for (std::size_t a = 0; a < n; ++a) {
    for (std::size_t q = where[a] + 1; q < group_end[where[a]]; ++q) {
      const dmrec* b = dms[keys[q].pos];
      std::fprintf(out, "!! Disks %s and %s have duplicate id: %s !!\n\n", dms[a]->dm_name,
                   b->dm_name, dms[a]->dm_diskid);
    }
  }
}

}  // namespace pd
