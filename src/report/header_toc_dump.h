// The first half of the report: the decoded private-region header and the
// table of contents with every defined region, printed on the session's
// output stream. Nothing here reads the device; the values come from the
// joined handle.
#pragma once

#include "base/session.h"
#include "base/priv_info.h"

namespace pd {

void priv_dump_header(session& s, priv_info* priv);
void priv_dump_toc(session& s, priv_info* priv);
// The tag fields of one "tagid" entry.
void priv_dump_tagid(session& s, const toc_entry_info* entry);
// The unbraced text forms of both disk-set ids; each buffer holds at least
// 37 characters.
void priv_dump_header_disksetID(const priv_info* priv, char* id, char* new_id);

}  // namespace pd
