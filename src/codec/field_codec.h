// The field-table codec.
//
// Every stored structure (private-region header, database header, each
// configuration record) is described by a field table: one db_field per
// stored member, in stored order. The stored form is the plain concatenation
// of the members' encodings, big-endian, with no alignment and no
// separators. The V types carry a one-byte length in front of their value.
//
// A table is a constant array of db_field with a count beside it; the
// structure is reached untyped, as its address plus dbf_offset. Build tables
// with the DBF() helper below so that dbf_tagsize and dbf_offset come from the
// structure itself.
#pragma once

#include <cstddef>
#include <cstdint>

namespace pd {

enum dbf_type : std::int32_t {
  DBF_TYPE_UCHAR = 0,
  DBF_TYPE_USHORT = 1,
  DBF_TYPE_UNSIGNED = 2,
  DBF_TYPE_ULONGLONG = 3,
  DBF_TYPE_SCHAR = 4,
  DBF_TYPE_SSHORT = 5,
  DBF_TYPE_SIGNED = 6,
  DBF_TYPE_VOFF_512 = 7,
  DBF_TYPE_VOFF = 8,
  DBF_TYPE_SEQNO = 9,
  DBF_TYPE_RID = 10,
  DBF_TYPE_STRING = 11,
  DBF_TYPE_VUNSIGNED = 12,
  DBF_TYPE_VSIGNED = 13,
  DBF_TYPE_VVOFF_512 = 14,
  DBF_TYPE_VVOFF = 15,
  DBF_TYPE_VRID = 16,
  DBF_TYPE_PORTINFO = 17,
  DBF_TYPE_PORTINFO6 = 18,
  DBF_TYPE_VSTRING = 19,
  DBF_TYPE_AWSTRING = 20,
  DBF_TYPE_GUIDMEMSTRING = 21,
  DBF_TYPE_GUIDSTORESTRING = 22,
  DBF_TYPE_GUID = 23,
  DBF_TYPE_VGUID = 24,
  DBF_TYPE_VBYTE = 25,
};

struct db_field {
  ::pd::dbf_type dbf_type;
  std::size_t dbf_tagsize;    // width of the member in memory
  std::size_t dbf_storesize;  // stored bytes of fixed-width types, else 0
  std::size_t dbf_offset;     // position of the member in the structure
};

// Members of the port-information encodings; stored as their memory image.
struct PORTINFO {
  std::uint16_t portno;
  unsigned long ipaddress;
};
static_assert(sizeof(PORTINFO) == 16, "PORTINFO is stored as 16 bytes");

struct IPADDR {
  std::uint32_t family;
  union {
    std::uint32_t words[4];
    std::uint8_t bytes[16];
  } addr;
};
struct PORTINFO6 {
  std::uint16_t portno;
  IPADDR ipaddress;
  std::uint8_t pad[24];
};
static_assert(sizeof(PORTINFO6) == 48, "PORTINFO6 is stored as 48 bytes");

// The stored size of `sp` under the table. Never fails.
std::size_t dbf_tblsize(const db_field* ftbl, std::size_t nflds, const void* sp);

// Writes the stored form of `sp` at `buf`; returns the position after the last
// byte written. REQUIRES: at least dbf_tblsize() bytes at `buf`.
std::uint8_t* dbf_fmt_tbl(const db_field* ftbl, std::size_t nflds, const void* sp,
                          std::uint8_t* buf);

// Reads the stored form at [buf, lim) into `sp`; returns the position after
// the last byte consumed, or nullptr on failure. Never reads at or beyond
// `lim`. AWSTRING members (wchar_t*, 32-bit characters) and VBYTE members
// (std::uint8_t*, the self-sized string, prefix included) receive heap
// strings (malloc) that dbf_free_tbl releases; a decode overwrites such a
// pointer without freeing what it held.
const std::uint8_t* dbf_unfmt_tbl(const db_field* ftbl, std::size_t nflds, void* sp,
                                  const std::uint8_t* buf, const std::uint8_t* lim);

// The length prefix of a self-sized byte string at `p`: base-128 digits,
// least significant first, the digit with bit 7 set being the last; digit i
// is shifted left by 7*i mod 32 in 32-bit arithmetic. Stores the number of
// prefix bytes and the length. With a non-null `lim` the prefix must end
// before `lim` (else false); a null `lim` trusts an in-memory string.
bool dbf_vbyte_length(const std::uint8_t* p, const std::uint8_t* lim, std::size_t* prefix,
                      std::uint32_t* len);

// Frees (and nulls) the heap strings that dbf_unfmt_tbl attached to `sp`
// through this table's AWSTRING and VBYTE members.
void dbf_free_tbl(const db_field* ftbl, std::size_t nflds, void* sp);

}  // namespace pd

// A field-table entry for member `m` of structure `S` (member width from the
// structure, position by offsetof).
#define DBF(type, S, m, storesize) \
  ::pd::db_field { (type), sizeof(static_cast<S*>(nullptr)->m), (storesize), offsetof(S, m) }
