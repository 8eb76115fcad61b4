// The private-region image builder: a text description in, an image out.
//
// The description language is documented in docs/privbuild.md. The builder
// lays the image out through the system's own encoders (priv_format_header,
// priv_pack_toc_entry, and priv_update_toc for an automatic TOC), then
// applies the damage the description asks for.
//
// Region contents come from named content generators. A generator receives
// the region (or copy) it fills and the raw lines of the statement's
// begin...end body, and returns the bytes (at most `size`; the rest keeps the
// image's fill) or sets *error. Generators defined in other files of the
// builder are registered by register_builtin_generators() (generators.cc).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "base/priv_info.h"

namespace pd {

struct content_request {
  std::string type;                 // region type: "config", "log", ...
  int copy = 0;                     // copy number of config/log regions, else 0
  std::vector<std::string> lines;   // the begin...end body, verbatim
  std::size_t size = 0;             // bytes to fill (region, or whole copy)
  std::size_t sector_size = 0;      // bytes per sector of the image
  const priv_header_info* header = nullptr;  // the header as laid out
};

using content_generator =
    std::function<std::vector<std::uint8_t>(const content_request& req, std::string* error)>;

// Adds or replaces the generator called `name`.
void register_content_generator(const std::string& name, content_generator fn);
// The generator called `name`, or null.
const content_generator* find_content_generator(const std::string& name);

// Where the builder put things (sectors of the image).
struct build_layout {
  std::size_t sector_size = 0;
  voff_t primary_header = 0;
  voff_t alt_header = 0;
  std::vector<voff_t> toc_sectors;      // primary copy of each TOC block
  std::vector<voff_t> alt_toc_sectors;  // alternate copy of each TOC block
};

// Builds the image; on failure returns an empty vector with the reason
// ("line N: ...") in *error.
std::vector<std::uint8_t> build_image(const std::string& description, std::string* error);
std::vector<std::uint8_t> build_image(const std::string& description, std::string* error,
                                      build_layout* layout);

}  // namespace pd
