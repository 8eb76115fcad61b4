// The private-region header: one 512-byte sector, kept in several copies.
//
// Stored form (all integers big-endian, fields packed without gaps):
//   0   8  magic "PRIVHEAD"
//   8   4  checksum: bytes 0..7 plus bytes 12..511, modulo 4294967295
//   12  2  major version   (priv_version_fields)
//   14  2  minor version
//   16 ..  body of the version:
//          major 1    : priv_header_fields_1_2, ends at byte 326
//          major 2..4 : priv_header_fields_2_0 (ends at 355), then the
//                       extension tables _nt_minor1 (4 bytes), _nt_minor2
//                       (32 bytes) and _nt_minor3 (64 bytes): ends at 455
//   rest   not interpreted, but covered by the checksum
//
// Every header of major 2, 3 or 4 carries all three extension groups
// whatever its minor number. The decoder always describes the region in
// 512-byte units (chunk and sector shift 9, chunk size = bytes per sector).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "codec/field_codec.h"
#include "base/priv_info.h"

namespace pd {

inline constexpr std::size_t PRIV_HEADER_SIZE = 512;
inline constexpr char header_magic[] = "PRIVHEAD";
inline constexpr std::size_t PRIV_MAGIC_LEN = 8;
inline constexpr std::size_t PRIV_CHECKSUM_OFFSET = 8;
inline constexpr std::size_t PRIV_VERSION_OFFSET = 12;
static_assert(PRIV_CHECKSUM_OFFSET == PRIV_MAGIC_LEN && PRIV_VERSION_OFFSET == PRIV_CHECKSUM_OFFSET + 4);

// Accepted region lengths: 1 .. PRIV_MAX_LEN sectors.
inline constexpr voff_t PRIV_MAX_LEN = 0x80000;

// phi_flags bits
inline constexpr unsigned long PHI_SHARED = 1;        // host id need not be a GUID
inline constexpr unsigned long PHI_NOAUTOIMPORT = 2;
inline constexpr unsigned long PHI_USE_BACKUP = 4;    // positions from a backup header
inline constexpr unsigned long PHI_ENCAP_PENDING = 8;

extern const db_field priv_version_fields[];
extern const std::size_t n_priv_version_fields;
extern const db_field priv_header_fields_1_2[];
extern const std::size_t n_priv_header_fields_1_2;
extern const db_field priv_header_fields_2_0[];
extern const std::size_t n_priv_header_fields_2_0;
extern const db_field priv_header_fields_2_0_nt_minor1[];
extern const std::size_t n_priv_header_fields_2_0_nt_minor1;
extern const db_field priv_header_fields_2_0_nt_minor2[];
extern const std::size_t n_priv_header_fields_2_0_nt_minor2;
extern const db_field priv_header_fields_2_0_nt_minor3[];
extern const std::size_t n_priv_header_fields_2_0_nt_minor3;

// The header checksum of a sector buffer (at least 512 bytes).
std::uint64_t priv_header_checksum(const std::uint8_t* buf);
// The checksum the sector at `buf` stores (bytes 8..11).
// REQUIRES: PRIV_CHECKSUM_OFFSET + 4 bytes at `buf`.
std::uint32_t priv_header_stored_checksum(const std::uint8_t* buf);
// Writes the magic and then the checksum of the sector at `buf` (at least
// 512 bytes); the other bytes are left as they are.
void priv_header_seal(std::uint8_t* buf);

// Where a decoder gave up: its result, the stored field that failed, the
// field's byte offset in the structure and what is wrong with it.
struct priv_decode_fault {
  int code = 0;              // the decoder's result (0: no fault)
  const char* field = "";    // "magic", "checksum", "phi_hostid", ...
  std::size_t offset = 0;    // of the field, from the structure's first byte
  const char* reason = "";   // "not a GUID", "out of range", ...
};

// Decodes the 512 bytes at `buf` into `hdr` (fields the sector does not hold
// keep their values). 0, or 165 (magic, checksum, names), 168 (region length
// or positions), 169 (version). Never reads beyond buf + 512. On failure
// `hdr` holds what was decoded so far and `fault`, when given, the field
// that failed.
int priv_unformat_header(priv_header_info* hdr, const std::uint8_t* buf,
                         priv_decode_fault* fault = nullptr);

// The faults of every field check the decoder makes after the body (names,
// ids, region length and positions) on a decoded header, in the decoder's
// order; the decoder stops at the first of them.
std::vector<priv_decode_fault> priv_header_field_faults(const priv_header_info& hdr);

// Encodes `hdr` into `buf` (at least 512 bytes): always a version 2 body,
// the extension groups when major >= 2, magic and checksum. Bytes after the
// body keep what the buffer held.
void priv_format_header(const priv_header_info* hdr, std::uint8_t* buf);

// Name rules: at most `limit` characters, no '/'; on success the bytes after
// the terminator up to index `limit` are cleared. check_name also refuses an
// empty name and one that begins with '.'. 0 on success, negative on failure.
// REQUIRES: `name` holds at least limit + 1 bytes.
int check_optional_name(char* name, std::size_t limit);
int check_name(char* name, std::size_t limit);

// Saves the update sequence number and time, advances phi_next_seqno and
// makes it the update sequence number; the update time becomes now.
void priv_update_header_start(priv_info* priv);

}  // namespace pd
