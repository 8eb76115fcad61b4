// The record hash of the block store: dbr_find, dbr_add, dbr_delete and
// the index that keeps them cheap on long chains (record_index.h).
#include "config_db/record_index.h"

#include <iterator>

namespace pd {

namespace {

std::size_t bucket_of(unsigned long ref) { return ref % DDB_NBUCKETS; }

void size_chains(db_record_index* ix) {
  if (!ix->tail.empty()) return;
  ix->tail.assign(DDB_NBUCKETS, nullptr);
  ix->length.assign(DDB_NBUCKETS, 0);
  ix->ordered.resize(DDB_NBUCKETS);
}

// The last record of chain `b` whose reference is at most `ref`, or null
// when the new record goes to the chain's front.
db_record* predecessor(const db_record_index* ix, std::size_t b, unsigned long ref) {
  if (const auto& m = ix->ordered[b]) {
    auto it = m->upper_bound(ref);
    return it == m->begin() ? nullptr : std::prev(it)->second;
  }
  db_record* p = ix->tail[b];
  while (p != nullptr && p->dbr_ref > ref) p = p->dbr_prev;
  return p;
}

// Chain `b` is past the walk limit and a record goes inside it: index it
// in order.
void order_chain(dbase* db, db_record_index* ix, std::size_t b) {
  auto m = std::make_unique<std::multimap<unsigned long, db_record*>>();
  for (db_record* r = db->ddb_record_buckets[b]; r != nullptr; r = r->dbr_next) {
    m->emplace_hint(m->end(), r->dbr_ref, r);
  }
  ix->ordered[b] = std::move(m);
}

bool linked(const dbase* db, const db_record* r) {
  return r->dbr_prev != nullptr || db->ddb_record_buckets[bucket_of(r->dbr_ref)] == r;
}

}  // namespace

std::size_t ref_table::home(unsigned long ref) const {
  const std::uint64_t h = static_cast<std::uint64_t>(ref) * 0x9E3779B97F4A7C15ull;
  return static_cast<std::size_t>(h >> 32) & (slots_.size() - 1);
}

db_record* ref_table::hashed_find(unsigned long ref) const {
  if (slots_.empty()) return nullptr;
  for (std::size_t i = home(ref);; i = (i + 1) & (slots_.size() - 1)) {
    const slot& s = slots_[i];
    if (s.r == nullptr) return nullptr;
    if (s.ref == ref) return s.r;
  }
}

void ref_table::grow() {
  std::vector<slot> old = std::move(slots_);
  slots_.assign(old.empty() ? 1024 : old.size() * 2, slot{});
  used_ = 0;
  for (const slot& s : old) {
    if (s.r != nullptr) hashed_set(s.ref, s.r);
  }
}

bool ref_table::cover(unsigned long ref) {
  const std::size_t bound = 2 * (count_ + 1) + DENSE_MIN;
  if (ref >= bound) return false;
  std::size_t size = 2 * dense_.size();
  if (size <= ref) size = static_cast<std::size_t>(ref) + 1;
  if (size > bound) size = bound;
  dense_.resize(size, nullptr);
  // Hashed references the array now covers move into it.
  bool moves = false;
  for (const slot& s : slots_) moves = moves || (s.r != nullptr && s.ref < size);
  if (moves) {
    std::vector<slot> old = std::move(slots_);
    slots_.assign(old.size(), slot{});
    used_ = 0;
    for (const slot& s : old) {
      if (s.r == nullptr) continue;
      if (s.ref < size) {
        dense_[s.ref] = s.r;
      } else {
        hashed_set(s.ref, s.r);
      }
    }
  }
  return true;
}

void ref_table::set(unsigned long ref, db_record* r) {
  if (ref < dense_.size() || cover(ref)) {
    if (dense_[ref] == nullptr) ++count_;
    dense_[ref] = r;
    return;
  }
  const std::size_t before = used_;
  hashed_set(ref, r);
  if (used_ != before) ++count_;
}

void ref_table::erase(unsigned long ref) {
  if (ref < dense_.size()) {
    if (dense_[ref] != nullptr) --count_;
    dense_[ref] = nullptr;
    return;
  }
  const std::size_t before = used_;
  hashed_erase(ref);
  if (used_ != before) --count_;
}

void ref_table::hashed_set(unsigned long ref, db_record* r) {
  if (2 * (used_ + 1) > slots_.size()) grow();
  std::size_t i = home(ref);
  while (slots_[i].r != nullptr && slots_[i].ref != ref) i = (i + 1) & (slots_.size() - 1);
  if (slots_[i].r == nullptr) ++used_;
  slots_[i] = slot{ref, r};
}

void ref_table::hashed_erase(unsigned long ref) {
  if (slots_.empty()) return;
  const std::size_t mask = slots_.size() - 1;
  std::size_t i = home(ref);
  while (slots_[i].r != nullptr && slots_[i].ref != ref) i = (i + 1) & mask;
  if (slots_[i].r == nullptr) return;
  // Backward-shift deletion: move up every later entry of the run whose
  // home does not lie between the hole and itself.
  for (std::size_t j = (i + 1) & mask; slots_[j].r != nullptr; j = (j + 1) & mask) {
    const std::size_t h = home(slots_[j].ref);
    const bool stays = i <= j ? (i < h && h <= j) : (i < h || h <= j);
    if (stays) continue;
    slots_[i] = slots_[j];
    i = j;
  }
  slots_[i] = slot{};
  --used_;
}

db_record* rindex_new_record(db_record_index* ix) {
  if (ix->slabs.empty() || ix->slab_used == db_record_index::SLAB) {
    // Zeroed pages straight from the system: no clearing pass.
    std::unique_ptr<db_record[], db_record_index::slab_free> slab(
        static_cast<db_record*>(std::calloc(db_record_index::SLAB, sizeof(db_record))));
    if (!slab) return nullptr;
    ix->slabs.push_back(std::move(slab));
    ix->slab_used = 0;
  }
  db_record* r = &ix->slabs.back()[ix->slab_used++];
  r->dbr_slab = true;
  return r;
}

db_record* dbr_find(const dbase* db, unsigned long ref) { return db->ddb_rindex->first.find(ref); }

void dbr_add(dbase* db, db_record* r) {
  db_record_index* ix = db->ddb_rindex;
  size_chains(ix);
  const std::size_t b = bucket_of(r->dbr_ref);
  // A record that does not go behind the chain's last one, in a chain past
  // the walk limit: the chain is indexed in order from then on.
  if (!ix->ordered[b] && ix->length[b] > RINDEX_WALK_LIMIT && ix->tail[b] != nullptr &&
      ix->tail[b]->dbr_ref > r->dbr_ref) {
    order_chain(db, ix, b);
  }
  db_record* prev = predecessor(ix, b, r->dbr_ref);
  db_record* next = prev != nullptr ? prev->dbr_next : db->ddb_record_buckets[b];
  r->dbr_prev = prev;
  r->dbr_next = next;
  if (prev != nullptr) {
    prev->dbr_next = r;
  } else {
    db->ddb_record_buckets[b] = r;
  }
  if (next != nullptr) {
    next->dbr_prev = r;
  } else {
    ix->tail[b] = r;
  }
  if (auto& m = ix->ordered[b]) {
    m->emplace_hint(m->upper_bound(r->dbr_ref), r->dbr_ref, r);  // behind equal references
  } else {
    ++ix->length[b];
  }
  if (prev == nullptr || prev->dbr_ref != r->dbr_ref) ix->first.set(r->dbr_ref, r);
  if (!r->dbr_slab) ++ix->foreign;
}

void dbr_delete(dbase* db, db_record* r) {
  db_record_index* ix = db->ddb_rindex;
  const std::size_t b = bucket_of(r->dbr_ref);
  if (linked(db, r) && !ix->tail.empty()) {
    if (auto& m = ix->ordered[b]) {
      auto range = m->equal_range(r->dbr_ref);
      for (auto it = range.first; it != range.second; ++it) {
        if (it->second == r) {
          m->erase(it);
          break;
        }
      }
    } else {
      --ix->length[b];
    }
    if (ix->tail[b] == r) ix->tail[b] = r->dbr_prev;
    if (!r->dbr_slab) --ix->foreign;
    if (ix->first.find(r->dbr_ref) == r) {
      db_record* next = r->dbr_next;
      if (next != nullptr && next->dbr_ref == r->dbr_ref) {
        ix->first.set(r->dbr_ref, next);
      } else {
        ix->first.erase(r->dbr_ref);
      }
    }
  }
  if (r->dbr_prev != nullptr) {
    r->dbr_prev->dbr_next = r->dbr_next;
  } else if (db->ddb_record_buckets[b] == r) {
    db->ddb_record_buckets[b] = r->dbr_next;
  }
  if (r->dbr_next != nullptr) r->dbr_next->dbr_prev = r->dbr_prev;
  r->dbr_next = r->dbr_prev = nullptr;
}

}  // namespace pd
