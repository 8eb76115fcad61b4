// The stages that the driver runs after opening the image: the header scan,
// the join that loads the table of contents, and the dumps.
#pragma once

#include "base/session.h"
#include "private_region/priv_info.h"

namespace pd {

int priv_scan(priv_info* priv, disk_attrs* dattrs);
int priv_join(priv_info* priv);
void priv_dump_header(session& s, priv_info* priv);
void priv_dump_toc(session& s, priv_info* priv);
int priv_dump_config(session& s, priv_info* priv, int copy);

}  // namespace pd
