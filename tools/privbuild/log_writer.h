// The `log` content generator of the image builder: kernel log blocks for a
// log copy, described line by line.
//
//   block [magic=WORD] [tid=H.L] [seqno=N] [len=N] [blkno=N]
//   entry [slot=N] type=TYPE [rid=H.L] [tid=H.L] [recover=N] [words=A,B,C,D,E]
//
// `block` starts the next 512-byte log block of the copy (index 0, 1, ...).
// magic is any four characters (KLOG by default; kLOG is the other valid
// form, anything else makes the block invalid); blkno defaults to the
// block's index (another value is a wrong block number); len is the log
// length stored in the block, by default the number of blocks described.
//
// `entry` fills one of the block's 20 entry slots (the next free one unless
// slot= says which). TYPE is a name (detach, dirty, commit, logdetach,
// app_dirty, dg_change_log, dirty_seqno, cache_seqno, empty) or any number
// 0-255, so that invalid type bytes can be written. rid, tid and recover
// place their values in the words that the type carries (rid in words 0-1;
// tid in words 2-3 after a rid, else in words 0-1; recover in word 4);
// words= sets the five words directly and wins over them.
//
// The blocks are written from the copy's first byte; the rest of the copy is
// left as it is (zero in a fresh image).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/types.h"

namespace pd::privbuild {

struct log_entry_desc {
  int slot = -1;  // -1: the next free slot
  std::uint8_t type = 0;
  std::array<std::uint32_t, 5> words{};
};

struct log_block_desc {
  std::string magic = "KLOG";
  volseqno_t tid;
  std::uint32_t seqno = 0;
  std::optional<std::uint32_t> loglen;  // default: number of blocks
  std::optional<std::uint32_t> blkno;   // default: the block's index
  std::vector<log_entry_desc> entries;
};

struct log_content {
  std::vector<log_block_desc> blocks;
};

// Parses one description line into `c`; false with `error` set on a fault.
bool log_parse_line(const std::string& line, log_content& c, std::string& error);

// Writes the blocks of `c` into the copy's bytes (`len` of them); false with
// `error` set when they do not fit or an entry slot is taken twice.
bool log_write(const log_content& c, std::uint8_t* copy, std::size_t len, std::string& error);

// Registers the generator as `log` with the builder.
void register_log_generator();

// Encodes one block at `out` (512 bytes) as block `index` of a copy of
// `nblocks` described blocks.
bool log_format_block(const log_block_desc& b, std::size_t index, std::size_t nblocks,
                      std::uint8_t* out, std::string& error);

}  // namespace pd::privbuild
