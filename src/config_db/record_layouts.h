// Stored layouts of the database header and of every configuration record.
//
// Database header (first ddb_hdrsize bytes of a copy; at most 512 are
// decoded): "VMDB", then ddb_fields (nblocks, blksize, hdrsize, U4 each),
// voldb_info_base_fields (commit state, major, minor, U2 each), then by
// major version:
//   3: voldb_info_more_fields_1_2 (14-byte group name, 64-byte group id, two
//      tids, 7 + 7 counters);
//   4: voldb_info_more_fields (31-byte name, id, tids, 7 + 7 counters, then
//      rv/rp counts of both summaries), voldb_info_netmirror_fields (the four
//      rv/rp counts again; read only when minor > 10),
//      voldb_info_more_fields_nt_minor_1 (update time; read when minor > 9),
//      and when minor > 16 the dbvers, dco_snap, active_tag, stpool, info,
//      vset, cache and export groups.
// The writer always writes every group of major 4.
//
// Record body: [2-byte type extension when type bit 0x100] + the groups of
// the record's rec2field entry that apply to its 32-bit type word, in group
// order. A group applies when (type & flagmask) == flagvalue. Bits from
// 0x800 up are presence flags: a flag that no applied group's mask claims
// makes the record undecodable. Bit 0x400 suppresses the GUID pre-decode.
//
// In memory, a record's dbr_type holds the whole 32-bit type word: the
// decoder ORs the extension (shifted left 16) into it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/types.h"
#include "codec/field_codec.h"
#include "config_db/block_store.h"
#include "config_db/records.h"

