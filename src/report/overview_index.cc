// The report's list, tree and duplicate steps in O(n log n); the order
// rules they reproduce are described in overview_index.h.
//
// Everything the steps need of a record (its name as a sort key, its rid,
// the rid of its parent, the children it announces) is read once, when the
// record is met in the store, into compact arrays: a copy of many records
// does not fit any cache, and going back to each record for every step
// would cost a memory round trip per record and step.
#include "report/overview_index.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

#include "report/copy_loading.h"

namespace pd {

namespace {

using index_t = std::uint32_t;
constexpr index_t NO_INDEX = std::numeric_limits<index_t>::max();

// The rest of the strings longer than their sort key (rare: record names
// are shorter), which decides ties between keys.
using key_tails = std::vector<const char*>;

// A string's sort key: its first 32 bytes, zero-padded, as four big-endian
// words (so comparing keys compares the bytes as strcmp does), the rest of
// a longer string, and its position as the last tie-break (40 bytes).
struct sort_key {
  static constexpr std::size_t KEY_BYTES = 32;
  std::uint64_t w[4];
  index_t pos;
  index_t tail;  // the rest of a longer string in key_tails, else NO_INDEX

  sort_key(const char* str, std::size_t p, key_tails& tails)
      : pos(static_cast<index_t>(p)), tail(NO_INDEX) {
    unsigned char b[KEY_BYTES] = {};
    const std::size_t n = strnlen(str, KEY_BYTES);
    std::memcpy(b, str, n);
    if (n == KEY_BYTES && str[KEY_BYTES] != '\0') {
      tail = static_cast<index_t>(tails.size());
      tails.push_back(str + KEY_BYTES);
    }
    for (int i = 0; i < 4; ++i) {
      std::uint64_t v = 0;
      for (int k = 0; k < 8; ++k) v = (v << 8) | b[8 * i + k];
      w[i] = v;
    }
  }
};

// strcmp's order of the two strings (-1, 0, 1).
int key_compare(const sort_key& a, const sort_key& b, const key_tails& tails) {
  for (int i = 0; i < 4; ++i) {
    if (a.w[i] != b.w[i]) return a.w[i] < b.w[i] ? -1 : 1;
  }
  if (a.tail == NO_INDEX && b.tail == NO_INDEX) return 0;
  // Equal first 32 bytes: a string that is not longer ends right there.
  const int c = std::strcmp(a.tail == NO_INDEX ? "" : tails[a.tail],
                            b.tail == NO_INDEX ? "" : tails[b.tail]);
  return (c > 0) - (c < 0);
}

// strcmp order, equal strings in position order.
void sort_keys(std::vector<sort_key>& keys, const key_tails& tails) {
  std::sort(keys.begin(), keys.end(), [&tails](const sort_key& a, const sort_key& b) {
    const int c = key_compare(a, b, tails);
    return c != 0 ? c < 0 : a.pos < b.pos;
  });
}

// The positions (in adding order) of the names in the order listadd leaves
// them: see overview_index.h for the rule inside a run of equal names.
std::vector<index_t> listadd_order(std::vector<sort_key> keys, const key_tails& tails) {
  sort_keys(keys, tails);
  const std::size_t n = keys.size();
  std::vector<index_t> order;
  order.reserve(n);
  // The lowest position of any name below the current run.
  index_t first_smaller = NO_INDEX;
  for (std::size_t g = 0, e = 0; g < n; g = e) {
    e = g + 1;
    while (e < n && key_compare(keys[e], keys[g], tails) == 0) ++e;
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
  return order;
}

// What the tree needs of a record.
struct rec_facts {
  db_record* r = nullptr;
  std::uint64_t rid = 0;     // v_rid, pl_rid
  std::uint64_t parent = 0;  // pl_vol_rid, sd_plex_rid
  int expected = 0;          // children announced
};

// One list: its records as they were met, then in list order.
struct fact_list {
  std::vector<sort_key> keys;
  key_tails tails;
  std::vector<rec_facts> facts;

  void reserve(std::size_t n) {
    keys.reserve(n);
    facts.reserve(n);
  }
  void add(const char* name, const rec_facts& f) {
    keys.emplace_back(name, keys.size(), tails);
    facts.push_back(f);
  }
  // Puts the facts in list order, in place (a copy of a long list would
  // be the load's peak): each cycle of the permutation followed once.
  void sort() {
    const std::vector<index_t> order = listadd_order(std::move(keys), tails);
    keys = {};
    tails = {};
    std::vector<bool> done(order.size(), false);
    for (std::size_t k = 0; k < order.size(); ++k) {
      if (done[k]) continue;
      const rec_facts first = facts[k];
      for (std::size_t j = k;;) {
        done[j] = true;
        const std::size_t from = order[j];
        if (from == k) {
          facts[j] = first;
          break;
        }
        facts[j] = facts[from];
        j = from;
      }
    }
  }
  // The list's nodes, in list order; with `taken`, only the records not
  // taken into the tree have one.
  reclist* link(node_pool& pool, const std::vector<bool>* taken = nullptr) const {
    reclist* head = nullptr;
    reclist** next = &head;
    for (std::size_t i = 0; i < facts.size(); ++i) {
      if (taken != nullptr && (*taken)[i]) continue;
      reclist* node = pool.new_reclist(facts[i].r);
      *next = node;
      next = &node->next;
    }
    return head;
  }
  // A list that the tree takes nothing from: its facts are not needed once
  // it is linked.
  reclist* build(node_pool& pool) {
    sort();
    reclist* head = link(pool);
    facts = {};
    return head;
  }
};

// The first position holding each rid: sorted (rid, position) pairs.
class rid_index {
 public:
  explicit rid_index(const std::vector<std::uint64_t>& rids) {
    keys_.reserve(rids.size());
    for (std::size_t i = 0; i < rids.size(); ++i) keys_.emplace_back(rids[i], i);
    std::sort(keys_.begin(), keys_.end());
    keys_.erase(std::unique(keys_.begin(), keys_.end(),
                            [](const auto& a, const auto& b) { return a.first == b.first; }),
                keys_.end());
  }
  index_t find(std::uint64_t rid) const {
    auto it = std::lower_bound(keys_.begin(), keys_.end(), std::make_pair(rid, std::size_t{0}));
    return it != keys_.end() && it->first == rid ? static_cast<index_t>(it->second) : NO_INDEX;
  }

 private:
  std::vector<std::pair<std::uint64_t, std::size_t>> keys_;
};

// Children appended in O(1): the last child of each parent.
class child_chains {
 public:
  explicit child_chains(std::size_t n) : last_(n, nullptr) {}
  void append(sview* parent, std::size_t k, sview* c) {
    (last_[k] == nullptr ? parent->dlink : last_[k]->rlink) = c;
    last_[k] = c;
  }

 private:
  std::vector<sview*> last_;
};

// The lists of one report while they are gathered.
struct gathered {
  fact_list dg, vol, plex, sd, dm, other;
};

// Asks for the memory gather() reads of a record, ahead of time: the
// records lie scattered, and waiting for each in turn dominates.
void prefetch_facts(const record* rec) {
  if (rec != nullptr && rec->packed != nullptr) __builtin_prefetch(rec->packed);
  if (rec == nullptr || rec->u == nullptr) return;
  const auto* u = static_cast<const char*>(rec->u);
  switch (rec->type) {
    case REC_TYPE_VOL:
      __builtin_prefetch(u + offsetof(volrec, v_rid));
      __builtin_prefetch(u + offsetof(volrec, v_pl_num));
      break;
    case REC_TYPE_PLEX:
      __builtin_prefetch(u + offsetof(plexrec, pl_rid));
      __builtin_prefetch(u + offsetof(plexrec, pl_vol_rid));
      __builtin_prefetch(u + offsetof(plexrec, pl_sd_num));
      break;
    case REC_TYPE_SD: __builtin_prefetch(u + offsetof(sdrec, sd_plex_rid)); break;
    default: break;
  }
}

void gather(dbase* db, overview_state& st, gathered& g) {
  std::vector<db_record*> all;
  // The records of each type, for lists that take no more room than they
  // need (the type word lies beside the record's links).
  std::size_t count[16] = {};
  dbrec_iter it;
  dbrlist_iter(&it, db);
  while (db_record* r = dbrlist_next(&it)) {
    all.push_back(r);
    ++count[r->dbr_type & 15];
  }
  g.vol.reserve(count[REC_TYPE_VOL]);
  g.plex.reserve(count[REC_TYPE_PLEX]);
  g.sd.reserve(count[REC_TYPE_SD]);
  g.dm.reserve(count[REC_TYPE_DM]);
  g.other.reserve(all.size() - count[REC_TYPE_VOL] - count[REC_TYPE_PLEX] - count[REC_TYPE_SD] -
                  count[REC_TYPE_DM] - count[REC_TYPE_DG]);
  // Three stages ahead: the store record, its collected record, the fields.
  constexpr std::size_t AHEAD = 4;
  for (std::size_t i = 0; i < all.size(); ++i) {
    if (i + 3 * AHEAD < all.size()) __builtin_prefetch(all[i + 3 * AHEAD]);
    if (i + 2 * AHEAD < all.size()) __builtin_prefetch(all[i + 2 * AHEAD]->dbr_private);
    if (i + AHEAD < all.size()) prefetch_facts(record_of(all[i + AHEAD]));
    db_record* r = all[i];
    const record* rec = record_of(r);
    if (rec == nullptr) {
      collect_finding(st, r, false);
      g.other.add("", rec_facts{r});
      continue;
    }
    switch (rec->type) {
      case REC_TYPE_VOL: {
        st.v_cnt = wrapping_sub(st.v_cnt, 1);
        const auto rid = record_member<volrid_t>(rec, offsetof(volrec, v_rid));
        const auto pl_num = record_member<decltype(volrec::v_pl_num)>(rec, offsetof(volrec, v_pl_num));
        g.vol.add(rec->name, {r, seqno_value(rid), 0, static_cast<int>(pl_num)});
        break;
      }
      case REC_TYPE_PLEX: {
        st.pl_cnt = wrapping_sub(st.pl_cnt, 1);
        const auto rid = record_member<volrid_t>(rec, offsetof(plexrec, pl_rid));
        const auto vol_rid = record_member<volrid_t>(rec, offsetof(plexrec, pl_vol_rid));
        const auto sd_num =
            record_member<decltype(plexrec::pl_sd_num)>(rec, offsetof(plexrec, pl_sd_num));
        // A plex is always expected to have at least one subdisk.
        const int expected = sd_num == 0 ? 1 : static_cast<int>(sd_num);
        g.plex.add(rec->name, {r, seqno_value(rid), seqno_value(vol_rid), expected});
        break;
      }
      case REC_TYPE_SD:
        st.sd_cnt = wrapping_sub(st.sd_cnt, 1);
        g.sd.add(rec->name,
                 {r, 0, seqno_value(record_member<volrid_t>(rec, offsetof(sdrec, sd_plex_rid))),
                  0});
        break;
      case REC_TYPE_DM:
        st.dm_cnt = wrapping_sub(st.dm_cnt, 1);
        g.dm.add(rec->name, {r});
        break;
      case REC_TYPE_DG:
        if (!g.dg.facts.empty()) collect_finding(st, r, true);
        g.dg.add(rec->name, {r});
        break;
      default: g.other.add(rec->name, {r}); break;
    }
  }
}

// Hangs the plexes under their volumes; returns the plex nodes and their
// positions in the plex list in the order the direct tree walk meets them
// (volumes in list order, each volume's plexes in list order).
std::vector<std::pair<sview*, index_t>> attach_plexes(overview_state& st, const gathered& g,
                                                     const std::vector<sview*>& vols) {
  std::vector<std::uint64_t> vol_rids;
  for (const rec_facts& f : g.vol.facts) vol_rids.push_back(f.rid);
  const rid_index owner(vol_rids);
  const std::size_t n = g.plex.facts.size();
  std::vector<index_t> owner_of(n, NO_INDEX);
  std::vector<sview*> node_of(n, nullptr);
  std::vector<bool> taken(n, false);
  std::vector<index_t> count(vols.size() + 1, 0);
  child_chains children(vols.size());
  for (std::size_t i = 0; i < n; ++i) {
    const rec_facts& f = g.plex.facts[i];
    const index_t v = owner.find(f.parent);
    if (v == NO_INDEX) continue;
    taken[i] = true;
    owner_of[i] = v;
    vols[v]->diff = wrapping_sub(vols[v]->diff, 1);
    node_of[i] = st.pool.new_sview(f.r, f.expected);
    children.append(vols[v], v, node_of[i]);
    ++count[v + 1];
  }
  st.plexlist = g.plex.link(st.pool, &taken);
  // Grouped by volume, list order kept inside each group.
  for (std::size_t v = 0; v < vols.size(); ++v) count[v + 1] += count[v];
  std::vector<std::pair<sview*, index_t>> met(count[vols.size()]);
  for (std::size_t i = 0; i < n; ++i) {
    if (owner_of[i] != NO_INDEX) met[count[owner_of[i]]++] = {node_of[i], static_cast<index_t>(i)};
  }
  return met;
}

void attach_subdisks(overview_state& st, const gathered& g,
                     const std::vector<std::pair<sview*, index_t>>& plexes) {
  std::vector<std::uint64_t> plex_rids;
  for (const auto& [node, i] : plexes) plex_rids.push_back(g.plex.facts[i].rid);
  const rid_index owner(plex_rids);
  const std::size_t n = g.sd.facts.size();
  std::vector<bool> taken(n, false);
  child_chains children(plexes.size());
  for (std::size_t i = 0; i < n; ++i) {
    const rec_facts& f = g.sd.facts[i];
    const index_t p = owner.find(f.parent);
    if (p == NO_INDEX) continue;
    taken[i] = true;
    sview* pn = plexes[p].first;
    pn->diff = wrapping_sub(pn->diff, 1);
    children.append(pn, p, st.pool.new_sview(f.r, 0));
  }
  st.sdlist = g.sd.link(st.pool, &taken);
}

}  // namespace

reclist* name_sorted_list(node_pool& pool, const std::vector<db_record*>& recs) {
  fact_list l;
  for (db_record* r : recs) l.add(rec_name(r), rec_facts{r});
  return l.build(pool);
}

void overview_build_indexed(dbase* db, overview_state& st) {
  gathered g;
  gather(db, st, g);
  // The volume, plex and subdisk lists keep only what the tree leaves.
  st.dglist = g.dg.build(st.pool);
  g.vol.sort();
  g.plex.sort();
  g.sd.sort();
  st.dmlist = g.dm.build(st.pool);
  st.otherlist = g.other.build(st.pool);

  st.root = st.pool.new_sview(st.dglist != nullptr ? st.dglist->r : nullptr, 0);
  std::vector<sview*> vols;
  sview** link = &st.root->dlink;
  for (const rec_facts& f : g.vol.facts) {
    sview* vn = st.pool.new_sview(f.r, f.expected);
    *link = vn;
    link = &vn->rlink;
    vols.push_back(vn);
  }
  st.vollist = nullptr;  // every volume hangs under the root
  attach_subdisks(st, g, attach_plexes(st, g, vols));
}

void find_duplicate_ids(overview_state& st) {
  std::vector<const db_record*> recs;
  for (const reclist* l = st.dmlist; l != nullptr; l = l->next) recs.push_back(l->r);
  const std::size_t n = recs.size();
  // Each disk id with a terminator of its own after its member.
  constexpr std::size_t ID = sizeof(dmrec::dm_diskid) + 1;
  std::vector<char> ids(n * ID);
  std::vector<sort_key> keys;
  key_tails tails;
  keys.reserve(n);
  for (std::size_t i = 0; i < n; ++i) {
    record_bytes(record_of(recs[i]), offsetof(dmrec, dm_diskid), ID - 1, &ids[i * ID]);
    keys.emplace_back(&ids[i * ID], i, tails);
  }
  sort_keys(keys, tails);
  std::vector<index_t> where(n);      // position of each disk in keys
  std::vector<index_t> group_end(n);  // end of the group of keys[p]
  for (std::size_t g = 0, e = 0; g < n; g = e) {
    e = g + 1;
    while (e < n && key_compare(keys[e], keys[g], tails) == 0) ++e;
    for (std::size_t p = g; p < e; ++p) {
      where[keys[p].pos] = static_cast<index_t>(p);
      group_end[p] = static_cast<index_t>(e);
    }
  }
  for (std::size_t a = 0; a < n; ++a) {
    for (std::size_t q = where[a] + 1; q < group_end[where[a]]; ++q) {
      add_duplicate_id(st, recs[a], recs[keys[q].pos]);
    }
  }
}

namespace {

// The tree in pre-order (the root has no record without a disk group).
void flatten(const sview* p, std::vector<const db_record*>& out) {
  for (; p != nullptr; p = p->rlink) {
    if (p->r != nullptr) out.push_back(p->r);
    if (p->dlink != nullptr) flatten(p->dlink, out);
  }
}

// Asks for what print_record reads of a record: the store record, the
// collected record and its decoded fields.
void prefetch_record(const db_record* r, int stage) {
  if (stage == 0) {
    __builtin_prefetch(r);
    return;
  }
  const record* rec = record_of(r);
  if (rec == nullptr) return;
  if (stage == 1) {
    __builtin_prefetch(rec);
    return;
  }
  if (rec->packed != nullptr) {
    __builtin_prefetch(rec->packed);
    __builtin_prefetch(rec->packed + 64);
    return;
  }
  if (rec->u == nullptr) return;
  const std::size_t room = record_room(rec->type);
  const auto* u = static_cast<const char*>(rec->u);
  for (std::size_t off = 0; off < room; off += 64) __builtin_prefetch(u + off);
}

}  // namespace

std::vector<const db_record*> details_order(const overview_state& st) {
  std::vector<const db_record*> order;
  flatten(st.root, order);
  for (const reclist* l : {st.dmlist, st.vollist, st.plexlist, st.sdlist, st.otherlist}) {
    for (; l != nullptr; l = l->next) order.push_back(l->r);
  }
  return order;
}

void prefetch_details(const std::vector<const db_record*>& order, std::size_t i) {
  constexpr std::size_t AHEAD = 3;
  if (i + 3 * AHEAD < order.size()) prefetch_record(order[i + 3 * AHEAD], 0);
  if (i + 2 * AHEAD < order.size()) prefetch_record(order[i + 2 * AHEAD], 1);
  if (i + AHEAD < order.size()) prefetch_record(order[i + AHEAD], 2);
}

void print_details_indexed(record_printer& pr, dbase* db,
                           const std::vector<const db_record*>& order) {
  for (std::size_t i = 0; i < order.size(); ++i) {
    prefetch_details(order, i);
    pr.print_record(db, order[i]);
  }
}

}  // namespace pd
