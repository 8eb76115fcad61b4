// Loading one configuration copy for the record views, without the report.
//
// The copy is chosen as the report chooses it (the first enabled copy, or
// the one numbered, enabled or not) and read the same way: runs of at most
// 128 blocks of 512 bytes through the shared aligned buffer, each block fed
// to the block store. An extraction error is reported on the error stream
// (":624:" with the copy's block number, as the report does) and loading
// goes on; it stops once the data fed passes the end of the database.
#pragma once

#include <memory>

#include "inspect/inspect_image.h"
#include "report/copy_loading.h"

namespace pd {

// The copy of `priv` numbered `copy`, or the first enabled one when `copy`
// is negative; null after reporting (":594:", ":595:", ":566:") that there
// is none.
copy_info* inspect_select_config_copy(session& s, priv_info* priv, int copy);

class loaded_copy {
 public:
  explicit loaded_copy(session& s) : rep(s) {}

  // Loads `cp`; false when reading failed (reported). Fatal faults of the
  // database header end the tool as they do in the report.
  bool load(priv_info* priv, copy_info* cp);

  config_report rep;
  copy_info* cp = nullptr;
  int errors = 0;  // extraction errors reported
};

}  // namespace pd
