// Kernel log copies: validation of log blocks and the dump of a log copy.
//
// A log copy is a run of 512-byte log blocks (private_region/log_block.h
// holds their stored form). The dump reads the first run of blocks of a
// copy, checks each block's magic and number and prints every entry.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/session.h"
#include "base/types.h"
#include "base/priv_info.h"
#include "private_region/log_block.h"

namespace pd {

// The blocks of one read of a log copy: the dump looks at no more.
inline constexpr std::size_t KLOG_READ_BLOCKS = 128;

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
