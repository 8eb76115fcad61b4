// Whole-disk images: the region the description builds, put into a disk
// with an MBR, a GPT or no table, at the end of the disk or in a partition
// of its own, beside other partitions (docs/privbuild.md, "Whole disks").
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "privbuild/description.h"

namespace pd {

// Whether the statement belongs to the disk around the region.
bool is_whole_disk_statement(const desc_statement& st);

// The disk the statements describe, holding `region` (sectors of
// `sector_size`); false with "line N: ..." in *error.
bool wrap_whole_disk(const std::vector<desc_statement>& statements,
                     const std::vector<std::uint8_t>& region, std::size_t sector_size,
                     std::vector<std::uint8_t>* disk, std::string* error);

}  // namespace pd
