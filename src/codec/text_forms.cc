// Text forms of offsets, sequence numbers, record ids and GUIDs, GUID text
// parsing and the hexadecimal dump.
//
// Offsets print as plain signed decimal. Sequence numbers and record ids
// print "hi.lo", both halves unsigned. GUIDs print as 36 lower-case
// characters in groups 8-4-4-4-12 (braced by volguidtostr) and parse back
// only from that exact lower-case form.
#include "codec/text_forms.h"

#include <cctype>
#include <charconv>
#include <cstdlib>
#include <cstring>

#include "base/errors.h"

namespace pd {

namespace {

constexpr const char guid_digits[] = "0123456789abcdef";

// Reads `n` lower-case hexadecimal digits at *pp; false at the first
// character that is not one (the terminator included), leaving *pp there.
bool guid_hex(const char** pp, int n, std::uint32_t* out) {
  std::uint32_t v = 0;
  const char* p = *pp;
  for (int i = 0; i < n; ++i, ++p) {
    if (*p == '\0') return false;
    const char* d = std::strchr(guid_digits, *p);
    if (d == nullptr) return false;
    v = (v << 4) | static_cast<std::uint32_t>(d - guid_digits);
  }
  *pp = p;
  *out = v;
  return true;
}

bool guid_sep(const char** pp) {
  if (**pp != '-') return false;
  ++*pp;
  return true;
}

}  // namespace

char* put_voff(char* p, voff_t num) {
  return std::to_chars(p, p + 24, static_cast<std::int64_t>(num)).ptr;
}

char* put_seqno(char* p, volseqno_t seqno) {
  p = std::to_chars(p, p + 10, seqno.seqno_hi).ptr;
  *p++ = '.';
  return std::to_chars(p, p + 10, seqno.seqno_lo).ptr;
}

char* put_guid(char* p, const voldguid_t& g) {
  const auto hex = [&p](std::uint32_t v, int digits) {
    for (int i = digits - 1; i >= 0; --i) p[i] = guid_digits[v & 15], v >>= 4;
    p += digits;
  };
  hex(g.Data1, 8);
  *p++ = '-';
  hex(g.Data2, 4);
  *p++ = '-';
  hex(g.Data3, 4);
  *p++ = '-';
  hex(g.Data4[0], 2);
  hex(g.Data4[1], 2);
  *p++ = '-';
  for (int i = 2; i < 8; ++i) hex(g.Data4[i], 2);
  return p;
}

char* vofftostr(voff_t num, char* bufp) {
  static char buf[24];
  char* out = bufp != nullptr ? bufp : buf;
  *put_voff(out, num) = '\0';
  return out;
}

char* volseqnotostr(volseqno_t seqno, char* bufp) {
  static char buf[24];
  char* out = bufp != nullptr ? bufp : buf;
  *put_seqno(out, seqno) = '\0';
  return out;
}

char* volridtostr(volrid_t rid, char* bufp) { return volseqnotostr(rid, bufp); }

char* volguidtostr(voldguid_t guid, char* bufp) {
  static char buf[39];
  // The trailing %c writes an explicit zero character: 38 visible
  // characters, that zero and the terminator.
  char work[40];
  std::snprintf(work, sizeof work, "{%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x}%c",
                guid.Data1, guid.Data2, guid.Data3, guid.Data4[0], guid.Data4[1],
                guid.Data4[2], guid.Data4[3], guid.Data4[4], guid.Data4[5], guid.Data4[6],
                guid.Data4[7], 0);
  char* out = bufp != nullptr ? bufp : buf;
  std::memcpy(out, work, 39);
  return out;
}

void voldguid_to_string(char* str_out, const voldguid_t* guid) {
  *put_guid(str_out, *guid) = '\0';
}

int voldguid_from_string(voldguid_t* guid, const char* str) {
  // Each field is stored as soon as its digits are read; a fault stops at
  // once and leaves the later fields as they were.
  const char* p = str;
  std::uint32_t v = 0;
  if (!guid_hex(&p, 8, &v)) return VE_GUID_FORMAT;
  guid->Data1 = v;
  if (!guid_sep(&p) || !guid_hex(&p, 4, &v)) return VE_GUID_FORMAT;
  guid->Data2 = static_cast<std::uint16_t>(v);
  if (!guid_sep(&p) || !guid_hex(&p, 4, &v)) return VE_GUID_FORMAT;
  guid->Data3 = static_cast<std::uint16_t>(v);
  if (!guid_sep(&p)) return VE_GUID_FORMAT;
  for (int i = 0; i < 8; ++i) {
    if (i == 2 && !guid_sep(&p)) return VE_GUID_FORMAT;
    if (!guid_hex(&p, 2, &v)) return VE_GUID_FORMAT;
    guid->Data4[i] = static_cast<std::uint8_t>(v);
  }
  return *p == '\0' ? 0 : VE_GUID_FORMAT;
}

volseqno_t strtovolseqno(const char* p, const char** eptr) {
  volseqno_t seqno;
  *eptr = p;
  char* end = nullptr;
  unsigned long hi = std::strtoul(p, &end, 10);
  if (*end != '.') return seqno;
  unsigned long lo = std::strtoul(end + 1, &end, 10);
  *eptr = end;
  seqno.seqno_hi = static_cast<std::uint32_t>(hi);
  seqno.seqno_lo = static_cast<std::uint32_t>(lo);
  return seqno;
}

void puthex(FILE* f, const std::uint8_t* buf, long cc) {
  long i = 0;
  while (i < cc) {
    long row = i;
    long n = cc - i < 16 ? cc - i : 16;
    std::fprintf(f, "   %04lx  ", static_cast<unsigned long>(row));
    for (long j = 0; j < n; ++j) {
      std::fprintf(f, "%02x ", buf[row + j]);
      if (j == 7) std::fputc(' ', f);
    }
    if (n < 16) {
      if (n < 8) std::fputc(' ', f);  // the missing middle gap
      for (long j = n; j < 16; ++j) std::fputs("   ", f);
    }
    std::fputc(' ', f);
    for (long j = 0; j < n; ++j) {
      int c = buf[row + j];
      std::fputc(std::isprint(c) ? c : '.', f);
    }
    std::fputc('\n', f);
    if (n < 16) std::fflush(f);
    i += n;
  }
}

}  // namespace pd
