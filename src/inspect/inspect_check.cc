// check: privdiag's whole run (scan, join, the report of the first enabled
// configuration copy) on a session whose findings go to a collector instead
// of being printed, then the whole-region check (inspect_region.h); then one
// line per finding and the message of a stage that ended the run: first
// what privdiag writes on its error stream (the loader's findings, then that
// message), then the report's findings, then those of the rest of the
// region, each group in the order raised.
// The header copy is the target's choice (a fallback is named once on the
// error stream). The status: 0 no warning or error; 1 at least one; 2 the
// run stopped because no usable header, table of contents or configuration
// copy was found; 3 the image cannot be opened or read.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/errors.h"
#include "inspect/inspect.h"
#include "inspect/inspect_region.h"
#include "io/findings.h"
#include "io/messages.h"
#include "inspect/output.h"
#include "report/copy_loading.h"

namespace pd {

namespace {

// How the run ended.
enum class run_end { complete, unusable, unreadable, unopened };

run_end run_pipeline(session& in, const inspect_target& t, std::string& note) {
  inspect_image img(in);
  img.announce = false;
  if (!img.open(t)) return run_end::unopened;
  try {
    const bool ok = img.locate();
    note = img.fallback_note();
    if (!ok) return run_end::unusable;
    if (priv_dump_config(in, img.priv(), -1, false) != 1) return run_end::unusable;
  } catch (const fatal_exit& e) {
    return e.kind == fatal_kind::unreadable ? run_end::unreadable : run_end::unusable;
  }
  return run_end::complete;
}

// One line of check's output: the text escaped (a name from the image may
// hold any byte).
void print_line(session& s, const std::string& text) {
  text_out o(s.out);
  o.value(text);
  o.text("\n");
}

const char* status_text(int status) {
  switch (status) {
    case INSPECT_OK:
      return "consistent";
    case INSPECT_FINDINGS:
      return "inconsistencies found";
    case INSPECT_UNUSABLE:
      return "no usable header, table of contents or configuration copy";
    default:
      return "the image cannot be read";
  }
}

}  // namespace

int inspect_check(session& s, const inspect_target& t, bool quiet) {
  mem_stream out, err;
  if (out.f == nullptr || err.f == nullptr) {
    volpfmt(s, s.err, 1, ":733:Memory allocation failed\n");
    return INSPECT_USAGE_IO;
  }
  finding_collector found;
  run_end end;
  std::string note;
  {
    session in(out.f, err.f);
    in.progname = s.progname;
    volsetlabel(in, "qztool:priv");
    in.sink = &found;
    end = run_pipeline(in, t, note);
  }
  if (!note.empty()) std::fprintf(s.err, "%s\n", note.c_str());
  // The rest of the region, unless the image cannot be read at all.
  finding_collector region;
  if (end != run_end::unreadable && end != run_end::unopened) {
    for (finding& f : region_findings(s, t)) region.raise(f);
  }
  int status = INSPECT_OK;
  if (end == run_end::unreadable || end == run_end::unopened) {
    status = INSPECT_USAGE_IO;
  } else if (end == run_end::unusable) {
    status = INSPECT_UNUSABLE;
  } else if (found.any_problem() || region.any_problem()) {
    status = INSPECT_FINDINGS;
  }
  const std::string err_text = err.text();
  if (end == run_end::unopened) {
    std::fputs(err_text.c_str(), s.err);
    return status;
  }
  if (!quiet) {
    // What privdiag writes on the error stream first (the loader's
    // findings, then the message that ended the run), then the report's.
    for (const finding& f : found.list) {
      if (kind_of(f.code).stream == finding_stream::err) print_line(s, f.text);
    }
    for (const std::string& m : message_lines(err_text)) print_line(s, m);
    for (const finding& f : found.list) {
      if (kind_of(f.code).stream == finding_stream::out) print_line(s, f.text);
    }
    for (const finding& f : region.list) print_line(s, f.text);
    std::fprintf(s.out, "check: status %d: %s\n", status, status_text(status));
  }
  return status;
}

}  // namespace pd
