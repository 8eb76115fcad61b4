#include "codec/field_codec.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <memory>
#include <vector>

#include "base/types.h"
#include "record_filler.h"

namespace pd {
namespace {

using bytes = std::vector<std::uint8_t>;

// One member of every kind the codec handles.
struct rec {
  std::uint32_t uc;
  std::uint16_t us;
  std::uint64_t u;  // a 64-bit member stored in 4 bytes
  std::uint64_t ull;
  std::int32_t sc;
  std::int16_t ss;
  std::int64_t si;  // wider than its 4 stored bytes
  voff_t voff512;
  voff_t voff;
  volseqno_t seqno;
  volrid_t rid;
  char str[9];
  std::uint64_t vu;
  std::int32_t vs;
  voff_t vvoff512;
  voff_t vvoff;
  volrid_t vrid;
  PORTINFO pi;
  PORTINFO6 pi6;
  char vstr[32];
  wchar_t* aw;
  char gms[65];
  voldguid_t gss;
  voldguid_t g;
  voldguid_t vg;
  std::uint8_t* vb;
  char longstr[377];
};

#define F(type, m, store) DBF(type, rec, m, store)
const db_field f_uc = F(DBF_TYPE_UCHAR, uc, 1);
const db_field f_us = F(DBF_TYPE_USHORT, us, 2);
const db_field f_u = F(DBF_TYPE_UNSIGNED, u, 4);
const db_field f_ull = F(DBF_TYPE_ULONGLONG, ull, 8);
const db_field f_sc = F(DBF_TYPE_SCHAR, sc, 1);
const db_field f_ss = F(DBF_TYPE_SSHORT, ss, 2);
const db_field f_si = F(DBF_TYPE_SIGNED, si, 4);
const db_field f_voff512 = F(DBF_TYPE_VOFF_512, voff512, 8);
const db_field f_voff = F(DBF_TYPE_VOFF, voff, 8);
const db_field f_seqno = F(DBF_TYPE_SEQNO, seqno, 8);
const db_field f_rid = F(DBF_TYPE_RID, rid, 8);
const db_field f_str = F(DBF_TYPE_STRING, str, 8);
const db_field f_vu = F(DBF_TYPE_VUNSIGNED, vu, 0);
const db_field f_vs = F(DBF_TYPE_VSIGNED, vs, 0);
const db_field f_vvoff512 = F(DBF_TYPE_VVOFF_512, vvoff512, 0);
const db_field f_vvoff = F(DBF_TYPE_VVOFF, vvoff, 0);
const db_field f_vrid = F(DBF_TYPE_VRID, vrid, 0);
const db_field f_pi = F(DBF_TYPE_PORTINFO, pi, 16);
const db_field f_pi6 = F(DBF_TYPE_PORTINFO6, pi6, 48);
const db_field f_vstr = F(DBF_TYPE_VSTRING, vstr, 0);
const db_field f_aw = db_field{DBF_TYPE_AWSTRING, 0, 0, offsetof(rec, aw)};
const db_field f_gms = F(DBF_TYPE_GUIDMEMSTRING, gms, 16);
const db_field f_gss = F(DBF_TYPE_GUIDSTORESTRING, gss, 64);
const db_field f_g = F(DBF_TYPE_GUID, g, 16);
const db_field f_vg = F(DBF_TYPE_VGUID, vg, 0);
const db_field f_vb = F(DBF_TYPE_VBYTE, vb, 0);
const db_field f_longstr = F(DBF_TYPE_VSTRING, longstr, 0);
#undef F

const db_field all_fields[] = {f_uc,  f_us,    f_u,   f_ull,      f_sc,    f_ss,   f_si,
                               f_voff512, f_voff, f_seqno, f_rid, f_str,   f_vu,   f_vs,
                               f_vvoff512, f_vvoff, f_vrid, f_pi, f_pi6,   f_vstr, f_aw,
                               f_gms, f_gss,   f_g,   f_vg,       f_vb};
const std::size_t n_all_fields = sizeof all_fields / sizeof all_fields[0];
static_assert(sizeof all_fields / sizeof all_fields[0] == 26, "one field per encoding");

// A zeroed record that frees its heap strings.
struct zrec : rec {
  zrec() : rec() {}
  ~zrec() { dbf_free_tbl(all_fields, n_all_fields, this); }
  zrec(const zrec&) = delete;
  zrec& operator=(const zrec&) = delete;
};

// Encodes one field; checks that the size agrees with what was written.
bytes enc(const db_field& f, const rec& r) {
  std::size_t n = dbf_tblsize(&f, 1, &r);
  bytes out(n + 8, 0xEE);
  std::uint8_t* end = dbf_fmt_tbl(&f, 1, &r, out.data());
  EXPECT_EQ(static_cast<std::size_t>(end - out.data()), n) << "field type " << f.dbf_type;
  for (std::size_t i = n; i < out.size(); ++i) EXPECT_EQ(out[i], 0xEE) << "wrote past its size";
  out.resize(n);
  return out;
}

// Decodes `in` (copied to an exactly sized heap block, so any read past the
// limit is caught) into `r`; returns the bytes consumed, or -1 on failure.
long dec(const db_field* f, std::size_t n, rec& r, const bytes& in) {
  std::unique_ptr<std::uint8_t[]> block(new std::uint8_t[in.size()]);
  if (!in.empty()) std::memcpy(block.get(), in.data(), in.size());
  const std::uint8_t* end = dbf_unfmt_tbl(f, n, &r, block.get(), block.get() + in.size());
  return end == nullptr ? -1 : end - block.get();
}
long dec(const db_field& f, rec& r, const bytes& in) { return dec(&f, 1, r, in); }

const char guid_text[] = "01234567-89ab-cdef-0123-456789abcdef";
const bytes guid_bytes{0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef,
                       0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef};

voldguid_t parsed_guid() {
  voldguid_t g;
  g.Data1 = 0x01234567;
  g.Data2 = 0x89ab;
  g.Data3 = 0xcdef;
  std::memcpy(g.Data4, guid_bytes.data() + 8, 8);
  return g;
}

// The text form of parsed_guid() as GUIDSTORESTRING stores it, and its VGUID
// form.
bytes guid_store_text() {
  bytes b(guid_text, guid_text + 36);
  b.resize(64, 0);
  return b;
}
bytes vguid_bytes() {
  bytes b(1 + guid_bytes.size(), 16);
  std::copy(guid_bytes.begin(), guid_bytes.end(), b.begin() + 1);
  return b;
}

// A member value and its stored form; `back` when decoding the form gives
// the value again.
struct stored_form {
  const db_field& f;
  void (*set)(rec&);
  bytes stored;
  bool back = true;
};
#define SET(m, v) [](rec& r) { r.m = v; }

// Fixed integers are cut to their stored width; strings are padded with
// zeros and cut without a terminator; variable integers and record ids use
// the fewest bytes, a sign bit in the length byte; GUIDs in their four forms.
TEST(FieldCodecTest, StoredForms) {
  const stored_form forms[] = {
      {f_uc, SET(uc, 0x1234), {0x34}, false},
      {f_us, SET(us, 0xBEEF), {0xBE, 0xEF}},
      {f_u, SET(u, 0x123456789ULL), {0x23, 0x45, 0x67, 0x89}, false},
      {f_ull, SET(ull, 0x0102030405060708ULL), {1, 2, 3, 4, 5, 6, 7, 8}},
      {f_sc, SET(sc, -128), {0x80}},
      {f_ss, SET(ss, -2), {0xFF, 0xFE}},
      {f_si, SET(si, -3), {0xFF, 0xFF, 0xFF, 0xFD}, false},
      {f_voff, SET(voff, -2), {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}},
      {f_voff512, SET(voff512, 0x0102030405060708LL), {1, 2, 3, 4, 5, 6, 7, 8}},
      {f_seqno, SET(seqno, (volseqno_t{2, 1})), {0, 0, 0, 1, 0, 0, 0, 2}},
      {f_rid, SET(rid, (volrid_t{0, 0xAABBCCDD})), {0xAA, 0xBB, 0xCC, 0xDD, 0, 0, 0, 0}},
      {f_str, [](rec& r) { std::strcpy(r.str, "abcdefgh"); }, {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'}},
      {f_vu, SET(vu, 0xFF), {0x01, 0xFF}},
      {f_vu, SET(vu, 0x100), {0x02, 0x01, 0x00}},
      {f_vu, SET(vu, 0xFFFFFF), {0x03, 0xFF, 0xFF, 0xFF}},
      {f_vu, SET(vu, 0x1000000), {0x04, 0x01, 0x00, 0x00, 0x00}},
      {f_vu, SET(vu, 0x100000001ULL), {0x04, 0x00, 0x00, 0x00, 0x01}, false},  // low 32 bits
      {f_vs, SET(vs, -1), {0x81, 0x01}},
      {f_vs, SET(vs, -256), {0x82, 0x01, 0x00}},
      {f_vvoff, SET(vvoff, 1LL << 32), {0x08, 0, 0, 0, 1, 0, 0, 0, 0}},
      {f_vvoff, SET(vvoff, 0xFFFFFFFF), {0x04, 0xFF, 0xFF, 0xFF, 0xFF}},
      {f_vvoff, SET(vvoff, INT64_MIN), {0x88, 0x80, 0, 0, 0, 0, 0, 0, 0}},
      {f_vvoff512, SET(vvoff512, -0x10000), {0x83, 0x01, 0x00, 0x00}},
      {f_vrid, SET(vrid, (volrid_t{5, 1})), {0x05, 0x01, 0x00, 0x00, 0x00, 0x05}},
      {f_vrid, SET(vrid, (volrid_t{0, 0})), {0x00}},
      {f_vrid, SET(vrid, (volrid_t{0x1234, 0})), {0x02, 0x12, 0x34}},
      {f_vrid, SET(vrid, (volrid_t{0x1234, 0x01000000})), {0x08, 0x01, 0, 0, 0, 0, 0, 0x12, 0x34}},
      {f_gms, [](rec&) {}, bytes(16, 0), false},  // empty text: the zero GUID
      {f_gms, [](rec& r) { std::strcpy(r.gms, guid_text); }, guid_bytes},
      {f_gss, [](rec&) {}, bytes(64, 0)},  // the zero GUID: all zero
      {f_gss, SET(gss, parsed_guid()), guid_store_text()},
      {f_g, SET(g, parsed_guid()), guid_bytes},
      {f_vg, SET(vg, parsed_guid()), vguid_bytes()},
  };
  for (const stored_form& c : forms) {
    SCOPED_TRACE(testing::Message() << "type " << c.f.dbf_type << " " << testing::PrintToString(c.stored));
    zrec r;
    c.set(r);
    EXPECT_EQ(enc(c.f, r), c.stored);
    if (!c.back) continue;
    zrec d;
    EXPECT_EQ(dec(c.f, d, c.stored), static_cast<long>(c.stored.size()));
    EXPECT_TRUE(test::same_field(c.f, &r, &d));
  }
}
#undef SET

// Decoding beyond the written forms: SIGNED is not sign-extended into a wider
// member; a fixed string is terminated by the cleared member; a negative zero
// is zero; a 5-byte offset is read; a short record id clears the high half.
TEST(FieldCodecTest, DecodingOtherForms) {
  zrec d;
  EXPECT_EQ(dec(f_si, d, {0xFF, 0xFF, 0xFF, 0xFD}), 4);
  EXPECT_EQ(d.si, 0xFFFFFFFDLL);
  std::memset(d.str, 'Q', sizeof d.str);
  EXPECT_EQ(dec(f_str, d, {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'}), 8);
  EXPECT_STREQ(d.str, "abcdefgh");
  d.vs = 9;
  EXPECT_EQ(dec(f_vs, d, {0x80}), 1);
  EXPECT_EQ(d.vs, 0);
  EXPECT_EQ(dec(f_vvoff, d, {0x05, 1, 2, 3, 4, 5}), 6);
  EXPECT_EQ(d.vvoff, 0x0102030405LL);
  d.vrid.seqno_hi = 99;
  EXPECT_EQ(dec(f_vrid, d, {0x03, 0x01, 0x02, 0x03}), 4);
  EXPECT_EQ(d.vrid.seqno_hi, 0u);
  EXPECT_EQ(d.vrid.seqno_lo, 0x010203u);
}

TEST(FieldCodecTest, VariableIntegerLengthFailures) {
  zrec d;
  EXPECT_EQ(dec(f_vu, d, {0x05, 1, 2, 3, 4, 5}), -1);  // above 4
  EXPECT_EQ(dec(f_vu, d, {0x81, 0x01}), -1);          // no sign in VUNSIGNED
  EXPECT_EQ(dec(f_vu, d, {0x02, 0x01}), -1);          // fewer than announced
  EXPECT_EQ(dec(f_vs, d, {0x85, 1, 2, 3, 4, 5}), -1);
  EXPECT_EQ(dec(f_vvoff, d, {0x09, 1, 2, 3, 4, 5, 6, 7, 8, 9}), -1);
  EXPECT_EQ(dec(f_vrid, d, {0x09, 1, 2, 3, 4, 5, 6, 7, 8, 9}), -1);
  EXPECT_EQ(dec(f_vrid, d, {0x06, 1, 2, 3, 4, 5}), -1);
}

// A port is stored as the member's memory image behind a length byte; a
// short length clears the rest of the member.
TEST(FieldCodecTest, PortInfoLengths) {
  zrec r, d;
  r.pi6.portno = 7;
  bytes b6 = enc(f_pi6, r);
  ASSERT_EQ(b6.size(), 49u);
  EXPECT_EQ(b6[0], 48);
  d.pi.ipaddress = 5;
  bytes shortform(17, 0);
  shortform[0] = 2;
  shortform[1] = 0xAB;
  shortform[2] = 0xCD;
  EXPECT_EQ(dec(f_pi, d, shortform), 3);
  EXPECT_EQ(d.pi.ipaddress, 0u);
  bytes toolong(18, 0);
  toolong[0] = 17;  // more than the member
  EXPECT_EQ(dec(f_pi, d, toolong), -1);
  // 48 bytes pass the size check, but the form needs its length byte too.
  b6.pop_back();
  EXPECT_EQ(dec(f_pi6, d, b6), -1);
}

TEST(FieldCodecTest, VariableStrings) {
  zrec r;
  // Longer than 255: written whole behind the low 8 bits of its length.
  std::memset(r.longstr, 'x', 300);
  bytes lb = enc(f_longstr, r);
  ASSERT_EQ(lb.size(), 301u);
  EXPECT_EQ(lb[0], 300 & 0xFF);

  zrec d;
  bytes b31(32, 'y');
  b31[0] = 31;  // the most that leaves room for the terminator
  EXPECT_EQ(dec(f_vstr, d, b31), 32);
  EXPECT_EQ(std::strlen(d.vstr), 31u);
  bytes b32(33, 'y');
  b32[0] = 32;
  EXPECT_EQ(dec(f_vstr, d, b32), -1);
  EXPECT_EQ(dec(f_vstr, d, {3, 'a', 'b'}), -1);
}

TEST(FieldCodecTest, WideStringsChooseTheirForm) {
  zrec r;
  EXPECT_EQ(enc(f_aw, r), (bytes{0}));  // null
  wchar_t empty[] = L"";
  r.aw = empty;
  EXPECT_EQ(enc(f_aw, r), (bytes{0}));
  wchar_t ab[] = L"ab";
  r.aw = ab;
  EXPECT_EQ(enc(f_aw, r), (bytes{2, 'a', 'b'}));
  wchar_t wide[] = {L'a', 0x1234, 0x12345, 0};  // the third keeps its low 16 bits
  r.aw = wide;
  EXPECT_EQ(enc(f_aw, r), (bytes{0xFF, 3, 0x00, 'a', 0x12, 0x34, 0x23, 0x45}));
  std::vector<wchar_t> w255(256, L'z');
  w255[255] = 0;
  r.aw = w255.data();
  bytes b = enc(f_aw, r);  // 255 narrow characters still take the wide form
  ASSERT_EQ(b.size(), 512u);
  EXPECT_EQ(b[0], 0xFF);
  EXPECT_EQ(b[1], 0xFF);
  EXPECT_EQ(b[2], 0);
  EXPECT_EQ(b[3], 'z');
  std::vector<wchar_t> w254(255, L'z');
  w254[254] = 0;
  r.aw = w254.data();
  EXPECT_EQ(enc(f_aw, r).size(), 255u);
  r.aw = nullptr;

  zrec d;
  EXPECT_EQ(dec(f_aw, d, {2, 'h', 'i'}), 3);
  ASSERT_NE(d.aw, nullptr);
  EXPECT_EQ(std::wcscmp(d.aw, L"hi"), 0);
  dbf_free_tbl(&f_aw, 1, &d);
  EXPECT_EQ(d.aw, nullptr);
  EXPECT_EQ(dec(f_aw, d, {0xFF, 2, 0x12, 0x34, 0x00, 'q'}), 6);
  ASSERT_NE(d.aw, nullptr);
  EXPECT_EQ(d.aw[0], 0x1234);
  EXPECT_EQ(d.aw[1], L'q');
  EXPECT_EQ(d.aw[2], 0);
  dbf_free_tbl(&f_aw, 1, &d);
  EXPECT_EQ(dec(f_aw, d, {0xFF, 0}), 2);
  EXPECT_EQ(d.aw, nullptr);
  EXPECT_EQ(dec(f_aw, d, {0xFF}), -1);
  EXPECT_EQ(dec(f_aw, d, {3, 'a', 'b'}), -1);
  EXPECT_EQ(dec(f_aw, d, {0xFF, 2, 0, 'a', 0}), -1);
  EXPECT_EQ(d.aw, nullptr);
}

// A GUID text is terminated, only the stored width is cleared for the zero
// GUID; a stored text must be lower case; VGUID reads its 16 bytes whatever
// the length byte says.
TEST(FieldCodecTest, DecodingGuids) {
  zrec d;
  std::memset(d.gms, 'Q', sizeof d.gms);
  EXPECT_EQ(dec(f_gms, d, guid_bytes), 16);
  EXPECT_STREQ(d.gms, guid_text);
  std::memset(d.gms, 'Q', sizeof d.gms);
  EXPECT_EQ(dec(f_gms, d, bytes(16, 0)), 16);
  EXPECT_EQ(d.gms[15], 0);
  EXPECT_EQ(d.gms[16], 'Q');
  bytes upper = guid_store_text();
  upper[10] = 'B';
  EXPECT_EQ(dec(f_gss, d, upper), -1);
  bytes lenient = vguid_bytes();
  lenient[0] = 0x40;
  EXPECT_EQ(dec(f_vg, d, lenient), 17);
  EXPECT_TRUE(guid_equal(d.vg, parsed_guid()));
  lenient.pop_back();
  EXPECT_EQ(dec(f_vg, d, lenient), -1);
}

// A self-sized byte string: length digits, last digit marked by bit 7.
TEST(FieldCodecTest, SelfSizedByteStrings) {
  zrec r;
  EXPECT_EQ(enc(f_vb, r), (bytes{0}));
  std::uint8_t three[] = {0x83, 'a', 'b', 'c'};
  r.vb = three;
  EXPECT_EQ(enc(f_vb, r), (bytes{0x83, 'a', 'b', 'c'}));
  bytes big{0x01, 0x81};  // 1 + 1 * 128 = 129 data bytes
  big.resize(2 + 129, 0x5A);
  r.vb = big.data();
  EXPECT_EQ(enc(f_vb, r), big);
  r.vb = nullptr;

  zrec d;
  EXPECT_EQ(dec(f_vb, d, {0x83, 'a', 'b', 'c', 'z'}), 4);
  ASSERT_NE(d.vb, nullptr);
  EXPECT_EQ(bytes(d.vb, d.vb + 4), (bytes{0x83, 'a', 'b', 'c'}));
  dbf_free_tbl(&f_vb, 1, &d);
  EXPECT_EQ(d.vb, nullptr);
  EXPECT_EQ(dec(f_vb, d, big), 131);
  dbf_free_tbl(&f_vb, 1, &d);
  EXPECT_EQ(dec(f_vb, d, {0x83, 'a', 'b'}), -1);  // data short
  EXPECT_EQ(dec(f_vb, d, {0x01, 0x02}), -1);      // prefix never ends
  // A null member's single 0 byte is no complete prefix: the next bytes are
  // taken as further length digits.
  EXPECT_EQ(dec(f_vb, d, {0x00, 0x81, 'a'}), -1);  // length 128
  // Digit i is shifted by 7*i mod 32: the sixth digit by 3.
  bytes shifted{0, 0, 0, 0, 0, 0x81};
  shifted.resize(6 + 8, 1);
  EXPECT_EQ(dec(f_vb, d, shifted), 14);
  dbf_free_tbl(&f_vb, 1, &d);
  std::size_t prefix = 0;
  std::uint32_t len = 0;
  ASSERT_TRUE(dbf_vbyte_length(shifted.data(), shifted.data() + shifted.size(), &prefix, &len));
  EXPECT_EQ(prefix, 6u);
  EXPECT_EQ(len, 8u);
}

TEST(FieldCodecTest, CodesAboveTheLastAndEmptyInput) {
  zrec r;
  const db_field odd{static_cast<dbf_type>(26), 4, 3, offsetof(rec, uc)};
  EXPECT_EQ(dbf_tblsize(&odd, 1, &r), 3u);
  std::uint8_t out[4] = {9, 9, 9, 9};
  EXPECT_EQ(dbf_fmt_tbl(&odd, 1, &r, out), out);  // writes nothing
  EXPECT_EQ(dec(odd, r, {1, 2, 3}), 0);           // checked, nothing consumed
  EXPECT_EQ(dec(odd, r, {1, 2}), -1);

  EXPECT_EQ(dec(f_vu, r, {}), -1);  // storesize 0 still needs a byte
  EXPECT_EQ(dec(nullptr, 0, r, {}), 0);
  EXPECT_EQ(dec(nullptr, 0, r, {1, 2}), 0);
  // The storesize check alone is not trusted: a fixed type with a table
  // storesize of 0 still cannot read past the limit.
  const db_field lying{DBF_TYPE_ULONGLONG, 8, 0, offsetof(rec, ull)};
  EXPECT_EQ(dec(lying, r, {1, 2, 3}), -1);
}

// A record with every member set to something that shows: the record
// filler's values, and the kinds no record layout uses set here.
void fill(zrec& r) {
  unsigned seed = 3;
  for (const db_field& f : all_fields) test::fill_field(f, &r, seed += 7);
  r.uc = 0x7F;
  r.ss = -300;
  r.si = 0x7FFFFFFF;
  r.vs = -70000;
  r.rid = {0xFFFFFFFF, 2};
  r.gss = parsed_guid();
  r.vg = parsed_guid();
  r.vg.Data1 = 0xFFFFFFFF;
}

TEST(FieldCodecTest, WholeTableRoundTripsAndEveryTruncationFails) {
  zrec r;
  fill(r);
  std::size_t n = dbf_tblsize(all_fields, n_all_fields, &r);
  bytes stored(n);
  ASSERT_EQ(dbf_fmt_tbl(all_fields, n_all_fields, &r, stored.data()), stored.data() + n);

  zrec d;
  ASSERT_EQ(dec(all_fields, n_all_fields, d, stored), static_cast<long>(n));
  // Every member read back: the decoded record stores the same bytes.
  ASSERT_EQ(dbf_tblsize(all_fields, n_all_fields, &d), n);
  bytes again(n);
  dbf_fmt_tbl(all_fields, n_all_fields, &d, again.data());
  EXPECT_EQ(again, stored);

  // Every prefix fails, reading only what it holds (dec copies it into a
  // block of exactly that size).
  for (std::size_t k = 0; k < n; ++k) {
    zrec t;
    EXPECT_EQ(dec(all_fields, n_all_fields, t, bytes(stored.begin(), stored.begin() + k)), -1)
        << "prefix of " << k << " bytes";
  }
}

}  // namespace
}  // namespace pd
