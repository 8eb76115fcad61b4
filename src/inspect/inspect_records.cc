// records: the long-format records of one configuration copy that pass
// every filter given (type, rid, name), in the order the store completed
// them, followed by a count line. Each record is printed by the report's
// printer into memory and written through the escaping writer: the
// printer's line breaks are the layout, every other byte that is a control
// byte or not UTF-8 (in a name, a state, a comment) is escaped.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "codec/text_forms.h"
#include "inspect/inspect.h"
#include "inspect/inspect_load.h"
#include "inspect/output.h"
#include "io/messages.h"
#include "report/record_printer.h"

namespace pd {

namespace {

// Record kinds (the low four bits of the type word) by the names users
// know them by; the first name of a kind is the one listed in the help.
struct record_type_name {
  const char* name;
  int type;
};

constexpr record_type_name record_type_names_table[] = {
    {"volume", 1}, {"vol", 1},     {"plex", 2},      {"subdisk", 3}, {"sd", 3},
    {"disk", 4},   {"dm", 4},      {"diskgroup", 5}, {"dg", 5},      {"da", 6},
    {"rvol", 7},   {"replica", 8}, {"rlink", 8},     {"dco", 9},     {"snapshot", 10},
    {"snap", 10},  {"stpool", 11}, {"info", 12},     {"cache", 13},  {"vset", 14},
};

bool lookup_type(const std::string& text, int& type) {
  for (const record_type_name& n : record_type_names_table) {
    if (text == n.name) {
      type = n.type;
      return true;
    }
  }
  char* end = nullptr;
  long v = std::strtol(text.c_str(), &end, 0);
  if (!text.empty() && *end == '\0' && v >= 0 && v <= 15) {
    type = static_cast<int>(v);
    return true;
  }
  return false;
}


}  // namespace

std::string record_type_names() {
  std::string out;
  for (const record_type_name& n : record_type_names_table) {
    if (!out.empty()) out += ", ";
    out += n.name;
  }
  return out + ", or a number 0-15";
}

bool records_parse(session& s, const std::vector<std::string>& types, const std::string& rid,
                   const std::string& name, records_filter& f) {
  for (const std::string& t : types) {
    int type = 0;
    if (!lookup_type(t, type)) {
      std::fprintf(s.err, "%s: --type: unknown record type %s\n", s.progname,
                   escape_text(t).c_str());
      return false;
    }
    f.types.push_back(type);
  }
  if (!rid.empty()) {
    const char* end = nullptr;
    volrid_t v = strtovolrid(rid.c_str(), &end);
    if (end == rid.c_str() || *end != '\0') {
      std::fprintf(s.err, "%s: --rid: expected H.L, got %s\n", s.progname,
                   escape_text(rid).c_str());
      return false;
    }
    f.rid = v;
  }
  if (!name.empty()) f.name = name;
  return true;
}

int inspect_records(session& s, const inspect_target& t, const records_filter& f) {
  inspect_image img(s);
  if (!img.open(t)) return INSPECT_USAGE_IO;
  if (int st = img.locate_or_explain(); st != INSPECT_OK) return st;
  copy_info* cp = inspect_select_config_copy(s, img.priv(), f.copy);
  if (cp == nullptr) return INSPECT_FINDINGS;
  loaded_copy lc(s);
  if (!lc.load(img.priv(), cp)) return INSPECT_FINDINGS;
  text_out out(s.out);
  char* text = nullptr;
  std::size_t len = 0;
  FILE* mem = open_memstream(&text, &len);
  if (mem == nullptr) {
    volpfmt(s, s.err, 1, ":733:Memory allocation failed\n");
    return INSPECT_USAGE_IO;
  }
  record_printer pr(mem);
  int total = 0;
  int matched = 0;
  for (record* r = lc.rep.rlist; r != nullptr; r = r->next) {
    total++;
    if (!records_match(r, f)) continue;
    matched++;
    pr.print_record(lc.rep.db, r->dbrec);
    std::fflush(mem);
    out.lines(std::string_view(text, len));
    std::rewind(mem);
  }
  std::fclose(mem);
  std::free(text);
  out.printf("#%d of %d record(s) of config copy %d match\n", matched, total, cp->ci_copy);
  return matched > 0 ? INSPECT_OK : INSPECT_FINDINGS;
}

bool records_match(const record* r, const records_filter& f) {
  if (!f.types.empty()) {
    bool any = false;
    for (int t : f.types) any = any || t == r->type;
    if (!any) return false;
  }
  if (f.rid && !seqno_equal(*f.rid, r->rid)) return false;
  if (f.name && *f.name != r->name) return false;
  return true;
}

}  // namespace pd
