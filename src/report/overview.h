// The configuration report: record lists, the hierarchy view, the
// consistency findings, the database header and the block map.
//
// The report is built in two steps. The analysis makes the model: the
// store's records sorted by name into per-type lists (disk groups,
// volumes, plexes, subdisks, disk media, others); the first disk group as
// the root of a tree, each volume under it, each plex under the volume
// whose rid its pl_vol_rid names, each subdisk under the plex its
// sd_plex_rid names, each node with the number of children its record
// announces minus the children found; the record counts against the
// database header's; the highest update tid; and every finding, with the
// place of the report where it is printed. The printer then writes the
// model and raises each finding at its place.
//
// When the copy holds no disk-group record the tree has no root line: the
// finding no-dg-record stands where the root would, and the volumes hang
// under an empty root.
//
// List and tree nodes come from pools owned by the model.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

#include "base/session.h"
#include "config_db/block_store.h"
#include "config_db/records.h"
#include "io/findings.h"
#include "io/out_buffer.h"

namespace pd {

// The name of a database commit state ("CLEAN", ...), "[BAD-STATE]" for
// any other value.
const char* commit_state_word(unsigned state);

class record_printer;

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

void listprint(FILE* out, const reclist* head);

// Where in the report a finding is printed.
enum class report_place : std::uint8_t {
  collect,  // before the overview, as the records are sorted into lists
  tree,     // in the tree: no disk group at the root, or a node's children
  disks,    // after the disk list of "Other records:"
  counts,   // after the database header
  end,      // after the record details
};

struct placed_finding {
  report_place at;
  finding f;
};

// The tree printer; `indent` is the prefix of the current line. The tree's
// findings, in the order the tree is printed, are raised at their nodes.
class tree_printer {
 public:
  tree_printer(session& s, const placed_finding* first, const placed_finding* last)
      : s_(s), ob_(s.out), next_(first), last_(last) {}
  void printsview(const sview* p, int ilen);
  const char* indent() const { return indent_; }

 private:
  void walk(const sview* p, int ilen);

  session& s_;
  out_buffer ob_;  // flushed before each finding and at the end
  const placed_finding* next_;
  const placed_finding* last_;
  char indent_[80] = {};
};

// The size suffix of a tree line ("   (len/NMB)" for volumes and subdisks)
// and the newline.
void printsviewrecordinfo(FILE* out, const db_record* r);
void printsviewrecordinfo(out_buffer& ob, const db_record* r);
void print_header(FILE* out, const dbase* db, const voldb_info* hdr);
// `blkno` is the index of `b` in the store's block array.
void print_block(FILE* out, const dbase* db, std::size_t blkno, const db_block* b, int showfree);
void print_block(out_buffer& ob, const dbase* db, std::size_t blkno, const db_block* b,
                 int showfree);

// The record counters start from the header's claims, any 32-bit value, and
// wrap as 32-bit two's complement integers.
inline int wrapping_sub(int a, int b) {
  return static_cast<int>(static_cast<unsigned>(a) - static_cast<unsigned>(b));
}

// The model of one report.
struct overview_state {
  node_pool pool;
  reclist* dglist = nullptr;
  reclist* vollist = nullptr;
  reclist* plexlist = nullptr;
  reclist* sdlist = nullptr;
  reclist* dmlist = nullptr;
  reclist* otherlist = nullptr;
  // The header's record counts less the records found.
  int v_cnt = 0;
  int pl_cnt = 0;
  int sd_cnt = 0;
  int dm_cnt = 0;
  sview* root = nullptr;
  std::size_t blksize = 0;  // the store's block size, for the places of records
  // The highest update tid of the volume, plex, subdisk and disk-media
  // records, met in the order of the details.
  volseqno_t max_tid;
  // In the order they are printed.
  std::vector<placed_finding> findings;

  void add(report_place at, finding f) { findings.push_back({at, std::move(f)}); }
};

// Sets the counts to the header's claims, before the records are sorted.
void overview_start(overview_state& st, const dbase* db, const voldb_info& hdr);
// The model's remaining findings once lists and tree are built: no disk
// group, the tree's children, the record counts and the higher tid (with
// m_qzmake_format set no record updates the tid, as none is printed in the
// long format); then the findings in the order of their places.
void overview_finish(overview_state& st, const voldb_info& hdr, int m_qzmake_format);
// The whole analysis: overview_start, the lists, the tree and the duplicate
// ids (overview_index.h), overview_finish.
void overview_analyse(overview_state& st, dbase* db, const voldb_info& hdr, int m_qzmake_format);

// The report from the overview heading to its end, each finding raised at
// its place.
void print_overview(session& s, dbase* db, const voldb_info& hdr, const overview_state& st);
// Every finding of the model raised in order, nothing printed.
void raise_overview_findings(session& s, const overview_state& st);

// A finding about record `r`: its type, id and name, and its place, the
// 512-byte file block where the record's first block lies.
finding record_finding(const overview_state& st, finding_code code, const db_record* r);
finding_object finding_object_of(const db_record* r);
// The finding "!! Corrupted ..." or "!!! ERROR: EXTRA DG RECORD !!!" for a
// record met while sorting, or nothing.
void collect_finding(overview_state& st, const db_record* r, bool extra_dg);
// "!! Disks A and B have duplicate id: ID !!".
void add_duplicate_id(overview_state& st, const db_record* a, const db_record* b);

}  // namespace pd
