// Filling and comparing decoded record structures member by member, driven
// by the record's field tables (tests only).
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>

#include "codec/field_codec.h"
#include "codec/integers.h"
#include "codec/text_forms.h"
#include "config_db/record_layouts.h"

namespace pd::test {

// Sets the member of `f` in `sp` to a value derived from `seed` that
// survives a round trip (strings fit their member, GUID texts parse).
inline void fill_field(const db_field& f, void* sp, unsigned seed) {
  auto* m = static_cast<std::uint8_t*>(sp) + f.dbf_offset;
  static const std::uint64_t vu[] = {0, 5, 0x1234, 0xABCDEF, 0xFFFFFFFF};
  static const std::int64_t vv[] = {0, -5, 300, -70000, 0x12345678, -(1LL << 40), 1LL << 33};
  switch (f.dbf_type) {
    case DBF_TYPE_VRID:
    case DBF_TYPE_SEQNO: {
      volseqno_t s;
      s.seqno_lo = seed * 2654435761u;
      s.seqno_hi = seed % 3 == 0 ? 0 : seed * 7;
      std::memcpy(m, &s, sizeof s);
      break;
    }
    case DBF_TYPE_VSTRING: {
      std::size_t n = 1 + seed % 40;
      if (n > f.dbf_tagsize - 1) n = f.dbf_tagsize - 1;
      for (std::size_t i = 0; i < n; ++i) m[i] = static_cast<std::uint8_t>('a' + (seed + i) % 26);
      break;
    }
    case DBF_TYPE_STRING:
      for (std::size_t i = 0; i < f.dbf_storesize; ++i) {
        m[i] = static_cast<std::uint8_t>('A' + (seed + i) % 26);
      }
      break;
    case DBF_TYPE_UNSIGNED: fputunsigned(0x80000000u + seed, f.dbf_tagsize, m); break;
    case DBF_TYPE_USHORT: fputunsigned(0x8000u + seed, f.dbf_tagsize, m); break;
    case DBF_TYPE_ULONGLONG: fputulonglong(0x0123456789ABCDEFull * (seed | 1), f.dbf_tagsize, m); break;
    case DBF_TYPE_SCHAR: fputsigned(-static_cast<std::int64_t>(seed % 100), f.dbf_tagsize, m); break;
    case DBF_TYPE_VUNSIGNED: fputunsigned(vu[seed % 5], f.dbf_tagsize, m); break;
    case DBF_TYPE_VVOFF:
    case DBF_TYPE_VVOFF_512:
    case DBF_TYPE_VOFF:
    case DBF_TYPE_VOFF_512: {
      std::int64_t v = vv[seed % 7];
      std::memcpy(m, &v, sizeof v);
      break;
    }
    case DBF_TYPE_GUID: {
      voldguid_t g;
      g.Data1 = 0x10000000u + seed;
      g.Data2 = static_cast<std::uint16_t>(seed * 3);
      g.Data3 = static_cast<std::uint16_t>(seed * 5);
      for (int i = 0; i < 8; ++i) g.Data4[i] = static_cast<std::uint8_t>(seed + i);
      std::memcpy(m, &g, sizeof g);
      break;
    }
    case DBF_TYPE_GUIDMEMSTRING: {
      voldguid_t g;
      g.Data1 = 0xA0000000u + seed;
      g.Data2 = 0x1234;
      g.Data3 = static_cast<std::uint16_t>(seed);
      for (int i = 0; i < 8; ++i) g.Data4[i] = static_cast<std::uint8_t>(0x40 + i);
      voldguid_to_string(reinterpret_cast<char*>(m), &g);
      break;
    }
    case DBF_TYPE_PORTINFO: {
      PORTINFO p{};
      std::memset(&p, 0, sizeof p);
      p.portno = static_cast<std::uint16_t>(4000 + seed);
      p.ipaddress = 0x0A000000u + seed;
      std::memcpy(m, &p, sizeof p);
      break;
    }
    case DBF_TYPE_PORTINFO6: {
      PORTINFO6 p;
      std::memset(&p, 0, sizeof p);
      p.portno = static_cast<std::uint16_t>(5000 + seed);
      p.ipaddress.family = 10;
      for (int i = 0; i < 16; ++i) p.ipaddress.addr.bytes[i] = static_cast<std::uint8_t>(seed + i);
      std::memcpy(m, &p, sizeof p);
      break;
    }
    case DBF_TYPE_AWSTRING: {
      std::size_t n = 2 + seed % 9;
      auto* w = static_cast<wchar_t*>(std::calloc(n + 1, sizeof(wchar_t)));
      for (std::size_t i = 0; i < n; ++i) {
        w[i] = static_cast<wchar_t>((seed % 2 ? 0x4E00 : 'a') + (seed + i) % 26);
      }
      std::memcpy(m, &w, sizeof w);
      break;
    }
    case DBF_TYPE_VBYTE: {
      std::size_t n = 1 + seed % 50;
      auto* b = static_cast<std::uint8_t*>(std::malloc(n + 1));
      b[0] = static_cast<std::uint8_t>(n | 0x80);
      for (std::size_t i = 0; i < n; ++i) b[1 + i] = static_cast<std::uint8_t>(seed * 13 + i);
      std::memcpy(m, &b, sizeof b);
      break;
    }
    default: break;
  }
}

// Whether the member of `f` holds the same value in `a` and `b`.
inline bool same_field(const db_field& f, const void* a, const void* b) {
  const auto* ma = static_cast<const std::uint8_t*>(a) + f.dbf_offset;
  const auto* mb = static_cast<const std::uint8_t*>(b) + f.dbf_offset;
  if (f.dbf_type == DBF_TYPE_AWSTRING) {
    const wchar_t *wa, *wb;
    std::memcpy(&wa, ma, sizeof wa);
    std::memcpy(&wb, mb, sizeof wb);
    if (wa == nullptr || wb == nullptr) return wa == wb;
    return std::wcscmp(wa, wb) == 0;
  }
  if (f.dbf_type == DBF_TYPE_VBYTE) {
    const std::uint8_t *va, *vb;
    std::memcpy(&va, ma, sizeof va);
    std::memcpy(&vb, mb, sizeof vb);
    if (va == nullptr || vb == nullptr) return va == vb;
    std::size_t pa, pb;
    std::uint32_t la, lb;
    if (!dbf_vbyte_length(va, nullptr, &pa, &la) || !dbf_vbyte_length(vb, nullptr, &pb, &lb)) {
      return false;
    }
    return pa == pb && la == lb && std::memcmp(va, vb, pa + la) == 0;
  }
  return std::memcmp(ma, mb, f.dbf_tagsize) == 0;
}

inline bool group_applies(const r2f_group& g, std::uint32_t type) {
  return (type & g.flagmask) == g.flagvalue;
}

// Fills every member of every group of the entry that applies to `type`.
inline void fill_record(const rec2field* e, std::uint32_t type, void* sp, unsigned seed) {
  for (const r2f_group& g : e->r2f_tbls) {
    if (g.nflds == 0) break;
    if (!group_applies(g, type)) continue;
    for (std::size_t i = 0; i < g.nflds; ++i) fill_field(g.ftbl[i], sp, seed + 11 * static_cast<unsigned>(i));
  }
}

// The first member of the applicable groups that differs, or "" when none.
inline std::string first_difference(const rec2field* e, std::uint32_t type, const void* a,
                                    const void* b) {
  for (const r2f_group& g : e->r2f_tbls) {
    if (g.nflds == 0) break;
    if (!group_applies(g, type)) continue;
    for (std::size_t i = 0; i < g.nflds; ++i) {
      if (!same_field(g.ftbl[i], a, b)) {
        return "field " + std::to_string(i) + " at offset " + std::to_string(g.ftbl[i].dbf_offset);
      }
    }
  }
  return "";
}

// Presence flags of an entry's optional groups (mask and value non-zero).
inline std::uint32_t entry_flags(const rec2field* e) {
  std::uint32_t flags = 0;
  for (const r2f_group& g : e->r2f_tbls) {
    if (g.nflds == 0) break;
    if (g.flagmask != 0 && g.flagvalue != 0) flags |= g.flagvalue;
  }
  return flags;
}

// A type word for the entry with `flags`: the extension bit when a flag
// needs the high half.
inline std::uint32_t type_word(const rec2field* e, std::uint32_t flags) {
  std::uint32_t t = e->type | flags;
  if (t > 0xFFFF) t |= RTYPE_EXTENDED;
  return t;
}

}  // namespace pd::test
