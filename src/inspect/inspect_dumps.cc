// logs and config: the library's own dumps, reached with a copy number that
// privdiag's fixed command line cannot give.
#include <cstdio>

#include "inspect/inspect.h"
#include "report/copy_loading.h"
#include "report/log_dump.h"

namespace pd {

int inspect_logs(session& s, const inspect_target& t, int copy, bool long_listing) {
  inspect_image img(s);
  if (!img.open(t)) return INSPECT_USAGE_IO;
  if (int st = img.locate_or_explain(); st != INSPECT_OK) return st;
  s.l_long_listing = long_listing ? 1 : 0;
  priv_dump_logs(s, img.priv(), copy < 0 ? -1 : copy);
  return INSPECT_OK;
}

int inspect_config(session& s, const inspect_target& t, int copy) {
  inspect_image img(s);
  if (!img.open(t)) return INSPECT_USAGE_IO;
  if (int st = img.locate_or_explain(); st != INSPECT_OK) return st;
  return priv_dump_config(s, img.priv(), copy) == 1 ? INSPECT_OK : INSPECT_FINDINGS;
}

}  // namespace pd
