// The field-table codec (see field_codec.h for the stored form).
//
// V integers: a length byte n then n big-endian bytes of the magnitude; bit
// 7 of the length byte is the sign of the signed kinds. Minimal widths: 0
// takes no byte, then 1, 2, 3 bytes up to 0xFFFFFF, then 4 bytes (the
// 64-bit kinds: 4 up to 0xFFFFFFFF, else 8).
//
// Decoding never reads at or beyond `lim`: every byte a field needs is
// checked first, also where the stored form announces no size of its own
// (wide-string characters, the 16 GUID bytes of a VGUID, the length byte of
// the port encodings, the length prefix of a self-sized byte string); bytes
// missing before `lim` fail the decode.
#include "codec/field_codec.h"

#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <new>

#include "base/types.h"
#include "codec/integers.h"
#include "codec/text_forms.h"

namespace pd {

namespace {

template <typename T>
T* member(void* sp, const db_field& f) {
  return reinterpret_cast<T*>(static_cast<std::uint8_t*>(sp) + f.dbf_offset);
}
template <typename T>
const T* member(const void* sp, const db_field& f) {
  return reinterpret_cast<const T*>(static_cast<const std::uint8_t*>(sp) + f.dbf_offset);
}
template <typename T>
T get_member(const void* sp, const db_field& f) {
  T v;
  std::memcpy(&v, member<std::uint8_t>(sp, f), sizeof v);
  return v;
}
template <typename T>
void set_member(void* sp, const db_field& f, const T& v) {
  std::memcpy(member<std::uint8_t>(sp, f), &v, sizeof v);
}

constexpr std::size_t guid_store_size = 16;
constexpr std::size_t guid_text_size = 37;  // 36 characters and the terminator
constexpr std::uint8_t vneg = 0x80;         // sign bit of a V length byte
constexpr std::uint8_t aw_wide = 0xFF;      // first byte of the wide string form

std::size_t min_width(std::uint64_t v) {
  if (v == 0) return 0;
  if (v < 0x100) return 1;
  if (v < 0x10000) return 2;
  if (v <= 0xFFFFFF) return 3;
  return 4;
}

std::size_t min_width64(std::uint64_t v) {
  if (v <= 0xFFFFFF) return min_width(v);
  return v <= 0xFFFFFFFF ? 4 : 8;
}

std::uint64_t magnitude(std::int64_t v) {
  return v < 0 ? 0 - static_cast<std::uint64_t>(v) : static_cast<std::uint64_t>(v);
}

std::uint8_t* put_be(std::uint8_t* p, std::uint64_t v, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) p[i] = static_cast<std::uint8_t>(v >> (8 * (n - 1 - i)));
  return p + n;
}

std::uint64_t get_be(const std::uint8_t* p, std::size_t n) {
  std::uint64_t v = 0;
  for (std::size_t i = 0; i < n; ++i) v = (v << 8) | p[i];
  return v;
}

std::uint8_t* put_guid(std::uint8_t* p, const voldguid_t& g) {
  put_be32(p, g.Data1);
  put_be16(p + 4, g.Data2);
  put_be16(p + 6, g.Data3);
  std::memcpy(p + 8, g.Data4, 8);
  return p + guid_store_size;
}

voldguid_t get_guid(const std::uint8_t* p) {
  voldguid_t g;
  g.Data1 = get_be32(p);
  g.Data2 = get_be16(p + 4);
  g.Data3 = get_be16(p + 6);
  std::memcpy(g.Data4, p + 8, 8);
  return g;
}

// Characters of a wide string and whether the wide form is needed.
std::size_t aw_count(const wchar_t* ws, bool* wide) {
  std::size_t n = 0;
  *wide = false;
  for (; ws[n] != 0; ++n) {
    if (static_cast<std::uint32_t>(ws[n]) > 255) *wide = true;
  }
  if (n == 255) *wide = true;  // a count of 0xFF would read as the wide mark
  return n;
}

std::size_t vstring_len(const void* sp, const db_field& f) {
  return strnlen(member<char>(sp, f), f.dbf_tagsize);
}

std::size_t field_size(const db_field& f, const void* sp) {
  switch (f.dbf_type) {
    case DBF_TYPE_VUNSIGNED:
      return 1 + min_width(fgetunsigned(f.dbf_tagsize, member<std::uint8_t>(sp, f)));
    case DBF_TYPE_VSIGNED:
      return 1 + min_width(magnitude(fgetsigned(f.dbf_tagsize, member<std::uint8_t>(sp, f))));
    case DBF_TYPE_VVOFF_512:
    case DBF_TYPE_VVOFF:
      return 1 + min_width64(magnitude(get_member<voff_t>(sp, f)));
    case DBF_TYPE_VRID: {
      auto rid = get_member<volrid_t>(sp, f);
      if (rid.seqno_hi == 0) return 1 + min_width(rid.seqno_lo);
      return 1 + min_width(rid.seqno_hi) + 4;
    }
    case DBF_TYPE_PORTINFO:
    case DBF_TYPE_VGUID:
      return 17;
    case DBF_TYPE_PORTINFO6:
      return 49;
    case DBF_TYPE_VSTRING:
      return vstring_len(sp, f) + 1;
    case DBF_TYPE_AWSTRING: {
      const wchar_t* ws = get_member<const wchar_t*>(sp, f);
      if (ws == nullptr) return 1;
      bool wide = false;
      std::size_t n = aw_count(ws, &wide);
      return wide ? 2 * (n + 1) : n + 1;
    }
    case DBF_TYPE_VBYTE: {
      const std::uint8_t* vb = get_member<const std::uint8_t*>(sp, f);
      if (vb == nullptr) return 1;
      std::size_t prefix = 0;
      std::uint32_t len = 0;
      dbf_vbyte_length(vb, nullptr, &prefix, &len);
      return prefix + len;
    }
    default:
      return f.dbf_storesize;  // fixed widths, and codes above 25
  }
}

}  // namespace

