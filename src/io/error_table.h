// The table behind vol_strerror: error number and English text, in lookup
// order (not sorted; two numbers occur twice and the first row wins).
#pragma once

#include <cstddef>
#include <cstdint>

namespace pd {

struct vol_strerror_codes {
  std::int32_t verrno;
  const char* str;
};

extern const vol_strerror_codes errstrs[];
extern const std::size_t n_errstrs;

}  // namespace pd
