// `privinspect extract DISK OUT`: the region every view reads (disk_locate.h
// choose_region) written as a standalone region image that privdiag reads.
// A region image is copied whole.
//
// OUT is written by new_image (new_image.h): atomically, never the input.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "base/session.h"
#include "inspect/inspect_image.h"
#include "inspect/new_image.h"

namespace pd {

struct extract_result {
  std::string out;
  std::uint64_t offset = 0;  // of the region in the input, in bytes
  std::uint64_t length = 0;  // of the region, in bytes
  std::uint64_t bytes = 0;   // written to OUT: `length` once OUT is in place
};

// Writes the target's region to `out`. INSPECT_OK, or INSPECT_USAGE_IO
// after a message on s.err naming the file and the reason. `r` is filled
// as far as the run got.
int extract_region(session& s, const inspect_target& t, const std::string& out, bool force,
                   extract_result* r, const file_calls& calls = system_file_calls());

// The text view: one line on s.out saying what was written.
int inspect_extract(session& s, const inspect_target& t, const std::string& out, bool force);

}  // namespace pd