namespace pd {

// Type-word bits
inline constexpr std::uint32_t RTYPE_CODE_MASK = 0xFF;
inline constexpr std::uint32_t RTYPE_KIND_MASK = 0xF;
inline constexpr std::uint32_t RTYPE_EXTENDED = 0x100;   // 2-byte extension first
inline constexpr std::uint32_t RTYPE_NOGUID = 0x400;     // no GUID pre-decode
inline constexpr std::uint32_t RTYPE_PRESENCE = 0xFFFFF800u;  // checked presence flags

inline constexpr std::size_t VOLDB_MAX_RECSIZE = 16384;  // body bytes
inline constexpr std::size_t VOLDB_HDR_DECODE = 512;     // header bytes decoded

// One field group of a record-type entry.
struct r2f_group {
  std::uint32_t flagmask;
  std::uint32_t flagvalue;
  const db_field* ftbl;
  std::size_t nflds;
};

inline constexpr std::size_t R2F_MAXGROUPS = 26;

// One record-type entry: the type code, the name space (1, or 2 for disk
// access) and the groups, ended by the first group with nflds 0.
struct rec2field {
  std::uint32_t type;
  int namespace_;
  r2f_group r2f_tbls[R2F_MAXGROUPS];
};

extern const rec2field rec2field_table[];
extern const std::size_t n_rec2field_table;  // 48

// The first entry whose type equals the low 8 bits of `type`, or null.
const rec2field* find_rec2field(std::uint32_t type);

// Stored size: 2 for the extension when the type word is negative (as a
// 32-bit signed value) or above 0xFFFF, plus every applicable group.
std::size_t voldbf_tblsize(const rec2field* r2f, std::uint32_t type, const void* sp);
// Writes every applicable group (not the extension); returns the end.
std::uint8_t* voldbf_fmt_tbl(const rec2field* r2f, std::uint32_t type, const void* sp,
                             std::uint8_t* buf);
// Reads every applicable group from [buf, lim); null when a group fails or,
// once all are read, a presence flag is not claimed by an applied group's
// mask (the members read stay in `sp`).
const std::uint8_t* voldbf_unfmt_tbl(const rec2field* r2f, std::uint32_t type, void* sp,
                                     const std::uint8_t* buf, const std::uint8_t* lim);
// Frees (and nulls) the heap members that decoding attached to `sp`, over
// every group of the entry whatever the flags.
void voldbf_free_tbl(const rec2field* r2f, void* sp);

bool voldbf_rec_has_guid(std::uint32_t type);
// The record's GUID from its decoded structure (volume: v_nt_vol_guid,
// plex: pl_guid, others as listed in the layout notes); zeroguid if none.
voldguid_t voldbf_get_guid(std::uint32_t type, const void* sp);

// Size of the decoded structure for the record's base kind (0 for kinds
// without one, 0 and 15).
std::size_t voldbsup_struct_size(std::uint32_t type);
// Size of the structure an entry's tables describe (entries above 0xFF
// describe the link-set, export and site structures).
std::size_t rec2field_struct_size(const rec2field* r2f);
// Frees the heap members of a decoded record of this type.
void voldbsup_free_fields(std::uint32_t type, void* sp);

// The prefix every record body starts with (after the extension).
// The name may hold up to 255 characters.
struct anyrec {
  volrid_t rid;
  char name[256];
};

// The fixed prefix of the database header, the same in every version:
//   0   4  magic "VMDB"
//   4   4  nblocks   (ddb_fields)
//   8   4  blksize
//   12  4  hdrsize
//   16  2  commit state (voldb_info_base_fields)
//   18  2  major version
//   20  2  minor version
inline constexpr char voldb_magic[] = "VMDB";
inline constexpr std::size_t VOLDB_MAGIC_LEN = 4;
inline constexpr std::size_t VOLDB_OFF_NBLOCKS = 4;
inline constexpr std::size_t VOLDB_OFF_BLKSIZE = 8;
inline constexpr std::size_t VOLDB_OFF_HDRSIZE = 12;
inline constexpr std::size_t VOLDB_OFF_COMMIT_STATE = 16;
inline constexpr std::size_t VOLDB_OFF_VERSION_MAJOR = 18;
inline constexpr std::size_t VOLDB_OFF_VERSION_MINOR = 20;
inline constexpr std::size_t VOLDB_PREFIX_SIZE = 22;
static_assert(VOLDB_PREFIX_SIZE == 4 + 3 * 4 + 3 * 2);
static_assert(VOLDB_OFF_NBLOCKS == VOLDB_MAGIC_LEN && VOLDB_OFF_BLKSIZE == VOLDB_OFF_NBLOCKS + 4 &&
                  VOLDB_OFF_HDRSIZE == VOLDB_OFF_BLKSIZE + 4 &&
                  VOLDB_OFF_COMMIT_STATE == VOLDB_OFF_HDRSIZE + 4 &&
                  VOLDB_OFF_VERSION_MAJOR == VOLDB_OFF_COMMIT_STATE + 2 &&
                  VOLDB_OFF_VERSION_MINOR == VOLDB_OFF_VERSION_MAJOR + 2 &&
                  VOLDB_PREFIX_SIZE == VOLDB_OFF_VERSION_MINOR + 2,
              "the prefix fields follow one another");

struct voldb_prefix_info {
  bool vdp_magic_ok;  // "VMDB"
  std::uint32_t vdp_nblocks;
  std::uint32_t vdp_blksize;
  std::uint32_t vdp_hdrsize;
  std::uint16_t vdp_commit_state;
  std::uint16_t vdp_version_major;
  std::uint16_t vdp_version_minor;
};

// Decodes the prefix at `p`, never reading at or past `lim`. Returns the
// position after it (where the groups of the version begin), or null when
// fewer than VOLDB_PREFIX_SIZE bytes lie before `lim` (then `out` is left
// alone). Any magic decodes: vdp_magic_ok tells whether it is the header's.
const std::uint8_t* voldb_prefix_decode(const std::uint8_t* p, const std::uint8_t* lim,
                                        voldb_prefix_info* out);

// Database header. `len` bounds the buffer; at most 512 bytes are used.
// format writes ddb_nblocks/blksize/hdrsize of `db` and the version of `vi`
// after clearing min(len, ddb_hdrsize) bytes: 0, or 139 for an unknown major
// or a header that does not fit. unformat: 0, 148 (magic), 139 (major),
// 138 (a header that runs past `len`); it sets ddb_nblocks/blksize/hdrsize and
// ddb_mvers_major/minor of `db`.
int voldbsup_format_header(dbase* db, std::uint8_t* buf, std::size_t len, const voldb_info* vi);
int voldbsup_unformat_header(dbase* db, const std::uint8_t* buf, std::size_t len,
                             voldb_info* vi);
// Writes the header again with the groups voldbsup_unformat_header reads
// for its version (not every major-4 group, as format does), so that a
// decoded header encodes to the bytes it came from; the bytes after the
// groups, up to min(len, ddb_hdrsize), are cleared. 0, 139 (major) or 138
// (does not fit in `len`).
int voldbsup_reformat_header(const dbase* db, std::uint8_t* buf, std::size_t len,
                             const voldb_info* vi);

// The placement callback of voldbsup_unformat_record: returns 0 and in
// *rawpp the structure to decode into (room for voldbsup_struct_size of the
// type; never null), or an error that is returned unchanged. `rname` holds
// up to 255 characters.
using voldbsup_place_fn = int (*)(dbase* db, db_record* r, int ns, volrid_t rid,
                                  const char* rname, voldguid_t guid, void** rawpp);

// rop_format: builds the body in dbr_build on the first call, then copies
// `length` bytes from body offset `offset`. 0, 12, or 138 when the request
// leaves the body or the type has no entry. dbr_size is set on the build.
int voldbsup_format_record(dbase* db, db_record* r, std::uint8_t* out, std::size_t offset,
                           std::size_t length, const void* sp);
void voldbsup_format_cleanup_record(dbase* db, db_record* r);
// The body size a record of this type and structure will have.
std::size_t voldbsup_record_size(std::uint32_t type, const void* sp);

// rop_unformat: accumulates the fragments, decodes the complete body.
int voldbsup_unformat_record(dbase* db, db_record* r, const std::uint8_t* frag,
                             std::size_t offset, std::size_t length, voldbsup_place_fn place);
// dop_init_record check: 0, 138, 139, 118, or 0 with DBR_REFUSED set.
int voldbsup_init_record(dbase* db, db_record* r);

// The lowest database version that can hold the record: 0 or 138.
int voldbsup_rtyp2vers(std::uint32_t type, const db_record* r, const void* sp,
                       std::uint16_t* major, std::uint16_t* minor);

// Disk-group version <-> database version.
struct dgdbv_entry {
  unsigned dgv;
  std::uint16_t major;
  std::uint16_t minor;
};
extern const dgdbv_entry dgdbvtbl[];
extern const std::size_t n_dgdbvtbl;
// 0, or 31 with both zero for an unknown disk-group version.
int dgv2dbv(unsigned dgv, std::uint16_t* major, std::uint16_t* minor);
// 0, or 139 with 0 for an unknown database version.
int dbv2dgv(std::uint16_t major, std::uint16_t minor, unsigned* dgv);

}  // namespace pd
