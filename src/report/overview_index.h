// The report's list, tree and duplicate steps at scale.
//
// The lists, the tree and the duplicate ids are defined by direct
// algorithms: insertion of each record into its name-sorted list (listadd),
// a walk of the volume list that moves each volume under the root and, for
// each, the plexes whose pl_vol_rid names it out of the plex list (and for
// each plex its subdisks), and a pairwise walk of the disk list. These cost
// O(n^2) on a copy of n records. The functions here build the very same
// lists and tree and find the very same findings, in the same order, in
// O(n log n):
//
// - A list is the stable sort of its records by name (strcmp), except for
//   the order inside a run of equal names N, which listadd's insertion rule
//   decides: while no name below N has been added, the list head is the
//   first N added and every later N goes right behind it; once a smaller
//   name is in the list, every new N goes in front of the other N's. With
//   e1..ek the N's in the order they were added and e2..ej those added
//   before the first smaller name, the run reads
//     ek, ..., ej+1, e1, ej, ..., e2
//   (all N's reversed, ek..e1, when e1 itself came after a smaller name).
// - Every volume becomes a child of the root in list order. A plex belongs
//   to the first volume in list order whose rid its pl_vol_rid names; a
//   subdisk to the first plex, in the order the tree walk meets plexes
//   (volumes in list order, each volume's plexes in list order), whose rid
//   its sd_plex_rid names. Children keep list order; unmatched records stay
//   in their lists in list order.
// - Duplicate disk ids are found by sorting the disk list by id; the pairs
//   (A, B) are printed with A in list order outside and B, the later
//   members of A's group, in list order inside.
//
// The direct algorithms are kept in the tests, as the reference the
// differential tests compare these with.
#pragma once

#include <vector>

#include "report/overview.h"
#include "report/record_printer.h"

namespace pd {

// The chain listadd builds when the records are added in this order.
reclist* name_sorted_list(node_pool& pool, const std::vector<db_record*>& recs);

// The lists, the counters, the tree and the findings met while sorting
// (corrupted records, extra disk groups).
void overview_build_indexed(dbase* db, overview_state& st);
// "Disks A and B have duplicate id" for every pair of disks of the disk
// list with equal ids, A before B in list order, A the outer.
void find_duplicate_ids(overview_state& st);
// The records in the order of the details: the tree in pre-order, then the
// disk, volume, plex, subdisk and other lists.
std::vector<const db_record*> details_order(const overview_state& st);
// Asks for the memory of the records a few places after position `i` of
// `order` (the store record, the collected record, its fields), for a walk
// that reads each record of `order` in turn.
void prefetch_details(const std::vector<const db_record*>& order, std::size_t i);
// Each record of `order` in the long format; each record's memory is asked
// for a few records ahead.
void print_details_indexed(record_printer& pr, dbase* db,
                           const std::vector<const db_record*>& order);

}  // namespace pd
