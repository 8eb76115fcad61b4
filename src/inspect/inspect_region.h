// The whole-region check behind `check`: what privdiag's own path does not
// look at, as findings. The image itself (its length against the sector
// size and the region the header claims, a header found only at the other
// sector size), both header copies (inspect_headers' verdicts, each field's
// own check, the fields in which they differ), both TOC chains block by
// block, every configuration copy (enabled or not) but the one privdiag
// reports, the database headers of the copies against one another, and
// every log copy block by block.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/session.h"
#include "inspect/inspect_image.h"
#include "io/findings.h"

namespace pd {

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

// The lines of an error stream's text, a tab-indented reason joined to its
// line.
std::vector<std::string> message_lines(const std::string& err);

// Each stage on an image that is open (and, for the TOC, the copies and the
// logs, located: scanned, and joined for the copies and logs). Findings are
// appended to `out`.
// `scanned`: privdiag's scan found a header at the image's sector size.
void image_findings(inspect_image& img, bool scanned, std::vector<finding>& out);
void toc_findings(inspect_image& img, std::vector<finding>& out);
// Every configuration copy but the first enabled one (privdiag's), loaded
// through the block store with the overview's checks; findings of copy N
// carry "config copy N: " before their text.
void config_copy_findings(inspect_image& img, std::vector<finding>& out);
void copy_agreement_findings(inspect_image& img, std::vector<finding>& out);
void log_copy_findings(inspect_image& img, std::vector<finding>& out);

// Opens `t` on a silent session of its own and runs every stage that the
// damage allows, in the order above (headers after the image). The scan's
// choice is a note, kept only when another header finding explains it.
std::vector<finding> region_findings(const session& like, const inspect_target& t);

}  // namespace pd
