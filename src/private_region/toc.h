// The table of contents: a chain of blocks, each kept twice (a primary chain
// from phi_first_toc and an alternate chain from phi_first_alt_toc).
//
// A block is one chunk (phi_chunk_size bytes). All integers big-endian.
//   0   8  magic "TOCBLOCK"
//   8   4  checksum: bytes 0..7 plus bytes 12..chunk-1, modulo 4294967295
//   12  4  seqno_hi of the header's update sequence number
//   16  4  seqno_lo
//   20  8  next block of the primary chain (sector; 0 ends the chain)
//   28  8  next block of the alternate chain
//   36 ..  entries, one after another, until a first byte 0 or the block end
//
// An entry:
//   0   8  region type, NUL-padded (no terminator when 8 long)
//   8   2  region flags (DKR_*)
//   10  8  start, signed, sectors
//   18  8  length, signed, sectors
//   26  2  payload size
//   28 ..  payload: config/log/lockrgn 6 bytes (number u16, offset u32),
//          tagid 322 bytes (flags u16, name[32], value[256], source[32]),
//          any other type opaque.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/priv_info.h"
#include "private_region/header.h"

namespace pd {

inline constexpr char toc_magic[] = "TOCBLOCK";
inline constexpr std::size_t TOC_MAGIC_LEN = 8;
inline constexpr std::size_t TOC_CHECKSUM_OFFSET = 8;
inline constexpr std::size_t TOC_SEQNO_HI_OFFSET = 12;
inline constexpr std::size_t TOC_SEQNO_LO_OFFSET = 16;
inline constexpr std::size_t TOC_NEXT_OFFSET = 20;
inline constexpr std::size_t TOC_ALT_NEXT_OFFSET = 28;
inline constexpr std::size_t TOC_ENTRIES_OFFSET = 36;
static_assert(TOC_ENTRIES_OFFSET == 8 + 4 + 4 + 4 + 8 + 8);
static_assert(TOC_CHECKSUM_OFFSET == TOC_MAGIC_LEN &&
                  TOC_SEQNO_HI_OFFSET == TOC_CHECKSUM_OFFSET + 4 &&
                  TOC_SEQNO_LO_OFFSET == TOC_SEQNO_HI_OFFSET + 4 &&
                  TOC_NEXT_OFFSET == TOC_SEQNO_LO_OFFSET + 4 &&
                  TOC_ALT_NEXT_OFFSET == TOC_NEXT_OFFSET + 8 &&
                  TOC_ENTRIES_OFFSET == TOC_ALT_NEXT_OFFSET + 8,
              "the block words follow one another");

// The words before the entries of a TOC block.
struct toc_block_info {
  bool tbi_magic_ok;           // "TOCBLOCK"
  std::uint32_t tbi_checksum;  // as stored
  volseqno_t tbi_seqno;
  voff_t tbi_next;             // as stored: the join checks the range
  voff_t tbi_alt_next;
};

inline constexpr std::size_t TOC_ENTRY_TYPE_LEN = 8;
inline constexpr std::size_t TOC_ENTRY_FIXED = 28;
static_assert(TOC_ENTRY_FIXED == 8 + 2 + 8 + 8 + 2);

inline constexpr std::size_t TOC_COPY_PAYLOAD = 6;
inline constexpr std::size_t TOC_TAGID_PAYLOAD = 322;
inline constexpr std::size_t TAGID_NAME_OFFSET = 2;
inline constexpr std::size_t TAGID_VALUE_OFFSET = 34;
inline constexpr std::size_t TAGID_SOURCE_OFFSET = 290;
static_assert(TOC_TAGID_PAYLOAD == 2 + 32 + 256 + 32);

// tei_internal_flags bits used by the TOC rewrite.
inline constexpr unsigned long TEI_NEW = 1;
inline constexpr unsigned long TEI_REMOVE = 2;

std::uint64_t priv_toc_checksum(const std::uint8_t* buf, std::size_t len);

// Decodes the block words at `p`, never reading at or past `lim`. Returns
// the position of the first entry, or null when fewer than
// TOC_ENTRIES_OFFSET bytes lie before `lim` (then `out` is left alone). Any
// magic decodes: tbi_magic_ok tells whether it is the block's.
const std::uint8_t* toc_block_decode(const std::uint8_t* p, const std::uint8_t* lim,
                                     toc_block_info* out);

// Verifies the block of `len` bytes at `buf`: 0, 165 (magic, checksum, too
// small to hold the block words) or 168 (sequence number not `seqno`). On a
// fault, `fault` (when given) names the field and its offset in the block.
int priv_toc_block_verify(const std::uint8_t* buf, std::size_t len, const volseqno_t& seqno,
                          priv_decode_fault* fault = nullptr);

// Reads the block at `sector` (relative) into `buf` (a chunk) and verifies
// it (priv_toc_block_verify against the header's update sequence number):
// 0, the read error, 165 or 168.
int priv_read_toc_sector(priv_info* priv, std::uint8_t* buf, voff_t sector,
                         priv_decode_fault* fault = nullptr);

// Decodes the entry at *cursor, never reading at or past `end`. On 0, *entry
// is a new entry (null at the end of the list) and *cursor moved past it.
// 165: truncated by the block end or negative start/length; 168: malformed
// config, log or lockrgn entry; 12: no memory.
int priv_unpack_toc_entry(toc_entry_info** entry, const std::uint8_t** cursor,
                          const std::uint8_t* end);
// Encodes `entry` at *cursor and advances it by 28 + payload size. Bytes of
// the type field after the terminator keep what the buffer held.
// REQUIRES: that many bytes at *cursor.
void priv_pack_toc_entry(const toc_entry_info* entry, std::uint8_t** cursor);

// Entries: allocation (payload of `info_size` zeroed bytes) and release.
toc_entry_info* priv_alloc_toc_entry(std::size_t info_size);
void priv_free_toc_entry(toc_entry_info* entry);

// Payload moves. The pack forms give the entry a payload of the right size
// (0, or 12 when memory is exhausted); the unpack forms read what the payload
// holds and take bytes past its end as 0 (returning 165 if any was missing).
int priv_pack_copy_entry(const copy_region_entry* cr, toc_entry_info* entry);
int priv_unpack_copy_entry(copy_region_entry* cr, const toc_entry_info* entry);
int priv_pack_lkr_entry(const lock_region_entry* lr, toc_entry_info* entry);
int priv_unpack_lkr_entry(lock_region_entry* lr, const toc_entry_info* entry);
int priv_pack_tagid_entry(const tagid_region_entry* tag, toc_entry_info* entry);
int priv_unpack_tagid_entry(tagid_region_entry* tag, const toc_entry_info* entry);

}  // namespace pd
