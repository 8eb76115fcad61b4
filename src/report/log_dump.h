// Kernel log copies: validation of log blocks and the dump of a log copy.
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

#include "base/session.h"
#include "base/types.h"
#include "base/priv_info.h"

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
inline constexpr std::size_t KLOG_ENTRY_WORDS = 5;
inline constexpr std::size_t KLOG_ENTRY_USED = 1 + KLOG_ENTRY_WORDS * 4;
static_assert(KLOG_ENTRY_USED <= KLOG_ENTRY_SIZE, "the words fit in the entry");

// The two accepted magics, read as big-endian words.
inline constexpr std::uint32_t KLOG_MAGIC = 0x4B4C4F47;      // "KLOG"
inline constexpr std::uint32_t KLOG_MAGIC_ALT = 0x6B4C4F47;  // "kLOG"

// The blocks of one read of a log copy: the dump looks at no more.
inline constexpr std::size_t KLOG_READ_BLOCKS = 128;

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

// Validates the log block at `buf` (`len` bytes; fewer than a header's worth
// is invalid): the magic must be KLOG or kLOG and the stored block number
// must equal `logblkno`. On success stores the tid, the log sequence number
// and the log length and returns 1; otherwise returns 0 and stores nothing.
int logblk_valid(const std::uint8_t* buf, std::size_t len, std::size_t logblkno, volseqno_t* tidp,
                 unsigned long* logseqnop, std::size_t* nblksp);

// Prints entry `n` of block `blk`, whose bytes start at `bp` and may not be
// read at or past `limit`. An empty slot (type 0) prints nothing. Returns 0,
// or -1 without printing when the entry's words do not fit before `limit`.
int priv_print_log(session& s, const std::uint8_t* bp, const std::uint8_t* limit, int n, int blk);

// Dumps log copy `copy`, or every log copy when `copy` is negative, on
// s.out (read and block faults go to s.err and do not stop the dump).
// Returns 1 when a copy was dumped; when none matched, reports it and throws
// fatal_exit{1}. Session option l_long_listing adds a line per block.
int priv_dump_logs(session& s, priv_info* priv, int copy);

}  // namespace pd