bool dbf_vbyte_length(const std::uint8_t* p, const std::uint8_t* lim, std::size_t* prefix,
                      std::uint32_t* len) {
  std::uint32_t v = 0;
  for (std::size_t i = 0;; ++i) {
    if (lim != nullptr && p + i >= lim) return false;
    std::uint8_t b = p[i];
    v |= static_cast<std::uint32_t>(b & 0x7F) << ((7 * i) % 32);
    if ((b & 0x80) != 0) {
      *prefix = i + 1;
      *len = v;
      return true;
    }
  }
}

std::size_t dbf_tblsize(const db_field* ftbl, std::size_t nflds, const void* sp) {
  std::size_t size = 0;
  for (std::size_t i = 0; i < nflds; ++i) size += field_size(ftbl[i], sp);
  return size;
}

namespace {

// V integer: the length byte (sign in bit 7) and n bytes of the magnitude.
std::uint8_t* put_vint(std::uint8_t* p, std::uint64_t mag, std::size_t n, bool neg) {
  *p = static_cast<std::uint8_t>(n | (neg ? vneg : 0));
  return put_be(p + 1, mag, n);
}

std::uint8_t* put_awstring(std::uint8_t* p, const wchar_t* ws) {
  if (ws == nullptr) {
    *p = 0;
    return p + 1;
  }
  bool wide = false;
  std::size_t n = aw_count(ws, &wide);
  if (!wide) {
    *p++ = static_cast<std::uint8_t>(n);
    for (std::size_t i = 0; i < n; ++i) *p++ = static_cast<std::uint8_t>(ws[i]);
    return p;
  }
  *p++ = aw_wide;
  *p++ = static_cast<std::uint8_t>(n);
  for (std::size_t i = 0; i < n; ++i) p = put_be(p, static_cast<std::uint32_t>(ws[i]) & 0xFFFF, 2);
  return p;
}

std::uint8_t* fmt_field(const db_field& f, const void* sp, std::uint8_t* p) {
  const std::size_t ts = f.dbf_tagsize;
  const std::uint8_t* m = member<std::uint8_t>(sp, f);
  switch (f.dbf_type) {
    case DBF_TYPE_UCHAR: return put_be(p, fgetunsigned(ts, m), 1);
    case DBF_TYPE_USHORT: return put_be(p, fgetunsigned(ts, m), 2);
    case DBF_TYPE_UNSIGNED: return put_be(p, fgetunsigned(ts, m), 4);
    case DBF_TYPE_ULONGLONG: return put_be(p, fgetulonglong(ts, m), 8);
    case DBF_TYPE_SCHAR: return put_be(p, static_cast<std::uint64_t>(fgetsigned(ts, m)), 1);
    case DBF_TYPE_SSHORT: return put_be(p, static_cast<std::uint64_t>(fgetsigned(ts, m)), 2);
    case DBF_TYPE_SIGNED: return put_be(p, static_cast<std::uint64_t>(fgetsigned(ts, m)), 4);
    case DBF_TYPE_VOFF_512:
    case DBF_TYPE_VOFF:
      return put_be(p, static_cast<std::uint64_t>(get_member<voff_t>(sp, f)), 8);
    case DBF_TYPE_SEQNO:
    case DBF_TYPE_RID: {
      auto sq = get_member<volseqno_t>(sp, f);
      return put_be(put_be(p, sq.seqno_hi, 4), sq.seqno_lo, 4);
    }
    case DBF_TYPE_STRING: {
      std::memset(p, 0, f.dbf_storesize);
      std::size_t bound = f.dbf_storesize < ts ? f.dbf_storesize : ts;
      std::memcpy(p, m, strnlen(reinterpret_cast<const char*>(m), bound));
      return p + f.dbf_storesize;
    }
    case DBF_TYPE_VUNSIGNED: {
      std::uint64_t v = fgetunsigned(ts, m);
      return put_vint(p, v, min_width(v), false);
    }
    case DBF_TYPE_VSIGNED: {
      std::int64_t v = fgetsigned(ts, m);
      return put_vint(p, magnitude(v), min_width(magnitude(v)), v < 0);
    }
    case DBF_TYPE_VVOFF_512:
    case DBF_TYPE_VVOFF: {
      voff_t v = get_member<voff_t>(sp, f);
      return put_vint(p, magnitude(v), min_width64(magnitude(v)), v < 0);
    }
    case DBF_TYPE_VRID: {
      auto rid = get_member<volrid_t>(sp, f);
      std::uint8_t* len = p++;
      if (rid.seqno_hi != 0) {
        p = put_be(p, rid.seqno_hi, min_width(rid.seqno_hi));
        p = put_be(p, rid.seqno_lo, 4);
      } else {
        p = put_be(p, rid.seqno_lo, min_width(rid.seqno_lo));
      }
      *len = static_cast<std::uint8_t>(p - len - 1);
      return p;
    }
    case DBF_TYPE_PORTINFO:
    case DBF_TYPE_PORTINFO6: {
      // The member's memory image, padding included: no byte-order change.
      std::size_t n = f.dbf_type == DBF_TYPE_PORTINFO ? sizeof(PORTINFO) : sizeof(PORTINFO6);
      *p++ = static_cast<std::uint8_t>(n);
      std::memcpy(p, m, n);
      return p + n;
    }
    case DBF_TYPE_VSTRING: {
      std::size_t n = vstring_len(sp, f);
      *p++ = static_cast<std::uint8_t>(n);  // only the low 8 bits of a longer string
      std::memcpy(p, m, n);
      return p + n;
    }
    case DBF_TYPE_AWSTRING: return put_awstring(p, get_member<const wchar_t*>(sp, f));
    case DBF_TYPE_GUIDMEMSTRING: {
      // The parse result is not checked: whatever it leaves is written.
      voldguid_t g{};
      const char* text = reinterpret_cast<const char*>(m);
      if (strnlen(text, ts) != 0) {
        char tmp[66] = {};
        std::memcpy(tmp, text, strnlen(text, ts < 65 ? ts : 65));
        (void)voldguid_from_string(&g, tmp);
      }
      return put_guid(p, g);
    }
    case DBF_TYPE_GUIDSTORESTRING: {
      std::memset(p, 0, f.dbf_storesize);
      auto g = get_member<voldguid_t>(sp, f);
      if (!guid_equal(g, zeroguid)) {
        char text[guid_text_size];
        voldguid_to_string(text, &g);
        std::memcpy(p, text, f.dbf_storesize < guid_text_size ? f.dbf_storesize : guid_text_size);
      }
      return p + f.dbf_storesize;
    }
    case DBF_TYPE_GUID: return put_guid(p, get_member<voldguid_t>(sp, f));
    case DBF_TYPE_VGUID:
      *p++ = guid_store_size;
      return put_guid(p, get_member<voldguid_t>(sp, f));
    case DBF_TYPE_VBYTE: {
      const std::uint8_t* vb = get_member<const std::uint8_t*>(sp, f);
      if (vb == nullptr) {
        *p = 0;
        return p + 1;
      }
      std::size_t prefix = 0;
      std::uint32_t len = 0;
      dbf_vbyte_length(vb, nullptr, &prefix, &len);
      std::memcpy(p, vb, prefix + len);
      return p + prefix + len;
    }
  }
  return p;  // codes above 25 write nothing
}

}  // namespace

