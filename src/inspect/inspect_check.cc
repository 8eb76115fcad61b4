// check: privdiag's whole run (scan, join, header and TOC dump, report of the
// first enabled configuration copy) on a session whose streams are in
// memory, then the findings picked out of what it wrote:
//   - every line of the report that begins with "!!", and every line of the
//     overview tree that ends with a "child(ren)!!" mark;
//   - every message on the error stream (extraction errors, a premature end
//     of the database, and the message of a stage that ended the run).
// The status: 0 nothing found; 1 findings; 2 the run stopped because no
// usable header, table of contents or configuration copy was found; 3 the
// image cannot be opened or read.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/errors.h"
#include "io/messages.h"
#include "report/header_toc_dump.h"
#include "inspect/inspect.h"
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

// Texts of the file layer that mean the image could not be read.
const char* const io_failure_texts[] = {"Cannot read data", "Failed to read log copy",
                                        "priv_read_copy: read of"};

enum class run_end { complete, stopped, unopened };

// Runs the pipeline; returns how it ended.
run_end run_pipeline(session& in, const inspect_target& t) {
  inspect_image img(in);
  if (!img.open(t)) return run_end::unopened;
  try {
    if (!img.locate()) return run_end::stopped;
    priv_info* priv = img.priv();
    priv->pri_header->phi_priv_offset = img.stored_priv_offset();
    priv_dump_header(in, priv);
    priv->pri_header->phi_priv_offset = 0;
    priv_dump_toc(in, priv);
    std::fputs("\n\n", in.out);
    if (priv_dump_config(in, priv, -1) != 1) return run_end::stopped;
  } catch (const fatal_exit&) {
    return run_end::stopped;
  }
  return run_end::complete;
}

std::vector<std::string> split_lines(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

bool ends_with(const std::string& s, const char* tail) {
  std::string t(tail);
  return s.size() >= t.size() && s.compare(s.size() - t.size(), t.size(), t) == 0;
}

// "!!" findings of the report, the tree prefix of a marked node removed.
void report_findings(const std::string& out, std::vector<std::string>& found) {
  bool in_overview = false;
  for (const std::string& line : split_lines(out)) {
    if (line.rfind("========== Configuration Overview", 0) == 0) in_overview = true;
    if (line.rfind("========== Configuration Details", 0) == 0) in_overview = false;
    if (line.rfind("!!", 0) == 0) {
      found.push_back(line);
    } else if (in_overview && ends_with(line, "child(ren)!!")) {
      found.push_back(line.substr(line.find_first_not_of("|- ")));
    }
  }
}

// Messages of the error stream, a tab-indented reason joined to its line.
void message_findings(const std::string& err, std::vector<std::string>& found) {
  for (const std::string& line : split_lines(err)) {
    if (!line.empty() && line[0] == '\t' && !found.empty()) {
      found.back() += " " + line.substr(1);
    } else if (!line.empty()) {
      found.push_back(line);
    }
  }
}

bool mentions_io_failure(const std::string& err) {
  for (const char* t : io_failure_texts) {
    if (err.find(t) != std::string::npos) return true;
  }
  return false;
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
  run_end end;
  {
    session in(out.f, err.f);
    in.progname = s.progname;
    volsetlabel(in, "qztool:priv");
    end = run_pipeline(in, t);
  }
  std::string err_text = err.text();
  if (end == run_end::unopened) {
    std::fputs(err_text.c_str(), s.err);
    return INSPECT_USAGE_IO;
  }
  std::vector<std::string> found;
  message_findings(err_text, found);
  report_findings(out.text(), found);

  int status = INSPECT_OK;
  if (end == run_end::stopped) {
    status = mentions_io_failure(err_text) ? INSPECT_USAGE_IO : INSPECT_UNUSABLE;
  } else if (!found.empty()) {
    status = INSPECT_FINDINGS;
  }
  if (!quiet) {
    for (const std::string& f : found) std::fprintf(s.out, "%s\n", f.c_str());
    std::fprintf(s.out, "check: status %d: %s\n", status, status_text(status));
  }
  return status;
}

}  // namespace pd
