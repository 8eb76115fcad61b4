// The builder's model of a description: what the statements ask for, before
// anything is laid out. builder.cc turns it into an image.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/priv_info.h"
#include "privbuild/description.h"

namespace pd {

struct region_plan {
  int line = 0;
  std::string type;
  voff_t offset = 0;
  voff_t len = 0;
  std::uint16_t flags = 0;
  long long copy = 0;
  long long part_offset = -1;  // -1: after the copy's earlier parts
  long long lock = 0;
  long long lock_offset = 0;
  tagid_region_entry tag;
  bool has_info = false;       // info= replaces the typed payload
  std::vector<std::uint8_t> info;
  int block = -1;              // explicit TOC block, -1: placed automatically
  std::string content;         // generator name, empty: none
  std::vector<std::string> body;
  int fill = -1;               // fill=0xNN, -1: none
};

struct copy_content_plan {
  int line = 0;
  std::string type;
  long long copy = 0;
  std::string content;
  std::vector<std::string> body;
};

struct hdrcopy_plan {
  int line = 0;
  std::string at;  // "primary", "alternate" or a sector number
  std::vector<std::pair<std::string, std::string>> fields;
  std::vector<std::string> damage;
};

struct tocblock_plan {
  int line = 0;
  std::optional<voff_t> at, alt;  // explicit positions (both or neither)
  std::optional<voff_t> next, alt_next;
  std::optional<volseqno_t> seqno;
  std::vector<std::string> damage;
  std::string damage_copy = "both";  // which copies the damage hits
  std::string write = "both";  // both, primary, alternate, none
};

// Statements applied after the layout, in description order.
struct late_op {
  int line = 0;
  std::string kind;  // poke, fixsum, truncate
  std::uint64_t at = 0;           // poke: byte position; fixsum: sector
  std::vector<std::uint8_t> bytes;  // poke
  std::string what;               // fixsum: header or toc
  std::uint64_t length = 0;       // truncate: new length in bytes
};

struct image_plan {
  std::size_t sector_size = 512;
  std::uint64_t bytes = 0;  // image length
  std::uint8_t fill = 0;
  priv_header_info header;  // the header statements applied to the defaults
  bool first_toc_given = false, first_alt_toc_given = false;
  std::vector<region_plan> regions;
  std::vector<copy_content_plan> copy_contents;
  std::vector<hdrcopy_plan> hdrcopies;
  std::vector<tocblock_plan> tocblocks;
  std::vector<late_op> late;
};

// Reads the statements into the model; false with "line N: ..." in *error.
bool read_image_plan(const std::vector<desc_statement>& statements, image_plan* plan,
                     std::string* error);

}  // namespace pd
