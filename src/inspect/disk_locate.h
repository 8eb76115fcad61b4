// Whole-disk images: where the private region lies in a dump of a whole
// disk (with an MBR, a GPT or no table), and the window through which every
// view then reads it as if it were a region image.
//
// Each partition, and each stretch of the usable sectors outside them, is
// probed: a header in its last sector, one 96 KiB before its end, then the
// header search from its start that the scan makes. Only when no probe finds
// a region is the whole image scanned for the header's magic.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "base/session.h"
#include "inspect/inspect_image.h"
#include "private_region/partition_table.h"

namespace pd {

struct region_candidate {
  std::uint64_t offset = 0;  // bytes from the image's start
  std::uint64_t length = 0;  // bytes
  int sector_size = 512;
  std::string how;           // where it was found and by which probe
};

struct disk_survey {
  int sector_size = 512;
  partition_tables tables;
  std::vector<region_candidate> candidates;
  std::vector<std::string> problems;  // of the probes (regions that do not fit)
};

// Surveys the image open as `f` (`size` bytes) with sectors of
// `sector_size`. `magic_scan`: scan for the magic when no probe finds one.
disk_survey survey_disk(session& s, FILE* f, std::uint64_t size, int sector_size,
                        bool magic_scan);

// Whether the image is a whole disk rather than a region: it has a
// partition table, or the header in its last sector describes a region
// shorter than the image.
bool looks_like_whole_disk(const disk_survey& d, FILE* f, std::uint64_t size, int sector_size);

// A read-only stream that shows bytes [offset, offset + length) of `base`
// as a whole file (seeks, reads and its length). `base` stays the
// caller's; null when the stream cannot be made.
FILE* open_window(FILE* base, std::uint64_t offset, std::uint64_t length);

// The region a target reads, for an image open as `f`: false after a
// message (no such region, several candidates and no choice). `*window`
// false: the image is read whole, as a region image.
bool choose_region(session& s, const inspect_target& t, FILE* f, std::uint64_t size,
                   bool* window, std::uint64_t* offset, std::uint64_t* length);

// The surveys locate makes: at the sector size given, and when that finds
// no region, at the other. 0 when a candidate is found, 1 when none, 3
// (after a message) when the image cannot be read.
int locate_surveys(session& s, const inspect_target& t, std::uint64_t* size,
                   std::vector<disk_survey>* surveys);
// `privinspect locate DISK`: the tables, their checks and the candidates.
// 0 when a candidate is found, 1 when none, 3 when the image cannot be read.
int inspect_locate(session& s, const inspect_target& t);

}  // namespace pd
