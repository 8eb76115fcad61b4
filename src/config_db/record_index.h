// The index beside the store's record hash (block_store.h).
//
// The hash itself is fixed: 16381 chains, each in ascending reference,
// equal references in insertion order. Walking a chain is fine while chains
// stay short (about 30 records each at 500,000 records), but a copy can
// crowd one chain with every record. The index keeps dbr_find, dbr_add and
// dbr_delete cheap either way:
// - a table from reference to the first record of that reference in its
//   chain (an array indexed by reference for the references a copy holds
//   densely, else open addressing with linear probing; dbr_find is one
//   probe);
// - each chain's last record and length: records arrive mostly in
//   ascending reference and are linked behind the last one at once;
//   otherwise the chain is walked back from its end, at most
//   RINDEX_WALK_LIMIT records;
// - for a chain past RINDEX_WALK_LIMIT records when a record must go
//   inside it rather than behind its end, an ordered map of its records,
//   built then and kept from then on, which finds the place of a new record
//   in logarithmic time (chains whose records arrive in ascending reference,
//   the usual case, never need one).
// The index also holds the records the store allocates itself, in slabs
// that ddb_free releases whole; records an owner hands to dbr_add are
// counted, so that ddb_free walks the chains only when there are some.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <vector>

#include "config_db/block_store.h"

namespace pd {

inline constexpr std::size_t RINDEX_WALK_LIMIT = 64;

// References to records: references below a bound set by the number of
// entries (twice the entries, plus DENSE_MIN) in an array indexed by
// reference, so that a copy whose references are dense, the usual case,
// is looked up without hashing; any other reference in a hash table.
class ref_table {
 public:
  static constexpr std::size_t DENSE_MIN = std::size_t{1} << 16;

  db_record* find(unsigned long ref) const {
    return ref < dense_.size() ? dense_[ref] : hashed_find(ref);
  }
  // Sets the record of `ref` (inserting it when absent).
  void set(unsigned long ref, db_record* r);
  void erase(unsigned long ref);

 private:
  struct slot {
    unsigned long ref = 0;
    db_record* r = nullptr;  // null: empty slot
  };
  std::size_t home(unsigned long ref) const;
  db_record* hashed_find(unsigned long ref) const;
  void hashed_set(unsigned long ref, db_record* r);
  void hashed_erase(unsigned long ref);
  void grow();
  // Makes the array cover `ref` when the bound allows; false otherwise.
  bool cover(unsigned long ref);

  std::vector<db_record*> dense_;  // by reference; null: absent
  std::vector<slot> slots_;  // a power of two, at most half full
  std::size_t used_ = 0;     // slots used
  std::size_t count_ = 0;    // entries, both parts
};

struct db_record_index {
  ref_table first;                       // reference -> first record of it
  std::vector<db_record*> tail;          // per chain: its last record
  std::vector<std::uint32_t> length;     // per chain: records linked
  std::vector<std::unique_ptr<std::multimap<unsigned long, db_record*>>> ordered;

  static constexpr std::size_t SLAB = 4096;  // records per slab
  struct slab_free {
    void operator()(db_record* p) const { std::free(p); }
  };
  std::vector<std::unique_ptr<db_record[], slab_free>> slabs;  // calloc'd
  std::size_t slab_used = 0;             // records handed out of the last slab
  std::size_t foreign = 0;               // hashed records not from a slab
};

// A zeroed record from the slabs (dbr_slab set), or null when memory is
// exhausted.
db_record* rindex_new_record(db_record_index* ix);

}  // namespace pd
