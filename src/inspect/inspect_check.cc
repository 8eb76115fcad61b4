// check: privdiag's whole run (scan, join, the report of the first enabled
// configuration copy) on a session whose findings go to a collector instead
// of being printed; then one line per finding and the message of a stage
// that ended the run: first what privdiag writes on its error stream (the
// loader's findings, then that message), then the report's findings, each
// group in the order raised.
// The status: 0 no warning or error; 1 at least one; 2 the run stopped
// because no usable header, table of contents or configuration copy was
// found; 3 the image cannot be opened or read.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/errors.h"
#include "inspect/inspect.h"
#include "io/findings.h"
#include "io/messages.h"
#include "report/copy_loading.h"

namespace pd {

namespace {

// A FILE* whose text stays in memory.
class mem_stream {
 public:
  mem_stream() : f(open_memstream(&buf_, &len_)) {}
  ~mem_stream() {
    if (f != nullptr) std::fclose(f);
    std::free(buf_);
  }
  mem_stream(const mem_stream&) = delete;
  mem_stream& operator=(const mem_stream&) = delete;
  std::string text() {
    std::fflush(f);
    return buf_ == nullptr ? std::string() : std::string(buf_, len_);
  }
  FILE* f;

 private:
  char* buf_ = nullptr;
  std::size_t len_ = 0;
};

// How the run ended.
enum class run_end { complete, unusable, unreadable, unopened };

run_end run_pipeline(session& in, const inspect_target& t) {
  inspect_image img(in);
  if (!img.open(t)) return run_end::unopened;
  try {
    if (!img.locate()) return run_end::unusable;
    if (priv_dump_config(in, img.priv(), -1, false) != 1) return run_end::unusable;
  } catch (const fatal_exit& e) {
    return e.kind == fatal_kind::unreadable ? run_end::unreadable : run_end::unusable;
  }
  return run_end::complete;
}

// The messages of the error stream, a tab-indented reason joined to its
// line.
std::vector<std::string> message_lines(const std::string& err) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < err.size()) {
    std::size_t end = err.find('\n', start);
    if (end == std::string::npos) end = err.size();
    const std::string line = err.substr(start, end - start);
    if (!line.empty() && line[0] == '\t' && !lines.empty()) {
      lines.back() += " " + line.substr(1);
    } else if (!line.empty()) {
      lines.push_back(line);
    }
    start = end + 1;
  }
  return lines;
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
  {
    session in(out.f, err.f);
    in.progname = s.progname;
    volsetlabel(in, "qztool:priv");
    in.sink = &found;
    end = run_pipeline(in, t);
  }
  int status = INSPECT_OK;
  if (end == run_end::unreadable || end == run_end::unopened) {
    status = INSPECT_USAGE_IO;
  } else if (end == run_end::unusable) {
    status = INSPECT_UNUSABLE;
  } else if (found.any_problem()) {
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
      if (kind_of(f.code).stream == finding_stream::err) std::fprintf(s.out, "%s\n", f.text.c_str());
    }
    for (const std::string& m : message_lines(err_text)) std::fprintf(s.out, "%s\n", m.c_str());
    for (const finding& f : found.list) {
      if (kind_of(f.code).stream == finding_stream::out) std::fprintf(s.out, "%s\n", f.text.c_str());
    }
    std::fprintf(s.out, "check: status %d: %s\n", status, status_text(status));
  }
  return status;
}

}  // namespace pd
