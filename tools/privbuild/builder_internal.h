// Pieces shared by the builder's layout steps.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "privbuild/builder.h"
#include "privbuild/builder_model.h"

namespace pd {

// The image under construction; sector numbers count from its first byte.
struct image {
  std::vector<std::uint8_t> bytes;
  std::size_t ss = 512;

  bool write(std::uint64_t at, const std::uint8_t* p, std::size_t n) {
    if (at > bytes.size() || n > bytes.size() - at) return false;
    if (n != 0) std::memcpy(bytes.data() + at, p, n);
    return true;
  }
  // `n` bytes at sector `s`, or null when they do not lie in the image.
  std::uint8_t* sector(voff_t s, std::size_t n) {
    if (s < 0) return nullptr;
    const std::uint64_t at = static_cast<std::uint64_t>(s) * ss;
    if (at > bytes.size() || n > bytes.size() - at) return nullptr;
    return bytes.data() + at;
  }
};

inline std::string at_line(int line, const std::string& what) {
  return "line " + std::to_string(line) + ": " + what;
}

// The header the layout works with: the described one in the image's own
// sector size, addressing the image from its first sector.
priv_header_info layout_header(const image_plan& plan);

// Writes both TOC chains and fills layout->toc_sectors/alt_toc_sectors;
// sets hdr->phi_first_toc/phi_first_alt_toc to the first block.
bool write_toc(const image_plan& plan, priv_header_info* hdr, image* img, build_layout* layout,
               std::string* error);

// Corrupts a block whose stored checksum is at byte 8: "magic" changes the
// first magic byte, "checksum" adds one to the stored sum.
void apply_damage(std::uint8_t* block, const std::vector<std::string>& damage);

}  // namespace pd
