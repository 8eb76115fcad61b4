// The store's record hash against a model of its chains: random adds and
// deletes on few chains (crowded past the walk limit and back) and on many,
// with equal references, checking every chain's links, dbr_find and the
// iteration order after each step.
#include "config_db/record_index.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <map>
#include <random>
#include <vector>

#include "config_db/block_store.h"

namespace pd {
namespace {

class model_store {
 public:
  model_store() : db_(ddb_alloc(nullptr)) {}
  ~model_store() {
    for (auto& [b, chain] : chains_) {
      for (db_record* r : chain) dbr_delete(db_, r);
    }
    ddb_free(db_);
  }
  model_store(const model_store&) = delete;
  model_store& operator=(const model_store&) = delete;

  void add(unsigned long ref) {
    db_record& r = recs_.emplace_back();
    r = db_record{};
    r.dbr_ref = ref;
    dbr_add(db_, &r);
    auto& chain = chains_[ref % DDB_NBUCKETS];
    auto at = std::find_if(chain.begin(), chain.end(),
                           [&](const db_record* o) { return o->dbr_ref > ref; });
    chain.insert(at, &r);
  }
  // Deletes the k-th record of the model (in chain order), if any.
  void remove(std::size_t k) {
    for (auto& [b, chain] : chains_) {
      if (k < chain.size()) {
        dbr_delete(db_, chain[k]);
        chain.erase(chain.begin() + static_cast<long>(k));
        return;
      }
      k -= chain.size();
    }
  }
  std::size_t size() const {
    std::size_t n = 0;
    for (const auto& [b, chain] : chains_) n += chain.size();
    return n;
  }

  // The store agrees with the model.
  void check(const std::vector<unsigned long>& probes) {
    std::vector<db_record*> expected;
    for (const auto& [b, chain] : chains_) {
      db_record* prev = nullptr;
      db_record* r = db_->ddb_record_buckets[b];
      for (db_record* m : chain) {
        ASSERT_EQ(r, m) << "chain " << b;
        ASSERT_EQ(r->dbr_prev, prev);
        prev = r;
        r = r->dbr_next;
        expected.push_back(m);
      }
      ASSERT_EQ(r, nullptr);
    }
    std::vector<db_record*> seen;
    dbrec_iter it;
    dbrlist_iter(&it, db_);
    while (db_record* r = dbrlist_next(&it)) seen.push_back(r);
    ASSERT_EQ(seen, expected);
    for (unsigned long ref : probes) {
      db_record* first = nullptr;
      auto c = chains_.find(ref % DDB_NBUCKETS);
      if (c != chains_.end()) {
        for (db_record* m : c->second) {
          if (m->dbr_ref == ref) {
            first = m;
            break;
          }
        }
      }
      ASSERT_EQ(dbr_find(db_, ref), first) << "ref " << ref;
    }
  }

 private:
  dbase* db_;
  std::deque<db_record> recs_;
  std::map<std::size_t, std::vector<db_record*>> chains_;
};

// References on `nchains` chains, `values` distinct references each.
void random_steps(std::mt19937& rng, std::size_t nchains, std::size_t values, int steps) {
  model_store m;
  auto ref = [&] {
    return 1 + (rng() % nchains) + DDB_NBUCKETS * (rng() % values);
  };
  std::vector<unsigned long> probes;
  for (int i = 0; i < 40; ++i) probes.push_back(ref());
  for (int step = 0; step < steps; ++step) {
    // Grow for a while, then shrink, so that chains cross the walk limit
    // both ways.
    const bool grow = (step / 400) % 2 == 0 ? rng() % 4 != 0 : rng() % 4 == 0;
    if (grow || m.size() == 0) {
      m.add(ref());
    } else {
      m.remove(rng() % m.size());
    }
    if (step % 37 == 0) {
      m.check(probes);
      if (::testing::Test::HasFatalFailure()) return;
    }
  }
  m.check(probes);
}

TEST(RecordIndexTest, CrowdedChainsMatchTheModel) {
  std::mt19937 rng(5);
  random_steps(rng, 2, 150, 3000);  // chains of a few hundred records
}

TEST(RecordIndexTest, ShortChainsWithEqualReferencesMatchTheModel) {
  std::mt19937 rng(6);
  random_steps(rng, 300, 4, 3000);
}

TEST(RecordIndexTest, AscendingReferencesAreLinkedAtTheChainsEnd) {
  model_store m;
  for (unsigned long ref = 1; ref < 3 * DDB_NBUCKETS; ref += 7) m.add(ref);
  m.check({1, 8, 15, 16381 + 1, 2 * 16381 + 3});
}

TEST(RecordIndexTest, ReferenceTableSurvivesCollidingDeletes) {
  // Many references, then every other one erased: lookups across the
  // shifted runs must still find the rest.
  ref_table t;
  std::vector<db_record> recs(5000);
  for (std::size_t i = 0; i < recs.size(); ++i) t.set(i * 1024, &recs[i]);
  for (std::size_t i = 0; i < recs.size(); i += 2) t.erase(i * 1024);
  for (std::size_t i = 0; i < recs.size(); ++i) {
    ASSERT_EQ(t.find(i * 1024), i % 2 == 0 ? nullptr : &recs[i]) << i;
  }
  t.erase(1);  // absent: nothing happens
  EXPECT_EQ(t.find(1024), &recs[1]);
}

// References dense and sparse, in any order, against a map: the array
// that takes the dense ones grows over references the hash held.
TEST(RecordIndexTest, ReferenceTableMatchesAMapAcrossItsTwoParts) {
  std::mt19937_64 rng(11);
  ref_table t;
  std::map<unsigned long, db_record*> model;
  std::vector<db_record> recs(4);
  for (int step = 0; step < 200000; ++step) {
    unsigned long ref = 0;
    switch (rng() % 3) {
      case 0: ref = rng() % 150000; break;                            // dense, growing
      case 1: ref = ref_table::DENSE_MIN + rng() % 400000; break;    // hashed until covered
      default: ref = rng(); break;                                   // hostile
    }
    if (rng() % 4 == 0) {
      t.erase(ref);
      model.erase(ref);
    } else {
      db_record* r = &recs[rng() % recs.size()];
      t.set(ref, r);
      model[ref] = r;
    }
    if (step % 20000 == 0) {
      for (const auto& [k, v] : model) ASSERT_EQ(t.find(k), v) << k;
    }
  }
  for (const auto& [k, v] : model) ASSERT_EQ(t.find(k), v) << k;
  EXPECT_EQ(t.find(ref_table::DENSE_MIN - 1), model.count(ref_table::DENSE_MIN - 1) != 0
                                                  ? model[ref_table::DENSE_MIN - 1]
                                                  : nullptr);
}

}  // namespace
}  // namespace pd
