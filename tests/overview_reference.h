// The report's list, tree and duplicate steps as direct, quadratic
// algorithms: the reference that the library's O(n log n) steps are
// compared with (overview_index_test.cc).
//
// - listadd inserts a record in front of the first node whose name sorts
//   after it, except that an equal-named head stays first.
// - The tree walks the volume list, moves each volume under the root, and
//   for each takes the plexes whose pl_vol_rid names it out of the plex
//   list (each plex expecting pl_sd_num subdisks, at least one), and for
//   each plex the subdisks whose sd_plex_rid names it.
// - Duplicate disk ids: every pair (A, B) of the disk list with equal ids,
//   A before B in list order, A the outer.
#pragma once

#include "report/overview.h"

namespace pd::test {

void listadd(node_pool& pool, reclist** head, db_record* r);

// The whole analysis with the direct steps.
void reference_analyse(overview_state& st, dbase* db, const voldb_info& hdr);

}  // namespace pd::test
