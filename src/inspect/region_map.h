// `privinspect map IMAGE...`: a picture of each region, to scale.
//
// One strip per image, in sectors of the image: both header copies, the
// blocks of both TOC chains, every part of every configuration and log
// copy, and free space between them. A structure does not verify when a
// finding of the whole-region check (region_findings) lies in its sectors.
// Below the strip, one row per configuration copy, in store blocks: the
// database header blocks, then runs of like blocks (used, free, bad,
// incomplete, refused record, record with a finding). A run folds
// consecutive blocks of one kind, so a row has at most one run per change
// of kind whatever the copy's size; its title names up to map_title_records
// records and counts the rest.
//
// The SVG (map_svg.cc) and the text map (map_text.cc) print the same model.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "base/session.h"
#include "inspect/inspect_image.h"

namespace pd {

enum class span_kind { header, toc, config, log, free };
enum class block_kind { db_header, used, free, bad, incomplete, refused, finding };

const char* span_kind_name(span_kind k);
const char* block_kind_name(block_kind k);

inline constexpr int map_title_records = 8;

struct map_span {
  std::uint64_t first = 0, count = 0;  // sectors of the image
  span_kind kind = span_kind::free;
  bool verifies = true;
  std::string title;
};

struct block_run {
  std::uint64_t first = 0, count = 0;  // store blocks of the copy
  block_kind kind = block_kind::free;
  std::string title;
  bool verifies() const {
    return kind == block_kind::db_header || kind == block_kind::used || kind == block_kind::free;
  }
};

struct copy_row {
  int copy = 0;
  bool enabled = true;
  std::uint64_t nblocks = 0;
  std::string title;
  std::vector<block_run> runs;
};

struct disk_map {
  std::string image;
  std::uint64_t sectors = 0;  // length of the strip
  int sector_size = 512;
  std::string note;  // why the strip is incomplete, or empty
  std::vector<map_span> spans;
  std::vector<copy_row> rows;
};

// The map of `t`, read on a silent session of its own. False when the
// image cannot be opened (the reason in m.note); an image that cannot be
// located yields a strip of free space and the reason.
bool build_disk_map(const session& like, const inspect_target& t, disk_map& m);

// Adds block `block` of kind `kind` to `runs`: folded into the last run
// when it is of the same kind and ends just before; `what` (the record, the
// finding) joins the run's title unless already there or past the limit.
void add_block_run(std::vector<block_run>& runs, block_kind kind, std::uint64_t block,
                   const std::string& what);

// A configuration copy drawn outlined, with the reason in its title
// (compare --svg: a copy outside the largest group of identical databases).
struct copy_mark {
  std::size_t disk = 0;  // index in the maps
  int copy = 0;
  std::string why;
};

struct map_svg_options {
  std::uint64_t scale = 0;  // sectors a whole strip's width stands for; 0: each strip its own
  std::vector<copy_mark> marks;
};

void write_map_svg(FILE* out, const std::vector<disk_map>& maps,
                   const map_svg_options& options = {});

// `svg` refused (a message naming `command`, INSPECT_USAGE_IO) when it, or
// its temporary FILE.tmp, is one of the images; else INSPECT_OK.
int refuse_svg_over_input(session& s, const char* command,
                          const std::vector<inspect_target>& targets, const std::string& svg);
// The SVG written to FILE.tmp, then renamed to `svg`.
int write_map_svg_file(session& s, const char* command, const std::vector<disk_map>& maps,
                       const map_svg_options& options, const std::string& svg);
// `fancy`: Unicode blocks and ANSI colours (a terminal without NO_COLOR).
void write_map_text(FILE* out, const std::vector<disk_map>& maps, bool fancy);

// The command: the text map on s.out (its fancy form when `terminal`), or
// the SVG written atomically to `svg` (refused when it is one of the
// images).
int inspect_map(session& s, const std::vector<inspect_target>& targets, const std::string& svg,
                bool terminal);

}  // namespace pd
