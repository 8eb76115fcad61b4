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

check_outcome run_check(const session& like, const inspect_target& t, std::string* err_text,
                        std::string* note) {
  check_outcome c;
  mem_stream out, err;
  if (out.f == nullptr || err.f == nullptr) return c;  // not opened, no message: memory
  finding_collector found;
  run_end end;
  {
    session in(out.f, err.f);
    in.progname = like.progname;
    volsetlabel(in, "qztool:priv");
    in.sink = &found;
    std::string fallback;
    end = run_pipeline(in, t, fallback);
    if (note != nullptr) *note = fallback;
  }
  c.findings = std::move(found.list);
  // The rest of the region, unless the image cannot be read at all.
  const bool readable = end != run_end::unreadable && end != run_end::unopened;
  const std::size_t privdiag_found = c.findings.size();
  if (readable) {
    for (finding& f : region_findings(like, t)) c.findings.push_back(std::move(f));
  }
  const std::string text = err.text();
  if (err_text != nullptr) *err_text = text;
  c.opened = end != run_end::unopened;
  if (c.opened) c.messages = message_lines(text);
  if (!readable) {
    c.status = INSPECT_USAGE_IO;
  } else if (end == run_end::unusable) {
    c.status = INSPECT_UNUSABLE;
  } else {
    c.status = INSPECT_OK;
    for (const finding& f : c.findings) {
      if (f.sev() != severity::note) c.status = INSPECT_FINDINGS;
    }
  }
  c.privdiag_findings = privdiag_found;
  return c;
}

int inspect_check(session& s, const inspect_target& t, bool quiet) {
  std::string err_text, note;
  const check_outcome c = run_check(s, t, &err_text, &note);
  if (!note.empty()) std::fprintf(s.err, "%s\n", note.c_str());
  if (!c.opened) {
    std::fputs(err_text.c_str(), s.err);
    if (err_text.empty()) volpfmt(s, s.err, 1, ":733:Memory allocation failed\n");
    return c.status;
  }
  if (!quiet) {
    // What privdiag writes on the error stream first (the loader's
    // findings, then the message that ended the run), then the report's,
    // then those of the rest of the region.
    const auto privdiag_end = c.findings.begin() + static_cast<std::ptrdiff_t>(c.privdiag_findings);
    for (auto f = c.findings.begin(); f != privdiag_end; ++f) {
      if (kind_of(f->code).stream == finding_stream::err) print_line(s, f->text);
    }
    for (const std::string& m : c.messages) print_line(s, m);
    for (auto f = c.findings.begin(); f != privdiag_end; ++f) {
      if (kind_of(f->code).stream == finding_stream::out) print_line(s, f->text);
    }
    for (auto f = privdiag_end; f != c.findings.end(); ++f) print_line(s, f->text);
    std::fprintf(s.out, "check: status %d: %s\n", c.status, status_text(c.status));
  }
  return c.status;
}

}  // namespace pd
