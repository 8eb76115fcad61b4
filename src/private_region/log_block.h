// Kernel log blocks: the stored form of one block of a log copy.
//
// A log copy is a run of 512-byte log blocks in which the kernel records
// detaches, dirty marks and commits. Every integer is big-endian:
//
//   bytes   0-3    magic "KLOG" or "kLOG" (both accepted)
//   bytes   4-7    tid, high half
//   bytes   8-11   tid, low half
//   bytes  12-15   log sequence number
//   bytes  16-19   log length: valid blocks in the copy (only block 0's counts)
//   bytes  20-23   block number: the block's index within the copy
//   bytes  24-503  20 entries of 24 bytes
//   bytes 504-511  reserved, not read
//
// An entry is a type byte followed by five 32-bit words at entry bytes 1-4,
// 5-8, 9-12, 13-16 and 17-20 (unaligned); bytes 21-23 are not read. A rid or
// tid is two words, high half first. No checksum protects a log block.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/types.h"

namespace pd {

inline constexpr std::size_t KLOG_BLKSIZE = 512;
inline constexpr std::size_t KLOG_OFF_MAGIC = 0;
inline constexpr std::size_t KLOG_OFF_TID_HI = 4;
inline constexpr std::size_t KLOG_OFF_TID_LO = 8;
inline constexpr std::size_t KLOG_OFF_SEQNO = 12;
inline constexpr std::size_t KLOG_OFF_LOGLEN = 16;
inline constexpr std::size_t KLOG_OFF_BLKNO = 20;
inline constexpr std::size_t KLOG_OFF_ENTRIES = 24;  // magic, tid (2), seqno, len, blkno
inline constexpr std::size_t KLOG_ENTRY_SIZE = 24;
inline constexpr int KLOG_NENTRIES = 20;
inline constexpr std::size_t KLOG_RESERVED = 8;
static_assert(KLOG_OFF_ENTRIES == 6 * 4, "six words precede the entries");
static_assert(KLOG_OFF_ENTRIES + KLOG_NENTRIES * KLOG_ENTRY_SIZE + KLOG_RESERVED == KLOG_BLKSIZE,
              "a log block is 512 bytes");
// Entry: type byte, then five words; the last word ends at entry byte 20.
inline constexpr std::size_t KLOG_ENTRY_OFF_TYPE = 0;
inline constexpr std::size_t KLOG_ENTRY_OFF_WORDS = 1;
inline constexpr std::size_t KLOG_ENTRY_WORDS = 5;
inline constexpr std::size_t KLOG_ENTRY_USED = 1 + KLOG_ENTRY_WORDS * 4;
static_assert(KLOG_ENTRY_USED <= KLOG_ENTRY_SIZE, "the words fit in the entry");

// The two accepted magics, as text and read as big-endian words.
inline constexpr char klog_magic[] = "KLOG";
inline constexpr char klog_magic_alt[] = "kLOG";
inline constexpr std::size_t KLOG_MAGIC_LEN = 4;
inline constexpr std::uint32_t KLOG_MAGIC = 0x4B4C4F47;
inline constexpr std::uint32_t KLOG_MAGIC_ALT = 0x6B4C4F47;
static_assert(KLOG_OFF_TID_HI == KLOG_OFF_MAGIC + KLOG_MAGIC_LEN &&
              KLOG_OFF_TID_LO == KLOG_OFF_TID_HI + 4 && KLOG_OFF_SEQNO == KLOG_OFF_TID_LO + 4 &&
              KLOG_OFF_LOGLEN == KLOG_OFF_SEQNO + 4 && KLOG_OFF_BLKNO == KLOG_OFF_LOGLEN + 4 &&
              KLOG_OFF_ENTRIES == KLOG_OFF_BLKNO + 4, "the block words follow one another");

enum vol_klogent_type : std::uint8_t {
  MIN_KLOG_TYPE_ENT = 0,
  VOL_KLOG_DETACH = 1,
  VOL_KLOG_DIRTY = 2,
  VOL_KLOG_COMMIT = 3,
  VOL_KLOG_LOGDETACH = 4,
  VOL_KLOG_APP_DIRTY = 5,
  VOL_KLOG_DG_CHANGE_LOG = 6,
  VOL_KLOG_SRL_ERROR = 7,  // 7..31 exist but the dump prints them as invalid
  VOL_KLOG_CACHE_DETACH = 31,
  VOL_KLOG_DIRTY_SEQNO = 32,
  VOL_KLOG_CACHE_SEQNO = 33,
  MAX_KLOG_TYPE_ENT = 34,
};

// The words before the entries of a log block.
struct klog_block_info {
  bool klb_magic_ok;        // "KLOG" or "kLOG"
  volseqno_t klb_tid;
  std::uint32_t klb_seqno;
  std::uint32_t klb_loglen;
  std::uint32_t klb_blkno;
};

// Decodes the block words at `p`, never reading at or past `lim`. Returns
// the position of the first entry, or null when fewer than KLOG_OFF_ENTRIES
// bytes lie before `lim` (then `out` is left alone). Any magic decodes:
// klb_magic_ok tells whether it is one of the two accepted.
const std::uint8_t* klog_block_decode(const std::uint8_t* p, const std::uint8_t* lim,
                                      klog_block_info* out);

// Byte offset of entry `n` (0 .. KLOG_NENTRIES - 1) within its block.
constexpr std::size_t klog_entry_offset(int n) {
  return KLOG_OFF_ENTRIES + KLOG_ENTRY_SIZE * static_cast<std::size_t>(n);
}

struct klog_entry_info {
  std::uint8_t kle_type;  // vol_klogent_type, or any other byte
  std::uint32_t kle_words[KLOG_ENTRY_WORDS];
};

// The type byte of the entry at `p`. REQUIRES: one byte at `p`.
inline std::uint8_t klog_entry_type(const std::uint8_t* p) { return p[KLOG_ENTRY_OFF_TYPE]; }

// Decodes the entry at `p`, never reading at or past `lim`. Returns the
// position after its last word, or null when fewer than KLOG_ENTRY_USED
// bytes lie before `lim` (then `out` is left alone).
const std::uint8_t* klog_entry_decode(const std::uint8_t* p, const std::uint8_t* lim,
                                      klog_entry_info* out);

// Words `k` and `k + 1` of an entry as a rid or tid, high half first.
inline volseqno_t klog_entry_seqno(const klog_entry_info& e, std::size_t k) {
  volseqno_t v;
  v.seqno_hi = e.kle_words[k];
  v.seqno_lo = e.kle_words[k + 1];
  return v;
}

}  // namespace pd
