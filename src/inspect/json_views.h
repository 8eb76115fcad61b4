// privinspect --json: every view as one JSON document on the output stream
// (docs/json.md, docs/privinspect.schema.json). Each function decodes
// through the same library functions as the text view, writes the envelope,
// the view's data and the findings, says in the document where and why a
// run stopped, copies the library's messages to the error stream, and
// returns the exit status, which the document states too.
#pragma once

#include <string>
#include <vector>

#include "base/session.h"
#include "inspect/inspect.h"
#include "inspect/json_out.h"

namespace pd {

int json_logs(session& s, const json_invocation& inv, const inspect_target& t, int copy);
int json_config(session& s, const json_invocation& inv, const inspect_target& t, int copy);
int json_headers(session& s, const json_invocation& inv, const inspect_target& t);
int json_check(session& s, const json_invocation& inv, const inspect_target& t);
int json_scan(session& s, const json_invocation& inv, const inspect_target& t,
              const scan_request& r = {});
int json_hexdump(session& s, const json_invocation& inv, const inspect_target& t,
                 const hexdump_request& r);
int json_records(session& s, const json_invocation& inv, const inspect_target& t,
                 const records_filter& f);
// dump: both headers, the TOC, every log copy and the first enabled
// configuration copy with every record, in one document.
int json_dump(session& s, const json_invocation& inv, const inspect_target& t);
// map IMAGE...: the model the picture is drawn from (strips of spans, each
// copy's row of block runs).
int json_map(session& s, const json_invocation& inv, const std::vector<inspect_target>& disks);
// locate: the surveys of a whole-disk image (tables, problems, candidates).
int json_locate(session& s, const json_invocation& inv, const inspect_target& t);
// extract: the region written to `out` (extract.h) and where it came from.
int json_extract(session& s, const json_invocation& inv, const inspect_target& t,
                 const std::string& out, bool force);

// compare IMAGE...: the model of inspect_compare.h.
int json_compare(session& s, const json_invocation& inv,
                 const std::vector<inspect_target>& disks);

// dump's document written to `out` (the fuzz harness's entry): the status.
int json_dump_to(FILE* out, FILE* err, const json_invocation& inv, const inspect_target& t);

}  // namespace pd
