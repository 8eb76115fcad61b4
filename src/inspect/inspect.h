// privinspect's views of an image, one function per subcommand. Each opens
// the image read-only, goes as far as the damage allows, says on the error
// stream what stopped it, and returns the exit status (inspect_image.h).
// Fatal conditions of the shared library layers (fatal_exit) may pass
// through; main turns them into the status they carry.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/session.h"
#include "base/types.h"
#include "io/findings.h"
#include "inspect/disk_locate.h"
#include "inspect/inspect_image.h"

namespace pd {

struct record;

// logs [--copy N] [--long]: the log dump of one copy (copy >= 0) or all.
int inspect_logs(session& s, const inspect_target& t, int copy, bool long_listing);

// config --copy N: the configuration report of copy N, enabled or not.
int inspect_config(session& s, const inspect_target& t, int copy);

// headers: both header copies, their differences and the scan's choice.
int inspect_headers(session& s, const inspect_target& t);
// The verdicts of `headers` as findings: each copy's checksum and decode,
// then the scan's choice (a note). The image is open, not yet scanned.
std::vector<finding> header_findings(inspect_image& img);

// check [--quiet]: the whole report run silently; one line per finding.
int inspect_check(session& s, const inspect_target& t, bool quiet);
// The check as data: its status, every finding (privdiag's run first, the
// first `privdiag_findings` of them, then the rest of the region's) and the
// messages of privdiag's run (the stage that ended it among them). When
// the image was not opened, `opened` is false and `err_text` holds why
// (empty when memory ran out). `note` receives the fallback note, if any.
struct check_outcome {
  int status = INSPECT_USAGE_IO;
  bool opened = false;
  std::vector<finding> findings;
  std::size_t privdiag_findings = 0;
  std::vector<std::string> messages;
};
check_outcome run_check(const session& like, const inspect_target& t,
                        std::string* err_text = nullptr, std::string* note = nullptr);

// scan [--range SECTOR:COUNT]: every magic at every sector boundary, with
// its decode status, and every place where the header and TOC put a
// structure whose magic is wrong.
struct scan_request {
  std::uint64_t first = 0;           // first sector scanned
  std::uint64_t count = UINT64_MAX;  // sectors scanned (to the end by default)
  bool progress = false;             // a progress line on the error stream after a second
};
int inspect_scan(session& s, const inspect_target& t, const scan_request& r = {});

// hexdump (--sector N | --block COPY:N | --record REF) [--count K]
enum class hexdump_what { sector, block, record };
struct hexdump_request {
  hexdump_what what = hexdump_what::sector;
  std::uint64_t sector = 0;  // --sector
  int copy = -1;             // --block's COPY, or --copy for --record
  std::size_t block = 0;     // --block's N
  std::string ref;           // --record
  std::size_t count = 1;
};
// A number of the command line: decimal, or hex after "0x"/"0X"; no sign,
// blanks or trailing text. False on anything else, and on a value above
// 2^64 - 1.
bool inspect_parse_number(const std::string& text, std::uint64_t& v);
int inspect_hexdump(session& s, const inspect_target& t, const hexdump_request& r);

// records [--type T]... [--rid H.L] [--name NAME] [--copy N]
struct records_filter {
  std::vector<int> types;  // record types (dbr_type & 15); empty: any
  std::optional<volrid_t> rid;
  std::optional<std::string> name;
  int copy = -1;
};
// The accepted type names, for the help text.
std::string record_type_names();
bool records_parse(session& s, const std::vector<std::string>& types, const std::string& rid,
                   const std::string& name, records_filter& f);
int inspect_records(session& s, const inspect_target& t, const records_filter& f);
// Whether `r` passes every filter of `f`.
bool records_match(const record* r, const records_filter& f);

}  // namespace pd
