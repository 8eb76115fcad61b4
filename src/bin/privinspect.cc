// privinspect [--sector-size 512|4096] SUBCOMMAND IMAGE [options]: views of
// a private-region image that the fixed privdiag report does not give. The
// command line is parsed here; every view lives in the library (src/inspect).
// Usage errors end with status 3.
#include <CLI/CLI.hpp>
#include <clocale>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "base/errors.h"
#include "base/session.h"
#include "io/messages.h"
#include "inspect/inspect.h"
#include "inspect/json_views.h"

namespace {

using pd::inspect_target;

struct cli_values {
  inspect_target target;
  int copy = -1;
  bool long_listing = false;
  bool quiet = false;
  std::string sector_arg, block_arg, record_arg;
  std::size_t count = 1;
  std::vector<std::string> types;
  std::string rid_arg, name_arg;
  bool json = false;
};

void add_image(CLI::App* sub, cli_values& v) {
  sub->add_option("IMAGE", v.target.image, "raw image of the private region")->required();
}

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
};

subcommands define(CLI::App& app, cli_values& v) {
  subcommands c{};
  c.logs = app.add_subcommand("logs", "dump the kernel log copies (all, or one by number)");
  add_image(c.logs, v);
  c.logs->add_option("--copy", v.copy, "log copy number (default: every copy)")
      ->check(CLI::NonNegativeNumber);
  c.logs->add_flag("--long", v.long_listing, "add a line per log block (tid, seqno, length)");

  c.config = app.add_subcommand("config", "configuration report of one numbered copy");
  add_image(c.config, v);
  c.config->add_option("--copy", v.copy, "configuration copy number")
      ->required()
      ->check(CLI::NonNegativeNumber);

  c.headers =
      app.add_subcommand("headers", "both header copies side by side, and the scan's choice");
  add_image(c.headers, v);

  c.check = app.add_subcommand(
      "check",
      "run the whole report and set the exit status: 0 consistent, 1 inconsistencies, "
      "2 no usable header/TOC/config copy, 3 usage or I/O error");
  add_image(c.check, v);
  c.check->add_flag("--quiet,-q", v.quiet, "print nothing, only set the exit status");

  c.scan = app.add_subcommand("scan", "find every structure's magic at every sector boundary");
  add_image(c.scan, v);

  c.hexdump =
      app.add_subcommand("hexdump", "hex dump of sectors, configuration blocks or a record");
  add_image(c.hexdump, v);
  auto* what = c.hexdump->add_option_group("what", "what to dump (exactly one)");
  what->add_option("--sector", v.sector_arg, "sector number N of the image");
  what->add_option("--block", v.block_arg, "COPY:N, 512-byte block N of configuration copy COPY");
  what->add_option("--record", v.record_arg,
                   "the blocks of one record of the first enabled copy, by name or rid H.L");
  what->require_option(1);
  c.hexdump->add_option("--count", v.count, "number of sectors or blocks (default 1)")
      ->check(CLI::PositiveNumber);
  c.hexdump
      ->add_option("--copy", v.copy, "configuration copy for --record (default: first enabled)")
      ->check(CLI::NonNegativeNumber);

  c.records = app.add_subcommand("records", "long-format records that match every filter given");
  add_image(c.records, v);
  c.records->add_option("--type", v.types,
                        "record type name or number (repeatable): " + pd::record_type_names());
  c.records->add_option("--rid", v.rid_arg, "record id H.L");
  c.records->add_option("--name", v.name_arg, "record name");
  c.records->add_option("--copy", v.copy, "configuration copy (default: first enabled)")
      ->check(CLI::NonNegativeNumber);

  c.dump = app.add_subcommand("dump", "everything decoded, in one JSON document");
  add_image(c.dump, v);
  return c;
}

// --json (and dump): the same views as JSON documents (docs/json.md).
int dispatch_json(pd::session& s, const subcommands& c, cli_values& v,
                  const pd::json_invocation& inv) {
  const inspect_target& t = v.target;
  if (c.dump->parsed()) return pd::json_dump(s, inv, t);
  if (c.logs->parsed()) return pd::json_logs(s, inv, t, v.copy);
  if (c.config->parsed()) return pd::json_config(s, inv, t, v.copy);
  if (c.headers->parsed()) return pd::json_headers(s, inv, t);
  if (c.check->parsed()) return pd::json_check(s, inv, t);
  if (c.scan->parsed()) return pd::json_scan(s, inv, t);
  if (c.hexdump->parsed()) {
    pd::hexdump_request r;
    if (!pd::hexdump_parse(s, v.sector_arg, v.block_arg, v.record_arg, r)) return pd::INSPECT_USAGE_IO;
    r.count = v.count;
    if (r.what == pd::hexdump_what::record) r.copy = v.copy;
    return pd::json_hexdump(s, inv, t, r);
  }
  pd::records_filter f;
  if (!pd::records_parse(s, v.types, v.rid_arg, v.name_arg, f)) return pd::INSPECT_USAGE_IO;
  f.copy = v.copy;
  return pd::json_records(s, inv, t, f);
}

int dispatch(pd::session& s, const subcommands& c, cli_values& v) {
  if (c.logs->parsed()) return pd::inspect_logs(s, v.target, v.copy, v.long_listing);
  if (c.config->parsed()) return pd::inspect_config(s, v.target, v.copy);
  if (c.headers->parsed()) return pd::inspect_headers(s, v.target);
  if (c.check->parsed()) return pd::inspect_check(s, v.target, v.quiet);
  if (c.scan->parsed()) return pd::inspect_scan(s, v.target);
  if (c.hexdump->parsed()) {
    pd::hexdump_request r;
    if (!pd::hexdump_parse(s, v.sector_arg, v.block_arg, v.record_arg, r)) {
      return pd::INSPECT_USAGE_IO;
    }
    r.count = v.count;
    if (r.what == pd::hexdump_what::record) r.copy = v.copy;
    return pd::inspect_hexdump(s, v.target, r);
  }
  pd::records_filter f;
  if (!pd::records_parse(s, v.types, v.rid_arg, v.name_arg, f)) return pd::INSPECT_USAGE_IO;
  f.copy = v.copy;
  return pd::inspect_records(s, v.target, f);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"privinspect - inspect the private region of a disk image", "privinspect"};
  cli_values v;
  app.add_option("--sector-size", v.target.sector_size, "bytes per sector: 512 (default) or 4096")
      ->check(CLI::IsMember({512, 4096}));
  app.add_flag("--json", v.json, "write the view as one JSON document (docs/json.md)");
  app.set_version_flag("--version", "privinspect " PD_VERSION, "print the version and exit");
  app.require_subcommand(1);
  app.fallthrough();
  subcommands c = define(app, v);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    int status = app.exit(e);
    return status == 0 ? 0 : pd::INSPECT_USAGE_IO;
  }

  pd::session s;
  s.progname = "privinspect";
  std::setlocale(LC_ALL, "");
  pd::volsetcat(s, "quillon.mesg");
  pd::volsetlabel(s, "qztool:priv");
  int status;
  try {
    status = v.json || c.dump->parsed()
                 ? dispatch_json(s, c, v, {std::vector<std::string>(argv, argv + argc), PD_VERSION})
                 : dispatch(s, c, v);
  } catch (const pd::fatal_exit& e) {
    status = e.status;
  }
  std::fflush(s.out);
  return status;
}
