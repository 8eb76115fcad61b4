// The model of `scan`: every sector of the image is searched for the magic
// of each stored structure at its start; every candidate is decoded
// (checksums, sequence numbers, block numbers) and, when the header and the
// table of contents can be located, placed: the copy and the block within
// it. Where they say a structure lies and its magic is not there, the
// sector is damaged, with the bytes found instead.
//
// Runs are folded into one entry with a first and a last sector:
// consecutive unused store blocks (reference 0) whose numbers count up with
// their sectors and agree with their places, and consecutive blocks of one
// copy where the same magic is expected and the same bytes are found.
//
// The entries are produced in sector order and handed to a consumer one at
// a time, so a scan of any size holds one entry (and one read run) at once.
// The text view and the JSON document are two consumers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "base/types.h"
#include "inspect/inspect.h"
#include "inspect/inspect_image.h"
#include "inspect/inspect_places.h"
#include "private_region/header.h"

namespace pd {

enum class scan_kind {
  privhead,    // PRIVHEAD
  tocblock,    // TOCBLOCK
  vmdb,        // VMDB: a configuration copy's database header
  vblk,        // VBLK: a store block
  klog,        // KLOG or kLOG: a log block
  unused_run,  // two or more unused store blocks in a row
  damaged,     // where a structure is expected and its magic is not
};

struct scan_entry {
  scan_kind kind = scan_kind::privhead;
  std::uint64_t sector = 0, last_sector = 0;  // equal for one sector
  std::uint64_t offset = 0, last_offset = 0;  // image bytes of those sectors
  std::uint64_t count = 1;                    // sectors the entry stands for
  // The magic found (damaged: the magic expected there).
  const char* magic = "";
  std::size_t bytes = 0;   // bytes of the (first) sector inside the image
  bool truncated = false;  // the structure does not fit in them

  // Decoded fields, by kind (of the first block for a run).
  std::uint32_t stored_sum = 0, computed_sum = 0;  // PRIVHEAD, TOCBLOCK
  int decode = 0;                  // PRIVHEAD, VMDB: the decoder's result
  std::uint32_t version_major = 0, version_minor = 0;  // PRIVHEAD, VMDB
  volseqno_t seqno{};              // PRIVHEAD: update seqno; TOCBLOCK: seqno; KLOG: tid
  voff_t primary_header = 0, alt_header = 0;  // PRIVHEAD
  voff_t next = 0, alt_next = 0;              // TOCBLOCK
  std::optional<volseqno_t> header_seqno;     // TOCBLOCK: the chosen header's
  std::uint32_t nblocks = 0, blksize = 0, hdrsize = 0, commit_state = 0;  // VMDB
  std::optional<std::uint32_t> blkno;  // VMDB (0), VBLK, KLOG, a run's first
  std::uint32_t ref = 0, frag = 0, nfrag = 0;  // VBLK
  std::uint32_t log_seqno = 0, log_len = 0;    // KLOG

  // Where it stands in the layout: the copy and block (of the first and the
  // last sector), and the text of the place ("; config copy 1, block 3",
  // "; primary TOC block 0", "; outside every copy", "" when unlocated),
  // with ": block number differs" when the stored number disagrees.
  std::optional<copy_position> place, last_place;
  std::string where;

  // damaged: the bytes found where the magic should be (as many as it has;
  // fewer when the image ends first).
  std::string found;
};

struct scan_totals {
  std::uint64_t candidates = 0;  // sectors that start with a magic
  std::uint64_t damaged = 0;     // damaged sectors
  std::uint64_t sectors = 0;     // sectors looked at
};

using scan_consumer = std::function<void(const scan_entry&)>;

// Sectors of the image, a cut last sector included.
std::uint64_t scan_sector_count(const inspect_image& img);

// Scans the sectors of `r` (its first below scan_sector_count), placing
// with `places`: every entry to `each`, in order; `at` (if given) is told
// the next sector after each read run.
scan_totals scan_image(inspect_image& img, const copy_places& places, const scan_request& r,
                       const scan_consumer& each,
                       const std::function<void(std::uint64_t)>& at = {});

}  // namespace pd
