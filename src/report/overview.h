// The configuration report: record lists, the hierarchy view, the
// consistency findings, the database header and the block map.
//
// Collected records are sorted by name into per-type lists (disk groups,
// volumes, plexes, subdisks, disk media, others). The first disk group is
// the root of a tree; each volume hangs under it, each plex under the volume
// whose rid its pl_vol_rid names, each subdisk under the plex its
// sd_plex_rid names. A node's `diff` is the number of children its record
// announces minus the children found; the tree printer marks non-zero
// differences ("!!N missing child(ren)!!", "!!N extra child(ren)!!").
// Records that fit nowhere stay in their lists and are named under "Other
// records:".
//
// When the copy holds no disk-group record the tree has no root line: the
// report prints the finding NO_DG_FINDING where the root would stand and
// hangs the volumes under an empty root.
//
// List and tree nodes come from pools owned by the report's state; removing a
// node from a list never releases memory (the pools go away with the state).
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

#include "config_db/block_store.h"
#include "config_db/records.h"

namespace pd {

class record_printer;

inline constexpr const char* NO_DG_FINDING = "!! No disk group record in configuration !!\n\n";

// A node of a name-sorted list of store records.
struct reclist {
  reclist* next = nullptr;
  db_record* r = nullptr;
};

// A node of the hierarchy view.
struct sview {
  int diff = 0;             // expected children minus children found
  db_record* r = nullptr;   // null only for the root of a copy without a disk group
  sview* rlink = nullptr;   // next sibling
  sview* dlink = nullptr;   // first child
};

// The name of a store record: its collected record's name, or "".
const char* rec_name(const db_record* r);

// Nodes handed out in chunks that live as long as their owner.
template <class T>
class chunk_pool {
 public:
  T* make() {
    if (chunks_.empty() || used_ == CHUNK) {
      chunks_.push_back(std::make_unique<T[]>(CHUNK));
      used_ = 0;
    }
    return &chunks_.back()[used_++];
  }

 private:
  static constexpr std::size_t CHUNK = 4096;
  std::vector<std::unique_ptr<T[]>> chunks_;
  std::size_t used_ = 0;
};

// Owner of list and tree nodes.
struct node_pool {
  chunk_pool<reclist> lists;
  chunk_pool<sview> views;
  reclist* new_reclist(db_record* r);
  sview* new_sview(db_record* r, int diff);
};

// Inserts `r` in name order: in front of the first node whose name sorts
// after it, except that an equal-named head stays first.
void listadd(node_pool& pool, reclist** head, db_record* r);
// The list that listadd builds from records added one by one, built in
// O(n log n) (name_sorted_list, overview_index.h).
class sorted_list_builder {
 public:
  void add(db_record* r) { recs_.push_back(r); }
  bool empty() const { return recs_.empty(); }
  // Links the list at *head (which it replaces).
  void link(node_pool& pool, reclist** head) const;

 private:
  std::vector<db_record*> recs_;
};

// Unlinks `*p`; `*p` becomes its predecessor, or null when it was the head.
void listdelete(reclist** head, reclist** p);
void listprint(FILE* out, const reclist* head);
void listprintrecord(record_printer& pr, dbase* db, const reclist* head);

void addchild(sview* p, sview* c);

// The tree printer; `indent` is the prefix of the current line.
class tree_printer {
 public:
  explicit tree_printer(FILE* out) : out_(out) {}
  void printsview(const sview* p, int ilen);
  const char* indent() const { return indent_; }

 private:
  FILE* out_;
  char indent_[80] = {};
};

// The size suffix of a tree line ("   (len/NMB)" for volumes and subdisks)
// and the newline.
void printsviewrecordinfo(FILE* out, const db_record* r);
// print_record of `p`, its subtree, then its following siblings.
void printsviewrecord(record_printer& pr, dbase* db, const sview* p);

void print_header(FILE* out, const dbase* db, const voldb_info* hdr);
// `blkno` is the index of `b` in the store's block array.
void print_block(FILE* out, const dbase* db, std::size_t blkno, const db_block* b, int showfree);

// The record counters start from the header's claims, any 32-bit value, and
// wrap as 32-bit two's complement integers.
inline int wrapping_sub(int a, int b) {
  return static_cast<int>(static_cast<unsigned>(a) - static_cast<unsigned>(b));
}

// The report's own state.
struct overview_state {
  node_pool pool;
  reclist* dglist = nullptr;
  reclist* vollist = nullptr;
  reclist* plexlist = nullptr;
  reclist* sdlist = nullptr;
  reclist* dmlist = nullptr;
  reclist* otherlist = nullptr;
  int v_cnt = 0;
  int pl_cnt = 0;
  int sd_cnt = 0;
  int dm_cnt = 0;
  sview* root = nullptr;
  // Build with the direct, quadratic algorithms above instead of those of
  // overview_index.h (the reference the differential tests compare with).
  bool direct = false;
};

// Sorts the store's records into the lists (printing the corrupted-record
// and extra-disk-group findings) and builds the tree.
void overview_collect(FILE* out, dbase* db, overview_state& st);
void overview_build_tree(overview_state& st);
// "!! Disks A and B have duplicate id: ID !!" for every pair of disks with
// equal ids, A before B in list order, A the outer.
void print_duplicate_ids(FILE* out, const reclist* dmlist);

}  // namespace pd
