// `privinspect repair IN OUT [--dry-run] [--force]`: the command (repair.h
// holds the plan, the new image and the proof). The plan is printed first
// (as text, or with --json as the document); a real run then writes OUT,
// proves it and writes the log of the actions, OUT.repair.json: the same
// document, with the envelope of privinspect's JSON documents
// (docs/json.md), written atomically beside OUT.
#pragma once

#include <string>

#include "base/session.h"
#include "inspect/inspect_image.h"
#include "inspect/json_out.h"
#include "inspect/new_image.h"

namespace pd {

struct repair_request {
  std::string out;
  bool dry_run = false;
  bool force = false;
  bool json = false;  // the document on the output stream instead of the text
};

// The status: REPAIR_CLEAN, REPAIR_PARTIAL, REPAIR_NOTHING or REPAIR_FAILED
// (repair.h). With --dry-run: 2 when nothing would be written, else 0 when
// the plan leaves no finding, 1 when it does.
int inspect_repair(session& s, const json_invocation& inv, const inspect_target& t,
                   const repair_request& r, const file_calls& calls = system_file_calls());

}  // namespace pd