std::uint8_t* dbf_fmt_tbl(const db_field* ftbl, std::size_t nflds, const void* sp,
                          std::uint8_t* buf) {
  for (std::size_t i = 0; i < nflds; ++i) buf = fmt_field(ftbl[i], sp, buf);
  return buf;
}

namespace {

// Bounded reading of one stored form: every take checks what is left first.
struct dbf_reader {
  const std::uint8_t* p;
  const std::uint8_t* lim;

  std::size_t left() const { return static_cast<std::size_t>(lim - p); }
  bool take(std::size_t n, const std::uint8_t** out) {
    if (left() < n) return false;
    *out = p;
    p += n;
    return true;
  }
  bool byte(std::uint8_t* out) {
    const std::uint8_t* q = nullptr;
    if (!take(1, &q)) return false;
    *out = *q;
    return true;
  }
  bool be(std::size_t n, std::uint64_t* out) {
    const std::uint8_t* q = nullptr;
    if (!take(n, &q)) return false;
    *out = get_be(q, n);
    return true;
  }
};

// A V integer: length byte (sign in bit 7 when `sign` is asked for), at
// most `maxlen` bytes of magnitude. The magnitude comes back negated when
// the sign is set.
bool get_vint(dbf_reader& r, bool sign, std::size_t maxlen, std::uint64_t* out) {
  std::uint8_t n = 0;
  if (!r.byte(&n)) return false;
  bool neg = sign && (n & vneg) != 0;
  if (sign) n &= static_cast<std::uint8_t>(~vneg);
  if (n > maxlen || !r.be(n, out)) return false;
  if (neg) *out = 0 - *out;
  return true;
}

bool get_awstring(dbf_reader& r, wchar_t** out) {
  std::uint8_t c = 0;
  if (!r.byte(&c)) return false;
  bool wide = c == aw_wide;
  if (wide && !r.byte(&c)) return false;
  if (c == 0) {
    *out = nullptr;
    return true;
  }
  const std::uint8_t* chars = nullptr;
  if (!r.take(wide ? 2 * std::size_t{c} : c, &chars)) return false;
  auto* ws = static_cast<wchar_t*>(std::calloc(std::size_t{c} + 1, sizeof(wchar_t)));
  if (ws == nullptr) return false;
  for (std::size_t i = 0; i < c; ++i) {
    ws[i] = static_cast<wchar_t>(wide ? get_be16(chars + 2 * i) : chars[i]);
  }
  *out = ws;
  return true;
}

bool get_vbyte(dbf_reader& r, std::uint8_t** out) {
  std::size_t prefix = 0;
  std::uint32_t len = 0;
  if (!dbf_vbyte_length(r.p, r.lim, &prefix, &len)) return false;
  std::size_t total = prefix + len;
  const std::uint8_t* q = nullptr;
  if (!r.take(total, &q)) return false;
  auto* copy = static_cast<std::uint8_t*>(std::calloc(total, 1));
  if (copy == nullptr) return false;
  std::memcpy(copy, q, total);
  *out = copy;
  return true;
}

// The port encodings: length byte L (at most the member width), then L
// bytes copied over the cleared member.
bool get_portinfo(dbf_reader& r, const db_field& f, void* sp) {
  std::uint8_t n = 0;
  const std::uint8_t* q = nullptr;
  if (!r.byte(&n) || n > f.dbf_tagsize || !r.take(n, &q)) return false;
  std::memset(member<std::uint8_t>(sp, f), 0, f.dbf_tagsize);
  std::memcpy(member<std::uint8_t>(sp, f), q, n);
  return true;
}

bool get_guidstorestring(dbf_reader& r, const db_field& f, void* sp) {
  const std::uint8_t* q = nullptr;
  if (!r.take(f.dbf_storesize, &q)) return false;
  char text[65] = {};
  std::memcpy(text, q, f.dbf_storesize < 64 ? f.dbf_storesize : 64);
  voldguid_t g{};
  if (text[0] != '\0' && voldguid_from_string(&g, text) != 0) return false;
  set_member(sp, f, g);
  return true;
}

bool unfmt_field(dbf_reader& r, const db_field& f, void* sp) {
  const std::size_t ts = f.dbf_tagsize;
  std::uint8_t* m = member<std::uint8_t>(sp, f);
  std::uint64_t v = 0;
  const std::uint8_t* q = nullptr;
  switch (f.dbf_type) {
    case DBF_TYPE_UCHAR: return r.be(1, &v) && (fputunsigned(v, ts, m), true);
    case DBF_TYPE_USHORT: return r.be(2, &v) && (fputunsigned(v, ts, m), true);
    case DBF_TYPE_UNSIGNED: return r.be(4, &v) && (fputunsigned(v, ts, m), true);
    case DBF_TYPE_ULONGLONG: return r.be(8, &v) && (fputulonglong(v, ts, m), true);
    case DBF_TYPE_SCHAR:
      return r.be(1, &v) && (fputsigned(static_cast<std::int8_t>(v), ts, m), true);
    case DBF_TYPE_SSHORT:
      return r.be(2, &v) && (fputsigned(static_cast<std::int16_t>(v), ts, m), true);
    case DBF_TYPE_SIGNED:
      // Not sign-extended past 32 bits: a wider member gets the pattern.
      return r.be(4, &v) && (fputsigned(static_cast<std::int64_t>(v), ts, m), true);
    case DBF_TYPE_VOFF_512:
    case DBF_TYPE_VOFF:
      return r.be(8, &v) && (set_member(sp, f, static_cast<voff_t>(v)), true);
    case DBF_TYPE_SEQNO:
    case DBF_TYPE_RID: {
      std::uint64_t lo = 0;
      if (!r.be(4, &v) || !r.be(4, &lo)) return false;
      volseqno_t sq;
      sq.seqno_hi = static_cast<std::uint32_t>(v);
      sq.seqno_lo = static_cast<std::uint32_t>(lo);
      set_member(sp, f, sq);
      return true;
    }
    case DBF_TYPE_STRING:
      if (!r.take(f.dbf_storesize, &q)) return false;
      std::memset(m, 0, ts);
      std::memcpy(m, q, f.dbf_storesize < ts ? f.dbf_storesize : ts);
      return true;
    case DBF_TYPE_VUNSIGNED:
      // No sign bit is stripped: a length byte with bit 7 set fails here.
      return get_vint(r, false, 4, &v) && (fputunsigned(v, ts, m), true);
    case DBF_TYPE_VSIGNED:
      return get_vint(r, true, 4, &v) && (fputsigned(static_cast<std::int64_t>(v), ts, m), true);
    case DBF_TYPE_VVOFF_512:
    case DBF_TYPE_VVOFF:
      return get_vint(r, true, 8, &v) && (set_member(sp, f, static_cast<voff_t>(v)), true);
    case DBF_TYPE_VRID: {
      std::uint8_t n = 0;
      if (!r.byte(&n) || n > 8 || !r.take(n, &q)) return false;
      volrid_t rid;
      if (n > 4) {
        rid.seqno_hi = static_cast<std::uint32_t>(get_be(q, n - 4u));
        rid.seqno_lo = static_cast<std::uint32_t>(get_be(q + n - 4, 4));
      } else {
        rid.seqno_lo = static_cast<std::uint32_t>(get_be(q, n));
      }
      set_member(sp, f, rid);
      return true;
    }
    case DBF_TYPE_PORTINFO:
    case DBF_TYPE_PORTINFO6:
      return get_portinfo(r, f, sp);
    case DBF_TYPE_VSTRING: {
      std::uint8_t n = 0;
      if (!r.byte(&n) || ts == 0 || n > ts - 1 || !r.take(n, &q)) return false;
      std::memset(m, 0, ts);
      std::memcpy(m, q, n);
      return true;
    }
    case DBF_TYPE_AWSTRING: {
      wchar_t* ws = nullptr;
      return get_awstring(r, &ws) && (set_member(sp, f, ws), true);
    }
    case DBF_TYPE_GUIDMEMSTRING: {
      if (!r.take(guid_store_size, &q)) return false;
      voldguid_t g = get_guid(q);
      // Only the stored width is cleared, deliberately not the member width.
      std::memset(m, 0, f.dbf_storesize < ts ? f.dbf_storesize : ts);
      if (!guid_equal(g, zeroguid)) {
        char text[guid_text_size];
        voldguid_to_string(text, &g);
        std::memcpy(m, text, ts < guid_text_size ? ts : guid_text_size);
      }
      return true;
    }
    case DBF_TYPE_GUIDSTORESTRING:
      return get_guidstorestring(r, f, sp);
    case DBF_TYPE_GUID:
      return r.take(guid_store_size, &q) && (set_member(sp, f, get_guid(q)), true);
    case DBF_TYPE_VGUID: {
      // L is checked neither against 16 nor against what is left; the 16
      // GUID bytes are, like every byte.
      std::uint8_t n = 0;
      if (!r.byte(&n)) return false;
      std::memset(m, 0, n < ts ? n : ts);
      return r.take(guid_store_size, &q) && (set_member(sp, f, get_guid(q)), true);
    }
    case DBF_TYPE_VBYTE: {
      std::uint8_t* vb = nullptr;
      return get_vbyte(r, &vb) && (set_member(sp, f, vb), true);
    }
  }
  return true;  // codes above 25 consume nothing
}

}  // namespace

const std::uint8_t* dbf_unfmt_tbl(const db_field* ftbl, std::size_t nflds, void* sp,
                                  const std::uint8_t* buf, const std::uint8_t* lim) {
  dbf_reader r{buf, lim};
  for (std::size_t i = 0; i < nflds; ++i) {
    const db_field& f = ftbl[i];
    std::size_t need = f.dbf_storesize != 0 ? f.dbf_storesize : 1;
    if (r.p > r.lim || r.left() < need) return nullptr;
    if (!unfmt_field(r, f, sp)) return nullptr;
  }
  return r.p;
}

void dbf_free_tbl(const db_field* ftbl, std::size_t nflds, void* sp) {
  for (std::size_t i = 0; i < nflds; ++i) {
    const db_field& f = ftbl[i];
    if (f.dbf_type != DBF_TYPE_AWSTRING && f.dbf_type != DBF_TYPE_VBYTE) continue;
    void* ptr = get_member<void*>(sp, f);
    std::free(ptr);
    set_member<void*>(sp, f, nullptr);
  }
}

}  // namespace pd
