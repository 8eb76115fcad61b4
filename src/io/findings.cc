// Findings and their sinks (see findings.h).
#include "io/findings.h"

#include <cstdarg>
#include <cstdio>

namespace pd {

namespace {

constexpr bool table_in_code_order() {
  for (std::size_t i = 0; i < finding_table.size(); ++i) {
    if (static_cast<std::size_t>(finding_table[i].code) != i) return false;
  }
  return true;
}
static_assert(table_in_code_order(), "finding_table lists the codes in their order");

}  // namespace

const finding_kind& kind_of(finding_code code) {
  return finding_table[static_cast<std::size_t>(code)];
}

const char* severity_name(severity sev) {
  switch (sev) {
    case severity::note: return "note";
    case severity::warning: return "warning";
    case severity::error: return "error";
  }
  return "error";
}

bool finding_collector::any_problem() const {
  for (const finding& f : list) {
    if (f.sev() != severity::note) return true;
  }
  return false;
}

std::string finding_textf(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  va_list again;
  va_copy(again, ap);
  std::string text;
  const int n = std::vsnprintf(nullptr, 0, fmt, ap);
  if (n > 0) {
    text.resize(static_cast<std::size_t>(n) + 1);
    std::vsnprintf(text.data(), text.size(), fmt, again);
    text.resize(static_cast<std::size_t>(n));
  }
  va_end(again);
  va_end(ap);
  return text;
}

void write_finding_text(session& s, const finding& f) {
  const finding_kind& k = kind_of(f.code);
  FILE* to = k.stream == finding_stream::out ? s.out : s.err;
  std::fputs(k.before, to);
  std::fwrite(f.text.data(), 1, f.text.size(), to);
  std::fputs(k.after, to);
}

void raise_finding(session& s, const finding& f) {
  if (s.sink != nullptr) {
    s.sink->raise(f);
  } else {
    write_finding_text(s, f);
  }
}

}  // namespace pd
