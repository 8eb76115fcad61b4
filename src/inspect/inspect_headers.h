// The model of `headers`: both header copies read from where the disk
// attributes put them, each decoded whatever its state, the scan's result
// and choice, and every verdict as a finding. The text view and the JSON
// documents print the same model; neither decodes.
//
// A copy whose magic or checksum is wrong is decoded a second time with
// both set aside (magic restored, checksum recomputed in a scratch copy of
// the sector), so that its fields can still be shown and compared; `res`
// is always the real decode result.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/types.h"
#include "inspect/inspect_image.h"
#include "io/findings.h"
#include "private_region/header.h"

namespace pd {

struct header_copy {
  const char* name = "";  // "primary", "alternate"
  voff_t sector = 0;
  std::size_t nread = 0;  // bytes of the sector found in the image
  std::uint8_t buf[PRIV_HEADER_SIZE] = {};
  bool magic_ok = false;
  std::uint32_t stored_sum = 0;
  std::uint32_t computed_sum = 0;
  int res = -1;                     // the real decode result
  int lenient_res = -1;             // with magic and checksum set aside (-1: not tried)
  priv_decode_fault fault;          // where the real decode gave up
  priv_decode_fault lenient_fault;  // where the lenient one did
  bool has_fields = false;          // the body was decoded one way or the other
  priv_header_info hdr;

  bool read() const { return nread == PRIV_HEADER_SIZE; }
};

enum class header_chosen { none, primary, alternate };

// Both copies, the scan's result and every verdict, the scan's choice last.
struct header_view {
  header_copy p, a;
  bool scanned = false;  // the image holds both header positions
  int scan_res = 0;      // privdiag's scan
  header_chosen chosen = header_chosen::none;
  std::string choice;       // the choice as one line (also the last finding's text)
  std::string choice_more;  // lines that explain the choice, if any
  std::vector<finding> findings;
};

// Reads, decodes and compares both copies, then scans as privdiag does.
header_view analyse_headers(inspect_image& img);

}  // namespace pd
