// Findings: every inconsistency the tools detect, as data.
//
// A finding has a stable code (a short name, listed in docs/findings.md and
// never reused), a severity, the object it concerns (a record: its type, id
// and name; a second record where two are involved, such as two disks
// sharing an id), where it is (configuration copy, 512-byte file block of
// the copy, sector, byte offset of the image), a stored and a computed
// value where the finding compares two, and its text: exactly what privdiag
// prints for it, without the layout around it (the tree's drawing before a
// node, blank lines, the final newline).
//
// Findings are raised through the session's sink. Without a sink of its
// own, a session writes each finding's exact bytes where privdiag writes
// them (write_finding_text): report findings on the output stream, messages
// on the error stream. A collecting sink keeps them instead, for check and
// for the views that print findings in another form.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/session.h"
#include "base/types.h"

namespace pd {

// Ordered: a note never counts as a problem; warnings and errors do.
enum class severity : std::uint8_t { note, warning, error };

// The codes, in the order of finding_table. A code is never removed or
// renumbered: a finding that is no longer raised keeps its row, marked
// retired.
enum class finding_code : std::uint8_t {
  corrupt_record,
  extra_dg_record,
  no_dg_record,
  missing_children,
  extra_children,
  duplicate_disk_id,
  volume_count,
  plex_count,
  subdisk_count,
  dm_count,
  higher_tid,
  extract_error,
  premature_eof,
  header_checksum,
  header_undecodable,
  header_choice,
  log_block_invalid,
  header_mismatch,
  header_field,
  toc_magic,
  toc_checksum,
  toc_seqno,
  toc_next,
  toc_chains_differ,
  copies_differ,
  copy_stale,
  copy_unloadable,
  log_block_refused,
  log_never_written,
  image_partial_sector,
  image_short,
  sector_size_other,
};

// Where privdiag writes a finding's text.
enum class finding_stream : std::uint8_t { out, err };

struct finding_kind {
  finding_code code;
  const char* name;  // the stable code
  severity sev;
  finding_stream stream;
  const char* before;  // bytes written before the text
  const char* after;   // bytes written after it
  bool retired;        // no longer raised; the code stays reserved
};

inline constexpr std::array<finding_kind, 32> finding_table = {{
    {finding_code::corrupt_record, "corrupt-record", severity::error, finding_stream::out, "",
     "\n\n", false},
    {finding_code::extra_dg_record, "extra-dg-record", severity::error, finding_stream::out,
     "\n", "\n\n", false},
    {finding_code::no_dg_record, "no-dg-record", severity::error, finding_stream::out, "",
     "\n\n", false},
    {finding_code::missing_children, "missing-children", severity::warning,
     finding_stream::out, "", "\n", false},
    {finding_code::extra_children, "extra-children", severity::warning, finding_stream::out,
     "", "\n", false},
    {finding_code::duplicate_disk_id, "duplicate-disk-id", severity::error,
     finding_stream::out, "", "\n\n", false},
    {finding_code::volume_count, "volume-count", severity::warning, finding_stream::out, "",
     "\n", false},
    {finding_code::plex_count, "plex-count", severity::warning, finding_stream::out, "", "\n",
     false},
    {finding_code::subdisk_count, "subdisk-count", severity::warning, finding_stream::out, "",
     "\n", false},
    {finding_code::dm_count, "dm-count", severity::warning, finding_stream::out, "", "\n",
     false},
    {finding_code::higher_tid, "higher-tid", severity::warning, finding_stream::out, "\n",
     "\n", false},
    {finding_code::extract_error, "extract-error", severity::error, finding_stream::err, "",
     "\n", false},
    {finding_code::premature_eof, "premature-eof", severity::error, finding_stream::err, "",
     "\n", false},
    {finding_code::header_checksum, "header-checksum", severity::warning,
     finding_stream::out, "", "\n", false},
    {finding_code::header_undecodable, "header-undecodable", severity::error,
     finding_stream::out, "", "\n", false},
    {finding_code::header_choice, "header-choice", severity::note, finding_stream::out, "",
     "\n", false},
    {finding_code::log_block_invalid, "log-block-invalid", severity::warning,
     finding_stream::err, "", "\n", false},
    {finding_code::header_mismatch, "header-mismatch", severity::warning, finding_stream::out, "", "\n", false},
    {finding_code::header_field, "header-field", severity::error, finding_stream::out, "", "\n", false},
    {finding_code::toc_magic, "toc-magic", severity::warning, finding_stream::out, "", "\n", false},
    {finding_code::toc_checksum, "toc-checksum", severity::warning, finding_stream::out, "", "\n", false},
    {finding_code::toc_seqno, "toc-seqno", severity::warning, finding_stream::out, "", "\n", false},
    {finding_code::toc_next, "toc-next", severity::error, finding_stream::out, "", "\n", false},
    {finding_code::toc_chains_differ, "toc-chains-differ", severity::warning, finding_stream::out, "", "\n", false},
    {finding_code::copies_differ, "copies-differ", severity::warning, finding_stream::out, "", "\n", false},
    {finding_code::copy_stale, "copy-stale", severity::note, finding_stream::out, "", "\n", false},
    {finding_code::copy_unloadable, "copy-unloadable", severity::error, finding_stream::out, "", "\n", false},
    {finding_code::log_block_refused, "log-block-refused", severity::warning, finding_stream::out, "", "\n", false},
    {finding_code::log_never_written, "log-never-written", severity::warning, finding_stream::out, "", "\n", false},
    {finding_code::image_partial_sector, "image-partial-sector", severity::warning, finding_stream::out, "", "\n", false},
    {finding_code::image_short, "image-short", severity::error, finding_stream::out, "", "\n", false},
    {finding_code::sector_size_other, "sector-size-other", severity::warning, finding_stream::out, "", "\n", false},
}};

const finding_kind& kind_of(finding_code code);
const char* severity_name(severity sev);

// A record a finding concerns.
struct finding_object {
  int rtype = -1;  // dbr_type & 15; -1: no record
  std::optional<volrid_t> rid;
  std::string name;
};

// Where a finding lies; -1 where a coordinate does not apply.
struct finding_place {
  int copy = -1;              // configuration or log copy number
  std::int64_t block = -1;    // 512-byte file block of the copy
  std::int64_t sector = -1;   // sector of the image
  std::int64_t offset = -1;   // byte offset in the image
  const char* structure = "";  // what lies there: "config copy", "header", ...
};

struct finding {
  finding_code code{};
  std::string text;
  finding_object object;
  finding_object other;  // the second record, where two are involved
  finding_place place;
  std::optional<std::string> expected;  // the computed or claimed value
  std::optional<std::string> actual;    // the stored or found value

  severity sev() const { return kind_of(code).sev; }
  const char* name() const { return kind_of(code).name; }
};

// Receives findings as they are raised.
class finding_sink {
 public:
  virtual ~finding_sink() = default;
  virtual void raise(const finding& f) = 0;
};

// Keeps every finding, in the order raised.
class finding_collector : public finding_sink {
 public:
  void raise(const finding& f) override { list.push_back(f); }
  // True when a warning or an error was raised.
  bool any_problem() const;
  std::vector<finding> list;
};

// printf into a string, for a finding's text.
std::string finding_textf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// The bytes privdiag writes for `f`, on the stream it writes them to.
void write_finding_text(session& s, const finding& f);

// Hands `f` to the session's sink, or writes its text when there is none.
void raise_finding(session& s, const finding& f);

// Sets the session's sink for the lifetime of the guard.
class sink_guard {
 public:
  sink_guard(session& s, finding_sink* sink) : s_(s), saved_(s.sink) { s.sink = sink; }
  ~sink_guard() { s_.sink = saved_; }
  sink_guard(const sink_guard&) = delete;
  sink_guard& operator=(const sink_guard&) = delete;

 private:
  session& s_;
  finding_sink* saved_;
};

}  // namespace pd
