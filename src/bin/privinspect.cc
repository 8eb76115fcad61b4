// privinspect [--sector-size 512|4096] SUBCOMMAND IMAGE [options]: views of
// a private-region image that the fixed privdiag report does not give. The
// command line is parsed here; every view lives in the library (src/inspect).
// Usage errors end with status 3.
//
// Numbers are taken as text and converted here (decimal or 0x hex, the
// range checked with plain integers), so that every refusal names the option
// and the value in the same words.
#include <CLI/CLI.hpp>
#include <unistd.h>

#include <clocale>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "base/errors.h"
#include "base/session.h"
#include "inspect/anon.h"
#include "inspect/extract.h"
#include "inspect/inspect_compare.h"
#include "io/messages.h"
#include "inspect/inspect.h"
#include "inspect/json_repair.h"
#include "inspect/json_views.h"
#include "inspect/output.h"
#include "inspect/region_map.h"

namespace {

using pd::inspect_target;

constexpr const char* progname = "privinspect";

struct cli_values {
  inspect_target target;
  std::string copy_arg, count_arg, range_arg;
  std::string header_arg = "auto";
  bool long_listing = false;
  bool quiet = false;
  std::string sector_arg, block_arg, record_arg;
  std::vector<std::string> types;
  std::string rid_arg, name_arg;
  bool json = false;
  std::string out;
  bool force = false;
  std::vector<std::string> images;  // compare, map
  std::string svg;                  // compare, map
  bool dry_run = false;             // repair
  pd::anonymise_options anon;       // anonymise
  bool anon_show = false;
};

void add_image(CLI::App* sub, cli_values& v) {
  sub->add_option("IMAGE", v.target.image, "raw image of the private region")->required();
}

const char* const number_form = "decimal, or hex with 0x";

// Sub-commands are named so that the dispatcher below can tell them apart.
struct subcommands {
  CLI::App* logs;
  CLI::App* config;
  CLI::App* headers;
  CLI::App* check;
  CLI::App* scan;
  CLI::App* hexdump;
  CLI::App* records;
  CLI::App* dump;
  CLI::App* locate;
  CLI::App* extract;
  CLI::App* compare;
  CLI::App* map;
  CLI::App* repair;
  CLI::App* anonymise;
};

subcommands define(CLI::App& app, cli_values& v) {
  subcommands c{};
  c.logs = app.add_subcommand("logs", "dump the kernel log copies (all, or one by number)");
  add_image(c.logs, v);
  c.logs->add_option("--copy", v.copy_arg, "log copy number (default: every copy)");
  c.logs->add_flag("--long", v.long_listing, "add a line per log block (tid, seqno, length)");

  c.config = app.add_subcommand("config", "configuration report of one numbered copy");
  add_image(c.config, v);
  c.config->add_option("--copy", v.copy_arg, "configuration copy number")->required();

  c.headers =
      app.add_subcommand("headers", "both header copies side by side, and the scan's choice");
  add_image(c.headers, v);

  c.check = app.add_subcommand(
      "check",
      "run the whole report and set the exit status: 0 consistent, 1 inconsistencies, "
      "2 no usable header/TOC/config copy, 3 usage or I/O error");
  add_image(c.check, v);
  c.check->add_flag("--quiet,-q", v.quiet, "print nothing, only set the exit status");

  c.scan = app.add_subcommand(
      "scan", "find every structure's magic at every sector boundary, and damage where the "
              "header and TOC place a structure");
  add_image(c.scan, v);
  c.scan->add_option("--range", v.range_arg,
                     "SECTOR:COUNT, scan only COUNT sectors from SECTOR (numbers decimal or 0x hex)");

  c.hexdump = app.add_subcommand(
      "hexdump", "hex dump of image sectors, 512-byte file blocks of a configuration copy, or "
                 "the store blocks of a record");
  add_image(c.hexdump, v);
  auto* what = c.hexdump->add_option_group("what", "what to dump (exactly one)");
  what->add_option("--sector", v.sector_arg,
                   "sector N of the image (a sector of --sector-size bytes)");
  what->add_option("--block", v.block_arg,
                   "COPY:N, 512-byte file block N of configuration copy COPY, counted from the "
                   "copy's start as the report's \"File block\" messages count");
  what->add_option("--record", v.record_arg,
                   "the store blocks (of the copy's block size) of one record of the first "
                   "enabled copy, by name or rid H.L");
  what->require_option(1);
  c.hexdump->add_option("--count", v.count_arg,
                        "number of sectors or file blocks (default 1; not with --record)");
  c.hexdump->add_option("--copy", v.copy_arg,
                        "configuration copy for --record (default: first enabled)");

  c.records = app.add_subcommand("records", "long-format records that match every filter given");
  add_image(c.records, v);
  c.records->add_option("--type", v.types,
                        "record type name or number (repeatable): " + pd::record_type_names());
  c.records->add_option("--rid", v.rid_arg, "record id H.L");
  c.records->add_option("--name", v.name_arg, "record name");
  c.records->add_option("--copy", v.copy_arg, "configuration copy (default: first enabled)");

  c.dump = app.add_subcommand("dump", "everything decoded, in one JSON document");
  add_image(c.dump, v);

  // Whole-disk images.
  c.locate = app.add_subcommand(
      "locate", "partition tables of a whole-disk image and the private regions found in it");
  c.locate->add_option("DISK", v.target.image, "raw image of a whole disk (or of a region)")
      ->required();
  c.extract = app.add_subcommand(
      "extract", "write the region a view reads (of a whole disk, or a region image) to OUT as a "
                 "region image");
  c.extract->add_option("DISK", v.target.image, "raw image of a whole disk (or of a region)")
      ->required();
  c.extract->add_option("OUT", v.out, "the region image to write (never the input)")->required();
  c.extract->add_flag("--force", v.force, "replace OUT when it exists");

  // Several disks of a group.
  c.compare = app.add_subcommand(
      "compare", "the disks of one group side by side: headers, copies, stale disks, record "
                 "differences and which disks each database holds; status 0 all agree, "
                 "1 differences, 2 nothing comparable, 3 usage or I/O error");
  c.compare->add_option("IMAGE", v.images, "raw image of a region or whole disk, one per disk")
      ->required();
  c.compare->add_option("--svg", v.svg,
                        "also draw the disks one under another to one scale, the copies that "
                        "differ outlined, as SVG to FILE (never an input image)");
  c.map = app.add_subcommand(
      "map", "each region drawn to scale: headers, TOC blocks, copies and free space, and each "
             "configuration copy's blocks; a text map, or an SVG picture with --svg");
  c.map->add_option("IMAGE", v.images, "raw image of a region or whole disk, one per disk")
      ->required();
  c.map->add_option("--svg", v.svg, "write the map as SVG to FILE (never an input image)");

  // A new image restored from sound copies.
  c.repair = app.add_subcommand(
      "repair", "write to OUT a copy of IN in which every damaged structure that a sound copy "
                "covers is restored from it, proven by check; status 0 repaired, 1 repaired "
                "with findings left, 2 nothing written, 3 usage or I/O error or failed proof");
  c.repair->add_option("IN", v.target.image, "raw image of a region or whole disk (only read)")
      ->required();
  c.repair->add_option("OUT", v.out, "the repaired image to write (never the input)")->required();
  c.repair->add_flag("--dry-run", v.dry_run, "print the plan, write nothing");
  c.repair->add_flag("--force", v.force, "replace OUT (and its log OUT.repair.json) when it exists");

  // A copy that names nothing of the customer's (docs/anonymise.md).
  c.anonymise = app.add_subcommand(
      "anonymise", "write IN's region to OUT with every name replaced by a keyed pseudonym, its "
                   "damage kept; OUT is kept only when check agrees and no original is left");
  c.anonymise->add_option("IN", v.target.image, "raw image of a region or whole disk")->required();
  c.anonymise->add_option("OUT", v.anon.out, "the region image to write (never the input)");
  c.anonymise->add_option("--key", v.anon.key_path, "key file: 64 hex digits (see --new-key)");
  c.anonymise->add_flag("--new-key", v.anon.new_key, "create the key file first (never over one)");
  c.anonymise->add_option("--map", v.anon.map_path,
                          "write the map (pseudonym -> original, JSON) to MAP; never into OUT");
  c.anonymise->add_flag("--force", v.anon.force, "replace OUT and MAP when they exist");
  c.anonymise->add_option("--with", v.anon.with,
                          "another disk of the group (repeatable): its names join the draw, so "
                          "that every disk anonymised with the same --with list agrees");
  c.anonymise->add_flag("--ids", v.anon.ids,
                        "replace record ids, disk ids, group ids and GUIDs too, consistently");
  c.anonymise->add_flag("--show", v.anon_show, "print IN's anonymisation marker, if it has one");
  return c;
}

std::string subcommand_names(const CLI::App& app) {
  std::string out;
  for (const CLI::App* sub : app.get_subcommands({})) {
    out += (out.empty() ? "" : " ") + sub->get_name();
  }
  return out;
}

// A refused command line: the message, then status 3.
int usage(const std::string& text) {
  std::fprintf(stderr, "%s: %s\n", progname, text.c_str());
  return pd::INSPECT_USAGE_IO;
}

// `text` of option `name` as a number in [lo, hi]; false after a message.
bool number_arg(const char* name, const std::string& text, std::uint64_t lo, std::uint64_t hi,
                std::uint64_t& v) {
  if (!pd::inspect_parse_number(text, v)) {
    usage(std::string(name) + ": not a number: " + pd::escape_text(text) + " (" + number_form +
          ")");
    return false;
  }
  if (v < lo || v > hi) {
    usage(std::string(name) + ": " + std::to_string(v) + " is not in the range " +
          std::to_string(lo) + " to " + std::to_string(hi));
    return false;
  }
  return true;
}

constexpr std::uint64_t max_copy = 65535;
constexpr std::uint64_t max_count = 4294967295u;

// --copy as given, or -1 when absent.
bool copy_number(const cli_values& v, int& copy) {
  copy = -1;
  if (v.copy_arg.empty()) return true;
  std::uint64_t n = 0;
  if (!number_arg("--copy", v.copy_arg, 0, max_copy, n)) return false;
  copy = static_cast<int>(n);
  return true;
}

// COPY:N style arguments: two numbers around a colon.
bool pair_arg(const char* name, const char* form, const std::string& text, std::uint64_t hi_first,
              std::uint64_t lo_second, std::uint64_t hi_second, std::uint64_t& first,
              std::uint64_t& second) {
  std::size_t colon = text.find(':');
  if (colon == std::string::npos) {
    usage(std::string(name) + ": expected " + form + ", got " + pd::escape_text(text));
    return false;
  }
  return number_arg(name, text.substr(0, colon), 0, hi_first, first) &&
         number_arg(name, text.substr(colon + 1), lo_second, hi_second, second);
}

// hexdump's request from its options; false after a message.
bool hexdump_request_of(const cli_values& v, pd::hexdump_request& r) {
  if (!v.copy_arg.empty() && v.record_arg.empty()) {
    usage("hexdump: --copy cannot be used with --sector or --block (--block names its copy)");
    return false;
  }
  if (!v.count_arg.empty() && !v.record_arg.empty()) {
    usage("hexdump: --count cannot be used with --record (a record's blocks are all dumped)");
    return false;
  }
  std::uint64_t n = 0, m = 0;
  if (!v.count_arg.empty()) {
    if (!number_arg("--count", v.count_arg, 1, max_count, n)) return false;
    r.count = static_cast<std::size_t>(n);
  }
  if (!v.sector_arg.empty()) {
    r.what = pd::hexdump_what::sector;
    if (!number_arg("--sector", v.sector_arg, 0, UINT64_MAX, n)) return false;
    r.sector = n;
  } else if (!v.block_arg.empty()) {
    r.what = pd::hexdump_what::block;
    if (!pair_arg("--block", "COPY:N", v.block_arg, max_copy, 0, SIZE_MAX, n, m)) return false;
    r.copy = static_cast<int>(n);
    r.block = static_cast<std::size_t>(m);
  } else {
    r.what = pd::hexdump_what::record;
    r.ref = v.record_arg;
    if (!copy_number(v, r.copy)) return false;
  }
  return true;
}

int run_hexdump(pd::session& s, const cli_values& v) {
  pd::hexdump_request r;
  if (!hexdump_request_of(v, r)) return pd::INSPECT_USAGE_IO;
  return pd::inspect_hexdump(s, v.target, r);
}

int run_scan(pd::session& s, const cli_values& v, const pd::json_invocation* json = nullptr) {
  pd::scan_request r;
  if (!v.range_arg.empty()) {
    std::uint64_t first = 0, count = 0;
    if (!pair_arg("--range", "SECTOR:COUNT", v.range_arg, UINT64_MAX, 1, UINT64_MAX, first,
                  count)) {
      return pd::INSPECT_USAGE_IO;
    }
    r.first = first;
    r.count = count;
  }
  r.progress = isatty(STDERR_FILENO) != 0;
  return json != nullptr ? pd::json_scan(s, *json, v.target, r) : pd::inspect_scan(s, v.target, r);
}

// compare's and map's images, each read with the global options.
std::vector<inspect_target> compare_targets(const cli_values& v) {
  std::vector<inspect_target> out;
  for (const std::string& image : v.images) {
    inspect_target t = v.target;
    t.image = image;
    out.push_back(t);
  }
  return out;
}

// anonymise: --show reads IN only; otherwise OUT and --key are required.
int run_anonymise(pd::session& s, const cli_values& v) {
  if (v.anon_show) {
    if (!v.anon.out.empty() || !v.anon.key_path.empty() || !v.anon.map_path.empty())
      return usage("anonymise --show takes IN only");
    return pd::inspect_anonymise_show(s, v.target);
  }
  if (v.anon.out.empty()) return usage("anonymise: OUT is required");
  if (v.anon.key_path.empty()) return usage("anonymise: --key KEYFILE is required");
  pd::anonymise_options o = v.anon;
  o.tool_version = PD_VERSION;
  return pd::inspect_anonymise(s, v.target, o);
}

int dispatch(pd::session& s, const subcommands& c, const cli_values& v) {
  if (c.compare->parsed()) return pd::inspect_compare(s, compare_targets(v), v.svg);
  if (c.map->parsed()) {
    // Unicode and colour on a terminal, unless NO_COLOR is set (and not empty).
    const char* no_color = std::getenv("NO_COLOR");
    const bool terminal =
        isatty(STDOUT_FILENO) != 0 && (no_color == nullptr || *no_color == '\0');
    return pd::inspect_map(s, compare_targets(v), v.svg, terminal);
  }
  if (c.hexdump->parsed()) return run_hexdump(s, v);
  if (c.scan->parsed()) return run_scan(s, v);
  if (c.locate->parsed()) return pd::inspect_locate(s, v.target);
  if (c.extract->parsed()) return pd::inspect_extract(s, v.target, v.out, v.force);
  if (c.anonymise->parsed()) return run_anonymise(s, v);
  int copy = -1;
  if (!copy_number(v, copy)) return pd::INSPECT_USAGE_IO;
  if (c.logs->parsed()) return pd::inspect_logs(s, v.target, copy, v.long_listing);
  if (c.config->parsed()) return pd::inspect_config(s, v.target, copy);
  if (c.headers->parsed()) return pd::inspect_headers(s, v.target);
  if (c.check->parsed()) return pd::inspect_check(s, v.target, v.quiet);
  pd::records_filter f;
  if (!pd::records_parse(s, v.types, v.rid_arg, v.name_arg, f)) return pd::INSPECT_USAGE_IO;
  f.copy = copy;
  return pd::inspect_records(s, v.target, f);
}

// --json (and dump): the same views as JSON documents (docs/json.md).
int dispatch_json(pd::session& s, const subcommands& c, const cli_values& v,
                  const pd::json_invocation& inv) {
  const inspect_target& t = v.target;
  if (c.dump->parsed()) return pd::json_dump(s, inv, t);
  if (c.map->parsed()) {
    if (!v.svg.empty()) return usage("map: --svg has no JSON form; without --json");
    return pd::json_map(s, inv, compare_targets(v));
  }
  if (c.compare->parsed()) {
    if (!v.svg.empty()) return usage("compare: --svg has no JSON form; without --json");
    return pd::json_compare(s, inv, compare_targets(v));
  }
  if (c.locate->parsed()) return pd::json_locate(s, inv, t);
  if (c.extract->parsed()) return pd::json_extract(s, inv, t, v.out, v.force);
  if (c.anonymise->parsed()) return usage("anonymise has no JSON form; without --json");
  if (c.headers->parsed()) return pd::json_headers(s, inv, t);
  if (c.check->parsed()) return pd::json_check(s, inv, t);
  if (c.scan->parsed()) return run_scan(s, v, &inv);
  if (c.hexdump->parsed()) {
    pd::hexdump_request r;
    if (!hexdump_request_of(v, r)) return pd::INSPECT_USAGE_IO;
    return pd::json_hexdump(s, inv, t, r);
  }
  int copy = -1;
  if (!copy_number(v, copy)) return pd::INSPECT_USAGE_IO;
  if (c.logs->parsed()) return pd::json_logs(s, inv, t, copy);
  if (c.config->parsed()) return pd::json_config(s, inv, t, copy);
  pd::records_filter f;
  if (!pd::records_parse(s, v.types, v.rid_arg, v.name_arg, f)) return pd::INSPECT_USAGE_IO;
  f.copy = copy;
  return pd::json_records(s, inv, t, f);
}

// The parsed command line's leftovers: an unknown subcommand or argument.
int check_leftovers(const CLI::App& app, const subcommands& c) {
  std::vector<std::string> left = app.remaining(true);
  const CLI::App* chosen = nullptr;
  for (const CLI::App* sub : {c.logs, c.config, c.headers, c.check, c.scan, c.hexdump, c.records,
                              c.dump, c.locate, c.extract, c.compare, c.map, c.repair, c.anonymise}) {
    if (sub->parsed()) chosen = sub;
  }
  if (chosen == nullptr) {
    if (left.empty() || left[0].rfind("-", 0) == 0) {
      return usage("a subcommand is required; subcommands: " + subcommand_names(app));
    }
    return usage("unknown subcommand '" + pd::escape_text(left[0]) +
                 "'; subcommands: " + subcommand_names(app));
  }
  if (!left.empty()) {
    return usage(chosen->get_name() + ": unexpected argument '" + pd::escape_text(left[0]) +
                 "' (see " + progname + " " + chosen->get_name() + " --help)");
  }
  return pd::INSPECT_OK;
}

// --header's word.
bool header_choice_of(const std::string& word, pd::header_choice& choice) {
  if (word == "auto") {
    choice = pd::header_choice::automatic;
  } else if (word == "primary") {
    choice = pd::header_choice::primary;
  } else if (word == "alternate") {
    choice = pd::header_choice::alternate;
  } else {
    std::fprintf(stderr, "%s: --header: '%s' is not auto, primary or alternate\n", progname,
                 word.c_str());
    return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"privinspect - inspect the private region of a disk image", progname};
  cli_values v;
  app.add_option("--sector-size", v.target.sector_size, "bytes per sector: 512 (default) or 4096")
      ->check(CLI::IsMember({512, 4096}));
  app.add_flag("--json", v.json, "write the view as one JSON document (docs/json.md)");
  app.set_version_flag("--version", "privinspect " PD_VERSION, "print the version and exit");
  app.add_option("--header", v.header_arg,
                 "header copy to read through: auto (default: the scan's choice, else the copy "
                 "that decodes), primary or alternate");
  std::string region_arg, offset_arg;
  app.add_option("--region", region_arg,
                 "in a whole-disk image, the candidate region N that locate lists");
  app.add_option("--offset", offset_arg,
                 "in a whole-disk image, the region starting at SECTOR (of --sector-size bytes)");
  app.fallthrough();
  subcommands c = define(app, v);
  app.allow_extras();  // after define(): the subcommands do not inherit it
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    int status = app.exit(e);
    return status == 0 ? 0 : pd::INSPECT_USAGE_IO;
  }
  if (int status = check_leftovers(app, c); status != pd::INSPECT_OK) return status;
  if (!header_choice_of(v.header_arg, v.target.header_choice)) return pd::INSPECT_USAGE_IO;
  std::uint64_t n = 0;
  if (!region_arg.empty() && !offset_arg.empty()) return usage("--region and --offset exclude each other");
  if (!region_arg.empty()) {
    if (!number_arg("--region", region_arg, 1, 65535, n)) return pd::INSPECT_USAGE_IO;
    v.target.region = static_cast<int>(n);
  }
  if (!offset_arg.empty()) {
    if (!number_arg("--offset", offset_arg, 0, INT64_MAX, n)) return pd::INSPECT_USAGE_IO;
    v.target.offset_sector = static_cast<std::int64_t>(n);
  }

  pd::session s;
  s.progname = progname;
  s.out = pd::checked_stdout(progname, pd::INSPECT_USAGE_IO);
  std::setlocale(LC_ALL, "");
  pd::volsetcat(s, "quillon.mesg");
  pd::volsetlabel(s, "qztool:priv");
  int status;
  try {
    if (c.repair->parsed()) {
      const pd::repair_request req{v.out, v.dry_run, v.force, v.json};
      status = pd::inspect_repair(s, {std::vector<std::string>(argv, argv + argc), PD_VERSION},
                                  v.target, req);
    } else {
      status = v.json || c.dump->parsed()
                   ? dispatch_json(s, c, v, {std::vector<std::string>(argv, argv + argc), PD_VERSION})
                   : dispatch(s, c, v);
    }
  } catch (const pd::fatal_exit& e) {
    status = e.status;
  }
  std::fflush(s.out);
  return status;
}
