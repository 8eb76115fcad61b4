// Catalogue-tagged messages, the volume error texts, the message label and
// catalogue name, and the platform layer's last error number.
//
// A message format may begin with a tag ":<digits>:" naming its catalogue
// entry. No catalogue is ever read: the tag is stripped and the rest of the
// format is printed with the C library's printf rules. A format whose tag is
// incomplete (no digit, or digits not closed by a colon) is printed whole.
#include "io/messages.h"

#include <cctype>
#include <cstdarg>
#include <cstring>
#include <new>

#include "base/errors.h"
#include "io/error_table.h"

namespace pd {

namespace {

// Severity words indexed by severity; 0 writes neither label nor word.
constexpr const char* sev_list[] = {"", "ERROR", "WARNING", "TO FIX", "INFO"};
constexpr int sev_max = 4;

// The format behind a complete ":<digits>:" tag, or the format itself.
const char* msg_strip_tag(const char* fmt) {
  if (fmt[0] != ':') return fmt;
  const char* p = fmt + 1;
  while (std::isdigit(static_cast<unsigned char>(*p))) ++p;
  if (p == fmt + 1 || *p != ':') return fmt;
  return p + 1;
}

// A heap copy of `text`, or null when memory is exhausted.
std::unique_ptr<char[]> msg_dup(const char* text) {
  std::size_t n = std::strlen(text) + 1;
  std::unique_ptr<char[]> copy(new (std::nothrow) char[n]);
  if (copy) std::memcpy(copy.get(), text, n);
  return copy;
}

// The label and severity word that begin a message of severity `sev`.
std::string msg_prefix(const session& s, int sev) {
  // Severities above 4 have no word; they are written like severity 0.
  std::string prefix;
  if (sev <= 0 || sev > sev_max) return prefix;
  if (s.msg.applabel) prefix += std::string(s.msg.applabel.get()) + ": ";
  prefix += std::string(sev_list[sev]) + ": ";
  return prefix;
}

}  // namespace

int volpfmt(session& s, FILE* f, int sev, const char* fmt, ...) {
  std::fputs(msg_prefix(s, sev).c_str(), f);
  const char* text = msg_strip_tag(fmt);
  va_list ap;
  va_start(ap, fmt);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  int n = std::vfprintf(f, text, ap);
#pragma GCC diagnostic pop
  va_end(ap);
  return n;
}

std::string volsfmt(const session& s, int sev, const char* fmt, ...) {
  std::string out = msg_prefix(s, sev);
  const char* text = msg_strip_tag(fmt);
  va_list ap;
  va_start(ap, fmt);
  va_list again;
  va_copy(again, ap);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  const int n = std::vsnprintf(nullptr, 0, text, ap);
  if (n > 0) {
    const std::size_t at = out.size();
    out.resize(at + static_cast<std::size_t>(n) + 1);
    std::vsnprintf(out.data() + at, static_cast<std::size_t>(n) + 1, text, again);
    out.resize(at + static_cast<std::size_t>(n));
  }
#pragma GCC diagnostic pop
  va_end(again);
  va_end(ap);
  return out;
}

const char* vol_strerror(int verrno) {
  for (std::size_t i = 0; i < n_errstrs; ++i) {
    if (errstrs[i].verrno == verrno) return errstrs[i].str;
  }
  // Shared by every caller; the next unknown number overwrites it.
  static char unknown[50];
  std::snprintf(unknown, sizeof unknown, "Dmconfig error %d", verrno);
  return unknown;
}

const char* volsetcat(session& s, const char* catid) {
  std::unique_ptr<char[]> copy = msg_dup(catid);
  if (!copy) {
    // The id itself, not the program name, names the failure.
    std::fprintf(s.err, "%s: Out of memory\n", catid);
    throw fatal_exit{127, fatal_kind::memory};
  }
  s.msg.catname = std::move(copy);
  return s.msg.catname.get();
}

int volsetlabel(session& s, const char* clabel) {
  s.msg.applabel = msg_dup(clabel);
  return 1;
}

const char* egettxt(const char* /*mid*/, const char* deflt_m) { return deflt_m; }

std::uint64_t vold_last_errno(const session& s) { return s.msg.vold_nt_errno; }

void vold_set_errno(session& s, std::uint64_t newerrno) {
  s.msg.vold_nt_errno = newerrno;
  s.msg.save_last_vold_errno = newerrno;
}

}  // namespace pd
