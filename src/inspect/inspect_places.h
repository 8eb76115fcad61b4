// Where the copies of a joined image lie, byte by byte, so that a raw
// position can be named ("config copy 1, block 3") and a stored block
// number checked against the position of its block.
//
// A copy is made of parts (TOC entries) that lie end to end in copy order;
// part k starts at byte phi_chunk_size * dkr_offset of the image (the region
// offset is 0 for every read) and holds phi_chunk_size * dkr_len bytes. The
// unit of a configuration copy is the block size its database header
// states (512 when the header cannot be read); a log copy's unit is the
// 512-byte log block.
//
// Where a structure is expected, its magic can be checked: the header
// copies at the positions the chosen header names, the TOC blocks of both
// chains (the sectors the join read, or the first of each chain when the
// join failed), block 0 of every copy (the database header, the first log
// block), and the blocks the copy's own block 0 counts: a configuration
// copy's store blocks from the end of its database header up to nblocks, a
// log copy's blocks up to the log length of a valid block 0 (at most 128,
// as the log dump reads them). Blocks past the copy's end are never
// expected.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/types.h"
#include "inspect/inspect_image.h"

namespace pd {

enum class copy_kind { config, log };

struct copy_part_place {
  copy_kind kind;
  int copy;
  std::uint64_t start;        // image byte of the part's first byte
  std::uint64_t len;          // bytes
  std::uint64_t copy_offset;  // copy byte of the part's first byte
  std::uint64_t unit;         // bytes per block of this copy
  std::uint64_t body_first;   // the first block after block 0 expected to hold a magic
  std::uint64_t body_end;     // blocks [body_first, body_end) are expected (0: none)
};


// A position inside a copy: the block of the copy's unit and the bytes
// into it.
struct copy_position {
  copy_kind kind;
  int copy;
  std::uint64_t block;
  std::uint64_t rem;
};

// A structure expected to start at a sector: its magic (the log's "KLOG"
// also stands for "kLOG") and where the expectation comes from
// ("; config copy 1, block 3", "; primary TOC block 0").
struct expected_magic {
  const char* magic;
  std::string where;
  std::optional<copy_position> at;  // for a block of a copy
};

class copy_places {
 public:
  // Scans and joins the image without printing; an image that cannot be
  // located yields no places (summary() says why).
  static copy_places locate_quietly(inspect_image& img);

  // One line: the header chosen and the copies known, or why none is known.
  std::string summary() const { return summary_; }
  // "; config copy 1, block 3" (with " + N bytes" when not on a block
  // boundary), "; outside every copy", or "" when nothing is located. With
  // `blkno` given, a copy of kind `kind` whose block at this place has
  // another number adds ": block number differs".
  std::string describe(std::uint64_t sector) const;
  std::string describe(std::uint64_t sector, copy_kind kind, std::uint32_t blkno) const;
  // Where the sector lies, when the image is joined and a copy holds it.
  std::optional<copy_position> position(std::uint64_t sector) const;
  // The structure expected to start at `sector`, if any.
  std::optional<expected_magic> expected(std::uint64_t sector) const;
  bool joined() const { return joined_; }

  bool header_seqno_known = false;
  volseqno_t header_seqno;

 private:
  const copy_part_place* find(std::uint64_t byte) const;
  void add_fixed(voff_t sector, const char* magic, std::string where);

  struct fixed_place {
    std::uint64_t sector;
    const char* magic;
    std::string where;
  };

  std::vector<copy_part_place> parts_;
  std::vector<fixed_place> fixed_;  // headers and TOC blocks
  std::string summary_;
  std::uint64_t sector_size_ = 512;
  bool joined_ = false;
};

}  // namespace pd
