// The `config` content generator: a configuration copy (database header,
// records, damage) from description lines. Language: docs/privbuild.md,
// section "The config generator".
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace pd {

// The copy's bytes (`copy_bytes` long), or an empty vector with the reason
// ("config line N: ...") in *error.
std::vector<std::uint8_t> build_config_copy(const std::vector<std::string>& lines,
                                            std::size_t copy_bytes, std::string* error);

// Registers build_config_copy as the content generator "config".
void register_config_generator();

}  // namespace pd
